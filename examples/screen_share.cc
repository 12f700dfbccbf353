// A stand-in for screen sharing: a sender of pictures, and viewers that come late or fall behind:   screen_share
//
// A message is a whole picture once a second (a key message), and otherwise only the difference to the picture before. With the
// join point KEY a late viewer begins with the last whole picture. With the policy DROP_OLDEST a slow viewer continues with a
// whole picture. So each viewer can decode all that it gets. The program ends after 3 s.
#include <cstdio>

#include "examples/producer.h"

constexpr DWORD TYPE = Manager::CTYPE_PDU_PACKAGE | Manager::CTYPE_TCP;
constexpr int PICTURES_A_SECOND = 30, PICTURES = 3 * PICTURES_A_SECOND + 1;
constexpr DWORD SIZE = 50000;  // bytes, most of which have no meaning here

struct Picture {
    int m_nNumber;
    BOOL m_bWhole;
};

class Viewer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void Start(const CCmInetAddr& aAddr) {
        Manager::Instance()->CreateConnectionClient(TYPE, m_pConnector.ParaOut());
        m_pConnector->AsycConnect(this, aAddr);
    }
    void Pause(BOOL aPaused) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPaused); }
    BOOL HasLast() const { return m_nLast == PICTURES - 1; }
    int m_nPictures = 0, m_nLast = -1, m_nLost = 0;

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        if (aReason == CM_OK)
            aTrpt->OpenWithSink(this);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        Picture picture{};
        aData.Read(&picture, sizeof picture, nullptr, FALSE);
        m_nLost += !picture.m_bWhole && picture.m_nNumber != m_nLast + 1;
        m_nLast = picture.m_nNumber;
        ++m_nPictures;
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { MainReactor()->StopEventLoop(); }

    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// Sends pictures to three viewers. The slow one does not read in the first half, the late one comes in the second.
class Sender : public Producer {
public:
    Sender() : Producer({.m_Policy = CM_FORWARD_DROP_OLDEST, .m_Join = CM_FORWARD_JOIN_KEY}) {}
    void Start() {
        m_Addr = Listen(TYPE);
        m_Fast.Start(m_Addr);
        m_Slow.Start(m_Addr);
    }

    Viewer m_Fast, m_Slow, m_Late;

private:
    void OnJoin(DWORD aId) override {
        if (aId == 2)
            MainReactor()->ScheduleTimer(this, nullptr, CCmTimeValue(0, 1000000 / PICTURES_A_SECOND), 0);
    }
    void OnTimeout(const CCmTimeValue&, void*) override {
        if (m_nNext == 1)
            m_Slow.Pause(TRUE);
        if (m_nNext == PICTURES / 2)
            m_Slow.Pause(FALSE), m_Late.Start(m_Addr);
        if (m_nNext < PICTURES)
            Send(m_nNext++);
        else if (m_Fast.HasLast() && m_Slow.HasLast() && m_Late.HasLast())
            MainReactor()->StopEventLoop();
    }
    void Send(int aNumber) {
        const Picture picture{aNumber, aNumber % PICTURES_A_SECOND == 0};
        const CCmForwardHeader header{0, picture.m_bWhole ? +CCmForwardHeader::KEY_MESSAGE : 0};
        CCmMessageBlock message(SIZE);
        message.Write(&picture, sizeof picture);
        message.AdvanceTopLevelWritePtr(SIZE - sizeof picture);
        m_pSession->Forward(message, &header);
    }

    CCmInetAddr m_Addr;
    int m_nNext = 0;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    pThreads->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    pThreads->InitMainThread(argc, argv);
    Sender sender;
    sender.Start();
    MainReactor()->RunEventLoop();
    const Viewer &fast = sender.m_Fast, &slow = sender.m_Slow, &late = sender.m_Late;
    std::printf("pictures: fast %d, slow %d, late %d\n", fast.m_nPictures, slow.m_nPictures, late.m_nPictures);
    pThreads->StopAllThreads(nullptr);
    pThreads->JoinAllThreads();
    return fast.m_nLost + slow.m_nLost + late.m_nLost;  // 0: each could decode all that it got
}
