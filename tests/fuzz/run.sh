#!/usr/bin/env bash
# Builds the native fuzz targets (clang, libFuzzer, ASan, UBSan) in BUILD_DIR and runs each for
# SECONDS from the seeds in tests/fuzz/corpus/<target>; new inputs go to BUILD_DIR/corpus/<target>,
# findings to BUILD_DIR/findings/. Fails when a target finds anything or does not run.
# KWINDEL_DEPS_DIR (optional): where scripts/fetch-deps.sh put tinyxml2 and Boost.
#   usage: tests/fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "${1:?usage: run.sh BUILD_DIR SECONDS [TARGET...]}"
build=$(cd "$1" && pwd) seconds=${2:?usage: run.sh BUILD_DIR SECONDS [TARGET...]}
shift 2
targets=("${@:-frame_response_fuzzer trampoline_fuzzer documents_fuzzer}")
cmake -S "$here/native" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_TOOLCHAIN_FILE= \
  ${KWINDEL_DEPS_DIR:+-DKWINDEL_DEPS_DIR="$KWINDEL_DEPS_DIR"} >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j2 >"$build/build.log" 2>&1 || { tail -50 "$build/build.log"; exit 1; }
status=0
for t in ${targets[*]}; do
  # Largest input: a few datagrams, one longer than a chunk; one prologue; a few paths.
  case $t in frame_response_fuzzer) max=10000 ;; trampoline_fuzzer) max=96 ;; *) max=1024 ;; esac
  mkdir -p "$build/corpus/$t" "$build/findings" && rm -f "$build/findings/$t-"*
  (cd "$build/findings" && ASAN_OPTIONS=detect_leaks=1 "$build/$t" "$build/corpus/$t" "$here/corpus/$t" \
     -max_total_time="$seconds" -max_len=$max -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
     -artifact_prefix="$build/findings/$t-" >"$build/$t.log" 2>&1) || true
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$t.log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$build/$t.log" | tail -1)
  if ls "$build/findings/$t-"* >/dev/null 2>&1; then
    echo "$t: FINDING after ${runs:-?} executions (log: $build/$t.log)"; ls "$build/findings/$t-"*
    grep -m5 -E 'ERROR|check failed|runtime error' "$build/$t.log" || true; status=1
  elif [ -z "$runs" ]; then
    echo "$t: did not run (log: $build/$t.log)"; tail -20 "$build/$t.log"; status=1
  else
    echo "$t: $runs executions in $seconds s ($rate exec/s), no findings"
  fi
done
exit $status
