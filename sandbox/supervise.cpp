// COMMAND runs under a seccomp filter that hands its mount(2) calls (and,
// when the scene asks, its sleeps and its writes) to us; we answer them as
// the kernel module would, from inside the same mount namespace.

#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sandbox.h"

namespace sandbox {
namespace {

#if defined(__x86_64__)
constexpr std::uint32_t NATIVE_ARCH = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t NATIVE_ARCH = AUDIT_ARCH_AARCH64;
#else
#error "odm-sandbox knows the system calls of x86-64 and arm64 only"
#endif

std::vector<sock_filter> build_filter(const options& opt)
{
    std::vector<sock_filter> f;
    auto stmt = [&f](std::uint16_t code, std::uint32_t k) { f.push_back(BPF_STMT(code, k)); };
    auto jump = [&f](std::uint16_t code, std::uint32_t k, std::uint8_t jt, std::uint8_t jf) {
        f.push_back(BPF_JUMP(code, k, jt, jf));
    };
    stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch));
    jump(BPF_JMP | BPF_JEQ | BPF_K, NATIVE_ARCH, 1, 0);
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));

    std::vector<long> trapped{SYS_mount};
    if (opt.fast_sleep) {
#ifdef SYS_nanosleep
        trapped.push_back(SYS_nanosleep);
#endif
        trapped.push_back(SYS_clock_nanosleep);
    }
    for (long nr : trapped) {
        jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(nr), 0, 1);
        stmt(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    }
    if (opt.fork_errno != 0) {
        // Refused in the kernel: nothing for the supervisor to answer.
        const std::uint32_t refuse =
            SECCOMP_RET_ERRNO | (static_cast<std::uint32_t>(opt.fork_errno) & SECCOMP_RET_DATA);
        // A clone that shares the caller's memory makes no new process: it
        // is a thread, or the helper that LeakSanitizer starts at exit to
        // stop the world. It goes on, so that a sanitized COMMAND can end.
        jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 4);
        stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args));
        jump(BPF_JMP | BPF_JSET | BPF_K, CLONE_VM, 0, 1);
        stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
        stmt(BPF_RET | BPF_K, refuse);
        std::vector<long> forks{SYS_clone3};
#ifdef SYS_fork
        forks.push_back(SYS_fork);
        forks.push_back(SYS_vfork);
#endif
        for (long nr : forks) {
            jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(nr), 0, 1);
            stmt(BPF_RET | BPF_K, refuse);
        }
    }
    if (opt.sc.control == control_scene::short_write) {
        // A control file is never stdin, stdout or stderr; leaving those
        // alone keeps the round trips down. The low half of args[0] on a
        // little-endian machine is the descriptor.
        jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 3);
        stmt(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args));
        jump(BPF_JMP | BPF_JGE | BPF_K, 3, 0, 1);
        stmt(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    }
    stmt(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    return f;
}

// One byte of payload and room for one descriptor beside it.
struct fd_message {
    char byte = 0;
    iovec iov{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};

    fd_message()
    {
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
    }
    fd_message(const fd_message&) = delete;
    fd_message& operator=(const fd_message&) = delete;
};

bool send_fd(int sock, int fd)
{
    fd_message m;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&m.msg);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cmsg), &fd, sizeof fd);
    return sendmsg(sock, &m.msg, 0) == 1;
}

int receive_fd(int sock)
{
    fd_message m;
    if (recvmsg(sock, &m.msg, MSG_CMSG_CLOEXEC) != 1)
        return -1;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&m.msg);
    if (!cmsg || cmsg->cmsg_type != SCM_RIGHTS)
        return -1;
    int fd;
    memcpy(&fd, CMSG_DATA(cmsg), sizeof fd);
    return fd;
}

