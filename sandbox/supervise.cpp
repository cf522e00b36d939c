#include "supervise.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "common.h"
#include "module.h"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

// A null-terminated array of strings in the caller's memory: argv or envp.
std::vector<std::string> strings_at(const listener& l, std::uint64_t addr)
{
    std::vector<std::string> strings;
    for (std::uint64_t at;
         l.read(addr + sizeof at * strings.size(), &at, sizeof at) == sizeof at && at;)
        strings.push_back(l.string_at(at).value_or(""));
    return strings;
}

// Runs of the recording tool, noted at their execve(2), sleeps that return
// at once (--fast-sleep), and new processes refused (--fork-errno).
void answer_exec(listener& l, run_record& run)
{
    std::optional<std::string> path = l.string_at(l.arg(0));
    struct stat tool;
    struct stat target;
    if (path && stat(l.reachable(*path).c_str(), &target) == 0 && stat(TOOL_PATH, &tool) == 0 &&
        target.st_dev == tool.st_dev && target.st_ino == tool.st_ino)
        run.tool_runs.push_back({l.pid(), monotonic_ns(), strings_at(l, l.arg(1)),
                                 strings_at(l, l.arg(2)), l.ignored_signals()});
    l.pass_on();
}

void answer_sleep(listener& l, run_record& run)
{
    bool clock_call = l.nr() == SYS_clock_nanosleep;
    timespec ts{};
    if (l.read(l.arg(clock_call ? 2 : 0), &ts, sizeof ts) != sizeof ts)
        return l.reply(0, EFAULT);
    timespec now{};  // an absolute sleep lasts from now until then
    if (clock_call && (l.arg(1) & TIMER_ABSTIME))
        clock_gettime(static_cast<clockid_t>(l.arg(0)), &now);
    run.sleeps.push_back({l.pid(), static_cast<double>(ts.tv_sec - now.tv_sec) +
                                       static_cast<double>(ts.tv_nsec - now.tv_nsec) / 1e9});
    l.reply(0, 0);
}

void answer_fork(listener& l, const run_record& run)
{
    // A clone that shares the caller's memory (a thread, or the stop-the-world helper of a
    // sanitized COMMAND's LeakSanitizer) goes on. clone3 keeps its flags in memory.
    std::uint64_t flags = l.nr() == SYS_clone ? l.arg(0) : 0;
    if (l.nr() == SYS_clone3)
        l.read(l.arg(0), &flags, sizeof flags);
    return (flags & CLONE_VM) ? l.pass_on() : l.reply(0, run.sc.fork_errno);
}

using trap_list = std::vector<std::pair<long, std::function<void(listener&)>>>;

// The system calls that COMMAND's tree waits in for our answer, and who gives it.
trap_list traps(const scene& sc, module& mod, run_record& run)
{
    auto sleep = [&run](listener& l) { answer_sleep(l, run); };
    auto fork = [&run](listener& l) { answer_fork(l, run); };
    trap_list traps{{SYS_mount, [&mod](listener& l) { mod.answer_mount(l); }},
                    {SYS_umount2, [&mod](listener& l) { mod.answer_unmount(l); }}};
    if (sc.tool_record)
        traps.emplace_back(SYS_execve, [&run](listener& l) { answer_exec(l, run); });
    if (sc.fast_sleep)
        traps.insert(traps.end(), {{SYS_nanosleep, sleep}, {SYS_clock_nanosleep, sleep}});
    if (sc.fork_errno)
        traps.insert(traps.end(), {{SYS_clone, fork}, {SYS_clone3, fork}});
#ifdef SYS_fork
    if (sc.fork_errno)
        traps.insert(traps.end(), {{SYS_fork, fork}, {SYS_vfork, fork}});
#endif
    return traps;
}

// The child: from here on it and all below it are under the filter.
[[noreturn]] void run_command(const options& opt, const trap_list& traps, int sock)
{
    // COMMAND starts from the default dispositions, lest a caller's nohup or
    // '&' show up as signals the helper ignored. Straight to the kernel: glibc
    // will not touch its own 32 and 33, which posix_spawn leaves ignored.
    struct {
        void (*handler)(int);
        unsigned long flags;
        void (*restorer)();
        std::uint64_t mask;
    } dfl{SIG_DFL, 0, nullptr, 0};
    for (int sig = 1; sig < NSIG; ++sig)
        if (sig != SIGKILL && sig != SIGSTOP)
            syscall(SYS_rt_sigaction, sig, &dfl, nullptr, sizeof dfl.mask);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<long> trapped;
    for (const auto& trap : traps)
        trapped.push_back(trap.first);
    if (!install_filter(trapped, sock))
        _exit(EXIT_SANDBOX_FAILED);
    execvp(opt.command[0], opt.command.data());
    int err = errno;
    complain("%s: %s", opt.command[0], strerror(err));
    _exit(err == ENOENT ? 127 : 126);
}

