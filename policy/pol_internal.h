/*
 * Internal operations of the policy library. C linkage and C-compatible
 * signatures throughout; every operation takes the context first. Not
 * installed: hosts use pol_api.h, tests link the static library.
 */
#ifndef POLICY_POL_INTERNAL_H
#define POLICY_POL_INTERNAL_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

#include <policy/pol.h>
#include <policy/pol_api.h>
#include <policy/pol_fwd.h>
#include <policy/pol_lists.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logging and process stops ---- */

/* syslog priority of every message: facility local7, level debug. */
#define POL_LOG_PRIORITY 191

void pol_log_write(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Always written. */
#define POL_LOG(fmt, ...) pol_log_write(__func__, __LINE__, fmt, ##__VA_ARGS__)

/* Written only when the debug level is above lvl. */
#define POL_DBG(lvl, fmt, ...)                                   \
    do {                                                         \
        if (g_pol_dbg_level > (uint32_t)(lvl)) {                 \
            pol_log_write(__func__, __LINE__, fmt, ##__VA_ARGS__); \
        }                                                        \
    } while (0)

/* Prints "%s:%u: failed assertion `%s'\n" on standard output and aborts. */
void pol_assert_fail(const char *file, unsigned line, const char *cond)
    __attribute__((noreturn));

#define POL_ASSERT(cond)                                     \
    do {                                                     \
        if (!(cond)) {                                       \
            pol_assert_fail(__FILE__, __LINE__, #cond);      \
        }                                                    \
    } while (0)

/* Test seams: where log text goes (syslog when null), allocation failure. */
typedef void (*pol_log_sink_f)(int priority, const char *text);
void pol_log_set_sink(pol_log_sink_f sink);

typedef bool (*pol_alloc_fail_f)(e_pol_mem mem_type);
void pol_mem_set_fail_hook(pol_alloc_fail_f hook);

/* File the memory report's --detail option writes (a test may point it elsewhere). */
extern const char *g_pol_meminfo_file;

/* ---- cached documents ---- */

void pol_xml_free_buf(pol_xml_t *xml);

/* ---- policy blocks and sequences ---- */

e_err pol_block_init(t_pol_ctx *ctx);
int pol_block_cmp(const void *a, const void *b);
avl_tree_t *pol_block_tree(t_pol_ctx *ctx, e_pol_type type);
t_pol_block *pol_block_find(t_pol_ctx *ctx, const char *name, e_pol_type type, avl_index_t *where);
t_pol_block *pol_block_find_or_create(t_pol_ctx *ctx, const char *name, e_pol_type type,
                                      uint8_t *changed);
t_pol_block *pol_block_first(t_pol_ctx *ctx, e_pol_type type);
t_pol_block *pol_block_next(t_pol_ctx *ctx, t_pol_block *block, e_pol_type type);
void pol_block_find_and_delete(t_pol_ctx *ctx, const char *name, e_pol_type type, uint8_t *changed);
void pol_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool remove);
void pol_block_destroy(t_pol_ctx *ctx);
t_pol_entry *pol_block_default_action_add(t_pol_ctx *ctx, t_pol_block *block,
                                          const t_pol_entry *proto, uint8_t *changed);
void pol_block_default_action_delete(t_pol_ctx *ctx, t_pol_block *block, uint8_t *changed);

void pol_route_block_init(t_pol_ctx *ctx, t_pol_block *block);
int pol_entry_cmp(const void *a, const void *b);
t_pol_entry *pol_entry_find(t_pol_ctx *ctx, t_pol_block *block, uint32_t num, avl_index_t *where);
t_pol_entry *pol_entry_find_or_create(t_pol_ctx *ctx, t_pol_block *block, uint32_t num,
                                      uint8_t *changed);
void pol_entry_find_and_delete(t_pol_ctx *ctx, t_pol_block *block, uint32_t num, uint8_t *changed);
void pol_entry_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry, bool remove);
void pol_entry_delete_all(t_pol_ctx *ctx, t_pol_block *block);
t_pol_entry *pol_entry_action_add(t_pol_ctx *ctx, t_pol_entry *entry, e_pol_action action,
                                  uint8_t *changed);
void pol_entry_action_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);
t_pol_set_entry *pol_entry_set_add(t_pol_ctx *ctx, t_pol_entry *entry);
void pol_entry_set_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);
void pol_entry_match_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);

