#!/usr/bin/env bash
# Sets everything up and runs every test: the commit messages and clang-tidy on the change, the
# unit tests (g++, -Werror), an install into a temporary prefix used by a CMake and a pkg-config
# consumer and the C example (which installs a signed pack from a loopback server and refuses
# another key), the Node module's tests, the browser story on nginx and Chromium,
# the same tests under ASan+UBSan, the threaded tests under TSan in a clang build (whose
# -Wthread-safety sees the library and every test), each libFuzzer target for a bounded time, and
# a short benchmark pass so that the benchmarks keep building and running. The sanitizer builds
# are Debug builds: they check the threading contracts at run time (support/Contract.h).
#   FUZZ_SECONDS  seconds per fuzz target (default 20)
#   JOBS          parallel test jobs (default: number of cores)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=${JOBS:-$(nproc)}
fuzz_seconds=${FUZZ_SECONDS:-20}

echo "== formatting (.clang-format)"
bash scripts/check-format.sh
echo "== commit messages not on main yet (subject of at most 72 characters, a body)"
bash scripts/check-commit-msg.sh --range

echo "== build (g++, -Werror)"
bash scripts/build.sh build -DFERRIT_BENCH=ON
echo "== clang-tidy on the change (.clang-tidy)"
python3 scripts/tidy.py build
echo "== install into a temporary prefix; a CMake and a pkg-config consumer and the C example use it"
bash scripts/check-install.sh build
echo "== tests"
ctest --test-dir build --output-on-failure -j "$jobs" | tee build/ctest.log
echo "== Node module tests (node --test)"
bash scripts/test-node.sh build
echo "== the browser story (nginx, headless Chromium, node --test)"
bash scripts/test-e2e.sh build

echo "== tests under ASan+UBSan"
bash scripts/build.sh build-asan -DFERRIT_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"
echo "== Node module tests under ASan+UBSan"
bash scripts/test-node.sh build-asan --sanitized

echo "== threaded tests under TSan (clang, -Wthread-safety)"
CC=clang CXX=clang++ bash scripts/build.sh build-tsan -DFERRIT_TSAN=ON -DCMAKE_BUILD_TYPE=Debug \
  -DFERRIT_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure -j "$jobs" \
  -R 'TaskRunner|RepeatingTimer|Semaphore|SCacheTest|Setup|UpdateConfig|Network|ConcurrentRead|CacheThread|HotList|ReadGroup|AggregateGroup|FreeList|StatisticsTest.Concurrent|UpdateQueue|PushTest|PreloadTest|PreviewTest|CApi|ContractTest'

echo "== fuzz targets (clang, ${fuzz_seconds}s each)"
# Without the Node module: no fuzz target loads it, and the TSan build above checks it with clang.
CC=clang CXX=clang++ bash scripts/build.sh build-fuzz -DFERRIT_FUZZ=ON -DFERRIT_TESTS=OFF \
  -DFERRIT_NODE=OFF
mkdir -p build-fuzz/corpus
for target in build-fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  mkdir -p "build-fuzz/corpus/$name"
  seeds=""
  [ -d "fuzz/corpus/$name" ] && seeds="fuzz/corpus/$name"
  "$target" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=0 \
    "build-fuzz/corpus/$name" $seeds 2>"build-fuzz/$name.log" || { tail -n 40 "build-fuzz/$name.log"; exit 1; }
  echo "$name: $(grep -Eo 'Done [0-9]+ runs in [0-9]+ second' "build-fuzz/$name.log" | tail -n 1)"
done

echo "== benchmarks (smoke)"
for bench in build/bench/*_bench; do
  "$bench" --benchmark_min_time=0.01 >/dev/null
done

echo "== the unit tests' summary, for the record"
tail -n 3 build/ctest.log
