#!/usr/bin/env bash
# Checks what ferrit promises its users and their scripts, from the outside:
#  - every command's --json output is one JSON document on stdout (parsed with node), whatever
#    the exit status, and the exit statuses stay 0, 1 and 2;
#  - keygen refuses to replace a key without --force, creates the private key 0600 whatever the
#    umask, and fails into a missing folder with its own message;
#  - a published tree holds only what a CDN should serve: signed documents and zips whose signed
#    lists verify; the history and the key are elsewhere;
#  - one voice: no help page, message or string of the binary names an internal program;
#  - get, check, status, inspect and cleanup never make a missing root;
#  - check on a host's root verifies what the host installed, and fails naming a corrupted file
#    and a damaged stored configuration;
#  - progress bars only on a terminal.
#   check-cli.sh PATH-TO-ferrit
set -euo pipefail
tool=$1
source "$(dirname "$0")/../common/check-lib.sh" check-cli
command -v node >/dev/null || fail "node is needed to parse the JSON output"

# json EXPECTED-EXIT ARGUMENTS...: runs ferrit ARGUMENTS... --json; the exit status must be the
# expected one and stdout exactly one JSON document whose "command", "ok" and "exit" agree with
# it. Prints the document; stderr is kept in $work/stderr.
json() {
  local want=$1; shift
  set +e; "$tool" "$@" --json >"$work/stdout" 2>"$work/stderr"; local got=$?; set -e
  [ "$got" -eq "$want" ] || fail "exit status $got, not $want: ferrit $* --json: $(cat "$work/stderr")"
  node -e '
    const text = require("fs").readFileSync(0, "utf8");
    const doc = JSON.parse(text);  // throws on a second document or on any stray line
    const exit = Number(process.argv[1]);
    if (typeof doc !== "object" || doc === null || Array.isArray(doc)) throw new Error("not an object");
    if (typeof doc.command !== "string") throw new Error("no command");
    if (doc.exit !== exit) throw new Error("exit " + doc.exit + " in the document, " + exit + " in fact");
    if (doc.ok !== (exit === 0)) throw new Error("ok is " + doc.ok);
    if (exit !== 0 && typeof doc.error !== "string") throw new Error("a failure names no error");
  ' "$got" <"$work/stdout" || fail "not one JSON report: ferrit $* --json: $(cat "$work/stdout")"
  cat "$work/stdout"
}
# field EXPRESSION: reads a JSON document on stdin and prints document<EXPRESSION> (strings bare).
field() {
  node -e '
    const doc = JSON.parse(require("fs").readFileSync(0, "utf8"));
    const value = new Function("d", "return d" + process.argv[1])(doc);
    console.log(typeof value === "string" ? value : JSON.stringify(value));
  ' "$1"
}
modeOf() { stat -c %a "$1"; }

# --- keygen ---------------------------------------------------------------------------------
doc=$(json 0 keygen "$work/key.pem" "$work/key.pub.pem")
[ "$(field .private <<<"$doc")" = "$work/key.pem" ] || fail "keygen's report: $doc"
[ "$(modeOf "$work/key.pem")" = 600 ] || fail "the private key is $(modeOf "$work/key.pem"), not 600"
grep -q "PRIVATE KEY" "$work/key.pem" || fail "no private key written"
# A permissive umask does not widen it: the file is created 0600, never changed afterwards.
(umask 000 && "$tool" keygen "$work/open.pem" "$work/open.pub.pem" >/dev/null)
[ "$(modeOf "$work/open.pem")" = 600 ] || fail "under umask 000 the private key is $(modeOf "$work/open.pem")"
# An existing key is never replaced without --force, and both files stay as they were.
before=$(md5sum "$work/key.pem" "$work/key.pub.pem")
doc=$(json 1 keygen "$work/key.pem" "$work/key.pub.pem")
expect "already exists" "$(field .error <<<"$doc")"
expect "ferrit keygen: $work/key.pem already exists" "$(cat "$work/stderr")"
expect "--force" "$(cat "$work/stderr")"
[ "$before" = "$(md5sum "$work/key.pem" "$work/key.pub.pem")" ] || fail "a refused keygen changed the keys"
rm "$work/open.pem"
json 1 keygen "$work/open.pem" "$work/open.pub.pem" >/dev/null  # the public half alone is a key too
[ ! -e "$work/open.pem" ] || fail "a refused keygen wrote the private key"
json 0 keygen --force "$work/key.pem" "$work/key.pub.pem" >/dev/null
[ "$before" != "$(md5sum "$work/key.pem" "$work/key.pub.pem")" ] || fail "--force did not replace the keys"
[ "$(modeOf "$work/key.pem")" = 600 ] || fail "a replaced private key is $(modeOf "$work/key.pem")"
# Into a missing folder: ferrit's own message, exit 1, and no folder made.
json 1 keygen "$work/no/such/key.pem" "$work/no/such/key.pub.pem" >/dev/null
expect "ferrit keygen: cannot write $work/no/such/key.pem: the folder $work/no/such does not exist" \
  "$(cat "$work/stderr")"
