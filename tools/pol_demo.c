/*
 * A small host: starts the library, registers a user on a route policy,
 * configures that policy through the block and sequence operations,
 * flushes the change notifications, runs one route, prints the memory
 * report, and tears down.
 */
#include <stdio.h>
#include <string.h>

#include <zen/mgmtd.h>

#include "pol_internal.h"

static int g_callbacks;

static void on_policy_change(t_pol_user *handle, void *user_ctx_p)
{
    char name[POL_NAME_SIZE];
    g_callbacks++;
    printf("change callback #%d: user %s, policy \"%s\", context \"%s\"\n", g_callbacks,
           handle->user_name, pol_handle_get_name(handle, name, sizeof(name)),
           (const char *)user_ctx_p);
}

static t_pol_user *register_user(const char *policy)
{
    t_pol_reg_params reg;
    memset(&reg, 0, sizeof(reg));
    snprintf(reg.user_name, sizeof(reg.user_name), "%s", "demo-routing");
    snprintf(reg.pol_name, sizeof(reg.pol_name), "%s", policy);
    reg.pol_type = POL_TYPE_ROUTE;
    reg.pol_direction = POL_DIR_OUT;
    reg.pol_chg_cb = on_policy_change;
    reg.user_ctx_p = (void *)"omp-out";
    return pol_register(&reg);
}

/* One unit of configuration: a default action and three sequences. */
static void configure(t_pol_ctx *ctx, const char *policy)
{
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, policy, POL_TYPE_ROUTE, &changed);
    block->default_action_entry.entry_action = POL_ACTION_ACCEPT;
    pol_block_users_add_to_chg_list(ctx, block);
    for (uint32_t seq = 10; seq <= 30; seq += 10) {
        t_pol_entry *entry = pol_entry_find_or_create(ctx, block, seq, &changed);
        pol_entry_action_add(ctx, entry, seq == 20 ? POL_ACTION_REJECT : POL_ACTION_ACCEPT, &changed);
    }
    printf("configured policy \"%s\" (changed=%u); flushing once\n", policy, changed);
    pol_user_chg_list_notify_all(ctx);
}

static void run_route(t_pol_user *user)
{
    t_zen_attr attr;
    t_pol_exec_params params;
    memset(&attr, 0, sizeof(attr));
    pol_pre_execute(&params, ZEN_DEVICE_QARMON);
    params.attr_in_p = &attr;
    params.safi = POL_SAFI_VROUTE;
    e_pol_action verdict = pol_execute(user, &params);
    printf("route 10.1.0.0/16 in VPN 1: %s\n", verdict == POL_ACTION_ACCEPT ? "accept" : "reject");
    pol_post_execute(&params);
}

int main(void)
{
    t_pol_init_params init;
    memset(&init, 0, sizeof(init));
    init.tenant_vpn_id = 1;
    snprintf(init.tenant_orgname, sizeof(init.tenant_orgname), "%s", "demo-org");

    t_pol_ctx *ctx = pol_init(&init);
    if (ctx == NULL) {
        fprintf(stderr, "pol_init failed\n");
        return 1;
    }
    t_pol_user *user = register_user("hub-and-spoke");
    configure(ctx, "hub-and-spoke");
    run_route(user);

    struct mgmtd_cli_user_info cli = {.maapi_sock = -1, .usid = 1, .user = "admin"};
    char *argv[] = {"show-memory", NULL};
    pol_dump_memory_info(&cli, 1, argv);
    printf("\n\nchange callbacks received: %d\n", g_callbacks);

    pol_unregister(&user);
    pol_destroy();
    return 0;
}
