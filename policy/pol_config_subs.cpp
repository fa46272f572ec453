// Binding of the zen-policy module to the configuration change callbacks:
// the subscription table a host hands the configuration datastore. Plain
// data of the types of zen/mgmtd_ds.h; the library calls nothing of the
// datastore.
#include <iterator>
#include <type_traits>

#include <policy/pol_config.h>

namespace {

// The argument after the values that some readers take.
template <typename Reader>
struct extra_arg;

template <typename Count, typename Extra>
struct extra_arg<int32_t (*)(t_vmgmtd_context *, t_pol_ctx *, mgmtd_iter_op, uint8_t,
                             mgmtd_value_t *, Count, mgmtd_tag_value_t *, Extra)> {
    using type = Extra;
};

// Readers of data and app-route policies take the policy type before the
// common arguments instead.
template <typename Reader>
struct takes_policy_type : std::false_type {};

template <typename Count>
struct takes_policy_type<int32_t (*)(e_pol_type, t_vmgmtd_context *, t_pol_ctx *, mgmtd_iter_op,
                                     uint8_t, mgmtd_value_t *, Count, mgmtd_tag_value_t *)>
    : std::true_type {};

// The datastore calls every subscription alike: its host context is the
// library context, and the subscription's argument becomes the reader's
// extra argument (community-list kind, whether a prefix list is IPv4, or
// the policy type). A failure's reason (pol_config_error) is always the
// called reader's own.
template <auto Reader>
int32_t thunk(t_vmgmtd_context *vmgmtd_ctx_p, void *host_ctx_p, mgmtd_iter_op oper,
              uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
              mgmtd_tag_value_t *val_p, int32_t arg)
{
    auto *pol_ctx_p = static_cast<t_pol_ctx *>(host_ctx_p);
    pol_config_error_clear();
    if constexpr (std::is_same_v<decltype(Reader), pol_config_cb_f>) {
        return Reader(vmgmtd_ctx_p, pol_ctx_p, oper, num_keys, key_p, num_values, val_p);
    } else if constexpr (takes_policy_type<decltype(Reader)>::value) {
        return Reader(static_cast<e_pol_type>(arg), vmgmtd_ctx_p, pol_ctx_p, oper, num_keys,
                      key_p, num_values, val_p);
    } else {
        using extra = typename extra_arg<decltype(Reader)>::type;
        return Reader(vmgmtd_ctx_p, pol_ctx_p, oper, num_keys, key_p, num_values, val_p,
                      static_cast<extra>(arg));
    }
}

#define POLICY_PATH "/zen-policy:policy"
#define LISTS_PATH POLICY_PATH "/lists"

// Path, callback, key depth, extra argument, name, flags. Keys are handed
// over in the order the callbacks read them: list name, then the entry's
// keys; policy name, sequence number, match kind. A prefix-list entry is
// rebuilt from the lengths it is handed (a length not handed over counts
// as absent), so its modifications carry all of its lengths.
constexpr mgmtd_ds_sub_t kSubscriptions[] = {
    {LISTS_PATH "/site-list", thunk<pol_config_policy_site_list_name>, 1, 0, "site-list", 0},
    {LISTS_PATH "/site-list/site", thunk<pol_config_policy_site_list>, 2, 0, "site-list-entry", 0},
    {LISTS_PATH "/vpn-list", thunk<pol_config_policy_vpn_list_name>, 1, 0, "vpn-list", 0},
    {LISTS_PATH "/vpn-list/vpn", thunk<pol_config_policy_vpn_list>, 2, 0, "vpn-list-entry", 0},
    {LISTS_PATH "/tloc-list", thunk<pol_config_policy_tloc_list_name>, 1, 0, "tloc-list", 0},
    {LISTS_PATH "/tloc-list/tloc", thunk<pol_config_policy_tloc_list>, 4, 0, "tloc-list-entry", 0},
    {LISTS_PATH "/color-list", thunk<pol_config_policy_color_list_name>, 1, 0, "color-list", 0},
    {LISTS_PATH "/color-list/entry", thunk<pol_config_policy_color_list>, 2, 0,
     "color-list-entry", 0},
    {LISTS_PATH "/prefix-list", thunk<pol_config_policy_prefix_list_name>, 1, 1, "prefix-list",
     0},
    {LISTS_PATH "/prefix-list/entry", thunk<pol_config_policy_prefix_list>, 2, 0,
     "prefix-list-entry", MGMTD_DS_SUB_WHOLE},
    {LISTS_PATH "/ipv6-prefix-list", thunk<pol_config_policy_prefix_list_name>, 1, 0,
     "ipv6-prefix-list", 0},
    {LISTS_PATH "/ipv6-prefix-list/entry", thunk<pol_config_policy_prefix_list>, 2, 0,
     "ipv6-prefix-list-entry", MGMTD_DS_SUB_WHOLE},
    {LISTS_PATH "/community-list", thunk<pol_config_community_list_name>, 1,
     COMM_LIST_TYPE_STANDARD, "community-list", 0},
    {LISTS_PATH "/community-list/entry", thunk<pol_config_community_list>, 2,
     COMM_LIST_TYPE_STANDARD, "community-list-entry", 0},
    {LISTS_PATH "/expanded-community-list", thunk<pol_config_community_list_name>, 1,
     COMM_LIST_TYPE_EXPANDED, "expanded-community-list", 0},
    {LISTS_PATH "/expanded-community-list/entry", thunk<pol_config_community_list>, 2,
     COMM_LIST_TYPE_EXPANDED, "expanded-community-list-entry", 0},
    {POLICY_PATH "/control-policy", thunk<pol_config_control_policy_read>, 1, 0,
     "control-policy", 0},
    {POLICY_PATH "/control-policy/sequence", thunk<pol_config_control_policy_seq_read>, 2, 0,
     "control-sequence", 0},
    {POLICY_PATH "/control-policy/sequence/match", thunk<pol_config_control_policy_match_read>, 3,
     0, "control-match", 0},
    {POLICY_PATH "/control-policy/sequence/match/community-list",
     thunk<pol_config_control_policy_match_community_list_read>, 3, COMM_LIST_TYPE_STANDARD,
     "control-match-community-list", 0},
    {POLICY_PATH "/control-policy/sequence/match/expanded-community-list",
     thunk<pol_config_control_policy_match_community_list_read>, 3, COMM_LIST_TYPE_EXPANDED,
     "control-match-expanded-community-list", 0},
    {POLICY_PATH "/route-policy", thunk<pol_config_route_policy_read>, 1, 0, "route-policy", 0},
    {POLICY_PATH "/route-policy/sequence", thunk<pol_config_route_policy_seq_read>, 2, 0,
     "route-sequence", 0},
    {POLICY_PATH "/membership-policy", thunk<pol_config_membership_policy_read>, 1, 0,
     "membership-policy", 0},
    {POLICY_PATH "/membership-policy/sequence", thunk<pol_config_membership_policy_seq_read>, 2,
     0, "membership-sequence", 0},
    {LISTS_PATH "/data-prefix-list", thunk<pol_config_fwd_pfx_list_read>, 1, 0, "data-prefix-list",
     0},
    {LISTS_PATH "/data-prefix-list/entry", thunk<pol_config_fwd_pfx_list_ip_read>, 2, 0,
     "data-prefix-list-entry", 0},
    {LISTS_PATH "/data-ipv6-prefix-list", thunk<pol_config_fwd_pfx6_list_read>, 1, 0,
     "data-ipv6-prefix-list", 0},
    {LISTS_PATH "/data-ipv6-prefix-list/entry", thunk<pol_config_fwd_pfx6_list_ip_read>, 2, 0,
     "data-ipv6-prefix-list-entry", 0},
    {LISTS_PATH "/app-list", thunk<pol_config_app_list_read>, 1, 0, "app-list", 0},
    {LISTS_PATH "/app-list/app", thunk<pol_config_app_list_app_read>, 2, 0, "app-list-app", 0},
    {LISTS_PATH "/app-list/app-family", thunk<pol_config_app_list_app_family_read>, 2, 0,
     "app-list-app-family", 0},
    {LISTS_PATH "/app-probe-class", thunk<pol_config_policy_app_probe_class_name_read>, 1, 0,
     "app-probe-class", 0},
    {LISTS_PATH "/app-probe-class/color", thunk<pol_config_policy_app_probe_class_color_read>, 2,
     0, "app-probe-class-color", 0},
    {POLICY_PATH "/app-id", thunk<pol_config_policy_app_id_read>, 1, 0, "app-id", 0},
    {POLICY_PATH "/sla-class", thunk<pol_config_policy_sla_class_read>, 1, 0, "sla-class", 0},
    {POLICY_PATH "/policer", thunk<pol_config_fwd_policer_read>, 1, 0, "policer", 0},
    {POLICY_PATH "/data-policy", thunk<pol_config_fwd_read>, 1, POL_TYPE_DATA, "data-policy", 0},
    {POLICY_PATH "/data-policy/vpn-list", thunk<pol_config_fwd_vpn_list_read>, 2, POL_TYPE_DATA,
     "data-vpn-list", 0},
    {POLICY_PATH "/data-policy/vpn-list/sequence", thunk<pol_config_fwd_seq_read>, 3,
     POL_TYPE_DATA, "data-sequence", 0},
    {POLICY_PATH "/app-route-policy", thunk<pol_config_fwd_read>, 1, POL_TYPE_PFR,
     "app-route-policy", 0},
    {POLICY_PATH "/app-route-policy/vpn-list", thunk<pol_config_fwd_vpn_list_read>, 2,
     POL_TYPE_PFR, "app-route-vpn-list", 0},
    {POLICY_PATH "/app-route-policy/vpn-list/sequence", thunk<pol_config_fwd_seq_read>, 3,
     POL_TYPE_PFR, "app-route-sequence", 0},
    {POLICY_PATH "/cflowd-template", thunk<pol_config_cflowd_template_read>, 1, 0,
     "cflowd-template", 0},
    {POLICY_PATH "/cflowd-template/collector", thunk<pol_config_cflowd_collector_read>, 5, 0,
     "cflowd-collector", 0},
};

}  // namespace

extern "C" const mgmtd_ds_sub_t *pol_config_subscriptions(size_t *count)
{
    if (count != nullptr) {
        *count = std::size(kSubscriptions);
    }
    return kSubscriptions;
}
