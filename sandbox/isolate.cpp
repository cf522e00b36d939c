// The throwaway system: a private mount namespace in which /etc, /opt (and
// /sbin when a helper is shown there) are overlays with a tmpfs upper layer,
// and /dev is a tmpfs that mirrors the real one entry by entry.

#include "sandbox.h"

#include <sched.h>
#include <sys/mount.h>

#include <filesystem>

namespace sandbox {
namespace {

namespace fs = std::filesystem;

void write_file(const std::string& path, std::string_view text, mode_t mode = 0644)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || close(fd) != 0)
        die("%s: %s", path.c_str(), strerror(errno));
}

void enter_namespaces()
{
    uid_t uid = geteuid();
    gid_t gid = getegid();
    // Real root needs no user namespace and keeps seeing files as they are.
    if (uid != 0 || unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            die("%scannot create a user and mount namespace: %s (see kernel.unprivileged_userns_clone and "
                "user.max_user_namespaces)", UNAVAILABLE, strerror(errno));
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    // Without this our mounts would propagate back into the real system.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("%scannot make mounts private: %s", UNAVAILABLE, strerror(errno));
}

// The directory as it is now, reachable by a path once it is covered.
std::string hold_dir(const std::string& path, std::vector<int>& held)
{
    int fd = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        die("%s: %s", path.c_str(), strerror(errno));
    held.push_back(fd);
    return "/proc/self/fd/" + std::to_string(fd);
}

// Read-only all the way down. Unlike a remount, this need not repeat the
// flags that a user namespace locked the mount with.
bool bind_readonly(const std::string& from, const std::string& to)
{
    mount_attr attr{MOUNT_ATTR_RDONLY, 0, 0, 0};
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return false;
    if (mount_setattr(AT_FDCWD, to.c_str(), AT_RECURSIVE, &attr, sizeof attr) != 0)
        die("%scannot make %s read-only: %s", UNAVAILABLE, to.c_str(), strerror(errno));
    return true;
}

void overlay(const std::string& target, const std::string& lower, const std::string& layers)
{
    std::error_code ec;
    fs::create_directories(layers + "/upper", ec);
    fs::create_directories(layers + "/work", ec);
    std::string opts = "lowerdir=" + lower + ",upperdir=" + layers + "/upper,workdir=" + layers + "/work";
    if (ec || mount("odm-sandbox", target.c_str(), "overlay", 0, opts.c_str()) != 0)
        die("%scannot put an overlay on %s: %s", UNAVAILABLE, target.c_str(), ec ? ec.message().c_str() : strerror(errno));
}

// An overlay cannot take the real /dev as its lower layer in a user
// namespace (its submounts are locked), so /dev is rebuilt: device nodes and
// directories are bound in read-only, so that nothing written through them
// reaches the real /dev, and /dev/shm is a fresh tmpfs. A device we cannot
// reach is no worse than one the machine lacks: it is left out.
void mirror_dev(const std::string& real_dev)
{
    if (mount("odm-sandbox", "/dev", "tmpfs", MS_NOSUID, "mode=755") != 0)
        die("cannot put a tmpfs on /dev: %s", strerror(errno));
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator(real_dev, ec)) {
        std::string name = entry.path().filename();
        std::string to = "/dev/" + name;
        if (name == "odm")
            continue;
        if (entry.is_symlink(ec)) {
            fs::copy_symlink(entry.path(), to, ec);
        } else if (entry.is_directory(ec)) {
            fs::create_directory(to, ec);
            if (name == "shm")
                mount("shm", to.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
            else if (!bind_readonly(entry.path(), to))
                rmdir(to.c_str());
        } else {
            // mknod is not ours to use in a user namespace; a bind is.
            write_file(to, "", 0600);
            if (!bind_readonly(entry.path(), to))
                unlink(to.c_str());
        }
        if (ec)
            die("%s: %s", to.c_str(), ec.message().c_str());
    }
    if (ec)
        die("/dev: %s", ec.message().c_str());
}

void make_throwaway(const scene& sc)
{
    std::vector<int> held;
    std::string real_etc = hold_dir("/etc", held);
    std::string real_opt = hold_dir("/opt", held);
    std::string real_dev = hold_dir("/dev", held);
    // On a merged /usr, /sbin is a link and the directory to cover is /usr/sbin.
    std::error_code ec;
    std::string sbin = sc.helper ? fs::canonical("/sbin", ec).native() : "";
    std::string real_sbin = sc.helper ? hold_dir(sbin, held) : "";
    // The upper layers live on a tmpfs that the /etc overlay then covers, so
    // that nothing inside the sandbox can reach them by a path.
    if (mount("odm-sandbox", "/etc", "tmpfs", 0, "mode=700") != 0)
        die("%scannot mount a tmpfs: %s", UNAVAILABLE, strerror(errno));
    std::string base = hold_dir("/etc", held);
    overlay("/opt", real_opt, base + "/opt");
    if (sc.helper)
        overlay(sbin, real_sbin, base + "/sbin");
    overlay("/etc", real_etc, base + "/etc");
    mirror_dev(real_dev);
    // Left open, they would show COMMAND the way to the real directories.
    for (int fd : held)
        close(fd);
}

void copy_program(const std::string& from, const std::string& to)
{
    std::error_code ec;
    if (!fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec) || chmod(to.c_str(), 0755) != 0)
        die("cannot copy %s to %s: %s", from.c_str(), to.c_str(), ec ? ec.message().c_str() : strerror(errno));
}

}  // namespace

void isolate(const scene& sc)
{
    enter_namespaces();
    make_throwaway(sc);
    // The scene starts from no lock and no product, whatever the real
    // machine holds.
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            fs::remove(entry.path(), ec);
    fs::remove(MTAB_PATH, ec);
    fs::remove_all("/opt/KELD", ec);
    if (ec)
        die("cannot clear the scene: %s", ec.message().c_str());
    if (sc.mtab == mtab_scene::file)
        write_file(MTAB_PATH, sc.mtab_content);
    if (sc.mtab == mtab_scene::symlink && symlink("/proc/mounts", MTAB_PATH) != 0)
        die("%s: %s", MTAB_PATH, strerror(errno));
    if (sc.mtab_locked)
        write_file(MTAB_LOCK_PATH, "");
    if ((sc.odm_present && mkdir("/dev/odm", 0755) != 0) || mkdir(STATE_DIR, 0700) != 0)
        die("cannot set up /dev: %s", strerror(errno));

    if (sc.tool != tool_scene::absent || sc.messages_dir)
        fs::create_directories("/opt/KELD/bin", ec);
    if (sc.messages_dir)
        fs::copy(*sc.messages_dir, "/opt/KELD/messages", fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (ec)
        die("cannot set up /opt/KELD: %s", ec.message().c_str());
    // The recorder is a program that does nothing; its runs are noted as
    // they start.
    if (sc.tool == tool_scene::noexec)
        write_file(TOOL_PATH, "#!/bin/sh\nexit 0\n", 0644);
    else if (sc.tool != tool_scene::absent)
        copy_program(sc.tool == tool_scene::program ? sc.tool_program : "/bin/true", TOOL_PATH);
    if (sc.helper)
        copy_program(*sc.helper, "/sbin/mount.qeodmfs");
}

}  // namespace sandbox
