// Package connections and the no-partial-data sender over a transport that the test plays: bytes, steps and upcalls.

#include "talvo/connection/protocol/conn_liveness.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "tests/connection/conn_end.h"

namespace {

const std::string REQUEST("\1\0\0\0\0\0\0\17", 8);
const std::string RESPONSE("\2\0\0\0\0\0\0\17", 8);
const std::string OTHER_REQUEST("\1\0\0\0\0\0\0\7", 8);
const std::string KEEPALIVE("\4\0\0\0\0", 5);

std::string Data(const std::string& aText) { return "\6" + Bytes(static_cast<DWORD>(aText.size())) + aText; }
std::string Disconn(CmResult aReason) { return {'\3', static_cast<char>(aReason >> 8), static_cast<char>(aReason)}; }

template <class Conn>
class CEnd : public CConnEnd<Conn> {
public:
    using CConnEnd<Conn>::CConnEnd;
    void Connect() {
        const BYTE byType = this->m_pConn->GetInstanceType();
        CConnEnd<Conn>::Connect(byType == 1 ? REQUEST : byType == 2 ? RESPONSE : "");
    }
};
using CClient = CEnd<CPkgConnClient>;
using CServer = CEnd<CPkgConnServer>;
using CSender = CEnd<CPkgSender>;

class PkgConnTest : public ConnTest {};

struct CStep {
    const char* m_szName;
    BOOL m_bConnected;       // at the beginning, else in the handshake
    std::string m_strBytes;  // from the peer
    Lines m_Lines;
    std::string m_strSent;
    std::vector<CmResult> m_Disconnects;  // of the transport
};

// Every step with the bytes at once and one by one.
template <class End>
void RunSteps(const std::vector<CStep>& aSteps) {
    for (const CStep& step : aSteps) {
        for (const size_t stPiece : {std::string::npos, size_t{1}}) {
            SCOPED_TRACE(step.m_szName);
            End end;
            step.m_bConnected ? end.Connect() : end.Start();
            end.m_pLower->TakeSent();
            end.Receive(step.m_strBytes, stPiece);
            EXPECT_EQ(step.m_Lines, end.m_Lines);
            EXPECT_EQ(step.m_strSent, end.m_pLower->TakeSent());
            EXPECT_EQ(step.m_Disconnects, end.m_pLower->m_Disconnects);
        }
    }
}

// A proxy has waited for its own data, not for the last PDU of the connection below.
TEST_F(PkgConnTest, LingersBelowAProxy) {
    const auto linger = [&](auto&& aEnd) {
        aEnd.Connect();
        aEnd.Set(CM_OPT_TRANSPORT_LAYERED, TRUE);
        aEnd.m_pLower->m_dwUnacknowledged = 1;
        aEnd.m_pConn->Disconnect(CM_OK);
        EXPECT_EQ(0, aEnd.m_pLower->m_nDisconnects);
        aEnd.m_pLower->m_dwUnacknowledged = 0;
        Pass(CCmTimeValue(1));
        EXPECT_EQ(std::vector<CmResult>{CM_OK}, aEnd.m_pLower->m_Disconnects);
    };
    linger(CClient());
    linger(CConnEnd<CLenPkgConn>());
}

TEST_F(PkgConnTest, ClientStepByStep) {
    const std::string strTooLong("\6\1\0\0\1xxxx", 9);  // 16 MiB and a byte
    RunSteps<CClient>({
        {"response", FALSE, RESPONSE, {"connect 0"}, "", {}},
        {"response and data", FALSE, RESPONSE + Data("a") + Data("b"), {"connect 0", "receive a", "receive b"}, "", {}},
        {"half a response", FALSE, RESPONSE.substr(0, 7), {}, "", {}},
        {"other type", FALSE, std::string("\2\0\0\0\0\0\0\7", 8), {"connect 20013"}, Disconn(20013), {20013}},
        {"request", FALSE, REQUEST, {"connect 10009"}, "", {20005}},
        {"data too early", FALSE, Data("a"), {"connect 10009"}, "", {20005}},
        {"no such type", FALSE, "\7", {"connect 10009"}, "", {20005}},
        {"type 0", FALSE, std::string("\0", 1), {"connect 10009"}, "", {20005}},
        {"refusal", FALSE, Disconn(20004), {"connect 20004"}, "", {20005}},
        {"refusal without a reason", FALSE, Disconn(0), {"connect 20003"}, "", {20005}},
        {"second response", TRUE, RESPONSE + Data("a"), {"receive a"}, "", {}},
        {"keep-alive, restart", TRUE, KEEPALIVE + Data("") + "\5" + Data("c").substr(1), {"receive ", "receive c"}, "", {}},
        {"end, and data behind it", TRUE, Disconn(20004) + Data("a"), {"disconnect 20004"}, "", {20005}},
        {"end without a reason", TRUE, Disconn(0), {"disconnect 0"}, "", {20005}},
        {"too long", TRUE, strTooLong, {"disconnect 10009"}, "", {20005}},
        {"longer than a number", TRUE, std::string("\6\xFF\xFF\xFF\xFF", 5), {"disconnect 10009"}, "", {20005}},
        {"data and an unknown type", TRUE, Data("a") + "\x10", {"receive a", "disconnect 10009"}, "", {20005}},
    });
}

TEST_F(PkgConnTest, ServerStepByStep) {
    // The counter in the response starts again with a PDU of type 5, which has six bytes here.
    const std::string RESTARTED("\2\0\0\0\6\0\0\17", 8);
    RunSteps<CServer>({
        {"request", FALSE, REQUEST, {"connect 0"}, RESPONSE, {}},
        {"request and data", FALSE, REQUEST + Data("a"), {"connect 0", "receive a"}, RESPONSE, {}},
        {"second request", TRUE, REQUEST + Data("a"), {"receive a"}, RESPONSE, {}},
        {"restart", TRUE, Data("a") + "\5" + Data("b").substr(1) + REQUEST, {"receive a", "receive b"}, RESTARTED, {}},
        {"other type", FALSE, OTHER_REQUEST, {"connect 10009"}, RESPONSE + Disconn(10009), {10009}},
        {"other type later", TRUE, OTHER_REQUEST, {"disconnect 10009"}, RESPONSE + Disconn(10009), {10009}},
        {"response", FALSE, RESPONSE, {"connect 10009"}, "", {20005}},
        {"data too early", FALSE, Data("a"), {"connect 10009"}, "", {20005}},
        {"end", FALSE, Disconn(0), {"connect 20003"}, "", {20005}},
    });
}

TEST_F(PkgConnTest, SenderStepByStep) {
    const std::string strEmpty("\6\0\0\0\0\0\0\0\0", 9);
    RunSteps<CSender>({
        {"data", TRUE, std::string("\6\1\2\3\4\0\0\0\1x", 10) + strEmpty, {"receive x", "receive "}, "", {}},
        {"request", TRUE, REQUEST, {"disconnect 10009"}, "", {20005}},
        {"response", TRUE, RESPONSE, {"disconnect 10009"}, "", {20005}},
        {"too long", TRUE, std::string("\5\0\0\0\0\1\0\0\1", 9), {"disconnect 10009"}, "", {20005}},
        {"end", TRUE, Disconn(20004) + strEmpty, {"disconnect 20004"}, "", {20005}},
    });
}

TEST_F(PkgConnTest, WhatWasCancelledOrEndedIsSilent) {
    CClient client;
    client.Start();
    client.m_pConn->CancelConnect();
    EXPECT_EQ(REQUEST + Disconn(CM_OK), client.m_pLower->TakeSent());
    client.m_pConn->OnConnectIndication(CM_ERROR_TIMEOUT, nullptr, nullptr);
    client.m_pConn->OnDisconnect(CM_ERROR_TIMEOUT, client.m_pLower.Get());
    EXPECT_EQ(Lines{}, client.m_Lines);
    CServer server;
    server.Connect();
    EXPECT_EQ(CM_OK, server.Set(CM_OPT_TRANSPORT_CORK, TRUE));
    EXPECT_EQ(CM_OK, server.Send("unsent"));
    EXPECT_EQ(CM_OK, server.m_pConn->Disconnect(0x1004E24));
    EXPECT_EQ(Data("unsent") + Disconn(0x4E24), server.m_pLower->TakeSent());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, server.Send("abc"));
}

