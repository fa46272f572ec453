// Memory accounting: every long-lived object is allocated and freed under a
// category whose allocations, frees and peak are counted in g_pol_mem_info.
#include <cstdlib>

#include "pol_util.hpp"

namespace {

pol_alloc_fail_f g_alloc_fail_hook = nullptr;

bool counted(e_pol_mem mem_type)
{
    return mem_type > POL_MEM_UNKNOWN && mem_type < POL_MEM_MAX;
}

bool injected_failure(e_pol_mem mem_type)
{
    return g_alloc_fail_hook != nullptr && g_alloc_fail_hook(mem_type);
}

}  // namespace

#define POL_MEM_ROW(type, desc, name, size) \
    {type, false, nullptr, desc, name, static_cast<uint32_t>(size), 0, 0, 0}

extern "C" {

t_pol_mem_info g_pol_mem_info[POL_MEM_MAX + 1] = {
    POL_MEM_ROW(POL_MEM_UNKNOWN, "unknown", "unknown", 0),
    POL_MEM_ROW(POL_MEM_CTX, "context", "t_pol_ctx", sizeof(t_pol_ctx)),
    POL_MEM_ROW(POL_MEM_BLOCK, "block", "t_pol_block", sizeof(t_pol_block)),
    POL_MEM_ROW(POL_MEM_ENTRY, "entry", "t_pol_entry", sizeof(t_pol_entry)),
    POL_MEM_ROW(POL_MEM_POL_MGMTD_THREAD_ARGS, "pol-mgmtd-thrd-args", "pol_thread_queue_item",
                sizeof(pol_thread_queue_item)),
    POL_MEM_ROW(POL_MEM_OMP_MGMTD_THREAD_ARGS, "omp-mgmtd-thrd-args", "omp_thread_queue_item", 0),
    POL_MEM_ROW(POL_MEM_XML_1, "populate peer xml", "unknown", 0),
    POL_MEM_ROW(POL_MEM_XML_2, "set mgmtD xml", "unknown", 0),
    POL_MEM_ROW(POL_MEM_XML_3, "policy config", "t_pol_xml_config", sizeof(t_pol_xml_config)),
    POL_MEM_ROW(POL_MEM_XML_4, "mgmtD fetch xml", "unknown", 0),
    POL_MEM_ROW(POL_MEM_XML_5, "config xml", "unknown", 0),
    POL_MEM_ROW(POL_MEM_TYPE_PFR, "sla class", "t_fwd_sla_class", sizeof(t_fwd_sla_class)),
    POL_MEM_ROW(POL_MEM_TYPE_POLICER, "policer", "t_fwd_policer", sizeof(t_fwd_policer)),
    POL_MEM_ROW(POL_MEM_TYPE_SITE, "site", "t_omp_site_policy", 0),
    POL_MEM_ROW(POL_MEM_TYPE_POL_USER, "pol user", "t_pol_user", sizeof(t_pol_user)),
    POL_MEM_ROW(POL_MEM_LIST_POL_USER, "pol user", "t_pol_list_user", sizeof(t_pol_list_user)),
    POL_MEM_ROW(POL_MEM_LIST_PREFIX, "pfx list", "t_pfx_list", sizeof(t_pfx_list)),
    POL_MEM_ROW(POL_MEM_LIST_FWD_PREFIX, "fwd pfx list", "t_fwd_pfx_list", sizeof(t_fwd_pfx_list)),
    POL_MEM_ROW(POL_MEM_LIST_SITE, "site list", "t_site_list", sizeof(t_site_list)),
    POL_MEM_ROW(POL_MEM_LIST_TLOC, "tloc list", "t_tloc_list", sizeof(t_tloc_list)),
    POL_MEM_ROW(POL_MEM_LIST_APP, "app list", "t_app_list", sizeof(t_app_list)),
    POL_MEM_ROW(POL_MEM_LIST_COLOR, "color list", "t_color_list", sizeof(t_color_list)),
    POL_MEM_ROW(POL_MEM_LIST_VPN, "vpn list", "t_vpn_list", sizeof(t_vpn_list)),
    POL_MEM_ROW(POL_MEM_LIST_VPN_1, "set vpn list", "POL_MAX_VPN*vpn_list",
                POL_MAX_VPN * sizeof(t_pol_exec_vpn_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_POLICY, "entry policy", "t_pol_entry", sizeof(t_pol_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_SITE, "entry site ", "t_site_entry", sizeof(t_site_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_LIST, "entry list", "t_list_name_entry", 0),
    POL_MEM_ROW(POL_MEM_ENTRY_PREFIX, "entry prefix", "t_pfx_entry", sizeof(t_pfx_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_TLOC, "entry tloc", "t_tloc_entry", sizeof(t_tloc_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_COLOR, "entry color", "t_color_entry", sizeof(t_color_entry)),
    POL_MEM_ROW(POL_MEM_ENTRY_VPN, "entry vpn", "t_pol_vpn_entry", sizeof(t_pol_vpn_entry)),
    // Deliberately starts with one allocation counted: this row always reads
    // one more live object than exists.
    {POL_MEM_FWD_ENTRY_VPN, false, nullptr, "entry fwd vpn", "t_pol_fwd_vpn_entry",
     sizeof(t_pol_fwd_vpn_entry), 1, 0, 0},
    POL_MEM_ROW(POL_MEM_ENTRY_APPID, "entry appid", "t_fwd_app_id", sizeof(t_fwd_app_id)),
    POL_MEM_ROW(POL_MEM_LIST_APP_PROBE_CLASS, "app probe class", "t_app_probe_class",
                sizeof(t_app_probe_class)),
    POL_MEM_ROW(POL_MEM_ENTRY_APP_PROBE_CLASS_COLOR, "entry app probe class color",
                "t_app_probe_class_color_entry", sizeof(t_app_probe_class_color_entry)),
    POL_MEM_ROW(POL_MEM_LIST_APP_ENTRY, "app-list entry", "t_app_list_entry",
                sizeof(t_app_list_entry)),
    POL_MEM_ROW(POL_MEM_LIST_PFX_ENTRY, "fwd-pfx-list entry", "t_fwd_pfx_list_entry",
                sizeof(t_fwd_pfx_list_entry)),
    POL_MEM_ROW(POL_MEM_LIST_PFX6_ENTRY, "fwd-pfx6-list entry", "t_fwd_pfx_list_entry",
                sizeof(t_fwd_pfx_list_entry)),
    POL_MEM_ROW(POL_MEM_CFLOWD_ENTRY, "cflowd entry", "t_cflowd_entry", sizeof(t_cflowd_entry)),
    POL_MEM_ROW(POL_MEM_CFLOWD_COLL_ENTRY, "cflowd coll entry", "t_cflowd_collector",
                sizeof(t_cflowd_collector)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_SRC_IP, "match src ip entry", "t_ipprefix", sizeof(t_ipprefix)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_SRC_IPV6, "match src ipv6 entry", "t_ipprefix",
                sizeof(t_ipprefix)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_DST_IP, "match dst ip entry", "t_ipprefix", sizeof(t_ipprefix)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_DST_IPV6, "match dst ipv6 entry", "t_ipprefix",
                sizeof(t_ipprefix)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_SRC_PORT, "match src port entry", "t_pol_range",
                sizeof(t_pol_range)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_DST_PORT, "match dst port entry", "t_pol_range",
                sizeof(t_pol_range)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_PROTO, "match proto entry", "uint8_t", sizeof(uint8_t)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_DSCP, "match dscp entry", "uint8_t", sizeof(uint8_t)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_PKT_LEN, "match pkt len entry", "t_pol_range",
                sizeof(t_pol_range)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_ICMP, "match icmp entry", "uint8_t", sizeof(uint8_t)),
    POL_MEM_ROW(POL_MEM_ENTRY_MATCH_ICMP6, "match icmp6 entry", "uint8_t", sizeof(uint8_t)),
    POL_MEM_ROW(POL_MEM_LIST_COMMUNITY, "community list", "t_community_list",
                sizeof(t_community_list)),
    POL_MEM_ROW(POL_MEM_ENTRY_COMMUNITY, "entry community list", "t_community_entry",
                sizeof(t_community_entry)),
    POL_MEM_ROW(POL_MEM_SET_COMMUNITY, "set community", "t_pol_set_community",
                sizeof(t_pol_set_community)),
    POL_MEM_ROW(POL_MEM_SET_ENTRY_COMMUNITY, "set community entry", "uint32_t", sizeof(uint32_t)),
    POL_MEM_ROW(POL_MEM_MAX, "max", "unknown", 0),
};

void pol_mem_info_update(e_pol_mem mem_type, bool is_alloc)
{
    if (!counted(mem_type)) {
        return;
    }
    t_pol_mem_info &row = g_pol_mem_info[mem_type];
    if (!is_alloc) {
        row.free++;
        return;
    }
    row.alloc++;
    if (row.alloc - row.free > row.max_alloc) {
        row.max_alloc = row.alloc - row.free;
    }
}

// The count is taken before the allocation, so a failed allocation still
// counts as one.
void *pol_malloc(size_t size, e_pol_mem mem_type)
{
    pol_mem_info_update(mem_type, true);
    return injected_failure(mem_type) ? nullptr : std::malloc(size);
}

void *pol_calloc(size_t count, size_t size, e_pol_mem mem_type)
{
    pol_mem_info_update(mem_type, true);
    return injected_failure(mem_type) ? nullptr : std::calloc(count, size);
}

void *pol_realloc(void *ptr, size_t size)
{
    return std::realloc(ptr, size);
}

void pol_free(void *ptr, e_pol_mem mem_type)
{
    if (ptr == nullptr) {
        return;
    }
    pol_mem_info_update(mem_type, false);
    std::free(ptr);
}

void pol_mem_set_fail_hook(pol_alloc_fail_f hook)
{
    g_alloc_fail_hook = hook;
}

}  // extern "C"
