// Uses the installed library for tests: a datagram crosses a simulated link.
#include <talvo/talvo.h>
#include <talvo/testing/testing.h>

#include <cstdio>

int main() {
    CCmSimNetwork network(1);
    const CCmInetAddr addr("10.0.0.1", 7070);
    CCmUpcallLog server;
    CCmConnectLog accepted, connected;
    accepted.m_Indicated = [&] { accepted.m_Transports[0]->OpenWithSink(&server); };
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_UDP, pAcceptor.ParaOut());
    CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_UDP, pConnector.ParaOut());
    pAcceptor->StartListen(&accepted, addr);
    pConnector->AsycConnect(&connected, addr);
    network.RunFor(CCmTimeValue(1));
    CCmMessageBlock block(5, "hello", CCmMessageBlock::DONT_DELETE, 5);
    if (connected.Count() != 1 || connected.m_Transports[0]->SendData(block) != CM_OK)
        return 1;
    const BOOL bArrived = network.RunUntil([&server] { return !server.m_strReceived.empty(); }, CCmTimeValue(1));
    std::printf("%s after %d us\n", server.m_strReceived.c_str(), static_cast<int>(network.Now().GetTotalInUsec()));
    return bArrived && server.m_strReceived == "hello" ? 0 : 1;
}
