/*
 * Records of the data-policy model: the per-VPN-list level of a data or
 * application-route policy, and the work items of the management worker.
 */
#ifndef POLICY_POL_FWD_H
#define POLICY_POL_FWD_H

#include <policy/pol.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum e_pol_fwd_pol_type {
    POL_FWD_POL_TYPE_INVALID = 0,
    POL_FWD_POL_TYPE_DATA_POLICY = 1,
    POL_FWD_POL_TYPE_PFR_POLICY = 2,
    POL_FWD_POL_TYPE_CFLOWD = 3,
    POL_FWD_POL_TYPE_VPNLIST = 4,
    POL_FWD_POL_TYPE_TLOCLIST = 5,
    POL_FWD_POL_TYPE_PFXLIST = 6,
    POL_FWD_POL_TYPE_PFX6LIST = 7,
    POL_FWD_POL_TYPE_SLA_CLASS = 8,
    POL_FWD_POL_TYPE_APP_PROBE_CLASS = 9,
    POL_FWD_POL_TYPE_POLICER = 10,
    POL_FWD_POL_TYPE_APPLIST = 11,
    POL_FWD_POL_TYPE_MAX = 12,
} e_pol_fwd_pol_type;

/* One VPN list a data or application-route policy is applied to. */
typedef struct _t_pol_fwd_vpn_entry {
    char vpn_name[POL_NAME_SIZE];
    avl_node_t vpn_node;
    struct _t_vpn_list *vpn_list_p;
    struct _t_pol_block *pol_block_p;
    avl_tree_t pol_entries;
    time_t mgmtd_fetch_start_time;
    time_t mgmtd_fetch_end_time;
    time_t mgmtd_fetch_max_time;
    TAILQ_ENTRY(_t_pol_fwd_vpn_entry) fwd_vpn_entry;
    t_pol_entry *default_pol_entry;
} t_pol_fwd_vpn_entry;

/* ---- data and application-route sequences ---- */

/* Bits of a data sequence's entry_set_flags. */
#define POL_FWD_SET_FLAG_TLOC               0x80ULL
#define POL_FWD_SET_FLAG_VPN                0x100ULL
#define POL_FWD_SET_FLAG_SLA_CLASS          0x200ULL
#define POL_FWD_SET_FLAG_SERVICE            0x400ULL
#define POL_FWD_SET_FLAG_POLICER            0x800ULL
#define POL_FWD_SET_FLAG_TLOC_LIST          0x1000ULL
#define POL_FWD_SET_FLAG_COUNTER            0x2000ULL
#define POL_FWD_SET_FLAG_LOG                0x4000ULL
#define POL_FWD_SET_FLAG_BACKUP_SLA_COLOR   0x8000ULL
#define POL_FWD_SET_FLAG_CLOUD_SAAS         0x10000ULL
#define POL_FWD_SET_FLAG_NAT_VPN            0x20000ULL
#define POL_FWD_SET_FLAG_CFLOWD             0x40000ULL
#define POL_FWD_SET_FLAG_TCP_OPT            0x80000ULL
#define POL_FWD_SET_FLAG_SSL_OPT            0x100000ULL
#define POL_FWD_SET_FLAG_FEC                0x200000ULL
#define POL_FWD_SET_FLAG_PKT_DUP            0x400000ULL
#define POL_FWD_SET_FLAG_REDIRECT_DNS_IP    0x800000ULL
#define POL_FWD_SET_FLAG_LOCAL_TLOC         0x1000000ULL
#define POL_FWD_SET_FLAG_LOCAL_TLOC_LIST    0x2000000ULL
#define POL_FWD_SET_FLAG_DSCP               0x4000000ULL
#define POL_FWD_SET_FLAG_FWD_CLASS          0x8000000ULL
#define POL_FWD_SET_FLAG_NAT_POOL           0x10000000ULL
#define POL_FWD_SET_FLAG_NAT_FALLBACK       0x20000000ULL
#define POL_FWD_SET_FLAG_REDIRECT_DNS_TYPE  0x40000000ULL
#define POL_FWD_SET_FLAG_SERVICE_LOCAL      0x80000000ULL
#define POL_FWD_SET_FLAG_SIG                0x100000000ULL

/* Bits of a data sequence's entry_match_flags. */
#define POL_FWD_MATCH_FLAG_SRC_LIST         0x1000ULL
#define POL_FWD_MATCH_FLAG_DST_LIST         0x2000ULL
#define POL_FWD_MATCH_FLAG_APP_ID           0x40000ULL
#define POL_FWD_MATCH_FLAG_APP_LIST         0x80000ULL
#define POL_FWD_MATCH_FLAG_DNS_APP_LIST     0x400000ULL
#define POL_FWD_MATCH_FLAG_SRC6_LIST        0x800000ULL
#define POL_FWD_MATCH_FLAG_DST6_LIST        0x1000000ULL
#define POL_FWD_MATCH_FLAG_SAAS_APP_LIST    0x2000000ULL
#define POL_FWD_MATCH_FLAG_PLP              0x4000000ULL
#define POL_FWD_MATCH_FLAG_DNS              0x8000000ULL
#define POL_FWD_MATCH_FLAG_TCP              0x10000000ULL
#define POL_FWD_MATCH_FLAG_TRAFFIC_CATEGORY 0x20000000ULL

/* Summary bits of a data block's pol_flags over its sequences. */
#define POL_FWD_BLOCK_FLAG_SETS_TLOC        0x8u
#define POL_FWD_BLOCK_FLAG_SETS_SERVICE     0x10u
#define POL_FWD_BLOCK_FLAG_SETS_TLOC_LIST   0x20u

/* A local TLOC as the reader hands it in: the stored fields, each with
 * whether the configuration gave it. */
typedef struct _t_local_tloc_id_args {
    uint32_t color;
    uint32_t encap;
    bool color_valid;
    bool encap_valid;
} t_local_tloc_id_args;

typedef struct _t_pol_set_local_tloc_list_args {
    uint32_t color_mask;
    uint32_t encap_mask;
    uint8_t restrict1;
    bool color_mask_valid;
    bool encap_mask_valid;
    bool restrict1_valid;
} t_pol_set_local_tloc_list_args;

/* Work kinds of the management worker. */
typedef enum _e_pol_mgmtd_thread_task {
    POL_MGMTD_THREAD_LABEL_SET = 0,
    POL_MGMTD_THREAD_FETCH_CONFIG = 1,
    POL_MGMTD_THREAD_MAX = 2,
} e_pol_mgmtd_thread_task;

/* One queued job of the management worker. */
typedef struct pol_thread_queue_item {
    TAILQ_ENTRY(pol_thread_queue_item) item_entry;
    e_pol_mgmtd_thread_task task;
    void *args_p;
} pol_thread_queue_item;

/* A rendered configuration document waiting to be loaded. */
typedef struct _t_pol_xml_config {
    e_pol_fwd_pol_type type;
    char name[POL_NAME_SIZE];
    pol_xml_t xml;
} t_pol_xml_config;

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_FWD_H */
