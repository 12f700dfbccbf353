// The connections of a race.
#pragma once

#include <vector>

#include "talvo/transport/option_values.h"

namespace talvo {

// The connections in their order, with their options. A value; it needs a lock of its owner between threads.
class TALVO_API CRacePlan {
public:
    static constexpr size_t MOST = 16;
    static constexpr int64_t DEFAULT_DELAY = 250000;  // microseconds, as RFC 8305 recommends
    static constexpr int64_t LEAST_DELAY = 10000;     // its lower limit

    // Checks a connection type; makes nothing. CM_OK: a connector of it can be made. Any thread.
    using Judge = CmResult (*)(DWORD aType);

    struct CConnection {
        DWORD m_dwType;
        CCmInetAddr m_AddrPeer;
        int64_t m_llDelayUsec;  // behind the start of the connection before; of the first one, behind the start of the race
        COptionValues m_Options;
    };

    CRacePlan() = default;  // nothing can be added
    explicit CRacePlan(Judge aJudge) : m_Judge(aJudge) {}

    // See ICmDetectionConnector::AddConnection.
    CmResult Add(DWORD aType, const CCmInetAddr& aAddrPeer, const CCmTimeValue* aDelay);
    // From now on options go to all connections, not to the last one.
    void ShareOptions() { m_bShared = TRUE; }

    // Without a connection: of all that are added later. aArg is not null. Results as COptionValues; CM_ERROR_INVALID_ARG:
    // none of the connections has the option.
    CmResult SetOption(DWORD aCommand, const void* aArg);
    CmResult GetOption(DWORD aCommand, void* aArg) const;

    const std::vector<CConnection>& GetConnections() const { return m_Connections; }

private:
    size_t FirstOfOptions_i() const { return m_bShared ? 0 : m_Connections.size() - 1; }

    Judge m_Judge = nullptr;
    BOOL m_bShared = FALSE;
    COptionValues m_Common{CM_TRANSPORT_TYPE_TLS, TRUE};  // a connector of TLS has every option
    std::vector<CConnection> m_Connections;
};

}  // namespace talvo
