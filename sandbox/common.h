// What every part of odm-sandbox leans on: the exit statuses, the paths of
// the scene, and how a failure is told.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// Ours, not COMMAND's; env(1) and timeout(1) use the same numbers.
inline constexpr int EXIT_TIMED_OUT = 124;
inline constexpr int EXIT_SANDBOX_FAILED = 125;
// Heads every complaint about what this kernel or its settings deny us, as
// opposed to a fault of ours: the tests skip on it, and fail on the rest.
inline constexpr const char* UNAVAILABLE = "this system cannot provide a sandbox: ";

inline constexpr const char* MTAB_PATH = "/etc/mtab";
inline constexpr const char* MTAB_LOCK_PATH = "/etc/mtab~";
inline constexpr const char* TOOL_PATH = "/opt/KELD/bin/tolvane";
inline constexpr const char* HELPER_PATH = "/sbin/mount.qeodmfs";
inline constexpr const char* CONTROL_NAME = "cluster";
// Inside the throwaway /dev, out of the real system's sight.
inline constexpr const char* STATE_DIR = "/dev/.odm-sandbox";
// Where the module makes its file systems.
inline constexpr const char* STAGE_DIR = "/dev/.odm-sandbox/stage";

[[noreturn, gnu::format(printf, 1, 2)]] void die(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void complain(const char* fmt, ...);
// "cannot CALL PATH: <errno text>", told; the errno for the caller's answer.
int cannot(const char* call, const std::string& path);
[[noreturn]] void fail(const char* call, const std::string& path);

std::string errno_name(int err);
std::vector<std::string> signal_names(std::uint64_t mask);
// "mtab~" and "mtab~<digits>": the lock and the temporary files beside it.
bool is_lock_name(std::string_view name);
// All of it from offset 0, whatever the descriptor's own offset.
std::string read_all(int fd);
std::string read_file(const std::string& path);
std::int64_t monotonic_ns();

}  // namespace sandbox
