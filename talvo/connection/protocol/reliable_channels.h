// The reliable connections of an acceptor, by channel.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <unordered_map>

#include "talvo/base/export.h"
#include "talvo/base/ip_bytes.h"
#include "talvo/base/result.h"
#include "talvo/connection/protocol/channel_numbers.h"
#include "talvo/connection/protocol/cs_pdu.h"
#include "talvo/connection/protocol/reopen_limiter.h"

class CRlbConnTCPServer;

namespace talvo {

// A request to re-open a channel, and the facts about its transport.
struct CReopenRequest {
    CCsPduConnToken m_Pdu;
    CmBool m_bToken = CM_FALSE;  // of the token form
    CmBool m_bAlive = CM_TRUE;   // the transport is
    CIpBytes m_Addr;             // of the peer
};

// Gives channels, judges requests for them and bounds what clients that are away can hold. A channel is up, lost or, when its
// application has ended it, remembered with the reason: a client that was away gets that reason. The bounds are those of
// section "Reliable" in the configuration: MaxLost and MaxLostBytes for all addresses, and MaxLostShare per cent of both for
// one. Beyond them the oldest remembered channel is forgotten, and then the connection that was lost longest, of that address
// first, ends with CM_ERROR_NETWORK_PEER_NOT_BACK.
//
// The acceptor and its connections share it. Any call that ends a connection may release both. Network thread only.
class TALVO_API CReliableChannels : public std::enable_shared_from_this<CReliableChannels> {
public:
    CReliableChannels();
    CReliableChannels(const CReliableChannels&) = delete;
    CReliableChannels& operator=(const CReliableChannels&) = delete;

    // A number for aConn. 0: none is free, or memory ran out.
    CmWord Open(CRlbConnTCPServer& aConn, const CCsConnToken& aToken, const CIpBytes& aAddr);

    struct CVerdict {
        CRlbConnTCPServer* m_pConn = nullptr;  // not null: the request is good, and its attempt counts as taken
        CmResult m_Reason;                     // otherwise for the disconnect PDU
        CmBool m_bSilent = CM_FALSE;           // otherwise: close without an answer
    };
    CVerdict Judge(const CReopenRequest& aRequest);

    // The transport of a channel is lost, with so many bytes in its send buffer; these have changed while it is lost; it is
    // back, from that address. 0 is no channel.
    void OnLost(CmWord aChannel, CmDword aBytes);
    void OnBytes(CmWord aChannel, CmDword aBytes);
    void OnBack(CmWord aChannel, const CIpBytes& aAddr);

    // The connection has ended. Its number rests for that many seconds; remembered, the reason is kept for as long.
    void Forget(CmWord aChannel, CmDword aSeconds);
    void Remember(CmWord aChannel, CmResult aReason, CmDword aSeconds);

    // The acceptor's end: ends the lost connections. The others cannot be opened again.
    void Close();
    CmBool IsClosed() const { return m_bClosed; }

private:
    enum EState { UP, LOST, REMEMBERED };
    struct CEntry {
        EState m_State = UP;
        CRlbConnTCPServer* m_pConn = nullptr;  // not owned; null: remembered
        CCsConnToken m_Token;
        CmDword m_dwAttempt = 0;
        CIpBytes m_Addr;
        CmDword m_dwBytes = 0;  // while lost
        CmResult m_Reason = CM_OK;
        int64_t m_llUntil = 0;                // remembered
        std::list<CmWord>::iterator m_Place;  // in m_Lost or m_Remembered
    };
    struct CUse {
        CmDword m_dwCount = 0;
        uint64_t m_ullBytes = 0;
    };

    CEntry* Find_i(CmWord aChannel);
    CmBool Move_i(CmWord aChannel, EState aState);
    void Count_i(const CEntry& aEntry, int aSign);
    CmBool IsOver_i(const CUse& aUse, uint64_t aPercent) const;
    CmBool IsOver_i(const CIpBytes& aAddr) const;
    void Enforce_i(const CIpBytes& aAddr, CmWord aNewcomer);
    CmWord FindVictim_i(const CIpBytes& aAddr, CmWord aNewcomer) const;
    void EndLost_i(CmWord aChannel);
    void Erase_i(CmWord aChannel, int64_t aUntil);
    void DropOld_i();
    const char* FindFault_i(const CEntry& aEntry, const CReopenRequest& aRequest) const;

    const uint64_t m_ullMaxLost;
    const uint64_t m_ullMaxBytes;
    const CmDword m_dwShare;  // per cent
    const CmBool m_bAnyAddress;
    CmBool m_bClosed = CM_FALSE;
    CChannelNumbers m_Numbers;
    CReopenLimiter m_Limiter;
    std::unordered_map<CmWord, CEntry> m_Entries;
    std::list<CmWord> m_Lost;  // the longest lost first
    std::list<CmWord> m_Remembered;
    CUse m_Use;  // lost and remembered
    std::map<CIpBytes, CUse> m_UseOf;
};

}  // namespace talvo
