#include "context.h"

namespace arvok {

context g_ctx;
arvok_client *const ec = &g_ctx.arvok;
cloud_client *const cc = &g_ctx.cloud;
local_server *const ls = &g_ctx.local;

}  // namespace arvok
