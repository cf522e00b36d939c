// The built helper, run for real inside odm-sandbox: its status and output,
// the record the emulated module receives, and what it leaves in /etc, the
// configuration tool and the control file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string OLD = "proc /proc proc rw 0 0\n";
constexpr char CLUSTER[] = "none /dev/odm qeodmfs cluster,smartsync 0 0\n";
const json SIGNALS = {"SIGHUP", "SIGINT", "SIGQUIT"};
const json TOOL = json::array({"/opt/KELD/bin/tolvane", "readconfig"});

// version 2, size 32, requested, available 0x4b, 8 reserved bytes.
constexpr char RECORD_0[] = "02000000200000000000000000000000" "4b000000000000000000000000000000";
constexpr char RECORD_2[] = "02000000200000000200000000000000" "4b000000000000000000000000000000";
constexpr char RECORD_24[] = "02000000200000002400000000000000" "4b000000000000000000000000000000";

// Shell text that starts a helper and SIGKILLs it once FILE (which may name
// $pid) exists, or stops waiting should the helper end first.
std::string kill_when(const std::string& file)
{
    return "{ \"$0\" -o cluster & pid=$!; while [ ! -e " + file +
           " ] && kill -0 $pid; do sleep 0.01; done; kill -KILL $pid; wait $pid; } 2>/dev/null; "
           "echo $?;";
}

// A tool that kills the helper the first time it runs.
const std::string KILLER_TOOL =
    "mkdir -p /opt/KELD/bin; printf '#!/bin/sh\\n[ -e /etc/k ] || { : >/etc/k; kill -KILL $PPID; "
    "}\\n' >/opt/KELD/bin/tolvane; chmod 755 /opt/KELD/bin/tolvane;";

using E2eTest = SandboxTest;

