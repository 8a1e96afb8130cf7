#!/usr/bin/env bash
# make stress: the long reliability runs (KWINDEL_STRESS=1) in the tests build's Wine prefixes.
# Run outside CTest so that the runs are not cut by the per-test time limit of `make test`.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
build=$(cd "${1:-build/tests}" && pwd)  # Wine wants absolute prefix paths
status=0
run() {  # PREFIX PROGRAM
  local prefix=$build/wine/$1
  scripts/wine-prefix.sh start "$prefix" ${2:+$2}
  KWINDEL_STRESS=1 KWINDEL_WINEPREFIX=$prefix scripts/wine-run.sh "$build/bin/$3.exe" || status=1
  scripts/wine-prefix.sh stop "$prefix"
}
run default "" reliability_tests
run xp winxp64 reliability_xp_tests
exit $status
