#include "talvo/http/message/http_atom_list.h"

#include <array>
#include <utility>

#include "talvo/base/clean_up.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_name_table.h"
#include "talvo/http/message/http_text.h"

#define CM_DEFINE_ATOM(aMember, aText) constinit const CCmHttpAtom CCmHttpAtomList::aMember(aText);
CM_FOR_EACH_HTTP_ATOM(CM_DEFINE_ATOM)
#undef CM_DEFINE_ATOM

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;
using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

// A text as its first and its last eight bytes; those of a text of up to 16 are all of it.
struct CEnds {
    constexpr explicit CEnds(std::string_view aText) {
        const BOOL bShort = aText.size() < sizeof(uint64_t);
        m_ullFirst = bShort ? talvo::word_of(aText) : talvo::load_word<uint64_t>(aText.data());
        m_ullLast = bShort ? m_ullFirst : talvo::load_word<uint64_t>(aText.data() + aText.size() - sizeof(uint64_t));
    }
    BOOL EqualsNoCase(const CEnds& aOther) const {
        return talvo::lower_word(m_ullFirst) == talvo::lower_word(aOther.m_ullFirst) &&
               talvo::lower_word(m_ullLast) == talvo::lower_word(aOther.m_ullLast);
    }
    bool operator==(const CEnds&) const = default;

    uint64_t m_ullFirst, m_ullLast;
};

struct CKnownAtom {
    constexpr CKnownAtom(std::string_view aText, const CCmHttpAtom* aAtom) : m_strText(aText), m_Ends(aText), m_pAtom(aAtom) {}

    BOOL Is(std::string_view aName) const {
        if (aName.size() != m_strText.size())
            return FALSE;
        const CEnds ends(aName);
        if (ends != m_Ends && !ends.EqualsNoCase(m_Ends))  // most peers use the usual spelling
            return FALSE;
        return aName.size() <= 2 * sizeof(uint64_t) || talvo::equal_no_case(aName, m_strText);
    }

    std::string_view m_strText;
    CEnds m_Ends;
    const CCmHttpAtom* m_pAtom;
};

#define CM_LIST_ATOM(aMember, aText) CKnownAtom(aText, &CCmHttpAtomList::aMember),
constexpr CKnownAtom KNOWN[] = {CM_FOR_EACH_HTTP_ATOM(CM_LIST_ATOM)};
#undef CM_LIST_ATOM

constexpr BYTE NONE = 0xFF;
static_assert(std::size(KNOWN) < NONE);

// Length and three letters distinguish all known names. The factor was found by search and gives each name a slot of its own.
// Setting the bit may make different letters equal; this is harmless, because the whole text is compared afterwards.
constexpr BYTE slot_of(std::string_view aName) {
    const auto letter = [&](size_t aAt) { return static_cast<DWORD>(static_cast<BYTE>(aName[aAt] | 0x20)); };
    const size_t stLength = aName.size();
    const DWORD dwKey =
        letter(0) | letter(stLength * 3 / 4) << 8 | letter(stLength - 1) << 16 | static_cast<DWORD>(stLength) << 24;
    return static_cast<BYTE>(dwKey * 0x4B63E0EF >> 24);
}

struct CKnownSlots {
    std::array<BYTE, 256> m_Index{};
    BOOL m_bPerfect = TRUE;
};

constexpr CKnownSlots SLOTS = [] {
    CKnownSlots slots;
    slots.m_Index.fill(NONE);
    for (size_t i = 0; i < std::size(KNOWN); ++i) {
        BYTE& byIndex = slots.m_Index[slot_of(KNOWN[i].m_strText)];
        slots.m_bPerfect = slots.m_bPerfect && byIndex == NONE;
        byIndex = static_cast<BYTE>(i);
    }
    return slots;
}();
static_assert(SLOTS.m_bPerfect, "two known names share a slot: search for another factor");

std::atomic<CCmHttpAtomList*> s_pInstance{nullptr};

// Ends the list with the other singletons. The list itself can be copied and is therefore not a singleton.
class CAtomListOwner : public CCmCleanUpBase {
public:
    explicit CAtomListOwner(std::unique_ptr<CCmHttpAtomList> aList) : m_pList(std::move(aList)) { s_pInstance = m_pList.get(); }
    ~CAtomListOwner() override { s_pInstance = nullptr; }

private:
    std::unique_ptr<CCmHttpAtomList> m_pList;
};

}  // namespace

