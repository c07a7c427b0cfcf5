#!/usr/bin/env bash
# Runs each example host on the simulated device, replaying a short trace against a local
# collection service, and fails when one of them does.
#   examples/run.sh BUILD_DIR [PYTHON...]
# PYTHON is the command of an interpreter with the rovalis package installed (it may start with
# env NAME=VALUE); without it the Python host is left out.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: examples/run.sh BUILD_DIR [PYTHON...]}
shift
python=("$@")
trace=data/traces/brixton-evening.gpx
export ROVALIS_LIBRARY=${ROVALIS_LIBRARY:-$PWD/$build/src/capi/librovalis_c.so}
work=$(mktemp -d)
collector_pid=""
cleanup() {
  if [ -n "$collector_pid" ]; then kill "$collector_pid" 2>/dev/null || true; wait "$collector_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$build/tools/collector/rovalis-collector" --port 0 >"$work/collector.log" &
collector_pid=$!
url=""
for _ in $(seq 100); do
  url=$(sed -n 's/^rovalis-collector listening on //p' "$work/collector.log")
  [ -n "$url" ] && break
  sleep 0.1
done
[ -n "$url" ] || { echo "the collection service did not start"; cat "$work/collector.log"; exit 1; }

run() {
  local name=$1; shift
  echo "== example: $name"
  # The SDK's console lines go to a log; the host's own lines are shown.
  if "$@" "$trace" "$url" "$work/$name" >"$work/$name.log" 2>&1; then
    grep -E '^(tracking|upload|[0-9]+ fixes)' "$work/$name.log" || true
  else
    echo "example $name failed:"; tail -40 "$work/$name.log"; return 1
  fi
}

run cpp "$build/examples/rovalis-example-cpp"
run c "$build/examples/rovalis-example-c"
if [ ${#python[@]} -gt 0 ]; then
  run python "${python[@]}" examples/python/host.py
fi
echo "examples passed"
