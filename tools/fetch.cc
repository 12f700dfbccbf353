#include "tools/fetch.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tools/byte_range.h"
#include "tools/console.h"
#include "tools/endpoint.h"
#include "tools/sha256.h"
#include "tools/text.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

constexpr int STATUS_OK = 200;
constexpr int STATUS_PARTIAL = 206;
constexpr int STATUS_BEYOND = 416;
constexpr long BUSY[] = {408, 429, 500, 502, 503, 504};
constexpr long LONGEST_WAIT = 3600;  // that a server may ask for

bool IsStrong(std::string_view aTag) { return aTag.starts_with('"'); }

bool IsGzip(const std::string& aCoding) {
    return strcasecmp(aCoding.c_str(), "gzip") == 0 || strcasecmp(aCoding.c_str(), "x-gzip") == 0;
}

// A server may name the coding of a file that is compressed itself. That file is wanted as it is.
bool IsGzipType(const std::string& aType) {
    const std::string strType = aType.substr(0, aType.find(';'));
    return strcasecmp(strType.c_str(), "application/gzip") == 0 || strcasecmp(strType.c_str(), "application/x-gzip") == 0;
}

Failure Local(const std::string& aReason) { return {CAUSE_LOCAL, aReason}; }

std::string HashUrl(const std::string& aUrl) {
    Sha256 hash;
    hash.Update(aUrl);
    return ToHex(hash.GetSoFar());
}

bool MayContinue(const FileEdition& aEdition, const std::string& aSource) {
    return !aEdition.m_strTag.empty() && (aEdition.m_strSource.empty() || aEdition.m_strSource == aSource);
}

}  // namespace

Fetch::Fetch(const Arguments& aArguments, const GetJob& aJob, Output& aOutput, ProgressMeter& aMeter, RateLimit& aRate,
             IFetchUser& aUser)
    : m_Arguments(aArguments),
      m_Options(aArguments.m_Get),
      m_Job(aJob),
      m_Output(aOutput),
      m_Meter(aMeter),
      m_Rate(aRate),
      m_User(aUser),
      m_strSource(HashUrl(aJob.m_strUrl)),
      m_ullBeginning(MayContinue(aOutput.GetEdition(), m_strSource) ? aOutput.GetSize() : 0) {}

Fetch::~Fetch() {
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
    if (m_bMetered)
        m_Meter.End();
}

Failure Fetch::Start() {
    CCmRefPtrT<CCmHttpUrl> pUrl;
    if (CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), m_Job.m_strUrl) != CM_OK)
        return {CAUSE_USAGE, "cannot use the URL"};
    const Failure failure = pUrl->GetScheme() == "file" ? OpenFileUrl(*pUrl) : OpenHttpUrl(*pUrl);
    if (failure)
        return failure;
    const CmResult rv = m_pChannel->AsyncOpen(this);
    return {GetCause(rv), rv == CM_OK ? "" : "cannot send the request: " + DescribeResult(rv)};
}

Failure Fetch::OpenFileUrl(CCmHttpUrl& aUrl) {
    const CCmRefPtrT<CCmChannelFile> pFile(new CCmChannelFile);
    m_pChannel = pFile;
    return Local(pFile->Init(&aUrl) ? "" : "'" + m_Job.m_strUrl + "' is not a readable file");
}

CmResult Fetch::MakeClient(CCmHttpUrl& aUrl) {
    CCmChannelManager& manager = *CCmChannelManager::Instance();
    const CCmProxyRoute& route = m_Arguments.m_Proxy.m_Route;
    if (route.IsEmpty())
        return manager.CreateChannelHttpClient(m_pHttp.ParaOut(), &aUrl, CCmChannelManager::BROWSER_PROXY);
    const CCmRefPtrT<CCmHttpProxyInfo> pProxy(new CCmHttpProxyInfo(route));
    return manager.CreateChannelHttpClientWithProxy(m_pHttp.ParaOut(), &aUrl, pProxy.Get());
}

Failure Fetch::OpenHttpUrl(CCmHttpUrl& aUrl) {
    if (MakeClient(aUrl) != CM_OK)
        return Local("cannot create the HTTP client");
    m_pChannel = m_pHttp;
    CCmInetAddr addr = m_Arguments.m_Addr;
    if (m_pHttp->SetOption(CM_OPT_CHANNEL_CONNECT_TO, &addr) != CM_OK)
        return Local("cannot connect elsewhere");
    CCmRefPtrT<CCmSslContext> pContext = m_Arguments.m_pContext;
    if (m_pHttp->SetOption(CM_OPT_CHANNEL_SSL_CONTEXT, &pContext) != CM_OK)
        return Local("cannot set up TLS");
    if (!m_Options.m_strUser.empty() && m_pHttp->SetCredentials(m_Options.m_strUser, m_Options.m_strPassword) != CM_OK)
        return {CAUSE_USAGE, "--user contains characters that cannot be sent"};
    const CmResult rv = SetRequest();
    return {GetCause(rv), rv == CM_OK ? "" : "the method, a header or the data cannot be sent"};
}

