// The parts of a connection type.
#pragma once

#include "talvo/base/export.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

//  31              20  18    16                 0
//  | protocol flags | 0 | thr | base type        |
//
// The base type names the layer below, and a protocol flag the connection over it; without a flag the connection is raw. thr:
// CTYPE_FORCE_THREAD_PROXY and a bit that only option 107 repeats.
class TALVO_API CConnectionType {
public:
    enum : CmDword {
        THREAD_FLAG = 0x00010000,
        FORCE_THREAD_PROXY = 0x00020000,
        NO_PARTIAL_DATA = 0x00100000,
        RECONNECT_TOKEN = 0x02000000,  // with RELIABLE only
        LENGTH = 0x08000000,
        PACKAGE = 0x10000000,
        KEEPALIVE = 0x20000000,
        RELIABLE = 0x70000000,
        CANONICAL_RELIABLE = 0x74000000  // the value that a creation reports for RELIABLE; other kinds report their flag
    };

    constexpr explicit CConnectionType(CmDword aType) : m_dwType(aType) {}

    constexpr CmDword GetBase() const { return m_dwType & BASE_MASK; }
    constexpr CmBool Has(CmDword aFlags) const { return (m_dwType & aFlags) == aFlags; }  // all of them
    constexpr CmDword WithoutThreadFlags() const { return m_dwType & ~THREAD_MASK; }
    constexpr CmBool HasUnknownFlags() const { return (m_dwType & ~(BASE_MASK | THREAD_MASK | PROTOCOL_MASK)) != 0; }

    // Messages of a protocol, raw bytes or raw datagrams: a type is exactly one of these.
    constexpr CmBool IsProtocol() const { return (m_dwType & PROTOCOL_MASK) != 0; }
    constexpr CmBool IsStream() const { return !IsProtocol() && !IsOverDatagrams(); }
    constexpr CmBool IsDatagrams() const { return !IsProtocol() && IsOverDatagrams(); }

    // The base type carries datagrams; every other carries bytes.
    constexpr CmBool IsOverDatagrams() const { return GetBase() == CM_TRANSPORT_TYPE_UDP; }

    // Not one base type but two in a race, a direct connector and one through a proxy.
    constexpr CmBool IsRace() const { return GetBase() == CM_TRANSPORT_TYPE_RACE; }
    // Over TCP, without TLS: directly, through a proxy server, or in that race.
    constexpr CmBool IsOverTcp() const { return GetBase() == CM_TRANSPORT_TYPE_TCP || IsProxied() || IsRace(); }
    // A connector through the user's proxy server.
    constexpr CmBool IsProxied() const { return GetBase() == CM_TRANSPORT_TYPE_PROXY; }
    // The same connection as a proxied one, without the proxy server.
    constexpr CmBool IsDirectTwinOf(CConnectionType aProxied) const {
        return GetBase() == CM_TRANSPORT_TYPE_TCP && (m_dwType & PROTOCOL_MASK) == (aProxied.m_dwType & PROTOCOL_MASK);
    }

    // A thread proxy adds it to the value of option 107: the higher one of the two thread flags that are set.
    constexpr CmDword GetThreadFlag() const { return Has(FORCE_THREAD_PROXY) ? +FORCE_THREAD_PROXY : m_dwType & THREAD_FLAG; }

    // For the trace; every base type but TCP has the second name.
    const char* GetBaseName() const { return GetBase() == CM_TRANSPORT_TYPE_TCP ? "TCP" : "UDP"; }

private:
    static constexpr CmDword BASE_MASK = 0x0000FFFF;
    static constexpr CmDword THREAD_MASK = THREAD_FLAG | FORCE_THREAD_PROXY;
    static constexpr CmDword PROTOCOL_MASK = 0xFFF00000;

    CmDword m_dwType;
};

}  // namespace talvo
