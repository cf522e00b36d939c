#include "mount/mtab.h"

#include <gtest/gtest.h>

#include <string>

#include "mount/mount_opts.h"

namespace {

std::string options_for(std::uint64_t mask, int rw = 0)
{
    rw_given = rw;
    int mount_flags = 0;
    const char* options = nullptr;
    mtab_options(&options, mount_flags, mask);
    EXPECT_EQ(mount_flags, 0);
    return options;
}

TEST(MtabOptions, WordsComeInTableOrder)
{
    EXPECT_EQ(options_for(0), "smartsync");
    EXPECT_EQ(options_for(OPT_CLUSTER), "cluster,smartsync");
    EXPECT_EQ(options_for(OPT_NOSMARTSYNC | OPT_EXCLUSIVE, 1), "rw,exclusive,nosmartsync");
    EXPECT_EQ(options_for(OPT_SMARTSYNC | OPT_CLUSTER_BYPASS, 1), "rw,cluster_bypass,smartsync");
    EXPECT_EQ(options_for(OPT_NOCLUSTER | OPT_SMARTSYNC), "nocluster,smartsync");
    // Not a valid combination, but the builder does not judge.
    EXPECT_EQ(options_for(0x7f), "nocluster,cluster,exclusive,cluster_bypass,nosmartsync,smartsync");
}

TEST(MtabOptions, WaitIsNeverWritten)
{
    EXPECT_EQ(options_for(OPT_WAIT), "smartsync");
    EXPECT_EQ(options_for(OPT_WAIT | OPT_CLUSTER, 1), "rw,cluster,smartsync");
    for (std::uint64_t mask = 0; mask < 0x80; ++mask)
        EXPECT_EQ(options_for(mask).find("wait"), std::string::npos) << mask;
}

TEST(MtabOptions, RebuildsFromScratchEachCall)
{
    EXPECT_EQ(options_for(OPT_EXCLUSIVE | OPT_NOSMARTSYNC, 1), "rw,exclusive,nosmartsync");
    EXPECT_EQ(options_for(OPT_CLUSTER), "cluster,smartsync");
}

}  // namespace
