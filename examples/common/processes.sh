# shellcheck shell=bash
# For the demos of several processes, to be sourced by bash: starts them, watches them, ends them by their process id.
# Gives $work, a temporary folder that is an installation root (conf/zol.cfg, conf/log), and $failed, the exit code.
# $work/*.err is shown when the demo fails.
#
# Whatever ends the script, nothing that it started stays behind, and neither does the folder.

work=$(mktemp -d)
mkdir -p "$work/conf/log"
: >"$work/conf/zol.cfg"
names=()
pids=()
failed=0

clean_up() {
    local pid
    [ "$failed" = 0 ] || tail -q -n 3 "$work"/*.err 2>/dev/null >&2
    # what the shell knows and not what is noted in pids: a signal may come between a start and its note
    for pid in $(jobs -p); do kill -KILL "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 1' INT TERM HUP

fail() { # TEXT: the demo goes on, but will not succeed
    echo "demo: $*" >&2
    failed=1
}

start() { # NAME COMMAND...: in the background, with the redirections of the call
    local name=$1
    shift
    "$@" &
    names+=("$name")
    pids+=($!)
}

pid_of() { # NAME
    local i
    for i in "${!names[@]}"; do
        [ "${names[$i]}" != "$1" ] || echo "${pids[$i]}"
    done
}

kill_now() { # NAME: by SIGKILL; its place among the processes stays, for restart
    local pid
    pid=$(pid_of "$1")
    kill -KILL "$pid"
    wait "$pid" 2>/dev/null
}

restart() { # NAME COMMAND...: one that kill_now has ended
    local i name=$1
    shift
    "$@" &
    for i in "${!names[@]}"; do
        [ "${names[$i]}" != "$name" ] || pids[i]=$!
    done
}

all_alive() {
    local i
    for i in "${!pids[@]}"; do
        kill -0 "${pids[$i]}" 2>/dev/null || { fail "${names[$i]} ended too early"; return 1; }
    done
}

wait_for() { # SECONDS COMMAND...: until the command succeeds; gives up when a process has ended or the time is over
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        all_alive || return 1
        [ "$SECONDS" -le "$end" ] || { fail "gave up waiting: $*"; return 1; }
        sleep 0.02
    done
}

has_line() { # FILE PATTERN
    grep -q "$2" "$1" 2>/dev/null
}

stop_all() { # by SIGTERM, the last started first; each must leave with code 0
    local i code
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[$i]}" 2>/dev/null
        wait "${pids[$i]}"
        code=$?
        [ "$code" = 0 ] || fail "${names[$i]} left with code $code"
    done
    pids=()
    names=()
}
