// Runs a command under the built odm-sandbox and hands back what it printed
// and what the sandbox recorded. ODM_SANDBOX_PATH comes from CMake.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "run_child.h"

// COMMAND's status (124: timed out, 125: the sandbox failed) and output,
// the sandbox's complaints on err, and what --json wrote, or null.
// NOLINTNEXTLINE(bugprone-exception-escape): its members all move without throwing
struct sandbox_result : child_result {
    nlohmann::json report;
};

// Runs `odm-sandbox --quiet --timeout 10 --json FILE OPTIONS -- COMMAND` with
// standard input from /dev/null. FILE lies in TempDir, which CTest puts in the build tree.
inline sandbox_result run_sandbox(const std::vector<std::string>& options,
                                  const std::vector<std::string>& command)
{
    std::string path = testing::TempDir() + "odm-sandbox-XXXXXX";
    close(mkstemp(path.data()));
    std::vector<std::string> args{ODM_SANDBOX_PATH, "--quiet", "--timeout", "10", "--json", path};
    args.insert(args.end(), options.begin(), options.end());
    args.emplace_back("--");
    args.insert(args.end(), command.begin(), command.end());
    child_result r = in_child([&] {
        std::vector<char*> argv;
        argv.reserve(args.size() + 1);
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        close_range(3, ~0U, 0);  // what the test runner leaves open is no business of COMMAND's
        execv(argv[0], argv.data());
        return 127;
    });
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    nlohmann::json report = nlohmann::json::parse(fd < 0 ? "" : drain(fd), nullptr, false);
    unlink(path.c_str());
    if (report.is_discarded())
        report = nullptr;
    return {std::move(r), std::move(report)};
}

// One fresh sandbox per run. Every test skips where the kernel cannot provide one (no
// user namespaces for a non-root user, say), and fails where the sandbox is broken.
class SandboxTest : public testing::Test {
protected:
    void SetUp() override
    {
        static const sandbox_result probe = run_sandbox({}, {"true"});
        if (probe.status == 0)
            return;
        if (probe.err.find("cannot provide a sandbox") != std::string::npos)
            GTEST_SKIP() << "no sandbox on this machine: " << probe.err;
        FAIL() << "odm-sandbox does not work: " << probe.err;
    }
};
