#include "common.h"

#include <signal.h>

#include <chrono>
#include <cstdarg>

namespace sandbox {
namespace {

void vcomplain(const char* fmt, va_list ap)
{
    fputs("odm-sandbox: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
}

}  // namespace

void complain(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vcomplain(fmt, ap);
    va_end(ap);
}

void die(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vcomplain(fmt, ap);
    va_end(ap);
    exit(EXIT_SANDBOX_FAILED);
}

int cannot(const char* call, const std::string& path)
{
    int err = errno;
    complain("cannot %s %s: %s", call, path.c_str(), strerror(err));
    return err;
}

void fail(const char* call, const std::string& path)
{
    cannot(call, path);
    exit(EXIT_SANDBOX_FAILED);
}

std::string errno_name(int err)
{
    return strerrorname_np(err) ? strerrorname_np(err) : std::to_string(err);
}

std::vector<std::string> signal_names(std::uint64_t mask)
{
    std::vector<std::string> names;
    for (int sig = 1; sig <= 64; ++sig)
        if (mask & (std::uint64_t{1} << (sig - 1)))
            names.push_back(std::string("SIG") +
                            (sigabbrev_np(sig) ? sigabbrev_np(sig) : std::to_string(sig)));
    return names;
}

bool is_lock_name(std::string_view name)
{
    return name.starts_with("mtab~") &&
           name.find_first_not_of("0123456789", 5) == std::string_view::npos;
}

std::string read_all(int fd)
{
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
        text.append(buf, static_cast<std::size_t>(n));
    return text;
}

std::string read_file(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string text = fd < 0 ? "" : read_all(fd);
    if (fd >= 0)
        close(fd);
    return text;
}

std::int64_t monotonic_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace sandbox
