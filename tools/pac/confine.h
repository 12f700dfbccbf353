// The confinement of the helper.
#pragma once

namespace pac {

// Gives up everything that a script does not need: more than 256 MiB of addresses, files, processes, privileges, core dumps,
// the processor's time while others want it, and all system calls but a few. The process ends with its parent. false: the
// kernel has no filter for system calls.
bool Confine();

}  // namespace pac
