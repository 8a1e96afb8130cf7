#!/usr/bin/env bash
# The release package from the two release builds (64-bit and 32-bit), both bitnesses in one:
#  OUT_DIR/kwindel-<version>.zip: the DLLs and tools of both bitnesses (no debug information in
#    them; each names its PDB by a CodeView record), import libraries and .defs, header, CMake
#    package (lib/cmake/kwindel), docs, README, licences, SHA256SUMS;
#  OUT_DIR/kwindel-<version>-symbols.zip: the PDB of each binary;
#  OUT_DIR/kwindel-<version>-symstore.zip: the same PDBs and the binaries in the layout
#    Windows debuggers fetch from a symbol server (<name>.pdb/<GUID><age>/<name>.pdb,
#    <name>/<TIMESTAMP><SizeOfImage>/<name>), to publish as it is.
# All are byte-for-byte reproducible: members sorted, times from SOURCE_DATE_EPOCH (default: the
# last commit's time), fixed permissions.
# Signing: SIGN_CERT and SIGN_KEY (PEM or DER; SIGN_PASSFILE for an encrypted key) sign the DLLs
# and the tools with Authenticode through osslsigncode; SIGN_TSA names a time-stamping server,
# and when it cannot be reached the signature goes without a time stamp. Signing keeps the stamp
# and size that the symbol store files the binaries under.
# Usage: dist.sh BUILD_DIR BUILD_X86_DIR OUT_DIR
set -euo pipefail
usage="usage: dist.sh BUILD_DIR BUILD_X86_DIR OUT_DIR"
build=$(cd "${1:?$usage}" && pwd)
build86=$(cd "${2:?$usage}" && pwd)
out=${3:?$usage}
src=$(cd "$(dirname "$0")/.." && pwd)
die() { echo "dist: $*" >&2; exit 1; }
need() { command -v "$1" >/dev/null || die "$1 is missing: run scripts/bootstrap.sh as root (apt-get install $2)"; }
need python3 python3

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || die "no project version in $build/CMakeCache.txt: configure the release preset first"
[ "$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build86/CMakeCache.txt" 2>/dev/null)" = "$version" ] \
  || die "$build86 is not a release-x86 build of version $version: configure and build the release-x86 preset"
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$(git -C "$src" log -1 --format=%ct 2>/dev/null) \
    || die "not a git clone: set SOURCE_DATE_EPOCH (seconds since 1970) for the archive times"
fi
[ -z "$(git -C "$src" status --porcelain 2>/dev/null)" ] \
  || echo "dist: note: the working tree has changes that the last commit does not hold" >&2

name=kwindel-$version
stage=$build/dist
rm -rf "$stage" "$out/$name.zip" "$out/$name-symbols.zip" "$out/$name-symstore.zip"  # no stale package after a failure
pkg=$stage/$name sym=$stage/$name-symbols store=$stage/$name-symstore
mkdir -p "$pkg/bin" "$pkg/lib/cmake/kwindel" "$pkg/include" "$pkg/docs" "$pkg/licenses" "$sym" "$store"

# The builds leave the binaries as they ship (their debug information is in the PDBs only).
ship() {  # ship BUILD_DIR PRESET BINARY...
  local dir=$1 preset=$2 dll=${3%.dll} f; shift 2
  for f; do
    [ -f "$dir/bin/$f" ] || die "$dir/bin/$f is missing: build the $preset preset first"
    [ -f "$dir/bin/${f%.*}.pdb" ] || die "$dir/bin/${f%.*}.pdb is missing: the $preset preset links a PDB beside each binary"
    cp "$dir/bin/$f" "$pkg/bin/"
    cp "$dir/bin/${f%.*}.pdb" "$sym/"
  done
  cp "$dir/lib/$dll.lib" "$pkg/lib/"
  cp "$dir/src/kwindel.def" "$pkg/lib/$dll.def"
}
ship "$build" release kwindel-x64.dll kwctl.exe kwagent.exe kwdecrypt.exe
ship "$build86" release-x86 kwindel-x86.dll kwctl-x86.exe kwagent-x86.exe kwdecrypt-x86.exe
cp "$src/cmake/package/kwindelConfig.cmake" "$build/package/kwindelConfigVersion.cmake" "$pkg/lib/cmake/kwindel/"
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

# The symbol store, from the binaries as they ship: each PDB under its GUID and age, each binary
# under its PE time stamp and SizeOfImage, all read from the binary's headers (PE32+ or PE32) and
# CodeView record.
for f in "$pkg"/bin/*; do
  python3 - "$f" "$sym" "$store" <<'PY' || die "no CodeView record naming a PDB in $(basename "$f")"
import os, shutil, struct, sys
path, sym, store = sys.argv[1:]
pe = open(path, "rb").read()
nt = struct.unpack_from("<I", pe, 0x3C)[0]
stamp, = struct.unpack_from("<I", pe, nt + 8)
opt = nt + 24
size_of_image, = struct.unpack_from("<I", pe, opt + 56)
directories = opt + (112 if struct.unpack_from("<H", pe, opt)[0] == 0x20B else 96)  # PE32+ or PE32
debug_rva, debug_size = struct.unpack_from("<II", pe, directories + 6 * 8)
sections = [struct.unpack_from("<IIII", pe, opt + struct.unpack_from("<H", pe, nt + 20)[0] + 40 * i + 8)
            for i in range(struct.unpack_from("<H", pe, nt + 6)[0])]
def offset(rva):
    return next(raw + rva - va for vsize, va, rsize, raw in sections if va <= rva < va + max(vsize, rsize))
record = None
for d in range(offset(debug_rva), offset(debug_rva) + debug_size, 28):
    kind, size, rva = struct.unpack_from("<III", pe, d + 12)
    if kind == 2 and pe[offset(rva):offset(rva) + 4] == b"RSDS":  # CodeView: GUID, age, PDB name
        record = pe[offset(rva):offset(rva) + size]
if record is None:
    sys.exit(1)
d1, d2, d3 = struct.unpack_from("<IHH", record, 4)
age, = struct.unpack_from("<I", record, 20)
pdb = record[24:].split(b"\0")[0].decode()
key = "%08X%04X%04X%s%X" % (d1, d2, d3, record[12:20].hex().upper(), age)
name = os.path.basename(path)
for folder, file in ((os.path.join(store, pdb, key), os.path.join(sym, pdb)),
                     (os.path.join(store, name, "%08X%x" % (stamp, size_of_image)), path)):
    os.makedirs(folder)
    shutil.copyfile(file, os.path.join(folder, os.path.basename(file)))
PY
done

# SHA256SUMS lists every other file of the package, by its path inside the package.
for d in "$pkg" "$sym" "$store"; do
  (cd "$d" && find . -type f -printf '%P\n' | LC_ALL=C sort | xargs -d '\n' sha256sum >"$stage/sums")
  mv "$stage/sums" "$d/SHA256SUMS"
done

mkdir -p "$out"
for d in "$name" "$name-symbols" "$name-symstore"; do
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
echo "dist: $out/$name.zip, $out/$name-symbols.zip and $out/$name-symstore.zip (version $version, times $(date -u -d "@$SOURCE_DATE_EPOCH" +%F\ %T) UTC)"
