/*
 * Core records of the policy library: status and memory accounting, the
 * context, policy blocks and their sequences with their match conditions
 * and set actions, users and the execution record. Plain C records with
 * their fields in a fixed order, shared by the library and its hosts.
 */
#ifndef POLICY_POL_H
#define POLICY_POL_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/queue.h>
#include <time.h>

#include <zen/avl.h>
#include <zen/ip_util.h>
#include <zen/zen_attr.h>
#include <zen/zen_err.h>
#include <zen/zen_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Memory accounting                                                   */
/* ------------------------------------------------------------------ */

typedef enum e_pol_mem {
    POL_MEM_UNKNOWN = 0,
    POL_MEM_CTX = 1,
    POL_MEM_BLOCK = 2,
    POL_MEM_ENTRY = 3,
    POL_MEM_POL_MGMTD_THREAD_ARGS = 4,
    POL_MEM_OMP_MGMTD_THREAD_ARGS = 5,
    POL_MEM_XML_1 = 6,
    POL_MEM_XML_2 = 7,
    POL_MEM_XML_3 = 8,
    POL_MEM_XML_4 = 9,
    POL_MEM_XML_5 = 10,
    POL_MEM_TYPE_PFR = 11,
    POL_MEM_TYPE_POLICER = 12,
    POL_MEM_TYPE_SITE = 13,
    POL_MEM_TYPE_POL_USER = 14,
    POL_MEM_LIST_POL_USER = 15,
    POL_MEM_LIST_PREFIX = 16,
    POL_MEM_LIST_FWD_PREFIX = 17,
    POL_MEM_LIST_SITE = 18,
    POL_MEM_LIST_TLOC = 19,
    POL_MEM_LIST_APP = 20,
    POL_MEM_LIST_COLOR = 21,
    POL_MEM_LIST_VPN = 22,
    POL_MEM_LIST_VPN_1 = 23,
    POL_MEM_ENTRY_POLICY = 24,
    POL_MEM_ENTRY_SITE = 25,
    POL_MEM_ENTRY_LIST = 26,
    POL_MEM_ENTRY_PREFIX = 27,
    POL_MEM_ENTRY_TLOC = 28,
    POL_MEM_ENTRY_COLOR = 29,
    POL_MEM_ENTRY_VPN = 30,
    POL_MEM_FWD_ENTRY_VPN = 31,
    POL_MEM_ENTRY_APPID = 32,
    POL_MEM_LIST_APP_PROBE_CLASS = 33,
    POL_MEM_ENTRY_APP_PROBE_CLASS_COLOR = 34,
    POL_MEM_LIST_APP_ENTRY = 35,
    POL_MEM_LIST_PFX_ENTRY = 36,
    POL_MEM_LIST_PFX6_ENTRY = 37,
    POL_MEM_CFLOWD_ENTRY = 38,
    POL_MEM_CFLOWD_COLL_ENTRY = 39,
    POL_MEM_ENTRY_MATCH_SRC_IP = 40,
    POL_MEM_ENTRY_MATCH_SRC_IPV6 = 41,
    POL_MEM_ENTRY_MATCH_DST_IP = 42,
    POL_MEM_ENTRY_MATCH_DST_IPV6 = 43,
    POL_MEM_ENTRY_MATCH_SRC_PORT = 44,
    POL_MEM_ENTRY_MATCH_DST_PORT = 45,
    POL_MEM_ENTRY_MATCH_PROTO = 46,
    POL_MEM_ENTRY_MATCH_DSCP = 47,
    POL_MEM_ENTRY_MATCH_PKT_LEN = 48,
    POL_MEM_ENTRY_MATCH_ICMP = 49,
    POL_MEM_ENTRY_MATCH_ICMP6 = 50,
    POL_MEM_LIST_COMMUNITY = 51,
    POL_MEM_ENTRY_COMMUNITY = 52,
    POL_MEM_SET_COMMUNITY = 53,
    POL_MEM_SET_ENTRY_COMMUNITY = 54,
    POL_MEM_MAX = 55,
} e_pol_mem;

