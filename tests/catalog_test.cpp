// Every compiled catalogue holds each of the helper's messages with the
// printf conversions of its built-in text, which en.msg holds exactly. A
// translation is a format: one that differs prints garbage or crashes.
#include <gtest/gtest.h>
#include <nl_types.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> conversions(const std::string& format)
{
    static const std::regex conversion(
        R"(%%|%[-+ #0'I]*(\*|\d+)?(\.(\*|\d+))?(hh|h|ll|l|j|z|t|L)?[a-zA-Z])");
    std::vector<std::string> found;
    for (std::sregex_iterator m(format.begin(), format.end(), conversion), end; m != end; ++m)
        if (m->str() != "%%")
            found.push_back(m->str());
    return found;
}

TEST(CatalogTest, EachHoldsEveryMessageWithItsConversions)
{
    ASSERT_EQ(conversions("%% %s of %-5.2ld"), (std::vector<std::string>{"%s", "%-5.2ld"}));
    const struct {
        int set, number;
        const char* text;
    } messages[] = {{1, 3, "conflicting suboptions: '%s' and '%s'"},
                    {1, 4, "usage: %s %s"},
                    {1, 5, "sanity check fails"},
                    {1, 6, "unrecognized option %s"},
                    {1, 7, "could not open %s"},
                    {1, 8, "could not write %s"},
                    {1, 10, "could not fork %s"},
                    {5, 1, "ERROR"},
                    {5, 2, "WARNING"},
                    {5, 3, "INFO"}};
    std::istringstream listed(CATALOGS);  // "en en_US.UTF-8 de de_DE.UTF-8"
    for (std::string lang, locale; listed >> lang >> locale;) {
        // A path with a slash is taken as it is, not looked up through NLSPATH.
        nl_catd cat = catopen((CATALOG_BUILD_DIR "/" + locale + "/KELDodm.cat").c_str(), 0);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): catopen's failure value
        ASSERT_NE(cat, reinterpret_cast<nl_catd>(-1)) << locale;
        for (const auto& m : messages) {
            const std::string text = catgets(cat, m.set, m.number, "");
            EXPECT_EQ(conversions(text), conversions(m.text)) << locale << ": " << text;
            EXPECT_TRUE(lang == "en" ? text == m.text : !text.empty()) << locale << ": " << text;
        }
        catclose(cat);
    }
}

}  // namespace
