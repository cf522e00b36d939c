// The built helper as a program, for the paths that end before it looks at
// the system: usage, -L, conflicts, unknown suboptions.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct run_result {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(std::FILE* f)
{
    std::string text;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;)
        text += static_cast<char>(c);
    std::fclose(f);
    return text;
}

run_result run_helper(std::vector<std::string> args)
{
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    args.insert(args.begin(), HELPER_PATH);
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

const std::string USAGE = std::string("ODM mount ERROR T-41-1-0-0-4 usage: ") + HELPER_PATH +
                          " [-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

TEST(Cli, UsageOnRequest)
{
    const run_result r = run_helper({"-h"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, USAGE);
    EXPECT_EQ(r.err, "");
}

TEST(Cli, LeaveAtOnce)
{
    const run_result r = run_helper({"-L", "-o", "cluster,nocluster"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST(Cli, ConflictIsRefused)
{
    const run_result r = run_helper({"-o", "exclusive,cluster"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n");
}

TEST(Cli, UnknownSuboptionIsRefused)
{
    const run_result r = run_helper({"-o", "cluster,bogus"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ODM mount WARNING T-41-1-0-0-6 unrecognized option bogus\n" + USAGE);
}

}  // namespace
