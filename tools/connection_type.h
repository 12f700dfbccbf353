// What --type and --udp choose.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace tool {

// The words behind --type.
std::vector<std::string> GetTypeNames();

// The type for the connection manager. aName: one of the words, or "" when none was given. What is wrong, or "" and aType is
// set.
std::string ChooseType(const std::string& aName, bool aUdp, DWORD& aType);

// One SendData is one OnReceive.
inline bool KeepsMessages(DWORD aType) { return aType != CCmConnectionManager::CTYPE_TCP; }
// What is sent may never arrive.
inline bool MayLose(DWORD aType) { return (aType & CCmConnectionManager::CTYPE_UDP) != 0; }

// The most that one SendData takes; without a bound where nothing keeps messages.
DWORD GetMaxMessage(ICmTransport& aTransport);

}  // namespace tool
