// Configuration change callbacks of the route and membership policies:
// each finds, creates or deletes its policy block or sequence, gives a new
// sequence its match kind, applies the node's leaves to it and flushes the
// change queue once at its end when anything changed.
#include "pol_config_internal.hpp"

using namespace pol::config;

namespace {

// OMP and OSPF tag are one choice that feeds one condition.
constexpr uint32_t kRouteTagChoice[] = {TAG_OMP_TAG, TAG_OSPF_TAG};

constexpr leaf_pair kMembershipLeaves[] = {
    {TAG_VPN, add_leaf<pol_entry_match_vpn_id_add, value_u32>, pol_entry_match_vpn_id_delete},
    {TAG_VPN_LIST, add_leaf<pol_entry_match_vpn_list_add, value_text>,
     pol_entry_match_vpn_list_delete},
};

/* ---- route-policy sequence leaves, each with its trace ---- */

void read_route_action(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                       uint8_t *changed)
{
    POL_DBG(0, "zentrak_policy_action_value %d", static_cast<int>(value_enum(cur_val_p)));
    const e_pol_action action = read_action(ctx, entry, cur_val_p, changed);
    if (action == POL_ACTION_ACCEPT) {
        POL_DBG(0, "zentrak_policy_action_value accept");
    } else if (action == POL_ACTION_REJECT) {
        POL_DBG(0, "zentrak_policy_action_value reject");
    }
}

// OMP and OSPF tags set the same condition: the last of them wins.
int32_t read_route_tag(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                       uint8_t *changed)
{
    const bool omp = cur_val_p->tag.tag == TAG_OMP_TAG;
    if (removed(cur_val_p)) {
        if (omp) {
            POL_DBG(0, "zentrak_policy_omp_tag delete");
        } else {
            POL_DBG(0, "zentrak_policy_ospf_tag delete");
        }
        pol_entry_match_tag_delete(ctx, entry, changed);
        return POL_CONFIG_OK;
    }
    const uint32_t tag = value_u32(cur_val_p);
    if (omp) {
        POL_DBG(0, "zentrak_policy_omp_tag %u", tag);
    } else {
        POL_DBG(0, "zentrak_policy_ospf_tag %u", tag);
    }
    return status_of(pol_entry_match_tag_add(ctx, entry, tag, changed));
}

void read_route_metric(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                       uint8_t *changed)
{
    if (removed(cur_val_p)) {
        POL_DBG(0, "zentrak_policy_metric delete");
        pol_entry_match_origin_metric_delete(ctx, entry, changed);
        return;
    }
    const uint32_t metric = value_u32(cur_val_p);
    POL_DBG(0, "zentrak_policy_metric %u", metric);
    pol_entry_match_origin_metric_add(ctx, entry, metric, changed);
}

// Route policies match IPv4 prefix lists only.
int32_t read_route_pfx_list(t_pol_ctx *ctx, t_pol_entry *entry,
                            const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    if (removed(cur_val_p)) {
        POL_DBG(0, "zentrak_policy_prefix_list delete");
        pol_entry_match_pfx_list_delete(ctx, entry, changed);
        return POL_CONFIG_OK;
    }
    const t_pfx_list_key key = {POL_AF_IPV4, value_text(cur_val_p)};
    POL_DBG(0, "zentrak_policy_prefix_list %s", key.pfx_key_name_p);
    return status_of(pol_entry_match_pfx_list_add(ctx, entry, &key, changed));
}

int32_t read_route_seq_leaf(t_pol_ctx *ctx, t_pol_entry *entry,
                            const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    switch (cur_val_p->tag.tag) {
    case TAG_ACTION:
        read_route_action(ctx, entry, cur_val_p, changed);
        return POL_CONFIG_OK;
    case TAG_OMP_TAG:
    case TAG_OSPF_TAG:
        return read_route_tag(ctx, entry, cur_val_p, changed);
    case TAG_METRIC:
        read_route_metric(ctx, entry, cur_val_p, changed);
        return POL_CONFIG_OK;
    case TAG_ROUTE_PFX_LIST:
        return read_route_pfx_list(ctx, entry, cur_val_p, changed);
    default:
        return POL_CONFIG_OK;
    }
}

// The leaves of a route-policy sequence; the tag, set by either of its
// two leaves, is applied once the walk has seen both.
int32_t read_route_seq(t_pol_ctx *ctx, t_pol_entry *entry, mgmtd_tag_value_t *val_p,
                       uint32_t num_values, uint8_t *changed)
{
    choice_leaves tag{kRouteTagChoice};
    const int32_t status =
        walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
            return tag.read(cur_val_p) ? POL_CONFIG_OK
                                       : read_route_seq_leaf(ctx, entry, cur_val_p, changed);
        });
    if (status != POL_CONFIG_OK || tag.outcome() == nullptr) {
        return status;
    }
    return read_route_seq_leaf(ctx, entry, tag.outcome(), changed);
}

int32_t read_membership_seq_leaf(t_pol_ctx *ctx, t_pol_entry *entry,
                                 const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    if (cur_val_p->tag.tag == TAG_ACTION) {
        read_action(ctx, entry, cur_val_p, changed);
        return POL_CONFIG_OK;
    }
    return apply_leaf(kMembershipLeaves, ctx, entry, cur_val_p, changed);
}

