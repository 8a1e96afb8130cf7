#!/usr/bin/env bash
# The demo: kwindel-x64.dll doing its job end to end in fresh Wine prefixes, narrated.
#  1. kwagent (the reference agent) starts with sample rules: one secret folder with a password,
#     one denied file;
#  2. kwctl (standing in for the controlling service) installs the global hook and sets a policy
#     that audits copies and checks secret files for local and removable destinations;
#  3. kwdemo-app (a desktop program with a message loop, so the DLL is injected into it) copies an
#     ordinary file, a denied file and a secret file through the shell copy engine (IFileOperation);
#     kwdecrypt proves the copy of the secret file is the original under the password; a secret
#     file moved through the engine arrives encrypted, and nothing of it stays at its place;
#  4. the same through SHFileOperationW in a winxp64 prefix (the pre-6 path);
#  5. the agent's log as readable lines.
set -euo pipefail
build=${1:?usage: demo.sh BUILD_DIR}
bin=$(cd "$build/bin" && pwd)
work=$(cd "$build" && pwd)/demo
log=$work/logs
rm -rf "$work"; mkdir -p "$log"
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

# new_prefix DIR [winxp64]: a fresh prefix with a persistent server and the sample files.
new_prefix() {
  local prefix=$1 version=${2:-}
  prefixes+=("$prefix")
  WINEPREFIX=$prefix wineboot -i >"$log/wineboot-$(basename "$prefix").log" 2>&1 </dev/null
  WINEPREFIX=$prefix wineserver -w
  if [ -n "$version" ]; then
    WINEPREFIX=$prefix winecfg -v "$version" >>"$log/wineboot-$(basename "$prefix").log" 2>&1 </dev/null
    WINEPREFIX=$prefix wineserver -w
  fi
  WINEPREFIX=$prefix setsid wineserver -p >/dev/null 2>&1 </dev/null &
  local c=$prefix/drive_c/demo
  mkdir -p "$c/secret" "$c/out"
  printf 'Quarterly figures, nothing confidential.\n' >"$c/ordinary.txt"
  printf 'Names of the people who may not know.\n' >"$c/denied.txt"
  printf 'The merger is signed on Friday. Keep this to yourself.\n' >"$c/secret/plan.txt"
  printf 'Board memo: moved, never to be read in clear again.\n' >"$c/secret/memo.txt"
  cat >"$c/rules.txt" <<'RULES'
# kwagent rules for the demo: first matching rule wins, wildcards match the whole path.
secret "C:\demo\secret\*" demo-password 1
deny "C:\demo\denied.txt"
default allow
RULES
}

