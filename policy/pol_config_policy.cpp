// Configuration change callbacks of the control policies: each finds, creates or deletes its policy block or sequence,
// applies the node's leaves to it and flushes the change queue once at its
// end when anything changed.
#include "pol_config_internal.hpp"

using namespace pol::config;

namespace {

/* ---- match leaves that need more than their value ---- */

template <e_pol_af Af>
int32_t add_pfx_list_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                          uint8_t *changed)
{
    const t_pfx_list_key key = {Af, value_text(cur_val_p)};
    return status_of(pol_entry_match_pfx_list_add(ctx, entry, &key, changed));
}

int32_t add_originator_leaf(t_pol_ctx *ctx, t_pol_entry *entry,
                            const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    t_ipaddr addr;
    value_addr(&addr, cur_val_p);
    return status_of(pol_entry_match_originator_add(ctx, entry, &addr, changed));
}

// Leaves of one choice that feed one condition.
constexpr uint32_t kPfxListChoice[] = {TAG_PFX_LIST_IPV4, TAG_PFX_LIST_IPV6};

/* ---- leaves that map onto one add/delete pair of the store ---- */

// Match conditions of a control-policy sequence (the colour and the TLOC
// parts depend on the container they sit in and are read apart).
constexpr leaf_pair kMatchLeaves[] = {
    {TAG_CARRIER, add_leaf<pol_entry_match_carrier_add, value_enum>,
     pol_entry_match_carrier_delete},
    {TAG_ORIGIN, add_leaf<pol_entry_match_origin_add, value_enum>, pol_entry_match_origin_delete},
    {TAG_SITE_ID, add_leaf<pol_entry_match_site_add, value_u32>, pol_entry_match_site_delete},
    {TAG_GROUP, add_leaf<pol_entry_match_group_add, value_u32>, pol_entry_match_group_delete},
    {TAG_DOMAIN, add_leaf<pol_entry_match_domain_add, value_u32>, pol_entry_match_domain_delete},
    {TAG_PREFERENCE, add_leaf<pol_entry_match_preference_add, value_u32>,
     pol_entry_match_preference_delete},
    {TAG_OMP_TAG, add_leaf<pol_entry_match_tag_add, value_u32>, pol_entry_match_tag_delete},
    {TAG_VPN, add_leaf<pol_entry_match_vpn_id_add, value_u32>, pol_entry_match_vpn_id_delete},
    {TAG_SITE_LIST, add_leaf<pol_entry_match_site_list_add, value_text>,
     pol_entry_match_site_list_delete},
    {TAG_VPN_LIST, add_leaf<pol_entry_match_vpn_list_add, value_text>,
     pol_entry_match_vpn_list_delete},
    {TAG_TLOC_LIST, add_leaf<pol_entry_match_tloc_list_add, value_text>,
     pol_entry_match_tloc_list_delete},
    {TAG_COLOR_LIST, add_leaf<pol_entry_match_color_list_add, value_text>,
     pol_entry_match_color_list_delete},
    {TAG_PFX_LIST_IPV4, add_pfx_list_leaf<POL_AF_IPV4>, pol_entry_match_pfx_list_delete},
    {TAG_PFX_LIST_IPV6, add_pfx_list_leaf<POL_AF_IPV6>, pol_entry_match_pfx_list_delete},
    {TAG_ORIGINATOR, add_originator_leaf, pol_entry_match_originator_delete},
};

constexpr leaf_pair kMatchColor[] = {
    {TAG_COLOR, add_leaf<pol_entry_match_color_add, value_enum>, pol_entry_match_color_delete},
};

// Set actions of a control-policy sequence that need no context.
constexpr leaf_pair kSetLeaves[] = {
    {TAG_PREFERENCE, add_leaf<pol_entry_set_preference_add, value_u32>,
     pol_entry_set_preference_delete},
    {TAG_OMP_TAG, add_leaf<pol_entry_set_tag_add, value_u32>, pol_entry_set_tag_delete},
    {TAG_VPN_LIST, add_leaf<pol_entry_set_vpn_list_add, value_text>,
     pol_entry_set_vpn_list_delete},
};

