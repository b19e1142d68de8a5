#!/usr/bin/env bash
# Checks ferrit from the outside: every command's page, then publish: a first run, a run with
# nothing changed, and a second version with two changed files, whose documents are verified
# with openssl against the key's public half and whose zips are opened with unzip; then a revert,
# a file removed and restored beside an empty file, where the history lives, and a tree whose
# history an earlier release kept inside it; then the patched increment of a large script that
# changes one line in each of three versions.
#   check-publish.sh PATH-TO-ferrit KEYS-FOLDER
set -euo pipefail
tool=$1
keys=$2
source "$(dirname "$0")/../common/check-lib.sh" check-publish
# verify DOCUMENT PUBLIC.pem: the text before "||" signed, over its MD5 text, by the key.
verify() {
  local text sig
  text=$(sed 's/||.*$//' "$1")
  sig=$(sed 's/^.*||//' "$1")
  printf '%s' "$text" | md5sum | cut -c1-32 | tr -d '\n' > "$work/md5.txt"
  printf '%s' "$sig" | base64 -d > "$work/sig.bin"
  openssl pkeyutl -verify -pubin -inkey "$2" -rawin -in "$work/md5.txt" -sigfile "$work/sig.bin" \
    >/dev/null 2>&1 || fail "the signature of $1 does not verify"
}

for command in keygen key pack config index publish get check startup status inspect cleanup; do
  page=$("$tool" "$command" --help)
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS"; do
    expect "$section" "$page"
  done
  expect "ferrit $command" "$page"
done
expect "ferrit publish" "$("$tool" help)"
expect "ferrit pack build" "$("$tool" pack build --help)"
status 2 "$tool"
status 2 "$tool" frobnicate
status 2 "$tool" publish --key x
status 2 "$tool" pack frobnicate

"$tool" keygen "$work/key.pem" "$work/key.pub.pem" >/dev/null
[ -s "$work/key.pem" ] && [ -s "$work/key.pub.pem" ] || fail "keygen wrote no keys"

mkdir -p "$work/site/app/css" "$work/site/lib"
printf '<html>one</html>' > "$work/site/app/index.html"
printf 'body{}' > "$work/site/app/css/app.css"
printf 'var a = 1;' > "$work/site/app/app.js"
printf 'lib()' > "$work/site/lib/lib.js"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "shop", "version": "1.0", "locale": "en"}, "zips": "packs",
 "packs": [{"name": "shop", "folder": "app", "prefix": "http://127.0.0.1:8080/app/", "priority": 9,
            "headers": {"css/app.css": {"Access-Control-Allow-Origin": "*"}}},
           {"name": "lib", "folder": "lib", "prefix": "http://127.0.0.1:8080/lib/"}]}
JSON
printf '{"app": {}}' > "$work/bad.json"
status 1 "$tool" publish --key "$work/key.pem" --manifest "$work/bad.json" "$work/site" "$work/out"
[ ! -e "$work/out" ] || fail "a refused manifest wrote a tree"

publish() { "$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" "$work/site" "$work/out"; }
out=$(publish)
expect "shop 1 (full)" "$out"
expect "lib 1 (full)" "$out"
v1=$(grep -Eo 'configuration version [0-9]+' <<<"$out" | grep -Eo '[0-9]+$')
for path in fconfig/shop/1.0/0~0/en~ fconfig/shop/1.0/0~0/en~en packconfig/shop/1 packconfig/lib/1 \
            packs/shop/1.zip packs/lib/1.zip; do
  [ -s "$work/out/$path" ] || fail "the first publish did not write $path"
