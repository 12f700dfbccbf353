#include "talvo/transport/race_plan.h"

#include <algorithm>

#include "talvo/base/with_memory.h"
#include "talvo/transport/connection_type.h"

namespace talvo {

CmResult CRacePlan::Add(DWORD aType, const CCmInetAddr& aAddrPeer, const CCmTimeValue* aDelay) {
    if (CConnectionType(aType).IsRace())
        return CM_ERROR_INVALID_ARG;
    if (const CmResult rv = m_Judge(aType); rv != CM_OK)
        return rv;
    const BOOL bFirst = m_Connections.empty();
    if (m_Connections.size() == MOST)
        return CM_ERROR_NOT_AVAILABLE;
    int64_t llDelay = bFirst ? 0 : DEFAULT_DELAY;
    if (aDelay)
        llDelay = std::max(aDelay->GetTotalInUsec(), bFirst ? 0 : LEAST_DELAY);
    const auto add = [&] { m_Connections.push_back({aType, aAddrPeer, llDelay, m_Common.For(aType)}); };
    return WithMemory(add) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CRacePlan::SetOption(DWORD aCommand, const void* aArg) {
    if (m_Connections.empty())
        return m_Common.Set(aCommand, aArg);
    CmResult result = CM_ERROR_INVALID_ARG;
    for (size_t i = FirstOfOptions_i(); i < m_Connections.size() && result != CM_ERROR_OUT_OF_MEMORY; ++i) {
        const CmResult rv = m_Connections[i].m_Options.Set(aCommand, aArg);
        if (rv != CM_ERROR_INVALID_ARG)
            result = rv;
    }
    return result;
}

CmResult CRacePlan::GetOption(DWORD aCommand, void* aArg) const {
    if (m_Connections.empty())
        return m_Common.Get(aCommand, aArg);
    CmResult rv = CM_ERROR_INVALID_ARG;
    for (size_t i = FirstOfOptions_i(); i < m_Connections.size() && rv == CM_ERROR_INVALID_ARG; ++i)
        rv = m_Connections[i].m_Options.Get(aCommand, aArg);
    return rv;
}

}  // namespace talvo
