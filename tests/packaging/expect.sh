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

# check_service PID USER HOME: what holds of the running service, whichever package brought it.
check_service() {
    await curl -sf -o /tmp/page "$url/index.html"
    expect "it serves the packed web application" cmp /tmp/page "$card/www/index.html"
    expect "the folder of snapshots is the user's" \
        test "$(stat -c %U "$card/camera")" = "$2"
    same "it runs as its user" "$(id -u "$2")" "$(stat -c %u "/proc/$1")"
    for group in video dialout; do
        number=$(getent group $group | cut -d: -f3)
        expect "it is in group $group" grep -Eq "^Groups:.*\b$number\b" "/proc/$1/status"
    done
    same "its working directory" "$3" "$(readlink "/proc/$1/cwd")"
    expect "it may write there" su -s /bin/sh "$2" -c "touch $3/tmp.gcode"
    expect "it may save snapshots" su -s /bin/sh "$2" -c "touch $card/camera/a.jpg"
}
