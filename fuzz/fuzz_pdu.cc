// PDUs: any bytes decode without harm and encode to the same bytes.

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
    const CCmChainPtr pPeek(aChain.DuplicateChained());
    CCsPduBase base(CS_PDU_TYPE_NONE);
    base.Decode(*pPeek);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, std::min(aSize, LONGEST));
    const BOOL bNeedACK = input.ConsumeBool();
    CFuzzCutter cutter(input);
    std::string strBytes = input.ConsumeRemainingBytesAsString();
    CCmMessageBlock* pChain = cutter.Cut(strBytes).release();
    while (pChain && TakeOne(*pChain, strBytes, bNeedACK))
        pChain = pChain->ReclaimGarbage();
    if (pChain)
        pChain->DestroyChained();
    return 0;
}
