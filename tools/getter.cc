#include "tools/getter.h"

#include <cstdlib>
#include <utility>

#include "tools/byte_range.h"
#include "tools/endpoint.h"
#include "tools/text.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

constexpr int STATUS_OK = 200;
constexpr int STATUS_PARTIAL = 206;
constexpr int STATUS_BEYOND = 416;

bool IsStrong(std::string_view aTag) { return aTag.starts_with('"'); }

}  // namespace

Getter::Getter(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole), m_Progress(aConsole) {}

Getter::~Getter() {
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
}

void Getter::Start() {
    m_llStarted = CCmClock::GetTimeOfDayUsec();
    CCmRefPtrT<CCmHttpUrl> pUrl;
    std::string strProblem = MakeOutput();
    if (strProblem.empty() && CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), m_Arguments.m_strUrl) != CM_OK)
        strProblem = "cannot use the URL";
    if (strProblem.empty())
        strProblem = pUrl->GetScheme() == "file" ? OpenFileUrl(*pUrl) : OpenHttpUrl(*pUrl);
    if (strProblem.empty()) {
        const CmResult rv = m_pChannel->AsyncOpen(this);
        strProblem = rv == CM_OK ? "" : std::string("cannot send the request (") + cm_result_name(rv) + ")";
    }
    if (!strProblem.empty())
        Finish(strProblem);
    else if (m_Arguments.m_Target.m_Kind != OutputTarget::STDOUT)
        m_Progress.Start();
}

std::string Getter::MakeOutput() {
    const OutputTarget& target = m_Arguments.m_Target;
    if (target.m_Kind != OutputTarget::REGULAR) {
        m_pOutput = std::make_unique<DirectOutput>(target.m_strPath);
        return "";
    }
    auto pFile = std::make_unique<PartialFile>(target.m_strPath);
    m_pFile = pFile.get();
    m_pOutput = std::move(pFile);
    if (!m_Arguments.m_bContinue)
        return "";
    const std::string strProblem = m_pFile->LookForBeginning();
    m_ullBeginning = m_pFile->GetSize();
    return strProblem;
}

std::string Getter::OpenFileUrl(CCmHttpUrl& aUrl) {
    const CCmRefPtrT<CCmChannelFile> pFile(new CCmChannelFile);
    m_pChannel = pFile;
    return pFile->Init(&aUrl) ? "" : "'" + m_Arguments.m_strUrl + "' is not a readable file";
}

CmResult Getter::MakeClient(CCmHttpUrl& aUrl) {
    CCmChannelManager& manager = *CCmChannelManager::Instance();
    const CCmProxyRoute& route = m_Arguments.m_Proxy.m_Route;
    if (route.IsEmpty())
        return manager.CreateChannelHttpClient(m_pHttp.ParaOut(), &aUrl, CCmChannelManager::BROWSER_PROXY);
    const CCmRefPtrT<CCmHttpProxyInfo> pProxy(new CCmHttpProxyInfo(route));
    return manager.CreateChannelHttpClientWithProxy(m_pHttp.ParaOut(), &aUrl, pProxy.Get());
}

std::string Getter::OpenHttpUrl(CCmHttpUrl& aUrl) {
    if (MakeClient(aUrl) != CM_OK)
        return "cannot create the HTTP client";
    m_pChannel = m_pHttp;
    CCmInetAddr addr = m_Arguments.m_Addr;
    if (m_pHttp->SetOption(CM_OPT_CHANNEL_CONNECT_TO, &addr) != CM_OK)
        return "cannot connect elsewhere";
    CCmRefPtrT<CCmSslContext> pContext = m_Arguments.m_pContext;
    if (m_pHttp->SetOption(CM_OPT_CHANNEL_SSL_CONTEXT, &pContext) != CM_OK)
        return "cannot set up TLS";
    const std::string& strUser = m_Arguments.m_strUser;
    const size_t nColon = strUser.find(':');
    if (nColon != std::string::npos && m_pHttp->SetCredentials(strUser.substr(0, nColon), strUser.substr(nColon + 1)) != CM_OK)
        return "--user contains characters that cannot be sent";
    if (m_ullBeginning > 0)
        AskForRest();
    return "";
}

void Getter::AskForRest() {
    m_pHttp->SetRequestHeader(Atoms::Range, "bytes=" + std::to_string(m_ullBeginning) + "-");
    m_pHttp->SetRequestHeader(Atoms::If_Range, m_pFile->GetTag());
}

void Getter::OnConnect(CmResult, ICmChannel*) {
    if (m_pHttp)
        m_pHttp->GetOption(CM_OPT_TRANSPORT_ROUTE, &m_strServer);
    if (m_Arguments.m_Proxy.m_Route.IsEmpty() && m_strServer == CCmProxyServer().GetText())
        m_strServer.clear();
    const std::string strProblem = OnAnswer();
    if (!strProblem.empty()) {
        Finish(strProblem);
        return;
    }
    m_ullSize = std::strtoull(GetHeader(Atoms::Content_Length).c_str(), nullptr, 10);
    m_Progress.GetMeter().Begin(m_ullSize);
    m_bMetered = true;
}

std::string Getter::OnAnswer() {
    const long lStatus = m_pHttp ? m_pHttp->GetResponseStatus() : STATUS_OK;
    if (lStatus == STATUS_PARTIAL && m_ullBeginning > 0)
        return OnRest();
    if (lStatus == STATUS_BEYOND && m_ullBeginning > 0)
        return OnNothingLeft();
    if (lStatus == STATUS_OK)
        return OnWhole();
    return "the server answered " + std::to_string(lStatus) + " " + Printable(m_pHttp->GetResponseHead().GetStatusText());
}

