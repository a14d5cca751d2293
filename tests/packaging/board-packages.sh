# The package manager's and procd's part on a board that board-root has made; to be sourced, behind expect.sh.
# shellcheck shell=sh
board=/mnt/board
service=      # the one that procd runs here; it is asked for others in vain, save
others=       # these, whose process numbers are in /mnt/pid.NAME
pid=          # of the service, while it runs
supplementary=yes # an older procd sets no such groups

# Run a command in the board's root.
on_board() {
    chroot "$board" "$@"
}

# Called when a package's files are in place: a test's own.
files_are_there() {
    :
}

unpack() { # unpack PACKAGE: what is in it, and its control files
    rm -rf /mnt/package
    mkdir -p /mnt/package/control
    tar -xzf "$1" -C /mnt/package
    tar -xzf /mnt/package/control.tar.gz -C /mnt/package/control
    name=$(sed -n 's/^Package: //p' /mnt/package/control/control)
}
run_script() { # run_script FOLDER NAME: one of a package's scripts, on the board
    cp "$1/$2" $board/tmp/script
    status=0
    on_board /tmp/script || status=$?
    rm $board/tmp/script
    procd
    return $status
}
pid_of() { # pid_of NAME: of a service, while it runs
    cat "/mnt/pid.$1" 2>/dev/null || true
}
put_files() { # a changed configuration file stays, the package's own goes beside it
    mkdir -p /mnt/kept
    while read -r file; do
        rm -rf "/mnt/kept/$(basename "$file")"
        if [ -e "$board$file" ] && [ "$(md5sum <"$board$file")" != "$(cat "/mnt/sum$file" 2>/dev/null)" ]; then
            mkdir -p "/mnt/kept$(dirname "$file")"
            cp -p "$board$file" "/mnt/kept$file"
        fi
    done </mnt/package/control/conffiles
    tar -xzf /mnt/package/data.tar.gz -C $board
    while read -r file; do
        mkdir -p "/mnt/sum$(dirname "$file")"
        md5sum <"$board$file" >"/mnt/sum$file"
        if [ -e "/mnt/kept$file" ]; then
            mv "$board$file" "$board$file-opkg"
            cp -p "/mnt/kept$file" "$board$file"
        fi
    done </mnt/package/control/conffiles
    mkdir -p /mnt/installed
    rm -rf "/mnt/installed/$name"
    cp -r /mnt/package/control "/mnt/installed/$name"
    tar -tzf /mnt/package/data.tar.gz >"/mnt/installed/$name/list"
}
install_package() { # install_package FILE
    unpack "$1"
    run_script /mnt/package/control preinst
    put_files
    files_are_there
    run_script "/mnt/installed/$name" postinst
}
upgrade_package() { # upgrade_package FILE
    unpack "$1"
    PKG_UPGRADE=1
    export PKG_UPGRADE
    run_script "/mnt/installed/$name" prerm
    run_script /mnt/package/control preinst
    put_files
    files_are_there
    run_script "/mnt/installed/$name" postinst
    unset PKG_UPGRADE
}
remove_package() { # remove_package NAME
    run_script "/mnt/installed/$1" prerm
    grep -v '/$' "/mnt/installed/$1/list" | while read -r file; do
        rm "$board/$file"
    done
    [ ! -e "/mnt/installed/$1/postrm" ] || run_script "/mnt/installed/$1" postrm
}

groups_of() { # the numbers of a user's groups, joined by commas
    awk -F: -v user="$1" '("," $4 ",") ~ ("," user ",") { printf "%s%s", sep, $3; sep = "," }' \
        $board/etc/group
}
# procd's part: an instance with standard output kept gets the line-buffer library preloaded.
procd() {
    [ -e $board/tmp/procd.asked ] || return 0
    while read -r asked of; do
        case " $service $others " in *" $of "*) ;; *) continue ;; esac
        if [ -n "$(pid_of "$of")" ]; then
            kill "$(pid_of "$of")" 2>/dev/null || true
            wait "$(pid_of "$of")" 2>/dev/null || true
            rm "/mnt/pid.$of"
        fi
        [ "$asked" = start ] || continue
        declared=$board/tmp/procd/$of
        owner=0:0
        groups=
        if [ -e "$declared/user" ]; then
            user=$(cat "$declared/user")
            owner=$(sed -n "s/^$user:x:\([0-9]*:[0-9]*\):.*/\1/p" $board/etc/passwd)
            [ -z "$supplementary" ] || groups=$(groups_of "$user")
        fi
        preload=
        [ "$(cat "$declared/stdout")" != 1 ] || preload=/lib/libsetlbf.so
        # shellcheck disable=SC2046 # its words
        env -i PATH=/bin:/sbin:/usr/bin:/usr/sbin QEMU_CPU="$QEMU_CPU" LD_PRELOAD=$preload \
            "$(command -v chroot)" --userspec="$owner" --groups="$groups" $board \
            $(cat "$declared/command") >>/tmp/output 2>&1 &
        echo $! >"/mnt/pid.$of"
    done <$board/tmp/procd.asked
    rm $board/tmp/procd.asked
    # shellcheck disable=SC2034 # the test's
    pid=$(pid_of "$service")
}

# The board's own files for packages and services. LIBRARIES: the build folder of the library that procd preloads
board_environment() { # board_environment LIBRARIES
    # shellcheck disable=SC2154 # the test's
    cp "$here/board-functions.sh" $board/lib/functions.sh
    install -m 755 "$here/procd-stub.sh" $board/etc/rc.common
    cp "$1/libsetlbf.so" "$1/libgcc_s.so.1" $board/lib/
}
