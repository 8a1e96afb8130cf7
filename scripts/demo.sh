#!/usr/bin/env bash
# The demo: kwindel-x64.dll and kwindel-x86.dll doing their job end to end in fresh Wine prefixes,
# narrated.
#  1. kwagent (the reference agent) starts with sample rules: one secret folder with a password,
#     one denied file;
#  2. kwctl (standing in for the controlling service) installs the global hooks of both bitnesses
#     (its 32-bit twin kwctl-x86 holds the 32-bit one) and sets a policy that audits copies and
#     checks secret files for local and removable destinations;
#  3. kwdemo-app, a 64-bit desktop program, and kwdemo-app-x86, a 32-bit one (each with a message
#     loop, so the DLL of its bitness is injected into it), copy an ordinary file, a denied file and
#     a secret file through the shell copy engine (IFileOperation); kwdecrypt proves each copy of
#     the secret file is the original under the password; a secret file moved through the engine
#     arrives encrypted, and nothing of it stays at its place;
#  4. the same through SHFileOperationW in a winxp64 prefix (the pre-6 path), and on a 32-bit
#     Windows XP (a 32-bit prefix) with the 32-bit tools alone;
#  5. the agent's log as readable lines.
# Usage: demo.sh DIR...: the binaries of every DIR/bin (a release build of each bitness, or an
# unpacked package) are put together in one folder, as an installation has them; the demo works
# in the first DIR.
set -euo pipefail
build=${1:?usage: demo.sh DIR...}
work=$(cd "$build" && pwd)/demo
log=$work/logs bin=$work/bin
rm -rf "$work"; mkdir -p "$log" "$bin"
for dir in "$@"; do cp "$dir"/bin/*.exe "$dir"/bin/*.dll "$bin/"; done
for f in kwindel-x64.dll kwindel-x86.dll kwctl.exe kwctl-x86.exe kwagent-x86.exe kwdecrypt-x86.exe kwdemo-app.exe kwdemo-app-x86.exe; do
  [ -f "$bin/$f" ] || { echo "demo: $f is missing from $*: build both bitnesses (make release)" >&2; exit 1; }
done
export WINEDLLOVERRIDES=mscoree,mshtml= WINEDEBUG=-all
started=$(date +%s)
say() { printf '\n== %s\n' "$*"; }
indent() { sed 's/^/   /'; }
winpath() { printf 'Z:%s' "${1//\//\\}"; }

prefixes=()
cleanup() {
  for p in "${prefixes[@]}"; do WINEPREFIX=$p wineserver -k >/dev/null 2>&1 || true; done
}
trap cleanup EXIT

# new_prefix DIR [winxp64|winxp]: a fresh prefix with a persistent server and the sample files;
# winxp is a 32-bit Windows XP.
new_prefix() {
  local prefix=$1 version=${2:-} arch=win64
  [ "$version" = winxp ] && arch=win32
  prefixes+=("$prefix")
  WINEARCH=$arch WINEPREFIX=$prefix wineboot -i >"$log/wineboot-$(basename "$prefix").log" 2>&1 </dev/null
  WINEPREFIX=$prefix wineserver -w
  if [ -n "$version" ]; then
    WINEPREFIX=$prefix winecfg -v "$version" >>"$log/wineboot-$(basename "$prefix").log" 2>&1 </dev/null
    WINEPREFIX=$prefix wineserver -w
  fi
  WINEPREFIX=$prefix setsid wineserver -p >/dev/null 2>&1 </dev/null &
  local c=$prefix/drive_c/demo
  mkdir -p "$c/secret" "$c/out-x64" "$c/out-x86"
  printf 'Quarterly figures, nothing confidential.\n' >"$c/ordinary.txt"
  printf 'Names of the people who may not know.\n' >"$c/denied.txt"
  printf 'The merger is signed on Friday. Keep this to yourself.\n' >"$c/secret/plan.txt"
  for arch in x64 x86; do printf 'Board memo: moved, never to be read in clear again.\n' >"$c/secret/memo-$arch.txt"; done
  cat >"$c/rules.txt" <<'RULES'
# kwagent rules for the demo: first matching rule wins, wildcards match the whole path.
secret "C:\demo\secret\*" demo-password 1
deny "C:\demo\denied.txt"
default allow
RULES
}

# scenario PREFIX LABEL MODE X: agent, controller, desktop programs, proofs, agent log. X is the
# suffix of the tools to run ("" for the 64-bit kwctl with its twin, "-x86" on a 32-bit Windows).
scenario() {
  local prefix=$1 label=$2 mode=$3 x=$4
  export WINEPREFIX=$prefix
  say "[$label] kwagent$x starts with the sample rules (C:\\demo\\secret\\* secret with a password, C:\\demo\\denied.txt denied)"
  sed 's/^/   rules: /' "$prefix/drive_c/demo/rules.txt" | grep -v '^   rules: #'
  wine "$bin/kwagent$x.exe" --rules 'C:\demo\rules.txt' --log 'C:\demo\agent.jsonl' --pretty \
    --event "kwdemo-agent-stop" >"$log/agent-$label.txt" 2>"$log/agent-$label.err" </dev/null &
  local agent=$!
  for _ in $(seq 1 300); do
    grep -q listening "$log/agent-$label.err" 2>/dev/null && break
    kill -0 "$agent" 2>/dev/null || break
    sleep 0.1
  done
  indent <"$log/agent-$label.err"
  if ! grep -q listening "$log/agent-$label.err"; then
    echo "demo: kwagent could not start (see above); the demo needs UDP 127.0.0.1:7886 for itself" >&2
    exit 1
  fi

  local programs=(kwdemo-app kwdemo-app-x86)
  if [ -n "$x" ]; then
    programs=(kwdemo-app-x86)
    say "[$label] kwctl$x installs the global hook and sets the policy (a 32-bit Windows: the 32-bit tools alone)"
  else
    say "[$label] kwctl installs the global hooks of both bitnesses (its twin kwctl-x86 holds the 32-bit one) and sets the policy"
  fi
  WINEDEBUG=-all,+debugstr wine "$bin/kwctl$x.exe" --copy-audit --secret-audit --dest local,removable \
    --event kwdemo-stop >"$log/kwctl-$label.txt" 2>"$log/kwctl-$label.trace" </dev/null &
  local ctl=$!
  for _ in $(seq 1 150); do [ "$(grep -c policy "$log/kwctl-$label.txt" 2>/dev/null)" = ${#programs[@]} ] && break; sleep 0.1; done
  indent <"$log/kwctl-$label.txt"
  wine "$bin/kwctl$x.exe" --status </dev/null | indent

  local program arch out extra
  for program in "${programs[@]}"; do
    arch=x64; [ "$program" = kwdemo-app-x86 ] && arch=x86
    out="C:\\demo\\out-$arch"
    extra=()
    if [ "$mode" = shell-engine ]; then
      say "[$label] $program, a desktop program ($arch), copies three files to $out through the shell copy engine (IFileOperation), and moves a fourth"
      extra=("move:C:\\demo\\secret\\memo-$arch.txt")
    else
      say "[$label] $program, a desktop program ($arch), copies three files to $out through SHFileOperationW"
    fi
    WINEDEBUG=-all,+debugstr wine "$bin/$program.exe" "$mode" "$out" 'C:\demo\ordinary.txt' \
      'C:\demo\denied.txt' 'C:\demo\secret\plan.txt' "${extra[@]}" 2>"$log/$program-$label.trace" </dev/null | indent

    say "[$label] What arrived in $out"
    for f in ordinary.txt denied.txt plan.txt; do
      local p=$prefix/drive_c/demo/out-$arch/$f
      if [ -f "$p" ]; then printf '   %-13s %5d bytes, starts with: %s\n' "$f" "$(stat -c %s "$p")" "$(head -c 16 "$p" | od -An -c | tr -s ' ' | head -c 60)"
      else printf '   %-13s (not copied)\n' "$f"; fi
    done
    say "[$label] kwdecrypt$x proves the copy of plan.txt is the original under the password"
    expected=$((expected + 1))
    if wine "$bin/kwdecrypt$x.exe" "$out\\plan.txt" demo-password "$out\\plan.decrypted.txt" 2>&1 </dev/null | indent \
       && cmp -s "$prefix/drive_c/demo/out-$arch/plan.decrypted.txt" "$prefix/drive_c/demo/secret/plan.txt"; then
      echo "   decrypted copy is byte for byte the original: $(cat "$prefix/drive_c/demo/out-$arch/plan.decrypted.txt")"
      proofs=$((proofs + 1))
    else
      echo "   !! the copy of plan.txt could not be proved to be the encrypted original"
    fi
    echo "   the source stays as it was: $(cat "$prefix/drive_c/demo/secret/plan.txt")"
    if [ "$mode" = shell-engine ]; then
      say "[$label] The moved secret file memo-$arch.txt arrived in encrypted form; nothing of it stays at its place"
      expected=$((expected + 1))
      if wine "$bin/kwdecrypt$x.exe" --verify "$out\\memo-$arch.txt" demo-password 2>&1 </dev/null | indent \
         && [ ! -e "$prefix/drive_c/demo/secret/memo-$arch.txt" ]; then
        echo "   $out\\memo-$arch.txt decrypts to the original; C:\\demo\\secret\\memo-$arch.txt is gone"
        proofs=$((proofs + 1))
      else
        echo "   !! the moved memo-$arch.txt could not be proved to be the encrypted original"
      fi
    fi
  done

  wine "$bin/kwctl$x.exe" --stop kwdemo-stop </dev/null || true
  wait "$ctl" || true
  wine "$bin/kwctl$x.exe" --stop kwdemo-agent-stop </dev/null 2>/dev/null || kill "$agent" 2>/dev/null || true
  wait "$agent" 2>/dev/null || true
  say "[$label] The agent's log, as readable lines (JSON lines in C:\\demo\\agent.jsonl)"
  indent <"$log/agent-$label.txt"
  cp "$prefix/drive_c/demo/agent.jsonl" "$log/agent-$label.jsonl" 2>/dev/null || true
  for program in "${programs[@]}"; do
    say "[$label] Trace lines the DLL wrote inside $program (WINEDEBUG=+debugstr)"
    sed -n 's/^[0-9a-f]*:[a-z]*:debugstr:OutputDebugString[AW] "\(.*\)"$/\1/p' "$log/$program-$label.trace" \
      | sed 's/\\\\/\\/g' | indent
  done
}

proofs=0 expected=0
say "Creating three fresh Wine prefixes in $work (Windows 6.1; winxp64 and a 32-bit Windows XP for the pre-6 path)"
new_prefix "$work/wine-current"
new_prefix "$work/wine-xp" winxp64
new_prefix "$work/wine-xp32" winxp
scenario "$work/wine-current" current shell-engine ""
scenario "$work/wine-xp" pre-6 shell-operation ""
scenario "$work/wine-xp32" pre-6-32-bit shell-operation -x86

say "Summary"
cat <<SUMMARY
   shown: one kwctl install brought kwindel-x64.dll into a 64-bit and kwindel-x86.dll into a
          32-bit desktop program, in the Windows 6.1 and the winxp64 prefix; kwctl-x86 alone did
          the same for the 32-bit program on a 32-bit Windows XP;
          an ordinary file was copied and audited, a denied file was refused, a secret file was
          copied in encrypted form, through the shell copy engine (IFileOperation, Windows 6 and
          later) and through SHFileOperationW (older systems); a secret file moved through the
          shell copy engine arrived encrypted, nothing left behind;
          $proofs of $expected encrypted arrivals proved by kwdecrypt.
   logs:  $log  ($(( $(date +%s) - started )) s)
SUMMARY
[ "$proofs" = "$expected" ]
