#!/usr/bin/env bash
# Folder expansion: get_filepaths_from_folder over a tree of 100,000 files (1,000 folders of 100)
# against its limit, a bare FindFirstFileExW walk (basic information, large fetch) building the
# same list in the same process (target: the walk at least 0.8 of its speed), and against
# "cmd /c dir /s /b" over the same tree (target: no slower than dir); one prefix, alternating.
# The 64-bit program only: the walk's time goes to the wineserver's round trips, not to code whose
# speed depends on the bitness, and the dir runs make this the longest script already.
# usage: bench/folder_walk.sh [BUILD_DIR [X86_BUILD_DIR]]   (default build/release build/release-x86)
set -euo pipefail
source "$(dirname "$0")/common.bash"
tree=$build/bench/tree-100k
if [ ! -f "$build/bench/tree-100k.ready" ]; then  # made once, kept for later runs
  rm -rf "$tree"
  for a in $(seq -w 0 99); do
    for b in $(seq -w 0 9); do
      mkdir -p "$tree/folder-$a/sub-$b"
      (cd "$tree/folder-$a/sub-$b" && touch file-{000..099}.txt)
    done
  done
  touch "$build/bench/tree-100k.ready"
fi
start_prefix default
echo "bench/folder_walk: expansion of a tree of $(find "$tree" -type f | wc -l) files"
kwbench x64 default walk "$(winpath "$tree")" "$(winpath "$build/bench/dir-listing.txt")" 5
rm -f "$build/bench/dir-listing.txt"
