// Detects changes of the machine's addresses and routes.
#pragma once

#include "talvo/event/reactor.h"

namespace talvo {

class INetworkWatchUser {
public:
    // Addresses or routes have changed, and then nothing more for 2 s. The watch may be destroyed inside.
    virtual void OnNetworkChanged() = 0;

protected:
    virtual ~INetworkWatchUser() = default;
};

// Of one reactor's thread. If the system refuses the socket, the watch writes one trace line and reports nothing.
class TALVO_API CNetworkWatch final : private ACmEventHandler, private ICmTimerHandler {
public:
    CNetworkWatch(ICmReactor& aReactor, INetworkWatchUser& aUser);
    ~CNetworkWatch() override;

    // A message has come; for tests, too.
    void OnMessages();

private:
    HANDLE GetHandle() const override { return m_Fd; }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    BOOL Open_i();
    void Close_i();

    ICmReactor& m_Reactor;
    INetworkWatchUser& m_User;
    HANDLE m_Fd = CM_INVALID_HANDLE;
};

}  // namespace talvo
