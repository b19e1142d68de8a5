#!/usr/bin/env python3
"""clang-tidy on the change: runs the checks of .clang-tidy on every C and C++ file that differs
from a base, and fails on a finding in a line that the change added or rewrote, or on a function
over the size limit that the change made longer (a new one included). Code that the change leaves
alone is not held to it, so that the checks can be strict without a sweep of the whole tree first;
a long function that a change touches without growing it passes, and shrinks over time.

    tidy.py [BUILD_DIR] [--base REV]

BUILD_DIR holds compile_commands.json (default: build). The base is, unless given (or TIDY_BASE),
the merge base with main; on main itself, HEAD~. Uncommitted changes count. JOBS sets how many
files are checked at once (default: the number of cores).
"""

import argparse
import concurrent.futures
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SOURCES = re.compile(r".*\.(cc|h|c)$")
SKIPPED = re.compile(r"^(build[^/]*|.*/node_modules)/")
DIAGNOSTIC = re.compile(r"^(.+?):(\d+):(\d+): (warning|error): (.*?)(?: \[([\w.,-]+)\])?$")
FUNCTION_LINES = re.compile(r"note: (\d+) lines including whitespace and comments")


def git(*args):
    return subprocess.run(["git", *args], cwd=ROOT, check=True, capture_output=True,
                          text=True).stdout.strip()


def default_base():
    head = git("rev-parse", "HEAD")
    for main in ("main", "origin/main"):
        try:
            base = git("merge-base", "HEAD", main)
        except subprocess.CalledProcessError:
            continue
        if base != head:
            return base
        break
    try:
        return git("rev-parse", "--verify", "-q", "HEAD~")
    except subprocess.CalledProcessError:
        return head


def changed_lines(base):
    """{path: [(first, last, growth), ...]}: each hunk since `base`, as the lines it added or
    rewrote (none for a pure deletion, then first > last) and how many lines it added in all."""
    diff = git("diff", "-U0", "--no-color", "--no-ext-diff", "--diff-filter=d", base, "--")
    ranges, path = {}, None
    for line in diff.splitlines():
        if line.startswith("+++ "):
            name = line[4:]
            path = name[2:] if name.startswith("b/") else None
            if path and (not SOURCES.match(path) or SKIPPED.match(path)):
                path = None
            continue
        hunk = re.match(r"^@@ -\d+(,(\d+))? \+(\d+)(?:,(\d+))? @@", line)
        if path and hunk:
            removed = int(hunk.group(2)) if hunk.group(2) is not None else 1
            first = int(hunk.group(3))
            count = int(hunk.group(4)) if hunk.group(4) is not None else 1
            if count == 0:
                first += 1  # a deletion after line `first`: no line of the new file is changed
            ranges.setdefault(path, []).append((first, first + count - 1, count - removed))
    # New files that are not added yet are all change.
    for path in git("ls-files", "--others", "--exclude-standard").splitlines():
        if SOURCES.match(path) and not SKIPPED.match(path):
            with open(os.path.join(ROOT, path), encoding="utf-8", errors="replace") as f:
                count = sum(1 for _ in f)
            ranges[path] = [(1, count, count)]
    # A file that only lost lines has nothing to check.
    return {path: hunks for path, hunks in ranges.items() if any(a <= b for a, b, _ in hunks)}


def tidy(build, path):
    result = subprocess.run(
        ["clang-tidy", "--quiet", "-p", build, "--extra-arg=-Wno-unknown-warning-option",
         os.path.join(ROOT, path)],
        cwd=ROOT, capture_output=True, text=True)
    return path, result.stdout


def findings(output):
    """Each diagnostic of clang-tidy's output: (path, line, check, text with its notes)."""
    found, current = [], None
    for line in output.splitlines():
        match = DIAGNOSTIC.match(line)
        if match:
            current = [os.path.relpath(match.group(1), ROOT), int(match.group(2)),
                       match.group(6) or match.group(4), [line]]
            found.append(current)
        elif current:
            current[3].append(line)
    return found


def touches(hunks, line):
    return any(first <= line <= last for first, last, _ in hunks)


def growth(hunks, first, last):
    """Lines that the change added to the stretch [first, last] of the new file, net."""
    return sum(grown for a, b, grown in hunks if a <= last + 1 and first <= max(a, b))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", nargs="?", default="build")
    parser.add_argument("--base", default=os.environ.get("TIDY_BASE"))
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    if not os.path.exists(os.path.join(build, "compile_commands.json")):
        sys.exit(f"tidy: {build}/compile_commands.json is missing; build first")
    base = args.base or default_base()
    ranges = changed_lines(base)
    if not ranges:
        print(f"tidy: no C or C++ change since {base[:12]}")
        return 0

    jobs = int(os.environ.get("JOBS") or os.cpu_count() or 1)
    kept, seen = [], set()
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        for path, output in pool.map(lambda p: tidy(build, p), sorted(ranges)):
            for where, line, check, text in findings(output):
                if where not in ranges:
                    continue
                hunks = ranges[where]
                if check == "readability-function-size":
                    size = FUNCTION_LINES.search("\n".join(text))
                    last = line + int(size.group(1)) if size else line
                    held = growth(hunks, line, last) > 0
                else:
                    held = touches(hunks, line)
                # A file that does not parse cannot be checked: that fails wherever it is.
                held = held or check in ("error", "clang-diagnostic-error")
                key = (where, line, text[0])
                if key in seen or not held:
                    continue
                seen.add(key)
                kept.append("\n".join(text))
    for text in kept:
        print(text)
    print(f"tidy: {len(kept)} finding(s) in {len(ranges)} changed file(s) since {base[:12]}")
    return 1 if kept else 0


if __name__ == "__main__":
    sys.exit(main())
