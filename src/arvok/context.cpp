#include "context.h"

namespace arvok {

context g_ctx;
arvok_client *const ec = &g_ctx.arvok;

}  // namespace arvok
