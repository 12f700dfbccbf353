// The encodings of scripts.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// The bytes of the first character of aText, 1 to 4; 0: the text does not begin with a character in UTF-8.
size_t GetUtf8Length(std::string_view aText);

// Decodes a script: UTF-8, with or without its mark, if all of it is that, or else Latin-1. aText (in, out): UTF-8 without a
// mark. FALSE: the result has more than aMost bytes. Throws std::bad_alloc.
TALVO_API BOOL DecodeScript(CCmString& aText, size_t aMost);

}  // namespace talvo
