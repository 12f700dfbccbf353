#include "tools/tls_look.h"

#include "tools/certificate.h"
#include "tools/connecting.h"
#include "tools/memory.h"

namespace tool {

namespace {

constexpr long TICKET_SECONDS = 1;

}  // namespace

TlsLook::TlsLook(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole) {}

TlsLook::~TlsLook() { Close(); }

void TlsLook::Start() { Connect(VERIFY); }

void TlsLook::Connect(EStep aStep) {
    m_Step = aStep;
    CCmTimeValue tvTimeout(CONNECT_SECONDS);
    CCmInetAddr local = m_Arguments.m_AddrLocal;
    if (MakeConnectorOfStep() == CM_OK)
        m_pConnector->AsycConnect(this, m_Arguments.m_Addr, &tvTimeout, m_Arguments.m_strBind.empty() ? nullptr : &local);
    else
        GiveUp({CAUSE_LOCAL, "cannot create a connector"});
}

CmResult TlsLook::MakeConnectorOfStep() {
    CmResult rv = MakeConnector(m_Arguments, m_pConnector);
    CCmString strAlpn = m_Arguments.m_strAlpn;
    if (rv == CM_OK)
        rv = cm_get_connect_options(m_pConnector.Get())->SetOption(CM_OPT_CONNECT_ALPN, &strAlpn);
    if (rv != CM_OK || m_Step != SHOW)
        return rv;
    TlsOptions options = m_Arguments.m_Tls;
    options.m_bInsecure = true;
    CCmRefPtrT<CCmSslContext> pContext;
    return MakeClientContext(options, pContext).empty() ? UseContext(m_pConnector.Get(), pContext) : CM_ERROR_FAILURE;
}

void TlsLook::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_pTransport = aTrpt;
    if (aReason != CM_OK)
        OnRefused(aReason);
    else if (m_pTransport->OpenWithSink(this) == CM_OK)
        OnShaken();
    else
        GiveUp({CAUSE_BROKEN, "cannot use the connection"});
}

void TlsLook::OnRefused(CmResult aReason) {
    if (m_Step == RESUME) {
        Report();
        return;
    }
    if (m_Step == VERIFY && aReason == CM_ERROR_NETWORK_TLS_CERTIFICATE) {
        CCmFailure failure;
        cm_get_connect_options(m_pConnector.Get())->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        m_strNotVerified = failure.GetText();
        Connect(SHOW);
        return;
    }
    GiveUp(DescribeConnectFailure(m_Arguments.m_Addr, *m_pConnector, aReason));
}

void TlsLook::GiveUp(const Failure& aFailure) {
    Close();
    m_Console.Problem(aFailure, "peer", cm_address_text(m_Arguments.m_Addr));
    m_Application.Finish(EXIT_FAILED);
}

void TlsLook::OnShaken() {
    CCmSslInfo info;
    RequireMemory(m_pTransport->GetOption(CM_OPT_TRANSPORT_SSL_INFO, &info));
    if (m_Step == RESUME)
        m_bResumed = info.m_bResumed != FALSE;
    else
        m_Info = info;
    if (m_Step == VERIFY)
        WaitForTickets();
    else
        Report();
}

// The server answers the end of this side with its own, behind its tickets.
void TlsLook::WaitForTickets() {
    BOOL bEnd = TRUE;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &bEnd);
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(TICKET_SECONDS), 1));
}

// Under TLS 1.3 a server refuses the client's certificate, or none, only now.
void TlsLook::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmFailure failure;
    if (aReason == CM_ERROR_NETWORK_TLS_CUT)
        aTrptId->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    m_strEnd = failure.GetText();
    OnTimer(nullptr);
}

void TlsLook::OnTimer(CCmTimerWrapperID*) {
    Close();
    Connect(RESUME);
}

void TlsLook::ReportCertificates() const {
    size_t nAt = 0;
    for (const CCmString& strDer : m_Info.m_Chain) {
        Certificate certificate;
        const size_t nNumber = nAt++;
        if (!ParseCertificate(strDer, certificate))
            continue;
        m_Console.Result("certificate " + std::to_string(nNumber) + ": " + DescribeCertificate(certificate),
                         JsonLine("certificate")
                             .Add("number", nNumber)
                             .Add("subject", certificate.m_strSubject)
                             .Add("names", certificate.m_vecNames)
                             .Add("issuer", certificate.m_strIssuer)
                             .Add("not_before", certificate.m_strNotBefore)
                             .Add("not_after", certificate.m_strNotAfter)
                             .Add("days_left", certificate.m_nDaysLeft));
    }
}

void TlsLook::Report() {
    Close();
    ReportCertificates();
    const bool bVerified = m_Step == RESUME && m_Info.m_bVerified;
    const std::string& strGiven = m_Arguments.m_Tls.m_strServerName;
    const std::string strName = strGiven.empty() ? m_Arguments.m_Addr.GetIpDisplayName() : strGiven;
    const std::string strVersion = m_Info.m_dwVersion == CM_TLS_1_3 ? "TLS 1.3" : "TLS 1.2";
    std::string strText = strVersion + ", " + m_Info.m_strCipher;
    strText += m_Info.m_strAlpn.empty() ? ", no ALPN" : ", ALPN " + m_Info.m_strAlpn;
    strText += bVerified ? "; verified as " + strName : "; not verified as " + strName + ": " + m_strNotVerified;
    strText += m_bResumed ? "; resumed on the second connect" : "; not resumed";
    strText += m_strEnd.empty() ? "" : "; end: " + m_strEnd;
    m_Console.Result(strText, JsonLine("tls")
                                  .Add("protocol", strVersion)
                                  .Add("cipher", m_Info.m_strCipher)
                                  .Add("alpn", m_Info.m_strAlpn)
                                  .Add("name", strName)
                                  .Add("verified", bVerified)
                                  .Add("reason", m_strNotVerified)
                                  .Add("resumed", m_bResumed)
                                  .Add("end", m_strEnd));
    if (!bVerified)
        m_Console.Problem({CAUSE_TLS, "the server is not verified as " + strName + ": " + m_strNotVerified}, "peer",
                          cm_address_text(m_Arguments.m_Addr));
    m_Application.Finish(bVerified ? EXIT_OK : EXIT_FAILED);
}

void TlsLook::Close() {
    m_Timer.Cancel();
    m_pConnector.Reset();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
}

}  // namespace tool
