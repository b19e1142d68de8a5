#!/usr/bin/env bash
# A change of keys end to end, through the real tool and a real host root: a tree published with
# key A; a host (ferrit startup, the library's own start-up against the tree served from files)
# that always opens with A, as an app built with A does, and keeps one root across its runs. Then
# `ferrit key rotate --next B`, a publish with B, `ferrit key rotate --retire A`; after each step
# the host takes the new documents, and at the end it refuses a document that A signed, one past
# its expiry and one signed before what it has, and says so in its status report. Also the
# command's refusals.
#   check-key-rotate.sh PATH-TO-ferrit
set -euo pipefail
tool=$1
source "$(dirname "$0")/../common/check-lib.sh" check-key-rotate
# The status report that the host printed last, as JSON.
report() { grep '^status after startUpdate: ' <<<"$1" | sed 's/^status after startUpdate: //'; }
# pick PATH: the member at PATH (".a.b[0]") of the JSON on stdin; strings bare, null as "null".
pick() {
  node -e 'let t = ""; process.stdin.on("data", (d) => (t += d)).on("end", () => {
    let v = JSON.parse(t);
    for (const k of process.argv[1].match(/[^.\[\]]+/g)) v = v == null ? null : v[k];
    console.log(typeof v === "string" ? v : JSON.stringify(v ?? null));
  });' "$1"
}
# id PUBLIC.pem: the key's id, the first 16 bytes of the SHA-256 of its raw 32 bytes, in hex.
id() { openssl pkey -pubin -in "$1" -outform DER | tail -c 32 | sha256sum | cut -c1-32; }

page=$("$tool" key --help)
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" "ferrit key rotate" "--retire"; do
  expect "$section" "$page"
done
expect "ferrit key rotate" "$("$tool" help)"
status 2 "$tool" key
status 2 "$tool" key turn
status 2 "$tool" key rotate --key x "$work/out"
status 2 "$tool" key rotate --key x --next y --retire z "$work/out"

for k in a b c; do "$tool" keygen "$work/$k.pem" "$work/$k.pub.pem" >/dev/null; done
a=$(id "$work/a.pub.pem")
b=$(id "$work/b.pub.pem")
mkdir -p "$work/site/app"
printf '<html>one</html>' > "$work/site/app/index.html"
cat > "$work/manifest.json" <<'JSON'
{"app": {"key": "shop", "version": "1.0"}, "zips": "packs",
 "packs": [{"name": "shop", "folder": "app", "prefix": "http://127.0.0.1:8080/app/"}]}
JSON
publish() { "$tool" publish --key "$1" --manifest "$work/manifest.json" "$work/site" "$work/out"; }
status 1 "$tool" key rotate --key "$work/a.pem" --next "$work/b.pub.pem" "$work/out"  # nothing published
v1=$(publish "$work/a.pem" | grep -Eo 'configuration version [0-9]+' | grep -Eo '[0-9]+$')

# The host: the tree at http://cdn.test/, the key it was built with, one root for every run.
mkdir -p "$work/serve"
ln -s "$work/out" "$work/serve/cdn.test"
host() {
  "$tool" startup --serve "$work/serve" --config-prefix http://cdn.test/ --app-key shop \
    --app-version 1.0 --root "$work/root" --public-key "$work/a.pub.pem" --log-level 2 2>&1
}
global="$work/out/fconfig/shop/1.0/0~0/~"
out=$(host)
expect "configuration version $v1 with 1 packs" "$out"
cp "$global" "$work/signed-by-a"
# A second channel releases shop 1, which A signed, to its own devices.
"$tool" publish --key "$work/a.pem" --manifest "$work/manifest.json" --channel stable "$work/site" \
  "$work/out" >/dev/null

# 1. A names B. The host trusts B beside A.
status 1 "$tool" key rotate --key "$work/c.pem" --next "$work/b.pub.pem" "$work/out"  # not the tree's key
status 1 "$tool" key rotate --key "$work/a.pem" --next "$work/a.pub.pem" "$work/out"  # itself
rotated=$("$tool" key rotate --key "$work/a.pem" --next "$work/b.pub.pem" "$work/out")
expect "key $a names its successor $b" "$rotated"
expect "\"next\":\"" "$(cat "$global")"
out=$(host)
[ "$(report "$out" | pick '.configuration.keys.trusted[0]')" = "$b" ] || fail "B is not trusted: $out"
status 1 "$tool" key rotate --key "$work/b.pem" --retire "$work/a.pub.pem" "$work/out"  # B has not published
status 1 "$tool" publish --key "$work/c.pem" --manifest "$work/manifest.json" "$work/site" "$work/out"

