// The built helper, run for real inside odm-sandbox: what it prints, its
// status, and the mount call the emulated module receives.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

const std::string USAGE = std::string("ODM mount ERROR T-41-1-0-0-4 usage: ") + HELPER_PATH +
                          " [-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

class E2eTest : public SandboxTest {
protected:
    static sandbox_result helper(std::vector<std::string> args,
                                 const std::vector<std::string>& scene = {})
    {
        args.insert(args.begin(), HELPER_PATH);
        return run_sandbox(scene, args);
    }
};

// The exits that come before the mount table: nothing may reach the module.
TEST_F(E2eTest, UsageOnRequest)
{
    const sandbox_result r = helper({"-h"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, USAGE);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(r.report["mounts"].empty());
}

TEST_F(E2eTest, LeaveAtOnce)
{
    const sandbox_result r = helper({"-L", "-o", "cluster,nocluster"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(r.report["mounts"].empty());
}

TEST_F(E2eTest, ConflictIsRefusedBeforeTheTableIsTouched)
{
    const sandbox_result r = helper({"-o", "exclusive,cluster"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n");
    EXPECT_TRUE(r.report["mounts"].empty());
    EXPECT_EQ(r.report["mtab"]["content"], "");
    EXPECT_TRUE(r.report["lock_files"].empty());
}

TEST_F(E2eTest, UnknownSuboptionIsRefused)
{
    const sandbox_result r = helper({"-o", "cluster,bogus"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ODM mount WARNING T-41-1-0-0-6 unrecognized option bogus\n" + USAGE);
    EXPECT_TRUE(r.report["mounts"].empty());
}

TEST_F(E2eTest, ClusterReachesTheModule)
{
    const sandbox_result r = helper({"-o", "cluster"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.report["mounts"].size(), 1u) << r.err;
    const auto& m = r.report["mounts"][0];
    EXPECT_EQ(m["source"], "none");
    EXPECT_EQ(m["target"], "/dev/odm");
    EXPECT_EQ(m["type"], "qeodmfs");
    EXPECT_EQ(m["flags"], 0);
    EXPECT_EQ(m["errno"], nullptr);
    EXPECT_EQ(m["data"]["version"], 2);
    EXPECT_EQ(m["data"]["size"], 32);
    EXPECT_EQ(m["data"]["requested"], 0x2);
    EXPECT_EQ(m["data"]["available"], 0x4b);
    // Native byte order, and nothing in the first 24 bytes but the four fields.
    EXPECT_EQ(m["data"]["hex"].get<std::string>().substr(0, 48),
              "02000000200000000200000000000000"
              "4b00000000000000");
}

// requested is the mask exactly as parsed: "wait" included, no smartsync
// default, and the environment's suboptions added to the command line's.
TEST_F(E2eTest, RequestedIsTheMaskAsParsed)
{
    const struct {
        std::vector<std::string> command;
        std::uint64_t requested;
    } cases[] = {
        {{HELPER_PATH, "-o", "wait"}, 0x4},
        {{HELPER_PATH}, 0x0},
        {{HELPER_PATH, "-o", "nosmartsync,exclusive,rw"}, 0x60},
        {{"env", "QEODM_MOUNT_OPTS=smartsync", HELPER_PATH, "-o", "nocluster"}, 0x11},
    };
    for (const auto& c : cases) {
        const sandbox_result r = run_sandbox({}, c.command);
        ASSERT_EQ(r.report["mounts"].size(), 1u) << c.command.back() << ": " << r.err;
        EXPECT_EQ(r.report["mounts"][0]["data"]["requested"], c.requested) << c.command.back();
        EXPECT_EQ(r.report["mounts"][0]["flags"], 0) << c.command.back();
    }
}

TEST_F(E2eTest, MissingMountPointIsReported)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--no-odm"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "No such file or directory: /dev/odm\n");
    EXPECT_TRUE(r.report["mounts"].empty());
}

TEST_F(E2eTest, RefusedMountIsReported)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--mount-errno", "EBUSY"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Device or resource busy: /dev/odm\n");
    ASSERT_EQ(r.report["mounts"].size(), 1u);
    EXPECT_EQ(r.report["mounts"][0]["errno"], "EBUSY");
    EXPECT_EQ(r.report["control"], nullptr);
}

// Someone else's lock: four tries with a five-second sleep after each, then
// status 1 with the temporary file left behind. Answered sleeps make it quick.
TEST_F(E2eTest, HeldLockIsGivenUp)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--mtab-lock", "--fast-sleep"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out + r.err, "");
    EXPECT_TRUE(r.report["mounts"].empty());
    ASSERT_EQ(r.report["sleeps"].size(), 4u);
    for (const auto& s : r.report["sleeps"])
        EXPECT_EQ(s["seconds"], 5.0);
    const int pid = r.report["sleeps"][0]["pid"];
    EXPECT_EQ(r.report["lock_files"], nlohmann::json({"mtab~", "mtab~" + std::to_string(pid)}));
}

// The same, in real time. Labelled "slow" for CTest.
class E2eSlowTest : public E2eTest {};

TEST_F(E2eSlowTest, HeldLockIsGivenUpAfterTwentySeconds)
{
    const auto start = std::chrono::steady_clock::now();
    const sandbox_result r = helper({"-o", "cluster"}, {"--mtab-lock"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.status, 1);
    EXPECT_GE(took, std::chrono::seconds(19));
    EXPECT_LT(took, std::chrono::seconds(60));
    EXPECT_TRUE(r.report["mounts"].empty());
    EXPECT_EQ(r.report["lock_files"].size(), 2u);
}

}  // namespace