/* One row of the accounting table: counts of objects, not bytes. */
typedef struct _t_pol_mem_info {
    e_pol_mem mem_type;
    bool cache_needed;
    void *cache_p;
    const char *desc;
    const char *struct_name;
    uint32_t struct_size;
    uint64_t alloc;
    uint64_t free;
    uint64_t max_alloc;
} t_pol_mem_info;

/* Cached policy document of a block or list; buf belongs to the XML library. */
typedef struct pol_xml {
    char *buf;
    uint32_t buf_siz;
    time_t time_spent;
} pol_xml_t;

/* ------------------------------------------------------------------ */
/* Enumerations                                                        */
/* ------------------------------------------------------------------ */

typedef enum _e_pol_type {
    POL_TYPE_INVALID = 0,
    POL_TYPE_ROUTE = 1,
    POL_TYPE_DATA = 2,
    POL_TYPE_PFR = 3,
    POL_TYPE_MEMBERSHIP = 4,
    POL_TYPE_CFLOWD = 5,
    POL_TYPE_MAX = 6,
} e_pol_type;

typedef enum _e_pol_dir {
    POL_DIR_NONE = 0,
    POL_DIR_IN = 1,
    POL_DIR_OUT = 2,
    POL_DIR_MAX = 3,
} e_pol_dir;

typedef enum _e_pol_action {
    POL_ACTION_INVALID = 0,
    POL_ACTION_ACCEPT = 1,
    POL_ACTION_REJECT = 2,
} e_pol_action;

typedef enum _e_pol_list_type {
    POL_LIST_INVALID = 0,
    POL_LIST_PREFIX = 1,
    POL_LIST_SITE = 2,
    POL_LIST_TLOC = 3,
    POL_LIST_MAX = 4,
} e_pol_list_type;

typedef enum _e_pol_match_type {
    POL_MATCH_INVALID = 0,
    POL_MATCH_VROUTE = 1,
    POL_MATCH_TLOC = 2,
    POL_MATCH_SERVICE = 3,
    POL_MATCH_PACKET = 4,
} e_pol_match_type;

/* Protocol of a data-policy packet condition, as the renderers name it. */
typedef enum _e_pol_proto {
    POL_PROTO_UDP = 1,
    POL_PROTO_TCP = 2,
    POL_PROTO_ICMP = 3,
} e_pol_proto;

/* Named DSCP classes: an index of the class, not the DSCP code point. */
typedef enum _e_pol_dsp {
    POL_DSCP_DEFAULT = 0,
    POL_DSCP_AF11 = 1,
    POL_DSCP_AF12 = 2,
    POL_DSCP_AF13 = 3,
    POL_DSCP_AF21 = 4,
    POL_DSCP_AF22 = 5,
    POL_DSCP_AF23 = 6,
    POL_DSCP_AF31 = 7,
    POL_DSCP_AF32 = 8,
    POL_DSCP_AF33 = 9,
    POL_DSCP_AF41 = 10,
    POL_DSCP_AF42 = 11,
    POL_DSCP_AF43 = 12,
    POL_DSCP_EF = 13,
    POL_DSCP_CS1 = 14,
    POL_DSCP_CS2 = 15,
    POL_DSCP_CS3 = 16,
    POL_DSCP_CS4 = 17,
    POL_DSCP_CS5 = 18,
    POL_DSCP_CS6 = 19,
    POL_DSCP_CS7 = 20,
} e_pol_dsp;

typedef enum _t_pol_action_redirect_dns_type {
    POL_ACTION_REDIRECT_DNS_HOST = 0,
    POL_ACTION_REDIRECT_DNS_UMBRELLA = 1,
} t_pol_action_redirect_dns_type;

/* Summary bits of a block's pol_flags over its sequences. */
#define POL_BLOCK_FLAG_SETS_TLOC      0x1u
#define POL_BLOCK_FLAG_SETS_SERVICE   0x2u
#define POL_BLOCK_FLAG_SETS_TLOC_LIST 0x4u