done
[ ! -e "$work/out/packs/shop/i" ] || fail "a first version has no increment"
global="$work/out/fconfig/shop/1.0/0~0/en~"
verify "$global" "$work/key.pub.pem"
verify "$work/out/packconfig/shop/1" "$work/key.pub.pem"
expect "\"v\":\"$v1\"" "$(cat "$global")"
expect '"shop":{"s":1,"f":89,' "$(cat "$global")"
grep -qF '"b":' "$global" && fail "the global configuration names a base, so clients skip the pack's own"
zipmd5=$(md5sum "$work/out/packs/shop/1.zip" | cut -c1-32)
expect "\"c\":\"$zipmd5\"" "$(cat "$work/out/packconfig/shop/1")"
expect '"b":1' "$(cat "$work/out/packconfig/shop/1")"
entries=$(unzip -Z1 "$work/out/packs/shop/1.zip" | tr '\n' ' ')
[ "$entries" = "app-res.hvc res/app.js res/css/app.css res/index.html " ] || fail "entries: $entries"
expect '"Access-Control-Allow-Origin":"*"' "$(unzip -p "$work/out/packs/shop/1.zip" app-res.hvc)"
expect "\"res/index.html\":{\"url\":\"http://127.0.0.1:8080/app/index.html\",\"v\":\"$(printf '<html>one</html>' | md5sum | cut -c1-32)\",\"size\":16}" \
  "$(unzip -p "$work/out/packs/shop/1.zip" app-res.hvc)"
# The history is beside the tree, never in what the server serves.
[ -s "$work/out.publish/state.json" ] || fail "no history beside the tree"
[ -s "$work/out.publish/shop/1.json" ] || fail "no list of the first version in the history"
expect '"index.html":{"v":"' "$(cat "$work/out.publish/shop/1.json")"
[ -z "$(find "$work/out" -name '.publish*')" ] || fail "the tree holds the history"

# The cache rules lie beside the tree: configuration documents briefly, zips as immutable.
expect 'location ^~ /fconfig/ {' "$(cat "$work/out.nginx.conf")"
expect 'add_header Cache-Control "public, max-age=31536000, immutable";' "$(cat "$work/out.nginx.conf")"
expect '{"path":"/packs/*","kind":"zip","headers":{"Cache-Control":"public, max-age=31536000, immutable"}}' \
  "$(cat "$work/out.headers.json")"
expect '{"path":"/fconfig/*","kind":"configuration","headers":{"Cache-Control":"public, max-age=60, must-revalidate"}}' \
  "$(cat "$work/out.headers.json")"
# The global configuration says when it was signed and until when devices take it.
expect '"expires":' "$(cat "$global")"
expect "valid until" "$out"

# A host's start-up against the tree as served: the document's address names the tree's locale.
mkdir -p "$work/served" && ln -s "$work/out" "$work/served/127.0.0.1:8080"
startup() {
  "$tool" startup --serve "$work/served" --config-prefix http://127.0.0.1:8080/ \
    --zip-prefix http://127.0.0.1:8080/packs/ --app-key shop --app-version 1.0 \
    --public-key "$work/key.pub.pem" "$@" http://127.0.0.1:8080/app/index.html 2>&1
}
out=$(startup --root "$work/host-en" --locale en) || fail "startup with the tree's locale: $out"
expect "requested http://127.0.0.1:8080/fconfig/shop/1.0/0~0/en~" "$out"
expect "body: 16 bytes" "$out"
status 1 startup --root "$work/host-none"
# Only a start-up asks for a document: elsewhere a locale would be taken and silently unused.
status 2 "$tool" get --root "$work/host-en" --locale en http://127.0.0.1:8080/app/index.html

# Nothing changed: nothing is written.
before=$(find "$work/out" -type f -newer "$global" | wc -l)
expect "nothing changed" "$(publish)"
[ "$(find "$work/out" -type f -newer "$global" | wc -l)" -eq "$before" ] || fail "an unchanged run wrote files"

