// The configuration file: section lines "[Name]" and "key=value" lines. Any thread.
//
// A file of at most 1 MiB, read once, at the first use, from "conf/talvo.cfg" under the process's current directory, or
// "/tmp/talvo.cfg" when there is no current directory. A missing or unreadable file means that every reader gives its default.
// A file that users other than its owner may write, or that belongs neither to root nor to the process's effective user, is
// refused with one warning and counts as unreadable: another user could have planted it.
//
// Blanks around names, keys and values are cut, and so is a value's trailing ";". Empty lines and lines that begin with '#' or
// ';' are comments; any other line that is neither a section nor has a key is skipped with a warning that names its number.
// Names are compared exactly; of a key given twice the last counts. docs/configuration.md lists every key.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Nothing here throws, except that a string is a value whose copy may throw std::bad_alloc.
//
// aDefault where the key is absent or its value is not what is asked for (not a number, out of the type's range). A null
// section or key also gives the default. Numbers are decimal, or hexadecimal behind 0x. A boolean is 1/0, true/false, yes/no or
// on/off in any case.
TALVO_API CCmString get_string_param(const char* aSection, const char* aKey, const CCmString& aDefault);
TALVO_API int get_int_param(const char* aSection, const char* aKey, int aDefault);
TALVO_API uint16_t get_uint16_param(const char* aSection, const char* aKey, uint16_t aDefault);
TALVO_API uint32_t get_uint32_param(const char* aSection, const char* aKey, uint32_t aDefault);
TALVO_API bool get_bool_param(const char* aSection, const char* aKey, bool aDefault);

// Replaces the configuration by aPath's content, at once and for all later reads; what was read before stays as it was taken.
// CM_ERROR_NOT_FOUND: the file cannot be read. CM_ERROR_NOT_AVAILABLE: it is refused for its owner or its rights.
// CM_ERROR_OUT_OF_MEMORY. After these all keys are absent. CM_ERROR_INVALID_ARG: aPath is null, and nothing changes.
TALVO_API CmResult load_config_file(const char* aPath);
