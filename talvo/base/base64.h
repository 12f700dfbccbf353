// Base64: bytes as text of 64 letters, with padding and without line ends (RFC 4648, section 4).
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// aText becomes the text for aSize bytes. CM_ERROR_INVALID_ARG, and aText is untouched: more than 1 GiB, or aData is null and
// aSize is not 0. CM_ERROR_OUT_OF_MEMORY likewise.
TALVO_API CmResult cm_base64_encode(const void* aData, size_t aSize, CCmString& aText);

// aData becomes the bytes that aText stands for. Strict: one text for each sequence of bytes. CM_ERROR_INVALID_ARG, and aData
// is untouched: a length that is no multiple of 4 or beyond that of 1 GiB, another character (blanks and line ends, too),
// padding anywhere but at the end, or bits set that the padding says are unused. CM_ERROR_OUT_OF_MEMORY
// likewise.
TALVO_API CmResult cm_base64_decode(std::string_view aText, CCmString& aData);
