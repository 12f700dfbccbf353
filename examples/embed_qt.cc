// The library inside the loop of Qt, without a thread between the two: timers of Qt and connections of the library.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <cstdio>

#include "talvo/callbacks.h"

// Runs a reactor in the loop of the calling thread, until StopEventLoop, which ends that loop.
class ReactorInQt {
public:
    explicit ReactorInQt(ICmEmbeddedLoop& aLoop) : m_Loop(aLoop), m_Ready(aLoop.GetPollHandle(), QSocketNotifier::Read) {
        m_Timer.setSingleShot(true);
        QObject::connect(&m_Ready, &QSocketNotifier::activated, [this] { Turn(); });
        QObject::connect(&m_Timer, &QTimer::timeout, [this] { Turn(); });
        Turn();
    }

private:
    void Turn() {
        m_Ready.setEnabled(false);  // a dialog that a callback opens runs a loop of its own
        if (m_Loop.RunOnce() != CM_OK)
            return QCoreApplication::quit();
        m_Ready.setEnabled(true);
        const int nWait = m_Loop.GetTimeout();
        if (nWait < 0)
            m_Timer.stop();
        else
            m_Timer.start(nWait);
    }

    ICmEmbeddedLoop& m_Loop;
    QSocketNotifier m_Ready;
    QTimer m_Timer;
};

int main(int argc, char** argv) {
    talvo::application app;
    QCoreApplication qt(argc, argv);
    const auto bound = app.listen("127.0.0.1:0", talvo::package, [](talvo::connection& aPeer) {
        aPeer.on_receive([](talvo::connection& aSelf, const talvo::received& aData) { aSelf.send(aData); });
    });
    if (!bound)
        return 1;
    int nAnswers = 0;
    talvo::connection client = app.connect(bound->to_string(), talvo::package);
    client.on_receive([&](const talvo::received& aData) {
        std::printf("answer %d: %s\n", ++nAnswers, aData.str().c_str());
        if (nAnswers == 3)
            app.stop();
    });
    QTimer pause;
    QObject::connect(&pause, &QTimer::timeout, [&] { client.send("hello"); });
    pause.start(20);
    const ReactorInQt reactor(*app.embedded_loop());
    QCoreApplication::exec();
    return nAnswers == 3 ? 0 : 1;
}
