#!/usr/bin/env bash
# Load benchmark of the agent with the shipped config and policy, in two network namespaces on one
# veth pair (no default route): idle CPU and wake-ups, CPU during an iperf3 stream and an hping3
# SYN flood to a served port (both bounded), memory, and instructions per handled probe under
# callgrind. Prints one table. Needs root; takes about three minutes; not run by CI.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=lab.sh
source "$ROOT/scripts/lab.sh"
lab_paths "$ROOT"

IDLE_SECONDS=${BENCH_IDLE_SECONDS:-60}
STREAM_SECONDS=10
FLOOD_SECONDS=5
FLOOD_PACKETS=250000      # at most this many SYNs, one every 20 us
# A port of the shipped policy that a program serves here (iperf3): the agent must not care.
SERVED_PORT=8080
# A watched port nothing serves, flooded from a spoofed public source.
SPOOF_PORT=3389
# Probes for the instruction count: this many per free watched port, below the freeze limit (20).
PROBES_PER_PORT=10

MON=hostagent-bench-mon-$$
LOAD=hostagent-bench-load-$$
MON_ADDR=10.67.0.1
LOAD_ADDR=10.67.0.2

WORK=""
PIDS=()

die() {
  printf 'bench: %s\n' "$*" >&2
  exit 1
}

# Stops a process this script started: SIGTERM, then SIGKILL after $2 seconds (default 20).
stop_pid() {
  local pid=$1
  kill -0 "$pid" 2>/dev/null || return 0
  kill -TERM "$pid" 2>/dev/null || true
  for _ in $(seq $((${2:-20} * 5))); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.2
  done
  kill -KILL "$pid" 2>/dev/null || true
}

