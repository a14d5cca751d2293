# Stands for the board's /lib/functions.sh: its calls for users and groups.
# shellcheck shell=sh
user_exists() { getent passwd "$1" >/dev/null; }
user_add() { useradd --system --user-group "$1"; }
group_exists() { getent group "$1" >/dev/null; }
group_add_next() { groupadd --system "$1"; }
group_add_user() { usermod --append --groups "$1" "$2"; }
