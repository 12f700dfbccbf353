/* The version of the library: of its headers as macros, of the shared library that the program runs with as a function. Both
 * are for C and C++. Before 1.0 a minor version may change the interface; a patch never does. */
#pragma once

#include <stdint.h>

#include "talvo/base/export.h"

/* The first number. From 1 on it stands for the interface. */
#define TALVO_VERSION_MAJOR 0

/* The second number. Before 1.0 it stands for the interface, too. */
#define TALVO_VERSION_MINOR 2

/* The third number. */
#define TALVO_VERSION_PATCH 0

/* All three as a text. */
#define TALVO_VERSION_TEXT "0.2.0"

/* One number that grows with each version, for comparisons: 200 is 0.2.0, and 10203 is 1.2.3. */
#define TALVO_VERSION (TALVO_VERSION_MAJOR * 10000 + TALVO_VERSION_MINOR * 100 + TALVO_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* TALVO_VERSION of the shared library. Any thread. */
TALVO_API uint32_t cm_version(void);

#ifdef __cplusplus
}
#endif
