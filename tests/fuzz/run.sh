#!/usr/bin/env bash
# usage: tests/fuzz/run.sh BUILD_DIR SECONDS [TARGET...]: builds the fuzz targets (clang, ASan, UBSan)
# in BUILD_DIR, runs each for SECONDS from the seeds in tests/fuzz/corpus/<target> (new inputs: BUILD_DIR/
# corpus, findings: BUILD_DIR/findings); fails on a finding or a target that did not run.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1/findings"
build=$(cd "$1" && pwd) seconds=$2 status=0
shift 2
{ cmake -S "$here/native" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_TOOLCHAIN_FILE= \
    ${KWINDEL_DEPS_DIR:+-DKWINDEL_DEPS_DIR="$KWINDEL_DEPS_DIR"} && cmake --build "$build" -j2; } >"$build/build.log" 2>&1 ||
  { tail -50 "$build/build.log"; exit 1; }
for t in ${*:-frame_response_fuzzer trampoline_fuzzer documents_fuzzer}; do
  # Largest input: a few datagrams, one longer than a chunk; one prologue; a few paths.
  case $t in frame_response_fuzzer) max=10000 ;; trampoline_fuzzer) max=96 ;; *) max=1024 ;; esac
  mkdir -p "$build/corpus/$t" && rm -f "$build/findings/$t-"*
  ASAN_OPTIONS=detect_leaks=1 "$build/$t" "$build/corpus/$t" "$here/corpus/$t" -max_total_time="$seconds" -max_len=$max \
    -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/findings/$t-" >"$build/$t.log" 2>&1 || true
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$t.log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$build/$t.log" | tail -1)
  if [ -z "$runs" ] || ls "$build/findings/$t-"* >/dev/null 2>&1; then
    echo "$t: FAILED after ${runs:-no} executions (log: $build/$t.log)" && tail -30 "$build/$t.log"
    status=1
  else
    echo "$t: $runs executions in $seconds s ($rate exec/s), no findings"
  fi
done
exit $status
