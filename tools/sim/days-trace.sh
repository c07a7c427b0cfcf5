#!/usr/bin/env bash
# Writes DAYS consecutive generated weekdays in London as one CSV trace, for long replays:
#   tools/sim/days-trace.sh DAYS OUT.csv [TRACEGEN]
# Each day is rovalis-tracegen's weekday on its own date and seed, so the days differ in their
# position errors, pauses and dwell times. TRACEGEN defaults to the release build's program.
set -euo pipefail
days=${1:?usage: days-trace.sh DAYS OUT.csv [TRACEGEN]}
out=${2:?usage: days-trace.sh DAYS OUT.csv [TRACEGEN]}
tracegen=${3:-build/release/tools/tracegen/rovalis-tracegen}
first=2024-01-16

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
echo "time,latitude,longitude,accuracy" > "$out"
for ((day = 0; day < days; day++)); do
  date=$(date -u -d "$first + $day days" +%F)
  "$tracegen" --date "$date" --seed $((20240116 + day)) --out "$scratch/day.gpx" --csv "$scratch/day.csv" >/dev/null
  # A day ends at the next day's midnight, where the next one begins: keep that point once.
  if ((day == 0)); then tail -n +2 "$scratch/day.csv"; else tail -n +3 "$scratch/day.csv"; fi >> "$out"
done
