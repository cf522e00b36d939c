// The run told, from the recorded facts alone.
#pragma once

#include "record.h"

namespace sandbox {

// Briefly on stderr unless `quiet`; in full as JSON into `json_fd`, if open (`json_path`).
void report(const run_record& run, bool quiet, int json_fd, const std::string& json_path);
// What the sandbox exits with, and the report's status.
int exit_status(const command_end& c);

}  // namespace sandbox
