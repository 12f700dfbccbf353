// A text that must not leave the process: a password, or a request that contains one.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// An immutable text in memory that core dumps leave out (MADV_DONTDUMP, where the system allows it) and that is overwritten
// when the last copy ends. Copies share the text, so that copying and moving never fail. A text and its shared copies may be
// used and destroyed in different threads; one object belongs to one thread at a time. Nothing prints it.
class TALVO_API CCmSecret {
public:
    static constexpr size_t MAX_LENGTH = 65536;  // bytes

    CCmSecret() = default;  // ""
    // Share the text.
    CCmSecret(const CCmSecret& aOther);
    CCmSecret(CCmSecret&& aOther) noexcept : m_pText(std::exchange(aOther.m_pText, nullptr)) {}
    CCmSecret& operator=(CCmSecret aOther) noexcept {
        std::swap(m_pText, aOther.m_pText);
        return *this;
    }
    ~CCmSecret();

    // Replaces the text, by the parts in their order. A part may be of the text itself. CM_ERROR_INVALID_ARG: longer than
    // MAX_LENGTH. CM_ERROR_OUT_OF_MEMORY. Both leave the text unchanged.
    CmResult Set(std::string_view aText) { return Set({aText}); }
    CmResult Set(std::initializer_list<std::string_view> aParts);

    // Replaces the text by aLength bytes that aWrite(char*) writes; results as Set. aWrite must not throw.
    template <class Writer>
    CmResult Fill(size_t aLength, const Writer& aWrite);

    void Clear() { *this = CCmSecret(); }  // empties it

    // Valid as long as a copy has the text. It does not end with a zero byte.
    std::string_view Get() const;

    CmBool IsEmpty() const { return Get().empty(); }  // there is no text
    bool operator==(const CCmSecret& aOther) const;   // the same bytes

private:
    struct CText;

    static CmResult Make_i(size_t aLength, CCmSecret& aSecret);
    char* Bytes_i() const;

    CText* m_pText = nullptr;  // holds one reference; null: ""
};

template <class Writer>
CmResult CCmSecret::Fill(size_t aLength, const Writer& aWrite) {
    CCmSecret made;
    const CmResult rv = Make_i(aLength, made);
    if (rv != CM_OK)
        return rv;
    aWrite(made.Bytes_i());
    *this = std::move(made);
    return CM_OK;
}

namespace talvo {

// Overwrites the bytes of an ordinary string, its unused capacity included, and empties it.
TALVO_API void WipeText(CCmString& aText);

}  // namespace talvo
