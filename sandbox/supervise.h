// COMMAND run under the filter, its calls answered as they come.
#pragma once

#include "record.h"

namespace sandbox {

struct options {
    scene sc;
    double timeout = 0;  // seconds, 0 for none
    std::string json_path;
    bool quiet = false;
    std::vector<char*> command;  // ends with a null pointer
};

// Returns once COMMAND and its whole tree are gone: ended, or killed after
// the timeout or a signal to us, with what COMMAND left behind.
run_record supervise(const options& opt);

}  // namespace sandbox
