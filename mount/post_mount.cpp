#include "mount/post_mount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "msg/msg.h"

namespace {

constexpr char TOOL_PATH[] = "/opt/KELD/bin/tolvane";

}  // namespace

void run_readconfig()
{
    struct stat st;
    if (stat(TOOL_PATH, &st) != 0)
        return;  // the tool is optional

    const pid_t pid = fork();
    if (pid < 0) {
        warn("ODM:mount:10:could not fork %s", TOOL_PATH);
        return;
    }
    if (pid > 0) {
        // That child alone: the caller may have left others to us.
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return;
    }
    execl(TOOL_PATH, TOOL_PATH, "readconfig", static_cast<char*>(nullptr));
    // No _exit here: a child whose exec failed carries on like the parent,
    // and so writes the switch too.
}

int cluster_switch_on(const char* dir)
{
    char path[4096];
    std::snprintf(path, sizeof path, "%s/cluster", dir);

    // The errno returned is the one the warning leaves, not the cause.
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        warn("ODM:mount:7:could not open %s", path);
        return errno;
    }
    if (write(fd, "on", 2) < 2) {
        warn("ODM:mount:8:could not write %s", path);
        // Left open: the helper exits straight after.
        // cppcheck-suppress resourceLeak
        return errno;
    }
    close(fd);
    return 0;
}
