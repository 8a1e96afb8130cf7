#!/usr/bin/env bash
# Checks the release package (make dist-check):
#  1. `make dist` (both bitnesses) in two clean clones of the last commit, in folders of different
#     names and depths, one after the other (so at different times), the second in another time
#     zone and with another umask: the DLLs, the tools, their PDBs, the import libraries and the
#     three zips must be equal byte for byte, and no binary or PDB may name a build folder;
#  2. every shipped binary of either bitness carries no debug information of its own and names
#     its PDB, which the symbols zip holds with the same GUID and age, and the symbol store files
#     both under the keys a debugger asks for; each DLL's PDB has the exports and the interceptors;
#  3. the version in the zip's name, both DLLs' version resources and `--version` of kwctl and
#     kwagent and their -x86 twins must agree;
#  4. `make dist` with a throw-away certificate signs the binaries; `osslsigncode verify` must
#     pass on each, and the signed binaries must still work under Wine: the demo runs on them
#     (screened copies through the real DLL, proved by kwdecrypt). The demo needs UDP port 7886;
#  5. 64-bit and 32-bit services consume the signed package: tests/package builds against the
#     unpacked zip through find_package(kwindel) with MinGW-w64's GCC of each bitness and must
#     load the DLL of its own, and its object links against each import library with lld-link
#     (the MSVC linker's ABI); all four programs run under Wine and get the documented answers.
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
name=kwindel-$version
shipped=build/release/dist/$name/bin
binaries=(kwindel-x64.dll kwctl.exe kwagent.exe kwdecrypt.exe kwindel-x86.dll kwctl-x86.exe kwagent-x86.exe kwdecrypt-x86.exe)
built=(build/release/bin/{kwindel-x64.dll,kwctl.exe,kwagent.exe,kwdecrypt.exe}
       build/release-x86/bin/{kwindel-x86.dll,kwctl-x86.exe,kwagent-x86.exe,kwdecrypt-x86.exe})
stems=("${built[@]%.*}")
for f in "${built[@]}" "${stems[@]/%/.pdb}" build/release/lib/kwindel-x64.lib build/release-x86/lib/kwindel-x86.lib \
         "$shipped"/kwindel-x{64,86}.dll dist/$name.zip dist/$name-symbols.zip dist/$name-symstore.zip; do
  [ -f "$a/$f" ] || fail "$f was not built"
  cmp -s "$a/$f" "$b/$f" || fail "$f differs between the two builds"
done
echo "dist-check: identical in both builds, both bitnesses: DLLs (built and shipped), tools, PDBs, import libraries, $name.zip, $name-symbols.zip, $name-symstore.zip"
for f in "$shipped"/kwindel-x{64,86}.dll "dist/$name.zip"; do
  echo "  $(sha256sum "$a/$f" | cut -c1-64)  a: $f"
  echo "  $(sha256sum "$b/$f" | cut -c1-64)  b: $f"
done