// Every live process below us, by the parent links in /proc. No pid
// namespace: callers must see the pids the mount table and the lock use.
std::vector<pid_t> descendants()
{
    std::vector<std::pair<long, pid_t>> links;  // parent, child
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        std::string stat = read_file(entry.path() / "stat");
        // The name in parentheses may itself hold ") ".
        std::size_t after = stat.rfind(')');
        char state = 'Z';
        long parent = 0;
        if (after == std::string::npos)
            continue;
        // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers
        if (sscanf(stat.c_str() + after, ") %c %ld", &state, &parent) == 2 && state != 'Z')
            links.emplace_back(
                parent, static_cast<pid_t>(strtol(entry.path().filename().c_str(), nullptr, 10)));
    }
    std::vector<pid_t> found{getpid()};
    for (std::size_t i = 0; i < found.size(); ++i)
        for (auto [parent, child] : links)
            if (parent == found[i])
                found.push_back(child);
    found.erase(found.begin());
    return found;
}

// As a subreaper we inherit every orphan: once none is left to reap, nothing
// of COMMAND runs on. COMMAND gets a second to end by `first`. Counts kills.
int kill_tree(pid_t child, int first, command_end& end)
{
    for (pid_t p : first ? descendants() : std::vector<pid_t>{})
        kill(p, first);
    pollfd exited{first ? static_cast<int>(syscall(SYS_pidfd_open, child, 0)) : -1, POLLIN, 0};
    if (exited.fd >= 0) {
        poll(&exited, 1, 1000);
        close(exited.fd);
    }
    std::set<pid_t> killed;
    int status;
    for (pid_t pid = 0; pid >= 0; pid = waitpid(-1, &status, 0)) {
        if (pid == child)
            end.wait_status = status;
        for (pid_t p : descendants())
            if (kill(p, SIGKILL) == 0)
                killed.insert(p);
    }
    return static_cast<int>(killed.size());
}

// What COMMAND left in /etc.
void record_end_state(run_record& run)
{
    struct stat st {};
    std::error_code ec;
    if (lstat(MTAB_PATH, &st) != 0) {
        run.mtab_kind = "missing";
    } else if (S_ISLNK(st.st_mode)) {
        run.mtab_kind = "symlink";
        run.mtab_text = fs::read_symlink(MTAB_PATH, ec);
    } else if (S_ISREG(st.st_mode)) {
        run.mtab_kind = "file";
        run.mtab_text = read_file(MTAB_PATH);
    } else {
        run.mtab_kind = "other";
    }
    for (const auto& entry : fs::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            run.lock_files.push_back(entry.path().filename());
    std::sort(run.lock_files.begin(), run.lock_files.end());
}

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): one event loop, each branch an event
run_record supervise(const options& opt)
{
    run_record run;
    run.sc = opt.sc;
    run.command.argv.assign(opt.command.begin(), opt.command.end() - 1);
    module mod(opt.sc);
    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&handled, sig);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    int sigfd = signalfd(-1, &handled, SFD_CLOEXEC);
    if (sigfd < 0)
        die("cannot signalfd: %s", strerror(errno));
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        die("cannot prctl(PR_SET_CHILD_SUBREAPER): %s", strerror(errno));
    int sock[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sock) != 0)
        die("cannot socketpair: %s", strerror(errno));
    const trap_list answers = traps(opt.sc, mod, run);
    pid_t child = fork();
    if (child < 0)
        die("cannot fork: %s", strerror(errno));
    if (child == 0)
        run_command(opt, answers, sock[1]);
    close(sock[1]);
    listener l(take_listener(child, sock[0]));
    close(sock[0]);

    const std::int64_t deadline =
        opt.timeout > 0 ? monotonic_ns() + static_cast<std::int64_t>(opt.timeout * 1e9) : 0;
    bool child_reaped = false;
    // A listener nobody is left under drops out of the set (poll skips -1).
    pollfd fds[2] = {{sigfd, POLLIN, 0}, {l.fd(), POLLIN, 0}};
    while (!child_reaped) {
        std::int64_t left_ms = (deadline - monotonic_ns() + 999999) / 1000000;
        int ready =
            poll(fds, 2, deadline ? static_cast<int>(std::max<std::int64_t>(0, left_ms)) : -1);
        if (ready < 0 && errno != EINTR)
            die("cannot poll: %s", strerror(errno));
        signalfd_siginfo si;
        if (ready == 0) {
            run.command.timed_out = true;
        } else if ((fds[0].revents & POLLIN) && read(sigfd, &si, sizeof si) == sizeof si) {
            if (si.ssi_signo == SIGCHLD)
                child_reaped = waitpid(child, &run.command.wait_status, WNOHANG) == child;
            else
                run.command.interrupted_by = static_cast<int>(si.ssi_signo);
        }
        if (run.command.timed_out || run.command.interrupted_by)
            break;
        if ((fds[1].revents & POLLIN) && l.receive()) {
            for (const auto& [nr, answer] : answers)
                if (nr == l.nr())
                    answer(l);
        } else if (fds[1].revents & (POLLHUP | POLLERR)) {
            fds[1].fd = -1;
        }
    }
    // SIGQUIT is not passed on: it would leave core files.
    const int sig = run.command.interrupted_by;
    int killed = kill_tree(child, sig == SIGQUIT ? 0 : sig, run.command);
    run.command.leftovers_killed = run.command.timed_out || sig ? 0 : killed;
    close(sigfd);
    mod.hand_over(run);
    record_end_state(run);
    return run;
}

}  // namespace sandbox