/* Bits of a sequence's entry_match_flags (control-policy conditions). */
#define POL_MATCH_FLAG_SITE_LIST          0x1ULL
#define POL_MATCH_FLAG_SITE               0x2ULL
#define POL_MATCH_FLAG_TLOC_LIST          0x4ULL
#define POL_MATCH_FLAG_TLOC               0x8ULL
#define POL_MATCH_FLAG_PFX_LIST           0x10ULL
#define POL_MATCH_FLAG_TAG                0x20ULL
#define POL_MATCH_FLAG_PREFERENCE         0x40ULL
#define POL_MATCH_FLAG_DOMAIN             0x80ULL
#define POL_MATCH_FLAG_VPN_ID             0x100ULL
#define POL_MATCH_FLAG_VPN_LIST           0x200ULL
#define POL_MATCH_FLAG_ORIGIN             0x400ULL
#define POL_MATCH_FLAG_ORIGINATOR         0x800ULL
#define POL_MATCH_FLAG_CARRIER            0x1000ULL
#define POL_MATCH_FLAG_GROUP              0x2000ULL
#define POL_MATCH_FLAG_ORIGIN_METRIC      0x4000ULL
#define POL_MATCH_FLAG_COLOR              0x100000ULL
#define POL_MATCH_FLAG_COLOR_LIST         0x200000ULL
#define POL_MATCH_FLAG_COMMUNITY_LIST     0x40000000ULL
#define POL_MATCH_FLAG_EXP_COMMUNITY_LIST 0x80000000ULL

/* Bits of a sequence's entry_set_flags (control-policy actions). */
#define POL_SET_FLAG_TAG                  0x1ULL
#define POL_SET_FLAG_TLOC                 0x2ULL
#define POL_SET_FLAG_PREFERENCE           0x4ULL
#define POL_SET_FLAG_VPN_ID               0x8ULL
#define POL_SET_FLAG_VPN_LIST             0x10ULL
#define POL_SET_FLAG_TLOC_LIST            0x20ULL
#define POL_SET_FLAG_SERVICE              0x40ULL
#define POL_SET_FLAG_COMMUNITY            0x200000000ULL
#define POL_SET_FLAG_COMMUNITY_ADDITIVE   0x400000000ULL

/* ------------------------------------------------------------------ */
/* Forward declarations of records owned by the list families and the  */
/* data-policy model.                                                  */
/* ------------------------------------------------------------------ */

struct _t_site_list;
struct _t_vpn_list;
struct _t_tloc_list;
struct _t_tloc_entry;
struct _t_color_list;
struct _t_pfx_list;
struct _t_community_list;
struct _t_app_list;
struct _t_fwd_pfx_list;
struct _t_fwd_policer;
struct _t_fwd_sla_class;
struct _t_fwd_app_id;
struct _t_pol_fwd_vpn_entry;
struct _t_cflowd_entry;
struct _t_pol_block;
struct _t_pol_entry;
struct _t_pol_user;
struct _t_pol_list_user;
struct _t_pol_te_info;

/* ------------------------------------------------------------------ */
/* Small shared records                                                */
/* ------------------------------------------------------------------ */

/* Port or packet-length range of a data-policy condition. */
typedef struct _t_pol_range {
    uint32_t min_val;
    uint32_t max_val;
} t_pol_range;

/* Doubly linked list of the data-policy model. */
typedef struct t_dlnode {
    struct t_dlnode *p_next;
    struct t_dlnode *p_prev;
} t_dlnode;

typedef struct t_dll {
    t_dlnode *p_head;
    t_dlnode *p_tail;
    int32_t count;
} t_dll;

/* Local TLOC list preference of a data-policy action: colour and
 * encapsulation masks and the restrict flag. */
typedef struct _t_pol_set_local_tloc_list {
    uint32_t color_mask;
    uint32_t encap_mask;
    uint8_t restrict1;
} t_pol_set_local_tloc_list;

/* Communities a sequence sets on accepted routes. */
typedef struct _t_pol_set_community {
    uint32_t *communities;
    uint32_t n_communities;
} t_pol_set_community;

/* Timing of one kind of data-policy document fetch. */
typedef struct _t_pol_mgmtd_fetch_time {
    time_t start;
    time_t end;
    time_t max;
} t_pol_mgmtd_fetch_time;

