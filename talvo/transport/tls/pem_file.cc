#include "talvo/transport/tls/pem_file.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace talvo {

namespace {

// Closes the file, and keeps errno.
struct CClose {
    ~CClose() {
        const int nErrno = errno;
        close(m_Fd);
        errno = nErrno;
    }
    const int m_Fd;
};

}  // namespace

CPemFile::~CPemFile() { OPENSSL_cleanse(m_Text.data(), m_Text.size()); }

void CPemFile::CFree::operator()(bio_st* aReader) const { BIO_free(aReader); }

// The buffer never grows: that would leave a copy behind.
CSslProblem CPemFile::Read(const std::string& aPath) {
    m_Text.resize(MAX_SIZE + 1);
    m_stSize = 0;
    const int fd = open(aPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return CSslProblem::FromErrno(aPath);
    const CClose closing{fd};
    ssize_t lRead = 0;
    while ((lRead = read(fd, m_Text.data() + m_stSize, m_Text.size() - m_stSize)) > 0)
        m_stSize += static_cast<size_t>(lRead);
    if (lRead < 0)
        return CSslProblem::FromErrno(aPath);
    if (m_stSize > MAX_SIZE)
        return {CM_ERROR_INVALID_ARG, aPath, "the file is too large"};
    return {};
}

std::unique_ptr<bio_st, CPemFile::CFree> CPemFile::MakeReader() const {
    std::unique_ptr<bio_st, CFree> pReader(BIO_new_mem_buf(m_Text.data(), static_cast<int>(m_stSize)));
    if (!pReader)
        throw std::bad_alloc();
    return pReader;
}

}  // namespace talvo
