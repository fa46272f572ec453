// Routines every configuration change callback shares: typed access to
// keys and values, the traced walk over a node's values, the parts of a
// TLOC that one change names, leaves that map onto one add/delete pair of
// the store, and the exported helpers of the reader family. The readers
// themselves: pol_config_list.cpp (named lists) and pol_config_policy.cpp
// (control, route and membership policies).
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <zen/zen_util.h>

#include "pol_config_internal.hpp"

namespace pol::config {

namespace {

// The reason of the last failed callback, for pol_config_error.
char g_error[512];

// IPv4 values arrive in network order and are kept so: the address records
// hold IPv4 words in network order everywhere (printing, containment and
// the routes the host hands over agree on it). The address is written in
// place, zero-filled around it, because set TLOCs are compared byte for
// byte.
void ipv4_addr(t_ipaddr *addr, const mgmtd_value_t *key_p)
{
    POL_ASSERT(((key_p))->type == C_IPV4);
    IPADDR_INIT(addr, IP_ADDR_V4);
    IPADDR_SET_V4(addr, key_p->val.ip.s_addr);
}

void ipv6_addr(t_ipaddr *addr, const mgmtd_value_t *key_p)
{
    POL_ASSERT(((key_p))->type == C_IPV6);
    IPADDR_INIT(addr, IP_ADDR_V6);
    IPADDR_SET_V6(addr, key_p->val.ip6.s6_addr);
}

t_ipprefix ipv4_prefix(const mgmtd_value_t *key_p)
{
    POL_ASSERT(((key_p))->type == C_IPV4PREFIX);
    t_ipprefix pfx;
    std::memset(&pfx, 0, sizeof(pfx));
    IPADDR_SET_V4(&pfx.addr, key_p->val.ipv4prefix.ip.s_addr);
    pfx.prefixlen = key_p->val.ipv4prefix.len;
    return pfx;
}

t_ipprefix ipv6_prefix(const mgmtd_value_t *key_p)
{
    POL_ASSERT(((key_p))->type == C_IPV6PREFIX);
    t_ipprefix pfx;
    std::memset(&pfx, 0, sizeof(pfx));
    IPADDR_SET_V6(&pfx.addr, key_p->val.ipv6prefix.ip6.s6_addr);
    pfx.prefixlen = key_p->val.ipv6prefix.len;
    return pfx;
}

bool is_known_encap(uint8_t encap)
{
    return encap == ZEN_TLOC_ENCAP_GRE || encap == ZEN_TLOC_ENCAP_IPSEC_TUNNEL;
}

}  // namespace

/* ---- keys ---- */

void check_key_count(uint8_t num_keys, uint8_t expected)
{
    POL_ASSERT(num_keys == expected);
}

const char *key_text(const mgmtd_value_t *key_p)
{
    POL_ASSERT((key_p)->type == C_BUF);
    return reinterpret_cast<const char *>(key_p->val.buf.ptr);
}

uint16_t key_u16(const mgmtd_value_t *key_p)
{
    POL_ASSERT((key_p)->type == C_UINT16);
    return key_p->val.u16;
}

uint64_t key_u64(const mgmtd_value_t *key_p)
{
    POL_ASSERT((key_p)->type == C_UINT64);
    return key_p->val.u64;
}

uint32_t key_enum(const mgmtd_value_t *key_p)
{
    POL_ASSERT((key_p)->type == C_ENUM_VALUE);
    return static_cast<uint32_t>(key_p->val.enumvalue);
}

void key_addr(t_ipaddr *addr, const mgmtd_value_t *key_p)
{
    if (key_p->type == C_IPV4) {
        ipv4_addr(addr, key_p);
    } else {
        ipv6_addr(addr, key_p);
    }
}

t_ipprefix key_prefix(const mgmtd_value_t *key_p)
{
    return key_p->type == C_IPV4PREFIX ? ipv4_prefix(key_p) : ipv6_prefix(key_p);
}

policy_keys policy_keys_of(uint8_t num_keys, const mgmtd_value_t *key_p, uint8_t expected)
{
    check_key_count(num_keys, expected);
    policy_keys keys = {key_text(&key_p[0]), 0, 0};
    if (expected > 1) {
        keys.seq = key_u16(&key_p[1]);
    }
    if (expected > 2) {
        keys.kind = key_enum(&key_p[2]);
    }
    return keys;
}

/* ---- values ---- */

bool removed(const mgmtd_tag_value_t *cur_val_p)
{
    return cur_val_p->v.type == C_NOEXISTS;
}

uint32_t value_enum(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_ENUM_VALUE);
    return static_cast<uint32_t>(cur_val_p->v.val.enumvalue);
}

