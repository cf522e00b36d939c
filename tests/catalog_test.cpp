// The message catalogues against the helper: the English source must hold
// the built-in texts, translations must keep their printf conversions, and
// the compiled catalogues must be found the way the helper looks for them.
#include <gtest/gtest.h>
#include <nl_types.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "msg/msg.h"
#include "msg/msg_format.h"

namespace {

namespace fs = std::filesystem;

using msg_key = std::pair<int, int>;  // set, number
using catalog_texts = std::map<msg_key, std::string>;

constexpr int SET_MOUNT = 1;

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The part of gencat's format that our sources use: comments, $set,
// $quote " and quoted messages with backslash escapes. Anything else fails
// the test rather than being skipped, so that it cannot hide a message.
// NOLINTNEXTLINE(readability-function-cognitive-complexity): one branch per kind of line
catalog_texts parse_msg(const fs::path& path)
{
    catalog_texts texts;
    std::istringstream in(slurp(path));
    std::string line;
    int set = 0;
    bool quoted = false;
    const std::regex message(R"re((\d+) "((?:[^"\\]|\\.)*)")re");
    const std::regex set_line(R"re(\$set (\d+)( .*)?)re");
    for (int n = 1; std::getline(in, line); ++n) {
        std::smatch m;
        if (line.empty() || line.starts_with("$ "))
            continue;
        if (line == "$quote \"") {
            quoted = true;
        } else if (std::regex_match(line, m, set_line)) {
            set = std::stoi(m[1]);
        } else if (quoted && set > 0 && std::regex_match(line, m, message)) {
            std::string text;
            for (auto c = m[2].first; c != m[2].second; ++c) {
                if (*c == '\\' && ++c != m[2].second)
                    text += *c == 'n' ? '\n' : *c == 't' ? '\t' : *c;
                else
                    text += *c;
            }
            const bool fresh = texts.emplace(msg_key{set, std::stoi(m[1])}, text).second;
            EXPECT_TRUE(fresh) << path << ":" << n << ": message given twice";
        } else {
            ADD_FAILURE() << path << ":" << n << ": not understood: " << line;
        }
    }
    return texts;
}

// The identifiers in the helper's sources, "ODM:mount:<n>:<default text>",
// are where the default texts live.
catalog_texts built_in_texts()
{
    catalog_texts texts;
    const std::regex id(R"re("ODM:mount:(\d+):([^"\\]*)")re");
    for (const char* dir : {"mount", "msg"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(SOURCE_DIR) / dir)) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string code = slurp(entry.path());
            for (std::sregex_iterator m(code.begin(), code.end(), id), end; m != end; ++m)
                // cppcheck-suppress ignoredReturnValue ; it is the key
                texts[{SET_MOUNT, std::stoi((*m)[1])}] = (*m)[2];
        }
    }
    for (int severity : {SEV_ERROR, SEV_WARNING, SEV_INFO}) {
        // The word comes with its leading blank.
        const std::string word = msg_severity(severity, nullptr, 0);
        texts[{MSG_SET_SEVERITY, severity}] = word.substr(1);
    }
    return texts;
}

// The conversions of a printf format, in order, "%%" left out.
std::vector<std::string> conversions(const std::string& format)
{
    static const std::regex spec(R"(%%|%[-+ #0'I]*(\*|\d+)?(\.(\*|\d+))?(hh|h|ll|l|j|z|t|L)?[a-zA-Z])");
    std::vector<std::string> found;
    for (std::sregex_iterator m(format.begin(), format.end(), spec), end; m != end; ++m)
        if (m->str() != "%%")
            found.push_back(m->str());
    return found;
}

// Every catalogue source and the locale it is compiled for, as the build
// lists them: "en en_US.UTF-8 de de_DE.UTF-8".
std::vector<std::pair<std::string, std::string>> listed_catalogs()
{
    std::vector<std::pair<std::string, std::string>> pairs;
    std::istringstream in(CATALOGS);
    for (std::string lang, locale; in >> lang >> locale;)
        pairs.emplace_back(lang, locale);
    return pairs;
}

const std::vector<std::pair<std::string, std::string>> catalogs = listed_catalogs();

fs::path source_of(const std::string& lang)
{
    return fs::path(CATALOG_SOURCE_DIR) / (lang + ".msg");
}

fs::path compiled(const std::string& locale)
{
    return fs::path(CATALOG_BUILD_DIR) / locale / CATALOG_NAME;
}

TEST(CatalogSourceTest, EnglishHoldsExactlyTheBuiltInTexts)
{
    const catalog_texts code = built_in_texts();
    // The layout is fixed: if the scan of the sources missed some, the
    // comparison below would prove nothing.
    for (int n : {3, 4, 5, 6, 7, 8, 10})
        EXPECT_TRUE(code.contains({SET_MOUNT, n})) << "message " << n << " not found in the sources";
    EXPECT_EQ(code.size(), 10u);

    EXPECT_EQ(parse_msg(source_of("en")), code);
}

TEST(CatalogSourceTest, TranslationsAreCompleteWithTheSameConversions)
{
    // The comparison must see order and kind, not just the count.
    ASSERT_NE(conversions("%s of %d"), conversions("%d of %s"));
    ASSERT_EQ(conversions("100%% %-5.2ld"), std::vector<std::string>{"%-5.2ld"});

    const catalog_texts english = parse_msg(source_of("en"));
    for (const auto& [lang, locale] : catalogs) {
        SCOPED_TRACE(lang);
        const catalog_texts translated = parse_msg(source_of(lang));
        for (const auto& [key, text] : english) {
            const auto it = translated.find(key);
            if (it == translated.end()) {
                ADD_FAILURE() << "set " << key.first << " message " << key.second << " missing";
                continue;
            }
            EXPECT_FALSE(it->second.empty());
            EXPECT_EQ(conversions(it->second), conversions(text))
                << "set " << key.first << " message " << key.second << ": " << it->second;
        }
        for (const auto& [key, text] : translated)
            EXPECT_TRUE(english.contains(key))
                << "set " << key.first << " message " << key.second << " is not in en.msg";
    }
}

TEST(CompiledCatalogTest, EachGivesItsSourceTexts)
{
    for (const auto& [lang, locale] : catalogs) {
        SCOPED_TRACE(locale);
        // A path with a slash bypasses NLSPATH: this checks gencat's output.
        nl_catd cat = catopen(compiled(locale).c_str(), 0);
        ASSERT_NE(cat, reinterpret_cast<nl_catd>(-1));  // NOLINT(performance-no-int-to-ptr): catopen's failure value
        for (const auto& [key, text] : parse_msg(source_of(lang)))
            EXPECT_STREQ(catgets(cat, key.first, key.second, "(missing)"), text.c_str());
        catclose(cat);
    }
}

// The helper's own lookup, with the build tree standing in for the
// installed catalogue directory. NLSPATH must be set before the first
// lookup in the process, which fixes the search path for good.
class CatalogLookupTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        const std::string path = std::string(CATALOG_BUILD_DIR) + "/%L/%N";
        setenv("NLSPATH", path.c_str(), 1);
        unsetenv("LC_ALL");
        char out[MSG_BUF_SIZE];
        msg_get("ODM:mount:5:sanity check fails", SEV_ERROR, out, sizeof out, 0);
    }

    static bool use_locale(const char* locale)
    {
        return setlocale(LC_MESSAGES, locale) != nullptr;
    }

    void TearDown() override { setlocale(LC_MESSAGES, "C"); }
};

std::string looked_up(const char* id, int severity)
{
    char out[MSG_BUF_SIZE];
    return msg_get(id, severity, out, sizeof out, 0);
}

std::string built_in(const char* id, int severity)
{
    char out[MSG_BUF_SIZE];
    return msg_format(id, severity, out, sizeof out, 0, 0);
}

TEST_F(CatalogLookupTest, EnglishCatalogueChangesNothing)
{
    if (!use_locale("en_US.UTF-8"))
        GTEST_SKIP() << "locale en_US.UTF-8 is not generated (./dev.sh does it as root)";
    for (const auto& [key, text] : built_in_texts()) {
        if (key.first != SET_MOUNT)
            continue;
        const std::string id = "ODM:mount:" + std::to_string(key.second) + ":" + text;
        for (int severity : {SEV_ERROR, SEV_WARNING, SEV_INFO})
            EXPECT_EQ(looked_up(id.c_str(), severity), built_in(id.c_str(), severity));
    }
}

TEST_F(CatalogLookupTest, GermanCatalogueFoundThroughTheMessagesLocale)
{
    if (!use_locale("de_DE.UTF-8"))
        GTEST_SKIP() << "locale de_DE.UTF-8 is not generated (./dev.sh does it as root)";
    EXPECT_EQ(looked_up("ODM:mount:7:could not open %s", SEV_WARNING),
              "ODM mount WARNUNG T-41-1-0-0-7 %s kann nicht geöffnet werden");
    EXPECT_EQ(looked_up("ODM:mount:3:conflicting suboptions: '%s' and '%s'", SEV_ERROR),
              "ODM mount FEHLER T-41-1-0-0-3 widersprüchliche Unteroptionen: '%s' und '%s'");
    EXPECT_EQ(looked_up("ODM:mount:4:usage: %s %s", SEV_INFO), "ODM mount INFO T-41-1-0-0-4 Aufruf: %s %s");

    // catopen takes the locale's name literally: another spelling of the
    // same locale finds no catalogue and falls back to the built-in text.
    if (use_locale("de_DE.utf8")) {
        EXPECT_EQ(looked_up("ODM:mount:7:could not open %s", SEV_WARNING),
                  built_in("ODM:mount:7:could not open %s", SEV_WARNING));
    }
}

}  // namespace
