# What the tool's outside checks share, sourced by each:
#   source "$(dirname "$0")/../common/check-lib.sh" NAME
# gives a scratch folder $work, removed on exit, and:
#   fail MESSAGE...             prints "NAME: MESSAGE" on stderr and exits 1;
#   expect TEXT OUTPUT          fails unless OUTPUT holds TEXT;
#   status EXPECTED COMMAND...  runs COMMAND quietly and fails unless it exits EXPECTED.
check_name=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$check_name: $*" >&2; exit 1; }
expect() {
  grep -qF -- "$1" <<<"$2" || fail "expected \"$1\" in: $2"
}
status() {
  local want=$1; shift
  set +e; "$@" >/dev/null 2>&1; local got=$?; set -e
  [ "$got" -eq "$want" ] || fail "exit status $got, not $want: $*"
}
