// What COMMAND did besides its mounts.
#pragma once

#include "listener.h"
#include "record.h"

namespace sandbox {

// The tool's runs as they start: only an execve(2) of the tool is noted.
void answer_exec(listener& l, const scene& sc, run_record& run);
// What COMMAND left in /etc once it has ended.
void record_end_state(run_record& run);

}  // namespace sandbox
