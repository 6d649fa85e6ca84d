-- The central store of hostagent alarms (rsyslog with ompgsql writes them; see
-- hostagent-collector.conf) and the views an operator queries.
--   psql -d hostagent -f /usr/share/hostagent/collector/schema.sql

CREATE TABLE IF NOT EXISTS hostagent_alarms (
    event_id text PRIMARY KEY,               -- the alarm's own id: a copy sent twice is stored once
    received timestamptz NOT NULL DEFAULT now(),
    sender   text NOT NULL,                  -- the agent host's address as the collector saw it
    doc      jsonb NOT NULL                  -- the ECS document as the agent sent it
);

-- ompgsql writes plain INSERTs: a copy of a stored alarm is dropped instead of failing the batch
-- (a failing statement would make rsyslog retry it forever).
CREATE OR REPLACE RULE hostagent_alarms_once AS
    ON INSERT TO hostagent_alarms
    WHERE EXISTS (SELECT 1 FROM hostagent_alarms stored WHERE stored.event_id = NEW.event_id)
    DO INSTEAD NOTHING;

CREATE INDEX IF NOT EXISTS hostagent_alarms_source ON hostagent_alarms ((doc -> 'source' ->> 'ip'));
-- ECS times are UTC text ("2026-11-23T12:11:22.421Z"): as text they sort in time order.
CREATE INDEX IF NOT EXISTS hostagent_alarms_time ON hostagent_alarms ((doc ->> '@timestamp'));
CREATE INDEX IF NOT EXISTS hostagent_alarms_received ON hostagent_alarms (received);

-- One row per probe of a port: the per-port alarms, and each port a scan summary lists.
CREATE OR REPLACE VIEW portscan_probes AS
SELECT doc -> 'source' ->> 'ip' AS source,
       doc -> 'host' ->> 'name' AS host,
       (doc -> 'destination' ->> 'port')::integer AS port,
       (doc ->> '@timestamp')::timestamptz AS seen
FROM hostagent_alarms
WHERE doc -> 'event' ->> 'action' = 'port-scan-probe'
UNION ALL
SELECT doc -> 'source' ->> 'ip', doc -> 'host' ->> 'name', listed.port::integer,
       (doc ->> '@timestamp')::timestamptz
FROM hostagent_alarms, jsonb_array_elements_text(doc -> 'hostagent' -> 'portscan' -> 'ports') AS listed(port)
WHERE doc -> 'event' ->> 'action' = 'port-scan-summary';

-- Per source and host: what each scanner did to each host.
CREATE OR REPLACE VIEW portscan_sources AS
SELECT source, host, count(DISTINCT port) AS ports, min(seen) AS first_probe, max(seen) AS last_probe
FROM portscan_probes
GROUP BY source, host;

-- Sources that touched three hosts or more since `since`: sweeps no single host sees.
CREATE OR REPLACE FUNCTION portscan_sweeps_since(since interval)
RETURNS TABLE (source text, hosts bigint, ports bigint, first_probe timestamptz, last_probe timestamptz)
LANGUAGE sql STABLE AS $$
    SELECT source, count(DISTINCT host), count(DISTINCT port), min(seen), max(seen)
    FROM portscan_probes
    WHERE seen >= now() - since
    GROUP BY source
    HAVING count(DISTINCT host) >= 3
    ORDER BY count(DISTINCT host) DESC
$$;

-- The last hour's sweeps.
CREATE OR REPLACE VIEW portscan_sweeps AS SELECT * FROM portscan_sweeps_since(interval '1 hour');
