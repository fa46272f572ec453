/*
 * Exported interface of libpolicy: the entry points and data a host daemon
 * uses. Everything here has C linkage; no entry point throws.
 *
 * Rules that hold for every entry point below:
 *
 * One context. pol_init creates the single library context and publishes it
 * in g_pol_ctx_p; the entry points without a context argument reach it
 * through that global. Calling one of those before pol_init or after
 * pol_destroy is a caller error; no handle survives pol_destroy.
 *
 * Threads. The library creates no threads and takes no locks. One thread of
 * the host owns the context: configuration change callbacks, registrations,
 * executions, dumps and pol_destroy all come from that thread, or the host
 * serialises them itself. The only guard inside is a flag that stops a
 * change flush from nesting inside a change callback.
 *
 * Change notification. Configuration changes only queue the users of what
 * changed; the queue is flushed, calling each queued user's change callback
 * once, at the end of every configuration change callback (pol_config.h)
 * and of pol_test_parse_cfg. The host never flushes itself. Callbacks run
 * synchronously on the caller's thread inside those calls. A change
 * callback may call back into the library (query, execute, register,
 * unregister); a flush that it causes delivers nothing itself: users queued
 * meanwhile behind the running flush's position are delivered by it, the
 * others by the next flush.
 *
 * Memory. Records the library returns (user handles, list-user handles,
 * the context) belong to the library: the host never frees them with
 * free(). Strings and parameter records the host passes are read during
 * the call only (names are copied), unless stated otherwise.
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

/* The single context; null before pol_init and after pol_destroy. Owned by
 * the library: hosts read it, never write it. */
extern t_pol_ctx *g_pol_ctx_p;
/* Debug level of the library's log messages, 0 after load; set it with
 * pol_debug_set. */
extern uint32_t g_pol_dbg_level;
/* Accounting table, one row per e_pol_mem category (counts of objects, not
 * bytes); read-only for hosts. */
extern t_pol_mem_info g_pol_mem_info[POL_MEM_MAX + 1];

#define POL_BUF1_SIZE 512
/* Shared scratch text buffer of the log and dump code; not reentrant, used
 * from the owning thread only. */
extern char g_polbuf1[POL_BUF1_SIZE];

/* Set of list names already emitted into one published document. */
typedef struct _t_list_name_entry {
    TAILQ_ENTRY(_t_list_name_entry) list_name_entry;
    char list_name[33];
} t_list_name_entry;

typedef TAILQ_HEAD(_t_list_name_head, _t_list_name_entry) t_list_name_head;

/* One list head per path of pol_show_data_pol_from_qarmon, owned by the
 * data-policy document code: hosts do not change them. */
#define POL_SHOW_DATA_PATHS 12
extern t_list_name_head g_pol_list_head[POL_SHOW_DATA_PATHS];
extern const char *pol_show_data_pol_from_qarmon[POL_SHOW_DATA_PATHS];

/* ---- life cycle ---- */

/*
 * Creates the context, publishes it in g_pol_ctx_p and starts every family
 * (users, policy blocks, then the named lists). *params is copied; the
 * caller keeps its record. Call once per process, before anything else.
 *
 * Returns the context, or null when params is null (g_pol_ctx_p unchanged),
 * when the context cannot be allocated, or when a family fails to start. In
 * the last case g_pol_ctx_p deliberately keeps the half-started context: the
 * library is unusable for the rest of the process; do not call pol_destroy.
 * Calling pol_init again without pol_destroy leaks the old context.
 */
t_pol_ctx *pol_init(t_pol_init_params *params);

/*
 * Tears the context down and sets g_pol_ctx_p to null. No change callback
 * runs and nothing is queued from the moment it starts. Every handle of
 * pol_register and pol_list_register is freed with it and must not be used
 * afterwards; unregister users first (data-policy blocks that still have
 * users are kept). Requires a context.
 */
void pol_destroy(void);

/* Sets g_pol_dbg_level to the low byte of level. Needs no context. */
void pol_debug_set(uint32_t level);

