-- SPDX-License-Identifier: MIT
-- schema.sql - the database of a fleet: one row an incident, whatever is delivered twice, and what can be asked of it.
--
-- For the owner of a database of PostgreSQL 15, from any folder. It makes what is missing, moves what version 1.1 kept, and may
-- be run again at any time:
--
--   createdb zelk && psql -d zelk -f schema.sql
--
-- Two roles come with it, without a password: zelk_writer may call zelk_put and zelk_put_many and nothing else; zelk_reader may
-- read. A key is the Error ID, or for an incident without one "#", its second and a hash of what it says. Time and bucket of
-- a row are in its key, so a key is in one place only, and is looked for there only.

\set ON_ERROR_STOP on
SET client_min_messages = warning;
BEGIN;

-- ---- What version 1.1 kept -------------------------------------------------------------------------------------------

SELECT NOT EXISTS (SELECT FROM pg_attribute WHERE attrelid = to_regclass('public.zelk_incident') AND attname = 'bucket')
       AND to_regclass('public.zelk_incident') IS NOT NULL AS is_upgrade \gset
\if :is_upgrade
DROP VIEW IF EXISTS zelk_gaps;
DROP FUNCTION IF EXISTS zelk_put(text, text, text), zelk_make_partition(timestamptz), zelk_problem(jsonb), zelk_essence(jsonb),
  zelk_causes(text), zelk_effects(text), zelk_chain(text), zelk_first_causes(timestamptz);
CREATE SCHEMA zelk_1_1;
DO $$
DECLARE
  name text;
BEGIN
  FOR name IN SELECT relname FROM pg_class WHERE relnamespace = 'public'::regnamespace AND relkind IN ('r', 'p')
              AND relname LIKE 'zelk\_%' LOOP
    EXECUTE format('ALTER TABLE %I SET SCHEMA zelk_1_1', name);
  END LOOP;
END $$;
\endif

-- ---- What a key says --------------------------------------------------------------------------------------------------

-- The functions of a key take any text: a cause may be one that is no key.

-- A digit of an Error ID; a number there has the base 64, and its least significant digit first. Bytes are reached at once, where
-- characters would be counted from the beginning.
CREATE OR REPLACE FUNCTION zelk_digit(bytes bytea, place int) RETURNS int LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN get_byte(bytes, place) - CASE WHEN get_byte(bytes, place) < ascii('A') THEN ascii('.')
                                     WHEN get_byte(bytes, place) < ascii('a') THEN ascii('A') - 12 ELSE ascii('a') - 38 END;

-- When it was recorded: to the microsecond from an Error ID, else to the second. `bytes` are those of the key, given beside it so that
-- they need not be made for each digit. (Inlined.)
CREATE OR REPLACE FUNCTION zelk_time(key text, bytes bytea) RETURNS timestamptz LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN CASE
  WHEN key LIKE '#%' AND key ~ '^#[0-9]{10}-[0-9a-f]{64}$' THEN to_timestamp(substr(key, 2, 10)::float8)
  WHEN octet_length(bytes) < 17 THEN to_timestamp(0)
  ELSE to_timestamp(
    zelk_digit(bytes, 7) + 64::float8 * (zelk_digit(bytes, 8) + 64::float8 * (zelk_digit(bytes, 9) + 64::float8 * (
    zelk_digit(bytes, 10) + 64::float8 * (zelk_digit(bytes, 11) + 64::float8 * zelk_digit(bytes, 12)))))
    + (zelk_digit(bytes, 13) + 64 * (zelk_digit(bytes, 14) + 64 * (zelk_digit(bytes, 15) + 64 * zelk_digit(bytes, 16)))) / 1e6::float8)
END;

-- Rows are spread by a number of 12 bits: the last digits of the microsecond, or of the hash.
CREATE OR REPLACE FUNCTION zelk_bucket(key text, bytes bytea) RETURNS smallint LANGUAGE sql IMMUTABLE PARALLEL SAFE
RETURN CASE
  WHEN key LIKE '#%' AND key ~ '^#[0-9]{10}-[0-9a-f]{64}$' THEN ('x' || right(key, 3))::bit(12)::int
  WHEN octet_length(bytes) < 17 THEN 0
  ELSE zelk_digit(bytes, 13) + 64 * zelk_digit(bytes, 14)
END::smallint;

CREATE OR REPLACE FUNCTION zelk_time(key text) RETURNS timestamptz LANGUAGE plpgsql IMMUTABLE STRICT PARALLEL SAFE AS $$
DECLARE
  bytes CONSTANT bytea := convert_to(key, 'UTF8');
BEGIN
  RETURN zelk_time(key, bytes);
END $$;

CREATE OR REPLACE FUNCTION zelk_bucket(key text) RETURNS smallint LANGUAGE plpgsql IMMUTABLE STRICT PARALLEL SAFE AS $$
DECLARE
  bytes CONSTANT bytea := convert_to(key, 'UTF8');
BEGIN
  RETURN zelk_bucket(key, bytes);
END $$;

DROP FUNCTION IF EXISTS zelk_digit(text, int); -- of an earlier version

-- ---- What is kept -----------------------------------------------------------------------------------------------------

CREATE TABLE IF NOT EXISTS zelk_incident (
  bucket    smallint    NOT NULL,                            -- zelk_bucket(key)
  time      timestamptz NOT NULL,                            -- zelk_time(key)
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  key       text        NOT NULL,
  cause     text,                                            -- key of the incident that caused this one
  host      text        NOT NULL,                            -- name of the node that sent it
  incident  json        NOT NULL                             -- the line of zkexport, byte for byte
) PARTITION BY RANGE (bucket);

-- What this database keeps itself, by months. A key has one time, so it is there once. With the time first, new rows have their places
-- next to each other, questions since a time need no index of their own, and of many keys of one time each is found at once.
DO $$ BEGIN
  IF to_regclass('zelk_incident_here') IS NULL THEN
    CREATE TABLE zelk_incident_here PARTITION OF zelk_incident (PRIMARY KEY (time, key))
      FOR VALUES FROM (0) TO (4096) PARTITION BY RANGE (time);
    CREATE INDEX zelk_incident_here_cause ON zelk_incident_here (cause) WHERE cause IS NOT NULL;
    CREATE TABLE zelk_incident_other PARTITION OF zelk_incident_here DEFAULT; -- of months that have none of their own
  END IF;
END $$;
-- Rows lie in the order in which they came, so a summary of their blocks says which came since, at no cost to what comes in.
DO $$ BEGIN
  IF to_regclass('zelk_incident_here_received') IS NULL THEN -- IF NOT EXISTS would lock out what comes in before it looks
    CREATE INDEX zelk_incident_here_received ON zelk_incident_here USING brin (received);
  END IF;
END $$;

-- Gaps (incidents were overwritten before they could be read) and damaged stacks. `place` tells two gaps of a stack apart:
-- it is the spool file of the node and the offset of the line in it.
CREATE TABLE IF NOT EXISTS zelk_notice (
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  host      text        NOT NULL,
  place     text        NOT NULL,
  kind      text        NOT NULL CHECK (kind IN ('gap', 'error')),
  stack     text        NOT NULL,
  notice    json        NOT NULL
);
CREATE UNIQUE INDEX IF NOT EXISTS zelk_notice_key ON zelk_notice (host, place, md5(notice::text));

