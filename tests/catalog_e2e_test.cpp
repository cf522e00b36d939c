// The installed catalogues under each spelling of the locale that users set,
// chosen through each of the variables that can choose it.
#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "sandbox_run.h"

namespace {

class CatalogE2eTest : public SandboxTest {};

TEST_F(CatalogE2eTest, GermanForEverySpellingAndVariable)
{
    locale_t de = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
    if (de == nullptr)
        GTEST_SKIP() << "locale de_DE.UTF-8 is not generated here (./dev.sh makes it)";
    freelocale(de);

    for (const char* variable : {"LANG", "LC_ALL", "LC_MESSAGES"}) {
        for (const char* spelling : {"de_DE.UTF-8", "de_DE.utf8"}) {
            const std::string setting = std::string(variable) + "=" + spelling;
            const sandbox_result r =
                run_sandbox({"--messages", INSTALLED_MESSAGES},
                            {"env", "-i", setting, INSTALLED_HELPER, "-o", "exclusive,cluster"});
            EXPECT_EQ(r.status, 255) << setting;
            EXPECT_EQ(r.err,
                      "ODM mount FEHLER T-41-1-0-0-3 widersprüchliche Unteroptionen: "
                      "'cluster' und 'exclusive'\n")
                << setting;
        }
    }
}

}  // namespace
