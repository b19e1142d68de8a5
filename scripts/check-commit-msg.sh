#!/usr/bin/env bash
# Commit messages: a subject of at most 72 characters that says what changed, a blank line, and a
# body that says why. Two ways to run it:
#   check-commit-msg.sh FILE      checks the message in FILE; as a commit-msg hook:
#       ln -s "$PWD/scripts/check-commit-msg.sh" "$(git rev-parse --git-path hooks)/commit-msg"
#   check-commit-msg.sh --range   checks every commit that is not on main yet (merges excepted):
#       those after the merge base with main, or, on main itself, those that HEAD brought (HEAD~..).
#       COMMIT_MSG_BASE names another base. Commits older than this check are not held to it.
set -euo pipefail
# No change of folder: as a hook, git runs this in the repository being committed to and names the
# message file relative to it (through a symlink under .git/hooks, so the script's own place says
# nothing).
export LC_ALL=C.UTF-8  # lengths in characters, not bytes
max_subject=72

# Prints what is wrong with the message on stdin, if anything; `merge` checks the subject only.
problems() {
  local kind=$1 subject second body
  local -a lines
  # Comments and everything below git's scissors line never reach the commit.
  mapfile -t lines < <(sed -e '/^# -\{8,\} >8 -\{8,\}$/,$d' -e '/^#/d')
  while [ ${#lines[@]} -gt 0 ] && [ -z "${lines[-1]//[[:space:]]/}" ]; do unset 'lines[-1]'; done
  subject=${lines[0]:-}
  if [ -z "${subject//[[:space:]]/}" ]; then
    echo "the subject is empty"
    return
  fi
  [ ${#subject} -le $max_subject ] ||
    echo "the subject has ${#subject} characters (at most $max_subject): $subject"
  [ "$kind" = merge ] && return
  second=${lines[1]-}
  body=$(printf '%s\n' "${lines[@]:2}" | grep -c '[^[:space:]]' || true)
  if [ -n "${second//[[:space:]]/}" ]; then
    echo "the second line is not blank: the subject is one line, the body follows a blank line"
  elif [ "$body" -eq 0 ]; then
    echo "no body: after the subject, a blank line and why the change is made"
  fi
}

if [ "${1:-}" != "--range" ]; then
  file=${1:?usage: check-commit-msg.sh FILE | --range}
  kind=plain
  [ -f "$(git rev-parse --git-path MERGE_HEAD)" ] && kind=merge
  found=$(problems "$kind" <"$file")
  [ -z "$found" ] && exit 0
  echo "commit message refused:" >&2
  sed 's/^/  /' <<<"$found" >&2
  exit 1
fi

base=${COMMIT_MSG_BASE:-}
if [ -z "$base" ]; then
  base=$(git merge-base HEAD main 2>/dev/null || git merge-base HEAD origin/main 2>/dev/null || true)
  if [ -z "$base" ] || [ "$(git rev-parse "$base")" = "$(git rev-parse HEAD)" ]; then
    base=$(git rev-parse --verify -q HEAD~ || true)
  fi
fi
# The commit that brought this check: what came before it was written without it.
introduced=$(git log --format=%H --diff-filter=A -- ':(top)scripts/check-commit-msg.sh' | tail -n 1)
exclude=()
[ -n "$base" ] && exclude+=("^$base")
[ -n "$introduced" ] && git rev-parse -q --verify "$introduced~" >/dev/null &&
  exclude+=("^$introduced~")
mapfile -t commits < <(git rev-list --no-merges --reverse HEAD "${exclude[@]}")
bad=0
for commit in "${commits[@]}"; do
  found=$(git log -1 --format=%B "$commit" | problems plain)
  [ -z "$found" ] && continue
  bad=$((bad + 1))
  echo "$(git log -1 --format='%h %s' "$commit" | cut -c1-90):" >&2
  sed 's/^/  /' <<<"$found" >&2
done
if [ $bad -gt 0 ]; then
  echo "$bad of ${#commits[@]} commit messages break the rule (scripts/check-commit-msg.sh)" >&2
  exit 1
fi
echo "${#commits[@]} commit messages checked"