CCmHttpAtomList* CCmHttpAtomList::Instance() {
    if (CCmHttpAtomList* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(CCmCleanUpBase::GetSingletonMutex());
    if (s_pInstance)
        return s_pInstance;
    talvo::WithMemory([] {
        std::unique_ptr<CCmHttpAtomList> pList(new CCmHttpAtomList);
        new CAtomListOwner(std::move(pList));
    });
    return s_pInstance;
}

CCmHttpAtomList::CCmHttpAtomList() : m_pNames(new talvo::CHttpNameTable) {}

CCmHttpAtomList::CCmHttpAtomList(const CCmHttpAtomList& aOther) { *this = aOther; }

CCmHttpAtomList& CCmHttpAtomList::operator=(const CCmHttpAtomList& aOther) {
    if (this == &aOther)
        return *this;
    auto pNames = std::make_unique<talvo::CHttpNameTable>();
    Guard guard(aOther.GetMutex());
    pNames->AddAll(*aOther.m_pNames);
    m_pNames = std::move(pNames);
    m_dwMaxNames = aOther.m_dwMaxNames;
    m_dwMaxBytes = aOther.m_dwMaxBytes;
    return *this;
}

CCmHttpAtomList::~CCmHttpAtomList() { CleanupMutex(); }

CCmHttpAtom CCmHttpAtomList::FindKnown(std::string_view aName) {
    if (aName.empty())
        return nullptr;
    const BYTE byIndex = SLOTS.m_Index[slot_of(aName)];
    if (byIndex == NONE)
        return nullptr;
    const CKnownAtom& known = KNOWN[byIndex];
    return known.Is(aName) ? *known.m_pAtom : CCmHttpAtom();
}

CCmHttpAtom CCmHttpAtomList::ResolveAtom(std::string_view aName, int aCreate) {
    const std::string_view strName = talvo::trim_spaces(aName);
    if (strName.empty())
        return nullptr;
    const CCmHttpAtom atom = FindKnown(strName);
    return atom ? atom : ResolveOther_i(strName, aCreate);
}

CCmHttpAtom CCmHttpAtomList::ResolveOther_i(std::string_view aName, int aCreate) {
    if (const char* pText = m_pNames->Find(aName))
        return pText;
    CCmHttpAtom atom;
    if (aCreate)
        talvo::WithMemory([&] { atom = Store(aName); });
    return atom;
}

CCmHttpAtom CCmHttpAtomList::Store(std::string_view aName) {
    Guard guard(GetMutex());
    if (const char* pText = m_pNames->Find(aName))  // another thread was first
        return pText;
    if (!IsFull_l(aName))
        return m_pNames->Add(aName);
    if (!m_bFullTraced) {
        m_bFullTraced = TRUE;
        CM_WARNING_TRACE_THIS("CCmHttpAtomList::ResolveAtom, the table is full. names=" << m_pNames->GetCount());
    }
    return nullptr;
}

BOOL CCmHttpAtomList::IsFull_l(std::string_view aName) const {
    return m_pNames->GetCount() >= m_dwMaxNames || m_pNames->GetBytes() + aName.size() + 1 > m_dwMaxBytes;
}

void CCmHttpAtomList::SetLimits(DWORD aMaxNames, DWORD aMaxBytes) {
    talvo::WithMemory([=, this] {
        Guard guard(GetMutex());
        m_dwMaxNames = aMaxNames;
        m_dwMaxBytes = aMaxBytes;
    });
}

CCmMutexThread& CCmHttpAtomList::GetMutex() const {
    if (CCmMutexThread* pMutex = m_pMutex.load(std::memory_order_acquire))
        return *pMutex;
    SingletonGuard guard(CCmCleanUpBase::GetSingletonMutex());
    if (!m_pMutex)
        m_pMutex = new CCmMutexThread;
    return *m_pMutex;
}

void CCmHttpAtomList::CleanupMutex() { delete m_pMutex.exchange(nullptr); }