cleanup() {
  local status=$?
  trap - EXIT INT TERM
  for pid in "${PIDS[@]}"; do stop_pid "$pid"; done
  ip netns del "$MON" 2>/dev/null || true
  ip netns del "$LOAD" 2>/dev/null || true
  [[ -n $WORK && -z ${BENCH_KEEP:-} ]] && rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

[[ $(id -u) -eq 0 ]] || die "run as root (sudo make bench): the lab needs network namespaces"
for tool in ip jq iperf3 hping3 valgrind callgrind_annotate; do
  command -v "$tool" >/dev/null || die "$tool is missing; scripts/install-deps.sh installs it"
done
[[ -x $AGENT && -f $MODULE ]] || die "build first: $AGENT or $MODULE is missing (make build)"

WORK=$(mktemp -d /tmp/hostagent-bench-XXXXXX)
lab_up "$MON" "$MON_ADDR" "$LOAD" "$LOAD_ADDR"

lab_agent_config "$SHIPPED_CONFIG" "$MODULE" "$POLICY" "$WORK/hostagent.log" "$WORK/alarms.jsonl" >"$WORK/agent.json"
"$AGENT" --config "$WORK/agent.json" --check-config >/dev/null || die "the agent refused $WORK/agent.json"

CLK_TCK=$(getconf CLK_TCK)
# CPU seconds (user + system) of a process, all threads.
cpu_seconds() { awk -v hz="$CLK_TCK" '{ sub(/^.*\) /, ""); printf "%.3f", ($12 + $13) / hz }' "/proc/$1/stat"; }
# Context switches, voluntary and not, summed over the threads the process has now.
switches() { cat /proc/"$1"/task/*/status 2>/dev/null | awk '/ctxt_switches/ { n += $2 } END { print n + 0 }'; }
status_kb() { awk -v key="$2:" '$1 == key { print $2 }' "/proc/$1/status"; }
wait_for_capture() {
  for _ in $(seq "$2"); do
    grep -q "Reload BPF rules" "$WORK/$1" 2>/dev/null && return 0
    sleep 0.5
  done
  die "no capture socket; see $WORK/$1"
}

# The served port is taken before the agent starts, so its list leaves it out from the start.
ip netns exec "$MON" iperf3 -s -p "$SERVED_PORT" >"$WORK/iperf3-server.out" 2>&1 &
PIDS+=($!)
ip netns exec "$MON" "$AGENT" --config "$WORK/agent.json" >"$WORK/agent.out" 2>"$WORK/agent.err" &
AGENT_PID=$!
PIDS+=("$AGENT_PID")
wait_for_capture hostagent.log 60
sleep 2

echo "bench: idle for ${IDLE_SECONDS}s"
cpu0=$(cpu_seconds "$AGENT_PID") sw0=$(switches "$AGENT_PID")
sleep "$IDLE_SECONDS"
cpu1=$(cpu_seconds "$AGENT_PID") sw1=$(switches "$AGENT_PID")
idle_cpu=$(awk -v a="$cpu0" -v b="$cpu1" -v s="$IDLE_SECONDS" 'BEGIN { printf "%.2f%%", (b - a) / s * 100 }')
idle_wakeups=$(awk -v a="$sw0" -v b="$sw1" -v s="$IDLE_SECONDS" 'BEGIN { printf "%.1f", (b - a) / s }')
idle_rss=$(status_kb "$AGENT_PID" VmRSS)

echo "bench: iperf3 stream to port $SERVED_PORT for ${STREAM_SECONDS}s"
cpu0=$(cpu_seconds "$AGENT_PID")
stream=$(ip netns exec "$LOAD" timeout $((STREAM_SECONDS + 15)) iperf3 -c "$MON_ADDR" -p "$SERVED_PORT" \
  -t "$STREAM_SECONDS" -J | jq -r '.end.sum_received.bits_per_second / 1e9 | . * 100 | floor / 100')
cpu1=$(cpu_seconds "$AGENT_PID")
stream_cpu=$(awk -v a="$cpu0" -v b="$cpu1" 'BEGIN { printf "%.2f", b - a }')

echo "bench: hping3 SYN flood to port $SERVED_PORT for ${FLOOD_SECONDS}s"
cpu0=$(cpu_seconds "$AGENT_PID")
ip netns exec "$LOAD" timeout $((FLOOD_SECONDS + 1)) hping3 -q -S -p "$SERVED_PORT" -i u20 -c "$FLOOD_PACKETS" \
  "$MON_ADDR" >"$WORK/hping3.out" 2>&1 || true
cpu1=$(cpu_seconds "$AGENT_PID")
flood_cpu=$(awk -v a="$cpu0" -v b="$cpu1" 'BEGIN { printf "%.2f", b - a }')
flood_sent=$(awk '/packets transmitted/ { print $1 }' "$WORK/hping3.out")

# A closed watched port flooded from a spoofed public source: with the shipped policy's
# reportable_sources_only the kernel filter drops every frame, so the agent should not notice.
echo "bench: spoofed public SYN flood to watched closed port $SPOOF_PORT for ${FLOOD_SECONDS}s"
cpu0=$(cpu_seconds "$AGENT_PID")
ip netns exec "$LOAD" timeout $((FLOOD_SECONDS + 1)) hping3 -q -S -a 198.51.100.7 -p "$SPOOF_PORT" -i u20 \
  -c "$FLOOD_PACKETS" "$MON_ADDR" >"$WORK/hping3-spoofed.out" 2>&1 || true
cpu1=$(cpu_seconds "$AGENT_PID")
spoof_cpu=$(awk -v a="$cpu0" -v b="$cpu1" 'BEGIN { printf "%.2f", b - a }')
spoof_sent=$(awk '/packets transmitted/ { print $1 }' "$WORK/hping3-spoofed.out")
load_rss=$(status_kb "$AGENT_PID" VmRSS)
peak_rss=$(status_kb "$AGENT_PID" VmHWM)
kill -0 "$AGENT_PID" 2>/dev/null || die "the agent stopped under load; see $WORK/agent.err"
stop_pid "$AGENT_PID"

# Instructions per handled probe: the agent under callgrind, SYN probes to the free watched ports,
# cost and calls of the per-frame handler taken from its call sites.
echo "bench: instructions per probe (callgrind; about a minute)"
sed "s|$WORK/hostagent.log|$WORK/callgrind-agent.log|" "$WORK/agent.json" >"$WORK/agent-callgrind.json"
ip netns exec "$MON" valgrind --tool=callgrind --callgrind-out-file="$WORK/callgrind.out" \
  --compress-strings=no --compress-pos=no "$AGENT" --config "$WORK/agent-callgrind.json" \
  >"$WORK/callgrind.stdout" 2>"$WORK/callgrind.stderr" &
GRIND_PID=$!
PIDS+=("$GRIND_PID")
wait_for_capture callgrind-agent.log 240
sleep 2
ports=$(jq -r '[.content.port_scan_task.monitor_list[] | select(.type == 0 or .type == 2) | .port
               | select(. != '"$SERVED_PORT"')] | join(" ")' "$POLICY")
probes=0
for port in $ports; do
  ip netns exec "$LOAD" timeout 10 hping3 -q -S -p "$port" -i u100000 -c "$PROBES_PER_PORT" "$MON_ADDR" \
    >/dev/null 2>&1 || true
  probes=$((probes + PROBES_PER_PORT))
done
sleep 2
stop_pid "$GRIND_PID" 120  # callgrind writes its counts on the way out
# A call record: "cfn=callee", "calls=N position", then "position inclusive-cost".
read -r handled instructions < <(awk '
  /^fn=/ { inside = 0; next }
  /^cfn=/ { inside = ($0 ~ /CollectPortInfoTask::HandleSocketBuffer/); next }
  /^calls=/ { if (inside) { split($1, c, "="); calls += c[2]; take = 1 }; next }
  take { cost += $2; take = 0 }
  END { print calls + 0, cost + 0 }' "$WORK/callgrind.out")
per_probe=$(awk -v n="$handled" -v c="$instructions" 'BEGIN { if (n > 0) printf "%.0f", c / n; else print "n/a" }')

kernel=$(uname -r)
cpu_model=$(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)
printf '\nhostagent load benchmark: %s, %s cores (%s), kernel %s, load average %s\n' \
  "$(date -u +%Y-%m-%d)" "$(nproc)" "$cpu_model" "$kernel" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-52s %s\n' "measure" "value"
printf '%-52s %s\n' "idle CPU over ${IDLE_SECONDS}s (shipped policy, no traffic)" "$idle_cpu"
printf '%-52s %s\n' "idle wake-ups per second (context switches)" "$idle_wakeups"
printf '%-52s %s\n' "CPU seconds, ${STREAM_SECONDS}s iperf3 stream to served port" "$stream_cpu (stream ${stream} Gbit/s)"
printf '%-52s %s\n' "CPU seconds, ${FLOOD_SECONDS}s hping3 SYN flood to served port" "$flood_cpu (${flood_sent:-?} SYNs sent)"
printf '%-52s %s\n' "CPU seconds, ${FLOOD_SECONDS}s spoofed public SYN flood, closed port" "$spoof_cpu (${spoof_sent:-?} SYNs sent)"
printf '%-52s %s\n' "VmRSS idle / after load / peak (KiB)" "$idle_rss / $load_rss / $peak_rss"
printf '%-52s %s\n' "instructions per handled probe (callgrind)" "$per_probe ($handled frames handled, $probes probes sent)"
