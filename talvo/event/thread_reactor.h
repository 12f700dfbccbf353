// A thread that runs a reactor's loop.
#pragma once

#include <memory>

#include "talvo/event/thread.h"

// Its queues are the reactor's, which it owns.
class TALVO_API CCmThreadReactor : public ACmThread {
public:
    ~CCmThreadReactor() override;

    // Transfers the reactor to the thread, before Create. CM_ERROR_ALREADY_INITIALIZED: it has one, and aReactor stays the
    // caller's. CM_ERROR_INVALID_ARG: null.
    CmResult AttachReactor(ICmReactor* aReactor);

    CmResult Create(int aType, TFlag aFlag = CCmThreadManager::TF_JOINABLE) override;
    // CM_ERROR_NOT_INITIALIZED: no reactor.
    CmResult Stop(CCmTimeValue* aTimeout = nullptr) override;
    void OnThreadInit() override;
    // Runs the loop until Stop and closes the reactor. An adopted main thread may call it, once. Inside a callback of the loop
    // it does nothing.
    void OnThreadRun() override;

    ICmReactor* GetReactor() override { return m_pReactor.get(); }
    ICmEventQueue* GetEventQueue() override { return m_pReactor.get(); }
    ICmTimerQueue* GetTimerQueue() override { return m_pReactor.get(); }

private:
    std::unique_ptr<ICmReactor> m_pReactor;
};
