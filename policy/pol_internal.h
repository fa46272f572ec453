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
