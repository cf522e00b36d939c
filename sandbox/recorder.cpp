#include "recorder.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

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

void record_end_state(run_record& run)
{
    struct stat st {};
    run.mtab_kind = lstat(MTAB_PATH, &st) != 0 ? "missing"
                    : S_ISLNK(st.st_mode)      ? "symlink"
                    : S_ISREG(st.st_mode)      ? "file"
                                               : "other";
    std::error_code ec;
    if (S_ISLNK(st.st_mode))
        run.mtab_text = std::filesystem::read_symlink(MTAB_PATH, ec);
    else if (S_ISREG(st.st_mode))
        run.mtab_text = read_file(MTAB_PATH);
    for (const auto& entry : std::filesystem::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            run.lock_files.push_back(entry.path().filename());
    std::sort(run.lock_files.begin(), run.lock_files.end());
}

}  // namespace sandbox
