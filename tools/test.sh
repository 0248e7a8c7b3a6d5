#!/bin/bash
# Builds and runs every test: a plain build, then one with AddressSanitizer
# and UndefinedBehaviorSanitizer, then one with ThreadSanitizer, then a short
# fuzz run of the decoders. After the plain build's tests it builds, installs,
# tries and purges the Debian packages (tools/package_test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup_deps.sh
JOBS=$(nproc)
SUMMARY=$(mktemp)
trap 'rm -f "$SUMMARY"' EXIT

# Runs ctest in a build directory, keeping its closing line for the summary.
run_ctest() {
  local dir=$1; shift
  (cd "$dir" && ctest --output-on-failure -j "$JOBS" "$@") | tee -a "$SUMMARY"
  return "${PIPESTATUS[0]}"
}

echo "=== plain build ==="
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAGENT_TESTS=ON -DAGENT_BENCH=ON >/dev/null
ninja -C build
run_ctest build --timeout 300

echo "=== Debian packages ==="
bash tools/package_test.sh build

echo "=== AddressSanitizer and UndefinedBehaviorSanitizer build ==="
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DAGENT_SANITIZE=ON -DAGENT_TESTS=ON -DAGENT_BENCH=OFF >/dev/null
ninja -C build-asan
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_ctest build-asan --timeout 600

echo "=== ThreadSanitizer build ==="
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DAGENT_TESTS=ON -DAGENT_BENCH=OFF >/dev/null
ninja -C build-tsan
# The agents the end-to-end tests start inherit this: a race ends them with 66.
export TSAN_OPTIONS=halt_on_error=1
run_ctest build-tsan --timeout 600

if [ -x tools/fuzz.sh ]; then
  echo "=== fuzz ==="
  bash tools/fuzz.sh
fi

# One closing line over the three runs.
awk '/tests passed, [0-9]+ tests failed out of/ { total += $NF; failed += $(NF-4) }
     END { printf "all builds: %d passed, %d failed\n", total - failed, failed }' "$SUMMARY"
