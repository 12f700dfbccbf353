// The connection type that --type, --udp and --tls select.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace tool {

// The values of --type.
std::vector<std::string> GetTypeNames();

// aBase: the base type. aType (out): the type for the connection manager. aName is a value of --type, or "" if none was given.
// Returns "" or an error text.
std::string ChooseType(const std::string& aName, DWORD aBase, DWORD& aType);

// TRUE: one SendData is one OnReceive.
inline bool KeepsMessages(DWORD aType) { return aType != CCmConnectionManager::CTYPE_TCP && aType != CM_TRANSPORT_TYPE_TLS; }
// TRUE: sent data may be lost.
inline bool MayLose(DWORD aType) { return (aType & CCmConnectionManager::CTYPE_UDP) != 0; }

// TRUE: a client connects again after the loss of its transport.
inline bool ConnectsAgain(DWORD aType) {
    return (aType & CCmConnectionManager::CTYPE_PDU_RELIABLE) == CCmConnectionManager::CTYPE_PDU_RELIABLE;
}

// The largest message of one SendData; unlimited on a stream of bytes.
DWORD GetMaxMessage(ICmTransport& aTransport);

}  // namespace tool