typedef struct _t_pol_entry_mgmtd_time {
    t_pol_mgmtd_fetch_time app_list;
    t_pol_mgmtd_fetch_time src_list;
    t_pol_mgmtd_fetch_time dst_list;
    t_pol_mgmtd_fetch_time app_id;
    t_pol_mgmtd_fetch_time sla_class;
    t_pol_mgmtd_fetch_time policer;
    t_pol_mgmtd_fetch_time fwd_tloc_list;
} t_pol_entry_mgmtd_time;

/* ------------------------------------------------------------------ */
/* Traffic-engineering table and callbacks                             */
/* ------------------------------------------------------------------ */

#define POL_MAX_TE_ENTRIES 64

typedef struct _t_pol_te {
    uint32_t label;
    uint32_t preference;
    t_tloc_id tloc;
} t_pol_te;

typedef struct _t_pol_te_info {
    uint32_t num_entries;
    uint8_t ultimate_tloc_action;
    t_pol_te entries[POL_MAX_TE_ENTRIES];
} t_pol_te_info;

/* Called once per flushed batch of changes to the user's policy. */
typedef void (*t_pol_change_cb_f)(struct _t_pol_user *handle, void *user_ctx_p);

/*
 * The host's label callback: (afi, IPv4 system address, colour, encap,
 * VPN id, service, service-local, label out, TLOC out, TE table, preference).
 * It appends entries to the TE table.
 */
typedef void (*t_pol_label_cb_f)(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap,
                                 uint64_t vpn_id, uint16_t service, bool svc_local,
                                 uint32_t *label_p, t_tloc_id *tloc_p, t_pol_te_info *te_info_p,
                                 uint32_t preference);

typedef void (*t_pol_timer_cb_f)(void);

/* Called on every change of a watched named list. */
typedef void (*t_pol_list_change_cb_f)(struct _t_pol_list_user *list_user, void *user_ctx_p);

/* ------------------------------------------------------------------ */
/* Sequences: match conditions and set actions                         */
/* ------------------------------------------------------------------ */

typedef struct _t_pol_match_entry {
    e_pol_match_type match_type;
    /* Links in the user chains of the named lists the sequence matches on. */
    TAILQ_ENTRY(_t_pol_match_entry) match_pfx_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_tloc_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_site_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_community_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_vpn_entry;
    TAILQ_ENTRY(_t_pol_match_entry) app_list_entry;
    TAILQ_ENTRY(_t_pol_match_entry) dns_app_list_entry;
    TAILQ_ENTRY(_t_pol_match_entry) saas_app_list_entry; /* unused: SaaS lists link the holding nodes */
    TAILQ_ENTRY(_t_pol_match_entry) fwd_src_pfx_entry;
    TAILQ_ENTRY(_t_pol_match_entry) fwd_dst_pfx_entry;
    TAILQ_ENTRY(_t_pol_match_entry) fwd_src_pfx6_entry;
    TAILQ_ENTRY(_t_pol_match_entry) fwd_dst_pfx6_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_app_id_entry;
    TAILQ_ENTRY(_t_pol_match_entry) match_color_entry;

    struct _t_pol_block *pol_block_p;
    struct _t_pol_fwd_vpn_entry *pol_vpn_p;
    struct _t_site_list *match_site_list_p;
    uint32_t match_tag;
    uint32_t match_site_id;
    t_tloc_id match_tloc;
    struct _t_pfx_list *match_pfx_list_p;
    uint64_t match_vpn_id;
    struct _t_vpn_list *match_vpn_list_p;
    struct _t_tloc_list *match_tloc_list_p;
    uint32_t match_preference;
    uint32_t match_domain;
    uint32_t match_group;
    uint8_t match_carrier;
    uint8_t match_origin_type;
    uint8_t match_origin_subtype;
    uint32_t match_origin_metric;
    t_ipaddr match_originator;
    uint16_t match_color;
    struct _t_color_list *match_color_list_p;
    struct _t_fwd_app_id *match_app_id_p;
    struct _t_community_list *match_community_list_p;
    struct _t_community_list *match_exp_community_list_p;

    /* Data-policy packet conditions. */
    t_ipprefix *match_src_ip_list;
    uint32_t match_num_src_ip;
    struct _t_fwd_pfx_list *match_src_list_p;
    t_ipprefix *match_src_ipv6_list;
    uint32_t match_num_src_ipv6;
    struct _t_fwd_pfx_list *match_src6_list_p;
    t_ipprefix *match_dst_ip_list;
    uint32_t match_num_dst_ip;
    struct _t_fwd_pfx_list *match_dst_list_p;
    t_ipprefix *match_dst_ipv6_list;
    uint32_t match_num_dst_ipv6;
    struct _t_fwd_pfx_list *match_dst6_list_p;
    struct _t_app_list *match_app_list_p;
    struct _t_app_list *match_dns_app_list_p;
    t_dll match_saas_app_list;
    t_pol_range *match_src_port_list;
    uint32_t match_num_src_port;
    t_pol_range *match_dst_port_list;
    uint32_t match_num_dst_port;
    uint8_t *match_proto_list;
    uint32_t match_num_proto;
    uint8_t *match_dscp_list;
    uint32_t match_num_dscp;
    uint8_t match_plp;
    uint8_t match_dns;
    uint8_t match_traf_category;
    uint32_t match_tcp_flags;
    t_pol_range *match_packet_len;
    uint32_t match_num_packet_len;
    uint32_t *match_icmp_list;
    uint32_t match_num_icmp;
    uint32_t *match_icmp6_list;
    uint32_t match_num_icmp6;
} t_pol_match_entry;

