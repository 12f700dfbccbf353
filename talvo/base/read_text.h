// The contents of small files.
#pragma once

#include <optional>

#include "talvo/base/types.h"

namespace talvo {

// From the position of aFd to the end of the file. Nothing: it cannot be read, or has more than aMax bytes. Throws
// std::bad_alloc.
std::optional<CCmString> ReadText(HANDLE aFd, size_t aMax);

}  // namespace talvo
