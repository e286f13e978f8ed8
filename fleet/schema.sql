-- SPDX-License-Identifier: MIT
-- schema.sql - the database of a fleet: one row an incident, whatever is delivered twice, and what can be asked of it.
--
-- Made once, by the owner of an empty database (PostgreSQL 15), from any folder:
--
--   createdb zelk && psql -d zelk -v ON_ERROR_STOP=1 -f schema.sql
--
-- Two roles come with it, without a password: zelk_writer may call zelk_put and nothing else; zelk_reader may read.
-- Times are those of the nodes. A key is the Error ID, or for an incident without one "#" and a hash of what it says.

\set ON_ERROR_STOP on
BEGIN;

-- ---- What is kept ---------------------------------------------------------------------------------------------------

CREATE TABLE zelk_incident (
  time      timestamptz NOT NULL,                            -- when it was recorded, to the second
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  key       text        NOT NULL,
  cause     text,                                            -- key of the incident that caused this one
  host      text        NOT NULL,                            -- name of the node that sent it
  incident  json        NOT NULL,                            -- the line of zkexport, byte for byte
  PRIMARY KEY (key, time)
) PARTITION BY RANGE (time);
CREATE INDEX zelk_incident_cause ON zelk_incident (cause) WHERE cause IS NOT NULL;
CREATE INDEX zelk_incident_time ON zelk_incident (time);

-- For months that have no partition of their own: clocks that are far off end up here.
CREATE TABLE zelk_incident_other PARTITION OF zelk_incident DEFAULT;

-- Gaps (incidents were overwritten before they could be read) and damaged stacks. `place` tells two gaps of a stack apart:
-- it is the spool file of the node and the offset of the line in it.
CREATE TABLE zelk_notice (
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  host      text        NOT NULL,
  place     text        NOT NULL,
  kind      text        NOT NULL CHECK (kind IN ('gap', 'error')),
  stack     text        NOT NULL,
  notice    json        NOT NULL
);
CREATE UNIQUE INDEX zelk_notice_key ON zelk_notice (host, place, md5(notice::text));

-- Lines that are none of these, as they came. Whoever sends them may say nothing of their place.
CREATE TABLE zelk_rejected (
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  host      text        NOT NULL,
  place     text        NOT NULL,
  reason    text        NOT NULL,
  line      text        NOT NULL
);
CREATE UNIQUE INDEX zelk_rejected_key ON zelk_rejected (host, place, md5(line));

CREATE VIEW zelk_gaps AS
  SELECT host, stack, count(*) AS gaps, max(received) AS newest FROM zelk_notice WHERE kind = 'gap' GROUP BY host, stack;

-- ---- Taking lines in ------------------------------------------------------------------------------------------------

-- Makes the partition of the month of `day` where there is none, for times that a clock may well show. Rows of that month
-- that had to wait among the others move in.
CREATE FUNCTION zelk_make_partition(day timestamptz) RETURNS void LANGUAGE plpgsql SET timezone = 'UTC' AS $$
DECLARE
  first timestamptz := date_trunc('month', day);
  behind timestamptz := first + interval '1 month';
  name text := 'zelk_incident_' || to_char(first, 'YYYY_MM');
