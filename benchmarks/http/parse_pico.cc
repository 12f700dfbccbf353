// Heads and chunked bodies on picohttpparser: the limit, because it stores nothing. Names and values stay views on the message,
// which the caller has to keep; bodies are decoded in place. Debian has it as a part of libh2o, which exports it without a
// header.
#include <sys/types.h>

#include "benchmarks/http/parse.h"

extern "C" {
struct phr_header {
    const char* name;
    size_t name_len;
    const char* value;
    size_t value_len;
};
struct phr_chunked_decoder {
    size_t bytes_left_in_chunk;
    char consume_trailer;
    char _hex_count;
    char _state;
};
int phr_parse_request(const char* buf, size_t len, const char** method, size_t* method_len, const char** path, size_t* path_len,
                      int* minor_version, phr_header* headers, size_t* num_headers, size_t last_len);
int phr_parse_response(const char* buf, size_t len, int* minor_version, int* status, const char** msg, size_t* msg_len,
                       phr_header* headers, size_t* num_headers, size_t last_len);
ssize_t phr_decode_chunked(phr_chunked_decoder* decoder, char* buf, size_t* bufsz);
}

namespace {

class CParser {
public:
    size_t Request(std::string_view aMessage) {
        const char *pMethod, *pPath;
        size_t stMethod, stPath, stCount = MOST_HEADERS;
        int nMinor;
        const int nUsed = phr_parse_request(aMessage.data(), aMessage.size(), &pMethod, &stMethod, &pPath, &stPath, &nMinor,
                                            m_Headers, &stCount, 0);
        return nUsed > 0 ? stCount : 0;
    }
    size_t Response(std::string_view aMessage) {
        const char* pReason;
        size_t stReason, stCount = MOST_HEADERS;
        int nMinor, nStatus;
        const int nUsed = phr_parse_response(aMessage.data(), aMessage.size(), &nMinor, &nStatus, &pReason, &stReason,
                                             m_Headers, &stCount, 0);
        return nUsed > 0 ? stCount : 0;
    }

    size_t Chunked(const std::vector<std::string_view>& aPieces) {
        phr_chunked_decoder decoder{};
        decoder.consume_trailer = 1;
        ssize_t nLeft = -1;
        m_strBody.clear();
        Response(bench::CHUNKED_RESPONSE);
        for (const std::string_view strPiece : aPieces) {
            const size_t stBefore = m_strBody.size();
            size_t stSize = strPiece.size();
            m_strBody.append(strPiece);
            nLeft = phr_decode_chunked(&decoder, m_strBody.data() + stBefore, &stSize);
            m_strBody.resize(stBefore + stSize);
        }
        return nLeft >= 0 ? m_strBody.size() : 0;
    }

private:
    static constexpr size_t MOST_HEADERS = 100;

    phr_header m_Headers[MOST_HEADERS];
    std::string m_strBody;
};

}  // namespace

int main() { return bench::RunParse<CParser>(); }
