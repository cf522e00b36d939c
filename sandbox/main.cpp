#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "sandbox.h"

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

std::string errno_name(int err)
{
    const char* name = strerrorname_np(err);
    return name ? name : std::to_string(err);
}

namespace {

constexpr const char* USAGE =
    "usage: odm-sandbox [scene options] [--json FILE] [--timeout SECONDS] [-q] -- COMMAND [ARGS...]\n"
    "scene options:\n"
    "  --mtab file|symlink|missing   /etc/mtab (default: an empty regular file)\n"
    "  --mtab-content TEXT           what the regular /etc/mtab holds\n"
    "  --mtab-lock                   /etc/mtab~ exists already: someone holds the lock\n"
    "  --no-odm                      /dev/odm does not exist\n"
    "  --tolvane FILE                install FILE as /opt/KELD/bin/tolvane\n"
    "  --tolvane-record              install a tool that records how it was run\n"
    "  --tolvane-noexec              install a tolvane that cannot be executed\n"
    "  --messages DIR                copy DIR to /opt/KELD/messages\n"
    "  --control normal|missing|readonly|short\n"
    "                                the control file 'cluster' of a new mount\n"
    "  --mount-errno NAME            the module refuses every mount with errno NAME\n"
    "  --fork-errno NAME             every fork of COMMAND's tree fails with errno NAME\n"
    "  --hold-mount                  never answer a mount: its caller waits until killed\n"
    "  --helper FILE                 FILE appears as /sbin/mount.qeodmfs\n"
    "  --fast-sleep                  sleeps of COMMAND return at once\n"
    "See sandbox/README.md.\n";

[[noreturn, gnu::format(printf, 1, 2)]] void usage_error(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vcomplain(fmt, ap);
    va_end(ap);
    fputs(USAGE, stderr);
    exit(EXIT_SANDBOX_FAILED);
}

template <std::size_t N>
int choose(const char* option, const char* arg, const std::array<const char*, N>& words)
{
    for (std::size_t i = 0; i < N; ++i)
        if (strcmp(arg, words[i]) == 0)  // NOLINT(clang-analyzer-core.NonNullParamChecker): getopt sets optarg for every required argument
            return static_cast<int>(i);
    usage_error("%s: unknown kind '%s'", option, arg);
}

int parse_errno(const char* text)
{
    char* end = nullptr;
    long number = strtol(text, &end, 10);  // NOLINT(clang-analyzer-core.NonNullParamChecker): getopt sets optarg for every required argument
    if (end != text && *end == '\0' && number > 0 && number < 4096)
        return static_cast<int>(number);
    for (int err = 1; err < 4096; ++err) {
        const char* name = strerrorname_np(err);
        if (name && strcmp(name, text) == 0)
            return err;
    }
    usage_error("unknown errno name '%s'", text);
}

// Scene inputs are read after the namespace is set up, and relative to a
// directory we may no longer be able to trust by then.
std::string absolute(const char* path, bool want_dir)
{
    char* real = realpath(path, nullptr);
    if (!real)
        die("%s: %s", path, strerror(errno));
    std::string result = real;
    free(real);
    if (!want_dir && access(result.c_str(), R_OK) != 0)
        die("%s: %s", path, strerror(errno));
    return result;
}

enum long_only : int {
    OPT_MTAB = 256,
    OPT_MTAB_CONTENT,
    OPT_MTAB_LOCK,
    OPT_NO_ODM,
    OPT_TOLVANE,
    OPT_TOLVANE_RECORD,
    OPT_TOLVANE_NOEXEC,
    OPT_MESSAGES,
    OPT_CONTROL,
    OPT_MOUNT_ERRNO,
    OPT_FORK_ERRNO,
    OPT_HOLD_MOUNT,
    OPT_HELPER,
    OPT_FAST_SLEEP,
    OPT_TIMEOUT,
    OPT_JSON,
};

constexpr option LONG_OPTIONS[] = {
    {"mtab", required_argument, nullptr, OPT_MTAB},
    {"mtab-content", required_argument, nullptr, OPT_MTAB_CONTENT},
    {"mtab-lock", no_argument, nullptr, OPT_MTAB_LOCK},
    {"no-odm", no_argument, nullptr, OPT_NO_ODM},
    {"tolvane", required_argument, nullptr, OPT_TOLVANE},
    {"tolvane-record", no_argument, nullptr, OPT_TOLVANE_RECORD},
    {"tolvane-noexec", no_argument, nullptr, OPT_TOLVANE_NOEXEC},
    {"messages", required_argument, nullptr, OPT_MESSAGES},
    {"control", required_argument, nullptr, OPT_CONTROL},
    {"mount-errno", required_argument, nullptr, OPT_MOUNT_ERRNO},
    {"fork-errno", required_argument, nullptr, OPT_FORK_ERRNO},
    {"hold-mount", no_argument, nullptr, OPT_HOLD_MOUNT},
    {"helper", required_argument, nullptr, OPT_HELPER},
    {"fast-sleep", no_argument, nullptr, OPT_FAST_SLEEP},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"json", required_argument, nullptr, OPT_JSON},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

options parse_options(int argc, char** argv)
{
    options opt;
    scene& sc = opt.sc;
    int c;
    // '+': everything from COMMAND on belongs to COMMAND.
    while ((c = getopt_long(argc, argv, "+qh", LONG_OPTIONS, nullptr)) != -1) {
        std::string_view arg = optarg ? optarg : "";
        switch (c) {
        case OPT_MTAB:
            sc.mtab = static_cast<mtab_scene>(choose("--mtab", optarg, MTAB_SCENES));
            break;
        case OPT_MTAB_CONTENT:
            sc.mtab_content = arg;
            break;
        case OPT_MTAB_LOCK:
            sc.mtab_locked = true;
            break;
        case OPT_NO_ODM:
            sc.odm_present = false;
            break;
        case OPT_TOLVANE:
            sc.tool = tool_scene::program;
            sc.tool_program = absolute(optarg, false);
            break;
        case OPT_TOLVANE_RECORD:
            sc.tool = tool_scene::recorder;
            break;
        case OPT_TOLVANE_NOEXEC:
            sc.tool = tool_scene::noexec;
            break;
        case OPT_MESSAGES:
            sc.messages_dir = absolute(optarg, true);
            break;
        case OPT_CONTROL:
            sc.control = static_cast<control_scene>(choose("--control", optarg, CONTROL_SCENES));
            break;
        case OPT_MOUNT_ERRNO:
            opt.mount_errno = parse_errno(optarg);
            break;
        case OPT_FORK_ERRNO:
            opt.fork_errno = parse_errno(optarg);
            break;
        case OPT_HOLD_MOUNT:
            opt.hold_mount = true;
            break;
        case OPT_HELPER:
            sc.helper = absolute(optarg, false);
            break;
        case OPT_FAST_SLEEP:
            opt.fast_sleep = true;
            break;
        case OPT_TIMEOUT: {
            char* end = nullptr;
            opt.timeout = strtod(optarg, &end);  // NOLINT(clang-analyzer-core.NonNullParamChecker): getopt sets optarg for every required argument
            if (end == optarg || *end != '\0' || !(opt.timeout > 0))
                usage_error("--timeout: not a positive number of seconds: '%s'", optarg);
            break;
        }
        case OPT_JSON:
            opt.json_path = arg;
            break;
        case 'q':
            opt.quiet = true;
            break;
        case 'h':
            fputs(USAGE, stdout);
            exit(0);
        default:
            fputs(USAGE, stderr);
            exit(EXIT_SANDBOX_FAILED);
        }
    }
    if (optind >= argc)
        usage_error("%s", "no COMMAND given");
    opt.command.assign(argv + optind, argv + argc);
    opt.command.push_back(nullptr);
    return opt;
}

}  // namespace
}  // namespace sandbox

int main(int argc, char** argv)
{
    using namespace sandbox;
    if (argc > 0 && invoked_as_recorder(argv[0]))
        return record_tool_run(argc, argv);

    options opt = parse_options(argc, argv);
    // Opened before /etc, /dev and /opt turn into throwaway copies, so the
    // report lands where the caller meant, whatever path was given.
    int json_fd = -1;
    if (!opt.json_path.empty()) {
        json_fd = open(opt.json_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (json_fd < 0)
            die("%s: %s", opt.json_path.c_str(), strerror(errno));
    }

    isolate(opt.sc);
    run_record run = supervise(opt);
    report(opt, run, json_fd);
    return exit_status(run);
}
