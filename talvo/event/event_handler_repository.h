// The map from handles to their handlers.
#pragma once

#include <vector>

#include "talvo/event/reactor.h"

// Maps a handle to {handler, registered mask}, in a vector indexed by the handle. Every binding has a number of its own. The
// number separates a report for an old binding from one for a new binding, even if the system reuses the handle at once.
class TALVO_API CCmEventHandlerRepository {
public:
    struct CElement {
        ACmEventHandler* m_pEh = nullptr;  // not owned; null: no binding
        DWORD m_dwBinding = 0;
        HANDLE m_fdNextNotified = CM_INVALID_HANDLE;
        int m_nMask = ACmEventHandler::NULL_MASK;
        WORD m_wNotified = 0;     // a mask; if not 0, the handle is in the list of marked handles
        bool m_bHasRead = false;  // registered for reading at any time since it was bound
    };

    // Null: the handle has no handler. Valid until the next Bind.
    CElement* Find(HANDLE aFd) {
        if (aFd < 0 || static_cast<size_t>(aFd) >= m_Elements.size() || !m_Elements[static_cast<size_t>(aFd)].m_pEh)
            return nullptr;
        return &m_Elements[static_cast<size_t>(aFd)];
    }

    // The number of the next binding.
    DWORD GetNextBinding() const { return m_dwBindings + 1; }

    // Binds a handler, or changes the mask (same binding) or the handler (new binding). CM_OK: new. CM_ERROR_FOUND: it was
    // bound. CM_ERROR_INVALID_ARG: the handle is invalid. CM_ERROR_OUT_OF_MEMORY.
    CmResult Bind(HANDLE aFd, ACmEventHandler* aEh, long aMask);

    // CM_ERROR_INVALID_ARG: the handle is invalid.
    CmResult UnBind(HANDLE aFd);

    void Clear();

    // Marks a bound handle for aMask, at the end of the list of marked handles. The end of the binding removes the mark. Needs
    // no memory.
    void Mark(HANDLE aFd, long aMask);
    size_t GetMarkedCount() const { return m_nMarked; }
    // Removes the first mark. aMask (out): its mask. CM_INVALID_HANDLE: there is no mark.
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
