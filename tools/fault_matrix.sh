#!/bin/bash
# The long fault matrix: the end-to-end fault matrix test run with more
# moments, longer holds and a larger file, printed as a table of cells and
# outcomes. Every cell must end with ret 0 and a byte-identical file, or with
# a failure code; the last column says whether it kept to that.
#
#   bash tools/fault_matrix.sh [BUILD_DIR]     # as root; BUILD_DIR defaults to build
#
# FAULT_MATRIX_MIB (32) sets the file size, FAULT_MATRIX_REPEAT (1) runs the
# matrix that many times, FAULT_MATRIX_FILTER (*) picks cells by gtest filter,
# e.g. '*stall*'. Exit status: 0 when every cell kept the rules.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build}
BIN=$BUILD/bin/e2e_fault_matrix_test
if [ ! -x "$BIN" ]; then
  ninja -C "$BUILD" e2e_fault_matrix_test
fi
OUT=$(mktemp)
trap 'rm -f "$OUT"' EXIT
status=0
FAULT_MATRIX_LONG=1 FAULT_MATRIX_MIB=${FAULT_MATRIX_MIB:-32} "$BIN" \
  --gtest_repeat="${FAULT_MATRIX_REPEAT:-1}" --gtest_filter="*${FAULT_MATRIX_FILTER:-*}" >"$OUT" 2>&1 || status=$?
printf '%-34s %6s  %-10s %8s  %s\n' cell ret file seconds verdict
sed -n 's/^FAULT-CELL //p' "$OUT" | while read -r name ret file seconds verdict rest; do
  printf '%-34s %6s  %-10s %8s  %s %s\n' "$name" "${ret#ret=}" "${file#file=}" "${seconds#seconds=}" \
    "${verdict#verdict=}" "$rest"
done
grep -E '^\[  (PASSED|FAILED|SKIPPED) ' "$OUT" || true
if grep -q 'SKIPPED' "$OUT"; then
  grep -B1 -E '^\[  SKIPPED ' "$OUT" | grep -v '^\[' | sort -u || true
fi
exit "$status"
