// The built helper, run for real inside odm-sandbox: its status and output,
// the record the emulated module receives, and what it leaves in /etc, the
// configuration tool and the control file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string OLD = "proc /proc proc rw 0 0\n";
constexpr char CLUSTER[] = "none /dev/odm qeodmfs cluster,smartsync 0 0\n";
const json SIGNALS = {"SIGHUP", "SIGINT", "SIGQUIT"};

// version 2, size 32, requested, available 0x4b, 8 reserved bytes.
constexpr char RECORD_0[] = "02000000200000000000000000000000" "4b000000000000000000000000000000";
constexpr char RECORD_2[] = "02000000200000000200000000000000" "4b000000000000000000000000000000";
constexpr char RECORD_24[] = "02000000200000002400000000000000" "4b000000000000000000000000000000";

// Shell text that starts a helper and, once UNTIL holds (it may name $pid),
// does THEN to it, or stops waiting should the helper end first.
std::string once(const std::string& until, const std::string& then = "kill -KILL $pid")
{
    return "{ \"$0\" -o cluster & pid=$!; until " + until + " || ! kill -0 $pid; do sleep 0.01; done; " +
           then + "; wait $pid; } 2>/dev/null; echo $?;";
}
const std::string HELD = "[ -e /dev/.odm-sandbox/held.$pid ]";  // --hold-mount has it

// Shell text that makes SCRIPT the configuration tool, with MODE.
std::string tool(const std::string& script, const std::string& mode = "755")
{
    return "mkdir -p /opt/KELD/bin; printf '#!/bin/sh\\n%s\\n' '" + script +
           "' >/opt/KELD/bin/tolvane; chmod " + mode + " /opt/KELD/bin/tolvane;";
}

// The helper exec'd by a shell after SETUP ($$ is its pid) on a table that
// holds TABLE, and what every run shows: status, output, and how each
// module mount and tool run was made.
struct helper_run {
    std::vector<std::string> scene{};  // odm-sandbox's options
    std::string table = OLD;
    std::string setup{};
    std::vector<std::string> args{"-o", "cluster"};
    int status = 0;
    std::string out{}, err{};
    const char* record = RECORD_2;
    bool locked = true;  // the table locked and terminal signals ignored from mount(2) on
};

// What the table and /etc hold once the run is over, and how far it got.
struct left_behind {
    std::optional<std::string> entry = "";  // after the table's old content; none: no regular file
    std::size_t calls = 0;                  // mount calls the module answered
    std::size_t left = 0;                   // lock files in /etc
    std::size_t sleeps = 0;                 // 5 s sleeps waiting for the lock
};

class E2eTest : public SandboxTest {
protected:
    static sandbox_result run(const helper_run& c)
    {
        std::vector<std::string> scene{"--timeout", "10"};
        scene.insert(scene.end(), c.scene.begin(), c.scene.end());
        const std::string script = R"(printf %s "$1" >/etc/mtab; shift; )" + c.setup + R"( exec "$0" "$@")";
        std::vector<std::string> command{"sh", "-c", script, HELPER_PATH, c.table};
        command.insert(command.end(), c.args.begin(), c.args.end());
        sandbox_result r = run_sandbox(scene, command);
        EXPECT_EQ(std::tuple(r.status, r.out, r.err), std::tuple(c.status, c.out, c.err));
        const json signals = c.locked ? SIGNALS : json::array();
        const json made = json::array({0, c.record, c.locked, false, signals});
        for (const json& m : r.report.at("mounts"))
            EXPECT_TRUE(m.at("handled_by") != "module" ||
                        json::array({m.at("flags"), m.at("data").at("hex"), m.at("mtab_lock_present"),
                                     m.at("mtab_temp_present"), m.at("ignored_signals")}) == made)
                << m << " made as " << made;
        for (const json& t : r.report.at("tool_runs"))
            EXPECT_EQ(json::array({t.at("argv"), t.at("ignored_signals")}),
                      json::array({{"/opt/KELD/bin/tolvane", "readconfig"}, signals}));
        return r;
    }

    static void expect_left(const sandbox_result& r, const left_behind& c)
    {
        if (c.entry) {
            EXPECT_EQ(r.report.at("mtab").at("content"), OLD + *c.entry);
        }
        const json& mounts = r.report.at("mounts");
        const json& sleeps = r.report.at("sleeps");
        const auto module = [](const json& m) { return m.at("handled_by") == "module"; };
        const auto five = [](const json& s) { return s.at("seconds") == 5.0; };
        EXPECT_EQ(std::count_if(mounts.begin(), mounts.end(), module), std::ptrdiff_t(c.calls));
        EXPECT_EQ(r.report.at("lock_files").size(), c.left) << r.report.at("lock_files");
        EXPECT_EQ(std::count_if(sleeps.begin(), sleeps.end(), five), std::ptrdiff_t(c.sleeps));
    }
};

