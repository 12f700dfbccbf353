// The lines that `talvo publish` forwards.
#pragma once

#include <string>

#include "talvo/talvo.h"
#include "tools/line_splitter.h"

namespace tool {

class LineSink {
public:
    // false: not taken. The source stops and offers the same line again after GoOn.
    virtual bool OnLine(const Line& aLine) = 0;
    // The last line was taken. aProblem: "" or why no more can be read.
    virtual void OnEnd(const std::string& aProblem) = 0;
    virtual ~LineSink() = default;
};

// Reads lines from a terminal, a pipe or a file, at most aRate a second (0: no limit), each of at most aLongest bytes. Main
// thread.
class LineSource : private ACmEventHandler, private CCmTimerWrapperIDSink {
public:
    LineSource(LineSink& aSink, DWORD aRate, size_t aLongest);
    ~LineSource() override;
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;

    // aPath: "" is stdin. Returns "" or an error text.
    std::string Start(const std::string& aPath);
    void GoOn();

private:
    HANDLE GetHandle() const override { return m_nFd; }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void Turn();
    bool OfferNext();
    bool Read();
    void Await(bool aInput);
    void Finish(const std::string& aProblem);
    int64_t GetWait() const;

    LineSink& m_Sink;
    const DWORD m_dwRate;
    int m_nFd = -1;
    bool m_bPolled = false;      // the reactor reports input
    bool m_bRegistered = false;  // now
    bool m_bAtEnd = false;       // of the input
    bool m_bRefused = false;     // m_Line waits for GoOn
    bool m_bHasLine = false;
    Line m_Line;
    LineSplitter m_Splitter;
    CCmTimerWrapperID m_Timer;  // the next turn
    uint64_t m_ullTaken = 0;
    int64_t m_llStart = 0;  // microseconds
};

}  // namespace tool
