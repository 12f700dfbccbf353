// The usual texts of status codes.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// The text behind aStatus on a status line ("Not Found"), or "Unknown" for a number without a name. The text is static.
const char* HttpStatusText(long aStatus);

}  // namespace talvo
