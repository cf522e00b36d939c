// The helper as installed, found and run by util-linux mount(8) in the
// three ways administrators use it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "sandbox_run.h"

namespace {

class ClientE2eTest : public SandboxTest {
protected:
    // Installed once, stripped, the way the package ships it.
    static std::string installed_helper()
    {
        static const std::string path = [] {
            // Per process: CTest may run these side by side.
            const std::string root =
                testing::TempDir() + "client_e2e_root." + std::to_string(getpid());
            const std::string cmd = "rm -rf '" + root + "' && DESTDIR='" + root + "' '" +
                                    CMAKE_COMMAND + "' --install '" + BUILD_DIR +
                                    "' --prefix /usr --strip >/dev/null";
            // NOLINTNEXTLINE(cert-env33-c): our own install command
            return std::system(cmd.c_str()) == 0 ? root + "/usr/sbin/mount.qeodmfs" : "";
        }();
        return path;
    }

    void SetUp() override
    {
        SandboxTest::SetUp();
        if (!IsSkipped()) {
            ASSERT_NE(installed_helper(), "") << "cmake --install failed";
        }
    }

    static sandbox_result mount(const std::string& script)
    {
        return run_sandbox({"--helper", installed_helper()}, {"sh", "-c", script});
    }

    // What each of the three must come to: our record, our table line.
    static void expect_mounted(const sandbox_result& r, std::uint64_t requested)
    {
        EXPECT_EQ(r.status, 0) << r.err;
        ASSERT_EQ(r.report["mounts"].size(), 1u) << r.err;
        const nlohmann::json& m = r.report["mounts"][0];
        EXPECT_EQ(m["source"], "none");
        EXPECT_EQ(m["target"], "/dev/odm");
        EXPECT_EQ(m["type"], "qeodmfs");
        EXPECT_EQ(m["flags"], 0);
        EXPECT_EQ(m["data"]["requested"], requested);
        EXPECT_EQ(m["data"]["available"], 0x4b);
        // mount(8) puts "rw" in front of the options it hands over.
        EXPECT_EQ(r.report["mtab"]["content"], "none /dev/odm qeodmfs rw,cluster,smartsync 0 0\n");
        EXPECT_EQ(r.report["control"]["content"], "on");
    }
};

constexpr char FSTAB_LINE[] = "echo 'none /dev/odm qeodmfs cluster,wait 0 0' >>/etc/fstab; ";

TEST_F(ClientE2eTest, MountByType)
{
    expect_mounted(mount("mount -t qeodmfs -o cluster none /dev/odm"), 0x2);
}

TEST_F(ClientE2eTest, MountFromFstab)
{
    expect_mounted(mount(std::string(FSTAB_LINE) + "mount /dev/odm"), 0x6);
}

TEST_F(ClientE2eTest, MountAllOfTheType)
{
    expect_mounted(mount(std::string(FSTAB_LINE) + "mount -a -t qeodmfs"), 0x6);
}

}  // namespace
