// One fetch of a script.
#pragma once

#include <string_view>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel/channel.h"
#include "talvo/http/message/http_url.h"

class ICmChannelHttpClient;

namespace talvo {

// What a server knows a text by; empty: it has given nothing.
struct CPacMarks {
    CCmString m_strETag;
    CCmString m_strLastModified;
};

struct CPacFetched {
    CmResult m_Reason = CM_OK;
    CCmString m_strError;  // with any other reason than CM_OK; the cause in words
    BOOL m_bSame = FALSE;  // TRUE: the text has not changed since the marks were given
    CCmString m_strText;   // UTF-8
    CPacMarks m_Marks;
    DWORD m_dwSeconds = 0;  // how long the text serves
};

class IPacFetchSink {
public:
    // The end of the fetch; never inside Start. It may destroy the fetch inside.
    virtual void OnPacFetched(CPacFetched& aFetched) = 0;

protected:
    virtual ~IPacFetchSink() = default;
};

// Fetches the text of a URL without a proxy, within 30 s, and decodes it to UTF-8. Texts over 1 MiB fail, and so do those that
// the server has compressed. In one thread.
class CPacFetch : private ICmChannelSink, private CCmTimerWrapperIDSink {
public:
    static constexpr size_t MOST_BYTES = 1 << 20;

    CPacFetch() = default;
    ~CPacFetch() override;
    CPacFetch(const CPacFetch&) = delete;
    CPacFetch& operator=(const CPacFetch&) = delete;

    // aMarks: those of the text that the caller has; the server may then answer that it has not changed. Any other result than
    // CM_OK: no report follows, and aError (out) is the cause. aSink is not owned.
    CmResult Start(CCmHttpUrl& aUrl, const CPacMarks& aMarks, IPacFetchSink& aSink, CCmString& aError);

private:
    void OnConnect(CmResult aReason, ICmChannel* aChannel) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    CmResult OpenFile_i(CCmHttpUrl& aUrl);
    CmResult OpenHttp_i(CCmHttpUrl& aUrl, const CPacMarks& aMarks);
    BOOL TakeHead_i();
    void Fail_i(CmResult aReason, std::string_view aError);
    void Report_i();

    CCmRefPtrT<ICmChannel> m_pChannel;
    ICmChannelHttpClient* m_pHttp = nullptr;  // the same object; null: it reads a file
    CCmTimerWrapperID m_Timer;
    IPacFetchSink* m_pSink = nullptr;  // not owned; null: nothing is under way
    CPacFetched m_Fetched;
};

}  // namespace talvo
