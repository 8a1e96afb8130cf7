# Shared by the bench/*.sh scripts (sourced, not run): the build directory, the benchmark Wine
# prefixes under it and a runner for kwbench.exe. Each script stops the prefixes it started.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
bin=$build/bin
for program in kwbench.exe kwbench-child.exe kwagent.exe kwindel-x64.dll; do
  [ -f "$bin/$program" ] || { echo "bench: $bin/$program is missing (cmake --build $build --target benchmarks)" >&2; exit 1; }
done
# The DLL as it ships (the build leaves it without debug information; its PDB stays beside the
# build's copy). The programs are copied beside it, where kwbench looks for the DLL.
shipped=$build/bench/bin
mkdir -p "$shipped"
cp -p "$bin/kwbench.exe" "$bin/kwbench-child.exe" "$bin/kwagent.exe" "$bin/kwindel-x64.dll" "$shipped/"
bin=$shipped
# default: a new prefix, which reports Windows 6.1 (the shell copy engine's path);
# xp: winecfg -v winxp64, which reports 5.2 (the flat-function path).
prefix_default=$build/bench/wine-default
prefix_xp=$build/bench/wine-xp
started_prefixes=()

start_prefix() {  # start_prefix default|xp
  local prefix version=
  if [ "$1" = xp ]; then prefix=$prefix_xp; version=winxp64; else prefix=$prefix_default; fi
  "$root/scripts/wine-prefix.sh" start "$prefix" $version >/dev/null
  started_prefixes+=("$prefix")
}
stop_prefixes() {
  local prefix
  for prefix in "${started_prefixes[@]}"; do "$root/scripts/wine-prefix.sh" stop "$prefix" >/dev/null 2>&1 || true; done
}
trap stop_prefixes EXIT

winpath() { echo "Z:$(echo "$1" | tr / '\\')"; }

kwbench() {  # kwbench default|xp ARGS...: runs kwbench.exe in that prefix, output without CRs
  local prefix=$prefix_default
  [ "$1" = xp ] && prefix=$prefix_xp
  shift
  KWINDEL_WINEPREFIX=$prefix "$root/scripts/wine-run.sh" "$bin/kwbench.exe" "$@" | tr -d '\r'
  return "${PIPESTATUS[0]}"
}
