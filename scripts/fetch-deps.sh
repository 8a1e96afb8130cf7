#!/usr/bin/env bash
# Fetches the Debian source packages the build needs (tinyxml2, boost1.81) through a private
# deb-src list, checks their SHA-256 sums against the .dsc files and unpacks what the build uses.
# Everything lands in a cache outside the clone, so a second build downloads nothing.
# Usage: fetch-deps.sh CACHE_DIR     (prints nothing on a warm cache)
set -euo pipefail
cache=${1:?usage: fetch-deps.sh CACHE_DIR}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
stamp=$cache/deps.ok
[ -f "$stamp" ] && exit 0

apt_dir=$cache/apt
dl=$cache/downloads
mkdir -p "$apt_dir/lists/partial" "$dl"
echo 'deb-src http://deb.debian.org/debian bookworm main' > "$apt_dir/sources.list"
o=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o Dir::Etc::SourceParts=/dev/null
   -o "Dir::State::Lists=$apt_dir/lists" -o Debug::NoLocking=1)

need_download=0
for p in tinyxml2 boost1.81; do ls "$dl"/${p}_*.dsc >/dev/null 2>&1 || need_download=1; done
if [ $need_download = 1 ]; then
  echo "fetch-deps: downloading Debian source packages tinyxml2 and boost1.81 into $dl"
  apt-get "${o[@]}" update >"$cache/apt-update.log" 2>&1 \
    || { echo "fetch-deps: 'apt-get update' of the private deb-src list failed; see $cache/apt-update.log" >&2; exit 1; }
  (cd "$dl" && apt-get "${o[@]}" source --download-only tinyxml2 boost1.81) >"$cache/apt-source.log" 2>&1 \
    || { echo "fetch-deps: 'apt-get source --download-only' failed; see $cache/apt-source.log" >&2; exit 1; }
fi

# Verify every file each .dsc lists against its Checksums-Sha256 entry.
verify() {
  local dsc=$1
  awk '/^Checksums-Sha256:/{on=1;next} /^[^ ]/{on=0} on&&NF==3{print $1"  "$3}' "$dsc" \
    | (cd "$(dirname "$dsc")" && sha256sum --quiet -c -) \
    || { echo "fetch-deps: SHA-256 mismatch for files of $dsc; delete $dl and retry" >&2; exit 1; }
}
for dsc in "$dl"/tinyxml2_*.dsc "$dl"/boost1.81_*.dsc; do verify "$dsc"; done

rm -rf "$cache/tinyxml2" "$cache/boost"
mkdir -p "$cache/tinyxml2" "$cache/boost"
tar -xf "$dl"/tinyxml2_*.orig.tar.* -C "$cache/tinyxml2" --strip-components=1
# Boost: only headers of every library and the sources of Filesystem and System.
tar -xf "$dl"/boost1.81_*.orig.tar.* -C "$cache/boost" --strip-components=1 --wildcards \
  '*/libs/*/include/*' '*/libs/filesystem/src/*' '*/libs/system/src/*' \
  '*/libs/filesystem/config/*'
# Merge the modular headers into one tree, as Boost's own "headers" step does.
mkdir -p "$cache/boost/merged"
for inc in "$cache"/boost/libs/*/include "$cache"/boost/libs/numeric/*/include; do
  [ -d "$inc/boost" ] && cp -r "$inc/boost" "$cache/boost/merged/"
done
touch "$stamp"
echo "fetch-deps: dependencies ready in $cache"
