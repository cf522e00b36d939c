// mount(2) of qeodmfs on /dev/odm as another caller might: a record of the
// VERSION and SIZE given, or no data at all. Prints the outcome.
#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    std::uint32_t record[8] = {};  // version, size, then nothing the module checks
    for (int i = 1; i < argc && i <= 2; ++i)
        record[i - 1] = static_cast<std::uint32_t>(strtoul(argv[i], nullptr, 0));
    int rc = mount("none", "/dev/odm", "qeodmfs", 0, argc > 1 ? record : nullptr);
    puts(rc == 0 ? "0" : strerrorname_np(errno));
    return rc == 0 ? 0 : 1;
}