# Version 2: two files of the shop change; lib keeps its version.
printf '<html>two</html>' > "$work/site/app/index.html"
printf 'var a = 2;' > "$work/site/app/app.js"
out=$(publish)
expect "shop 2 (increment from 1: 2 changed, 0 added, 0 removed)" "$out"
expect "lib 1 unchanged" "$out"
v2=$(grep -Eo 'configuration version [0-9]+' <<<"$out" | grep -Eo '[0-9]+$')
[ "$v2" -gt "$v1" ] || fail "the second version $v2 is not above $v1"
for path in "fconfig/shop/1.0/0~$v1/en~en" packs/shop/2.zip packs/shop/i/2.zip packconfig/shop/2; do
  [ -s "$work/out/$path" ] || fail "the second publish did not write $path"
done
[ ! -e "$work/out/packconfig/lib/2" ] || fail "an unchanged pack got a new version"
verify "$work/out/fconfig/shop/1.0/0~$v1/en~en" "$work/key.pub.pem"
cmp -s "$global" "$work/out/fconfig/shop/1.0/0~$v1/en~en" || fail "clients old and new get different documents"
expect '"shop":{"s":2,' "$(cat "$global")"
expect '"lib":{"s":1,' "$(cat "$global")"
entries=$(unzip -Z1 "$work/out/packs/shop/i/2.zip" | tr '\n' ' ')
[ "$entries" = "app-res.hvc res/app.js res/index.html " ] || fail "increment entries: $entries"
[ "$(unzip -p "$work/out/packs/shop/i/2.zip" res/index.html)" = "<html>two</html>" ] || fail "increment content"
incrmd5=$(md5sum "$work/out/packs/shop/i/2.zip" | cut -c1-32)
config2=$(cat "$work/out/packconfig/shop/2")
expect "\"ci\":\"$incrmd5\"" "$config2"
expect '"s":2,' "$config2"
expect '"b":1' "$config2"
verify "$work/out/packconfig/shop/2" "$work/key.pub.pem"

# Version 3 reverts the shop to version 1. A device on version 2 copies what the increment leaves
# out from what it has, so the increment carries the two files that version 2 changed although
# they equal the base's.
printf '<html>one</html>' > "$work/site/app/index.html"
printf 'var a = 1;' > "$work/site/app/app.js"
out=$(publish)
expect "shop 3 (increment from 1: 2 changed, 0 added, 0 removed)" "$out"
entries=$(unzip -Z1 "$work/out/packs/shop/i/3.zip" | tr '\n' ' ')
[ "$entries" = "app-res.hvc res/app.js res/index.html " ] || fail "revert increment entries: $entries"
[ "$(unzip -p "$work/out/packs/shop/i/3.zip" res/index.html)" = "<html>one</html>" ] ||
  fail "the revert's increment does not hold the first version's page"
cmp -s <(unzip -p "$work/out/packs/shop/1.zip" app-res.hvc | sed 's/||.*//') \
  <(unzip -p "$work/out/packs/shop/3.zip" app-res.hvc | sed 's/||.*//') ||
  fail "the revert's list is not the first version's"

# Version 4 removes the style sheet and adds an empty file; version 5 restores the style sheet.
rm "$work/site/app/css/app.css"
: > "$work/site/app/blank.txt"
sed -i 's/"headers": {"css\/app.css": {"Access-Control-Allow-Origin": "\*"}}/"headers": {}/' \
  "$work/manifest.json"
out=$(publish)
expect "shop 4 (increment from 1: 2 changed, 1 added, 1 removed)" "$out"
list4=$(unzip -p "$work/out/packs/shop/i/4.zip" app-res.hvc)
expect '"res/css/app.css":{"url":"http://127.0.0.1:8080/app/css/app.css"}' "$list4"
expect '"res/blank.txt":{"url":"http://127.0.0.1:8080/app/blank.txt","v":"d41d8cd98f00b204e9800998ecf8427e","size":0}' "$list4"
expect '"size":0}' "$(unzip -p "$work/out/packs/shop/4.zip" app-res.hvc)"
unzip -tqq "$work/out/packs/shop/4.zip" || fail "the full zip with an empty file does not test"
[ "$(unzip -p "$work/out/packs/shop/4.zip" res/blank.txt | wc -c)" -eq 0 ] || fail "the empty file has bytes"
printf 'body{}' > "$work/site/app/css/app.css"
out=$(publish)
expect "shop 5 (increment from 1: 3 changed, 1 added, 0 removed)" "$out"
entries=$(unzip -Z1 "$work/out/packs/shop/i/5.zip" | tr '\n' ' ')
[ "$entries" = "app-res.hvc res/app.js res/blank.txt res/css/app.css res/index.html " ] ||
  fail "the restore's increment entries: $entries"
