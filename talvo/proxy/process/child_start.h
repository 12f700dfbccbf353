// The start of a child process.
#pragma once

#include "talvo/proxy/process/child_process.h"

namespace talvo {

// Starts the program as CChildProcess describes. aProcess (out): the process descriptor, which the caller owns and which is
// closed on exec. 0, or the errno. It takes no lock and changes no memory of other threads: the calling thread alone waits
// until the program has been loaded. Throws std::bad_alloc.
int StartChild(const CChildProgram& aProgram, HANDLE& aProcess);

}  // namespace talvo
