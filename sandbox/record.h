// The facts of one run, as plain data: the scene it was asked for, the
// calls the sandbox answered, and what COMMAND left behind.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

// Each scene's words, as options take them and the report gives them, in enumerator order.
enum class control_scene { normal, missing, full };
inline constexpr std::array<const char*, 3> CONTROL_SCENES{"normal", "missing", "full"};

// What COMMAND's own shell could not set: the module's answers, the calls
// answered for it, and the recording tool.
struct scene {
    bool tool_record = false, hold_mount = false, fast_sleep = false;
    control_scene control = control_scene::normal;
    int mount_errno = 0, fork_errno = 0;
};

struct control_file {            // a module mount's, as COMMAND left it
    std::string dir, content{};  // the directory as the caller named it
    int write_opens = 0;
};

// What a mount of the module's type was handed: the record's 32 bytes as
// the kernel copies them, with zeros where the caller's memory ends.
struct record_bytes {
    std::array<unsigned char, 32> bytes{};

    template <typename T>
    T at(std::size_t offset) const  // native byte order
    {
        T value;
        memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    }
};

struct mount_call {
    pid_t pid = 0;
    std::int64_t time = 0;
    std::uint64_t ignored = 0;  // the caller's SigIgn
    std::optional<std::string> source, target, type;
    std::uint64_t flags = 0;
    bool lock_present = false, temp_present = false;  // /etc/mtab~ and /etc/mtab~<pid>
    bool module = false, held = false;                // not module: handed on to the kernel
    std::optional<record_bytes> data{};               // null for a null or unreadable pointer
    int error = 0;                                    // the module's answer
    std::optional<control_file> control{};
};

struct unmount_call {
    pid_t pid = 0;
    std::int64_t time = 0;
    std::optional<std::string> target;
    std::uint64_t flags = 0;
    bool module = false;  // the target was one of the module's live mounts
    int error = 0;
};

struct sleep_call {
    pid_t pid = 0;
    double seconds = 0;
};

struct tool_run {  // an execve(2) of the recording tool
    pid_t pid = 0;
    std::int64_t time = 0;
    std::vector<std::string> argv, env;
    std::uint64_t ignored = 0;
};

struct command_end {
    std::vector<std::string> argv;
    int wait_status = 0, interrupted_by = 0, leftovers_killed = 0;
    bool timed_out = false;
};

struct run_record {
    scene sc;
    command_end command;
    std::vector<mount_call> mounts;
    std::vector<unmount_call> unmounts;
    std::vector<sleep_call> sleeps;
    std::vector<tool_run> tool_runs;
    const char* mtab_kind = "missing";  // at the end: file, symlink, missing or other
    std::string mtab_text;              // a file's content, a link's target
    std::vector<std::string> lock_files;
};

}  // namespace sandbox