grep -qi "usage" "$work/stderr" && fail "keygen into a missing folder printed a usage: $(cat "$work/stderr")"
[ ! -e "$work/no" ] || fail "keygen made the missing folder"
json 2 keygen "$work/only-one.pem" >/dev/null
expect "see: ferrit keygen --help" "$(cat "$work/stderr")"
json 2 frobnicate >/dev/null

# --- pack, index and config --------------------------------------------------------------------
mkdir -p "$work/v1/css" "$work/v2" "$work/assets" "$work/packdir/res"
printf '<html>one</html>' > "$work/v1/index.html"
printf 'body{}' > "$work/v1/css/app.css"
printf '<html>two</html>' > "$work/v2/index.html"
printf 'x' > "$work/packdir/res/a.txt"
prefix=https://shop.example.com/app/
key=$work/key.pem
doc=$(json 0 pack build --key "$key" --url-prefix "$prefix" "$work/v1" "$work/a.zip")
[ "$(field .files <<<"$doc")" = 2 ] && [ "$(field .md5 <<<"$doc")" = "$(md5sum < "$work/a.zip" | cut -c1-32)" ] ||
  fail "pack build's report: $doc"
[ "$(field .command <<<"$doc")" = "pack build" ] || fail "pack build names itself $(field .command <<<"$doc")"
doc=$(json 0 pack diff --key "$key" --url-prefix "$prefix" "$work/v1" "$work/v2" "$work/i.zip")
[ "$(field .changed <<<"$doc")" = '["index.html"]' ] && [ "$(field .removed <<<"$doc")" = '["css/app.css"]' ] ||
  fail "pack diff's report: $doc"
doc=$(json 0 pack wrap --seq 4 "$work/a.zip" "$work/a.png")
[ "$(field .keyByte <<<"$doc")" = 4 ] || fail "pack wrap's report: $doc"
doc=$(json 0 pack config --key "$key" --version 7 --pack shop --seq 1 --zip "$work/a.zip" "$work/shop-config")
[ "$(field .packs <<<"$doc")" = '["shop"]' ] || fail "pack config's report: $doc"
doc=$(json 0 pack preload --key "$key" --version 7 --pack shop --seq 3 --folder "$work/v1" \
  --url-prefix "$prefix" "$work/assets/preload.zip")
[ "$(field .files <<<"$doc")" = 2 ] || fail "pack preload's report: $doc"
json 2 pack build --url-prefix "$prefix" "$work/v1" "$work/b.zip" >/dev/null
json 1 pack build --key "$key" --url-prefix "$prefix" "$work/no-such" "$work/b.zip" >/dev/null
json 2 pack frobnicate >/dev/null
doc=$(json 0 index sign --key "$key" --url-prefix "$prefix" "$work/packdir")
[ "$(field .files <<<"$doc")" = 1 ] && [ -s "$work/packdir/app-res.hvc" ] || fail "index sign's report: $doc"
printf '{"v":"1","packs":{}}' > "$work/doc.json"
doc=$(json 0 config sign --key "$key" "$work/doc.json" "$work/doc.signed")
[ "$(field .document <<<"$doc")" = "$work/doc.signed" ] || fail "config sign's report: $doc"
json 1 config sign --key "$key" "$work/no-such.json" "$work/doc.signed" >/dev/null