/* ---- users ---- */

/*
 * Registers the component params->user_name as a user of the policy
 * params->pol_name of type params->pol_type, for routes in direction
 * params->pol_direction, and returns its handle, or null when params is
 * null, there is no context, or memory runs out.
 *
 * A policy that is not configured yet is created empty (rejecting every
 * route) and filled when its configuration arrives; the user is bound to it
 * and notified then. Registration itself notifies nobody.
 *
 * A user is identified by (user name, type, direction); the policy name is
 * not part of it. Registering the same user again returns the same handle
 * and counts one more reference; the second registration's policy name,
 * callbacks and user context are ignored (the first ones stay). Every
 * successful pol_register needs its own pol_unregister; the user is freed at
 * the last one.
 *
 * params->pol_chg_cb (optional) is called as (handle, user_ctx_p) once per
 * flushed batch in which the user's policy, a sequence of it or a list it
 * names changed; params->pol_label_cb resolves TLOCs to labels for set
 * TLOC / service / TLOC-list actions and must be set for a policy that sets
 * TLOC lists; params->pol_timer_cb is stored only. params->user_ctx_p is
 * handed back untouched and never dereferenced.
 *
 * The handle stays valid until its last pol_unregister or pol_destroy. When
 * its policy is deleted the handle stays registered but detached: every
 * route is rejected and pol_handle_get_name gives an empty name; it never
 * binds again, so unregister and register anew once the policy is back.
 */
t_pol_user *pol_register(t_pol_reg_params *params);

/*
 * Drops one reference of *handle_pp and sets *handle_pp to null; at the last
 * reference the user is taken off the change queue, unlinked from its
 * policy and freed. A null handle_pp or *handle_pp does nothing. Any copy
 * of the handle the caller kept is dangling after the last unregister.
 *
 * A change callback may unregister any user, itself included, at any point
 * of a flush: a user freed before its turn is simply not called.
 */
void pol_unregister(t_pol_user **handle_pp);

/*
 * Registers interest in the named list params->pol_list_name of type
 * params->pol_list_type and returns the list-user handle, or null when
 * params is null, the type is not POL_LIST_SITE (the only list type that
 * can be watched), or memory runs out. A list not configured yet is created
 * empty.
 *
 * A site list has one list user: registering on the same list again returns
 * the same handle and counts one more reference (callback and user context
 * of the first registration stay). Every successful pol_list_register needs
 * its own pol_list_unregister; the handle is freed at the last one, or by
 * pol_destroy.
 *
 * params->pol_chg_cb is called as (list handle, user_ctx_p) on every change
 * of the list, synchronously inside the configuration callback
 * that made it, before the policy users are flushed. It may unregister the
 * list user, itself included.
 */
t_pol_list_user *pol_list_register(t_pol_list_reg_params *params);

/* Drops one reference of a pol_list_register handle; at the last one the
 * handle is freed (and the list with it, if it has no entries and no
 * sequence names it). Null or a non-site handle does nothing. */
void pol_list_unregister(t_pol_list_user *list_user);

/*
 * Whether the handle's policy has a sequence that sets a TLOC, a TLOC list
 * or a service: 1 only for an outbound (POL_DIR_OUT) route-policy
 * (POL_TYPE_ROUTE) handle bound to a policy with such a sequence, else 0
 * (also for a null or detached handle). A host uses them to decide whether
 * to provide a label table (te_info_p) before pol_execute.
 */
int pol_handle_sets_tloc(t_pol_user *handle);
int pol_handle_sets_tloc_list(t_pol_user *handle);
int pol_handle_sets_service(t_pol_user *handle);

/*
 * Writes the name of the handle's policy into the caller's buffer buf of
 * size bytes, truncated and always terminated, and returns buf. A null or
 * detached handle gives the empty string; a null buf or size 0 is returned
 * untouched.
 */
char *pol_handle_get_name(t_pol_user *handle, char *buf, uint32_t size);

