#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nl_types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "msg/msg.h"
#include "msg/msg_format.h"

namespace {

using testing::Eq;
using testing::ExitedWithCode;

// Resolution without the catalogue: what the identifier alone makes.
std::string plain(const char* id, int severity = SEV_WARNING, int code = 0)
{
    char out[MSG_BUF_SIZE];
    return msg_format(id, severity, out, sizeof out, 0, code);
}

bool passes_through(const char* id)
{
    char out[MSG_BUF_SIZE];
    return msg_format(id, SEV_WARNING, out, sizeof out, 0, 0) == id;
}

TEST(MsgFormat, ResolvesByNameOrNumber)
{
    const std::string expected = "ODM mount WARNING T-41-1-0-0-7 could not open %s";
    EXPECT_EQ(plain("ODM:mount:7:could not open %s"), expected);
    EXPECT_EQ(plain("ODM:set-1:7:could not open %s"), expected);
    EXPECT_EQ(plain("dom-0:mount:7:could not open %s"), expected);
    // Whatever follows the digits is ignored; leading zeros are fine.
    EXPECT_EQ(plain("dom-00:set-1x:7:could not open %s"), expected);
    EXPECT_EQ(plain("dom-0x:set-01:7:could not open %s"), expected);
    EXPECT_EQ(plain("ODM:tolvane:2:x"), "tolvane WARNING T-41-8-0-0-2 x");
}

TEST(MsgFormat, SeverityWords)
{
    EXPECT_EQ(plain("ODM:mount:5:t", SEV_ERROR), "ODM mount ERROR T-41-1-0-0-5 t");
    EXPECT_EQ(plain("ODM:mount:5:t", SEV_INFO), "ODM mount INFO T-41-1-0-0-5 t");
    EXPECT_EQ(plain("ODM:mount:5:t", 42), "ODM mount ERROR T-41-1-0-0-5 t");
    EXPECT_EQ(plain("ODM:mount:5:t", -1), "ODM mount ERROR T-41-1-0-0-5 t");
    // No word and no second blank.
    EXPECT_EQ(plain("ODM:mount:5:t", SEV_NONE), "ODM mount T-41-1-0-0-5 t");
}

TEST(MsgFormat, TextAndNumberAreTakenAsWritten)
{
    EXPECT_EQ(plain("ODM:mount:3:a:b: c"), "ODM mount WARNING T-41-1-0-0-3 a:b: c");
    EXPECT_EQ(plain("ODM:mount:07x:t"), "ODM mount WARNING T-41-1-0-0-07x t");
    EXPECT_EQ(plain("ODM:mount:7:"), "ODM mount WARNING T-41-1-0-0-7 ");
}

TEST(MsgFormat, CodeFieldsComeFromTheMagnitude)
{
    const int code = (3 << 16) | (1023 << 19) | 0xffff;
    EXPECT_EQ(plain("ODM:mount:7:t", SEV_NONE, code), "ODM mount T-41-1-3-1023-7 t");
    EXPECT_EQ(plain("ODM:mount:7:t", SEV_NONE, -code), "ODM mount T-41-1-3-1023-7 t");
    // Bits 30 and 31 belong to neither field.
    EXPECT_EQ(plain("ODM:mount:7:t", SEV_NONE, 0x40000000), "ODM mount T-41-1-0-0-7 t");
}

TEST(MsgFormat, UnresolvableIdentifiersPassThrough)
{
    EXPECT_TRUE(passes_through("/dev/odm"));
    EXPECT_TRUE(passes_through("ODM:mount:7"));  // fewer than three colons
    EXPECT_TRUE(passes_through(""));
    EXPECT_TRUE(passes_through(":mount:7:t"));
    EXPECT_TRUE(passes_through("ODM::7:t"));
    EXPECT_TRUE(passes_through("ODM:mount::t"));
    EXPECT_TRUE(passes_through("ODM:nosuchset:3:text"));
    EXPECT_TRUE(passes_through("XYZ:mount:3:text"));
    EXPECT_TRUE(passes_through("dom-1:mount:3:text"));
    EXPECT_TRUE(passes_through("dom-:mount:3:text"));
    EXPECT_TRUE(passes_through("odm:mount:3:text"));
}

TEST(MsgFormat, SetRowsAreComparedFromOne)
{
    EXPECT_TRUE(passes_through("ODM:set-0:3:t"));
    EXPECT_TRUE(passes_through("ODM:set-9:3:t"));
    EXPECT_TRUE(passes_through("ODM:set-99:3:t"));
    // The first row of that name after row 0 is the error-number set.
    EXPECT_EQ(plain("ODM:**invalid**:3:t"), "ODM WARNING T-41-4-0-0-3 t");
    EXPECT_EQ(plain("ODM:set-5:3:t"), " WARNING T-41-5-0-0-3 t");
}

TEST(MsgFormat, FieldsOfThirtyCharactersDoNotResolve)
{
    const std::string pad29(24, 'x');  // "dom-0" + 24 = 29 characters
    EXPECT_EQ(plain(("dom-0" + pad29 + ":mount:7:t").c_str()), "ODM mount WARNING T-41-1-0-0-7 t");
    EXPECT_TRUE(passes_through(("dom-0" + pad29 + "x:mount:7:t").c_str()));

    const std::string number29 = "7" + std::string(28, '0');
    EXPECT_EQ(plain(("ODM:set-1" + std::string(20, 'y') + ":" + number29 + ":t").c_str()),
              "ODM mount WARNING T-41-1-0-0-" + number29 + " t");
    EXPECT_TRUE(passes_through(("ODM:mount:" + number29 + "0:t").c_str()));
    EXPECT_TRUE(passes_through(("ODM:mount:" + std::string(40, '1')).c_str()));
}

TEST(MsgFormat, OutputIsCutAtItsSize)
{
    const std::string id = "ODM:mount:7:" + std::string(200, 'z');
    char out[MSG_BUF_SIZE];
    EXPECT_EQ(std::strlen(msg_format(id.c_str(), SEV_WARNING, out, sizeof out, 0, 0)),
              MSG_BUF_SIZE - 1);
    char small[8];
    EXPECT_STREQ(msg_format("ODM:mount:7:t", SEV_WARNING, small, sizeof small, 0, 0), "ODM mou");
}

TEST(MsgErrno, DescribesNumbersWithoutTheCatalogue)
{
    EXPECT_STREQ(msg_errno(2, 0), "ODM ERROR T-41-4-0-0-2 No such file or directory");
    EXPECT_STREQ(msg_errno(0, 0), "ODM ERROR T-41-4-0-0-0 Success");
    EXPECT_STREQ(msg_errno(255, 0), "ODM ERROR T-41-4-0-0-255 Unknown error 255");
    EXPECT_STREQ(msg_errno((2 << 16) | 16, 0), "ODM ERROR T-41-4-2-0-16 Device or resource busy");
    EXPECT_EQ(msg_errno(256, 0), nullptr);
    EXPECT_EQ(msg_errno(300, 0), nullptr);
    EXPECT_EQ(msg_errno(-2, 0), nullptr);  // negative counts as too large
}

TEST(MsgErrno, TableMatchesTheSystemLibrary)
{
    std::setlocale(LC_MESSAGES, "C");
    for (int n = 0; n < 256; ++n)
        EXPECT_STREQ(msg_errno_texts[static_cast<std::size_t>(n)], std::strerror(n)) << n;
    EXPECT_EQ(msg_errno_texts[256], nullptr);
}

TEST(MsgSeverity, WordHasALeadingBlank)
{
    EXPECT_STREQ(msg_severity(SEV_NONE, nullptr, 0), "");
    EXPECT_STREQ(msg_severity(SEV_WARNING, nullptr, 0), " WARNING");
    EXPECT_STREQ(msg_severity(SEV_INFO, nullptr, 0), " INFO");
    EXPECT_STREQ(msg_severity(7, nullptr, 0), " ERROR");
}

// Everything below looks at the catalogue, NLSPATH or the process's exit.
// Each runs in a death-test child: msg_nls_init works once per process.
class MsgProcessTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void exit_with(bool ok)
{
    std::exit(ok ? 0 : 1);
}

// An unset NLSPATH is a wrong answer here, not a crash.
bool nlspath_is(const char* expected)
{
    const char* value = getenv("NLSPATH");
    return value != nullptr && std::strcmp(value, expected) == 0;
}

TEST_F(MsgProcessTest, NlspathIsExtendedOnceOnFirstLookup)
{
    EXPECT_EXIT(
        {
            setenv("NLSPATH", "/x/%N", 1);
            char out[MSG_BUF_SIZE];
            msg_format("ODM:mount:7:t", SEV_WARNING, out, sizeof out, 0, 0);
            const bool untouched = nlspath_is("/x/%N");
            msg_get("ODM:mount:7:t", SEV_WARNING, out, sizeof out, 0);
            msg_get("ODM:mount:7:t", SEV_WARNING, out, sizeof out, 0);
            exit_with(untouched && nlspath_is("/opt/KELD/messages/%L/%N:/x/%N"));
        },
        ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            setenv("NLSPATH", "", 1);
            msg_nls_init();
            exit_with(nlspath_is("/opt/KELD/messages/%L/%N:"));
        },
        ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            unsetenv("NLSPATH");
            msg_nls_init();
            exit_with(nlspath_is("/opt/KELD/messages/%L/%N"));
        },
        ExitedWithCode(0), "");
}

