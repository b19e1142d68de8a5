#!/usr/bin/env bash
# Sets everything up and runs the main job: serves a few URLs of the sample app from its
# installed pack and prints what the host would receive.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build
tool=build/tools/ferrit-request
sample=tools/sample
for url in https://shop.example.com/index.html https://shop.example.com/app/js/app.js \
           "https://shop.example.com/app/css/app.css?v=3" https://shop.example.com/app/missing.js \
           https://elsewhere.example.org/x.js; do
  echo "== GET $url"
  "$tool" --root "$sample/root" --config "$sample/config.json" "$url" || true
  echo
done