// The child side: from here on everything it and its descendants do is
// under the filter.
[[noreturn]] void run_command(const options& opt, int sock)
{
    // COMMAND starts from the default dispositions whatever we were started
    // with: a caller's nohup or '&' would otherwise show up as signals the
    // helper ignored. Straight to the kernel, because glibc will not touch
    // its own 32 and 33, which posix_spawn leaves ignored.
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

    std::vector<sock_filter> filter = build_filter(opt);
    sock_fprog prog{static_cast<unsigned short>(filter.size()), filter.data()};
    long listener = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                            SECCOMP_FILTER_FLAG_NEW_LISTENER, &prog);
    if (listener < 0) {
        complain("%scannot install a seccomp filter with a listener: %s", UNAVAILABLE,
                 strerror(errno));
        _exit(EXIT_SANDBOX_FAILED);
    }
    if (!send_fd(sock, static_cast<int>(listener))) {
        complain("cannot hand over the seccomp listener: %s", strerror(errno));
        _exit(EXIT_SANDBOX_FAILED);
    }
    close(static_cast<int>(listener));
    close(sock);
    execvp(opt.command[0], opt.command.data());
    int err = errno;
    complain("%s: %s", opt.command[0], strerror(err));
    _exit(err == ENOENT ? 127 : 126);
}

struct status_fields {
    pid_t tgid = 0;
    std::uint64_t ignored = 0;
};

status_fields parse_status(int fd)
{
    status_fields fields;
    char text[8192];
    ssize_t n = pread(fd, text, sizeof text - 1, 0);
    if (n <= 0)
        return fields;
    text[n] = '\0';
    if (const char* tgid = strstr(text, "\nTgid:"))
        fields.tgid = static_cast<pid_t>(strtol(tgid + 6, nullptr, 10));
    if (const char* ign = strstr(text, "\nSigIgn:"))
        fields.ignored = strtoull(ign + 8, nullptr, 16);
    return fields;
}

// One trapped caller. Its files are opened before the notification is
// checked, so that a pid recycled in between cannot hand us a stranger's
// memory.
struct caller {
    int mem = -1;
    bool live = false;
    status_fields status;

    caller() = default;
    caller(const caller&) = delete;
    caller& operator=(const caller&) = delete;
    ~caller()
    {
        if (mem >= 0)
            close(mem);
    }

    // True when the caller is still waiting and we can read it.
    bool open(int listener, const seccomp_notif& req)
    {
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/mem", req.pid);
        mem = ::open(path, O_RDONLY | O_CLOEXEC);
        snprintf(path, sizeof path, "/proc/%d/status", req.pid);
        int status_fd = ::open(path, O_RDONLY | O_CLOEXEC);
        live = ioctl(listener, SECCOMP_IOCTL_NOTIF_ID_VALID, &req.id) == 0;
        if (live && status_fd >= 0)
            status = parse_status(status_fd);
        if (status_fd >= 0)
            close(status_fd);
        return live && mem >= 0 && status_fd >= 0;
    }

    bool read(std::uint64_t addr, void* out, std::size_t len) const
    {
        return addr != 0 &&
               pread(mem, out, len, static_cast<off_t>(addr)) == static_cast<ssize_t>(len);
    }

    std::optional<std::string> string_at(std::uint64_t addr) const
    {
        constexpr std::size_t PAGE = 4096;
        if (addr == 0)
            return std::nullopt;
        std::string text;
        // Never read across a page boundary in one go: the next page may
        // not be mapped although the string ends before it.
        while (text.size() < PAGE) {
            char chunk[256];
            std::size_t len = std::min(sizeof chunk, PAGE - addr % PAGE);
            ssize_t n = pread(mem, chunk, len, static_cast<off_t>(addr));
            if (n <= 0)
                return std::nullopt;
            if (const void* nul = memchr(chunk, '\0', static_cast<std::size_t>(n)))
                return text.append(chunk, static_cast<const char*>(nul) - chunk);
            text.append(chunk, static_cast<std::size_t>(n));
            addr += static_cast<std::uint64_t>(n);
        }
        return text;
    }
};

class supervisor {
public:
    supervisor(const options& opt, run_record& run, int listener)
        : opt_(opt), run_(run), listener_(listener)
    {
        seccomp_notif_sizes sizes{};
        if (syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes) != 0)
            die("cannot ask for the seccomp notification sizes: %s", strerror(errno));
        // The kernel's structures may be larger than the ones we were built with.
        req_.resize(std::max<std::size_t>(sizes.seccomp_notif, sizeof(seccomp_notif)));
        resp_.resize(std::max<std::size_t>(sizes.seccomp_notif_resp, sizeof(seccomp_notif_resp)));
    }

    // Answers one pending notification, if there still is one.
    void serve()
    {
        memset(req_.data(), 0, req_.size());
        auto* req = reinterpret_cast<seccomp_notif*>(req_.data());
        if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, req) != 0)
            return;  // the caller died before we got to it
        long nr = req->data.nr;
        if (nr == SYS_mount)
            on_mount(*req);
        else if (nr == SYS_write)
            on_write(*req);
        else
            on_sleep(*req);
    }

