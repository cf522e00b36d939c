// The option parsers, the table's options string and the control file's write. What exits
// or changes getopt's state, rw_given or the environment runs in a child.
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

std::string clash(const std::string& first, const std::string& second)
{
    return "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: '" + first + "' and '" + second +
           "'\n";
}

// "mount.qeodmfs ARGS" with QEODM_MOUNT_OPTS=ENV (nullptr: unset), as main parses them; a
// run that goes on prints the mask, rw_given, what is left of ENV and the options string.
TEST(MountOptsTest, CommandLineAndEnvironment)
{
    const struct {
        std::vector<std::string> args;
        std::string out, err;
        int status;
        const char* env = nullptr;
    } cases[] = {
        // Each word's bit, "wait" beside every other; values, an empty last word, ro and noauto
        // are ignored. The table's words: rw first, then table order, smartsync by default.
        {{"-o", "nocluster,wait,wait"}, "0x5 rw=0 - nocluster,smartsync\n", "", 0},
        {{"-o", "exclusive,ro,noauto,wait"}, "0x44 rw=0 - exclusive,smartsync\n", "", 0},
        {{"-o", "cluster_bypass,wait"}, "0xc rw=0 - cluster_bypass,smartsync\n", "", 0},
        {{"-o", "wait,nosmartsync,rw"}, "0x24 rw=1 - rw,nosmartsync\n", "", 0},
        {{"-o", "smartsync,cluster=yes,wait,"}, "0x16 rw=0 - cluster,smartsync\n", "", 0},
        {{"-o", ""}, "0x0 rw=0  smartsync\n", "", 0, ""},
        // Every -o, then the variable, which is cut in place; other letters and operands ignored.
        {{"-n", "-r", "-v", "-t", "ext4", "none", "/dev/odm", "-o", "wait", "-o", "rw"},
         "0x1c rw=1 cluster_bypass rw,cluster_bypass,smartsync\n",
         "",
         0,
         "cluster_bypass,smartsync"},
        // Early exits: nothing after them is looked at.
        {{"-h"}, USAGE, "", 0},
        {{"-x"}, USAGE, "mount.qeodmfs: invalid option -- 'x'\n", 0},
        {{"-L", "-o", "bogus"}, "", "", 0},
        {{"-o", "cluster,remount,bogus"}, "", "", 0, "bogus"},
        {{"-o", "cluster,bogus=1,wait"}, "", UNKNOWN + "bogus=1\n" + USAGE, 255},
        {{"-o", ",cluster"}, "", UNKNOWN + "\n" + USAGE, 255},
        {{"-o", "cluster,\xc3\xa9"}, "", UNKNOWN + "\xc3\xa9\n" + USAGE, 255},
        // Conflicts name both rows in table order, whatever the sources.
        {{"-o", "cluster"}, "", clash("nocluster", "cluster"), 255, "nocluster"},
        {{"-o", "exclusive,nocluster"}, "", clash("nocluster", "exclusive"), 255},
        {{"-o", "cluster_bypass,nocluster"}, "", clash("nocluster", "cluster_bypass"), 255},
        {{"-o", "exclusive,cluster"}, "", clash("cluster", "exclusive"), 255},
        {{"-o", "cluster_bypass,cluster"}, "", clash("cluster", "cluster_bypass"), 255},
        {{"-o", "cluster_bypass,exclusive"}, "", clash("exclusive", "cluster_bypass"), 255},
        {{"-o", "smartsync,nosmartsync"}, "", clash("nosmartsync", "smartsync"), 255},
    };
    for (const auto& c : cases) {
        const child_result r = in_child([&] {
            c.env ? setenv("QEODM_MOUNT_OPTS", c.env, 1) : unsetenv("QEODM_MOUNT_OPTS");
            char prog[] = "mount.qeodmfs";
            prog_name = prog;
            std::vector<std::string> args = c.args;
            std::vector<char*> argv{prog};
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            check_table();
            const std::uint64_t mask = parse_args(static_cast<int>(argv.size() - 1), argv.data());
            check_conflicts(mask);
            int mount_flags = 0;
            const char* words = nullptr;
            mtab_options(&words, mount_flags, mask);
            const char* left = std::getenv("QEODM_MOUNT_OPTS");
            std::printf("0x%" PRIx64 " rw=%d %s %s\n", mask, rw_given, left ? left : "-", words);
            return mount_flags;
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

// Every word in table order, though no run of the parsers sets them all.
TEST(MtabOptionsTest, WordsComeInTableOrder)
{
    int mount_flags = 0;
    const char* words = nullptr;
    mtab_options(&words, mount_flags, 0x7f);
    EXPECT_STREQ(words, "nocluster,cluster,exclusive,cluster_bypass,nosmartsync,smartsync");
}

// A file-size limit of 1 byte cuts "on" short after its first; the warning
// goes through a pipe, which no such limit cuts.
TEST(PostMountTest, SwitchCutShortIsWarnedAbout)
{
    std::string dir = testing::TempDir() + "switch-XXXXXX";
    int err[2];
    ASSERT_TRUE(mkdtemp(dir.data()) != nullptr && pipe(err) == 0);
    const std::string file = dir + "/cluster";
    close(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const child_result r = in_child([&] {
        const rlimit one{1, 1};
        dup2(err[1], STDERR_FILENO);
        setrlimit(RLIMIT_FSIZE, &one);
        return cluster_switch_on(dir.c_str());
    });
    close(err[1]);
    const std::string warning = "ODM mount WARNING T-41-1-0-0-8 could not write " + file + "\n";
    EXPECT_EQ(std::tuple(r.status, drain(err[0]), drain(open(file.c_str(), O_RDONLY | O_CLOEXEC))),
              std::tuple(EBADF, warning, "o"));
    unlink(file.c_str());
    rmdir(dir.c_str());
}

}  // namespace
