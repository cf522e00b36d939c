// The built helper, run for real inside odm-sandbox: what it prints, hands
// the emulated module and leaves in /etc, to the tool and the control file.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string OLD = "proc /proc proc rw 0 0\n";
const std::string CLUSTER = "none /dev/odm qeodmfs cluster,smartsync 0 0\n";
const json SIGNALS = {"SIGHUP", "SIGINT", "SIGQUIT"};

// Shell text that starts a helper and, once UNTIL holds (it may name $pid),
// does THEN to it and prints its status, or stops waiting should it end first.
std::string once(const std::string& until, const std::string& then)
{
    return R"({ "$0" -o cluster & pid=$!; until )" + until + " || ! kill -0 $pid; do sleep 0.01; " +
           "done; sed -n 's/^SigBlk:\t//p' /proc/$pid/status; " + then +
           "; wait $pid; } 2>/dev/null; echo $?;";
}

// Shell text that makes SCRIPT the configuration tool, with MODE.
std::string tool(const std::string& script, const std::string& mode = "755")
{
    return "mkdir -p /opt/KELD/bin; printf '#!/bin/sh\\n%s\\n' '" + script +
           "' >/opt/KELD/bin/tolvane; chmod " + mode + " /opt/KELD/bin/tolvane;";
}

// The helper exec'd by a shell after SETUP ($$ is its pid), and all the run
// shows. The defaults are a mount that stands, made as the helper makes it.
struct helper_run {
    const char* name = "";
    std::vector<std::string> options{};  // odm-sandbox's
    std::string setup{};
    std::vector<std::string> args{"-o", "cluster"};
    int status = 0;
    bool locked = true;  // the table locked and terminal signals ignored from mount(2) on
    // The record as hex: version 2, size 32, requested, available 0x4b, 8 reserved bytes.
    std::string record = "02000000200000000200000000000000"
                         "4b000000000000000000000000000000";
    const char* kind = "file";           // what /etc/mtab is in the end
    std::optional<std::string> entry{};  // what the table gains; none: a line for each mount
    std::size_t calls = 1;               // mount calls the module answered
    std::size_t left = 0;                // lock files in /etc
    std::size_t sleeps = 0;              // 5 s sleeps waiting for the lock
    std::size_t tools = 0;               // runs of the recording tool
    std::optional<int> writes{};         // opens of the control file for writing, -1: none made
    std::string out{}, err{};
    std::string table = OLD;  // what the table holds before
};

void PrintTo(const helper_run& c, std::ostream* os)
{
    *os << c.name;
}

class HelperRun : public SandboxTest, public testing::WithParamInterface<helper_run> {};

// The run's status and output, how each module mount and tool run was made,
// what the table, /etc and the control file hold, and how far it got.
TEST_P(HelperRun, Shows)
{
    const helper_run& c = GetParam();
    const std::string script =
        R"(printf %s "$1" >/etc/mtab; shift; )" + c.setup + R"( exec "$0" "$@")";
    std::vector<std::string> command{"sh", "-c", script, HELPER_PATH, c.table};
    command.insert(command.end(), c.args.begin(), c.args.end());
    const sandbox_result r = run_sandbox(c.options, command);
    EXPECT_EQ(std::tuple(r.status, r.out, r.err), std::tuple(c.status, c.out, c.err));
    const json signals = c.locked ? SIGNALS : json::array();
    std::size_t calls = 0;
    std::string made;
    for (const json& m : r.report.at("mounts")) {
        if (m.at("handled_by") != "module")
            continue;
        EXPECT_EQ(json::array({m.at("flags"), m.at("data").at("hex"), m.at("mtab_lock_present"),
                               m.at("mtab_temp_present"), m.at("ignored_signals")}),
                  json::array({0, c.record, c.locked, false, signals}));
        ++calls;
        if (m.at("errno").is_null() && !m.at("held"))
            made += CLUSTER;
    }
    for (const json& t : r.report.at("tool_runs"))
        EXPECT_EQ(json::array({t.at("argv"), t.at("ignored_signals")}),
                  json::array({{"/opt/KELD/bin/tolvane", "readconfig"}, signals}));
    const json& sleeps = r.report.at("sleeps");
    const auto five = [](const json& s) { return s.at("seconds") == 5.0; };
    const json& control = r.report.at("control");
    const int writes = control.is_null() ? -1 : control.at("write_opens").get<int>();
    EXPECT_EQ(
        json::array({calls, r.report.at("lock_files").size(),
                     std::count_if(sleeps.begin(), sleeps.end(), five),
                     r.report.at("tool_runs").size(), writes}),
        json::array({c.calls, c.left, c.sleeps, c.tools, c.writes.value_or(made.empty() ? -1 : 1)}))
        << "mount calls, lock files, sleeps, tool runs, control file writes";
    if (c.status == 0 && writes > 0) {
        EXPECT_EQ(control.at("content"), "on");
    }
    const json& mtab = r.report.at("mtab");
    EXPECT_EQ(mtab.at("kind"), c.kind);
    if (mtab.at("kind") == "file") {
        EXPECT_EQ(mtab.at("content"), c.table + c.entry.value_or(made));
    }
}