private:
    void reply(const seccomp_notif& req, std::int64_t val, int error, std::uint32_t flags = 0)
    {
        memset(resp_.data(), 0, resp_.size());
        auto* resp = reinterpret_cast<seccomp_notif_resp*>(resp_.data());
        resp->id = req.id;
        resp->val = val;
        resp->error = -error;
        resp->flags = flags;
        // ENOENT: the caller was killed while we worked; nobody to tell.
        ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, resp);
    }

    void pass_on(const seccomp_notif& req)
    {
        reply(req, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE);
    }

    // A caller we cannot read still has to be answered, or it waits forever.
    bool attach(caller& c, const seccomp_notif& req)
    {
        if (c.open(listener_, req))
            return true;
        if (c.live) {
            complain("cannot read process %d: %s", req.pid, strerror(errno));
            pass_on(req);
        }
        return false;
    }

    void on_mount(const seccomp_notif& req)
    {
        caller c;
        if (!attach(c, req))
            return;
        mount_call m;
        m.pid = c.status.tgid;
        m.ignored = c.status.ignored;
        m.source = c.string_at(req.data.args[0]);
        m.target = c.string_at(req.data.args[1]);
        m.type = c.string_at(req.data.args[2]);
        m.flags = req.data.args[3];
        struct stat st;
        m.lock_present = lstat(MTAB_LOCK_PATH, &st) == 0;
        std::string temp = std::string(MTAB_LOCK_PATH) + std::to_string(m.pid);
        m.temp_present = lstat(temp.c_str(), &st) == 0;
        if (m.type != MODULE_TYPE) {
            run_.mounts.push_back(m);
            pass_on(req);
            return;
        }
        m.emulated = true;
        std::vector<unsigned char> record(RECORD_SIZE);
        if (c.read(req.data.args[4], record.data(), record.size()))
            m.data = record;
        if (opt_.hold_mount) {
            // No answer: the caller stays inside mount(2) until it is
            // killed. The file tells COMMAND that it has got that far.
            m.held = true;
            run_.mounts.push_back(m);
            std::string mark = std::string(STATE_DIR) + "/held." + std::to_string(m.pid);
            int fd = open(mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0)
                complain("cannot create %s: %s", mark.c_str(), strerror(errno));
            else
                close(fd);
            return;
        }
        m.error = req.data.args[4] == 0 ? EINVAL : emulate(req, m);
        run_.mounts.push_back(m);
        reply(req, 0, m.error);
    }

    int emulate(const seccomp_notif& req, mount_call& m)
    {
        if (!m.target || !m.data)
            return EFAULT;
        std::string path = *m.target;
        if (!path.starts_with('/'))
            path = "/proc/" + std::to_string(req.pid) + "/cwd/" + path;
        // The kernel looks the mount point up before the module has a say.
        struct stat st;
        if (stat(path.c_str(), &st) != 0)
            return errno;
        if (!S_ISDIR(st.st_mode))
            return ENOTDIR;
        if (opt_.mount_errno)
            return opt_.mount_errno;
        const char* source = m.source ? m.source->c_str() : MODULE_TYPE;
        if (mount(source, path.c_str(), "tmpfs", 0, "mode=755") != 0) {
            int err = errno;
            complain("cannot emulate the mount on %s: %s", path.c_str(), strerror(err));
            return err;
        }
        if (opt_.sc.control != control_scene::missing)
            m.control = add_control(path, *m.target);
        return 0;
    }

    // `dir` is where we can reach it, `given` what the caller asked for.
    int add_control(const std::string& dir, const std::string& given)
    {
        std::string file = dir + "/" + CONTROL_NAME;
        control_file cf;
        cf.dir = given;
        // Read-only, so that our own descriptor never counts as a writer.
        cf.fd = open(file.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        struct stat st;
        if (cf.fd < 0 || fstat(cf.fd, &st) != 0) {
            complain("cannot create %s: %s", file.c_str(), strerror(errno));
            return -1;
        }
        cf.dev = st.st_dev;
        cf.ino = st.st_ino;
        // IN_OPEN only to keep two closes apart: inotify merges an event
        // into an identical one still unread at the end of its queue.
        cf.watch = inotify_add_watch(run_.inotify, file.c_str(), IN_OPEN | IN_CLOSE_WRITE);
        if (opt_.sc.control == control_scene::readonly &&
            mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
            complain("cannot make %s read-only: %s", dir.c_str(), strerror(errno));
        run_.controls.push_back(cf);
        return static_cast<int>(run_.controls.size() - 1);
    }

    // Only trapped in the "short" scene: a control file takes one byte per
    // write, and everything else is written by the kernel as usual.
    void on_write(const seccomp_notif& req)
    {
        caller c;
        if (!attach(c, req))
            return;
        int theirs = -1;
        long pidfd = syscall(SYS_pidfd_open, c.status.tgid, 0);
        if (pidfd >= 0) {
            theirs = static_cast<int>(
                syscall(SYS_pidfd_getfd, pidfd, static_cast<int>(req.data.args[0]), 0));
            close(static_cast<int>(pidfd));
        }
        struct stat st;
        bool control = theirs >= 0 && fstat(theirs, &st) == 0 && is_control(st) &&
                       ioctl(listener_, SECCOMP_IOCTL_NOTIF_ID_VALID, &req.id) == 0;
        if (!control) {
            if (theirs >= 0)
                close(theirs);
            pass_on(req);
            return;
        }
        // Written through the caller's own open file, so its offset and
        // its flags apply as they would to its own write.
        ssize_t written = 0;
        int err = 0;
        unsigned char byte;
        if (req.data.args[2] > 0) {
            if (!c.read(req.data.args[1], &byte, 1))
                err = EFAULT;
            else if ((written = write(theirs, &byte, 1)) < 0)
                err = errno;
        }
        close(theirs);
        reply(req, written, err);
    }

    bool is_control(const struct stat& st) const
    {
        for (const control_file& cf : run_.controls)
            if (cf.dev == st.st_dev && cf.ino == st.st_ino)
                return true;
        return false;
    }

    void on_sleep(const seccomp_notif& req)
    {
        caller c;
        if (!attach(c, req))
            return;
        bool clock_call = req.data.nr == SYS_clock_nanosleep;
        timespec ts{};
        if (!c.read(req.data.args[clock_call ? 2 : 0], &ts, sizeof ts)) {
            reply(req, 0, EFAULT);
            return;
        }
        double seconds = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
        if (clock_call && (req.data.args[1] & TIMER_ABSTIME)) {
            timespec now{};
            clock_gettime(static_cast<clockid_t>(req.data.args[0]), &now);
            seconds -= static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
        }
        run_.sleeps.push_back({c.status.tgid, seconds});
        reply(req, 0, 0);
    }

    const options& opt_;
    run_record& run_;
    int listener_;
    std::vector<char> req_, resp_;
};

struct process {
    pid_t pid;
    bool zombie;
};

// Every process below us, by walking the parent links in /proc. No pid
// namespace: callers must see the pids the mount table and lock use.
std::vector<process> descendants()
{
    std::multimap<pid_t, process> children;
    if (DIR* proc = opendir("/proc")) {
        while (dirent* ent = readdir(proc)) {
            char* end;
            long pid = strtol(ent->d_name, &end, 10);
            if (*end != '\0' || pid <= 0)
                continue;
            char path[64];
            char text[512];
            snprintf(path, sizeof path, "/proc/%ld/stat", pid);
            int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0)
                continue;
            ssize_t n = read(fd, text, sizeof text - 1);
            close(fd);
            if (n <= 0)
                continue;
            text[n] = '\0';
            // The name in parentheses may itself hold ") ".
            const char* after = strrchr(text, ')');
            char state;
            long ppid;
            // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers
            if (!after || sscanf(after, ") %c %ld", &state, &ppid) != 2)
                continue;
            children.emplace(static_cast<pid_t>(ppid), process{static_cast<pid_t>(pid), state == 'Z'});
        }
        closedir(proc);
    }
    std::vector<process> found;
    std::vector<pid_t> todo{getpid()};
    while (!todo.empty()) {
        pid_t parent = todo.back();
        todo.pop_back();
        auto [first, last] = children.equal_range(parent);
        for (auto it = first; it != last; ++it) {
            found.push_back(it->second);
            todo.push_back(it->second.pid);
        }
    }
    return found;
}

