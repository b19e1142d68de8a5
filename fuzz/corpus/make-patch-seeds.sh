#!/usr/bin/env bash
# Remakes the seeds of the patch target with zstd's own tool: each seed is one byte that puts
# the split at the reference's end, the reference, then a patch made from it to a changed copy.
#   make-patch-seeds.sh
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
seed() {  # NAME REFERENCE-TEXT NEW-TEXT
  printf '%s' "$2" > "$work/ref"
  printf '%s' "$3" > "$work/new"
  zstd -qq -f --single-thread -19 --long=20 --patch-from="$work/ref" "$work/new" -o "$work/patch"
  local ref_size total split
  ref_size=$(stat -c %s "$work/ref")
  total=$((ref_size + $(stat -c %s "$work/patch")))
  # The target splits at first-byte * total / 255; the smallest byte that reaches the end.
  split=$(( (ref_size * 255 + total - 1) / total ))
  { printf "\\$(printf '%03o' "$split")"; cat "$work/ref" "$work/patch"; } > "$here/patch_apply_fuzz/$1"
}
mkdir -p "$here/patch_apply_fuzz"
line='function render(props){return props.value+1;}'
text=$(for i in $(seq 1 40); do echo "$line // $i"; done)
seed one-line "$text" "${text/\/\/ 20/console.log(20); \/\/ 20}"
seed grown "$text" "$text
export default render;"
seed shrunk "$text" "$line"