// The user's headers replace the program's.
CmResult Fetch::SetRequest() {
    const std::string& strMethod = m_Options.m_strMethod;
    const auto dwLength = static_cast<DWORD>(m_Options.m_strBody.size());
    CCmMessageBlock body(dwLength, m_Options.m_strBody.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    CmResult rv = strMethod.empty() ? CM_OK : m_pHttp->SetRequestMethod(strMethod.c_str());
    if (rv == CM_OK && m_Options.m_bHasData)
        rv = m_pHttp->SetRequestBody(body);
    if (rv == CM_OK && m_Options.m_bHasData)
        rv = m_pHttp->SetRequestHeader(Atoms::Content_Type, "application/x-www-form-urlencoded");
    if (rv == CM_OK)
        rv = m_pHttp->SetRequestHeader(Atoms::Accept_Encoding, MayBeCoded() ? "gzip" : "identity");
    if (rv == CM_OK && m_ullBeginning > 0)
        rv = m_pHttp->SetRequestHeader(Atoms::Range, "bytes=" + std::to_string(m_ullBeginning) + "-");
    if (rv == CM_OK && m_ullBeginning > 0)
        rv = m_pHttp->SetRequestHeader(Atoms::If_Range, m_Output.GetEdition().m_strTag);
    for (auto field = m_Options.m_vecFields.begin(); rv == CM_OK && field != m_Options.m_vecFields.end(); ++field)
        rv = SetHeader(field->first, field->second);
    return rv;
}

CmResult Fetch::SetHeader(const std::string& aName, const std::string& aValue) {
    CCmHttpAtomList* pAtoms = CCmHttpAtomList::Instance();
    const CCmHttpAtom atom = pAtoms ? pAtoms->ResolveAtom(aName, 1) : CCmHttpAtom();
    return atom ? m_pHttp->SetRequestHeader(atom, aValue) : CM_ERROR_OUT_OF_MEMORY;
}

// The rest of a compressed body cannot be fetched alone, so transfers that may be resumed go without compression.
bool Fetch::MayBeCoded() const {
    return m_ullBeginning == 0 && !m_Options.m_bContinue && m_Arguments.m_Transfer.m_dwRetries == 0;
}

void Fetch::OnConnect(CmResult, ICmChannel*) {
    if (m_pHttp)
        m_pHttp->GetOption(CM_OPT_TRANSPORT_ROUTE, &m_strProxy);
    if (m_Arguments.m_Proxy.m_Route.IsEmpty() && m_strProxy == CCmProxyServer().GetText())
        m_strProxy.clear();
    ReportAnswer();
    const Failure failure = OnAnswer();
    if (failure)
        return Finish(failure);
    m_Meter.Begin();
    if (GetLength() != FileEdition::NO_SIZE)
        m_Meter.Expect(GetLength());
    m_bMetered = true;
}

// With -v.
void Fetch::ReportAnswer() const {
    CCmInetAddr peer;
    if (!m_pHttp)
        return;
    const bool bKnown = m_pHttp->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &peer) == CM_OK;
    const CCmHttpResponseHead& head = m_pHttp->GetResponseHead();
    std::string strText = m_Job.m_strUrl + ": " + (bKnown ? cm_address_text(peer) + " answered " : "the answer is ");
    strText += std::to_string(head.GetStatus()) + " " + head.GetStatusText();
    for (const CCmHttpAtom* pAtom : {&Atoms::Content_Type, &Atoms::Content_Encoding, &Atoms::Content_Length, &Atoms::ETag})
        strText +=
            GetHeader(*pAtom).empty() ? "" : std::string("; ") + static_cast<const char*>(*pAtom) + ": " + GetHeader(*pAtom);
    Console::Detail(strText);
}

