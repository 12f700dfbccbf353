// Base64 (RFC 4648, section 4): bytes as text of 64 letters, with padding and without line ends.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// aText (out): the text for aSize bytes. CM_ERROR_INVALID_ARG: more than 1 GiB, or aData is null and aSize is not 0.
// CM_ERROR_OUT_OF_MEMORY. Both errors leave aText unchanged.
TALVO_API CmResult cm_base64_encode(const void* aData, size_t aSize, CCmString& aText);

// aData (out): the bytes that aText encodes. Strict: each sequence of bytes has exactly one text. CM_ERROR_INVALID_ARG: the
// length is not a multiple of 4 or exceeds that of 1 GiB, a character is not of the alphabet (blanks and line ends included),
// padding stands before the end, or an unused bit is set. CM_ERROR_OUT_OF_MEMORY. Both errors leave aData unchanged.
TALVO_API CmResult cm_base64_decode(std::string_view aText, CCmString& aData);
