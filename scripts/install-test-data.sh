#!/usr/bin/env bash
# Test-only data from npm: the Elastic Common Schema's field definitions (@elastic/ecs), the oracle
# the ECS mapping's unit test checks every field against. The product uses nothing from npm.
# Idempotent: an existing copy of the same version is kept.
set -euo pipefail

ECS_VERSION=9.4.0
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
DEST="$ROOT/.deps/ecs"

if [ -s "$DEST/ecs_flat.json" ] && [ "$(cat "$DEST/version" 2>/dev/null)" = "$ECS_VERSION" ]; then
  echo "install-test-data: @elastic/ecs $ECS_VERSION present"
  exit 0
fi
if ! command -v npm >/dev/null 2>&1 || ! command -v node >/dev/null 2>&1; then
  echo "install-test-data: installing npm and node from Debian"
  export DEBIAN_FRONTEND=noninteractive
  apt-get -o DPkg::Lock::Timeout=300 update -q
  apt-get -o DPkg::Lock::Timeout=300 install -y -q --no-install-recommends npm nodejs
fi
rm -rf "$DEST"
mkdir -p "$DEST"
npm install --no-audit --no-fund --prefix "$DEST" "@elastic/ecs@$ECS_VERSION" >"$DEST/npm.log" 2>&1 || {
  cat "$DEST/npm.log" >&2
  exit 1
}
node -e 'process.stdout.write(JSON.stringify(require(process.argv[1]).EcsFlat))' \
  "$DEST/node_modules/@elastic/ecs/generated/ecs_flat.js" >"$DEST/ecs_flat.json"
echo "$ECS_VERSION" >"$DEST/version"
echo "install-test-data: @elastic/ecs $ECS_VERSION in $DEST"
