// The suboption table, the mode mask it builds, and the option parsers.
#pragma once

#include <array>
#include <cstdint>
#include <span>

inline constexpr std::uint64_t OPT_NOCLUSTER = 0x1;
inline constexpr std::uint64_t OPT_CLUSTER = 0x2;
inline constexpr std::uint64_t OPT_WAIT = 0x4;
inline constexpr std::uint64_t OPT_CLUSTER_BYPASS = 0x8;
inline constexpr std::uint64_t OPT_SMARTSYNC = 0x10;
inline constexpr std::uint64_t OPT_NOSMARTSYNC = 0x20;
inline constexpr std::uint64_t OPT_EXCLUSIVE = 0x40;
inline constexpr std::uint64_t OPT_ALL_MODES =
    OPT_NOCLUSTER | OPT_CLUSTER | OPT_CLUSTER_BYPASS | OPT_EXCLUSIVE;

struct mount_opt {
    const char* name;
    std::uint32_t index;
    std::uint64_t flag;       // 0 for words that set no mode
    std::uint64_t conflicts;  // bits that may not be set together with flag
};

// Row numbers are what getsubopt returns.
enum mount_opt_row : std::uint32_t {
    ROW_NOCLUSTER,
    ROW_CLUSTER,
    ROW_EXCLUSIVE,
    ROW_CLUSTER_BYPASS,
    ROW_WAIT,
    ROW_RW,
    ROW_RO,
    ROW_NOAUTO,
    ROW_REMOUNT,
    ROW_NOSMARTSYNC,
    ROW_SMARTSYNC,
    MOUNT_OPT_ROWS
};

// The order is the token order, the conflict scan order and the word order
// of the mount table's options string.
inline constexpr std::array<mount_opt, MOUNT_OPT_ROWS> mount_opts{{
    {"nocluster", ROW_NOCLUSTER, OPT_NOCLUSTER, OPT_CLUSTER | OPT_CLUSTER_BYPASS | OPT_EXCLUSIVE},
    {"cluster", ROW_CLUSTER, OPT_CLUSTER, OPT_NOCLUSTER | OPT_CLUSTER_BYPASS | OPT_EXCLUSIVE},
    {"exclusive", ROW_EXCLUSIVE, OPT_EXCLUSIVE, OPT_NOCLUSTER | OPT_CLUSTER | OPT_CLUSTER_BYPASS},
    {"cluster_bypass", ROW_CLUSTER_BYPASS, OPT_CLUSTER_BYPASS,
     OPT_NOCLUSTER | OPT_CLUSTER | OPT_EXCLUSIVE},
    {"wait", ROW_WAIT, OPT_WAIT, 0},
    {"rw", ROW_RW, 0, 0},
    {"ro", ROW_RO, 0, 0},
    {"noauto", ROW_NOAUTO, 0, 0},
    {"remount", ROW_REMOUNT, 0, 0},
    {"nosmartsync", ROW_NOSMARTSYNC, OPT_NOSMARTSYNC, OPT_SMARTSYNC},
    {"smartsync", ROW_SMARTSYNC, OPT_SMARTSYNC, OPT_NOSMARTSYNC},
}};

consteval bool rows_are_indexed(std::span<const mount_opt> table)
{
    for (std::size_t i = 0; i < table.size(); ++i)
        if (table[i].index != i)
            return false;
    return true;
}
static_assert(rows_are_indexed(mount_opts), "a mount_opts row is out of place");

extern const char* prog_name;  // argv[0], for the usage line
extern int rw_given;           // "rw" was among the suboptions

// Checks that each row sits at its index and builds the getsubopt tokens.
// The table parameter exists so that a damaged table can be tried.
void check_table(std::span<const mount_opt, MOUNT_OPT_ROWS> table = mount_opts);
std::uint64_t parse_args(int argc, char** argv);
// Works in place: getsubopt cuts `text` at each comma.
void parse_subopts(char* text, std::uint64_t& mask);
void check_conflicts(std::uint64_t mask);
[[noreturn]] void usage(int status);
