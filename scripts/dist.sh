#!/usr/bin/env bash
# The release package from a release build: OUT_DIR/kwindel-<version>-x64.zip (stripped DLL and
# tools with a debug link, import library and .def, header, docs, README, licences, SHA256SUMS)
# and OUT_DIR/kwindel-<version>-x64-symbols.zip (the debug information, one .debug file per
# binary). Both are byte-for-byte reproducible: members sorted, times from SOURCE_DATE_EPOCH
# (default: the last commit's time), fixed permissions.
# Signing: SIGN_CERT and SIGN_KEY (PEM or DER; SIGN_PASSFILE for an encrypted key) sign the DLL
# and the tools with Authenticode through osslsigncode; SIGN_TSA names a time-stamping server,
# and when it cannot be reached the signature goes without a time stamp.
# Usage: dist.sh BUILD_DIR OUT_DIR
set -euo pipefail
build=$(cd "${1:?usage: dist.sh BUILD_DIR OUT_DIR}" && pwd)
out=${2:?usage: dist.sh BUILD_DIR OUT_DIR}
src=$(cd "$(dirname "$0")/.." && pwd)
die() { echo "dist: $*" >&2; exit 1; }
need() { command -v "$1" >/dev/null || die "$1 is missing: run scripts/bootstrap.sh as root (apt-get install $2)"; }
need x86_64-w64-mingw32-objcopy binutils-mingw-w64-x86-64
need python3 python3

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || die "no project version in $build/CMakeCache.txt: configure the release preset first"
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$(git -C "$src" log -1 --format=%ct 2>/dev/null) \
    || die "not a git clone: set SOURCE_DATE_EPOCH (seconds since 1970) for the archive times"
fi
[ -z "$(git -C "$src" status --porcelain 2>/dev/null)" ] \
  || echo "dist: note: the working tree has changes that the last commit does not hold" >&2

name=kwindel-$version-x64
stage=$build/dist
rm -rf "$stage" "$out/$name.zip" "$out/$name-symbols.zip"  # no stale package after a failure
pkg=$stage/$name sym=$stage/$name-symbols
mkdir -p "$pkg/bin" "$pkg/lib" "$pkg/include" "$pkg/docs" "$pkg/licenses" "$sym"

# The debug information and symbols move out; the shipped binaries keep a debug link (name and
# CRC-32 of the .debug file) by which debuggers and addr2line find it. objcopy stamps the PE
# header it writes with SOURCE_DATE_EPOCH, else the current time: 0 keeps the linker's 0.
for f in kwindel-x64.dll kwctl.exe kwagent.exe kwdecrypt.exe; do
  [ -f "$build/bin/$f" ] || die "$build/bin/$f is missing: build the release preset first"
  SOURCE_DATE_EPOCH=0 x86_64-w64-mingw32-objcopy --only-keep-debug "$build/bin/$f" "$sym/$f.debug"
  (cd "$sym" && SOURCE_DATE_EPOCH=0 x86_64-w64-mingw32-objcopy --strip-all --add-gnu-debuglink="$f.debug" \
     "$build/bin/$f" "$pkg/bin/$f")
done
cp "$build/lib/kwindel-x64.lib" "$pkg/lib/"
cp "$src/src/kwindel.def" "$pkg/lib/kwindel-x64.def"
cp "$src/include/kwindel.h" "$pkg/include/"
cp "$src"/docs/*.md "$pkg/docs/"
cp "$src/README.md" "$src/LICENSE" "$pkg/"
cp "$src"/licenses/*.txt "$pkg/licenses/"

if [ -n "${SIGN_CERT:-}${SIGN_KEY:-}" ]; then
  [ -n "${SIGN_CERT:-}" ] && [ -n "${SIGN_KEY:-}" ] || die "signing needs both SIGN_CERT and SIGN_KEY"
  need osslsigncode osslsigncode
  sign=(-certs "$SIGN_CERT" -key "$SIGN_KEY" -h sha256 -n "kwindel $version")
  [ -z "${SIGN_PASSFILE:-}" ] || sign+=(-readpass "$SIGN_PASSFILE")
  for f in "$pkg"/bin/*; do
    if [ -n "${SIGN_TSA:-}" ] && osslsigncode sign "${sign[@]}" -ts "$SIGN_TSA" -in "$f" -out "$f.signed" >/dev/null 2>&1; then
      :
    else
      [ -z "${SIGN_TSA:-}" ] || echo "dist: time-stamping server $SIGN_TSA not reachable: $(basename "$f") signed without a time stamp" >&2
      rm -f "$f.signed"
      osslsigncode sign "${sign[@]}" -in "$f" -out "$f.signed" >"$stage/sign.log" 2>&1 \
        || { cat "$stage/sign.log" >&2; die "osslsigncode could not sign $(basename "$f")"; }
    fi
    mv "$f.signed" "$f"
  done
  echo "dist: signed $(cd "$pkg/bin" && echo *) with $SIGN_CERT"
fi

# SHA256SUMS lists every other file of the package, by its path inside the package.
for d in "$pkg" "$sym"; do
  (cd "$d" && find . -type f -printf '%P\n' | LC_ALL=C sort | xargs -d '\n' sha256sum >"$stage/sums")
  mv "$stage/sums" "$d/SHA256SUMS"
done

mkdir -p "$out"
for d in "$name" "$name-symbols"; do
  python3 - "$stage" "$d" "$out/$d.zip" "$SOURCE_DATE_EPOCH" <<'PY'
import os, sys, time, zipfile
root, top, dest, epoch = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
stamp = time.gmtime(max(epoch, 315532800))[:6]  # zip times start in 1980
names = sorted(os.path.relpath(os.path.join(d, f), root)
               for d, _, fs in os.walk(os.path.join(root, top)) for f in fs)
with zipfile.ZipFile(dest + ".tmp", "w") as z:
    for n in names:
        info = zipfile.ZipInfo(n, stamp)
        info.create_system = 3  # Unix, so the permissions below are what an unzip sees
        info.external_attr = (0o100755 if n.endswith((".exe", ".dll")) else 0o100644) << 16
        info.compress_type = zipfile.ZIP_DEFLATED
        with open(os.path.join(root, n), "rb") as f:
            z.writestr(info, f.read(), compresslevel=9)
os.replace(dest + ".tmp", dest)
PY
done
echo "dist: $out/$name.zip and $out/$name-symbols.zip (version $version, times $(date -u -d "@$SOURCE_DATE_EPOCH" +%F\ %T) UTC)"
