// What an HTTP server has to send on one connection.
#pragma once

#include <string_view>

#include "talvo/base/block_chain.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

//  m_strText  heads and small bodies, joined   | m_Chain   what is too large to be copied
//  |--- sent ---|------------ unsent ----------|-------------------- unsent -------------|
//
// Everything in order. Small answers that follow each other leave with one send; a large body leaves with the head before it,
// uncopied. The memory of the text is used again for the next answers.
class CHttpServerOutput {
public:
    CHttpServerOutput() = default;
    CHttpServerOutput(const CHttpServerOutput&) = delete;
    CHttpServerOutput& operator=(const CHttpServerOutput&) = delete;

    // Where heads are printed. Only while HasChain says no.
    CCmString& GetText() { return m_strText; }
    BOOL HasChain() const { return !m_Chain.IsEmpty(); }
    BOOL IsEmpty() const { return m_stSent == m_strText.size() && m_Chain.IsEmpty(); }
    size_t GetTextLength() const { return m_strText.size() - m_stSent; }

    // Behind everything else; copied.
    CmResult Append(std::string_view aText);
    // Likewise; takes aChain over.
    void AppendChain(CCmChainPtr aChain) { m_Chain.Append(std::move(aChain)); }

    // What the transport takes. CM_OK: all of it. CM_ERROR_PARTIAL_DATA: its OnSend follows.
    CmResult Send(ICmTransport& aTransport) { return SendWith(aTransport, m_Chain.GetHead()); }
    // The same with the caller's chain behind it, from which it takes what it can. Only while HasChain says no.
    CmResult SendWith(ICmTransport& aTransport, CCmMessageBlock* aBody);

    void Clear();

private:
    CCmString m_strText;
    size_t m_stSent = 0;
    CBlockChain m_Chain;
};

}  // namespace talvo
