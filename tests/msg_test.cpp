// Message identifiers resolved to formats, the errno messages, and the
// reporting functions with the catalogue and NLSPATH they find.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "msg/msg.h"
#include "msg/msg_format.h"
#include "run_child.h"

namespace {

TEST(MsgFormatTest, IdentifiersWithoutTheCatalogue)
{
    const struct {
        const char* id;
        const char* format;
        int severity;
        int code;
    } cases[] = {
        {"ODM:mount:7:could not open %s", "ODM mount WARNING T-41-1-0-0-7 could not open %s",
         SEV_WARNING, 0},
        // By number too; whatever follows the digits is ignored.
        {"dom-0:set-1:7:t", "ODM mount INFO T-41-1-0-0-7 t", SEV_INFO, 0},
        {"dom-00:set-1x:7:t", "ODM mount ERROR T-41-1-0-0-7 t", SEV_ERROR, 0},
        {"dom-0x:set-01:7:t", "ODM mount ERROR T-41-1-0-0-7 t", 42, 0},
        {"ODM:tolvane:2:x", "tolvane ERROR T-41-8-0-0-2 x", -1, 0},
        // The number as written, the text with its colons.
        {"ODM:mount:07\xc3\xa9:a:b: c", "ODM mount T-41-1-0-0-07\xc3\xa9 a:b: c", SEV_NONE, 0},
        {"ODM:mount:\xc3\xa9:t", "ODM mount T-41-1-0-0-\xc3\xa9 t", SEV_NONE, 0},
        // The code's two fields come from its magnitude; bit 30 is in neither.
        {"ODM:mount:7:t", "ODM mount T-41-1-7-2047-7 t", SEV_NONE, 0x7fff0000},
        {"ODM:mount:7:t", "ODM mount T-41-1-7-2047-7 t", SEV_NONE, -0x3fff0000},
        // A field resolves up to 29 characters.
        {"dom-0xxxxxxxxxxxxxxxxxxxxxxxx:mount:7:t", "ODM mount T-41-1-0-0-7 t", SEV_NONE, 0},
    };
    char out[128];
    for (const auto& c : cases)
        EXPECT_STREQ(msg_format(c.id, c.severity, out, sizeof out, 0, c.code), c.format) << c.id;
    // Unresolvable, and so given back as they are: a field of 30 characters, missing or
    // empty fields, unknown domains and sets. An empty field is never read past its end,
    // whatever the one before left in the buffer: here a colon.
    for (const char* id :
         {"dom-0xxxxxxxxxxxxxxxxxxxxxxxxx:mount:7:t", "ODM:mount:7", "", ":mount:7:t", "ODM::7:t",
          "ABC:mount:3:t", "XYZ:mount:3:t", "dom-1:mount:3:t", "dom-:mount:3:t", "ABCD0:mount:3:t",
          "dom.0:mount:3:t", "dom-x:mount:3:t", "ODM:Mount:3:t", "ODM:set-0:3:t",
          "ODM:nosuchset:3:t", "ODM:mount::a:t", "ODM:mount:"})
        EXPECT_EQ(msg_format(id, SEV_NONE, out, sizeof out, 0, 0), id) << id;
    char small[8];
    EXPECT_STREQ(msg_format("ODM:mount:7:t", SEV_NONE, small, sizeof small, 0, 0), "ODM mou");
}

TEST(MsgErrnoTest, NumbersWithoutTheCatalogue)
{
    EXPECT_STREQ(msg_errno(0, 0), "ODM ERROR T-41-4-0-0-0 Success");
    EXPECT_STREQ(msg_errno(255, 0), "ODM ERROR T-41-4-0-0-255 Unknown error 255");
    EXPECT_STREQ(msg_errno((2 << 16) | 16, 0), "ODM ERROR T-41-4-2-0-16 Device or resource busy");
    for (int n : {256, 257, -2})  // a negative number counts as too large
        EXPECT_EQ(msg_errno(n, 0), nullptr) << n;
    for (int n = 0; n < 256; ++n)
        EXPECT_STREQ(msg_errno_texts[static_cast<std::size_t>(n)], std::strerror(n)) << n;
}

void print_nlspath()
{
    std::fputs(std::getenv("NLSPATH") ? std::getenv("NLSPATH") : "(unset)", stderr);
}

void info_then_nlspath()
{
    info("ODM:mount:9:");
    print_nlspath();
}

// Each in a child, which keeps what a catalogue lookup does to the process, with NLSPATH
// as given (nullptr: unset). No catalogue is found for the C locale.
TEST(MsgReportTest, ReportingFunctions)
{
    setenv("LANG", "C", 1);
    unsetenv("LC_ALL");
    unsetenv("LC_MESSAGES");
    const struct {
        const char* nlspath;
        void (*report)();
        const char* err;
    } cases[] = {
        {nullptr,
         [] {
             errno = EBUSY;
             warn_errno("ODM:mount:8:could not write %s", "f");
         },
         "Device or resource busy: ODM mount WARNING T-41-1-0-0-8 could not write f\n"},
        {nullptr, [] { info("ODM:mount:9:%d%%", 5); }, "ODM mount INFO T-41-1-0-0-9 5%\n"},
        // A format is cut at 127 bytes.
        {nullptr,
         [] {
             warn("ODM:mount:9:0123456789012345678901234567890123456789012345678901234567890123"
                  "456789012345678901234567890123456789");
         },
         "ODM mount WARNING T-41-1-0-0-9 012345678901234567890123456789012345678901234567890123"
         "456789012345678901234567890123456789012345\n"},
        // The product's directory goes in front of NLSPATH at the first lookup, msg_errno's too.
        {"/x/%N", info_then_nlspath,
         "ODM mount INFO T-41-1-0-0-9 \n/opt/KELD/messages/%L/%N:/x/%N"},
        {"", info_then_nlspath, "ODM mount INFO T-41-1-0-0-9 \n/opt/KELD/messages/%L/%N:"},
        {nullptr,
         [] {
             msg_errno(2, 1);
             print_nlspath();
         },
         "/opt/KELD/messages/%L/%N"},
        // A catalogue: the text and the severity word are looked up, and a message that it
        // does not hold keeps its own text. German keeps INFO; words.msg changes it.
        {CATALOG_BUILD_DIR "/de_DE.UTF-8/%N", [] { warn("ODM:mount:10:could not fork %s", "x"); },
         "ODM mount WARNUNG T-41-1-0-0-10 Prozess f\xc3\xbcr x kann nicht gestartet werden\n"},
        {WORDS_CATALOG_DIR "/%N", [] { info("ODM:mount:9:i"); },
         "ODM mount HINWEIS T-41-1-0-0-9 i\n"},
        // A word is cut at 62 bytes.
        {WORDS_CATALOG_DIR "/%N", [] { warn("ODM:mount:9:w"); },
         "ODM mount W012345678901234567890123456789012345678901234567890123456789"
         "0 T-41-1-0-0-9 w\n"},
        // msg_errno takes its catalogue from LANG, the others from
        // LC_MESSAGES; the errno text is always the C library's.
        {CATALOG_BUILD_DIR "/%L/%N",
         [] {
             setenv("LANG", "de_DE.UTF-8", 1);
             setenv("LC_MESSAGES", "C", 1);
             warn("ODM:mount:9:%s", msg_errno(2, 1));
         },
         "ODM mount WARNING T-41-1-0-0-9 ODM FEHLER T-41-4-0-0-2 No such file or directory\n"},
    };
    for (const auto& c : cases) {
        const child_result r = in_child([&c] {
            c.nlspath != nullptr ? setenv("NLSPATH", c.nlspath, 1) : unsetenv("NLSPATH");
            c.report();
            return 0;
        });
        EXPECT_EQ(std::pair(r.status, r.err), std::pair(0, std::string(c.err)));
    }
}

}  // namespace
