// The events of a simulation, as text and as a digest.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "talvo/testing/sim_observer.h"

namespace talvo {

class CSimSchedule;

class CSimTrace {
public:
    // Neither is owned; aOut null: no text.
    CSimTrace(const CSimSchedule& aSchedule, std::ostream* aOut) : m_Schedule(aSchedule), m_pOut(aOut) {}

    // "TIME LOCAL > PEER WHAT [NUMBER]". aWhat is a literal.
    void Note(const CCmSimEnd& aEnd, const char* aWhat, int64_t aNumber = -1);
    // "TIME ADDR WHAT"
    void Note(const CCmInetAddr& aAddr, const char* aWhat);
    // "TIME TEXT"
    void Note(const std::string& aText);

    void Fail(const std::string& aText);
    const std::vector<std::string>& GetFailures() const { return m_Failures; }
    uint64_t GetDigest() const { return m_ullDigest; }

private:
    void Begin_i(const char* aWhat);
    void Add_i(const CCmInetAddr& aAddr);
    void Add_i(uint64_t aValue) { m_ullDigest = (m_ullDigest ^ aValue) * 0x100000001B3; }

    const CSimSchedule& m_Schedule;
    std::ostream* const m_pOut;
    uint64_t m_ullDigest = 0xCBF29CE484222325;
    std::vector<std::string> m_Failures;
};

}  // namespace talvo
