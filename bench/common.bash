# Shared by the bench/*.sh scripts (sourced, not run): the two build directories, the benchmark
# Wine prefixes and a runner for kwbench. Each script stops the prefixes it started.
# Arguments: [BUILD_DIR [X86_BUILD_DIR]]; BUILD_DIR defaults to build/release, X86_BUILD_DIR to
# BUILD_DIR with "-x86" appended (build/release-x86).
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
build_x86_arg=${2:-$build-x86}
[ -d "$build_x86_arg" ] || { echo "bench: $build_x86_arg is missing (make bench builds it)" >&2; exit 1; }
build_x86=$(cd "$build_x86_arg" && pwd)
# The DLLs as they ship (the builds leave them without debug information; their PDBs stay beside
# the builds' copies). Both bitnesses' programs stand in one folder beside both DLLs, where each
# kwbench looks for the DLL and the programs of its own bitness.
bin=$build/bench/bin
mkdir -p "$bin"
for program in x64:kwbench.exe x64:kwbench-child.exe x64:kwagent.exe x64:kwindel-x64.dll \
               x86:kwbench-x86.exe x86:kwbench-child-x86.exe x86:kwagent-x86.exe x86:kwindel-x86.dll; do
  from=$build/bin
  [ "${program%%:*}" = x86 ] && from=$build_x86/bin
  [ -f "$from/${program#*:}" ] || { echo "bench: $from/${program#*:} is missing (cmake --build ${from%/bin} --target benchmarks)" >&2; exit 1; }
  cp -p "$from/${program#*:}" "$bin/"
done
# default: a new prefix, which reports Windows 6.1 (the shell copy engine's path);
# xp: winecfg -v winxp64, which reports 5.2 (the flat-function path). Both are 64-bit prefixes:
# the x86 programs run there under WoW64, as 32-bit programs do on 64-bit Windows.
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

# The program of that bitness: program x64|x86 NAME -> $bin/NAME.exe or $bin/NAME-x86.exe.
program() { if [ "$1" = x86 ]; then echo "$bin/$2-x86.exe"; else echo "$bin/$2.exe"; fi; }

wine_in() {  # wine_in default|xp PROGRAM ARGS...: runs PROGRAM in that prefix, output without CRs
  local prefix=$prefix_default
  [ "$1" = xp ] && prefix=$prefix_xp
  shift
  KWINDEL_WINEPREFIX=$prefix "$root/scripts/wine-run.sh" "$@" | tr -d '\r'
  return "${PIPESTATUS[0]}"
}

kwbench() {  # kwbench x64|x86 default|xp ARGS...: runs that bitness's kwbench in that prefix
  local arch=$1
  shift
  wine_in "$1" "$(program "$arch" kwbench)" "${@:2}"
}

# The median of the numbers on standard input, one a line.
median_of() { sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