// Data that the sink sends inside its indication follows the response, also if the transport takes one byte at a time.
TEST_F(PkgConnTest, ResponseComesBeforeTheSinksData) {
    for (const DWORD dwRoom : {0u, 3u, 10u, CFakeLower::EVERYTHING}) {
        CServer server;
        server.m_Inside = [&](const std::string& aLine) {
            while (aLine == "connect 0" && server.Send(std::string(30000, 'x')) == CM_OK) {
            }
        };
        server.Start();
        server.m_pLower->m_dwRoom = dwRoom;
        server.Receive(REQUEST);
        EXPECT_EQ(dwRoom == CFakeLower::EVERYTHING ? 2u : 1u, server.m_Lines.size());
        server.m_pLower->MakeRoom();
        EXPECT_EQ("send", server.m_Lines.back());
        const std::string strData = Data(std::string(30000, 'x'));
        EXPECT_EQ(RESPONSE + strData + strData, server.m_pLower->TakeSent());
    }
    // An orderly end inside sends both, any other end neither.
    for (const CmResult reason : {CM_OK, CM_ERROR_NETWORK_SOCKET_CLOSE}) {
        CServer server;
        server.m_Inside = [&](const std::string&) { server.Send("last"), server.m_pConn->Disconnect(reason); };
        server.Start();
        server.Receive(REQUEST);
        EXPECT_EQ((reason == CM_OK ? RESPONSE + Data("last") : "") + Disconn(reason), server.m_pLower->TakeSent());
    }
}

