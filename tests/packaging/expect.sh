# What the packages' tests share; to be sourced.
# shellcheck shell=sh

# Fail with a message.
fail() {
    echo "FAILED: $*" >&2
    [ ! -s /tmp/output ] || sed 's/^/  output: /' /tmp/output >&2
    exit 1
}

# expect WHAT COMMAND...: the command must succeed.
expect() {
    what=$1
    shift
    "$@" >/dev/null || fail "$what"
    echo "ok: $what"
}

# same WHAT WANTED GOT
same() {
    [ "$2" = "$3" ] || fail "$1: '$3' instead of '$2'"
    echo "ok: $1"
}

# Wait until a command succeeds; a minute at most.
await() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ $tries -lt 600 ] || fail "never: $*"
        sleep 0.1
    done
}

card=/tmp/run/mountd/mmcblk0p1/kestrel-server
url=http://127.0.0.1:8329
