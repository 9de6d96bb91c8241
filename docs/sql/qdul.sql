-- Records in PostgreSQL. qdlogview -o postgres writes rows for it, the columns in this order:
--
--   qdlogview -P server -o postgres --cursor-file=place | psql -c 'COPY qdul_records FROM STDIN'
--
-- Ids have 64 bits without a sign. A column is null where a record does not have the field.

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
);

-- What operators ask: a time range, the errors of a product, all of a context.
CREATE INDEX qdul_records_time ON qdul_records USING brin (time);
CREATE INDEX qdul_records_worse ON qdul_records (product, severity, time) WHERE severity >= 50;
CREATE INDEX qdul_records_context ON qdul_records (context, time) WHERE context IS NOT NULL;