TEST_F(PkgConnTest, ConnectPdusStandNeverInsideOthers) {
    CClient client;
    client.m_pLower->m_dwRoom = 5;
    client.Start();
    client.m_pLower->MakeRoom();
    EXPECT_EQ(REQUEST, client.m_pLower->TakeSent());

    CClient refused(CM_TRANSPORT_TYPE_UDP);
    refused.m_pLower->m_dwRoom = 0;
    refused.Start();
    EXPECT_EQ(3u, refused.m_pLower->m_Pieces.size()) << "a connect PDU is tried three times";

    CServer server;  // asked twice while a PDU is half gone
    server.Connect();
    server.m_pLower->m_dwRoom = 7;
    EXPECT_EQ(CM_OK, server.Send("abcdef"));
    server.m_pLower->m_dwRoom = CFakeLower::EVERYTHING;
    server.Receive(REQUEST);
    server.m_pLower->m_dwRoom = 3;
    EXPECT_EQ(CM_OK, server.Send("ghi"));
    server.Receive(REQUEST);
    server.m_pLower->MakeRoom();
    EXPECT_EQ(Data("abcdef") + RESPONSE + Data("ghi"), server.m_pLower->TakeSent());
}

TEST_F(PkgConnTest, OptionsSayWhatCanBeSent) {
    CClient client;
    client.Connect();
    const auto expectMax = [](CClient& aClient, DWORD aMax, const char* aRaise) {
        EXPECT_EQ(aMax, Get<DWORD>(*aClient.m_pConn, CM_OPT_TRANSPORT_MAX_MESSAGE));
        CCmTraceCapture trace;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, aClient.Send(std::string(aMax + 1, 'x')));
        EXPECT_EQ(1u, trace.Count(aRaise));
        EXPECT_EQ(CM_OK, aClient.Send(std::string(aMax, 'x')));
        EXPECT_EQ(aMax + 5, aClient.m_pLower->TakeSent().size());
    };
    expectMax(client, 65531, "(CS_OPT_MAX_BUFF_LEN) raises it");
    EXPECT_EQ(CM_ERROR_INVALID_ARG, client.Set(CS_OPT_MAX_BUFF_LEN, 0));
    EXPECT_EQ(CM_OK, client.Set(CS_OPT_MAX_BUFF_LEN, 100000));
    expectMax(client, 99995, "(CS_OPT_MAX_BUFF_LEN) raises it");
    EXPECT_EQ(CM_OK, client.Set(CS_OPT_MAX_MESSAGE_LEN, 10));
    expectMax(client, 10, "(CS_OPT_MAX_MESSAGE_LEN) raises it");
    client.Receive(Data("0123456789"));
    client.Receive(Data("0123456789A").substr(0, 5));
    EXPECT_EQ((Lines{"receive 0123456789", "disconnect 10009"}), client.m_Lines);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, client.Set(CS_OPT_KEEPALIVE_INTERVAL, 0));

    CSender sender;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, sender.Set(CS_OPT_MAX_BUFF_LEN, 1000));
    CClient datagrams(CM_TRANSPORT_TYPE_UDP);
    datagrams.Connect();
    EXPECT_EQ(CM_OK, datagrams.Set(CS_OPT_MAX_BUFF_LEN, 1000000));
    expectMax(datagrams, 65507 - 5, "a datagram takes no more");
}

TEST_F(PkgConnTest, OnePduIsOneDatagram) {
    CServer server(CM_TRANSPORT_TYPE_UDP);
    server.Connect();
    CCmTraceCapture trace;
    server.Receive(Data("a") + Data("lost"));
    server.Receive(Data("cut").substr(0, 6));
    server.Receive(Data("b"));
    EXPECT_EQ((Lines{"receive a", "receive b"}), server.m_Lines);
    EXPECT_EQ(2u, trace.Count("drop the rest of a datagram"));
    // A datagram that the transport will never take does not stop those behind it.
    server.m_pLower->m_Inside = [](const std::string&) { return CM_ERROR_INVALID_ARG; };
    server.Send("never");
    server.m_pLower->m_Inside = [](const std::string&) { return CM_OK; };
    EXPECT_EQ(CM_OK, server.Send("next"));
    EXPECT_EQ(Lines{Data("next")}, server.m_pLower->m_Sends);

    CClient client(CM_TRANSPORT_TYPE_UDP);
    client.Start();
    client.Receive(Data("overtook the response"));
    client.Receive(RESPONSE);
    EXPECT_EQ(Lines{"connect 0"}, client.m_Lines);
}

