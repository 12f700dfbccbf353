// The calls of a user of a forward session.
#pragma once

#include "talvo/session/forward_session.h"

namespace talvo {

// Passes them to the core of Base, which is an ICmForwardSession with a member m_pCore.
template <class Base>
class CForwardHandleT : public Base {
public:
    CmResult AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId) override {
        return this->m_pCore->AddReceiver(aTransport, aOptions, aId);
    }
    CmResult RemoveReceiver(DWORD aId, CmResult aReason) override { return this->m_pCore->RemoveReceiver(aId, aReason); }
    CmResult Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader) override {
        return this->m_pCore->Forward(aData, aHeader);
    }
    CmResult SetOption(DWORD aCommand, void* aArg) override { return this->m_pCore->SetOption(aCommand, aArg); }
    CmResult GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId) override {
        return this->m_pCore->GetStatistics(aStatistics, aId);
    }
    CCmString Dump() override { return this->m_pCore->Dump(); }
    CmResult Close(CmResult aReason) override { return this->m_pCore->Close(aReason); }

protected:
    using Base::Base;
};

}  // namespace talvo
