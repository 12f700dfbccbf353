// The server of `talvo echo`, and of `talvo bench --self`.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/console.h"

namespace tool {

class EchoSession;

// Sends all data back, or with --discard reads it only. Main thread.
class EchoServer : public ICmAcceptorConnectorSink {
public:
    EchoServer(const Arguments& aArguments, Console& aConsole);
    ~EchoServer() override;
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    // Listens and announces it. false: it cannot, which was reported.
    bool Start();
    // Listens on the address of the arguments without a word. aArrived: with --discard it gets the first 8 bytes of each
    // message of the arguments' size, as a number of this machine.
    CmResult StartQuietly(std::function<void(int64_t)> aArrived, CCmInetAddr& aListening);

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void Remove(EchoSession* aSession);

private:
    const Arguments& m_Arguments;
    Console& m_Console;
    std::function<void(int64_t)> m_Arrived;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<EchoSession*, std::unique_ptr<EchoSession>> m_Sessions;
};

}  // namespace tool
