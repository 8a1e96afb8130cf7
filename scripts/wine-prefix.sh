#!/usr/bin/env bash
# start PREFIX [winxp64|winxp]: creates the Wine prefix once (wineboot -i, output to PREFIX.log),
#   sets the Windows version when asked, and starts a persistent wineserver for the test run.
#   winxp (a 32-bit Windows XP) makes a 32-bit prefix (WINEARCH=win32), the others a 64-bit one. The prefix
#   records the Wine installation it was made with (wine64, wine32 and their versions) and is made
#   afresh under another one: a prefix made before wine32 was installed cannot run 32-bit programs.
# stop PREFIX: ends that wineserver and every Wine process of the prefix.
set -eu
cmd=${1:?usage: wine-prefix.sh start|stop PREFIX [winxp64|winxp]}
prefix=${2:?prefix}
version=${3:-}
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
log=$prefix.log
# What the prefix is made with: the Wine packages and versions (dpkg), else wine's own version.
installation() {
  { dpkg-query -W -f='${binary:Package}=${Version}\n' wine64 wine32:i386 2>/dev/null | grep -v '=$' ||
      wine --version; } | sort | tr '\n' ' '
}
case $cmd in
  start)
    command -v wine >/dev/null || { echo "wine-prefix: wine is not installed (apt-get install wine64)" >&2; exit 1; }
    mkdir -p "$(dirname "$prefix")"
    made_with=$(installation)
    if [ "$(cat "$prefix/.kwindel-ready" 2>/dev/null)" != "$made_with" ]; then
      rm -rf "$prefix"
      if [ "$version" = winxp ]; then
        [ -d /usr/lib/i386-linux-gnu/wine ] ||
          { echo "wine-prefix: a 32-bit prefix needs 32-bit Wine (wine32:i386; make bootstrap installs it)" >&2; exit 1; }
        export WINEARCH=win32
      fi
      wineboot -i >"$log" 2>&1 </dev/null || { echo "wine-prefix: wineboot -i failed, see $log" >&2; exit 1; }
      wineserver -w
      if [ -n "$version" ]; then
        winecfg -v "$version" >>"$log" 2>&1 </dev/null
        wineserver -w
      fi
      echo "$made_with" >"$prefix/.kwindel-ready"
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
  *) echo "usage: wine-prefix.sh start|stop PREFIX [winxp64|winxp]" >&2; exit 2 ;;
esac
