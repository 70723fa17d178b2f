// Ctrl-C, and the wish of the system that this command ends.
#pragma once

namespace tool {

// From now on the first SIGINT or SIGTERM is only noted, so that the command can come
// to a clean end; the second ends it at once.
void finishOnInterrupt();

bool interrupted();

}  // namespace tool
