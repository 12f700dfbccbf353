// The peer of what is fuzzed above a transport.
#pragma once

#include "fuzz/fuzz_input.h"
#include "talvo/base/reference_control.h"
#include "talvo/transport/transport_interface.h"

// Takes a part of what it is given, now and then, and keeps that. Deaf to options.
class CFuzzLower : public ICmTransport, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    // aCutter null: takes everything. Datagrams are taken whole or not.
    explicit CFuzzLower(CFuzzCutter* aCutter, BOOL aDatagrams = FALSE) : m_pCutter(aCutter), m_bDatagrams(aDatagrams) {}
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    CmResult OpenWithSink(ICmTransportSink* aSink) override {
        m_pSink = aSink;
        return CM_OK;
    }
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter*) override {
        const DWORD dwLength = aData.GetChainedLength();
        DWORD dwTaken = m_pCutter ? static_cast<DWORD>(m_pCutter->Next(dwLength)) : dwLength;
        if (m_bDatagrams)
            dwTaken = dwTaken > 0 ? dwLength : 0;
        m_strSent += aData.FlattenChained().substr(0, dwTaken);
        aData.AdvanceChainedReadPtr(dwTaken);
        return dwTaken == dwLength ? CM_OK : CM_ERROR_PARTIAL_DATA;
    }
    CmResult SetOption(DWORD, void*) override { return CM_OK; }
    CmResult GetOption(DWORD aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_TRAN_TYPE)
            return CM_ERROR_INVALID_ARG;
        *static_cast<DWORD*>(aArg) = m_bDatagrams ? CM_TRANSPORT_TYPE_UDP : CM_TRANSPORT_TYPE_TCP;
        return CM_OK;
    }
    CmResult Disconnect(CmResult) override {
        m_pSink = nullptr;
        return CM_OK;
    }

    // The peer sends; on a stream nothing arrives of nothing.
    void Receive(const std::string& aBytes) {
        if (m_bDatagrams || !aBytes.empty())
            HandUp(aBytes);
    }
    // It ends its side in order, for a user that wants to be told.
    void EndReceiving() { HandUp(""); }
    void HaveRoom() {
        if (m_pSink)
            m_pSink->OnSend(this);
    }
    void Break() {
        if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
            pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, this);
    }
    void TakeEverything() { m_pCutter = nullptr; }

    BOOL IsOpen() const { return m_pSink != nullptr; }
    const std::string& GetSent() const { return m_strSent; }

private:
    void HandUp(std::string aBytes) {
        const auto dwLength = static_cast<DWORD>(aBytes.size());
        CCmMessageBlock block(dwLength, aBytes.data(), CCmMessageBlock::DONT_DELETE, dwLength);
        if (m_pSink)
            m_pSink->OnReceive(block, this);
    }

    CFuzzCutter* m_pCutter;  // not owned
    const BOOL m_bDatagrams;
    ICmTransportSink* m_pSink = nullptr;
    std::string m_strSent;
};
