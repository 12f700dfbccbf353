// The head of a proxy's reply to CONNECT.
#pragma once

#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

// Finds the end of a head in a stream, and its status.
class CConnectReply {
public:
    static constexpr size_t LONGEST = 16384;  // with the empty line

    enum EResult { MORE, COMPLETE, BROKEN };

    // aTaken (out): the bytes that belong to the head; all unless it is COMPLETE. BROKEN: it is no HTTP/1 head, or longer than
    // LONGEST; GetFault describes it. Throws std::bad_alloc.
    EResult Take(std::string_view aIn, size_t& aTaken);
    void Clear() { *this = CConnectReply(); }

    // Of a complete head.
    int GetStatus() const { return m_nStatus; }
    std::string_view GetStatusText() const;  // "403 Forbidden"
    const CCmString& GetHead() const { return m_strHead; }

    const char* GetFault() const { return m_pFault; }

private:
    EResult Broken_i(const char* aFault);
    BOOL ParseStatus_i();

    CCmString m_strHead;
    size_t m_stLine = 0;  // where the current line begins
    int m_nStatus = 0;
    const char* m_pFault = "";
};

}  // namespace talvo
