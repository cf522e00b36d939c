// What the caller hands the helper besides its arguments: closed standard
// descriptors, a file-size limit, signals and children of its own. None of
// it may cost the mount table, its lock, or the order of the steps.
#include <gtest/gtest.h>

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
    for (const std::string closed : {"2>&-", "1>&- 2>&-", "0<&- 1>&- 2>&-"}) {
        SCOPED_TRACE(closed);
        const sandbox_result r =
            run_script({"--no-odm", "--mtab-content", OLD}, "exec \"$0\" -o cluster " + closed);
        EXPECT_EQ(r.status, 255);
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

}  // namespace
