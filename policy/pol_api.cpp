// Exported entry points: the context's life cycle, registration, the
// questions a host asks about its handle, and the execution frame.
#include "pol_fwd_label.h"
#include "pol_util.hpp"

namespace {

using family_init_f = e_err (*)(t_pol_ctx *);

// Families in start-up order; the first that fails makes pol_init fail.
// Each list family is added here when it lands.
constexpr family_init_f kFamilyInit[] = {
    pol_user_init,
    pol_block_init,
    pol_pfx_list_main_init,
    pol_fwd_pfx_list_main_init,
    pol_fwd_pfx6_list_main_init,
    pol_app_list_main_init,
    pol_fwd_policer_main_init,
    pol_fwd_app_id_main_init,
    pol_fwd_sla_class_main_init,
    pol_tloc_list_main_init,
    pol_app_probe_class_main_init,
    pol_site_list_main_init,
    pol_vpn_list_main_init,
    pol_color_list_main_init,
    pol_community_list_main_init,
};

// Families in tear-down order, which deliberately differs from start-up;
// users go last.
constexpr family_init_f kFamilyDeinit[] = {
    pol_pfx_list_main_deinit,
    pol_app_list_main_deinit,
    pol_fwd_pfx_list_main_deinit,
    pol_fwd_pfx6_list_main_deinit,
    pol_fwd_app_id_main_deinit,
    pol_fwd_sla_class_main_deinit,
    pol_app_probe_class_main_deinit,
    pol_fwd_policer_main_deinit,
    pol_tloc_list_main_deinit,
    pol_site_list_main_deinit,
    pol_vpn_list_main_deinit,
    pol_color_list_main_deinit,
    pol_community_list_main_deinit,
};

bool handle_sets(const t_pol_user *handle, uint32_t block_flag)
{
    return handle != nullptr && handle->pol_block_p != nullptr &&
           handle->pol_type == POL_TYPE_ROUTE && handle->pol_direction == POL_DIR_OUT &&
           (handle->pol_block_p->pol_flags & block_flag) != 0;
}

}  // namespace

#define POL_LIST_HEAD_INIT(i) TAILQ_HEAD_INITIALIZER(g_pol_list_head[i])

