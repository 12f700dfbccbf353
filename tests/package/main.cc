// Uses the installed library as an application would: parses an address and shares one payload between two message blocks.
#include <talvo/talvo.h>

#include <cstdio>

int main() {
    const CCmInetAddr addr("127.0.0.1:7070");
    const char szHello[] = "hello";
    CCmMessageBlock block(sizeof(szHello), nullptr, 0, 0);
    block.Write(szHello, sizeof(szHello), nullptr);

    CCmMessageBlock* pShared = block.DuplicateChained();
    if (!pShared)
        return 1;
    const bool bSame = pShared->FlattenChained() == CCmString(szHello, sizeof(szHello));
    std::printf("%s, port %u, %u bytes\n", addr.GetIpDisplayName().c_str(), unsigned{addr.GetPort()},
                unsigned(pShared->GetChainedLength()));
    pShared->DestroyChained();
    return bSame && addr.IsResolved() && addr.GetPort() == 7070 ? 0 : 1;
}
