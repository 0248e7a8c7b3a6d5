#!/bin/sh
# Run by the agent when its servers have stayed silent too long; the agent
# exits with status 1 as soon as this script returns. The script must bring an
# agent back without ever running a second one beside the first:
#
# - Under systemd the unit sets AGENT_RESTARTED_BY=systemd in the agent's
#   environment, which this script inherits. Starting anything here would put
#   an agent outside the unit beside the one systemd restarts, so the script
#   only says so and returns; the agent's exit status 1 makes Restart=on-failure
#   start the next agent.
# - In a plain install nobody else restarts the agent. The script starts a
#   detached waiter and returns at once (the agent waits for this script
#   before it exits); the waiter waits until the old agent has gone, then
#   starts a new one as a daemon from the tree's bin/. Should the old agent
#   outlive the wait, it gives up rather than start a second one. The agent's
#   own lock on its pid file is the last guard: a second agent of the same
#   tree exits at start.
#
# The waiter is this script again, detached, as "restart.sh --start-after PID".
TREE=$(cd "$(dirname "$0")/../.." && pwd -P) || exit 1
AGENT=$TREE/bin/agent
WAIT_SECONDS=60

note() {
    echo "$(date '+%Y-%m-%d %H:%M:%S') restart.sh: $*" >> "$TREE/log/restart.log" 2>/dev/null
    echo "restart.sh: $*" >&2
}

# Whether process $1 runs this tree's agent, also one whose program an
# upgrade has replaced on disk since it started.
is_agent() {
    case "$(readlink "/proc/$1/exe" 2>/dev/null)" in
    "$AGENT" | "$AGENT (deleted)") return 0 ;;
    esac
    return 1
}

if [ "${1:-}" = --start-after ]; then
    old=${2:-}
    if [ -n "$old" ]; then
        tries=$((WAIT_SECONDS * 5))
        while [ "$tries" -gt 0 ] && is_agent "$old"; do
            sleep 0.2
            tries=$((tries - 1))
        done
        if is_agent "$old"; then
            note "the old agent (pid $old) still runs; no new agent started"
            exit 1
        fi
    fi
    cd "$TREE/bin" && exec ./agent ../etc/config
fi

if [ "${AGENT_RESTARTED_BY:-}" = systemd ]; then
    note "the agent runs under systemd, which restarts it when it exits"
    exit 0
fi

# The agent that runs this script: the nearest ancestor that runs this tree's
# agent (the agent runs us through sh -c, which may or may not fork).
OLD=""
pid=$PPID
for _ in 1 2 3; do
    case "$pid" in '' | *[!0-9]* | 0 | 1) break ;; esac
    if is_agent "$pid"; then
        OLD=$pid
        break
    fi
    pid=$(sed 's/.*) //' "/proc/$pid/stat" 2>/dev/null | cut -d' ' -f2)
done

note "starting a new agent once the old one (pid ${OLD:-none}) has gone"
setsid -f /bin/sh "$TREE/tools/op/restart.sh" --start-after "$OLD" < /dev/null > /dev/null 2>&1
exit 0
