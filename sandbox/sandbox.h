// odm-sandbox: runs a command in a throwaway system where mount(2) of
// "qeodmfs" is answered by an emulated kernel module, and records what the
// command did to that system.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// Our own failures must not pass for a status of COMMAND's; env(1) and
// timeout(1) use the same two numbers.
inline constexpr int EXIT_TIMED_OUT = 124;
inline constexpr int EXIT_SANDBOX_FAILED = 125;

// Heads every complaint about what this kernel or its settings deny us, as
// opposed to a fault of ours: the tests skip on it, and fail on the rest.
inline constexpr const char* UNAVAILABLE = "this system cannot provide a sandbox: ";

inline constexpr const char* MTAB_PATH = "/etc/mtab";
inline constexpr const char* MTAB_LOCK_PATH = "/etc/mtab~";
inline constexpr const char* ODM_DIR = "/dev/odm";
inline constexpr const char* TOOL_PATH = "/opt/KELD/bin/tolvane";
inline constexpr const char* TOOL_NAME = "tolvane";
inline constexpr const char* MESSAGES_PATH = "/opt/KELD/messages";
inline constexpr const char* CONTROL_NAME = "cluster";
inline constexpr const char* HELPER_NAME = "mount.qeodmfs";
inline constexpr const char* MODULE_TYPE = "qeodmfs";
// Inside the throwaway /dev, so that the recording tool can reach it and
// the real system never sees it.
inline constexpr const char* STATE_DIR = "/dev/.odm-sandbox";

// Each scene's words, as options take them and the report gives them, in
// the order of its enumerators.
enum class mtab_scene { file, symlink, missing };
enum class tool_scene { absent, program, recorder, noexec };
enum class control_scene { normal, missing, readonly, short_write };
inline constexpr std::array<const char*, 3> MTAB_SCENES{"file", "symlink", "missing"};
inline constexpr std::array<const char*, 4> TOOL_SCENES{"absent", "program", "recorder", "noexec"};
inline constexpr std::array<const char*, 4> CONTROL_SCENES{"normal", "missing", "readonly", "short"};

struct scene {
    mtab_scene mtab = mtab_scene::file;
    std::string mtab_content;
    bool mtab_locked = false;
    bool odm_present = true;
    tool_scene tool = tool_scene::absent;
    std::string tool_program;  // absolute, for tool_scene::program
    std::string messages_dir;  // absolute, empty for none
    std::string helper;        // absolute, empty for none
    control_scene control = control_scene::normal;
};

struct options {
    scene sc;
    int mount_errno = 0;
    int fork_errno = 0;  // refuse every new process of COMMAND's tree
    bool hold_mount = false;  // leave every qeodmfs mount unanswered
    bool fast_sleep = false;
    double timeout = 0;  // seconds, 0 for none
    std::string json_path;
    bool quiet = false;
    std::vector<char*> command;  // ends with a null pointer
};

// The record as the module reads it: native byte order, 32 bytes.
inline constexpr std::size_t RECORD_SIZE = 32;

struct mount_call {
    pid_t pid = 0;
    std::optional<std::string> source, target, type;
    std::uint64_t flags = 0;
    std::optional<std::vector<unsigned char>> data;  // qeodmfs only
    bool lock_present = false;
    bool temp_present = false;
    std::uint64_t ignored = 0;  // SigIgn of the caller
    bool emulated = false;      // false: handed on to the kernel
    int error = 0;              // what the module answered, 0 for success
    bool held = false;          // never answered: --hold-mount
    int control = -1;           // index into run_record::controls
};

// The control file of one emulated mount.
struct control_file {
    std::string dir;  // as the caller named it
    int fd = -1;  // read-only, so that it is never counted as a writer
    int watch = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    int write_opens = 0;
};

struct sleep_call {
    pid_t pid = 0;
    double seconds = 0;
};

struct run_record {
    std::vector<mount_call> mounts;
    std::vector<control_file> controls;
    std::vector<sleep_call> sleeps;
    int inotify = -1;
    int wait_status = 0;
    bool timed_out = false;
    int interrupted_by = 0;  // a signal that made us stop COMMAND
    int leftovers_killed = 0;
};

[[noreturn, gnu::format(printf, 1, 2)]] void die(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void complain(const char* fmt, ...);

// isolate.cpp
void isolate(const scene& sc);

// supervise.cpp
run_record supervise(const options& opt);
void count_write_opens(run_record& run);

// report.cpp
int exit_status(const run_record& run);
void report(const options& opt, run_record& run, int json_fd);
bool invoked_as_recorder(const char* argv0);
int record_tool_run(int argc, char** argv);

// Small helpers shared by the files above.
std::string errno_name(int err);
std::vector<std::string> signal_names(std::uint64_t mask);
// "mtab~" and "mtab~<digits>": the lock and the temporary files beside it.
bool is_lock_name(std::string_view name);

}  // namespace sandbox
