// Connections for messages, for the benchmark programs on this library.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "talvo/talvo.h"

namespace bench {

// Ends the program unless aResult is CM_OK.
inline void Expect(CmResult aResult) {
    if (aResult == CM_OK)
        return;
    std::fprintf(stderr, "failed: %s\n", cm_result_name(aResult));
    std::exit(1);
}

// The type of connection named "length", "package", "reliable" or "reliable-plain"; 0: unknown name.
inline DWORD MessageType(const std::string& aName) {
    using Manager = CCmConnectionManager;
    if (aName == "length")
        return Manager::CTYPE_TCP | Manager::CTYPE_PDU_LENGTH;
    if (aName == "package")
        return Manager::CTYPE_TCP | Manager::CTYPE_PDU_PACKAGE;
    if (aName == "reliable")
        return Manager::CTYPE_TCP | Manager::CTYPE_PDU_RELIABLE | Manager::CTYPE_RECONNECT_TOKEN;
    return aName == "reliable-plain" ? Manager::CTYPE_TCP | Manager::CTYPE_PDU_RELIABLE : 0;
}

// The same, and also "raw" and "nopartial".
inline DWORD ConnectionType(const std::string& aName) {
    if (aName == "raw")
        return CCmConnectionManager::CTYPE_TCP;
    if (aName == "nopartial")
        return CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_SEND_NO_PARTIAL_DATA;
    return MessageType(aName);
}

// Call it after the connection is open, with the size of the longest message to be sent. It sets socket buffers of a fixed
// size: over loopback a run would otherwise measure the growth of the system's own. CM_OK, or the connection's refusal.
inline CmResult PrepareForMessages(ICmTransport& aConnection, DWORD aLongest) {
    constexpr DWORD HEADERS = 1024;
    int nSocketBuffer = 1 << 20;
    DWORD dwLongest = 0;
    DWORD dwSendBuffer = aLongest + HEADERS;
    CmResult rv = aConnection.SetOption(CM_OPT_TRANSPORT_SNDBUF, &nSocketBuffer);
    if (rv == CM_OK)
        rv = aConnection.SetOption(CM_OPT_TRANSPORT_RCVBUF, &nSocketBuffer);
    if (rv == CM_OK)
        rv = aConnection.GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwLongest);
    return rv == CM_OK && dwLongest < aLongest ? aConnection.SetOption(CS_OPT_MAX_BUFF_LEN, &dwSendBuffer) : rv;
}

// The last byte of a message, which may be in pieces; 0 if it is empty.
inline char LastByteOf(const CCmMessageBlock& aMessage) {
    char cLast = 0;
    for (const CCmMessageBlock* pBlock = &aMessage; pBlock; pBlock = pBlock->GetNext()) {
        if (pBlock->GetTopLevelLength() > 0)
            cLast = pBlock->GetTopLevelWritePtr()[-1];
    }
    return cLast;
}

}  // namespace bench
