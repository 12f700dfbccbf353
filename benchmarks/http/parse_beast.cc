// Heads and chunked bodies on Boost.Beast: its parsers store all fields in its container. As its documentation recommends, each
// message has a new parser, which gets the whole head at once; the body goes into a string that is kept.
#include <boost/beast/http.hpp>

#include "benchmarks/http/parse.h"

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

class CParser {
public:
    size_t Request(std::string_view aMessage) {
        http::request_parser<http::empty_body> parser;
        return Parse(parser, aMessage);
    }
    size_t Response(std::string_view aMessage) {
        http::response_parser<http::empty_body> parser;
        return Parse(parser, aMessage);
    }

    size_t Chunked(const std::vector<std::string_view>& aPieces) {
        http::response_parser<http::string_body> parser;
        parser.body_limit(bench::BODY_SIZE);
        parser.eager(true);
        m_strBody.clear();
        parser.get().body() = std::move(m_strBody);
        Put(parser, bench::CHUNKED_RESPONSE);
        std::string strLeft;  // of a piece: an incomplete size line
        for (const std::string_view strPiece : aPieces) {
            if (strLeft.empty()) {
                strLeft = strPiece.substr(Put(parser, strPiece));
            } else {
                strLeft.append(strPiece);
                strLeft.erase(0, Put(parser, strLeft));
            }
        }
        m_strBody = std::move(parser.get().body());
        return parser.is_done() ? m_strBody.size() : 0;
    }

private:
    // Returns the number of bytes used. The rest has to come again with more.
    template <class Parser>
    static size_t Put(Parser& aParser, std::string_view aBytes) {
        size_t stUsed = 0;
        boost::beast::error_code error;
        while (!error && stUsed < aBytes.size() && !aParser.is_done())
            stUsed += aParser.put(asio::buffer(aBytes.data() + stUsed, aBytes.size() - stUsed), error);
        return stUsed;
    }

    template <class Parser>
    static size_t Parse(Parser& aParser, std::string_view aMessage) {
        boost::beast::error_code error;
        aParser.put(asio::buffer(aMessage.data(), aMessage.size()), error);
        if (error || !aParser.is_header_done())
            return 0;
        const auto& fields = aParser.get().base();
        return static_cast<size_t>(std::distance(fields.begin(), fields.end()));
    }

    std::string m_strBody;
};

}  // namespace

int main() { return bench::RunParse<CParser>(); }