-- Lines that are none of these, as they came. Whoever sends them may say nothing of their place.
CREATE TABLE IF NOT EXISTS zelk_rejected (
  received  timestamptz NOT NULL DEFAULT clock_timestamp(),
  host      text        NOT NULL,
  place     text        NOT NULL,
  reason    text        NOT NULL,
  line      bytea       NOT NULL
);
CREATE UNIQUE INDEX IF NOT EXISTS zelk_rejected_key ON zelk_rejected (host, place, md5(line));

-- Nodes from which signs of life are expected: zelk-check says which are silent. Nobody else needs it.
CREATE TABLE IF NOT EXISTS zelk_node (
  host   text        PRIMARY KEY,                            -- its name, as its certificate says it
  added  timestamptz NOT NULL DEFAULT now()
);

CREATE OR REPLACE VIEW zelk_gaps AS
  SELECT host, stack, count(*) AS gaps, max(received) AS newest FROM zelk_notice WHERE kind = 'gap' GROUP BY host, stack;

-- Incidents in plain columns.
CREATE OR REPLACE VIEW zelk_plain AS
  SELECT time, host, incident->>'node' AS node, incident->>'stack' AS stack,
         incident #>> '{process,name}' AS process, (incident #>> '{process,id}')::int AS pid,
         incident #>> '{source,product}' AS product, incident #>> '{source,file}' AS file,
         (incident #>> '{source,line}')::int AS line, incident->>'description' AS description,
         incident->>'details' AS details, key, cause, received
    FROM zelk_incident;

-- ---- Months -----------------------------------------------------------------------------------------------------------

-- Makes the partition of the month of `day` where there is none. Rows of that month that had to wait among the others move in.
CREATE OR REPLACE FUNCTION zelk_make_partition(day timestamptz) RETURNS void LANGUAGE plpgsql SET timezone = 'UTC' AS $$
DECLARE
  first timestamptz := date_trunc('month', day);
  behind timestamptz := first + interval '1 month';
  name text := 'zelk_incident_' || to_char(first, 'YYYY_MM');
BEGIN
  LOCK TABLE zelk_incident_here IN SHARE UPDATE EXCLUSIVE MODE; -- as ATTACH does; incidents still come in
  IF to_regclass(name) IS NOT NULL THEN
    RETURN; -- another session was faster
  END IF;
  LOCK TABLE zelk_incident_other IN ACCESS EXCLUSIVE MODE; -- ATTACH looks into it
  EXECUTE format('CREATE TABLE %I (LIKE zelk_incident_here INCLUDING ALL)', name);
  EXECUTE format('INSERT INTO %I SELECT * FROM zelk_incident_other WHERE time >= %L AND time < %L', name, first, behind);
  DELETE FROM zelk_incident_other WHERE time >= first AND time < behind;
  EXECUTE format('ALTER TABLE zelk_incident_here ATTACH PARTITION %I FOR VALUES FROM (%L) TO (%L)', name, first, behind);
END $$;

-- Makes the partition of the month of `day` unless somebody has been asking for long what has to be locked for that: rather than
-- have every node wait, rows of the month go to the others until the next try.
CREATE OR REPLACE FUNCTION zelk_try_partition(day timestamptz) RETURNS void LANGUAGE plpgsql SET lock_timeout = '100ms' AS $$
BEGIN
  IF clock_timestamp() >= coalesce(nullif(current_setting('zelk.next_try', true), ''), '-infinity')::timestamptz THEN
    PERFORM zelk_make_partition(day);
  END IF;
EXCEPTION WHEN lock_not_available OR deadlock_detected THEN
  PERFORM set_config('zelk.next_try', (clock_timestamp() + interval '10 seconds')::text, false);
END $$;

-- Drops what was recorded before that time ago, whole months only, and what was received before then of everything else.
-- A month that somebody is asking for stays until the next call. Returns how many months it dropped.
CREATE OR REPLACE FUNCTION zelk_drop_before(age interval) RETURNS int LANGUAGE plpgsql SET timezone = 'UTC'
SET lock_timeout = '500ms' AS $$
DECLARE
  name text;
  dropped int := 0;
BEGIN
  FOR name IN SELECT inhrelid::regclass::text FROM pg_inherits WHERE inhparent = 'zelk_incident_here'::regclass
              AND inhrelid::regclass::text ~ '^zelk_incident_\d{4}_\d\d$' ORDER BY 1 LOOP
    CONTINUE WHEN to_date(right(name, 7), 'YYYY_MM') + interval '1 month' > now() - age;
    BEGIN
      EXECUTE format('DROP TABLE %I', name);
      dropped := dropped + 1;
    EXCEPTION WHEN lock_not_available THEN
      RAISE NOTICE '% is in use', name;
    END;
  END LOOP;
  DELETE FROM zelk_incident_other WHERE time < now() - age;
  DELETE FROM zelk_notice WHERE received < now() - age;
  DELETE FROM zelk_rejected WHERE received < now() - age;
  RETURN dropped;
END $$;

-- ---- Several databases ------------------------------------------------------------------------------------------------
-- Rows are spread over databases by their buckets, each of which keeps a part and reaches the others by postgres_fdw, so that any
-- of them can be asked, and takes any line. To spread rows, or to spread them anew: zelk_unspread() in each database, then
-- zelk_spread(...) in each, by a superuser. Until the last one is done, what writes waits, and what asks sees a part.

-- Lets go of the other databases. What is here stays here.
CREATE OR REPLACE FUNCTION zelk_unspread() RETURNS void LANGUAGE plpgsql AS $$
DECLARE
  name text;
BEGIN
  LOCK TABLE zelk_incident IN ACCESS EXCLUSIVE MODE;
  FOR name IN SELECT inhrelid::regclass FROM pg_inherits WHERE inhparent = 'zelk_incident'::regclass LOOP
    EXECUTE format('ALTER TABLE zelk_incident DETACH PARTITION %s', name);
    IF name <> 'zelk_incident_here' THEN
      EXECUTE format('DROP FOREIGN TABLE %s', name);
    END IF;
  END LOOP;
END $$;

-- Spreads rows over databases, of which this is the one of that number (from 1). Each is given as it is reached from the others,
-- 'host=... port=... dbname=... user=... password=...' with the user that owns the tables there, all in the order in which
-- zelk-gather has them. Rows of this database that belong to others move there.
CREATE OR REPLACE FUNCTION zelk_spread(databases text[], here int) RETURNS void LANGUAGE plpgsql AS $$
DECLARE
  count int := cardinality(databases);
  low int;
  behind int;
  low_here int;
  behind_here int;
  place text;
  login text;
BEGIN
  CREATE EXTENSION IF NOT EXISTS postgres_fdw;
  FOR number IN 1..count LOOP
    low := ((number - 1) * 4096 + count - 1) / count;
    behind := (number * 4096 + count - 1) / count;
    IF number = here THEN
      low_here := low;
      behind_here := behind;
      CONTINUE;
    END IF;
    SELECT string_agg(setting, ', ') FILTER (WHERE name NOT IN ('user', 'password')),
           string_agg(setting, ', ') FILTER (WHERE name IN ('user', 'password'))
      INTO place, login
      FROM (SELECT part[1] AS name, format('%s %L', part[1], trim($q$'$q$ FROM part[2])) AS setting
              FROM regexp_matches(databases[number], $q$(\w+)=('[^']*'|\S+)$q$, 'g') part) settings;
    EXECUTE format('DROP SERVER IF EXISTS zelk_%s CASCADE', number);
    EXECUTE format('CREATE SERVER zelk_%s FOREIGN DATA WRAPPER postgres_fdw OPTIONS (async_capable $q$true$q$, %s)', number, place);
    EXECUTE format('CREATE USER MAPPING FOR CURRENT_USER SERVER zelk_%s OPTIONS (%s)', number, login);
    EXECUTE format('CREATE USER MAPPING FOR zelk_reader SERVER zelk_%s OPTIONS (password_required $q$false$q$, %s)', number, login);
    EXECUTE format('CREATE FOREIGN TABLE zelk_incident_%s PARTITION OF zelk_incident FOR VALUES FROM (%s) TO (%s)
                    SERVER zelk_%s OPTIONS (table_name $q$zelk_incident_here$q$)', number, low, behind, number);
    EXECUTE format('GRANT SELECT ON zelk_incident_%s TO zelk_reader', number);
  END LOOP;
  INSERT INTO zelk_incident SELECT * FROM zelk_incident_here WHERE bucket < low_here OR bucket >= behind_here
    ON CONFLICT DO NOTHING;
  DELETE FROM zelk_incident_here WHERE bucket < low_here OR bucket >= behind_here;
  EXECUTE format('ALTER TABLE zelk_incident ATTACH PARTITION zelk_incident_here FOR VALUES FROM (%s) TO (%s)', low_here, behind_here);
END $$;

-- ---- What is a line of zkexport ---------------------------------------------------------------------------------------

DO $$ BEGIN
  IF to_regtype('zelk_line') IS NULL THEN
    -- What nearly all lines have.
    CREATE TYPE zelk_process AS (name text, id int, parent int, thread int);
    CREATE TYPE zelk_source AS (file text, version text, product text, line int);
    CREATE TYPE zelk_argument AS (type text, value json);
    CREATE TYPE zelk_message AS (catalog text, set int, number int, "default" text, arguments zelk_argument[]);
    CREATE TYPE zelk_line AS (stack text, "offset" bigint, id text, cause text, time text, id_time text, node text,
      process zelk_process, source zelk_source, message zelk_message, description text, details text);
    -- And all that a line may have: texts that are no UTF-8 have a neighbour with their bytes.
    CREATE TYPE zelk_any_process AS (name text, name_base64 text, id int, parent int, thread int);
    CREATE TYPE zelk_any_source AS (file text, file_base64 text, version text, version_base64 text, product text,
      product_base64 text, line int);
    CREATE TYPE zelk_any_argument AS (type text, value json, value_base64 text);
    CREATE TYPE zelk_any_message AS (catalog text, catalog_base64 text, set int, number int, "default" text,
      default_base64 text, arguments zelk_any_argument[]);
    CREATE TYPE zelk_error AS (code int, name text, "offset" bigint, reason text);
    CREATE TYPE zelk_any_line AS (stack text, stack_base64 text, "offset" bigint, id text, id_base64 text, cause text,
      cause_base64 text, time text, id_time text, node text, process zelk_any_process, source zelk_any_source,
      message zelk_any_message, description text, description_base64 text, cut boolean, details text, details_base64 text,
      gap boolean, error zelk_error);
  END IF;
END $$;

-- The line with its control characters as zkexport escapes them, not as PostgreSQL does.
CREATE OR REPLACE FUNCTION zelk_escaped(line text) RETURNS text LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  code int;
BEGIN
  line := replace(line, '\\', E'\x01'); -- which no line has
  FOREACH code IN ARRAY ARRAY[11, 14, 15, 26, 27, 28, 29, 30, 31] LOOP
    line := replace(line, '\u00' || lpad(to_hex(code), 2, '0'), '\u00' || upper(lpad(to_hex(code), 2, '0')));
  END LOOP;
  FOR code IN 127..159 LOOP
    line := replace(line, chr(code), '\u00' || to_hex(code));
  END LOOP;
  RETURN replace(line, E'\x01', '\\');
END $$;

-- What an incident says whoever tells it: a copy of its stack has it elsewhere, and the description depends on the
-- node's catalogs.
CREATE OR REPLACE FUNCTION zelk_essence(line jsonb) RETURNS jsonb LANGUAGE sql IMMUTABLE
RETURN line - '{stack,stack_base64,offset,description,description_base64,cut}'::text[];

-- The text with U+FFFD for each part of it that cannot begin or go on as UTF-8.
CREATE OR REPLACE FUNCTION zelk_repaired(bytes bytea) RETURNS text LANGUAGE sql IMMUTABLE AS $$
  SELECT string_agg(CASE WHEN part[1] <> '' THEN convert_from(convert_to(part[1], 'LATIN1'), 'UTF8') ELSE U&'\FFFD' END, ''
                    ORDER BY number)
    FROM regexp_matches(convert_from(bytes, 'LATIN1'), -- a character a byte
      '((?:[\x01-\x7f]|[\xc2-\xdf][\x80-\xbf]|\xe0[\xa0-\xbf][\x80-\xbf]|[\xe1-\xec\xee\xef][\x80-\xbf]{2}|\xed[\x80-\x9f][\x80-\xbf]|'
      '\xf0[\x90-\xbf][\x80-\xbf]{2}|[\xf1-\xf3][\x80-\xbf]{3}|\xf4[\x80-\x8f][\x80-\xbf]{2})+)|'
      '\xe0[\xa0-\xbf]|[\xe1-\xec\xee\xef][\x80-\xbf]|\xed[\x80-\x9f]|\xf0[\x90-\xbf][\x80-\xbf]?|[\xf1-\xf3][\x80-\xbf]{1,2}|'
      '\xf4[\x80-\x8f][\x80-\xbf]?|[\x80-\xff]', 'g') WITH ORDINALITY AS each (part, number) $$;

-- Whether the text is what the bytes beside it look like, and they are no UTF-8; where there are none it need not be.
CREATE OR REPLACE FUNCTION zelk_is_of_bytes(said text, base64 text) RETURNS boolean LANGUAGE sql IMMUTABLE
RETURN base64 IS NULL OR (translate(encode(decode(base64, 'base64'), 'base64'), E'\n', '') = base64
  AND strpos(said, U&'\FFFD') > 0 AND zelk_repaired(decode(base64, 'base64')) = said AND convert_to(said, 'UTF8') <> decode(base64, 'base64'));

-- The digits of a number without sign, and the power of ten of the last one: 0.0250 is 25 and -3, 0 is none and 0.
CREATE OR REPLACE FUNCTION zelk_digits(written text, OUT digits text, OUT power int) LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  point int;
BEGIN
  digits := split_part(written, 'e', 1);
  point := length(split_part(digits, '.', 2));
  digits := ltrim(replace(digits, '.', ''), '0');
  power := length(digits) - length(rtrim(digits, '0')) - point + coalesce(nullif(split_part(written, 'e', 2), '')::int, 0);
  digits := rtrim(digits, '0');
END $$;

-- Whether a double is written as zkexport does: by the fewest digits that read as the same number, in the shorter one of the two
-- notations, a whole number of any size with all of its digits.
CREATE OR REPLACE FUNCTION zelk_is_double(value text) RETURNS boolean LANGUAGE plpgsql IMMUTABLE SET extra_float_digits = 1 AS $$
DECLARE
  number float8;
  shortest record;
  shorter numeric;
  count int;
  bits bigint;
  written text;
BEGIN
  IF length(value) > 32 OR value !~ '^-?(0|[1-9][0-9]*)(\.[0-9]+)?(e[-+][0-9]{2,3})?$' THEN
    RETURN false;
  END IF;
  number := abs(value::float8);
  shortest := zelk_digits(number::text);
  -- One digit less may stand half way to the next number. It is read as this one, and PostgreSQL does not write it.
  FOR up IN 0..CASE WHEN number < 1e308 THEN 1 ELSE 0 END LOOP
    shorter := div(nullif(shortest.digits, '')::numeric, 10) + up;
    IF (shorter || 'e' || shortest.power + 1)::float8 = number AND shorter > 0 THEN
      shortest := zelk_digits(shorter || 'e' || shortest.power + 1);
    END IF;
  END LOOP;
  count := length(shortest.digits);
  IF count = 0 THEN
    written := '0.0';
  ELSIF shortest.power NOT BETWEEN -3 - (CASE count WHEN 1 THEN 0 ELSE count END) AND 5 - (CASE count WHEN 1 THEN 1 ELSE 0 END) THEN
    written := left(shortest.digits, 1) || CASE count WHEN 1 THEN '' ELSE '.' END || substr(shortest.digits, 2) || 'e' ||
               CASE WHEN shortest.power + count > 0 THEN '+' ELSE '-' END || to_char(abs(shortest.power + count - 1), 'FM900');
  ELSIF shortest.power < 0 THEN
    written := lpad(shortest.digits, greatest(count, 1 - shortest.power), '0');
    written := left(written, shortest.power) || '.' || right(written, -shortest.power);
  ELSIF number < 9007199254740992 THEN
    written := shortest.digits || repeat('0', shortest.power) || '.0';
  ELSE -- 2^53 times a power of two, which has more digits than are told apart
    bits := ('x' || encode(float8send(number), 'hex'))::bit(64)::bigint;
    written := ((bits & 4503599627370495) | 4503599627370496)::numeric * (1::bigint << ((bits >> 52) - 1075)::int) || '.0';
  END IF;
  RETURN ltrim(value, '-') = written;
END $$;

-- Whether an argument has a value of its type. What cannot be converted is an error.
CREATE OR REPLACE FUNCTION zelk_is_argument(type text, value text) RETURNS boolean LANGUAGE sql IMMUTABLE
RETURN CASE
  WHEN type = 'string' THEN value LIKE '"%'
  WHEN type IN ('int', 'long') THEN value::int::text = value
  WHEN type = 'long_long' THEN value::bigint::text = value
  WHEN type = 'double' THEN value IN ('"inf"', '"-inf"', '"nan"', '"-nan"') OR zelk_is_double(value)
  WHEN type = 'pointer' THEN value ~ '^"0x[0-9a-f]{1,16}"$'
  WHEN type IN ('reserved', 'unknown') THEN value ~ '^"[0-9a-f]{16}"$'
  ELSE false
END;

-- The name of a result code, as qx_zelk.h has it.
CREATE OR REPLACE FUNCTION zelk_result_name(code int) RETURNS text LANGUAGE sql IMMUTABLE
RETURN CASE code WHEN -99 THEN 'ZELK_UNSUPPORTED' ELSE (ARRAY[
    'ZELK_FAILURE', 'ZELK_INV_PARAM1', 'ZELK_INV_PARAM2', 'ZELK_INV_PARAM3', 'ZELK_INV_PARAM4', 'ZELK_INV_PARAM5',
    'ZELK_INV_PARAM6', 'ZELK_INV_PARAM7', 'ZELK_INV_PARAM8', 'ZELK_INV_PARAM9', 'ZELK_INV_PARAMCOMBO', NULL,
    'ZELK_DIR_NO_ACCESS', 'ZELK_DIR_MISSING', 'ZELK_STALE', 'ZELK_READ_ONLY', 'ZELK_NOT_A_DIR', 'ZELK_NO_SPACE',
    'ZELK_NO_MEMORY', 'ZELK_TOO_MANY', 'ZELK_LINK_LOOP', 'ZELK_NAME_TOO_LONG', 'ZELK_IS_A_DIR', 'ZELK_FILE_MISSING',
    'ZELK_NO_ACCESS', 'ZELK_FILE_CORRUPT', 'ZELK_FILE_EXIST', 'ZELK_LOCK', 'ZELK_UNLOCK', 'ZELK_IO_ERROR', 'ZELK_INV_ENV',
    'ZELK_INV_STACKNAME', 'ZELK_INV_RECLEN', 'ZELK_INV_RECVERSN', 'ZELK_REC_CORRUPT', 'ZELK_INV_FID', 'ZELK_REMOTE_FID'])[-code] END;

-- What is wrong with a line that not every recorder's stack gives, if nothing else is; `kind` as below.
CREATE OR REPLACE FUNCTION zelk_read_other(line text, OUT kind text, OUT reason text) LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  nothing CONSTANT text := E'\x01null'; -- for null where that is written
  said zelk_any_line := json_populate_record(NULL::zelk_any_line, line::json);
  argument zelk_any_argument;
  head text := '{"stack":' || to_json(said.stack) || coalesce(',"stack_base64":' || to_json(said.stack_base64), '');
  written text;
BEGIN
  kind := CASE WHEN said.gap IS NOT NULL THEN 'gap' WHEN said.error IS DISTINCT FROM NULL THEN 'error' ELSE 'incident' END;
  IF kind = 'gap' THEN
    written := head || ',"gap":true}';
  ELSIF kind = 'error' THEN
    written := head || ',"error":' || json_strip_nulls(row_to_json(said.error)) || '}';
    IF (said.error).code IS NULL OR (said.error).name IS NULL OR coalesce((said.error).reason, '') = '' THEN
      reason := 'a member is missing';
    ELSIF zelk_result_name((said.error).code) IS DISTINCT FROM (said.error).name OR (said.error)."offset" < 0 THEN
      reason := 'an error that is none';
    END IF;
  ELSE
    said.id := coalesce(said.id, nothing);
    said.cause := coalesce(said.cause, nothing);
    written := replace(json_strip_nulls(row_to_json(said))::text, to_json(nothing)::text, 'null');
    FOREACH argument IN ARRAY (said.message).arguments LOOP
      IF NOT zelk_is_of_bytes(argument.value #>> '{}', argument.value_base64) OR
         argument.value_base64 IS NOT NULL AND argument.type <> 'string' THEN
        reason := 'bytes that are not those of their text';
      END IF;
    END LOOP;
  END IF;
  IF strpos(line, '\u') > 0 THEN
    written := zelk_escaped(written);
  END IF;
  IF written IS DISTINCT FROM line OR said.cut IS FALSE OR said.id_time IS NOT NULL AND said.node IS NULL THEN
    reason := 'not as zkexport writes it';
  ELSIF NOT (zelk_is_of_bytes(said.stack, said.stack_base64) AND zelk_is_of_bytes(said.id, said.id_base64)
    AND zelk_is_of_bytes(said.cause, said.cause_base64) AND zelk_is_of_bytes((said.process).name, (said.process).name_base64)
    AND zelk_is_of_bytes((said.source).file, (said.source).file_base64)
    AND zelk_is_of_bytes((said.source).version, (said.source).version_base64)
    AND zelk_is_of_bytes((said.source).product, (said.source).product_base64)
    AND zelk_is_of_bytes((said.message).catalog, (said.message).catalog_base64)
    AND zelk_is_of_bytes((said.message)."default", (said.message).default_base64)
    AND zelk_is_of_bytes(said.description, said.description_base64)
    AND zelk_is_of_bytes(said.details, said.details_base64)) THEN
    reason := 'bytes that are not those of their text';
  END IF;
END $$;

-- Reads one line of zkexport. `kind` is 'incident', 'gap' or 'error', or null with the reason. A line is one when PostgreSQL, told
-- its members, would write the same bytes: so they are all there, once, in their order, and each is what it has to be.
CREATE OR REPLACE FUNCTION zelk_read(host text, line text, OUT kind text, OUT key text, OUT cause text, OUT stack text,
                                     OUT reason text)
LANGUAGE plpgsql STABLE AS $$
DECLARE
  said zelk_line;
  argument zelk_argument;
  is_key boolean;
  id_size int;      -- in bytes
  is_timed boolean; -- it says a time; of its entry nothing is decoded
  said_time text;
  bytes bytea;
  microseconds int;
  kind_said text := 'incident';
BEGIN
  IF line IS NULL OR line NOT LIKE '{"stack":"%' -- or with a control that zkexport escapes, and PostgreSQL does not
    OR strpos(line, E'\x7f') > 0 OR octet_length(line) > length(line) AND line ~ '[\u0080-\u009f]' THEN
    reason := 'not a line of zkexport';
    RETURN;
  END IF;
  said := json_populate_record(NULL::zelk_line, line::json);
  IF row_to_json(said)::text <> line OR strpos(line, '\u') > 0 THEN -- their digits are another's
    SELECT * FROM zelk_read_other(line) INTO kind_said, reason;
  ELSIF said.id_time IS NULL OR said.node IS NULL THEN -- null is not written there
    reason := 'a member is missing';
  END IF;

  IF kind_said = 'incident' AND reason IS NULL THEN
    is_key := coalesce(said.id ~ '^[./0-9A-Za-z]{42}$', false);
    id_size := octet_length(said.id);
    IF strpos(line, '"id_base64":"') > 0 THEN
      id_size := coalesce(length(decode(line::json->>'id_base64', 'base64')), id_size);
    END IF;
    is_timed := false;
    IF id_size = 42 AND said.id ~ '^[./0-9A-Za-z].{1,6}[./0-9A-Za-z]{35}$' THEN
      said_time := '.......' || right(said.id, 35);
      bytes := convert_to(said_time, 'UTF8');
      microseconds := zelk_digit(bytes, 13) + 64 * (zelk_digit(bytes, 14) + 64 * (zelk_digit(bytes, 15) + 64 * zelk_digit(bytes, 16)));
      is_timed := microseconds < 1000000 AND said_time NOT LIKE '.............%';
    END IF;
    reason := CASE
      WHEN said."offset" IS NULL OR said.time IS NULL OR said.description IS NULL OR said.details IS NULL
        OR NOT said.process IS NOT NULL OR NOT said.source IS NOT NULL OR NOT said.message IS NOT NULL
        THEN 'a member is missing'
      WHEN said."offset" < 0
        THEN 'an offset that is none'
      WHEN '' IN (said.id, said.cause) OR length(said.id) > 42 OR length(said.cause) > 42
        THEN 'an Error ID that is none'
      WHEN host(said.node::inet) <> said.node
        THEN 'a node that is no address'
      WHEN said.id_time IS NOT NULL AND NOT (is_timed -- to the second, since microseconds of the year 4000 have no room in a float8
        AND to_char(zelk_time(overlay(said_time PLACING '....' FROM 14)) AT TIME ZONE 'UTC', 'YYYY-MM-DD"T"HH24:MI:SS')
            || '.' || lpad(microseconds::text, 6, '0') || 'Z' = said.id_time)
        THEN 'a time that its Error ID does not say'
      WHEN said.id_time IS NULL AND said.node IS NOT NULL AND is_timed
        THEN 'a member is missing'
      WHEN length(said.time) <> 20 OR said.time COLLATE "C" NOT BETWEEN '1901-12-13T20:45:52Z' AND '2038-01-19T03:14:07Z'
        THEN 'a time that no record has'
      WHEN left(said.id_time, 19) || 'Z' = said.time -- as nearly always
        THEN NULL
      WHEN to_char(said.time::timestamptz AT TIME ZONE 'UTC', 'YYYY-MM-DD"T"HH24:MI:SS"Z"') <> said.time
        THEN 'a time that is none'
    END;
    IF reason IS NULL THEN
      FOREACH argument IN ARRAY (said.message).arguments LOOP
        IF zelk_is_argument(argument.type, argument.value::text) IS NOT TRUE THEN
          reason := 'an argument that is none';
        END IF;
      END LOOP;
    END IF;
  END IF;
  IF reason IS NOT NULL THEN
    RETURN;
  END IF;

  stack := said.stack;
  IF kind_said = 'incident' THEN
    cause := said.cause;
    key := said.id;
    IF NOT is_key THEN
      key := '#' || lpad(greatest(extract(epoch FROM said.time::timestamptz), 0)::bigint::text, 10, '0') || '-' ||
             encode(sha256(convert_to(concat_ws(' ', host, said.stack, said."offset", zelk_essence(line::jsonb)), 'UTF8')), 'hex');
    END IF;
  END IF;
  kind := kind_said;
EXCEPTION WHEN data_exception OR program_limit_exceeded OR statement_too_complex OR feature_not_supported THEN
  kind := NULL;
  reason := SQLERRM; -- no JSON, \u0000, nested too deep, a 31st of June
END $$;

-- A line as the bytes that came.
CREATE OR REPLACE FUNCTION zelk_bytes(line text) RETURNS bytea LANGUAGE sql IMMUTABLE
RETURN CASE
  WHEN line LIKE '\\x%' AND line ~ '^\\x([0-9a-f]{2})*$' THEN decode(substr(line, 3), 'hex')
  ELSE convert_to(coalesce(line, ''), 'UTF8')
END;

-- The row of a key, looked for in its partition only, and in no other database. (Inlined. "LIMIT 1" has the key known before that; what it
-- says is told once by a "SELECT" of its own, and another database is told it, too, since it is a constant there.)
CREATE OR REPLACE FUNCTION zelk_row(key text) RETURNS SETOF zelk_incident LANGUAGE sql STABLE AS $$
  SELECT i.* FROM zelk_incident i
    WHERE i.key = zelk_row.key AND (i.time, i.bucket) = (
      SELECT zelk_time(zelk_row.key, bytes), zelk_bucket(zelk_row.key, bytes) FROM (SELECT convert_to(zelk_row.key, 'UTF8') AS bytes OFFSET 0) key)
    LIMIT 1 $$;

-- ---- Taking lines in --------------------------------------------------------------------------------------------------

DROP FUNCTION IF EXISTS zelk_usual(text), zelk_are_usual(text), zelk_judged(text[], text[], text[]); -- of an earlier version

-- Makes rows of the lines that have a key, where there is none with it; returns the keys of those. In the order of keys, so that
-- sessions with the same lines wait for each other in a row, not in a circle.
CREATE OR REPLACE FUNCTION zelk_add(hosts text[], lines text[], keys text[], causes text[]) RETURNS text[] LANGUAGE plpgsql AS $$
DECLARE
  added text[];
BEGIN
  WITH new AS (
    INSERT INTO zelk_incident (bucket, time, key, cause, host, incident)
      SELECT zelk_bucket(each.key, bytes), zelk_time(each.key, bytes), each.key, each.cause, left(coalesce(each.host, ''), 255), each.line::json
        FROM (SELECT *, convert_to(key, 'UTF8') AS bytes
                FROM unnest(hosts, lines, keys, causes) WITH ORDINALITY AS of (host, line, key, cause, number) WHERE key IS NOT NULL OFFSET 0) each
        ORDER BY each.key COLLATE "C", each.number
      ON CONFLICT DO NOTHING RETURNING key
  )
  SELECT array_agg(new.key) INTO added FROM new;
  RETURN added;
END $$;

-- Takes lines of zkexport from nodes, which may be the same one. Whatever a line holds, it comes to a table, and the same line
-- comes to the same row; an error means that the database cannot take them now, and that they have to be sent again. A line that
-- begins with "\x" stands for bytes that are no text, in hexadecimal digits. Whoever has read the lines gives the key and the cause that
-- zelk_read would find with each that is an incident's, byte for byte, and is believed. A line without a key is read here.
CREATE OR REPLACE FUNCTION zelk_put_many(hosts text[], places text[], lines text[], keys text[], causes text[]) RETURNS void
LANGUAGE plpgsql SECURITY DEFINER SET search_path = public, pg_temp SET standard_conforming_strings = on
SET plan_cache_mode = force_generic_plan SET jit = off SET work_mem = '8MB' AS $$
DECLARE
  month timestamptz;
  kinds text[];   -- of lines that are read here
  stacks text[];
  reasons text[];
  added text[];   -- keys
BEGIN
  FOREACH month IN ARRAY ARRAY[now(), now() + interval '3 days'] LOOP
    IF to_regclass('zelk_incident_' || to_char(month AT TIME ZONE 'UTC', 'YYYY_MM')) IS NULL THEN
      PERFORM zelk_try_partition(month); -- while nothing is locked that another session waits for
    END IF;
  END LOOP;

  IF cardinality(array_remove(keys, NULL)) = cardinality(lines) THEN -- all have been read
    added := zelk_add(hosts, lines, keys, causes);
  ELSE
    SELECT array_agg(coalesce(each.key, said.key) ORDER BY number),
           array_agg(CASE WHEN each.key IS NULL THEN said.cause ELSE each.cause END ORDER BY number),
           array_agg(said.kind ORDER BY number), array_agg(said.stack ORDER BY number), array_agg(said.reason ORDER BY number)
      INTO keys, causes, kinds, stacks, reasons
      FROM unnest(hosts, lines, keys, causes) WITH ORDINALITY AS each (host, line, key, cause, number)
        LEFT JOIN LATERAL (SELECT * FROM zelk_read(each.host, each.line) WHERE each.key IS NULL OFFSET 0) said ON true;
    added := zelk_add(hosts, lines, keys, causes);
    INSERT INTO zelk_notice (host, place, kind, stack, notice)
      SELECT left(coalesce(each.host, ''), 255), left(coalesce(each.place, ''), 255), each.kind, each.stack, each.line::json
        FROM unnest(hosts, places, lines, kinds, stacks) AS each (host, place, line, kind, stack)
        WHERE each.kind IN ('gap', 'error') ORDER BY 1, 2, each.line
      ON CONFLICT DO NOTHING;
  END IF;

  -- Some may be none of these; and some may be there already, perhaps as something else.
  IF coalesce(cardinality(added), 0) < cardinality(lines) THEN
    INSERT INTO zelk_rejected (host, place, reason, line)
      SELECT left(coalesce(each.host, ''), 255), left(coalesce(each.place, ''), 255), each.reason, zelk_bytes(each.line) FROM (
        SELECT of.host, of.place, of.line, of.reason
          FROM unnest(hosts, places, lines, reasons) AS of (host, place, line, reason) WHERE of.reason IS NOT NULL
        UNION ALL
        SELECT of.host, of.place, of.line, 'another incident has this Error ID'
          FROM (SELECT *, row_number() OVER (PARTITION BY key ORDER BY number) > 1 AS is_second
                  FROM unnest(hosts, places, lines, keys) WITH ORDINALITY AS of (host, place, line, key, number) WHERE key IS NOT NULL) of,
               zelk_row(of.key) known
          WHERE (of.is_second OR of.key NOT IN (SELECT unnest(added))) AND known.incident::text <> of.line
            AND zelk_essence(known.incident::jsonb) <> zelk_essence(of.line::jsonb)) each
      ORDER BY 1, 2, each.line
      ON CONFLICT DO NOTHING;
  END IF;
END $$;

CREATE OR REPLACE FUNCTION zelk_put_many(hosts text[], places text[], lines text[]) RETURNS void
LANGUAGE sql SECURITY DEFINER SET search_path = public, pg_temp AS $$
  SELECT zelk_put_many(hosts, places, lines, NULL, NULL) $$;

CREATE OR REPLACE FUNCTION zelk_put(host text, place text, line text) RETURNS void
LANGUAGE sql SECURITY DEFINER SET search_path = public, pg_temp AS $$
  SELECT zelk_put_many(ARRAY[host], ARRAY[place], ARRAY[line]) $$;

-- Rows of version 1.1 keep the time at which they came.
\if :is_upgrade
SELECT zelk_make_partition(month)
  FROM (SELECT DISTINCT date_trunc('month', time AT TIME ZONE 'UTC') AT TIME ZONE 'UTC' AS month FROM zelk_1_1.zelk_incident
        WHERE time BETWEEN now() - interval '10 years' AND now() + interval '1 month') months \g /dev/null
INSERT INTO zelk_incident (bucket, time, received, key, cause, host, incident)
  SELECT zelk_bucket(old.key), zelk_time(old.key), old.received, old.key, old.cause, old.host, old.incident
    FROM (SELECT received, cause, host, incident, CASE WHEN key LIKE '#%'
              THEN '#' || lpad(greatest(extract(epoch FROM time), 0)::bigint::text, 10, '0') || '-' || substr(key, 2) ELSE key END AS key
            FROM zelk_1_1.zelk_incident) old
  ON CONFLICT DO NOTHING;
INSERT INTO zelk_notice SELECT * FROM zelk_1_1.zelk_notice;
INSERT INTO zelk_rejected SELECT received, host, place, reason, convert_to(line, 'UTF8') FROM zelk_1_1.zelk_rejected;
DROP SCHEMA zelk_1_1 CASCADE;
\endif

-- ---- Asking -----------------------------------------------------------------------------------------------------------
-- All of these follow causes across nodes, however far, and end where causes go round in a circle.

-- (Recursive queries look dear to the planner and are not: compiling them would take longer than they do.)

-- The keys of the incident `id`, of its cause, and so on to the first cause.
CREATE OR REPLACE FUNCTION zelk_trail(id text) RETURNS TABLE (depth int, key text) LANGUAGE sql STABLE SET jit = off AS $$
  WITH RECURSIVE trail (key) AS (
    SELECT zelk_trail.id
    UNION -- leaves a circle when it has gone round
    SELECT i.cause FROM trail, zelk_row(trail.key) i WHERE i.cause IS NOT NULL
  )
  SELECT (row_number() OVER () - 1)::int, trail.key FROM trail $$;

-- The incident `id`, the one that caused it, and so on to the first cause. A cause that has not come in ends the list.
DROP FUNCTION IF EXISTS zelk_causes(text);
CREATE FUNCTION zelk_causes(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json) LANGUAGE sql STABLE AS $$
  SELECT step.depth, i.key, i.time, i.host, i.cause, i.incident
    FROM zelk_trail(zelk_causes.id) step, zelk_row(step.key) i ORDER BY step.depth $$;

-- The keys of what the incident `id` led to, level by level, each in the order of times, with the numbers of their causes in the level before.
-- It is a question a level, whichever databases it goes to. Each incident has one cause, so only the first can be met again. (Before
-- the planner knows how many rows there are it would put the question once for each key, with all keys.)
CREATE OR REPLACE FUNCTION zelk_levels(id text) RETURNS TABLE (depth int, keys text[], causes bigint[])
LANGUAGE sql STABLE SET jit = off SET enable_nestloop = off AS $$
  WITH RECURSIVE level (depth, keys, causes) AS (
    SELECT 0, ARRAY[id], ARRAY[1::bigint]
    UNION ALL
    SELECT level.depth + 1, next.keys, next.causes
      FROM level, LATERAL (
        SELECT array_agg(each.key) AS keys, array_agg(each.number) AS causes
          FROM (SELECT i.key, cause.number
                  FROM zelk_incident i JOIN unnest(level.keys) WITH ORDINALITY AS cause (key, number) ON cause.key = i.cause
                  WHERE i.cause = ANY (level.keys) AND i.key <> id ORDER BY i.time, i.key) each) next
      WHERE next.keys IS NOT NULL
  )
  SELECT * FROM level $$;

-- The incident `id` and all that it led to, each behind its cause, the effects of one cause in the order of their times.
-- An `id` that has not come in has a row without time, host and incident, if there are effects of it.
CREATE OR REPLACE FUNCTION zelk_effects(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json)
LANGUAGE plpgsql STABLE SET plan_cache_mode = force_generic_plan AS $$
#variable_conflict use_column
DECLARE
  keys text[];               -- level by level, each level in the order of times
  parents int[];             -- numbers of the causes in `keys`
  levels int[];
  sizes int[];               -- how many they are with all that they led to
  places int[] := ARRAY[1];  -- where they stand in the answer
  next int[];                -- where the next effect of each stands
  level record;
  first int := 0;            -- number of the first of the level before
  last int := 0;
  behind int;
BEGIN
  FOR level IN SELECT * FROM zelk_levels(id) LOOP
    behind := last;
    FOR number IN 1..cardinality(level.keys) LOOP
      last := last + 1;
      keys[last] := level.keys[number];
      parents[last] := first + level.causes[number] - 1;
      levels[last] := level.depth;
      sizes[last] := 1;
    END LOOP;
    first := behind + 1;
  END LOOP;

  FOR number IN REVERSE last..2 LOOP
    sizes[parents[number]] := sizes[parents[number]] + sizes[number];
  END LOOP;
  next := sizes;
  next[1] := 2;
  FOR number IN 2..last LOOP
    places[number] := next[parents[number]];
    next[parents[number]] := places[number] + sizes[number];
    next[number] := places[number] + 1;
  END LOOP;

  RETURN QUERY
    SELECT each.depth, each.key, i.time, i.host, i.cause, i.incident
      FROM unnest(keys, levels, places) each (key, depth, place) LEFT JOIN LATERAL zelk_row(each.key) i ON true
      WHERE last > 1 OR i.key IS NOT NULL ORDER BY each.place;
END $$;

-- All that belongs to the incident `id`: its first cause, and everything that led to, as zelk_effects has it. Where causes go round
-- in a circle, the last step has one, too, which is where the circle is met.
CREATE OR REPLACE FUNCTION zelk_chain(id text)
RETURNS TABLE (depth int, key text, at timestamptz, host text, cause text, incident json) LANGUAGE sql STABLE AS $$
  SELECT * FROM zelk_effects((
    SELECT coalesce((SELECT i.cause FROM zelk_row(step.key) i), step.key)
      FROM zelk_trail(zelk_chain.id) step ORDER BY step.depth DESC LIMIT 1)) $$;

-- What was recorded since then; and what caused some of that earlier. (Inlined.)
DROP FUNCTION IF EXISTS zelk_first_causes(timestamptz), zelk_ranked(timestamptz), zelk_numbered(timestamptz), zelk_recent(timestamptz),
  zelk_earlier(timestamptz);
CREATE FUNCTION zelk_recent(since timestamptz) RETURNS TABLE (key text, cause text, at timestamptz) LANGUAGE sql STABLE AS $$
  SELECT i.key, i.cause, i.time FROM zelk_incident i WHERE i.time >= since $$;

CREATE FUNCTION zelk_earlier(since timestamptz) RETURNS TABLE (cause text) LANGUAGE sql STABLE AS $$
  SELECT i.cause FROM zelk_incident i WHERE i.time >= since AND zelk_time(i.cause) < since
    AND (SELECT EXISTS (SELECT FROM zelk_incident o WHERE o.time < since)) $$; -- the times of causes are what takes longest

-- What zelk_first_causes looks at: incidents since then, before them the earlier ones to which their causes lead, numbered from 1 in
-- the order of their times.
CREATE FUNCTION zelk_numbered(since timestamptz)
RETURNS TABLE (number int, key text, cause text, at timestamptz, is_recent boolean) LANGUAGE sql STABLE AS $$
  WITH RECURSIVE earlier (key) AS (
    SELECT cause FROM zelk_earlier(since)
    UNION
    SELECT i.cause FROM earlier, zelk_row(earlier.key) i WHERE zelk_time(i.cause) < since
  )
  SELECT row_number() OVER (ORDER BY is_recent, at, key COLLATE "C")::int, key, cause, at, is_recent FROM (
    SELECT key, cause, at, true AS is_recent FROM zelk_recent(since)
    UNION ALL
    SELECT i.key, i.cause, i.time, false FROM earlier, zelk_row(earlier.key) i) either $$;

-- The first cause of each incident, by numbers. `causes` has for each the number of its cause: 0 for none, -1 for one that has not
-- come in. The answer has for each the number of the first of its chain, and 0 or -1 for those that are that themselves; -2 for
-- what is in a circle or was led to by one. A cause has the smaller number, unless a clock was set back.
CREATE OR REPLACE FUNCTION zelk_heads(causes int[]) RETURNS int[] LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
  heads int[] := causes; -- up to `number` as they are returned
  head int;
  place int;
  mark int;  -- a place on the way: who comes there again goes round in a circle
  steps int;
  next int;
BEGIN
  FOR number IN 1..coalesce(cardinality(causes), 0) LOOP
    head := heads[number];
    CONTINUE WHEN head <= 0;
    IF head < number THEN
      next := heads[head];
      IF next > 0 OR next = -2 THEN
        heads[number] := next;
      END IF;
      CONTINUE;
    END IF;

    place := number;
    mark := number;
    steps := 0;
    next := 1; -- steps until the mark is set anew
    LOOP
      head := heads[place];
      EXIT WHEN head <= 0;
      IF head = mark THEN
        head := -2;
        EXIT;
      END IF;
      place := head;
      steps := steps + 1;
      IF steps = next THEN
        mark := place;
        next := 2 * next;
      END IF;
    END LOOP;
    head := CASE WHEN head = -2 THEN -2 ELSE place END;
    place := number;
    WHILE heads[place] > 0 AND place <> head LOOP -- nobody goes this way again
      next := heads[place];
      heads[place] := head;
      place := next;
    END LOOP;
  END LOOP;
  RETURN heads;
END $$;

-- First causes of what has been recorded since then, and how many effects each has; one that has not come in has no time. It sorts and
-- joins on the disk when there are many: so a million rows take less than 64 MB.
CREATE FUNCTION zelk_ranked(since timestamptz) RETURNS TABLE (effects bigint, key text, at timestamptz) LANGUAGE sql STABLE
SET jit = off SET work_mem = '2MB' SET hash_mem_multiplier = 1 AS $$
  WITH numbered AS MATERIALIZED (
    SELECT * FROM zelk_numbered(since)
  ), heads AS MATERIALIZED (
    SELECT each.number, CASE WHEN each.head > 0 THEN each.head ELSE each.number END AS head
      FROM unnest(zelk_heads((SELECT array_agg(coalesce(cause.number, CASE WHEN effect.cause IS NULL THEN 0 ELSE -1 END) ORDER BY effect.number)
                                FROM numbered effect LEFT JOIN numbered cause ON cause.key = effect.cause)))
        WITH ORDINALITY AS each (head, number)
      WHERE each.head <> -2 -- a circle has no first cause, nor has what it led to
  ), counted AS MATERIALIZED (
    SELECT head, count(*) FILTER (WHERE number > (SELECT count(*) FROM numbered WHERE NOT is_recent)) AS effects FROM heads GROUP BY head
  )
  SELECT sum(c.effects - CASE WHEN n.cause IS NULL AND n.is_recent THEN 1 ELSE 0 END)::bigint AS effects, coalesce(n.cause, n.key) AS key,
         min(CASE WHEN n.cause IS NULL THEN n.at END) AS at
    FROM counted c JOIN numbered n ON n.number = c.head GROUP BY 2 ORDER BY 1 DESC, 3 $$;

-- First causes of what has been recorded since then, those with the most effects first. Incidents that caused nothing are
-- in it with 0 effects; a first cause that has not come in has no time, host and incident. (They come in the order in which they are
-- ranked, so LIMIT looks for no more rows than it gives.)
CREATE FUNCTION zelk_first_causes(since timestamptz)
RETURNS TABLE (effects bigint, key text, at timestamptz, host text, incident json) LANGUAGE sql STABLE AS $$
  SELECT found.effects, found.key, found.at, i.host, i.incident
    FROM zelk_ranked(since) found LEFT JOIN LATERAL (SELECT * FROM zelk_row(found.key) WHERE found.at IS NOT NULL) i ON true $$;

-- ---- Who may do what --------------------------------------------------------------------------------------------------

DO $$
DECLARE
  name text;
BEGIN
  IF to_regrole('zelk_writer') IS NULL THEN CREATE ROLE zelk_writer LOGIN; END IF;
  IF to_regrole('zelk_reader') IS NULL THEN CREATE ROLE zelk_reader LOGIN; END IF;
  FOR name IN SELECT oid::regprocedure FROM pg_proc WHERE pronamespace = 'public'::regnamespace AND proname LIKE 'zelk\_%' LOOP
    EXECUTE format('REVOKE ALL ON FUNCTION %s FROM PUBLIC', name);
  END LOOP;
END $$;
GRANT EXECUTE ON FUNCTION zelk_put(text, text, text), zelk_put_many(text[], text[], text[]),
  zelk_put_many(text[], text[], text[], text[], text[]) TO zelk_writer;
GRANT EXECUTE ON FUNCTION zelk_digit(bytea, int), zelk_time(text, bytea), zelk_bucket(text, bytea), zelk_time(text), zelk_bucket(text),
  zelk_row(text), zelk_trail(text), zelk_causes(text), zelk_levels(text), zelk_effects(text), zelk_chain(text), zelk_recent(timestamptz),
  zelk_earlier(timestamptz), zelk_numbered(timestamptz), zelk_heads(int[]), zelk_ranked(timestamptz), zelk_first_causes(timestamptz)
  TO zelk_reader;
GRANT SELECT ON zelk_incident, zelk_incident_here, zelk_incident_other, zelk_notice, zelk_rejected, zelk_node, zelk_gaps, zelk_plain
  TO zelk_reader;
SELECT format('REVOKE TEMPORARY ON DATABASE %I FROM PUBLIC', current_database()) \gexec

-- Functions have the settings that they need: whoever asks otherwise has the server's, which an earlier version changed here.
SELECT format('ALTER DATABASE %I RESET %I', current_database(), split_part(setting, '=', 1))
  FROM pg_db_role_setting, unnest(setconfig) setting
  WHERE setdatabase = (SELECT oid FROM pg_database WHERE datname = current_database()) AND setrole = 0
    AND setting IN ('jit=off', 'work_mem=2MB', 'hash_mem_multiplier=1') \gexec

SELECT zelk_make_partition(now() + months * interval '1 month') FROM generate_series(-1, 1) months \g /dev/null
COMMIT;
