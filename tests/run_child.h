// Runs part of the helper, or another program, in a forked child that may
// exit or change process-wide state as it likes.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

struct child_result {
    int status = -1;  // the exit status, 128 + N for signal N
    std::string out, err;
};

inline std::string drain(int fd)
{
    std::string text;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<std::size_t>(n));
    close(fd);
    return text;
}

// The child exits with what f returns, if it returns. Its output is
// appended, so that processes sharing it cannot overwrite each other.
template <class F>
child_result in_child(F f)
{
    std::fflush(nullptr);
    const int out = memfd_create("stdout", MFD_CLOEXEC);
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        fcntl(STDOUT_FILENO, F_SETFL, O_APPEND);
        fcntl(STDERR_FILENO, F_SETFL, O_APPEND);
        // The parent's static destructors and exit handlers are not the child's to run.
        const int status = f();
        std::fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), drain(out),
            drain(err)};
}
