#!/bin/sh
# mount.qeodmfs on Debian 12's kernel and systemd, with the stand-in module of vm/kmod. vm/run.sh
# boots once for each group listed here, with its fstab options for /dev/odm and its kernel
# parameters, and this prints a PASS or FAIL line for each scenario once the boot is over.
if [ "${1:-}" = groups ]; then
    echo "by-hand - -
boot-cluster cluster -
boot-nofail cluster,nofail -
boot-netdev cluster,_netdev -
boot-noatime cluster,noatime -
boot-optional cluster,x-systemd.wanted-by=local-fs.target qeodmfs_standin.mount_errno=1"
    exit 0
fi
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
param=/sys/module/qeodmfs_standin/parameters
# The record of -o cluster: version 2, size 32, requested 0x2, available 0x4b.
CLUSTER=020000002000000002000000000000004b000000000000000000000000000000

scenario() {  # NAME GOT WANTED
    [ "$2" = "$3" ] && echo "PASS $1" && return
    printf '%s\n' "FAIL $1" "    got:" "$2" "    wanted:" "$3"
}
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
by_hand() {
    mount -t qeodmfs "$@" none /dev/odm 2>/run/err
    left $?
}
# What the module answered and read: errno, then version,size from little-endian hex.
answer() {
    "$@" >/dev/null 2>&1
    set -- $(get last_record | sed 's/^\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\).*/\4\3\2\1 \8\7\6\5/') -
    [ "$1" = - ] || set -- "$((0x$1)),$((0x$2))"
    echo "$(get last_errno) $1"
}

by_hand_group() {
    scenario "no fstab line: /etc/mtab a link, /dev/odm made at boot, -o cluster mounts" \
        "$(readlink /etc/mtab; stat -c %F /dev/odm; by_hand -o cluster; umount /dev/odm)" \
        "../proc/self/mounts
directory
0 $CLUSTER 'on' /opt/KELD/bin/tolvane readconfig rw,relatime"

    got=$(by_hand -o exclusive,wait; umount /dev/odm && by_hand; umount /dev/odm)
    seen=$(dmesg | sed -n 's/.*qeodmfs_standin: \(version .*\)/\1/p' | tail -n 2 | head -n 1)
    scenario "mount -t qeodmfs -o exclusive,wait none /dev/odm ($seen), umount, mount" "$got" \
        "0 020000002000000044000000000000004b000000000000000000000000000000 'on' \
/opt/KELD/bin/tolvane readconfig rw,relatime
0 020000002000000000000000000000004b000000000000000000000000000000 'on' \
/opt/KELD/bin/tolvane readconfig rw,relatime"

    calls=$(get calls)
    scenario "mount.qeodmfs -o cluster,nocluster: message 3, no call" \
        "$(mount.qeodmfs -o cluster,nocluster 2>&1; echo "$? $(($(get calls) - calls)) calls")" \
        "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'nocluster' and 'cluster'
255 0 calls"

    # A regular /etc/mtab, which every boot makes a link again.
    rm /etc/mtab && cat /proc/self/mounts >/etc/mtab && cp /etc/mtab /run/mtab && put mount_errno 1
    got=$(by_hand -o cluster; cmp /etc/mtab /run/mtab && ls /etc | grep -c 'mtab~')
    put mount_errno 0
    ln -sf ../proc/self/mounts /etc/mtab
    scenario "a mount the module refuses (EPERM): no entry and no lock in a regular /etc/mtab" \
        "$got" "255 $CLUSTER 'on' no tool unmounted
Operation not permitted: /dev/odm
0"

    got=$(for switch in control_errno=5 control_bytes=1; do
        put "${switch%=*}" "${switch#*=}"
        by_hand -o cluster
        put "${switch%=*}" 0
        umount /dev/odm
    done)
    scenario "a control file that refuses on (EIO), or takes 1 byte of it: the mount stays" "$got" \
        "255 $CLUSTER '' /opt/KELD/bin/tolvane readconfig rw,relatime
ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster
255 $CLUSTER 'o' /opt/KELD/bin/tolvane readconfig rw,relatime
ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster"

    # As odm-sandbox's module answers them (tests/sandbox_test.cpp).
    got=$(answer mount -i -t qeodmfs -o cluster none /dev/odm
        for args in "1 32" "2 31" "" "2 32"; do answer /vm/probe $args; done)
    umount /dev/odm
    scenario "text, version 1, size 31, no data, a record: the answers odm-sandbox gives" "$got" \
        "22 1937075299,7497076
22 1,32
22 2,31
22 -
0 2,32"

    # With cluster in fstab: the status of mount /dev/odm, of mount -a (+: it mounted), the
    # targets that require/want the unit systemd makes of the line, and whether that mounts.
    got=$(for word in nofail auto noauto _netdev noatime x-systemd.wanted-by=local-fs.target; do
        echo "none /dev/odm qeodmfs cluster,$word 0 0" >/etc/fstab
        hand=$(mount /dev/odm 2>/dev/null; echo $?; umount /dev/odm 2>/dev/null)
        all=$(mount -a 2>/dev/null; echo $?; umount /dev/odm 2>/dev/null && echo +)
        systemctl daemon-reload
        systemctl start dev-odm.mount 2>/dev/null
        echo "$word" $hand $all "$(systemctl show -P RequiredBy dev-odm.mount)/$(systemctl show -P \
            WantedBy dev-odm.mount) $(systemctl is-active dev-odm.mount)"
        systemctl stop dev-odm.mount
        systemctl reset-failed
    done)
    scenario "fstab words, by hand and through systemd" "$got" "nofail 255 32 /local-fs.target active
auto 0 0 + local-fs.target/ active
noauto 0 0 / active
_netdev 255 32 remote-fs.target/ failed
noatime 255 32 local-fs.target/ failed
x-systemd.wanted-by=local-fs.target 0 0 + /local-fs.target active"

    # The line gives the drop-in a unit to show on.
    echo "none /dev/odm qeodmfs cluster,noauto 0 0" >/etc/fstab && systemctl daemon-reload
    files=$(dpkg-deb --fsys-tarfile /vm/qeodmfs-mount.deb | tar -t | grep -v '/$' | cut -c 2-)
    got=$(dpkg -P qeodmfs-mount >/dev/null 2>&1
        for f in $files; do ls -d "$f" 2>/dev/null; done
        ls /opt/KELD/bin
        echo "drop-in: $(systemctl show -P DropInPaths dev-odm.mount)"
        rmdir /dev/odm && dpkg -i /vm/qeodmfs-mount.deb >/dev/null
        stat -c %F /dev/odm
        echo "drop-in: $(systemctl show -P DropInPaths dev-odm.mount)")
    scenario "dpkg -P leaves only another package's tool; dpkg -i makes /dev/odm and loads the \
drop-in" "$got" "tolvane
drop-in: 
directory
drop-in: /usr/lib/systemd/system/dev-odm.mount.d/qeodmfs-mount.conf"
}

