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

/* ---- match conditions (add returns the match entry, null when a list cannot be had) ---- */

t_pol_match_entry *pol_entry_match_add(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry,
                                       e_pol_match_type type, uint8_t *changed);
#define POL_DECLARE_MATCH_PAIR(what, arg_type)                                                  \
    t_pol_match_entry *pol_entry_match_##what##_add(t_pol_ctx *ctx, t_pol_entry *entry,         \
                                                    arg_type value, uint8_t *changed);          \
    void pol_entry_match_##what##_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
POL_DECLARE_MATCH_PAIR(tag, uint32_t);
POL_DECLARE_MATCH_PAIR(origin_metric, uint32_t);
POL_DECLARE_MATCH_PAIR(preference, uint32_t);
POL_DECLARE_MATCH_PAIR(domain, uint32_t);
POL_DECLARE_MATCH_PAIR(group, uint32_t);
POL_DECLARE_MATCH_PAIR(vpn_id, uint64_t);
POL_DECLARE_MATCH_PAIR(vpn_list, const char *);
POL_DECLARE_MATCH_PAIR(tloc, const t_tloc_id *);
POL_DECLARE_MATCH_PAIR(tloc_list, const char *);
POL_DECLARE_MATCH_PAIR(site, uint32_t);
POL_DECLARE_MATCH_PAIR(site_list, const char *);
POL_DECLARE_MATCH_PAIR(pfx_list, const t_pfx_list_key *);
POL_DECLARE_MATCH_PAIR(origin, uint32_t);
POL_DECLARE_MATCH_PAIR(originator, const t_ipaddr *);
POL_DECLARE_MATCH_PAIR(carrier, uint8_t);
POL_DECLARE_MATCH_PAIR(color, uint16_t);
POL_DECLARE_MATCH_PAIR(color_list, const char *);
t_pol_match_entry *pol_entry_match_community_list_add(t_pol_ctx *ctx, t_pol_entry *entry,
                                                      const char *name, community_list_type type,
                                                      uint8_t *changed);
void pol_entry_match_community_list_delete(t_pol_ctx *ctx, t_pol_entry *entry,
                                           community_list_type type, uint8_t *changed);

/* ---- set actions (add returns the set entry, null when a list cannot be had) ---- */

#define POL_DECLARE_SET_PAIR(what, arg_type)                                                    \
    t_pol_set_entry *pol_entry_set_##what##_add(t_pol_ctx *ctx, t_pol_entry *entry,             \
                                                arg_type value, uint8_t *changed);              \
    void pol_entry_set_##what##_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
POL_DECLARE_SET_PAIR(tag, uint32_t);
POL_DECLARE_SET_PAIR(preference, uint32_t);
POL_DECLARE_SET_PAIR(tloc, const t_tloc_id *);
POL_DECLARE_SET_PAIR(vpn_id, uint64_t);
POL_DECLARE_SET_PAIR(vpn_list, const char *);
POL_DECLARE_SET_PAIR(tloc_list, const char *);
t_pol_set_entry *pol_entry_set_service_add(t_pol_ctx *ctx, t_pol_entry *entry, uint16_t service,
                                           const t_tloc_id *tloc, uint64_t vpn_id, uint8_t *changed);
void pol_entry_set_service_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed);

/* ---- text renderers (constant texts; unknown values give a fallback) ---- */

const char *pol_util_action_str(uint32_t action);
const char *pol_util_type_str(uint32_t type);
const char *pol_util_list_type_str(uint32_t type);
const char *pol_util_dir_str(uint32_t dir);
const char *pol_util_match_type_str(uint32_t match_type);
const char *pol_util_proto_str(uint32_t proto);
const char *pol_util_pfx_op_str(uint32_t op);
const char *pol_util_dscp_str(uint32_t dscp);

/* The words of a sequence's match or set flags, each followed by a blank,
 * in a fixed order; "" when no flag is set. Truncated to fit size; returns buf. */
