/* Preloaded before the platform library: the agent's next call of the function that $FAIL_FILE names fails,
 * for those that never reach the platform's daemon. The file is emptied then. What the libraries call among
 * themselves goes on. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <unistd.h>

static int is_agents(const void *address) {
    Dl_info caller, program;

    return dladdr(address, &caller) && dladdr((void *)getauxval(AT_PHDR), &program) &&
           caller.dli_fbase == program.dli_fbase;
}

static int is_to_fail(const char *name, const void *caller) {
    const char *path = getenv("FAIL_FILE");
    char wanted[64] = "";
    int fd, found = 0;

    if (!path || !is_agents(caller) || (fd = open(path, O_RDWR | O_CLOEXEC)) < 0)
        return 0;
    if (read(fd, wanted, sizeof wanted - 1) > 0 && strcmp(wanted, name) == 0)
        found = ftruncate(fd, 0) == 0;
    close(fd);
    return found;
}

#define FAILING(result_type, name, parameters, arguments, failure) \
    result_type name parameters;                                   \
    result_type name parameters {                                  \
        result_type(*next) parameters;                             \
        *(void **)&next = dlsym(RTLD_NEXT, #name);                 \
        if (is_to_fail(#name, __builtin_return_address(0)))        \
            return failure;                                        \
        return next arguments;                                     \
    }

FAILING(int, qzcap_ubus_start, (int flags), (flags), -1)
FAILING(void *, qzcap_register_appmgtcb, (void *owner, const void *callbacks), (owner, callbacks), NULL)
FAILING(uint32_t, qzcap_get_objid_by_id, (int number), (number), 0)
FAILING(uint32_t, qzcap_get_objid_by_name, (const char *name), (name), 0)
FAILING(int, qzcap_ubus_subscribe, (void *subscriber, uint32_t id), (subscriber, id), -1)
FAILING(void *, ubus_connect, (const char *path), (path), NULL)
FAILING(int, ubus_register_subscriber, (void *bus, void *subscriber), (bus, subscriber), 8)
FAILING(int, ubus_subscribe, (void *bus, void *subscriber, uint32_t id), (bus, subscriber, id), 8)
FAILING(int, ubus_remove_object, (void *bus, void *object), (bus, object), 8)
FAILING(void *, qzcap_calloc, (size_t count, size_t size), (count, size), NULL)
FAILING(char *, qzcap_strdup, (const char *text), (text), NULL)
