// mount(2) of qeodmfs on /dev/odm as another caller might: a record of the
// VERSION and SIZE given, or no data at all. Prints the outcome.
// --errno link|lstat|close N PROGRAM ARGS...: PROGRAM with link(2), lstat(2),
// or close(2) of a descriptor above 2, failing with errno N.
#include <fcntl.h>
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
    // lstat is newfstatat that does not follow links; the loader's fstat passes
    // AT_EMPTY_PATH. A link needs no second look: nr again. The loader gives up on a
    // failed close, which a caller that closed standard input makes it do on 0.
    const struct {
        const char* name;
        std::uint32_t nr, arg, test, value;
    } calls[] = {
        {"link", SYS_link, offsetof(seccomp_data, nr), BPF_JEQ, SYS_link},
        {"lstat", SYS_newfstatat, offsetof(seccomp_data, args[3]), BPF_JEQ, AT_SYMLINK_NOFOLLOW},
        {"close", SYS_close, offsetof(seccomp_data, args[0]), BPF_JGE, 3},
    };
    for (const auto& c : calls) {
        if (argc < 5 || std::strcmp(argv[1], "--errno") != 0 || std::strcmp(argv[2], c.name) != 0)
            continue;
        const auto err = static_cast<std::uint32_t>(strtoul(argv[3], nullptr, 10));
        sock_filter filter[] = {
            {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
            {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, c.nr},
            {BPF_LD | BPF_W | BPF_ABS, 0, 0, c.arg},
            {static_cast<std::uint16_t>(BPF_JMP | BPF_K | c.test), 0, 1, c.value},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | err},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
        };
        const sock_fprog program{std::size(filter), filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0)
            execv(argv[4], argv + 4);
        return 127;
    }
    std::uint32_t record[8] = {};  // version, size, then nothing the module checks
    for (int i = 1; i < argc && i <= 2; ++i)
        record[i - 1] = static_cast<std::uint32_t>(strtoul(argv[i], nullptr, 0));
    int rc = mount("none", "/dev/odm", "qeodmfs", 0, argc > 1 ? record : nullptr);
    puts(rc == 0 ? "0" : strerrorname_np(errno));
    return rc == 0 ? 0 : 1;
}