# The unsigned package: its own sums, no build folder in any file, the version everywhere.
unzip -q "$a/dist/$name.zip" -d "$work/unsigned"
unzip -q "$a/dist/$name-symbols.zip" -d "$work/unsigned"
unzip -q "$a/dist/$name-symstore.zip" -d "$work/unsigned"
for d in "$name" "$name-symbols" "$name-symstore"; do
  (cd "$work/unsigned/$d" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS of $d"
done
! grep -rlF -e "$work" -e "$src" -e "${XDG_CACHE_HOME:-$HOME/.cache}/kwindel" "$work/unsigned" "$a"/build/release{,-x86}/bin || fail "build folders named in the files above"
for dll in kwindel-x64.dll kwindel-x86.dll; do
  fv=$(x86_64-w64-mingw32-strings -el "$work/unsigned/$name/bin/$dll" | grep -A1 -x FileVersion | tail -1)
  [ "$fv" = "$version" ] || fail "$dll's FileVersion is '$fv', the package's version $version"
done
echo "dist-check: package verified by its SHA256SUMS, no build folder named, FileVersion $fv in both DLLs"

# The symbols: each binary names its PDB; the PDB's own GUID and age (llvm-pdbutil) are the key
# under which the store files it, beside the binary under its stamp and size.
sym=$work/unsigned/$name-symbols store=$work/unsigned/$name-symstore
for f in "${binaries[@]}"; do
  bin=$work/unsigned/$name/bin/$f pdb=${f%.*}.pdb
  headers=$(x86_64-w64-mingw32-objdump -h "$bin") record=$(llvm-readobj --file-headers --coff-debug-directory "$bin")
  ! grep -q ' \.debug' <<<"$headers" || fail "$f carries debug sections"
  grep -qx " *PDBFileName: $pdb" <<<"$record" || fail "$f does not name $pdb"
  stamp=$(sed -n 's/^  TimeDateStamp: .*(0x\(.*\))$/\1/p' <<<"$record") size=$(sed -n 's/^  SizeOfImage: //p' <<<"$record")
  cmp -s "$bin" "$store/$f/$(printf '%08X%x' "0x$stamp" "$size")/$f" || fail "the store does not hold $f under its stamp and size"
  summary=$(llvm-pdbutil dump -summary "$sym/$pdb") || fail "llvm-pdbutil cannot read $pdb"
  key=$(sed -n 's/^ *GUID: {\(.*\)}$/\1/p' <<<"$summary" | tr -d -)$(sed -n 's/^ *Age: //p' <<<"$summary")
  cmp -s "$sym/$pdb" "$store/$pdb/$key/$pdb" || fail "the store has no $pdb/$key/$pdb equal to the symbols' $pdb"
done
echo "dist-check: each binary names its PDB, matched by GUID and age in the symbols and the store"
# The 32-bit PDB names the exports by their __stdcall symbols (_SetPolicy@8).
for pdb in kwindel-x64.pdb kwindel-x86.pdb; do
  publics=$(llvm-pdbutil dump -publics "$sym/$pdb") procs=$(llvm-pdbutil dump -symbols "$sym/$pdb" | grep S_GPROC32)
  for e in InstallHook InstallHookProc RemoveHook SetPolicy; do
    grep -qE "S_PUB32 .*\`_?$e(@[0-9]+)?\`" <<<"$publics" || fail "no export $e in $pdb"
  done
  for i in CopyItems_new MoveItems_new CopyItem_new MoveItem_new PerformOperations_new Release_new Hook_CopyFileW \
           Hook_CopyFileExW Hook_MoveFileWithProgressW Hook_SHFileOperationW HookApi UnHookApi; do
    grep -q "\`$i\`" <<<"$procs" || fail "no function $i in $pdb"
  done
  echo "  $pdb:"
  llvm-pdbutil dump -summary "$sym/$pdb" | grep -E '^ *(GUID|Age):' | sed 's/^ */    /'
  grep -E "S_PUB32 .*\`_?(InstallHook|SetPolicy)(@[0-9]+)?\`" <<<"$publics" | sed 's/^ */    /'
  grep -E "\`(CopyItems_new|Hook_CopyFileW)\`" <<<"$procs" | sed 's/^ */    /'
done
(cd "$store" && find . -type f ! -name SHA256SUMS | LC_ALL=C sort | sed 's/^\./  store:/')

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
cp "$a/build/release/bin/kwdemo-app.exe" "$a/build/release-x86/bin/kwdemo-app-x86.exe" "$pkg/bin/"
"$src/scripts/demo.sh" "$pkg" >"$work/demo.log" 2>&1 || { tail -40 "$work/demo.log"; fail "the demo on the signed binaries"; }
grep -A4 '^== Summary' "$work/demo.log" | sed 's/^/  /'

# The tools' versions and the consumers run in a prefix of their own, whatever prefixes the demo
# makes; 32-bit programs run in it through WoW64.
export WINEPREFIX=$work/wine WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
wineboot -i >"$work/wineboot.log" 2>&1 </dev/null || { tail -20 "$work/wineboot.log"; fail "wineboot"; }
for t in kwctl kwagent kwctl-x86 kwagent-x86; do
  v=$(wine "$pkg/bin/$t.exe" --version </dev/null | tr -d '\r')
  [ "$v" = "${t%-x86} $version" ] || fail "$t --version printed '$v'"
done
echo "dist-check: kwctl, kwagent, kwctl-x86 and kwagent-x86 print version $version"

# A service's builds against the signed package in each bitness: CMake with GCC, which must pick
# the DLL of the program's bitness, and an object linked by lld-link.
for row in "x64 x86_64-w64-mingw32" "x86 i686-w64-mingw32"; do
  read -r arch triple <<<"$row"
  consumer=$work/consumer-$arch
  cmake -S "$src/tests/package" -B "$consumer/cmake" -G Ninja -DCMAKE_SYSTEM_NAME=Windows \
    -DCMAKE_C_COMPILER=$triple-gcc-posix -DCMAKE_PREFIX_PATH="$work/signed" >"$consumer.log" 2>&1 \
    && cmake --build "$consumer/cmake" >>"$consumer.log" 2>&1 || { tail -20 "$consumer.log"; fail "the $arch CMake consumer did not build"; }
  mkdir -p "$consumer/lld-link"
  clang-16 --target=$triple -O2 -c -DKWINDEL_CONSUMER_ENTRY -I"$pkg/include" "$src/tests/package/consumer.c" \
    -o "$consumer/lld-link/consumer.obj" || fail "the $arch consumer object did not compile"
  lld-link-16 /nologo /machine:$arch /entry:consumer_main /subsystem:console /nodefaultlib "$consumer/lld-link/consumer.obj" \
    "$pkg/lib/kwindel-$arch.lib" /out:"$consumer/lld-link/consumer.exe" || fail "lld-link did not link the $arch consumer"
  cp "$pkg/bin/kwindel-$arch.dll" "$consumer/lld-link/"
  rc=0; out=$(wine "$consumer/cmake/consumer.exe" </dev/null 2>/dev/null) || rc=$?
  out=${out//$'\r'/}
  [ "$rc" = 0 ] && [ "$out" = "loaded kwindel-$arch.dll" ] \
    || fail "the $arch CMake consumer ended with $rc and printed '$out', not 'loaded kwindel-$arch.dll'"
  rc=0; wine "$consumer/lld-link/consumer.exe" </dev/null >/dev/null 2>&1 || rc=$?
  [ "$rc" = 0 ] || fail "the $arch lld-link consumer ended with $rc"
  echo "dist-check: $arch consumers run: CMake with $triple-gcc-posix ($out), lld-link /machine:$arch with kwindel-$arch.lib"
done
wineserver -k
echo "dist-check: all checks passed"
