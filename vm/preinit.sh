#!/bin/sh
# Process 1 of the virtual machine until systemd takes over: the machine as
# its administrator left it before this boot. The package is installed, the
# module too, loaded at boot through /etc/modules-load.d, a configuration
# tool of another package's is there, and /etc/fstab has the line that the
# kernel's command line asks for (qeodmfs_vm.fstab=OPTIONS).
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
mount -t proc proc /proc
for arg in $(cat /proc/cmdline); do
    case $arg in
    qeodmfs_vm.fstab=*) echo "none /dev/odm qeodmfs ${arg#*=} 0 0" >>/etc/fstab ;;
    esac
done
echo qeodmfs_standin >/etc/modules-load.d/qeodmfs-standin.conf
depmod
# A configuration tool that says when it ran, from another package.
mkdir -p /opt/KELD/bin
printf '#!/bin/sh\necho "$0 $*" >>/run/tolvane.log\n' >/opt/KELD/bin/tolvane
chmod 755 /opt/KELD/bin/tolvane
# Without systemd running, as on a machine where the package came first.
dpkg -i /vm/qeodmfs-mount.deb >/run/dpkg.log 2>&1 || cat /run/dpkg.log >/dev/console
umount /proc
exec /sbin/init
