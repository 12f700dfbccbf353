// How the links of a simulated network behave.
#pragma once

#include "talvo/base/time_value.h"
#include "talvo/base/types.h"

// One direction of the connections over a link. Times are simulated; chances lie between 0 (never) and 1 (always). Changes
// apply to later sends. At first every byte arrives one millisecond after it was sent.
struct CCmSimPath {
    CCmTimeValue m_tvDelay{0, 1000};
    CCmTimeValue m_tvJitter;   // each piece takes up to so much longer; datagrams overtake each other, streams keep their order
    DWORD m_dwBandwidth = 0;   // bytes a second for each connection; 0: no limit
    double m_Loss = 0;         // a datagram is lost; a piece of a stream is sent again, after 200 ms, 400 ms, ... 6.4 s
    double m_Duplication = 0;  // a datagram arrives twice
    double m_Reordering = 0;   // a datagram takes three times as long
    double m_Damage = 0;       // a datagram arrives cut short, or with bytes behind it
    double m_PartialSend = 0;  // SendData takes a part, or nothing, although there is room: CM_ERROR_PARTIAL_DATA
    double m_Cut = 0;          // the stream breaks inside this send, at any byte
    uint64_t m_ullCutAfter = 0;  // bytes of each stream after which it breaks: these arrive; 0: never

    // Silence from the one simulated time to the other: datagrams are lost, and bytes, ends and connects of streams wait.
    CCmTimeValue m_tvSilentFrom;
    CCmTimeValue m_tvSilentUntil;  // CCmTimeValue::s_tvMax: until SetLink says otherwise

    // The sender's end of a stream gets lost: its peer keeps a half-open connection, whose sends fill the buffer and go
    // nowhere.
    BOOL m_bLoseEnd = FALSE;

    // Bytes of a stream that SendData takes while the peer has not read them; beyond that CM_ERROR_PARTIAL_DATA, and OnSend
    // when the peer has read. Unread datagrams of more bytes are dropped at the receiver.
    DWORD m_dwBuffer = 1 << 20;
    // The most bytes of a stream in one OnReceive, further limited by CM_OPT_TRANSPORT_READ_SIZE. Pieces have random lengths.
    DWORD m_dwMaxPiece = 65536;
};

// Both directions. m_Up leads from the connector to the acceptor.
struct CCmSimLink {
    CCmSimPath m_Up;
    CCmSimPath m_Down;
};
