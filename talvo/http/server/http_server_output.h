// The output queue of one connection of an HTTP server.
#pragma once

#include <string_view>

#include "talvo/base/block_chain.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

//  m_strText  heads and small bodies, joined   | m_Chain   what is too large to be copied
//  |--- sent ---|------------ unsent ----------|-------------------- unsent -------------|
//
// Everything is sent in order. Consecutive small answers leave with one send; a large body leaves with the preceding head,
// uncopied. The memory of the text is reused for the next answers.
class CHttpServerOutput {
public:
    CHttpServerOutput() = default;
    CHttpServerOutput(const CHttpServerOutput&) = delete;
    CHttpServerOutput& operator=(const CHttpServerOutput&) = delete;

    // Heads are printed here. Only while HasChain returns FALSE.
    CCmString& GetText() { return m_strText; }
    BOOL HasChain() const { return !m_Chain.IsEmpty(); }
    BOOL IsEmpty() const { return m_stSent == m_strText.size() && m_Chain.IsEmpty(); }
    size_t GetTextLength() const { return m_strText.size() - m_stSent; }

    // Appends a copy after everything else.
    CmResult Append(std::string_view aText);
    // Likewise; takes ownership of aChain.
    void AppendChain(CCmChainPtr aChain) { m_Chain.Append(std::move(aChain)); }

    // Sends as much as the transport takes. CM_OK: all of it. CM_ERROR_PARTIAL_DATA: its OnSend follows.
    CmResult Send(ICmTransport& aTransport) { return SendWith(aTransport, m_Chain.GetHead()); }
    // The same, followed by the caller's chain, of which it takes as much as it can. Only while HasChain returns FALSE.
    CmResult SendWith(ICmTransport& aTransport, CCmMessageBlock* aBody);

    void Clear();

private:
    CCmString m_strText;
    size_t m_stSent = 0;
    CBlockChain m_Chain;
};

}  // namespace talvo
