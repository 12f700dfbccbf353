// The behaviour of the links of a simulated network.
#pragma once

#include "talvo/base/time_value.h"
#include "talvo/base/types.h"

// One direction of the connections over a link. Times are simulated; probabilities are between 0 (never) and 1 (always).
// Changes apply to later sends. By default every byte arrives one millisecond after its send.
struct CCmSimPath {
    CCmTimeValue m_tvDelay{0, 1000};  // the least time of a piece
    CCmTimeValue m_tvJitter{};   // the most extra time of a piece; datagrams may overtake each other, streams keep their order
    CmDword m_dwBandwidth = 0;   // bytes a second for each connection; 0: no limit
    double m_Loss = 0;           // a datagram is lost; a piece of a stream is sent again, after 200 ms, 400 ms, ... 6.4 s
    double m_Duplication = 0;    // a datagram arrives twice
    double m_Reordering = 0;     // a datagram takes three times as long
    double m_Damage = 0;         // a datagram arrives truncated, or with extra bytes at its end
    double m_PartialSend = 0;    // SendData takes a part, or no bytes, although there is room: CM_ERROR_PARTIAL_DATA
    double m_Cut = 0;            // the stream breaks inside this send, at any byte
    double m_CutOneEnd = 0;      // only one end, either, notices such a break; the other one's end stays half-open
    double m_Mute = 0;           // from this send on the stream delivers nothing in this direction, and reports nothing
    uint64_t m_ullCutAfter = 0;  // each stream breaks after this number of bytes, which arrive; 0: never

    // Of m_Up. The most extra time until a connect succeeds; and until the acceptor indicates it afterwards: meanwhile it is in
    // the listener's backlog, with what its connector sends and with its end.
    CCmTimeValue m_tvConnect{};
    CCmTimeValue m_tvBacklog{};

    // Silence between the two simulated times: datagrams are lost, and bytes, ends and connects of streams wait.
    CCmTimeValue m_tvSilentFrom{};
    CCmTimeValue m_tvSilentUntil{};  // CCmTimeValue::s_tvMax: until SetLink changes it

    // The sender's end of a stream is lost: its peer keeps a half-open connection, whose sends fill the buffer and never
    // arrive.
    CmBool m_bLoseEnd = CM_FALSE;

    // The limit of bytes of a stream that the peer has not read; above it SendData returns CM_ERROR_PARTIAL_DATA, and OnSend
    // follows when the peer has read. The receiver drops datagrams beyond that many unread bytes.
    CmDword m_dwBuffer = 1 << 20;
    // The most bytes of a stream in one OnReceive, further limited by CM_OPT_TRANSPORT_READ_SIZE. Pieces have random lengths.
    CmDword m_dwMaxPiece = 65536;
};

// Both directions. m_Up leads from the connector to the acceptor.
struct CCmSimLink {
    CCmSimPath m_Up{};    // to the acceptor
    CCmSimPath m_Down{};  // to the connector
};
