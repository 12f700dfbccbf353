#include "talvo/event/event_handler_repository.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"

CmResult CCmEventHandlerRepository::MakeRoom(HANDLE aFd) {
    if (aFd < 0)
        return CM_ERROR_INVALID_ARG;
    const size_t stPage = static_cast<size_t>(aFd) / PAGE;
    const BOOL bMemory = Locate(aFd) || talvo::WithMemory([&] {
                             m_Pages.resize(std::max(stPage + 1, m_Pages.size()));
                             m_Pages[stPage] = std::make_unique<CElement[]>(PAGE);
                         });
    return bMemory ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmEventHandlerRepository::Bind(HANDLE aFd, ACmEventHandler* aEh, long aMask) {
    if (const CmResult rv = MakeRoom(aFd); rv != CM_OK)
        return rv;
    CElement& element = At(aFd);
    const BOOL bFound = element.m_pEh != nullptr;
    if (element.m_pEh != aEh) {
        Unmark(aFd);
        element = CElement{};
        element.m_dwBinding = m_dwBindings = GetNextBinding();
    }
    element.m_pEh = aEh;
    element.m_nMask = static_cast<int>(aMask & ACmEventHandler::ALL_EVENTS_MASK);
    element.m_bCloses = (aMask & ACmEventHandler::CLOSES_MASK) != 0;
    element.m_bOneEach = (aMask & ACmEventHandler::ONE_EACH_MASK) != 0;
    element.m_bHasRead = element.m_bHasRead || (aMask & ACmEventHandler::READ_MASK);
    return bFound ? CM_ERROR_FOUND : CM_OK;
}

CmResult CCmEventHandlerRepository::UnBind(HANDLE aFd) {
    if (!Locate(aFd))
        return CM_ERROR_INVALID_ARG;
    Unmark(aFd);
    At(aFd) = CElement{};
    return CM_OK;
}

void CCmEventHandlerRepository::Clear() {
    for (const std::unique_ptr<CElement[]>& pPage : m_Pages) {
        if (pPage)
            std::fill_n(pPage.get(), PAGE, CElement{});
    }
    m_fdFirstMarked = m_fdLastMarked = CM_INVALID_HANDLE;
    m_nMarked = 0;
}

void CCmEventHandlerRepository::Mark(HANDLE aFd, long aMask) {
    const WORD wBefore = At(aFd).m_wNotified;
    At(aFd).m_wNotified = static_cast<WORD>(wBefore | aMask);
    if (wBefore != 0 || aMask == 0)
        return;
    (m_nMarked == 0 ? m_fdFirstMarked : At(m_fdLastMarked).m_fdNextNotified) = aFd;
    m_fdLastMarked = aFd;
    ++m_nMarked;
}

HANDLE CCmEventHandlerRepository::TakeMarked(long& aMask) {
    if (m_nMarked == 0)
        return CM_INVALID_HANDLE;
    const HANDLE fd = m_fdFirstMarked;
    aMask = At(fd).m_wNotified;
    Unmark(fd);
    return fd;
}

void CCmEventHandlerRepository::Unmark(HANDLE aFd) {
    if (std::exchange(At(aFd).m_wNotified, WORD{0}) == 0)
        return;
    HANDLE fdBefore = CM_INVALID_HANDLE;
    for (HANDLE fd = m_fdFirstMarked; fd != aFd; fd = At(fd).m_fdNextNotified)
        fdBefore = fd;
    (fdBefore == CM_INVALID_HANDLE ? m_fdFirstMarked : At(fdBefore).m_fdNextNotified) = At(aFd).m_fdNextNotified;
    if (m_fdLastMarked == aFd)
        m_fdLastMarked = fdBefore;
    At(aFd).m_fdNextNotified = CM_INVALID_HANDLE;
    --m_nMarked;
}
