// The lower layer of a connection, a server or a proxy.
#pragma once

#include "talvo/testing/scripted_transport.h"

using CFakeLower = CCmScriptedTransport;
