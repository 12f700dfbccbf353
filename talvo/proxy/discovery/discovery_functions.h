/* The discovery of the user's proxy: functions for C and C++.
 *
 * Any thread may call them; none of them throws, and only cm_proxy_find_wait waits. The results are those of
 * talvo/base/result.h. Texts end with a zero byte and are copied.
 *
 * A route is a text as scripts return it, such as "PROXY proxy.example:3128; SOCKS5 [::1]:1080; DIRECT": at most 16 servers,
 * the next one for the case that the one before it cannot be reached. The words are DIRECT, PROXY, HTTPS, SOCKS (version 4),
 * SOCKS4A and SOCKS5. It has no credentials; talvo/proxy/proxy_functions.h is about them. cm_proxy_set_pac_helper, of
 * talvo/proxy/script/pac_place.h, names the program that runs scripts. */
#pragma once

#include <stdint.h>

#include "talvo/base/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A buffer of this size holds any route. */
enum { CM_PROXY_ROUTE_SIZE = 4608 };

/* The end of a search. result 0: route has the servers. 20009: the user's script is mandatory and has no answer. 10009: the
 * network thread has ended. 10007: no memory. Otherwise route is "". It is valid during the call. The function must not throw;
 * it may search again, and cancel others. */
typedef void (*cm_proxy_found)(void* arg, uint32_t id, int32_t result, const char* route);

/* Finds the route for a URL, http or https, of which only scheme, host and port are used. 0: callback follows once from the
 * loop of the calling thread, never inside this call, unless the search is cancelled or the thread ends; *id names the search.
 * 10008: a pointer is NULL, another scheme, no host, or a host with "@". 10005: the thread has no event queue. 10009: there is
 * no network thread, or 4,096 searches wait. 10007: no memory. After a failure *id is unchanged. */
TALVO_API int32_t cm_proxy_find(const char* url, cm_proxy_found callback, void* arg, uint32_t* id);

/* Cancels a search. In the thread that began it, no callback follows; in another thread, one that is under way may end after
 * this function. 0. 10011: there is no such search, or its callback has begun. */
TALVO_API int32_t cm_proxy_cancel(uint32_t id);

/* The same for threads that are not the library's: waits for the route and writes it to buffer. 0. 10014: milliseconds have
 * passed. 10013: the route needs more than size bytes; buffer is "" then, as after each failure but 10008. 10008: as above, or
 * size is 0. 10009: a thread of the library calls, or as above. 20009, 10007: as the result of a search. The network thread
 * must not end meanwhile. */
TALVO_API int32_t cm_proxy_find_wait(const char* url, char* buffer, uint32_t size, uint32_t milliseconds);

/* Replaces the application's settings: lines "key=value" as in the section "HttpProxy", see docs/proxy-discovery.md. "": those
 * of the configuration file again. 0. 10008: NULL, a malformed line, an unknown key, or a value that its key cannot have;
 * nothing changes. 10009: more than 64 KiB. 10007: no memory. */
TALVO_API int32_t cm_proxy_set_settings(const char* text);

/* Reads the environment in the calling thread, and the other sources at the next search. Drops the answers that were kept and
 * the list of unreachable servers, and fetches the script again. 0. 10007: no memory. */
TALVO_API int32_t cm_proxy_refresh(void);

/* A server of a route, such as "http://proxy.example:3128", could not be reached: for 5 minutes it is the last one of the
 * routes of connections. 0. 10008: NULL, or no such server. 10007: no memory. */
TALVO_API int32_t cm_proxy_report_bad(const char* server);

#ifdef __cplusplus
}
#endif