TEST_F(PkgConnTest, CorkedMessagesLeaveTogether) {
    const auto check = [](auto aEnd, size_t aMaxCalls) {
        aEnd->Connect();
        EXPECT_EQ(CM_OK, aEnd->Set(CM_OPT_TRANSPORT_CORK, TRUE));
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(CM_OK, aEnd->Send("abc"));
        EXPECT_TRUE(aEnd->m_pLower->m_Sends.empty());
        EXPECT_EQ(CM_OK, aEnd->Set(CM_OPT_TRANSPORT_CORK, FALSE));
        EXPECT_LE(aEnd->m_pLower->m_Sends.size(), aMaxCalls);
        EXPECT_GE(64u, *std::max_element(aEnd->m_pLower->m_Pieces.begin(), aEnd->m_pLower->m_Pieces.end()));
        return aEnd->m_pLower->TakeSent();
    };
    std::string strAll;
    for (int i = 0; i < 100; ++i)
        strAll += Data("abc");
    EXPECT_EQ(strAll, check(std::make_unique<CClient>(), 4));        // a header and a payload each
    EXPECT_EQ(1200u, check(std::make_unique<CSender>(), 1).size());  // copied together
}

// The interval in seconds is taken as milliseconds: only what left just now saves a keep-alive.
TEST_F(PkgConnTest, KeepAliveLeavesEvenWhileDataFlows) {
    CServer server;
    server.Connect();
    Pass(CCmTimeValue(14, 984000));
    server.Send("a");
    Pass(CCmTimeValue(0, 16000));
    EXPECT_EQ(Data("a") + KEEPALIVE, server.m_pLower->TakeSent());
    Pass(CCmTimeValue(14, 985000));
    server.Send("b");
    Pass(CCmTimeValue(0, 15000));
    EXPECT_EQ(Data("b"), server.m_pLower->TakeSent());
    EXPECT_EQ(CM_OK, server.Set(CS_OPT_KEEPALIVE_INTERVAL, 2));
    Pass(CCmTimeValue(2));
    EXPECT_EQ(KEEPALIVE, server.m_pLower->TakeSent());
}

// A handshake, and then a peer, that never comes: when each thing happens, to the millisecond.
TEST_F(PkgConnTest, SilentPeersAreGivenUp) {
    const auto expect = [this](auto& aEnd, int64_t aMsec, const std::string& aSent, const Lines& aLines) {
        Pass(CCmTimeValue::FromUsec(aMsec * 1000 - 1000));
        EXPECT_EQ("", aEnd.m_pLower->TakeSent()) << aMsec;
        EXPECT_EQ(Lines{}, aEnd.m_Lines) << aMsec;
        Pass(CCmTimeValue(0, 1000));
        EXPECT_EQ(aSent, aEnd.m_pLower->TakeSent()) << aMsec;
        EXPECT_EQ(aLines, aEnd.m_Lines) << aMsec;
    };
    CClient datagrams(CM_TRANSPORT_TYPE_UDP);
    datagrams.Start();
    EXPECT_EQ(REQUEST, datagrams.m_pLower->TakeSent());
    for (const int64_t llMsec : {200, 1000, 1000, 500, 500, 1000})
        expect(datagrams, llMsec, REQUEST, {});
    expect(datagrams, 60000 - 4200, "", {"connect 20006"});
    CClient client;
    client.Start();
    EXPECT_EQ(REQUEST, client.m_pLower->TakeSent());
    expect(client, 60000, "", {"connect 20006"});
    CServer server;
    server.Start();
    expect(server, 60000, "", {"connect 20005"});
    CClient connected(CM_TRANSPORT_TYPE_TCP, FALSE);
    connected.Connect();
    expect(connected, 120000, "", {"disconnect 20005"});
    CClient paused(CM_TRANSPORT_TYPE_TCP, FALSE);
    paused.Connect();
    paused.Set(CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
    expect(paused, 500000, "", {});
    paused.Set(CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
    expect(paused, 119000, "", {});
    expect(paused, 11000, "", {"disconnect 20005"});
    CServer keeping;
    keeping.Connect();
    for (int i = 0; i < 7; ++i)
        expect(keeping, 15000, KEEPALIVE, {});
    expect(keeping, 15000, KEEPALIVE, {"disconnect 20005"});
    talvo::CConnLiveness liveness;
    liveness.OnReceived();
    m_Clock.Advance(CCmTimeValue(120));
    EXPECT_TRUE(liveness.IsPeerSilent());
    liveness.Reset();
    EXPECT_FALSE(liveness.IsPeerSilent()) << "after a reset nothing was received";
}

}  // namespace
