/*
 * Records of the named lists that policies refer to. Each family lives in
 * its own name-keyed tree of the context; a list owns its entries and
 * chains the policy records that use it.
 *
 * Families whose entries sit in a tail queue also keep every entry in an
 * identity index (entry_index, keyed on what makes the entry unique in its
 * list), so that the duplicate check, find and delete never walk the
 * queue; the queue keeps the index's order (identity order), so that its
 * walks see what the list holds, whatever order the entries came in.
 * exec_index is owned by the match module of route execution: a match-time
 * structure rebuilt lazily after the list changed, under the list's memory
 * category (null until first needed, or while it cannot be allocated).
 */
#ifndef POLICY_POL_LISTS_H
#define POLICY_POL_LISTS_H

#include <regex.h>

#include <policy/pol.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef TAILQ_HEAD(_t_pol_match_entry_head, _t_pol_match_entry) t_pol_match_entry_head;
typedef TAILQ_HEAD(_t_pol_set_entry_head, _t_pol_set_entry) t_pol_set_entry_head;

/* Match-time index of a list, rebuilt when the list's generation moved. */
typedef struct _t_pol_list_exec_index t_pol_list_exec_index;

/* ---- site list ---- */

typedef struct _t_site_entry {
    TAILQ_ENTRY(_t_site_entry) site_entry;
    uint32_t min_site_id;
    uint32_t max_site_id;
    avl_node_t index_node;
} t_site_entry;

