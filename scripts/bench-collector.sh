#!/usr/bin/env bash
# Collector throughput: N ECS alarms (default 20000) pushed over TCP syslog through rsyslog with the
# shipped collector configuration into PostgreSQL, all on the loopback of a network namespace of its
# own. Prints alarms per second from the first message sent to the last row stored. Root; not run by CI.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
COUNT=${COUNT:-20000}
PG=/usr/lib/postgresql/15/bin
NS=hostagent-bench-collector-$$
WORK=$(mktemp -d /tmp/hostagent-bench-collector-XXXXXX)

cleanup() {
  [ -f "$WORK/rsyslog.pid" ] && kill "$(cat "$WORK/rsyslog.pid")" 2>/dev/null || true
  runuser -u postgres -- "$PG/pg_ctl" -D "$WORK/pg" -m fast stop >/dev/null 2>&1 || true
  ip netns del "$NS" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

chmod 0755 "$WORK"
install -d -o postgres "$WORK/pg" "$WORK/sock"
mkdir -p "$WORK/rsyslog"
ip netns add "$NS"
ip -n "$NS" link set lo up
runuser -u postgres -- "$PG/initdb" -D "$WORK/pg" -A trust -U postgres >/dev/null
runuser -u postgres -- "$PG/pg_ctl" -D "$WORK/pg" -l "$WORK/pg/postgres.log" \
  -o "-k $WORK/sock -c listen_addresses=''" -w start >/dev/null
psql -h "$WORK/sock" -U postgres -d postgres -qc "CREATE DATABASE hostagent"
psql -h "$WORK/sock" -U postgres -d hostagent -q -f "$ROOT/packaging/collector/schema.sql"

sed -e "s|COLLECTOR_LISTEN_ADDRESS|127.0.0.1|; s|COLLECTOR_DB_HOST|$WORK/sock|; s|COLLECTOR_DB_PORT|5432|" \
    -e "s|COLLECTOR_DB_NAME|hostagent|; s|COLLECTOR_DB_USER|postgres|; s|COLLECTOR_DB_PASSWORD||" \
    "$ROOT/packaging/collector/hostagent-collector.conf" >"$WORK/collector.conf"
printf 'global(workDirectory="%s")\ninclude(file="%s")\n' "$WORK/rsyslog" "$WORK/collector.conf" >"$WORK/rsyslog.conf"
ip netns exec "$NS" rsyslogd -f "$WORK/rsyslog.conf" -i "$WORK/rsyslog.pid"
sleep 1

echo "bench-collector: sending $COUNT alarms"
start=$(date +%s.%N)
ip netns exec "$NS" python3 - "$COUNT" <<'PY'
import json, socket, sys
count = int(sys.argv[1])
s = socket.create_connection(("127.0.0.1", 6514))
for i in range(count):
    doc = json.dumps({"@timestamp": "2026-11-24T00:00:00.000Z", "event": {"id": "bench-%d" % i,
        "action": "port-scan-probe", "kind": "alert"}, "source": {"ip": "10.0.0.%d" % (i % 250 + 1)},
        "destination": {"ip": "10.1.0.1", "port": 22}, "host": {"name": "host%d" % (i % 500)}},
        separators=(",", ":"))
    msg = "<28>1 2026-11-24T00:00:00.000000Z bench hostagent 1 portscan_0002 - " + doc
    data = msg.encode()
    s.sendall(b"%d " % len(data) + data)
s.close()
PY
for _ in $(seq 1 600); do
  stored=$(psql -h "$WORK/sock" -U postgres -d hostagent -Atc "SELECT count(*) FROM hostagent_alarms")
  [ "$stored" -ge "$COUNT" ] && break
  sleep 0.5
done
end=$(date +%s.%N)
awk -v n="$stored" -v a="$start" -v b="$end" \
  'BEGIN { printf "bench-collector: %d alarms stored in %.1f s: %.0f alarms per second\n", n, b - a, n / (b - a) }'
