#!/usr/bin/env bash
# Mutation check of the test suite: each fault of scripts/mutations.txt (one per line:
# name | test program regex | exact original text | replacement) is applied alone to the one
# place under src/ or tools/ that holds the original text, the tests preset is rebuilt and the
# named test programs (with the Wine fixtures) run in a private network namespace; then the file
# is restored. Prints killed / survived / stale (text not found exactly once) / build-fails per
# fault and the kill count. Needs configured tests and tests-x86 presets (`make test` once).
#   usage: scripts/mutation-check.sh [NAME-REGEX]     MUTATION_TIMEOUT: seconds per run (900)
set -uo pipefail
cd "$(dirname "$0")/.."
only=${1:-.}
limit=${MUTATION_TIMEOUT:-900}
logs=build/tests/mutation
mkdir -p "$logs"
file='' saved=''

# Restores by copying (a fresh time stamp), so that the next build recompiles the original.
restore() {
  if [ -n "$saved" ]; then cat "$saved" >"$file" && rm -f "$saved"; fi
  saved=''
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

killed=0 total=0 start=$SECONDS
while IFS= read -r line; do
  case $line in '' | '#'*) continue ;; esac
  rest=$line
  name=${rest%% | *}; rest=${rest#* | }
  regex=${rest%% | *}; rest=${rest#* | }
  original=${rest%% | *}; replacement=${rest#* | }
  [[ $name =~ $only ]] || continue
  total=$((total + 1))
  hits=$(git grep -F -c -e "$original" -- src tools)
  if [ "$(printf '%s\n' "$hits" | grep -c .)" != 1 ] || [ "${hits##*:}" != 1 ]; then
    printf '%-28s stale\n' "$name"
    continue
  fi
  file=${hits%:*}
  saved=$(mktemp) && cat "$file" >"$saved"
  O=$original R=$replacement awk '{ i = index($0, ENVIRON["O"])
    if (i) $0 = substr($0, 1, i - 1) ENVIRON["R"] substr($0, i + length(ENVIRON["O"])); print }' "$saved" >"$file"
  t0=$SECONDS
  if ! { cmake --build --preset tests-x86 -j2 && cmake --build --preset tests -j2; } >"$logs/$name.build.log" 2>&1; then
    result=build-fails
  elif timeout -k 10 "$limit" unshare -n sh -c 'ip link set lo up; ctest --preset tests -R "$1"' \
         sh "$regex|wine_" >"$logs/$name.log" 2>&1; then
    result=survived
  else
    status=$? result=killed; killed=$((killed + 1))
    if [ $status -ge 124 ]; then  # cut short by the time limit: its Wine processes stay behind
      result=killed-by-timeout
      for p in build/tests/wine/*/; do WINEPREFIX=$p wineserver -k 2>/dev/null; done
    fi
  fi
  restore
  # A fault can strand parked originals in the prefixes; the next run would see them as its own.
  find build/tests/wine -type d -path "*/kwindel/parked" -prune -exec rm -rf {} + 2>/dev/null
  printf '%-28s %-11s %4ss  %s (%s)\n' "$name" "$result" $((SECONDS - t0)) "$file" "$regex"
done <scripts/mutations.txt
echo "killed $killed of $total in $((SECONDS - start)) s"
{ cmake --build --preset tests-x86 -j2 && cmake --build --preset tests -j2; } >"$logs/final.build.log" 2>&1 ||
  echo "rebuild of the originals failed"
