// Heads and chunked bodies on this library. Its heads store every name (as an atom) and value and the parts of the first line,
// in storage that they keep from message to message, as on a persistent connection.
#include "benchmarks/http/parse.h"
#include "talvo/talvo.h"

namespace {

class CParser {
public:
    size_t Request(std::string_view aMessage) { return Parse(m_Request, m_RequestParser, aMessage); }
    size_t Response(std::string_view aMessage) { return Parse(m_Response, m_ResponseParser, aMessage); }

    size_t Chunked(const std::vector<std::string_view>& aPieces) {
        Parse(m_Response, m_ResponseParser, bench::CHUNKED_RESPONSE);
        for (const std::string_view strPiece : aPieces) {
            CCmMessageBlock block(Length(strPiece), strPiece.data(), CCmMessageBlock::DONT_DELETE, Length(strPiece));
            m_ResponseParser.HandleContent(&block);
        }
        return m_ResponseParser.IsComplete() ? m_ResponseParser.GetBody().size() : 0;
    }

private:
    static DWORD Length(std::string_view aText) { return static_cast<DWORD>(aText.size()); }

    template <class Head>
    static size_t Parse(Head& aHead, CCmHttpParserT<Head>& aParser, std::string_view aMessage) {
        aHead.Clear();
        aParser.Reset();
        CCmMessageBlock block(Length(aMessage), aMessage.data(), CCmMessageBlock::DONT_DELETE, Length(aMessage));
        aParser.ParseHead(&block);
        return aHead.IsComplete() ? aHead.GetCount() : 0;
    }

    CCmHttpRequestHead m_Request;
    CCmHttpParserT<CCmHttpRequestHead> m_RequestParser{&m_Request};
    CCmHttpResponseHead m_Response;
    CCmHttpParserT<CCmHttpResponseHead> m_ResponseParser{&m_Response};
};

}  // namespace

int main() { return bench::RunParse<CParser>(); }
