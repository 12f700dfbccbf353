// The path of the helper program, for the library itself.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// The program that cm_proxy_set_pac_helper has set, or else the one in the library's own tree, which may be moved. It need not
// exist. Any thread. Throws std::bad_alloc.
TALVO_API CCmString GetPacHelperPath();

}  // namespace talvo
