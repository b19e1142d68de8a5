#!/usr/bin/env bash
# Checks the release commands from the outside: their pages and refusals, a rollout at 10% and
# 50% (the record's keys and the gray version's own document, verified with openssl), promotion,
# the rollback of a released pack (the new version's zip holds exactly the earlier files), the
# rollback of a rollout, channels (publish --channel, and promote --from, which writes documents
# below the channel and no zip), and that every --json output parses.
#   check-release.sh PATH-TO-ferrit KEYS-FOLDER
set -euo pipefail
tool=$1
keys=$2
key=$keys/sample-ed25519.pem
public=$keys/sample-ed25519.pub.pem
source "$(dirname "$0")/../common/check-lib.sh" check-release
# json EXPRESSION: evaluates a Python expression over the JSON document on stdin (as `d`).
json() {
  python3 -c "import json,sys; d=json.load(sys.stdin); print($1)"
}
# record DOCUMENT PACK: the pack's record in a signed document, as JSON.
record() {
  sed 's/||.*$//' "$1" | python3 -c "import json,sys; print(json.dumps(json.load(sys.stdin)['packs'].get('$2')))"
}
verify() {  # verify DOCUMENT: signed by the sample key over its MD5 text
  local text sig
  text=$(sed 's/||.*$//' "$1")
  sig=$(sed 's/^.*||//' "$1")
  printf '%s' "$text" | md5sum | cut -c1-32 | tr -d '\n' > "$work/md5.txt"
  printf '%s' "$sig" | base64 -d > "$work/sig.bin"
  openssl pkeyutl -verify -pubin -inkey "$public" -rawin -in "$work/md5.txt" \
    -sigfile "$work/sig.bin" >/dev/null 2>&1 || fail "the signature of $1 does not verify"
}

for command in rollout promote rollback; do
  page=$("$tool" "$command" --help)
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS"; do expect "$section" "$page"; done
  expect "ferrit $command" "$page"
  expect "ferrit $command" "$("$tool" help)"
done
expect "--channel NAME" "$("$tool" publish --help)"

mkdir -p "$work/site/shop" "$work/site/cart"
printf 'one' > "$work/site/shop/index.html"
printf 'kept' > "$work/site/shop/kept.css"
printf 'only in one' > "$work/site/shop/one.txt"
printf 'cart' > "$work/site/cart/cart.js"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "demo", "version": "1.0", "locale": "en"},
 "packs": [{"name": "shop", "folder": "shop", "prefix": "http://shop.test/", "priority": 9},
           {"name": "cart", "folder": "cart", "prefix": "http://cart.test/"}]}
JSON
m=(--key "$key" --manifest "$work/manifest.json")
tree=$work/tree
global=$tree/fconfig/demo/1.0/0~0/en~

status 2 "$tool" rollout "${m[@]}" shop "$work/site" "$tree"
status 2 "$tool" rollout "${m[@]}" --percent 0 shop "$work/site" "$tree"
status 2 "$tool" rollout "${m[@]}" --percent 101 shop "$work/site" "$tree"
status 2 "$tool" rollout "${m[@]}" --percent 10 --channel ../x shop "$work/site" "$tree"
status 2 "$tool" promote "${m[@]}" shop
status 2 "$tool" rollback "${m[@]}" --to x shop "$tree"
status 1 "$tool" promote "${m[@]}" shop "$tree"

"$tool" publish "${m[@]}" "$work/site" "$tree" >/dev/null
status 1 "$tool" rollout "${m[@]}" --percent 10 shop "$work/site" "$tree"
status 1 "$tool" rollback "${m[@]}" shop "$tree"

# 10%: version 2 built, the record names version 1 released and 2 at 1000 basis points.
printf 'two' > "$work/site/shop/index.html"
rm "$work/site/shop/one.txt"
out=$("$tool" rollout "${m[@]}" --percent 10 --json shop "$work/site" "$tree")
[ "$(json 'd["after"]' <<<"$out")" = "{'released': 1, 'rollout': 2, 'percent': 10.0}" ] ||
  fail "rollout 10%: $out"
[ "$(json 'd["built"]' <<<"$out")" = "True" ] || fail "rollout built nothing: $out"
verify "$global"
[ "$(record "$global" shop | json '(d["s"], d["g"], d["rs"], d["rp"], "rt" in d)')" = \
  "(1, 1, 2, 1000, True)" ] || fail "10% record: $(record "$global" shop)"
[ "$(record "$global" cart | json '("rs" in d, "g" in d)')" = "(False, False)" ] ||
  fail "the other pack changed"
verify "$tree/packconfig/shop/2"
[ "$(record "$tree/packconfig/shop/2" shop | json 'd["g"]')" = "2" ] ||
  fail "the gray version's own document is not gray"
