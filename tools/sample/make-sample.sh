#!/usr/bin/env bash
# Rebuilds what is derived in the sample app: the signed resource list "app-res.hvc" of each pack
# folder, and the built-in configuration "Ferrit_Asset.config" that embeds the lists of the packs
# shipped in the raw-file folder. Run it after changing a file of a pack.
#   make-sample.sh [PATH-TO-ferrit]
# The key in keys/ signs the sample only; never use it for anything else.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
ferrit=${1:-$here/../../build/tools/ferrit}
key=$here/keys/sample-ed25519.pem
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The shop's own pack, installed under the root at sequence 3.
"$ferrit" index sign --key "$key" --url-prefix https://shop.example.com/app/ \
  --header "css/app.css=Access-Control-Allow-Origin:https://shop.example.com" \
  "$here/root/apps/shop/3"

# Two packs shipped with the app: the style kit, and the guide that arrives as an on-demand module.
"$ferrit" index sign --key "$key" --url-prefix https://cdn.shop.example.com/kit/ --table-out "$work/kit.json" \
  "$here/assets/Ferrit_Asset_kit/2"
"$ferrit" index sign --key "$key" --url-prefix https://shop.example.com/guide/ --table-out "$work/guide.json" \
  "$here/assets/Ferrit_Asset_guide/1"

{
  printf '{"v":"20241121","packs":{'
  printf '"kit":{"s":2,"f":96,"p":["https://cdn.shop.example.com/kit/"]},'
  printf '"guide":{"s":1,"f":96,"p":["https://shop.example.com/guide/"],"isOnDemand":true}},'
  printf '"resources":{"kit":%s,"guide":%s}}\n' "$(cat "$work/kit.json")" "$(cat "$work/guide.json")"
} > "$here/assets/Ferrit_Asset.config"
echo "wrote $here/assets/Ferrit_Asset.config"

# The configuration document that the sample's configuration endpoint serves, signed as such an
# endpoint signs it. `ferrit startup --serve` serves it from endpoint/.
"$ferrit" config sign --key "$key" "$here/fconfig.json" \
  "$here/endpoint/config.example.com/ferrit/fconfig/shop/index"
