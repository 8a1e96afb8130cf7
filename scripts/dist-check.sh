#!/usr/bin/env bash
# Checks the release package (make dist-check):
#  1. `make dist` in two clean clones of the last commit, in folders of different names and
#     depths, one after the other (so at different times), the second in another time zone and
#     with another umask: the DLL, the tools, the import library and both zips must be equal
#     byte for byte, and no binary may name a build folder;
#  2. the version in the zip's name, the DLL's version resource and `kwctl/kwagent --version`
#     must agree;
#  3. `make dist` with a throw-away certificate signs the binaries; `osslsigncode verify` must
#     pass on each, and the signed binaries must still work under Wine: the demo runs on them
#     (screened copies through the real DLL, proved by kwdecrypt). The demo needs UDP port 7886.
# Usage: dist-check.sh WORK_DIR
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "${1:?usage: dist-check.sh WORK_DIR}"
work=$(cd "$1" && pwd)
rm -rf "$work"/*
fail() { echo "dist-check: FAIL: $*" >&2; exit 1; }
commit=$(git -C "$src" rev-parse HEAD)
echo "dist-check: commit $commit"

a=$work/a/kwindel b=$work/second-build/b/kwindel
build() {  # build CLONE TZ UMASK
  local dir=$1 started=$(date +%s)
  git clone -q "$src" "$dir"
  git -C "$dir" checkout -q "$commit"
  (cd "$dir" && umask "$3" && TZ=$2 make dist >"$dir.log" 2>&1) || { tail -20 "$dir.log"; fail "make dist in $dir"; }
  echo "dist-check: built in $dir in $(( $(date +%s) - started )) s"
}
build "$a" UTC 022
build "$b" Asia/Kathmandu 077

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$a/build/release/CMakeCache.txt")
name=kwindel-$version-x64
shipped=build/release/dist/$name/bin/kwindel-x64.dll
for f in build/release/bin/kwindel-x64.dll build/release/bin/kwctl.exe build/release/bin/kwagent.exe \
         build/release/bin/kwdecrypt.exe build/release/lib/kwindel-x64.lib "$shipped" dist/$name.zip dist/$name-symbols.zip; do
  [ -f "$a/$f" ] || fail "$f was not built"
  cmp -s "$a/$f" "$b/$f" || fail "$f differs between the two builds"
done
echo "dist-check: identical in both builds: DLL (built and shipped), tools, import library, $name.zip, $name-symbols.zip"
for f in "$shipped" "dist/$name.zip"; do
  echo "  $(sha256sum "$a/$f" | cut -c1-64)  a: $f"
  echo "  $(sha256sum "$b/$f" | cut -c1-64)  b: $f"
done

# The unsigned package: its own sums, no build folder in any file, the version everywhere.
unzip -q "$a/dist/$name.zip" -d "$work/unsigned"
unzip -q "$a/dist/$name-symbols.zip" -d "$work/unsigned"
(cd "$work/unsigned/$name" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS of the package"
(cd "$work/unsigned/$name-symbols" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS of the symbols"
! grep -rlF -e "$work" -e "$src" -e "${XDG_CACHE_HOME:-$HOME/.cache}/kwindel" "$work/unsigned" "$a/build/release/bin" || fail "build folders named in the files above"
fv=$(x86_64-w64-mingw32-strings -el "$work/unsigned/$name/bin/kwindel-x64.dll" | grep -A1 -x FileVersion | tail -1)
[ "$fv" = "$version" ] || fail "the DLL's FileVersion is '$fv', the package's version $version"
echo "dist-check: package verified by its SHA256SUMS, no build folder named, FileVersion $fv"

# The signed package: a throw-away code-signing certificate, the signatures verified, the demo run.
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=kwindel dist-check" \
  -addext extendedKeyUsage=codeSigning -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null
(cd "$a" && make dist SIGN_CERT="$work/cert.pem" SIGN_KEY="$work/key.pem" >"$a-signed.log" 2>&1) \
  || { tail -20 "$a-signed.log"; fail "make dist with a certificate"; }
pkg=$work/signed/$name
unzip -q "$a/dist/$name.zip" -d "$work/signed"
(cd "$pkg" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS of the signed package"
for f in "$pkg"/bin/*; do
  osslsigncode verify -CAfile "$work/cert.pem" -in "$f" >"$f.verify" 2>&1 \
    || { cat "$f.verify"; fail "osslsigncode verify $(basename "$f")"; }
done
echo "dist-check: osslsigncode verify passed on $(cd "$pkg/bin" && ls *.dll *.exe | tr '\n' ' ')"
sed 's/^/  /' "$pkg/bin/kwindel-x64.dll.verify"
rm "$pkg"/bin/*.verify
cp "$a/build/release/bin/kwdemo-app.exe" "$pkg/bin/"
"$src/scripts/demo.sh" "$pkg" >"$work/demo.log" 2>&1 || { tail -40 "$work/demo.log"; fail "the demo on the signed binaries"; }
grep -A4 '^== Summary' "$work/demo.log" | sed 's/^/  /'
export WINEPREFIX=$pkg/demo/wine-current WINEDEBUG=-all
for t in kwctl kwagent; do
  v=$(wine "$pkg/bin/$t.exe" --version </dev/null | tr -d '\r')
  [ "$v" = "$t $version" ] || fail "$t --version printed '$v'"
done
wineserver -k
echo "dist-check: kwctl and kwagent print version $version; all checks passed"
