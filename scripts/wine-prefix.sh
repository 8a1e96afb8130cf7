#!/usr/bin/env bash
# start PREFIX [winxp64]: creates the Wine prefix once (wineboot -i, output to PREFIX.log), sets
#   the Windows version when asked, and starts a persistent wineserver for the test run.
# stop PREFIX: ends that wineserver and every Wine process of the prefix.
set -eu
cmd=${1:?usage: wine-prefix.sh start|stop PREFIX [winxp64]}
prefix=${2:?prefix}
version=${3:-}
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
log=$prefix.log
case $cmd in
  start)
    command -v wine >/dev/null || { echo "wine-prefix: wine is not installed (apt-get install wine64)" >&2; exit 1; }
    mkdir -p "$(dirname "$prefix")"
    if [ ! -f "$prefix/.kwindel-ready" ]; then
      rm -rf "$prefix"
      wineboot -i >"$log" 2>&1 </dev/null || { echo "wine-prefix: wineboot -i failed, see $log" >&2; exit 1; }
      wineserver -w
      if [ -n "$version" ]; then
        winecfg -v "$version" >>"$log" 2>&1 </dev/null
        wineserver -w
      fi
      touch "$prefix/.kwindel-ready"
    fi
    # Background Wine processes inherit our stdio: keep them off CTest's pipes.
    setsid wineserver -p >>"$log" 2>&1 </dev/null &
    sleep 0.2
    setsid wine cmd /c exit >>"$log" 2>&1 </dev/null
    echo "wine prefix $prefix ready${version:+ ($version)}"
    ;;
  stop)
    wineserver -k >/dev/null 2>&1 || true
    echo "wine prefix $prefix stopped"
    ;;
  *) echo "usage: wine-prefix.sh start|stop PREFIX [winxp64]" >&2; exit 2 ;;
esac
