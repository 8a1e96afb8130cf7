#!/usr/bin/env bash
# Pass-through cost of the intercepted calls, each against the unhooked call in the same process
# and round: with the DLL loaded and the policy off, and with copy and secret audit on and kwagent
# answering at once. CopyFileW and SHFileOperationW of a 1 MiB file in a winxp64 prefix (the
# flat-function path), IFileOperation::CopyItems in a 6.1 prefix (Wine's method is a stub, so the
# figure is the interception itself). Target: policy off within 5% of the unhooked call.
# Each case for kwindel-x64.dll in kwbench.exe, then for kwindel-x86.dll in kwbench-x86.exe (WoW64
# in the same prefix); every ratio is measured within one process.
# usage: bench/passthrough.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86)
set -euo pipefail
source "$(dirname "$0")/common.bash"
work=$build/bench/passthrough
rm -rf "$work"
mkdir -p "$work/x64-xp" "$work/x64-default" "$work/x86-xp" "$work/x86-default"
start_prefix xp
start_prefix default
echo "bench/passthrough: intercepted calls against the unhooked calls"
echo " winxp64 prefix, flat-function path:"
for arch in x64 x86; do kwbench $arch xp copyfile "$(winpath "$work/$arch-xp")" 15 40; done
echo " Windows 6.1 prefix, shell copy engine path:"
for arch in x64 x86; do kwbench $arch default copyitems "$(winpath "$work/$arch-default")" 9 1000; done
rm -rf "$work"
