#!/bin/bash
# Builds the agent if needed and runs it in the foreground in a sample
# install tree, pointed at a work server on 127.0.0.1, for a few seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
bash tools/setup_deps.sh
if [ ! -x build/bin/agent ]; then
  cmake -S . -B build -G Ninja -DAGENT_TESTS=OFF -DAGENT_BENCH=OFF >/dev/null
  ninja -C build agent
fi
TREE=$(mktemp -d /tmp/agent_demo_XXXXXX)
mkdir -p "$TREE"/{bin,etc,log,tools/op,cache}
printf '#!/bin/sh\necho restart requested\n' > "$TREE/tools/op/restart.sh"
chmod +x "$TREE/tools/op/restart.sh"
: > "$TREE/etc/publickey.pem"
cat > "$TREE/etc/config" <<CFG
log_file = ../log/agent
log_level = DEBUG
agent_id = 127.0.0.1
server_ip = 127.0.0.1
server_port = 18080
connect_timeout_second = 2
connect_failed_sleep_second = 2
pid_file = ../log/agent.pid
public_key_version = 1
cache_dir = $TREE/cache/
CFG
cd "$TREE/bin"
"$ROOT/build/bin/agent" ../etc/config foreground &
PID=$!
sleep "${DEMO_SECONDS:-3}"
kill -INT "$PID"
wait "$PID" || true
echo "--- agent log ($TREE/log/agent.log) ---"
cat "$TREE/log/agent.log"
rm -rf "$TREE"
