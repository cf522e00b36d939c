// What is left once COMMAND has ended, told twice: briefly on stderr for a
// person, in full as JSON for the tests. Also the recording tool, which is
// this same program run under the configuration tool's name.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "sandbox.h"

namespace sandbox {

using json = nlohmann::ordered_json;

std::vector<std::string> signal_names(std::uint64_t mask)
{
    std::vector<std::string> names;
    for (int sig = 1; sig <= 64; ++sig) {
        if (!(mask & (std::uint64_t{1} << (sig - 1))))
            continue;
        const char* abbrev = sigabbrev_np(sig);
        names.push_back(std::string("SIG") + (abbrev ? abbrev : std::to_string(sig)));
    }
    return names;
}

bool is_lock_name(std::string_view name)
{
    if (!name.starts_with("mtab~"))
        return false;
    name.remove_prefix(5);
    return name.find_first_not_of("0123456789") == std::string_view::npos;
}

int exit_status(const run_record& run)
{
    if (run.timed_out)
        return EXIT_TIMED_OUT;
    if (WIFEXITED(run.wait_status))
        return WEXITSTATUS(run.wait_status);
    if (WIFSIGNALED(run.wait_status))
        return 128 + WTERMSIG(run.wait_status);
    return EXIT_SANDBOX_FAILED;
}

namespace {

namespace fs = std::filesystem;

std::string read_all(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    off_t at = 0;
    while ((n = pread(fd, buf, sizeof buf, at)) > 0) {
        text.append(buf, static_cast<std::size_t>(n));
        at += n;
    }
    return text;
}

std::string read_file(const std::string& path)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    std::string text = read_all(fd);
    close(fd);
    return text;
}

std::uint64_t own_ignored_signals()
{
    std::string status = read_file("/proc/self/status");
    std::size_t at = status.find("\nSigIgn:");
    return at == std::string::npos ? 0 : strtoull(status.c_str() + at + 8, nullptr, 16);
}

json nullable(const std::optional<std::string>& text)
{
    return text ? json(*text) : json(nullptr);
}

struct odm_record {
    std::uint32_t version, size;
    std::uint64_t requested, available;
};

// Decoded here from the bytes, not with the helper's own definition, so
// that a wrong layout in the helper shows up.
odm_record decode(const std::vector<unsigned char>& data)
{
    odm_record r;
    memcpy(&r.version, data.data(), 4);
    memcpy(&r.size, data.data() + 4, 4);
    memcpy(&r.requested, data.data() + 8, 8);
    memcpy(&r.available, data.data() + 16, 8);
    return r;
}

json control_json(const control_file& cf)
{
    return {{"dir", cf.dir}, {"content", read_all(cf.fd)}, {"write_opens", cf.write_opens}};
}

json mount_json(const mount_call& m, const run_record& run)
{
    json j = {
        {"pid", m.pid},
        {"source", nullable(m.source)},
        {"target", nullable(m.target)},
        {"type", nullable(m.type)},
        {"flags", m.flags},
        {"handled_by", m.emulated ? "module" : "kernel"},
        {"errno", m.emulated && m.error ? json(errno_name(m.error)) : json(nullptr)},
        {"held", m.held},
        {"data", nullptr},
        {"mtab_lock_present", m.lock_present},
        {"mtab_temp_present", m.temp_present},
        {"ignored_signals", signal_names(m.ignored)},
        {"control", m.control >= 0 ? control_json(run.controls[static_cast<std::size_t>(m.control)])
                                   : json(nullptr)},
    };
    if (m.data) {
        odm_record r = decode(*m.data);
        std::string hex;
        char byte[3];
        for (unsigned char c : *m.data) {
            snprintf(byte, sizeof byte, "%02x", c);
            hex += byte;
        }
        j["data"] = {{"version", r.version}, {"size", r.size}, {"requested", r.requested},
                     {"available", r.available}, {"hex", hex}};
    }
    return j;
}

json mtab_json()
{
    struct stat st;
    if (lstat(MTAB_PATH, &st) != 0)
        return {{"kind", "missing"}};
    if (S_ISLNK(st.st_mode)) {
        std::error_code ec;
        return {{"kind", "symlink"}, {"target", fs::read_symlink(MTAB_PATH, ec).native()}};
    }
    if (S_ISREG(st.st_mode))
        return {{"kind", "file"}, {"content", read_file(MTAB_PATH)}};
    return {{"kind", "other"}};
}

std::vector<std::string> lock_files()
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            names.push_back(entry.path().filename().native());
    std::sort(names.begin(), names.end());
    return names;
}