// Runs that end before an entry: the table as it was, and what stays in /etc.
using BeforeTheEntry = E2eTest;

TEST_F(BeforeTheEntry, ConflictIsRefusedBeforeTheLock)
{
    expect_left(run({.args = {"-o", "exclusive,cluster"}, .status = 255,
                     .err = "ODM mount ERROR T-41-1-0-0-3 conflicting suboptions: 'cluster' and 'exclusive'\n"}), {});
}

TEST_F(BeforeTheEntry, RefusedMountLeavesNoEntryAndNoLock)
{
    expect_left(run({.scene = {"--tolvane-record", "--mount-errno", "EBUSY"}, .status = 255,
                     .err = "Device or resource busy: /dev/odm\n"}), {.calls = 1});
}

// So does one that cannot even be looked at (EACCES).
TEST_F(BeforeTheEntry, MissingTableEndsTheRun)
{
    expect_left(run({.setup = "rm /etc/mtab;", .args = {}, .status = 1}), {.entry = std::nullopt});
    expect_left(run({.setup = "exec " PROBE_PATH R"( --errno lstat 13 "$0" "$@";)", .args = {}, .status = 1}), {});
}

// Only a lock that exists already is worth waiting for: four tries, then
// status 1, the temporary left. A link that fails otherwise, with an errno
// above EEXIST or below it, ends the run at once.
TEST_F(BeforeTheEntry, OnlyALockHeldElsewhereIsWaitedFor)
{
    expect_left(run({.scene = {"--fast-sleep"}, .setup = ": >/etc/mtab~;", .args = {}, .status = 1}), {.left = 2, .sleeps = 4});
    expect_left(run({.scene = {"--fast-sleep"}, .setup = ": >/etc/mtab~$$; mount --bind /dev/null /etc/mtab~$$;",
                     .args = {}, .status = 1}), {.left = 1});  // EXDEV
    expect_left(run({.scene = {"--fast-sleep"}, .setup = "exec " PROBE_PATH R"( --errno link 1 "$0" "$@";)",
                     .args = {}, .status = 1}), {.left = 1});  // EPERM
}

// A descriptor the caller closed gets /dev/null, never the table and so
// never the message; without /dev/null the run ends before it starts.
TEST_F(BeforeTheEntry, MissingMountPointIsReportedWhateverTheCallerClosed)
{
    const struct {
        const char* closed;
        int status;
        const char* err;
    } cases[] = {{"", 255, "No such file or directory: /dev/odm\n"}, {"exec 2>&-;", 255, ""},
                 {"exec 1>&- 2>&-;", 255, ""}, {"exec 0<&- 1>&- 2>&-;", 255, ""},
                 {"umount -n /dev/null; rm /dev/null; exec 2>&-;", 1, ""}};
    for (const auto& c : cases)
        expect_left(run({.setup = std::string("rmdir /dev/odm;") + c.closed, .status = c.status, .err = c.err}), {});
}

// Out of descriptors once the table is open: a temporary left by an earlier
// process with the same pid cannot be reused, nor taken for the lock. A
// sanitized helper's leak check would need descriptors of its own at exit.
TEST_F(BeforeTheEntry, TemporaryThatCannotBeOpenedEndsTheRun)
{
    expect_left(run({.setup = ": >/etc/mtab~$$; ulimit -n 4; export ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0;",
                     .status = 1}), {.left = 1});
}

// A mount that stands: the record the module gets and the table's entry.
using TheTableForms = E2eTest;

TEST_F(TheTableForms, ClusterGoesToTheModuleAndTheTable)
{
    expect_left(run({}), {.entry = CLUSTER, .calls = 1});
}

// The record gets "wait" and no smartsync default; the table the reverse.
TEST_F(TheTableForms, WaitIsForTheModuleAndSmartsyncForTheTable)
{
    expect_left(run({.setup = "export QEODM_MOUNT_OPTS=nosmartsync;", .args = {"-o", "wait,rw"}, .record = RECORD_24}),
                {.entry = "none /dev/odm qeodmfs rw,nosmartsync 0 0\n", .calls = 1});
}

TEST_F(TheTableForms, LinkedTableIsNeitherLockedNorWritten)
{
    expect_left(run({.scene = {"--tolvane-record"}, .setup = "ln -sf /proc/mounts /etc/mtab;", .args = {}, .record = RECORD_0,
                     .locked = false}), {.entry = std::nullopt, .calls = 1});
}

