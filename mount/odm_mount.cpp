#include "mount/odm_mount.h"

#include <sys/mount.h>

int do_mount(const char* source, const char* target, int mount_flags, const char* fstype,
             const void* data, std::size_t /*data_len*/, const char* /*options*/)
{
    return mount(source, target, fstype, static_cast<unsigned long>(mount_flags), data);
}
