// The throwaway system: in a private mount namespace, /etc and /sbin are
// overlays, and /dev and /opt are tmpfs mirroring the real ones.

#include "isolate.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "common.h"

namespace sandbox {
namespace {

namespace fs = std::filesystem;

void write_file(const std::string& path, std::string_view text, mode_t mode = 0644)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        fail("create", path);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail("write", path);
    close(fd);
}

void make_dir(const std::string& path, mode_t mode)
{
    if (mkdir(path.c_str(), mode) != 0)
        fail("mkdir", path);
}

void remove_file(const std::string& path)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        fail("unlink", path);
}

void enter_namespaces()
{
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    // Real root needs no user namespace and keeps seeing files as they are.
    if (uid != "0" || unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            die("%scannot unshare a user and mount namespace: %s (see "
                "kernel.unprivileged_userns_clone and user.max_user_namespaces)",
                UNAVAILABLE, strerror(errno));
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + uid + " 1");
        write_file("/proc/self/gid_map", "0 " + gid + " 1");
    }
    // Without this our mounts would propagate back into the real system.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("%scannot mount / private: %s", UNAVAILABLE, strerror(errno));
}

// The file or directory as it is now, reachable by a path once covered.
std::string hold(const std::string& given, std::vector<int>& held)
{
    int fd = open(given.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0)
        fail("open", given);
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
        die("%scannot mount_setattr %s read-only: %s", UNAVAILABLE, to.c_str(), strerror(errno));
    return true;
}

void overlay(const std::string& target, const std::string& lower, const std::string& layers)
{
    make_dir(layers, 0755);
    make_dir(layers + ".work", 0700);
    std::string opts = "lowerdir=" + lower + ",upperdir=" + layers + ",workdir=" + layers + ".work";
    if (mount("odm-sandbox", target.c_str(), "overlay", 0, opts.c_str()) != 0)
        die("%scannot mount an overlay on %s: %s", UNAVAILABLE, target.c_str(), strerror(errno));
}

// An overlay in a user namespace cannot have /dev below (locked submounts),
// nor remove what an unmapped root owns (an installed /opt/KELD): both are
// rebuilt from entries bound in read-only. What we cannot reach is left out.
void mirror(const std::string& real, const std::string& dir, const char* left_out)
{
    if (mount("odm-sandbox", dir.c_str(), "tmpfs", MS_NOSUID, "mode=755") != 0)
        fail("mount a tmpfs on", dir);
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator(real, ec)) {
        std::string to = dir + "/" + entry.path().filename().native();
        bool link = entry.is_symlink(ec);
        if (entry.path().filename() == left_out)
            continue;
        // mknod is not ours to use in a user namespace; a bind is.
        if (link)
            fs::copy_symlink(entry.path(), to, ec);
        else if (entry.is_directory(ec))
            fs::create_directory(to, ec);
        else
            write_file(to, "", 0600);
        if (ec)
            die("cannot %s %s: %s", link ? "copy the link" : "mkdir", to.c_str(),
                ec.message().c_str());
        if (to == "/dev/shm")
            mount("shm", to.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
        else if (!link && !bind_readonly(entry.path(), to))
            remove(to.c_str());
    }
    if (ec)
        die("cannot readdir the real %s: %s", dir.c_str(), ec.message().c_str());
}

void make_throwaway(std::vector<int>& held)
{
    std::string real_etc = hold("/etc", held);
    std::string real_opt = hold("/opt", held);
    std::string real_dev = hold("/dev", held);
    std::error_code ec;
    std::string sbin = fs::canonical("/sbin", ec);  // /usr/sbin on a merged /usr
    if (ec)
        die("cannot realpath /sbin: %s", ec.message().c_str());
    std::string real_sbin = hold(sbin, held);
    // The upper layers live on a tmpfs that the /etc overlay then covers.
    if (mount("odm-sandbox", "/etc", "tmpfs", 0, "mode=700") != 0)
        die("%scannot mount a tmpfs on /etc: %s", UNAVAILABLE, strerror(errno));
    std::string base = hold("/etc", held);
    overlay(sbin, real_sbin, base + "/sbin");
    overlay("/etc", real_etc, base + "/etc");
    mirror(real_dev, "/dev", "odm");
    mirror(real_opt, "/opt", "KELD");
}

}  // namespace

void isolate(const scene& sc)
{
    std::vector<int> held;
    enter_namespaces();
    make_throwaway(held);
    // Whatever the machine holds: no lock and no helper, an empty regular
    // table and an empty /dev/odm. COMMAND's own shell sets any other scene.
    std::error_code ec;
    for (const fs::directory_entry& entry : fs::directory_iterator("/etc", ec))
        if (is_lock_name(entry.path().filename().native()))
            remove_file(entry.path());
    if (ec)
        die("cannot readdir /etc: %s", ec.message().c_str());
    remove_file(MTAB_PATH);
    remove_file(HELPER_PATH);
    write_file(MTAB_PATH, "");
    make_dir("/dev/odm", 0755);
    make_dir(STATE_DIR, 0700);
    make_dir(STAGE_DIR, 0700);
    if (sc.tool_record) {
        make_dir("/opt/KELD", 0755);
        make_dir("/opt/KELD/bin", 0755);
        if (!fs::copy_file("/bin/true", TOOL_PATH, ec))
            die("cannot copy /bin/true to %s: %s", TOOL_PATH, ec.message().c_str());
        if (chmod(TOOL_PATH, 0755) != 0)
            fail("chmod", TOOL_PATH);
    }
    // Left open, they would show COMMAND the way to the real files.
    for (int fd : held)
        close(fd);
}

}  // namespace sandbox
