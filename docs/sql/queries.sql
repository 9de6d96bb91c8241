-- What operators ask of the tables of qdul.sql, for psql:
--
--   psql -v product=5 -v since='2024-03-01 13:00Z' -v context=job-77 -f queries.sql

-- Errors of one product in an hour, over all hosts
SELECT time, host, severity_text, coalesce(originator_name, originator::text) AS originator, who, text
FROM qdul_records
WHERE product = :product AND severity >= 60
  AND time >= :'since' AND time < :'since'::timestamptz + interval '1 hour'
ORDER BY time, host, file, "offset";

-- One context, whatever products it went through
SELECT time, host, coalesce(product_name, product::text) AS product, severity_text, who, text
FROM qdul_records
WHERE context = :'context' OR title = :'context'
ORDER BY time, host, file, "offset";

-- How many in each minute, by severity
SELECT date_trunc('minute', time) AS minute, severity_text, count(*)
FROM qdul_records
WHERE time >= :'since' AND time < :'since'::timestamptz + interval '1 hour'
GROUP BY minute, severity, severity_text
ORDER BY minute, severity;
