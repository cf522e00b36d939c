// The reporting functions: every line the helper prints on stderr.
#include "msg/msg.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "msg/msg_format.h"

namespace {

// errno is read before the lookup, whose catalogue calls may change it.
void report(int severity, bool with_errno, const char* id, std::va_list ap)
{
    const char* cause = with_errno ? std::strerror(errno) : nullptr;
    char buf[MSG_BUF_SIZE];
    const char* format = msg_get(id, severity, buf, sizeof buf, 0);
    if (cause != nullptr)
        std::fprintf(stderr, "%s: ", cause);
    std::vfprintf(stderr, format, ap);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

}  // namespace

const char* msg_get(const char* id, int severity, char* out, std::size_t outsize, int code)
{
    return msg_format(id, severity, out, outsize, 1, code);
}

void info(const char* id, ...)
{
    std::va_list ap;
    va_start(ap, id);
    report(SEV_INFO, false, id, ap);
    va_end(ap);
}

void warn(const char* id, ...)
{
    std::va_list ap;
    va_start(ap, id);
    report(SEV_WARNING, false, id, ap);
    va_end(ap);
}

void warn_errno(const char* id, ...)
{
    std::va_list ap;
    va_start(ap, id);
    report(SEV_WARNING, true, id, ap);
    va_end(ap);
}

void fatal_errno(const char* id, ...)
{
    std::va_list ap;
    va_start(ap, id);
    report(SEV_ERROR, true, id, ap);
    va_end(ap);
    std::exit(-1);
}

void error(const char* id, ...)
{
    std::va_list ap;
    va_start(ap, id);
    report(SEV_ERROR, false, id, ap);
    va_end(ap);
    std::exit(-1);
}