extern "C" {

t_pol_ctx *g_pol_ctx_p = nullptr;
uint32_t g_pol_dbg_level = 0;
char g_polbuf1[POL_BUF1_SIZE];

t_list_name_head g_pol_list_head[POL_SHOW_DATA_PATHS] = {
    POL_LIST_HEAD_INIT(0), POL_LIST_HEAD_INIT(1), POL_LIST_HEAD_INIT(2),  POL_LIST_HEAD_INIT(3),
    POL_LIST_HEAD_INIT(4), POL_LIST_HEAD_INIT(5), POL_LIST_HEAD_INIT(6),  POL_LIST_HEAD_INIT(7),
    POL_LIST_HEAD_INIT(8), POL_LIST_HEAD_INIT(9), POL_LIST_HEAD_INIT(10), POL_LIST_HEAD_INIT(11),
};

const char *pol_show_data_pol_from_qarmon[POL_SHOW_DATA_PATHS] = {
    "/policy/from-qarmon/app-id",
    "/policy/from-qarmon/sla-class",
    "/policy/from-qarmon/data-policy",
    "/policy/from-qarmon/app-route-policy",
    "/policy/from-qarmon/policer",
    "/policy/from-qarmon/cflowd-template",
    "/policy/from-qarmon/lists/vpn-list",
    "/policy/from-qarmon/lists/data-prefix-list",
    "/policy/from-qarmon/lists/data-ipv6-prefix-list",
    "/policy/from-qarmon/lists/tloc-list",
    "/policy/from-qarmon/lists/app-list",
    "/policy/from-qarmon/lists/app-probe-class",
};

// On a failing family the context is deliberately neither freed nor taken
// out of g_pol_ctx_p.
t_pol_ctx *pol_init(t_pol_init_params *params)
{
    if (params == nullptr) {
        return nullptr;
    }
    auto *ctx = pol::alloc_record<t_pol_ctx>(POL_MEM_CTX);
    if (ctx == nullptr) {
        return nullptr;
    }
    g_pol_ctx_p = ctx;
    ctx->init_params = *params;
    for (family_init_f init : kFamilyInit) {
        if (init(ctx) != ERR_OK) {
            return nullptr;
        }
    }
    return ctx;
}

void pol_destroy(void)
{
    t_pol_ctx *ctx = g_pol_ctx_p;
    ctx->pol_ctx_flags |= POL_CTX_FLAG_DESTROYING;
    pol_block_destroy(ctx);
    pol_fwd_target_index_release();
    for (family_init_f deinit : kFamilyDeinit) {
        deinit(ctx);
    }
    pol_user_destroy(ctx);
    pol_free(ctx, POL_MEM_CTX);
    g_pol_ctx_p = nullptr;
}

void pol_debug_set(uint32_t level)
{
    g_pol_dbg_level = level & 0xFF;
}

t_pol_user *pol_register(t_pol_reg_params *params)
{
    if (params == nullptr || g_pol_ctx_p == nullptr) {
        return nullptr;
    }
    return pol_user_find_or_create(g_pol_ctx_p, params->user_name, params->pol_name,
                                   params->pol_type, params->pol_direction, params->pol_chg_cb,
                                   params->pol_label_cb, params->pol_timer_cb, params->user_ctx_p);
}

void pol_unregister(t_pol_user **handle_pp)
{
    if (handle_pp == nullptr || *handle_pp == nullptr) {
        return;
    }
    pol_user_release(g_pol_ctx_p, *handle_pp);
    *handle_pp = nullptr;
}

int pol_handle_sets_tloc(t_pol_user *handle)
{
    return handle_sets(handle, POL_BLOCK_FLAG_SETS_TLOC);
}

int pol_handle_sets_service(t_pol_user *handle)
{
    return handle_sets(handle, POL_BLOCK_FLAG_SETS_SERVICE);
}

int pol_handle_sets_tloc_list(t_pol_user *handle)
{
    return handle_sets(handle, POL_BLOCK_FLAG_SETS_TLOC_LIST);
}

char *pol_handle_get_name(t_pol_user *handle, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0) {
        return buf;
    }
    buf[0] = '\0';
    if (handle != nullptr && handle->pol_block_p != nullptr) {
        strlcpy(buf, handle->pol_block_p->pol_name, size);
    }
    return buf;
}

// Only site lists can be watched.
t_pol_list_user *pol_list_register(t_pol_list_reg_params *params)
{
    if (params == nullptr || params->pol_list_type != POL_LIST_SITE) {
        return nullptr;
    }
    return pol_site_list_user_add(g_pol_ctx_p, params->pol_list_name, params->pol_chg_cb,
                                  params->user_ctx_p);
}

void pol_list_unregister(t_pol_list_user *list_user)
{
    if (list_user != nullptr && list_user->pol_list_type == POL_LIST_SITE) {
        pol_site_list_user_remove(g_pol_ctx_p, list_user);
    }
}

int pol_list_site_match(t_pol_list_user *list_user, uint32_t site_id)
{
    if (list_user == nullptr) {
        return 0;
    }
    return pol_exec_match_site_id_to_site_list(list_user->site_list_p, site_id) ? 1 : 0;
}

void pol_pre_execute(t_pol_exec_params *params, e_zen_device device)
{
    if (params == nullptr) {
        return;
    }
    std::memset(static_cast<void *>(params), 0, sizeof(*params));
    params->my_device_type = device;
}

// Set actions change attr_out, a copy of the caller's attributes, never the
// input itself. A route without attributes is rejected.
e_pol_action pol_execute(t_pol_user *handle, t_pol_exec_params *params)
{
    if (handle == nullptr || params == nullptr || params->attr_in_p == nullptr) {
        return POL_ACTION_REJECT;
    }
    params->entry_match_flags = 0;
    params->entry_set_flags = 0;
    params->attr_out = *params->attr_in_p;
    return pol_exec_route(handle, params);
}

// Releases the export VPN buffer a controller-side execution allocated and
// empties the export list, so that a second call or a reuse of the record
// without pol_pre_execute neither frees it again nor writes into it.
void pol_post_execute(t_pol_exec_params *params)
{
    if (params != nullptr && params->my_device_type == ZEN_DEVICE_QARMON &&
        params->vpn_list.vpn_list_p != nullptr) {
        pol_free(params->vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
        params->vpn_list.vpn_list_p = nullptr;
        params->vpn_list.num_vpn_entries = 0;
    }
}

}  // extern "C"
