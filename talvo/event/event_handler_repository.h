// The map from handles to their handlers.
#pragma once

#include <memory>
#include <vector>

#include "talvo/event/reactor.h"

// Maps a handle to {handler, registered mask}, in pages indexed by the handle. Every binding has a number of its own. The
// number separates a report for an old binding from one for a new binding, even if the system reuses the handle at once.
class TALVO_API CCmEventHandlerRepository {
public:
    // A handle's handler and its state.
    struct CElement {
        ACmEventHandler* m_pEh = nullptr;               // not owned; null: no binding
        CmDword m_dwBinding = 0;                        // 0: no binding
        CmHandle m_fdNextNotified = CM_INVALID_HANDLE;  // the next marked handle
        int m_nMask = ACmEventHandler::NULL_MASK;       // the registered mask
        CmWord m_wNotified = 0;                         // a mask; if not 0, the handle is in the list of marked handles
        bool m_bHasRead : 1 = false;                    // registered for reading at any time since it was bound
        bool m_bCloses : 1 = false;                     // registered with CLOSES_MASK
        bool m_bOneEach : 1 = false;                    // registered with ONE_EACH_MASK
    };

    // A binding that was found once. It notices its end, even if the handle is bound again to the same handler.
    class CBinding {
    public:
        // aElement: the present binding of aFd.
        CBinding(CmHandle aFd, CElement& aElement) : m_pElement(&aElement), m_dwNumber(aElement.m_dwBinding), m_Fd(aFd) {}
        CmHandle GetHandle() const { return m_Fd; }  // the handle
        // Null: it has ended.
        CElement* Get() const { return m_pElement->m_dwBinding == m_dwNumber ? m_pElement : nullptr; }

    private:
        CElement* m_pElement;
        CmDword m_dwNumber;
        CmHandle m_Fd;
    };

    // Null: the handle has no handler. The element stays at its address as long as this object exists.
    CElement* Find(CmHandle aFd) {
        CElement* pElement = Locate(aFd);
        return pElement && pElement->m_pEh ? pElement : nullptr;
    }

    // The number of the next binding; never 0.
    CmDword GetNextBinding() const { return m_dwBindings == UINT32_MAX ? 1 : m_dwBindings + 1; }

    // aMask may have CLOSES_MASK and ONE_EACH_MASK. Binds a handler, or changes the mask (same binding) or the handler (new
    // binding). CM_OK: new. CM_ERROR_FOUND: it was bound. CM_ERROR_INVALID_ARG: the handle is invalid. CM_ERROR_OUT_OF_MEMORY.
    CmResult Bind(CmHandle aFd, ACmEventHandler* aEh, long aMask);

    // CM_ERROR_INVALID_ARG: the handle is invalid.
    CmResult UnBind(CmHandle aFd);

    // Ends all bindings.
    void Clear();

    // Marks a bound handle for aMask, at the end of the list of marked handles. The end of the binding removes the mark. Needs
    // no memory.
    void Mark(CmHandle aFd, long aMask);
    size_t GetMarkedCount() const { return m_nMarked; }  // the length of the list of marked handles
    // Removes the first mark. aMask (out): its mask. CM_INVALID_HANDLE: there is no mark.
    CmHandle TakeMarked(long& aMask);

private:
    static constexpr size_t PAGE = 256;  // elements

    CmResult MakeRoom(CmHandle aFd);
    // Null: there is no such page. A negative handle is larger than every page.
    CElement* Locate(CmHandle aFd) {
        const size_t stPage = static_cast<CmDword>(aFd) / PAGE;
        return stPage < m_Pages.size() && m_Pages[stPage] ? &At(aFd) : nullptr;
    }
    CElement& At(CmHandle aFd) { return m_Pages[static_cast<CmDword>(aFd) / PAGE][static_cast<CmDword>(aFd) % PAGE]; }
    void Unmark(CmHandle aFd);

    std::vector<std::unique_ptr<CElement[]>> m_Pages;  // null: none of its handles was bound yet
    CmDword m_dwBindings = 0;
    CmHandle m_fdFirstMarked = CM_INVALID_HANDLE;
    CmHandle m_fdLastMarked = CM_INVALID_HANDLE;
    size_t m_nMarked = 0;
};
