// The built helper, run for real inside odm-sandbox: what it prints, its
// status, the mount call the emulated module receives, and what it leaves
// in the mount table, the configuration tool and the control file.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string USAGE = std::string("ODM mount ERROR T-41-1-0-0-4 usage: ") + HELPER_PATH +
                          " [-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";
const std::string CLUSTER_ENTRY = "none /dev/odm qeodmfs cluster,smartsync 0 0\n";
const json TERMINAL_SIGNALS = {"SIGHUP", "SIGINT", "SIGQUIT"};

class E2eTest : public SandboxTest {
protected:
    static sandbox_result helper(std::vector<std::string> args,
                                 const std::vector<std::string>& scene = {})
    {
        args.insert(args.begin(), HELPER_PATH);
        return run_sandbox(scene, args);
    }
};

// The exits that come before the mount table: nothing reaches the module,
// and /etc is left as it was.
TEST_F(E2eTest, EarlyExits)
{
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } cases[] = {
        {{"-h"}, 0, USAGE, ""},
        {{"-L", "-o", "cluster,nocluster"}, 0, "", ""},
        {{"-o", "wait,remount,bogus"}, 0, "", ""},
        {{"-o", "exclusive,cluster"}, 255, "",
         "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n"},
        {{"-o", "cluster,bogus"}, 255, "", "ODM mount WARNING T-41-1-0-0-6 unrecognized option bogus\n" + USAGE},
    };
    for (const auto& c : cases) {
        const sandbox_result r = helper(c.args);
        const std::string& what = c.args.back();
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.out, c.out) << what;
        EXPECT_EQ(r.err, c.err) << what;
        EXPECT_TRUE(r.report["mounts"].empty()) << what;
        EXPECT_EQ(r.report["mtab"]["content"], "") << what;
        EXPECT_TRUE(r.report["lock_files"].empty()) << what;
    }
}

TEST_F(E2eTest, SuccessfulMountDoesTheWholeJob)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--tolvane-record"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");

    ASSERT_EQ(r.report["mounts"].size(), 1u);
    const json& m = r.report["mounts"][0];
    EXPECT_EQ(m["source"], "none");
    EXPECT_EQ(m["target"], "/dev/odm");
    EXPECT_EQ(m["type"], "qeodmfs");
    EXPECT_EQ(m["flags"], 0);
    // Native byte order, and nothing in the first 24 bytes but the four fields.
    EXPECT_EQ(m["data"]["hex"].get<std::string>().substr(0, 48),
              "02000000200000000200000000000000"
              "4b00000000000000");
    // Locked across the mount call, the temporary already gone.
    EXPECT_EQ(m["mtab_lock_present"], true);
    EXPECT_EQ(m["mtab_temp_present"], false);
    EXPECT_EQ(m["ignored_signals"], TERMINAL_SIGNALS);

    EXPECT_EQ(r.report["mtab"]["content"], CLUSTER_ENTRY);
    EXPECT_TRUE(r.report["lock_files"].empty());
    ASSERT_EQ(r.report["tool_runs"].size(), 1u);
    EXPECT_EQ(r.report["tool_runs"][0]["argv"], json({"/opt/KELD/bin/tolvane", "readconfig"}));
    EXPECT_EQ(r.report["control"]["content"], "on");
    EXPECT_EQ(r.report["control"]["write_opens"], 1);
}

// The record carries the mask exactly as parsed, "wait" included and no
// smartsync default; the table gets its words in fixed order, without
// "wait", appended after what was there.
TEST_F(E2eTest, RecordAndTableFollowTheOptions)
{
    constexpr char OLD[] = "proc /proc proc rw 0 0\n";
    const struct {
        std::vector<std::string> command;
        std::uint64_t requested;
        const char* words;
    } cases[] = {
        {{HELPER_PATH}, 0x0, "smartsync"},
        {{HELPER_PATH, "-o", "wait"}, 0x4, "smartsync"},
        {{HELPER_PATH, "-o", "nosmartsync,exclusive,rw"}, 0x60, "rw,exclusive,nosmartsync"},
        {{HELPER_PATH, "-o", "smartsync,wait,cluster_bypass,ro,noauto"}, 0x1c, "cluster_bypass,smartsync"},
        {{"env", "QEODM_MOUNT_OPTS=smartsync", HELPER_PATH, "-o", "nocluster"}, 0x11,
         "nocluster,smartsync"},
    };
    for (const auto& c : cases) {
        const std::string& what = c.command.back();
        const sandbox_result r = run_sandbox({"--mtab-content", OLD}, c.command);
        EXPECT_EQ(r.status, 0) << what << ": " << r.err;
        ASSERT_EQ(r.report["mounts"].size(), 1u) << what << ": " << r.err;
        EXPECT_EQ(r.report["mounts"][0]["data"]["requested"], c.requested) << what;
        EXPECT_EQ(r.report["mounts"][0]["data"]["available"], 0x4b) << what;
        EXPECT_EQ(r.report["mounts"][0]["flags"], 0) << what;
        EXPECT_EQ(r.report["mtab"]["content"],
                  std::string(OLD) + "none /dev/odm qeodmfs " + c.words + " 0 0\n")
            << what;
    }
}

