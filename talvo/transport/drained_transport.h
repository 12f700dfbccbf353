// The common part of transports and protocol connections in the graceful end of their thread.
#pragma once

#include "talvo/event/thread_link.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// From its opening on, it ends gracefully with its thread, unless a layer above ends it: see ECmDrainStage.
class TALVO_API CDrainedTransport : public ICmTransport, protected CCmThreadTenant {
public:
    // Any thread.
    virtual CmBool IsOfThisThread() const = 0;

protected:
    // CM_OPT_TRANSPORT_LAYERED. CM_OK.
    CmResult SetLayered_i(CmBool aLayered);
    CmBool IsLayered_i() const { return m_bLayered; }

    // From now on it has a sink.
    void Opened_i();

    // Call it before a failed connection drops its data. CM_OPT_TRANSPORT_UNACKNOWLEDGED then returns m_dwLost.
    void NoteLost_i();

    ICmTransportSink* m_pSink =
        nullptr;  // not owned; set by OpenWithSink, cleared when the connection has ended or is released

private:
    // Ends the connection: data taken is still sent, unless aCut. Then the sink is notified.
    virtual void EndInOrder_i(CmBool aCut) = 0;

    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;

    CmBool m_bLayered = CM_FALSE;  // a layer above ends it gracefully

protected:
    CmDword m_dwLost = 0;  // bytes in flight at the failure
};

}  // namespace talvo