// The sequence a match node belongs to; the host delivers matches only
// below existing sequences.
t_pol_entry *matched_sequence(t_pol_ctx *ctx, const policy_keys &keys)
{
    t_pol_block *block = pol_block_find(ctx, keys.name, POL_TYPE_ROUTE, nullptr);
    POL_ASSERT(block != nullptr);
    t_pol_entry *entry = pol_entry_find(ctx, block, keys.seq, nullptr);
    POL_ASSERT(entry != nullptr);
    return entry;
}

// Schema values 3 and 4 of the ultimate-TLOC action trade places.
uint8_t ultimate_action_of(const mgmtd_tag_value_t *cur_val_p)
{
    if (removed(cur_val_p)) {
        return 0;
    }
    switch (value_enum(cur_val_p)) {
    case 1:
        return 1;
    case 2:
        return 2;
    case 3:
        return 4;
    case 4:
        return 3;
    default:
        return 0;
    }
}

// Replaces the sequence's set communities with those of the leaf. An
// unknown word leaves the sequence without set communities.
int32_t read_set_community(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p)
{
    pol_config_set_bgp_community_upd(entry, nullptr, 0);
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
    if (removed(cur_val_p)) {
        return POL_CONFIG_OK;
    }
    POL_ASSERT((&cur_val_p->v)->type == C_LIST);
    const uint32_t count = cur_val_p->v.val.list.size;
    if (count == 0) {
        return POL_CONFIG_OK;
    }
    auto *values = static_cast<uint32_t *>(
        pol_calloc(count, sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
    if (values == nullptr) {
        POL_LOG("Failed to allocate memory for set community list");
        return POL_CONFIG_NO_MEMORY;
    }
    for (uint32_t num = 0; num < count; num++) {
        POL_ASSERT((&cur_val_p->v.val.list.ptr[num])->type == C_BUF);
        const mgmtd_buf_t &text = cur_val_p->v.val.list.ptr[num].val.buf;
        community_token kind = community_token_unknown;
        community_gettoken(reinterpret_cast<const char *>(text.ptr), &kind, &values[num]);
        if (kind == community_token_unknown) {
            pol_free(values, POL_MEM_SET_ENTRY_COMMUNITY);
            return POL_CONFIG_NOT_FOUND;
        }
    }
    if (pol_config_set_bgp_community_upd(entry, values, static_cast<uint16_t>(count)) != 0) {
        pol_free(values, POL_MEM_SET_ENTRY_COMMUNITY);
        return POL_CONFIG_NO_MEMORY;
    }
    return POL_CONFIG_OK;
}

void read_community_additive(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p)
{
    entry->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE;
    if (value_bool(cur_val_p)) {
        entry->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;
    }
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
}

// The leaves of one control-policy sequence change. TLOC list, set TLOC
// and service are collected over the walk and applied after it, because
// their parts may come in any order.
class control_seq_change {
public:
    control_seq_change(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
        : ctx_(ctx), entry_(entry), changed_(changed)
    {
    }

    int32_t read(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint32_t tag = cur_val_p->tag.tag;
        if (tag == TAG_SERVICE || tag == TAG_TLOC) {
            enter_or_leave(tag, container_begins(cur_val_p));
        } else if (tloc_parts::is_part(tag)) {
            read_tloc_part(cur_val_p);
        } else if (tag == TAG_COMMUNITY) {
            return read_set_community(ctx_, entry_, cur_val_p);
        } else {
            return read_leaf(cur_val_p);
        }
        return POL_CONFIG_OK;
    }

    int32_t apply()
    {
        if (int32_t status = apply_tloc_list(); status != POL_CONFIG_OK) {
            return status;
        }
        apply_set_tloc();
        apply_service();
        return POL_CONFIG_OK;
    }

private:
    void enter_or_leave(uint32_t tag, bool begins)
    {
        if (tag == TAG_SERVICE) {
            in_service_ = begins;
        } else if (!in_service_) {
            in_tloc_ = begins;
        }
    }

    void read_tloc_part(const mgmtd_tag_value_t *cur_val_p)
    {
        if (in_service_) {
            service_tloc_.read(cur_val_p);
        } else if (in_tloc_) {
            set_tloc_.read(cur_val_p);
        }
    }

    int32_t read_leaf(const mgmtd_tag_value_t *cur_val_p)
    {
        switch (cur_val_p->tag.tag) {
        case TAG_ACTION:
            read_action(ctx_, entry_, cur_val_p, changed_);
            break;
        case TAG_ULTIMATE_TLOC_ACTION:
            entry_->set_entry.set_ultimate_action = ultimate_action_of(cur_val_p);
            pol_block_users_add_to_chg_list(ctx_, entry_->pol_block_p);
            *changed_ = 1;
            break;
        case TAG_VPN:
            return read_vpn(cur_val_p);
        case TAG_TLOC_LIST:
            tloc_list_given_ = true;
            tloc_list_ = removed(cur_val_p) ? nullptr : value_text(cur_val_p);
            break;
        case TAG_COMMUNITY_ADDITIVE:
            read_community_additive(ctx_, entry_, cur_val_p);
            break;
        case TAG_SERVICE_TYPE:
            service_withdrawn_ = service_withdrawn_ || removed(cur_val_p);
            has_service_type_ = !removed(cur_val_p);
            service_type_ = has_service_type_ ? static_cast<uint16_t>(value_enum(cur_val_p)) : 0;
            break;
        default:
            return apply_leaf(kSetLeaves, ctx_, entry_, cur_val_p, changed_);
        }
        return POL_CONFIG_OK;
    }

    // Inside the service container the VPN belongs to the service action.
    int32_t read_vpn(const mgmtd_tag_value_t *cur_val_p)
    {
        if (!in_service_) {
            return apply_leaf(kSetVpn, ctx_, entry_, cur_val_p, changed_);
        }
        has_service_vpn_ = true;
        service_vpn_ = removed(cur_val_p) ? 0 : value_u32(cur_val_p);
        return POL_CONFIG_OK;
    }

    int32_t apply_tloc_list()
    {
        if (!tloc_list_given_) {
            return POL_CONFIG_OK;
        }
        if (tloc_list_ == nullptr) {
            pol_entry_set_tloc_list_delete(ctx_, entry_, changed_);
            return POL_CONFIG_OK;
        }
        return status_of(pol_entry_set_tloc_list_add(ctx_, entry_, tloc_list_, changed_));
    }

    void apply_set_tloc()
    {
        if (set_tloc_.withdrawn()) {
            pol_entry_set_tloc_delete(ctx_, entry_, changed_);
        } else if (set_tloc_.given()) {
            t_tloc_id tloc;
            set_tloc_.over(entry_->set_entry.set_tloc, &tloc);
            pol_entry_set_tloc_add(ctx_, entry_, &tloc, changed_);
        }
    }

    void apply_service()
    {
        if (service_withdrawn_) {
            pol_entry_set_service_delete(ctx_, entry_, changed_);
            return;
        }
        if (!has_service_type_ && !has_service_vpn_ && !service_tloc_.given()) {
            return;
        }
        const t_pol_set_entry &set = entry_->set_entry;
        const uint16_t service = has_service_type_ ? service_type_ : set.set_service;
        const uint64_t vpn = has_service_vpn_ ? service_vpn_ : set.set_svc_vpn_id;
        t_tloc_id tloc;
        service_tloc_.over(set.set_svc_tloc, &tloc);
        pol_entry_set_service_add(ctx_, entry_, service, &tloc, vpn, changed_);
    }

    static constexpr leaf_pair kSetVpn[] = {
        {TAG_VPN, add_leaf<pol_entry_set_vpn_id_add, value_u32>, pol_entry_set_vpn_id_delete},
    };

    t_pol_ctx *ctx_;
    t_pol_entry *entry_;
    uint8_t *changed_;
    bool in_service_ = false;
    bool in_tloc_ = false;
    tloc_parts set_tloc_{true};
    tloc_parts service_tloc_{false};
    bool tloc_list_given_ = false;
    const char *tloc_list_ = nullptr;
    bool service_withdrawn_ = false;
    bool has_service_type_ = false;
    uint16_t service_type_ = 0;
    bool has_service_vpn_ = false;
    uint64_t service_vpn_ = 0;
};

// The leaves of one control-policy match change.
class control_match_change {
public:
    control_match_change(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
        : ctx_(ctx), entry_(entry), changed_(changed)
    {
    }

    int32_t read(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint32_t tag = cur_val_p->tag.tag;
        if (tag == TAG_TLOC) {
            in_tloc_ = container_begins(cur_val_p);
        } else if (tag == TAG_COLOR && !in_tloc_) {
            return apply_leaf(kMatchColor, ctx_, entry_, cur_val_p, changed_);
        } else if (tloc_parts::is_part(tag)) {
            tloc_.read(cur_val_p);
        } else if (!pfx_list_.read(cur_val_p)) {
            return apply_leaf(kMatchLeaves, ctx_, entry_, cur_val_p, changed_);
        }
        return POL_CONFIG_OK;
    }

    int32_t apply()
    {
        if (tloc_.withdrawn()) {
            pol_entry_match_tloc_delete(ctx_, entry_, changed_);
        } else if (tloc_.given()) {
            t_tloc_id tloc;
            tloc_.over(entry_->match_entry.match_tloc, &tloc);
            pol_entry_match_tloc_add(ctx_, entry_, &tloc, changed_);
        }
        const mgmtd_tag_value_t *pfx_list = pfx_list_.outcome();
        return pfx_list != nullptr ? apply_leaf(kMatchLeaves, ctx_, entry_, pfx_list, changed_)
                                   : POL_CONFIG_OK;
    }

private:
    t_pol_ctx *ctx_;
    t_pol_entry *entry_;
    uint8_t *changed_;
    bool in_tloc_ = false;
    tloc_parts tloc_{true};
    choice_leaves pfx_list_{kPfxListChoice};
};

e_pol_match_type match_type_of(uint32_t kind)
{
    switch (kind) {
    case 0:
        return POL_MATCH_VROUTE;
    case 1:
        return POL_MATCH_TLOC;
    default:
        return POL_MATCH_SERVICE;
    }
}

// A route (0) or TLOC (1) match is removed only from a sequence whose match
// is of that kind; other kinds always remove it.
void delete_match(t_pol_ctx *ctx, t_pol_entry *entry, uint32_t kind, uint8_t *changed)
{
    const e_pol_match_type type = match_type_of(kind);
    if (type == POL_MATCH_SERVICE || entry->match_entry.match_type == type) {
        pol_entry_match_delete(ctx, entry, changed);
    }
}

}  // namespace

extern "C" {

/* ---- control policies ---- */

int32_t pol_config_control_policy_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                       mgmtd_iter_op oper, uint8_t num_keys,
                                       mgmtd_value_t *key_p, uint16_t num_values,
                                       mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 1);
    POL_DBG(0, "Control Policy: %s, oper:%d, num_values:%u", keys.name, static_cast<int>(oper),
            static_cast<unsigned>(num_values));
    switch (read_policy(pol_ctx_p, keys.name, POL_TYPE_ROUTE, oper, val_p, num_values)) {
    case policy_outcome::not_created:
        POL_DBG(0, "Failed to create control policy - pol: %s", keys.name);
        return POL_CONFIG_NO_MEMORY;
    case policy_outcome::not_found:
        POL_DBG(0, "Failed to find control policy - pol: %s", keys.name);
        return POL_CONFIG_NOT_FOUND;
    default:
        return POL_CONFIG_OK;
    }
}

int32_t pol_config_control_policy_seq_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                           mgmtd_iter_op oper, uint8_t num_keys,
                                           mgmtd_value_t *key_p, uint16_t num_values,
                                           mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 2);
    POL_DBG(0, "Control Policy: %s, seq: %d oper:%d, num_values:%u", keys.name,
            static_cast<int>(keys.seq), static_cast<int>(oper), static_cast<unsigned>(num_values));
    t_pol_block *block = pol_block_find(pol_ctx_p, keys.name, POL_TYPE_ROUTE, nullptr);
    if (block == nullptr) {
        POL_DBG(0, "Failed to find control policy - pol: %s", keys.name);
        return POL_CONFIG_NOT_FOUND;
    }
    if (oper == MOP_DELETED) {
        return delete_sequence(pol_ctx_p, block, keys.seq);
    }
    uint8_t changed = 0;
    t_pol_entry *entry = sequence_for(pol_ctx_p, block, keys.seq, oper, &changed);
    if (entry == nullptr && oper == MOP_CREATED) {
        POL_DBG(0, "Failed to create control policy entry - pol: %s, seq: %d", keys.name,
                static_cast<int>(keys.seq));
        return POL_CONFIG_NO_MEMORY;
    }
    if (entry == nullptr) {
        POL_DBG(0, "Failed to find control policy - pol: %s", keys.name);
        return POL_CONFIG_NOT_FOUND;
    }
    control_seq_change change(pol_ctx_p, entry, &changed);
    const int32_t status =
        walk_values(trace_form::policy, val_p, num_values,
                    [&](const mgmtd_tag_value_t *cur_val_p) { return change.read(cur_val_p); });
    if (status != POL_CONFIG_OK) {
        return status;
    }
    if (int32_t applied = change.apply(); applied != POL_CONFIG_OK) {
        return applied;
    }
    return notify_if_changed(pol_ctx_p, changed);
}

