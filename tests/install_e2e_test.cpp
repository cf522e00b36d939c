// The catalogues of a plain install, found by its helper in the sandbox.
// The install_tree test lays the staging tree down first.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <utility>

#include "sandbox_run.h"

namespace {

using InstalledE2eTest = SandboxTest;

// Each spelling of the locale that users set, through each variable that can choose it.
TEST_F(InstalledE2eTest, GermanForEverySpellingAndVariable)
{
    locale_t de = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    if (de == nullptr)
        GTEST_SKIP() << "locale de_DE.UTF-8 is not generated here (./dev.sh makes it)";
    freelocale(de);

    // The catalogues go where the helper looks, in a scene that hides any installed ones.
    const char* script = "mkdir /opt/KELD; cp -R " INSTALLED_MESSAGES " /opt/KELD/messages; "
                         "exec env -i \"$0\" " INSTALLED_HELPER " -o exclusive,cluster";
    for (const char* variable : {"LANG", "LC_ALL", "LC_MESSAGES"}) {
        for (const char* spelling : {"de_DE.UTF-8", "de_DE.utf8"}) {
            const std::string setting = std::string(variable) + "=" + spelling;
            const sandbox_result r = run_sandbox({}, {"sh", "-c", script, setting});
            EXPECT_EQ(std::pair(r.status, r.err),
                      std::pair(255, std::string("ODM mount FEHLER T-41-1-0-0-3 widersprüchliche "
                                                 "Unteroptionen: 'cluster' und 'exclusive'\n")))
                << setting;
        }
    }
}

}  // namespace
