-- Records in PostgreSQL, as columns (qdul_records) or as they are in JSON (qdul_json); both in
-- one table for each day. Loading creates the tables of days that are missing.
--
--   qdlogview -P server -o postgres --cursor-file=place | psql -c 'COPY qdul_rows FROM STDIN'
--   qdlogview -P server -o json --cursor-file=place | sed 's/\\/\\\\/g' |
--       psql -c 'COPY qdul_lines FROM STDIN'
--
-- qdul-load puts the files of a spool there, each of them once. queries.sql has what operators
-- ask. Days begin at midnight UTC. A day goes with: DROP TABLE qdul_records_20240301.

-- ---- columns ---------------------------------------------------------------------------------
-- qdlogview -o postgres writes them in this order. Ids have 64 bits without a sign. A column is
-- null where a record does not have the field.

CREATE TABLE qdul_records (
    ts              bigint,
    time            timestamptz,
    type            smallint,
    kind            text NOT NULL,
    product         numeric(20),
    product_name    text,
    originator      numeric(20),
    originator_name text,
    file_originator numeric(20),
    msgid           numeric(20),
    pid             numeric(20),
    tid             numeric(20),
    context         text,
    text            text NOT NULL,
    who             text,
    subject         text,
    title           text,
    severity        smallint,
    severity_text   text,
    level           integer,
    outcome         integer,
    host            text,
    logset          text,
    block           text,
    file            text NOT NULL,
    "offset"        numeric(20) NOT NULL
) PARTITION BY RANGE (time);

-- Records without a time.
CREATE TABLE qdul_records_untimed PARTITION OF qdul_records DEFAULT;

-- A record that comes twice is there once, whatever brings it.
CREATE UNIQUE INDEX qdul_records_once ON qdul_records
    ("offset", time, hashtextextended(coalesce(host, '') || ':' || file, 0));
CREATE INDEX qdul_records_time ON qdul_records USING brin (time);
CREATE INDEX qdul_records_worse ON qdul_records (product, time) WHERE severity >= 60;
CREATE INDEX qdul_records_context ON qdul_records (context, time) WHERE context IS NOT NULL;
CREATE INDEX qdul_records_title ON qdul_records (title) WHERE title IS NOT NULL;

-- ---- JSON ------------------------------------------------------------------------------------

CREATE TABLE qdul_json (
    time   timestamptz,
    record jsonb NOT NULL
) PARTITION BY RANGE (time);

CREATE TABLE qdul_json_untimed PARTITION OF qdul_json DEFAULT;

CREATE UNIQUE INDEX qdul_json_once ON qdul_json
    ((record ->> 'offset'), time, hashtextextended(coalesce(record ->> 'host', '') || ':' || (record ->> 'file'), 0));
CREATE INDEX qdul_json_time ON qdul_json USING brin (time);
CREATE INDEX qdul_json_worse ON qdul_json ((record ->> 'product'), time)
    WHERE (record ->> 'severity')::integer >= 60;
CREATE INDEX qdul_json_context ON qdul_json ((record ->> 'context'), time)
    WHERE record ? 'context';

-- ---- loading ---------------------------------------------------------------------------------

-- Makes the table of a day; also of one that another session makes now.
CREATE FUNCTION qdul_make_day(parent text, day date) RETURNS void LANGUAGE plpgsql AS $$
DECLARE
    name text := parent || to_char(day, '_YYYYMMDD');
BEGIN
    IF to_regclass(name) IS NULL THEN
        PERFORM pg_advisory_xact_lock(hashtext(name));
        EXECUTE format('CREATE TABLE IF NOT EXISTS %I PARTITION OF %I FOR VALUES FROM (%L) TO (%L)',
                       name, parent, day::text || ' 00:00:00+00', (day + 1)::text || ' 00:00:00+00');
    END IF;
END $$;

-- What is copied here is in the table of its day; nothing stays here.
CREATE UNLOGGED TABLE qdul_rows (LIKE qdul_records);
CREATE UNLOGGED TABLE qdul_lines (line text NOT NULL);

CREATE FUNCTION qdul_take_rows() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM qdul_make_day('qdul_records', day)
        FROM (SELECT DISTINCT (time AT TIME ZONE 'UTC')::date AS day FROM added WHERE time IS NOT NULL) AS days;
    INSERT INTO qdul_records SELECT * FROM added ON CONFLICT DO NOTHING;
    DELETE FROM qdul_rows;
    RETURN NULL;
END $$;

