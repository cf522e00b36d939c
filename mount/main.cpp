// mount.qeodmfs: mounts the ODM pseudo file system on /dev/odm.
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "mount/mount_opts.h"
#include "mount/odm_mount.h"
#include "msg/msg.h"

int main(int argc, char** argv)
{
    prog_name = argv[0];
    check_table();
    const std::uint64_t mask = parse_args(argc, argv);
    check_conflicts(mask);

    // TODO(mount table): mtab_lock() — the lock is taken before the mount
    // point is even looked at.

    int mount_flags = 0;
    const char* options = nullptr;
    // TODO(mount table): mtab_options(&options, mount_flags, mask)

    struct stat st;
    if (stat(MOUNT_POINT, &st) != 0)
        fatal_errno(MOUNT_POINT);

    odm_mount_args args{};
    args.version = ODM_MOUNT_ARGS_VERSION;
    args.size = sizeof args;
    args.requested = mask;
    args.available = OPT_ALL_MODES;

    const int result = do_mount(MOUNT_SOURCE, MOUNT_POINT, mount_flags, MOUNT_TYPE, &args,
                                sizeof args, options);

    const int mount_errno = errno;
    // TODO(mount table): mtab_add(result) — the entry is written, or the
    // table closed, before a failure is reported.
    errno = mount_errno;
    if (result != 0)
        fatal_errno(MOUNT_POINT);

    // TODO(post-mount): run_readconfig(); then exit with 0 or 255 after
    // cluster_switch_on(MOUNT_POINT).
    std::exit(0);
}
