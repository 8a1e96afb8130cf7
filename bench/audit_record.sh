#!/usr/bin/env bash
# An audit record of 100,000 files sent to kwagent as the library sends it (8192-byte chunks, each
# but the last acknowledged) against the same bytes sent as plain datagrams without
# acknowledgements, alternating in one run. kwagent listens on a bench port (17886 unless
# KWBENCH_AGENT_PORT says otherwise), so a running agent on 7886 is not disturbed.
# Also against the least a stop-and-wait sender can do: the same frame bytes to the same agent,
# send 8192 bytes, wait for the 128-byte answer, repeat (target: at least 0.9 of its rate).
# Target against plain datagrams: at least half their rate.
# The 64-bit programs (kwbench.exe, kwagent.exe), then the 32-bit ones (kwbench-x86.exe,
# kwagent-x86.exe, WoW64 in the same prefix); every ratio is measured within one run of a program.
# usage: bench/audit_record.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86)
set -euo pipefail
source "$(dirname "$0")/common.bash"
port=${KWBENCH_AGENT_PORT:-17886}
log=$build/bench/audit-agent.log
start_prefix default
echo "bench/audit_record: one audit record to kwagent against plain datagrams"
for arch in x64 x86; do kwbench $arch default audit 100000 7 "$port" "$(winpath "$log")"; done
rm -f "$log"
