// Connections with callbacks over simulated links.
#include "talvo/callbacks.h"

#include "talvo/testing/testing.h"
#include "tests/support/test.h"

namespace {

using talvo::connection;
using talvo::received;
using namespace std::chrono_literals;

const std::string SERVER = "10.0.0.1:7000";
const CCmTimeValue LONG(3600);

// What one end has done and may still be called for. Both ends of a connection send the bytes 0, 1, 2, ...
struct CRecord {
    CRecord() { ++s_nLive; }
    ~CRecord() { --s_nLive; }
    uint8_t m_Sent = 0;
    uint8_t m_Received = 0;
    bool m_bOver = false;
    int m_nCalls = 0;
    const connection* m_pHolder = nullptr;  // null: it owns itself
    static inline int s_nLive = 0;
};
using CRecordPtr = std::shared_ptr<CRecord>;

// An application that sends, pauses, closes, moves, replaces and destroys at random, above all inside callbacks.
class CWildUser {
public:
    explicit CWildUser(CCmSimNetwork& aNetwork) : m_Network(aNetwork), m_Kind(KINDS[aNetwork.Random(std::size(KINDS))]) {
        Listen();
        for (int i = 0; i < 3; ++i)
            Connect();
    }
    ~CWildUser() { *m_pGone = true; }
    void Act();

private:
    struct CSlot {
        connection m_Connection;
        CRecordPtr m_pRecord;
    };
    static constexpr talvo::kind KINDS[] = {talvo::tcp, talvo::length, talvo::package, talvo::reliable,
                                            talvo::package.over(talvo::udp)};

    void Listen() {
        m_pListener = std::make_unique<talvo::listener>();
        m_pListener->listen(SERVER, m_Kind, [this](connection& aPeer) { Accept(aPeer); });
    }
    void Accept(connection& aPeer) {
        const auto pRecord = std::make_shared<CRecord>();
        Equip(aPeer, pRecord);
        if (m_Network.Chance(0.5))
            Store(std::move(aPeer), pRecord);
        if (m_Network.Chance(0.2))
            Act();
    }
    void Connect() {
        const auto pRecord = std::make_shared<CRecord>();
        connection made = talvo::connect(SERVER, m_Kind, {.timeout = m_Network.Chance(0.5) ? 5s : 0s});
        Equip(made, pRecord);
        Store(std::move(made), pRecord);
    }
    void Store(connection aConnection, const CRecordPtr& aRecord) {
        CSlot& slot = *(m_Slots[++m_nLast] = std::make_unique<CSlot>(CSlot{std::move(aConnection), aRecord}));
        aRecord->m_pHolder = &slot.m_Connection;
    }
    // For what may outlive this object: posts, and connections that own themselves.
    template <class Function>
    auto WhileHere(Function aFunction) {
        return [pGone = m_pGone, aFunction](auto&... aArguments) {
            if (!*pGone)
                aFunction(aArguments...);
        };
    }
    void Equip(connection& aPeer, const CRecordPtr& aRecord) {
        const auto called = WhileHere([this, aRecord](connection& aSelf) { Called(aSelf, aRecord); });
        aPeer.on_open([called](connection& aSelf) { called(aSelf); });
        aPeer.on_send([called](connection& aSelf) { called(aSelf); });
        aPeer.on_receive([called, aRecord, this, pGone = m_pGone](connection& aSelf, const received& aData) {
            for (const char c : aData.view()) {
                const bool bNext = static_cast<uint8_t>(c) == aRecord->m_Received++;
                if (!*pGone)
                    Check(bNext || m_Kind == KINDS[4], "bytes are lost or doubled");
            }
            called(aSelf);
        });
        aPeer.on_end(WhileHere([this, aRecord](connection&, std::error_code) {
            Check(!aRecord->m_bOver, "ended after its end");
            aRecord->m_bOver = true;
            Act();
        }));
    }
    void Called(connection& aSelf, const CRecordPtr& aRecord) {
        Check(!aRecord->m_bOver && aSelf, "called after its end");
        if (m_Network.Chance(0.7))
            Send(aSelf, *aRecord);
        else
            Act(&aSelf, aRecord);
        ++aRecord->m_nCalls;  // the running callable still exists
    }
    void Send(connection& aSelf, CRecord& aRecord) {
        std::string strData(1 + m_Network.Random(m_Network.Chance(0.2) ? 3000 : 20), '\0');
        uint8_t cNext = aRecord.m_Sent;
        for (char& c : strData)
            c = static_cast<char>(cNext++);
        if (!aSelf.send(strData))
            aRecord.m_Sent = cNext;
    }
    void Act(connection* aSelf, const CRecordPtr& aRecord);
    void Check(bool aHolds, const char* aText) {
        if (!aHolds)
            m_Network.Fail(aText);
    }

