// Absolute URLs of the schemes http, https and file.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/types.h"

// A value with a reference count. The last ReleaseReference, in any thread, deletes an object that was created with new; a copy
// has a count of its own. One thread at a time uses the fields.
//
// A name is taken unchanged: nothing is percent-decoded, user information is not supported, and a "#" and the text behind it
// are a part of the path. Characters that must not be sent are not checked.
//
// An IPv6 address stands in brackets, "http://[::1]:8080/", and takes its shortest form; an IPv4-mapped one becomes the IPv4
// address. A link-local address may have a zone, the name or index of an interface, behind "%25": "http://[fe80::1%25eth0]/".
// The parser does not check that the interface exists. Brackets around or beside anything else are refused.
//
// A query needs a path before it. Kept on purpose: in "http://host:80?q=1", without a "/" behind the authority, the port ends
// before the "?" and the query is lost; in "http://host?q=1" it becomes a part of the host.
class TALVO_API CCmHttpUrl : public CCmReferenceControlT<CCmMutexThread> {
public:
    CCmHttpUrl() = default;
    ~CCmHttpUrl() override = default;
    // The fields, with a count of its own.
    CCmHttpUrl(const CCmHttpUrl& aOther);
    CCmHttpUrl& operator=(const CCmHttpUrl& aOther);

    // Leading spaces are skipped, and the scheme is case-insensitive. FALSE: another scheme, http and https without host and
    // port or with wrong brackets, or memory ran out; the object is then filled in part and must not be used.
    CmBool Init(std::string_view aSpec);

    const CCmString& GetScheme() const { return m_strScheme; }  // in lower case
    // Without brackets, as CCmInetAddr takes it: "host", "::1", "fe80::1%eth0".
    const CCmString& GetHostName() const { return m_strHostName; }

    // http and https: begins with "/". file: the local path, with "\" for "/" and without the first "/" of a UNIX path.
    const CCmString& GetPath() const { return m_strPath; }
    void SetPath(std::string_view aPath);  // empty: "/"

    CmWord GetPort() const { return m_wPort; }  // of the URL, or the default of the scheme
    void SetPort(CmWord aPort);                 // 0: the scheme's default

    // "host" or "[::1]", followed by ":" and the port if it is not the scheme's default or if aForcePort is not 0.
    CCmString GetNameAndPort(int aForcePort) const;

    // "host", "host:port", "[::1]" or "[::1]:port"; a text that is not a number gives the default port. FALSE: an empty text,
    // wrong brackets, or memory ran out. Kept on purpose: a number beyond 65,535 is not refused but taken modulo 65,536.
    CmBool SetNameAndPort(std::string_view aNameAndPort);

    // The whole URL, without a default port; "": memory ran out.
    const CCmString& GetAsciiSpec() const;

private:
    CmBool Parse(std::string_view aSpec);
    CmBool SetNameAndPort_i(std::string_view aNameAndPort);
    CmWord GetDefaultPort() const;
    void MakeSpec() const;
    static CCmString FilePath(std::string_view aRest);

    mutable CCmString m_strSpec;  // for GetAsciiSpec; empty: must be built again
    CCmString m_strScheme;
    CCmString m_strPath;
    CCmString m_strHostName;
    CmWord m_wPort = 0;
};
