#!/bin/sh
# Stands for /etc/rc.common: `SCRIPT ACTION` reaches it as `rc.common SCRIPT ACTION`. What a start
# declares goes to /tmp/procd, a parameter per file and an argument per line; what is asked of procd
# goes to /tmp/procd.asked, where the test does it in procd's place.
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
    echo start >>/tmp/procd.asked
}

# shellcheck disable=SC1090 # the script under test
. "$initscript"
case $action in
start) start_service ;;
stop) echo stop >>/tmp/procd.asked ;;
restart)
    echo stop >>/tmp/procd.asked
    start_service
    ;;
enable) : >/etc/enabled ;;
disable) rm -f /etc/enabled ;;
enabled) [ -e /etc/enabled ] ;;
*) exit 1 ;;
esac
