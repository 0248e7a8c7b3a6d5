#!/bin/bash
# The agent's main job, end to end on this machine: builds what is missing,
# starts the local work server and an agent in a temporary install tree on
# 127.0.0.1, runs a sample command through them, prints the result, and
# stops both. DEMO_COMMAND replaces the sample command.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
bash tools/setup_deps.sh
if [ ! -x build/bin/agent ] || [ ! -x build/bin/work_server ]; then
  cmake -S . -B build -G Ninja -DAGENT_TESTS=OFF -DAGENT_BENCH=OFF >/dev/null
  ninja -C build agent work_server
fi
TREE=$(mktemp -d /tmp/agent_demo_XXXXXX)
PORT=${DEMO_PORT:-18080}
CONTROL=$TREE/work_server.sock
SERVER_PID=""
AGENT_PID=""
cleanup() {
  [ -n "$AGENT_PID" ] && kill -INT "$AGENT_PID" 2>/dev/null && wait "$AGENT_PID" 2>/dev/null || true
  [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null && wait "$SERVER_PID" 2>/dev/null || true
  rm -rf "$TREE"
}
trap cleanup EXIT

mkdir -p "$TREE"/{bin,etc,log,tools/op,cache}
printf '#!/bin/sh\necho restart requested\n' > "$TREE/tools/op/restart.sh"
chmod +x "$TREE/tools/op/restart.sh"
: > "$TREE/etc/publickey.pem"
cat > "$TREE/etc/config" <<CFG
log_file = ../log/agent
log_level = INFO
agent_id = 127.0.0.1
server_ip = 127.0.0.1
server_port = $PORT
server_slave_ip =
server_slave_port =
connect_timeout_second = 2
connect_failed_sleep_second = 1
pid_file = ../log/agent.pid
public_key_version = 1
cache_dir = $TREE/cache/
CFG

"$ROOT/build/bin/work_server" serve --listen "127.0.0.1:$PORT" --control "$CONTROL" > "$TREE/log/work_server.out" 2>&1 &
SERVER_PID=$!
for _ in $(seq 50); do [ -S "$CONTROL" ] && break; sleep 0.1; done
(cd "$TREE/bin" && exec "$ROOT/build/bin/agent" ../etc/config foreground > ../log/agent.out 2>&1) &
AGENT_PID=$!

COMMAND=${DEMO_COMMAND:-'echo "hello from $(hostname) as $(id -un)"; uname -sr'}
echo "\$ work_server run --agent 127.0.0.1 -- $COMMAND"
set +e
"$ROOT/build/bin/work_server" run --control "$CONTROL" --agent 127.0.0.1 --wait 15 -- "$COMMAND"
STATUS=$?
set -e
echo "(exit code $STATUS)"
echo "--- connected agents ---"
"$ROOT/build/bin/work_server" list --control "$CONTROL"
exit $STATUS
