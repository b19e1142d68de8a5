#!/usr/bin/env bash
# The commit-message check installed as the README says, as a commit-msg hook through a symlink,
# in a repository of its own: a message that breaks the rule is refused and nothing is committed;
# one that keeps it is committed.
#   commit-msg-hook-test.sh CHECK_SCRIPT
set -euo pipefail
check=$(readlink -f "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
git init -q repo
cd repo
git config user.email test@example.com
git config user.name test
ln -s "$check" "$(git rev-parse --git-path hooks)/commit-msg"
echo one >file
git add file

if git commit -q -m "A subject with no body" 2>"$work/refused"; then
  echo "a message without a body was committed" >&2
  exit 1
fi
grep -q "no body" "$work/refused" || { cat "$work/refused" >&2; exit 1; }
if git rev-parse -q --verify HEAD >/dev/null; then
  echo "the refused commit exists" >&2
  exit 1
fi

git commit -q -m "Add the first file" -m "The repository needs something to hold."
[ "$(git log --format=%s)" = "Add the first file" ] || { echo "the good commit is missing" >&2; exit 1; }
echo "hook refused a message without a body and took one with a body"