char *pol_util_match_flags_str(const t_pol_entry *entry, char *buf, size_t size);
char *pol_util_set_flags_str(const t_pol_entry *entry, char *buf, size_t size);

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
/* The entry of a list whose TLOC equals the given one, from the identity index. */
t_tloc_entry *pol_tloc_list_lookup(t_tloc_list *list, const t_tloc_id *tloc);
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
/* The entry of a list holding the colour (low 16 bits), from the identity index. */
t_color_entry *pol_color_list_lookup(t_color_list *list, uint32_t color);
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
/* Why text cannot be an expanded entry's pattern (it is too long, or the
   pattern compiler's message), written into error; false when it can. */
bool pol_community_pattern_error(const char *text, char *error, size_t size);
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
/* Room for the text of one community: "65535:65535" or a well-known name. */
#define POL_COMMUNITY_STR_SIZE 32
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

/* ---- policy and user dumps (command output; the handlers are in pol_api.h) ---- */

void pol_dump_policies(struct mgmtd_cli_user_info *uinfo, e_pol_type type);
void pol_dump_block(t_pol_block *block, struct mgmtd_cli_user_info *uinfo);
void pol_dump_cflowd_template(t_pol_block *block, struct mgmtd_cli_user_info *uinfo);
void pol_dump_entry(t_pol_entry *entry, struct mgmtd_cli_user_info *uinfo);
void pol_dump_user(t_pol_user *user, struct mgmtd_cli_user_info *uinfo);

/* ---- text test-parse harness ---- */

/* File pol_test_parse_cfg reads (a test may point it elsewhere). */
extern const char *g_pol_test_cfg_file;

/* The kind of a line, from its first word. */
typedef enum e_pol_parse_type {
    E_POL_PARSE_PREFIX_LIST = 1,
    E_POL_PARSE_TLOC_LIST = 2,
    E_POL_PARSE_SITE_LIST = 3,
    E_POL_PARSE_ROUTE_POLICY = 4,
    E_POL_PARSE_FWD_POLICY = 5,
    E_POL_PARSE_SITE_POLICY = 6,
    E_POL_PARSE_MAX = 7,
} e_pol_parse_type;

/* Cuts a line into tokens; -1 (kind E_POL_PARSE_MAX) when it exceeds the token bounds. */
int pol_test_get_tokens(const char *line, char token[][POL_TEST_TOKEN_SIZE],
                        e_pol_parse_type *pol_type_p);
e_pol_parse_type pol_test_parse_get_type(const char *type_str);
const char *pol_config_policy_get_match_type(uint32_t pol_match_type);

/* A decimal number of at most max, digits only. */
bool pol_test_parse_number(const char *text, uint64_t max, uint64_t *value);

/* What a list line asks for: "KEYWORD NAME VALUE" adds, "KEYWORD NAME VALUE delete"
 * removes the entry, "KEYWORD NAME delete" removes the list. */
typedef enum e_pol_test_list_op {
    POL_TEST_LIST_INVALID = 0,
    POL_TEST_LIST_ADD = 1,
    POL_TEST_LIST_DEL_ENTRY = 2,
    POL_TEST_LIST_DEL_LIST = 3,
} e_pol_test_list_op;
e_pol_test_list_op pol_test_list_op(char token[][POL_TEST_TOKEN_SIZE], int num_tokens);

e_err pol_test_pfx_str_to_pfx(const char *text, t_ipprefix *pfx);
e_err pol_test_tloc_str_to_tloc(const char *text, t_tloc_id *tloc);
void pol_test_parse_site_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens);
void pol_test_parse_vpn_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens);
void pol_test_parse_tloc_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens);
void pol_test_parse_pfx_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens);
/* One route-policy line; ERR_BAD_PARAM (and no change) for a malformed line. */
e_err pol_test_parse_route_policy(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens);

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
void pol_user_release(t_pol_ctx *ctx, t_pol_user *user);
void pol_user_delete(t_pol_ctx *ctx, t_pol_user *user, bool remove);
void pol_user_destroy(t_pol_ctx *ctx);
t_pol_block *pol_block_user_add(t_pol_ctx *ctx, const char *pol_name, e_pol_type type,
                                t_pol_user *user);
