#!/usr/bin/env bash
# Checks ferrit pack from the outside: every command's manual page, the same bytes from the same
# input, what a diff lists, the wrapped image's signature, the signed configuration, a preload zip
# that the library installs and serves, and the exit statuses of a wrong command line (2) and of
# failed work (1).
#   check-pack-tool.sh PATH-TO-ferrit PRIVATE-KEY.pem PUBLIC-KEY.pem
set -euo pipefail
ferrit=$1
key=$2
public_key=$3
tool() { "$ferrit" pack "$@"; }
tool=tool
source "$(dirname "$0")/../common/check-lib.sh" check-pack-tool

for command in build diff wrap config preload; do
  page=$("$tool" "$command" --help)
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS EXAMPLES "EXIT STATUS"; do
    expect "$section" "$page"
  done
  expect "ferrit pack $command" "$page"
done
expect "SYNOPSIS" "$("$tool" --help)"

mkdir -p "$work/v1/css" "$work/v2/css"
printf '<html>one</html>' > "$work/v1/index.html"
printf 'body{}' > "$work/v1/css/app.css"
printf 'old' > "$work/v1/gone.js"
printf '<html>two</html>' > "$work/v2/index.html"
printf 'body{}' > "$work/v2/css/app.css"
printf 'new' > "$work/v2/new.js"

prefix=https://shop.example.com/app/
out=$("$tool" build --key "$key" --url-prefix "$prefix" \
  --header "css/app.css=Access-Control-Allow-Origin:*" "$work/v1" "$work/a.zip")
expect "(3 files, md5 " "$out"
"$tool" build --key "$key" --url-prefix "$prefix" \
  --header "css/app.css=Access-Control-Allow-Origin:*" "$work/v1" "$work/b.zip" >/dev/null
cmp -s "$work/a.zip" "$work/b.zip" || fail "two builds of the same folder differ"
if command -v unzip >/dev/null; then
  entries=$(unzip -Z1 "$work/a.zip" | tr '\n' ' ')
  [ "$entries" = "app-res.hvc res/css/app.css res/gone.js res/index.html " ] ||
    fail "unexpected entries: $entries"
  index=$(unzip -p "$work/a.zip" app-res.hvc)
  expect '"res/css/app.css":{"url":"https://shop.example.com/app/css/app.css","v":"' "$index"
  expect '"header":{"Access-Control-Allow-Origin":"*"}' "$index"
  expect '||ed25519|' "$index"
fi

# Each record carries its file's size beside the MD5. An empty file is content like any other: the
# MD5 of no bytes and size 0, stored as an entry with no data; a folder with no files is a valid
# zip whose list is empty.
if command -v unzip >/dev/null; then
  expect "\"res/css/app.css\":{\"url\":\"${prefix}css/app.css\",\"v\":\"$(printf 'body{}' | md5sum | cut -c1-32)\",\"size\":6," "$index"
  mkdir -p "$work/blank" "$work/none"
  : > "$work/blank/empty.txt"
  printf 'x' > "$work/blank/x.txt"
  "$tool" build --key "$key" --url-prefix "$prefix" "$work/blank" "$work/e.zip" >/dev/null
  unzip -tqq "$work/e.zip" || fail "the zip with an empty file does not test"
  [ "$(unzip -p "$work/e.zip" res/empty.txt | wc -c)" -eq 0 ] || fail "the empty entry has bytes"
  expect "\"res/empty.txt\":{\"url\":\"${prefix}empty.txt\",\"v\":\"d41d8cd98f00b204e9800998ecf8427e\",\"size\":0}" \
    "$(unzip -p "$work/e.zip" app-res.hvc)"
  expect '"size":1}' "$(unzip -p "$work/e.zip" app-res.hvc)"
  expect " stor " "$(zipinfo "$work/e.zip" res/empty.txt)"
  "$tool" build --key "$key" --url-prefix "$prefix" "$work/none" "$work/n.zip" >/dev/null
  unzip -tqq "$work/n.zip" || fail "the zip of an empty folder does not test"
  [ "$(unzip -Z1 "$work/n.zip" | tr '\n' ' ')" = "app-res.hvc " ] || fail "an empty folder's zip holds files"
  expect "{}||ed25519|" "$(unzip -p "$work/n.zip" app-res.hvc)"
fi

out=$("$tool" diff --key "$key" --url-prefix "$prefix" "$work/v1" "$work/v2" "$work/i.zip")
expect "changed index.html" "$out"
expect "added new.js" "$out"
expect "removed gone.js" "$out"
expect "(2 files, 1 removed, md5 " "$out"
if command -v unzip >/dev/null; then
  entries=$(unzip -Z1 "$work/i.zip" | tr '\n' ' ')
  [ "$entries" = "app-res.hvc res/index.html res/new.js " ] || fail "unexpected entries: $entries"
  expect '"res/gone.js":{"url":"https://shop.example.com/app/gone.js"}' \
    "$(unzip -p "$work/i.zip" app-res.hvc)"
