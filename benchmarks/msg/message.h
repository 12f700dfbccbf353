// The messages of talvo_bench_msg over a connection for messages. Numbers are little-endian.
//
//    0      1                9                  SIZE - 1
//    | kind | number         | anything         | 'a' + SIZE % 26 |      D and P: at least 10 bytes
//    | 'E'  | number         |                                           9 bytes, and its answer:
//    | 'E'  | number of D    | number of faults |                         17 bytes
//    | 'Q'  | ...                                                        at least 1 byte
#pragma once

#include <cstdint>

#include "talvo/talvo.h"

namespace msg {

enum EKind : char {
    DATA = 'D',  // is counted; its number and last byte are checked
    PING = 'P',  // is sent back unchanged
    END = 'E',   // requests the counts
    QUIT = 'Q'   // ends the server
};

constexpr DWORD HEAD_SIZE = 9;
constexpr DWORD SHORTEST = 10;  // of D and P
constexpr DWORD ANSWER_SIZE = 17;

// A received message.
struct CSeen {
    explicit CSeen(CCmMessageBlock& aMessage);

    // TRUE: it is long enough, and its last byte matches its size.
    bool IsWhole() const;

    DWORD m_dwSize;
    char m_cKind = 0;
    uint64_t m_ullNumber = 0;
    char m_cLast;
};

// Fills the empty block, which has room for aSize bytes, with a message of kind D, P or E.
void Fill(CCmMessageBlock& aMessage, EKind aKind, uint64_t aNumber, DWORD aSize);

// The answer to E.
struct CCounts {
    uint64_t m_ullData = 0;
    uint64_t m_ullFaults = 0;
};
void FillAnswer(CCmMessageBlock& aMessage, const CCounts& aCounts);
CCounts ReadAnswer(CCmMessageBlock& aMessage);  // zeros if it is too short

}  // namespace msg
