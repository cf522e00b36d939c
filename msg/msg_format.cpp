// Resolving message identifiers "domain:set:number:default text".
#include "msg/msg_format.h"

#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char NLSPATH_DIR[] = "/opt/KELD/messages/%L/%N";

// Fields are copied through a buffer of this size, at most FIELD_COPY - 1
// characters of them, so a field of 30 characters or more cannot resolve.
constexpr std::size_t FIELD_BUF = 32;
constexpr std::size_t FIELD_COPY = 31;

constexpr std::size_t SEVERITY_BUF = 64;

char* nlspath;  // kept for the life of the process: putenv holds on to it
char nlspath_default[] = "NLSPATH=/opt/KELD/messages/%L/%N";

char severity_buf[SEVERITY_BUF];
char errno_buf[128];

// An encoded code is read through its magnitude; INT_MIN has one too.
std::uint32_t magnitude(int code)
{
    return code < 0 ? 0u - static_cast<std::uint32_t>(code) : static_cast<std::uint32_t>(code);
}

// The two number fields that an encoded code carries.
struct code_fields {
    int one;
    int two;
};

code_fields split_code(int code)
{
    const std::uint32_t a = magnitude(code);
    return {static_cast<int>((a & 0x70000) >> 16), static_cast<int>((a & 0x3ff80000) >> 19)};
}

// Copies the field that starts at p into `field` and moves p past it.
// Returns false when the field is missing: empty, not followed by a colon
// within the copy, or too long to fit it.
bool split_field(const char*& p, char (&field)[FIELD_BUF])
{
    std::snprintf(field, FIELD_COPY, "%s", p);
    field[FIELD_BUF - 1] = '\0';

    if (field[0] == ':') {
        field[0] = '\0';
        ++p;
        return false;
    }
    if (field[0] == '\0')
        return false;

    for (char* c = field + 1;; ++c) {
        ++p;
        if (*c == '\0')
            return false;
        if (*c == ':') {
            *c = '\0';
            ++p;
            return true;
        }
    }
}

// "dom-0", "set-12x": a prefix, then at least one digit, read by strtol.
// Plain C strings: string_view's starts_with would drag in libstdc++.
bool numbered(const char* field, const char* prefix, int number)
{
    const std::size_t n = std::strlen(prefix);
    if (std::strncmp(field, prefix, n) != 0)
        return false;
    const char* digits = field + n;
    if (*digits < '0' || *digits > '9')
        return false;
    return static_cast<int>(std::strtol(digits, nullptr, 10)) == number;
}

}  // namespace

void msg_nls_init()
{
    if (nlspath != nullptr)
        return;

    std::setlocale(LC_MESSAGES, "");

    // Our catalogues come first, the caller's search path after them.
    if (const char* old = std::getenv("NLSPATH")) {
        const std::size_t size = std::strlen(old) + 34;
        if (auto* s = static_cast<char*>(std::malloc(size))) {
            std::snprintf(s, size, "%s=%s:%s", "NLSPATH", NLSPATH_DIR, old);
            nlspath = s;
            putenv(nlspath);
            return;
        }
    }
    nlspath = nlspath_default;
    putenv(nlspath);
}

const char* msg_severity(int severity, nl_catd catalog, int use_catalog)
{
    if (severity == SEV_NONE)
        return "";

    const char* word = "ERROR";
    int number = 1;
    if (severity == SEV_WARNING) {
        word = "WARNING";
        number = 2;
    } else if (severity == SEV_INFO) {
        word = "INFO";
        number = 3;
    }
    if (use_catalog)
        word = catgets(catalog, MSG_SET_SEVERITY, number, word);

    std::snprintf(severity_buf, sizeof severity_buf, " %s", word);
    return severity_buf;
}

const char* msg_format(const char* id, int severity, char* out, std::size_t outsize,
                       int use_catalog, int code)
{
    char domain[FIELD_BUF];
    char set[FIELD_BUF];
    char number[FIELD_BUF];

    // All three are split before any is judged.
    const char* p = id;
    const bool have_domain = split_field(p, domain);
    const bool have_set = split_field(p, set);
    const bool have_number = split_field(p, number);
    if (!have_domain || !have_set || !have_number)
        return id;
    const char* text = p;

    const code_fields fields = split_code(code);

    for (int d = 0; msg_domains[d].name != nullptr; ++d) {
        const msg_domain& dom = msg_domains[d];
        if (numbered(domain, "dom-", d))
            std::snprintf(domain, FIELD_COPY, "%s", dom.name);
        else if (std::strcmp(domain, dom.name) != 0)
            continue;

        // Row 0 is a placeholder: set numbers start at 1.
        for (int s = 1; dom.sets[s].name != nullptr; ++s) {
            if (!numbered(set, "set-", s) && std::strcmp(set, dom.sets[s].name) != 0)
                continue;

            const char* label = msg_sets[s].label;
            if (!use_catalog) {
                std::snprintf(out, outsize, "%s%s %s-%d-%d-%d-%s %s", label,
                              msg_severity(severity, nullptr, 0), dom.umi_prefix, s, fields.one,
                              fields.two, number, text);
                return out;
            }

            // Opened and closed for every message: nothing is cached, and a
            // catalogue that fails to open just yields the default texts.
            msg_nls_init();
            nl_catd catalog = catopen(dom.catalog, NL_CAT_LOCALE);
            const char* translated =
                catgets(catalog, s, static_cast<int>(std::strtol(number, nullptr, 10)), text);
            const char* word = msg_severity(severity, catalog, 1);
            std::snprintf(out, outsize, "%s%s %s-%d-%d-%d-%s %s", label, word, dom.umi_prefix, s,
                          fields.one, fields.two, number, translated);
            catclose(catalog);
            return out;
        }
    }
    return id;
}

const char* msg_errno(int code, int use_catalog)
{
    const code_fields fields = split_code(code);
    int n = static_cast<int>(magnitude(code) & 0xffff);
    if (code < 0)
        n = -n;

    nl_catd catalog = nullptr;
    const char* text;
    if (use_catalog) {
        // Flag 0, not NL_CAT_LOCALE: this catalogue follows LANG.
        msg_nls_init();
        catalog = catopen(msg_domains[0].catalog, 0);
        text = std::strerror(n);
        if (text == nullptr)
            return nullptr;
    } else {
        // A negative number wraps to a huge one and is refused with it.
        if (static_cast<unsigned>(n) > 256)
            return nullptr;
        text = msg_errno_texts[static_cast<unsigned>(n)];
    }
    if (text == nullptr)
        return nullptr;

    const char* word = msg_severity(SEV_ERROR, catalog, use_catalog);
    std::snprintf(errno_buf, sizeof errno_buf, "%s%s %s-%d-%d-%d-%d %s",
                  msg_sets[MSG_SET_ERRNO].label, word, msg_domains[0].umi_prefix, MSG_SET_ERRNO,
                  fields.one, fields.two, n, text);
    if (use_catalog)
        catclose(catalog);
    return errno_buf;
}
