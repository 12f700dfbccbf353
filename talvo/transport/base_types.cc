#include "talvo/transport/base_types.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "talvo/base/immortal.h"
#include "talvo/base/mutex.h"
#include "talvo/transport/connection_type.h"

namespace {

BOOL IsEmpty(const CCmBaseTypeMakers& aMakers) { return !aMakers.m_Connector && !aMakers.m_Acceptor; }

class COffers {
public:
    CmResult Set(DWORD aType, const CCmBaseTypeMakers& aMakers) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        talvo::CBaseType* pRow = Find_l(aType);
        if (!pRow && IsEmpty(aMakers))
            return CM_OK;
        if (!pRow)
            pRow = Find_l(FREE);
        if (!pRow)
            return CM_ERROR_NOT_AVAILABLE;
        *pRow = {IsEmpty(aMakers) ? FREE : aType, aMakers};
        return CM_OK;
    }
    // Empty: no offer.
    CCmBaseTypeMakers Get(DWORD aType) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        const talvo::CBaseType* pRow = Find_l(aType);
        return pRow ? pRow->m_Makers : CCmBaseTypeMakers();
    }

private:
    static constexpr DWORD FREE = 0;

    talvo::CBaseType* Find_l(DWORD aType) CM_REQUIRES(m_Mutex) {
        const auto row = std::ranges::find(m_Rows, aType, &talvo::CBaseType::m_dwType);
        return row != std::end(m_Rows) ? row : nullptr;
    }

    CCmMutexThread m_Mutex;
    talvo::CBaseType m_Rows[16] CM_GUARDED_BY(m_Mutex) = {};
};

COffers& Offers() {
    static talvo::CImmortalT<COffers> s_Offers;
    return *s_Offers;
}

std::atomic<CCmConnectorMaker> s_OverTcp{nullptr};

}  // namespace

void talvo::SetOwnConnectorMaker(CCmConnectorMaker aMaker) { s_OverTcp = aMaker; }

CmResult cm_offer_base_type(DWORD aType, const CCmBaseTypeMakers& aMakers) {
    const talvo::CConnectionType type(aType);
    if (aType == 0 || aType != type.GetBase() || type.IsRace())
        return CM_ERROR_INVALID_ARG;
    return Offers().Set(aType, aMakers);
}

CmResult cm_get_base_type(DWORD aType, CCmBaseTypeMakers& aMakers) {
    aMakers = Offers().Get(aType);
    if (!IsEmpty(aMakers))
        return CM_OK;
    const auto own = talvo::GetOwnBaseTypes();
    const auto row = std::ranges::find(own, aType, &talvo::CBaseType::m_dwType);
    if (row == own.end())
        return CM_ERROR_INVALID_ARG;
    aMakers = row->m_Makers;
    if (const CCmConnectorMaker overTcp = s_OverTcp; overTcp && row->m_bOverTcp)
        aMakers.m_Connector = overTcp;
    return CM_OK;
}
