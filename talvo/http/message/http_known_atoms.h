// The headers and methods that every list of atoms contains: X(member, text).
#pragma once

// Headers first, methods from Options on. The member is the text with "_" for "-"; only Etag differs in case.
#define CM_FOR_EACH_HTTP_HEADER(X)                            \
    X(Accept, "Accept")                                       \
    X(Accept_Charset, "Accept-Charset")                       \
    X(Accept_Encoding, "Accept-Encoding")                     \
    X(Accept_Language, "Accept-Language")                     \
    X(Accept_Ranges, "Accept-Ranges")                         \
    X(Age, "Age")                                             \
    X(Allow, "Allow")                                         \
    X(Authentication, "Authentication")                       \
    X(Authorization, "Authorization")                         \
    X(Cache_Control, "Cache-Control")                         \
    X(Connection, "Connection")                               \
    X(Content_Base, "Content-Base")                           \
    X(Content_Encoding, "Content-Encoding")                   \
    X(Content_Language, "Content-Language")                   \
    X(Content_Length, "Content-Length")                       \
    X(Content_Location, "Content-Location")                   \
    X(Content_MD5, "Content-MD5")                             \
    X(Content_Range, "Content-Range")                         \
    X(Content_Transfer_Encoding, "Content-Transfer-Encoding") \
    X(Content_Type, "Content-Type")                           \
    X(Date, "Date")                                           \
    X(Derived_From, "Derived-From")                           \
    X(ETag, "Etag")                                           \
    X(Expect, "Expect")                                       \
    X(Expires, "Expires")                                     \
    X(From, "From")                                           \
    X(Forwarded, "Forwarded")                                 \
    X(Host, "Host")                                           \
    X(If_Match, "If-Match")                                   \
    X(If_Match_Any, "If-Match-Any")                           \
    X(If_Modified_Since, "If-Modified-Since")                 \
    X(If_None_Match, "If-None-Match")                         \
    X(If_None_Match_Any, "If-None-Match-Any")                 \
    X(If_Range, "If-Range")                                   \
    X(If_Unmodified_Since, "If-Unmodified-Since")             \
    X(Keep_Alive, "Keep-Alive")                               \
    X(Last_Modified, "Last-Modified")                         \
    X(Link, "Link")                                           \
    X(Location, "Location")                                   \
    X(Max_Forwards, "Max-Forwards")                           \
    X(Message_Id, "Message-Id")                               \
    X(Mime, "Mime")                                           \
    X(Pragma, "Pragma")                                       \
    X(Vary, "Vary")                                           \
    X(Proxy_Authenticate, "Proxy-Authenticate")               \
    X(Proxy_Authorization, "Proxy-Authorization")             \
    X(Proxy_Connection, "Proxy-Connection")                   \
    X(Range, "Range")                                         \
    X(Referer, "Referer")                                     \
    X(Retry_After, "Retry-After")                             \
    X(Server, "Server")                                       \
    X(TE, "TE")                                               \
    X(Title, "Title")                                         \
    X(Trailer, "Trailer")                                     \
    X(Transfer_Encoding, "Transfer-Encoding")                 \
    X(Upgrade, "Upgrade")                                     \
    X(URI, "URI")                                             \
    X(User_Agent, "User-Agent")                               \
    X(Version, "Version")                                     \
    X(Warning, "Warning")                                     \
    X(WWW_Authenticate, "WWW-Authenticate")                   \
    X(Set_Cookie, "Set-Cookie")                               \
    X(Cookie, "Cookie")

#define CM_FOR_EACH_HTTP_METHOD(X) \
    X(Options, "OPTIONS")          \
    X(Head, "HEAD")                \
    X(Post, "POST")                \
    X(Put, "PUT")                  \
    X(Get, "GET")                  \
    X(Index, "INDEX")              \
    X(Delete, "DELETE")            \
    X(Trace, "TRACE")              \
    X(Connect, "CONNECT")          \
    X(M_Post, "M-POST")

#define CM_FOR_EACH_HTTP_ATOM(X) \
    CM_FOR_EACH_HTTP_HEADER(X)   \
    CM_FOR_EACH_HTTP_METHOD(X)
