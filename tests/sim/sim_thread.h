// A thread of the application beside the network thread, in the one thread of a simulation.
#pragma once

#include "talvo/event/event_queue_using_mutex.h"
#include "talvo/event/thread.h"
#include "talvo/testing/testing.h"

// Proxies take it for their user's thread. Its events wait in a queue of its own and run some simulated time later, a few at
// once. It is never started. Calls of proxies from anywhere in the simulation are those of a user's thread at that moment.
class CSimThread final : public ACmThread {
public:
    explicit CSimThread(CCmSimNetwork& aNetwork) : m_Network(aNetwork) { GetLink().BindToCurrentThread(); }
    ~CSimThread() override { CloseLink(); }

    void OnThreadRun() override {}
    ICmEventQueue* GetEventQueue() override { return &m_Queue; }

    // Call it after each step of the network: it schedules the events that have been posted.
    void Look() {
        if (m_bScheduled || m_Queue.GetPendingEventsCount() == 0)
            return;
        m_bScheduled = TRUE;
        m_Network.After(m_Network.RandomTime(CCmTimeValue(0, 20000)), [this] { Run_i(); });
    }

private:
    void Run_i() {
        CCmEventQueueUsingMutex::EventsType events;
        m_bScheduled = FALSE;
        m_Queue.PopPendingEventsWithLock(events, 5, nullptr);
        m_Queue.ProcessEvents(events);
    }

    CCmSimNetwork& m_Network;
    CCmEventQueueUsingMutex m_Queue;
    BOOL m_bScheduled = FALSE;
};
