#include "talvo/transport/option_values.h"

#include <algorithm>

#include "talvo/base/with_memory.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/connection_type.h"

namespace talvo {

namespace {

DWORD BaseBit(DWORD aType) {
    const CConnectionType type(aType);
    if (type.IsOverTcp())
        return COptionType::OVER_TCP;
    return type.IsOverDatagrams() ? COptionType::OVER_UDP : COptionType::OVER_OTHERS;
}

}  // namespace

COptionValues::COptionValues(DWORD aType, BOOL aConnector)
    : m_dwOf(BaseBit(aType) | (aConnector ? COptionType::CONNECTORS : COptionType::ACCEPTORS)) {}

CmResult COptionValues::Set(DWORD aCommand, const void* aArg) {
    const COptionType* pType = Find_i(aCommand);
    if (!pType || !pType->m_IsValid(aArg))
        return CM_ERROR_INVALID_ARG;
    return WithMemory([&] { Put_i({aCommand, pType->m_Copy(aArg)}); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult COptionValues::Get(DWORD aCommand, void* aArg) const {
    const COptionType* pType = Find_i(aCommand);
    if (!pType)
        return CM_ERROR_INVALID_ARG;
    return WithMemory([&] { pType->m_Assign(ValueOf_i(aCommand).get(), aArg); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult COptionValues::PassTo(ICmAcceptorConnectorId* aId, COptionValues& aPassed) const {
    for (const CValue& value : m_Values) {
        if (aPassed.ValueOf_i(value.m_dwCommand) == value.m_pValue)
            continue;
        const CmResult rv = SetConnectOption(aId, value.m_dwCommand, value.m_pValue.get());
        if (rv != CM_OK)
            return rv;
        if (!WithMemory([&] { aPassed.Put_i(value); }))
            return CM_ERROR_OUT_OF_MEMORY;
    }
    return CM_OK;
}

COptionValues COptionValues::For(DWORD aType) const {
    COptionValues values(aType, TRUE);
    for (const CValue& value : m_Values) {
        if (values.Find_i(value.m_dwCommand))
            values.m_Values.push_back(value);
    }
    return values;
}

// Null: this object has no such option.
const COptionType* COptionValues::Find_i(DWORD aCommand) const {
    const auto options = GetOwnOptions();
    const auto type = std::ranges::find_if(
        options, [&](const COptionType& a) { return a.m_dwCommand == aCommand && (a.m_dwOf & m_dwOf) == m_dwOf; });
    return type != options.end() ? &*type : nullptr;
}

// Null: not set.
std::shared_ptr<void> COptionValues::ValueOf_i(DWORD aCommand) const {
    const auto value = std::ranges::find(m_Values, aCommand, &CValue::m_dwCommand);
    return value != m_Values.end() ? value->m_pValue : nullptr;
}

void COptionValues::Put_i(const CValue& aValue) {
    const auto value = std::ranges::find(m_Values, aValue.m_dwCommand, &CValue::m_dwCommand);
    if (value != m_Values.end())
        *value = aValue;
    else
        m_Values.push_back(aValue);
}

}  // namespace talvo
