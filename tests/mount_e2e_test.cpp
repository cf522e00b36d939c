// The whole job in the sandbox: the mount table, the configuration tool
// and the cluster switch around the mount call.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

constexpr char TOOL[] = "/opt/KELD/bin/tolvane";
const json TERMINAL_SIGNALS = {"SIGHUP", "SIGINT", "SIGQUIT"};

class MountE2eTest : public SandboxTest {
protected:
    static sandbox_result helper(std::vector<std::string> args, const std::vector<std::string>& scene = {})
    {
        args.insert(args.begin(), HELPER_PATH);
        return run_sandbox(scene, args);
    }

    static bool has(const json& list, const std::string& item)
    {
        return std::find(list.begin(), list.end(), item) != list.end();
    }
};

TEST_F(MountE2eTest, SuccessfulMountDoesTheWholeJob)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--tolvane-record"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");

    ASSERT_EQ(r.report["mounts"].size(), 1u);
    const json& m = r.report["mounts"][0];
    // Locked across the mount call, the temporary already gone.
    EXPECT_EQ(m["mtab_lock_present"], true);
    EXPECT_EQ(m["mtab_temp_present"], false);
    EXPECT_EQ(m["ignored_signals"], TERMINAL_SIGNALS);

    EXPECT_EQ(r.report["mtab"]["content"], "none /dev/odm qeodmfs cluster,smartsync 0 0\n");
    EXPECT_TRUE(r.report["lock_files"].empty());

    ASSERT_EQ(r.report["tool_runs"].size(), 1u);
    EXPECT_EQ(r.report["tool_runs"][0]["argv"], json({TOOL, "readconfig"}));

    EXPECT_EQ(r.report["control"]["content"], "on");
    EXPECT_EQ(r.report["control"]["write_opens"], 1);
}

TEST_F(MountE2eTest, TableWordsComeInFixedOrder)
{
    const struct {
        const char* options;
        const char* words;
    } cases[] = {
        {"nosmartsync,exclusive,rw", "rw,exclusive,nosmartsync"},
        {"wait", "smartsync"},
        {"smartsync,wait,cluster_bypass,ro,noauto", "cluster_bypass,smartsync"},
        {"", "smartsync"},
    };
    for (const auto& c : cases) {
        const sandbox_result r =
            helper({"-o", c.options}, {"--mtab-content", "proc /proc proc rw 0 0\n"});
        EXPECT_EQ(r.status, 0) << c.options << ": " << r.err;
        // Appended after what was there.
        EXPECT_EQ(r.report["mtab"]["content"],
                  std::string("proc /proc proc rw 0 0\nnone /dev/odm qeodmfs ") + c.words + " 0 0\n")
            << c.options;
    }
}

TEST_F(MountE2eTest, FailedMountLeavesNoTrace)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--mount-errno", "EIO", "--tolvane-record"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, "Input/output error: /dev/odm\n");
    ASSERT_EQ(r.report["mounts"].size(), 1u);
    EXPECT_EQ(r.report["mounts"][0]["mtab_lock_present"], true);
    // No entry, the lock gone with the exit handler, no tool, no switch.
    EXPECT_EQ(r.report["mtab"]["content"], "");
    EXPECT_TRUE(r.report["lock_files"].empty());
    EXPECT_TRUE(r.report["tool_runs"].empty());
    EXPECT_EQ(r.report["control"], nullptr);
}

TEST_F(MountE2eTest, MissingMountPointReleasesTheLock)
{
    const sandbox_result r = helper({}, {"--no-odm"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.report["mtab"]["content"], "");
    EXPECT_TRUE(r.report["lock_files"].empty());
}

TEST_F(MountE2eTest, SymlinkTableIsLeftAlone)
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

TEST_F(MountE2eTest, MissingTableEndsBeforeTheMount)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--mtab", "missing"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out + r.err, "");
    EXPECT_TRUE(r.report["mounts"].empty());
    EXPECT_TRUE(r.report["lock_files"].empty());
}