/* ---- text renderers (constant texts; unknown values give a fallback) ---- */

const char *pol_util_action_str(uint32_t action);
const char *pol_util_type_str(uint32_t type);
const char *pol_util_list_type_str(uint32_t type);
const char *pol_util_dir_str(uint32_t dir);
const char *pol_util_match_type_str(uint32_t match_type);
const char *pol_util_proto_str(uint32_t proto);
const char *pol_util_pfx_op_str(uint32_t op);
const char *pol_util_dscp_str(uint32_t dscp);

/* ---- named lists: shared ---- */

struct mgmtd_cli_user_info;

/* Command output to the session of a CLI user (standard output without one). */
void pol_cli_printf(struct mgmtd_cli_user_info *uinfo, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
void pol_cli_dump_heading(struct mgmtd_cli_user_info *uinfo, const char *title);

/* ---- site lists ---- */

e_err pol_site_list_main_init(t_pol_ctx *ctx);
e_err pol_site_list_main_deinit(t_pol_ctx *ctx);
int pol_site_list_cmp(const void *a, const void *b);
t_site_list *pol_site_list_find(t_pol_ctx *ctx, const char *name);
t_site_list *pol_site_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_site_list_is_empty(const t_site_list *list);
e_err pol_site_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id);
e_err pol_site_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id);
t_site_entry *pol_site_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id,
                                       uint32_t max_id);
void pol_site_list_entry_remove(t_pol_ctx *ctx, t_site_list *list, t_site_entry *entry);
void pol_site_list_del_all_entries(t_pol_ctx *ctx, t_site_list *list);
e_err pol_site_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_site_list_del(t_pol_ctx *ctx, t_site_list **list_pp, uint8_t remove);
t_site_list *pol_site_list_pol_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_site_list_pol_user_remove(t_pol_ctx *ctx, t_site_list *list, t_pol_match_entry *match);
t_pol_list_user *pol_site_list_user_add(t_pol_ctx *ctx, const char *name,
                                        t_pol_list_change_cb_f chg_cb, void *user_ctx_p);
e_err pol_site_list_user_remove(t_pol_ctx *ctx, t_pol_list_user *list_user);
void pol_site_list_users_add_to_chg_list(t_pol_ctx *ctx, t_site_list *list);
void pol_dump_site_list(t_site_list *list, struct mgmtd_cli_user_info *uinfo);
void pol_dump_site_list_all(struct mgmtd_cli_user_info *uinfo);
bool pol_exec_match_site_id_to_site_list(t_site_list *list, uint32_t site_id);

/* ---- VPN lists ---- */

e_err pol_vpn_list_main_init(t_pol_ctx *ctx);
e_err pol_vpn_list_main_deinit(t_pol_ctx *ctx);
int pol_vpn_list_cmp(const void *a, const void *b);
t_vpn_list *pol_vpn_list_find(t_pol_ctx *ctx, const char *name);
t_vpn_list *pol_vpn_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_vpn_list_is_empty(const t_vpn_list *list);
t_vpn_list *pol_vpn_list_first(t_pol_ctx *ctx);
t_vpn_list *pol_vpn_list_next(t_pol_ctx *ctx, t_vpn_list *list);
e_err pol_vpn_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id);
e_err pol_vpn_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id);
t_pol_vpn_entry *pol_vpn_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id,
                                         uint32_t max_id);