// One row a run, read as a table: the formatter would give every field of a long row a line of
// its own.
// clang-format off
const helper_run RUNS[] = {
    // Runs that end before an entry: the table as it was, and what stays in /etc.
    {.name = "ConflictIsRefusedBeforeTheLock", .args = {"-o", "exclusive,cluster"}, .status = 255,
     .calls = 0,
     .err = "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n"},
    {.name = "RefusedMountLeavesNoEntryAndNoLock",
     .options = {"--tolvane-record", "--mount-errno", "EBUSY"}, .status = 255,
     .err = "Device or resource busy: /dev/odm\n"},
    {.name = "UnreadableOrMissingTableEndsTheRun",
     .setup = PROBE_PATH R"( --errno lstat 13 "$0" "$@"; echo $?; rm /etc/mtab;)", .status = 1,
     .kind = "missing", .calls = 0, .out = "1\n"},
    // Only a lock held elsewhere is waited for (four tries, the temporary
    // left); a link that fails with EXDEV, above EEXIST, or EPERM, below it, is not.
    {.name = "OnlyALockHeldElsewhereIsWaitedFor", .options = {"--fast-sleep"},
     .setup = PROBE_PATH R"( --errno link 18 "$0" "$@"; echo $?; )" PROBE_PATH
              R"( --errno link 1 "$0" "$@"; echo $?; : >/etc/mtab~;)",
     .status = 1, .calls = 0, .left = 4, .sleeps = 4, .out = "1\n1\n"},
    // A descriptor the caller closed gets /dev/null, never the table and so
    // never the message; without /dev/null the run ends before it starts.
    {.name = "MissingMountPointIsReportedWhateverTheCallerClosed",
     .setup = R"(rmdir /dev/odm; "$0" "$@"; echo $?; "$0" "$@" 2>&-; echo $?;)"
              R"( "$0" "$@" <&- >&- 2>&-; echo $?; umount -n /dev/null; rm /dev/null; exec 2>&-;)",
     .status = 1, .calls = 0, .out = "255\n255\n255\n",
     .err = "No such file or directory: /dev/odm\n"},
    // Out of descriptors, a temporary left by an earlier process of the same
    // pid cannot be reused; a sanitized helper's leak check would need some too.
    {.name = "TemporaryThatCannotBeOpenedEndsTheRun",
     .setup = ": >/etc/mtab~$$; ulimit -n 4; export ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0;",
     .status = 1, .calls = 0, .left = 1},

    // A mount that stands: the record gets "wait" and no smartsync default,
    // the table the reverse. mount(8) finds the helper and adds "rw".
    {.name = "WaitIsForTheModuleAndSmartsyncForTheTable", .args = {"-o", "wait"},
     .record = "02000000200000000400000000000000" "4b000000000000000000000000000000",
     .entry = "none /dev/odm qeodmfs smartsync 0 0\n"},
    {.name = "MountRunsTheHelper",
     .setup = R"(cp "$0" /sbin; exec mount -t qeodmfs -o cluster none /dev/odm;)",
     .entry = "none /dev/odm qeodmfs rw,cluster,smartsync 0 0\n"},
    {.name = "LinkedTableIsNeitherLockedNorWritten", .options = {"--tolvane-record"},
     .setup = "ln -sf /proc/mounts /etc/mtab;", .locked = false, .kind = "symlink", .tools = 1},
    // The helper takes the largest file-size limit it may: the hard one, or none with
    // CAP_SYS_RESOURCE, which setpriv takes away here. A line cut short by it, or by a full
    // file system, is taken back, and addmntent's failure, 1, is let pass; a line the file
    // holds whole stays, though closing the table fails.
    {.name = "LineCutShortByAFileSizeLimitIsTakenBack",  // 512-byte blocks: 24 bytes fit
     .setup = R"(ulimit -f 2; exec setpriv --bounding-set -sys_resource "$0" "$@";)", .entry = "",
     .table = std::string(999, '#') + "\n"},
    {.name = "SoftFileSizeLimitIsLiftedToTheHardOne", .setup = "ulimit -f 4; ulimit -S -f 2;",
     .table = std::string(999, '#') + "\n"},
    {.name = "LineCutShortByAFullFileSystemIsTakenBack",  // one page: 6 bytes of the line fit
     .setup = "mkdir /etc/small; mount -n -t tmpfs -o size=4k none /etc/small; "
              "cat /etc/mtab >/etc/small/mtab; mount -n --bind /etc/small/mtab /etc/mtab;",
     .entry = "", .table = std::string(4089, '#') + "\n"},
    {.name = "WholeLineStaysThoughClosingTheTableFails",
     .setup = "exec <&- " PROBE_PATH R"( --errno close 5 "$0" "$@";)"},

    // After the entry: the tool and the control file, whose warnings leave
    // the mount. Neither has a use for a standard input the caller closed.
    {.name = "ToolRunsThenTheSwitchGoesOn", .options = {"--tolvane-record"}, .setup = "exec <&-;",
     .tools = 1},
    {.name = "MissingControlFileIsWarnedAbout", .options = {"--control", "missing"}, .status = 255,
     .writes = -1, .err = "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n"},
    {.name = "FullControlFileIsWarnedAbout", .options = {"--control", "full"}, .status = 255,
     .err = "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster\n"},
    {.name = "FailedForkIsWarnedAbout", .options = {"--fork-errno", "EAGAIN", "--tolvane-record"},
     .err = "ODM mount WARNING T-41-1-0-0-10 could not fork /opt/KELD/bin/tolvane\n"},
    {.name = "ChildWhoseExecFailedWritesTheSwitchToo", .setup = tool("exit 0", "644"), .writes = 2},
    // The caller's child that ends first is not the tool's. The tool reads its
    // mask before its first child (sh clears it around each), its descriptors
    // (sh keeps its script on 10), then what the switch holds.
    {.name = "TheSwitchWaitsForTheToolWhateverChildrenTheCallerLeft",
     .setup = tool("while read -r l; do case $l in Sig[BI]*) echo \"$l\";; esac; "
                   "done </proc/$$/status; ls /proc/$$/fd; sleep 1; "
                   "echo \"switch: $(cat /dev/odm/cluster)\"") + "sleep 0.3 &",
     .out = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000007\n0\n1\n10\n2\nswitch: \n"},
    // From the entry on, the lock is whoever takes it next: one taken while
    // the tool runs stays, even when the helper is a container's pid 1.
    {.name = "LockTakenDuringTheToolStaysEvenForPidOne",
     .setup = tool(": >/etc/mtab~") + R"(exec unshare --pid --fork "$0" "$@";)", .left = 1},
    {.name = "KilledDuringTheToolLeavesItsEntryAndNoLock", .options = {"--fast-sleep"},
     .setup = tool("[ -e /etc/k ] || { : >/etc/k; kill -KILL $PPID; }") +
              R"({ "$0" -o cluster; } 2>/dev/null; echo $?;)",
     .calls = 2, .out = "137\n"},

    // A signal while the lock is held takes effect once it is gone: TERM inside
    // mount(2), let through by a stop and continue, or a report's broken pipe.
    {.name = "TermInsideTheMountCallWaitsForTheLock", .options = {"--hold-mount"},
     .setup = once("[ -e /dev/.odm-sandbox/held.$pid ]",
                   "kill -TERM $pid; kill -STOP $pid; kill -CONT $pid") + "exit;",
     .calls = 2, .writes = 0, .out = "fffffffe7ffbfeff\n143\n"},
    {.name = "BrokenPipeOfAReportWaitsForTheLock", .options = {"--mount-errno", "EBUSY"},
     .setup = "mkfifo /etc/p; exec 3<>/etc/p 2>/etc/p 3<&-;", .status = 141},
    // But not while the helper sleeps, waiting for another's lock: TERM ends
    // it at once, and its temporary stays, which only its owner may use.
    {.name = "TermWhileWaitingForAnothersLockEndsItAtOnce",
     .setup = ": >/etc/mtab~; umask 0;" +
              once("grep -q nanosleep /proc/$pid/wchan", "kill -TERM $pid") +
              "stat -c %a /etc/mtab~$pid; exit;",
     .calls = 0, .left = 2, .out = "0000000000000000\n143\n600\n"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(E2e, HelperRun, testing::ValuesIn(RUNS),
                         [](const testing::TestParamInfo<helper_run>& c) { return c.param.name; });

using E2eTest = SandboxTest;

// Sixteen helpers race for the lock, each to end with 0 or 1. Answered sleeps
// make a loser give up at once, its temporary left, so that each round sees
// winners and losers.
TEST_F(E2eTest, EveryLockWinnerWritesOneWholeLine)
{
    for (int round = 0; round < 3; ++round) {
        const sandbox_result r = run_sandbox({"--fast-sleep"}, {"sh", "-c", R"(
for i in $(seq 16); do "$0" -o cluster & p="$p $!"; done;
for i in $p; do wait $i; s=$?; [ $s -le 1 ] || echo $i ended $s; done)",
                                                                HELPER_PATH});
        EXPECT_EQ(std::tuple(r.status, r.out, r.err), std::tuple(0, "", ""));
        const std::string table = r.report.at("mtab").at("content");
        std::string lines;
        while (lines.size() < table.size())
            lines += CLUSTER;
        EXPECT_EQ(table, lines);
        EXPECT_EQ(r.report.at("mounts").size(), lines.size() / CLUSTER.size());
        EXPECT_EQ(r.report.at("lock_files").size(), 16 - lines.size() / CLUSTER.size());
    }
}

}  // namespace
