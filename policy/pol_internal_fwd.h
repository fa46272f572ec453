/*
 * Internal operations of the data side: the data-plane list families
 * (application lists, data-prefix lists, policers, SLA classes, app-probe
 * classes, app-ids) and the data-policy model with its sequence updates.
 * Included by pol_internal.h; not part of the exported interface.
 */
#ifndef POLICY_POL_INTERNAL_FWD_H
#define POLICY_POL_INTERNAL_FWD_H

#include "pol_internal.h"

#ifdef __cplusplus
extern "C" {
#endif
/* ---- application lists (entries applied silently, published by entry_change) ---- */

e_err pol_app_list_main_init(t_pol_ctx *ctx);
e_err pol_app_list_main_deinit(t_pol_ctx *ctx);
int pol_app_list_cmp(const void *a, const void *b);
int pol_app_list_entry_cmp(const void *a, const void *b);
t_app_list *pol_app_list_find(t_pol_ctx *ctx, const char *name);
t_app_list *pol_app_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_app_list_is_empty(const t_app_list *list);
t_app_list *pol_app_list_first(t_pol_ctx *ctx);
t_app_list *pol_app_list_next(t_pol_ctx *ctx, t_app_list *list);
e_err pol_app_list_entry_add_app(t_pol_ctx *ctx, const char *name, const char *app,
                                 t_app_list_type type);
e_err pol_app_list_entry_del_app(t_pol_ctx *ctx, const char *name, const char *app);
e_err pol_app_list_entry_change(t_pol_ctx *ctx, const char *name);
e_err pol_app_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_app_list_del(t_pol_ctx *ctx, t_app_list **list_pp, uint8_t remove);
t_app_list *pol_app_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_pol_match_entry *match);
t_app_list *pol_dns_app_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_dns_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_pol_match_entry *match);
/* A SaaS list's users are the nodes by which conditions hold it. */
t_app_list *pol_saas_app_list_user_add(t_pol_ctx *ctx, const char *name, t_app_list_dll_node *node);
e_err pol_saas_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_app_list_dll_node *node);
void pol_app_list_users_add_to_chg_list(t_pol_ctx *ctx, t_app_list *list);
void pol_dump_app_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- data prefix lists, IPv4 (entries applied silently, published by entry_change) ---- */

e_err pol_fwd_pfx_list_main_init(t_pol_ctx *ctx);
e_err pol_fwd_pfx_list_main_deinit(t_pol_ctx *ctx);
int pol_fwd_pfx_list_cmp(const void *a, const void *b);
/* Entry order of both families: by prefix. */
int pol_fwd_pfx_list_entry_cmp(const void *a, const void *b);
t_fwd_pfx_list *pol_fwd_pfx_list_find(t_pol_ctx *ctx, const char *name);
t_fwd_pfx_list *pol_fwd_pfx_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_fwd_pfx_list_is_empty(const t_fwd_pfx_list *list);
t_fwd_pfx_list *pol_fwd_pfx_list_first(t_pol_ctx *ctx);
t_fwd_pfx_list *pol_fwd_pfx_list_next(t_pol_ctx *ctx, t_fwd_pfx_list *list);
e_err pol_fwd_pfx_list_add_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix);
e_err pol_fwd_pfx_list_del_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix);
e_err pol_fwd_pfx_list_entry_change(t_pol_ctx *ctx, const char *name);
e_err pol_fwd_pfx_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_fwd_pfx_list_del(t_pol_ctx *ctx, t_fwd_pfx_list **list_pp, uint8_t remove);
t_fwd_pfx_list *pol_fwd_pfx_list_user_add(t_pol_ctx *ctx, const char *name,
                                          e_pol_fwd_pfx_type role, t_pol_match_entry *match);
e_err pol_fwd_pfx_list_user_remove(t_pol_ctx *ctx, t_fwd_pfx_list *list, e_pol_fwd_pfx_type role,
                                   t_pol_match_entry *match);
void pol_fwd_pfx_list_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_pfx_list *list);
void pol_dump_fwd_pfx_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- data prefix lists, IPv6 (the same record and behaviour, their own tree) ---- */