typedef struct _t_pol_set_entry {
    /* Links in the user chains of the objects the sequence sets. */
    TAILQ_ENTRY(_t_pol_set_entry) set_vpn_entry;
    TAILQ_ENTRY(_t_pol_set_entry) set_tloc_entry;
    TAILQ_ENTRY(_t_pol_set_entry) set_sla_class_entry;
    TAILQ_ENTRY(_t_pol_set_entry) set_policer_entry;

    struct _t_pol_block *pol_block_p;
    struct _t_pol_fwd_vpn_entry *pol_vpn_p;
    struct _t_pol_entry *pol_entry_p;
    uint32_t set_tag;
    t_tloc_id set_tloc;
    uint32_t set_preference;
    uint64_t export_vpn_id;
    struct _t_vpn_list *export_vpn_list_p;
    struct _t_tloc_list *tloc_list_p;
    uint16_t set_service;
    t_tloc_id set_svc_tloc;
    uint64_t set_svc_vpn_id;
    uint8_t set_ultimate_action;

    /* Data-policy actions. */
    t_local_tloc_id set_local_tloc;
    t_pol_set_local_tloc_list set_local_tloc_list;
    t_ipaddr next_hop;
    t_ipaddr next_hop_ipv6;
    struct _t_fwd_policer *set_fwd_policer_p;
    uint8_t set_fwd_dscp;
    char set_fwd_class[128];
    uint64_t set_fwd_vpn_id;
    uint32_t set_fwd_label;
    TAILQ_HEAD(, _t_tloc_entry) fwd_tloc_entry_head;
    t_tloc_id set_fwd_tloc;
    struct _t_tloc_list *set_fwd_tloc_list_p;
    uint16_t set_fwd_service;
    uint16_t set_fwd_service_vpn_id;
    bool set_fwd_service_local;
    bool set_fwd_service_local_restrict;
    struct _t_fwd_sla_class *set_sla_class_p;
    uint8_t set_sla_strict;
    uint32_t set_sla_preferred_color;
    char set_counter_name[128];
    uint32_t set_backup_sla_preferred_color;
    uint32_t set_nat_vpn_id;
    uint32_t set_nat_pool_id;
    bool set_nat_fallback;
    uint8_t loss_protect;
    uint8_t loss_protection_fec;
    t_ipaddr redirect_dns_ip_addr;
    t_pol_action_redirect_dns_type redirect_dns_type;
    t_pol_set_community *set_community;
    uint8_t action;
} t_pol_set_entry;

