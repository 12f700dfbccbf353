#include "talvo/connection/protocol/kept_options.h"

#include <algorithm>
#include <iterator>

namespace talvo {

DWORD CKeptOptions::Find_i(DWORD aCommand) {
    return static_cast<DWORD>(std::ranges::find(COMMANDS, aCommand) - std::begin(COMMANDS));
}

void CKeptOptions::Keep(DWORD aCommand, DWORD aValue) {
    const DWORD dwAt = Find_i(aCommand);
    m_Values[dwAt] = aValue;
    m_bSet[dwAt] = TRUE;
}

BOOL CKeptOptions::Get(DWORD aCommand, DWORD& aValue) const {
    const DWORD dwAt = Find_i(aCommand);
    if (dwAt == COUNT || !m_bSet[dwAt])
        return FALSE;
    aValue = m_Values[dwAt];
    return TRUE;
}

void CKeptOptions::Apply(ICmTransport& aTransport) {
    for (DWORD i = 0; i < COUNT; ++i) {
        if (m_bSet[i])
            aTransport.SetOption(COMMANDS[i], &m_Values[i]);
    }
}

}  // namespace talvo