// The tool inherits what the helper left: ignored terminal signals, the
// environment variable as getsubopt cut it, NLSPATH as it was (it is only
// extended when a message is looked up).
TEST_F(MountE2eTest, ToolSeesTheHelpersState)
{
    const sandbox_result ok =
        run_sandbox({"--tolvane-record"}, {"env", "QEODM_MOUNT_OPTS=wait,smartsync",
                                           "NLSPATH=/x/%N", HELPER_PATH, "-o", "cluster"});
    EXPECT_EQ(ok.status, 0) << ok.err;
    ASSERT_EQ(ok.report["tool_runs"].size(), 1u);
    const json& tool = ok.report["tool_runs"][0];
    EXPECT_EQ(tool["ignored_signals"], TERMINAL_SIGNALS);
    EXPECT_TRUE(has(tool["env"], "QEODM_MOUNT_OPTS=wait")) << tool["env"];
    EXPECT_TRUE(has(tool["env"], "NLSPATH=/x/%N")) << tool["env"];
    EXPECT_EQ(ok.report["mounts"][0]["data"]["requested"], 0x16);
}

// The child whose exec failed carries on to the switch, and so does the
// parent after it.
TEST_F(MountE2eTest, NonExecutableToolMeansTwoWrites)
{
    const sandbox_result r = helper({"-o", "cluster"}, {"--tolvane-noexec"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    EXPECT_EQ(r.report["control"]["write_opens"], 2);
    EXPECT_EQ(r.report["control"]["content"], "on");
    EXPECT_EQ(r.report["mtab"]["content"], "none /dev/odm qeodmfs cluster,smartsync 0 0\n");
}

TEST_F(MountE2eTest, ControlFileFailuresAreWarnings)
{
    const struct {
        const char* control;
        const char* message;
    } cases[] = {
        {"missing", "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n"},
        {"readonly", "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n"},
        {"short", "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster\n"},
    };
    for (const auto& c : cases) {
        const sandbox_result r = helper({"-o", "cluster"}, {"--control", c.control});
        EXPECT_EQ(r.status, 255) << c.control;
        EXPECT_EQ(r.out, "") << c.control;
        EXPECT_EQ(r.err, c.message) << c.control;
        // The mount stands, and is recorded.
        EXPECT_EQ(r.report["mtab"]["content"], "none /dev/odm qeodmfs cluster,smartsync 0 0\n")
            << c.control;
        EXPECT_TRUE(r.report["lock_files"].empty()) << c.control;
    }
}

// Helpers racing for the lock: each that mounted wrote one whole line, and
// only those that gave up leave anything in /etc (their temporary).
TEST_F(MountE2eTest, ConcurrentHelpersShareTheTable)
{
    constexpr int HELPERS = 8;
    const std::string script = "for i in $(seq " + std::to_string(HELPERS) +
                               "); do \"$0\" -o cluster & pids=\"$pids $!\"; done; "
                               "for p in $pids; do wait $p; echo $p $?; done";
    const sandbox_result r = run_sandbox({"--timeout", "60"}, {"sh", "-c", script, HELPER_PATH});
    ASSERT_EQ(r.status, 0) << r.err;

    std::map<int, int> status;  // pid -> exit status
    std::istringstream lines(r.out);
    for (int pid, code; lines >> pid >> code;)
        status[pid] = code;
    ASSERT_EQ(status.size(), static_cast<std::size_t>(HELPERS)) << r.out;

    std::map<int, int> mount_calls;
    for (const json& m : r.report["mounts"])
        ++mount_calls[m["pid"].get<int>()];

    std::string expected_mtab;
    json expected_leftovers = json::array();
    for (const auto& [pid, code] : status) {
        ASSERT_TRUE(code == 0 || code == 1) << pid << " exited " << code;
        if (code == 0) {
            EXPECT_EQ(mount_calls[pid], 1) << pid;
            expected_mtab += "none /dev/odm qeodmfs cluster,smartsync 0 0\n";
        } else {
            EXPECT_EQ(mount_calls[pid], 0) << pid;
            expected_leftovers.push_back("mtab~" + std::to_string(pid));
        }
    }
    EXPECT_EQ(r.report["mtab"]["content"], expected_mtab);
    std::vector<std::string> leftovers = expected_leftovers;
    std::sort(leftovers.begin(), leftovers.end());
    EXPECT_EQ(r.report["lock_files"], json(leftovers));
}

// Without a child there is no tool; the mount and the switch still stand.
TEST_F(MountE2eTest, ForkFailureIsAWarning)
{
    const sandbox_result r =
        helper({"-o", "cluster"}, {"--fork-errno", "EAGAIN", "--tolvane-record"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "ODM mount WARNING T-41-1-0-0-10 could not fork /opt/KELD/bin/tolvane\n");
    EXPECT_TRUE(r.report["tool_runs"].empty());
    EXPECT_EQ(r.report["control"]["content"], "on");
    EXPECT_EQ(r.report["mtab"]["content"], "none /dev/odm qeodmfs cluster,smartsync 0 0\n");
}

}  // namespace
