// Identifier resolution and its tables. Internal to msg/; the helper itself
// needs only msg.h.
#pragma once

#include "msg/msg.h"

#include <nl_types.h>

#include <array>
#include <cstddef>

struct msg_set {
    const char* name;   // what an identifier's set field is compared with
    const char* label;  // printed at the start of the message
};

struct msg_domain {
    const char* name;
    const char* umi_prefix;
    const char* catalog;  // file name, found through NLSPATH
    const msg_set* sets;
};

// Set numbers are row positions, and catalogue set numbers with them.
inline constexpr std::array<msg_set, 10> msg_sets{{
    {"**invalid**", ""},
    {"mount", "ODM mount"},
    {"admin", "ODM admin"},
    {"lib", "ODM"},
    {"**invalid**", "ODM"},  // heads the error-number messages
    {"**invalid**", ""},     // catalogue set 5: the severity words
    {"**invalid**", ""},
    {"report", "ODM report"},
    {"tolvane", "tolvane"},
    {nullptr, nullptr},
}};

inline constexpr std::array<msg_domain, 2> msg_domains{{
    {"ODM", "T-41", "KELDodm.cat", msg_sets.data()},
    {nullptr, nullptr, nullptr, nullptr},
}};

inline constexpr int MSG_SET_ERRNO = 4;
inline constexpr int MSG_SET_SEVERITY = 5;

// glibc's descriptions of error numbers 0 to 255, and a null at 256.
extern const std::array<const char*, 257> msg_errno_texts;

const char* msg_format(const char* id, int severity, char* out, std::size_t outsize,
                       int use_catalog, int code);
void msg_nls_init();
const char* msg_severity(int severity, nl_catd catalog, int use_catalog);
const char* msg_errno(int code, int use_catalog);
