#include "talvo/http/message/http_framing.h"

#include <algorithm>
#include <charconv>

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_list.h"
#include "talvo/http/message/http_status.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

using Atoms = CCmHttpAtomList;

enum ECodings { NO_CODING, CHUNKED_ALONE, MISPLACED_CHUNKED, UNKNOWN_CODING };

// aIdentity: "identity", which RFC 9112 has removed, counts as no coding.
ECodings get_codings(const CCmHttpHeaderArray& aHeaders, BOOL aIdentity) {
    const CCmString* pValue = aHeaders.FindHeader(Atoms::Transfer_Encoding);
    BOOL bChunked = FALSE, bUnknown = FALSE;
    std::string_view strList = pValue ? std::string_view(*pValue) : std::string_view();
    for (std::string_view element; cm_next_list_element(strList, element);) {
        if (bChunked)
            return MISPLACED_CHUNKED;
        bChunked = equal_no_case(element, "chunked");
        bUnknown = bUnknown || !(bChunked || (aIdentity && equal_no_case(element, "identity")));
    }
    return bUnknown ? UNKNOWN_CODING : bChunked ? CHUNKED_ALONE : NO_CODING;
}

// One number, or a list of equal numbers, into which some intermediaries join repeated lines.
BOOL parse_length(std::string_view aValue, uint64_t& aLength) {
    std::string_view element, first;
    while (cm_next_list_element(aValue, element)) {
        if (!first.empty() && element != first)
            return FALSE;
        first = element;
    }
    const auto [pEnd, error] = std::from_chars(first.data(), first.data() + first.size(), aLength);
    return error == std::errc() && pEnd == first.data() + first.size();
}

void frame_by_length(const CCmHttpHeaderArray& aHeaders, int aError, CHttpFraming& aFraming) {
    const CCmString* pLength = aHeaders.FindHeader(Atoms::Content_Length);
    const BOOL bFault = (aHeaders.GetFaults() & CM_HTTP_FAULT_LENGTH) != 0;
    if (bFault || (pLength && !parse_length(*pLength, aFraming.m_ullLength)))
        aFraming.m_nError = aError;
    else if (pLength)
        aFraming.m_Body = EHttpBody::LENGTH;
}

CHttpFraming refuse(int aError) {
    CHttpFraming framing;
    framing.m_nError = aError;
    framing.m_bMustClose = TRUE;
    return framing;
}

BOOL has_no_body(const CCmHttpResponseHead& aHead, const CCmHttpAtom& aMethod) {
    const long lStatus = aHead.GetStatus();
    return aMethod == Atoms::Head || (lStatus >= 100 && lStatus < 200) || lStatus == 204 || lStatus == 304 ||
           (aMethod == Atoms::Connect && lStatus >= 200 && lStatus < 300);
}

}  // namespace

CHttpFraming get_request_framing(const CCmHttpRequestHead& aHead) {
    CHttpFraming framing;
    if (aHead.PeekHeader(Atoms::Transfer_Encoding)) {
        const ECodings codings = get_codings(aHead, FALSE);
        if (codings == UNKNOWN_CODING)
            return refuse(HTTP_NOT_IMPLEMENTED);
        if (codings != CHUNKED_ALONE || aHead.GetVerion() < CM_HTTP_VERSION_11 || aHead.PeekHeader(Atoms::Content_Length) ||
            (aHead.GetFaults() & CM_HTTP_FAULT_LENGTH) != 0)
            return refuse(HTTP_BAD_REQUEST);
        framing.m_Body = EHttpBody::CHUNKED;
        return framing;
    }
    frame_by_length(aHead, HTTP_BAD_REQUEST, framing);
    framing.m_bMustClose = framing.m_nError != 0;
    return framing;
}

CHttpFraming get_response_framing(const CCmHttpResponseHead& aHead, const CCmHttpAtom& aMethod) {
    CHttpFraming framing;
    if (has_no_body(aHead, aMethod))
        return framing;
    switch (get_codings(aHead, TRUE)) {
    case MISPLACED_CHUNKED:
        return refuse(HTTP_BAD_RESPONSE);
    case UNKNOWN_CODING:
        return refuse(HTTP_NOT_IMPLEMENTED);
    case CHUNKED_ALONE:
        framing.m_Body = EHttpBody::CHUNKED;
        framing.m_bMustClose = aHead.PeekHeader(Atoms::Content_Length) || aHead.GetVerion() < CM_HTTP_VERSION_11;
        return framing;
    case NO_CODING:
        break;
    }
    frame_by_length(aHead, HTTP_BAD_RESPONSE, framing);
    // A 205 has no body, so do not wait for the end of the connection.
    if (framing.m_Body == EHttpBody::NONE && framing.m_nError == 0 && aHead.GetStatus() != 205)
        framing.m_Body = EHttpBody::UNTIL_CLOSE;
    framing.m_bMustClose = framing.m_nError != 0 || framing.m_Body == EHttpBody::UNTIL_CLOSE;
    return framing;
}

BOOL is_persistent(CCmHttpVersion aVersion, const CCmHttpHeaderArray& aHeaders) {
    const CCmString* pConnection = aHeaders.FindHeader(Atoms::Connection);
    const std::string_view strOptions = pConnection ? std::string_view(*pConnection) : std::string_view();
    if (has_token(strOptions, "close"))
        return FALSE;
    return aVersion >= CM_HTTP_VERSION_11 || (aVersion == CM_HTTP_VERSION_10 && has_token(strOptions, "keep-alive"));
}

}  // namespace talvo
