#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan+UBSan) and runs every
# target that has a seed corpus under fuzz/corpus/<target>/ for the given
# number of seconds each. Exits non-zero on any crash, leak, sanitizer
# report or hang. New inputs go to a scratch directory, not to the seeds.
#
#   bash scripts/fuzz.sh 30
set -euo pipefail
cd "$(dirname "$0")/.."

per=${1:-30}
targets=()
for dir in fuzz/corpus/*/; do
  targets+=("$(basename "$dir")")
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "no fuzz targets" >&2
  exit 1
fi

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
for t in "${targets[@]}"; do
  echo "== $t: ${per}s"
  mkdir -p "$scratch/$t"
  log="build/fuzz/$t.log"
  if ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
      "build/fuzz/fuzz/$t" -max_total_time="$per" -timeout=5 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="build/fuzz/$t-" "$scratch/$t" "fuzz/corpus/$t" >"$log" 2>&1; then
    grep -E '^(Done|stat::(number_of_executed_units|peak_rss_mb))' "$log" || true
  else
    tail -n 80 "$log" >&2
    echo "$t: FAILED (full log $log, reproducer build/fuzz/$t-*)" >&2
    status=1
  fi
done
exit $status