/* ---- execution ---- */

/*
 * Running one route through a user's policy, always in this order on a
 * caller-owned t_pol_exec_params record:
 *
 *   pol_pre_execute(&p, my_device);         zero the record, set device
 *   p.attr_in_p = &attrs; p.afi = ...;      the route: attributes, afi,
 *   p.safi = POL_SAFI_...; p.u.... = ...;   kind and the union for that kind
 *   p.te_info_p = &te;                      if the policy may set TLOCs
 *   action = pol_execute(handle, &p);
 *   ... read action, p.attr_out, p.entry_match_flags, p.entry_set_flags,
 *       p.te_info_p, p.vpn_list, p.set_community_p ...
 *   pol_post_execute(&p);                   release the export VPN buffer
 *
 * Every pol_pre_execute that is followed by pol_execute needs a
 * pol_post_execute before the record is reused or dropped: pol_pre_execute
 * zeroes the record and would lose (leak) a buffer still in it.
 */

/* Zeroes the whole record (so set te_info_p after it) and stores the host's
 * device kind. Null does nothing. */
void pol_pre_execute(t_pol_exec_params *params, e_zen_device device);

/*
 * Runs the route in params through the handle's policy and returns
 * POL_ACTION_ACCEPT or POL_ACTION_REJECT (a sequence left without an action
 * returns POL_ACTION_INVALID). A null handle, a null params, a null
 * params->attr_in_p or a detached handle rejects.
 *
 * *params->attr_in_p is only read; attr_out receives a copy of it that the
 * set actions change (pointers inside it, such as the communities, still
 * point at the caller's records). Outputs:
 *   - entry_match_flags / entry_set_flags: the conditions that matched and
 *     the actions that applied;
 *   - te_info_p: for set TLOC / service / TLOC-list actions the user's
 *     label callback fills the caller's table (64 entries); with no table a
 *     set TLOC or service action rejects the route and a TLOC-list action
 *     is skipped;
 *   - vpn_list: export VPN ranges, in a buffer the library allocates on
 *     first use (see pol_post_execute);
 *   - set_community_p: the sequence's community set, owned by the library,
 *     valid until the next configuration change or pol_destroy: copy what
 *     must be kept.
 */
e_pol_action pol_execute(t_pol_user *handle, t_pol_exec_params *params);

/*
 * Frees the export VPN buffer (vpn_list.vpn_list_p) of a controller
 * (my_device_type ZEN_DEVICE_QARMON) and clears the pointer, so a second
 * call is harmless. On any other device kind the buffer is left to the
 * caller, who frees it with pol_free(p, POL_MEM_LIST_VPN_1). Null does
 * nothing.
 */
void pol_post_execute(t_pol_exec_params *params);

/* 1 when site_id lies in one of the ranges of the watched site list, 0
 * otherwise or for a null handle. */
int pol_list_site_match(t_pol_list_user *list_user, uint32_t site_id);

/* Orders two communities by their text form ("100:20" before "100:3"), as
 * -1, 0 or 1. Both pointers must be valid. */
int pol_community_cmp(const uint32_t *a, const uint32_t *b);

/* ---- accounting allocator ---- */

/*
 * Allocation under an accounting category: each counts one allocation in
 * g_pol_mem_info (even when it fails) and must be freed with pol_free under
 * the same category. Categories POL_MEM_UNKNOWN and POL_MEM_MAX or above
 * allocate without counting. pol_realloc resizes without counting: the
 * block keeps its category. pol_free(NULL, ...) counts nothing.
 */
void *pol_malloc(size_t size, e_pol_mem mem_type);
void *pol_calloc(size_t count, size_t size, e_pol_mem mem_type);
void *pol_realloc(void *ptr, size_t size);
void pol_free(void *ptr, e_pol_mem mem_type);
/* Counts one allocation (is_alloc) or one free of a category by hand. */
void pol_mem_info_update(e_pol_mem mem_type, bool is_alloc);