[ -f "$tree/packs/shop/i/2.zip" ] || fail "no increment for the rollout"

# Lower is refused; 50% with the same files changes only the share.
status 1 "$tool" rollout "${m[@]}" --percent 5 shop "$work/site" "$tree"
out=$("$tool" rollout "${m[@]}" --percent 50 --json shop "$work/site" "$tree")
[ "$(json '(d["built"], d["after"]["percent"])' <<<"$out")" = "(False, 50.0)" ] || fail "50%: $out"
[ "$(record "$global" shop | json 'd["rp"]')" = "5000" ] || fail "50% record"

# Promotion: version 2 to every device, its own document re-signed without the gray mark.
zips=$(cd "$tree" && find packs -type f | sort)
out=$("$tool" promote "${m[@]}" --json shop "$tree")
[ "$(json 'd["after"]' <<<"$out")" = "{'released': 2}" ] || fail "promote: $out"
[ "$(cd "$tree" && find packs -type f | sort)" = "$zips" ] || fail "promote wrote a zip"
[ "$(record "$global" shop | json '(d["s"], "g" in d, "rs" in d)')" = "(2, False, False)" ] ||
  fail "promoted record: $(record "$global" shop)"
verify "$tree/packconfig/shop/2"
[ "$(record "$tree/packconfig/shop/2" shop | json '"g" in d')" = "False" ] ||
  fail "the promoted version's own document is still gray"

# Rollback of the released pack: version 3 holds exactly version 1's files.
out=$("$tool" rollback "${m[@]}" --json shop "$tree")
[ "$(json '(d["after"]["released"], d["built"])' <<<"$out")" = "(3, True)" ] || fail "rollback: $out"
[ "$(unzip -Z1 "$tree/packs/shop/3.zip" | sort | tr '\n' ' ')" = \
  "app-res.hvc res/index.html res/kept.css res/one.txt " ] || fail "version 3's files"
[ "$(unzip -p "$tree/packs/shop/3.zip" res/index.html)" = "one" ] || fail "version 3's index"
cmp -s "$tree/packs/shop/3.zip" "$tree/packs/shop/1.zip" || fail "version 3 is not version 1's zip"
[ -f "$tree/packs/shop/i/3.zip" ] || fail "no increment for the rollback"
[ "$(record "$global" shop | json 'd["s"]')" = "3" ] || fail "rolled back record"
status 1 "$tool" rollback "${m[@]}" shop "$tree"

# Rollback of a rollout: the share goes to 0, the record stays marked released.
printf 'four' > "$work/site/shop/index.html"
"$tool" rollout "${m[@]}" --percent 10 shop "$work/site" "$tree" >/dev/null
out=$("$tool" rollback "${m[@]}" --json shop "$tree")
[ "$(json 'd["after"]' <<<"$out")" = "{'released': 3, 'rollout': 4, 'percent': 0.0}" ] ||
  fail "rollout taken back: $out"
[ "$(record "$global" shop | json '(d["s"], d["g"], d["rs"], d["rp"])')" = "(3, 1, 4, 0)" ] ||
  fail "taken-back record: $(record "$global" shop)"
# A publish of other changes leaves the taken-back rollout as it is.
printf 'cart two' > "$work/site/cart/cart.js"
"$tool" publish "${m[@]}" "$work/site" "$tree" >/dev/null
[ "$(record "$global" shop | json '(d["s"], d["rp"])')" = "(3, 0)" ] || fail "publish moved shop"
[ "$(record "$global" cart | json 'd["s"]')" = "2" ] || fail "publish did not release cart"

# A first rollout: nothing released, so the record is marked deleted for devices that do not
# know the rollout keys; taken back, it keeps the mark and a share of 0.
mkdir -p "$work/site/extra"
printf 'extra' > "$work/site/extra/x.js"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "demo", "version": "1.0", "locale": "en"},
 "packs": [{"name": "shop", "folder": "shop", "prefix": "http://shop.test/", "priority": 9},
           {"name": "cart", "folder": "cart", "prefix": "http://cart.test/"},
           {"name": "extra", "folder": "extra", "prefix": "http://extra.test/"}]}
JSON
"$tool" rollout "${m[@]}" --percent 1 extra "$work/site" "$tree" >/dev/null
[ "$(record "$global" extra | json '("s" in d, d["g"], d["rs"], d["rp"], d["status"])')" = \
  "(False, 1, 1, 100, 4)" ] || fail "first rollout record: $(record "$global" extra)"
