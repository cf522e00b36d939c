// The answers to trapped calls that need no state of their own.
#pragma once

#include "listener.h"
#include "record.h"

namespace sandbox {

// Sleeps that return at once (--fast-sleep).
void answer_sleep(listener& l, const scene& sc, run_record& run);
// New processes refused (--fork-errno).
void answer_fork(listener& l, const scene& sc, run_record& run);

}  // namespace sandbox
