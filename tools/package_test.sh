#!/bin/bash
# Checks the Debian packages of a build directory (by default build/) on this
# machine: builds them with CPack, installs them with dpkg -i, checks the
# install tree, the sample configuration and the systemd unit, runs the
# agent the way the unit runs it (its WorkingDirectory, User, Environment and
# ExecStart) against the local work server, runs a command through it, stops
# it with the unit's KillSignal, checks restart.sh under the unit and in a
# plain install, and purges both packages, after which nothing of them may
# remain. These machines do not run systemd as their first process, so the
# unit is checked with systemd-analyze verify and its lines are followed by
# hand. Needs root; it purges the packages and stops what it started, by pid,
# even when a check fails.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=$(cd "${1:-build}" && pwd)
TREE=/opt/agent
UNIT=/usr/lib/systemd/system/zik-agent.service
PACKAGES=(zik-agent zik-work-server)

if [ "$(id -u)" -ne 0 ]; then
    echo "package_test: skipped, installing packages needs root"
    exit 0
fi

# One run at a time on a machine: the packages install into fixed places.
# The lock is on dpkg's directory, which every machine has (dpkg's own locks
# are of another kind and do not meet it), so that no lock file is left.
exec 9< /var/lib/dpkg
flock -w 120 9 || { echo "package_test: another run holds the lock" >&2; exit 1; }
for p in "${PACKAGES[@]}"; do
    if dpkg -s "$p" > /dev/null 2>&1; then
        echo "package_test: $p is installed on this machine; the test would remove it, so it stops" >&2
        exit 1
    fi
done
if [ -e "$TREE" ]; then
    echo "package_test: $TREE exists and no package owns it; the test stops" >&2
    exit 1
fi

WORK=$(mktemp -d /tmp/package_test_XXXXXX)
SERVER_PID=""
AGENT_PID=""  # the agent the test started, until it is reaped
DAEMON_PID="" # the agent a plain restart started
# Below the kernel's ephemeral range (32768 and up), where the many connections of
# the tests before may hold any port for a while; the start below moves on if taken.
PORT=$((10000 + $$ % 20000))
CONTROL=$WORK/work_server.sock