Failure Fetch::OnAnswer() {
    const long lStatus = m_pHttp ? m_pHttp->GetResponseStatus() : STATUS_OK;
    if (lStatus == STATUS_PARTIAL && m_ullBeginning > 0)
        return OnRest();
    if (lStatus == STATUS_BEYOND && m_ullBeginning > 0)
        return OnNothingLeft();
    if (lStatus >= STATUS_OK && lStatus < 300 && lStatus != STATUS_PARTIAL)
        return OnWhole();
    return {CAUSE_REFUSED,
            "the server answered " + std::to_string(lStatus) + " " + Printable(m_pHttp->GetResponseHead().GetStatusText())};
}

bool Fetch::IsBusy(long& aSeconds) const {
    const long lStatus = m_pHttp ? m_pHttp->GetResponseStatus() : STATUS_OK;
    const std::string strAfter = GetHeader(Atoms::Retry_After);
    int64_t llDate = 0;
    const bool bDate = cm_parse_http_date(strAfter, llDate) != 0;
    const int64_t llWait = bDate ? llDate - CCmClock::GetWallUsec() / 1000000 : std::atol(strAfter.c_str());
    aSeconds = static_cast<long>(std::clamp<int64_t>(llWait, 0, LONGEST_WAIT));
    return std::find(std::begin(BUSY), std::end(BUSY), lStatus) != std::end(BUSY);
}

Failure Fetch::OnWhole() {
    m_ullBeginning = 0;
    if (!m_Output.MayBegin())
        return {CAUSE_CHANGED, "the server sent the whole file again, whose beginning was written before"};
    if (!IsCoded())
        return Local(m_Output.Begin({GetVersion(), GetLength(), m_strSource}));
    if (!IsGzip(GetHeader(Atoms::Content_Encoding)))
        return {CAUSE_PROTOCOL,
                "the body has the coding '" + GetHeader(Atoms::Content_Encoding) + "', which was not asked for"};
    m_pDecoder = std::make_unique<GzipDecoder>();
    return Local(m_Output.Begin({}));
}

// TRUE: the body has to be decoded. The body for a user's own Accept-Encoding is written as it is.
bool Fetch::IsCoded() const {
    const std::string strCoding = GetHeader(Atoms::Content_Encoding);
    CCmString strAsked;
    if (strCoding.empty() || strcasecmp(strCoding.c_str(), "identity") == 0 || !m_pHttp)
        return false;
    m_pHttp->GetRequestHeader(Atoms::Accept_Encoding, strAsked);
    const bool bOwn = strAsked == "gzip" || strAsked == "identity";
    return bOwn && !(IsGzip(strCoding) && IsGzipType(GetHeader(Atoms::Content_Type)));
}

// A file that changed in the second of its answer may change once more in that second (RFC 9110, 8.8.2.2).
std::string Fetch::GetVersion() const {
    const std::string strTag = GetHeader(Atoms::ETag);
    if (IsStrong(strTag))
        return strTag;
    const std::string strModified = GetHeader(Atoms::Last_Modified);
    int64_t llModified = 0;
    int64_t llAnswered = CCmClock::GetWallUsec() / 1000000;
    cm_parse_http_date(GetHeader(Atoms::Date), llAnswered);
    return cm_parse_http_date(strModified, llModified) && llModified < llAnswered ? strModified : "";
}

// TRUE: the answer is of the same version as the beginning. A server that ignores If-Range does not check that. A part repeats
// the tag (RFC 9110, 15.3.7), but not the modification time; another answer need not repeat either.
bool Fetch::IsSameVersion(bool aIsPart) const {
    const std::string& strHad = m_Output.GetEdition().m_strTag;
    const std::string strNow = GetHeader(IsStrong(strHad) ? Atoms::ETag : Atoms::Last_Modified);
    return strNow == strHad || (strNow.empty() && !(aIsPart && IsStrong(strHad)));
}

// TRUE: the whole file may have aSize bytes, as far as the answer before has named its length.
bool Fetch::IsSameSize(uint64_t aSize) const {
    const uint64_t ullHad = m_Output.GetEdition().m_ullSize;
    return ullHad == FileEdition::NO_SIZE || ullHad == aSize;
}

Failure Fetch::OnRest() {
    ContentRange range;
    if (!ParseContentRange(GetHeader(Atoms::Content_Range), range) || range.m_ullFirst != m_ullBeginning ||
        (range.m_ullSize != ContentRange::NO_SIZE && range.m_ullLast + 1 != range.m_ullSize))
        return {CAUSE_PROTOCOL, "the server sent another part than the rest"};
    if (!IsSameVersion(true) || !IsSameSize(range.m_ullLast + 1) || !GetHeader(Atoms::Content_Encoding).empty())
        return {CAUSE_CHANGED, "the server sent a part of another version of the file"};
    m_ullRest = range.m_ullLast - range.m_ullFirst + 1;
    return Local(m_Output.Continue());
}