e_err pol_fwd_pfx6_list_main_init(t_pol_ctx *ctx);
e_err pol_fwd_pfx6_list_main_deinit(t_pol_ctx *ctx);
int pol_fwd_pfx6_list_cmp(const void *a, const void *b);
t_fwd_pfx_list *pol_fwd_pfx6_list_find(t_pol_ctx *ctx, const char *name);
t_fwd_pfx_list *pol_fwd_pfx6_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_fwd_pfx6_list_is_empty(const t_fwd_pfx_list *list);
t_fwd_pfx_list *pol_fwd_pfx6_list_first(t_pol_ctx *ctx);
t_fwd_pfx_list *pol_fwd_pfx6_list_next(t_pol_ctx *ctx, t_fwd_pfx_list *list);
e_err pol_fwd_pfx6_list_add_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix);
e_err pol_fwd_pfx6_list_del_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix);
e_err pol_fwd_pfx6_list_entry_change(t_pol_ctx *ctx, const char *name);
e_err pol_fwd_pfx6_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_fwd_pfx6_list_del(t_pol_ctx *ctx, t_fwd_pfx_list **list_pp, uint8_t remove);
t_fwd_pfx_list *pol_fwd_pfx6_list_user_add(t_pol_ctx *ctx, const char *name,
                                           e_pol_fwd_pfx_type role, t_pol_match_entry *match);
e_err pol_fwd_pfx6_list_user_remove(t_pol_ctx *ctx, t_fwd_pfx_list *list, e_pol_fwd_pfx_type role,
                                    t_pol_match_entry *match);
void pol_fwd_pfx6_list_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_pfx_list *list);
void pol_dump_fwd_pfx6_list_all(struct mgmtd_cli_user_info *uinfo);
/* ---- policers ---- */

struct mgmtd_tag_value;

e_err pol_fwd_policer_main_init(t_pol_ctx *ctx);
e_err pol_fwd_policer_main_deinit(t_pol_ctx *ctx);
int pol_fwd_policer_cmp(const void *a, const void *b);
t_fwd_policer *pol_fwd_policer_find(t_pol_ctx *ctx, const char *name);
t_fwd_policer *pol_fwd_policer_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_fwd_policer_is_empty(const t_fwd_policer *policer);
t_fwd_policer *pol_fwd_policer_first(t_pol_ctx *ctx);
t_fwd_policer *pol_fwd_policer_next(t_pol_ctx *ctx, t_fwd_policer *policer);
/* Stores the rate, burst and exceed leaves among the values (a removed leaf
 * keeps its value; a leaf of a wrong value kind stops the process), asks
 * for a new document and notifies. ERR_ALLOC when the policer cannot be had. */
e_err pol_fwd_policer_entry_change(t_pol_ctx *ctx, const char *name, uint16_t num_values,
                                   const struct mgmtd_tag_value *val_p);
e_err pol_fwd_policer_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_fwd_policer_del(t_pol_ctx *ctx, t_fwd_policer **policer_pp, uint8_t remove);
t_fwd_policer *pol_fwd_policer_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set);
e_err pol_fwd_policer_user_remove(t_pol_ctx *ctx, t_fwd_policer *policer, t_pol_set_entry *set);
void pol_fwd_policer_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_policer *policer);
void pol_dump_fwd_policer(t_fwd_policer *policer, struct mgmtd_cli_user_info *uinfo);
void pol_dump_fwd_policer_all(struct mgmtd_cli_user_info *uinfo);

/* ---- SLA classes ---- */

/* A limit of a new SLA class, until the configuration sets it. */
#define POL_SLA_LOSS_UNSET 255
#define POL_SLA_LATENCY_UNSET 65535
#define POL_SLA_JITTER_UNSET 65535

e_err pol_fwd_sla_class_main_init(t_pol_ctx *ctx);
e_err pol_fwd_sla_class_main_deinit(t_pol_ctx *ctx);
int pol_fwd_sla_class_cmp(const void *a, const void *b);
t_fwd_sla_class *pol_fwd_sla_class_find(t_pol_ctx *ctx, const char *name);
t_fwd_sla_class *pol_fwd_sla_class_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_fwd_sla_class_is_empty(const t_fwd_sla_class *sla_class);
t_fwd_sla_class *pol_fwd_sla_class_first(t_pol_ctx *ctx);
t_fwd_sla_class *pol_fwd_sla_class_next(t_pol_ctx *ctx, t_fwd_sla_class *sla_class);
e_err pol_fwd_sla_class_entry_change(t_pol_ctx *ctx, const char *name);
e_err pol_fwd_sla_class_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_fwd_sla_class_del(t_pol_ctx *ctx, t_fwd_sla_class **sla_class_pp, uint8_t remove);
t_fwd_sla_class *pol_fwd_sla_class_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set);
e_err pol_fwd_sla_class_user_remove(t_pol_ctx *ctx, t_fwd_sla_class *sla_class, t_pol_set_entry *set);
void pol_fwd_sla_class_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_sla_class *sla_class);
void pol_dump_fwd_sla_class(t_fwd_sla_class *sla_class, struct mgmtd_cli_user_info *uinfo);
void pol_dump_fwd_sla_class_all(struct mgmtd_cli_user_info *uinfo);