fail() {
    echo "package_test: FAIL: $*" >&2
    for f in "$TREE/log/agent.log" "$TREE/log/restart.log" "$WORK"/*.out; do
        [ -f "$f" ] && { echo "--- $f (last lines)" >&2; tail -n 20 "$f" >&2; }
    done
    exit 1
}
ok() { echo "ok: $*"; }

# Waits up to $1 seconds for the command after it to succeed.
wait_for() {
    local tries=$(($1 * 10))
    shift
    while [ "$tries" -gt 0 ]; do
        "$@" && return 0
        sleep 0.1
        tries=$((tries - 1))
    done
    return 1
}

alive() { kill -0 "$1" 2> /dev/null; }
# Ended: no such process, or a child of ours that waits to be reaped.
gone() { ! alive "$1" || [ "$(sed 's/.*) //' "/proc/$1/stat" 2> /dev/null | cut -c1)" = Z ]; }

# The pids of the processes that run the installed agent.
tree_agents() {
    local p
    for p in /proc/[0-9]*; do
        [ "$p/exe" -ef "$TREE/bin/agent" ] 2> /dev/null && echo "${p#/proc/}"
    done
    return 0
}
# One agent of the tree runs, and it holds the pid file.
one_agent() {
    local pids
    pids=$(tree_agents)
    [ -n "$pids" ] && [ "$pids" = "$(cat "$TREE/log/agent.pid" 2> /dev/null)" ]
}

# The pids of restart.sh's detached waiters ("restart.sh --start-after PID").
restart_waiters() {
    local p args
    for p in /proc/[0-9]*; do
        args=$(tr '\0' '\n' 2> /dev/null < "$p/cmdline") || continue
        grep -qx -- --start-after <<< "$args" && grep -qx "$TREE/tools/op/restart.sh" <<< "$args" && echo "${p#/proc/}"
    done
    return 0
}

# Stops a process by pid with a signal, then with SIGKILL after 10 s.
stop_pid() {
    local pid=$1 sig=$2
    alive "$pid" || return 0
    kill "-$sig" "$pid" 2> /dev/null || true
    wait_for 10 gone "$pid" || kill -KILL "$pid" 2> /dev/null || true
    wait_for 5 gone "$pid" || true
}

cleanup() {
    local status=$? pid
    set +e
    [ -n "$AGENT_PID" ] && stop_pid "$AGENT_PID" INT
    [ -n "$DAEMON_PID" ] && stop_pid "$DAEMON_PID" INT
    # What a plain restart started is no child of ours: found by program and arguments.
    for pid in $(restart_waiters); do stop_pid "$pid" TERM; done
    for pid in $(tree_agents); do stop_pid "$pid" INT; done
    [ -n "$SERVER_PID" ] && stop_pid "$SERVER_PID" TERM
    wait 2> /dev/null
    for p in "${PACKAGES[@]}"; do
        dpkg -s "$p" > /dev/null 2>&1 && dpkg --purge "$p" > /dev/null
    done
    # The tree was not there before the run: whatever a failed purge left is ours.
    rm -rf "$TREE"
    rm -rf "$WORK"
    exit $status
}
trap cleanup EXIT

# ---- build and look into the packages ----------------------------------------------

cmake --build "$BUILD" --target agent work_server package_files > /dev/null
(cd "$BUILD" && cpack -G DEB -B "$WORK/pkg" > "$WORK/cpack.out" 2>&1) || fail "cpack failed"
AGENT_DEB=$(ls "$WORK"/pkg/zik-agent_*.deb)
SERVER_DEB=$(ls "$WORK"/pkg/zik-work-server_*.deb)
dpkg-deb -c "$AGENT_DEB" | awk '{ print $NF }' > "$WORK/agent_files"
for f in ./opt/agent/bin/agent ./opt/agent/etc/config ./opt/agent/log/ \
    ./opt/agent/tools/op/restart.sh ./usr/lib/systemd/system/zik-agent.service ./usr/share/man/man8/agent.8.gz; do
    grep -qxF "$f" "$WORK/agent_files" || fail "zik-agent lacks $f"
done
# The key is made at install: a key that every build makes anew would stop upgrades at dpkg's question.
grep -q 'publickey' "$WORK/agent_files" && fail "zik-agent ships a public key"
dpkg-deb -c "$SERVER_DEB" | grep -q ' ./usr/share/man/man1/work_server.1.gz$' || fail "zik-work-server lacks its man page"
dpkg-deb --info "$AGENT_DEB" conffiles > "$WORK/conffiles"
echo "$TREE/etc/config" | cmp -s - "$WORK/conffiles" ||
    fail "the conffiles are not the configuration file: $(cat "$WORK/conffiles")"
ok "packages built: $(basename "$AGENT_DEB") $(basename "$SERVER_DEB")"

# ---- install -----------------------------------------------------------------------

dpkg -i "$AGENT_DEB" "$SERVER_DEB" > "$WORK/dpkg.out" 2>&1 || fail "dpkg -i failed: $(cat "$WORK/dpkg.out")"
dpkg -L "${PACKAGES[@]}" > "$WORK/installed_files"
"$TREE/bin/agent" -v | grep -q '^The Version: ' || fail "the installed agent does not run"
/usr/bin/work_server > /dev/null 2>&1 && fail "work_server without arguments succeeded"
[ -d "$TREE/log" ] || fail "no log directory"
for page in /usr/share/man/man8/agent.8.gz /usr/share/man/man1/work_server.1.gz; do
    [ -f "$page" ] || fail "$page not installed"
    if command -v groff > /dev/null; then
        warnings=$(zcat "$page" | groff -man -ww -z 2>&1)
        [ -z "$warnings" ] || fail "$page: $warnings"
    fi
done
ok "installed with dpkg -i; man pages in place"

# The sample configuration, as shipped.
CONFIG=$TREE/etc/config
key() { sed -n "s/^[[:space:]]*$1[[:space:]]*=[[:space:]]*//p" "$CONFIG" | tail -n 1; }
[ -n "$(key file_trans_svr_bind_eth)" ] || fail "no file_trans_svr_bind_eth in the sample configuration"
[ -n "$(key agent_id)" ] || fail "no agent_id in the sample configuration"
[ "$(key public_key_version)" -ne 0 ] 2> /dev/null || fail "public_key_version is unset or 0"
case "$(key cache_dir)" in
"$TREE"/?*) ;;
*) fail "cache_dir is not a directory of the agent's own: '$(key cache_dir)'" ;;
esac
openssl rsa -RSAPublicKey_in -in "$TREE/etc/publickey.pem" -noout 2> /dev/null ||
    fail "the sample publickey.pem is not an RSA public key in PKCS#1 PEM"
ok "sample configuration: bind interfaces, agent id, key version $(key public_key_version), cache $(key cache_dir)"

# ---- the unit ----------------------------------------------------------------------

