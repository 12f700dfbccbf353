// Small functions on address texts. They resolve names and block until the answer comes: do not call them in the network
// thread.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Splits "protocol://host:port", which has at most 64 characters, and resolves a host name. aProto and aIp (out): the parts,
// cut to their buffers and terminated. aPort (out): a text behind the second colon that is not a number gives port 0. false:
// another form, a name without an address, a null pointer, or a buffer without room for a terminator.
TALVO_API bool transport_address_parse(const char* aUrl, char* aProto, int aProtoLen, char* aIp, int aIpLen,
                                       unsigned short* aPort);

// Distinguishes literals from names. true: aText has only digits, dots, blanks and tabs; this includes "" and "1.2.3.4.5".
TALVO_API bool is_ip_address(const char* aText);

// aIpOut (out): the first IPv4 address of the name; it needs room for 16 characters. A failure is traced and leaves it
// unchanged.
TALVO_API void resolve_2_ip(const char* aHostName, char* aIpOut);

// The address of a literal or a name as a number in host order; 0 if there is none. Missing numbers count as 0, and an octet
// above 255 carries into the next one. Texts are cut at 127 characters.
TALVO_API CmDword ip_2_id(const char* aIpOrHost);

// The three functions below return static memory. Use them in one thread at a time and copy the result at once.

// The dotted form. The next call overwrites it.
TALVO_API const char* id_2_ip(unsigned long aId);

// The address of the machine's own name, or "0.0.0.0". It is looked up once, whether or not that succeeds.
TALVO_API const char* get_local_ip();

// The same, looked up at each call, or "127.0.0.1".
TALVO_API const char* get_local_ip_address();
