#!/usr/bin/env bash
# Cost of loading the DLL into a process: from CreateProcess to the program's first message, with
# the DLL injected by a global InstallHookProc hook against the same program started without the
# hook, alternating, in one run. Two programs: one importing user32 only, and one that loads ole32
# and shell32 first as desktop programs do. Target: at most 1.2 times the plain start.
# Both bitnesses in the same 64-bit prefixes: kwbench.exe holds kwindel-x64.dll's hook and starts
# kwbench-child.exe, kwbench-x86.exe holds kwindel-x86.dll's and starts kwbench-child-x86.exe
# (WoW64); blocks of rounds of the two alternate, so that a change in machine load hits both.
# usage: bench/dll_load.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86)
set -euo pipefail
source "$(dirname "$0")/common.bash"
blocks=5 block=5  # starts per bitness and case: blocks * block
start_prefix default
start_prefix xp
echo "bench/dll_load: process start to first message, without and with the DLL injected (x64 and x86)"

# load_rows default|xp [shell]: the two bitnesses' rows for one child and prefix.
load_rows() {
  local p=$1 shell=${2:-} b first second
  declare -A raw=([x64]= [x86]=)
  for ((b = 0; b < blocks; b++)); do
    first=x64 second=x86
    ((b % 2)) && first=x86 second=x64
    raw[$first]+=$(kwbench $first "$p" load $block $shell)$'\n'
    raw[$second]+=$(kwbench $second "$p" load $block $shell)$'\n'
  done
  if [ -n "$shell" ]; then echo "  child loading ole32 and shell32"; else echo "  child importing user32 only"; fi
  local arch plain hooked
  declare -A injected added
  for arch in x64 x86; do
    plain=$(echo "${raw[$arch]}" | awk '$1 == "plain_ms" {print $2}' | median_of)
    hooked=$(echo "${raw[$arch]}" | awk '$1 == "plain_ms" {print $4}' | median_of)
    injected[$arch]=$hooked
    added[$arch]=$(awk "BEGIN { print $hooked - $plain }")
    printf '    %s  plain %7.1f ms   DLL injected %7.1f ms   ratio %.2f (target <= 1.20)   DLL adds %6.1f ms\n' \
      $arch "$plain" "$hooked" "$(awk "BEGIN { print $hooked / $plain }")" "${added[$arch]}"
  done
  printf '    x86 / x64: start with the DLL injected %.2f, time the DLL adds %.2f   (median of %d starts each, %d blocks of %d alternating)\n' \
    "$(awk "BEGIN { print ${injected[x86]} / ${injected[x64]} }")" "$(awk "BEGIN { print ${added[x86]} / ${added[x64]} }")" \
    $((blocks * block)) $blocks $block
}
echo " Windows 6.1 prefix (the DLL patches the shell copy engine's methods):"
load_rows default
load_rows default shell
echo " winxp64 prefix (the DLL hooks the flat copy functions):"
load_rows xp
load_rows xp shell

# Where the added time goes: the system DLLs the DLL imports, then its entry (the set-up).
for p in default xp; do
  name=6.1
  [ $p = xp ] && name=winxp64
  declare -A parts=([x64]= [x86]=)
  for i in 1 2 3 4 5; do
    for arch in x64 x86; do
      parts[$arch]+=$(wine_in $p "$(program $arch kwbench-child)" parts "$(winpath "$bin/kwindel-$arch.dll")")$'\n'
    done
  done
  printf '  LoadLibrary in a user32-only process (%s, median of 5), imported system DLLs / the DLL and its set-up:' $name
  printf ' %s %s / %s ms%s' x64 "$(echo "${parts[x64]}" | awk 'NF {print $2}' | median_of)" \
    "$(echo "${parts[x64]}" | awk 'NF {print $4}' | median_of)" ,
  printf ' %s %s / %s ms\n' x86 "$(echo "${parts[x86]}" | awk 'NF {print $2}' | median_of)" \
    "$(echo "${parts[x86]}" | awk 'NF {print $4}' | median_of)"
done
# The 6.1 set-up split: its platform steps made one by one in a fresh process, then the DLL's
# entry in that process, where only the library's own work (and the same steps, warm) is left.
declare -A split=([x64]= [x86]=)
for i in 1 2 3 4 5; do
  for arch in x64 x86; do split[$arch]+=$(kwbench $arch default setup)$'\n'; done
done
col() { echo "${split[$1]}" | awk -v k="$2" '{ for (i = 1; i < NF; i++) if ($i == k) print $(i + 1) }' | median_of; }
echo "  set-up split (6.1, median of 5 fresh processes each): COM start-up, file-operation object, patching the"
echo "    methods, Winsock; then the DLL entry after them (its own work)"
for arch in x64 x86; do
  printf '    %s  COM %s ms, object %s ms, patching %s ms, Winsock %s ms; entry after them %s ms\n' $arch \
    "$(col $arch com_ms)" "$(col $arch object_ms)" "$(col $arch patch_ms)" "$(col $arch winsock_ms)" "$(col $arch entry_after_ms)"
done
