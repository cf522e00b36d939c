#!/bin/sh
# vm/run.sh [GROUP...]          (./dev.sh vm and the CTest test "vm" run it)
#
# mount.qeodmfs where administrators meet it: Debian 12's own kernel and
# systemd, booted in qemu with software emulation (no KVM needed), with the
# project's .deb and the stand-in module of vm/kmod installed. It boots once
# for each group of scenarios in tests/vm/scenarios.sh (every group when
# none is named), reads their PASS and FAIL lines from the second serial
# port, and ends with "N passed, M failed". Exits 0 when all passed, 1 when
# one failed or a boot did not finish, 77 when this machine cannot run
# them, saying why (1 where QEODMFS_VM_REQUIRED is set).
#
# Kept in a cache (/var/cache/qeodmfs for root, else ~/.cache/qeodmfs): the
# Debian root and the kernel. Made anew in build/vm: the package, the
# module and the initramfs.
set -eu
umask 022  # the initramfs's modes become the machine's
src=$(cd "$(dirname "$0")/.." && pwd)
work=$src/build/vm
if [ "$(id -u)" -eq 0 ]; then
    cache=/var/cache/qeodmfs
else
    cache=${XDG_CACHE_HOME:-$HOME/.cache}/qeodmfs
fi
scenarios=$src/tests/vm/scenarios.sh
boot_limit=300  # seconds for one boot, its scenarios and its power-off
# What the root holds; manual pages, documentation and translations only
# cost boot time. A root made with other options is another root.
ROOT_OPTIONS="--include=systemd,systemd-sysv,udev,kmod,mount
    --dpkgopt=path-exclude=/usr/share/man/* --dpkgopt=path-exclude=/usr/share/doc/*
    --dpkgopt=path-include=/usr/share/doc/*/copyright --dpkgopt=path-exclude=/usr/share/locale/*"
root=$cache/vm-root-$(echo "$ROOT_OPTIONS" | cksum | cut -d ' ' -f 1).tar

# CI sets QEODMFS_VM_REQUIRED: there, a machine that cannot boot one fails.
skip() {
    if [ -n "${QEODMFS_VM_REQUIRED:-}" ]; then
        echo "vm: cannot run: $*"
        exit 1
    fi
    echo "vm: skipped: $*"
    exit 77
}

# Debian 12's current kernel: the one whose headers linux-headers-amd64 brings.
kernel=$(dpkg-query -W -f='${Depends}' linux-headers-amd64 2>/dev/null |
    sed -n 's/^linux-headers-\([^ ]*\) (= \([^)]*\))$/\1 \2/p')
[ -n "$kernel" ] || skip "linux-headers-amd64 is not installed (./dev.sh vm installs it)"
kver=${kernel% *}
kversion=${kernel#* }
for tool in qemu-system-x86_64 mmdebstrap mount bsdtar cpio make g++ cmake cpack dpkg-shlibdeps; do
    command -v "$tool" >/dev/null || skip "$tool is missing (./dev.sh vm installs it)"
done
if [ ! -s "$root" ] && [ "$(id -u)" -ne 0 ]; then
    grep -q "^$(id -un):" /etc/subuid 2>/dev/null && command -v newuidmap >/dev/null &&
        unshare --user true 2>/dev/null ||
        skip "as $(id -un), mmdebstrap needs user namespaces, subordinate ids in /etc/subuid" \
            "and newuidmap (uidmap); or run it once as root"
fi

rm -rf "$work"
mkdir -p "$work/initramfs" "$cache"

echo "vm: the package"
deb=$("$src/packaging/deb.sh" "$src")

echo "vm: the kernel, $kver"
vmlinuz=$cache/vmlinuz-$kver
if [ ! -s "$vmlinuz" ]; then
    (cd "$work" && apt-get download -q -o APT::Sandbox::User="$(id -un)" \
        "linux-image-$kver=$kversion" >/dev/null) ||
        skip "linux-image-$kver $kversion, the headers' kernel, cannot be downloaded"
    dpkg-deb --fsys-tarfile "$work"/linux-image-*.deb |
        tar -xO "./boot/vmlinuz-$kver" >"$vmlinuz.new"
    mv "$vmlinuz.new" "$vmlinuz"
fi

echo "vm: the stand-in module"
cp -r "$src/vm/kmod" "$work/kmod"
# No BTF: that needs the kernel's vmlinux, which the headers do not bring.
make -s -C "/usr/src/linux-headers-$kver" M="$work/kmod" CONFIG_DEBUG_INFO_BTF_MODULES= modules

echo "vm: the Debian root"
set -f  # the options' globs are dpkg's
# shellcheck disable=SC2086 # one argument per option; none holds a blank
"$src/vm/debian-root.sh" "$root" $ROOT_OPTIONS
set +f
# The kernel unpacks cpio, not tar; owners and modes carry over.
if [ ! "$root.cpio" -nt "$root" ]; then
    bsdtar --format newc -cf "$root.cpio.new" "@$root"
    mv "$root.cpio.new" "$root.cpio"
fi

echo "vm: the initramfs"
layer=$work/initramfs
mkdir -p "$layer/vm" "$layer/usr/lib/modules/$kver/extra" "$layer/etc/systemd/system"
cp "$deb" "$layer/vm/qeodmfs-mount.deb"
cp "$src/vm/preinit.sh" "$layer/vm/preinit"
cp "$scenarios" "$layer/vm/scenarios.sh"
cp -r "$src/tests/vm/expected" "$layer/vm/expected"
g++ -O2 -Wl,--as-needed -o "$layer/vm/probe" "$src/tests/sandbox_probe.cpp"
cp "$work/kmod/qeodmfs_standin.ko" "$layer/usr/lib/modules/$kver/extra/"
cp "$src/vm/scenarios.service" "$layer/etc/systemd/system/"
for target in multi-user emergency; do
    mkdir "$layer/etc/systemd/system/$target.target.wants"
    ln -s ../scenarios.service "$layer/etc/systemd/system/$target.target.wants/"
done
(cd "$layer" && find . | cpio -o -H newc -R 0:0 --quiet) >"$work/layer.cpio"
# A later archive adds to the earlier and wins where they meet.
cat "$root.cpio" "$work/layer.cpio" >"$work/initramfs.cpio"
rm -rf "$layer" "$work/layer.cpio"

# boot GROUP FSTAB PARAMETERS: one machine, in the background; its console
# and results land in $work/GROUP.console and $work/GROUP.results.
boot() {
    cmdline="console=ttyS0 panic=-1 rdinit=/vm/preinit qeodmfs_vm.group=$1"
    [ "$2" = - ] || cmdline="$cmdline qeodmfs_vm.fstab=$2"
    [ "$3" = - ] || cmdline="$cmdline $3"
    timeout -k 5 "$boot_limit" qemu-system-x86_64 -accel tcg -m 1024 -smp 1 \
        -nodefaults -no-user-config -display none -no-reboot \
        -serial "file:$work/$1.console" -serial "file:$work/$1.results" \
        -kernel "$vmlinuz" -initrd "$work/initramfs.cpio" -append "$cmdline" &
    machines="$machines $!"
}
# timeout gives each machine a process group of its own, out of a terminal's reach.
machines=
trap '[ -z "$machines" ] || kill $machines 2>/dev/null' EXIT
trap 'exit 130' INT TERM HUP

# Every group, or those named: name, fstab options, kernel parameters and
# scenarios each. Two machines at a time, one a processor.
groups=$(sh "$scenarios" groups)
if [ $# -gt 0 ]; then
    for name in "$@"; do
        echo "$groups" | grep -q "^$name " || { echo "vm: no such group: $name" >&2; exit 1; }
    done
    groups=$(echo "$groups" | while read -r group rest; do
        for name in "$@"; do
            if [ "$name" = "$group" ]; then echo "$group $rest"; fi
        done
    done)
fi
jobs=$(nproc)
[ "$jobs" -le 2 ] || jobs=2
passed=0
failed=0
batch=
report() {
    for group in $batch; do
        # shellcheck disable=SC2046 # the group's line, a word each
        set -- $(echo "$groups" | grep "^$group ")
        echo "vm: $group, fstab: $2 ($(($(date +%s) - started)) s since the first boot)"
        shift 3
        results=$(tr -d '\r' <"$work/$group.results" 2>/dev/null || true)
        printf '%s\n' "$results" | grep -v '^done$' || true
        ok=$(printf '%s\n' "$results" | grep -c '^PASS ' || true)
        if ! printf '%s\n' "$results" | grep -qx done; then
            echo "FAIL $group: the machine did not finish within $boot_limit s; its console's end:"
            tail -n 40 "$work/$group.console" | tr -d '\r' | sed 's/^/    /'
        fi
        # A group passes with a PASS line for each of its scenarios.
        passed=$((passed + ok))
        failed=$((failed + $# - ok))
    done
    batch=
}
started=$(date +%s)
echo "vm: booting $(echo "$groups" | wc -l) machines, $jobs at a time, $boot_limit s each at most"
while read -r group fstab params _; do
    boot "$group" "$fstab" "$params"
    batch="$batch $group"
    [ "$(echo $batch | wc -w)" -lt "$jobs" ] && continue
    wait
    machines=
    report
done <<EOF
$groups
EOF
wait
machines=
report
echo "vm: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
