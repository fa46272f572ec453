/*
 * Configuration change callbacks: the host's management layer calls one of
 * these for every list entry or container of the policy configuration that
 * a commit created, deleted or modified. Each turns that one node into
 * operations on the model and has the users of what changed notified.
 *
 * Common parameters: the host's management context, the library context,
 * what happened to the node, its keys (outermost list first) and its leaves
 * and containers flattened in schema order. Results: POL_CONFIG_OK (also
 * when the change is ignored), POL_CONFIG_NOT_FOUND (the policy or list to
 * change is missing or could not be created), POL_CONFIG_NO_MEMORY, or
 * POL_CONFIG_BAD_KEY (a key could not be parsed). What was changed before a
 * failure stays changed.
 */
#ifndef POLICY_POL_CONFIG_H
#define POLICY_POL_CONFIG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <zen/mgmtd.h>
#include <zen/mgmtd_ds.h>

#include <policy/pol_lists.h>

#ifdef __cplusplus
extern "C" {
#endif

#define POL_CONFIG_OK 0
#define POL_CONFIG_NOT_FOUND 1
#define POL_CONFIG_NO_MEMORY 2
#define POL_CONFIG_BAD_KEY (-1)

/*
 * The common form of a configuration change callback. Some callbacks take
 * one more argument after these, given by the host's registration: the
 * kind of community list or the address family.
 */
typedef int32_t (*pol_config_cb_f)(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                   mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                   uint16_t num_values, mgmtd_tag_value_t *val_p);

/* ---- named lists ---- */

/* Key: list name. */
int32_t pol_config_policy_site_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p);
/* Keys: list name, site-id text ("10" or "10-20"). */
int32_t pol_config_policy_site_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                    uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Key: list name. */
int32_t pol_config_policy_vpn_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                        mgmtd_iter_op oper, uint8_t num_keys,
                                        mgmtd_value_t *key_p, uint16_t num_values,
                                        mgmtd_tag_value_t *val_p);
/* Keys: list name, VPN-id text ("10" or "10-20"). */
int32_t pol_config_policy_vpn_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                   mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                   uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Key: list name. */
int32_t pol_config_policy_tloc_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p);
/* Keys: list name, address, colour, encapsulation; leaf: preference. */
int32_t pol_config_policy_tloc_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                    uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Key: list name. */
int32_t pol_config_policy_color_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                          mgmtd_iter_op oper, uint8_t num_keys,
                                          mgmtd_value_t *key_p, uint16_t num_values,
                                          mgmtd_tag_value_t *val_p);
/* Keys: list name, colour. */
int32_t pol_config_policy_color_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                     mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                     uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Key: list name; the host registers it once per kind of community list. */
int32_t pol_config_community_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                       mgmtd_iter_op oper, uint8_t num_keys,
                                       mgmtd_value_t *key_p, uint32_t num_values,
                                       mgmtd_tag_value_t *val_p, community_list_type list_type);
/* Keys: list name, community text (standard) or pattern (expanded). */
int32_t pol_config_community_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                  mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                  uint16_t num_values, mgmtd_tag_value_t *val_p,
                                  community_list_type list_type);
/* Key: list name; the host registers it once per address family. */
int32_t pol_config_policy_prefix_list_name(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                           mgmtd_iter_op oper, uint8_t num_keys,
                                           mgmtd_value_t *key_p, uint16_t num_values,
                                           mgmtd_tag_value_t *val_p, bool is_ipv4);
/* Keys: list name, prefix; leaves: minimum, maximum and exact length. */
int32_t pol_config_policy_prefix_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                      mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                      uint16_t num_values, mgmtd_tag_value_t *val_p);

/* ---- control policies ---- */

/* Key: policy name; leaf: default action. */
int32_t pol_config_control_policy_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                       mgmtd_iter_op oper, uint8_t num_keys,
                                       mgmtd_value_t *key_p, uint16_t num_values,
                                       mgmtd_tag_value_t *val_p);
/* Keys: policy name, sequence number; leaves: action and set actions. */
int32_t pol_config_control_policy_seq_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                           mgmtd_iter_op oper, uint8_t num_keys,
                                           mgmtd_value_t *key_p, uint16_t num_values,
                                           mgmtd_tag_value_t *val_p);
/* Keys: policy name, sequence number, match kind (0 route, 1 TLOC, else service). */
int32_t pol_config_control_policy_match_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                             mgmtd_iter_op oper, uint8_t num_keys,
                                             mgmtd_value_t *key_p, uint16_t num_values,
                                             mgmtd_tag_value_t *val_p);
/* The same keys; the first leaf names the community list to match. */
int32_t pol_config_control_policy_match_community_list_read(
    t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys,
    mgmtd_value_t *key_p, uint16_t num_values, mgmtd_tag_value_t *val_p,
    community_list_type list_type);

/* ---- route and membership policies ---- */

/* Key: policy name; leaf: default action. */
int32_t pol_config_route_policy_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                     mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                     uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Keys: policy name, sequence number; leaves: action and route conditions. */
int32_t pol_config_route_policy_seq_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p);
/* Key: policy name; leaf: default action. */
int32_t pol_config_membership_policy_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
                                          mgmtd_iter_op oper, uint8_t num_keys,
                                          mgmtd_value_t *key_p, uint16_t num_values,
                                          mgmtd_tag_value_t *val_p);