CREATE TRIGGER qdul_take_rows AFTER INSERT ON qdul_rows
    REFERENCING NEW TABLE AS added FOR EACH STATEMENT EXECUTE FUNCTION qdul_take_rows();

-- A text cannot hold a zero byte here: it becomes U+FFFD.
CREATE FUNCTION qdul_parse(line text) RETURNS jsonb LANGUAGE sql IMMUTABLE STRICT AS $$
    SELECT CASE WHEN strpos(line, '\u0000') = 0 THEN line
                ELSE regexp_replace(line, '(?<!\\)((?:\\\\)*)\\u0000', '\1\\ufffd', 'g') END::jsonb
$$;

CREATE FUNCTION qdul_time(record jsonb) RETURNS timestamptz LANGUAGE sql IMMUTABLE STRICT AS $$
    SELECT to_timestamp((record ->> 'ts')::numeric / 1000)
$$;

CREATE FUNCTION qdul_take_lines() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
    PERFORM qdul_make_day('qdul_json', day)
        FROM (SELECT DISTINCT (qdul_time(qdul_parse(line)) AT TIME ZONE 'UTC')::date AS day FROM added) AS days
        WHERE day IS NOT NULL;
    INSERT INTO qdul_json
        SELECT qdul_time(record), record FROM (SELECT qdul_parse(line) AS record FROM added) AS parsed
        ON CONFLICT DO NOTHING;
    DELETE FROM qdul_lines;
    RETURN NULL;
END $$;

CREATE TRIGGER qdul_take_lines AFTER INSERT ON qdul_lines
    REFERENCING NEW TABLE AS added FOR EACH STATEMENT EXECUTE FUNCTION qdul_take_lines();

-- What came alone and could not be read, such as a line that somebody cut.
CREATE TABLE qdul_refused (
    arrived timestamptz NOT NULL DEFAULT now(),
    line    text NOT NULL
);

-- Takes lines that come one by one, as rsyslog sends them; it refuses none, since who sends them
-- would send that one for ever.
CREATE VIEW qdul_line AS SELECT line FROM qdul_lines;

CREATE FUNCTION qdul_take_line() RETURNS trigger LANGUAGE plpgsql AS $$
DECLARE
    record jsonb;
    moment timestamptz;
BEGIN
    BEGIN
        record := qdul_parse(NEW.line);
        moment := qdul_time(record);
    EXCEPTION WHEN data_exception THEN
        INSERT INTO qdul_refused VALUES (DEFAULT, NEW.line);
        RETURN NEW;
    END;
    IF moment IS NOT NULL THEN
        PERFORM qdul_make_day('qdul_json', (moment AT TIME ZONE 'UTC')::date);
    END IF;
    INSERT INTO qdul_json VALUES (moment, record) ON CONFLICT DO NOTHING;
    RETURN NEW;
END $$;

CREATE TRIGGER qdul_take_line INSTEAD OF INSERT ON qdul_line FOR EACH ROW EXECUTE FUNCTION qdul_take_line();

-- Takes lines of log files as they are: JSON with host, file, offset (places of lines) and line,
-- one by one, as rsyslog sends them without a spool. A line that is no record is a text.
CREATE VIEW qdul_raw AS SELECT line FROM qdul_lines;

-- The string of a record ("5:hello,") at a place, which moves behind it; null when there is none.
CREATE FUNCTION qdul_string(bytes bytea, INOUT at integer, OUT value text) LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
    colon  integer := position('\x3a'::bytea IN substring(bytes FROM at FOR 11));
    length integer;
BEGIN
    length := convert_from(substring(bytes FROM at FOR colon - 1), 'UTF8');
    value := convert_from(substring(bytes FROM at + colon FOR length), 'UTF8');
    at := at + colon + length;
    IF octet_length(bytes) >= at AND get_byte(bytes, at - 1) <> 44 THEN
        RAISE data_exception;
    END IF;
    at := at + 1;
END $$;

CREATE FUNCTION qdul_parse_raw(host text, file text, "offset" numeric, line text) RETURNS qdul_records LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE
    r       qdul_records;
    name    text := regexp_replace(file, '^.*/', '');
    heads   text[] := regexp_match(line, '^(?:([0-4]),(\d+),(\d+),(\d+),(\d+),(-?\d+),(\d+),(\d+)|([0-4]),(\d+),(\d+),(-?\d+),(\d+),(\d+)),\d+:');
    bytes   bytea := convert_to(line, 'UTF8');
    at      integer;
    rest    text;
    number  integer;
