#include "report.h"

#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>

#include <nlohmann/json.hpp>

#include "common.h"

namespace nlohmann {
// An empty optional is null.
template <typename T>
struct adl_serializer<std::optional<T>> {
    template <typename Json>
    static void to_json(Json& j, const std::optional<T>& value)
    {
        j = value ? Json(*value) : Json(nullptr);
    }
};
}  // namespace nlohmann

namespace sandbox {

// Keys in the order they are given, which is the order a reader wants.
using json = nlohmann::ordered_json;

namespace {

std::optional<std::string> errno_of(int err)
{
    return err ? std::optional(errno_name(err)) : std::nullopt;
}

std::optional<std::string> signal_of(int sig)
{
    return sig > 0 ? std::optional(signal_names(std::uint64_t{1} << (sig - 1))[0]) : std::nullopt;
}

// Mounts stack: the last one made is the one in sight.
const control_file* last_control(const run_record& run)
{
    auto m = std::find_if(run.mounts.rbegin(), run.mounts.rend(),
                          [](const mount_call& c) { return c.control; });
    return m == run.mounts.rend() ? nullptr : &*m->control;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& w : words)
        text += (text.empty() ? "" : " ") + w;
    return text.empty() ? "none" : text;
}

std::string in_quotes(const std::optional<std::string>& text)
{
    return text ? json(*text).dump(-1, ' ', false, json::error_handler_t::replace) : "NULL";
}

std::string outcome(int error)
{
    return error ? " = -1 " + errno_name(error) : " = 0";
}

// The record's fields, or text: what mount(8) hands a type it does not know.
std::string data_text(const std::optional<record_bytes>& d)
{
    if (!d)
        return "NULL";
    const char* text = reinterpret_cast<const char*>(d->bytes.data());
    const std::size_t len = strnlen(text, d->bytes.size());
    const auto printable = [](unsigned char c) { return isprint(c) != 0; };
    if (len > 0 && std::all_of(text, text + len, printable))
        return in_quotes(std::string(text, len));
    char fields[160];
    snprintf(fields, sizeof fields,
             "{version %u, size %u, requested %#" PRIx64 ", available %#" PRIx64 "}",
             d->at<std::uint32_t>(0), d->at<std::uint32_t>(4), d->at<std::uint64_t>(8),
             d->at<std::uint64_t>(16));
    return fields;
}

void print_mount(const mount_call& m)
{
    std::string answer = " handed to the kernel";
    if (m.module)
        answer = m.held ? " held, never answered" : outcome(m.error);
    fprintf(stderr, "odm-sandbox: pid %d: mount(%s, %s, %s, %#" PRIx64 ", %s)%s\n", m.pid,
            in_quotes(m.source).c_str(), in_quotes(m.target).c_str(), in_quotes(m.type).c_str(),
            m.flags, m.module ? data_text(m.data).c_str() : "...", answer.c_str());
    if (m.module)
        fprintf(stderr, "odm-sandbox:   /etc/mtab~ %s, /etc/mtab~%d %s; ignored signals: %s\n",
                m.lock_present ? "present" : "absent", m.pid, m.temp_present ? "present" : "absent",
                joined(signal_names(m.ignored)).c_str());
}

void print_report(const run_record& run)
{
    // Mounts and unmounts in the order they were answered.
    auto u = run.unmounts.begin();
    for (auto m = run.mounts.begin(); m != run.mounts.end() || u != run.unmounts.end();) {
        if (m == run.mounts.end() || (u != run.unmounts.end() && u->time < m->time)) {
            fprintf(stderr, "odm-sandbox: pid %d: umount2(%s, %#" PRIx64 ")%s\n", u->pid,
                    in_quotes(u->target).c_str(), u->flags,
                    u->module ? outcome(u->error).c_str() : " handed to the kernel");
            ++u;
        } else {
            print_mount(*m++);
        }
    }
    for (const sleep_call& s : run.sleeps)
        fprintf(stderr, "odm-sandbox: pid %d: sleep of %gs answered at once\n", s.pid, s.seconds);
    if (run.mtab_kind == std::string_view("file")) {
        fprintf(stderr, "odm-sandbox: /etc/mtab:%s\n", run.mtab_text.empty() ? " empty" : "");
        for (std::size_t at = 0, end; at < run.mtab_text.size(); at = end + 1) {
            end = std::min(run.mtab_text.find('\n', at), run.mtab_text.size());
            fprintf(stderr, "odm-sandbox:   %s\n", run.mtab_text.substr(at, end - at).c_str());
        }
    } else if (run.mtab_kind == std::string_view("symlink")) {
        fprintf(stderr, "odm-sandbox: /etc/mtab: link to %s\n", run.mtab_text.c_str());
    } else {
        fprintf(stderr, "odm-sandbox: /etc/mtab: %s\n", run.mtab_kind);
    }
    fprintf(stderr, "odm-sandbox: lock files in /etc: %s\n", joined(run.lock_files).c_str());
    for (const tool_run& t : run.tool_runs)
        fprintf(stderr, "odm-sandbox: pid %d: ran %s; ignored signals: %s\n", t.pid,
                joined(t.argv).c_str(), joined(signal_names(t.ignored)).c_str());
    if (const control_file* c = last_control(run))
        fprintf(stderr, "odm-sandbox: %s/%s: %s, opened for writing %d time(s)\n", c->dir.c_str(),
                CONTROL_NAME, in_quotes(c->content).c_str(), c->write_opens);

    const command_end& c = run.command;
    if (c.timed_out)
        fputs("odm-sandbox: COMMAND timed out and was killed\n", stderr);
    else if (c.interrupted_by)
        fprintf(stderr, "odm-sandbox: stopped by %s; COMMAND was killed\n",
                signal_of(c.interrupted_by)->c_str());
    else if (WIFSIGNALED(c.wait_status))
        fprintf(stderr, "odm-sandbox: COMMAND was killed by %s\n",
                signal_of(WTERMSIG(c.wait_status))->c_str());
    else
        fprintf(stderr, "odm-sandbox: COMMAND exited with status %d\n", exit_status(c));
    if (c.leftovers_killed)
        fprintf(stderr, "odm-sandbox: killed %d process(es) COMMAND left running\n",
                c.leftovers_killed);
}

}  // namespace

