// PDUs: any bytes decode without harm and encode to the same bytes; any encoded PDU decodes to the same PDU.

#include <memory>

#include "fuzz/fuzz_input.h"
#include "talvo/connection/protocol/cs_pdu.h"

namespace {

// Long enough for a series of PDUs; each costs a walk over all later pieces.
constexpr size_t LONGEST = 512;

std::unique_ptr<CCsPduBase> MakeDecoder(BYTE aType, BOOL aNeedACK) {
    switch (aType) {
    case CS_PDU_TYPE_CONN_REQ:
    case CS_PDU_TYPE_CONN_RESP:
        return std::make_unique<CCsPduConnReqResp>();
    case CS_PDU_TYPE_DISCONN:
        return std::make_unique<CCsPduDisconn>();
    case CS_PDU_TYPE_KEEPALIVE:
        return std::make_unique<CCsPduKeepAlive>();
    case CS_PDU_TYPE_DATA_START:
    case CS_PDU_TYPE_DATA_NORMAL:
        return std::make_unique<CCsPduData>(aNeedACK);
    default:
        return std::make_unique<CCsPduBase>(CS_PDU_TYPE_NONE);
    }
}

std::string Encode(const CCsPduBase& aPdu) {
    CCmMessageBlock mb(CCsPduBase::MAX_FIX_LENGTH);
    aPdu.Encode(mb);
    return mb.FlattenChained();
}

// Takes one PDU from the front of both, as a receiver would. FALSE: there is no whole one, or one that is never sent.
BOOL TakeOne(CCmMessageBlock& aChain, std::string& aBytes, BOOL aNeedACK) {
    CCmMessageBlock* pPeek = aChain.DuplicateChained();
    CCsPduBase base(CS_PDU_TYPE_NONE);
    base.Decode(*pPeek);
    pPeek->DestroyChained();
    FUZZ_CHECK(base.GetType() == (aBytes.empty() ? 0 : static_cast<BYTE>(aBytes[0])));

    const DWORD dwFixLength = CCsPduBase::GetFixLength(base.GetType(), aNeedACK);
    const auto pPdu = MakeDecoder(base.GetType(), aNeedACK);
    pPdu->Decode(aChain);
    const std::string strLeft = aChain.FlattenChained();
    FUZZ_CHECK(aBytes.ends_with(strLeft));
    if (dwFixLength == 0 || aBytes.size() < dwFixLength)
        return FALSE;
    FUZZ_CHECK(Encode(*pPdu) == aBytes.substr(0, aBytes.size() - strLeft.size()));
    aBytes = strLeft;
    return base.GetType() != CS_PDU_TYPE_NONE;
}

void DecodeAll(CFuzzCutter& aCutter, std::string aBytes, BOOL aNeedACK) {
    CCmMessageBlock* pChain = aCutter.Cut(aBytes);
    while (pChain && TakeOne(*pChain, aBytes, aNeedACK))
        pChain = pChain->ReclaimGarbage();
    if (pChain)
        pChain->DestroyChained();
}

// Decodes the encoding of aPdu, with other bytes behind it.
template <class Pdu>
void CheckRoundTrip(CFuzzCutter& aCutter, const CCsPduBase& aPdu, Pdu& aDecoder) {
    const std::string strPdu = Encode(aPdu);
    CCmMessageBlock* pChain = aCutter.Cut(strPdu + "next");
    aDecoder.Decode(*pChain);
    FUZZ_CHECK(pChain->FlattenChained() == "next");
    FUZZ_CHECK(Encode(aDecoder) == strPdu);
    FUZZ_CHECK(aDecoder.GetType() == aPdu.GetType());
    pChain->DestroyChained();
}

void EncodeAll(CFuzzCutter& aCutter, const std::string& aBytes, DWORD aNumber, BOOL aNeedACK) {
    const auto wNumber = static_cast<WORD>(aNumber);
    CCsPduConnReqResp conn(aNumber, wNumber, CS_PDU_TYPE_CONN_RESP, static_cast<BYTE>(aNumber)), connDecoder;
    CheckRoundTrip(aCutter, conn, connDecoder);
    FUZZ_CHECK(connDecoder.GetACK() == aNumber && connDecoder.GetConTag() == wNumber);
    FUZZ_CHECK(connDecoder.GetConnType() == conn.GetConnType());

    CCsPduDisconn disconn(wNumber), disconnDecoder;
    CheckRoundTrip(aCutter, disconn, disconnDecoder);
    FUZZ_CHECK(disconnDecoder.GetReason() == wNumber);

    CCsPduKeepAlive keepAlive(aNumber), keepAliveDecoder;
    CheckRoundTrip(aCutter, keepAlive, keepAliveDecoder);
    FUZZ_CHECK(keepAliveDecoder.GetACK() == aNumber);

    const auto dwLength = static_cast<DWORD>(aBytes.size());
    CCsPduData data(aNeedACK, aNumber, dwLength, CS_PDU_TYPE_DATA_NORMAL, aCutter.Cut(aBytes)), dataDecoder(aNeedACK);
    CheckRoundTrip(aCutter, data, dataDecoder);
    FUZZ_CHECK(dataDecoder.GetACK() == (aNeedACK ? aNumber : 0) && dataDecoder.GetDataLen() == dwLength);
    FUZZ_CHECK(dataDecoder.GetData()->FlattenChained() == aBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, std::min(aSize, LONGEST));
    const BOOL bNeedACK = input.ConsumeBool();
    const auto dwNumber = input.ConsumeIntegral<DWORD>();
    CFuzzCutter cutter(input);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    DecodeAll(cutter, strBytes, bNeedACK);
    EncodeAll(cutter, strBytes, dwNumber, bNeedACK);
    return 0;
}