for seq in 1 2 3 4 5; do
  [ -s "$work/out.publish/shop/$seq.json" ] || fail "the history lost the list of version $seq"
done

# --history names the folder; one inside the tree is refused.
"$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" --history "$work/kept" \
  "$work/site" "$work/out2" >/dev/null
[ -s "$work/kept/state.json" ] && [ ! -e "$work/out2.publish" ] || fail "--history was not used"
status 1 "$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" \
  --history "$work/out3/history" "$work/site" "$work/out3"
# A pack that leaves the manifest leaves the history; what else the history folder holds stays.
mkdir -p "$work/kept/notes"
printf 'mine' > "$work/kept/notes/keep.txt"
cat > "$work/shop-only.json" <<'JSON'
{"app": {"key": "shop", "version": "1.0", "locale": "en"}, "zips": "packs",
 "packs": [{"name": "shop", "folder": "app", "prefix": "http://127.0.0.1:8080/app/", "priority": 9}]}
JSON
"$tool" publish --key "$work/key.pem" --manifest "$work/shop-only.json" --history "$work/kept" \
  "$work/site" "$work/out2" >/dev/null
[ ! -e "$work/kept/lib" ] || fail "the history kept a pack that left the manifest"
[ -s "$work/kept/notes/keep.txt" ] && [ -s "$work/kept/shop/1.json" ] || fail "the history lost what it should keep"
# Without the list of a version since the base, the next version is a new base with no increment,
# and the lists before it go.
rm "$work/out.publish/shop/2.json"
printf '<html>seven</html>' > "$work/site/app/index.html"
out=$(publish)
expect "shop 6 (full; a new base" "$out"
[ ! -e "$work/out/packs/shop/i/6.zip" ] || fail "a new base has an increment"
expect '"b":6' "$(cat "$work/out/packconfig/shop/6")"
[ ! -e "$work/out.publish/shop/1.json" ] && [ -s "$work/out.publish/shop/6.json" ] ||
  fail "the lists before the new base were kept"
printf '<html>one</html>' > "$work/site/app/index.html"
expect "--history DIR" "$("$tool" publish --help)"

# A zip's path is never given other bytes: a tree whose history is lost refuses to publish over it.
mv "$work/out.publish" "$work/out.kept"
printf '<html>lost</html>' > "$work/site/app/index.html"
set +e; lost=$(publish 2>&1); got=$?; set -e
[ "$got" -eq 1 ] || fail "a publish over a zip with other bytes exited $got"
expect "exists with other bytes" "$lost"
rm -rf "$work/out.publish"; mv "$work/out.kept" "$work/out.publish"
printf '<html>one</html>' > "$work/site/app/index.html"
# A publish killed between its zips and its documents leaves zips that no document names (here
# versions 7 and 8, with other bytes): the next run neither stops on them nor rewrites them.
echo orphan > "$work/out/packs/shop/7.zip"
mkdir -p "$work/out/packs/shop/i" && echo orphan > "$work/out/packs/shop/i/8.zip"
out=$(publish)
expect "shop 9 (increment from 6" "$out"
expect "skipped 7: its zips were left by a publish that did not finish" "$out"
expect "skipped 8" "$out"
[ "$(cat "$work/out/packs/shop/7.zip")" = orphan ] || fail "a left zip was rewritten"
[ -s "$work/out/packs/shop/i/9.zip" ] || fail "no increment to 9"
# Nor is a stepped-over number ever a version to roll back to.
set +e; back=$("$tool" rollback --key "$work/key.pem" --manifest "$work/manifest.json" --to 7 shop \
  "$work/out" 2>&1); got=$?; set -e
