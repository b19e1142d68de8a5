#!/usr/bin/env bash
# Fails when C++ code names an error code by its number instead of by the catalogue's name
# (base/Errors.h): an Error's code compared with a literal, an Error made from a literal code, or
# a logged or reported error code checked against one.
#
#   check-error-literals.sh FOLDER...   checks every .cc and .h file below the folders
#   check-error-literals.sh --self-test checks the checker on files it writes itself
#
# The catalogue itself (base/Errors.h, base/Errors.cc) and its table test (tests/base/ErrorsTest.cc),
# which pins each name to its number, are where the numbers belong and are not checked; nor are the
# logger's tests (tests/marl/): the logger stands below the catalogue and checks how it writes any
# number it is given.
#
# The scan is lexical: comments are blanked first (string literals are kept, since a logged code
# is compared as text), then each pattern is matched across line breaks, so that an assertion
# split over two lines is still seen. Each finding is printed as file:line: the matched text.
set -euo pipefail

scan() {
  find "$@" -type f \( -name '*.cc' -o -name '*.h' \) \
    ! -path '*base/Errors.h' ! -path '*base/Errors.cc' ! -path '*tests/base/ErrorsTest.cc' \
    ! -path '*tests/marl/*' \
    -print0 | sort -z | xargs -0 -r perl -0777 -ne '
      my $text = $_;
      # Blank comments, keep strings: a "//" inside a URL literal must not hide the rest of a line.
      $text =~ s{("(?:\\.|[^"\\\n])*")|(//[^\n]*)|(/\*.*?\*/)}{
        defined $1 ? $1 : ($2 // $3) =~ s/[^\n]/ /gr
      }gse;
      my $code = qr/-?\b\d{4}\b(?!\.)/;
      my @patterns = (
        # error.code() == 1101, code() != -1
        qr/\bcode\(\)\s*[!=<>]=?\s*(?:$code|-1\b)/,
        # 1101 == error.code()
        qr/$code\s*[!=<>]=?\s*[\w.>\-]*(?:\([^;()]*\))?[\w.>\-]*\bcode\(\)/,
        # EXPECT_EQ(error.code(), 1101), over one line or two; EXPECT_EQ(code, 3001)
        qr/\b(?:EXPECT|ASSERT)_(?:EQ|NE)\(\s*[^;]*?(?:\bcode\(\)|\b\w*[cC]ode)\s*,\s*(?:$code|-1)\s*\)/,
        # EXPECT_EQ(1101, error.code())
        qr/\b(?:EXPECT|ASSERT)_(?:EQ|NE)\(\s*$code\s*,[^;]*?\bcode\(\)/,
        # Error(1104, "...")
        qr/\bError\(\s*$code\s*,/,
        # a logged error code: entry.errorCode, "1101" / ["errorCode"].int32Value(), 3001
        qr/errorCode\b[^;]*?,\s*(?:"-?\d{4}"|$code\s*\))/,
      );
      my $found = 0;
      for my $pattern (@patterns) {
        while ($text =~ /$pattern/g) {
          my $line = 1 + (substr($text, 0, $-[0]) =~ tr/\n//);
          (my $match = $&) =~ s/\s+/ /g;
          print "$ARGV:$line: $match\n";
        }
      }
    '
}

self_test() {
  local dir
  dir=$(mktemp -d)
  trap 'rm -rf "$dir"' RETURN
  mkdir -p "$dir/bad" "$dir/good"
  # One violation per file, each of a different shape; every one must be reported.
  printf 'void f() { if (error.code() != 1101) log(error); }\n' >"$dir/bad/compare.cc"
  printf 'bool g() { return 3001 == response->error.code(); }\n' >"$dir/bad/reversed.cc"
  printf 'TEST(A, B) {\n    EXPECT_EQ(read("https://x/a.js").error.code(),\n              3109);\n}\n' \
    >"$dir/bad/split.cc"
  printf 'TEST(A, C) { ASSERT_EQ(1106, refused.code()); }\n' >"$dir/bad/first.cc"
  printf 'Error fake() { return Error(1104, "write failed"); }\n' >"$dir/bad/make.h"
  printf 'TEST(A, D) { EXPECT_EQ(entry.errorCode, "9997"); }\n' >"$dir/bad/logged.cc"
  printf 'TEST(A, E) { EXPECT_EQ(code, 3001); }\n' >"$dir/bad/out.cc"
  printf 'TEST(A, F) { EXPECT_EQ(e.code(), -1); }\n' >"$dir/bad/minus.cc"
  # Names, numbers that are no codes, and codes in comments or messages are fine.
  cat >"$dir/good/names.cc" <<'EOF'
// error.code() != 1101 is what this test no longer writes.
TEST(A, G) {
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kInitStorageFailed));
    clock_->advance(1001);
    EXPECT_EQ(timer->lastRunTime(), posted + 1001);
    EXPECT_EQ(message, "read file \"a\" failed: 9991, not initialized");
    /* EXPECT_EQ(code, 3001); */
}
EOF
  local out
  out=$(scan "$dir")
  local missing=0
  for f in compare reversed split first make logged out minus; do
    grep -q "/bad/$f\.\(cc\|h\):" <<<"$out" || { echo "not reported: bad/$f"; missing=1; }
  done
  if grep -q "/good/" <<<"$out"; then
    echo "reported wrongly:"
    grep "/good/" <<<"$out"
    missing=1
  fi
  grep -q "/bad/split.cc:2:" <<<"$out" || { echo "split assertion not reported at line 2"; missing=1; }
  [ "$missing" = 0 ] && echo "self-test passed: $(wc -l <<<"$out") findings in the bad files"
  return "$missing"
}

if [ "${1:-}" = "--self-test" ]; then
  self_test
  exit $?
fi
[ $# -gt 0 ] || { echo "usage: $0 FOLDER... | --self-test" >&2; exit 2; }
findings=$(scan "$@")
if [ -n "$findings" ]; then
  echo "$findings"
  echo "error codes written as numbers: use the names and predicates of base/Errors.h" >&2
  exit 1
fi
