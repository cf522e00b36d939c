#!/bin/sh
# mount.qeodmfs on Debian 12's own kernel and systemd, with the stand-in
# module of vm/kmod. vm/run.sh boots a machine for each group below; this
# runs in it once the boot is over (vm/scenarios.service) and prints a PASS
# or FAIL line for each scenario, then "done".
#
# "scenarios.sh groups" lists them: each group's name, the options of the
# /etc/fstab line for /dev/odm it boots with, and what else the kernel's
# command line says (-: none).
if [ "${1:-}" = groups ]; then
    cat <<'EOF'
by-hand - -
boot-cluster cluster -
boot-nofail cluster,nofail -
boot-netdev cluster,_netdev -
boot-noatime cluster,noatime -
boot-optional cluster,x-systemd.wanted-by=local-fs.target qeodmfs_standin.mount_errno=1
EOF
    exit 0
fi
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
param=/sys/module/qeodmfs_standin/parameters
# The record of -o cluster: version 2, size 32, requested 0x2, available 0x4b.
CLUSTER=020000002000000002000000000000004b000000000000000000000000000000

# check NAME FUNCTION: FUNCTION prints why it failed, or what its pass shows.
check() {
    if out=$("$2" 2>&1); then
        echo "PASS $1${out:+: $out}"
    else
        echo "FAIL $1"
        echo "$out" | sed 's/^/    /'
    fi
}
is() {
    [ "$2" = "$3" ] || { printf '%s: "%s", not "%s"\n' "$1" "$2" "$3"; return 1; }
}
get() { cat "$param/$1"; }
put() { echo "$2" >"$param/$1"; }
mounted() { mountpoint -q /dev/odm && echo yes; }
unit() { systemctl is-active "$1"; }
journal_has() { is "$1 in the journal" "$(journalctl -b -o cat | grep -c -F "$1")" 1; }
# Seconds from the kernel's start until UNIT became active.
since() {
    t=$(systemctl show -P ActiveEnterTimestampMonotonic "$1")
    echo "$((t / 1000000)).$((t / 100000 % 10)) s"
}
# A little-endian 32-bit number from the first 8 digits of HEX.
le32() { echo $((0x$(echo "$1" | sed 's/^\(..\)\(..\)\(..\)\(..\).*/\4\3\2\1/'))); }
# As the manual page mounts by hand; what it printed is in /run/err.
by_hand() { mount -t qeodmfs "$@" none /dev/odm 2>/run/err; }

made_at_boot() {
    is /etc/mtab "$(readlink /etc/mtab)" ../proc/self/mounts &&
        is /dev/odm "$(stat -c %F /dev/odm)" directory && by_hand -o cluster && umount /dev/odm
}

exclusive_wait() {
    : >/run/tolvane.log
    by_hand -o exclusive,wait
    is status $? 0 && is control "$(get control)" on &&
        is record "$(get last_record)" 020000002000000044000000000000004b000000000000000000000000000000 &&
        is tool "$(cat /run/tolvane.log)" "/opt/KELD/bin/tolvane readconfig" &&
        is /proc/mounts "$(grep ' /dev/odm ' /proc/mounts)" "none /dev/odm qeodmfs rw,relatime 0 0" &&
        seen=$(dmesg | sed -n 's/.*qeodmfs_standin: \(version .*\)/\1/p' | tail -n 1) &&
        umount /dev/odm && by_hand && umount /dev/odm && echo "the module got $seen"
}

conflict() {
    calls=$(get calls)
    mount.qeodmfs -o cluster,nocluster 2>/run/err
    is status $? 255 && is "module calls" "$(get calls)" "$calls" &&
        is stderr "$(cat /run/err)" "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'nocluster' and 'cluster'"
}

# With a regular /etc/mtab, which every boot makes a link again.
refused() {
    rm /etc/mtab && cat /proc/self/mounts >/etc/mtab && before=$(cat /etc/mtab)
    put mount_errno 1
    by_hand -o cluster
    status=$?
    put mount_errno 0
    after=$(cat /etc/mtab)
    locks=$(ls /etc | grep 'mtab~')
    ln -sf ../proc/self/mounts /etc/mtab
    is status $status 255 && is stderr "$(cat /run/err)" "Operation not permitted: /dev/odm" &&
        is mounted "$(mounted)" "" && is /etc/mtab "$after" "$before" && is "lock files" "$locks" ""
}

# The control file refuses "on" (EIO), or takes its first byte alone.
switch_fails() {
    for switch in control_errno=5 control_bytes=1; do
        put "${switch%=*}" "${switch#*=}"
        by_hand -o cluster
        status=$?
        put "${switch%=*}" 0
        is "$switch: status" $status 255 && is "$switch: mounted" "$(mounted)" yes &&
            is "$switch: stderr" "$(cat /run/err)" \
                "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster" &&
            umount /dev/odm || return 1
    done
}

# What the module answered (errno) and read (version,size; -: no data).
# odm-sandbox's module answers the same calls alike (tests/sandbox_test.cpp).
same_answers() {
    for call in "mount -i -t qeodmfs -o cluster none /dev/odm" "/vm/probe 1 32" "/vm/probe 2 31" \
        /vm/probe "/vm/probe 2 32"; do
        $call >/dev/null 2>&1
        r=$(get last_record)
        [ -n "$r" ] && r=$(le32 "$r"),$(le32 "$(echo "$r" | cut -c 9-)")
        echo "$(get last_errno) ${r:--}"
    done >/run/answers
    umount /dev/odm
    is answers "$(cat /run/answers)" "22 1937075299,7497076
22 1,32
22 2,31
22 -
0 2,32"
}