[ "$got" -eq 1 ] || fail "a rollback to a stepped-over version exited $got"
expect "no version 7 of shop was published" "$back"
# --resign signs the configuration again with nothing changed; --valid-for sets its expiry.
out=$("$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" --resign --valid-for 2d \
  "$work/site" "$work/out")
expect "(signed again)" "$out"
issued=$(grep -Eo '"issued":[0-9]+' "$global" | grep -Eo '[0-9]+$')
expires=$(grep -Eo '"expires":[0-9]+' "$global" | grep -Eo '[0-9]+$')
[ $((expires - issued)) -eq 172800000 ] || fail "--valid-for 2d gave $((expires - issued)) ms"
status 2 "$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" --valid-for 0 \
  "$work/site" "$work/out"

# A pack of a folder with no files is published as a valid zip with an empty list.
mkdir -p "$work/bare/app"
cat > "$work/bare.json" <<'JSON'
{"app": {"key": "bare", "version": "1.0"}, "packs": [{"name": "bare", "folder": "app", "prefix": "http://127.0.0.1:8080/"}]}
JSON
expect "bare 1 (full)" "$("$tool" publish --key "$work/key.pem" --manifest "$work/bare.json" "$work/bare" "$work/bare-out")"
unzip -tqq "$work/bare-out/packs/bare/1.zip" || fail "the empty pack's zip does not test"
[ "$(unzip -Z1 "$work/bare-out/packs/bare/1.zip" | tr '\n' ' ')" = "app-res.hvc " ] || fail "the empty pack holds files"
expect "{}||ed25519|" "$(unzip -p "$work/bare-out/packs/bare/1.zip" app-res.hvc)"

# A tree whose history an earlier release kept in "<tree>/.publish": the state with the newest
# digests, and a copy of each pack's base version. The first run moves it out and builds on it.
mkdir -p "$work/old/.publish/shop/1" "$work/old/.publish/lib/1"
cp -r "$work/site/app/." "$work/old/.publish/shop/1/"
cp -r "$work/site/lib/." "$work/old/.publish/lib/1/"
digests() {  # digests FOLDER: the old state's {"path": "md5"} of a folder
  (cd "$1" && find . -type f | sort | sed 's|^\./||' | while read -r f; do
    printf '"%s":"%s",' "$f" "$(md5sum < "$f" | cut -c1-32)"; done) | sed 's/,$//'
}
cat > "$work/old/.publish/state.json" <<JSON
{"version":1700000000000,"versions":["1700000000000"],"packs":{
 "shop":{"seq":1,"base":1,"c":"","ci":"","t":1700000000000,"prefix":"http://127.0.0.1:8080/app/","priority":9,
         "files":{$(digests "$work/site/app")}},
 "lib":{"seq":1,"base":1,"c":"","ci":"","t":1700000000000,"prefix":"http://127.0.0.1:8080/lib/","priority":0,
        "files":{$(digests "$work/site/lib")}}}}
JSON
printf '<html>six</html>' > "$work/site/app/index.html"
out=$("$tool" publish --key "$work/key.pem" --manifest "$work/manifest.json" "$work/site" "$work/old")
expect "shop 2 (increment from 1: 1 changed, 0 added, 0 removed)" "$out"
expect "lib 1 unchanged" "$out"
[ ! -e "$work/old/.publish" ] || fail "the history inside the tree was not moved out"
[ -s "$work/old.publish/state.json" ] && [ -s "$work/old.publish/shop/1.json" ] &&
  [ -s "$work/old.publish/shop/2.json" ] || fail "the moved history is incomplete"
