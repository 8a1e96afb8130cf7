#!/usr/bin/env bash
# Throughput of the encrypted-file transformation (under Wine) against its limit and a peer, on
# the same 256 MiB file in one run, for the 64-bit library (kwbench-transform.exe) and the 32-bit
# one (kwbench-transform-x86.exe, WoW64 in the same prefix), runs of the two alternating:
# - the limit: the same process reading the file and computing only its MD5 with the library's
#   digest (the digest is serial, so no transformation can beat it); target at least 0.9 of it,
#   median of alternating rounds; then the time of each step on its own (read, digest, cipher,
#   write) to show where the rest goes;
# - the peer: "openssl dgst -md5" plus "openssl enc -aes-128-ecb -nopad" natively (target 0.8);
# - between the bitnesses: the x86 rates over the x64 ones.
# usage: bench/transform.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86;
#   needs kwbench-transform.exe and kwbench-transform-x86.exe)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
build_x86=${2:-$build-x86}
declare -A exe=([x64]=$build/bin/kwbench-transform.exe [x86]=$build_x86/bin/kwbench-transform-x86.exe)
for arch in x64 x86; do
  [ -x "${exe[$arch]}" ] || { echo "bench/transform: ${exe[$arch]} is missing (cmake --build $(dirname "$(dirname "${exe[$arch]}")") --target benchmarks)" >&2; exit 1; }
done
command -v openssl >/dev/null || { echo "bench/transform: openssl is not installed" >&2; exit 1; }

size_mib=256
runs=3    # openssl: best of
passes=3  # runs of each program, alternating x64 and x86
rounds=3  # alternating rounds of transformation and limit in each run
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
declare -A results=([x64]= [x86]=)
for ((pass = 0; pass < passes; pass++)); do
  order="x64 x86"
  ((pass % 2)) && order="x86 x64"
  for arch in $order; do
    result=$(KWINDEL_WINEPREFIX=$prefix "$root/scripts/wine-run.sh" "${exe[$arch]}" "$wine_in" "$wine_out" $rounds | tr -d '\r')
    echo "$result" | grep -q '^transform_mib_s ' ||
      { echo "bench/transform: kwbench-transform ($arch) printed no result" >&2; echo "$result" >&2; exit 1; }
    [ "$(stat -c %s "$work/kwindel.out")" -eq $((size_mib * 1048576 + 41)) ] ||
      { echo "bench/transform: wrong output size ($arch)" >&2; exit 1; }
    results[$arch]+=$result$'\n'
  done
done
# field ARCH KEY: the median over that program's runs; engine ARCH: the cipher it used.
field() {
  echo "${results[$1]}" | awk -v k="$2" '$1 == k {print $2}' | sort -g |
    awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
engine() { echo "${results[$1]}" | awk '$1 == "cipher_engine" {print $2}' | sort -u | tr '\n' ' ' | sed 's/ $//'; }

printf 'bench/transform: %d MiB file, x64 and x86 programs alternating (%d runs each of %d rounds; medians of the runs)\n' \
  $size_mib $passes $rounds
printf '                                              %-26s%s\n' x64 x86
both() {  # both LABEL FORMAT KEY [KEY2]: one row, x64 then x86
  local arch cells=()
  for arch in x64 x86; do
    if [ $# -gt 3 ]; then
      cells+=("$(printf "$2" "$(field $arch "$3")" "$(field $arch "$4")")")
    else
      cells+=("$(printf "$2" "$(field $arch "$3")")")
    fi
  done
  printf '  %-43s %-26s%s\n' "$1" "${cells[0]}" "${cells[1]}"
}
both 'limit: read + MD5 only (library digest)' '%6.1f MiB/s %7.1f ms' floor_mib_s floor_ms
both 'kwindel transformation (Wine)' '%6.1f MiB/s %7.1f ms' transform_mib_s transform_ms
both 'ratio transformation / limit' '%6.2f' ratio
printf '    (target >= 0.90; each run: median of %d alternating rounds after a warm-up of each)\n' $rounds
echo '  each step alone:'
both '  read' '%14.1f ms' split_read_ms
both '  digest (MD5)' '%14.1f ms' split_digest_ms
both "  cipher ($(engine x64) / $(engine x86))" '%14.1f ms' split_cipher_ms
[ -z "$(field x64 split_interleaved_ms)" ] || both '  digest and cipher interleaved' '%14.1f ms' split_interleaved_ms
both '  write' '%14.1f ms' split_write_ms
x64_rate=$(field x64 transform_mib_s) x86_rate=$(field x86 transform_mib_s)
printf '  x86 / x64: transformation rate %.2f, limit rate %.2f; cipher alone x86 time / x64 time %.2f, digest %.2f\n' \
  "$(calc "$x86_rate / $x64_rate")" "$(calc "$(field x86 floor_mib_s) / $(field x64 floor_mib_s)")" \
  "$(calc "$(field x86 split_cipher_ms) / $(field x64 split_cipher_ms)")" \
  "$(calc "$(field x86 split_digest_ms) / $(field x64 split_digest_ms)")"
printf '  openssl dgst -md5                        %8.1f MiB/s  (best of %d)\n' "$(calc "$size_mib / $t_md5")" $runs
printf '  openssl enc -aes-128-ecb -nopad          %8.1f MiB/s  (best of %d)\n' "$(calc "$size_mib / $t_enc")" $runs
printf '  openssl combined (md5 + enc)             %8.1f MiB/s\n' "$openssl_mib_s"
printf '  ratio kwindel / openssl                  x64 %.2f, x86 %.2f (target >= 0.80)\n' \
  "$(calc "$x64_rate / $openssl_mib_s")" "$(calc "$x86_rate / $openssl_mib_s")"