void pol_vpn_list_entry_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_vpn_entry *entry);
void pol_vpn_list_del_all_entries(t_pol_ctx *ctx, t_vpn_list *list);
e_err pol_vpn_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_vpn_list_del(t_pol_ctx *ctx, t_vpn_list **list_pp, uint8_t remove);
t_vpn_list *pol_vpn_list_match_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_vpn_list_match_user_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_match_entry *match);
t_vpn_list *pol_vpn_list_action_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set);
e_err pol_vpn_list_action_user_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_set_entry *set);
t_vpn_list *pol_vpn_list_fwd_pol_user_add(t_pol_ctx *ctx, const char *name,
                                          t_pol_fwd_vpn_entry *fwd_vpn);
e_err pol_vpn_list_fwd_pol_user_remove(t_pol_ctx *ctx, t_vpn_list *list,
                                       t_pol_fwd_vpn_entry *fwd_vpn);
void pol_vpn_list_users_add_to_chg_list(t_pol_ctx *ctx, t_vpn_list *list);
void pol_dump_vpn_list(t_vpn_list *list, struct mgmtd_cli_user_info *uinfo);
void pol_dump_vpn_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- TLOC lists ---- */

e_err pol_tloc_list_main_init(t_pol_ctx *ctx);
e_err pol_tloc_list_main_deinit(t_pol_ctx *ctx);
int pol_tloc_list_cmp(const void *a, const void *b);
t_tloc_list *pol_tloc_list_find(t_pol_ctx *ctx, const char *name);
t_tloc_list *pol_tloc_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_tloc_list_is_empty(const t_tloc_list *list);
t_tloc_list *pol_tloc_list_first(t_pol_ctx *ctx);
t_tloc_list *pol_tloc_list_next(t_pol_ctx *ctx, t_tloc_list *list);
e_err pol_tloc_list_add_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc,
                              uint32_t preference);
e_err pol_tloc_list_del_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc);
t_tloc_entry *pol_tloc_list_find_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc);
void pol_tloc_list_entry_remove(t_pol_ctx *ctx, t_tloc_list *list, t_tloc_entry *entry);
void pol_tloc_list_del_all_entries(t_pol_ctx *ctx, t_tloc_list *list);
e_err pol_tloc_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_tloc_list_del(t_pol_ctx *ctx, t_tloc_list **list_pp, uint8_t remove);
t_tloc_list *pol_tloc_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_tloc_list_user_remove(t_pol_ctx *ctx, t_tloc_list *list, t_pol_match_entry *match);
t_tloc_list *pol_tloc_list_action_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set);
e_err pol_tloc_list_action_user_remove(t_pol_ctx *ctx, t_tloc_list *list, t_pol_set_entry *set);
void pol_tloc_list_users_add_to_chg_list(t_pol_ctx *ctx, t_tloc_list *list);
void pol_tloc_list_update_fwd_pol_label(t_pol_ctx *ctx, uint8_t force);
void pol_dump_tloc_list(t_tloc_list *list, struct mgmtd_cli_user_info *uinfo);
void pol_dump_tloc_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- colour lists ---- */

e_err pol_color_list_main_init(t_pol_ctx *ctx);
e_err pol_color_list_main_deinit(t_pol_ctx *ctx);
int pol_color_list_cmp(const void *a, const void *b);
t_color_list *pol_color_list_find(t_pol_ctx *ctx, const char *name);
t_color_list *pol_color_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created);
bool pol_color_list_is_empty(const t_color_list *list);
e_err pol_color_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t color);
e_err pol_color_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t color);
t_color_entry *pol_color_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t color);
void pol_color_list_entry_remove(t_pol_ctx *ctx, t_color_list *list, t_color_entry *entry);
void pol_color_list_del_all_entries(t_pol_ctx *ctx, t_color_list *list);
e_err pol_color_list_cfg_del(t_pol_ctx *ctx, const char *name);
void pol_color_list_del(t_pol_ctx *ctx, t_color_list **list_pp, uint8_t remove);
t_color_list *pol_color_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match);
e_err pol_color_list_user_remove(t_pol_ctx *ctx, t_color_list *list, t_pol_match_entry *match);
void pol_color_list_users_add_to_chg_list(t_pol_ctx *ctx, t_color_list *list);
void pol_dump_color_list(t_color_list *list, struct mgmtd_cli_user_info *uinfo);
void pol_dump_color_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- prefix lists ---- */