json tool_runs()
{
    std::vector<json> runs;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(STATE_DIR, ec)) {
        if (entry.path().extension() != ".json")
            continue;
        json run = json::parse(read_file(entry.path()), nullptr, false);
        if (!run.is_discarded())
            runs.push_back(run);
    }
    std::sort(runs.begin(), runs.end(),
              [](const json& a, const json& b) { return a["time"] < b["time"]; });
    return runs;
}

json scene_json(const options& opt)
{
    const scene& sc = opt.sc;
    return {
        {"mtab", MTAB_SCENES[static_cast<std::size_t>(sc.mtab)]},
        {"mtab_locked", sc.mtab_locked},
        {"odm", sc.odm_present},
        {"tolvane", TOOL_SCENES[static_cast<std::size_t>(sc.tool)]},
        {"messages", sc.messages_dir.empty() ? json(nullptr) : json(sc.messages_dir)},
        {"control", CONTROL_SCENES[static_cast<std::size_t>(sc.control)]},
        {"mount_errno", opt.mount_errno ? json(errno_name(opt.mount_errno)) : json(nullptr)},
        {"fork_errno", opt.fork_errno ? json(errno_name(opt.fork_errno)) : json(nullptr)},
        {"hold_mount", opt.hold_mount},
        {"helper", sc.helper.empty() ? json(nullptr) : json(sc.helper)},
        {"fast_sleep", opt.fast_sleep},
    };
}

json signal_json(int sig)
{
    if (sig <= 0 || sig > 64)
        return nullptr;
    return signal_names(std::uint64_t{1} << (sig - 1)).front();
}

json command_json(const options& opt, const run_record& run)
{
    std::vector<std::string> argv(opt.command.begin(), opt.command.end() - 1);
    int ws = run.wait_status;
    return {
        {"argv", argv},
        {"status", exit_status(run)},
        {"exit_code", WIFEXITED(ws) ? json(WEXITSTATUS(ws)) : json(nullptr)},
        {"signal", WIFSIGNALED(ws) ? signal_json(WTERMSIG(ws)) : json(nullptr)},
        {"timed_out", run.timed_out},
        {"interrupted_by", signal_json(run.interrupted_by)},
        {"leftovers_killed", run.leftovers_killed},
    };
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& w : words)
        text += (text.empty() ? "" : " ") + w;
    return text.empty() ? "none" : text;
}

