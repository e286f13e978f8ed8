-- SPDX-License-Identifier: MIT
-- schema-citus.sql - has Citus distribute the rows of schema.sql over its nodes, by the bucket of their keys.
--
-- For a superuser, once, on the coordinator, where schema.sql has been run as the same user and the nodes have been added; months and
-- rows that are there already are distributed, too:
--
--   psql -d zelk -f schema.sql && psql -d zelk -f schema-citus.sql
--
-- NOT TRIED WITH CITUS, whose package Debian 12 does not have: only that everything answers the same afterwards, with a
-- create_distributed_table that does nothing. zelk-gather is given the coordinator, as one --database; zelk_spread is not for such a
-- database, and schema.sql is not to be run again in it.
--
-- What is other there: rows are distributed below one level of partitions, the months; a primary key has the bucket; and Citus plans
-- each statement by itself, which may not be recursive over what is distributed, nor write within WITH. So what schema.sql has
-- inlined into its questions becomes functions that ask for themselves.

\set ON_ERROR_STOP on
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS citus;
BEGIN;

-- ---- One level of partitions ------------------------------------------------------------------------------------------

ALTER TABLE zelk_incident DETACH PARTITION zelk_incident_here;
ALTER TABLE zelk_incident RENAME TO zelk_incident_row; -- whose rows functions return
ALTER TABLE zelk_incident_here RENAME TO zelk_incident;
ALTER TABLE zelk_incident DROP CONSTRAINT zelk_incident_here_pkey, ADD PRIMARY KEY (time, key, bucket);

DO $$
DECLARE
  name regprocedure;
BEGIN
  FOREACH name IN ARRAY ARRAY['zelk_make_partition(timestamptz)', 'zelk_drop_before(interval)']::regprocedure[] LOOP
    EXECUTE replace(pg_get_functiondef(name), 'zelk_incident_here', 'zelk_incident');
  END LOOP;
  EXECUTE 'CREATE OR REPLACE VIEW zelk_plain AS ' || replace(pg_get_viewdef('zelk_plain'), 'zelk_incident_row', 'zelk_incident');
END $$;

SELECT create_distributed_table('zelk_incident', 'bucket') \g /dev/null

-- ---- Taking lines in --------------------------------------------------------------------------------------------------

-- Which of the rows were added is not told where not all of them were.
CREATE OR REPLACE FUNCTION zelk_add(hosts text[], lines text[], keys text[], causes text[]) RETURNS text[] LANGUAGE plpgsql AS $$
DECLARE
  count bigint;
BEGIN
  INSERT INTO zelk_incident (bucket, time, key, cause, host, incident)
    SELECT zelk_bucket(each.key), zelk_time(each.key), each.key, each.cause, left(coalesce(each.host, ''), 255), each.line::json
      FROM unnest(hosts, lines, keys, causes) WITH ORDINALITY AS each (host, line, key, cause, number) WHERE each.key IS NOT NULL
      ORDER BY each.key COLLATE "C", each.number
    ON CONFLICT DO NOTHING;
  GET DIAGNOSTICS count = ROW_COUNT;
  RETURN CASE WHEN count = cardinality(array_remove(keys, NULL)) THEN array_remove(keys, NULL) END;
END $$;

-- ---- Asking -----------------------------------------------------------------------------------------------------------

-- Goes to one shard.
CREATE OR REPLACE FUNCTION zelk_row(key text) RETURNS SETOF zelk_incident_row LANGUAGE plpgsql STABLE AS $$
#variable_conflict use_column
DECLARE
  at CONSTANT timestamptz := zelk_time(zelk_row.key);
  own CONSTANT smallint := zelk_bucket(zelk_row.key);
BEGIN
  RETURN QUERY SELECT i.* FROM zelk_incident i WHERE i.key = zelk_row.key AND i.time = at AND i.bucket = own;
END $$;

-- A question a level to all shards; its answer is joined here.
CREATE OR REPLACE FUNCTION zelk_levels(id text) RETURNS TABLE (depth int, keys text[], causes bigint[]) LANGUAGE plpgsql STABLE AS $$
#variable_conflict use_column
DECLARE
  found text[];
  found_causes text[];
BEGIN
  depth := 0;
  keys := ARRAY[id];
  causes := ARRAY[1];
  WHILE keys IS NOT NULL LOOP
    RETURN NEXT;
    depth := depth + 1;
    SELECT array_agg(key ORDER BY time, key), array_agg(cause ORDER BY time, key) INTO found, found_causes
      FROM zelk_incident WHERE cause = ANY (zelk_levels.keys) AND key <> id;
    SELECT array_agg(cause.number ORDER BY effect.number) INTO causes
      FROM unnest(found_causes) WITH ORDINALITY AS effect (cause, number)
        JOIN unnest(zelk_levels.keys) WITH ORDINALITY AS cause (key, number) ON cause.key = effect.cause;
    keys := found;
  END LOOP;
END $$;

-- The same questions, asked by themselves.
DO $$
DECLARE
  name regprocedure;
  asked text;
BEGIN
  FOREACH name IN ARRAY ARRAY['zelk_recent(timestamptz)', 'zelk_earlier(timestamptz)']::regprocedure[] LOOP
    SELECT prosrc INTO asked FROM pg_proc WHERE oid = name;
    EXECUTE format(E'CREATE OR REPLACE FUNCTION %s RETURNS %s LANGUAGE plpgsql STABLE AS %L', replace(name::text, '(', '(since '),
                   pg_get_function_result(name), E'#variable_conflict use_column\nBEGIN RETURN QUERY ' || asked || '; END');
  END LOOP;
END $$;

GRANT SELECT ON zelk_incident TO zelk_reader;
COMMIT;
