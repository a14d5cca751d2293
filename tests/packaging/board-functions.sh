# Stands for the board's /lib/functions.sh: its calls for users and groups.
# shellcheck shell=sh
root=${IPKG_INSTROOT:-}
next() { # the first free number from 60000 on
    number=60000
    while grep -q ":$number:" "$root/etc/passwd" "$root/etc/group"; do
        number=$((number + 1))
    done
    echo $number
}
user_exists() { grep -q "^$1:" "$root/etc/passwd"; }
user_add() { # user_add NAME [NUMBER [GROUP]]
    number=${2:-$(next)}
    echo "$1:x:$number:${3:-$number}:$1:/var/run/$1:/bin/false" >>"$root/etc/passwd"
}
group_exists() { grep -q "^$1:" "$root/etc/group"; }
group_add() { echo "$1:x:$2:" >>"$root/etc/group"; }
group_add_next() { echo "$1:x:$(next):" >>"$root/etc/group"; }
group_add_user() {
    sed "s/^\($1:.*:\)$/\1$2/; t; s/^$1:.*[^:]$/&,$2/" "$root/etc/group" >"$root/etc/group.new"
    mv "$root/etc/group.new" "$root/etc/group"
}
