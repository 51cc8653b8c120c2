#!/usr/bin/env bash
# The agent at scale: `gen --groups N`, a cold start and an unchanged warm restart as two
# processes over one chip directory, each with its wall time and peak resident memory,
# then a verify. Usage: bench/agent_scale.sh [groups] (default 65535, the chip's limit).
set -euo pipefail
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
groups=${1:-65535}
./dev build release >/dev/null
agent=build/release/src/McastAgent/mcast_agent
work=$(mktemp -d "${TMPDIR:-/tmp}/agent-scale.XXXXXX")
trap 'rm -rf "$work"' EXIT
"$agent" gen --groups "$groups" --seed 1 >"$work/config.json"
for start in cold warm; do
   /usr/bin/time -f "%e %M" -o "$work/time" "$agent" run --json --config "$work/config.json" \
      --chip "$work/chip" >"$work/$start.json"
   read -r secs kb <"$work/time"
   python3 - "$work/$start.json" "$start" "$groups" "$secs" "$kb" <<'PY' 2>/dev/null ||
import json, sys
r = json.load(open(sys.argv[1])); start, groups, secs, kb = sys.argv[2], int(sys.argv[3]), float(sys.argv[4]), int(sys.argv[5])
t = r["totals"]
print(f"{start}: {groups} groups, {secs:.2f} s, {secs / groups * 1e6:.1f} us/group, "
      f"{t['writes']} writes, {t['deletes']} deletes, peak {kb / 1024:.0f} MiB; phases (ms): "
      + ", ".join(f"{k} {v:.0f}" for k, v in r["phases"].items()))
PY
      echo "$start: $groups groups, $secs s, peak $kb KiB (python3 missing: no per-phase detail)"
done
"$agent" verify --config "$work/config.json" --chip "$work/chip"
