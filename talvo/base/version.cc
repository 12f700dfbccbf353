#include "talvo/base/version.h"

uint32_t cm_version() { return TALVO_VERSION; }