/* ---- command handlers ---- */

/*
 * Handlers of the operator's show commands: each prints to the CLI session
 * of uinfo through the management daemon and returns 0. pol_dump_memory_info
 * with "--detail" in argv[1] also writes the C library's malloc report to
 * /var/log/pol_meminfo.txt. They read the context: call them from the owning
 * thread.
 */
int pol_dump_memory_info(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_route_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_membership_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_cflowd_policies(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_users_change_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_all(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);

/*
 * Policy documents: each pol_dump_xml_<kind> prints the document of the
 * object named by argv[1] (without its XML declaration; nothing when the
 * object does not exist or was never rendered). pol_dump_xml_summary prints
 * the objects, rendered documents, rendering time and size of every kind;
 * pol_dump_xml_statistics the five most expensive documents of the kind
 * named (or begun) by argv[1], or of every kind for "all".
 * pol_dump_test_xml_gen renders and prints a sample document of each list
 * and object kind, without touching the context.
 */
int pol_dump_xml_data_policy(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_pfr_policy(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_cflowd(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_policer(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_sla_class(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_app_probe_class(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_fwd_prefix_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_fwd_prefix_ipv6_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_vpn_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_tloc_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_app_list(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_summary(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_xml_statistics(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);
int pol_dump_test_xml_gen(struct mgmtd_cli_user_info *uinfo, int argc, char **argv);

/* ---- publishing the edge policy documents ---- */

/*
 * What a controller sends one edge router (its data, app-route and cflowd
 * policies and every list they name) is published into the management
 * daemon's configuration as the subtree /policy-from-qarmon, and the same
 * content as show (operational) data under /policy/from-qarmon. Nothing in
 * the library calls these; the host runs, from its configuration worker
 * (never a packet path) and on the thread that owns the context:
 *
 *   pol_fwd_queue_xml_config(g_pol_ctx_p, 0);           render what changed
 *   pol_fwd_policy_populate(in, out, pfr, cflowd, &n, &payload);
 *   cfg = pol_fwd_policy_hdr_add(payload, n, &cfg_n);    wrap as configuration
 *   pol_fwd_policy_mgmtd_set(cfg_n, cfg, vpn_id);        load and commit
 *   show = pol_show_fwd_policy_hdr_add(payload, n, &show_n);
 *   pol_show_fwd_policy_mgmtd_set(show, vpn_id);         load the show data
 *   pol_free(payload, POL_MEM_XML_1); pol_free(cfg, POL_MEM_XML_2); ...
 *
 * docs/publishing.md describes the payload, the filter and the load.
 */

/* Renders again the document of every policy and data-plane list whose
 * fetch_xml flag is set (of every one when force_fetch is non-zero) and
 * clears the flag; a document that cannot be rendered keeps the old text. */
void pol_fwd_queue_xml_config(t_pol_ctx *pol_ctx, int force_fetch);

/*
 * Assembles one peer's payload from the rendered documents of the policies
 * of the user handles given (any may be null; a detached handle counts as
 * none): the inbound and outbound data policies (one policy with direction
 * "all" when both have the same name), the app-route policy, the cflowd
 * template, then every list they name, once each, inside one `lists`
 * element (none when no list is named). *peer_pol_xml_p receives a new
 * buffer (free with pol_free(p, POL_MEM_XML_1)) of *peer_pol_size_p bytes
 * and a terminator, or null with size 0 when all four handles are null.
 * Returns ERR_OK or an error (nothing is returned then).
 */
int pol_fwd_policy_populate(t_pol_handle data_pol_in_p, t_pol_handle data_pol_out_p, t_pol_handle pfr_pol_p,
                            t_pol_handle cflowd_pol_p, uint32_t *peer_pol_size_p, char **peer_pol_xml_p);

/*
 * Appends the document of one handle's policy (pol_type 1 data policy, with
 * the direction pol_dir: 1 from-service, 2 from-tunnel, otherwise all; 2
 * app-route policy; 3 cflowd template) to *pol_xml_p, and the lists it
 * names that are not yet in the payload to *list_xml_p. The buffers and
 * their space left are as pol_fwd_policy_append takes them.
 */
int pol_fwd_policy_xml_get(t_pol_handle pol_handle, uint32_t pol_type, uint32_t pol_dir, uint32_t *pol_size_p,
                           char **pol_xml_p, uint32_t *list_size_p, char **list_xml_p);
/* Appends the documents of the lists one policy names, each once. */
int pol_fwd_policy_xml_get_list(t_pol_block *pol_block_p, uint32_t *list_size_p, char **list_xml_p);

/*
 * Appends src_len bytes of src and a terminator to the text in *dest, a
 * pol_malloc buffer with *dest_size_left bytes unused. When they do not
 * fit, *dest is reallocated to exactly the text, src_len and the
 * terminator, and *dest_size_left becomes 0; otherwise it shrinks by
 * src_len. Returns 0, or 1 when the reallocation fails (*dest unchanged).
 */
int pol_fwd_policy_append(const char *src, uint32_t src_len, char **dest, uint32_t *dest_size_left);

/*
 * Wraps a payload of size bytes as configuration (the daemon's `config`
 * envelope around `policy-from-qarmon`) or as show data (`policy` around
 * `from-qarmon`), both in the edge policy namespace, after removing the
 * elements the daemon's schema does not know. Returns a new buffer (free
 * with pol_free(p, POL_MEM_XML_2)) and its length in *new_size_p, or null
 * when memory runs out. An empty payload gives an empty element.
 */
char *pol_fwd_policy_hdr_add(const char *xml_fwd_pol_p, uint32_t size, uint32_t *new_size_p);
char *pol_show_fwd_policy_hdr_add(const char *xml_fwd_pol_p, uint32_t size, uint32_t *new_size_p);

/*
 * Loads a wrapped configuration (pol_fwd_policy_hdr_add) into the daemon's
 * candidate database, replacing /policy-from-qarmon, and commits it; the
 * delete removes that subtree the same way. A database another session
 * holds locked is tried again 32 times, 5 seconds apart, so a call may
 * block for about 160 seconds. Returns ERR_OK, ERR_SOCKET when the daemon
 * cannot be reached (127.0.0.1:4565), or ERR_MGMTD_FAIL (the daemon's
 * message is logged). vpn_id is not used.
 */
int pol_fwd_policy_mgmtd_set(uint32_t size, const char *xml_fwd_pol_p, uint32_t vpn_id);
int pol_fwd_policy_mgmtd_delete(uint32_t vpn_id);

/*
 * Loads wrapped show data (pol_show_fwd_policy_hdr_add) into the daemon's
 * operational database, through the file /etc/zentrak/show_fwd_pol_data.xml
 * (overwritten); the delete removes every subtree of
 * pol_show_data_pol_from_qarmon that holds data. Results as above.
 */
int pol_show_fwd_policy_mgmtd_set(const char *xml_show_fwd_pol_p, uint32_t vpn_id);
int pol_show_fwd_policy_mgmtd_delete(uint32_t vpn_id);

/* ---- text test harness ---- */

#define POL_TEST_MAX_TOKENS 20
#define POL_TEST_TOKEN_SIZE 50

/* The caller's parser of "site-policy" lines: the line's words and their
 * count. The array lives for the call only. */
typedef void (*t_omp_parse_cb)(char token[][POL_TEST_TOKEN_SIZE], int num_tokens);

/*
 * Loads lists and route policies from the text file /var/run/policy_cfg.txt
 * into the context, one line at a time (docs/test-harness.md gives the
 * grammar), handing "site-policy" lines to parse_cb (may be null). The users
 * of what changed are notified once, after the whole file. A missing file
 * or a missing context is logged and changes nothing. A test and
 * development aid: hosts do not call it in service.
 */
void pol_test_parse_cfg(t_omp_parse_cb parse_cb);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_API_H */