entries=$(unzip -Z1 "$work/old/packs/shop/i/2.zip" | tr '\n' ' ')
[ "$entries" = "app-res.hvc res/index.html " ] || fail "the moved history's increment: $entries"
# A small change gains nothing from patches: no patched increment, and no "cp" names one.
expect "patched increment" "$(grep -A1 'shop 2 (increment' <<<"$out")"
expect "not smaller, not written" "$out"
[ ! -e "$work/old/packs/shop/p/2.zip" ] || fail "a patched increment no smaller was written"
case "$(cat "$work/old/packconfig/shop/2")" in *'"cp"'*) fail "\"cp\" names no zip" ;; esac

# Three versions where a large script changes one line each time: the patched increment to the
# third carries a patch against each older version's script, stored, beside the plain increment.
mkdir -p "$work/big/app"
seq 1 20000 | sed 's/.*/export function f&(a){return a*&}/' > "$work/big/app/app.js"
printf '<html>one</html>' > "$work/big/app/index.html"
sed 's/"folder": "lib"/"folder": "app"/' "$work/manifest.json" > "$work/big.json"
publishBig() { "$tool" publish --key "$work/key.pem" --manifest "$work/big.json" "$work/big" "$work/bigout"; }
publishBig >/dev/null
sed -i 's/^export function f5000(a)/export function f5000(a){console.log(a)}/' "$work/big/app/app.js"
md5a=$(unzip -p "$work/bigout/packs/shop/1.zip" res/app.js | md5sum | cut -c1-32)
publishBig >/dev/null
md5b=$(md5sum < "$work/big/app/app.js" | cut -c1-32)
sed -i 's/^export function f15000(a)/export function f15000(a){console.log(a)}/' "$work/big/app/app.js"
out=$(publishBig)
expect "shop 3 (increment from 1: 1 changed, 0 added, 0 removed)" "$out"
plain=$(wc -c < "$work/bigout/packs/shop/i/3.zip")
patched=$(wc -c < "$work/bigout/packs/shop/p/3.zip")
expect "patched increment $patched bytes, increment $plain bytes (1 patched, " "$out"
expect "  wrote packs/shop/p/3.zip" "$out"
[ $(( patched * 4 )) -lt "$plain" ] || fail "the patched increment saves little: $patched of $plain"
entries=$(unzip -Z1 "$work/bigout/packs/shop/p/3.zip" | tr '\n' ' ')
expected=$(printf 'patch/%s/app.js\n' "$md5a" "$md5b" | sort | tr '\n' ' ')
[ "$entries" = "app-res.hvc $expected" ] || fail "patched increment entries: $entries"
expect " stor " "$(zipinfo "$work/bigout/packs/shop/p/3.zip" "patch/$md5a/app.js")"
cmp -s <(unzip -p "$work/bigout/packs/shop/p/3.zip" app-res.hvc) \
  <(unzip -p "$work/bigout/packs/shop/i/3.zip" app-res.hvc) || fail "the two increments' lists differ"
config3=$(cat "$work/bigout/packconfig/shop/3")
expect "\"ci\":\"$(md5sum < "$work/bigout/packs/shop/i/3.zip" | cut -c1-32)\"" "$config3"
expect "\"cp\":\"$(md5sum < "$work/bigout/packs/shop/p/3.zip" | cut -c1-32)\"" "$config3"
verify "$work/bigout/packconfig/shop/3" "$work/key.pub.pem"
if command -v zstd >/dev/null; then
  unzip -p "$work/bigout/packs/shop/1.zip" res/app.js > "$work/app1.js"
  unzip -p "$work/bigout/packs/shop/p/3.zip" "patch/$md5a/app.js" > "$work/app.patch"
  zstd -qq -d --patch-from="$work/app1.js" "$work/app.patch" -o "$work/app3.js"
  cmp -s "$work/app3.js" "$work/big/app/app.js" || fail "the patch does not make the new script"
fi
echo "check-publish: ok"