std::string quoted(const json& text)
{
    return text.is_null() ? "NULL" : json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

void print_mount(const json& m)
{
    fprintf(stderr, "odm-sandbox: pid %d: mount(%s, %s, %s, %#" PRIx64, m["pid"].get<int>(),
            quoted(m["source"]).c_str(), quoted(m["target"]).c_str(), quoted(m["type"]).c_str(),
            m["flags"].get<std::uint64_t>());
    if (m["handled_by"] == "kernel") {
        fputs(", ...) handed to the kernel\n", stderr);
        return;
    }
    const json& d = m["data"];
    if (d.is_null())
        fputs(", ?)", stderr);
    else
        fprintf(stderr, ", {version %u, size %u, requested %#" PRIx64 ", available %#" PRIx64 "})",
                d["version"].get<unsigned>(), d["size"].get<unsigned>(),
                d["requested"].get<std::uint64_t>(), d["available"].get<std::uint64_t>());
    if (m["held"].get<bool>())
        fputs(" held, never answered\n", stderr);
    else if (m["errno"].is_null())
        fputs(" = 0\n", stderr);
    else
        fprintf(stderr, " = -1 %s\n", m["errno"].get<std::string>().c_str());
    fprintf(stderr, "odm-sandbox:   /etc/mtab~ %s, /etc/mtab~%d %s; ignored signals: %s\n",
            m["mtab_lock_present"].get<bool>() ? "present" : "absent", m["pid"].get<int>(),
            m["mtab_temp_present"].get<bool>() ? "present" : "absent",
            joined(m["ignored_signals"]).c_str());
}

void print_report(const json& r)
{
    for (const json& m : r["mounts"])
        print_mount(m);
    for (const json& s : r["sleeps"])
        fprintf(stderr, "odm-sandbox: pid %d: sleep of %gs answered at once\n",
                s["pid"].get<int>(), s["seconds"].get<double>());

    const json& mtab = r["mtab"];
    if (mtab["kind"] == "file") {
        std::string content = mtab["content"];
        fprintf(stderr, "odm-sandbox: /etc/mtab:%s\n", content.empty() ? " empty" : "");
        for (std::size_t at = 0; at < content.size();) {
            std::size_t end = content.find('\n', at);
            std::string line = content.substr(at, end - at);
            fprintf(stderr, "odm-sandbox:   %s\n", line.c_str());
            at = end == std::string::npos ? content.size() : end + 1;
        }
    } else if (mtab["kind"] == "symlink") {
        fprintf(stderr, "odm-sandbox: /etc/mtab: link to %s\n",
                mtab["target"].get<std::string>().c_str());
    } else {
        fprintf(stderr, "odm-sandbox: /etc/mtab: %s\n", mtab["kind"].get<std::string>().c_str());
    }
    fprintf(stderr, "odm-sandbox: lock files in /etc: %s\n", joined(r["lock_files"]).c_str());

    for (const json& t : r["tool_runs"])
        fprintf(stderr, "odm-sandbox: pid %d: ran %s; ignored signals: %s\n", t["pid"].get<int>(),
                joined(t["argv"]).c_str(), joined(t["ignored_signals"]).c_str());
    if (const json& c = r["control"]; !c.is_null())
        fprintf(stderr, "odm-sandbox: %s/%s: %s, opened for writing %d time(s)\n",
                c["dir"].get<std::string>().c_str(), CONTROL_NAME, quoted(c["content"]).c_str(),
                c["write_opens"].get<int>());

    const json& cmd = r["command"];
    if (cmd["timed_out"].get<bool>())
        fputs("odm-sandbox: COMMAND timed out and was killed\n", stderr);
    else if (!cmd["interrupted_by"].is_null())
        fprintf(stderr, "odm-sandbox: stopped by %s; COMMAND was killed\n",
                cmd["interrupted_by"].get<std::string>().c_str());
    else if (!cmd["signal"].is_null())
        fprintf(stderr, "odm-sandbox: COMMAND was killed by %s\n",
                cmd["signal"].get<std::string>().c_str());
    else
        fprintf(stderr, "odm-sandbox: COMMAND exited with status %d\n", cmd["status"].get<int>());
    if (int n = cmd["leftovers_killed"].get<int>())
        fprintf(stderr, "odm-sandbox: killed %d process(es) COMMAND left running\n", n);
}

}  // namespace

void report(const options& opt, run_record& run, int json_fd)
{
    count_write_opens(run);
    json mounts = json::array();
    json control = nullptr;
    for (const mount_call& m : run.mounts) {
        mounts.push_back(mount_json(m, run));
        if (m.control >= 0)
            control = mounts.back()["control"];
    }
    json sleeps = json::array();
    for (const sleep_call& s : run.sleeps)
        sleeps.push_back({{"pid", s.pid}, {"seconds", s.seconds}});

    json r = {
        {"command", command_json(opt, run)},
        {"scene", scene_json(opt)},
        {"mounts", mounts},
        {"sleeps", sleeps},
        {"mtab", mtab_json()},
        {"lock_files", lock_files()},
        {"control", control},
        {"tool_runs", tool_runs()},
    };
    if (!opt.quiet)
        print_report(r);
    if (json_fd >= 0) {
        std::string text = r.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
        if (write(json_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            complain("%s: %s", opt.json_path.c_str(), strerror(errno));
        close(json_fd);
    }
}

bool invoked_as_recorder(const char* argv0)
{
    const char* slash = strrchr(argv0, '/');
    return strcmp(slash ? slash + 1 : argv0, TOOL_NAME) == 0;
}

int record_tool_run(int argc, char** argv)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    json run = {
        {"pid", getpid()},
        {"time", static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec},
        {"argv", std::vector<std::string>(argv, argv + argc)},
        {"env", env},
        {"ignored_signals", signal_names(own_ignored_signals())},
    };
    // Written under a temporary name, so the supervisor never reads half of it.
    std::string path = std::string(STATE_DIR) + "/tool." + std::to_string(getpid());
    std::string text = run.dump(-1, ' ', false, json::error_handler_t::replace);
    int fd = open((path + ".tmp").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        close(fd) != 0 || rename((path + ".tmp").c_str(), (path + ".json").c_str()) != 0) {
        fprintf(stderr, "%s: odm-sandbox recording tool: %s: %s\n", argv[0], path.c_str(),
                strerror(errno));
        return 1;
    }
    return 0;
}

}  // namespace sandbox