e_err pol_pfx_list_main_init(t_pol_ctx *ctx);
e_err pol_pfx_list_main_deinit(t_pol_ctx *ctx);
int pol_pfx_list_cmp(const void *a, const void *b);
t_pfx_list *pol_pfx_list_find(t_pol_ctx *ctx, const t_pfx_list_key *key);
t_pfx_list *pol_pfx_list_find_or_create(t_pol_ctx *ctx, const t_pfx_list_key *key, uint8_t *created);
bool pol_pfx_list_is_empty(const t_pfx_list *list);
e_err pol_pfx_list_entry_add(t_pol_ctx *ctx, const t_pfx_list_key *key,
                             const t_pfx_entry_param *param);
e_err pol_pfx_list_del_entry(t_pol_ctx *ctx, const t_pfx_list_key *key,
                             const t_pfx_entry_param *param);
t_pfx_entry *pol_pfx_list_find_entry(t_pol_ctx *ctx, const t_pfx_list_key *key,
                                     const t_pfx_entry_param *param, t_pfx_list **list_pp);
void pol_pfx_list_entry_remove(t_pol_ctx *ctx, t_pfx_list *list, t_pfx_entry *entry);
void pol_pfx_list_del_all_entries(t_pol_ctx *ctx, t_pfx_list *list);
e_err pol_pfx_list_cfg_del(t_pol_ctx *ctx, const t_pfx_list_key *key);
void pol_pfx_list_del(t_pol_ctx *ctx, t_pfx_list **list_pp, uint8_t remove);
t_pfx_list *pol_pfx_list_user_add(t_pol_ctx *ctx, const t_pfx_list_key *key,
                                  t_pol_match_entry *match);
e_err pol_pfx_list_user_remove(t_pol_ctx *ctx, t_pfx_list *list, t_pol_match_entry *match);
void pol_pfx_list_users_add_to_chg_list(t_pol_ctx *ctx, t_pfx_list *list);
void pol_dump_pfx_list(t_pfx_list *list, struct mgmtd_cli_user_info *uinfo);
void pol_dump_pfx_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- community lists ---- */

e_err pol_community_list_main_init(t_pol_ctx *ctx);
e_err pol_community_list_main_deinit(t_pol_ctx *ctx);
int pol_community_list_cmp(const void *a, const void *b);
avl_tree_t *pol_community_list_tree(t_pol_ctx *ctx, community_list_type type);
void pol_community_list_destroy(t_pol_ctx *ctx, avl_tree_t *tree);
t_community_list *pol_community_list_find(t_pol_ctx *ctx, const char *name,
                                          community_list_type type);
t_community_list *pol_community_list_find_or_create(t_pol_ctx *ctx, const char *name,
                                                    community_list_type type, uint8_t *created);
bool pol_community_list_is_empty(const t_community_list *list);
e_err pol_community_list_add_entry(t_pol_ctx *ctx, const char *name, const char *text,
                                   community_list_type type);
e_err pol_community_list_del_entry(t_pol_ctx *ctx, const char *name, const char *text,
                                   community_list_type type);
t_community_entry *pol_community_list_find_entry(t_pol_ctx *ctx, const char *name,
                                                 const char *text, community_list_type type);
t_community_entry *pol_standard_community_list_entry(t_community_list *list, uint32_t community);
t_community_entry *pol_expanded_community_list_entry(t_community_list *list, const char *pattern);
void pol_community_list_entry_remove(t_pol_ctx *ctx, t_community_list *list,
                                     t_community_entry *entry);
