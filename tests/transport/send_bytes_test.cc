#include "talvo/transport/send_bytes.h"

#include "tests/support/proxy_fixture.h"

TEST(SendBytesTest, OneMessageGoesToMany) {
    const CTestNetwork network;
    const CFakeConnection all(network), none(network);
    const std::string strText = Pattern(3000);
    CCmMessageBlock message = ViewOf(strText);
    DWORD dwTaken = 0;
    Set(*none.m_pProxy, CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, DWORD{0});
    none.SetRoom(0);
    EXPECT_EQ(CM_OK, cm_send_bytes(*none.m_pProxy, "first", 5, &dwTaken));
    EXPECT_EQ(5u, dwTaken);
    for (const CFakeConnection* pEach : {&all, &none, &all}) {
        EXPECT_EQ(pEach == &all ? CM_OK : CM_ERROR_PARTIAL_DATA, cm_send_shared(*pEach->m_pProxy, message, &dwTaken));
        EXPECT_EQ(pEach == &all ? 3000u : 0u, dwTaken);
        EXPECT_EQ(3000u, message.GetChainedLength());
    }
    all.Sync();
    EXPECT_EQ(strText + strText, all.m_pFake->GetSent());
    all.SetRoom(4);
    network.InNetwork([&] { EXPECT_EQ(CM_ERROR_PARTIAL_DATA, cm_send_bytes(*all.m_pFake, "partial", 7, &dwTaken)); });
    EXPECT_EQ(4u, dwTaken) << "without a proxy a part may be taken";
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_send_bytes(*all.m_pProxy, nullptr, 1));
}
