#!/bin/sh
# Stands for /etc/rc.common and procd: `SCRIPT ACTION` reaches it as `rc.common SCRIPT ACTION`.
# What a start declares goes to /tmp/procd, a parameter per file and an argument per line; the
# instance is started as declared, without procd's watch over it.
initscript=$1
action=${2:-help}
declared=/tmp/procd

procd_open_instance() {
    rm -rf $declared
    mkdir $declared
}

procd_set_param() {
    name=$1
    shift
    printf '%s\n' "$@" >"$declared/$name"
}

procd_close_instance() {
    # Positional parameters again: the last line of the declared command has blanks.
    set --
    while IFS= read -r word; do
        set -- "$@" "$word"
    done <$declared/command
    user=$(cat $declared/user)
    setpriv --reuid "$user" --regid "$user" --init-groups "$@" >>/tmp/output 2>&1 &
    echo $! >/tmp/pid
}

# shellcheck disable=SC1090 # the script under test
. "$initscript"
case $action in
start) start_service ;;
stop)
    if [ -e /tmp/pid ]; then
        kill "$(cat /tmp/pid)" || true
        rm /tmp/pid
    fi
    ;;
restart)
    "$initscript" stop
    "$initscript" start
    ;;
enable) : >/tmp/enabled ;;
disable) rm /tmp/enabled ;;
*) exit 1 ;;
esac