# Seconds from the kernel's start until UNIT was active.
since() {
    t=$(systemctl show -P ActiveEnterTimestampMonotonic "$1")
    echo "$((t / 1000000)).$((t / 100000 % 10)) s"
}
MOUNTED_AT_BOOT="dev-odm.mount active
multi-user.target active
0 $CLUSTER 'on' /opt/KELD/bin/tolvane readconfig rw,relatime"

group=$(sed -n 's/.*qeodmfs_vm\.group=\([^ ]*\).*/\1/p' /proc/cmdline)
: >/run/err
case $group in
by-hand) by_hand_group ;;
boot-cluster | boot-nofail)
    scenario "fstab: $(grep '^none' /etc/fstab), module from modules-load.d: mounted after \
$(since dev-odm.mount), multi-user.target after $(since multi-user.target)" \
        "$(states dev-odm.mount multi-user.target; left 0)" "$MOUNTED_AT_BOOT"
    ;;
boot-netdev)
    scenario "cluster,_netdev in fstab: the unit fails, the boot goes on" \
        "$(states dev-odm.mount multi-user.target; in_journal "option _netdev")" "dev-odm.mount failed
multi-user.target active
1 in the journal: option _netdev"
    ;;
boot-noatime)
    scenario "cluster,noatime in fstab: the boot stops in emergency mode" \
        "$(states emergency.target multi-user.target; in_journal "option noatime")" \
        "emergency.target active
multi-user.target inactive
1 in the journal: option noatime"
    ;;
boot-optional)
    scenario "cluster,x-systemd.wanted-by=local-fs.target in fstab, refused at boot: the boot goes \
on, and mount -a mounts" "$(in_journal "Operation not permitted: /dev/odm"; states dev-odm.mount
        put mount_errno 0
        mount -a
        states dev-odm.mount multi-user.target; left 0)" \
        "1 in the journal: Operation not permitted: /dev/odm
dev-odm.mount failed
$MOUNTED_AT_BOOT"
    ;;
esac
if [ "$group" = boot-nofail ]; then
    scenario "cluster,nofail in fstab: mount -a passes nofail on" \
        "$(umount /dev/odm && mount -a 2>&1; echo "$?")" \
        "ODM mount WARNING T-41-1-0-0-6 unrecognized option nofail
ODM mount ERROR T-41-1-0-0-4 usage: /sbin/mount.qeodmfs [-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]
32"
fi
echo done
systemctl --no-block poweroff
