// Catalogued messages: every line the helper prints goes through here.
//
// A message identifier carries its own default text, e.g.
// "ODM:mount:7:could not open %s". It resolves to a complete printf format
// "ODM mount WARNING T-41-1-0-0-7 could not open %s", translated through the
// KELDodm.cat catalogue when one is installed. An identifier that does not
// resolve (a bare path, say) is used as it stands.
//
// Companion programs use info, warn_errno, msg_errno, msg_errno_texts and msg_format's use_catalog.
//
// Never include <err.h> or <error.h> where this header is visible: their
// warn() would give ours C linkage, and error() would become an overload.
#pragma once

#include <cstddef>

enum : int {
    SEV_NONE = 0,
    SEV_ERROR = 1,
    SEV_WARNING = 2,
    SEV_INFO = 3,
};

// Holds the format that msg_get makes: label, severity, identifier and text.
// A longer format is cut to 127 bytes and the terminator; the message
// printed from it is not, whatever its arguments add.
inline constexpr std::size_t MSG_BUF_SIZE = 128;

// The format for `id` in `out`, or `id` itself when it does not resolve.
const char* msg_get(const char* id, int severity, char* out, std::size_t outsize, int code);

[[gnu::format(printf, 1, 2)]] void info(const char* id, ...);
[[gnu::format(printf, 1, 2)]] void warn(const char* id, ...);
// These two put "<strerror(errno)>: " in front of the message.
[[gnu::format(printf, 1, 2)]] void warn_errno(const char* id, ...);
[[noreturn, gnu::format(printf, 1, 2)]] void fatal_errno(const char* id, ...);
[[noreturn, gnu::format(printf, 1, 2)]] void error(const char* id, ...);
