#!/bin/sh
# mount.qeodmfs on Debian 12's kernel and systemd, with the stand-in module of vm/kmod. vm/run.sh
# boots once for each group below: its fstab options for /dev/odm (-: no line), its kernel
# parameters, its scenarios. Once the boot is over each scenario prints what it saw, and passes
# when that is what its file in expected/ holds below its first line, which says what it shows.
if [ "${1:-}" = groups ]; then
    echo "by-hand - - at_boot_after_no_line exclusive_wait conflict refused switch_fails answers \
fstab_words purge
boot-cluster cluster - mounted_at_boot
boot-nofail cluster,nofail - mounted_at_boot nofail_by_hand
boot-netdev cluster,_netdev - netdev
boot-noatime cluster,noatime - noatime
boot-optional cluster,x-systemd.wanted-by=local-fs.target qeodmfs_standin.mount_errno=1 optional"
    exit 0
fi
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
param=/sys/module/qeodmfs_standin/parameters

get() { cat "$param/$1"; }
put() { echo "$2" >"$param/$1"; }
states() { for unit; do echo "$unit $(systemctl is-active "$unit")"; done; }
in_journal() { echo "$(journalctl -b -o cat | grep -c -F "$1") in the journal: $1"; }
# What a mount left: status, the record the module read last, what the new control file took,
# the tool's runs and the mount's options; then its messages.
left() {
    tool=$(cat /run/tolvane.log 2>/dev/null) && rm /run/tolvane.log
    options=$(grep ' /dev/odm ' /proc/mounts | cut -d ' ' -f 4)
    echo "$1 $(get last_record) '$(get control)' ${tool:-no tool} ${options:-unmounted}"
    cat /run/err
}
by_hand() { mount -t qeodmfs "$@" none /dev/odm 2>/run/err; left $?; }
# What the module answered and read: errno, then version,size from little-endian hex.
answer() {
    "$@" >/dev/null 2>&1
    set -- $(get last_record | sed 's/^\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\).*/\4\3\2\1 \8\7\6\5/') -
    [ "$1" = - ] || set -- "$((0x$1)),$((0x$2))"
    echo "$(get last_errno) $1"
}
# Seconds from the kernel's start until UNIT was active.
since() {
    t=$(systemctl show -P ActiveEnterTimestampMonotonic "$1")
    echo "$1 after $((t / 1000000)).$((t / 100000 % 10)) s"
}

at_boot_after_no_line() {
    readlink /etc/mtab
    stat -c %F /dev/odm
    by_hand -o cluster
    umount /dev/odm
}
exclusive_wait() {
    by_hand -o exclusive,wait
    dmesg | sed -n 's/.*qeodmfs_standin: \(version .*\)/the module got \1/p' | tail -n 1 >/run/note
    umount /dev/odm && by_hand
    umount /dev/odm
}
conflict() {
    calls=$(get calls)
    mount.qeodmfs -o cluster,nocluster
    echo "$? $(($(get calls) - calls)) calls"
}
# With a regular /etc/mtab, which every boot makes a link again.
refused() {
    rm /etc/mtab && cat /proc/self/mounts >/etc/mtab && cp /etc/mtab /run/mtab
    put mount_errno 1
    by_hand -o cluster
    put mount_errno 0
    cmp /etc/mtab /run/mtab && echo "$(ls /etc | grep -c 'mtab~') lock files"
    ln -sf ../proc/self/mounts /etc/mtab
}
switch_fails() {
    for switch in control_errno=5 control_bytes=1; do
        put "${switch%=*}" "${switch#*=}"
        by_hand -o cluster
        put "${switch%=*}" 0
        umount /dev/odm
    done
}
# The calls that odm-sandbox's module answers alike (tests/sandbox_test.cpp).
answers() {
    answer mount -i -t qeodmfs -o cluster none /dev/odm
    for args in "1 32" "2 31" "" "2 32"; do answer /vm/probe $args; done
    umount /dev/odm
}
# With cluster in fstab: the status of mount /dev/odm, of mount -a (+: it mounted), the targets
# that require/want the unit that systemd makes of the line, and whether that mounts.
fstab_words() {
    for word in nofail auto noauto _netdev noatime x-systemd.wanted-by=local-fs.target; do
        echo "none /dev/odm qeodmfs cluster,$word 0 0" >/etc/fstab
        hand=$(mount /dev/odm 2>/dev/null; echo $?; umount /dev/odm 2>/dev/null)
        all=$(mount -a 2>/dev/null; echo $?; umount /dev/odm 2>/dev/null && echo +)
        systemctl daemon-reload
        systemctl start dev-odm.mount 2>/dev/null
        echo "$word" $hand $all "$(systemctl show -P RequiredBy dev-odm.mount)/$(systemctl show -P \
            WantedBy dev-odm.mount) $(systemctl is-active dev-odm.mount)"
        systemctl stop dev-odm.mount
        systemctl reset-failed
    done
}
# What is left of the package's files and directories after dpkg -r and -P, but for those that
# other packages share. The fstab line gives the drop-in a unit to show on.
purge() {
    echo "none /dev/odm qeodmfs cluster,noauto 0 0" >/etc/fstab && systemctl daemon-reload
    entries=$(dpkg-deb --fsys-tarfile /vm/qeodmfs-mount.deb | tar -t | sed 's|^\.||; s|/$||')
    dpkg -r qeodmfs-mount >/dev/null 2>&1 && dpkg -P qeodmfs-mount >/dev/null 2>&1
    for f in $entries; do [ ! -e "$f" ] || dpkg -S "$f" >/dev/null 2>&1 || echo "$f"; done
    ls /opt/KELD/bin
    echo drop-in $(systemctl show -P DropInPaths dev-odm.mount)
    rmdir /dev/odm && dpkg -i /vm/qeodmfs-mount.deb >/dev/null
    stat -c %F /dev/odm
    echo drop-in $(systemctl show -P DropInPaths dev-odm.mount)
    ls /opt/KELD/messages
}
mounted_at_boot() {
    states dev-odm.mount multi-user.target
    left 0
    echo "$(since dev-odm.mount), $(since multi-user.target)" >/run/note
}
nofail_by_hand() {
    umount /dev/odm && mount -a
    echo $?
}
netdev() {
    states dev-odm.mount multi-user.target
    in_journal "T-41-1-0-0-6 unrecognized option _netdev"
}
noatime() {
    states emergency.target multi-user.target
    in_journal "T-41-1-0-0-6 unrecognized option noatime"
}
optional() {
    in_journal "Operation not permitted: /dev/odm"
    states dev-odm.mount
    put mount_errno 0
    mount -a && mounted_at_boot
}

: >/run/err
group=$(sed -n 's/.*qeodmfs_vm\.group=\([^ ]*\).*/\1/p' /proc/cmdline)
for name in $(sh "$0" groups | sed -n "s/^$group [^ ]* [^ ]* //p"); do
    rm -f /run/note
    "$name" >"/run/$name" 2>&1
    saying=$(head -n 1 "/vm/expected/$name" | cut -c 3-)$(sed 's/.*/ (&)/' /run/note 2>/dev/null)
    if [ -f "/vm/expected/$name" ] && tail -n +2 "/vm/expected/$name" | cmp -s - "/run/$name"; then
        echo "PASS $saying"
    else
        echo "FAIL $saying"
        tail -n +2 "/vm/expected/$name" | diff -u - "/run/$name" | sed 's/^/    /'
    fi
done
echo done
systemctl --no-block poweroff