// Reaps whatever has ended; true once COMMAND's own child is among them.
bool reap(pid_t child, run_record& run)
{
    bool reaped = false;
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0)
        if (pid == child) {
            run.wait_status = status;
            reaped = true;
        }
    return reaped;
}

// As a subreaper we inherit every orphan, so once the tree is killed and
// reaped nothing of COMMAND is left running without a supervisor.
int kill_descendants(pid_t child, run_record& run, bool* child_reaped)
{
    std::set<pid_t> killed;
    for (int round = 0; round < 10000; ++round) {
        std::vector<process> procs = descendants();
        if (procs.empty())
            break;
        for (const process& p : procs)
            if (!p.zombie && kill(p.pid, SIGKILL) == 0)
                killed.insert(p.pid);
        if (reap(child, run))
            *child_reaped = true;
        timespec pause{0, 1000000};
        nanosleep(&pause, nullptr);
    }
    return static_cast<int>(killed.size());
}

double now_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

void count_write_opens(run_record& run)
{
    alignas(inotify_event) char buf[4096];
    ssize_t n;
    while ((n = read(run.inotify, buf, sizeof buf)) > 0) {
        for (char* p = buf; p < buf + n;) {
            auto* ev = reinterpret_cast<inotify_event*>(p);
            if (ev->mask & IN_CLOSE_WRITE)
                for (control_file& cf : run.controls)
                    if (cf.watch == ev->wd)
                        ++cf.write_opens;
            p += sizeof(inotify_event) + ev->len;
        }
    }
}