    CCmSimNetwork& m_Network;
    const talvo::kind m_Kind;
    const std::shared_ptr<bool> m_pGone = std::make_shared<bool>(false);
    std::unique_ptr<talvo::listener> m_pListener;
    std::map<int, std::unique_ptr<CSlot>> m_Slots;
    int m_nLast = 0;
    std::map<uint64_t, talvo::timer> m_Timers;
};

void CWildUser::Act() {
    const auto itSlot = m_Slots.lower_bound(static_cast<int>(m_Network.Random(static_cast<uint64_t>(m_nLast) + 1)));
    if (itSlot == m_Slots.end())
        return Connect();
    CSlot& slot = *itSlot->second;
    if (slot.m_pRecord->m_pHolder != &slot.m_Connection) {  // moved away
        m_Slots.erase(itSlot);
        return;
    }
    switch (m_Network.Random(8)) {
    case 0:
        slot.m_pRecord->m_bOver = true;
        m_Slots.erase(itSlot);
        return;
    case 1:
        Store(std::move(slot.m_Connection), slot.m_pRecord);
        m_Slots.erase(itSlot);
        return;
    case 2:
        m_pListener.reset();
        return Listen();
    case 3:
        m_Timers[m_Network.Random(3)].after(std::chrono::milliseconds(m_Network.Random(3000)), [this] { Act(); });
        return;
    case 4:
        m_Timers.erase(m_Network.Random(3));
        return;
    case 5:
        talvo::loop::current().post(WhileHere([this] { Act(); }));
        return;
    case 6:
        return Connect();
    default:
        return Act(&slot.m_Connection, slot.m_pRecord);
    }
}

void CWildUser::Act(connection* aSelf, const CRecordPtr& aRecord) {
    switch (m_Network.Random(7)) {
    case 0:
        aRecord->m_bOver = true;
        aSelf->close();
        return Check(!*aSelf && !aSelf->is_full(), "open after its end");
    case 1:
        return aSelf->pause();
    case 2:
        return Equip(*aSelf, CRecordPtr(aRecord));  // the running callable and its record are replaced
    case 3:
        if (!*aSelf)
            return;
        return Store(std::move(*aSelf), aRecord);
    case 4:
        return Act();
    default:
        aSelf->resume();
        if (*aSelf)
            Send(*aSelf, *aRecord);
    }
}

}  // namespace

TEST(CallbacksTest, AWildApplicationIsCalledForLivingConnectionsOnly) {
    CCmSimRun failed;
    const auto scenario = [](CCmSimNetwork& aNetwork) {
        aNetwork.SetLink({aNetwork.RandomStorm(), aNetwork.RandomStorm()});
        CWildUser user(aNetwork);
        for (int i = 0; i < 40; ++i) {
            aNetwork.RunFor(aNetwork.RandomTime(CCmTimeValue(2)));
            user.Act();
        }
    };
    EXPECT_TRUE(cm_sim_run_seeds(scenario, 1, 60, failed)) << failed.m_ullSeed << ' ' << failed.m_strTrace;
    EXPECT_EQ(0, CRecord::s_nLive);
}