uint32_t value_u32(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_UINT32);
    return cur_val_p->v.val.u32;
}

uint8_t value_u8(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_UINT8);
    return cur_val_p->v.val.u8;
}

uint16_t value_u16(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_UINT16);
    return cur_val_p->v.val.u16;
}

bool value_bool(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_BOOL);
    return cur_val_p->v.val.boolean != 0;
}

const char *value_text(const mgmtd_tag_value_t *cur_val_p)
{
    POL_ASSERT((&cur_val_p->v)->type == C_BUF);
    return reinterpret_cast<const char *>(cur_val_p->v.val.buf.ptr);
}

void value_addr(t_ipaddr *addr, const mgmtd_tag_value_t *cur_val_p)
{
    if (cur_val_p->v.type != C_IPV4) {
        POL_ASSERT((&cur_val_p->v)->type == C_IPV6);
    }
    key_addr(addr, &cur_val_p->v);
}

bool container_begins(const mgmtd_tag_value_t *cur_val_p)
{
    if (cur_val_p->v.type != C_XMLBEGIN) {
        POL_ASSERT((&cur_val_p->v)->type == C_XMLEND);
    }
    return cur_val_p->v.type == C_XMLBEGIN;
}

/* ---- traces ---- */

void trace_value(trace_form form, uint32_t cur, const mgmtd_tag_value_t *cur_val_p)
{
    if (form == trace_form::list) {
        POL_DBG(0, "Prefix config - XML = %u, type: %d ", cur_val_p->tag.tag,
                static_cast<int>(cur_val_p->v.type));
    } else {
        POL_DBG(0, "cur: %d XML = %u, type: %d ", static_cast<int>(cur), cur_val_p->tag.tag,
                static_cast<int>(cur_val_p->v.type));
    }
}

void trace_values(mgmtd_tag_value_t *val_p, uint32_t num_values)
{
    walk_values(trace_form::list, val_p, num_values, [](const mgmtd_tag_value_t *) {});
}

int32_t notify_if_changed(t_pol_ctx *ctx, uint8_t changed)
{
    if (changed != 0) {
        pol_user_chg_list_notify_all(ctx);
    }
    return POL_CONFIG_OK;
}

/* ---- results ---- */

int32_t status_of(e_err err)
{
    switch (err) {
    case ERR_OK:
        return POL_CONFIG_OK;
    case ERR_ALLOC:
        return POL_CONFIG_NO_MEMORY;
    default:
        return POL_CONFIG_NOT_FOUND;
    }
}

/* ---- leaves of one choice ---- */

bool choice_leaves::read(const mgmtd_tag_value_t *cur_val_p)
{
    if (std::find(tags_.begin(), tags_.end(), cur_val_p->tag.tag) == tags_.end()) {
        return false;
    }
    (removed(cur_val_p) ? removal_ : given_) = cur_val_p;
    return true;
}

/* ---- failure reasons ---- */

int32_t keep_error(int32_t status, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(g_error, sizeof(g_error), fmt, ap);
    va_end(ap);
    return status;
}

/* ---- TLOCs ---- */

tloc_parts::tloc_parts(bool removal_withdraws) : removal_withdraws_(removal_withdraws)
{
    std::memset(&tloc_, 0, sizeof(tloc_));
}

void tloc_parts::read(const mgmtd_tag_value_t *cur_val_p)
{
    const bool gone = removed(cur_val_p);
    const uint32_t tag = cur_val_p->tag.tag;
    if (gone && removal_withdraws_ && tag != TAG_ENCAP) {
        withdrawn_ = true;
    } else if (tag == TAG_TLOC_ADDRESS) {
        has_addr_ = true;
        IPADDR_INIT(&tloc_.addr, IP_ADDR_UNKNOWN);
        if (!gone) {
            value_addr(&tloc_.addr, cur_val_p);
        }
    } else if (tag == TAG_COLOR) {
        has_color_ = true;
        tloc_.color = gone ? 0 : static_cast<uint8_t>(value_enum(cur_val_p));
    } else if (tag == TAG_ENCAP) {
        has_encap_ = true;
        tloc_.encap = gone ? static_cast<uint8_t>(ZEN_TLOC_ENCAP_IPSEC_TUNNEL)
                           : static_cast<uint8_t>(value_enum(cur_val_p));
    }
}

