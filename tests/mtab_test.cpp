#include "mount/mtab.h"

#include <gtest/gtest.h>

#include "mount/mount_opts.h"

namespace {

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

}  // namespace
