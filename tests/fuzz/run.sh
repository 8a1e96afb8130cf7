#!/usr/bin/env bash
# Builds the native fuzz targets (clang, libFuzzer, ASan, UBSan) in BUILD_DIR and runs each for
# SECONDS, one after another, from the seed corpus in tests/fuzz/corpus/<target>. New inputs go
# to BUILD_DIR/corpus/<target>, findings to BUILD_DIR/findings/. Prints executions, exec/s and
# findings per target; fails when a target finds anything or does not run. KWINDEL_DEPS_DIR
# (optional) is where scripts/fetch-deps.sh put tinyxml2 and Boost.
#   usage: tests/fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: run.sh BUILD_DIR SECONDS [TARGET...]}
seconds=${2:?usage: run.sh BUILD_DIR SECONDS [TARGET...]}
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(frame_response_fuzzer trampoline_fuzzer documents_fuzzer)
mkdir -p "$build"
build=$(cd "$build" && pwd)

deps=()
[ -n "${KWINDEL_DEPS_DIR:-}" ] && deps=(-DKWINDEL_DEPS_DIR="$KWINDEL_DEPS_DIR")
cmake -S "$here/native" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_TOOLCHAIN_FILE= "${deps[@]}" \
  >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j2 >"$build/build.log" 2>&1 || { tail -50 "$build/build.log"; exit 1; }

# Largest input per target: a few datagrams, one longer than a chunk; one prologue; a few paths.
max_len() {
  case $1 in
    frame_response_fuzzer) echo 10000 ;;
    trampoline_fuzzer) echo 96 ;;
    *) echo 1024 ;;
  esac
}

status=0
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/findings"
  rm -f "$build/findings/$t-"*
  log="$build/$t.log"
  (cd "$build/findings" && ASAN_OPTIONS=detect_leaks=1 "$build/$t" "$build/corpus/$t" "$here/corpus/$t" \
     -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=20 -rss_limit_mb=2048 \
     -print_final_stats=1 -artifact_prefix="$build/findings/$t-" >"$log" 2>&1) || true
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  found=$(cd "$build/findings" && ls "$t-"* 2>/dev/null || true)
  if [ -n "$found" ]; then
    echo "$t: FINDING after ${runs:-?} executions: $found (log: $log)"
    grep -m5 -E 'ERROR|check failed|runtime error' "$log" || true
    status=1
  elif [ -z "$runs" ]; then
    echo "$t: did not run (log: $log)"; tail -20 "$log"; status=1
  else
    echo "$t: $runs executions in ${seconds} s (${rate} exec/s), no findings"
  fi
done
exit $status
