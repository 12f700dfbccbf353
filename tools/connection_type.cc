#include "tools/connection_type.h"

#include <limits>

namespace tool {

namespace {

using Manager = CCmConnectionManager;

struct Type {
    const char* m_pName;
    DWORD m_dwFlags;
    bool m_bOverDatagrams;
};

constexpr Type TYPES[] = {
    {"tcp", 0, false},
    {"length", Manager::CTYPE_PDU_LENGTH, false},
    {"package", Manager::CTYPE_PDU_PACKAGE, true},
    {"package-keepalive", Manager::CTYPE_PDU_PACKAGE | Manager::CTYPE_PDU_KEEPALIVE, true},
    {"nopartial", Manager::CTYPE_SEND_NO_PARTIAL_DATA, true},
    {"reliable", Manager::CTYPE_PDU_RELIABLE | Manager::CTYPE_RECONNECT_TOKEN, false},
    {"reliable-plain", Manager::CTYPE_PDU_RELIABLE, false},
};

}  // namespace

std::vector<std::string> GetTypeNames() {
    std::vector<std::string> vecNames;
    for (const Type& type : TYPES)
        vecNames.emplace_back(type.m_pName);
    return vecNames;
}

std::string ChooseType(const std::string& aName, DWORD aBase, DWORD& aType) {
    aType = aBase;
    for (const Type& type : TYPES) {
        if (aName != type.m_pName)
            continue;
        if (aBase == Manager::CTYPE_UDP && !type.m_bOverDatagrams)
            return "--udp cannot be combined with --type " + aName + ", which needs a stream";
        aType |= type.m_dwFlags;
    }
    return "";
}

DWORD GetMaxMessage(ICmTransport& aTransport) {
    DWORD dwMax = 0;
    const CmResult rv = aTransport.GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMax);
    return rv == CM_OK ? dwMax : std::numeric_limits<DWORD>::max();
}

}  // namespace tool
