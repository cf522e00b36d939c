#include "mount/mount_opts.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::Eq;
using testing::ExitedWithCode;

constexpr char USAGE[] =
    "ODM mount ERROR T-41-1-0-0-4 usage: mount.qeodmfs "
    "[-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

// Inside a death test only stderr is captured; these choose which of the
// child's two streams reaches it.
void show_stdout_only()
{
    std::fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
}

void show_stderr_only()
{
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
}

class MountOptsTest : public testing::Test {
protected:
    void SetUp() override
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        prog_name = "mount.qeodmfs";
        rw_given = 0;
        optind = 0;  // glibc's full getopt reset
        opterr = 1;
        unsetenv("QEODM_MOUNT_OPTS");
        check_table();
    }

    static std::uint64_t subopts(const char* text)
    {
        std::string copy = text;
        std::uint64_t mask = 0;
        parse_subopts(copy.data(), mask);
        return mask;
    }

    static std::uint64_t args(std::vector<std::string> words)
    {
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (auto& w : words)
            argv.push_back(w.data());
        argv.push_back(nullptr);
        return parse_args(static_cast<int>(words.size()), argv.data());
    }
};

using MountOptsDeathTest = MountOptsTest;

TEST_F(MountOptsTest, EachWordSetsItsRowsFlag)
{
    for (const mount_opt& opt : mount_opts) {
        if (opt.index == ROW_REMOUNT)
            continue;
        rw_given = 0;
        EXPECT_EQ(subopts(opt.name), opt.flag) << opt.name;
        EXPECT_EQ(rw_given, opt.index == ROW_RW ? 1 : 0) << opt.name;
    }
    EXPECT_EQ(subopts("cluster,wait,smartsync"), OPT_CLUSTER | OPT_WAIT | OPT_SMARTSYNC);
    EXPECT_EQ(subopts("wait,wait"), OPT_WAIT);
    EXPECT_EQ(subopts("rw,ro,noauto"), 0u);
    EXPECT_EQ(rw_given, 1);
}

TEST_F(MountOptsTest, EmptyTextsAndValuesAreHarmless)
{
    EXPECT_EQ(subopts(""), 0u);
    EXPECT_EQ(subopts("cluster,"), OPT_CLUSTER);
    EXPECT_EQ(subopts("wait=3,cluster=yes"), OPT_WAIT | OPT_CLUSTER);
}

TEST_F(MountOptsTest, ParsesInPlace)
{
    char text[] = "exclusive,wait";
    std::uint64_t mask = 0;
    parse_subopts(text, mask);
    EXPECT_EQ(mask, OPT_EXCLUSIVE | OPT_WAIT);
    EXPECT_STREQ(text, "exclusive");
}

TEST_F(MountOptsTest, ScanStopsWhereTheParseWouldLeave)
{
    char text[] = "wait,rw,cluster=1,bogus=1,exclusive";
    std::uint64_t mask = 0;
    const char* unknown = nullptr;
    EXPECT_EQ(scan_subopts(text, mask, unknown), subopt_stop::unknown);
    EXPECT_STREQ(unknown, "bogus=1");
    EXPECT_EQ(mask, OPT_WAIT | OPT_CLUSTER);
    EXPECT_EQ(rw_given, 1);

    char again[] = "nocluster,remount,exclusive";
    mask = 0;
    EXPECT_EQ(scan_subopts(again, mask, unknown), subopt_stop::remount);
    EXPECT_EQ(mask, OPT_NOCLUSTER);
}

TEST_F(MountOptsTest, CommandLineThenEnvironment)
{
    EXPECT_EQ(args({"m", "-o", "cluster", "-o", "wait", "-n", "-r", "-v", "-t", "ext4"}),
              OPT_CLUSTER | OPT_WAIT);

    // Operands are skipped wherever they stand, as mount(8) passes them.
    optind = 0;
    EXPECT_EQ(args({"m", "none", "/dev/odm", "-o", "rw,nosmartsync"}), OPT_NOSMARTSYNC);
    EXPECT_EQ(rw_given, 1);

    // The environment's own storage is cut by getsubopt.
    optind = 0;
    setenv("QEODM_MOUNT_OPTS", "exclusive,smartsync", 1);
    EXPECT_EQ(args({"m", "-o", "wait"}), OPT_WAIT | OPT_EXCLUSIVE | OPT_SMARTSYNC);
    EXPECT_STREQ(getenv("QEODM_MOUNT_OPTS"), "exclusive");

    optind = 0;
    setenv("QEODM_MOUNT_OPTS", "", 1);
    EXPECT_EQ(args({"m"}), 0u);
}

