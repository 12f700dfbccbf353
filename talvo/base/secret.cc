#include "talvo/base/secret.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "talvo/base/immortal.h"

namespace {

constexpr size_t SMALLEST = 64;
constexpr size_t LARGEST = 4096;
constexpr size_t REGION = 65536;

// Null: no memory.
void* Map(size_t aSize) {
    void* pMemory = mmap(nullptr, aSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED)
        return nullptr;
    madvise(pMemory, aSize, MADV_DONTDUMP);
    return pMemory;
}

// Memory outside core dumps. Sizes up to LARGEST are pieces of shared regions, rounded up to a power of two and kept for reuse;
// a larger size is a mapping of its own. Regions are never unmapped. Any thread.
class CSecretMemory {
public:
    void* Take(size_t aSize) {
        if (aSize > LARGEST)
            return Map(aSize);
        const size_t stClass = ClassOf(aSize);
        const std::lock_guard guard(m_Mutex);
        if (CPiece* pPiece = m_Free[stClass]) {
            m_Free[stClass] = pPiece->m_pNext;
            return pPiece;
        }
        return Cut_l(SMALLEST << stClass);
    }

    // Overwrites the memory first.
    void Give(void* aMemory, size_t aSize) {
        explicit_bzero(aMemory, aSize);
        if (aSize > LARGEST) {
            munmap(aMemory, aSize);
            return;
        }
        const size_t stClass = ClassOf(aSize);
        const std::lock_guard guard(m_Mutex);
        m_Free[stClass] = new (aMemory) CPiece{m_Free[stClass]};
    }

private:
    struct CPiece {
        CPiece* m_pNext;
    };
    static constexpr size_t CLASSES = 7;
    static_assert(SMALLEST << (CLASSES - 1) == LARGEST);

    static size_t ClassOf(size_t aSize) {
        size_t stClass = 0;
        while (SMALLEST << stClass < aSize)
            ++stClass;
        return stClass;
    }

    void* Cut_l(size_t aSize) {
        if (m_stLeft < aSize) {
            m_pRegion = static_cast<char*>(Map(REGION));
            m_stLeft = m_pRegion ? REGION : 0;
        }
        if (m_stLeft < aSize)
            return nullptr;
        m_stLeft -= aSize;
        return m_pRegion + m_stLeft;
    }

    std::mutex m_Mutex;
    CPiece* m_Free[CLASSES] = {};
    char* m_pRegion = nullptr;
    size_t m_stLeft = 0;
};

CSecretMemory& Memory() {
    static talvo::CImmortalT<CSecretMemory> s_Memory;
    return *s_Memory;
}

}  // namespace

// The head of a text; its bytes follow it.
struct CCmSecret::CText {
    std::atomic<uint32_t> m_dwReferences{1};
    uint32_t m_dwLength = 0;
};

CCmSecret::CCmSecret(const CCmSecret& aOther) : m_pText(aOther.m_pText) {
    if (m_pText)
        m_pText->m_dwReferences.fetch_add(1, std::memory_order_relaxed);
}

CCmSecret::~CCmSecret() {
    if (m_pText && m_pText->m_dwReferences.fetch_sub(1, std::memory_order_acq_rel) == 1)
        Memory().Give(m_pText, sizeof(CText) + m_pText->m_dwLength);
}

CmResult CCmSecret::Make_i(size_t aLength, CCmSecret& aSecret) {
    if (aLength > MAX_LENGTH)
        return CM_ERROR_INVALID_ARG;
    if (aLength == 0) {
        aSecret.Clear();
        return CM_OK;
    }
    void* pMemory = Memory().Take(sizeof(CText) + aLength);
    if (!pMemory)
        return CM_ERROR_OUT_OF_MEMORY;
    CCmSecret made;
    made.m_pText = new (pMemory) CText;
    made.m_pText->m_dwLength = static_cast<uint32_t>(aLength);
    aSecret = std::move(made);
    return CM_OK;
}

char* CCmSecret::Bytes_i() const { return m_pText ? reinterpret_cast<char*>(m_pText + 1) : nullptr; }

CmResult CCmSecret::Set(std::initializer_list<std::string_view> aParts) {
    size_t stLength = 0;
    for (const std::string_view part : aParts) {
        if (part.size() > MAX_LENGTH - stLength)
            return CM_ERROR_INVALID_ARG;
        stLength += part.size();
    }
    return Fill(stLength, [&](char* aTo) {
        for (const std::string_view part : aParts)
            aTo = std::copy(part.begin(), part.end(), aTo);
    });
}

std::string_view CCmSecret::Get() const {
    return m_pText ? std::string_view(Bytes_i(), m_pText->m_dwLength) : std::string_view();
}

bool CCmSecret::operator==(const CCmSecret& aOther) const { return m_pText == aOther.m_pText || Get() == aOther.Get(); }

void talvo::WipeText(CCmString& aText) {
    explicit_bzero(aText.data(), aText.capacity());
    aText.clear();
}