# 2. B publishes: the pack gets a version that B signs, and the host takes B's document.
out2=$(publish "$work/b.pem")
expect "shop 2 (full; a new base, signed by the new key)" "$out2"
[ ! -e "$work/out/packs/shop/i/2.zip" ] || fail "a version of the new key has an increment"
v2=$(grep -Eo 'configuration version [0-9]+' <<<"$out2" | grep -Eo '[0-9]+$')
unzip -p "$work/out/packs/shop/2.zip" app-res.hvc >/dev/null || fail "no list in the new version"
expect '"endorsement":{"key":"' "$(cat "$global")"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"

# 3. B retires A. The host refuses A from then on, although it still opens with A.
# Not while the stable channel still releases shop 1, whose list A signed: its devices would
# refuse it and stop serving the pack. Once stable has B's version, A retires.
set +e; message=$("$tool" key rotate --key "$work/b.pem" --retire "$work/a.pub.pem" "$work/out" 2>&1)
got=$?; set -e
[ "$got" -eq 1 ] || fail "retired A while stable releases a version A signed: $message"
expect 'channel "stable" releases shop 1' "$message"
expect "publish or promote a newer version there" "$message"
"$tool" promote --key "$work/b.pem" --manifest "$work/manifest.json" --channel stable --from "" \
  shop "$work/out" >/dev/null
retired=$("$tool" key rotate --key "$work/b.pem" --retire "$work/a.pub.pem" "$work/out")
expect "key $a retired by $b" "$retired"
status 1 "$tool" publish --key "$work/a.pem" --manifest "$work/manifest.json" "$work/site" "$work/out"
# A channel that a tree retired by an earlier release of the tool still gives shop 1 (signed by A):
# promote does not hand that version to another channel.
state=$work/out.publish/state.json
node -e 'const fs = require("fs"); const s = JSON.parse(fs.readFileSync(process.argv[1]));
  s.channels.old = {release: {shop: {seq: 1}}}; fs.writeFileSync(process.argv[1], JSON.stringify(s));' \
  "$state"
set +e; message=$("$tool" promote --key "$work/b.pem" --manifest "$work/manifest.json" \
  --channel edge --from old shop "$work/out" 2>&1); got=$?; set -e
[ "$got" -eq 1 ] || fail "promoted a version that the retired key signed: $message"
expect "version 1 of shop is signed with the key $a, which was retired" "$message"
out=$(host)
[ "$(report "$out" | pick '.configuration.keys.retired[0]')" = "$a" ] || fail "A is not retired: $out"
before=$(cat "$global")
issued=$(pick '.issued' <<<"${before%%||*}")
sign() {  # sign KEY JSON: a signed document at the path the host asks for
  printf '%s' "$2" > "$work/doc.json"
  "$tool" config sign --key "$1" "$work/doc.json" "$global" >/dev/null
}
sign "$work/a.pem" "{\"v\":\"$((v2 + 5))\",\"issued\":$((issued + 5)),\"packs\":{}}"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"
expect '"event":"refusedRetired"' "$out"
expect "verify failed: MD5 is" "$out"

# Expiry: B's document replayed after it lapsed is ignored, and the report says why.
sign "$work/b.pem" "{\"v\":\"$((v2 + 6))\",\"issued\":$((issued + 6)),\"expires\":1000,\"packs\":{}}"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"
[ "$(report "$out" | pick '.configuration.refused.reason')" = "expired" ] || fail "no expiry report: $out"
# Rollback: a document signed before the one the host has is ignored.
sign "$work/b.pem" "{\"v\":\"$((v2 + 7))\",\"issued\":$((issued - 1)),\"packs\":{}}"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"
[ "$(report "$out" | pick '.configuration.refused.reason')" = "older" ] || fail "no rollback report: $out"
# The document that A signed at the start, replayed as it was: refused as well.
cp "$work/signed-by-a" "$global"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"
# And the tree's own document, signed by B, is taken.
printf '%s' "$before" > "$global"
out=$(host)
expect "configuration version $v2 with 1 packs" "$out"
[ "$(report "$out" | pick '.configuration.refused')" = "null" ] || fail "the tree's document was refused: $out"
echo "check-key-rotate: ok"