fi

# A one-line change in a large script travels as a patch in the patched increment.
mkdir -p "$work/p1" "$work/p2"
seq 1 20000 | sed 's/.*/function f&(a){return a*&}/' > "$work/p1/app.js"
sed 's/^function f10000(a)/function f10000(a){console.log(a)}/' "$work/p1/app.js" > "$work/p2/app.js"
printf 'a' > "$work/p1/small.txt"
printf 'b' > "$work/p2/small.txt"
out=$("$tool" diff --key "$key" --url-prefix "$prefix" --patches "$work/p.zip" "$work/p1" "$work/p2" \
  "$work/pi.zip")
expect "patched app.js" "$out"
expect "(1 patched, md5 $(md5sum < "$work/p.zip" | cut -d' ' -f1), " "$out"
[ $(( $(wc -c < "$work/p.zip") * 4 )) -lt "$(wc -c < "$work/pi.zip")" ] || fail "the patch saves little"
saved=$(( $(wc -c < "$work/pi.zip") - $(wc -c < "$work/p.zip") ))
expect "$saved bytes saved" "$out"
expect "patched increment $(wc -c < "$work/p.zip") bytes, increment $(wc -c < "$work/pi.zip") bytes (" "$out"
expect "% saved)" "$out"
if command -v unzip >/dev/null; then
  entry="patch/$(md5sum < "$work/p1/app.js" | cut -d' ' -f1)/app.js"
  entries=$(unzip -Z1 "$work/p.zip" | tr '\n' ' ')
  [ "$entries" = "app-res.hvc $entry res/small.txt " ] || fail "unexpected entries: $entries"
  cmp -s <(unzip -p "$work/p.zip" app-res.hvc) <(unzip -p "$work/pi.zip" app-res.hvc) ||
    fail "the patched increment's list differs from the plain one's"
  # zstd's own tool takes the patch as one of its own.
  if command -v zstd >/dev/null; then
    unzip -p "$work/p.zip" "$entry" > "$work/app.patch"
    zstd -qq -d --patch-from="$work/p1/app.js" "$work/app.patch" -o "$work/app.made"
    cmp -s "$work/app.made" "$work/p2/app.js" || fail "the patch does not make the new file"
  fi
fi
status 2 "$ferrit" pack build --key "$key" --url-prefix "$prefix" --patches "$work/x.zip" \
  "$work/p1" "$work/x2.zip"
# The patched increment never replaces the plain one it is written beside.
status 2 "$tool" diff --key "$key" --url-prefix "$prefix" --patches "$work/./pi.zip" "$work/p1" \
  "$work/p2" "$work/pi.zip"

out=$("$tool" wrap --seq 4 "$work/a.zip" "$work/a.png")
expect "key byte 4, zip md5 $(md5sum < "$work/a.zip" | cut -d' ' -f1)" "$out"
printf '\211PNG\r\n\032\n' | cmp -s -n 8 - "$work/a.png" || fail "no PNG signature"
[ "$(wc -c < "$work/a.png")" -gt "$(wc -c < "$work/a.zip")" ] || fail "the image lost the zip"

"$tool" config --key "$key" --version 1700000000000 --pack shop --seq 2 --base-seq 1 \
  --flags 80 --zip "$work/a.zip" --incr "$work/i.zip" --prefix "$prefix" "$work/config" >/dev/null
document=$(cat "$work/config")
expect "{\"v\":\"1700000000000\",\"packs\":{\"shop\":{\"s\":2,\"f\":80,\"b\":1,\"c\":\"$(md5sum < "$work/a.zip" | cut -d' ' -f1)\",\"ci\":\"$(md5sum < "$work/i.zip" | cut -d' ' -f1)\",\"p\":[\"$prefix\"]}}}||" "$document"

# "cp" names the patched increment, from the file or as given, after "ci".
"$tool" config --key "$key" --version 1700000000000 --pack shop --seq 2 --base-seq 1 \
  --incr "$work/pi.zip" --patch "$work/p.zip" "$work/config" >/dev/null
expect "\"ci\":\"$(md5sum < "$work/pi.zip" | cut -d' ' -f1)\",\"cp\":\"$(md5sum < "$work/p.zip" | cut -d' ' -f1)\"}" \
  "$(cat "$work/config")"
"$tool" config --key "$key" --version 1700000000000 --pack shop --seq 2 \
  --patch-md5 0123456789abcdef0123456789abcdef "$work/config" >/dev/null
expect '"cp":"0123456789abcdef0123456789abcdef"' "$(cat "$work/config")"
status 2 "$tool" config --key "$key" --version 1 --pack shop --patch-md5 XYZ "$work/c"