verify=$(systemd-analyze verify "$UNIT" 2>&1) || fail "systemd-analyze verify: $verify"
[ -z "$verify" ] || fail "systemd-analyze verify warns: $verify"
unit() { sed -n "s/^$1=//p" "$UNIT" | tail -n 1; }
[ "$(unit KillSignal)" = SIGINT ] || fail "KillSignal is not SIGINT"
[ "$(unit KillMode)" = process ] || fail "KillMode is not process"
[ "$(unit Delegate)" = yes ] || fail "Delegate is not yes"
[ "$(unit Restart)" = on-failure ] || fail "Restart is not on-failure"
EXEC_START=$(unit ExecStart)
WORKING_DIR=$(unit WorkingDirectory)
RUN_USER=$(unit User)
KILL_SIGNAL=$(unit KillSignal)
UNIT_ENV=$(unit Environment)
[ "$WORKING_DIR" = "$TREE/bin" ] || fail "WorkingDirectory is not the tree's bin/"
ok "systemd-analyze verify passes; KillSignal=SIGINT, KillMode=process, Delegate=yes, Restart=on-failure"

# Starts the agent as the unit does; $1 is "unit" for the unit's environment,
# "plain" for an agent started by hand in the foreground.
start_agent() {
    local envs=()
    [ "$1" = unit ] && read -r -a envs <<< "$UNIT_ENV"
    # shellcheck disable=SC2086 # ExecStart's words, as systemd splits them (the unit quotes none)
    (cd "$WORKING_DIR" && exec env "${envs[@]}" setpriv --reuid "$RUN_USER" --regid "$(id -g "$RUN_USER")" \
        --init-groups -- $EXEC_START < /dev/null > "$WORK/agent_$1.out" 2>&1 9<&-) &
    AGENT_PID=$!
}

# Reaps the agent the test started, which has ended; its status is in $status.
reap_agent() {
    status=0
    wait "$AGENT_PID" || status=$?
    AGENT_PID=""
}

set_key() { sed -i "s|^$1[[:space:]]*=.*|$1 = $2|" "$CONFIG"; grep -q "^$1 = " "$CONFIG" || echo "$1 = $2" >> "$CONFIG"; }
set_key server_ip 127.0.0.1
set_key server_port "$PORT"
set_key server_slave_ip ""
set_key server_slave_port ""
set_key agent_id 127.0.0.1
set_key connect_timeout_second 2
set_key connect_failed_sleep_second 1

# An upgrade (here the same package again, with no terminal to answer dpkg's
# questions) keeps the site's configuration and the site's key.
openssl genrsa -traditional 2048 2> /dev/null | openssl rsa -RSAPublicKey_out -out "$WORK/site_key.pem" 2> /dev/null
cp "$WORK/site_key.pem" "$TREE/etc/publickey.pem"
cp "$CONFIG" "$WORK/site_config"
dpkg -i "$AGENT_DEB" < /dev/null > "$WORK/upgrade.out" 2>&1 || fail "the upgrade failed: $(cat "$WORK/upgrade.out")"
cmp -s "$WORK/site_key.pem" "$TREE/etc/publickey.pem" || fail "the upgrade replaced the site's public key"
cmp -s "$WORK/site_config" "$CONFIG" || fail "the upgrade replaced the site's configuration"
ok "an upgrade keeps the site's configuration and public key"

# ---- a command through the unit's agent ----------------------------------------------

for attempt in 1 2 3 4 5; do
    "$BUILD/bin/work_server" serve --listen "127.0.0.1:$PORT" --control "$CONTROL" > "$WORK/work_server.out" 2>&1 9<&- &
    SERVER_PID=$!
    wait_for 10 sh -c "test -S '$CONTROL' || ! kill -0 $SERVER_PID 2>/dev/null" && test -S "$CONTROL" && break
    kill "$SERVER_PID" 2> /dev/null || true
    wait "$SERVER_PID" 2> /dev/null || true
    SERVER_PID=""
    PORT=$((PORT + 1))  # taken: the next one, and the agent's configuration with it
    set_key server_port "$PORT"
done
[ -n "$SERVER_PID" ] || fail "the work server did not start on 127.0.0.1:$PORT: $(cat "$WORK/work_server.out")"
start_agent unit
# shellcheck disable=SC2016 # expanded by the agent's shell
out=$("$BUILD/bin/work_server" run --control "$CONTROL" --agent 127.0.0.1 --user root --timeout 20 --wait 20 \
    -- 'echo "run by $(id -un) in $(pwd)"') || fail "the command through the agent failed: $out"
[ "$out" = "run by root in $TREE/bin" ] || fail "unexpected output of the command: $out"
ok "the unit's agent ran a command: $out"