/* One numbered sequence of a policy. */
typedef struct _t_pol_entry {
    uint32_t entry_num;
    avl_node_t entry_node;
    struct _t_pol_block *pol_block_p;
    struct _t_pol_fwd_vpn_entry *pol_vpn_p;
    uint64_t entry_match_flags;
    uint64_t entry_set_flags;
    t_pol_match_entry match_entry;
    t_pol_set_entry set_entry;
    e_pol_action entry_action;
    t_pol_entry_mgmtd_time fetch_time;
} t_pol_entry;

/* ------------------------------------------------------------------ */
/* Policy blocks and users                                             */
/* ------------------------------------------------------------------ */

#define POL_NAME_SIZE 128

typedef struct _t_pol_user {
    e_pol_type pol_type;
    e_pol_dir pol_direction;
    char user_name[POL_NAME_SIZE];
    uint8_t pol_user_flags;
    avl_node_t user_node;
    struct _t_pol_block *pol_block_p;
    TAILQ_ENTRY(_t_pol_user) pol_block_list_entry;
    void *user_ctx_p;
    t_pol_change_cb_f pol_chg_cb;
    t_pol_label_cb_f pol_label_cb;
    t_pol_timer_cb_f pol_timer_cb;
    TAILQ_ENTRY(_t_pol_user) pol_chg_list_entry;
    /* Registrations held on this user: one per pol_register that returned
     * it; each pol_unregister drops one and the last frees the user. */
    uint32_t ref_count;
} t_pol_user;

/* The handle a registration returns. */
typedef t_pol_user *t_pol_handle;

/* pol_user_flags: the user waits on the pending-change queue. */
#define POL_USER_FLAG_QUEUED 0x1u

typedef TAILQ_HEAD(_t_pol_user_head, _t_pol_user) t_pol_user_head;

typedef struct _t_pol_block {
    char pol_name[POL_NAME_SIZE];
    avl_node_t pol_node;
    e_pol_type pol_type;
    uint32_t pol_flags;
    avl_tree_t pol_entries;
    avl_tree_t pol_fwd_vpn_list_entries;
    t_pol_entry default_action_entry;
    uint8_t fetch_xml;
    t_pol_user_head users_list;
    pol_xml_t pol_xml;
    struct _t_cflowd_entry *pol_cflowd_entry;
    /* Bumped by every change of the sequences' match conditions; the
     * execution's sequence index (owned by the match module) remembers it. */
    uint64_t generation;
    struct _t_pol_block_exec_index *exec_index;
} t_pol_block;

typedef struct _t_pol_reg_params {
    char user_name[POL_NAME_SIZE];
    char pol_name[POL_NAME_SIZE];
    e_pol_type pol_type;
    e_pol_dir pol_direction;
    t_pol_change_cb_f pol_chg_cb;
    t_pol_label_cb_f pol_label_cb;
    t_pol_timer_cb_f pol_timer_cb;
    void *user_ctx_p;
} t_pol_reg_params;

#define POL_LIST_NAME_SIZE 64

typedef struct _t_pol_list_reg_params {
    e_pol_list_type pol_list_type;
    char pol_list_name[POL_LIST_NAME_SIZE];
    t_pol_list_change_cb_f pol_chg_cb;
    void *user_ctx_p;
} t_pol_list_reg_params;

typedef struct _t_pol_list_user {
    e_pol_list_type pol_list_type;
    t_pol_list_change_cb_f pol_list_chg_cb;
    struct _t_site_list *site_list_p;
    void *user_ctx_p;
    /* Registrations held on this list user, as for t_pol_user. */
    uint32_t ref_count;
} t_pol_list_user;

/* ------------------------------------------------------------------ */
/* Context                                                             */
/* ------------------------------------------------------------------ */

#define POL_TENANT_ORGNAME_SIZE 128

typedef struct _t_pol_init_params {
    t_pol_label_cb_f pol_label_cb;
    t_vpn_id tenant_vpn_id;
    char tenant_orgname[POL_TENANT_ORGNAME_SIZE];
} t_pol_init_params;