TEST_F(MsgProcessTest, ReportingFunctionsPrintOneLineEach)
{
    EXPECT_EXIT(error("ODM:mount:5:sanity check fails"), ExitedWithCode(255),
                Eq("ODM mount ERROR T-41-1-0-0-5 sanity check fails\n"));
    EXPECT_EXIT((errno = ENOENT, fatal_errno("/dev/odm")), ExitedWithCode(255),
                Eq("No such file or directory: /dev/odm\n"));
    EXPECT_EXIT((warn("ODM:mount:7:could not open %s", "/dev/odm/cluster"), std::exit(3)),
                ExitedWithCode(3), Eq("ODM mount WARNING T-41-1-0-0-7 could not open /dev/odm/cluster\n"));
    EXPECT_EXIT((info("ODM:mount:9:%d%%", 5), std::exit(3)), ExitedWithCode(3),
                Eq("ODM mount INFO T-41-1-0-0-9 5%\n"));
    EXPECT_EXIT((errno = EBUSY, warn_errno("ODM:mount:8:could not write %s", "f"), std::exit(3)),
                ExitedWithCode(3), Eq("Device or resource busy: ODM mount WARNING T-41-1-0-0-8 could not write f\n"));
}

TEST_F(MsgProcessTest, LookupLeavesErrnoAsTheCatalogueCallsDo)
{
    // With no catalogue, catgets and catclose both answer EBADF.
    EXPECT_EXIT(
        {
            setenv("NLSPATH", "/nonexistent/%N", 1);
            errno = 0;
            warn("ODM:mount:7:could not open %s", "x");
            exit_with(errno == EBADF);
        },
        ExitedWithCode(0), testing::_);
}

