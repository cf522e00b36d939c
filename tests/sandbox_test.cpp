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
        {"--tolvane-record", "--helper", HELPER_PATH, "--mtab-content", "x y z 0 0\n"},
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

}  // namespace