# Each word beside cluster in fstab: the status of mount /dev/odm and of
# mount -a (+: it mounted), the targets that require / want the mount unit
# that systemd makes of the line, as at boot, and whether it mounts.
fstab_words() {
    for word in nofail auto noauto _netdev noatime x-systemd.wanted-by=local-fs.target; do
        echo "none /dev/odm qeodmfs cluster,$word 0 0" >/etc/fstab
        mount /dev/odm 2>/dev/null
        hand=$?
        umount /dev/odm 2>/dev/null
        mount -a 2>/dev/null
        all=$?
        umount /dev/odm 2>/dev/null && all=$all+
        systemctl daemon-reload
        systemctl start dev-odm.mount 2>/dev/null
        echo "$word $hand $all $(systemctl show -P RequiredBy dev-odm.mount)/$(systemctl show -P WantedBy \
            dev-odm.mount) $(unit dev-odm.mount)"
        systemctl stop dev-odm.mount
        systemctl reset-failed
    done >/run/words
    : >/etc/fstab
    systemctl daemon-reload
    is words "$(cat /run/words)" "nofail 255 32 /local-fs.target active
auto 0 0+ local-fs.target/ active
noauto 0 0 / active
_netdev 255 32 remote-fs.target/ failed
noatime 255 32 local-fs.target/ failed
x-systemd.wanted-by=local-fs.target 0 0+ /local-fs.target active"
}

# dpkg -P leaves nothing of the package and systemd forgets the drop-in;
# dpkg -i brings /dev/odm and the drop-in back at once.
purge() {
    echo "none /dev/odm qeodmfs cluster,noauto 0 0" >/etc/fstab && systemctl daemon-reload
    files=$(dpkg-deb --fsys-tarfile /vm/qeodmfs-mount.deb | tar -t | grep -v '/$' | cut -c 2-)
    dpkg -P qeodmfs-mount >/dev/null 2>&1
    left=$(for f in $files; do ls -d "$f" 2>/dev/null; done)
    dropin=$(systemctl show -P DropInPaths dev-odm.mount)
    rmdir /dev/odm
    dpkg -i /vm/qeodmfs-mount.deb >/dev/null
    is "left by dpkg -P" "$left" "" && is "drop-in after dpkg -P" "$dropin" "" &&
        is "tool of another package" "$(ls /opt/KELD/bin)" tolvane &&
        is "/dev/odm after dpkg -i" "$(stat -c %F /dev/odm)" directory &&
        is "drop-in after dpkg -i" "$(systemctl show -P DropInPaths dev-odm.mount)" \
            /usr/lib/systemd/system/dev-odm.mount.d/qeodmfs-mount.conf
}

mounted_at_boot() {
    is dev-odm.mount "$(unit dev-odm.mount)" active && is record "$(get last_record)" $CLUSTER &&
        is control "$(get control)" on && is tool "$(cat /run/tolvane.log)" "/opt/KELD/bin/tolvane readconfig" &&
        is multi-user.target "$(unit multi-user.target)" active &&
        echo "mounted after $(since dev-odm.mount), multi-user.target after $(since multi-user.target)"
}

nofail_by_hand() {
    umount /dev/odm && mount -a 2>/run/err
    is "mount -a" $? 32 && is mounted "$(mounted)" "" &&
        is stderr "$(head -n 1 /run/err)" "ODM mount WARNING T-41-1-0-0-6 unrecognized option nofail"
}

failed_at_boot() {
    is dev-odm.mount "$(unit dev-odm.mount)" failed && is multi-user.target "$(unit multi-user.target)" active &&
        journal_has "T-41-1-0-0-6 unrecognized option _netdev"
}

boot_stopped() {
    is emergency.target "$(unit emergency.target)" active && is multi-user.target "$(unit multi-user.target)" inactive &&
        journal_has "T-41-1-0-0-6 unrecognized option noatime"
}

optional() {
    is dev-odm.mount "$(unit dev-odm.mount)" failed && is multi-user.target "$(unit multi-user.target)" active &&
        journal_has "Operation not permitted: /dev/odm" && put mount_errno 0 && mount -a &&
        is record "$(get last_record)" $CLUSTER && is mounted "$(mounted)" yes
}

case $(sed -n 's/.*qeodmfs_vm\.group=\([^ ]*\).*/\1/p' /proc/cmdline) in
by-hand)
    check "no fstab line: /dev/odm made at boot, /etc/mtab a link, -o cluster mounts" made_at_boot
    check "mount -t qeodmfs -o exclusive,wait none /dev/odm, umount, mount" exclusive_wait
    check "mount.qeodmfs -o cluster,nocluster: message 3, no mount call" conflict
    check "a mount the module refuses, with a regular /etc/mtab" refused
    check "a control file that refuses on or cuts it short" switch_fails
    check "the module answers as odm-sandbox's" same_answers
    check "fstab words by hand and through systemd" fstab_words
    check "dpkg -P, then dpkg -i" purge
    ;;
boot-cluster)
    check "cluster in fstab, the module from modules-load.d" mounted_at_boot
    ;;
boot-nofail)
    check "cluster,nofail in fstab: mounted at boot" mounted_at_boot
    check "cluster,nofail in fstab: mount -a refuses nofail" nofail_by_hand
    ;;
boot-netdev)
    check "cluster,_netdev in fstab: the unit fails, the boot goes on" failed_at_boot
    ;;
boot-noatime)
    check "cluster,noatime in fstab: the boot stops in emergency mode" boot_stopped
    ;;
boot-optional)
    check "cluster,x-systemd.wanted-by=local-fs.target, refused at boot: the boot goes on" optional
    ;;
esac
echo done
systemctl --no-block poweroff