// Failures before or in the mount call: no entry, no lock left behind, no
// tool, no switch.
TEST_F(E2eTest, FailuresBeforeTheEntryLeaveNoTrace)
{
    const struct {
        std::vector<std::string> scene;
        const char* err;
        std::size_t mount_calls;
        int status;
    } cases[] = {
        {{"--mount-errno", "EBUSY"}, "Device or resource busy: /dev/odm\n", 1, 255},
        {{"--no-odm"}, "No such file or directory: /dev/odm\n", 0, 255},
        {{"--mtab", "missing"}, "", 0, 1},
    };
    for (const auto& c : cases) {
        std::vector<std::string> scene = c.scene;
        scene.emplace_back("--tolvane-record");
        const sandbox_result r = helper({"-o", "cluster"}, scene);
        const std::string& what = c.scene[0];
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.out, "") << what;
        EXPECT_EQ(r.err, c.err) << what;
        ASSERT_EQ(r.report["mounts"].size(), c.mount_calls) << what;
        if (c.mount_calls == 1) {
            EXPECT_EQ(r.report["mounts"][0]["errno"], "EBUSY");
            EXPECT_EQ(r.report["mounts"][0]["mtab_lock_present"], true);
        }
        EXPECT_EQ(r.report["mtab"].value("content", std::string()), "") << what;
        EXPECT_TRUE(r.report["lock_files"].empty()) << what;
        EXPECT_TRUE(r.report["tool_runs"].empty()) << what;
        EXPECT_EQ(r.report["control"], nullptr) << what;
    }
}

TEST_F(E2eTest, SymlinkTableIsLeftAlone)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--mtab", "symlink", "--tolvane-record"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.report["mounts"].size(), 1u);
    EXPECT_EQ(r.report["mounts"][0]["mtab_lock_present"], false);
    EXPECT_TRUE(r.report["mounts"][0]["ignored_signals"].empty());
    EXPECT_EQ(r.report["mtab"]["kind"], "symlink");
    EXPECT_TRUE(r.report["lock_files"].empty());
    ASSERT_EQ(r.report["tool_runs"].size(), 1u);
    EXPECT_TRUE(r.report["tool_runs"][0]["ignored_signals"].empty());
    EXPECT_EQ(r.report["control"]["content"], "on");
}

// The tool inherits what the helper left: ignored terminal signals, the
// environment variable as getsubopt cut it, NLSPATH as it was (it is only
// extended when a message is looked up).
TEST_F(E2eTest, ToolSeesTheHelpersState)
{
    const sandbox_result r =
        run_sandbox({"--tolvane-record"}, {"env", "QEODM_MOUNT_OPTS=wait,smartsync",
                                           "NLSPATH=/x/%N", HELPER_PATH, "-o", "cluster"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.report["mounts"][0]["data"]["requested"], 0x16);
    ASSERT_EQ(r.report["tool_runs"].size(), 1u);
    const json& tool = r.report["tool_runs"][0];
    EXPECT_EQ(tool["ignored_signals"], TERMINAL_SIGNALS);
    const auto has = [&](const char* item) {
        return std::find(tool["env"].begin(), tool["env"].end(), item) != tool["env"].end();
    };
    EXPECT_TRUE(has("QEODM_MOUNT_OPTS=wait")) << tool["env"];
    EXPECT_TRUE(has("NLSPATH=/x/%N")) << tool["env"];
}

// After the entry: warnings that leave the mount standing and recorded.
TEST_F(E2eTest, WarningsAfterTheMount)
{
    const struct {
        std::vector<std::string> scene;
        const char* err;
        int status;
        int switch_writes;
    } cases[] = {
        {{"--control", "missing"},
         "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n", 255, -1},
        {{"--control", "readonly"},
         "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n", 255, 0},
        {{"--control", "short"},
         "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster\n", 255, 1},
        // Without a child there is no tool; the switch is still written.
        {{"--fork-errno", "EAGAIN", "--tolvane-record"},
         "ODM mount WARNING T-41-1-0-0-10 could not fork /opt/KELD/bin/tolvane\n", 0, 1},
        // The child whose exec failed carries on to the switch, and so does
        // the parent after it: two writes, no message.
        {{"--tolvane-noexec"}, "", 0, 2},
    };
    for (const auto& c : cases) {
        const sandbox_result r = helper({"-o", "cluster"}, c.scene);
        const std::string& what = c.scene.back();
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.out, "") << what;
        EXPECT_EQ(r.err, c.err) << what;
        EXPECT_EQ(r.report["mtab"]["content"], CLUSTER_ENTRY) << what;
        EXPECT_TRUE(r.report["lock_files"].empty()) << what;
        EXPECT_TRUE(r.report["tool_runs"].empty()) << what;
        if (c.switch_writes >= 0) {
            EXPECT_EQ(r.report["control"]["write_opens"], c.switch_writes) << what;
        }
    }
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
    EXPECT_EQ(r.report["lock_files"], json({"mtab~", "mtab~" + std::to_string(pid)}));
}

// The same, in real time. Labelled "slow" for CTest.
class E2eSlowTest : public E2eTest {};

TEST_F(E2eSlowTest, HeldLockIsGivenUpAfterTwentySeconds)
{
    const auto start = std::chrono::steady_clock::now();
    const sandbox_result r = helper({"-o", "cluster"}, {"--mtab-lock"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.status, 1);
    // Four sleeps of five seconds: it waited, rather than gave up at once.
    EXPECT_GE(took, std::chrono::seconds(20));
    EXPECT_TRUE(r.report["mounts"].empty());
    EXPECT_EQ(r.report["lock_files"].size(), 2u);
}

}  // namespace
