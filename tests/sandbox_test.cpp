// odm-sandbox itself: that nothing reaches the real system, and that the
// emulated module is as strict as the real one and as easy to unmount.
#include "sandbox_run.h"

namespace {

using nlohmann::json;

// Names in the three directories, and the exact state of the files the helper and the
// scenes touch; not timestamps elsewhere, which other programs may change meanwhile.
std::string real_system()
{
    const child_result r = in_child([] {
        execl("/bin/sh", "sh", "-c",
              "ls -a /etc /opt /dev; cat /proc/self/mountinfo; stat -c '%n %f %s %.9Y' /etc/mtab "
              "/etc/mtab~ /dev/odm /dev/null /opt/KELD /usr/sbin/mount.qeodmfs 2>&1",
              nullptr);
        return 127;
    });
    return r.out;
}

TEST_F(SandboxTest, NothingReachesTheRealSystem)
{
    const std::string before = real_system();
    const sandbox_result r = run_sandbox(
        {}, {"sh", "-c",
             "mkdir -p /opt/KELD/bin /dev/scratch; cp /bin/true /opt/KELD/bin/tolvane; "
             "cp " HELPER_PATH " /sbin/mount.qeodmfs; echo 'x y z 0 0' >/etc/mtab; " HELPER_PATH
             " -o cluster; " PROBE_PATH " 2 32; echo on >/dev/odm/cluster; "
             "umount /dev/odm; echo x >/etc/odm-sandbox-leak; touch /etc/mtab~ /dev/null "
             "/opt/odm-sandbox-leak /dev/odm-sandbox-leak; mount -t tmpfs scratch /dev/scratch"});
    EXPECT_NE(r.report, nullptr) << r.err;
    EXPECT_EQ(real_system(), before);
}

// The module reads a versioned binary record: text options, another version or size, or
// no data at all are refused, each recorded with what was read. Without a control file
// nothing holds its file system once unmounted, and the device number may go to the next
// tmpfs: that one is the kernel's to unmount. The module then mounts again. Nor does the
// machine's product show inside.
TEST_F(SandboxTest, ModuleTakesItsRecordAloneAndUnmountsItsOwnAlone)
{
    const sandbox_result r = run_sandbox(
        {"--control", "missing"},
        {"sh", "-c",
         "test ! -e /opt/KELD && test ! -e /sbin/mount.qeodmfs && mount -i -t qeodmfs -o cluster "
         "none /dev/odm 2>/dev/null; " PROBE_PATH " 1 32; " PROBE_PATH " 2 31; " PROBE_PATH
         "; " PROBE_PATH " 2 32 && umount /dev/odm && ! mountpoint -q /dev/odm && "
         "mount -t tmpfs scratch /dev/odm && umount /dev/odm && " PROBE_PATH " 2 32"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "EINVAL\nEINVAL\nEINVAL\n0\n0\n");
    std::string seen;
    for (const json& m : r.report.at("mounts")) {
        const json& d = m.at("data");
        seen += m.at("errno").dump() + " " +
                (d.is_null() ? "-" : d.at("version").dump() + "," + d.at("size").dump()) + "\n";
    }
    // The text's "clus" and "ter\0" read as version and size; -: no data.
    EXPECT_EQ(seen, "\"EINVAL\" 1937075299,7497076\n\"EINVAL\" 1,32\n\"EINVAL\" 2,31\n"
                    "\"EINVAL\" -\nnull 2,32\nnull -\nnull 2,32\n");
    const json& unmounts = r.report.at("unmounts");
    ASSERT_EQ(unmounts.size(), 2U);
    EXPECT_EQ(json::array({unmounts.at(0).at("handled_by"), unmounts.at(1).at("handled_by")}),
              json::array({"module", "kernel"}));
}

// A harness that is stopped must never pass: COMMAND is killed and reaped,
// and how it ended is the sandbox's status and the report's. A signal that
// stops the sandbox goes to COMMAND first; a timeout kills it.
TEST_F(SandboxTest, StoppedSandboxEndsAsItsCommandDid)
{
    const struct {
        std::vector<std::string> options;
        const char* signal;
        int status;
        json timed_out, interrupted_by;
    } cases[] = {{{"--timeout", "0.2"}, "SIGKILL", 124, true, nullptr},
                 {{}, "SIGHUP", 129, false, "SIGHUP"},
                 {{}, "SIGINT", 130, false, "SIGINT"},
                 {{}, "SIGTERM", 143, false, "SIGTERM"}};
    for (const auto& c : cases) {
        const std::string kill =
            c.options.empty() ? std::string("kill -") + (c.signal + 3) + " $PPID; " : "";
        const sandbox_result r = run_sandbox(c.options, {"sh", "-c", kill + "exec sleep 60"});
        EXPECT_EQ(r.status, c.status) << r.err;
        const json& command = r.report.at("command");
        EXPECT_EQ(json::array({command.at("status"), command.at("exit_code"), command.at("signal"),
                               command.at("timed_out"), command.at("interrupted_by")}),
                  json::array({c.status, nullptr, c.signal, c.timed_out, c.interrupted_by}));
    }
}

}  // namespace
