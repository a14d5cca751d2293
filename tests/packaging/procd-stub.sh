#!/bin/sh
# Stands for /etc/rc.common: `SCRIPT ACTION` reaches it as `rc.common SCRIPT ACTION`. What a start
# declares goes to /tmp/procd/NAME, a parameter per file and an argument per line; what is asked of procd
# goes to /tmp/procd.asked, where the test does it in procd's place.
initscript=$1
action=${2:-help}
name=${initscript##*/}
declared=/tmp/procd/$name

procd_open_instance() {
    rm -rf "$declared"
    mkdir -p "$declared"
}

procd_set_param() {
    parameter=$1
    shift
    printf '%s\n' "$@" >"$declared/$parameter"
}

procd_close_instance() {
    echo "start $name" >>/tmp/procd.asked
}

# shellcheck disable=SC1090 # the script under test
. "$initscript"
case $action in
start) start_service ;;
stop) echo "stop $name" >>/tmp/procd.asked ;;
restart)
    echo "stop $name" >>/tmp/procd.asked
    start_service
    ;;
enable) : >"/etc/enabled-$name" ;;
disable) rm -f "/etc/enabled-$name" ;;
enabled) [ -e "/etc/enabled-$name" ] ;;
*) exit 1 ;;
esac
