// Lists in headers.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Removes the first element from a comma-separated list; empty elements are skipped. aElement (out): without the blanks around
// it. FALSE: there is none left. A comma inside a quoted string does not separate.
TALVO_API CmBool cm_next_list_element(std::string_view& aList, std::string_view& aElement);
