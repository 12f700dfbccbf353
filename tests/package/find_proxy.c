/* The functions of the proxy discovery from C. Returns the number of failures. */
#include "talvo/proxy/discovery/discovery_functions.h"
#include "talvo/proxy/script/pac_place.h"

#include <stdio.h>
#include <string.h>

static void found(void* arg, uint32_t id, int32_t result, const char* route) {
    (void)arg, (void)id, (void)result, (void)route;
}

static int check(const char* what, int good) {
    if (!good)
        fprintf(stderr, "find_proxy: %s\n", what);
    return good ? 0 : 1;
}

/* script: the URL of one that answers "PROXY script.test:1"; its helper program has to be found. */
static int check_script(const char* script) {
    char settings[1024], route[CM_PROXY_ROUTE_SIZE];
    int failures = 0;
    snprintf(settings, sizeof settings, "Mode=script\nScriptMandatory=1\nScriptUrl=%s\n", script);
    failures += check("script settings", cm_proxy_set_settings(settings) == 0);
    failures += check("script route", cm_proxy_find_wait("http://b.test/", route, sizeof route, 60000) == 0);
    return failures + check(route, strcmp(route, "PROXY script.test:1") == 0);
}

/* In a thread that is not the library's. script: as above, or null. */
int find_in_c(const char* script) {
    char route[CM_PROXY_ROUTE_SIZE], small[8];
    uint32_t id = 7;
    int failures = check("settings", cm_proxy_set_settings("Mode=manual\nServers=http://u:p@proxy.test:3128,direct\n") == 0);
    failures += check("no event queue", cm_proxy_find("http://a.test/", found, &id, &id) == 10005 && id == 7);
    failures += check("route", cm_proxy_find_wait("http://a.test/x?y", route, sizeof route, 60000) == 0);
    failures += check(route, strcmp(route, "PROXY proxy.test:3128; DIRECT") == 0);
    failures += check("room", cm_proxy_find_wait("http://a.test/", small, sizeof small, 60000) == 10013 && !*small);
    failures += check("cancel", cm_proxy_cancel(id) == 10011);
    failures += check("bad", cm_proxy_report_bad("http://proxy.test:3128") == 0 && cm_proxy_report_bad("direct") == 10008);
    failures += check("refresh", cm_proxy_refresh() == 0);
    failures += check("helper", cm_proxy_set_pac_helper("talvo-pac") == 10008 && cm_proxy_set_pac_helper("") == 0);
    if (script)
        failures += check_script(script);
    return failures + check("no settings", cm_proxy_set_settings("Mode=wrong") == 10008 && cm_proxy_set_settings(0) == 10008);
}