/* Keys: policy name, sequence number; leaves: action, VPN, VPN list. */
int32_t pol_config_membership_policy_seq_read(t_vmgmtd_context *vmgmtd_ctx_p,
                                              t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                              uint8_t num_keys, mgmtd_value_t *key_p,
                                              uint16_t num_values, mgmtd_tag_value_t *val_p);

/* ---- data and app-route policies ----
 *
 * pol_type (POL_TYPE_DATA or POL_TYPE_PFR, given by the host's
 * registration) comes first; any other type, or another key count, stops
 * the process. */

/* Key: policy name. A deleted policy notifies nobody from here. */
int32_t pol_config_fwd_read(e_pol_type pol_type, t_vmgmtd_context *vmgmtd_ctx_p,
    t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
    uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Keys: policy name, VPN-list name; leaves: default action and its SLA class. */
int32_t pol_config_fwd_vpn_list_read(e_pol_type pol_type, t_vmgmtd_context *vmgmtd_ctx_p,
    t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
    uint16_t num_values, mgmtd_tag_value_t *val_p);
/* Keys: policy name, VPN-list name, sequence number; leaves: match and actions. */
int32_t pol_config_fwd_seq_read(e_pol_type pol_type, t_vmgmtd_context *vmgmtd_ctx_p,
    t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
    uint16_t num_values, mgmtd_tag_value_t *val_p);

/*
 * The management daemon's read calls pol_config_read_fwd_policy makes on
 * the host's open read session. The library does not link the daemon's
 * client library: the host, which does, hands these over (normally
 * cdb_num_instances, cdb_get_str and cdb_pushd themselves).
 */
typedef struct _t_pol_cdb_read_ops {
    int (*num_instances)(int sock, const char *fmt, ...);
    int (*get_str)(int sock, char *buf, int n, const char *fmt, ...);
    int (*pushd)(int sock, const char *fmt, ...);
} t_pol_cdb_read_ops;

/* The calls to read with from now on (copied); null forgets them. */
void pol_config_cdb_read_ops_set(const t_pol_cdb_read_ops *ops);

/*
 * At start-up, on vmgmtd_ctx_p->data_socket inside a read session the host
 * opened at the policy container: creates every configured data policy,
 * whose contents then arrive through the callbacks. 1 when a policy cannot
 * be created or no read calls were handed over, else 0.
 */
int32_t pol_config_read_fwd_policy(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *ctx_p);

/* ---- objects of the data side ---- */

/* Key: SLA-class name; leaves: loss, latency, jitter, app-probe class. */
int32_t pol_config_policy_sla_class_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: app-id name. */
int32_t pol_config_policy_app_id_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: application-list name. */
int32_t pol_config_app_list_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Keys: application-list name, application name. */
int32_t pol_config_app_list_app_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Keys: application-list name, application family name. */
int32_t pol_config_app_list_app_family_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: app-probe-class name; leaf: forwarding class. */
int32_t pol_config_policy_app_probe_class_name_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Keys: app-probe-class name, colour; leaf: DSCP. */
int32_t pol_config_policy_app_probe_class_color_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: list name (IPv4, then IPv6 data-prefix lists). */
int32_t pol_config_fwd_pfx_list_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
int32_t pol_config_fwd_pfx6_list_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Keys: list name, prefix. */
int32_t pol_config_fwd_pfx_list_ip_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
int32_t pol_config_fwd_pfx6_list_ip_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: policer name; leaves: rate, burst, exceed. */
int32_t pol_config_fwd_policer_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Key: template name; leaves: timeouts, sampling interval, refresh, protocol. */
int32_t pol_config_cflowd_template_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);
/* Keys: template name, VPN, address, port, transport; leaf: source interface. */
int32_t pol_config_cflowd_collector_read(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p,
    mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
    mgmtd_tag_value_t *val_p);

/* Copies the template leaves among the values into the template; 0. */
int32_t pol_config_cflowd_read(t_cflowd_entry *pol_cflowd_entry, uint16_t num_values,
                               mgmtd_tag_value_t *val_p);

/* ---- binding to the configuration datastore ---- */

/*
 * The subscription table of the zen-policy module: one row per list or
 * container whose changes a callback above reads, with its schema path,
 * key depth, extra argument and flags. Every row's callback takes the
 * library context as the datastore's host context, so a host subscribes
 * the table with the context pol_init returned. The table is static;
 * *count receives its length.
 */
const mgmtd_ds_sub_t *pol_config_subscriptions(size_t *count);

/* ---- shared ---- */

/* One-bit mask of a schema enumeration ordinal (below 32): 0 gives 0, n gives 1 << n. */
uint32_t pol_yang_enum_to_filter_mask(uint32_t enum_val);

/*
 * After the changes of a commit were delivered: TLOC lists whose contents
 * changed refresh the labels of the data-policy sequences that use them.
 */
void pol_config_update_tloc_list(t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *pol_ctx_p);

/*
 * Why a callback failed: the message (also logged) of the last callback
 * that returned non-zero with one, naming what it refused and why; "" when
 * none gave one since the message was last cleared. Every callback of the
 * subscription table clears it before it runs, so after a commit that a
 * callback stopped it tells that callback's reason; a host that calls the
 * callbacks itself clears it before each.
 */
const char *pol_config_error(void);
void pol_config_error_clear(void);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_CONFIG_H */