/* ---- app-probe classes ---- */

e_err pol_app_probe_class_main_init(t_pol_ctx *ctx);
e_err pol_app_probe_class_main_deinit(t_pol_ctx *ctx);
int pol_app_probe_class_cmp(const void *a, const void *b);
t_app_probe_class *pol_app_probe_class_find(t_pol_ctx *ctx, const char *name);
t_app_probe_class *pol_app_probe_class_find_or_create(t_pol_ctx *ctx, const char *name,
                                                      uint8_t *created);
bool pol_app_probe_class_is_empty(const t_app_probe_class *probe_class);
t_app_probe_class *pol_app_probe_class_first(t_pol_ctx *ctx);
t_app_probe_class *pol_app_probe_class_next(t_pol_ctx *ctx, t_app_probe_class *probe_class);
/* fwd_class (when not null) becomes the forwarding class. */
e_err pol_app_probe_class_entry_change(t_pol_ctx *ctx, const char *name, const char *fwd_class);
/* Colours count on their low 16 bits. add_entry: ERR_ALLOC (and nothing
 * created) for an unknown class; notifies nobody. */
e_err pol_app_probe_class_add_entry(t_pol_ctx *ctx, const char *name, uint32_t color, uint8_t dscp);
e_err pol_app_probe_class_del_entry(t_pol_ctx *ctx, const char *name, uint32_t color);
t_app_probe_class_color_entry *pol_app_probe_class_find_entry(t_pol_ctx *ctx,
                                                              t_app_probe_class *probe_class,
                                                              uint32_t color);
void pol_app_probe_class_color_entry_remove(t_pol_ctx *ctx, t_app_probe_class *probe_class,
                                            t_app_probe_class_color_entry *entry);
void pol_app_probe_class_del_all_entries(t_pol_ctx *ctx, t_app_probe_class *probe_class);
e_err pol_app_probe_class_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_app_probe_class_del(t_pol_ctx *ctx, t_app_probe_class **probe_class_pp, uint8_t remove);
/* The chain of SLA classes that refer to a class. user_add links an SLA
 * class (and names the class in it) to an existing class only; the class
 * or null. */
t_app_probe_class *pol_fwd_app_probe_class_user_add(t_pol_ctx *ctx, const char *name,
                                                   t_fwd_sla_class *sla_class);
t_fwd_sla_class *pol_app_probe_class_find_sla_entry(t_pol_ctx *ctx, t_app_probe_class *probe_class,
                                                    t_fwd_sla_class *sla_class);
void pol_app_probe_class_sla_entry_remove(t_pol_ctx *ctx, t_app_probe_class *probe_class,
                                          t_fwd_sla_class *sla_class);
/* Takes an SLA class out of the class it names and clears the name: 0, or
 * 1 when that class or its link is missing (0 at once for no name). */
int pol_fwd_app_probe_class_entry_find_and_delete(t_pol_ctx *ctx, t_fwd_sla_class *sla_class);
/* Every SLA class that refers to the class is changed in turn. */
void pol_app_probe_class_users_add_to_chg_list(t_pol_ctx *ctx, t_app_probe_class *probe_class);
void pol_dump_app_probe_class(t_app_probe_class *probe_class, struct mgmtd_cli_user_info *uinfo);
void pol_dump_app_probe_class_all(struct mgmtd_cli_user_info *uinfo);

/* ---- app-ids ---- */

