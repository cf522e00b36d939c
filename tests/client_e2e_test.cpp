// The helper from a plain install, found and run by util-linux mount(8).
// The install_tree test lays the staging tree down first.
#include <gtest/gtest.h>

#include "sandbox_run.h"

namespace {

class ClientE2eTest : public SandboxTest {};

TEST_F(ClientE2eTest, MountRunsTheInstalledHelper)
{
    const sandbox_result r = run_sandbox({"--helper", INSTALLED_HELPER},
                                         {"mount", "-t", "qeodmfs", "-o", "cluster", "none", "/dev/odm"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.report.at("mounts").size(), 1u) << r.err;
    EXPECT_EQ(r.report.at("mounts").at(0).at("data").at("requested"), 0x2);
    // mount(8) puts "rw" in front of the options it hands over.
    EXPECT_EQ(r.report.at("mtab").at("content"), "none /dev/odm qeodmfs rw,cluster,smartsync 0 0\n");
}

}  // namespace