TEST(CallbacksTest, EveryByteTakenArrivesAndTheEndHasACause) {
    CCmSimNetwork network(1);
    network.SetPath({.m_dwBuffer = 1000});
    talvo::application app;
    std::string strGot, strEnds;
    size_t stServer = 0;
    EXPECT_EQ(talvo::errc::invalid_argument, app.listen("nowhere", talvo::tcp, [] {}).error());
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, app.run());
    EXPECT_EQ("talvo: cannot listen on nowhere: an argument is out of range or unknown\n",
              testing::internal::GetCapturedStderr());
    const auto ends = [&](const char* aName) {
        return [&, aName](std::error_code aCode) { strEnds += aName + (' ' + aCode.message() + ", "); };
    };
    ASSERT_TRUE(app.listen(SERVER, talvo::tcp, [&](connection& aPeer) {  // echoes 5000 bytes, with back-pressure
        aPeer.on_receive([&](connection& aSelf, const received& aData) {
            stServer += aData.size();
            EXPECT_TRUE(stServer > 5000 || !aSelf.send(aData));
            if (aSelf.is_full())
                aSelf.pause();
        });
        aPeer.on_send([](connection& aSelf) { aSelf.resume(); });
        aPeer.on_end(ends("server"));
    }));
    connection client = app.connect(SERVER, talvo::tcp);
    EXPECT_EQ(talvo::errc::not_available, client.send("too early"));
    client.on_open([](connection& aSelf) {
        EXPECT_FALSE(aSelf.send(std::string(5000, 'x')));
        EXPECT_TRUE(aSelf.is_full() && aSelf.send("y") == std::errc::operation_would_block);
    });
    network.RunFor(LONG);  // without on_receive nothing is read, and nothing is lost
    EXPECT_TRUE(client.is_full());
    client.on_receive([&](const received& aData) { strGot += aData; });
    network.RunFor(LONG);
    EXPECT_EQ(std::string(5000, 'x'), strGot);
    EXPECT_FALSE(client.send(std::string(3000, 'z')));
    client.close();  // with a rest that waits for room
    EXPECT_EQ(talvo::errc::not_initialized, client.send("too late"));
    network.RunFor(CCmTimeValue(60));
    EXPECT_EQ("server success, ", strEnds);
    EXPECT_EQ(8000u, stServer);

    strEnds.clear();
    connection refused = talvo::connect("10.0.0.2:1", talvo::tcp);
    refused.on_end(ends("refused"));
    connection malformed = talvo::connect("nowhere", talvo::tcp);
    malformed.on_end(ends("malformed"));
    connection drained = app.connect(SERVER, talvo::tcp);
    drained.on_end(ends("drained"));
    talvo::timer timer;
    EXPECT_FALSE(timer.after(10s, [&] { app.stop(3); }));
    EXPECT_EQ(3, app.run());
    EXPECT_EQ(
        "malformed an argument is out of range or unknown, refused Connection refused, "
        "server the library closed the connection, drained the library closed the connection, ",
        strEnds);
}

// One read brings several messages. The peer breaks the connection, after which an unwanted rest delays the end only until a
// send fails.
TEST(CallbacksTest, APauseHoldsEverythingBackAndLosesNothing) {
    enum { RESUMES, IS_FULL, HAS_NO_READER };
    for (const talvo::kind kind : {talvo::tcp, talvo::length, talvo::package}) {
        for (const auto user : {RESUMES, IS_FULL, HAS_NO_READER}) {
            CCmSimNetwork network(1);
            network.SetPath({.m_dwBuffer = 300000});
            talvo::listener listener;
            connection peer;
            listener.listen(SERVER, kind, [&](connection& aPeer) { peer = std::move(aPeer); });
            connection client = talvo::connect(SERVER, kind);
            size_t stGot = 0;
            bool bPaused = false;
            std::error_code end;
            client.on_end([&](std::error_code aCode) { end = aCode; });
            if (user != HAS_NO_READER)
                client.on_receive([&](connection& aSelf, const received& aData) {
                    EXPECT_FALSE(bPaused && user == RESUMES);
                    stGot += aData.size();
                    bPaused = stGot < 5000;
                    if (bPaused)
                        aSelf.pause();
                });
            network.RunFor(CCmTimeValue(1));
            for (int i = 0; i < 200; ++i)
                EXPECT_FALSE(peer.send(std::string(100, 'x')));
            network.RunFor(CCmTimeValue(1));
            CCmSimLink link;
            link.m_Up.m_dwBuffer = user == IS_FULL ? 10 : 300000;
            network.SetLink(link);
            for (int i = 0; i < 10 && user == IS_FULL && !client.is_full(); ++i)
                client.send(std::string(60000, 'y'));
            link.m_Down = {.m_ullCutAfter = 1, .m_dwBuffer = 300000};
            network.SetLink(link);
            peer.send("it breaks");
            network.RunFor(LONG);
            EXPECT_EQ(user == IS_FULL, bool{end}) << user;
            while (user == RESUMES && bPaused) {
                EXPECT_FALSE(end);
                bPaused = false;
                client.resume();
                network.RunFor(CCmTimeValue(1));
            }
            EXPECT_TRUE(user != HAS_NO_READER || client.send("lost"));
            network.RunFor(CCmTimeValue(1));
            EXPECT_EQ(std::errc::connection_reset, end) << user;
            EXPECT_EQ(user == HAS_NO_READER ? 0u : 20000u, stGot) << user;
        }
    }
}

