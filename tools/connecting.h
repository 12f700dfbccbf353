// Makes the connectors of clients.
#pragma once

#include "talvo/talvo.h"
#include "tools/arguments.h"

namespace tool {

// aConnector (out): of the type of the arguments, with their settings of TLS.
CmResult MakeConnector(const Arguments& aArguments, CCmRefPtrT<ICmConnector>& aConnector);

}  // namespace tool