"$tool" rollback "${m[@]}" extra "$tree" >/dev/null
[ "$(record "$global" extra | json '(d["rs"], d["rp"], d["status"])')" = "(1, 0, 4)" ] ||
  fail "first rollout taken back: $(record "$global" extra)"

# Channels: beta gets version 5 of shop; stable, promoted from beta, writes documents only.
printf 'five' > "$work/site/shop/index.html"
"$tool" publish "${m[@]}" --channel beta "$work/site" "$tree" >/dev/null
beta=$tree/channels/beta/fconfig/demo/1.0/0~0/en~
verify "$beta"
[ "$(record "$beta" shop | json 'd["s"]')" = "5" ] || fail "beta record: $(record "$beta" shop)"
[ "$(record "$global" shop | json 'd["s"]')" = "3" ] || fail "the default channel moved"
zips=$(cd "$tree" && find packs -type f | sort)
out=$("$tool" promote "${m[@]}" --channel stable --from beta --json shop "$tree")
[ "$(json 'd["after"]' <<<"$out")" = "{'released': 5}" ] || fail "promote --from: $out"
[ "$(cd "$tree" && find packs -type f | sort)" = "$zips" ] || fail "promote --from wrote a zip"
[ -z "$(find "$tree/channels" -name '*.zip')" ] || fail "a zip below a channel"
stable=$tree/channels/stable/fconfig/demo/1.0/0~0/en~
verify "$stable"
verify "$tree/channels/stable/packconfig/shop/5"
[ "$(record "$stable" shop | json 'd["s"]')" = "5" ] || fail "stable record"
[ "$(record "$stable" cart | json 'd')" = "None" ] || fail "stable names a pack it never had"
status 1 "$tool" promote "${m[@]}" --channel stable --from nowhere shop "$tree"

# Only documents that the tree's key signed are signed again: one placed below a channel at a path
# that publish writes fails the run, which names it and signs nothing; a file at any other path
# (one a killed write left, a hidden one, any other name) is no document and is left alone.
planted=$tree/channels/x/fconfig/demo/1.0/0~0/en~
mkdir -p "$(dirname "$planted")" "$tree/channels/y/fconfig"
printf '{"v":"1","packs":{"shop":{"s":1}}}||x' > "$planted"
printf '{"packs":{"shop":{"s":1}}}||x' > "$tree/channels/y/fconfig/a"
before=$(cat "$global")
set +e; message=$("$tool" publish "${m[@]}" --resign "$work/site" "$tree" 2>&1); got=$?; set -e
[ "$got" -eq 1 ] || fail "publish signed a document that the tree's key did not sign: $message"
expect "$planted is not signed with the tree's key" "$message"
[ "$(cat "$global")" = "$before" ] || fail "a refused publish changed the default channel"
"$tool" keygen "$work/other.pem" "$work/other.pub.pem" >/dev/null
set +e; message=$("$tool" key rotate --key "$key" --next "$work/other.pub.pem" "$tree" 2>&1); got=$?
set -e
[ "$got" -eq 1 ] || fail "key rotate signed a document that the tree's key did not sign: $message"
expect "$planted is not signed with the tree's key" "$message"
rm -r "$tree/channels/x"
touch "$tree/fconfig/.DS_Store" "$beta.tmp" "$tree/channels/stable/fconfig/demo/1.0/.keep"
"$tool" publish "${m[@]}" --resign "$work/site" "$tree" >/dev/null
[ "$(cat "$tree/channels/y/fconfig/a")" = '{"packs":{"shop":{"s":1}}}||x' ] ||
  fail "a file at a path publish never writes was signed"
[ ! -s "$beta.tmp" ] && [ ! -s "$tree/fconfig/.DS_Store" ] || fail "a leftover was signed"

# Every channel's global documents carry the tree's newest stamp: a release in one channel signs
# the others' again as they are (their versions unchanged), so that none lapses while another is
# renewed, and the cache rules cover the channels' documents.
issued() { sed 's/||.*$//' "$1" | json 'd["issued"]'; }
version() { sed 's/||.*$//' "$1" | json 'd["v"]'; }
betaVersion=$(version "$beta")
out=$("$tool" publish "${m[@]}" --resign --json "$work/site" "$tree")
[ "$(json 'd["resigned"] and d["expires"] > d["issued"] > 0' <<<"$out")" = True ] || fail "publish --resign: $out"
now=$(json 'd["issued"]' <<<"$out")
for document in "$global" "$beta" "$stable"; do
  verify "$document"
  [ "$(issued "$document")" = "$now" ] || fail "$document was not signed again: $(issued "$document"), not $now"
