// A caller for odm-sandbox's own tests: one system call per run, and its
// outcome on stdout, so that a test sees exactly what the sandbox answered.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

int outcome(const char* call, long result)
{
    if (result < 0)
        printf("%s: %s\n", call, strerrorname_np(errno));
    else
        printf("%s: %ld\n", call, result);
    return result < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && strcmp(argv[1], "mount") == 0) {
        struct {
            std::uint32_t version, size;
            std::uint64_t requested, available;
            unsigned char reserved[8];
        } record{2, 32, strtoull(argv[3], nullptr, 0), 0x4b, {}};
        return outcome("mount", mount("none", argv[2], "qeodmfs", 0, &record));
    }
    if (argc == 4 && strcmp(argv[1], "write") == 0) {
        int fd = open(argv[2], O_RDWR);
        if (fd < 0)
            return outcome("open", -1);
        // One write, never retried: a short count is the point.
        return outcome("write", write(fd, argv[3], strlen(argv[3])));
    }
    if (argc == 3 && strcmp(argv[1], "sleep") == 0) {
        timespec ts{std::strtol(argv[2], nullptr, 10), 0};
        return outcome("sleep", nanosleep(&ts, nullptr));
    }
    fputs("usage: sandbox_probe mount DIR REQUESTED | write FILE TEXT | sleep SECONDS\n", stderr);
    return 2;
}
