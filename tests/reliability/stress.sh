#!/usr/bin/env bash
# make stress: the long reliability runs (KWINDEL_STRESS=1) in the tests build's Wine prefixes,
# outside CTest so that its per-test time limit does not cut them.
set -u
cd "$(dirname "$0")/../.." && build=$(cd "${1:-build/tests}" && pwd) status=0  # Wine wants absolute prefix paths
for run in "default reliability_tests" "xp reliability_xp_tests winxp64"; do
  set -- $run
  scripts/wine-prefix.sh start "$build/wine/$1" ${3:-}
  KWINDEL_STRESS=1 KWINDEL_WINEPREFIX=$build/wine/$1 scripts/wine-run.sh "$build/bin/$2.exe" || status=1
  scripts/wine-prefix.sh stop "$build/wine/$1"
done
exit $status
