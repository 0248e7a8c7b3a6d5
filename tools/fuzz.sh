#!/bin/bash
# Builds the libFuzzer targets with clang and runs each for a while on a seed
# corpus. FUZZ_SECONDS sets the time per target (default 30); FUZZ_TARGETS
# picks targets (default: all). A crash, a leak, an input slower than
# FUZZ_UNIT_TIMEOUT seconds (default 2) or one that takes more than 2 GiB
# fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${FUZZ_SECONDS:-30}
UNIT_TIMEOUT=${FUZZ_UNIT_TIMEOUT:-2}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAGENT_FUZZ=ON \
  -DAGENT_TESTS=OFF -DAGENT_BENCH=OFF >/dev/null
ALL_TARGETS=$(sed -n 's/^add_executable(\([a-z_]*_fuzz\) .*/\1/p' tests/fuzz/CMakeLists.txt)
TARGETS=${FUZZ_TARGETS:-$ALL_TARGETS}
ninja -C build-fuzz zik_seed_gen $TARGETS

for target in $TARGETS; do
  corpus=build-fuzz/corpus/$target
  mkdir -p "$corpus"
  # The packet decoder takes inputs up to 1 MiB: the quadratic constructed
  # string only showed beyond 64 KiB.
  max_len=4096
  case $target in
    zik_packet_fuzz)
      # A valid packet of every alternative, written from the catalogue.
      build-fuzz/bin/zik_seed_gen "$corpus"
      max_len=1048576 ;;
    stream_framing_fuzz)
      build-fuzz/bin/zik_seed_gen --raw "$corpus"
      printf '\x30\x00\x30\x03\x02\x01\x05\x30\x82\x00\x01\x00' > "$corpus/frames" ;;
    session_crypto_fuzz)
      printf '\x00AAAAAAAAAAAAAAAA0123456789abcdef' > "$corpus/aes_block" ;;
  esac
  echo "fuzzing $target for ${SECONDS_PER_TARGET}s"
  # libFuzzer exits non-zero on a crash, a timeout and the memory limit alike.
  if ! "build-fuzz/bin/$target" -max_total_time="$SECONDS_PER_TARGET" -max_len="$max_len" \
      -timeout="$UNIT_TIMEOUT" -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix=build-fuzz/ \
      "$corpus" > "build-fuzz/$target.log" 2>&1; then
    tail -50 "build-fuzz/$target.log"
    echo "fuzz target $target failed"
    exit 1
  fi
  grep -E 'stat::number_of_executed_units|Done' "build-fuzz/$target.log" | tail -2
done
