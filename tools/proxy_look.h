// The look of `talvo proxy` at the user's proxies.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"

namespace tool {

// Shows the settings, then the routes of the URLs, one after another, so that a URL given twice comes from the cache. With
// --script that script answers. Finishes the application: EXIT_FAILED after a failure, such as that of a script. Main thread,
// which is the network thread.
class ProxyLook : private ICmObserver, private ICmProxyScriptSink {
public:
    ProxyLook(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~ProxyLook() override;
    ProxyLook(const ProxyLook&) = delete;
    ProxyLook& operator=(const ProxyLook&) = delete;

    void Start();

private:
    // The answer to FindSettings or to Find.
    void OnObserve(const char* aTopic, void* aData) override;
    void OnProxyScriptAlert(const CCmString& aText) override;
    void OnProxyScriptEnd(CmResult aReason, const CCmString& aText) override;

    void AskNext();
    CmResult Ask(const std::string& aUrl);
    void ShowSettings(const CCmProxyAnswer& aAnswer);
    void ShowAnswer(const CCmProxyAnswer& aAnswer, bool aKept);
    void ShowRoute(const std::string& aRoute, const std::string& aSource, bool aKept);
    void ShowFailure(const std::string& aUrl, const Failure& aFailure);
    void ShowSettingsFailure(CmResult aResult);

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    Failure m_ScriptFailure;                    // its last one, which may be the cause why it cannot be asked again
    std::unique_ptr<CCmProxyScript> m_pScript;  // null without --script
    bool m_bSettings;                           // the next answer has the settings
    size_t m_nNext = 0;
    std::string m_strUrl;  // asked for
    int64_t m_llAsked = 0;
    int m_nStatus = EXIT_OK;
};

}  // namespace tool
