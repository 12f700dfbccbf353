// Connects in a simulated network.
#pragma once

#include <memory>

#include "talvo/testing/sim_core.h"
#include "talvo/transport/connector_internal.h"
#include "talvo/transport/socket_settings.h"

class ICmReactor;

namespace talvo {

class CSimConnector final : public ACmConnectorInternal {
public:
    // aReactor is a CSimReactor.
    CSimConnector(ICmReactor* aReactor, ACmConnectorUpper& aUpper, BOOL aDatagrams);
    ~CSimConnector() override;

    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override { m_pAttempt.reset(); }
    CmResult SetOption(DWORD aCommand, void* aArg) override { return m_Sizes.SetOption(aCommand, aArg); }
    CmResult GetOption(DWORD aCommand, void* aArg) override { return m_Sizes.GetOption(aCommand, aArg); }

private:
    struct CAttempt {
        CCmInetAddr m_AddrLocal;
        CCmInetAddr m_AddrPeer;
    };

    void After_i(int64_t aDelay, void (CSimConnector::*aRun)());
    std::function<void()> IfStill_i(void (CSimConnector::*aRun)());
    void Finish_i();
    void GiveUp_i();
    void FailName_i();
    void Fail_i(CmResult aReason, const CCmFailure& aFailure);
    void Succeed_i();
    void Answer_i(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer);

    const std::shared_ptr<CSimCore> m_pCore;
    ICmReactor* const m_pReactor;  // not owned
    ACmConnectorUpper& m_Upper;
    const BOOL m_bDatagrams;
    CSocketSettings m_Sizes;
    std::shared_ptr<CAttempt> m_pAttempt;  // while it runs
};

}  // namespace talvo