# --- publish, and what the served tree holds --------------------------------------------------------
mkdir -p "$work/site/app/css" "$work/site/lib"
printf '<html>one</html>' > "$work/site/app/index.html"
printf 'body{}' > "$work/site/app/css/app.css"
printf 'lib()' > "$work/site/lib/lib.js"
# Bytes that are no UTF-8 text (a PNG's signature, a NUL, a lone continuation byte, a cut-off
# sequence), which a JSON report carries as base64.
printf '\x89PNG\r\n\x1a\n\x00\xff\x80text\xe2\x82' > "$work/site/lib/logo.png"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "shop", "version": "1.0"}, "zips": "packs",
 "packs": [{"name": "shop", "folder": "app", "prefix": "https://shop.example.com/app/", "priority": 9},
           {"name": "lib", "folder": "lib", "prefix": "https://shop.example.com/lib/"}]}
JSON
served=$work/serve/cdn.example.com/tree
publish() { "$tool" publish --key "$key" --manifest "$work/manifest.json" "$work/site" "$served" "$@"; }
doc=$(json 0 publish --key "$key" --manifest "$work/manifest.json" "$work/site" "$served")
[ "$(field .changed <<<"$doc")" = true ] && [ "$(field '.packs[0].kind' <<<"$doc")" = full ] ||
  fail "publish's report: $doc"
[ "$(field .history <<<"$doc")" = "$served.publish" ] || fail "publish names the history $(field .history <<<"$doc")"
printf '<html>two</html>' > "$work/site/app/index.html"
doc=$(json 0 publish --key "$key" --manifest "$work/manifest.json" "$work/site" "$served")
[ "$(field '.packs[0].kind' <<<"$doc")" = increment ] &&
  [ "$(field '.packs[0].increment.changed' <<<"$doc")" = '["index.html"]' ] || fail "the second publish's report: $doc"
doc=$(json 0 publish --key "$key" --manifest "$work/manifest.json" "$work/site" "$served")
[ "$(field .changed <<<"$doc")" = false ] || fail "an unchanged publish's report: $doc"
json 1 publish --key "$key" --manifest "$work/no-such.json" "$work/site" "$served" >/dev/null
json 2 publish --key "$key" >/dev/null