// A real catalogue, compiled by gencat, found through the caller's NLSPATH.
TEST_F(MsgProcessTest, TranslatesThroughACatalogue)
{
    const auto dir = std::filesystem::temp_directory_path() /
                     ("msg_test." + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    const auto source = dir / "test.msg";
    std::ofstream(source) << "$quote \"\n"
                             "$set 1\n"
                             "7 \"impossible d'ouvrir %s\"\n"
                             "$set 5\n"
                             "1 \"ERREUR\"\n"
                             "2 \"AVERTISSEMENT\"\n";
    const std::string cmd = std::string(GENCAT_PATH) + " " + (dir / "KELDodm.cat").string() +
                            " " + source.string();
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;  // NOLINT(cert-env33-c): our own gencat
    const std::string nlspath = (dir / "%N").string();

    EXPECT_EXIT(
        {
            setenv("NLSPATH", nlspath.c_str(), 1);
            warn("ODM:mount:7:could not open %s", "/dev/odm/cluster");
            std::exit(0);
        },
        ExitedWithCode(0),
        Eq("ODM mount AVERTISSEMENT T-41-1-0-0-7 impossible d'ouvrir /dev/odm/cluster\n"));
    // Messages the catalogue lacks keep their default text, and still get
    // a translated severity word.
    EXPECT_EXIT(
        {
            setenv("NLSPATH", nlspath.c_str(), 1);
            error("ODM:mount:5:sanity check fails");
        },
        ExitedWithCode(255), Eq("ODM mount ERREUR T-41-1-0-0-5 sanity check fails\n"));
    // msg_errno takes only the severity word from the catalogue.
    EXPECT_EXIT(
        {
            setenv("NLSPATH", nlspath.c_str(), 1);
            std::fputs(msg_errno(2, 1), stderr);
            std::exit(0);
        },
        ExitedWithCode(0), Eq("ODM ERREUR T-41-4-0-0-2 No such file or directory"));

    std::filesystem::remove_all(dir);
}

}  // namespace
