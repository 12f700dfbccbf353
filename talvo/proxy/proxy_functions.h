/* The credentials of proxies: functions for C and C++.
 *
 * Any thread may call them; none of them waits or throws. The results are those of talvo/base/result.h. Texts end with a zero
 * byte and are copied. A proxy is named by its URI without credentials, such as "http://proxy.example:3128" or
 * "socks5://[::1]": the schemes are http (also without a scheme), https, socks4, socks4a, socks5, socks5h and socks, the
 * default ports 80, 443 and 1080. Users, passwords and realms have at most 1,024 bytes.
 *
 * Credentials go to their proxy only. A request to it tries those of its route, then stored ones, then those of the asker.
 * Refused ones are forgotten, unless they came from the route. They stay in memory that core dumps leave out, and no file or
 * trace line has them. The library shows no dialog: asking the user is the application's part. */
#pragma once

#include <stdint.h>

#include "talvo/base/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Stores credentials for a realm of the proxy, in place of the earlier ones. realm NULL: any realm for which none are stored; a
 * SOCKS proxy has the realm "". 0. 10008: another argument is NULL, proxy names no proxy or has credentials, user is empty, or
 * a text is too long or has control characters. 10009: 64 sets are stored. 10007: no memory. */
TALVO_API int32_t cm_proxy_set_credentials(const char* proxy, const char* realm, const char* user, const char* password);

/* Removes the stored credentials of all realms of the proxy. 0. 10011: there were none. 10008: NULL, or no proxy. 10007. */
TALVO_API int32_t cm_proxy_forget_credentials(const char* proxy);

/* A proxy needs credentials that are not stored. Answer the id by cm_proxy_answer, inside this call or later, in any thread.
 * scheme is "basic", "digest", "ntlm" or "socks"; with "basic" and "socks" the proxy, and without TLS the network, see the
 * password. realm is the proxy's text, cut to its limit, with '?' for control characters. refused is 1 if the proxy refused
 * credentials of the same request before. The texts are valid during the call. It must not throw. */
typedef void (*cm_proxy_asker)(void* arg, uint32_t id, const char* proxy, const char* realm, const char* scheme, int refused);

/* Sets the function that asks the user, called from the loop of the calling thread. It replaces the earlier one, of which no
 * call starts after this function if it was set in the same thread; a call in another thread may still be under way. A question
 * that was asked stays open, and others go to the new asker. callback NULL: there is no asker, and all open questions end
 * without an answer. One question serves all requests that wait for the same proxy and realm. Without an answer for 2 minutes
 * (key "AskTimeoutMs" in section "HttpProxy"), or at the end of the calling thread, these requests fail with 20009.
 * 0. 10005: the thread has no event queue, and nothing changes. 10007: no memory. */
TALVO_API int32_t cm_proxy_set_asker(cm_proxy_asker callback, void* arg);

/* Answers a question. The credentials are stored, and all requests that wait for them try them. user NULL: the user gave up,
 * and these requests fail with 20009; password is ignored. If 64 sets are stored, the oldest answer makes room; if there is
 * none, the answer serves the waiting requests and is not stored. 0. 10011: no such question is open. 10008: user is empty,
 * password is NULL, or a text is too long or has control characters; the question stays open. 10007: no memory, likewise. */
TALVO_API int32_t cm_proxy_answer(uint32_t id, const char* user, const char* password);

/* Allows NTLM (not 0) or forbids it (0), to proxies and servers, for challenges that come later. Until the first call the key
 * "AllowNtlm" in section "HttpProxy" decides; its default is no. Returns 0. */
TALVO_API int32_t cm_proxy_allow_ntlm(int allow);

#ifdef __cplusplus
}
#endif
