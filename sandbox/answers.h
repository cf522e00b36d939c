// The answers to trapped calls that need no state of their own.
#pragma once

#include "listener.h"
#include "record.h"

namespace sandbox {

// Runs of the recording tool, noted as they start; only an execve(2) of
// the tool is.
void answer_exec(listener& l, const scene& sc, run_record& run);
// Sleeps that return at once (--fast-sleep).
void answer_sleep(listener& l, const scene& sc, run_record& run);
// New processes refused (--fork-errno).
void answer_fork(listener& l, const scene& sc, run_record& run);

}  // namespace sandbox