kill "-${KILL_SIGNAL#SIG}" "$AGENT_PID"
wait_for 20 gone "$AGENT_PID" || fail "the agent did not stop on $KILL_SIGNAL"
reap_agent
[ "$status" -eq 0 ] || fail "the agent ended with status $status on $KILL_SIGNAL"
grep -q 'we end' "$TREE/log/agent.log" || fail "no \"we end\" in the agent's log after $KILL_SIGNAL"
ok "$KILL_SIGNAL stopped the agent in order (status 0, \"we end\" in its log)"
"$BUILD/bin/work_server" stop --control "$CONTROL"
wait_for 10 gone "$SERVER_PID" || fail "the work server did not stop"
wait "$SERVER_PID" || true
SERVER_PID=""

# ---- restart.sh, when the servers stay silent -----------------------------------------

# Nothing listens on the port now; the agent gives up after two check periods of 3 s.
set_key heartbeat_second 1
set_key server_heartbeat_respond_second 1
set_key server_heartbeat_failed_times_to_exit 1

# Runs an agent until its restart; $1 as for start_agent.
run_to_restart() {
    : > "$TREE/log/restart.log"
    start_agent "$1"
    OLD_PID=$AGENT_PID
    wait_for 40 gone "$AGENT_PID" || fail "the $1 agent did not give up on its silent server"
    reap_agent
    [ "$status" -eq 1 ] || fail "the $1 agent ended with status $status, not 1, after its restart command"
    grep -q 'we will restart' "$TREE/log/agent.log" || fail "no restart in the agent's log"
}

run_to_restart unit
sleep 1
[ -z "$(tree_agents)" ] || fail "restart.sh started an agent beside the one systemd restarts: $(tree_agents)"
grep -q 'under systemd' "$TREE/log/restart.log" || fail "restart.sh did not see the unit's environment"
ok "under the unit, restart.sh leaves the restart to systemd (status 1, no agent started)"

run_to_restart plain
grep -q "old one (pid $OLD_PID)" "$TREE/log/restart.log" || fail "restart.sh did not find the agent that ran it"
wait_for 20 one_agent || fail "restart.sh did not start one new agent in a plain install: $(tree_agents)"
NEW=$(tree_agents)
DAEMON_PID=$NEW
[ "$NEW" != "$OLD_PID" ] || fail "the old agent still runs"
[ -z "$(restart_waiters)" ] || fail "restart.sh's waiter still runs"
ends=$(grep -c 'we end' "$TREE/log/agent.log")
kill -INT "$NEW"
wait_for 20 gone "$NEW" || fail "the restarted agent did not stop on SIGINT"
DAEMON_PID=""
[ "$(grep -c 'we end' "$TREE/log/agent.log")" -gt "$ends" ] || fail "the restarted agent did not stop in order"
ok "in a plain install, restart.sh started one new agent (pid $NEW) after the old one (pid $OLD_PID) had gone"

# ---- purge ---------------------------------------------------------------------------

# With an agent started by hand, which the removal must stop first: a running
# agent would write into the tree as dpkg takes it away. Back to the default
# timers, so that it does not go by its own restart meanwhile.
set_key heartbeat_second 50
set_key server_heartbeat_respond_second 300
set_key server_heartbeat_failed_times_to_exit 5
(cd "$TREE/bin" && ./agent ../etc/config < /dev/null > /dev/null 2>&1 9<&-)
wait_for 10 one_agent || fail "the agent started by hand as a daemon does not run"
DAEMON_PID=$(tree_agents)
dpkg --purge "${PACKAGES[@]}" > "$WORK/purge.out" 2>&1 || fail "dpkg --purge failed: $(cat "$WORK/purge.out")"
gone "$DAEMON_PID" || fail "the purge left the agent running"
DAEMON_PID=""
for p in "${PACKAGES[@]}"; do
    dpkg -s "$p" > /dev/null 2>&1 && fail "$p is still known to dpkg after the purge"
done
[ -e "$TREE" ] && fail "$TREE remains after the purge: $(find "$TREE" | head)"
while read -r f; do
    case "$f" in /opt/* | */zik-agent* | */agent.8.gz | */work_server*)
        [ -e "$f" ] && fail "$f remains after the purge" ;;
    esac
done < "$WORK/installed_files"
leftovers=$(find /etc/systemd /usr/lib/systemd -name 'zik-agent*' 2> /dev/null)
[ -z "$leftovers" ] || fail "left after the purge: $leftovers"
ok "purged with an agent running: the agent stopped, nothing of the packages remains"
