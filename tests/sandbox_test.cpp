// odm-sandbox itself: that it isolates, that every scene is what it says,
// and that the emulated module answers and records as the tests rely on.
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const std::string PROBE = PROBE_PATH;

sandbox_result sh(const std::string& script, const std::vector<std::string>& scene = {})
{
    return run_sandbox(scene, {"sh", "-c", script});
}

// Names in the three directories, and the exact state of the files the
// helper and the scenes touch. Timestamps elsewhere are left out: other
// programs on the machine may change them meanwhile.
std::string real_system()
{
    std::ostringstream s;
    for (const char* dir : {"/etc", "/opt", "/dev"}) {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        s << dir << ':';
        for (const auto& n : names)
            s << ' ' << n;
        s << '\n';
    }
    for (const char* path : {"/etc/mtab", "/etc/mtab~", "/dev/odm", "/dev/null", "/opt/KELD",
                             "/usr/sbin/mount.qeodmfs"}) {
        struct stat st {};
        if (lstat(path, &st) != 0)
            s << path << " absent\n";
        else
            s << path << ' ' << st.st_mode << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.'
              << st.st_mtim.tv_nsec << '\n';
    }
    std::ifstream mounts("/proc/self/mountinfo");
    s << mounts.rdbuf();
    return s.str();
}

TEST_F(SandboxTest, NothingReachesTheRealSystem)
{
    const std::string before = real_system();
    const sandbox_result r = sh(
        HELPER_PATH " -o cluster; " + PROBE + " mount /dev/odm 2; echo on > /dev/odm/cluster;"
        "echo x > /etc/odm-sandbox-leak; touch /etc/mtab~ /opt/odm-sandbox-leak;"
        "mkdir -p /opt/KELD/bin /dev/scratch; touch /dev/odm-sandbox-leak /dev/null;"
        "mount -t tmpfs scratch /dev/scratch",
        {"--tolvane-record", "--helper", HELPER_PATH, "--mtab-content", "x y z 0 0\n"});
    EXPECT_NE(r.report, nullptr) << r.err;
    EXPECT_EQ(real_system(), before);
}

