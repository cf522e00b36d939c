// Runs a command under the built odm-sandbox and hands back what it printed
// and what the sandbox recorded. ODM_SANDBOX_PATH comes from CMake.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <string>
#include <vector>

// NOLINTNEXTLINE(bugprone-exception-escape): its members all move without throwing
struct sandbox_result {
    int status = -1;        // COMMAND's status; 124 timed out, 125 the sandbox failed
    std::string out;        // COMMAND's standard output
    std::string err;        // COMMAND's standard error, and the sandbox's complaints
    nlohmann::json report;  // what --json wrote, null when nothing was
};

namespace sandbox_detail {

inline std::string drain(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    lseek(fd, 0, SEEK_SET);
    while ((n = read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    close(fd);
    return text;
}

}  // namespace sandbox_detail

// Runs `odm-sandbox --quiet --json FILE OPTIONS -- COMMAND`, with standard
// input from /dev/null.
inline sandbox_result run_sandbox(const std::vector<std::string>& options,
                                  const std::vector<std::string>& command)
{
    std::string json_path = testing::TempDir() + "odm-sandbox-XXXXXX";
    int json_fd = mkstemp(json_path.data());
    if (json_fd >= 0)
        close(json_fd);
    std::vector<std::string> args{ODM_SANDBOX_PATH, "--quiet", "--json", json_path};
    args.insert(args.end(), options.begin(), options.end());
    args.emplace_back("--");
    args.insert(args.end(), command.begin(), command.end());
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    sandbox_result r;
    // Appending: a memfd's offset is not locked like a file's, and helpers
    // running at once would overwrite each other's lines.
    int out = memfd_create("stdout", MFD_CLOEXEC);
    int err = memfd_create("stderr", MFD_CLOEXEC);
    fcntl(out, F_SETFL, O_APPEND);
    fcntl(err, F_SETFL, O_APPEND);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid;
    int status = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 &&
        waitpid(pid, &status, 0) == pid)
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    posix_spawn_file_actions_destroy(&actions);
    r.out = sandbox_detail::drain(out);
    r.err = sandbox_detail::drain(err);
    int fd = open(json_path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string text = fd < 0 ? "" : sandbox_detail::drain(fd);
    unlink(json_path.c_str());
    r.report = nlohmann::json::parse(text, nullptr, false);
    if (r.report.is_discarded())
        r.report = nullptr;
    return r;
}

// Whether this machine can give us a sandbox at all, found out once.
struct sandbox_probe {
    bool works = false;
    bool denied = false;  // by the kernel or its settings, not by a fault of ours
    std::string why;
};

inline const sandbox_probe& probe_sandbox()
{
    static const sandbox_probe probe = [] {
        sandbox_result r = run_sandbox({}, {"true"});
        sandbox_probe p;
        p.works = r.status == 0;
        p.denied = r.err.find("cannot provide a sandbox") != std::string::npos;
        p.why = r.err;
        return p;
    }();
    return probe;
}

// One fresh sandbox per run; every test skips where the kernel cannot
// provide one (no user namespaces for a non-root user, say), and fails
// where the sandbox itself is broken.
class SandboxTest : public testing::Test {
protected:
    void SetUp() override
    {
        const sandbox_probe& p = probe_sandbox();
        if (p.works)
            return;
        if (p.denied)
            GTEST_SKIP() << "no sandbox on this machine: " << p.why;
        FAIL() << "odm-sandbox does not work: " << p.why;
    }
};
