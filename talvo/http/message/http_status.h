// The usual texts of status codes.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// What stands behind aStatus on a status line ("Not Found"), "Unknown" for a number without a name. The text is static.
const char* HttpStatusText(long aStatus);

}  // namespace talvo