BEGIN
    r.host := host; r.file := file; r."offset" := "offset"; r.kind := 'unknown';
    r.text := translate(line, E'\r', E'\n');
    IF heads IS NULL THEN
        RETURN r;
    END IF;
    IF heads[1] IS NOT NULL THEN
        r.type := heads[1]; r.product := heads[2]; r.originator := heads[3]; r.file_originator := heads[4];
        r.msgid := heads[5]; r.ts := heads[6]; r.pid := heads[7]; r.tid := heads[8];
    ELSE
        r.type := heads[9]; r.originator := heads[10]; r.msgid := heads[11]; r.ts := heads[12]; r.pid := heads[13]; r.tid := heads[14];
        r.product := substring(name FROM '^(\d+)-');
        r.logset := substring(name FROM '^\d+-(.*)-\d{12}\.log$');
    END IF;
    r.time := to_timestamp(r.ts::numeric / 1000);
    r.kind := (ARRAY['debug', 'diagnostic', 'application', 'context', 'audit'])[r.type + 1];
    at := octet_length(substring(line FROM '^(?:-?\d+,)+')) + 1;
    SELECT s.at, nullif(s.value, '') INTO at, r.context FROM qdul_string(bytes, at) AS s;
    SELECT s.at, translate(s.value, E'\r', E'\n') INTO at, r.text FROM qdul_string(bytes, at) AS s;
    SELECT s.at, s.value INTO at, rest FROM qdul_string(bytes, at) AS s;
    rest := nullif(rest, '');
    r.who := CASE WHEN r.type <= 2 THEN rest END;
    r.title := CASE WHEN r.type = 3 THEN rest END;
    r.subject := CASE WHEN r.type = 4 THEN rest END;
    rest := convert_from(substring(bytes FROM at), 'UTF8');
    number := CASE WHEN r.type <> 3 THEN substring(rest FROM '^-?\d+')::integer END;
    r.level := CASE WHEN r.type <= 1 THEN number END;
    r.outcome := CASE WHEN r.type = 4 THEN number END;
    r.block := nullif(substring(rest FROM '\(.*\)$'), '(0|)');
    r.severity := CASE r.type WHEN 0 THEN 10 WHEN 1 THEN 20 WHEN 3 THEN 30 WHEN 4 THEN 40 ELSE (ARRAY[30, 50, 60, 70, 80])[number + 1] END;
    r.severity_text := CASE r.type WHEN 2 THEN (ARRAY['info', 'warning', 'error', 'critical', 'emergency'])[number + 1] ELSE r.kind END;
    RETURN r;
EXCEPTION WHEN data_exception OR numeric_value_out_of_range OR invalid_text_representation THEN
    r.kind := 'unknown';
    r.text := translate(line, E'\r', E'\n');
    RETURN r;
END $$;

CREATE FUNCTION qdul_take_raw() RETURNS trigger LANGUAGE plpgsql AS $$
DECLARE
    -- A zero byte becomes another one byte for the time being, so that lengths hold.
    line   text := CASE WHEN strpos(NEW.line, '\u0000') = 0 THEN NEW.line
                        ELSE regexp_replace(NEW.line, '(?<!\\)((?:\\\\)*)\\u0000', '\1\\u0001', 'g') END;
    record jsonb;
    r      qdul_records;
BEGIN
    BEGIN
        record := line;
        IF record -> 'line' IS NULL OR record -> 'file' IS NULL OR (record ->> 'offset')::numeric IS NULL THEN
            RAISE data_exception;
        END IF;
    EXCEPTION WHEN data_exception THEN
        INSERT INTO qdul_refused VALUES (DEFAULT, NEW.line);
        RETURN NEW;
    END;
    r := qdul_parse_raw(record ->> 'host', record ->> 'file', (record ->> 'offset')::numeric, record ->> 'line');
    IF line <> NEW.line THEN
        r.text := translate(r.text, E'\u0001', E'\ufffd');
    END IF;
    IF r.time IS NOT NULL THEN
        PERFORM qdul_make_day('qdul_records', (r.time AT TIME ZONE 'UTC')::date);
    END IF;
    INSERT INTO qdul_records SELECT r.* ON CONFLICT DO NOTHING;
    RETURN NEW;
END $$;

CREATE TRIGGER qdul_take_raw INSTEAD OF INSERT ON qdul_raw FOR EACH ROW EXECUTE FUNCTION qdul_take_raw();

-- The files of spools that are loaded.
CREATE TABLE qdul_loaded (
    spool   text   NOT NULL, -- host and directory
    number  bigint NOT NULL,
    records bigint NOT NULL,
    PRIMARY KEY (spool, number)
);
