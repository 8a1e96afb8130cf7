#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the release package need, when missing.
# As root it installs them; otherwise it prints the exact apt-get line and fails.
# Quick (a few dpkg queries) when everything is present.
set -euo pipefail
pkgs=(mingw-w64 g++-mingw-w64-x86-64-posix wine64 cmake ninja-build googletest make xz-utils ca-certificates
      apt-utils libzydis-dev libcapstone-dev python3-capstone openssl clang libclang-rt-14-dev llvm clang-16 lld-16
      git python3 unzip osslsigncode)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" != 0 ]; then
  echo "bootstrap: missing Debian packages: ${missing[*]}" >&2
  echo "bootstrap: run as root:  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq >/dev/null
apt-get install -y -qq "${missing[@]}" >/dev/null \
  || { echo "bootstrap: 'apt-get install -y ${missing[*]}' failed" >&2; exit 1; }
