#!/usr/bin/env bash
# Installs every Debian package the build, the agent and the tests need.
# Idempotent: packages already present are left alone, apt is not touched.
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config clang-format
  # libraries the runtime and the module link
  libpoco-dev libjsoncpp-dev libboost-dev libsafec-dev libsystemd-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # end-to-end tests: namespaces, scanners, socket inspection
  iproute2 nmap hping3 netcat-openbsd procps
  # make fuzz: clang with libFuzzer; make bench: load generator and instruction counts
  clang libclang-rt-14-dev iperf3 valgrind
  # make demo: edits the agent's configuration and prints alarms
  jq
  # make package and its test: the .deb, its lint, the unit check, rotation, a real syslog collector
  dpkg-dev fakeroot lintian systemd logrotate man-db rsyslog
  # metrics read by a real node exporter; the service booted by a real systemd in a container
  prometheus-node-exporter curl mmdebstrap systemd-container
  # the fail2ban hand-off: a real fail2ban banning through nftables
  fail2ban nftables
  # the fleet collector: rsyslog into PostgreSQL, and the larger fleets' outputs its configs name
  postgresql rsyslog-pgsql rsyslog-elasticsearch rsyslog-kafka
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: run as root (sudo make ...) to install them" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get -o DPkg::Lock::Timeout=300 update -q
apt-get -o DPkg::Lock::Timeout=300 install -y -q --no-install-recommends "${missing[@]}"
