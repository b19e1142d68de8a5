#!/usr/bin/env bash
# Installs every Debian package the build, tests, fuzzers and benchmarks need. Idempotent and
# silent when nothing is missing; never prompts.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format clang-tidy libclang-rt-14-dev binutils pkg-config
  zlib1g-dev libminizip-dev zip unzip rapidjson-dev libsqlite3-dev sqlite3 libssl-dev openssl
  libdeflate-dev libzstd-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  nodejs
  # The C example (examples/c-host) carries the library's requests with libcurl, and
  # scripts/check-install.sh serves its tree with python3's http.server.
  libcurl4-openssl-dev python3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# npm comes with some builds of nodejs and is a package of its own in others.
command -v npm >/dev/null || missing+=(npm)
# The browser story's real parts: a web server and a browser (tests/e2e, scripts/demo.sh).
command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] || missing+=(nginx-light)
command -v chromium >/dev/null || missing+=(chromium)

# The TypeScript compiler and Node's types, only to check the Node module's declarations
# (node/typecheck), pinned by their committed lock file.
install_typecheck() {
  local dir
  dir="$(cd "$(dirname "$0")/.." && pwd)/node/typecheck"
  [ -x "$dir/node_modules/.bin/tsc" ] && [ -f "$dir/node_modules/@types/node/package.json" ] && return 0
  (cd "$dir" && npm ci --ignore-scripts --no-audit --no-fund >/dev/null)
}

# puppeteer-core drives the system's Chromium, pinned by its committed lock file; it never
# downloads a browser of its own. The same lock pins the two releases of a web library that the
# patch benchmark and the story's large script use. A tree installed from another lock (before
# the releases were added, or at other versions) is installed again: npm's record of what it
# installed, node_modules/.package-lock.json, must hold every package the lock names at the
# lock's version (an optional one, for another platform, may be absent).
e2e_matches_lock() {
  local dir=$1
  [ -f "$dir/node_modules/.package-lock.json" ] || return 1
  node -e '
    const [lock, installed] = process.argv.slice(1).map((file) => require(file).packages || {});
    for (const [name, entry] of Object.entries(lock)) {
      if (name === "") continue;
      const have = installed[name];
      if (have ? have.version !== entry.version : !entry.optional) process.exit(1);
    }' "$dir/package-lock.json" "$dir/node_modules/.package-lock.json"
}

install_e2e() {
  local dir
  dir="$(cd "$(dirname "$0")/.." && pwd)/tests/e2e"
  e2e_matches_lock "$dir" && return 0
  (cd "$dir" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --ignore-scripts --no-audit --no-fund >/dev/null)
}

if [ ${#missing[@]} -eq 0 ]; then
  install_typecheck
  install_e2e
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root to install ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
# Debian releases without the light build of nginx have the full one.
if [[ " ${missing[*]} " == *" nginx-light "* ]] && ! apt-cache show nginx-light >/dev/null 2>&1; then
  missing=("${missing[@]/nginx-light/nginx}")
fi
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
install_typecheck
install_e2e