e_err pol_fwd_app_id_main_init(t_pol_ctx *ctx);
e_err pol_fwd_app_id_main_deinit(t_pol_ctx *ctx);
int pol_fwd_app_id_cmp(const void *a, const void *b);
t_fwd_app_id *pol_fwd_app_id_find(t_pol_ctx *ctx, const char *name);
t_fwd_app_id *pol_fwd_app_id_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_fwd_app_id_is_empty(const t_fwd_app_id *app_id);
e_err pol_fwd_app_id_entry_change(t_pol_ctx *ctx, const char *name);
e_err pol_fwd_app_id_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_fwd_app_id_del(t_pol_ctx *ctx, t_fwd_app_id **app_id_pp, uint8_t remove);
t_fwd_app_id *pol_fwd_app_id_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_fwd_app_id_user_remove(t_pol_ctx *ctx, t_fwd_app_id *app_id, t_pol_match_entry *match);
void pol_fwd_app_id_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_app_id *app_id);
void pol_dump_fwd_app_id(t_fwd_app_id *app_id, struct mgmtd_cli_user_info *uinfo);
void pol_dump_fwd_app_id_all(struct mgmtd_cli_user_info *uinfo);

/* ---- data-policy model: blocks, VPN records, sequences ---- */

/* Operations naming a policy by name and type accept only POL_TYPE_DATA and
 * POL_TYPE_PFR; any other type stops the process. */
e_err pol_fwd_block_init(t_pol_ctx *ctx, t_pol_block *block);
void pol_fwd_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool del_from_tree);
int pol_fwd_vpn_entry_cmp(const void *a, const void *b);
t_pol_fwd_vpn_entry *pol_fwd_vpn_find(t_pol_ctx *ctx, t_pol_block *block, const char *vpn_name,
                                      avl_index_t *where);
t_pol_fwd_vpn_entry *pol_fwd_vpn_find_or_create(t_pol_ctx *ctx, const char *pol_name,
                                                e_pol_type pol_type, const char *vpn_name);
void pol_fwd_vpn_find_and_delete(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                 const char *vpn_name);
void pol_fwd_vpn_cleanup(t_pol_ctx *ctx, t_pol_fwd_vpn_entry *vpn);
void pol_fwd_vpn_delete(t_pol_ctx *ctx, t_pol_fwd_vpn_entry *vpn, bool db_remove);
t_pol_entry *pol_fwd_entry_find(t_pol_ctx *ctx, t_pol_fwd_vpn_entry *vpn, uint32_t seq_num,
                                avl_index_t *where);
/* Sequence numbers of these two are cut to 16 bits. */
t_pol_entry *pol_fwd_entry_find_or_create(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                          const char *vpn_name, uint16_t seq_num);
void pol_fwd_entry_find_and_delete(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                   const char *vpn_name, uint16_t seq_num);
void pol_fwd_entry_cleanup(t_pol_ctx *ctx, t_pol_entry *entry);
void pol_fwd_entry_delete(t_pol_ctx *ctx, t_pol_entry *entry, bool db_remove);
void pol_fwd_entry_seq_mod(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                           const char *vpn_name, uint32_t seq_num);
/* The block goes to *block_out as soon as it is found. */
t_pol_entry *pol_fwd_pol_entry_get(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                   const char *vpn_name, uint32_t seq_num, t_pol_block **block_out);
t_pol_entry *pol_fwd_default_pol_entry_get(t_pol_ctx *ctx, const char *pol_name,
                                           e_pol_type pol_type, const char *vpn_name,
                                           t_pol_block **block_out);
/* Accounting row of a match array, by its configuration leaf's tag;
 * POL_MEM_MAX for any other tag. */
e_pol_mem pol_fwd_get_mem_type(uint32_t xml_tag);

/* Doubly linked lists of the data-policy model; a broken invariant stops
 * the process. */
void DLL_ADD(t_dll *p_dll, t_dlnode *p_newnode);
void DLL_REMOVE(t_dll *p_dll, t_dlnode *p_node);

/* ---- data-policy sequence updates ---- */

/* Common arguments: context, policy name, type, VPN list name, sequence
 * number; then the value(s) and add (true sets, false removes). Results:
 * ERR_OK, ERR_NOT_FOUND for a missing block, VPN record or sequence,
 * ERR_FAIL for an unknown leaf tag. Users of the block are queued only on
 * a real change. */
#define POL_FWD_DECLARE_SCALAR_UPD(name, ...)                                                 \
    e_err pol_fwd_##name##_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,     \
                               const char *vpn_name, uint32_t seq_num, __VA_ARGS__, bool add)
