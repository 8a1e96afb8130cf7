#!/usr/bin/env bash
# Runs every benchmark script in bench/ (each *.sh but this one) against the two build directories
# of one tree: the 64-bit one and the 32-bit one (its twin with "-x86" appended unless named).
# usage: bench/run.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86)
set -u
here=$(cd "$(dirname "$0")" && pwd)
status=0
for script in "$here"/*.sh; do
  [ "$(basename "$script")" = run.sh ] && continue
  bash "$script" "$@" || status=1
done
exit $status
