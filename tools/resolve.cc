#include "tools/application.h"
#include "tools/commands.h"
#include "tools/console.h"

namespace tool {

namespace {

// Looks up one name after another, so that a name given twice comes from the cache.
class Resolver : private ICmObserver {
public:
    Resolver(const Arguments& aArguments, Application& aApplication, Console& aConsole)
        : m_vecNames(aArguments.m_vecNames), m_Application(aApplication), m_Console(aConsole) {}
    ~Resolver() override { CCmDnsManager::Instance()->CancelResolve(this); }
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    // Continues until a look-up has to wait.
    void AskNext() {
        while (m_nNext < m_vecNames.size()) {
            const std::string& strName = m_vecNames[m_nNext++];
            CCmRefPtrT<CCmDnsRecord> pRecord;
            const CmResult rv = CCmDnsManager::Instance()->AsyncResolve(pRecord.ParaOut(), strName, this);
            if (rv == CM_ERROR_WOULD_BLOCK)
                return;
            if (rv == CM_OK)
                Show(*pRecord, "cache");
            else
                ShowFailure(strName, DescribeResult(rv));
        }
        m_Application.Finish(m_nStatus);
    }

private:
    void OnObserve(const char*, void* aData) override {
        Show(*static_cast<const CCmDnsRecord*>(aData), "lookup");
        AskNext();
    }

    void Show(const CCmDnsRecord& aRecord, const char* aSource) {
        if (aRecord.GetState() == CCmDnsRecord::FAILED) {
            ShowFailure(aRecord.GetName(), aRecord.GetReason());
            return;
        }
        std::string strAddresses;
        for (const talvo::CIpBytes& ip : aRecord.GetAddresses())
            strAddresses += (strAddresses.empty() ? "" : " ") + ip.GetText();
        const DWORD dwTtl = aRecord.GetTimeToLive();
        m_Console.Result(aRecord.GetName() + ": " + strAddresses + ", ttl " + std::to_string(dwTtl) + " s, from " + aSource,
                         JsonLine("resolved")
                             .Add("name", aRecord.GetName())
                             .Add("addresses", strAddresses)
                             .Add("ttl", dwTtl)
                             .Add("from", aSource));
    }

    void ShowFailure(const std::string& aName, const std::string& aReason) {
        m_Console.Problem("cannot resolve '" + aName + "': " + aReason,
                          JsonLine::Failed({CAUSE_NAME, aReason}).Add("name", aName));
        m_nStatus = EXIT_FAILED;
    }

    const std::vector<std::string>& m_vecNames;
    Application& m_Application;
    Console& m_Console;
    size_t m_nNext = 0;
    int m_nStatus = EXIT_OK;
};

}  // namespace

int RunResolve(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    Resolver resolver(aArguments, application, console);
    resolver.AskNext();
    return application.Run();
}

}  // namespace tool
