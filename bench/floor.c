/* The floor for a full mount: the library calls that mount.qeodmfs -o cluster
 * makes, in its order, written as plain C with no checks beyond what keeps it
 * from running on after a failure. Like the helper it takes /etc/mtab~ and
 * mounts on /dev/odm, so it is only ever run inside odm-sandbox. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static char *const tokens[] = {
    "nocluster", "cluster", "exclusive", "cluster_bypass", "wait", "rw",
    "ro", "noauto", "remount", "nosmartsync", "smartsync", NULL,
};

struct odm_mount_args {
    uint32_t version;
    uint32_t size;
    uint64_t requested;
    uint64_t available;
    unsigned char reserved[8];
};

static pid_t lock_owner;
static sigset_t caller_mask;

static void unlock(void)
{
    if (getpid() != lock_owner)
        return;
    unlink("/etc/mtab~");
    lock_owner = 0;
    void (*caller_xfsz)(int) = signal(SIGXFSZ, SIG_IGN);
    sigprocmask(SIG_SETMASK, &caller_mask, NULL);
    signal(SIGXFSZ, caller_xfsz);
}

static void unlock_at_exit(int status, void *arg)
{
    (void)status;
    (void)arg;
    unlock();
}

static int open_standard_fds(void)
{
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd)
            return -1;
    return 0;
}

static void raise_file_limit(void)
{
    struct rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 && getrlimit(RLIMIT_FSIZE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
}

static int add_entry(FILE *mtab, const struct mntent *entry)
{
    fseek(mtab, 0, SEEK_END);
    off_t start = ftello(mtab);
    int added = addmntent(mtab, entry);
    off_t whole = added == 0 ? ftello(mtab) : -1;
    fclose(mtab);
    struct stat st;
    if (stat("/etc/mtab", &st) == 0 && st.st_size != start && st.st_size != whole &&
        truncate("/etc/mtab", start) != 0) {
        /* as the helper, nothing left to try */
    }
    return added;
}

int main(int argc, char **argv)
{
    if (open_standard_fds() != 0)
        return 1;
    uint64_t mask = 0;
    int c;
    while ((c = getopt(argc, argv, "?t:ho:vrnL")) != -1) {
        if (c != 'o')
            continue;
        char *text = optarg;
        while (*text != '\0') {
            char *value;
            int row = getsubopt(&text, tokens, &value);
            if (row == 1)
                mask |= 0x2;
        }
    }
    if (getenv("QEODM_MOUNT_OPTS") != NULL)
        return 2;

    struct stat st;
    if (lstat("/etc/mtab", &st) != 0)
        return 1;
    FILE *mtab = fopen("/etc/mtab", "r+");
    if (mtab == NULL)
        return 1;
    char temp[4096];
    snprintf(temp, sizeof temp, "/etc/mtab~%d", (int)getpid());
    int fd = open(temp, O_RDWR | O_CREAT, 0600);
    if (fd < 0)
        return 1;
    close(fd);
    sigset_t held;
    sigfillset(&held);
    sigprocmask(SIG_BLOCK, &held, &caller_mask);
    if (link(temp, "/etc/mtab~") != 0)
        return 1;
    lock_owner = getpid();
    unlink(temp);
    fseek(mtab, 0, SEEK_END);
    raise_file_limit();
    signal(SIGHUP, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    signal(SIGINT, SIG_IGN);
    on_exit(unlock_at_exit, NULL);

    char options[4096];
    int used = snprintf(options, sizeof options, "%s%s", "", "cluster");
    snprintf(options + used, sizeof options - (size_t)used, "%s%s", ",", "smartsync");

    if (stat("/dev/odm", &st) != 0)
        return 255;
    struct odm_mount_args args = {2, 32, mask, 0x4b, {0}};
    if (mount("none", "/dev/odm", "qeodmfs", 0, &args) != 0)
        return 255;

    struct mntent entry = {"none", "/dev/odm", "qeodmfs", options, 0, 0};
    if (add_entry(mtab, &entry) < 0)
        return 1;
    unlock();

    if (stat("/opt/KELD/bin/tolvane", &st) == 0) {
        pid_t pid = fork();
        if (pid == 0) {
            execl("/opt/KELD/bin/tolvane", "/opt/KELD/bin/tolvane", "readconfig", (char *)NULL);
            _exit(127);
        }
        if (pid > 0)
            while (waitpid(pid, NULL, 0) < 0 && errno == EINTR) {
            }
    }

    char path[4096];
    snprintf(path, sizeof path, "%s/cluster", "/dev/odm");
    fd = open(path, O_RDWR);
    if (fd < 0 || write(fd, "on", 2) < 2)
        return 255;
    close(fd);
    exit(0);
}
