// The engine of the scripts.
#pragma once

#include <cstdint>
#include <string>

struct duk_hthread;

namespace pac {

// The end of a load or of a question.
struct Outcome {
    bool m_bOk = false;
    std::string m_strText;  // the answer, or the error in words
    uint32_t m_uLine = 0;   // of the error; 0: unknown
};

// Runs one script at a time, in a heap of at most 64 MiB. A question sees the global variables that earlier ones have left.
class Engine {
public:
    Engine() = default;
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Replaces the script. An error leaves no script.
    Outcome Load(const std::string& aScript);

    // Calls FindProxyForURLEx, or FindProxyForURL if there is none.
    Outcome Find(const std::string& aUrl, const std::string& aHost);

private:
    using Step = int (*)(duk_hthread* aContext, void* aArguments);

    Outcome Run_i(Step aStep, void* aArguments);

    duk_hthread* m_pContext = nullptr;  // null: no script
};

}  // namespace pac