int32_t pol_config_control_policy_match_read(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                             mgmtd_iter_op oper, uint8_t num_keys,
                                             mgmtd_value_t *key_p, uint16_t num_values,
                                             mgmtd_tag_value_t *val_p)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 3);
    POL_DBG(0, "Control Policy: %s, seq: %d oper:%d, num_values:%u, match_type:%u", keys.name,
            static_cast<int>(keys.seq), static_cast<int>(oper), static_cast<unsigned>(num_values),
            keys.kind);
    t_pol_entry *entry = matched_sequence(pol_ctx_p, keys);
    uint8_t changed = 0;
    if (oper == MOP_DELETED) {
        delete_match(pol_ctx_p, entry, keys.kind, &changed);
        return notify_if_changed(pol_ctx_p, changed);
    }
    if (oper == MOP_CREATED) {
        pol_entry_match_add(pol_ctx_p, entry->pol_block_p, entry, match_type_of(keys.kind),
                            &changed);
    }
    control_match_change change(pol_ctx_p, entry, &changed);
    int32_t status =
        walk_values(trace_form::policy, val_p, num_values,
                    [&](const mgmtd_tag_value_t *cur_val_p) { return change.read(cur_val_p); });
    if (status == POL_CONFIG_OK) {
        status = change.apply();
    }
    return status != POL_CONFIG_OK ? status : notify_if_changed(pol_ctx_p, changed);
}

// Users are deliberately not notified here: the next change that notifies
// carries this one along.
int32_t pol_config_control_policy_match_community_list_read(
    t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper, uint8_t num_keys,
    mgmtd_value_t *key_p, uint16_t num_values, mgmtd_tag_value_t *val_p,
    community_list_type list_type)
{
    const policy_keys keys = policy_keys_of(num_keys, key_p, 3);
    POL_DBG(0, "Control Policy: %s, seq: %d oper:%d, match-type: %d, community-list type: %u",
            keys.name, static_cast<int>(keys.seq), static_cast<int>(oper),
            static_cast<int>(keys.kind), static_cast<unsigned>(list_type));
    t_pol_entry *entry = matched_sequence(pol_ctx_p, keys);
    uint8_t changed = 0;
    if (oper == MOP_DELETED) {
        pol_entry_match_community_list_delete(pol_ctx_p, entry, list_type, &changed);
        return POL_CONFIG_OK;
    }
    POL_ASSERT(num_values > 0);
    trace_value(trace_form::policy, 0, &val_p[0]);
    return status_of(pol_entry_match_community_list_add(pol_ctx_p, entry, value_text(&val_p[0]),
                                                        list_type, &changed));
}

}  // extern "C"
