/* Preloaded before the platform library: appends the session's calls to $TRACE_FILE, a line each, and passes
 * them on. What the libraries call among themselves while such a call runs is not written down. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static int depth;

static void write_down(const char *name, const int *number) {
    FILE *trace = depth == 0 ? fopen(getenv("TRACE_FILE"), "ae") : NULL;

    if (!trace)
        return;
    if (number)
        fprintf(trace, "%s %d\n", name, *number);
    else
        fprintf(trace, "%s\n", name);
    fclose(trace);
}

#define PASS_ON(result_type, name, parameters, arguments, number) \
    result_type name parameters;                                  \
    result_type name parameters {                                 \
        result_type(*next) parameters;                            \
        result_type result;                                       \
        *(void **)&next = dlsym(RTLD_NEXT, #name);                \
        write_down(#name, number);                                \
        depth++;                                                  \
        result = next arguments;                                  \
        depth--;                                                  \
        return result;                                            \
    }

#define PASS_ON_VOID(name, parameters, arguments)  \
    void name parameters;                          \
    void name parameters {                         \
        void(*next) parameters;                    \
        *(void **)&next = dlsym(RTLD_NEXT, #name); \
        write_down(#name, NULL);                   \
        depth++;                                   \
        next arguments;                            \
        depth--;                                   \
    }

PASS_ON(int, qzcap_ubus_start, (int flags), (flags), NULL)
PASS_ON(uint32_t, qzcap_get_objid_by_id, (int number), (number), &number)
PASS_ON(int, qzcap_ubus_subscribe, (void *subscriber, uint32_t id), (subscriber, id), NULL)
PASS_ON(int, qzcap_ubus_unsubscribe, (void *subscriber, uint32_t id), (subscriber, id), NULL)
PASS_ON(void *, ubus_connect, (const char *path), (path), NULL)
PASS_ON(int, ubus_subscribe, (void *bus, void *subscriber, uint32_t id), (bus, subscriber, id), NULL)
PASS_ON_VOID(ubus_free, (void *bus), (bus))
PASS_ON(void *, qzcap_register_appmgtcb, (void *owner, const void *callbacks), (owner, callbacks), NULL)
PASS_ON_VOID(qzcap_unregister_appmgtcb, (void *handle), (handle))
PASS_ON_VOID(qzcap_ubus_done, (void), ())
PASS_ON_VOID(uloop_done, (void), ())
PASS_ON_VOID(qzcap_free_devinfo, (void *record), (record))
PASS_ON_VOID(qzcap_free_waninfo, (void *record), (record))

int uloop_run_timeout(int timeout);
int uloop_run_timeout(int timeout) {
    int (*next)(int);

    *(void **)&next = dlsym(RTLD_NEXT, "uloop_run_timeout");
    write_down("uloop_run_timeout", &timeout);
    return next(timeout); /* what its callbacks do is the agent's doing */
}
