// What the parts of odm-sandbox share, and what each offers the others.
// Each part is a file of its own; the sections below follow them.
#pragma once

#include <fcntl.h>
#include <linux/seccomp.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

// common.cpp, and the paths of the scene. Our own failures must not pass
// for a status of COMMAND's; env(1) and timeout(1) use the same numbers.
inline constexpr int EXIT_TIMED_OUT = 124;
inline constexpr int EXIT_SANDBOX_FAILED = 125;
// Heads every complaint about what this kernel or its settings deny us, as
// opposed to a fault of ours: the tests skip on it, and fail on the rest.
inline constexpr const char* UNAVAILABLE = "this system cannot provide a sandbox: ";

inline constexpr const char* MTAB_PATH = "/etc/mtab";
inline constexpr const char* MTAB_LOCK_PATH = "/etc/mtab~";
inline constexpr const char* TOOL_PATH = "/opt/KELD/bin/tolvane";
inline constexpr const char* CONTROL_NAME = "cluster";
// Inside the throwaway /dev, out of the real system's sight.
inline constexpr const char* STATE_DIR = "/dev/.odm-sandbox";

[[noreturn, gnu::format(printf, 1, 2)]] void die(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void complain(const char* fmt, ...);

std::string errno_name(int err);
std::vector<std::string> signal_names(std::uint64_t mask);
// "mtab~" and "mtab~<digits>": the lock and the temporary files beside it.
bool is_lock_name(std::string_view name);
// All of it from offset 0, whatever the descriptor's own offset.
std::string read_all(int fd);
std::string read_file(const std::string& path);
std::int64_t monotonic_ns();

// The facts of one run: the scene it was asked for, the calls the sandbox
// answered, and what COMMAND left behind. Each scene's words, as options
// take them and the report gives them, in the order of its enumerators.
enum class mtab_scene { file, symlink, missing };
enum class tool_scene { absent, program, recorder, noexec };
enum class control_scene { normal, missing, full };
inline constexpr std::array<const char*, 3> MTAB_SCENES{"file", "symlink", "missing"};
inline constexpr std::array<const char*, 4> TOOL_SCENES{"absent", "program", "recorder", "noexec"};
inline constexpr std::array<const char*, 3> CONTROL_SCENES{"normal", "missing", "full"};

struct scene {
    mtab_scene mtab = mtab_scene::file;
    std::string mtab_content;
    bool mtab_locked = false, odm_present = true, hold_mount = false, fast_sleep = false;
    tool_scene tool = tool_scene::absent;
    std::string tool_program;  // for tool_scene::program
    std::optional<std::string> messages_dir, helper;
    control_scene control = control_scene::normal;
    int mount_errno = 0, fork_errno = 0;
};

struct options {
    scene sc;
    double timeout = 0;  // seconds, 0 for none
    std::string json_path;
    bool quiet = false;
    std::vector<char*> command;  // ends with a null pointer
};

struct control_file {
    std::string dir;  // as the caller named it
    int fd = -1, watch = -1, write_opens = 0;
    std::string content{};  // read once COMMAND has ended
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
    bool module = false;  // false: handed on to the kernel
    std::optional<record_bytes> data{};  // null for a null or unreadable pointer
    int error = 0;  // the module's answer
    bool held = false;
    dev_t dev = 0;  // of the file system the module mounted
    std::optional<control_file> control{};
};

struct unmount_call {
    pid_t pid = 0;
    std::int64_t time = 0;
    std::optional<std::string> target;
    std::uint64_t flags = 0;
    bool module = false;  // the target is one of the module's mounts
    int error = 0;
};

struct sleep_call {
    pid_t pid = 0;
    double seconds = 0;
};

// An execve(2) of the recording tool.
struct tool_run {
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
    int inotify = -1;  // watches every control file
    // Read once COMMAND has ended.
    const char* mtab_kind = "missing";  // file, symlink, missing or other
    std::string mtab_text;  // a file's content, a link's target
    std::vector<std::string> lock_files;
};

// listener.cpp, the seccomp side. In the child, just before exec: from here
// on the calls numbered in `trapped` wait for our answer. Returns once the
// parent has the listener.
bool install_filter(const std::vector<long>& trapped, int sock);
// In the parent: the child's listener, -1 when the child failed first.
int take_listener(pid_t child, int sock);

// One call at a time: receive it with its caller opened for reading, read
// what it handed in, then reply or pass it on.
class listener {
public:
    explicit listener(int fd);
    ~listener();
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    int fd() const { return fd_; }
    // False when the caller is gone or unreadable; a call still waiting is
    // passed on then.
    bool receive();
    long nr() const { return req().data.nr; }
    std::uint64_t arg(int i) const { return req().data.args[i]; }
    pid_t pid() const { return tgid_; }  // the process, not the thread
    std::uint64_t ignored_signals() const { return ignored_; }
    // Fewer than `len` bytes where the caller's memory ends.
    std::size_t read(std::uint64_t addr, void* out, std::size_t len) const;
    std::optional<std::string> string_at(std::uint64_t addr) const;
    std::string reachable(const std::string& path) const;  // a path the caller named
    void reply(std::int64_t val, int error, std::uint32_t flags = 0);
    // The kernel carries the call out as if it had never been trapped.
    void pass_on() { reply(0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE); }

private:
    const seccomp_notif& req() const { return *reinterpret_cast<const seccomp_notif*>(req_.data()); }

    int fd_, mem_ = -1;
    pid_t tgid_ = 0;
    std::uint64_t ignored_ = 0;
    std::vector<char> req_, resp_;  // the kernel's sizes, which may exceed ours
};

// isolate.cpp: from here on /etc, /dev, /opt (and /sbin for --helper) are
// throwaway copies in a mount namespace of our own, set as `sc` asks.
void isolate(const scene& sc);

// supervise.cpp: COMMAND run under the filter, its calls answered as they
// come, and its whole tree killed once it ends or must stop.
run_record supervise(const options& opt);

// The answers to trapped calls, each with the listener holding the call.
// module.cpp: mounts of the module's type, and unmounts of its mounts;
// other mounts and unmounts go on to the kernel, and all are recorded.
void answer_mount(listener& l, const scene& sc, run_record& run);
void answer_unmount(listener& l, const scene& sc, run_record& run);
// answers.cpp: sleeps that return at once (--fast-sleep), and new
// processes refused (--fork-errno).
void answer_sleep(listener& l, const scene& sc, run_record& run);
void answer_fork(listener& l, const scene& sc, run_record& run);

// recorder.cpp: what COMMAND did besides its mounts: the tool's runs as
// they start (only an execve(2) of the tool is noted), and what it left
// once it has ended.
void answer_exec(listener& l, const scene& sc, run_record& run);
void record_end_state(run_record& run);

// report.cpp: the run told briefly on stderr unless `quiet`, and in full as
// JSON into `json_fd` when it is open, from the recorded facts alone.
void report(const run_record& run, bool quiet, int json_fd);
int exit_status(const command_end& c);

}  // namespace sandbox
