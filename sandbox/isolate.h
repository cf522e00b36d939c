// The throwaway system COMMAND runs in.
#pragma once

#include "record.h"

namespace sandbox {

// From here on /etc, /dev, /opt and /sbin are throwaway copies in a mount
// namespace of our own, set as `sc` asks, whatever the real machine holds.
void isolate(const scene& sc);

}  // namespace sandbox
