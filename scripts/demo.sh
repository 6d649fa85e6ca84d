#!/usr/bin/env bash
# A two-host lab in network namespaces: hostagent watches one host with the shipped policy, nmap
# scans it from the other, and the alarms are printed as they arrive. Needs root; takes about
# two minutes; leaves nothing behind (DEMO_KEEP=1 keeps the agent's log and alarm files).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=lab.sh
source "$ROOT/scripts/lab.sh"
lab_paths "$ROOT"

# Private lab addresses on one veth pair; neither namespace has a default route.
MON=hostagent-demo-mon-$$
SCAN=hostagent-demo-scan-$$
MON_ADDR=10.66.0.1
SCAN_ADDR=10.66.0.2
# A tick is a minute; the first one builds the capture socket, the next sends the alarms.
ALARM_WAIT=100

WORK=""
AGENT_PID=""

if [[ -t 1 ]]; then BOLD=$'\033[1m' PLAIN=$'\033[0m'; else BOLD="" PLAIN=""; fi
say() { printf '\n%s==> %s%s\n' "$BOLD" "$*" "$PLAIN"; }
die() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

cleanup() {
  local status=$?
  trap - EXIT INT TERM
  if [[ -n $AGENT_PID ]] && kill -0 "$AGENT_PID" 2>/dev/null; then
    kill -TERM "$AGENT_PID" 2>/dev/null || true
    for _ in $(seq 50); do
      kill -0 "$AGENT_PID" 2>/dev/null || break
      sleep 0.2
    done
    kill -KILL "$AGENT_PID" 2>/dev/null || true
  fi
  ip netns del "$MON" 2>/dev/null || true
  ip netns del "$SCAN" 2>/dev/null || true
  if [[ -n $WORK && -z ${DEMO_KEEP:-} ]]; then
    rm -rf "$WORK"
  elif [[ -n $WORK ]]; then
    echo "demo: agent files kept in $WORK"
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

[[ $(id -u) -eq 0 ]] || die "run as root (sudo make demo): the lab needs network namespaces"
for tool in ip nmap jq; do
  command -v "$tool" >/dev/null || die "$tool is missing; scripts/install-deps.sh installs it"
done
[[ -x $AGENT && -f $MODULE ]] || die "build first: $AGENT or $MODULE is missing (make build)"

# One line per alarm document.
print_alarm() {
  jq -r '"  ALARM \(.event_classid) \(.event_name | (. + "                ")[:17])"
         + " \(.network_info.protocol)\(if .network_info.app_protocol != "" then "/" + .network_info.app_protocol else "" end)"
         + "  from \(.network_info.remote_address):\(.network_info.remote_port)"
         + "  to port \(.network_info.local_port)"' <<<"$1"
}

WORK=$(mktemp -d /tmp/hostagent-demo-XXXXXX)

say "Lab: $MON ($MON_ADDR, monitored) <-> $SCAN ($SCAN_ADDR, scanner), no default route"
lab_up "$MON" "$MON_ADDR" "$SCAN" "$SCAN_ADDR"

say "Agent configuration: $SHIPPED_CONFIG with paths into $WORK"
lab_agent_config "$SHIPPED_CONFIG" "$MODULE" "$POLICY" "$WORK/hostagent.log" "$WORK/alarms.jsonl" >"$WORK/agent.json"
"$AGENT" --config "$WORK/agent.json" --check-config >/dev/null || die "the agent refused $WORK/agent.json"

TCP_PORTS=$(jq -r '[.content.port_scan_task.monitor_list[] | select(.type == 0 or .type == 2) | .port]
                   | join(",")' "$POLICY")
UDP_PORTS=$(jq -r '[.content.port_scan_task.monitor_list[] | select(.type == 1 or .type == 2) | .port]
                   | join(",")' "$POLICY")
[[ -n $TCP_PORTS || -n $UDP_PORTS ]] || die "the shipped policy watches no port"
echo "  policy $POLICY watches TCP $TCP_PORTS and UDP $UDP_PORTS"

say "Starting hostagent in $MON"
# `ip netns exec` replaces itself with the agent, so $! is the agent's pid.
ip netns exec "$MON" "$AGENT" --config "$WORK/agent.json" >"$WORK/agent.out" 2>"$WORK/agent.err" &
AGENT_PID=$!
STARTED=$SECONDS
for _ in $(seq 150); do
  grep -q "Reload BPF rules" "$WORK/hostagent.log" 2>/dev/null && break
  kill -0 "$AGENT_PID" 2>/dev/null || { cat "$WORK/agent.err" >&2; die "the agent stopped"; }
  sleep 0.2
done
grep -q "Reload BPF rules" "$WORK/hostagent.log" || die "no capture socket after 30 s; see the log above"
echo "  pid $AGENT_PID; capture socket and kernel filter are in place"

PORTS=()
[[ -n $TCP_PORTS ]] && PORTS+=("T:$TCP_PORTS")
[[ -n $UDP_PORTS ]] && PORTS+=("U:$UDP_PORTS")
PORT_LIST=$(IFS=,; echo "${PORTS[*]}")
# Two rounds: a port is alarmed from its second probe on. The agent reads one frame per wake-up
# of its capture socket, so the probes are spaced rather than sent in one burst.
for round in 1 2; do
  say "Scan round $round from $SCAN: nmap -sS -sU -p $PORT_LIST $MON_ADDR"
  ip netns exec "$SCAN" nmap -sS -sU -Pn -n -p "$PORT_LIST" --scan-delay 50ms --max-retries 0 \
    --host-timeout 40s "$MON_ADDR" | awk '$1 ~ /^[0-9]+\/(tcp|udp)$/ { n[$2]++ }
                       END { printf "  nmap saw:"; for (s in n) printf " %d %s", n[s], s; print "" }'
done

say "Waiting for the next one-minute tick of the agent (up to $((ALARM_WAIT - (SECONDS - STARTED))) s)"
shown=0
quiet_since=""
while ((SECONDS - STARTED < ALARM_WAIT)); do
  kill -0 "$AGENT_PID" 2>/dev/null || die "the agent stopped unexpectedly"
  total=0
  [[ -f $WORK/alarms.jsonl ]] && total=$(wc -l <"$WORK/alarms.jsonl")
  if ((total > shown)); then
    tail -n "+$((shown + 1))" "$WORK/alarms.jsonl" | head -n "$((total - shown))" | while IFS= read -r line; do
      print_alarm "$line"
    done
    shown=$total
    quiet_since=$SECONDS
  fi
  # A tick sends all its alarms at once: three quiet seconds after the first one and we are done.
  [[ -n $quiet_since ]] && ((SECONDS - quiet_since >= 3)) && break
  sleep 1
done

say "Stopping the agent (SIGTERM)"
kill -TERM "$AGENT_PID"
code=0
wait "$AGENT_PID" || code=$?
AGENT_PID=""
echo "  agent exit code $code after $((SECONDS - STARTED)) s; $(wc -l <"$WORK/alarms.jsonl") alarm(s) in its file"

if ((shown == 0)); then
  die "no alarm arrived; agent log tail:
$(tail -n 20 "$WORK/hostagent.log")"
fi
say "Done: $shown alarm(s) shown; removing the lab"
