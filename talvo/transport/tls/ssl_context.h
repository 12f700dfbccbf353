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
class ITlsLower;
struct CSslState;
}  // namespace talvo

// Whether the certificate of the peer is checked: chain, dates, purpose and name. A server asks a client for one unless it is
// CM_TLS_VERIFY_NONE; CM_TLS_VERIFY_OPTIONAL also accepts a client without one, and means REQUIRED for a client's context.
enum ECmTlsVerify : CmDword { CM_TLS_VERIFY_NONE = 0, CM_TLS_VERIFY_OPTIONAL = 1, CM_TLS_VERIFY_REQUIRED = 2 };

// Shared by any number of connections, of connectors and acceptors, in any threads. Settings are made before the first
// connection uses it; afterwards they return CM_ERROR_ALREADY_INITIALIZED. All files are PEM, and are read at once:
// CM_ERROR_NOT_FOUND if one cannot be read, CM_ERROR_INVALID_ARG if its content is not what the call needs or an argument is
// null, each with a line in the trace. After CM_ERROR_OUT_OF_MEMORY no connection can use the context, which lacks a setting.
// Keys and pass phrases are never traced, and leave memory with the context. The settings may wait for the disk.
//
// A new context trusts the system's store, verifies a server and asks no client for a certificate, offers TLS 1.2 and 1.3, and
// has no certificate of its own. Renegotiation, compression and early data are refused always. OpenSSL's configuration file
// can make these rules stricter, not weaker: TLS 1.2 and security level 2 (no SHA-1 in certificates, RSA of 2,048 bits) are
// the least. Certificates are checked by the system's time. A peer may send 100 KiB of them.
//
// A certificate must have the name of the server among its DNS names, or its address among its addresses. A "*" stands for one
// whole label. The common name of the subject does not count.
class TALVO_API CCmSslContext : public ICmReferenceControl, public CCmReferenceControlT<CCmMutexThread> {
public:
    CCmSslContext();  // without certificates and with the system's trust
    ~CCmSslContext() override;

    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

    // The roots, instead of those of the system or of an earlier call: a file, a folder with hashed names, or both. A folder is
    // read when a connection needs it. After a failure the context trusts no certificate at all. A server sends the names in
    // the file to its clients, if there are at most 256. The system's store is OpenSSL's; the variables SSL_CERT_FILE and
    // SSL_CERT_DIR replace it.
    CmResult SetTrust(const char* aFile, const char* aFolder = nullptr);
    // Lists of revoked certificates, of each issuer in a chain. Without the list of an issuer its certificates are refused, and
    // after a failure all certificates.
    CmResult SetRevocationLists(const char* aFile);

    using Passphrase = std::function<CCmString()>;  // called for an encrypted key
    // The own certificate, behind it the intermediate ones, and its key. aPassphrase is called at once, perhaps twice, if the
    // key is encrypted, and again by Reload; nothing is asked on a terminal. A server may add several: it presents the one of
    // the name that the client asks for (exact, then with "*" for the first label), or else the first one added. A client
    // presents the first one if the server asks.
    CmResult AddCertificate(const char* aChainFile, const char* aKeyFile, const Passphrase& aPassphrase = {});

    // TRUE: AddCertificate has succeeded, so a server can use the context.
    CmBool HasCertificate() const;

    // Of a client: the protocols that it offers, the preferred one first, separated by commas ("http/1.1"). Of a server: those
    // that it takes, in its order of preference. A server refuses a client that offers protocols and none of these; a client
    // that offers none is accepted.
    CmResult SetAlpn(const char* aProtocols);
    // The lowest and the highest version that a session may have.
    CmResult SetVersions(ECmTlsVersion aLowest, ECmTlsVersion aHighest);
    // Lists of OpenSSL's names, for TLS 1.2 and for TLS 1.3; null leaves one as it is. "@SECLEVEL=n" in the first changes the
    // level of security, for the certificates added later too. Ciphers without authentication or encryption are never used.
    CmResult SetCiphers(const char* aTls12, const char* aTls13);
    // Without verification everybody can read and change the traffic; each such connection of a client traces a warning.
    CmResult SetVerify(ECmTlsVerify aVerify);

    // TRUE at first: a client keeps up to 4 sessions of each of 1,024 servers (name and port), for 2 hours at most, and resumes
    // them; none of a connection that was not verified. A session of TLS 1.3 is used once. A server issues tickets, whose key
    // changes every 12 hours; the previous key is still accepted. No session passes from one context to another.
    CmResult SetSessionKeeping(CmBool aKeep);

    // Appends the secrets of all connections to a file, which only its owner may read, for a tool that decrypts recorded
    // traffic. Traces a warning. No environment variable does this.
    CmResult SetKeyLog(const char* aFile);

    // Reads all files again, at any time. Connections from now on use the new content, without the sessions of the past;
    // existing ones stay. After a failure the context stays as it was; the trace has the reason.
    CmResult Reload();

    // Of the process, for clients without a context of their own: the system's store, or section "Ssl" of the configuration.
    // Once a minute it checks the files for changes. Null: memory ran out.
    static CCmRefPtrT<CCmSslContext> GetDefault();

private:
    friend class CCmTransportSsl;
    CmResult Begin_i(CCmTransportSsl& aTransport, talvo::ITlsLower& aLower, CmDword aType, const char* aServerName,
                     const std::vector<unsigned char>& aAlpn, std::unique_ptr<talvo::CTlsSession>& aSession);
    template <class Change>
    CmResult Set_i(const char* aWhat, const Change& aChange);
    template <class Change>
    CmResult Change_i(const char* aWhat, const Change& aChange);
    CmResult Refuse_i(const char* aWhat, CmResult aResult, const char* aWhy, const char* aFile = "");

    const std::unique_ptr<talvo::CSslState> m_pState;  // null: memory ran out
};
