// odm-sandbox: runs a command in a throwaway system where an emulated kernel
// module answers mount(2) of "qeodmfs", and reports what the command did.

#include <getopt.h>

#include <algorithm>

#include "common.h"
#include "isolate.h"
#include "report.h"
#include "supervise.h"

namespace sandbox {
namespace {

// getopt hands every option that takes an argument a non-null one.

// A day: longer than any test, short enough for poll(2)'s milliseconds.
constexpr double MAX_TIMEOUT = 86400;

template <typename E, std::size_t N>
E choose(const char* option, const char* arg, const std::array<const char*, N>& words)
{
    for (std::size_t i = 0; i < N; ++i)
        if (strcmp(arg, words[i]) == 0)  // NOLINT(clang-analyzer-core.NonNullParamChecker)
            return static_cast<E>(i);
    die("%s: unknown kind '%s'; see --help", option, arg);
}

int parse_errno(const char* text)
{
    for (int err = 1; err < 4096; ++err)
        if (strerrorname_np(err) && strcmp(strerrorname_np(err), text) == 0)
            return err;
    die("unknown errno name '%s'", text);
}

struct option_row {
    const char* name;
    char letter;      // a short form, or 0
    const char* arg;  // as --help names the argument; null for none
    const char* help;
    void (*set)(options& opt, const char* arg);
};

[[noreturn]] void print_help();

// getopt's table and --help, which README.md shows (a test compares), come from this.
constexpr option_row OPTIONS[] = {
    {"tolvane-record", 0, nullptr,
     "/opt/KELD/bin/tolvane does nothing, and how each run starts is recorded",
     [](options& o, const char*) { o.sc.tool_record = true; }},
    {"control", 0, "normal|missing|full",
     "each module mount's control file: a file (the default), none, or a full one",
     [](options& o, const char* a) {
         o.sc.control = choose<control_scene>("--control", a, CONTROL_SCENES);
     }},
    {"mount-errno", 0, "NAME",
     "the module refuses every valid qeodmfs mount with errno NAME (EBUSY, say)",
     [](options& o, const char* a) { o.sc.mount_errno = parse_errno(a); }},
    {"fork-errno", 0, "NAME",
     "every new process under COMMAND fails with errno NAME; threads do not",
     [](options& o, const char* a) { o.sc.fork_errno = parse_errno(a); }},
    {"hold-mount", 0, nullptr,
     "a qeodmfs mount waits for its caller's STOP and CONT; /dev/.odm-sandbox/held.PID tells it "
     "came",
     [](options& o, const char*) { o.sc.hold_mount = true; }},
    {"fast-sleep", 0, nullptr,
     "sleeps of COMMAND and everything under it return at once, and are recorded",
     [](options& o, const char*) { o.sc.fast_sleep = true; }},
    {"timeout", 0, "SECONDS",
     "COMMAND and everything under it are killed after SECONDS, at most 86400; the status is 124",
     [](options& o, const char* a) {
         char* end = nullptr;
         o.timeout = strtod(a, &end);  // NOLINT(clang-analyzer-core.NonNullParamChecker)
         if (end == a || *end != '\0' || !(o.timeout > 0 && o.timeout <= MAX_TIMEOUT))
             die("--timeout: not a number of seconds above 0 and up to %g: '%s'", MAX_TIMEOUT, a);
     }},
    {"json", 0, "FILE", "the report as JSON into FILE, which is opened before anything else",
     [](options& o, const char* a) { o.json_path = a; }},
    {"quiet", 'q', nullptr, "no report on stderr, which then carries COMMAND's own output",
     [](options& o, const char*) { o.quiet = true; }},
    {"help", 'h', nullptr, "this list", [](options&, const char*) { print_help(); }},
};

void print_help()
{
    puts("usage: odm-sandbox [OPTION...] -- COMMAND [ARGS...]\n"
         "Runs COMMAND where the qeodmfs kernel module is emulated, in a throwaway /etc, /dev,\n"
         "/opt and /sbin that COMMAND may change as it likes, and reports what it did. Exits\n"
         "with COMMAND's status (128+N after signal N), 124 on timeout, 125 when the sandbox\n"
         "itself fails.");
    for (const option_row& row : OPTIONS)
        printf("  %s--%s%s%s\n      %s\n",
               row.letter ? std::string{'-', row.letter, ',', ' '}.c_str() : "", row.name,
               row.arg ? " " : "", row.arg ? row.arg : "", row.help);
    exit(0);
}

options parse_options(int argc, char** argv)
{
    std::vector<option> longs;
    std::string letters = "+";  // everything from COMMAND on belongs to COMMAND
    for (const option_row& row : OPTIONS) {
        longs.push_back({row.name, row.arg ? required_argument : no_argument, nullptr,
                         row.letter ? row.letter : 256});
        letters += row.letter ? std::string(1, row.letter) : "";
    }
    longs.push_back({});
    options opt;
    int index = 0;  // of the long option found, where there is no letter to tell
    for (int c; (c = getopt_long(argc, argv, letters.c_str(), longs.data(), &index)) != -1;) {
        auto by_letter = [c](const option_row& r) { return r.letter == c; };
        const option_row* row =
            c == 256 ? &OPTIONS[index]
                     : std::find_if(std::begin(OPTIONS), std::end(OPTIONS), by_letter);
        if (row == std::end(OPTIONS))
            die("see odm-sandbox --help");
        row->set(opt, optarg);
    }
    if (optind >= argc)
        die("no COMMAND given; see odm-sandbox --help");
    opt.command.assign(argv + optind, argv + argc);
    opt.command.push_back(nullptr);
    return opt;
}

}  // namespace
}  // namespace sandbox

int main(int argc, char** argv)
{
    using namespace sandbox;
    options opt = parse_options(argc, argv);
    // Opened before anything is covered, so any path works.
    int json_fd = opt.json_path.empty()
                      ? -1
                      : open(opt.json_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (!opt.json_path.empty() && json_fd < 0)
        fail("open", opt.json_path);
    isolate(opt.sc);
    run_record run = supervise(opt);
    report(run, opt.quiet, json_fd, opt.json_path);
    return exit_status(run.command);
}
