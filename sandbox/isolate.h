// The throwaway system COMMAND runs in.
#pragma once

#include "record.h"

namespace sandbox {

// From here on /etc, /dev, /opt and /sbin are throwaway copies, set as `sc` asks.
void isolate(const scene& sc);

}  // namespace sandbox
