// Which handler watches which handle.
#pragma once

#include <vector>

#include "talvo/event/reactor.h"

// Handle -> {handler, registered mask}, in a vector indexed by the handle. Every binding of a handle gets a number of its own,
// so that a report fetched for an old binding is told from one for the new, even if the handle's number was used again at once.
class TALVO_API CCmEventHandlerRepository {
public:
    struct CElement {
        ACmEventHandler* m_pEh = nullptr;  // not owned; null: no binding
        DWORD m_dwBinding = 0;
        HANDLE m_fdNextNotified = CM_INVALID_HANDLE;
        int m_nMask = ACmEventHandler::NULL_MASK;
        WORD m_wNotified = 0;     // a mask; not 0: on the list of marked handles
        bool m_bHasRead = false;  // was registered for reading at some time since it was bound
    };

    // Null when the handle has no handler. Valid until the next Bind.
    CElement* Find(HANDLE aFd) {
        if (aFd < 0 || static_cast<size_t>(aFd) >= m_Elements.size() || !m_Elements[static_cast<size_t>(aFd)].m_pEh)
            return nullptr;
        return &m_Elements[static_cast<size_t>(aFd)];
    }

    // The number that the next binding of a handler to a handle will have.
    DWORD GetNextBinding() const { return m_dwBindings + 1; }

    // Binds, or changes the mask (the binding stays) or the handler (a new binding). CM_OK, CM_ERROR_FOUND when it was bound,
    // CM_ERROR_INVALID_ARG for an invalid handle, CM_ERROR_OUT_OF_MEMORY.
    CmResult Bind(HANDLE aFd, ACmEventHandler* aEh, long aMask);

    // CM_ERROR_INVALID_ARG for an invalid handle.
    CmResult UnBind(HANDLE aFd);

    void Clear();

    // Marks a handle of this repository for aMask, behind those that are marked already. The binding's end takes the mark away.
    // Needs no memory.
    void Mark(HANDLE aFd, long aMask);
    size_t GetMarkedCount() const { return m_nMarked; }
    // Takes the first mark away and gives its mask. CM_INVALID_HANDLE: none.
    HANDLE TakeMarked(long& aMask);

private:
    CmResult MakeRoom(HANDLE aFd);
    CElement& At(HANDLE aFd) { return m_Elements[static_cast<size_t>(aFd)]; }
    void Unmark(HANDLE aFd);

    std::vector<CElement> m_Elements;
    DWORD m_dwBindings = 0;
    HANDLE m_fdFirstMarked = CM_INVALID_HANDLE;
    HANDLE m_fdLastMarked = CM_INVALID_HANDLE;
    size_t m_nMarked = 0;
};
