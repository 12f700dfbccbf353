/* The functions for C, from C. */
#include "talvo/proxy/proxy_functions.h"

static void ask(void* arg, uint32_t id, const char* proxy, const char* realm, const char* scheme, int refused) {
    (void)proxy, (void)realm, (void)scheme, (void)refused;
    *(int32_t*)arg = cm_proxy_answer(id, "u", "from C");
}

int32_t set_asker_from_c(int32_t* answered) { return cm_proxy_set_asker(ask, answered); }
