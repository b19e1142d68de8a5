#!/usr/bin/env python3
"""Fails when a C++ function in the given folders spans more than --max lines.

    check-function-size.py [--max N] FOLDER...    checks every .h and .cc file below the folders
    check-function-size.py --self-test            checks the checker on functions it writes itself

A function's length is counted from the first line of its declaration (template line included) to
the line of its closing brace, blank and comment lines included: what a reader has to hold in mind.
Lambdas and local classes count towards the function that holds them.

The scan is lexical, not a compiler's: comments, string and character literals and preprocessor
lines are blanked first, then braces are matched. A brace at namespace or class level opens a
function body when the text before it, back to the previous declaration, holds a parameter list
and does not declare a namespace, class, struct, union, enum or extern block. That reads every
function of this tree; what it could misread (a braced initialiser after a macro call) it reads as
a one-line function, which never fails the check.
"""

import argparse
import os
import re
import sys
import tempfile

SCOPE_WORDS = re.compile(r"\b(namespace|class|struct|union|enum|extern)\b")


def blank(text):
    """Returns `text` with comments, literals and preprocessor lines turned into spaces (newlines
    kept, so that offsets keep their line numbers)."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True

    def wipe(start, end):
        for k in range(start, end):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if line_start and c == "#":
            end = i
            while end < n and text[end] != "\n":
                end = end + 2 if text[end] == "\\" and end + 1 < n else end + 1
            wipe(i, end)
            i = end
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            end = text.find("\n", i)
            end = n if end < 0 else end
            wipe(i, end)
            i = end
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            wipe(i, end)
            i = end
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not text[i - 1].isalnum()):
            open_paren = text.find("(", i + 2)
            delimiter = text[i + 2 : open_paren]
            end = text.find(")" + delimiter + '"', open_paren)
            end = n if end < 0 else end + len(delimiter) + 2
            wipe(i, end)
            i = end
        elif c in "\"'":
            # A digit separator (1'000) is no character literal.
            if c == "'" and i > 0 and text[i - 1].isalnum() and i + 1 < n and text[i + 1].isalnum():
                i += 1
                continue
            end = i + 1
            while end < n and text[end] != c and text[end] != "\n":
                end += 2 if text[end] == "\\" else 1
            wipe(i, min(end + 1, n))
            i = end + 1
        else:
            i += 1
    return "".join(out)


def functions(text):
    """Yields (name, first line, last line) for each function defined in `text`."""
    code = blank(text)
    # Each frame: "scope" (namespace, class, ...), "function" or "block" (anything else).
    stack = []
    header_start = 0
    body_depth = 0  # frames from the outermost function body down
    current = None  # (name, first line) of the function being read
    # A constructor's braced member initialiser ("a_{a},") reads as a function of its own; the
    # body that follows is still the constructor's, from its first line.
    held = None
    line_of = [0] * (len(code) + 1)
    line = 1
    for k, ch in enumerate(code):
        line_of[k] = line
        if ch == "\n":
            line += 1
    for k, ch in enumerate(code):
        if ch == "{":
            if body_depth:
                body_depth += 1
                stack.append("block")
                continue
            header = code[header_start:k]
            kind = "block"
            if "(" in header and not SCOPE_WORDS.search(header.split("(", 1)[0]):
                kind = "function"
            elif SCOPE_WORDS.search(header):
                kind = "scope"
            stack.append(kind)
            if kind == "function":
                body_depth = 1
                # An access label ("public:") before the declaration is not part of it.
                label = re.match(r"(\s*(public|protected|private)\s*:(?!:))*\s*", header)
                first = header_start + label.end()
                match = re.search(r"([~\w:]+|operator\s*\S+)\s*\(", header)
                current = held or (match.group(1) if match else "?", line_of[first])
                held = None
            header_start = k + 1
        elif ch == "}":
            kind = stack.pop() if stack else "scope"
            if body_depth:
                body_depth -= 1
                if body_depth == 0:
                    rest = code[k + 1 :].lstrip()
                    if rest[:1] in (",", "{"):
                        held = current
                    else:
                        yield current[0], current[1], line_of[k]
                    header_start = k + 1
                continue
            header_start = k + 1
        elif ch == ";" and not body_depth:
            header_start = k + 1


def check(folders, limit):
    """Prints each function over `limit` lines and returns how many there were."""
    over = 0
    checked = 0
    for folder in folders:
        for root, _, names in os.walk(folder):
            for name in sorted(names):
                if not name.endswith((".h", ".cc")):
                    continue
                path = os.path.join(root, name)
                with open(path, encoding="utf-8") as f:
                    text = f.read()
                for function, first, last in functions(text):
                    checked += 1
                    length = last - first + 1
                    if length > limit:
                        over += 1
                        print(f"{path}:{first}: {function} is {length} lines (at most {limit})")
    print(f"{checked} functions checked, {over} over {limit} lines")
    return over


def self_test():
    """Writes a long and a short function and checks that the check tells them apart."""

    def body(lines):
        return "".join(f"    total += {i};  // a step {{\n" for i in range(lines - 3))

    cases = {
        # A function of exactly 70 lines, among the shapes the scan must see through.
        "Long.cc": 'namespace A {\nnamespace {\nconst char* kText = "{";\n}\n'
        + "int Task::run(int total) const {\n"
        + body(70)
        + "    return total;\n}\n}  // namespace A\n",
        "LongInline.h": "class B : public C {\n  public:\n    template <typename T>\n"
        + "    int run(T total) {\n"
        + body(69)
        + "        return total;\n    }\n};\n",
        "Short.cc": "Task::Task(int a) : a_{a}, b_(a) {\n"
        + body(60)
        + "    auto f = [&] { return a_; };\n}\n",
    }
    ok = True
    with tempfile.TemporaryDirectory() as folder:
        for name, text in cases.items():
            with open(os.path.join(folder, name), "w", encoding="utf-8") as f:
                f.write(text)
        found = {}
        for name, text in cases.items():
            found[name] = [(n, last - first + 1) for n, first, last in functions(text)]
        expected = {
            "Long.cc": [("Task::run", 70)],
            "LongInline.h": [("run", 70)],
            "Short.cc": [("Task::Task", 60)],
        }
        for name, want in expected.items():
            if found[name] != want:
                print(f"self-test: {name}: read {found[name]}, expected {want}")
                ok = False
        if check([folder], 60) != 2:
            print("self-test: the two 70-line functions were not both reported")
            ok = False
    print("self-test " + ("passed" if ok else "FAILED"))
    return ok


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--max", type=int, default=60, help="longest function allowed, in lines")
    parser.add_argument("--self-test", action="store_true")
    parser.add_argument("folders", nargs="*")
    args = parser.parse_args()
    if args.self_test:
        return 0 if self_test() else 1
    if not args.folders:
        parser.error("name at least one folder")
    return 1 if check(args.folders, args.max) else 0


if __name__ == "__main__":
    sys.exit(main())
