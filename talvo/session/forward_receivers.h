// The receivers of a forward session.
#pragma once

#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/with_memory.h"
#include "talvo/session/forward_receiver.h"

namespace talvo {

//  31          16            0
//  | generation | slot + 1   |      an id; the generation is that of the slot when the receiver was added
//
// A table of slots. Adding, finding and removing take constant time, and are allowed while the table is walked. One thread.
class CForwardReceivers {
public:
    static constexpr DWORD MOST = 65535;

    DWORD GetCount() const { return m_dwCount; }
    // The slots, some of which are empty.
    DWORD GetSlots() const { return static_cast<DWORD>(m_Slots.size()); }
    CForwardReceiver* At(DWORD aSlot) const { return aSlot < m_Slots.size() ? m_Slots[aSlot].m_pReceiver.Get() : nullptr; }

    // The id of the receiver that Add takes next. 0: memory ran out, or there are MOST.
    DWORD ReserveId() {
        if (m_Free.empty() && (m_Slots.size() >= MOST || !Grow_i()))
            return 0;
        const WORD wSlot = m_Free.back();
        return (DWORD{m_Slots[wSlot].m_wGeneration} << 16) + wSlot + 1;
    }
    void Add(CForwardReceiver* aReceiver) {
        m_Slots[m_Free.back()].m_pReceiver = aReceiver;
        m_Free.pop_back();
        ++m_dwCount;
    }
    CForwardReceiver* Find(DWORD aId) const {
        CForwardReceiver* pReceiver = (aId & 0xFFFF) > 0 ? At((aId & 0xFFFF) - 1) : nullptr;
        return pReceiver && pReceiver->GetId() == aId ? pReceiver : nullptr;
    }
    // The receiver must be there; the caller holds a reference.
    void Remove(const CForwardReceiver& aReceiver) {
        const auto wSlot = static_cast<WORD>((aReceiver.GetId() & 0xFFFF) - 1);
        m_Slots[wSlot].m_pReceiver.Reset();
        ++m_Slots[wSlot].m_wGeneration;
        m_Free.push_back(wSlot);  // has room: it once held all slots
        --m_dwCount;
    }

    // Calls aUse for each receiver, which may add and remove any.
    template <class Use>
    void ForEach(Use aUse) const {
        for (DWORD i = 0; i < GetSlots(); ++i) {
            if (const CCmRefPtrT<CForwardReceiver> pReceiver = At(i))
                aUse(*pReceiver);
        }
    }

private:
    struct CSlot {
        CCmRefPtrT<CForwardReceiver> m_pReceiver;  // null: free
        WORD m_wGeneration = 0;
    };

    BOOL Grow_i() {
        return WithMemory([this] {
            m_Free.reserve(m_Slots.capacity() > m_Slots.size() ? m_Slots.capacity() : m_Slots.size() * 2 + 1);
            m_Slots.emplace_back();
            m_Free.push_back(static_cast<WORD>(m_Slots.size() - 1));
        });
    }

    std::vector<CSlot> m_Slots;
    std::vector<WORD> m_Free;  // the last one is used next
    DWORD m_dwCount = 0;
};

}  // namespace talvo