// The helper takes the largest file-size limit it may: the hard one, or
// none with CAP_SYS_RESOURCE. A line cut short by it, or by a full file
// system, is taken back, and addmntent's failure, 1, is let pass. A whole
// line stays, though closing the table fails (EIO).
TEST_F(TheTableForms, OnlyATornLineIsTakenBack)
{
    std::string table;  // 40 lines of 25 bytes
    for (int i = 10; i < 50; ++i)
        table += "none /mnt/" + std::to_string(i) + " none rw 0 0\n";
    // One page, 6 bytes short of full: the entry's first 6 bytes fit.
    const std::string page = table + table + table + table + std::string(89, '#') + "\n";
    const struct {
        std::string table, setup;
        std::vector<std::string> results;  // the limit kept, or lifted by CAP_SYS_RESOURCE
    } cases[] = {
        {table, "ulimit -f 2;", {table, table + CLUSTER}},  // 512-byte blocks: 24 of the line
        {table, "ulimit -f 4; ulimit -S -f 2;", {table + CLUSTER}},
        {page, "mkdir /etc/small; mount -n -t tmpfs -o size=4k none /etc/small; "
               "cat /etc/mtab >/etc/small/mtab; mount -n --bind /etc/small/mtab /etc/mtab;", {page}},
        {OLD, "exec <&- " PROBE_PATH R"( --errno close 5 "$0" "$@";)", {OLD + CLUSTER}},
    };
    for (const auto& c : cases) {
        const sandbox_result r = run({.table = c.table, .setup = c.setup});
        expect_left(r, {.entry = std::nullopt, .calls = 1});
        const json& content = r.report.at("mtab").at("content");
        EXPECT_NE(std::find(c.results.begin(), c.results.end(), content), c.results.end()) << c.setup << content;
    }
}

// After the entry: the tool and the control file, whose warnings leave the mount.
class AfterTheEntry : public E2eTest {
protected:
    // writes: opens of the control file for writing; -1: it never existed.
    static void expect_after(const helper_run& c, std::size_t tools, int writes)
    {
        const sandbox_result r = run(c);
        EXPECT_EQ(r.report.at("mtab").at("content"), OLD + CLUSTER);
        EXPECT_EQ(r.report.at("tool_runs").size(), tools);
        const json& control = r.report.at("control");
        EXPECT_EQ(control.is_null() ? -1 : control.at("write_opens").get<int>(), writes);
        if (c.status == 0) {
            EXPECT_EQ(control.at("content"), "on");
        }
    }
};

// The tool and the switch have no use for a standard input the caller closed.
TEST_F(AfterTheEntry, ToolRunsThenTheSwitchGoesOn)
{
    expect_after({.scene = {"--tolvane-record"}, .setup = "exec <&-;"}, 1, 1);
}

TEST_F(AfterTheEntry, MissingControlFileIsWarnedAbout)
{
    expect_after({.scene = {"--control", "missing"}, .status = 255,
                  .err = "ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n"}, 0, -1);
}

TEST_F(AfterTheEntry, FullControlFileIsWarnedAbout)
{
    expect_after({.scene = {"--control", "full"}, .status = 255,
                  .err = "ODM mount WARNING T-41-1-0-0-8 could not write /dev/odm/cluster\n"}, 0, 1);
}

TEST_F(AfterTheEntry, FailedForkIsWarnedAbout)
{
    expect_after({.scene = {"--fork-errno", "EAGAIN", "--tolvane-record"},
                  .err = "ODM mount WARNING T-41-1-0-0-10 could not fork /opt/KELD/bin/tolvane\n"}, 0, 1);
}

TEST_F(AfterTheEntry, ChildWhoseExecFailedWritesTheSwitchToo)
{
    expect_after({.setup = tool("exit 0", "644")}, 0, 2);
}

