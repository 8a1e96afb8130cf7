#!/usr/bin/env bash
# Throughput of the encrypted-file transformation (under Wine) against its limit and a peer, on
# the same 256 MiB file in one run:
# - the limit: the same process reading the file and computing only its MD5 with the library's
#   digest (the digest is serial, so no transformation can beat it); target at least 0.9 of it,
#   median of alternating rounds; then the time of each step on its own (read, digest, cipher,
#   write) to show where the rest goes;
# - the peer: "openssl dgst -md5" plus "openssl enc -aes-128-ecb -nopad" natively (target 0.8).
# usage: bench/transform.sh [BUILD_DIR]   (default build/release; needs kwbench-transform.exe)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
exe=$build/bin/kwbench-transform.exe
[ -x "$exe" ] || { echo "bench/transform: $exe is missing (cmake --build $build --target benchmarks)" >&2; exit 1; }
command -v openssl >/dev/null || { echo "bench/transform: openssl is not installed" >&2; exit 1; }

size_mib=256
runs=3
rounds=5
# tmpfs keeps the disk out of the comparison when it has room for the input and two outputs.
if [ -d /dev/shm ] && [ "$(df -Pm /dev/shm | awk 'NR==2 {print $4}')" -gt $((size_mib * 4)) ]; then
  work=$(mktemp -d /dev/shm/kwbench.XXXXXX)
else
  work=$(mktemp -d "$build/kwbench.XXXXXX")
fi
prefix=$build/wine/bench
cleanup() {
  rm -rf "$work"
  "$root/scripts/wine-prefix.sh" stop "$prefix" >/dev/null 2>&1 || true
}
trap cleanup EXIT

head -c $((size_mib * 1048576)) /dev/urandom >"$work/input.bin"
"$root/scripts/wine-prefix.sh" start "$prefix" >/dev/null

now() { date +%s.%N; }
calc() { awk "BEGIN { printf \"%.6f\", $1 }"; }
best_of() {  # best_of RUNS command...: the shortest wall time in seconds
  local best="" t0 t1 d i
  for ((i = 0; i < $1; i++)); do
    t0=$(now); "${@:2}" >/dev/null; t1=$(now)
    d=$(calc "$t1 - $t0")
    if [ -z "$best" ] || [ "$(calc "$d < $best")" != 0.000000 ]; then best=$d; fi
  done
  echo "$best"
}

cat "$work/input.bin" >/dev/null
key=$(head -c 16 /dev/urandom | od -An -tx1 | tr -d ' \n')
t_md5=$(best_of $runs openssl dgst -md5 "$work/input.bin")
t_enc=$(best_of $runs openssl enc -aes-128-ecb -nopad -K "$key" -in "$work/input.bin" -out "$work/openssl.out")
openssl_mib_s=$(calc "$size_mib / ($t_md5 + $t_enc)")

wine_in="Z:$(echo "$work/input.bin" | tr / '\\')"
wine_out="Z:$(echo "$work/kwindel.out" | tr / '\\')"
result=$(KWINDEL_WINEPREFIX=$prefix "$root/scripts/wine-run.sh" "$exe" "$wine_in" "$wine_out" $rounds | tr -d '\r')
field() { echo "$result" | awk -v k="$1" '$1 == k {print $2}'; }
ours_mib_s=$(field transform_mib_s)
[ -n "$ours_mib_s" ] || { echo "bench/transform: the benchmark program printed no result" >&2; echo "$result" >&2; exit 1; }
[ "$(stat -c %s "$work/kwindel.out")" -eq $((size_mib * 1048576 + 41)) ] || { echo "bench/transform: wrong output size" >&2; exit 1; }

printf 'bench/transform: %d MiB file\n' $size_mib
printf '  limit: read + MD5 only (library digest)  %8.1f MiB/s  %7.1f ms\n' "$(field floor_mib_s)" "$(field floor_ms)"
printf '  kwindel transformation (Wine)            %8.1f MiB/s  %7.1f ms\n' "$ours_mib_s" "$(field transform_ms)"
printf '  ratio transformation / limit             %8.2f (target >= 0.90; median of %d alternating rounds)\n' "$(field ratio)" $rounds
printf '  each step alone: read %.1f ms, digest %.1f ms, cipher (%s) %.1f ms, write %.1f ms\n' \
  "$(field split_read_ms)" "$(field split_digest_ms)" "$(field cipher_engine)" "$(field split_cipher_ms)" "$(field split_write_ms)"
[ -z "$(field split_interleaved_ms)" ] ||
  printf '  digest and cipher interleaved as the transformation runs them: %.1f ms\n' "$(field split_interleaved_ms)"
printf '  openssl dgst -md5                        %8.1f MiB/s  (best of %d)\n' "$(calc "$size_mib / $t_md5")" $runs
printf '  openssl enc -aes-128-ecb -nopad          %8.1f MiB/s  (best of %d)\n' "$(calc "$size_mib / $t_enc")" $runs
printf '  openssl combined (md5 + enc)             %8.1f MiB/s\n' "$openssl_mib_s"
printf '  ratio kwindel / openssl                  %8.2f (target >= 0.80)\n' "$(calc "$ours_mib_s / $openssl_mib_s")"
