#include "module.h"

#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

#include "common.h"

namespace sandbox {
namespace {

constexpr const char* MODULE_TYPE = "qeodmfs";

// Empty, or of `size` bytes that fill a small file system: control writes then fail.
void make_file(const std::string& file, off_t size)
{
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || (size && fallocate(fd, 0, 0, size) != 0))
        cannot(fd < 0 ? "create" : "fallocate", file);
    if (fd >= 0)
        close(fd);
}

}  // namespace

module::module(const scene& sc) :sc_(sc), inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    if (inotify_ < 0)
        die("cannot inotify_init1: %s", strerror(errno));
}

module::~module()
{
    for (const made& fs : made_)
        if (fs.control >= 0)
            close(fs.control);
    close(inotify_);
}

// The kernel checks the mount point, then the module the record: only what
// the helper could have written, decoded here so that a wrong layout shows.
// The file system is made on a staging mount, let go once bound: our hold
// on the control file then holds only the staging mount, not the caller's.
int module::mount_fs(const listener& l, mount_call& m)
{
    const std::string stage = STAGE_DIR;
    const std::string path = m.target ? l.reachable(*m.target) : "";
    struct stat st;
    if (!m.target)
        return EFAULT;
    if (stat(path.c_str(), &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode))
        return ENOTDIR;
    if (!m.data || m.data->at<std::uint32_t>(0) != 2 ||
        m.data->at<std::uint32_t>(4) != m.data->bytes.size())
        return EINVAL;
    if (sc_.mount_errno)
        return sc_.mount_errno;
    const bool full = sc_.control == control_scene::full;
    if (mount(m.source ? m.source->c_str() : MODULE_TYPE, stage.c_str(), "tmpfs", 0,
              full ? "mode=755,size=4k" : "mode=755"))
        return cannot("mount a tmpfs on", stage);
    int err = 0;
    if (stat(stage.c_str(), &st) != 0)
        err = cannot("stat", stage);
    else if (mount(stage.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
        err = cannot("bind-mount the module's file system on", path);
    else
        made_.push_back({.call = calls_.size() - 1, .dev = st.st_dev});
    if (!err && full)
        make_file(stage + "/.filler", 4096);
    if (!err && sc_.control != control_scene::missing) {
        m.control = control_file{.dir = *m.target};
        const std::string file = stage + "/" + CONTROL_NAME;
        if ((made_.back().control =
                 open(file.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) < 0)
            cannot("create", file);
        // IN_OPEN only to keep two closes apart: inotify merges an event
        // into an identical one still unread at the end of its queue.
        if ((made_.back().watch =
                 inotify_add_watch(inotify_, file.c_str(), IN_OPEN | IN_CLOSE_WRITE)) < 0)
            cannot("inotify_add_watch", file);
    }
    umount2(stage.c_str(), MNT_DETACH);
    return err;
}
void module::answer_mount(listener& l)
{
    std::string temp = MTAB_LOCK_PATH + std::to_string(l.pid());
    mount_call& m =
        calls_.emplace_back(mount_call{.pid = l.pid(),
                                       .time = monotonic_ns(),
                                       .ignored = l.ignored_signals(),
                                       .source = l.string_at(l.arg(0)),
                                       .target = l.string_at(l.arg(1)),
                                       .type = l.string_at(l.arg(2)),
                                       .flags = l.arg(3),
                                       .lock_present = access(MTAB_LOCK_PATH, F_OK) == 0,
                                       .temp_present = access(temp.c_str(), F_OK) == 0});
    if (m.type != MODULE_TYPE)
        return l.pass_on();
    m.module = true;
    // As the kernel copies it: as much as the caller's memory holds, a
    // fault only when that is nothing. A null pointer reaches the module.
    record_bytes data;
    if (l.read(l.arg(4), data.bytes.data(), data.bytes.size()) > 0)
        m.data = data;
    // Held until the caller is stopped and continued; the file says it came.
    const auto held_already = [&m](const mount_call& c) { return c.held && c.pid == m.pid; };
    if (sc_.hold_mount && std::none_of(calls_.begin(), calls_.end(), held_already)) {
        m.held = true;
        return make_file(std::string(STATE_DIR) + "/held." + std::to_string(m.pid), 0);
    }
    m.error = l.arg(4) != 0 && !m.data ? EFAULT : mount_fs(l, m);
    l.reply(0, m.error);
}

void module::answer_unmount(listener& l)
{
    unmount_call& u = unmounts_.emplace_back(
        unmount_call{l.pid(), monotonic_ns(), l.string_at(l.arg(0)), l.arg(1)});
    std::string path = u.target ? l.reachable(*u.target) : "";
    struct stat st {};
    bool found = u.target && stat(path.c_str(), &st) == 0;
    // The number of a device that is gone may name another file system.
    auto fs = std::find_if(made_.begin(), made_.end(),
                           [&](const made& f) { return found && f.live && f.dev == st.st_dev; });
    u.module = fs != made_.end();
    if (!u.module)
        return l.pass_on();
    // Carried out here, so that the report can say how it went.
    u.error = umount2(path.c_str(), static_cast<int>(u.flags)) == 0 ? 0 : errno;
    fs->live = u.error != 0;
    l.reply(0, u.error);
}

void module::hand_over(run_record& run)
{
    // Each close of a control file that was opened for writing.
    alignas(inotify_event) char buf[4096];
    for (ssize_t n; (n = read(inotify_, buf, sizeof buf)) > 0;)
        for (char* p = buf; p < buf + n;
             p += sizeof(inotify_event) + reinterpret_cast<inotify_event*>(p)->len)
            for (const made& fs : made_)
                if (const auto* ev = reinterpret_cast<const inotify_event*>(p);
                    fs.watch == ev->wd && (ev->mask & IN_CLOSE_WRITE))
                    ++calls_[fs.call].control->write_opens;
    for (const made& fs : made_)
        if (fs.control >= 0)
            calls_[fs.call].control->content = read_all(fs.control);
    run.mounts = std::move(calls_);
    run.unmounts = std::move(unmounts_);
}

}  // namespace sandbox
