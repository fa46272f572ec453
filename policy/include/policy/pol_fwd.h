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
