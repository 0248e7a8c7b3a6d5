#!/bin/bash
# The soak: two real agents in temporary install trees on 127.0.0.1, each
# with a test work server, go through a day of heartbeats, 100,000 commands
# (`true`, 8 at once) and 1,000 transfers of a 64 KiB file from one agent to
# the other. It prints the resident memory (and its anonymous part), the
# descriptors, the threads and the zombie children of both agents after a
# warm-up and at the end, with the growth and PASS or FAIL against the goals:
# no growth of descriptors, threads or zombies, resident memory growth below 1 %.
#
# The clock: the agents' heartbeat_second is 1 instead of 50, and they run
# under libfaketime (the `faketime` package) on a clock SOAK_CLOCK_RATE (10)
# times fast, so that a day's 1,728 heartbeats take about three minutes and
# the agents' timers (history sweeps, repeats, expiry) run through a day's
# worth of turns with them. Without faketime the day takes 29 minutes.
#
#   bash tools/soak.sh                 # the full soak, six to eight minutes on the 2-core build machine
#   SOAK_SCALE=0.01 bash tools/soak.sh # the smoke run that CI does (ctest soak_smoke)
#
# Run as root, as the end-to-end tests are. Exit status 0 when every goal is met.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup_deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAGENT_TESTS=ON -DAGENT_BENCH=ON >/dev/null
ninja -C build agent soak >/dev/null
exec ./build/bin/soak
