# Sourced by demo.sh and bench.sh: the two-namespace lab and the agent's config inside it.

# lab_paths ROOT: BUILD (default build, relative to ROOT), the agent, the module, the shipped
# config and the shipped policy.
lab_paths() {
  BUILD=${BUILD:-build}
  [[ $BUILD == /* ]] || BUILD=$1/$BUILD
  AGENT=$BUILD/bin/hostagent
  MODULE=$BUILD/lib/libportscan_module.so
  SHIPPED_CONFIG=$1/config/agent.json
  POLICY=$1/config/policies/portscan.json
}

# lab_up NS_A ADDR_A NS_B ADDR_B: two network namespaces joined by one veth pair (eth0 on both
# sides, /24 addresses), loopback up, no default route.
lab_up() {
  ip netns add "$1"
  ip netns add "$3"
  ip link add eth0 netns "$1" type veth peer name eth0 netns "$3"
  ip -n "$1" addr add "$2/24" dev eth0
  ip -n "$3" addr add "$4/24" dev eth0
  for ns in "$1" "$3"; do
    ip -n "$ns" link set lo up
    ip -n "$ns" link set eth0 up
  done
}

# lab_agent_config SHIPPED_CONFIG MODULE POLICY LOG_FILE ALARM_FILE: the shipped config on stdout,
# with the built module, the given policy, a log file only and a file sink only.
lab_agent_config() {
  jq --arg lib "$2" --arg policy "$3" --arg log "$4" --arg alarms "$5" \
    '.modules = [$lib] | .policies = {"10001": $policy} | .log.file = $log | .log.console = false
     | .report.sinks = [{"type": "file", "path": $alarms}]' \
    "$1"
}
