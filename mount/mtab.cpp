// Locking and updating /etc/mtab the way every other mount tool does:
// the lock is a hard link to /etc/mtab~, taken before the mount.
#include "mount/mtab.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "mount/mount_opts.h"
#include "mount/odm_mount.h"

int mtab_in_use = 1;

namespace {

constexpr char MTAB_PATH[] = "/etc/mtab";
constexpr char MTAB_LOCK_PATH[] = "/etc/mtab~";
constexpr char MTAB_TEMP_FORMAT[] = "/etc/mtab~%d";
constexpr int MTAB_LINK_RETRIES = 3;
constexpr unsigned MTAB_LINK_WAIT_SECONDS = 5;
constexpr int MTAB_FAILED = 1;

std::FILE* mtab;
pid_t lock_owner;
char options[4096];
// The caller's signal mask, back in force once the lock is gone.
sigset_t caller_mask;

void unlock_at_exit(int /*status*/, void* /*arg*/)
{
    mtab_unlock();
}

}  // namespace

void open_standard_fds()
{
    // open takes the lowest free number: the closed one. Without /dev/null
    // the table itself could land there, so the run ends before it starts.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd)
            std::exit(MTAB_FAILED);
    }
}

void mtab_lock()
{
    struct stat st;
    if (lstat(MTAB_PATH, &st) != 0) {
        if (errno != ENOENT)
            std::exit(MTAB_FAILED);
    } else if (S_ISLNK(st.st_mode)) {
        // The kernel keeps the table; there is nothing to lock or write.
        mtab_in_use = 0;
        return;
    }

    mtab = std::fopen(MTAB_PATH, "r+");
    if (mtab == nullptr)
        std::exit(MTAB_FAILED);

    // A leftover temporary of an earlier process with our pid is reused.
    char temp[4096];
    std::snprintf(temp, sizeof temp, MTAB_TEMP_FORMAT, static_cast<int>(getpid()));
    const int fd = open(temp, O_RDWR | O_CREAT, 0600);
    if (fd < 0)
        std::exit(MTAB_FAILED);
    close(fd);

    // A signal that arrives while we hold the lock (a caller's TERM or
    // alarm, a broken pipe on stderr, a stop for a background write) waits
    // until mtab_unlock has removed it. Faults still kill at once. While
    // someone else's lock makes us wait, signals reach us as they always did.
    // On giving up, the temporary stays behind.
    sigset_t held;
    sigfillset(&held);
    sigprocmask(SIG_BLOCK, &held, &caller_mask);
    for (int retries = 0; link(temp, MTAB_LOCK_PATH) != 0; ++retries) {
        if (errno != EEXIST)
            std::exit(MTAB_FAILED);
        sigprocmask(SIG_SETMASK, &caller_mask, nullptr);
        sleep(MTAB_LINK_WAIT_SECONDS);
        if (retries == MTAB_LINK_RETRIES)
            std::exit(MTAB_FAILED);
        sigprocmask(SIG_BLOCK, &held, nullptr);
    }
    lock_owner = getpid();
    unlink(temp);
    std::fseek(mtab, 0, SEEK_END);

    // A caller's file-size limit must not cut the entry short: we take the
    // largest we may (none, as root). A write that still goes past it fails,
    // SIGXFSZ being held back, and mtab_unlock drops that signal.
    rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 && getrlimit(RLIMIT_FSIZE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
    }

    // From here on a terminal must not leave the lock behind. These stay
    // ignored for the configuration tool too.
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
    std::signal(SIGINT, SIG_IGN);
    on_exit(unlock_at_exit, nullptr);
}

void mtab_unlock()
{
    // A forked child reaches this too, and must leave its parent's lock.
    if (getpid() != lock_owner)
        return;
    unlink(MTAB_LOCK_PATH);
    lock_owner = 0;
    // The held-back signals take effect here, but for SIGXFSZ: the write it
    // stands for has already failed, and ignoring a signal discards it. The
    // configuration tool then starts with the mask and dispositions it
    // always had.
    void (*const caller_xfsz)(int) = std::signal(SIGXFSZ, SIG_IGN);
    sigprocmask(SIG_SETMASK, &caller_mask, nullptr);
    std::signal(SIGXFSZ, caller_xfsz);
}

void mtab_options(const char** out, int& /*mount_flags*/, std::uint64_t mask)
{
    // The table says smartsync when nothing was said; the kernel is not told.
    if ((mask & (OPT_SMARTSYNC | OPT_NOSMARTSYNC)) == 0)
        mask |= OPT_SMARTSYNC;

    std::size_t used = 0;
    const char* separator = "";
    const auto append = [&](const char* word) {
        const int n = std::snprintf(options + used, sizeof options - used, "%s%s", separator, word);
        if (n < 0)
            return false;
        used = std::min(used + static_cast<std::size_t>(n), sizeof options - 1);
        separator = ",";
        return true;
    };

    *out = options;
    options[0] = '\0';
    if (rw_given && !append("rw"))
        return;
    for (const mount_opt& opt : mount_opts) {
        // "wait" is for the kernel alone.
        if (opt.index != ROW_WAIT && (opt.flag & mask) != 0 && !append(opt.name))
            return;
    }
}

void mtab_add(int mount_result)
{
    if (!mtab_in_use)
        return;
    if (mount_result != 0) {
        // No entry; the lock goes with the exit handler.
        std::fclose(mtab);
        return;
    }

    // addmntent only reads the entry, but its fields are char*.
    mntent entry{.mnt_fsname = const_cast<char*>(MOUNT_SOURCE),
                 .mnt_dir = const_cast<char*>(MOUNT_POINT),
                 .mnt_type = const_cast<char*>(MOUNT_TYPE),
                 .mnt_opts = options,
                 .mnt_freq = 0,
                 .mnt_passno = 0};
    std::fseek(mtab, 0, SEEK_END);
    const off_t start = ftello(mtab);
    const int added = addmntent(mtab, &entry);
    // addmntent flushes the line. A flush that fails drops what it could not
    // write and counts only what it did, so the line's end is known only once
    // the flush has succeeded.
    const off_t whole = added == 0 ? ftello(mtab) : -1;
    // A close that reports a late write-back error (NFS, FUSE, quota) leaves
    // a line the file holds whole; that one stays. Only a line cut short (a
    // full disk, a file-size limit) is taken back, never left torn.
    std::fclose(mtab);
    struct stat st;
    if (stat(MTAB_PATH, &st) == 0 && st.st_size != start && st.st_size != whole) {
        if (truncate(MTAB_PATH, start) != 0) {
            // Nothing is left to try; the run goes on as after any failed entry.
        }
    }
    // glibc reports a failed append as 1, which passes here on purpose:
    // only a negative result has ever counted as failure.
    if (added < 0)
        std::exit(MTAB_FAILED);
    mtab_unlock();
}
