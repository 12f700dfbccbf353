#include "talvo/event/event_handler_repository.h"

#include <algorithm>

CmResult CCmEventHandlerRepository::Bind(HANDLE aFd, ACmEventHandler* aEh, long aMask) {
    if (aFd < 0)
        return CM_ERROR_INVALID_ARG;
    const size_t stIndex = static_cast<size_t>(aFd);
    if (stIndex >= m_Elements.size())
        m_Elements.resize(std::max(stIndex + 1, m_Elements.size() * 2));
    CElement& element = m_Elements[stIndex];
    const BOOL bFound = element.m_pEh != nullptr;
    if (element.m_pEh != aEh)
        element = CElement{nullptr, 0, ++m_dwBindings, FALSE};
    element.m_pEh = aEh;
    element.m_lMask = aMask;
    element.m_bHasRead |= (aMask & ACmEventHandler::READ_MASK) != 0;
    return bFound ? CM_ERROR_FOUND : CM_OK;
}

CmResult CCmEventHandlerRepository::UnBind(HANDLE aFd) {
    if (aFd < 0 || static_cast<size_t>(aFd) >= m_Elements.size())
        return CM_ERROR_INVALID_ARG;
    m_Elements[static_cast<size_t>(aFd)] = CElement{};
    return CM_OK;
}
