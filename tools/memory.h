// The program's reaction to a lack of memory.
#pragma once

#include "talvo/talvo.h"

namespace tool {

// A std::bad_alloc that nothing catches ends the program with one line on stderr and EXIT_FAILED. Servers catch it and end only
// the connection that needed the memory. Call it first in main().
void EndInWordsWithoutMemory();

// One line on stderr, for which no memory is needed.
void ComplainOfMemory();

// Throws std::bad_alloc for CM_ERROR_OUT_OF_MEMORY.
void RequireMemory(CmResult aResult);

}  // namespace tool
