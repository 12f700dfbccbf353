// The configuration file: section lines "[Name]" and "key=value" lines. Any thread.
//
// The file has at most 1 MiB and is read once, at the first use. It is "conf/talvo.cfg" under the process's current directory,
// or "/tmp/talvo.cfg" if there is no current directory. If it is missing or unreadable, every reader returns its default. The
// file is refused, with one warning, if other users than its owner can write it, or if its owner is neither root nor the
// process's effective user, or if all users can write its folder and the folder has no sticky bit: another user could have
// planted it. A refused file counts as unreadable.
//
// Blanks around names, keys and values are removed, and so is a trailing ";" of a value. Empty lines and lines that begin with
// '#' or ';' are comments. Any other line without a section or a key is skipped with a warning that gives its number. Names are
// compared exactly. If a key is given twice, the last value counts. docs/configuration.md lists every key.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// No function here throws, except that the copy of a string result may throw std::bad_alloc.
//
// Each returns aDefault if the key is absent, its value has the wrong form (not a number, out of the type's range), or aSection
// or aKey is null. Numbers are decimal, or hexadecimal behind 0x. A boolean is 1/0, true/false, yes/no or on/off in any case.
TALVO_API CCmString get_string_param(const char* aSection, const char* aKey, const CCmString& aDefault);
TALVO_API int get_int_param(const char* aSection, const char* aKey, int aDefault);
TALVO_API uint16_t get_uint16_param(const char* aSection, const char* aKey, uint16_t aDefault);
TALVO_API uint32_t get_uint32_param(const char* aSection, const char* aKey, uint32_t aDefault);
TALVO_API bool get_bool_param(const char* aSection, const char* aKey, bool aDefault);

// Replaces the configuration by aPath's content for all later reads. Values that were read before do not change.
// CM_ERROR_NOT_FOUND: the file cannot be read. CM_ERROR_NOT_AVAILABLE: it is refused for its owner, its rights or its folder.
// CM_ERROR_OUT_OF_MEMORY. After these three all keys are absent. CM_ERROR_INVALID_ARG: aPath is null, and nothing changes.
TALVO_API CmResult load_config_file(const char* aPath);