POL_FWD_DECLARE_SCALAR_UPD(entry_dscp, uint8_t dscp_action);
POL_FWD_DECLARE_SCALAR_UPD(entry_nat_use_vpn, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_nat_pool, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_nat_fallback, bool val);
POL_FWD_DECLARE_SCALAR_UPD(entry_fec, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_redirect_dns_type, uint8_t type);
POL_FWD_DECLARE_SCALAR_UPD(entry_redirect_dns_ip, const t_ipaddr *ip);
POL_FWD_DECLARE_SCALAR_UPD(local_tloc, const t_local_tloc_id_args *local_tloc);
POL_FWD_DECLARE_SCALAR_UPD(local_tloc_list, const t_pol_set_local_tloc_list_args *local_tloc_list);
POL_FWD_DECLARE_SCALAR_UPD(entry_backup_sla_prefer_color, uint32_t color);
POL_FWD_DECLARE_SCALAR_UPD(entry_fwd_class, const char *fwd_class);
POL_FWD_DECLARE_SCALAR_UPD(entry_count, const char *cnt_name);
POL_FWD_DECLARE_SCALAR_UPD(entry_dns, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_traffic_category, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_plp, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_tcp, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_loss_protect, uint32_t val);
POL_FWD_DECLARE_SCALAR_UPD(entry_next_hop, const t_ipaddr *nh_ip);
POL_FWD_DECLARE_SCALAR_UPD(entry_next_hop_v6, const t_ipaddr *nh_ip);
POL_FWD_DECLARE_SCALAR_UPD(entry_svc_local, bool svc_local, bool svc_local_restrict);

/* Flag-only actions: add sets the bit, remove clears it. */
#define POL_FWD_DECLARE_FLAG_UPD(name)                                                        \
    e_err pol_fwd_entry_##name##_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, \
                                     const char *vpn_name, uint32_t seq_num, bool add)
POL_FWD_DECLARE_FLAG_UPD(cflowd);
POL_FWD_DECLARE_FLAG_UPD(tcp_opt);
POL_FWD_DECLARE_FLAG_UPD(ssl_opt);
POL_FWD_DECLARE_FLAG_UPD(pkt_dup);
POL_FWD_DECLARE_FLAG_UPD(cloud_saas);
POL_FWD_DECLARE_FLAG_UPD(log);
POL_FWD_DECLARE_FLAG_UPD(sig);

void pol_fwd_entry_vpn_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                           const char *vpn_name, uint32_t seq_num, uint64_t vpn_id, bool add);
e_err pol_fwd_entry_action_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                               const char *vpn_name, uint32_t seq_num, uint8_t action);
e_err pol_fwd_default_entry_action_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                       const char *vpn_name, uint8_t action);

/* Match arrays: a non-zero count hands the array (allocated under the row
 * pol_fwd_get_mem_type gives for xml_tag) to the sequence; count 0 frees
 * the held one. */
e_err pol_fwd_entry_pfx_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                            const char *vpn_name, uint32_t seq_num, t_ipprefix *pfx_list,
                            uint32_t count, uint32_t xml_tag);
e_err pol_fwd_entry_range_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                     const char *vpn_name, uint32_t seq_num, t_pol_range *ranges,
                                     uint32_t count, uint32_t xml_tag);
e_err pol_fwd_entry_list_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                    const char *vpn_name, uint32_t seq_num, uint8_t *values,
                                    uint32_t count, uint32_t xml_tag);
e_err pol_fwd_entry_icmp_list_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                         const char *vpn_name, uint32_t seq_num, uint32_t *values,
                                         uint32_t count, uint32_t xml_tag);
void pol_fwd_entry_match_cleanup(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);

/* Set TLOC (data policies only; a null tloc removes it) and service. */
struct _t_vmgmtd_context;
e_err pol_fwd_entry_tloc_upd(struct _t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *ctx,
                             const char *pol_name, e_pol_type pol_type, const char *vpn_name,
                             uint32_t seq_num, bool encap_set, const t_tloc_id *tloc);
e_err pol_fwd_entry_svc_upd(struct _t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *ctx,
                            const char *pol_name, e_pol_type pol_type, const char *vpn_name,
                            uint32_t seq_num, uint16_t svc_type, bool svc_del);

/* Named-list references: add returns the list now held (null when it
 * cannot be had), delete drops it; the front end adds for a non-empty
 * name and deletes otherwise. */
