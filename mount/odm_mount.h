// The mount call itself and the record the kernel module reads.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* MOUNT_SOURCE = "none";
inline constexpr const char* MOUNT_POINT = "/dev/odm";
inline constexpr const char* MOUNT_TYPE = "qeodmfs";

inline constexpr std::uint32_t ODM_MOUNT_ARGS_VERSION = 2;

// Binary interface with the module: the layout is fixed, native byte order.
struct odm_mount_args {
    std::uint32_t version;
    std::uint32_t size;
    std::uint64_t requested;  // the mode mask as parsed
    std::uint64_t available;  // OPT_ALL_MODES
    unsigned char reserved[8];
};
static_assert(sizeof(odm_mount_args) == 32);
static_assert(offsetof(odm_mount_args, version) == 0);
static_assert(offsetof(odm_mount_args, size) == 4);
static_assert(offsetof(odm_mount_args, requested) == 8);
static_assert(offsetof(odm_mount_args, available) == 16);
static_assert(offsetof(odm_mount_args, reserved) == 24);

// mount(2). data_len and options belong to the interface its callers use,
// but the kernel gets neither: the options string is for the mount table.
int do_mount(const char* source, const char* target, int mount_flags, const char* fstype,
             const void* data, std::size_t data_len, const char* options);