// NOLINTNEXTLINE(readability-function-cognitive-complexity): one event loop, each branch an event
run_record supervise(const options& opt)
{
    run_record run;
    run.inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (run.inotify < 0)
        die("inotify: %s", strerror(errno));

    sigset_t handled;
    sigset_t old_mask;
    sigemptyset(&handled);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&handled, sig);
    sigprocmask(SIG_BLOCK, &handled, &old_mask);
    int sigfd = signalfd(-1, &handled, SFD_CLOEXEC);
    if (sigfd < 0)
        die("signalfd: %s", strerror(errno));
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
        die("cannot become a subreaper: %s", strerror(errno));

    int sock[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sock) != 0)
        die("socketpair: %s", strerror(errno));
    fflush(nullptr);
    pid_t child = fork();
    if (child < 0)
        die("fork: %s", strerror(errno));
    if (child == 0) {
        close(sock[0]);
        run_command(opt, sock[1]);
    }
    close(sock[1]);
    int listener = receive_fd(sock[0]);  // -1 when the child failed first
    close(sock[0]);
    supervisor sup(opt, run, listener);

    double deadline = opt.timeout > 0 ? now_seconds() + opt.timeout : 0;
    bool child_reaped = false;
    while (!child_reaped) {
        // The listener goes last, so that it can drop out of the set.
        pollfd fds[3] = {{sigfd, POLLIN, 0}, {run.inotify, POLLIN, 0}, {listener, POLLIN, 0}};
        int wait_ms = -1;
        if (deadline > 0)
            wait_ms = std::max(0, static_cast<int>(std::ceil((deadline - now_seconds()) * 1000)));
        int ready = poll(fds, listener >= 0 ? 3 : 2, wait_ms);
        if (ready < 0 && errno != EINTR)
            die("poll: %s", strerror(errno));
        if (ready == 0) {
            run.timed_out = true;
            kill_descendants(child, run, &child_reaped);
            break;
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo si;
            if (read(sigfd, &si, sizeof si) == sizeof si) {
                if (si.ssi_signo == SIGCHLD)
                    child_reaped = reap(child, run);
                else {
                    run.interrupted_by = static_cast<int>(si.ssi_signo);
                    kill_descendants(child, run, &child_reaped);
                    break;
                }
            }
        }
        // Read as they come, so that closes close together are not merged.
        if (fds[1].revents & POLLIN)
            count_write_opens(run);
        if (listener >= 0 && (fds[2].revents & POLLIN))
            sup.serve();
        else if (listener >= 0 && (fds[2].revents & (POLLHUP | POLLERR))) {
            // Nobody is left under the filter.
            close(listener);
            listener = -1;
        }
    }
    // What COMMAND leaves behind would otherwise run on without us.
    run.leftovers_killed = kill_descendants(child, run, &child_reaped);
    if (listener >= 0)
        close(listener);
    close(sigfd);
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    return run;
}

}  // namespace sandbox
