#include "answers.h"

#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>

#include "common.h"

namespace sandbox {
namespace {

// A null-terminated array of strings in the caller's memory: argv or envp.
std::vector<std::string> strings_at(const listener& l, std::uint64_t addr)
{
    std::vector<std::string> strings;
    for (std::uint64_t at; l.read(addr + sizeof at * strings.size(), &at, sizeof at) == sizeof at && at;)
        strings.push_back(l.string_at(at).value_or(""));
    return strings;
}

}  // namespace

void answer_exec(listener& l, const scene& /*sc*/, run_record& run)
{
    std::optional<std::string> path = l.string_at(l.arg(0));
    struct stat tool;
    struct stat target;
    if (path && stat(l.reachable(*path).c_str(), &target) == 0 && stat(TOOL_PATH, &tool) == 0 &&
        target.st_dev == tool.st_dev && target.st_ino == tool.st_ino)
        run.tool_runs.push_back(
            {l.pid(), monotonic_ns(), strings_at(l, l.arg(1)), strings_at(l, l.arg(2)), l.ignored_signals()});
    l.pass_on();
}

void answer_sleep(listener& l, const scene& /*sc*/, run_record& run)
{
    bool clock_call = l.nr() == SYS_clock_nanosleep;
    timespec ts{};
    if (l.read(l.arg(clock_call ? 2 : 0), &ts, sizeof ts) != sizeof ts)
        return l.reply(0, EFAULT);
    timespec now{};  // an absolute sleep lasts from now until then
    if (clock_call && (l.arg(1) & TIMER_ABSTIME))
        clock_gettime(static_cast<clockid_t>(l.arg(0)), &now);
    run.sleeps.push_back(
        {l.pid(), static_cast<double>(ts.tv_sec - now.tv_sec) + static_cast<double>(ts.tv_nsec - now.tv_nsec) / 1e9});
    l.reply(0, 0);
}

void answer_fork(listener& l, const scene& sc, run_record& /*run*/)
{
    // A clone that shares the caller's memory (a thread, or the stop-the-world helper of a
    // sanitized COMMAND's LeakSanitizer) goes on. clone3 keeps its flags in memory.
    std::uint64_t flags = l.nr() == SYS_clone ? l.arg(0) : 0;
    if (l.nr() == SYS_clone3)
        l.read(l.arg(0), &flags, sizeof flags);
    if (flags & CLONE_VM)
        l.pass_on();
    else
        l.reply(0, sc.fork_errno);
}

}  // namespace sandbox
