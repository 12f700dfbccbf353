// The part that transports and protocol connections take in the orderly end of their thread.
#pragma once

#include "talvo/event/thread_link.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// From its opening on, and unless a layer above does that, it is ended in order with its thread: see ECmDrainStage.
class TALVO_API CDrainedTransport : public ICmTransport, protected CCmThreadTenant {
protected:
    // CM_OPT_TRANSPORT_LAYERED. CM_OK.
    CmResult SetLayered_i(BOOL aLayered);
    BOOL IsLayered_i() const { return m_bLayered; }

    // It has a sink from now on.
    void Opened_i();

    ICmTransportSink* m_pSink =
        nullptr;  // not owned; set by OpenWithSink, cleared when the connection has ended or is released

private:
    // Ends the connection: what was taken still goes out, unless aCut. The sink is told afterwards.
    virtual void EndInOrder_i(BOOL aCut) = 0;

    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override;

    BOOL m_bLayered = FALSE;  // a layer above ends it in order
};

}  // namespace talvo