/* pol_ctx_flags */
#define POL_CTX_FLAG_DESTROYING  0x01u
#define POL_CTX_FLAG_IN_CALLBACK 0x02u

/*
 * The one context. Trees marked "not used yet" belong to data-policy
 * families that no operation creates, fills or reads so far: they stay
 * zero-filled (never initialised, never destroyed) and hosts must not walk
 * them.
 */
typedef struct _t_pol_ctx {
    uint8_t pol_ctx_flags;
    avl_tree_t route_policies;
    avl_tree_t fwd_policies;
    avl_tree_t pfr_policies;
    avl_tree_t membership_policies;
    avl_tree_t pfx_lists;
    avl_tree_t app_lists;
    avl_tree_t app_probe_class_list;
    avl_tree_t tloc_lists;
    avl_tree_t site_lists;
    avl_tree_t vpn_lists;
    avl_tree_t color_lists;
    avl_tree_t community_lists;
    avl_tree_t exp_community_lists;
    avl_tree_t sla_classes;
    avl_tree_t app_ids;
    avl_tree_t fwd_pfx_lists;
    avl_tree_t fwd_pfx6_lists;
    avl_tree_t fwd_policers;
    avl_tree_t cflowd_templates;
    avl_tree_t pol_users;
    t_pol_init_params init_params;
    t_pol_user_head pol_users_chg;
} t_pol_ctx;

/* ------------------------------------------------------------------ */
/* Cflowd templates                                                    */
/* ------------------------------------------------------------------ */

#define POL_CFLOWD_SOURCE_IF_SIZE 33

typedef struct _t_cflowd_entry {
    avl_tree_t collector_db;
    uint64_t flow_active_timeout;
    uint64_t flow_inactive_timeout;
    uint64_t flow_sampling_interval;
    uint64_t template_refresh;
    uint8_t protocol;
    struct _t_pol_block *cflowd_pol_block_p;
} t_cflowd_entry;

typedef struct _t_cflowd_collector {
    avl_node_t avl_node;
    t_cflowd_entry *cflowd_entry_p;
    uint64_t vpn_id;
    t_ipaddr addr;
    uint16_t port;
    uint32_t transport_type;
    char source_if[POL_CFLOWD_SOURCE_IF_SIZE];
} t_cflowd_collector;

/* ------------------------------------------------------------------ */
/* Execution of one route                                              */
/* ------------------------------------------------------------------ */

/* Route kinds (safi). */
#define POL_SAFI_VROUTE  1
#define POL_SAFI_TLOC    2
#define POL_SAFI_SERVICE 3

/* Capacity of the per-execution export VPN buffer. */
#define POL_MAX_VPN 128

typedef struct _t_pol_vroute_info {
    uint64_t vpn_id;
    t_ipprefix prefix;
} t_pol_vroute_info;

typedef struct _t_pol_tloc_info {
    t_tloc_id tloc;
} t_pol_tloc_info;

typedef struct _t_pol_service_info {
    uint64_t vpn_id;
} t_pol_service_info;

typedef struct _t_pol_exec_vpn_entry {
    uint64_t min_vpn_id;
    uint64_t max_vpn_id;
} t_pol_exec_vpn_entry;

typedef struct _t_pol_vpn_list {
    uint32_t num_vpn_entries;
    t_pol_exec_vpn_entry *vpn_list_p;
} t_pol_vpn_list;

typedef struct _t_pol_exec_params {
    t_zen_attr *attr_in_p;
    uint16_t afi;
    uint8_t safi;
    e_zen_device my_device_type;
    union {
        t_pol_vroute_info vroute_info;
        t_pol_tloc_info tloc_info;
        t_pol_service_info service_info;
    } u;
    uint64_t entry_match_flags;
    uint64_t entry_set_flags;
    t_zen_attr attr_out;
    t_pol_set_community *set_community_p;
    t_pol_vpn_list vpn_list;
    uint32_t in_label;
    uint32_t out_label;
    t_pol_te_info *te_info_p;
} t_pol_exec_params;

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_H */
