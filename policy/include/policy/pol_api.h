/*
 * Exported interface of libpolicy: the entry points and data a host daemon
 * uses. Everything here has C linkage.
 */
#ifndef POLICY_POL_API_H
#define POLICY_POL_API_H

#include <stddef.h>
#include <stdint.h>

#include <policy/pol.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mgmtd_cli_user_info;

/* ---- exported data ---- */

extern t_pol_ctx *g_pol_ctx_p;
extern uint32_t g_pol_dbg_level;
extern t_pol_mem_info g_pol_mem_info[POL_MEM_MAX + 1];

#define POL_BUF1_SIZE 512
extern char g_polbuf1[POL_BUF1_SIZE];

/* Set of list names already emitted into one published document. */
typedef struct _t_list_name_entry {
    TAILQ_ENTRY(_t_list_name_entry) list_name_entry;
    char list_name[33];
} t_list_name_entry;

typedef TAILQ_HEAD(_t_list_name_head, _t_list_name_entry) t_list_name_head;

#define POL_SHOW_DATA_PATHS 12
extern t_list_name_head g_pol_list_head[POL_SHOW_DATA_PATHS];
extern const char *pol_show_data_pol_from_qarmon[POL_SHOW_DATA_PATHS];

/* ---- life cycle ---- */

t_pol_ctx *pol_init(t_pol_init_params *params);
void pol_destroy(void);
void pol_debug_set(uint32_t level);

/* ---- users ---- */

t_pol_user *pol_register(t_pol_reg_params *params);
void pol_unregister(t_pol_user **handle_pp);
t_pol_list_user *pol_list_register(t_pol_list_reg_params *params);
void pol_list_unregister(t_pol_list_user *list_user);

int pol_handle_sets_tloc(t_pol_user *handle);
int pol_handle_sets_tloc_list(t_pol_user *handle);
int pol_handle_sets_service(t_pol_user *handle);
char *pol_handle_get_name(t_pol_user *handle, char *buf, uint32_t size);

/* ---- execution ---- */

void pol_pre_execute(t_pol_exec_params *params, e_zen_device device);
e_pol_action pol_execute(t_pol_user *handle, t_pol_exec_params *params);
void pol_post_execute(t_pol_exec_params *params);

int pol_list_site_match(t_pol_list_user *list_user, uint32_t site_id);
int pol_community_cmp(const uint32_t *a, const uint32_t *b);

/* ---- accounting allocator ---- */

void *pol_malloc(size_t size, e_pol_mem mem_type);
void *pol_calloc(size_t count, size_t size, e_pol_mem mem_type);
void *pol_realloc(void *ptr, size_t size);
void pol_free(void *ptr, e_pol_mem mem_type);
void pol_mem_info_update(e_pol_mem mem_type, bool is_alloc);

/* ---- command handlers ---- */

int pol_dump_memory_info(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_route_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_membership_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_cflowd_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_users_change_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_all(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_API_H */