typedef struct _t_site_list {
    char site_list_name[POL_LIST_NAME_SIZE];
    avl_node_t site_list_node;
    TAILQ_HEAD(, _t_site_entry) site_entry_head;
    t_pol_match_entry_head match_list_head;
    t_pol_list_user *site_list_user_p;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_site_list;

/* ---- VPN list ---- */

typedef struct _t_pol_vpn_entry {
    TAILQ_ENTRY(_t_pol_vpn_entry) vpn_entry;
    uint64_t min_vpn_id;
    uint64_t max_vpn_id;
    avl_node_t index_node;
} t_pol_vpn_entry;

typedef TAILQ_HEAD(_t_pol_fwd_vpn_entry_head, _t_pol_fwd_vpn_entry) t_pol_fwd_vpn_entry_head;

typedef struct _t_vpn_list {
    char vpn_list_name[POL_LIST_NAME_SIZE];
    avl_node_t vpn_list_node;
    uint8_t fetch_xml;
    TAILQ_HEAD(, _t_pol_vpn_entry) vpn_entry_head;
    t_pol_match_entry_head match_list_head;
    t_pol_set_entry_head set_list_head;
    t_pol_fwd_vpn_entry_head fwd_pol_head;
    pol_xml_t vpn_list_xml;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_vpn_list;

/* ---- TLOC list and colour list ---- */

typedef struct _t_tloc_entry {
    TAILQ_ENTRY(_t_tloc_entry) tloc_entry;
    t_tloc_id tloc;
    uint32_t set_fwd_label;
    uint32_t route_preference;
    avl_node_t index_node;
} t_tloc_entry;

typedef struct _t_tloc_list {
    char tloc_list_name[POL_LIST_NAME_SIZE];
    avl_node_t tloc_list_node;
    uint8_t fetch_xml;
    TAILQ_HEAD(, _t_tloc_entry) tloc_entry_head;
    t_pol_match_entry_head match_list_head;
    t_pol_set_entry_head set_list_head;
    bool update_fwd_policy_label;
    pol_xml_t tloc_list_xml;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_tloc_list;

typedef struct _t_color_entry {
    TAILQ_ENTRY(_t_color_entry) color_entry;
    uint16_t color;
    avl_node_t index_node;
} t_color_entry;

typedef struct _t_color_list {
    char color_list_name[POL_LIST_NAME_SIZE];
    avl_node_t color_list_node;
    TAILQ_HEAD(, _t_color_entry) color_entry_head;
    t_pol_match_entry_head match_list_head;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_color_list;

/* ---- prefix list ---- */

typedef enum _e_pol_af {
    POL_AF_IPV4 = 0,
    POL_AF_IPV6 = 1,
    POL_AF_MAX = 2,
} e_pol_af;

/*
 * The length condition of a prefix-list entry: which lengths L of a route
 * prefix the entry admits. Each operator reads one or two of the entry's
 * three lengths: P, the entry prefix's own length (prefix.prefixlen), and
 * the bounds preflen_min and preflen_max; the others are ignored. A route
 * must also lie within the entry's prefix, except for the catch-all entry:
 * an all-zero prefix of length 0 with an operator that does not read P
 * (RANGE, XRANGE, LE, LT, GE, GT) applies its length condition to every
 * route. Bounds are stored as configured, never checked against each other
 * or the family's width. The configuration's ge/le map onto RANGE, LE, GE
 * and EQ.
 */
typedef enum _e_pfx_op {
    PFX_OP_NONE = 0,   /* reads P: L = P, the exact prefix */
    PFX_OP_RANGE = 1,  /* reads min and max: min <= L <= max */
    PFX_OP_XRANGE = 2, /* reads min and max: min < L < max, both bounds exclusive */
    PFX_OP_EQ = 3,     /* reads P: L = P */
    PFX_OP_NE = 4,     /* reads P: L != P (the route still lies within the prefix) */
    PFX_OP_LE = 5,     /* reads max: L <= max */
    PFX_OP_LT = 6,     /* reads min, not max: L < min */
    PFX_OP_GE = 7,     /* reads min: L >= min */
    PFX_OP_GT = 8,     /* reads min: L > min */
    /* any other value admits no length */
} e_pfx_op;

typedef struct _t_pfx_list_key {
    e_pol_af pfx_key_af;
    const char *pfx_key_name_p;
} t_pfx_list_key;

typedef struct _t_pfx_entry_param {
    e_pfx_op pfx_op;
    t_ipprefix prefix;
    uint8_t preflen_min;
    uint8_t preflen_max;
} t_pfx_entry_param;

typedef struct _t_pfx_entry {
    TAILQ_ENTRY(_t_pfx_entry) pfx_entry;
    e_pfx_op pfx_op;
    t_ipprefix prefix;
    uint8_t preflen_min;
    uint8_t preflen_max;
    avl_node_t index_node;
} t_pfx_entry;

typedef struct _t_pfx_list {
    e_pol_af pfx_af;
    char pfx_list_name[POL_LIST_NAME_SIZE];
    avl_node_t pfx_list_node;
    TAILQ_HEAD(, _t_pfx_entry) pfx_entry_head;
    t_pol_match_entry_head match_list_head;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_pfx_list;

/* ---- community lists ---- */

typedef enum community_list_type {
    COMM_LIST_TYPE_INVALID = 0,
    COMM_LIST_TYPE_STANDARD = 1,
    COMM_LIST_TYPE_EXPANDED = 2,
} community_list_type;

typedef enum community_token {
    community_token_val = 0,
    community_token_no_export = 1,
    community_token_no_advertise = 2,
    community_token_local_as = 3,
    community_token_unknown = 4,
} community_token;

/* An expanded entry's pattern holds at most POL_COMMUNITY_PATTERN_SIZE - 1
   characters; a longer one is refused, not cut. */
#define POL_COMMUNITY_PATTERN_SIZE 128

typedef struct _t_community_entry {
    TAILQ_ENTRY(_t_community_entry) community_entry;
    uint32_t community;
    char pattern[POL_COMMUNITY_PATTERN_SIZE];
    regex_t comppattern;
    avl_node_t index_node;
} t_community_entry;

typedef struct _t_community_list {
    char community_list_name[POL_LIST_NAME_SIZE];
    community_list_type type;
    avl_node_t community_list_node;
    TAILQ_HEAD(, _t_community_entry) community_entry_head;
    t_pol_match_entry_head match_list_head;
    avl_tree_t entry_index;
    uint64_t generation;
    t_pol_list_exec_index *exec_index;
} t_community_list;

/* ---- application lists ---- */

typedef enum t_app_list_type {
    POL_APP_LIST_TYPE_INVALID = 0,
    POL_APP_LIST_TYPE_APP = 1,
    POL_APP_LIST_TYPE_APP_FAMILY = 2,
    POL_APP_LIST_TYPE_MAX = 3,
} t_app_list_type;

typedef struct _t_app_list_entry {
    avl_node_t avl_node;
    char name[128];
} t_app_list_entry;

typedef struct _t_app_list {
    char app_list_name[POL_LIST_NAME_SIZE];
    avl_node_t app_list_node;
    uint8_t fetch_xml;
    t_pol_match_entry_head match_list_head;
    t_pol_match_entry_head match_dns_list_head;
    /* SaaS users are the nodes by which a sequence holds each of its SaaS
     * lists: one sequence may hold several. */
    TAILQ_HEAD(, _t_app_list_dll_node) match_saas_list_head;
    pol_xml_t app_list_xml;
    t_app_list_type app_list_type;
    avl_tree_t app_list_entry_db;
} t_app_list;

/* Data-policy reference to an application list (SaaS matches). */
typedef struct _t_app_list_dll_node {
    struct _t_app_list *match_app_list_p;
    t_dlnode app_list_node;
    /* Added: the condition holding the list, and the node's link on the
     * list's chain of SaaS users. */
    struct _t_pol_match_entry *match_entry_p;
    TAILQ_ENTRY(_t_app_list_dll_node) saas_user_entry;
} t_app_list_dll_node;

/* ---- data prefix lists (IPv4 and IPv6) ---- */

typedef enum e_pol_fwd_pfx_type {
    POL_FWD_LIST_INVALID = 0,
    POL_FWD_LIST_SRC = 1,
    POL_FWD_LIST_DST = 2,
} e_pol_fwd_pfx_type;

typedef struct _t_fwd_pfx_list_entry {
    avl_node_t avl_node;
    t_ipprefix ip_prefix;
} t_fwd_pfx_list_entry;

typedef struct _t_fwd_pfx_list {
    char fwd_pfx_list_name[POL_LIST_NAME_SIZE];
    avl_node_t fwd_pfx_list_node;
    uint8_t fetch_xml;
    t_pol_match_entry_head match_src_list_head;
    t_pol_match_entry_head match_dst_list_head;
    pol_xml_t fwd_pfx_list_xml;
    avl_tree_t ip_fwd_pfx_entry_db;
} t_fwd_pfx_list;

/* ---- policers, SLA classes, app-probe classes, app-ids ---- */

typedef struct _t_fwd_policer {
    char fwd_policer_name[POL_LIST_NAME_SIZE];
    avl_node_t fwd_policer_node;
    uint8_t fetch_xml;
    t_pol_set_entry_head set_policer_head;
    pol_xml_t fwd_policer_xml;
    uint64_t rate;
    uint32_t burst;
    uint8_t exceed_action;
} t_fwd_policer;

struct _t_app_probe_class;

typedef struct _t_fwd_sla_class {
    char sla_class_name[POL_LIST_NAME_SIZE];
    avl_node_t sla_class_node;
    uint8_t fetch_xml;
    t_pol_set_entry_head set_sla_class_head;
    char app_probe_class_name[POL_LIST_NAME_SIZE];
    TAILQ_ENTRY(_t_fwd_sla_class) set_app_probe_class_sla_entry;
    struct _t_app_probe_class *pol_app_probe_class_p;
    pol_xml_t sla_class_xml;
    uint8_t loss;
    uint16_t latency;
    uint16_t jitter;
} t_fwd_sla_class;

typedef struct _t_app_probe_class_color_entry {
    TAILQ_ENTRY(_t_app_probe_class_color_entry) app_probe_class_color_entry;
    uint16_t color;
    uint8_t dscp;
    avl_node_t index_node;
} t_app_probe_class_color_entry;

typedef struct _t_app_probe_class {
    char app_probe_class_name[POL_LIST_NAME_SIZE];
    char forwarding_class[POL_LIST_NAME_SIZE];
    avl_node_t app_probe_class_node;
    uint8_t fetch_xml;
    TAILQ_HEAD(, _t_app_probe_class_color_entry) app_probe_class_color_entry_head;
    TAILQ_HEAD(, _t_fwd_sla_class) sla_class_head;
    pol_xml_t app_probe_class_xml;
    avl_tree_t entry_index; /* colour entries by colour */
} t_app_probe_class;

typedef struct _t_fwd_app_id {
    char app_id_name[POL_LIST_NAME_SIZE];
    avl_node_t app_id_node;
    t_pol_match_entry_head match_app_id_head;
} t_fwd_app_id;

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_LISTS_H */
