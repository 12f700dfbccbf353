// State of the process that is never destroyed.
#pragma once

#include <new>

namespace talvo {

// An object in memory of its own, for a static variable. Threads and the clean-up at exit may use it until the process ends.
// Its storage takes no memory from the heap.
template <class Type>
class CImmortalT {
public:
    CImmortalT() { new (m_Memory) Type; }
    CImmortalT(const CImmortalT&) = delete;
    CImmortalT& operator=(const CImmortalT&) = delete;

    Type& operator*() { return *std::launder(reinterpret_cast<Type*>(m_Memory)); }

private:
    alignas(Type) unsigned char m_Memory[sizeof(Type)];
};

}  // namespace talvo
