/*
 * A small host: starts the library, registers a user on a control policy,
 * loads lists and the policy through the configuration change callbacks
 * (as the management layer would, one call per node), runs routes through
 * the policy, prints the policy and lists with the dump commands and the
 * memory report, and tears down.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include <policy/pol_config.h>
#include <zen/mgmtd.h>
#include <zen/zen_util.h>

#include "pol_internal.h"

/* Schema tags of the leaves this demo sets. */
enum {
    TAG_DEFAULT_ACTION = 0x7037c488,
    TAG_ACTION = 0x0369ffb7,
    TAG_PREFERENCE = 0x176ecfd3,
    TAG_OMP_TAG = 0x0c2c7467,
    TAG_SITE_LIST = 0x6d6fa00b,
    TAG_PFX_LIST_IPV4 = 0x5dc389d2,
    TAG_PREFLEN_MAX = 0x10ae453c,
};

static const char *kPolicy = "hub-and-spoke";
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

/* ---- configuration values, as the management layer flattens them ---- */

static mgmtd_value_t text_value(const char *text)
{
    mgmtd_value_t v;
    memset(&v, 0, sizeof(v));
    v.type = C_BUF;
    v.val.buf.ptr = (unsigned char *)text;
    v.val.buf.size = (uint32_t)strlen(text);
    return v;
}

static mgmtd_value_t u16_value(uint16_t n)
{
    mgmtd_value_t v;
    memset(&v, 0, sizeof(v));
    v.type = C_UINT16;
    v.val.u16 = n;
    return v;
}

static mgmtd_value_t enum_value(int32_t n)
{
    mgmtd_value_t v;
    memset(&v, 0, sizeof(v));
    v.type = C_ENUM_VALUE;
    v.val.enumvalue = n;
    return v;
}

static mgmtd_tag_value_t leaf(uint32_t tag, mgmtd_value_t v)
{
    mgmtd_tag_value_t tv;
    memset(&tv, 0, sizeof(tv));
    tv.tag.tag = tag;
    tv.v = v;
    return tv;
}

static mgmtd_tag_value_t u32_leaf(uint32_t tag, uint32_t n)
{
    mgmtd_value_t v;
    memset(&v, 0, sizeof(v));
    v.type = C_UINT32;
    v.val.u32 = n;
    return leaf(tag, v);
}

static mgmtd_tag_value_t u8_leaf(uint32_t tag, uint8_t n)
{
    mgmtd_value_t v;
    memset(&v, 0, sizeof(v));
    v.type = C_UINT8;
    v.val.u8 = n;
    return leaf(tag, v);
}

static void report(const char *what, int32_t status)
{
    printf("  %-44s status %d\n", what, status);
}

