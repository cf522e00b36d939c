// Command line and QEODM_MOUNT_OPTS into one mode mask.
#include "mount/mount_opts.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "msg/msg.h"

const char* prog_name = "";
int rw_given = 0;

namespace {

// getsubopt's tokens, built from the table so that a match is a row number.
// getsubopt takes char* const*, but never writes through the tokens.
char* subopt_tokens[MOUNT_OPT_ROWS + 1];

constexpr char USAGE_OPTIONS[] = "[-o {cluster|nocluster|exclusive|smartsync|nosmartsync|wait}]\n";

}  // namespace

void check_table(std::span<const mount_opt, MOUNT_OPT_ROWS> table)
{
    for (std::size_t i = 0; i < table.size(); ++i)
        if (table[i].index != i)
            error("ODM:mount:5:sanity check fails");

    for (std::size_t i = 0; i < table.size(); ++i)
        subopt_tokens[i] = const_cast<char*>(table[i].name);
    subopt_tokens[MOUNT_OPT_ROWS] = nullptr;
}

void usage(int status)
{
    char format[MSG_BUF_SIZE];
    // ERROR even when the usage was asked for: the message is catalogued so.
    const char* line = msg_get("ODM:mount:4:usage: %s %s", SEV_ERROR, format, sizeof format, 0);
    std::fprintf(status == 0 ? stdout : stderr, line, prog_name, USAGE_OPTIONS);
    std::exit(status);
}

void parse_subopts(char* text, std::uint64_t& mask)
{
    while (*text != '\0') {
        char* value;
        const int row = getsubopt(&text, subopt_tokens, &value);
        if (row < 0) {
            warn("ODM:mount:6:unrecognized option %s", value);
            usage(-1);
        }
        switch (row) {
        case ROW_RW:
            rw_given = 1;
            break;
        case ROW_REMOUNT:
            // A remount has nothing to change: it succeeds as it is.
            std::exit(0);
        default:
            // "ro" and "noauto" land here too; their flag is 0.
            mask |= mount_opts[static_cast<std::size_t>(row)].flag;
            break;
        }
    }
}

std::uint64_t parse_args(int argc, char** argv)
{
    std::uint64_t mask = 0;
    int c;
    while ((c = getopt(argc, argv, "?t:ho:vrnL")) != -1) {
        switch (c) {
        case 'o':
            parse_subopts(optarg, mask);
            break;
        case '?':  // also an unknown letter or a missing argument
        case 'h':
            usage(0);
        case 'L':
            std::exit(0);
        case 'n':  // accepted for mount(8); the table entry is still made
        case 'r':
        case 'v':
        case 't':  // the type is always the same
            break;
        default:
            usage(1);
        }
    }

    // Parsed in place: the environment's own copy is cut at the commas.
    if (char* env = std::getenv("QEODM_MOUNT_OPTS"))
        parse_subopts(env, mask);
    return mask;
}

void check_conflicts(std::uint64_t mask)
{
    // Both names come from table order, not from the command line.
    for (const mount_opt& opt : mount_opts) {
        const std::uint64_t clash = mask & opt.conflicts;
        if ((mask & opt.flag) == 0 || clash == 0)
            continue;
        for (const mount_opt& other : mount_opts)
            if ((other.flag & clash) != 0)
                error("ODM:mount:3:conflicting suboptions: '%s' and '%s'", opt.name, other.name);
        usage(2);  // a conflict bit that no row owns: the table is wrong
    }
}
