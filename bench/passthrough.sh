#!/usr/bin/env bash
# Pass-through cost of the intercepted calls, each against the unhooked call in the same process
# and round: with the DLL loaded and the policy off, and with copy and secret audit on and kwagent
# answering at once. CopyFileW and SHFileOperationW of a 1 MiB file in a winxp64 prefix (the
# flat-function path), IFileOperation::CopyItems in a 6.1 prefix (Wine's method is a stub, so the
# figure is the interception itself). Target: policy off within 5% of the unhooked call.
# usage: bench/passthrough.sh [BUILD_DIR]   (default build/release)
set -euo pipefail
source "$(dirname "$0")/common.bash"
work=$build/bench/passthrough
rm -rf "$work"
mkdir -p "$work/xp" "$work/default"
start_prefix xp
start_prefix default
echo "bench/passthrough: intercepted calls against the unhooked calls"
echo " winxp64 prefix, flat-function path:"
kwbench xp copyfile "$(winpath "$work/xp")" 15 40
echo " Windows 6.1 prefix, shell copy engine path:"
kwbench default copyitems "$(winpath "$work/default")" 9 1000
rm -rf "$work"
