// Echo server on the bare system and OpenSSL: the floor. Level-triggered; one read of the socket brings several records, and
// the answers to all of them leave in one write. Ciphertext stands in buffers that all connections share, and OpenSSL keeps
// only the beginning of a record between two reads.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "benchmarks/tls/server_arguments.h"

namespace {

constexpr size_t READ_SIZE = 64 * 1024;

struct CConnection {
    int m_Fd = -1;
    SSL* m_pSsl = nullptr;
    std::string m_strRest;  // sealed and not yet taken by the peer; reading is off meanwhile
};

// The ciphertext of the connection whose turn it is.
std::array<char, READ_SIZE> s_Input;
const char* s_pInput = s_Input.data();
size_t s_nInput = 0;
std::string s_strOutput;

int ReadInput(BIO* aBio, char* aBuffer, int aSize) {
    BIO_clear_retry_flags(aBio);
    if (s_nInput == 0) {
        BIO_set_retry_read(aBio);
        return -1;
    }
    const size_t nTaken = std::min(static_cast<size_t>(aSize), s_nInput);
    std::memcpy(aBuffer, s_pInput, nTaken);
    s_pInput += nTaken;
    s_nInput -= nTaken;
    return static_cast<int>(nTaken);
}

int WriteOutput(BIO*, const char* aData, int aSize) {
    s_strOutput.append(aData, static_cast<size_t>(aSize));
    return aSize;
}

BIO_METHOD* MakeMethod() {
    BIO_METHOD* pMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "shared buffers");
    BIO_meth_set_read(pMethod, ReadInput);
    BIO_meth_set_write(pMethod, WriteOutput);
    BIO_meth_set_ctrl(pMethod, [](BIO*, int aCommand, long, void*) { return aCommand == BIO_CTRL_FLUSH ? 1l : 0l; });
    return pMethod;
}

class CServer {
public:
    explicit CServer(const bench::CServerArguments& aArguments)
        : m_Epoll(epoll_create1(EPOLL_CLOEXEC)), m_pContext(SSL_CTX_new(TLS_server_method())), m_pMethod(MakeMethod()) {
        SSL_CTX_set_mode(m_pContext, SSL_MODE_RELEASE_BUFFERS);
        SSL_CTX_set_session_cache_mode(m_pContext, SSL_SESS_CACHE_OFF);
        if (SSL_CTX_use_certificate_chain_file(m_pContext, aArguments.m_pChain) != 1 ||
            SSL_CTX_use_PrivateKey_file(m_pContext, aArguments.m_pKey, SSL_FILETYPE_PEM) != 1)
            bench::Fail("the certificate");
        m_Listener.m_Fd = bench::ListenLoopback(aArguments.m_wPort);
        Watch(EPOLL_CTL_ADD, m_Listener, EPOLLIN);
        s_strOutput.reserve(2 * READ_SIZE);
    }

    [[noreturn]] void Run() {
        std::array<epoll_event, 256> events;
        for (;;) {
            const int nReady = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int n = 0; n < nReady; ++n)
                Dispatch(*static_cast<CConnection*>(events[static_cast<size_t>(n)].data.ptr));
        }
    }

private:
    void Watch(int aOperation, CConnection& aConnection, uint32_t aEvents) {
        epoll_event event{};
        event.events = aEvents;
        event.data.ptr = &aConnection;
        if (epoll_ctl(m_Epoll, aOperation, aConnection.m_Fd, &event) == -1)
            bench::Fail("epoll_ctl");
    }

    void Dispatch(CConnection& aConnection) {
        if (&aConnection == &m_Listener)
            Accept();
        else if (aConnection.m_strRest.empty())
            Echo(aConnection);
        else
            SendRest(aConnection);
    }

    void Accept() {
        for (int fd; (fd = accept4(m_Listener.m_Fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) != -1;) {
            bench::SetNoDelay(fd);
            SSL* pSsl = SSL_new(m_pContext);
            BIO* pBio = BIO_new(m_pMethod);
            BIO_set_init(pBio, 1);
            SSL_set_bio(pSsl, pBio, pBio);
            SSL_set_accept_state(pSsl);
            Watch(EPOLL_CTL_ADD, *new CConnection{fd, pSsl, {}}, EPOLLIN);
        }
    }

    void Echo(CConnection& aConnection) {
        const ssize_t nRead = recv(aConnection.m_Fd, s_Input.data(), s_Input.size(), 0);
        if (nRead <= 0)
            return CloseUnlessBlocked(aConnection, nRead);
        s_pInput = s_Input.data();
        s_nInput = static_cast<size_t>(nRead);
        s_strOutput.clear();
        const bool bAlive = Answer(aConnection);
        const size_t nOutput = s_strOutput.size();
        const ssize_t nSent = nOutput > 0 ? send(aConnection.m_Fd, s_strOutput.data(), nOutput, MSG_NOSIGNAL) : 0;
        if (!bAlive || (nSent == -1 && errno != EAGAIN))
            return Close(aConnection);
        const size_t nTaken = static_cast<size_t>(std::max<ssize_t>(nSent, 0));
        if (nTaken == nOutput)
            return;
        aConnection.m_strRest.assign(s_strOutput, nTaken);
        Watch(EPOLL_CTL_MOD, aConnection, EPOLLOUT);
    }

    // Opens all complete records, also those of the handshake, and seals the answers. False: the connection is over.
    bool Answer(CConnection& aConnection) {
        for (;;) {
            const int nRead = SSL_read(aConnection.m_pSsl, m_Plain.data(), static_cast<int>(m_Plain.size()));
            if (nRead > 0)
                SSL_write(aConnection.m_pSsl, m_Plain.data(), nRead);
            else
                return GoesOn(aConnection, nRead);
        }
    }

    // Answers the peer's close_notify.
    bool GoesOn(CConnection& aConnection, int aRead) {
        const int nError = SSL_get_error(aConnection.m_pSsl, aRead);
        if (nError == SSL_ERROR_ZERO_RETURN)
            SSL_shutdown(aConnection.m_pSsl);
        return nError == SSL_ERROR_WANT_READ;
    }

    void SendRest(CConnection& aConnection) {
        const ssize_t nSent = send(aConnection.m_Fd, aConnection.m_strRest.data(), aConnection.m_strRest.size(), MSG_NOSIGNAL);
        if (nSent == -1)
            return CloseUnlessBlocked(aConnection, nSent);
        aConnection.m_strRest.erase(0, static_cast<size_t>(nSent));
        if (aConnection.m_strRest.empty())
            Watch(EPOLL_CTL_MOD, aConnection, EPOLLIN);
    }

    void CloseUnlessBlocked(CConnection& aConnection, ssize_t aResult) {
        if (aResult == 0 || errno != EAGAIN)
            Close(aConnection);
    }

    void Close(CConnection& aConnection) {
        SSL_free(aConnection.m_pSsl);
        ERR_clear_error();
        close(aConnection.m_Fd);
        delete &aConnection;
    }

    int m_Epoll;
    SSL_CTX* m_pContext;
    BIO_METHOD* m_pMethod;
    CConnection m_Listener;
    std::array<char, SSL3_RT_MAX_PLAIN_LENGTH> m_Plain;
};

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    static CServer s_Server{bench::CServerArguments(argc, argv)};
    bench::PrintReady();
    s_Server.Run();
}
