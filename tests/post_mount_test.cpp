// The cluster switch, written into a directory of the test's own.
#include "mount/post_mount.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "run_child.h"

namespace {

// A caller that closed standard input hands descriptor 0 to the control file.
TEST(PostMountTest, SwitchOnThroughDescriptorZero)
{
    std::string dir = testing::TempDir() + "odm-XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    const std::string control = dir + "/cluster";
    close(open(control.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const child_result r = in_child([&] { return close(STDIN_FILENO) == 0 ? cluster_switch_on(dir.c_str()) : -1; });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(drain(open(control.c_str(), O_RDONLY | O_CLOEXEC)), "on");
    unlink(control.c_str());
    rmdir(dir.c_str());
}

}  // namespace
