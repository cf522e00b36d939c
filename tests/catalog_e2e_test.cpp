// The shipped catalogues installed under /opt/KELD/messages, and the
// helper's every reachable message read through them.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "sandbox_run.h"

namespace {

struct message_run {
    const char* what;
    std::vector<std::string> args;
    std::vector<std::string> scene;
};

// Each of the helper's messages that a run can provoke: 5 needs a damaged
// table, and the helper never says anything at INFO.
const message_run RUNS[] = {
    {"usage (4)", {"-h"}, {}},
    {"conflict (3)", {"-o", "exclusive,cluster"}, {}},
    {"unknown suboption (6, 4)", {"-o", "bogus"}, {}},
    {"could not open (7)", {"-o", "cluster"}, {"--control", "missing"}},
    {"could not write (8)", {"-o", "cluster"}, {"--control", "short"}},
    {"could not fork (10)", {"-o", "cluster"}, {"--fork-errno", "EAGAIN", "--tolvane-record"}},
};

const std::string USAGE_ARGS =
    std::string(HELPER_PATH) + " [-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

class CatalogE2eTest : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        for (const char* locale : {"de_DE.UTF-8", "en_US.UTF-8"}) {
            locale_t l = newlocale(LC_ALL_MASK, locale, nullptr);
            if (l == nullptr)
                GTEST_SKIP() << "locale " << locale << " is not generated here (./dev.sh makes it)";
            freelocale(l);
        }
    }

    // Both what the run printed: stdout and stderr in one.
    static std::string printed(const message_run& run, const char* locale)
    {
        std::vector<std::string> scene = run.scene;
        std::vector<std::string> command{HELPER_PATH};
        if (locale != nullptr) {
            scene.insert(scene.end(), {"--messages", CATALOG_BUILD_DIR});
            command = {"env", std::string("LC_ALL=") + locale, HELPER_PATH};
        }
        command.insert(command.end(), run.args.begin(), run.args.end());
        const sandbox_result r = run_sandbox(scene, command);
        return r.out + r.err;
    }
};

TEST_F(CatalogE2eTest, GermanCatalogueTranslatesEveryMessage)
{
    const std::string usage = "ODM mount FEHLER T-41-1-0-0-4 Aufruf: " + USAGE_ARGS;
    const std::string expected[] = {
        usage,
        "ODM mount FEHLER T-41-1-0-0-3 widersprüchliche Unteroptionen: 'cluster' und 'exclusive'\n",
        "ODM mount WARNUNG T-41-1-0-0-6 unbekannte Option bogus\n" + usage,
        "ODM mount WARNUNG T-41-1-0-0-7 /dev/odm/cluster kann nicht geöffnet werden\n",
        "ODM mount WARNUNG T-41-1-0-0-8 /dev/odm/cluster kann nicht geschrieben werden\n",
        // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): one message, wrapped
        "ODM mount WARNUNG T-41-1-0-0-10 Prozess für /opt/KELD/bin/tolvane kann nicht gestartet "
        "werden\n",
    };
    static_assert(std::size(expected) == std::size(RUNS));
    for (std::size_t i = 0; i < std::size(RUNS); ++i)
        EXPECT_EQ(printed(RUNS[i], "de_DE.UTF-8"), expected[i]) << RUNS[i].what;
}

TEST_F(CatalogE2eTest, EnglishCatalogueChangesNothing)
{
    for (const message_run& run : RUNS) {
        const std::string built_in = printed(run, nullptr);
        EXPECT_NE(built_in, "") << run.what;
        EXPECT_EQ(printed(run, "en_US.UTF-8"), built_in) << run.what;
    }
}

// A locale with no catalogue of its own falls back to the built-in texts.
TEST_F(CatalogE2eTest, OtherLocalesGetTheBuiltInTexts)
{
    EXPECT_EQ(printed(RUNS[0], "C.UTF-8"), "ODM mount ERROR T-41-1-0-0-4 usage: " + USAGE_ARGS);
}

}  // namespace
