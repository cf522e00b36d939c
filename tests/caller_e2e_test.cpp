// What the caller hands the helper besides its arguments: closed standard
// descriptors, a file-size limit, signals and children of its own. None of
// it may cost the mount table, its lock, or the order of the steps.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string OLD = "proc /proc proc rw 0 0\n";
constexpr char CLUSTER[] = "none /dev/odm qeodmfs cluster,smartsync 0 0\n";

// SCRIPT run by sh in a fresh sandbox, with the helper as $0.
sandbox_result run_script(std::vector<std::string> scene, const std::string& script)
{
    scene.insert(scene.end(), {"--timeout", "10"});
    return run_sandbox(scene, {"sh", "-c", script, HELPER_PATH});
}

using CallerE2eTest = SandboxTest;

TEST_F(CallerE2eTest, ClosedStandardDescriptorsNeverReachTheTable)
{
    const struct {
        std::string setup, closed;
        int status;
    } cases[] = {
        {"", "2>&-", 255},
        {"", "1>&- 2>&-", 255},
        {"", "0<&- 1>&- 2>&-", 255},
        // No /dev/null to give the closed one: the run ends before it starts.
        {"umount -n /dev/null; rm /dev/null; ", "2>&-", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setup + c.closed);
        const sandbox_result r = run_script({"--no-odm", "--mtab-content", OLD},
                                            c.setup + "exec \"$0\" -o cluster " + c.closed);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.report.at("mtab").at("content"), OLD);
        EXPECT_EQ(r.report.at("lock_files"), json::array());
    }
}

TEST_F(CallerE2eTest, ClosedStandardInputStillTurnsTheSwitchOn)
{
    const sandbox_result r = run_script({"--mtab-content", OLD}, "exec \"$0\" -o cluster <&-");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.report.at("mtab").at("content"), OLD + CLUSTER);
    EXPECT_EQ(r.report.at("control").at("content"), "on");
}

// The helper takes the largest file-size limit it may: the hard one, or none
// for root where it holds CAP_SYS_RESOURCE (in the sandbox it never does).
// A line cut short by the limit, or by a full file system, is taken back.
TEST_F(CallerE2eTest, AnAppendThatFailsLeavesTheTableWholeAndUnlocked)
{
    std::string table;  // 40 lines of 25 bytes
    for (int i = 10; i < 50; ++i)
        table += "none /mnt/" + std::to_string(i) + " none rw 0 0\n";
    ASSERT_EQ(table.size(), 1000u);
    // One page, 6 bytes short of full: the entry's first 6 bytes fit.
    const std::string page = table + table + table + table + std::string(89, '#') + "\n";
    const struct {
        std::string table, setup;
        std::vector<std::string> results;
    } cases[] = {
        {OLD, "ulimit -f 0;", {OLD, OLD + CLUSTER}},
        {table, "ulimit -f 2;", {table, table + CLUSTER}},  // 512-byte blocks: 24 of the line
        {table, "ulimit -S -f 2;", {table + CLUSTER}},
        {table, "ulimit -f 4; ulimit -S -f 2;", {table + CLUSTER}},
        {page, "mkdir /etc/small; mount -n -t tmpfs -o size=4k none /etc/small; "
               "cat /etc/mtab >/etc/small/mtab; mount -n --bind /etc/small/mtab /etc/mtab;",
         {page}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setup);
        const sandbox_result r =
            run_script({"--mtab-content", c.table}, c.setup + "exec \"$0\" -o cluster");
        const json& mounts = r.report.at("mounts");
        EXPECT_EQ(std::count_if(mounts.begin(), mounts.end(),
                                [](const json& m) { return m.at("type") == "qeodmfs"; }),
                  1)
            << r.err;
        const json& content = r.report.at("mtab").at("content");
        EXPECT_NE(std::find(c.results.begin(), c.results.end(), content), c.results.end())
            << content;
        EXPECT_EQ(r.report.at("lock_files"), json::array());
    }
}

// Signals that come while the lock is held take effect once it is gone.
// TERM comes while the helper sits in mount(2), whose held call the stop
// and continue let through; then as a failed mount's message meets a FIFO
// whose reader has gone, or is stuck in a full one.
TEST_F(CallerE2eTest, SignalsWhileTheLockIsHeldWaitForItsRemoval)
{
    const sandbox_result held = run_script(
        {"--hold-mount", "--mtab-content", OLD},
        "\"$0\" -o cluster & pid=$!; "
        "while [ ! -e /dev/.odm-sandbox/held.$pid ]; do sleep 0.01; done; "
        "sed -n 's/^SigBlk:\\t//p' /proc/$pid/status; "
        "kill -TERM $pid; kill -STOP $pid; kill -CONT $pid; wait $pid; echo $?");
    unsigned long long wanted = 0;
    for (int sig : {SIGTERM, SIGALRM, SIGPIPE, SIGXFSZ, SIGTTOU, SIGTSTP, SIGUSR1, SIGUSR2,
                    SIGVTALRM, SIGPROF})
        wanted |= 1ULL << (sig - 1);
    EXPECT_EQ(std::stoull(held.out, nullptr, 16) & wanted, wanted) << held.out;
    EXPECT_EQ(held.out.substr(held.out.find('\n') + 1), "143\n") << held.err;
    EXPECT_EQ(held.report.at("mounts").size(), 2u);
    EXPECT_EQ(held.report.at("mtab").at("content"), OLD + CLUSTER);
    EXPECT_EQ(held.report.at("lock_files"), json::array());

    const struct {
        std::string script, out;
    } cases[] = {
        {"exec 3<>/etc/p 2>/etc/p 3<&-; exec \"$0\" -o cluster", ""},
        {"exec 3<>/etc/p; dd if=/dev/zero of=/etc/p bs=4096 oflag=nonblock 2>/dev/null; "
         "\"$0\" -o cluster 2>&3 & pid=$!; "
         "until grep -q '^1 0x2 ' /proc/$pid/syscall; do sleep 0.01; done; "
         "kill -TERM $pid; dd bs=4096 count=1 <&3 >/dev/null 2>&1; wait $pid; echo $?",
         "143\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        const sandbox_result r = run_script({"--mount-errno", "EBUSY", "--mtab-content", OLD},
                                            "mkfifo /etc/p; " + c.script);
        EXPECT_EQ(r.out, c.out) << r.err;
        EXPECT_EQ(r.report.at("mounts").size(), 1u);
        EXPECT_EQ(r.report.at("mtab").at("content"), OLD);
        EXPECT_EQ(r.report.at("lock_files"), json::array());
    }
}

// The caller's own child ends while the tool still runs, and must not be
// taken for it. The tool reports how it started and what the switch held.
TEST_F(CallerE2eTest, TheSwitchWaitsForTheToolWhateverChildrenTheCallerLeft)
{
    const sandbox_result r = run_script({}, R"sh(mkdir -p /opt/KELD/bin
cat >/opt/KELD/bin/tolvane <<'EOF'
#!/bin/sh
sleep 1
grep -E '^Sig(Blk|Ign)' /proc/$$/status
echo "switch: $(cat /dev/odm/cluster)"
EOF
chmod 755 /opt/KELD/bin/tolvane
sleep 0.3 & exec "$0" -o cluster)sh");
    EXPECT_EQ(r.status, 0) << r.err;
    // Only the terminal signals ignored: those and nothing else, as always.
    EXPECT_EQ(r.out, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000007\nswitch: \n");
    EXPECT_EQ(r.report.at("control").at("content"), "on");
}

}  // namespace
