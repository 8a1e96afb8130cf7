#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the release package need, when missing,
# and 32-bit Wine (wine32:i386) for the engine's tests in a 32-bit process.
# As root it installs them; otherwise it prints the exact commands and fails.
# Quick (a few dpkg queries) when everything is present.
set -euo pipefail
pkgs=(mingw-w64 g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine64 cmake ninja-build googletest make
      xz-utils ca-certificates apt-utils libzydis-dev libcapstone-dev python3-capstone openssl clang
      libclang-rt-14-dev llvm clang-16 lld-16 git python3 unzip osslsigncode)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
missing=()
for p in "${pkgs[@]}"; do installed "$p" || missing+=("$p"); done
wine32=0
installed wine32:i386 || wine32=1
[ ${#missing[@]} -eq 0 ] && [ $wine32 -eq 0 ] && exit 0

# 32-bit Wine's multiarch libraries must have the same versions as the amd64 ones. The mirror's
# bookworm-security i386 index has been seen stale (apt-get update then reports it and a plain
# install fails): bookworm's own packages are taken (-t bookworm), and the one library whose amd64
# version came from the security archive is fetched from its pool and checked against its SHA-256.
gst=libgstreamer-plugins-base1.0-0
declare -A gst_sha256=(
  [1.22.0-3+deb12u7]=6bbfbaa488e06d3fc909c5cd3ca4f481368e8dcde58844894893a5bb989b39aa
)
wine32_commands() {
  echo "dpkg --add-architecture i386 && apt-get update   (a failing bookworm-security i386 index is expected)"
  echo "apt-get install -y -t bookworm wine32:i386   (if it fails: add ./${gst}_<amd64 version>_i386.deb from"
  echo "  http://deb.debian.org/debian-security/pool/updates/main/g/gst-plugins-base1.0/, SHA-256 checked)"
}
if [ "$(id -u)" != 0 ]; then
  [ ${#missing[@]} -eq 0 ] || {
    echo "bootstrap: missing Debian packages: ${missing[*]}" >&2
    echo "bootstrap: run as root:  apt-get update && apt-get install -y ${missing[*]}" >&2
  }
  [ $wine32 -eq 0 ] || { echo "bootstrap: 32-bit Wine (wine32:i386) is missing; as root:" >&2; wine32_commands >&2; }
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  apt-get update -qq >/dev/null
  apt-get install -y -qq "${missing[@]}" >/dev/null \
    || { echo "bootstrap: 'apt-get install -y ${missing[*]}' failed" >&2; exit 1; }
fi
[ $wine32 -eq 0 ] && exit 0

echo "bootstrap: installing 32-bit Wine (wine32:i386)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dpkg --print-foreign-architectures | grep -qx i386 || dpkg --add-architecture i386
apt-get update -qq >"$work/update.log" 2>&1 ||
  echo "bootstrap: apt-get update reported errors (a stale bookworm-security i386 index is known); going on:" \
    "$(grep -E '^(E|W):' "$work/update.log" | head -3 | tr '\n' ' ')"
if ! apt-get install -y -qq -t bookworm wine32:i386 >"$work/install.log" 2>&1; then
  v=$(dpkg-query -W -f='${Version}' "$gst:amd64" 2>/dev/null || true)
  sum=${gst_sha256[$v]:-}
  deb="$work/${gst}_${v}_i386.deb"
  url="http://deb.debian.org/debian-security/pool/updates/main/g/gst-plugins-base1.0/${gst}_${v}_i386.deb"
  if [ -z "$v" ] || [ -z "$sum" ]; then
    echo "bootstrap: 'apt-get install -t bookworm wine32:i386' failed, and no checked $gst for amd64 version" \
      "'${v:-none}' is known here:" >&2
    tail -5 "$work/install.log" >&2
    exit 1
  fi
  /usr/lib/apt/apt-helper download-file "$url" "$deb" "SHA256:$sum" >"$work/download.log" 2>&1 ||
    { echo "bootstrap: fetching $url (SHA-256 $sum) failed:" >&2; tail -3 "$work/download.log" >&2; exit 1; }
  apt-get install -y -qq -t bookworm wine32:i386 "$deb" >"$work/install.log" 2>&1 ||
    { echo "bootstrap: 'apt-get install -t bookworm wine32:i386 $deb' failed:" >&2; tail -8 "$work/install.log" >&2; exit 1; }
fi
installed wine32:i386 || { echo "bootstrap: wine32:i386 is still not installed" >&2; exit 1; }
echo "bootstrap: 32-bit Wine installed (Wine prefixes made before are made afresh by scripts/wine-prefix.sh)"