/* One commit: the lists first, then the policy, a sequence and its matches. */
static void commit_configuration(t_pol_ctx *ctx)
{
    printf("commit (one callback per changed node):\n");

    mgmtd_value_t site_keys[] = {text_value("spokes"), text_value("100-199")};
    report("site-list spokes / site-id 100-199",
           pol_config_policy_site_list(NULL, ctx, MOP_CREATED, 2, site_keys, 0, NULL));

    mgmtd_value_t pfx_keys[2] = {text_value("corp-prefixes")};
    pfx_keys[1].type = C_IPV4PREFIX;
    pfx_keys[1].val.ipv4prefix.ip.s_addr = htonl(0x0a000000u);
    pfx_keys[1].val.ipv4prefix.len = 8;
    mgmtd_tag_value_t pfx_vals[] = {u8_leaf(TAG_PREFLEN_MAX, 24)};
    report("prefix-list corp-prefixes / 10.0.0.0/8 le 24",
           pol_config_policy_prefix_list(NULL, ctx, MOP_CREATED, 2, pfx_keys, 1, pfx_vals));

    mgmtd_value_t pol_keys[] = {text_value(kPolicy)};
    mgmtd_tag_value_t pol_vals[] = {leaf(TAG_DEFAULT_ACTION, enum_value(0))};
    report("control-policy hub-and-spoke, default accept",
           pol_config_control_policy_read(NULL, ctx, MOP_CREATED, 1, pol_keys, 1, pol_vals));

    /* seq 10: spoke sites, corp prefixes -> accept, preference 200, tag 7 */
    mgmtd_value_t seq10_keys[] = {text_value(kPolicy), u16_value(10), enum_value(0)};
    mgmtd_tag_value_t seq10_vals[] = {leaf(TAG_ACTION, enum_value(0)), u32_leaf(TAG_PREFERENCE, 200),
                                      u32_leaf(TAG_OMP_TAG, 7)};
    report("  sequence 10: accept, set preference and tag",
           pol_config_control_policy_seq_read(NULL, ctx, MOP_CREATED, 2, seq10_keys, 3, seq10_vals));
    mgmtd_tag_value_t match10_vals[] = {leaf(TAG_SITE_LIST, text_value("spokes")),
                                        leaf(TAG_PFX_LIST_IPV4, text_value("corp-prefixes"))};
    report("  sequence 10 match route: site-list, prefix-list",
           pol_config_control_policy_match_read(NULL, ctx, MOP_CREATED, 3, seq10_keys, 2,
                                                match10_vals));

    /* seq 20: any other corp prefix -> reject */
    mgmtd_value_t seq20_keys[] = {text_value(kPolicy), u16_value(20), enum_value(0)};
    mgmtd_tag_value_t seq20_vals[] = {leaf(TAG_ACTION, enum_value(1))};
    report("  sequence 20: reject",
           pol_config_control_policy_seq_read(NULL, ctx, MOP_CREATED, 2, seq20_keys, 1, seq20_vals));
    mgmtd_tag_value_t match20_vals[] = {leaf(TAG_PFX_LIST_IPV4, text_value("corp-prefixes"))};
    report("  sequence 20 match route: prefix-list",
           pol_config_control_policy_match_read(NULL, ctx, MOP_CREATED, 3, seq20_keys, 1,
                                                match20_vals));
    pol_config_update_tloc_list(NULL, ctx);
}

static void run_route(t_pol_user *user, uint32_t addr, uint8_t len, uint32_t site)
{
    t_zen_attr attr;
    t_pol_exec_params params;
    char text[64];
    char flags[128];
    memset(&attr, 0, sizeof(attr));
    attr.attr_flags = ZEN_ATTR_FLAG_SITE_ID | ZEN_ATTR_FLAG_PREFERENCE;
    attr.site_id = site;
    attr.preference = 100;
    pol_pre_execute(&params, ZEN_DEVICE_QARMON);
    params.attr_in_p = &attr;
    params.safi = POL_SAFI_VROUTE;
    params.u.vroute_info.vpn_id = 1;
    IPADDR_SET_V4(&params.u.vroute_info.prefix.addr, htonl(addr));
    params.u.vroute_info.prefix.prefixlen = len;
    e_pol_action verdict = pol_execute(user, &params);
    t_pol_entry flagged;
    memset(&flagged, 0, sizeof(flagged));
    flagged.entry_set_flags = params.entry_set_flags;
    printf("route %-16s from site %u: %s", ipprefix_print(&params.u.vroute_info.prefix, text, sizeof(text)),
           site, pol_util_action_str(verdict));
    if (params.entry_set_flags != 0) {
        printf(" [sets: %s] preference %u, tag %u", pol_util_set_flags_str(&flagged, flags, sizeof(flags)),
               params.attr_out.preference, params.attr_out.tag);
    }
    printf("\n");
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
    t_pol_user *user = register_user(kPolicy);
    commit_configuration(ctx);
    printf("\n");
    run_route(user, 0x0a010000u, 16, 150); /* spoke, corp prefix: accept with sets */
    run_route(user, 0x0a010000u, 16, 300); /* other site, corp prefix: reject */
    run_route(user, 0x0a010100u, 28, 150); /* too long for le 24: default accept */
    run_route(user, 0xc0a80000u, 16, 150); /* not a corp prefix: default accept */

    struct mgmtd_cli_user_info cli = {.maapi_sock = -1, .usid = 1, .user = "admin"};
    char *argv[] = {"show", NULL};
    pol_dump_all(&cli, 1, argv);
    printf("\n");
    pol_dump_memory_info(&cli, 1, argv);
    printf("\n\nchange callbacks received: %d\n", g_callbacks);

    pol_unregister(&user);
    pol_destroy();
    return 0;
}