# verify FILE: FILE is "<text>||[<token>|]<signature>", the signature the key's over the text's MD5.
verify() {
  local text sig
  text=$(sed 's/||.*$//' "$1")
  sig=$(sed 's/^.*|//' "$1")
  printf '%s' "$text" | md5sum | cut -c1-32 | tr -d '\n' > "$work/md5.txt"
  printf '%s' "$sig" | base64 -d > "$work/sig.bin" 2>/dev/null || return 1
  openssl pkeyutl -verify -pubin -inkey "$work/key.pub.pem" -rawin -in "$work/md5.txt" \
    -sigfile "$work/sig.bin" >/dev/null 2>&1
}
# checkServed TREE: every file of the tree, whatever its name: a signed document (the tree's own
# or a channel's), or a zip whose first entry is a signed list of its files. Nothing else: no
# history, no state, no copy of the sources, no key.
checkServed() {
  local tree=$1 count=0 file relative
  while IFS= read -r -d '' file; do
    relative=${file#"$tree"/}
    count=$((count + 1))
    grep -q "PRIVATE KEY" "$file" && fail "the served tree holds a private key: $relative"
    case "$relative" in
      fconfig/shop/1.0/*|packconfig/*/*|channels/*/fconfig/shop/1.0/*|channels/*/packconfig/*/*)
        verify "$file" || fail "served but not signed by the publisher: $relative" ;;
      packs/*.zip)
        unzip -tqq "$file" || fail "a served zip does not test: $relative"
        [ "$(unzip -Z1 "$file" | head -n 1)" = app-res.hvc ] || fail "a served zip has no signed list first: $relative"
        unzip -p "$file" app-res.hvc > "$work/list"
        verify "$work/list" || fail "the list of a served zip is not signed by the publisher: $relative"
        unzip -Z1 "$file" | tail -n +2 | grep -v '^res/' && fail "a served zip holds more than resources: $relative" ;;
      *) fail "the served tree holds a file a CDN should not serve: $relative" ;;
    esac
  done < <(find "$tree" -mindepth 1 \( -type f -o -type l \) -print0)
  [ "$count" -ge 8 ] || fail "the served tree $tree holds only $count files"
  [ -z "$(find "$tree" -mindepth 1 ! -type f ! -type d)" ] || fail "the served tree $tree holds special files"
  [ -s "$tree.publish/state.json" ] || fail "the history is not beside the tree $tree"
}
checkServed "$served"
# The cache rules go beside the tree, never in it.
[ -s "$served.nginx.conf" ] && [ -s "$served.headers.json" ] || fail "no cache rules beside the tree"

# The release commands report the same way, and a tree they wrote, with its channels' documents,
# holds only what a CDN should serve too. Their own tree and site, so the one above stays as it is.
released=$work/released
cp -r "$work/site" "$work/site2"
m=(--key "$key" --manifest "$work/manifest.json")
json 0 publish "${m[@]}" "$work/site2" "$released" >/dev/null
printf '<html>rolled</html>' > "$work/site2/app/index.html"
doc=$(json 0 rollout "${m[@]}" --percent 10 shop "$work/site2" "$released")
[ "$(field .command <<<"$doc")" = rollout ] && [ "$(field .pack <<<"$doc")" = shop ] &&
  [ "$(field .after <<<"$doc")" = '{"released":1,"rollout":2,"percent":10}' ] &&
  [ "$(field .built <<<"$doc")" = true ] || fail "rollout's report: $doc"
doc=$(json 0 rollback "${m[@]}" shop "$released")
[ "$(field .after <<<"$doc")" = '{"released":1,"rollout":2,"percent":0}' ] || fail "rollback's report: $doc"
doc=$(json 0 publish "${m[@]}" --channel beta "$work/site2" "$released")
[ "$(field .channel <<<"$doc")" = beta ] || fail "a channel's publish report: $doc"
doc=$(json 0 promote "${m[@]}" --channel stable --from beta shop "$released")
[ "$(field .channel <<<"$doc")" = stable ] && [ "$(field .after.released <<<"$doc")" = 2 ] &&
  [ "$(field .configVersion <<<"$doc")" != 0 ] || fail "promote's report: $doc"
json 2 rollout "${m[@]}" --percent 0 shop "$work/site2" "$released" >/dev/null
expect "see: ferrit rollout --help" "$(cat "$work/stderr")"
json 2 promote "${m[@]}" --channel ../x shop "$released" >/dev/null
json 1 rollback "${m[@]}" none "$released" >/dev/null
[ -d "$released/channels/beta/fconfig" ] && [ -d "$released/channels/stable/packconfig" ] ||
  fail "no channel documents in the released tree"
doc=$(json 0 key rotate --key "$key" --next "$work/open.pub.pem" "$released")
[ "$(field .command <<<"$doc")" = "key rotate" ] &&
  [ "$(field '.resigned && ["beta", "stable"].every(c => d.resigned.includes(`channels/${c}/fconfig/shop/1.0/0~0/~`))' <<<"$doc")" = true ] ||
  fail "key rotate's report: $doc"
json 2 key rotate --key "$key" "$released" >/dev/null
expect "see: ferrit key rotate --help" "$(cat "$work/stderr")"
json 2 key >/dev/null
json 1 key rotate --key "$key" --retire "$work/open.pub.pem" "$work/no-tree" >/dev/null
checkServed "$released"

# --- one voice --------------------------------------------------------------------------------------
internal='ferrit-sign-index|ferrit-pack|ferrit-request'
pages=$("$tool" help; "$tool" --help; "$tool" pack --help)
for command in $("$tool" help | sed -n 's/^    ferrit \([a-z]*\) .*/\1/p' | sort -u); do
  pages+=$("$tool" "$command" --help)
  pages+=$("$tool" help "$command")
done
for sub in build diff wrap config preload; do pages+=$("$tool" pack "$sub" --help); done
expect "ferrit publish" "$pages"
expect "--json" "$pages"
grep -Eq "$internal" <<<"$pages" && fail "a help page names an internal program: $(grep -Eo "$internal" <<<"$pages" | sort -u)"
messages=$work/messages
: > "$messages"
say() { "$tool" "$@" >/dev/null 2>>"$messages" </dev/null || true; }
say; say frobnicate; say help frobnicate; say keygen; say keygen a b c; say keygen --frob a b
say pack; say pack frobnicate; say pack build; say pack build --key "$key"; say pack diff --key x
say pack wrap --seq x a b; say pack config --key x; say pack preload --key x --version 1
say index; say index frob; say index sign; say config sign; say config sign --key "$key" a
say publish; say publish --key x --manifest y a b; say rollout; say rollout --percent 5 a b c
say promote --frob; say rollback --key x --manifest y a b; say publish --channel /x a b
say key; say key frob; say key rotate; say key rotate --key x --next y z
say get; say get --root "$work/nowhere" x
say check --root "$work/nowhere"; say status; say inspect --root "$work"; say startup --root "$work/r"
say get --root "$work" --frob; say cleanup --root "$work/nowhere"
[ "$(wc -l < "$messages")" -ge 30 ] || fail "too few messages gathered: $(cat "$messages")"
grep -Eq "$internal" "$messages" && fail "a message names an internal program: $(grep -E "$internal" "$messages")"
grep -v -E '^(ferrit( [a-z]+)*: |see: ferrit )' "$messages" &&
  fail "a message does not speak as ferrit (above)"
grep -Eqa "$internal" "$tool" && fail "the binary holds an internal program's name: $(grep -Eoa "$internal" "$tool" | sort -u)"

# --- read-only commands never make a root --------------------------------------------------------
missing=$work/missing/deeper/root
for command in "get https://shop.example.com/app/index.html" check status "inspect FerritDev.info" cleanup; do
  # shellcheck disable=SC2086
  doc=$(json 1 $command --root "$missing")
  expect "no root folder $missing" "$(field .error <<<"$doc")"
  [ ! -e "$work/missing" ] || fail "ferrit $command made the missing root"
done
printf 'a file' > "$work/plain-file"
json 1 check --root "$work/plain-file" >/dev/null

# --- check on a host's root -------------------------------------------------------------------------
root=$work/host-root
host() {  # host COMMAND ARGUMENTS...: a command against the host's root and the published tree
  local command=$1; shift
  "$tool" "$command" --root "$root" --public-key "$work/key.pub.pem" "$@"
}
doc=$(json 0 startup --root "$root" --public-key "$work/key.pub.pem" --serve "$work/serve" \
  --config-prefix https://cdn.example.com/tree/ --zip-prefix https://cdn.example.com/tree/packs/ \
  --app-key shop --app-version 1.0 https://shop.example.com/app/index.html)
[ "$(field '.installs.length' <<<"$doc")" = 2 ] && [ "$(field '.installs[1].installed' <<<"$doc")" = true ] &&
  [ "$(field '.response.size' <<<"$doc")" = 16 ] || fail "startup's report: $doc"
grep -qF $'\r' "$work/stderr" && fail "startup drew a progress bar on a file"
# A host's download under way is left alone: check only reads.
mkdir -p "$root/temp/shop_3_2" && printf 'partial' > "$root/temp/shop_3_2/download.zip"
doc=$(json 0 check --root "$root" --public-key "$work/key.pub.pem")
[ "$(field .verified <<<"$doc")" = 2 ] || fail "check on the host's root: $doc"
[ -s "$root/temp/shop_3_2/download.zip" ] || fail "check removed a download under way"
out=$(host check)
expect "shop@2 (Packed /Packs/shop/2/): signed list and files verified" "$out"
expect "lib@1 (Packed /Packs/lib/1/): signed list and files verified" "$out"
doc=$(json 0 status --root "$root")
[ "$(field '.status.version' <<<"$doc")" != null ] && [ "$(field '.size' <<<"$doc")" != null ] || fail "status's report: $doc"
"$tool" inspect --root "$root" FerritDev.info | node -e 'JSON.parse(require("fs").readFileSync(0, "utf8"))' ||
  fail "inspect's plain reply is not a JSON document"
doc=$(json 0 inspect --root "$root" FerritDev.info)
[ "$(field '.reply.process' <<<"$doc")" = main ] || fail "inspect's report: $doc"
json 1 inspect --root "$root" FerritDev.getURLList '{"packName":"none"}' >/dev/null
doc=$(json 0 get --root "$root" --public-key "$work/key.pub.pem" https://shop.example.com/app/index.html --body)
[ "$(field '.response.body' <<<"$doc")" = '<html>two</html>' ] &&
  [ "$(field '.response.bodyEncoding' <<<"$doc")" = utf-8 ] || fail "get's report: $doc"
# A binary body: the report parses (json above) and its base64 gives back the exact bytes.
doc=$(json 0 get --root "$root" --public-key "$work/key.pub.pem" https://shop.example.com/lib/logo.png --body)
[ "$(field '.response.bodyEncoding' <<<"$doc")" = base64 ] || fail "a binary body's encoding: $doc"
field '.response.body' <<<"$doc" | base64 -d > "$work/body.bin"
cmp -s "$work/body.bin" "$work/site/lib/logo.png" || fail "the base64 body is not the file's bytes: $doc"
json 0 cleanup --root "$root" >/dev/null
command -v sqlite3 >/dev/null || fail "sqlite3 is needed to damage an installed file"
# A corrupted installed file: the check fails naming the pack and the file, the other pack passes.
# The file's row names its bytes in the content table, where they are damaged.
sqlite3 "$root/packs/store.db" \
  "UPDATE content SET v = CAST('<html>tw0</html>' AS BLOB) WHERE h = \
   (SELECT c FROM kv WHERE CAST(k AS TEXT) = 'shop/2/res/index.html')"
doc=$(json 1 check --root "$root" --public-key "$work/key.pub.pem")
expect "shop@2: 1106" "$(field .error <<<"$doc")"
expect "index.html" "$(field .error <<<"$doc")"
[ "$(field .verified <<<"$doc")" = 1 ] || fail "the intact pack was not verified: $doc"
expect "ferrit check: shop@2: 1106" "$(cat "$work/stderr")"
# A stored record that does not validate (a status no version knows) is named, not skipped.
sqlite3 "$root/packs/store.db" "UPDATE kv SET v = CAST(replace(CAST(v AS TEXT), '\"lib\":{', \
  '\"lib\":{\"status\":99,') AS BLOB) WHERE CAST(k AS TEXT) = 'config'"
json 1 check --root "$root" --public-key "$work/key.pub.pem" >/dev/null
expect "ferrit check: the stored record of lib is not valid" "$(cat "$work/stderr")"
# A damaged stored configuration.
sqlite3 "$root/packs/store.db" "UPDATE kv SET v = CAST('{not json' AS BLOB) WHERE CAST(k AS TEXT) = 'config'"
doc=$(json 1 check --root "$root" --public-key "$work/key.pub.pem")
expect "the stored configuration does not read" "$(field .error <<<"$doc")"
# A root where no host installed anything.
mkdir -p "$work/empty-root"
doc=$(json 1 check --root "$work/empty-root")
expect "no stored configuration" "$(cat "$work/stderr")"

# --- progress: quiet off a terminal, a bar on one ---------------------------------------------------------
printf '<html>three</html>' > "$work/site/app/index.html"
publish 2>"$work/progress" >/dev/null
[ ! -s "$work/progress" ] || fail "publish wrote to stderr off a terminal: $(cat -A "$work/progress")"
mkdir -p "$work/pre-root" "$work/pre-tty-root"
"$tool" get --root "$work/pre-root" --assets "$work/assets" --public-key "$work/key.pub.pem" \
  --preload preload.zip https://shop.example.com/app/index.html 2>"$work/progress" >/dev/null
[ ! -s "$work/progress" ] || fail "a preload install wrote to stderr off a terminal: $(cat -A "$work/progress")"
if command -v script >/dev/null; then
  printf '<html>four</html>' > "$work/site/app/index.html"
  # script gives the command a terminal for stdout and stderr alike.
  typed=$(script -qec "'$tool' publish --key '$key' --manifest '$work/manifest.json' '$work/site' '$served'" /dev/null)
  expect "publish [" "$typed"
  expect "4/4 files" "$typed"
  expect "shop 4 (" "$typed"
  typed=$(script -qec "'$tool' startup --root '$work/tty-root' --public-key '$work/key.pub.pem' --serve '$work/serve' --config-prefix https://cdn.example.com/tree/ --zip-prefix https://cdn.example.com/tree/packs/ --app-key shop --app-version 1.0" /dev/null)
  expect "install [" "$typed"
  expect "installed shop@4" "$typed"
  typed=$(script -qec "'$tool' get --root '$work/pre-tty-root' --assets '$work/assets' --public-key '$work/key.pub.pem' --preload preload.zip https://shop.example.com/app/index.html" /dev/null)
  expect "install [########################] 4 files" "$typed"
  expect "preload preload.zip installed" "$typed"
else
  echo "check-cli: no script(1): the terminal case of the progress bars is not checked" >&2
fi
echo "check-cli: ok"
