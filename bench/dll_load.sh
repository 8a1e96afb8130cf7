#!/usr/bin/env bash
# Cost of loading kwindel-x64.dll into a process: from CreateProcess to the program's first
# message, with the DLL injected by a global InstallHookProc hook against the same program started
# without the hook, alternating, in one run. Two programs: one importing user32 only, and one that
# loads ole32 and shell32 first as desktop programs do. Target: at most 1.2 times the plain start.
# usage: bench/dll_load.sh [BUILD_DIR]   (default build/release)
set -euo pipefail
source "$(dirname "$0")/common.bash"
runs=25
start_prefix default
start_prefix xp
echo "bench/dll_load: process start to first message, without and with the DLL injected"
echo " Windows 6.1 prefix (the DLL patches the shell copy engine's methods):"
kwbench default load $runs
kwbench default load $runs shell
echo " winxp64 prefix (the DLL hooks the flat copy functions):"
kwbench xp load $runs
kwbench xp load $runs shell
# Where the added time goes: the system DLLs the DLL imports, then its entry (the set-up).
median_of() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
for p in default xp; do
  prefix=$prefix_default name=6.1
  [ $p = xp ] && prefix=$prefix_xp name=winxp64
  parts=$(for i in 1 2 3 4 5; do
    KWINDEL_WINEPREFIX=$prefix "$root/scripts/wine-run.sh" "$bin/kwbench-child.exe" parts "$(winpath "$bin/kwindel-x64.dll")" | tr -d '\r'
  done)
  printf '  LoadLibrary in a user32-only process (%s, median of 5): imported system DLLs %s ms, the DLL and its set-up %s ms\n' \
    $name "$(echo "$parts" | awk '{print $2}' | median_of)" "$(echo "$parts" | awk '{print $4}' | median_of)"
done
# The 6.1 set-up split: its platform steps made one by one in a fresh process, then the DLL's
# entry in that process, where only the library's own work (and the same steps, warm) is left.
split=$(for i in 1 2 3 4 5; do kwbench default setup; done)
col() { echo "$split" | awk -v k="$1" '{ for (i = 1; i < NF; i++) if ($i == k) print $(i + 1) }' | median_of; }
printf '  set-up split (6.1, median of 5 fresh processes): COM start-up %s ms, file-operation object %s ms,\n' \
  "$(col com_ms)" "$(col object_ms)"
printf '    patching the methods %s ms, Winsock %s ms; the DLL entry after them (its own work) %s ms\n' \
  "$(col patch_ms)" "$(col winsock_ms)" "$(col entry_after_ms)"