// The file is complete already, unless the server's answer contradicts.
Failure Fetch::OnNothingLeft() {
    m_bSkip = true;
    if (GetHeader(Atoms::Content_Range) == "bytes */" + std::to_string(m_ullBeginning) && IsSameVersion(false) &&
        IsSameSize(m_ullBeginning))
        return Local(m_Output.Continue());
    return {CAUSE_CHANGED, "the part of '" + m_Job.m_strName + "' is not the beginning of the server's file"};
}

// Of the answer's body.
uint64_t Fetch::GetLength() const {
    const std::string strLength = GetHeader(Atoms::Content_Length);
    return strLength.empty() ? FileEdition::NO_SIZE : std::strtoull(strLength.c_str(), nullptr, 10);
}

std::string Fetch::GetHeader(const CCmHttpAtom& aAtom) const {
    CCmString strValue;
    if (m_pHttp)
        m_pHttp->GetResponseHeader(aAtom, strValue);
    return strValue;
}

void Fetch::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    const uint64_t ullBefore = m_ullGot;
    for (const CCmMessageBlock* p = &aData; p && !m_bSkip; p = p->GetNext()) {
        const Failure failure = Take({p->GetTopLevelReadPtr(), p->GetTopLevelLength()});
        if (failure)
            return Finish(failure);
    }
    Pause(m_Rate.Count(m_ullGot - ullBefore));
}

Failure Fetch::Take(std::string_view aPiece) {
    if (aPiece.size() > m_ullRest - m_ullGot)
        return {CAUSE_PROTOCOL, "the server sent more than the rest"};
    std::string strProblem;
    const auto write = [&](std::string_view aBytes) {
        strProblem = m_Output.Write(aBytes);
        m_ullWritten += aBytes.size();
        return strProblem.empty();
    };
    m_ullGot += aPiece.size();
    m_Meter.Advance(aPiece.size());
    const bool bGood = m_pDecoder ? m_pDecoder->Decode(aPiece, write) : write(aPiece);
    return bGood || !strProblem.empty() ? Local(strProblem) : Failure{CAUSE_PROTOCOL, "the body is not in the coding gzip"};
}

// The system's buffers fill up meanwhile, and then the server waits.
void Fetch::Pause(int64_t aUsec) {
    BOOL bPause = aUsec > 0;
    if (bPause && m_pHttp && m_Timer.Schedule(this, CCmTimeValue(aUsec / 1000000, aUsec % 1000000), 1) == CM_OK)
        m_pHttp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
}

void Fetch::OnTimer(CCmTimerWrapperID*) {
    BOOL bPause = FALSE;
    m_pHttp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
}

void Fetch::OnDisconnect(CmResult aReason, ICmTransport*) { Finish(aReason == CM_OK ? Complete() : DescribeFailure(aReason)); }

Failure Fetch::Complete() {
    if (m_ullRest != UNKNOWN && m_ullGot < m_ullRest)
        return {CAUSE_BROKEN, "the server sent less than the rest"};
    if (m_pDecoder && m_ullGot > 0 && !m_pDecoder->IsComplete())
        return {CAUSE_BROKEN, "the compressed body ended too early"};
    return Local(m_Output.Publish());
}

// The failure, and its cause unless both texts are the same.
Failure Fetch::DescribeFailure(CmResult aReason) const {
    CCmString strFailure;
    CCmFailure cause;
    if (!m_pHttp && aReason == CM_ERROR_NOT_AVAILABLE)
        return Local("the file has more than 1 MiB, the limit of a file URL");
    const CmResult rv = m_pHttp ? m_pHttp->GetFailure(strFailure) : aReason;
    if (m_pHttp)
        m_pHttp->GetOption(CM_OPT_CHANNEL_LAST_FAILURE, &cause);
    if (strFailure.empty())
        return Local("cannot read it" + DescribeCause(cause, rv));
    const std::string strCut = rv == CM_ERROR_NETWORK_TLS_CUT ? "the stream was cut: " : "";
    const std::string strCause = strFailure.starts_with(cause.GetText()) ? "" : DescribeCause(cause, rv);
    return {GetCause(rv, cause), strCut + Printable(strFailure) + strCause};
}

void Fetch::Finish(const Failure& aFailure) {
    m_Timer.Cancel();
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
    m_User.OnFetched(aFailure);
}

}  // namespace tool