# scenario PREFIX LABEL MODE: agent, controller, desktop program, proof, agent log.
scenario() {
  local prefix=$1 label=$2 mode=$3
  export WINEPREFIX=$prefix
  say "[$label] kwagent starts with the sample rules (C:\\demo\\secret\\* secret with a password, C:\\demo\\denied.txt denied)"
  sed 's/^/   rules: /' "$prefix/drive_c/demo/rules.txt" | grep -v '^   rules: #'
  wine "$bin/kwagent.exe" --rules 'C:\demo\rules.txt' --log 'C:\demo\agent.jsonl' --pretty \
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

  say "[$label] kwctl installs the global hook and sets the policy"
  WINEDEBUG=-all,+debugstr wine "$bin/kwctl.exe" --copy-audit --secret-audit --dest local,removable \
    --event kwdemo-stop >"$log/kwctl-$label.txt" 2>"$log/kwctl-$label.trace" </dev/null &
  local ctl=$!
  for _ in $(seq 1 100); do grep -q policy "$log/kwctl-$label.txt" 2>/dev/null && break; sleep 0.1; done
  indent <"$log/kwctl-$label.txt"

  local extra=()
  if [ "$mode" = shell-engine ]; then
    say "[$label] kwdemo-app, a desktop program, copies three files to C:\\demo\\out through the shell copy engine (IFileOperation), and moves a fourth"
    extra=('move:C:\demo\secret\memo.txt')
  else
    say "[$label] kwdemo-app, a desktop program, copies three files to C:\\demo\\out through SHFileOperationW"
  fi
  WINEDEBUG=-all,+debugstr wine "$bin/kwdemo-app.exe" "$mode" 'C:\demo\out' 'C:\demo\ordinary.txt' \
    'C:\demo\denied.txt' 'C:\demo\secret\plan.txt' "${extra[@]}" 2>"$log/kwdemo-app-$label.trace" </dev/null | indent

  say "[$label] What arrived in C:\\demo\\out"
  for f in ordinary.txt denied.txt plan.txt; do
    local p=$prefix/drive_c/demo/out/$f
    if [ -f "$p" ]; then printf '   %-13s %5d bytes, starts with: %s\n' "$f" "$(stat -c %s "$p")" "$(head -c 16 "$p" | od -An -c | tr -s ' ' | head -c 60)"
    else printf '   %-13s (not copied)\n' "$f"; fi
  done
  say "[$label] kwdecrypt proves the copy of plan.txt is the original under the password"
  if wine "$bin/kwdecrypt.exe" 'C:\demo\out\plan.txt' demo-password 'C:\demo\out\plan.decrypted.txt' 2>&1 </dev/null | indent \
     && cmp -s "$prefix/drive_c/demo/out/plan.decrypted.txt" "$prefix/drive_c/demo/secret/plan.txt"; then
    echo "   decrypted copy is byte for byte the original: $(cat "$prefix/drive_c/demo/out/plan.decrypted.txt")"
    proofs=$((proofs + 1))
  else
    echo "   !! the copy of plan.txt could not be proved to be the encrypted original"
  fi
  echo "   the source stays as it was: $(cat "$prefix/drive_c/demo/secret/plan.txt")"
  if [ "$mode" = shell-engine ]; then
    say "[$label] The moved secret file memo.txt arrived in encrypted form; nothing of it stays at its place"
    if wine "$bin/kwdecrypt.exe" --verify 'C:\demo\out\memo.txt' demo-password 2>&1 </dev/null | indent \
       && [ ! -e "$prefix/drive_c/demo/secret/memo.txt" ]; then
      echo "   C:\\demo\\out\\memo.txt decrypts to the original; C:\\demo\\secret\\memo.txt is gone"
    else
      echo "   !! the moved memo.txt could not be proved to be the encrypted original"
      proofs=$((proofs - 1))
    fi
  fi

  wine "$bin/kwctl.exe" --stop kwdemo-stop </dev/null || true
  wait "$ctl" || true
  wine "$bin/kwctl.exe" --stop kwdemo-agent-stop </dev/null 2>/dev/null || kill "$agent" 2>/dev/null || true
  wait "$agent" 2>/dev/null || true
  say "[$label] The agent's log, as readable lines (JSON lines in C:\\demo\\agent.jsonl)"
  indent <"$log/agent-$label.txt"
  cp "$prefix/drive_c/demo/agent.jsonl" "$log/agent-$label.jsonl" 2>/dev/null || true
  say "[$label] Trace lines the DLL wrote inside kwdemo-app (WINEDEBUG=+debugstr)"
  sed -n 's/^[0-9a-f]*:[a-z]*:debugstr:OutputDebugString[AW] "\(.*\)"$/\1/p' "$log/kwdemo-app-$label.trace" \
    | sed 's/\\\\/\\/g' | indent
}

proofs=0
say "Creating two fresh Wine prefixes in $work (Windows 6.1, and winxp64 for the pre-6 path)"
new_prefix "$work/wine-current"
new_prefix "$work/wine-xp" winxp64
scenario "$work/wine-current" current shell-engine
scenario "$work/wine-xp" pre-6 shell-operation

say "Summary"
cat <<SUMMARY
   shown: the global hook brought kwindel-x64.dll into a desktop program in both prefixes;
          an ordinary file was copied and audited, a denied file was refused, a secret file was
          copied in encrypted form ($proofs of 2 copies proved by kwdecrypt), once through the shell
          copy engine (IFileOperation, Windows 6 and later) and once through SHFileOperationW (older systems);
          a secret file moved through the shell copy engine arrived encrypted, nothing left behind.
   logs:  $log  ($(( $(date +%s) - started )) s)
SUMMARY
[ "$proofs" = 2 ]