TEST_F(MountOptsDeathTest, UsageGoesToStdoutOnlyWhenAskedFor)
{
    EXPECT_EXIT((show_stdout_only(), args({"mount.qeodmfs", "-h"})), ExitedWithCode(0), Eq(USAGE));
    EXPECT_EXIT((show_stdout_only(), args({"mount.qeodmfs", "-?"})), ExitedWithCode(0), Eq(USAGE));
    EXPECT_EXIT((show_stderr_only(), args({"mount.qeodmfs", "-h"})), ExitedWithCode(0), Eq(""));
    // getopt complains on stderr, then the usage still goes to stdout.
    EXPECT_EXIT((show_stdout_only(), args({"mount.qeodmfs", "-x"})), ExitedWithCode(0), Eq(USAGE));
    EXPECT_EXIT((show_stderr_only(), args({"mount.qeodmfs", "-x"})), ExitedWithCode(0),
                Eq("mount.qeodmfs: invalid option -- 'x'\n"));
    EXPECT_EXIT((show_stdout_only(), args({"mount.qeodmfs", "-o"})), ExitedWithCode(0), Eq(USAGE));
    EXPECT_EXIT((show_stderr_only(), usage(1)), ExitedWithCode(1), Eq(USAGE));
    EXPECT_EXIT((show_stderr_only(), usage(2)), ExitedWithCode(2), Eq(USAGE));
}

TEST_F(MountOptsDeathTest, EarlyExitsPrintNothing)
{
    EXPECT_EXIT(args({"m", "-L", "-o", "bogus"}), ExitedWithCode(0), Eq(""));
    // Nothing after remount is looked at, the environment included.
    setenv("QEODM_MOUNT_OPTS", "bogus", 1);
    EXPECT_EXIT((show_stdout_only(), args({"m", "-o", "cluster,remount,bogus"})),
                ExitedWithCode(0), Eq(""));
    EXPECT_EXIT(args({"m", "-o", "cluster,remount,bogus"}), ExitedWithCode(0), Eq(""));
}

TEST_F(MountOptsDeathTest, UnknownSuboptionWarnsThenUsage)
{
    const std::string tail = std::string(USAGE);
    EXPECT_EXIT(subopts("cluster,bogus=1,wait"), ExitedWithCode(255),
                Eq("ODM mount WARNING T-41-1-0-0-6 unrecognized option bogus=1\n" + tail));
    EXPECT_EXIT(subopts("clust"), ExitedWithCode(255),
                Eq("ODM mount WARNING T-41-1-0-0-6 unrecognized option clust\n" + tail));
    EXPECT_EXIT(subopts(",cluster"), ExitedWithCode(255),
                Eq("ODM mount WARNING T-41-1-0-0-6 unrecognized option \n" + tail));
    EXPECT_EXIT(subopts("cluster,,wait"), ExitedWithCode(255),
                Eq("ODM mount WARNING T-41-1-0-0-6 unrecognized option \n" + tail));
    EXPECT_EXIT((show_stdout_only(), subopts("bogus")), ExitedWithCode(255), Eq(""));
}

TEST_F(MountOptsDeathTest, ConflictNamesFollowTableOrder)
{
    const auto conflict = [](const char* a, const char* b) {
        return "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: '" + std::string(a) +
               "' and '" + b + "'\n";
    };
    EXPECT_EXIT(check_conflicts(subopts("exclusive,cluster")), ExitedWithCode(255),
                Eq(conflict("cluster", "exclusive")));
    EXPECT_EXIT(check_conflicts(subopts("cluster,exclusive")), ExitedWithCode(255),
                Eq(conflict("cluster", "exclusive")));
    EXPECT_EXIT(check_conflicts(subopts("smartsync,nosmartsync")), ExitedWithCode(255),
                Eq(conflict("nosmartsync", "smartsync")));
    EXPECT_EXIT(check_conflicts(subopts("cluster,nocluster")), ExitedWithCode(255),
                Eq(conflict("nocluster", "cluster")));
    EXPECT_EXIT(check_conflicts(subopts("cluster_bypass,exclusive,wait")), ExitedWithCode(255),
                Eq(conflict("exclusive", "cluster_bypass")));

    // Across the two sources.
    setenv("QEODM_MOUNT_OPTS", "nocluster", 1);
    EXPECT_EXIT(check_conflicts(args({"m", "-o", "cluster"})), ExitedWithCode(255),
                Eq(conflict("nocluster", "cluster")));
}

TEST_F(MountOptsDeathTest, ConflictsAreExactlyTheExclusiveGroups)
{
    for (std::uint64_t mask = 0; mask < 0x80; ++mask) {
        const bool two_modes = std::popcount(mask & OPT_ALL_MODES) > 1;
        const bool both_syncs = (mask & OPT_SMARTSYNC) && (mask & OPT_NOSMARTSYNC);
        if (two_modes || both_syncs)
            EXPECT_EXIT(check_conflicts(mask), ExitedWithCode(255), testing::HasSubstr("conflicting"))
                << std::hex << mask;
        else
            check_conflicts(mask);  // returns
    }
}

TEST_F(MountOptsDeathTest, ADamagedTableIsRefused)
{
    auto table = mount_opts;
    std::swap(table[ROW_RW], table[ROW_RO]);
    EXPECT_EXIT(check_table(table), ExitedWithCode(255),
                Eq("ODM mount ERROR T-41-1-0-0-5 sanity check fails\n"));
}

}  // namespace