# A preload zip of two packs from two sites, installed by the library from the app's raw files and
# read back through it.
mkdir -p "$work/help" "$work/assets"
printf 'help me' > "$work/help/faq.txt"
preload() {  # preload OUT.zip [KEY]
  "$tool" preload --key "${2:-$key}" --version 1700000000000 \
    --pack shop --seq 3 --flags 80 --folder "$work/v1" --url-prefix "$prefix" \
    --header "css/app.css=Access-Control-Allow-Origin:*" \
    --pack help --seq 7 --folder "$work/help" --url-prefix https://help.example.com/ "$1"
}
out=$(preload "$work/assets/preload.zip")
expect "(2 packs, 4 files, md5 " "$out"
preload "$work/again.zip" >/dev/null
cmp -s "$work/assets/preload.zip" "$work/again.zip" || fail "two builds of the same preload differ"
if command -v unzip >/dev/null; then
  entries=$(unzip -Z1 "$work/assets/preload.zip" | tr '\n' ' ')
  [ "$entries" = "fconfig.config shop/3/app-res.hvc shop/3/res/css/app.css shop/3/res/gone.js shop/3/res/index.html help/7/app-res.hvc help/7/res/faq.txt " ] ||
    fail "unexpected preload entries: $entries"
  expect '{"v":"1700000000000","packs":{"shop":{"s":3,"f":80,"b":3,"p":["https://shop.example.com/app/"]},"help":{"s":7,"b":7,"p":["https://help.example.com/"]}}}||' \
    "$(unzip -p "$work/assets/preload.zip" fconfig.config)"
  expect '"res/faq.txt":{"url":"https://help.example.com/faq.txt","v":"' \
    "$(unzip -p "$work/assets/preload.zip" help/7/app-res.hvc)"
fi
mkdir -p "$work/root" "$work/root2" "$work/root3"
installed=$("$ferrit" get --root "$work/root" --assets "$work/assets" --public-key "$public_key" \
  --preload preload.zip --body https://help.example.com/faq.txt 2>/dev/null)
expect "preload preload.zip installed" "$installed"
expect "  help@7 (" "$installed"
expect "  shop@3 (" "$installed"
expect "Via: Ferrit/" "$installed"
expect "help me" "$installed"
checked=$("$ferrit" check --root "$work/root2" --assets "$work/assets" --public-key "$public_key" \
  --preload preload.zip 2>/dev/null)
expect "shop@3 (Packed" "$checked"
expect "signed list and files verified" "$checked"
# A zip signed with another key installs nothing.
if command -v openssl >/dev/null; then
  openssl genpkey -algorithm ed25519 -out "$work/other.pem" 2>/dev/null
  preload "$work/assets/other.zip" "$work/other.pem" >/dev/null
  status 1 "$ferrit" get --root "$work/root3" --assets "$work/assets" --public-key "$public_key" \
    --preload other.zip https://help.example.com/faq.txt
fi
status 2 "$tool" preload --key "$key" --version 1 --pack shop --seq 3 --folder "$work/v1" \
  --url-prefix "$prefix" --pack shop --seq 4 --folder "$work/v2" --url-prefix "$prefix" "$work/c.zip"
status 2 "$tool" preload --key "$key" --version 1 --pack shop --folder "$work/v1" \
  --url-prefix "$prefix" "$work/c.zip"
status 2 "$tool" preload --key "$key" --version 1 --pack shop --seq 3 --url-prefix "$prefix" \
  "$work/c.zip"
status 1 "$tool" preload --key "$key" --version 1 --pack shop --seq 3 \
  --folder "$work/no-such-folder" --url-prefix "$prefix" "$work/c.zip"
status 1 "$tool" preload --key "$work/no-such.pem" --version 1 --pack shop --seq 3 \
  --folder "$work/v1" --url-prefix "$prefix" "$work/c.zip"
expect "named twice" "$("$tool" preload --key "$key" --version 1 --pack a --seq 1 \
  --folder "$work/v1" --url-prefix "$prefix" --pack a --seq 2 --folder "$work/v1" \
  --url-prefix "$prefix" "$work/c.zip" 2>&1 || true)"
expect "no-such-folder" "$("$tool" preload --key "$key" --version 1 --pack a --seq 1 \
  --folder "$work/no-such-folder" --url-prefix "$prefix" "$work/c.zip" 2>&1 || true)"

status 2 "$tool"
status 2 "$tool" frobnicate
status 2 "$tool" build --url-prefix "$prefix" "$work/v1" "$work/c.zip"
status 2 "$tool" wrap --seq four "$work/a.zip" "$work/c.png"
status 2 "$tool" config --key "$key" --version 1 --seq 2 "$work/c"
status 1 "$tool" build --key "$work/no-such.pem" --url-prefix "$prefix" "$work/v1" "$work/c.zip"
status 1 "$tool" build --key "$key" --url-prefix "$prefix" "$work/no-such-folder" "$work/c.zip"
status 1 "$tool" wrap --seq 1 "$work/no-such.zip" "$work/c.png"
[ ! -e "$work/c.zip" ] || fail "a failed build left its output"
echo "pack tool: all checks passed"
