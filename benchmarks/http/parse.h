// HTTP messages in memory: the cost of parsing a browser's request head, a response head and a chunked body.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "benchmarks/support/system.h"

namespace bench {

// A page's request as a browser of 2022 sends it: 12 headers.
constexpr std::string_view REQUEST =
    "GET /articles/2022/11/how-it-works.html?ref=home HTTP/1.1\r\n"
    "Host: www.example.com\r\n"
    "Connection: keep-alive\r\n"
    "Cache-Control: max-age=0\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/107.0.0.0 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,image/apng,*/*;q=0.8\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Referer: https://www.example.com/\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Accept-Language: en-GB,en;q=0.9\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
    "\r\n";

constexpr std::string_view RESPONSE =
    "HTTP/1.1 200 OK\r\n"
    "Date: Mon, 21 Nov 2022 08:49:37 GMT\r\n"
    "Server: Example/1.22.1\r\n"
    "Content-Type: text/html; charset=utf-8\r\n"
    "Content-Length: 45620\r\n"
    "Last-Modified: Sun, 20 Nov 2022 10:00:00 GMT\r\n"
    "ETag: \"5f3a-45620-1668938400\"\r\n"
    "Accept-Ranges: bytes\r\n"
    "Vary: Accept-Encoding\r\n"
    "Cache-Control: public, max-age=3600\r\n"
    "Strict-Transport-Security: max-age=31536000\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Connection: keep-alive\r\n"
    "\r\n";

constexpr std::string_view CHUNKED_RESPONSE = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
constexpr size_t BODY_SIZE = 1 << 20;
constexpr size_t CHUNK_SIZE = 4096;
constexpr size_t PIECE_SIZE = 16384;  // the read size of a transport

// 1 MiB of body in chunks, with its end.
inline std::string ChunkedBody() {
    std::string strBody;
    for (size_t i = 0; i < BODY_SIZE / CHUNK_SIZE; ++i)
        strBody.append("1000\r\n").append(CHUNK_SIZE, static_cast<char>('a' + i % 26)).append("\r\n");
    return strBody + "0\r\n\r\n";
}

inline void Check(bool aGood, const char* aWhat) {
    if (!aGood) {
        std::fprintf(stderr, "%s was not parsed\n", aWhat);
        std::exit(1);
    }
}

// Prints the time of one call of aWork: the best of twenty runs, so that other work of the machine has little effect.
template <class Work>
void Measure(const char* aName, int aCalls, Work aWork) {
    constexpr int RUNS = 20;
    int64_t llBest = INT64_MAX;
    for (int i = 0; i < RUNS; ++i) {
        const int64_t llStart = NowNs();
        for (int n = 0; n < aCalls; ++n)
            aWork();
        llBest = std::min(llBest, NowNs() - llStart);
    }
    std::printf("{\"name\":\"%s\",\"ns\":%.1f}\n", aName, static_cast<double>(llBest) / aCalls);
}

// Parser is the library under test:
//   Request(message), Response(message)   parses a whole head and stores it; returns the number of headers
//   Chunked(pieces)                       collects the body that follows CHUNKED_RESPONSE in a buffer; returns its length
template <class Parser>
int RunParse() {
    PinThisThread(0);
    Parser parser;
    Measure("request", 20000, [&] { Check(parser.Request(REQUEST) == 12, "the request"); });
    Measure("response", 20000, [&] { Check(parser.Response(RESPONSE) == 12, "the response"); });
    const std::string strBody = ChunkedBody();
    std::vector<std::string_view> pieces;
    for (size_t i = 0; i < strBody.size(); i += PIECE_SIZE)
        pieces.push_back(std::string_view(strBody).substr(i, PIECE_SIZE));
    Measure("chunked_1MiB", 50, [&] { Check(parser.Chunked(pieces) == BODY_SIZE, "the chunked body"); });
    return 0;
}

}  // namespace bench
