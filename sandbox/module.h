// The emulated qeodmfs module, which knows which of its mounts are live.
#pragma once

#include "listener.h"
#include "record.h"

namespace sandbox {

class module {
public:
    explicit module(const scene& sc);
    ~module();
    module(const module&) = delete;
    module& operator=(const module&) = delete;

    // All are recorded; calls that are none of the module's go on to the kernel.
    void answer_mount(listener& l);
    void answer_unmount(listener& l);
    // The calls, each mount with its control file as COMMAND left it.
    void hand_over(run_record& run);

private:
    struct made {          // a file system the module mounted
        std::size_t call;  // in calls_
        dev_t dev;
        bool live = true;  // until it is unmounted
        int control = -1, watch = -1;
    };
    int mount_fs(const listener& l, mount_call& m);

    const scene& sc_;
    std::vector<mount_call> calls_;
    std::vector<unmount_call> unmounts_;
    std::vector<made> made_;
    int inotify_;  // watches every control file
};

}  // namespace sandbox
