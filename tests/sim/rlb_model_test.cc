// A model of the reconnection, searched to its end: every order of sends, arrivals and losses without any clock. Two ends send
// two messages each; the client uses four transports, one after the other, and what an old one still carries may arrive late.
#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

#include "tests/support/test.h"

namespace {

enum EFault { NONE, COUNT_BEHIND_UPCALL, READ_BEFORE_DROP, REPEAT_CACHED_REQUEST, KEEP_REWOUND_ITEM };
enum EForm { PLAIN, TOKEN };
enum : char { REQUEST, RESPONSE, DATA };

constexpr char MESSAGES = 2;
constexpr char TRANSPORTS = 4;
constexpr char CLOSED = -1;

// Numbers count messages: the end of the second is 2.
struct CEnd {
    char m_Received = 0;   // counter
    char m_Delivered = 0;  // to the sink
    char m_Acked = 0;
    char m_New = 1;      // the first message that was never handed to a transport
    char m_Current = 1;  // the next one to send
    char m_Transport = CLOSED;
    char m_Up = 0;  // data may flow

    BOOL IsResumePoint(char aCounter) const { return aCounter >= m_Acked && aCounter < m_New; }
    // Frees what is acknowledged before the current item, and sends the rest again.
    void Resume(char aCounter, char aTransport) {
        m_Acked = std::max(m_Acked, std::min<char>(aCounter, static_cast<char>(m_Current - 1)));
        m_Current = static_cast<char>(m_Acked + 1);
        m_Transport = aTransport;
        m_Up = 1;
    }
    void Lose(EFault aFault) {
        m_Transport = CLOSED;
        m_Up = 0;
        if (aFault != KEEP_REWOUND_ITEM)
            m_Current = m_New;
    }
};

struct CPacket {
    char m_Kind, m_Number, m_Counter, m_Attempt;  // a number of DATA only the model knows
};

struct CState {
    CEnd m_Client, m_Server;
    char m_Transports = 0;  // used so far
    char m_TakenAttempt = 0;
    std::vector<CPacket> m_Up[TRANSPORTS], m_Down[TRANSPORTS];

    std::string GetKey() const {
        std::string strKey(reinterpret_cast<const char*>(this), offsetof(CState, m_Up));
        for (const auto& lines : {m_Up, m_Down}) {
            for (int t = 0; t < TRANSPORTS; ++t) {
                strKey += '|';
                strKey.append(reinterpret_cast<const char*>(lines[t].data()), lines[t].size() * sizeof(CPacket));
            }
        }
        return strKey;
    }
};

class CSearch {
public:
    CSearch(EForm aForm, EFault aFault) : m_Form(aForm), m_Fault(aFault) {}

    // The first fault that a path leads to; empty: none.
    std::string Run() {
        Add({});
        while (!m_Open.empty() && m_strFault.empty()) {
            const CState state = std::move(m_Open.back());
            m_Open.pop_back();
            Step(state);
        }
        return m_strFault;
    }
    size_t CountComplete() const { return m_stComplete; }

private:
    void Add(CState aState) {
        if (!m_Seen.insert(aState.GetKey()).second)
            return;
        m_stComplete += aState.m_Client.m_Delivered == MESSAGES && aState.m_Server.m_Delivered == MESSAGES;
        m_Open.push_back(std::move(aState));
    }
    void Fail(const char* aText) { m_strFault = aText; }

    void Step(const CState& aState) {
        if (aState.m_Client.m_Transport == CLOSED && aState.m_Transports < TRANSPORTS)
            Connect(aState);
        Send(aState, TRUE);
        Send(aState, FALSE);
        for (const BOOL bServer : {FALSE, TRUE}) {  // notices a loss
            CState state = aState;
            CEnd& end = bServer ? state.m_Server : state.m_Client;
            if (end.m_Transport == CLOSED)
                continue;
            Close(state, end.m_Transport, bServer);
            end.Lose(m_Fault);
            Add(state);
        }
        for (int t = 0; t < TRANSPORTS; ++t) {
            if (!aState.m_Up[t].empty())
                Arrive(aState, static_cast<char>(t), TRUE);
            if (!aState.m_Down[t].empty())
                Arrive(aState, static_cast<char>(t), FALSE);
        }
    }

    // An end reads no more from its transport.
    static void Close(CState& aState, char aTransport, BOOL aServer) {
        (aServer ? aState.m_Up : aState.m_Down)[static_cast<int>(aTransport)].clear();
    }

    void Connect(CState aState) {
        const char t = aState.m_Transports++;
        const char counter = m_Fault == REPEAT_CACHED_REQUEST ? char{0} : aState.m_Client.m_Received;
        aState.m_Client.m_Transport = t;
        aState.m_Up[static_cast<int>(t)].push_back({REQUEST, 0, counter, static_cast<char>(t + 1)});
        Add(aState);
    }