t_tloc_list *pol_fwd_entry_set_tloc_list_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                             uint8_t *changed);
void pol_fwd_entry_set_tloc_list_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);
void pol_fwd_entry_tloc_list_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                 const char *vpn_name, uint32_t seq_num, const char *list_name);
#define POL_FWD_REF_DECLARE(list_t, add_fn, delete_fn, upd_fn)                                     \
    list_t *add_fn(t_pol_ctx *ctx, t_pol_entry *entry, const char *name, uint8_t *changed);      \
    void delete_fn(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);                        \
    void upd_fn(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name, \
                uint32_t seq_num, const char *name);
POL_FWD_REF_DECLARE(t_fwd_pfx_list, pol_fwd_entry_match_src_list_add,
                    pol_fwd_entry_match_src_list_delete, pol_fwd_entry_src_pfx_upd)
POL_FWD_REF_DECLARE(t_fwd_pfx_list, pol_fwd_entry_match_dst_list_add,
                    pol_fwd_entry_match_dst_list_delete, pol_fwd_entry_dst_pfx_upd)
POL_FWD_REF_DECLARE(t_fwd_pfx_list, pol_fwd_entry_match_src6_list_add,
                    pol_fwd_entry_match_src6_list_delete, pol_fwd_entry_src_pfx6_upd)
POL_FWD_REF_DECLARE(t_fwd_pfx_list, pol_fwd_entry_match_dst6_list_add,
                    pol_fwd_entry_match_dst6_list_delete, pol_fwd_entry_dst_pfx6_upd)
POL_FWD_REF_DECLARE(t_fwd_app_id, pol_fwd_entry_match_app_id_add,
                    pol_fwd_entry_match_app_id_delete, pol_fwd_entry_app_id_upd)
POL_FWD_REF_DECLARE(t_app_list, pol_fwd_entry_match_app_list_add,
                    pol_fwd_entry_match_app_list_delete, pol_fwd_entry_app_list_upd)
POL_FWD_REF_DECLARE(t_app_list, pol_fwd_entry_match_dns_app_list_add,
                    pol_fwd_entry_match_dns_app_list_delete, pol_fwd_entry_dns_app_list_upd)
/* The SaaS lists are a set: add appends one more list, delete drops all. */
POL_FWD_REF_DECLARE(t_app_list, pol_fwd_entry_match_saas_app_list_add,
                    pol_fwd_entry_match_saas_app_list_delete, pol_fwd_entry_saas_app_list_upd)
/* A policer add with no name only lets go of the policer held. */
POL_FWD_REF_DECLARE(t_fwd_policer, pol_fwd_entry_set_policer_add,
                    pol_fwd_entry_set_policer_delete, pol_fwd_entry_policer_upd)
#undef POL_FWD_REF_DECLARE

/* The SLA class of an app-route sequence (any other policy type stops the
 * process). No name keeps the held class; a value whose "changed" flag is
 * false keeps the held one; the same class updates its values in place. */
t_fwd_sla_class *pol_fwd_entry_sla_class_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                             uint8_t *changed);
void pol_fwd_entry_sla_class_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);
void pol_fwd_entry_sla_class_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                 const char *vpn_name, uint32_t seq_num, const char *sla_class_name,
                                 uint8_t sla_strict, uint32_t sla_pref_color, bool del,
                                 bool strict_changed, bool prefer_changed);
/* The same on the VPN list's default sequence, every value given. */
void pol_fwd_default_entry_sla_class_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                         const char *vpn_name, const char *sla_class_name,
                                         uint8_t sla_strict, uint32_t sla_pref_color, bool del);
/* Links the SLA class with the app-probe class: 0, or 1 when either
 * cannot be had. */
int pol_fwd_entry_app_probe_class_add(t_pol_ctx *ctx, const char *sla_class_name,
                                      const char *app_probe_class_name);

/* Changes nothing: ERR_IGNORE. */
e_err pol_fwd_entry_app_probe_class_upd(const char *app_probe_class_name, t_fwd_sla_class *sla_class);

/* The internal TLOC list of a sequence (its targets with their labels). */
int pol_fwd_upd_set_internal_tloc_list(t_pol_ctx *ctx, t_pol_set_entry *set, t_tloc_list *tloc_list);
int pol_fwd_entry_set_tloc_list_del_internal_list(t_pol_ctx *ctx, t_pol_set_entry *set);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_INTERNAL_FWD_H */
