#!/bin/bash
# Builds the libFuzzer targets with clang and runs each for a short time on a
# seed corpus. FUZZ_SECONDS sets the time per target (default 30).
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${FUZZ_SECONDS:-30}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAGENT_FUZZ=ON \
  -DAGENT_TESTS=OFF -DAGENT_BENCH=OFF >/dev/null
TARGETS=$(sed -n 's/^add_executable(\([a-z_]*_fuzz\) .*/\1/p' tests/fuzz/CMakeLists.txt)
ninja -C build-fuzz $TARGETS

for target in $TARGETS; do
  corpus=build-fuzz/corpus/$target
  mkdir -p "$corpus"
  # Seeds: the two packets of the protocol's worked examples, behind the selector byte 0.
  printf '\x00\x30\x10\x02\x01\x04\x02\x01\x00\xbf\x82\x2c\x06\x30\x04\x02\x02\x04\xd2' > "$corpus/heartbeat"
  printf '\x00\x30\x1b\x02\x01\x04\x02\x01\x07\xbf\x68\x12\x30\x10\x02\x01\x05\x02\x02\x03\xe8\x02\x04\xc0\xa8\x00\x01\x02\x01\x02' > "$corpus/query"
  printf '\x30\x00\x30\x03\x02\x01\x05\x30\x82\x00\x01\x00' > "$corpus/frames"
  printf '\x00AAAAAAAAAAAAAAAA0123456789abcdef' > "$corpus/aes_block"
  printf '\x01\x30\x0f\x02\x01\x00\x02\x01\x05\x02\x01\x00\x04\x00\x04\x04echo' > "$corpus/create_enc"
  echo "fuzzing $target for ${SECONDS_PER_TARGET}s"
  if ! "build-fuzz/bin/$target" -max_total_time="$SECONDS_PER_TARGET" -max_len=4096 -print_final_stats=1 -artifact_prefix=build-fuzz/ \
      "$corpus" > "build-fuzz/$target.log" 2>&1; then
    tail -50 "build-fuzz/$target.log"
    echo "fuzz target $target failed"
    exit 1
  fi
  grep -E 'stat::number_of_executed_units|Done' "build-fuzz/$target.log" | tail -2
done
