#!/usr/bin/env bash
# Runs every fuzz target for SECONDS each, one after the other, starting from its checked-in seeds
# (new inputs go to BUILD/corpus/<target>, so the seeds stay as they are), and prints one line per
# target: its name, executions and the result. Exits non-zero when a target found something.
# Usage: fuzz.sh BUILD SECONDS
set -uo pipefail

build=$1
seconds=$2
root=$(cd "$(dirname "$0")/.." && pwd)
targets=(fuzz_frame fuzz_policy fuzz_address fuzz_route fuzz_sockdiag fuzz_config fuzz_policy_file)

# A small quarantine and short allocation stacks: several times the executions per second for the
# JSON-heavy targets; a use after free is still caught while the freed block is in quarantine.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16:malloc_context_size=5}

# A white list longer than 512 bytes only repeats pieces: coverage stops growing well below that,
# while each longer input costs more and the run would spend its time on repetition.
declare -A extra=([fuzz_address]="-max_len=512")

failed=0
summary=()
for target in "${targets[@]}"; do
  work="$build/corpus/$target"
  artifacts="$build/findings/$target/"
  mkdir -p "$work" "$artifacts"
  log="$build/findings/$target.log"
  echo "fuzz: $target for ${seconds}s"
  # shellcheck disable=SC2086 # the extra flags are words
  "$build/bin/$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 ${extra[$target]:-} \
    -artifact_prefix="$artifacts" "$work" "$root/fuzz/corpus/$target" >"$log" 2>&1
  code=$?
  runs=$(awk '/stat::number_of_executed_units:/ { print $2 }' "$log" | tail -1)
  if [ "$code" -eq 0 ]; then
    result=ok
  else
    result="FOUND (exit $code, see $log and $artifacts)"
    failed=1
    grep -m3 -E 'WRONG RESULT|ERROR: |runtime error' "$log" | sed 's/^/  /'
  fi
  summary+=("$(printf '%-17s %12s executions  %s' "$target" "${runs:-?}" "$result")")
done

echo
printf '%s\n' "${summary[@]}"
exit $failed