void pol_community_list_del_all_entries(t_pol_ctx *ctx, t_community_list *list);
e_err pol_community_list_cfg_del(t_pol_ctx *ctx, const char *name, community_list_type type);
void pol_community_list_del(t_pol_ctx *ctx, t_community_list **list_pp, uint8_t remove);
t_community_list *pol_community_list_user_add(t_pol_ctx *ctx, const char *name,
                                              community_list_type type, t_pol_match_entry *match);
e_err pol_community_list_user_remove(t_pol_ctx *ctx, t_community_list *list,
                                     t_pol_match_entry *match);
void pol_community_list_users_add_to_chg_list(t_pol_ctx *ctx, t_community_list *list);
const char *community_gettoken(const char *text, community_token *kind, uint32_t *value);
char *community_getstr(uint32_t value, char *buf, size_t size);
#define POL_COMMUNITY_LIST_STR_SIZE 512
char *community_list_getstr(char *buf, const uint32_t *values, uint32_t count);
char *pol_dump_set_community(char *buf, const t_pol_set_community *set);
void pol_dump_community_list_all(struct mgmtd_cli_user_info *uinfo);
void pol_dump_expanded_community_list_all(struct mgmtd_cli_user_info *uinfo);

/* ---- community set action ---- */

int pol_config_set_bgp_community_upd(t_pol_entry *entry, uint32_t *communities, uint16_t count);

/* ---- cflowd templates ---- */

void pol_cflowd_block_init(t_pol_ctx *ctx, t_pol_block *block, t_cflowd_entry *tmpl);
void pol_cflowd_block_deinit(t_pol_ctx *ctx, t_pol_block *block);
int pol_cflowd_entry_cmp(const void *a, const void *b);
int pol_cflowd_add_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto);
int pol_cflowd_del_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto);

/* ---- data-policy blocks ---- */

e_err pol_fwd_block_init(t_pol_ctx *ctx, t_pol_block *block);
void pol_fwd_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool del_from_tree);

/* ---- users and change notification ---- */

e_err pol_user_init(t_pol_ctx *ctx);
int pol_user_cmp(const void *a, const void *b);
t_pol_user *pol_user_find(t_pol_ctx *ctx, const char *user_name, e_pol_type type, e_pol_dir dir,
                          avl_index_t *where);
t_pol_user *pol_user_find_or_create(t_pol_ctx *ctx, const char *user_name, const char *pol_name,
                                    e_pol_type type, e_pol_dir dir, t_pol_change_cb_f chg_cb,
                                    t_pol_label_cb_f label_cb, t_pol_timer_cb_f timer_cb,
                                    void *user_ctx_p);
void pol_user_find_and_delete(t_pol_ctx *ctx, const char *user_name, const char *pol_name,
                              e_pol_type type, e_pol_dir dir);
void pol_user_delete(t_pol_ctx *ctx, t_pol_user *user, bool remove);
void pol_user_destroy(t_pol_ctx *ctx);
t_pol_block *pol_block_user_add(t_pol_ctx *ctx, const char *pol_name, e_pol_type type,
                                t_pol_user *user);
void pol_block_user_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_user *user);
void pol_user_chg_list_add(t_pol_ctx *ctx, t_pol_user *user);
void pol_user_chg_list_delete(t_pol_ctx *ctx, t_pol_user *user);
void pol_block_users_add_to_chg_list(t_pol_ctx *ctx, t_pol_block *block);
void pol_user_chg_list_notify_all(t_pol_ctx *ctx);
void pol_user_notify(t_pol_ctx *ctx, t_pol_user *user);
void pol_block_user_notify_all(t_pol_ctx *ctx, t_pol_block *block);

/* ---- route execution ---- */

e_pol_action pol_exec_route(t_pol_user *user, t_pol_exec_params *params);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_INTERNAL_H */