void to_json(json& j, const control_file& c)
{
    j = {{"dir", c.dir}, {"content", c.content}, {"write_opens", c.write_opens}};
}

void to_json(json& j, const record_bytes& d)
{
    std::string hex;
    for (unsigned char c : d.bytes)
        hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    j = {{"version", d.at<std::uint32_t>(0)},
         {"size", d.at<std::uint32_t>(4)},
         {"requested", d.at<std::uint64_t>(8)},
         {"available", d.at<std::uint64_t>(16)},
         {"hex", hex}};
}

void to_json(json& j, const mount_call& m)
{
    j = {{"pid", m.pid},
         {"time", m.time},
         {"source", m.source},
         {"target", m.target},
         {"type", m.type},
         {"flags", m.flags},
         {"handled_by", m.module ? "module" : "kernel"},
         {"errno", errno_of(m.error)},
         {"held", m.held},
         {"data", m.data},
         {"mtab_lock_present", m.lock_present},
         {"mtab_temp_present", m.temp_present},
         {"ignored_signals", signal_names(m.ignored)},
         {"control", m.control}};
}

void to_json(json& j, const unmount_call& u)
{
    j = {{"pid", u.pid},
         {"time", u.time},
         {"target", u.target},
         {"flags", u.flags},
         {"handled_by", u.module ? "module" : "kernel"},
         {"errno", errno_of(u.error)}};
}

void to_json(json& j, const sleep_call& s)
{
    j = {{"pid", s.pid}, {"seconds", s.seconds}};
}

void to_json(json& j, const tool_run& t)
{
    j = {{"pid", t.pid},
         {"time", t.time},
         {"argv", t.argv},
         {"env", t.env},
         {"ignored_signals", signal_names(t.ignored)}};
}

void to_json(json& j, const scene& sc)
{
    j = {{"tolvane_record", sc.tool_record},
         {"control", CONTROL_SCENES[static_cast<int>(sc.control)]},
         {"mount_errno", errno_of(sc.mount_errno)},
         {"fork_errno", errno_of(sc.fork_errno)},
         {"hold_mount", sc.hold_mount},
         {"fast_sleep", sc.fast_sleep}};
}

int exit_status(const command_end& c)
{
    const int ws = c.wait_status;
    if (c.timed_out)
        return EXIT_TIMED_OUT;
    return WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
}

void to_json(json& j, const command_end& c)
{
    int ws = c.wait_status;
    j = {{"argv", c.argv},
         {"status", exit_status(c)},
         {"exit_code", WIFEXITED(ws) ? std::optional(WEXITSTATUS(ws)) : std::nullopt},
         {"signal", WIFSIGNALED(ws) ? signal_of(WTERMSIG(ws)) : std::nullopt},
         {"timed_out", c.timed_out},
         {"interrupted_by", signal_of(c.interrupted_by)},
         {"leftovers_killed", c.leftovers_killed}};
}

void to_json(json& j, const run_record& run)
{
    json mtab = {{"kind", run.mtab_kind}};
    if (run.mtab_kind == std::string_view("file"))
        mtab["content"] = run.mtab_text;
    else if (run.mtab_kind == std::string_view("symlink"))
        mtab["target"] = run.mtab_text;
    const control_file* control = last_control(run);
    j = {{"command", run.command},       {"scene", run.sc},
         {"mounts", run.mounts},         {"unmounts", run.unmounts},
         {"sleeps", run.sleeps},         {"mtab", mtab},
         {"lock_files", run.lock_files}, {"control", control ? json(*control) : json(nullptr)},
         {"tool_runs", run.tool_runs}};
}

void report(const run_record& run, bool quiet, int json_fd, const std::string& json_path)
{
    if (!quiet)
        print_report(run);
    std::string text =
        json_fd < 0 ? "" : json(run).dump(2, ' ', false, json::error_handler_t::replace) + "\n";
    if (json_fd >= 0 &&
        write(json_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        cannot("write the JSON report to", json_path);
}

}  // namespace sandbox
