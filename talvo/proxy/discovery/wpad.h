// The address of the script that a network offers.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// "http://wpad.DOMAIN/wpad.dat" with this machine's own DNS domain; "": it has none, or one without a dot, whose names could
// belong to anyone. The domain is that of the host name, or else the first one of the resolver's file. Throws std::bad_alloc.
CCmString FindWpadUrl();
// The same from a host name and the text of the resolver's file.
TALVO_API CCmString MakeWpadUrl(std::string_view aHostName, std::string_view aResolverText);

}  // namespace talvo
