// The option parsers, each run in a child: they exit, and they change
// process-wide state (getopt's, rw_given, the environment). Then the
// options string of the table's entry, and the control file's write.
#include "mount/mount_opts.h"
#include "mount/mtab.h"
#include "mount/post_mount.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "run_child.h"

namespace {

const std::string USAGE = "ODM mount ERROR T-41-1-0-0-4 usage: mount.qeodmfs "
                          "[-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";
const std::string UNKNOWN = "ODM mount WARNING T-41-1-0-0-6 unrecognized option ";
const std::string CONFLICT = "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: ";

// "mount.qeodmfs ARGS" with QEODM_MOUNT_OPTS=ENV (nullptr: unset), as main
// parses them; a run that goes on prints the mask, rw_given and what is left
// of the variable.
TEST(MountOptsTest, CommandLineAndEnvironment)
{
    const struct {
        std::vector<std::string> args;
        std::string out, err;
        const char* env;
        int status;
    } cases[] = {
        // Each word's bit, "wait" beside every other. Values and an empty
        // last word are ignored, as are ro and noauto.
        {{"-o", "nocluster,wait"}, "0x5 rw=0 -\n", "", nullptr, 0},
        {{"-o", "exclusive=1,ro,noauto,wait"}, "0x44 rw=0 -\n", "", nullptr, 0},
        {{"-o", "cluster_bypass,wait,wait"}, "0xc rw=0 -\n", "", nullptr, 0},
        {{"-o", "wait,nosmartsync,rw"}, "0x24 rw=1 -\n", "", nullptr, 0},
        {{"-o", "smartsync,cluster=yes,wait,"}, "0x16 rw=0 -\n", "", nullptr, 0},
        {{"-o", ""}, "0x0 rw=0 \n", "", "", 0},
        // Every -o, then the variable, which is cut in place. Other letters
        // and operands are ignored.
        {{"-n", "-r", "-v", "-t", "ext4", "none", "/dev/odm", "-o", "wait", "-o", "rw"},
         "0x1c rw=1 cluster_bypass\n", "", "cluster_bypass,smartsync", 0},
        // Early exits: nothing after them is looked at.
        {{"-h"}, USAGE, "", nullptr, 0},
        {{"-x"}, USAGE, "mount.qeodmfs: invalid option -- 'x'\n", nullptr, 0},
        {{"-L", "-o", "bogus"}, "", "", nullptr, 0},
        {{"-o", "cluster,remount,bogus"}, "", "", "bogus", 0},
        {{"-o", "cluster,bogus=1,wait"}, "", UNKNOWN + "bogus=1\n" + USAGE, nullptr, 255},
        {{"-o", ",cluster"}, "", UNKNOWN + "\n" + USAGE, nullptr, 255},
        {{"-o", "cluster,\xc3\xa9"}, "", UNKNOWN + "\xc3\xa9\n" + USAGE, nullptr, 255},
        // Conflicts name both rows in table order, whatever the sources.
        {{"-o", "cluster"}, "", CONFLICT + "'nocluster' and 'cluster'\n", "nocluster", 255},
        {{"-o", "exclusive,nocluster"}, "", CONFLICT + "'nocluster' and 'exclusive'\n", nullptr, 255},
        {{"-o", "cluster_bypass,nocluster"}, "", CONFLICT + "'nocluster' and 'cluster_bypass'\n", nullptr, 255},
        {{"-o", "exclusive,cluster"}, "", CONFLICT + "'cluster' and 'exclusive'\n", nullptr, 255},
        {{"-o", "cluster_bypass,cluster"}, "", CONFLICT + "'cluster' and 'cluster_bypass'\n", nullptr, 255},
        {{"-o", "cluster_bypass,wait,exclusive"}, "", CONFLICT + "'exclusive' and 'cluster_bypass'\n", nullptr, 255},
        {{"-o", "smartsync,nosmartsync"}, "", CONFLICT + "'nosmartsync' and 'smartsync'\n", nullptr, 255},
    };
    for (const auto& c : cases) {
        const child_result r = in_child([&] {
            c.env ? setenv("QEODM_MOUNT_OPTS", c.env, 1) : unsetenv("QEODM_MOUNT_OPTS");
            prog_name = "mount.qeodmfs";
            std::vector<std::string> args = c.args;
            args.insert(args.begin(), prog_name);
            std::vector<char*> argv;
            argv.reserve(args.size() + 1);
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            check_table();
            const std::uint64_t mask = parse_args(static_cast<int>(args.size()), argv.data());
            check_conflicts(mask);
            const char* left = std::getenv("QEODM_MOUNT_OPTS");
            std::printf("0x%" PRIx64 " rw=%d %s\n", mask, rw_given, left ? left : "-");
            return 0;
        });
        EXPECT_EQ(std::tuple(r.status, r.out, r.err), std::tuple(c.status, c.out, c.err))
            << testing::PrintToString(c.args) << " " << (c.env ? c.env : "-");
    }
}

// A row numbered below its place, and one numbered above it.
TEST(MountOptsTest, ADamagedTableIsRefused)
{
    for (const auto& damage : {std::pair{ROW_RO, ROW_RW}, std::pair{ROW_RW, ROW_RO}}) {
        const child_result r = in_child([damage] {
            auto table = mount_opts;
            table[damage.first].index = damage.second;
            check_table(table);
            return 0;
        });
        EXPECT_EQ(std::pair(r.status, r.err),
                  std::pair(255, std::string("ODM mount ERROR T-41-1-0-0-5 sanity check fails\n")));
    }
}

// Table order whatever the mask, no "wait", smartsync by default; longest
// first, so that each row shows the string built afresh.
TEST(MtabOptionsTest, WordsComeInTableOrder)
{
    const struct {
        const char* words;
        std::uint64_t mask;
        int rw;
    } cases[] = {
        {"nocluster,cluster,exclusive,cluster_bypass,nosmartsync,smartsync", 0x7f, 0},
        {"rw,cluster_bypass,smartsync", 0x1c, 1}, {"rw,exclusive,nosmartsync", 0x60, 1},
        {"cluster,smartsync", 0x2, 0}, {"smartsync", 0x4, 0},
    };
    for (const auto& c : cases) {
        rw_given = c.rw;
        int mount_flags = 0;
        const char* options = nullptr;
        mtab_options(&options, mount_flags, c.mask);
        EXPECT_STREQ(options, c.words);
        EXPECT_EQ(mount_flags, 0);
    }
}

// A file-size limit of 1 byte cuts "on" short after its first; the warning
// goes through a pipe, which no such limit cuts.
TEST(PostMountTest, SwitchCutShortIsWarnedAbout)
{
    std::string dir = testing::TempDir() + "switch-XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    const std::string file = dir + "/cluster";
    close(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const child_result r = in_child([&] {
        int err[2];
        rlimit limit{};
        if (pipe(err) != 0 || dup2(err[1], STDERR_FILENO) < 0 || getrlimit(RLIMIT_FSIZE, &limit))
            return -1;
        const rlimit one{1, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &one);
        const int status = cluster_switch_on(dir.c_str());
        setrlimit(RLIMIT_FSIZE, &limit);
        close(err[1]);
        close(STDERR_FILENO);
        std::fputs(drain(err[0]).c_str(), stdout);
        return status;
    });
    EXPECT_EQ(std::tuple(r.status, r.out, drain(open(file.c_str(), O_RDONLY | O_CLOEXEC))),
              std::tuple(EBADF, "ODM mount WARNING T-41-1-0-0-8 could not write " + file + "\n", "o"));
    unlink(file.c_str());
    rmdir(dir.c_str());
}

}  // namespace