void pol_block_user_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_user *user);
void pol_user_chg_list_add(t_pol_ctx *ctx, t_pol_user *user);
void pol_user_chg_list_delete(t_pol_ctx *ctx, t_pol_user *user);
void pol_block_users_add_to_chg_list(t_pol_ctx *ctx, t_pol_block *block);
/* Users of a deleted block: queued, detached (no block) and unlinked from it. */
void pol_block_users_detach(t_pol_ctx *ctx, t_pol_block *block);
void pol_user_chg_list_notify_all(t_pol_ctx *ctx);
void pol_user_notify(t_pol_ctx *ctx, t_pol_user *user);
void pol_block_user_notify_all(t_pol_ctx *ctx, t_pol_block *block);

/* ---- route execution ---- */

e_pol_action pol_exec_route(t_pol_user *user, t_pol_exec_params *params);
bool pol_exec_match(t_pol_entry *entry, t_pol_exec_params *params);
bool pol_exec_match_valid(t_pol_entry *entry, t_pol_match_entry *match, t_pol_exec_params *params);
#define POL_DECLARE_CONDITION(what) \
    bool pol_exec_match_##what(t_pol_match_entry *match, t_pol_exec_params *params)
POL_DECLARE_CONDITION(tag);
POL_DECLARE_CONDITION(origin_metric);
POL_DECLARE_CONDITION(preference);
POL_DECLARE_CONDITION(domain);
POL_DECLARE_CONDITION(group);
POL_DECLARE_CONDITION(vpn_id);
POL_DECLARE_CONDITION(vpn_list);
POL_DECLARE_CONDITION(tloc);
POL_DECLARE_CONDITION(tloc_list);
POL_DECLARE_CONDITION(site);
POL_DECLARE_CONDITION(site_list);
POL_DECLARE_CONDITION(pfx_list);
POL_DECLARE_CONDITION(origin);
POL_DECLARE_CONDITION(originator);
POL_DECLARE_CONDITION(carrier);
POL_DECLARE_CONDITION(color);
POL_DECLARE_CONDITION(color_list);
bool pol_exec_match_community_list(t_pol_match_entry *match, t_pol_exec_params *params,
                                   community_list_type kind);
bool pol_exec_match_pfx_entry(t_pfx_entry *entry, t_pol_exec_params *params);

void pol_exec_set(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                  e_pol_action *action);
bool pol_exec_set_valid(t_pol_user *user, uint64_t set_bit, t_pol_exec_params *params);
void pol_exec_set_tag(t_pol_entry *entry, t_pol_exec_params *params);
void pol_exec_set_preference(t_pol_entry *entry, t_pol_exec_params *params);
void pol_exec_set_tloc(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                       e_pol_action *action);
void pol_exec_set_vpn_id(t_pol_entry *entry, t_pol_exec_params *params);
void pol_exec_set_vpn_list(t_pol_entry *entry, t_pol_exec_params *params);
void pol_exec_set_tloc_list(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                            e_pol_action *action);
void pol_exec_set_service(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                          e_pol_action *action);
void pol_exec_set_community(t_pol_entry *entry, t_pol_exec_params *params);
void pol_exec_set_community_additive(t_pol_entry *entry, t_pol_exec_params *params);

/* Count of entry changes over every named list of the process: a policy's
 * sequence index built over several lists is known current while it has
 * not moved. */
extern uint64_t g_pol_list_changes;

#ifdef __cplusplus
}
#endif

/* The data side. */
#include "pol_internal_fwd.h"

#endif /* POLICY_POL_INTERNAL_H */
