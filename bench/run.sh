#!/usr/bin/env bash
# Runs every benchmark script in bench/ (each *.sh but this one) against one build directory.
# usage: bench/run.sh [BUILD_DIR]   (default build/release)
set -u
here=$(cd "$(dirname "$0")" && pwd)
status=0
for script in "$here"/*.sh; do
  [ "$(basename "$script")" = run.sh ] && continue
  bash "$script" "$@" || status=1
done
exit $status
