// The certificates, the trust and the rules of TLS connections.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"
#include "talvo/base/types.h"
#include "talvo/transport/tls/ssl_info.h"

class CCmTransportSsl;

namespace talvo {
class CTlsSession;
struct CSslSettings;
}  // namespace talvo

// Whether the certificate of the peer is checked: chain, dates, purpose and name. A server asks a client for one unless it is
// CM_TLS_VERIFY_NONE; CM_TLS_VERIFY_OPTIONAL also accepts a client without one, and means REQUIRED for a client's context.
enum ECmTlsVerify : DWORD { CM_TLS_VERIFY_NONE = 0, CM_TLS_VERIFY_OPTIONAL = 1, CM_TLS_VERIFY_REQUIRED = 2 };

// Shared by any number of connections, of connectors and acceptors, in any threads. Settings are made before the first
// connection uses it; afterwards they return CM_ERROR_ALREADY_INITIALIZED. A file is read at once: CM_ERROR_NOT_FOUND if it
// cannot be read, CM_ERROR_INVALID_ARG if its content is not what the call needs, each with a line in the trace. All files are
// PEM. Keys and pass phrases are never traced. The settings may wait for the disk.
//
// A new context trusts the system's store, verifies a server and asks no client for a certificate, offers TLS 1.2 and 1.3, and
// keeps no certificate of its own. Renegotiation and compression are refused always.
class TALVO_API CCmSslContext : public ICmReferenceControl, public CCmReferenceControlT<CCmMutexThread> {
public:
    CCmSslContext();
    ~CCmSslContext() override;

    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    // The certificates that sign others, instead of the system's: a file, a folder with hashed names, or both.
    CmResult SetTrust(const char* aFile, const char* aFolder = nullptr);
    // Lists of revoked certificates; every certificate of a chain but the root needs one then.
    CmResult SetRevocationLists(const char* aFile);

    using Passphrase = std::function<CCmString()>;
    // The own certificate, behind it the intermediate ones, and its key. aPassphrase is called at once, if the key is
    // encrypted. A server may add several: it presents the one whose name is the client's (exact, then with "*." for one
    // label), or else the first.
    CmResult AddCertificate(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase = {});

    // TRUE: AddCertificate has succeeded, so a server can use the context.
    BOOL HasCertificate() const;

    // Of a client: the protocols that it offers, the preferred one first, separated by commas ("http/1.1"). Of a server: those
    // that it takes, in its order of preference. Without a common one the connection is made without a protocol.
    CmResult SetAlpn(const char* aProtocols);
    CmResult SetVersions(ECmTlsVersion aLowest, ECmTlsVersion aHighest);
    // Lists of OpenSSL's names, for TLS 1.2 and for TLS 1.3; null leaves one as it is.
    CmResult SetCiphers(const char* aTls12, const char* aTls13);
    // Without verification everybody can read and change the traffic; each such connection of a client traces a warning.
    CmResult SetVerify(ECmTlsVerify aVerify);

    // Appends the secrets of all connections to a file, for a tool that decrypts recorded traffic.
    CmResult SetKeyLog(const char* aFile);

    // Of the process, for clients without a context of their own: the system's store, or section "Ssl" of the configuration.
    // Null: memory ran out.
    static CCmRefPtrT<CCmSslContext> GetDefault();

private:
    friend class CCmTransportSsl;
    CmResult Begin_i(CCmTransportSsl& aTransport, DWORD aType, const char* aServerName, const std::vector<unsigned char>& aAlpn,
                     std::unique_ptr<talvo::CTlsSession>& aSession);
    CmResult Use_i();
    template <class Callable>
    CmResult Set_i(const char* aWhat, const char* aFile, Callable aSet);

    const std::unique_ptr<talvo::CSslSettings> m_pSettings;  // null: memory ran out
};