TEST_F(SandboxTest, StatusOfCommandPassesThrough)
{
    EXPECT_EQ(sh("exit 7").status, 7);
    const sandbox_result killed = sh("kill -TERM $$");
    EXPECT_EQ(killed.status, 128 + SIGTERM);
    EXPECT_EQ(killed.report["command"]["signal"], "SIGTERM");
    const sandbox_result missing = run_sandbox({}, {"/nonexistent/command"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("/nonexistent/command"), std::string::npos);
}

TEST_F(SandboxTest, TimeoutKillsTheWholeTree)
{
    const auto start = std::chrono::steady_clock::now();
    const sandbox_result r = run_sandbox(
        {"--timeout", "1"}, {"sh", "-c", "sleep 300 & echo $!; setsid sleep 300 & echo $!; sleep 300"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(r.status, 124);
    EXPECT_EQ(r.report["command"]["timed_out"], true);
    EXPECT_EQ(r.report["command"]["signal"], "SIGKILL");
    // No pid namespace: the pids the shell saw are pids here, and they are
    // gone, the one in a session of its own included.
    std::istringstream pids(r.out);
    int count = 0;
    for (pid_t pid; pids >> pid; ++count)
        EXPECT_NE(kill(pid, 0), 0) << pid;
    EXPECT_EQ(count, 2);
}

TEST_F(SandboxTest, OtherFileSystemsGoToTheKernel)
{
    const sandbox_result r = sh("mkdir /dev/t && mount -t tmpfs scratch /dev/t && touch /dev/t/f && "
                                "grep -c '^scratch /dev/t tmpfs' /proc/mounts");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "1\n");
    ASSERT_EQ(r.report["mounts"].size(), 1u);
    EXPECT_EQ(r.report["mounts"][0]["type"], "tmpfs");
    EXPECT_EQ(r.report["mounts"][0]["handled_by"], "kernel");
}

TEST_F(SandboxTest, MountTableScenes)
{
    const std::string show = "ls -l /etc/mtab* | cut -c1; cat /etc/mtab 2>/dev/null | head -c 40";
    sandbox_result r = sh(show);
    EXPECT_EQ(r.out, "-\n");
    EXPECT_EQ(r.report["mtab"], json({{"kind", "file"}, {"content", ""}}));

    r = sh(show, {"--mtab-content", "a b c d 0 0\n", "--mtab-lock"});
    EXPECT_EQ(r.out, "-\n-\na b c d 0 0\n");
    EXPECT_EQ(r.report["lock_files"], json({"mtab~"}));

    r = sh("readlink /etc/mtab", {"--mtab", "symlink"});
    EXPECT_EQ(r.out, "/proc/mounts\n");
    EXPECT_EQ(r.report["mtab"], json({{"kind", "symlink"}, {"target", "/proc/mounts"}}));

    r = sh("test -e /etc/mtab || test -L /etc/mtab || echo none; echo a > /etc/mtab~123",
           {"--mtab", "missing"});
    EXPECT_EQ(r.out, "none\n");
    EXPECT_EQ(r.report["mtab"]["kind"], "missing");
    EXPECT_EQ(r.report["lock_files"], json({"mtab~123"}));
}

TEST_F(SandboxTest, ToolScenes)
{
    EXPECT_EQ(sh("test -e /opt/KELD || echo absent").out, "absent\n");

    const std::string tool = testing::TempDir() + "tolvane-script";
    std::ofstream(tool) << "#!/bin/sh\necho \"tool ran $*\"\n";
    EXPECT_EQ(sh("/opt/KELD/bin/tolvane readconfig", {"--tolvane", tool}).out, "tool ran readconfig\n");
    fs::remove(tool);

    sandbox_result r = sh("test -x /opt/KELD/bin/tolvane || echo not executable; "
                          "/opt/KELD/bin/tolvane 2>/dev/null; echo $?",
                          {"--tolvane-noexec"});
    EXPECT_EQ(r.out, "not executable\n126\n");

    // The recorder reports what it was started with, not what the shell had.
    r = sh("trap '' HUP QUIT; exec env -i A=1 'B=x y' /opt/KELD/bin/tolvane readconfig",
           {"--tolvane-record"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.report["tool_runs"].size(), 1u);
    const json& run = r.report["tool_runs"][0];
    EXPECT_EQ(run["argv"], json({"/opt/KELD/bin/tolvane", "readconfig"}));
    EXPECT_EQ(run["env"], json({"A=1", "B=x y"}));
    EXPECT_EQ(run["ignored_signals"], json({"SIGHUP", "SIGQUIT"}));
}

TEST_F(SandboxTest, MessagesAndHelperAreInstalled)
{
    const fs::path messages = testing::TempDir() + "odm-messages";
    fs::create_directories(messages / "de_DE");
    std::ofstream(messages / "de_DE" / "KELDodm.cat") << "catalogue";
    const sandbox_result r = sh("cat /opt/KELD/messages/de_DE/KELDodm.cat; echo; "
                                "cmp /sbin/mount.qeodmfs " HELPER_PATH " && test -x /sbin/mount.qeodmfs && echo same",
                                {"--messages", messages.string(), "--helper", HELPER_PATH});
    fs::remove_all(messages);
    EXPECT_EQ(r.out, "catalogue\nsame\n") << r.err;
}

// The kernel's own answers come first, the module's after: a missing or
// non-directory mount point wins over --mount-errno.
TEST_F(SandboxTest, ModuleChecksTheMountPoint)
{
    const std::string calls = PROBE + " mount /dev/nothing 1; touch /dev/file; " + PROBE +
                              " mount /dev/file 1; cd /dev && " + PROBE + " mount odm 1";
    sandbox_result r = sh(calls);
    EXPECT_EQ(r.out, "mount: ENOENT\nmount: ENOTDIR\nmount: 0\n");
    ASSERT_EQ(r.report["mounts"].size(), 3u);
    EXPECT_EQ(r.report["mounts"][2]["target"], "odm");
    EXPECT_EQ(r.report["control"]["dir"], "odm");

    r = sh(calls, {"--mount-errno", "EIO"});
    EXPECT_EQ(r.out, "mount: ENOENT\nmount: ENOTDIR\nmount: EIO\n");
    EXPECT_EQ(r.report["mounts"][2]["errno"], "EIO");
    EXPECT_EQ(r.report["control"], nullptr);
}

TEST_F(SandboxTest, ControlFileScenes)
{
    const std::string calls = PROBE + " mount /dev/odm 2 >/dev/null && " + PROBE +
                              " write /dev/odm/cluster on && " + PROBE + " write /dev/odm/cluster on";
    sandbox_result r = sh(calls);
    EXPECT_EQ(r.out, "write: 2\nwrite: 2\n");
    EXPECT_EQ(r.report["control"]["content"], "on");
    EXPECT_EQ(r.report["control"]["write_opens"], 2);

    r = sh(calls, {"--control", "missing"});
    EXPECT_EQ(r.out, "open: ENOENT\n");
    EXPECT_EQ(r.report["control"], nullptr);

    r = sh(calls, {"--control", "readonly"});
    EXPECT_EQ(r.out, "open: EROFS\n");
    EXPECT_EQ(r.report["control"]["write_opens"], 0);

    // One byte per write, through the writer's own offset.
    r = sh(calls + "; cat /dev/odm/cluster; echo; : >/dev/odm/other; " + PROBE +
               " write /dev/odm/other xy; cat /dev/odm/other",
           {"--control", "short"});
    EXPECT_EQ(r.out, "write: 1\nwrite: 1\no\nwrite: 2\nxy");
    EXPECT_EQ(r.report["control"]["content"], "o");
}

TEST_F(SandboxTest, RecordsTheCallersState)
{
    const sandbox_result r =
        sh("touch /etc/mtab~$$; trap '' INT QUIT; exec " + PROBE + " mount /dev/odm 0x41", {"--mtab-lock"});
    ASSERT_EQ(r.report["mounts"].size(), 1u) << r.err;
    const json& m = r.report["mounts"][0];
    EXPECT_EQ(m["mtab_lock_present"], true);
    EXPECT_EQ(m["mtab_temp_present"], true);
    EXPECT_EQ(m["ignored_signals"], json({"SIGINT", "SIGQUIT"}));
    EXPECT_EQ(m["data"]["requested"], 0x41);
    EXPECT_EQ(m["data"]["hex"], "0200000020000000"
                                "4100000000000000"
                                "4b00000000000000"
                                "0000000000000000");
    EXPECT_EQ(r.report["lock_files"], json({"mtab~", "mtab~" + std::to_string(m["pid"].get<int>())}));
}

TEST_F(SandboxTest, FastSleepAnswersAtOnce)
{
    const auto start = std::chrono::steady_clock::now();
    sandbox_result r = sh(PROBE + " sleep 30; " + PROBE + " sleep 5", {"--fast-sleep"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(r.out, "sleep: 0\nsleep: 0\n");
    ASSERT_EQ(r.report["sleeps"].size(), 2u);
    EXPECT_EQ(r.report["sleeps"][0]["seconds"], 30.0);
    EXPECT_EQ(r.report["sleeps"][1]["seconds"], 5.0);

    r = sh(PROBE + " sleep 0");
    EXPECT_TRUE(r.report["sleeps"].empty());
}

TEST_F(SandboxTest, ConcurrentCallersAreAllAnswered)
{
    const sandbox_result r =
        sh("for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16; do " + PROBE + " mount /dev/odm $i & done; wait");
    EXPECT_EQ(r.status, 0);
    std::string all_mounted;
    for (int i = 0; i < 16; ++i)
        all_mounted += "mount: 0\n";
    EXPECT_EQ(r.out, all_mounted);
    ASSERT_EQ(r.report["mounts"].size(), 16u);
    std::vector<int> requested;
    for (const json& m : r.report["mounts"])
        requested.push_back(m["data"]["requested"]);
    std::sort(requested.begin(), requested.end());
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(requested[static_cast<std::size_t>(i)], i + 1);
}

}  // namespace
