#include "tools/pac/engine.h"

#include <duktape.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/pac/functions.h"

namespace pac {

namespace {

constexpr size_t MAX_HEAP = 64u << 20;
constexpr int MAX_REFUSALS = 50;
constexpr size_t MAX_ERROR = 1000;  // bytes
constexpr const char* FILE_NAME = "script";

size_t s_stHeap = 0;  // in use; there is one heap at a time
int s_nRefusals = 0;  // of memory, in the load or question under way

// The engine collects garbage after a refusal and asks again. A script at the limit would make it do little else.
void* Refuse() {
    if (++s_nRefusals > MAX_REFUSALS)
        _exit(4);
    return nullptr;
}

void* Reallocate(void*, void* aBlock, duk_size_t aSize) {
    const size_t before = malloc_usable_size(aBlock);
    if (aSize > MAX_HEAP || s_stHeap - before > MAX_HEAP - aSize)
        return Refuse();
    void* pBlock = std::realloc(aBlock, std::max<size_t>(aSize, 1));
    if (pBlock)
        s_stHeap += malloc_usable_size(pBlock) - before;
    return pBlock;
}

void* Allocate(void*, duk_size_t aSize) { return Reallocate(nullptr, nullptr, aSize); }

void Free(void*, void* aBlock) {
    s_stHeap -= malloc_usable_size(aBlock);
    std::free(aBlock);
}

void OnFatal(void*, const char*) { _exit(3); }

struct Question {
    const std::string& m_strUrl;
    const std::string& m_strHost;
};

bool PushFinder(duk_context* aContext) {
    for (const char* szName : {"FindProxyForURLEx", "FindProxyForURL"}) {
        duk_get_global_string(aContext, szName);
        if (duk_is_callable(aContext, -1))
            return true;
        duk_pop(aContext);
    }
    return false;
}

duk_ret_t LoadStep(duk_context* aContext, void* aScript) {
    const auto& strScript = *static_cast<const std::string*>(aScript);
    AddFunctions(aContext);
    duk_push_lstring(aContext, strScript.data(), strScript.size());
    duk_push_string(aContext, FILE_NAME);
    duk_compile(aContext, 0);
    duk_call(aContext, 0);
    if (!PushFinder(aContext))
        return duk_error(aContext, DUK_ERR_REFERENCE_ERROR, "the script has no function FindProxyForURL");
    return 0;
}

duk_ret_t FindStep(duk_context* aContext, void* aQuestion) {
    const auto& question = *static_cast<const Question*>(aQuestion);
    if (!PushFinder(aContext))
        return duk_error(aContext, DUK_ERR_REFERENCE_ERROR, "the script has removed its function FindProxyForURL");
    duk_push_lstring(aContext, question.m_strUrl.data(), question.m_strUrl.size());
    duk_push_lstring(aContext, question.m_strHost.data(), question.m_strHost.size());
    duk_call(aContext, 2);
    return 1;
}

// The number behind the first aMark; 0: there is none.
uint32_t NumberBehind(std::string_view aText, std::string_view aMark) {
    const size_t at = aText.find(aMark);
    return at == aText.npos ? 0 : static_cast<uint32_t>(std::strtoul(aText.data() + at + aMark.size(), nullptr, 10));
}

// aTrace: "SyntaxError: parse error (line 2)\n    at FindProxyForURL (script:2)\n...".
Outcome ErrorOf(std::string_view aTrace) {
    Outcome outcome;
    const std::string_view strText = aTrace.substr(0, std::min(aTrace.find('\n'), MAX_ERROR));
    outcome.m_uLine = NumberBehind(strText, "(line ");
    if (outcome.m_uLine == 0)
        outcome.m_uLine = NumberBehind(aTrace, "script:");
    outcome.m_strText = strText.substr(0, strText.find(" (line "));
    if (strText.starts_with("SyntaxError"))
        outcome.m_strText += " (the engine implements ECMAScript 5: let, classes and arrow functions are errors)";
    return outcome;
}

}  // namespace

Engine::~Engine() {
    if (m_pContext)
        duk_destroy_heap(m_pContext);
}

// The heap's errors jump over C++ frames, so the steps own nothing that has a destructor.
Outcome Engine::Run_i(Step aStep, void* aArguments) {
    Outcome outcome;
    s_nRefusals = 0;
    const bool bOk = duk_safe_call(m_pContext, aStep, aArguments, 0, 1) == DUK_EXEC_SUCCESS;
    if (!bOk) {
        outcome = ErrorOf(duk_safe_to_stacktrace(m_pContext, -1));
    } else if (duk_is_string(m_pContext, -1)) {
        duk_size_t size = 0;
        const char* pText = duk_get_lstring(m_pContext, -1, &size);
        outcome.m_strText.assign(pText, size);
    }
    outcome.m_bOk = bOk;
    duk_pop(m_pContext);
    return outcome;
}

Outcome Engine::Load(const std::string& aScript) {
    if (m_pContext)
        duk_destroy_heap(m_pContext);
    m_pContext = duk_create_heap(&Allocate, &Reallocate, &Free, nullptr, &OnFatal);
    if (!m_pContext)
        _exit(3);
    Outcome outcome = Run_i(&LoadStep, const_cast<std::string*>(&aScript));
    if (!outcome.m_bOk) {
        duk_destroy_heap(m_pContext);
        m_pContext = nullptr;
    }
    return outcome;
}

Outcome Engine::Find(const std::string& aUrl, const std::string& aHost) {
    if (!m_pContext)
        return {false, "no script is loaded", 0};
    Question question{aUrl, aHost};
    return Run_i(&FindStep, &question);
}

}  // namespace pac
