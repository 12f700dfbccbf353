// The place of the helper program.
#pragma once

#include <stdint.h>

#include "talvo/base/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the program that runs proxy auto-configuration scripts, from its next start on. path: absolute; it is executed, so no
 * other user must be able to change it. NULL or "": talvo-pac beside the library or in its folder of helper programs, the value
 * at first; a static library is where its program is. No variable and no configuration key sets it. Any thread. 0. 10008: the
 * path is not absolute or has 4,096 bytes. 10007: no memory. */
TALVO_API int32_t cm_proxy_set_pac_helper(const char* path);

#ifdef __cplusplus
}
#endif
