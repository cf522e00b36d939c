// mount(2) of qeodmfs on /dev/odm as another caller might: a record of the
// VERSION and SIZE given, or no data at all. Prints the outcome.
// --link-errno N PROGRAM ARGS...: PROGRAM with link(2) failing with errno N.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

int main(int argc, char** argv)
{
    if (argc > 3 && std::strcmp(argv[1], "--link-errno") == 0) {
        sock_filter filter[] = {
            {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
            {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_link},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(strtoul(argv[2], nullptr, 10))},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
        };
        const sock_fprog program{std::size(filter), filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0)
            execv(argv[3], argv + 3);
        return 127;
    }
    std::uint32_t record[8] = {};  // version, size, then nothing the module checks
    for (int i = 1; i < argc && i <= 2; ++i)
        record[i - 1] = static_cast<std::uint32_t>(strtoul(argv[i], nullptr, 0));
    int rc = mount("none", "/dev/odm", "qeodmfs", 0, argc > 1 ? record : nullptr);
    puts(rc == 0 ? "0" : strerrorname_np(errno));
    return rc == 0 ? 0 : 1;
}
