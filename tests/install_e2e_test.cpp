// The helper and the catalogues from a plain install, run in the sandbox.
// The install_tree test lays the staging tree down first.
#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "sandbox_run.h"

namespace {

using InstalledE2eTest = SandboxTest;

// util-linux mount(8) finds the helper and runs it.
TEST_F(InstalledE2eTest, MountRunsTheInstalledHelper)
{
    const sandbox_result r = run_sandbox(
        {}, {"sh", "-c", R"(cp "$0" /sbin; exec mount -t qeodmfs -o cluster none /dev/odm)",
             INSTALLED_HELPER});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.report.at("mounts").size(), 1u) << r.err;
    EXPECT_EQ(r.report.at("mounts").at(0).at("data").at("requested"), 0x2);
    // mount(8) puts "rw" in front of the options it hands over.
    EXPECT_EQ(r.report.at("mtab").at("content"), "none /dev/odm qeodmfs rw,cluster,smartsync 0 0\n");
}

// Each spelling of the locale that users set, through each of the
// variables that can choose it.
TEST_F(InstalledE2eTest, GermanForEverySpellingAndVariable)
{
    locale_t de = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    if (de == nullptr)
        GTEST_SKIP() << "locale de_DE.UTF-8 is not generated here (./dev.sh makes it)";
    freelocale(de);

    // The catalogues go where the helper looks, in a scene that hides any installed ones.
    const char* copied = R"(mkdir /opt/KELD; cp -R "$0" /opt/KELD/messages; exec env -i "$@")";
    for (const char* variable : {"LANG", "LC_ALL", "LC_MESSAGES"}) {
        for (const char* spelling : {"de_DE.UTF-8", "de_DE.utf8"}) {
            const std::string setting = std::string(variable) + "=" + spelling;
            const sandbox_result r = run_sandbox({}, {"sh", "-c", copied, INSTALLED_MESSAGES, setting,
                                                      INSTALLED_HELPER, "-o", "exclusive,cluster"});
            EXPECT_EQ(r.status, 255) << setting;
            EXPECT_EQ(r.err,
                      "ODM mount FEHLER T-41-1-0-0-3 widersprüchliche Unteroptionen: "
                      "'cluster' und 'exclusive'\n")
                << setting;
        }
    }
}

}  // namespace
