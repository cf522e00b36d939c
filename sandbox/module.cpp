#include "sandbox.h"

#include <sys/inotify.h>
#include <sys/mount.h>

#include <algorithm>

namespace sandbox {
namespace {

constexpr const char* MODULE_TYPE = "qeodmfs";

control_file add_control(const std::string& dir, const std::string& given, int& inotify)
{
    control_file cf{.dir = given};
    std::string file = dir + "/" + CONTROL_NAME;
    if ((cf.fd = open(file.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)) < 0)
        complain("cannot create %s: %s", file.c_str(), strerror(errno));
    // IN_OPEN only to keep two closes apart: inotify merges an event into
    // an identical one still unread at the end of its queue.
    if (inotify < 0)
        inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    cf.watch = inotify_add_watch(inotify, file.c_str(), IN_OPEN | IN_CLOSE_WRITE);
    return cf;
}

// The kernel checks the mount point, then the module the record: only what
// the helper could have written (decoded here, not with the helper's own
// definition, so that a wrong layout shows). The file system is made on a
// staging mount, let go once bound onto the mount point: our descriptor on
// the control file then holds only the staging mount, not the caller's.
int check_and_mount(const listener& l, const scene& sc, mount_call& m, int& inotify)
{
    const std::string stage = std::string(STATE_DIR) + "/stage";
    const std::string path = m.target ? l.reachable(*m.target) : "";
    struct stat st;
    if (!m.target)
        return EFAULT;
    if (stat(path.c_str(), &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode))
        return ENOTDIR;
    if (!m.data || m.data->at<std::uint32_t>(0) != 2 || m.data->at<std::uint32_t>(4) != m.data->bytes.size())
        return EINVAL;
    if (sc.mount_errno)
        return sc.mount_errno;
    const bool full = sc.control == control_scene::full;
    if ((mkdir(stage.c_str(), 0700) != 0 && errno != EEXIST) ||
        mount(m.source ? m.source->c_str() : MODULE_TYPE, stage.c_str(), "tmpfs", 0, full ? "mode=755,size=4k" : "mode=755") ||
        stat(stage.c_str(), &st) != 0 || mount(stage.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        int err = errno;
        complain("cannot emulate the mount on %s: %s", path.c_str(), strerror(err));
        umount2(stage.c_str(), MNT_DETACH);
        return err;
    }
    m.dev = st.st_dev;
    // A full file system: the control file opens, and every write to it
    // fails with ENOSPC. The filler holds the one page while we hold it.
    int filler = full ? open((stage + "/.filler").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600) : 0;
    if (filler < 0 || (full && (fallocate(filler, 0, 0, 4096) != 0 || unlink((stage + "/.filler").c_str()) != 0)))
        complain("cannot fill the file system on %s: %s", path.c_str(), strerror(errno));
    if (sc.control != control_scene::missing)
        m.control = add_control(stage, *m.target, inotify);
    umount2(stage.c_str(), MNT_DETACH);
    return 0;
}

}  // namespace

void answer_mount(listener& l, const scene& sc, run_record& run)
{
    std::string temp = MTAB_LOCK_PATH + std::to_string(l.pid());
    mount_call& m = run.mounts.emplace_back(mount_call{
        .pid = l.pid(), .time = monotonic_ns(), .ignored = l.ignored_signals(), .source = l.string_at(l.arg(0)),
        .target = l.string_at(l.arg(1)), .type = l.string_at(l.arg(2)), .flags = l.arg(3),
        .lock_present = access(MTAB_LOCK_PATH, F_OK) == 0, .temp_present = access(temp.c_str(), F_OK) == 0});
    if (m.type != MODULE_TYPE)
        return l.pass_on();
    m.module = true;
    // As the kernel copies it: as much as the caller's memory holds, a
    // fault only when that is nothing. A null pointer reaches the module.
    record_bytes data;
    if (l.read(l.arg(4), data.bytes.data(), data.bytes.size()) > 0)
        m.data = data;
    if (sc.hold_mount) {
        // No answer: the caller stays inside mount(2) until it is killed.
        // The file tells COMMAND that it has got that far.
        m.held = true;
        int fd = open((std::string(STATE_DIR) + "/held." + std::to_string(m.pid)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0 || close(fd) != 0)
            complain("cannot mark a held mount: %s", strerror(errno));
        return;
    }
    m.error = l.arg(4) != 0 && !m.data ? EFAULT : check_and_mount(l, sc, m, run.inotify);
    l.reply(0, m.error);
}

void answer_unmount(listener& l, const scene& /*sc*/, run_record& run)
{
    unmount_call& u = run.unmounts.emplace_back(unmount_call{l.pid(), monotonic_ns(), l.string_at(l.arg(0)), l.arg(1)});
    std::string path = u.target ? l.reachable(*u.target) : "";
    struct stat st;
    u.module = u.target && stat(path.c_str(), &st) == 0 &&
               std::any_of(run.mounts.begin(), run.mounts.end(),
                           [&st](const mount_call& m) { return m.dev != 0 && m.dev == st.st_dev; });
    if (!u.module)
        return l.pass_on();
    // Carried out here rather than passed on, so that the report can say
    // how it went.
    u.error = umount2(path.c_str(), static_cast<int>(u.flags)) == 0 ? 0 : errno;
    l.reply(0, u.error);
}

}  // namespace sandbox