    void Send(CState aState, BOOL aServer) {
        CEnd& end = aServer ? aState.m_Server : aState.m_Client;
        if (!end.m_Up || end.m_Current > MESSAGES)
            return;
        const auto t = static_cast<size_t>(end.m_Transport);
        const BOOL bTaken = aServer ? aState.m_Client.m_Transport == end.m_Transport
                                    : aState.m_Server.m_Transport == end.m_Transport || !aState.m_Up[t].empty();
        if (bTaken)  // otherwise the other end has closed it, and nothing arrives
            (aServer ? aState.m_Down : aState.m_Up)[t].push_back({DATA, end.m_Current, end.m_Received, 0});
        end.m_New = std::max<char>(end.m_New, static_cast<char>(end.m_Current + 1));
        ++end.m_Current;
        Add(aState);
    }

    void Arrive(CState aState, char aTransport, BOOL aAtServer) {
        auto& line = (aAtServer ? aState.m_Up : aState.m_Down)[static_cast<int>(aTransport)];
        const CPacket packet = line.front();
        line.erase(line.begin());
        CEnd& end = aAtServer ? aState.m_Server : aState.m_Client;
        if (packet.m_Kind == REQUEST)
            return Ask(aState, packet, aTransport);
        if (end.m_Transport != aTransport)
            return;  // its end is closed
        if (packet.m_Kind == RESPONSE) {
            if (!end.IsResumePoint(packet.m_Counter))
                return Fail("an honest response is refused");
            end.Resume(packet.m_Counter, aTransport);
            return Add(aState);
        }
        end.m_Acked = std::max(end.m_Acked, packet.m_Counter);
        TakeData(end, packet);
        Add(aState);
        // The same, with the transport lost inside the upcall.
        if (m_Fault == COUNT_BEHIND_UPCALL)
            --end.m_Received;
        Close(aState, aTransport, aAtServer);
        end.Lose(m_Fault);
        Add(aState);
    }

    void TakeData(CEnd& aEnd, const CPacket& aPacket) {
        ++aEnd.m_Received;
        if (aPacket.m_Number != ++aEnd.m_Delivered)
            Fail(aPacket.m_Number < aEnd.m_Delivered ? "a message is doubled" : "a message is lost");
    }

    // Of a transport that the client may have given up.
    void Ask(CState& aState, const CPacket& aRequest, char aTransport) {
        CEnd& server = aState.m_Server;
        const BOOL bCurrent = aState.m_Client.m_Transport == aTransport;
        const BOOL bLate = m_Form == TOKEN && aRequest.m_Attempt <= aState.m_TakenAttempt;
        if (bLate || !server.IsResumePoint(aRequest.m_Counter)) {
            if (bCurrent)
                Fail("an honest request is refused");
            return Add(aState);
        }
        char counter = server.m_Received;
        if (server.m_Transport != CLOSED) {
            auto& old = aState.m_Up[static_cast<int>(server.m_Transport)];
            if (m_Fault == READ_BEFORE_DROP && !old.empty())
                TakeData(server, old.front());
            Close(aState, server.m_Transport, TRUE);
            server.Lose(m_Fault);
        }
        if (m_Fault != READ_BEFORE_DROP)
            counter = server.m_Received;
        aState.m_TakenAttempt = aRequest.m_Attempt;
        server.Resume(aRequest.m_Counter, aTransport);
        if (bCurrent)
            aState.m_Down[static_cast<int>(aTransport)].push_back({RESPONSE, 0, counter, aRequest.m_Attempt});
        Add(aState);
    }

    const EForm m_Form;
    const EFault m_Fault;
    std::unordered_set<std::string> m_Seen;
    std::vector<CState> m_Open;
    size_t m_stComplete = 0;
    std::string m_strFault;
};

}  // namespace

TEST(RlbModelTest, NoOrderOfEventsLosesOrDoublesAMessage) {
    for (const EForm form : {PLAIN, TOKEN}) {
        CSearch search(form, NONE);
        EXPECT_EQ("", search.Run());
        EXPECT_LT(0u, search.CountComplete());
    }
}

// Each rule is necessary: without it the search finds a path to a copy.
TEST(RlbModelTest, EachBrokenRuleIsFound) {
    for (const EFault fault : {COUNT_BEHIND_UPCALL, READ_BEFORE_DROP, REPEAT_CACHED_REQUEST})
        EXPECT_EQ("a message is doubled", CSearch(TOKEN, fault).Run()) << fault;
    EXPECT_EQ("a message is doubled", CSearch(PLAIN, KEEP_REWOUND_ITEM).Run());
    EXPECT_EQ("", CSearch(TOKEN, KEEP_REWOUND_ITEM).Run());  // there is no late request
}
