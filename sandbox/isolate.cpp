// The throwaway system: a private mount namespace in which /etc, /opt (and
// /sbin when a helper is shown there) are overlays with a tmpfs upper layer,
// and /dev is a tmpfs that mirrors the real one entry by entry.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "sandbox.h"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

void write_file(const char* path, std::string_view text, mode_t mode = 0644)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        die("%s: %s", path, strerror(errno));
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        die("%s: %s", path, strerror(errno));
    close(fd);
}

void enter_namespaces()
{
    uid_t uid = geteuid();
    gid_t gid = getegid();
    // Real root needs no user namespace and keeps seeing files as they are.
    if (uid != 0 || unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            die("%scannot create a user and mount namespace: %s "
                "(user namespaces may be disabled here: see "
                "kernel.unprivileged_userns_clone and user.max_user_namespaces)",
                UNAVAILABLE, strerror(errno));
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    // Without this our mounts would propagate back into the real system.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("%scannot make mounts private: %s", UNAVAILABLE, strerror(errno));
}

int open_dir(const char* path)
{
    int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        die("%s: %s", path, strerror(errno));
    return fd;
}

std::string fd_path(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

// A mount inside a user namespace keeps the flags it was locked with, so a
// read-only remount has to repeat them or the kernel refuses it.
void remount_readonly(const char* path)
{
    struct statvfs sv;
    if (statvfs(path, &sv) != 0)
        die("%s: %s", path, strerror(errno));
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    constexpr struct {
        unsigned long st, ms;
    } kept[] = {
        {ST_NOSUID, MS_NOSUID},     {ST_NODEV, MS_NODEV},
        {ST_NOEXEC, MS_NOEXEC},     {ST_NOATIME, MS_NOATIME},
        {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (auto [st, ms] : kept)
        if (sv.f_flag & st)
            flags |= ms;
    if (mount(nullptr, path, nullptr, flags, nullptr) != 0)
        die("cannot make %s read-only: %s", path, strerror(errno));
}

bool bind_readonly(const std::string& from, const std::string& to, unsigned long rec)
{
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | rec, nullptr) != 0)
        return false;
    remount_readonly(to.c_str());
    return true;
}

void overlay(const char* target, int lower, int base, const char* name)
{
    std::string layers = std::string(name) + "/upper";
    std::string work = std::string(name) + "/work";
    if (mkdirat(base, name, 0755) != 0 || mkdirat(base, layers.c_str(), 0755) != 0 ||
        mkdirat(base, work.c_str(), 0755) != 0)
        die("cannot prepare the layers for %s: %s", target, strerror(errno));
    std::string opts = "lowerdir=" + fd_path(lower) + ",upperdir=" + fd_path(base) + "/" +
                       layers + ",workdir=" + fd_path(base) + "/" + work;
    if (mount("odm-sandbox", target, "overlay", 0, opts.c_str()) != 0)
        die("%scannot put an overlay on %s: %s", UNAVAILABLE, target, strerror(errno));
}

// An overlay cannot take the real /dev as its lower layer inside a user
// namespace (its submounts are locked), so /dev is rebuilt instead: device
// nodes and directories are bound in read-only, so that nothing written
// through them reaches the real /dev, and /dev/shm is a fresh tmpfs.
// NOLINTNEXTLINE(readability-function-cognitive-complexity): a walk with an error check per call
void mirror_dev(int real_dev)
{
    if (mount("odm-sandbox", "/dev", "tmpfs", MS_NOSUID, "mode=755") != 0)
        die("cannot put a tmpfs on /dev: %s", strerror(errno));
    int list_fd = openat(real_dev, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = list_fd < 0 ? nullptr : fdopendir(list_fd);
    if (!dir)
        die("/dev: %s", strerror(errno));
    while (dirent* ent = readdir(dir)) {
        std::string_view name = ent->d_name;
        if (name == "." || name == ".." || name == "odm")
            continue;
        std::string from = fd_path(real_dev) + "/" + ent->d_name;
        std::string to = "/dev/" + std::string(name);
        struct stat st;
        if (fstatat(real_dev, ent->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        // A device we cannot reach is no worse than one the machine lacks,
        // so failures below just leave the entry out.
        if (S_ISLNK(st.st_mode)) {
            char target[4096];
            ssize_t n = readlinkat(real_dev, ent->d_name, target, sizeof target - 1);
            if (n < 0)
                continue;
            target[n] = '\0';
            if (symlink(target, to.c_str()) != 0)
                die("%s: %s", to.c_str(), strerror(errno));
        } else if (S_ISDIR(st.st_mode)) {
            if (mkdir(to.c_str(), st.st_mode & 07777) != 0)
                die("%s: %s", to.c_str(), strerror(errno));
            if (name == "shm")
                mount("shm", to.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
            else if (!bind_readonly(from, to, MS_REC))
                rmdir(to.c_str());
        } else {
            // mknod is not ours to use in a user namespace; a bind is.
            int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd < 0)
                die("%s: %s", to.c_str(), strerror(errno));
            close(fd);
            if (!bind_readonly(from, to, 0))
                unlink(to.c_str());
        }
    }
    closedir(dir);
}

void make_throwaway(const scene& sc)
{
    int real_etc = open_dir("/etc");
    int real_opt = open_dir("/opt");
    int real_dev = open_dir("/dev");
    // On a merged /usr, /sbin is a link and the directory to cover is /usr/sbin.
    std::string sbin;
    int real_sbin = -1;
    if (!sc.helper.empty()) {
        char* real = realpath("/sbin", nullptr);
        if (!real)
            die("/sbin: %s", strerror(errno));
        sbin = real;
        free(real);
        real_sbin = open_dir(sbin.c_str());
    }

    // The upper layers live on a tmpfs that the /etc overlay then covers, so
    // that nothing inside the sandbox can reach them by a path.
    if (mount("odm-sandbox", "/etc", "tmpfs", 0, "mode=700") != 0)
        die("%scannot mount a tmpfs: %s", UNAVAILABLE, strerror(errno));
    int base = open_dir("/etc");
    overlay("/opt", real_opt, base, "opt");
    if (real_sbin >= 0)
        overlay(sbin.c_str(), real_sbin, base, "sbin");
    overlay("/etc", real_etc, base, "etc");
    mirror_dev(real_dev);

    for (int fd : {real_etc, real_opt, real_dev, real_sbin, base})
        if (fd >= 0)
            close(fd);
}

void copy_file(const std::string& from, const char* to, mode_t mode)
{
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    if (ec || chmod(to, mode) != 0)
        die("cannot copy %s to %s: %s", from.c_str(), to,
            ec ? ec.message().c_str() : strerror(errno));
}

void make_dirs(const char* path)
{
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec)
        die("%s: %s", path, ec.message().c_str());
}

void set_etc(const scene& sc)
{
    // Start from no lock at all, whatever the real /etc holds.
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            fs::remove(entry.path(), ec);
    if (unlink(MTAB_PATH) != 0 && errno != ENOENT)
        die("%s: %s", MTAB_PATH, strerror(errno));
    switch (sc.mtab) {
    case mtab_scene::file:
        write_file(MTAB_PATH, sc.mtab_content);
        break;
    case mtab_scene::symlink:
        if (symlink("/proc/mounts", MTAB_PATH) != 0)
            die("%s: %s", MTAB_PATH, strerror(errno));
        break;
    case mtab_scene::missing:
        break;
    }
    if (sc.mtab_locked)
        write_file(MTAB_LOCK_PATH, "");
}

void set_opt(const scene& sc)
{
    // An installed product on the real machine must not leak into the scene.
    std::error_code ec;
    fs::remove_all("/opt/KELD", ec);
    if (ec)
        die("/opt/KELD: %s", ec.message().c_str());
    if (sc.tool != tool_scene::absent)
        make_dirs(fs::path(TOOL_PATH).parent_path().c_str());
    switch (sc.tool) {
    case tool_scene::absent:
        break;
    case tool_scene::program:
        copy_file(sc.tool_program, TOOL_PATH, 0755);
        break;
    case tool_scene::recorder: {
        // Ourselves: run under the tool's name, we record and exit. By
        // name, because /proc/self/exe still belongs to the old namespace.
        fs::path self = fs::read_symlink("/proc/self/exe", ec);
        write_file(TOOL_PATH, "", 0755);
        if (ec || !bind_readonly(self, TOOL_PATH, 0))
            die("cannot install the recording tool: %s",
                ec ? ec.message().c_str() : strerror(errno));
        break;
    }
    case tool_scene::noexec:
        write_file(TOOL_PATH, "#!/bin/sh\nexit 0\n", 0644);
        break;
    }
    if (!sc.messages_dir.empty()) {
        make_dirs(MESSAGES_PATH);
        fs::copy(sc.messages_dir, MESSAGES_PATH,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
        if (ec)
            die("cannot copy %s: %s", sc.messages_dir.c_str(), ec.message().c_str());
    }
}

}  // namespace

void isolate(const scene& sc)
{
    enter_namespaces();
    make_throwaway(sc);
    set_etc(sc);
    if (sc.odm_present && mkdir(ODM_DIR, 0755) != 0)
        die("%s: %s", ODM_DIR, strerror(errno));
    if (mkdir(STATE_DIR, 0700) != 0)
        die("%s: %s", STATE_DIR, strerror(errno));
    set_opt(sc);
    if (!sc.helper.empty())
        copy_file(sc.helper, (std::string("/sbin/") + HELPER_NAME).c_str(), 0755);
}

}  // namespace sandbox