TEST(CallbacksTest, ObjectsThatOutliveTheirThreadAreHarmless) {
    talvo::application app({.own_network_thread = true, .handle_signals = false});
    ASSERT_FALSE(app.error());
    EXPECT_EQ(talvo::errc::already_initialized, talvo::application().error());
    EXPECT_EQ(talvo::errc::already_initialized, talvo::application().connect("127.0.0.1:1", talvo::tcp).error());
    auto pWorker = std::make_unique<talvo::thread>();
    connection client, other;
    talvo::listener listener;
    talvo::timer timer;
    CCmSemaphoreThread opened;
    EXPECT_TRUE(pWorker->call([&] {
        EXPECT_FALSE(listener.listen("127.0.0.1:0", talvo::tcp, [](connection&) {}));
        for (connection* pEnd : {&client, &other}) {
            *pEnd = talvo::connect(listener.local_address(), talvo::tcp);
            pEnd->on_open([&] { opened.UnLock(); }).on_end([] { ADD_FAILURE() << "called after the destruction"; });
        }
        EXPECT_FALSE(timer.every(1h, [] {}));
    }));
    opened.Lock();
    opened.Lock();
    // In a foreign thread each operation is refused, but for the destruction, which happens in the connection's own thread.
    EXPECT_EQ(talvo::errc::failure, client.send("x"));
    EXPECT_EQ(talvo::errc::failure, timer.after(1s, [] {}));
    std::thread::id ended;
    EXPECT_TRUE(pWorker->call([&] {
        other.on_send([pEnd = std::shared_ptr<void>(nullptr, [&](void*) {
                           ended = std::this_thread::get_id();
                           opened.UnLock();
                       })] {});
    }));
    other = connection();
    opened.Lock();
    EXPECT_NE(std::this_thread::get_id(), ended);
    timer.cancel();
    EXPECT_TRUE(timer.is_running());
    EXPECT_THROW(pWorker->call([] { throw 1; }), int);
    EXPECT_EQ(5, app.call([] { return 5; }).value());
    EXPECT_EQ(ended, app.call([&]() -> std::thread::id& { return ended; }).value());
    const talvo::loop loop = pWorker->loop();
    pWorker.reset();
    EXPECT_FALSE(client || listener || timer.is_running());
    EXPECT_EQ(talvo::errc::not_initialized, client.send("x"));
    EXPECT_EQ(talvo::errc::not_available, loop.post([] {}));
    EXPECT_EQ(talvo::errc::not_available, loop.call([] {}).error());
    EXPECT_EQ(talvo::errc::not_initialized, talvo::loop().post([] {}));
}

TEST(CallbacksTest, AnotherThreadThatDestroysWaitsForTheCallback) {
    const talvo::application app({.handle_signals = false});
    const talvo::thread worker;
    CCmSemaphoreThread called;
    std::atomic<bool> bDestroys = false, bReturns = false;
    talvo::timer timer;
    EXPECT_TRUE(worker.call([&] {
        timer.after(0s, [&] {
            called.UnLock();
            while (!bDestroys)
                std::this_thread::yield();
            for (int i = 0; i < 1000; ++i)
                std::this_thread::yield();
            bReturns = true;
        });
    }));
    called.Lock();
    bDestroys = true;
    timer = talvo::timer();
    EXPECT_TRUE(bReturns);
}
