// The transport below a fuzzed object.
#pragma once

#include "fuzz/fuzz_input.h"
#include "tests/support/fake_lower.h"

// Sometimes takes only a part of the data.
class CFuzzLower : public CFakeLower {
public:
    // aCutter null: takes everything.
    explicit CFuzzLower(CFuzzCutter* aCutter, BOOL aDatagrams = FALSE)
        : CFakeLower(aDatagrams ? CM_TRANSPORT_TYPE_UDP : CM_TRANSPORT_TYPE_TCP), m_pCutter(aCutter) {}

    CmResult SetOption(DWORD, void*) override { return CM_OK; }  // ignores options
    // A stream delivers no empty data.
    void Receive(const std::string& aBytes) {
        if (m_dwType == CM_TRANSPORT_TYPE_UDP || !aBytes.empty())
            CFakeLower::Receive(aBytes);
    }
    void TakeEverything() { m_pCutter = nullptr; }
    BOOL IsOpen() const { return m_pSink != nullptr; }

protected:
    DWORD RoomFor(DWORD aLength) override {
        const DWORD dwRoom = m_pCutter ? static_cast<DWORD>(m_pCutter->Next(aLength)) : aLength;
        return m_dwType == CM_TRANSPORT_TYPE_UDP && dwRoom > 0 ? aLength : dwRoom;
    }

private:
    CFuzzCutter* m_pCutter;  // not owned
};
