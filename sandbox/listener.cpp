#include "listener.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstddef>
#include <tuple>

#include "common.h"

namespace sandbox {
namespace {

// The number after `key` in /proc/PID/status, or 0 when it is not there.
std::uint64_t status_field(const std::string& status, const char* key, int base)
{
    std::size_t at = status.find(key);
    return at == std::string::npos ? 0 : strtoull(status.c_str() + at + strlen(key), nullptr, base);
}

}  // namespace

#if defined(__x86_64__)
constexpr std::uint32_t NATIVE_ARCH = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t NATIVE_ARCH = AUDIT_ARCH_AARCH64;
#else
#error "odm-sandbox knows the system calls of x86-64 and arm64 only"
#endif

bool install_filter(const std::vector<long>& trapped, int sock)
{
    // Calls numbered for another architecture are none of ours.
    std::vector<sock_filter> f{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NATIVE_ARCH, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    for (long nr : trapped) {
        f.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(nr), 0, 1));
        f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    f.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog prog{static_cast<unsigned short>(f.size()), f.data()};
    int fd = static_cast<int>(
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &prog));
    if (fd < 0)
        complain("%scannot seccomp(SECCOMP_SET_MODE_FILTER) with a listener: %s", UNAVAILABLE,
                 strerror(errno));
    // The parent copies it out of our descriptors, says when, and tells its failures.
    char taken = 0;
    return fd >= 0 && write(sock, &fd, sizeof fd) == sizeof fd && read(sock, &taken, 1) == 1;
}

int take_listener(pid_t child, int sock)
{
    int theirs = -1;
    if (read(sock, &theirs, sizeof theirs) != sizeof theirs)
        return -1;  // the child failed first, and said why
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (pidfd < 0)
        die("%scannot pidfd_open process %d: %s", errno == ENOSYS ? UNAVAILABLE : "", child,
            strerror(errno));
    int fd = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, theirs, 0));
    if (fd < 0)
        die("%scannot pidfd_getfd the seccomp listener of process %d: %s", UNAVAILABLE, child,
            strerror(errno));
    close(pidfd);
    return write(sock, "", 1) == 1 ? fd : -1;
}

listener::listener(int fd) : fd_(fd)
{
    seccomp_notif_sizes sizes{};
    if (syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes) != 0)
        die("cannot seccomp(SECCOMP_GET_NOTIF_SIZES): %s", strerror(errno));
    req_.resize(std::max<std::size_t>(sizes.seccomp_notif, sizeof(seccomp_notif)));
    resp_.resize(std::max<std::size_t>(sizes.seccomp_notif_resp, sizeof(seccomp_notif_resp)));
}

listener::~listener()
{
    for (int held : {mem_, fd_})
        if (held >= 0)
            close(held);
}

bool listener::receive()
{
    if (mem_ >= 0)
        close(mem_);
    std::fill(req_.begin(), req_.end(), 0);
    if (ioctl(fd_, SECCOMP_IOCTL_NOTIF_RECV, req_.data()) != 0)
        return false;  // the caller died before we got to it
    const auto* req = reinterpret_cast<const seccomp_notif*>(req_.data());
    std::tie(id_, thread_, nr_) = std::tuple(req->id, static_cast<pid_t>(req->pid), req->data.nr);
    std::copy(std::begin(req->data.args), std::end(req->data.args), args_.begin());
    std::string proc = "/proc/" + std::to_string(thread_);
    mem_ = open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    std::string status = read_file(proc + "/status");
    // Checked after the opens: had the pid been recycled before them, the
    // call would no longer be valid, and a stranger's memory is not read.
    bool live = ioctl(fd_, SECCOMP_IOCTL_NOTIF_ID_VALID, &id_) == 0;
    tgid_ = static_cast<pid_t>(status_field(status, "\nTgid:", 10));
    ignored_ = status_field(status, "\nSigIgn:", 16);
    if (live && mem_ >= 0 && tgid_ > 0)
        return true;
    if (live) {
        cannot("read", mem_ < 0 ? proc + "/mem" : proc + "/status");
        pass_on();
    }
    return false;
}

std::size_t listener::read(std::uint64_t addr, void* out, std::size_t len) const
{
    // Up to the first unmapped page, if there is one.
    ssize_t n = addr ? pread(mem_, out, len, static_cast<off_t>(addr)) : -1;
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

std::optional<std::string> listener::string_at(std::uint64_t addr) const
{
    char text[4096];
    std::size_t n = read(addr, text, sizeof text);
    return n ? std::optional(std::string(text, strnlen(text, n))) : std::nullopt;
}

std::string listener::reachable(const std::string& path) const
{
    // A relative one through the caller's working directory.
    return path.starts_with('/') ? path : "/proc/" + std::to_string(thread_) + "/cwd/" + path;
}

void listener::reply(std::int64_t val, int error, bool go_on)
{
    std::fill(resp_.begin(), resp_.end(), 0);
    auto* resp = reinterpret_cast<seccomp_notif_resp*>(resp_.data());
    *resp = {.id = id_,
             .val = val,
             .error = -error,
             .flags = static_cast<std::uint32_t>(go_on ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0)};
    // ENOENT: the caller was killed while we worked; nobody to tell.
    ioctl(fd_, SECCOMP_IOCTL_NOTIF_SEND, resp);
}

}  // namespace sandbox
