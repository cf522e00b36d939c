// The catalogue sources against the helper: en.msg holds exactly the texts
// built into the helper, and every translation has each message with the
// same printf conversions, lest the helper print garbage or crash on it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using texts = std::map<std::pair<int, int>, std::string>;  // (set, number)

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The part of gencat's format that the sources use. Anything else fails the
// test, so that it cannot hide a message.
texts parse_msg(const std::string& lang)
{
    const std::regex set_line(R"(\$set (\d+)( .*)?)"), message(R"re((\d+) "((?:[^"\\]|\\.)*)")re");
    std::istringstream in(slurp(fs::path(CATALOG_SOURCE_DIR) / (lang + ".msg")));
    texts found;
    int set = 0;
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, set_line))
            set = std::stoi(m[1]);
        else if (set > 0 && std::regex_match(line, m, message))
            found[{set, std::stoi(m[1])}] = std::regex_replace(m[2].str(), std::regex(R"(\\(.))"), "$1");
        else if (!line.empty() && !line.starts_with("$ ") && line != "$quote \"")
            ADD_FAILURE() << lang << ".msg: not understood: " << line;
    }
    return found;
}

std::vector<std::string> conversions(const std::string& format)
{
    static const std::regex spec(R"(%%|%[-+ #0'I]*(\*|\d+)?(\.(\*|\d+))?(hh|h|ll|l|j|z|t|L)?[a-zA-Z])");
    std::vector<std::string> found;
    for (std::sregex_iterator m(format.begin(), format.end(), spec), end; m != end; ++m)
        if (m->str() != "%%")
            found.push_back(m->str());
    return found;
}

TEST(CatalogSourceTest, EnglishHoldsTheBuiltInTexts)
{
    texts code{{{5, 1}, "ERROR"}, {{5, 2}, "WARNING"}, {{5, 3}, "INFO"}};
    const std::regex id(R"re("ODM:mount:(\d+):([^"\\]*)")re");
    for (const char* dir : {"mount", "msg"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(SOURCE_DIR) / dir)) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string source = slurp(entry.path());
            for (std::sregex_iterator m(source.begin(), source.end(), id), end; m != end; ++m)
                code[{1, std::stoi((*m)[1])}] = (*m)[2];
        }
    }
    EXPECT_EQ(code.size(), 10U) << "messages 3 to 8 and 10, and three severity words";
    EXPECT_EQ(parse_msg("en"), code);
}

TEST(CatalogSourceTest, TranslationsKeepEveryConversion)
{
    ASSERT_EQ(conversions("%% %s of %-5.2ld"), (std::vector<std::string>{"%s", "%-5.2ld"}));
    const texts english = parse_msg("en");
    std::istringstream listed(CATALOGS);  // "en en_US.UTF-8 de de_DE.UTF-8"
    for (std::string lang, locale; listed >> lang >> locale;) {
        const texts translated = parse_msg(lang);
        EXPECT_EQ(translated.size(), english.size()) << lang;
        for (const auto& [key, text] : english) {
            const auto it = translated.find(key);
            ASSERT_NE(it, translated.end()) << lang << ": " << text;
            EXPECT_NE(it->second, "") << lang << ": " << text;
            EXPECT_EQ(conversions(it->second), conversions(text)) << lang << ": " << text;
        }
    }
}

}  // namespace