void tloc_parts::over(const t_tloc_id &current, t_tloc_id *out) const
{
    std::memcpy(out, &current, sizeof(*out));
    if (has_addr_) {
        std::memcpy(&out->addr, &tloc_.addr, sizeof(out->addr));
    }
    if (has_color_) {
        out->color = tloc_.color;
    }
    if (has_encap_) {
        out->encap = tloc_.encap;
    }
    if (!is_known_encap(out->encap)) {
        out->encap = ZEN_TLOC_ENCAP_IPSEC_TUNNEL;
    }
}

/* ---- leaves that map onto one add/delete pair of the store ---- */

int32_t apply_leaf(std::span<const leaf_pair> table, t_pol_ctx *ctx, t_pol_entry *entry,
                   const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    for (const leaf_pair &leaf : table) {
        if (leaf.tag != cur_val_p->tag.tag) {
            continue;
        }
        if (!removed(cur_val_p)) {
            return leaf.add(ctx, entry, cur_val_p, changed);
        }
        leaf.del(ctx, entry, changed);
        return POL_CONFIG_OK;
    }
    return POL_CONFIG_OK;
}


/* ---- policies and sequences ---- */

namespace {

// 0 accepts, 1 rejects, anything else is left alone.
e_pol_action action_of(uint32_t value)
{
    switch (value) {
    case 0:
        return POL_ACTION_ACCEPT;
    case 1:
        return POL_ACTION_REJECT;
    default:
        return POL_ACTION_INVALID;
    }
}

void read_default_action(t_pol_ctx *ctx, t_pol_block *block, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed)
{
    const e_pol_action action = action_of(value_enum(cur_val_p));
    t_pol_entry &dflt = block->default_action_entry;
    if (action == POL_ACTION_INVALID || action == dflt.entry_action) {
        return;
    }
    dflt.entry_action = action;
    pol_block_users_add_to_chg_list(ctx, block);
    *changed = 1;
}

}  // namespace

// The sequence action leaf; returns the action it applied.
e_pol_action read_action(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed)
{
    const e_pol_action action = action_of(value_enum(cur_val_p));
    if (action != POL_ACTION_INVALID) {
        pol_entry_action_add(ctx, entry, action, changed);
    }
    return action;
}

// What every policy reader does: delete, create or find the block, then
// apply its default action.
policy_outcome read_policy(t_pol_ctx *ctx, const char *name, e_pol_type type, mgmtd_iter_op oper,
                           mgmtd_tag_value_t *val_p, uint32_t num_values)
{
    uint8_t changed = 0;
    if (oper == MOP_DELETED) {
        pol_block_find_and_delete(ctx, name, type, &changed);
        notify_if_changed(ctx, changed);
        return policy_outcome::done;
    }
    t_pol_block *block = oper == MOP_CREATED ? pol_block_find_or_create(ctx, name, type, &changed)
                                             : pol_block_find(ctx, name, type, nullptr);
    if (block == nullptr) {
        return oper == MOP_CREATED ? policy_outcome::not_created : policy_outcome::not_found;
    }
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_DEFAULT_ACTION) {
            read_default_action(ctx, block, cur_val_p, &changed);
        }
    });
    notify_if_changed(ctx, changed);
    return policy_outcome::done;
}

int32_t delete_sequence(t_pol_ctx *ctx, t_pol_block *block, uint32_t seq)
{
    uint8_t changed = 0;
    pol_entry_find_and_delete(ctx, block, seq, &changed);
    return notify_if_changed(ctx, changed);
}

// Created on MOP_CREATED, found otherwise; null when neither works.
t_pol_entry *sequence_for(t_pol_ctx *ctx, t_pol_block *block, uint32_t seq, mgmtd_iter_op oper,
                          uint8_t *changed)
{
    return oper == MOP_CREATED ? pol_entry_find_or_create(ctx, block, seq, changed)
                               : pol_entry_find(ctx, block, seq, nullptr);
}

}  // namespace pol::config

extern "C" {

uint32_t pol_yang_enum_to_filter_mask(uint32_t enum_val)
{
    POL_ASSERT(enum_val < 32);
    return enum_val == 0 ? 0 : 1u << enum_val;
}

void pol_config_update_tloc_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p)
{
    pol_tloc_list_update_fwd_pol_label(pol_ctx_p, false);
}

const char *pol_config_error(void)
{
    return pol::config::g_error;
}

void pol_config_error_clear(void)
{
    pol::config::g_error[0] = '\0';
}

}  // extern "C"
