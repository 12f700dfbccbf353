// The steps of a user of the library, each of which may fail.
#pragma once

#include "tests/memory/world.h"

// A scenario. TRUE: everything that it wants to do was done.
struct CScenario {
    const char* m_szName;
    ELibrary m_Library;
    std::function<bool(CWorld& aWorld)> m_Run;
};
inline void PrintTo(const CScenario& aScenario, std::ostream* aOut) { *aOut << aScenario.m_szName; }
extern const std::vector<CScenario> SCENARIOS;

// A session of another thread, and a receiver.
bool ForwardToOne(CWorld& aWorld);

// A server and a client of HTTP.
bool AskAndAnswer(CWorld& aWorld);