// The caller's own child ends while the tool still runs, and must not be
// taken for it. The tool reads its mask before its first child (sh clears
// it around each), its descriptors (sh keeps its script on 10), then what
// the switch holds.
TEST_F(AfterTheEntry, TheSwitchWaitsForTheToolWhateverChildrenTheCallerLeft)
{
    expect_after({.setup = tool("while read -r l; do case $l in Sig[BI]*) echo \"$l\";; esac; done </proc/$$/status; "
                                "ls /proc/$$/fd; sleep 1; echo \"switch: $(cat /dev/odm/cluster)\"") + "sleep 0.3 &",
                  .out = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000007\n0\n1\n10\n2\nswitch: \n"}, 0, 1);
}

// From the entry on, the lock is whoever takes it next: one taken while the
// tool runs stays, even when the helper is a container's pid 1.
TEST_F(AfterTheEntry, LockTakenDuringTheToolStaysEvenForPidOne)
{
    expect_left(run({.setup = tool(": >/etc/mtab~") + R"(exec unshare --pid --fork "$0" "$@";)"}),
                {.entry = CLUSTER, .calls = 1, .left = 1});
}

// A signal that comes while the lock is held takes effect once it is gone:
// TERM inside mount(2), whose held call the stop and continue let through,
// or inside a failed mount's report stuck in a full FIFO; and the broken
// pipe of a report whose reader has gone.
using SignalWaitsForTheLock = E2eTest;

TEST_F(SignalWaitsForTheLock, TermInsideTheMountCall)
{
    const std::string then =
        "sed -n 's/^SigBlk:\t//p' /proc/$pid/status; kill -TERM $pid; kill -STOP $pid; kill -CONT $pid";
    expect_left(run({.scene = {"--hold-mount"}, .setup = once(HELD, then) + "exit;",
                     .out = "fffffffe7ffbfeff\n143\n"}), {.entry = CLUSTER, .calls = 2});
}

TEST_F(SignalWaitsForTheLock, TermInsideAStuckReport)
{
    expect_left(run({.scene = {"--mount-errno", "EBUSY"}, .setup = R"(mkfifo /etc/p; exec 3<>/etc/p;
dd if=/dev/zero of=/etc/p bs=4096 oflag=nonblock 2>/dev/null; "$0" "$@" 2>&3 & pid=$!;
until grep -q '^1 0x2 ' /proc/$pid/syscall; do sleep 0.01; done;
kill -TERM $pid; dd bs=4096 count=1 <&3 >/dev/null 2>&1; { wait $pid; } 2>/dev/null; echo $?; exit;)",
                     .out = "143\n"}), {.calls = 1});
}

TEST_F(SignalWaitsForTheLock, BrokenPipeOfAReport)
{
    expect_left(run({.scene = {"--mount-errno", "EBUSY"}, .setup = "mkfifo /etc/p; exec 3<>/etc/p 2>/etc/p 3<&-;",
                     .status = 141}), {.calls = 1});
}

// Not while the helper sleeps, waiting for another's lock: TERM ends it at
// once, and its temporary stays, which only its owner may read or write.
TEST_F(SignalWaitsForTheLock, NotWhileWaitingForAnothersLock)
{
    const std::string then = "sed -n 's/^SigBlk:\t//p' /proc/$pid/status; kill -TERM $pid";
    expect_left(run({.setup = ": >/etc/mtab~; umask 0;" + once("grep -q nanosleep /proc/$pid/wchan", then) +
                              "stat -c %a /etc/mtab~$pid; exit;",
                     .out = "0000000000000000\n143\n600\n"}), {.left = 2});
}

// SIGKILL at each point, then what the next helper finds.
using KilledAt = E2eTest;

// Its lock stays, so the next gives up.
TEST_F(KilledAt, TheMountCall)
{
    expect_left(run({.scene = {"--hold-mount", "--fast-sleep"}, .setup = once(HELD),
                     .args = {}, .status = 1, .out = "137\n"}), {.calls = 1, .left = 2, .sleeps = 4});
}

// Its entry is in and its lock gone.
TEST_F(KilledAt, TheToolRun)
{
    expect_left(run({.scene = {"--fast-sleep"}, .setup = tool("[ -e /etc/k ] || { : >/etc/k; kill -KILL $PPID; }") +
                                                       "{ \"$0\" -o cluster; } 2>/dev/null; echo $?;",
                     .out = "137\n"}), {.entry = std::string(CLUSTER) + CLUSTER, .calls = 2});
}

// Sixteen helpers race for the lock. Answered sleeps make a loser give up at
// once, leaving its temporary, so that each round sees winners and losers.
// Each ends with 0 or 1.
TEST_F(E2eTest, EveryLockWinnerWritesOneWholeLine)
{
    for (int round = 0; round < 3; ++round) {
        const sandbox_result r = run({.scene = {"--fast-sleep"}, .setup = R"(
for i in $(seq 16); do "$0" "$@" & p="$p $!"; done;
for i in $p; do wait $i; s=$?; [ $s -le 1 ] || echo $i ended $s; done; exit;)"});
        const std::string table = r.report.at("mtab").at("content");
        std::string lines;
        while (OLD.size() + lines.size() < table.size())
            lines += CLUSTER;
        EXPECT_EQ(table, OLD + lines);
        EXPECT_EQ(r.report.at("mounts").size(), lines.size() / std::strlen(CLUSTER));
        EXPECT_EQ(r.report.at("lock_files").size(), 16 - lines.size() / std::strlen(CLUSTER));
    }
}

}  // namespace