std::string Getter::OnWhole() {
    m_ullBeginning = 0;
    return m_pOutput->Begin(GetVersion());
}

std::string Getter::GetVersion() const {
    const std::string strTag = GetHeader(Atoms::ETag);
    return IsStrong(strTag) ? strTag : GetHeader(Atoms::Last_Modified);
}

// TRUE: the answer is of the same version as the beginning. A server that ignores If-Range does not check that. A part repeats
// the tag (RFC 9110, 15.3.7), but not the modification time; another answer need not repeat either.
bool Getter::IsSameVersion(bool aIsPart) const {
    const std::string strHad = m_pFile->GetTag();
    const std::string strNow = GetHeader(IsStrong(strHad) ? Atoms::ETag : Atoms::Last_Modified);
    return strNow == strHad || (strNow.empty() && !(aIsPart && IsStrong(strHad)));
}

std::string Getter::OnRest() {
    ContentRange range;
    if (!ParseContentRange(GetHeader(Atoms::Content_Range), range) || range.m_ullFirst != m_ullBeginning ||
        (range.m_ullSize != ContentRange::NO_SIZE && range.m_ullLast + 1 != range.m_ullSize))
        return "the server sent another part than the rest";
    if (!IsSameVersion(true) || !GetHeader(Atoms::Content_Encoding).empty())
        return "the server sent a part of another version of the file";
    m_ullRest = range.m_ullLast - range.m_ullFirst + 1;
    return m_pFile->Continue();
}

// The file is complete already, unless the server's answer contradicts.
std::string Getter::OnNothingLeft() {
    m_bSkip = true;
    return GetHeader(Atoms::Content_Range) == "bytes */" + std::to_string(m_ullBeginning) && IsSameVersion(false)
               ? m_pFile->Continue()
               : "the part of '" + m_Arguments.m_strOutput + "' is not the beginning of the server's file";
}

std::string Getter::GetHeader(const CCmHttpAtom& aAtom) const {
    CCmString strValue;
    if (m_pHttp)
        m_pHttp->GetResponseHeader(aAtom, strValue);
    return strValue;
}

void Getter::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    for (const CCmMessageBlock* p = &aData; p && !m_bSkip; p = p->GetNext()) {
        const std::string_view piece(p->GetTopLevelReadPtr(), p->GetTopLevelLength());
        if (piece.size() > m_ullRest - m_ullGot) {
            Finish("the server sent more than the rest");
            return;
        }
        const std::string strProblem = m_pOutput->Write(piece);
        if (!strProblem.empty()) {
            Finish(strProblem);
            return;
        }
        m_ullGot += piece.size();
        m_Progress.GetMeter().Advance(piece.size());
    }
}

void Getter::OnDisconnect(CmResult aReason, ICmTransport*) {
    if (aReason == CM_OK && m_ullRest != UNKNOWN && m_ullGot < m_ullRest) {
        Finish("the server sent less than the rest");
        return;
    }
    if (aReason == CM_OK) {
        Finish(m_pOutput->Publish());
        return;
    }
    Finish(DescribeFailure(aReason));
}

// The failure, and its cause unless both texts are the same.
std::string Getter::DescribeFailure(CmResult aReason) const {
    CCmString strFailure;
    CCmFailure cause;
    const CmResult rv = m_pHttp ? m_pHttp->GetFailure(strFailure) : aReason;
    if (m_pHttp)
        m_pHttp->GetOption(CM_OPT_CHANNEL_LAST_FAILURE, &cause);
    if (strFailure.empty())
        return "cannot read it" + DescribeCause(cause, rv);
    const std::string strCut = rv == CM_ERROR_NETWORK_TLS_CUT ? "the stream was cut: " : "";
    return strCut + Printable(strFailure) + (strFailure.starts_with(cause.GetText()) ? "" : DescribeCause(cause, rv));
}

void Getter::Finish(const std::string& aProblem) {
    if (m_pChannel)
        m_pChannel->Disconnect(CM_OK);
    if (std::exchange(m_bMetered, false))
        m_Progress.GetMeter().End(m_ullSize, m_ullGot);
    if (!aProblem.empty() && Application::GetPendingSignal() == 0)  // after a signal that is the cause, and the exit status
        m_Console.Problem(m_Arguments.m_strUrl + ": " + aProblem,
                          JsonLine::Failed(CAUSE_OTHER, aProblem).Add("url", m_Arguments.m_strUrl));
    else if (aProblem.empty() && m_Arguments.m_Target.m_Kind != OutputTarget::STDOUT)
        Deliver();
    m_Application.Finish(aProblem.empty() ? EXIT_OK : EXIT_FAILED);
}

void Getter::Deliver() {
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - m_llStarted) / 1e6;
    const auto ullRate = static_cast<uint64_t>(static_cast<double>(m_ullGot) / (dSeconds > 0 ? dSeconds : 1e-6));
    JsonLine json("got");
    json.Add("name", m_Arguments.m_strOutput)
        .Add("bytes", m_ullGot)
        .Add("size", m_ullBeginning + m_ullGot)
        .Add("seconds", dSeconds);
    if (!m_strServer.empty())
        json.Add("proxy", m_strServer);
    m_Console.Report("got " + m_Arguments.m_strOutput + ": " + FormatBytes(m_ullGot) + ", " + FormatBytes(ullRate) + "/s" +
                         (m_strServer.empty() ? "" : " through " + m_strServer),
                     json);
}

}  // namespace tool
