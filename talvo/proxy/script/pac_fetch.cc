#include "talvo/proxy/script/pac_fetch.h"

#include <cstdio>
#include <utility>

#include "talvo/base/config_text.h"
#include "talvo/base/message_block.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/channel/channel_file.h"
#include "talvo/http/channel/channel_http_client_interface.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/proxy/script/pac_expiry.h"
#include "talvo/proxy/script/pac_utf8.h"

namespace talvo {

namespace {

constexpr time_t MOST_SECONDS = 30;
constexpr long STATUS_OK = 200;
constexpr long STATUS_NOT_MODIFIED = 304;
constexpr const char* IDENTITY = "identity";  // the only content coding

CCmString HeaderOf(ICmChannelHttpClient& aChannel, const CCmHttpAtom& aName) {
    CCmString strValue;
    aChannel.GetResponseHeader(aName, strValue);
    return strValue;
}

}  // namespace

CPacFetch::~CPacFetch() {
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
}

CmResult CPacFetch::Start(CCmHttpUrl& aUrl, const CPacMarks& aMarks, IPacFetchSink& aSink, CCmString& aError) {
    m_Fetched = CPacFetched();
    const BOOL bFile = aUrl.GetScheme() == "file";
    CmResult rv = bFile ? OpenFile_i(aUrl) : OpenHttp_i(aUrl, aMarks);
    if (rv == CM_OK)
        rv = m_Timer.Schedule(this, CCmTimeValue(MOST_SECONDS), 1);
    if (rv == CM_OK) {
        m_pSink = &aSink;
        return CM_OK;
    }
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
    m_pChannel.Reset();
    aError = bFile ? "the file cannot be read" : "the request cannot be sent";
    return rv;
}

CmResult CPacFetch::OpenFile_i(CCmHttpUrl& aUrl) {
    const CCmRefPtrT<CCmChannelFile> pFile(new CCmChannelFile);
    if (!pFile->Init(&aUrl))
        return CM_ERROR_NOT_FOUND;
    m_pChannel = pFile;
    m_pHttp = nullptr;
    m_Fetched.m_dwSeconds = USUAL_PAC_SECONDS;
    return m_pChannel->AsyncOpen(this);
}

CmResult CPacFetch::OpenHttp_i(CCmHttpUrl& aUrl, const CPacMarks& aMarks) {
    CCmRefPtrT<ICmChannelHttpClient> pHttp;
    const CmResult rv = CCmChannelManager::Instance()->CreateChannelHttpClient(pHttp.ParaOut(), &aUrl);
    if (rv != CM_OK)
        return rv;
    m_pChannel = pHttp;
    m_pHttp = pHttp.Get();
    m_pHttp->SetRequestHeader(CCmHttpAtomList::Accept_Encoding, IDENTITY);
    if (!aMarks.m_strETag.empty())
        m_pHttp->SetRequestHeader(CCmHttpAtomList::If_None_Match, aMarks.m_strETag);
    if (!aMarks.m_strLastModified.empty())
        m_pHttp->SetRequestHeader(CCmHttpAtomList::If_Modified_Since, aMarks.m_strLastModified);
    return m_pChannel->AsyncOpen(this);
}

void CPacFetch::OnConnect(CmResult, ICmChannel*) {
    if (!m_pHttp)
        return;
    const long lStatus = m_pHttp->GetResponseStatus();
    if (lStatus != STATUS_OK && lStatus != STATUS_NOT_MODIFIED) {
        char szError[80];
        std::snprintf(szError, sizeof szError, "the server has answered with status %ld", lStatus);
        return Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, szError);
    }
    m_Fetched.m_bSame = lStatus == STATUS_NOT_MODIFIED;
    BOOL bPlain = FALSE;
    if (!WithMemory([&] { bPlain = TakeHead_i(); }))
        return Fail_i(CM_ERROR_OUT_OF_MEMORY, "");
    if (!bPlain)
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the text is compressed, which was not asked for");
}

// FALSE: the text has a content coding.
BOOL CPacFetch::TakeHead_i() {
    using Atoms = CCmHttpAtomList;
    m_Fetched.m_Marks = {HeaderOf(*m_pHttp, Atoms::ETag), HeaderOf(*m_pHttp, Atoms::Last_Modified)};
    m_Fetched.m_dwSeconds = PacLifetimeOf(HeaderOf(*m_pHttp, Atoms::Cache_Control), HeaderOf(*m_pHttp, Atoms::Expires),
                                          HeaderOf(*m_pHttp, Atoms::Date));
    const CCmString strCoding = HeaderOf(*m_pHttp, Atoms::Content_Encoding);
    return m_Fetched.m_bSame || strCoding.empty() || IsSameNoCase(strCoding, IDENTITY);
}

void CPacFetch::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (aData.GetChainedLength() > MOST_BYTES - m_Fetched.m_strText.size())
        return Fail_i(CM_ERROR_NOT_AVAILABLE, "the text has more than 1 MiB");
    if (!WithMemory([&] { m_Fetched.m_strText += aData.FlattenChained(); }))
        Fail_i(CM_ERROR_OUT_OF_MEMORY, "");
}

void CPacFetch::OnDisconnect(CmResult aReason, ICmTransport*) {
    if (aReason != CM_OK) {
        if (!m_pHttp)
            return Fail_i(aReason, "the file cannot be read");
        CCmString strError;
        const CmResult cause = m_pHttp->GetFailure(strError);
        return Fail_i(cause == CM_OK ? aReason : cause, strError);
    }
    BOOL bFits = FALSE;
    if (!WithMemory([&] { bFits = DecodeScript(m_Fetched.m_strText, MOST_BYTES); }))
        return Fail_i(CM_ERROR_OUT_OF_MEMORY, "");
    if (!bFits)
        return Fail_i(CM_ERROR_NOT_AVAILABLE, "the text has more than 1 MiB");
    Report_i();
}

void CPacFetch::OnTimer(CCmTimerWrapperID*) { Fail_i(CM_ERROR_TIMEOUT, "the fetch took more than 30 s"); }

// Without memory the reason stands without words.
void CPacFetch::Fail_i(CmResult aReason, std::string_view aError) {
    m_Fetched.m_Reason = aReason;
    WithMemory([&] { m_Fetched.m_strError = aError; });
    Report_i();
}

void CPacFetch::Report_i() {
    m_Timer.Cancel();
    m_pHttp = nullptr;
    const CCmRefPtrT<ICmChannel> pChannel = std::exchange(m_pChannel, nullptr);
    if (pChannel)
        pChannel->Disconnect(CM_OK);
    CPacFetched fetched = std::exchange(m_Fetched, CPacFetched());
    if (IPacFetchSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnPacFetched(fetched);
}

}  // namespace talvo
