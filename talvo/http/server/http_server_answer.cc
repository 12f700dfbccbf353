#include "talvo/http/server/http_server_answer.h"

#include <charconv>

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_status.h"
#include "talvo/http/message/http_text.h"
#include "talvo/http/server/channel_server.h"

namespace talvo {

namespace {

using Atoms = CCmHttpAtomList;
using namespace std::string_view_literals;

constexpr long OK = 200;
constexpr long NO_CONTENT = 204;
constexpr long RESET_CONTENT = 205;
constexpr long NOT_MODIFIED = 304;

// The digits of a number.
class CDigits {
public:
    explicit CDigits(uint64_t aNumber) : m_pEnd(std::to_chars(m_szDigits, m_szDigits + sizeof m_szDigits, aNumber).ptr) {}
    std::string_view Get() const {
        const auto stLength = static_cast<size_t>(m_pEnd - m_szDigits);
        if (stLength > sizeof m_szDigits)
            __builtin_unreachable();  // else GCC warns of longer copies
        return {m_szDigits, stLength};
    }

private:
    char m_szDigits[24];
    const char* m_pEnd;
};

}  // namespace

void CHttpServerAnswer::Reset() {
    Clear();
    m_lStatus = OK;
    m_strText.clear();
    m_bToClose = FALSE;
}

CmResult CHttpServerAnswer::SetStatus(long aStatus, std::string_view aText) {
    if (aStatus < OK || aStatus > 999 || !is_sendable(aText))
        return CM_ERROR_INVALID_ARG;
    replace_text(m_strText, aText);
    m_lStatus = aStatus;
    return CM_OK;
}

CmResult CHttpServerAnswer::SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, BOOL aMerge) {
    if (!aAtom || !is_token(aAtom.operator const char*()) || !is_sendable(aValue))
        return CM_ERROR_INVALID_ARG;
    if (aAtom == Atoms::Content_Length || aAtom == Atoms::Transfer_Encoding || aAtom == Atoms::Date)
        return CM_ERROR_INVALID_ARG;
    if (aAtom == Atoms::Connection)
        m_bToClose = has_token(aValue, "close");
    else if (!CCmHttpHeaderArray::SetHeader(aAtom, aValue, aMerge))
        return CM_ERROR_OUT_OF_MEMORY;
    return CM_OK;
}

BOOL CHttpServerAnswer::IsWithoutBody() const {
    return m_lStatus == NO_CONTENT || m_lStatus == RESET_CONTENT || m_lStatus == NOT_MODIFIED;
}

EHttpBody CHttpServerAnswer::GetBody(const CCmHttpRequestHead& aRequest, uint64_t aLength) const {
    if (m_lStatus == NO_CONTENT || m_lStatus == NOT_MODIFIED)
        return EHttpBody::NONE;
    if (aLength != ICmChannelHttpServer::UNKNOWN_LENGTH || m_lStatus == RESET_CONTENT)
        return EHttpBody::LENGTH;
    return aRequest.GetVerion() >= CM_HTTP_VERSION_11 ? EHttpBody::CHUNKED : EHttpBody::UNTIL_CLOSE;
}

// With all steps in line: each copies a few bytes.
[[gnu::flatten]] void CHttpServerAnswer::Print(EHttpBody aBody, uint64_t aLength, std::string_view aTail,
                                               CCmString& aOut) const {
    if (m_lStatus == OK && m_strText.empty()) {
        append_texts(aOut, "HTTP/1.1 200 OK\r\n"sv);
    } else {
        const std::string_view strText = m_strText.empty() ? HttpStatusText(m_lStatus) : m_strText.c_str();
        append_texts(aOut, "HTTP/1.1 "sv, CDigits(static_cast<uint64_t>(m_lStatus)).Get(), " "sv, strText, "\r\n"sv);
    }
    FlattenLines_t(aOut);
    if (aBody == EHttpBody::LENGTH) {
        const CDigits length(m_lStatus == RESET_CONTENT ? 0 : aLength);
        append_texts(aOut, "Content-Length: "sv, length.Get(), "\r\n"sv, aTail);
    } else {
        append_texts(aOut, aBody == EHttpBody::CHUNKED ? "Transfer-Encoding: chunked\r\n"sv : ""sv, aTail);
    }
}

}  // namespace talvo