BEGIN
  IF day NOT BETWEEN now() - interval '10 years' AND now() + interval '1 month' OR to_regclass(name) IS NOT NULL THEN
    RETURN;
  END IF;
  LOCK TABLE zelk_incident IN SHARE UPDATE EXCLUSIVE MODE; -- as ATTACH does; incidents still come in
  IF to_regclass(name) IS NOT NULL THEN
    RETURN; -- another session was faster
  END IF;
  EXECUTE format('CREATE TABLE %I (LIKE zelk_incident INCLUDING ALL)', name);
  EXECUTE format('WITH moved AS (DELETE FROM zelk_incident_other WHERE time >= %L AND time < %L RETURNING *)
                  INSERT INTO %I SELECT * FROM moved', first, behind, name);
  EXECUTE format('ALTER TABLE zelk_incident ATTACH PARTITION %I FOR VALUES FROM (%L) TO (%L)', name, first, behind);
END $$;

-- What is wrong with a line that claims to be an incident, null for nothing. It has to be one that zkexport --input takes.
CREATE FUNCTION zelk_problem(line jsonb) RETURNS text LANGUAGE sql IMMUTABLE AS $$
  SELECT CASE
    WHEN jsonb_typeof(line) <> 'object' THEN 'not an object'
    WHEN jsonb_typeof(line->'stack') IS DISTINCT FROM 'string' THEN 'no stack'
    WHEN line ? 'gap' OR line ? 'error' THEN NULL
    WHEN jsonb_typeof(line->'id') IS NULL OR jsonb_typeof(line->'id') NOT IN ('string', 'null') THEN 'no id'
    WHEN jsonb_typeof(line->'cause') IS NULL OR jsonb_typeof(line->'cause') NOT IN ('string', 'null') THEN 'no cause'
    WHEN missing.members IS NOT NULL THEN 'no ' || missing.members
    WHEN line->>'time' !~ '^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$' THEN 'a time that is not RFC 3339'
    WHEN length(line->>'id') > 42 OR length(line->>'cause') > 42 THEN 'an Error ID that is too long'
  END
  FROM (
    SELECT string_agg(member, ', ') AS members
      FROM (VALUES
        ('number', 'offset'), ('string', 'time'), ('string', 'description'), ('string', 'details'),
        ('string', 'process.name'), ('number', 'process.id'), ('number', 'process.parent'), ('number', 'process.thread'),
        ('string', 'source.file'), ('string', 'source.version'), ('string', 'source.product'), ('number', 'source.line'),
        ('string', 'message.catalog'), ('number', 'message.set'), ('number', 'message.number'),
        ('string', 'message.default'), ('array', 'message.arguments')) wanted (type, member)
      WHERE jsonb_typeof(line #> string_to_array(member, '.')) IS DISTINCT FROM type
  ) missing $$;

-- What an incident says whoever tells it: a copy of its stack has it elsewhere, and the description depends on the
-- node's catalogs.
CREATE FUNCTION zelk_essence(line jsonb) RETURNS jsonb LANGUAGE sql IMMUTABLE AS $$
  SELECT line - '{stack,offset,description,description_base64}'::text[] $$;

-- Takes one line of zkexport from a node. Whatever the line holds, it comes to a table, and the same line comes to the
-- same row; an error means that the database cannot take it now, and that it has to be sent again.
CREATE FUNCTION zelk_put(host text, place text, line text) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = public, pg_temp AS $$
DECLARE
  said jsonb;
  problem text;
  at timestamptz;
  id text;
  known json;
BEGIN
  host := left(host, 255);
  place := left(place, 255);
  BEGIN
    said := line;
    problem := zelk_problem(said);
    at := said->>'time';
  EXCEPTION WHEN others THEN -- no JSON, \u0000, nested too deep, a 31st of June
    problem := SQLERRM;
  END;
  IF problem IS NOT NULL THEN
    INSERT INTO zelk_rejected (host, place, reason, line) VALUES (host, place, problem, line) ON CONFLICT DO NOTHING;
    RETURN;
  END IF;
  IF said ? 'gap' OR said ? 'error' THEN
    INSERT INTO zelk_notice (host, place, kind, stack, notice)
      VALUES (host, place, CASE WHEN said ? 'gap' THEN 'gap' ELSE 'error' END, said->>'stack', line::json)
      ON CONFLICT DO NOTHING;
    RETURN;
  END IF;

  id := said->>'id';
  IF id IS NULL OR id !~ '^[./0-9A-Za-z]{42}$' THEN
    id := '#' || encode(sha256(convert_to(host || ' ' || (said->>'stack') || ' ' || (said->>'offset') || ' ' ||
                                          zelk_essence(said)::text, 'UTF8')), 'hex');
  END IF;
  PERFORM zelk_make_partition(at); -- while nothing is locked that another session waits for
  SELECT i.incident INTO known FROM zelk_incident i WHERE i.key = id LIMIT 1;
  IF NOT FOUND THEN
    INSERT INTO zelk_incident (time, key, cause, host, incident)
      VALUES (at, id, nullif(said->>'cause', ''), host, line::json) ON CONFLICT DO NOTHING;
  ELSIF zelk_essence(known::jsonb) <> zelk_essence(said) THEN
    INSERT INTO zelk_rejected (host, place, reason, line)
      VALUES (host, place, 'another incident has this Error ID', line) ON CONFLICT DO NOTHING;
  END IF;
END $$;

-- ---- Asking ---------------------------------------------------------------------------------------------------------
-- All of these follow causes across nodes, over 1,000 steps at most, and end where causes go round in a circle.

-- The incident `id`, the one that caused it, and so on to the first cause. A cause that has not come in ends the list.
CREATE FUNCTION zelk_causes(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json) LANGUAGE sql STABLE AS $$
  WITH RECURSIVE trail AS (
    SELECT 0 AS depth, i.key, i.time, i.host, i.cause, i.incident FROM zelk_incident i WHERE i.key = zelk_causes.id
    UNION ALL
    SELECT trail.depth + 1, i.key, i.time, i.host, i.cause, i.incident
      FROM trail JOIN zelk_incident i ON i.key = trail.cause WHERE trail.depth < 1000
  ) CYCLE key SET is_again USING seen
  SELECT trail.depth, trail.key, trail.time, trail.host, trail.cause, trail.incident
    FROM trail WHERE NOT is_again ORDER BY trail.depth $$;

-- The incident `id` and all that it led to, each behind its cause, the effects of one cause in the order of their times.
-- An `id` that has not come in has a row without time, host and incident, if there are effects of it.
CREATE FUNCTION zelk_effects(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json) LANGUAGE sql STABLE AS $$
  WITH RECURSIVE trail AS (
    SELECT 0 AS depth, head.key, i.time, i.host, i.cause, i.incident, ARRAY[''] AS way
      FROM (SELECT zelk_effects.id AS key) head LEFT JOIN zelk_incident i USING (key)
      WHERE i.key IS NOT NULL OR EXISTS (SELECT FROM zelk_incident effect WHERE effect.cause = head.key)
    UNION ALL
    SELECT trail.depth + 1, i.key, i.time, i.host, i.cause, i.incident,
           trail.way || (coalesce(i.incident->>'id_time', i.incident->>'time') || i.key)
      FROM trail JOIN zelk_incident i ON i.cause = trail.key WHERE trail.depth < 1000
  ) CYCLE key SET is_again USING seen
  SELECT trail.depth, trail.key, trail.time, trail.host, trail.cause, trail.incident
    FROM trail WHERE NOT is_again ORDER BY trail.way $$;

-- All that belongs to the incident `id`: its first cause, and everything that led to, as zelk_effects has it.
CREATE FUNCTION zelk_chain(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json) LANGUAGE sql STABLE AS $$
  SELECT * FROM zelk_effects(coalesce(
    (SELECT coalesce(c.cause, c.key) FROM zelk_causes(zelk_chain.id) c ORDER BY c.depth DESC LIMIT 1), zelk_chain.id)) $$;

-- First causes of what has been recorded since then, those with the most effects first. Incidents that caused nothing are
-- in it with 0 effects; a first cause that has not come in has no time, host and incident.
CREATE FUNCTION zelk_first_causes(since timestamptz)
RETURNS TABLE (effects bigint, key text, at timestamptz, host text, incident json) LANGUAGE sql STABLE AS $$
  WITH RECURSIVE trail AS (
    SELECT 0 AS depth, i.key AS effect, i.key, i.cause FROM zelk_incident i WHERE i.time >= zelk_first_causes.since
    UNION ALL
    SELECT trail.depth + 1, trail.effect, trail.cause,
           (SELECT i.cause FROM zelk_incident i WHERE i.key = trail.cause LIMIT 1)
      FROM trail WHERE trail.cause IS NOT NULL AND trail.depth < 1000
  ) CYCLE effect, key SET is_again USING seen,
  heads AS (
    SELECT trail.key, count(*) FILTER (WHERE trail.effect <> trail.key) AS effects
      FROM trail WHERE trail.cause IS NULL GROUP BY trail.key
  )
  SELECT heads.effects, heads.key, i.time, i.host, i.incident
    FROM heads LEFT JOIN zelk_incident i USING (key) ORDER BY heads.effects DESC, i.time $$;

-- ---- Who may do what ------------------------------------------------------------------------------------------------

DO $$ BEGIN
  IF to_regrole('zelk_writer') IS NULL THEN CREATE ROLE zelk_writer LOGIN; END IF;
  IF to_regrole('zelk_reader') IS NULL THEN CREATE ROLE zelk_reader LOGIN; END IF;
END $$;
REVOKE ALL ON FUNCTION zelk_put(text, text, text), zelk_make_partition(timestamptz) FROM PUBLIC;
GRANT EXECUTE ON FUNCTION zelk_put(text, text, text) TO zelk_writer;
GRANT SELECT ON zelk_incident, zelk_incident_other, zelk_notice, zelk_rejected, zelk_gaps TO zelk_reader;
SELECT format('REVOKE TEMPORARY ON DATABASE %I FROM PUBLIC', current_database()) \gexec

-- The recursive queries above look dear to the planner and are not; compiling them takes longer than they do.
SELECT format('ALTER DATABASE %I SET jit = off', current_database()) \gexec

COMMIT;
