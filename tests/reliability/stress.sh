#!/usr/bin/env bash
# make stress: the long reliability runs (KWINDEL_STRESS=1) in the tests build's Wine prefixes, in
# both bitnesses (the 32-bit programs from the tests-x86 build; the pre-6 path's in the 32-bit XP
# prefix), outside CTest so that its per-test time limit does not cut them.
# usage: stress.sh [TESTS_BUILD [TESTS_X86_BUILD]]
set -u
cd "$(dirname "$0")/../.." && build=$(cd "${1:-build/tests}" && pwd) status=0  # Wine wants absolute prefix paths
x86=$(cd "${2:-${build}-x86}" && pwd)
for run in "default $build reliability_tests" "default $x86 reliability_tests" \
           "xp $build reliability_xp_tests winxp64" "xp32 $x86 reliability_xp_tests winxp"; do
  set -- $run
  scripts/wine-prefix.sh start "$build/wine/$1" ${4:-}
  KWINDEL_STRESS=1 KWINDEL_WINEPREFIX=$build/wine/$1 scripts/wine-run.sh "$2/bin/$3.exe" || status=1
  scripts/wine-prefix.sh stop "$build/wine/$1"
done
exit $status
