// The traditional mount table /etc/mtab and its lock /etc/mtab~.
#pragma once

#include <cstdint>

// 0 when /etc/mtab is a symbolic link: then there is no lock and no entry.
extern int mtab_in_use;

// Opens a closed standard descriptor on /dev/null, so that nothing printed
// can reach a file opened later: the table, its lock or the switch.
void open_standard_fds();
// Opens and locks the table, or exits with status 1 saying nothing. Until
// the lock is released, every signal that can wait is held back.
void mtab_lock();
// Removes the lock if this process took it, then lets the held-back signals
// in; also runs at exit.
void mtab_unlock();
// Points *out at the options string for the table entry. mount_flags
// belongs to the interface its callers use and is left as it is: the words
// never change how the kernel mounts.
void mtab_options(const char** out, int& mount_flags, std::uint64_t mask);
// Appends the entry after a successful mount; closes the table either way.
// An append cut short leaves the table as long as it was; a line the file
// holds whole stays, whatever closing the table reports.
void mtab_add(int mount_result);