// Creating a route or membership sequence gives it its match kind at once;
// a change to a sequence that does not exist is a host error.
t_pol_entry *typed_sequence_for(t_pol_ctx *ctx, t_pol_block *block, uint32_t seq,
                                mgmtd_iter_op oper, e_pol_match_type match_type, uint8_t *changed)
{
    t_pol_entry *entry = sequence_for(ctx, block, seq, oper, changed);
    if (oper != MOP_CREATED) {
        POL_ASSERT(entry != nullptr);
    } else if (entry != nullptr) {
        pol_entry_match_add(ctx, block, entry, match_type, changed);
    }
    return entry;
}

}  // namespace

extern "C" {

/* ---- route and membership policies ---- */

int32_t pol_config_route_policy_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                     uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                     mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 1);
    POL_DBG(0, "Route Policy: %s, oper:%d, num_values:%u", keys.name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    switch (read_policy(pol_ctx_p, keys.name, POL_TYPE_ROUTE, oper, val_p, num_values)) {
    case policy_outcome::not_created:
        POL_DBG(0, "Failed to create route policy - pol: %s", keys.name);
        return POL_CONFIG_NO_MEMORY;
    case policy_outcome::not_found:
        POL_LOG("Failed to find route policy: %s", keys.name);
        return POL_CONFIG_NOT_FOUND;
    default:
        return POL_CONFIG_OK;
    }
}

int32_t pol_config_route_policy_seq_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 2);
    t_pol_block *block = pol_block_find(pol_ctx_p, keys.name, POL_TYPE_ROUTE, nullptr);
    if (block == nullptr) {
        POL_LOG("Route Policy: %s is not found", keys.name);
        return POL_CONFIG_NOT_FOUND;
    }
    POL_DBG(0, "Route Policy: %s, seq: %d oper:%d, num_values:%u", keys.name,
            static_cast<int>(keys.seq), static_cast<int>(oper), static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        return delete_sequence(pol_ctx_p, block, keys.seq);
    }
    uint8_t changed = 0;
    t_pol_entry *entry =
        typed_sequence_for(pol_ctx_p, block, keys.seq, oper, POL_MATCH_VROUTE, &changed);
    if (entry == nullptr) {
        POL_DBG(0, "Failed to create route policy entry - pol: %s, seq: %d", keys.name,
                static_cast<int>(keys.seq));
        return POL_CONFIG_NO_MEMORY;
    }
    const int32_t status = read_route_seq(pol_ctx_p, entry, val_p, num_values, &changed);
    return status != POL_CONFIG_OK ? status : notify_if_changed(pol_ctx_p, changed);
}

int32_t pol_config_membership_policy_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                          mgmtd_iter_op oper, uint8_t num_keys,
                                          mgmtd_value_t *key_p, uint16_t num_values,
                                          mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 1);
    POL_DBG(0, "Membership Policy: %s, oper:%d, num_values:%u", keys.name,
            static_cast<int>(oper), static_cast<unsigned>(num_values));
    switch (read_policy(pol_ctx_p, keys.name, POL_TYPE_MEMBERSHIP, oper, val_p, num_values)) {
    case policy_outcome::not_created:
        POL_DBG(0, "Failed to create membership policy - pol: %s", keys.name);
        return POL_CONFIG_NO_MEMORY;
    case policy_outcome::not_found:
        POL_DBG(0, "Failed to find membership policy - pol: %s", keys.name);
        return POL_CONFIG_NOT_FOUND;
    default:
        return POL_CONFIG_OK;
    }
}

int32_t pol_config_membership_policy_seq_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                              mgmtd_iter_op oper, uint8_t num_keys,
                                              mgmtd_value_t *key_p, uint16_t num_values,
                                              mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 2);
    t_pol_block *block = pol_block_find(pol_ctx_p, keys.name, POL_TYPE_MEMBERSHIP, nullptr);
    if (block == nullptr) {
        POL_DBG(0, "Policy block is NULL during policy membership sequential read");
        return POL_CONFIG_NOT_FOUND;
    }
    POL_DBG(0, "Membership Policy: %s, seq: %d oper:%d, num_values:%u", keys.name,
            static_cast<int>(keys.seq), static_cast<int>(oper), static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        return delete_sequence(pol_ctx_p, block, keys.seq);
    }
    uint8_t changed = 0;
    t_pol_entry *entry =
        typed_sequence_for(pol_ctx_p, block, keys.seq, oper, POL_MATCH_SERVICE, &changed);
    if (entry == nullptr) {
        POL_DBG(0, "Failed to create membership policy entry - pol: %s, seq: %d", keys.name,
                static_cast<int>(keys.seq));
        return POL_CONFIG_NO_MEMORY;
    }
    const int32_t status =
        walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
            return read_membership_seq_leaf(pol_ctx_p, entry, cur_val_p, &changed);
        });
    return status != POL_CONFIG_OK ? status : notify_if_changed(pol_ctx_p, changed);
}

}  // extern "C"
