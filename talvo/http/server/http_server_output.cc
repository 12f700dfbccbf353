#include "talvo/http/server/http_server_output.h"

namespace talvo {

namespace {

constexpr size_t KEPT_CAPACITY = 16384;  // of the text, between answers

}  // namespace

CmResult CHttpServerOutput::Append(std::string_view aText) {
    if (m_Chain.IsEmpty()) {
        m_strText += aText;
        return CM_OK;
    }
    const DWORD dwLength = static_cast<DWORD>(aText.size());
    const CCmMessageBlock view(dwLength, aText.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    CCmChainPtr pBlock(view.DuplicateTopLevel());
    if (!pBlock)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Chain.Append(std::move(pBlock));
    return CM_OK;
}

CmResult CHttpServerOutput::SendWith(ICmTransport& aTransport, CCmMessageBlock* aBody) {
    const DWORD dwText = static_cast<DWORD>(GetTextLength());
    CCmMessageBlock head(dwText, m_strText.data() + m_stSent, CCmMessageBlock::DONT_DELETE, dwText);
    head.Append(aBody);
    const CmResult rv = aTransport.SendData(head);
    m_stSent += dwText - head.GetTopLevelLength();
    if (m_stSent == m_strText.size()) {
        m_stSent = 0;
        if (m_strText.capacity() > KEPT_CAPACITY)
            CCmString().swap(m_strText);
        m_strText.clear();
    }
    m_Chain.DropRead();
    return rv;
}

void CHttpServerOutput::Clear() {
    m_strText.clear();
    m_stSent = 0;
    m_Chain.Clear();
}

}  // namespace talvo
