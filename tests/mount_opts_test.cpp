// The option parsers, each run in a child process: they exit, and they
// change process-wide state (getopt's, rw_given, the environment).
#include "mount/mount_opts.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "run_child.h"

namespace {

constexpr char USAGE[] = "ODM mount ERROR T-41-1-0-0-4 usage: mount.qeodmfs "
                         "[-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

// Parses the command line "mount.qeodmfs ARGS" with QEODM_MOUNT_OPTS set to
// ENV (unset for nullptr) as main does, then prints the mask, rw_given and
// what is left of the variable.
child_result parse(std::vector<std::string> args, const char* env)
{
    return in_child([&] {
        if (env != nullptr)
            setenv("QEODM_MOUNT_OPTS", env, 1);
        else
            unsetenv("QEODM_MOUNT_OPTS");
        prog_name = "mount.qeodmfs";
        args.insert(args.begin(), prog_name);
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        check_table();
        const std::uint64_t mask = parse_args(static_cast<int>(args.size()), argv.data());
        check_conflicts(mask);
        const char* left = std::getenv("QEODM_MOUNT_OPTS");
        std::printf("0x%" PRIx64 " rw=%d %s\n", mask, rw_given, left ? left : "(unset)");
        return 0;
    });
}

TEST(MountOptsTest, CommandLineAndEnvironment)
{
    const std::string unknown = "ODM mount WARNING T-41-1-0-0-6 unrecognized option ";
    const std::string conflict = "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: ";
    const struct {
        std::vector<std::string> args;
        std::string out;
        std::string err;
        const char* env;
        int status;
    } cases[] = {
        // Each word's bit. Values and the empty tail are ignored, as are ro and noauto.
        {{"-o", "nocluster"}, "0x1 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "cluster,"}, "0x2 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "exclusive=1"}, "0x40 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "cluster_bypass,ro,noauto"}, "0x8 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "wait,wait"}, "0x4 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "rw"}, "0x0 rw=1 (unset)\n", "", nullptr, 0},
        {{"-o", "nosmartsync"}, "0x20 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", "smartsync,cluster=yes"}, "0x12 rw=0 (unset)\n", "", nullptr, 0},
        {{"-o", ""}, "0x0 rw=0 \n", "", "", 0},
        // Every -o, then the environment, which is cut in place. Other
        // letters and operands are ignored.
        {{"-n", "-r", "-v", "-t", "ext4", "none", "/dev/odm", "-o", "wait", "-o", "rw"},
         "0x1c rw=1 cluster_bypass\n", "", "cluster_bypass,smartsync", 0},
        // Early exits; nothing after them is looked at.
        {{"-h"}, USAGE, "", nullptr, 0},
        {{"-x"}, USAGE, "mount.qeodmfs: invalid option -- 'x'\n", nullptr, 0},
        {{"-L", "-o", "bogus"}, "", "", nullptr, 0},
        {{"-o", "cluster,remount,bogus"}, "", "", "bogus", 0},
        {{"-o", "cluster,bogus=1,wait"}, "", unknown + "bogus=1\n" + USAGE, nullptr, 255},
        {{"-o", ",cluster"}, "", unknown + "\n" + USAGE, nullptr, 255},
        {{"-o", "cluster,\xc3\xa9"}, "", unknown + "\xc3\xa9\n" + USAGE, nullptr, 255},
        // Conflicts: both names in table order, the sources together.
        {{"-o", "cluster"}, "", conflict + "'nocluster' and 'cluster'\n", "nocluster", 255},
        {{"-o", "exclusive,nocluster"}, "", conflict + "'nocluster' and 'exclusive'\n", nullptr, 255},
        {{"-o", "cluster_bypass,nocluster"}, "", conflict + "'nocluster' and 'cluster_bypass'\n",
         nullptr, 255},
        {{"-o", "exclusive,cluster"}, "", conflict + "'cluster' and 'exclusive'\n", nullptr, 255},
        {{"-o", "cluster_bypass,cluster"}, "", conflict + "'cluster' and 'cluster_bypass'\n",
         nullptr, 255},
        {{"-o", "cluster_bypass,wait,exclusive"}, "",
         conflict + "'exclusive' and 'cluster_bypass'\n", nullptr, 255},
        {{"-o", "smartsync,nosmartsync"}, "", conflict + "'nosmartsync' and 'smartsync'\n",
         nullptr, 255},
    };
    for (const auto& c : cases) {
        std::string what = c.env ? std::string("QEODM_MOUNT_OPTS=") + c.env : "";
        for (const std::string& a : c.args)
            what += " " + a;
        const child_result r = parse(c.args, c.env);
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.out, c.out) << what;
        EXPECT_EQ(r.err, c.err) << what;
    }
}

TEST(MountOptsTest, ADamagedTableIsRefused)
{
    const child_result r = in_child([] {
        auto table = mount_opts;
        std::swap(table[ROW_RW], table[ROW_RO]);
        check_table(table);
        return 0;
    });
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "ODM mount ERROR T-41-1-0-0-5 sanity check fails\n");
}

}  // namespace
