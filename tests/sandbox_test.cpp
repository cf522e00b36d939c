// odm-sandbox itself: that nothing reaches the real system, and that the
// emulated module is as strict as the real one and as easy to unmount.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

// Names in the three directories, and the exact state of the files the
// helper and the scenes touch. Timestamps elsewhere are left out: other
// programs on the machine may change them meanwhile.
std::string real_system()
{
    std::set<std::string> names;
    for (const char* dir : {"/etc", "/opt", "/dev"})
        for (const auto& e : std::filesystem::directory_iterator(dir))
            names.insert(e.path());
    std::ostringstream s;
    for (const std::string& path : names)
        s << path << '\n';
    for (const char* path : {"/etc/mtab", "/etc/mtab~", "/dev/odm", "/dev/null", "/opt/KELD", "/usr/sbin/mount.qeodmfs"}) {
        struct stat st {};
        s << path << lstat(path, &st) << ' ' << st.st_mode << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.'
          << st.st_mtim.tv_nsec << '\n';
    }
    s << std::ifstream("/proc/self/mountinfo").rdbuf();
    return s.str();
}

TEST_F(SandboxTest, NothingReachesTheRealSystem)
{
    const std::string before = real_system();
    const sandbox_result r = run_sandbox(
        {"--tolvane", "/bin/true", "--helper", HELPER_PATH, "--mtab-content", "x y z 0 0\n"},
        {"sh", "-c", HELPER_PATH " -o cluster; " PROBE_PATH " 2 32; echo on > /dev/odm/cluster; umount /dev/odm;"
                     "echo x > /etc/odm-sandbox-leak; touch /etc/mtab~ /opt/odm-sandbox-leak;"
                     "mkdir -p /opt/KELD/bin /dev/scratch; touch /dev/odm-sandbox-leak /dev/null;"
                     "mount -t tmpfs scratch /dev/scratch"});
    EXPECT_NE(r.report, nullptr) << r.err;
    EXPECT_EQ(real_system(), before);
}

// The module reads a versioned binary record: text options, another
// version or size, or no data at all are refused, each recorded with what
// was read. The helper's own mount after them still succeeds.
TEST_F(SandboxTest, ModuleRefusesWhatIsNotItsRecord)
{
    const struct {
        const char* command;
        json version_and_size;  // null: no data
    } cases[] = {
        {"mount -i -t qeodmfs -o cluster none /dev/odm 2>/dev/null", {0x73756c63, 0x00726574}},  // "clus", "ter\0"
        {PROBE_PATH " 1 32", {1, 32}},
        {PROBE_PATH " 2 31", {2, 31}},
        {PROBE_PATH, nullptr},
    };
    std::string script;
    for (const auto& c : cases)
        script += std::string(c.command) + "; ";
    const sandbox_result r = run_sandbox({}, {"sh", "-c", script + HELPER_PATH " -o cluster"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "EINVAL\nEINVAL\nEINVAL\n");
    const json& mounts = r.report.at("mounts");
    ASSERT_EQ(mounts.size(), std::size(cases) + 1) << r.err;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const json& data = mounts.at(i).at("data");
        EXPECT_EQ(mounts.at(i).at("errno"), "EINVAL") << cases[i].command;
        EXPECT_EQ(data.is_null() ? json(nullptr) : json({data.at("version"), data.at("size")}), cases[i].version_and_size)
            << cases[i].command;
    }
    EXPECT_EQ(mounts.back().at("errno"), nullptr);
}

// What a user tries first: mount(8), umount(8) and mount(8) again, with the
// helper where mount(8) looks for it.
TEST_F(SandboxTest, MountUnmountAndMountAgain)
{
    const sandbox_result r =
        run_sandbox({"--helper", HELPER_PATH}, {"sh", "-c", "mount -t qeodmfs -o cluster none /dev/odm && umount /dev/odm && "
                                                            "! mountpoint -q /dev/odm && mount -t qeodmfs none /dev/odm"});
    EXPECT_EQ(r.status, 0) << r.err;
    const json& mounts = r.report.at("mounts");
    const json& unmounts = r.report.at("unmounts");
    ASSERT_EQ(mounts.size(), 2u) << r.err;
    ASSERT_EQ(unmounts.size(), 1u) << r.err;
    EXPECT_EQ(unmounts.at(0).at("handled_by"), "module");
    EXPECT_EQ(unmounts.at(0).at("errno"), nullptr);
    EXPECT_LT(mounts.at(0).at("time"), unmounts.at(0).at("time"));
    EXPECT_LT(unmounts.at(0).at("time"), mounts.at(1).at("time"));
    EXPECT_EQ(r.report.at("control").at("content"), "on");
}

// Without a control file nothing holds the module's file system once it is
// unmounted, and its device number may go to the next tmpfs: that one is
// the kernel's to unmount. Nor does the machine's product show inside.
TEST_F(SandboxTest, OnlyLiveMountsAreTheModules)
{
    const sandbox_result r = run_sandbox(
        {"--control", "missing"},
        {"sh", "-c", "test ! -e /opt/KELD && test ! -e /sbin/mount.qeodmfs && " PROBE_PATH " 2 32 && umount /dev/odm && "
                     "mount -t tmpfs scratch /dev/odm && umount /dev/odm"});
    EXPECT_EQ(r.status, 0) << r.err;
    const json& unmounts = r.report.at("unmounts");
    ASSERT_EQ(unmounts.size(), 2u) << r.err;
    EXPECT_EQ(unmounts.at(0).at("handled_by"), "module");
    EXPECT_EQ(unmounts.at(1).at("handled_by"), "kernel");
}

// A harness that is stopped must never pass: COMMAND is killed and reaped,
// and how it ended is the sandbox's status and the report's.
TEST_F(SandboxTest, TimedOutCommandIsKilled)
{
    const sandbox_result r = run_sandbox({"--timeout", "0.2"}, {"sleep", "60"});
    EXPECT_EQ(r.status, 124) << r.err;
    const json& command = r.report.at("command");
    EXPECT_EQ(command.at("status"), 124);
    EXPECT_EQ(command.at("signal"), "SIGKILL");
    EXPECT_EQ(command.at("timed_out"), true);
}

// The signal that stops the sandbox goes to COMMAND first.
TEST_F(SandboxTest, SignalledSandboxEndsWithCommandsSignal)
{
    for (auto [name, status] : {std::pair{"HUP", 129}, {"INT", 130}, {"TERM", 143}}) {
        const sandbox_result r = run_sandbox({}, {"sh", "-c", std::string("kill -") + name + " $PPID; exec sleep 60"});
        EXPECT_EQ(r.status, status) << name << r.err;
        const json& command = r.report.at("command");
        EXPECT_EQ(command.at("status"), status) << name;
        EXPECT_EQ(command.at("exit_code"), nullptr) << name;
        EXPECT_EQ(command.at("signal"), std::string("SIG") + name);
        EXPECT_EQ(command.at("interrupted_by"), std::string("SIG") + name);
    }
}

}  // namespace
