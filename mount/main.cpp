// mount.qeodmfs: mounts the ODM pseudo file system on /dev/odm.
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "mount/mount_opts.h"
#include "mount/mtab.h"
#include "mount/odm_mount.h"
#include "mount/post_mount.h"
#include "msg/msg.h"

int main(int argc, char** argv)
{
    // Before anything is opened: a caller may have closed any of 0, 1 and 2.
    open_standard_fds();
    prog_name = argv[0];
    check_table();
    const std::uint64_t mask = parse_args(argc, argv);
    check_conflicts(mask);

    // The table is locked before the mount point is even looked at.
    mtab_lock();
    int mount_flags = 0;
    const char* options = nullptr;
    mtab_options(&options, mount_flags, mask);

    struct stat st;
    if (stat(MOUNT_POINT, &st) != 0)
        fatal_errno(MOUNT_POINT);

    odm_mount_args args{};
    args.version = ODM_MOUNT_ARGS_VERSION;
    args.size = sizeof args;
    args.requested = mask;
    args.available = OPT_ALL_MODES;

    const int result =
        do_mount(MOUNT_SOURCE, MOUNT_POINT, mount_flags, MOUNT_TYPE, &args, sizeof args, options);

    // The entry is written, or the table closed, before a failure is
    // reported; the report is about the mount, not the bookkeeping.
    const int mount_errno = errno;
    mtab_add(result);
    errno = mount_errno;
    if (result != 0)
        fatal_errno(MOUNT_POINT);

    run_readconfig();
    std::exit(cluster_switch_on(MOUNT_POINT) == 0 ? 0 : -1);
}
