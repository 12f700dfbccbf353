#include "tools/application.h"
#include "tools/commands.h"
#include "tools/connecting.h"
#include "tools/endpoint.h"
#include "tools/forwarding.h"
#include "tools/line_splitter.h"
#include "tools/memory.h"
#include "tools/outbox.h"

namespace tool {

namespace {

// Prints each line that the publisher forwards, until the publisher ends. Main thread.
class Subscriber : private ICmAcceptorConnectorSink, private ICmTransportSink, private CCmTimerWrapperIDSink {
public:
    Subscriber(const Arguments& aArguments, Application& aApplication, Console& aConsole)
        : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole) {}
    ~Subscriber() override {
        if (m_pTransport)
            m_pTransport->Disconnect(CM_OK);
    }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    void Start() {
        if (StartConnect(m_Arguments, this, m_pConnector) != CM_OK)
            return Finish({CAUSE_LOCAL, "cannot create a connector"});
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CONNECT_SECONDS), 1));
    }

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_Timer.Cancel();
        if (aReason != CM_OK)
            return Finish(DescribeConnectFailure(m_Arguments.m_Addr, *m_pConnector, aReason));
        m_pTransport = aTrpt;
        ReportConnection(m_Arguments, *m_pTransport, m_Console);
        const bool bAsked = m_pTransport->OpenWithSink(this) == CM_OK &&
                            m_Outbox.Send(*m_pTransport, MakeJoinLine(m_Arguments.m_strJoin)) != CM_ERROR_OUT_OF_MEMORY;
        if (!bAsked)
            Finish({CAUSE_BROKEN, "cannot use the connection"});
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_Lines.Feed(aData.FlattenChained());
        for (Line line; m_Lines.Next(line);)
            Show(line);
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Outbox.SendRest(*m_pTransport); }
    // The publisher ends a stream in order after its last line; a protocol connection says why.
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        CCmFailure failure;
        m_pTransport->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
        if (aReason == CM_ERROR_PARTIAL_DATA)
            return Finish({CAUSE_REFUSED, "the publisher has disconnected this subscriber, which was too slow"});
        const bool bOrderly = aReason == CM_OK || aReason == CM_ERROR_NETWORK_SOCKET_CLOSE ||
                              (aReason == CM_ERROR_NETWORK_SOCKET_ERROR && failure.GetErrno() == 0);
        Finish(bOrderly ? Failure() : DescribeEnd("the connection", *m_pTransport, aReason));
    }
    void OnTimer(CCmTimerWrapperID*) override {
        Finish({CAUSE_TIMEOUT, "cannot connect to " + cm_address_text(m_Arguments.m_Addr) + ": no answer within " +
                                   std::to_string(CONNECT_SECONDS) + " s"});
    }

    void Show(const Line& aLine) {
        if (aLine.IsWhole())
            return m_Console.Result(aLine.m_strText, JsonLine("message").Add("text", aLine.m_strText));
        m_bLost = true;
        m_Console.Problem({CAUSE_PROTOCOL, "line " + std::to_string(aLine.m_ullNumber) + " is too long to be shown, " +
                                               std::to_string(aLine.m_ullLength) + " bytes"},
                          "peer", cm_address_text(m_Arguments.m_Addr));
    }

    void Finish(const Failure& aFailure) {
        if (aFailure)
            m_Console.Problem(aFailure, "peer", cm_address_text(m_Arguments.m_Addr));
        m_Application.Finish(aFailure || m_bLost ? EXIT_FAILED : EXIT_OK);
    }

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    CCmTimerWrapperID m_Timer;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
    LineSplitter m_Lines{LONGEST_LINE};
    bool m_bLost = false;  // a line was not shown
};

}  // namespace

int RunSubscribe(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    Subscriber subscriber(aArguments, application, console);
    if (application.IsStarted())
        subscriber.Start();
    return application.Run();
}

}  // namespace tool
