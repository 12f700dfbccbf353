// The common part of the versions of SOCKS: replies of known lengths.
#pragma once

#include "talvo/proxy/proxy_dialog.h"

namespace talvo {

class TALVO_API CSocksDialog : public IProxyDialog {
public:
    EStep Take(std::string_view aIn, size_t& aTaken, CCmString& aOut) final;

protected:
    // The next reply begins with aVersion; Judge_i gets its first aLength bytes.
    void Expect_i(char aVersion, size_t aLength);
    // The rest of the reply: Judge_i gets aLength bytes more, behind the first ones.
    void ExpectMore_i(size_t aLength) { m_stWanted += aLength; }
    // The bytes that were expected. TALK: it has called one of the two above.
    virtual EStep Judge_i(std::string_view aReply, CCmString& aOut) = 0;

private:
    char m_cVersion = 0;
    size_t m_stWanted = 0;
    CCmString m_strReply;
};

}  // namespace talvo
