// A file of certificates or keys in memory, which is cleansed at the end.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/tls/ssl_problem.h"

struct bio_st;

namespace talvo {

class CPemFile {
public:
    static constexpr size_t MAX_SIZE = 262144;

    CPemFile() = default;
    ~CPemFile();
    CPemFile(const CPemFile&) = delete;
    CPemFile& operator=(const CPemFile&) = delete;

    // May wait for the disk. CM_ERROR_NOT_FOUND: it cannot be read. CM_ERROR_INVALID_ARG: it is too large. Throws
    // std::bad_alloc.
    CSslProblem Read(const std::string& aPath);

    struct CFree {
        void operator()(bio_st* aReader) const;
    };
    // Reads from the beginning, while this object lives. Throws std::bad_alloc.
    std::unique_ptr<bio_st, CFree> MakeReader() const;

private:
    std::vector<char> m_Text;
    size_t m_stSize = 0;
};

}  // namespace talvo
