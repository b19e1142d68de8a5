#!/usr/bin/env bash
# Remakes the seeds of the zip and unwrap fuzz targets with the pack tool: a pack zip, an
# incremental zip, and two zips wrapped with the key of seq 7 (the key unwrap_fuzz uses). Signed
# with the sample key, which signs samples only.
#   make-pack-seeds.sh [PATH-TO-ferrit]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
ferrit=${1:-$here/../../build/tools/ferrit}
key=$here/../../tools/sample/keys/sample-ed25519.pem
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/v1/css" "$work/v2" "$work/tiny"
printf '<html>one</html>' > "$work/v1/index.html"
printf 'body{}' > "$work/v1/css/app.css"
printf '<html>two</html>' > "$work/v2/index.html"
printf 'let a;' > "$work/v2/app.js"
printf 'x' > "$work/tiny/a"
"$ferrit" pack build --key "$key" --url-prefix https://shop.example.com/app/ \
  --header 'css/app.css=Access-Control-Allow-Origin:*' "$work/v1" "$here/zip_file_fuzz/pack.zip"
"$ferrit" pack diff --key "$key" --url-prefix https://shop.example.com/app/ "$work/v1" "$work/v2" \
  "$here/zip_file_fuzz/increment.zip"
"$ferrit" pack build --key "$key" --url-prefix https://t/ "$work/tiny" "$work/tiny.zip"
"$ferrit" pack wrap --seq 7 "$work/tiny.zip" "$here/unwrap_fuzz/tiny.png"
"$ferrit" pack wrap --seq 7 "$here/zip_file_fuzz/increment.zip" "$here/unwrap_fuzz/increment.png"
