#!/usr/bin/env bash
# The demo: in a fresh Wine prefix, a controlling program loads kwindel-x64.dll, installs the
# global hook and sets a policy; a sample desktop program then gets the DLL injected, and the
# trace lines that both write are shown.
set -euo pipefail
build=${1:?usage: demo.sh BUILD_DIR}
bin=$(cd "$build/bin" && pwd)
work=$(cd "$build" && pwd)/demo
prefix=$work/wine
log=$work/logs
rm -rf "$work"; mkdir -p "$log"
export WINEPREFIX=$prefix WINEDLLOVERRIDES=mscoree,mshtml=
say() { printf '\n== %s\n' "$*"; }
started=$(date +%s)

say "Creating a fresh Wine prefix in $prefix"
WINEDEBUG=-all wineboot -i >"$log/wineboot.log" 2>&1 </dev/null
WINEDEBUG=-all setsid wineserver -p >>"$log/wineboot.log" 2>&1 </dev/null &
trap 'WINEPREFIX=$prefix wineserver -k >/dev/null 2>&1 || true' EXIT
sleep 0.3

# Every OutputDebugString line of every process goes to one log (WINEDEBUG=+debugstr).
say "kwctl (the controlling service) loads the DLL, installs the global hook and sets the policy"
WINEDEBUG=-all,+debugstr wine "$bin/kwctl.exe" --copy-audit --secret-audit --dest local,removable \
  --event kwdemo-stop >"$log/kwctl.out" 2>"$log/kwctl.trace" </dev/null &
ctl=$!
for _ in $(seq 1 100); do grep -q "policy" "$log/kwctl.out" 2>/dev/null && break; sleep 0.1; done
sed 's/^/   /' "$log/kwctl.out"

say "kwdemo-app (a sample desktop program) pumps messages; the hook brings the DLL into it"
WINEDEBUG=-all,+debugstr wine "$bin/kwdemo-app.exe" 10000 2>"$log/kwdemo-app.trace" </dev/null | sed 's/^/   /'

WINEDEBUG=-all wine "$bin/kwctl.exe" --stop kwdemo-stop </dev/null
wait $ctl || true
sed 's/^/   /' "$log/kwctl.out" | tail -n 1

show_trace() {  # the debug strings of one process, without Wine's prefixes
  sed -n 's/^[0-9a-f]*:[a-z]*:debugstr:OutputDebugString[AW] "\(.*\)"$/\1/p' "$1" | sed 's/^/   /'
}
say "Trace lines written by the DLL inside kwctl.exe"
show_trace "$log/kwctl.trace"
say "Trace lines written by the DLL inside kwdemo-app.exe (injected)"
show_trace "$log/kwdemo-app.trace"

say "Summary"
echo "   shown: hook installed, policy set, DLL injected into a second process, trace lines of both"
echo "   logs: $log   ($(( $(date +%s) - started )) s)"