// Each run is the helper exec'd by a shell after SETUP, which stages what no
// scene option does ($$ is the helper's pid) or runs helpers before it.
TEST_F(E2eTest, Runs)
{
    const struct {
        std::vector<std::string> scene;
        std::string setup;
        std::vector<std::string> args;
        std::string out, err;
        const char* record;  // of every qeodmfs mount call
        const char* entry;   // added to /etc/mtab; nullptr: not a regular file
        std::size_t calls, left, sleeps, tools;  // mount calls, lock files left, 5 s sleeps, tool runs
        int status;
        int writes;   // opens of the control file for writing; -1: no mount stands
        bool locked;  // the table locked and terminal signals ignored from mount(2) on
    } cases[] = {
        {{}, "", {"-o", "exclusive,cluster"}, "",
         "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n",
         nullptr, "", 0, 0, 0, 0, 255, -1, false},
        {{"--tolvane-record"}, "", {"-o", "cluster"}, "", "", RECORD_2, CLUSTER, 1, 0, 0,
         1, 0, 1, true},
        // The record gets "wait" and no smartsync default; the table the reverse.
        {{}, "export QEODM_MOUNT_OPTS=nosmartsync;", {"-o", "wait,rw"}, "", "", RECORD_24,
         "none /dev/odm qeodmfs rw,nosmartsync 0 0\n", 1, 0, 0, 0, 0, 1, true},
        {{"--tolvane-record", "--mount-errno", "EBUSY"}, "", {"-o", "cluster"}, "",
         "Device or resource busy: /dev/odm\n", RECORD_2, "", 1, 0, 0, 0, 255, -1, true},
        {{"--no-odm"}, "", {}, "", "No such file or directory: /dev/odm\n", nullptr, "", 0, 0, 0,
         0, 255, -1, false},
        {{"--mtab", "missing"}, "", {}, "", "", nullptr, nullptr, 0, 0, 0, 0, 1, -1, false},
        {{"--mtab", "symlink", "--tolvane-record"}, "", {}, "", "", RECORD_0, nullptr, 1, 0, 0, 1,
         0, 1, false},
        // Someone else's lock: four tries, then status 1; the temporary stays.
        {{"--mtab-lock", "--fast-sleep"}, "", {}, "", "", nullptr, "", 0, 2, 4, 0, 1, -1, false},
        // A link that fails otherwise is not retried.
        {{"--fast-sleep"}, ": >/etc/mtab~$$; mount --bind /dev/null /etc/mtab~$$;", {}, "", "",
         nullptr, "", 0, 1, 0, 0, 1, -1, false},
        // addmntent's failure, 1, is let pass.
        {{}, "mount --bind /dev/full /etc/mtab;", {}, "", "", RECORD_0, nullptr, 1, 0, 0, 0, 0, 1,
         true},
        // After the entry: warnings, and the mount stands.
        {{"--control", "missing"}, "", {"-o", "cluster"}, "",
         "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n", RECORD_2,
         CLUSTER, 1, 0, 0, 0, 255, -1, true},
        {{"--control", "full"}, "", {"-o", "cluster"}, "",
         "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster\n", RECORD_2,
         CLUSTER, 1, 0, 0, 0, 255, 1, true},
        {{"--fork-errno", "EAGAIN", "--tolvane-record"}, "", {"-o", "cluster"}, "",
         "ODM mount WARNING T-41-1-0-0-10 could not fork /opt/KELD/bin/tolvane\n", RECORD_2,
         CLUSTER, 1, 0, 0, 0, 0, 1, true},
        // The child whose exec failed writes the switch too.
        {{"--tolvane-noexec"}, "", {"-o", "cluster"}, "", "", RECORD_2, CLUSTER, 1, 0, 0,
         0, 0, 2, true},
        // Killed waiting for someone else's lock: the temporary stays, only
        // its owner may read or write it.
        {{"--mtab-lock"},
         "umask 0;" + kill_when("/etc/mtab~$pid") + "stat -c %a /etc/mtab~$pid; exit;", {},
         "137\n600\n", "", nullptr, "", 0, 2, 0, 0, 0, -1, false},
        // Killed inside the mount call: its lock stays, so the next gives up.
        {{"--hold-mount", "--fast-sleep"}, kill_when("/dev/.odm-sandbox/held.$pid"), {}, "137\n",
         "", RECORD_2, "", 1, 2, 4, 0, 1, -1, true},
        // Killed while the tool runs: its entry is in and its lock gone.
        {{"--fast-sleep"}, KILLER_TOOL + "{ \"$0\" -o cluster; } 2>/dev/null; echo $?;",
         {"-o", "cluster"}, "137\n", "", RECORD_2, "none /dev/odm qeodmfs cluster,smartsync 0 0\n"
         "none /dev/odm qeodmfs cluster,smartsync 0 0\n", 2, 0, 0, 0, 0, 1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.scene) + " " + c.setup + " " +
                     testing::PrintToString(c.args));
        std::vector<std::string> scene = c.scene;
        scene.insert(scene.end(), {"--timeout", "10", "--mtab-content", OLD});
        std::vector<std::string> command{"sh", "-c", c.setup + R"( exec "$0" "$@")", HELPER_PATH};
        command.insert(command.end(), c.args.begin(), c.args.end());
        const sandbox_result r = run_sandbox(scene, command);
        const json signals = c.locked ? SIGNALS : json::array();
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        std::size_t calls = 0;
        for (const json& m : r.report["mounts"]) {
            if (m["handled_by"] != "module")
                continue;
            ++calls;
            EXPECT_EQ(json::array({m["flags"], m["data"]["hex"], m["mtab_lock_present"],
                                   m["mtab_temp_present"], m["ignored_signals"]}),
                      json::array({0, c.record ? c.record : "", c.locked, false, signals}));
        }
        EXPECT_EQ(calls, c.calls);
        if (c.entry) {
            EXPECT_EQ(r.report["mtab"]["content"], OLD + c.entry);
        }
        EXPECT_EQ(r.report["lock_files"].size(), c.left) << r.report["lock_files"];
        const json& sleeps = r.report["sleeps"];
        const auto five = [](const json& s) { return s["seconds"] == 5.0; };
        EXPECT_EQ(std::count_if(sleeps.begin(), sleeps.end(), five), std::ptrdiff_t(c.sleeps));
        EXPECT_EQ(r.report["tool_runs"].size(), c.tools);
        for (const json& t : r.report["tool_runs"])
            EXPECT_EQ(json::array({t["argv"], t["ignored_signals"]}), json::array({TOOL, signals}));
        const json& control = r.report["control"];
        EXPECT_EQ(control.is_null() ? -1 : control["write_opens"].get<int>(), c.writes);
        if (c.status == 0 && c.writes > 0) {
            EXPECT_EQ(control["content"], "on");
        }
    }
}

// Sixteen helpers race for the lock. Answered sleeps make a loser give up at
// once, so that each round sees winners and losers.
TEST_F(E2eTest, EveryLockWinnerWritesOneWholeLine)
{
    const std::string script = "for i in $(seq 16); do \"$0\" -o cluster & p=\"$p $!\"; done; "
                               "for i in $p; do wait $i; echo $i $?; done";
    for (int round = 0; round < 3; ++round) {
        const sandbox_result r =
            run_sandbox({"--fast-sleep", "--timeout", "10"}, {"sh", "-c", script, HELPER_PATH});
        std::string lines;
        json temps = json::array();
        std::istringstream results(r.out);
        int helpers = 0;
        for (int pid, status; results >> pid >> status; ++helpers) {
            EXPECT_LE(status, 1) << pid;
            if (status == 0)
                lines += CLUSTER;
            else
                temps.push_back("mtab~" + std::to_string(pid));
        }
        EXPECT_EQ(helpers, 16) << r.out << r.err;
        EXPECT_EQ(r.report["mtab"]["content"], lines);
        std::sort(temps.begin(), temps.end());
        EXPECT_EQ(r.report["lock_files"], temps);
        EXPECT_EQ(r.report["mounts"].size(), lines.size() / std::strlen(CLUSTER));
        for (const json& m : r.report["mounts"]) {
            EXPECT_EQ(m["mtab_lock_present"], true);
            EXPECT_EQ(m["mtab_temp_present"], false);
        }
    }
}

}  // namespace
