#!/usr/bin/env bash
# Runs a Windows program under Wine in the test prefix (CTest's cross-compiling emulator).
# KWINDEL_WINEPREFIX names the prefix; scripts/wine-prefix.sh creates it and its server.
set -u
export WINEPREFIX=${KWINDEL_WINEPREFIX:?KWINDEL_WINEPREFIX is not set}
export WINEDEBUG=${KWINDEL_WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
exec wine "$@"
