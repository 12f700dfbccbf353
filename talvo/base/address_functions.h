// Small functions on address texts. They resolve names by waiting, so they are not for the network thread.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Takes "protocol://host:port" apart, of at most 64 characters. A host name is resolved. aProto and aIp get what fits, with a
// terminator; a text behind the second colon that is not a number is port 0. false: not of that form, a name without an
// address, a null pointer or a buffer without room for a terminator.
TALVO_API bool transport_address_parse(const char* aUrl, char* aProto, int aProtoLen, char* aIp, int aIpLen,
                                       unsigned short* aPort);

// Tells literals from names: true if there are only digits, dots, blanks and tabs, so also for "" and "1.2.3.4.5".
TALVO_API bool is_ip_address(const char* aText);

// Writes the first IPv4 address of a name into aIpOut, which has room for 16 characters; on failure a line, and it is
// untouched.
TALVO_API void resolve_2_ip(const char* aHostName, char* aIpOut);

// The address as a number in host order, of a literal or a name; 0 when there is none. Missing numbers count as 0, an octet
// above 255 carries into the next one. Texts are cut at 127 characters.
TALVO_API DWORD ip_2_id(const char* aIpOrHost);

// The three below return static memory: one thread at a time, copy at once.

// The dotted form; overwritten by the next call.
TALVO_API const char* id_2_ip(unsigned long aId);

// The address of the machine's own name, "0.0.0.0" if it has none. Looked up once, success or not.
TALVO_API const char* get_local_ip();

// The same looked up at each call, "127.0.0.1" if there is none.
TALVO_API const char* get_local_ip_address();