done
[ "$(version "$beta")" = "$betaVersion" ] || fail "signing beta again changed its version"
expect 'location ^~ /channels/' "$(cat "$tree.nginx.conf")"
# key rotate signs every channel's documents again too.
"$tool" keygen "$work/next.pem" "$work/next.pub.pem" >/dev/null
out=$("$tool" key rotate --key "$key" --next "$work/next.pub.pem" --json "$tree")
[ "$(json '"channels/beta/fconfig/demo/1.0/0~0/en~" in d["resigned"] and "fconfig/demo/1.0/0~0/en~" in d["resigned"]' <<<"$out")" = True ] ||
  fail "key rotate left a channel out: $out"
for document in "$global" "$beta" "$stable"; do
  expect '"next":"' "$(cat "$document")"
done

# A device that moves to another channel asks with the version of the channel it left: every
# channel holds its own full document at every version that another channel published.
python3 - "$tree" <<'PY' || fail "a channel does not answer at another channel's version"
import json, sys
tree = sys.argv[1]
state = json.load(open(tree + ".publish/state.json"))
channels = {"": state["versions"]}
for name in ("beta", "stable"):
    channels["channels/%s/" % name] = state["channels"][name]["versions"]
for folder in channels:
    own = open("%s/%sfconfig/demo/1.0/0~0/en~" % (tree, folder)).read()
    for other, versions in channels.items():
        for version in versions if other != folder else []:
            path = "%s/%sfconfig/demo/1.0/0~%s/en~" % (tree, folder, version)
            try:
                text = open(path).read()
            except OSError:
                sys.exit("no document at " + path)
            if text != own:
                sys.exit(path + " is not the channel's document")
PY

# A pack that leaves the manifest leaves every channel's releases: the publish reports it, the
# history forgets its release (its rollout taken back included), and the release commands refuse
# it as not published.
cp "$work/manifest.json" "$work/three.json"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "demo", "version": "1.0", "locale": "en"},
 "packs": [{"name": "shop", "folder": "shop", "prefix": "http://shop.test/", "priority": 9},
           {"name": "cart", "folder": "cart", "prefix": "http://cart.test/"}]}
JSON
out=$("$tool" publish "${m[@]}" --json "$work/site" "$tree")
[ "$(json 'd["removed"]' <<<"$out")" = "['extra']" ] || fail "publish does not report extra removed: $out"
[ "$(record "$global" extra)" = null ] || fail "the global document still names extra"
state=$tree.publish/state.json
[ "$(json '[c for c in [d] + list(d.get("channels", {}).values()) if "extra" in c.get("release", {})]' <"$state")" = "[]" ] ||
  fail "the history still releases extra: $(cat "$state")"
for command in promote rollback; do
  set +e; message=$("$tool" "$command" "${m[@]}" extra "$tree" 2>&1); got=$?; set -e
  [ "$got" -eq 1 ] || fail "$command of a removed pack exited $got"
  expect "ferrit $command: pack \"extra\" is not published" "$message"
done
status 1 "$tool" rollout "${m[@]}" --percent 10 extra "$work/site" "$tree"
out=$("$tool" promote "${m[@]}" --json --channel stable --from beta extra "$tree" 2>/dev/null || true)
expect 'is not published' "$(json 'd["error"]' <<<"$out")"
# Added back, it goes on after its last version, at a new zip path, released to every device.
cp "$work/three.json" "$work/manifest.json"
out=$("$tool" publish "${m[@]}" --json "$work/site" "$tree")
[ "$(json '[(p["seq"], p["kind"]) for p in d["packs"] if p["name"] == "extra"]' <<<"$out")" = "[(2, 'full')]" ] ||
  fail "extra added back: $out"
[ "$(record "$global" extra | json '(d["s"], "status" in d, "rs" in d)')" = "(2, False, False)" ] ||
  fail "extra added back: $(record "$global" extra)"
[ "$(json '"extra" in d.get("gone", {})' <"$state")" = False ] || fail "extra is still gone"

# Promotion never gives a channel a version older than its own: devices on the newer one would
# keep it while new ones took the older. Stable builds version 6 of shop; beta releases 5.
printf 'six' > "$work/site/shop/index.html"
"$tool" publish "${m[@]}" --channel stable "$work/site" "$tree" >/dev/null
[ "$(record "$stable" shop | json 'd["s"]')" = "6" ] || fail "stable record: $(record "$stable" shop)"
set +e; message=$("$tool" promote "${m[@]}" --channel stable --from beta shop "$tree" 2>&1); got=$?
set -e
[ "$got" -eq 1 ] || fail "promoted an older version: $message"
expect "ferrit rollback --to 5" "$message"
[ "$(record "$stable" shop | json 'd["s"]')" = "6" ] || fail "a refused promotion moved stable"
echo "check-release: ok"
