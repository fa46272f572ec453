// Configuration change callbacks of the named lists, the control policies
// and the route and membership policies.
//
// The host's management layer calls one callback per changed list entry or
// container, with the node's keys and its leaves flattened in schema order.
// A callback checks the keys, then on MOP_DELETED removes what the node
// stands for; otherwise it walks the leaves, dispatching on their schema
// tags (unknown tags are skipped), and applies them to the model. Policy
// readers collect whether anything changed and flush the change queue once
// at their end; list stores notify by themselves.
//
// Keys or values of an unexpected type are errors of the schema binding and
// stop the process.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

#include <policy/pol_config.h>
#include <zen/zen_util.h>

#include "pol_util.hpp"

namespace {

// Schema tags of the leaves and containers the readers know.
enum schema_tag : uint32_t {
    // named lists
    TAG_PREFERENCE = 0x176ecfd3,      // TLOC-list entry; set action; match condition
    TAG_PREFLEN_MIN = 0x0c7fba2e,     // prefix-list entry
    TAG_PREFLEN_MAX = 0x10ae453c,     // prefix-list entry
    TAG_PREFLEN_EXACT = 0x0308c88e,   // prefix-list entry: minimum and maximum at once
    // policies and sequences
    TAG_DEFAULT_ACTION = 0x7037c488,
    TAG_ACTION = 0x0369ffb7,
    TAG_ULTIMATE_TLOC_ACTION = 0x4a63a685,
    TAG_OMP_TAG = 0x0c2c7467,
    TAG_VPN = 0x4d7d11c2,             // inside the service container: the service VPN
    TAG_VPN_LIST = 0x6aebf6e6,
    TAG_TLOC_LIST = 0x72d28bfe,
    TAG_COMMUNITY = 0x04de5c80,
    TAG_COMMUNITY_ADDITIVE = 0x4e8cbcb6,
    TAG_SERVICE = 0x32fc12e6,         // container
    TAG_TLOC = 0x33c074ce,            // container
    TAG_TLOC_ADDRESS = 0x61fa2cdb,
    TAG_COLOR = 0x2b503622,           // outside a TLOC container: the match colour
    TAG_ENCAP = 0x5a62686b,
    TAG_SERVICE_TYPE = 0x6ccfcce4,
    // match conditions
    TAG_CARRIER = 0x4ef9605a,
    TAG_SITE_LIST = 0x6d6fa00b,
    TAG_SITE_ID = 0x59a72353,
    TAG_ORIGIN = 0x775cf168,
    TAG_ORIGINATOR = 0x470748d8,
    TAG_GROUP = 0x7ce0369b,
    TAG_DOMAIN = 0x1beabc63,
    TAG_PFX_LIST_IPV4 = 0x5dc389d2,
    TAG_PFX_LIST_IPV6 = 0x1acbe4b9,
    TAG_COLOR_LIST = 0x3129eae5,
    // route-policy sequences
    TAG_OSPF_TAG = 0x06c5a139,
    TAG_METRIC = 0x0e042d5a,
    TAG_ROUTE_PFX_LIST = 0x4b843099,
};

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

uint32_t key_enum(const mgmtd_value_t *key_p)
{
    POL_ASSERT((key_p)->type == C_ENUM_VALUE);
    return static_cast<uint32_t>(key_p->val.enumvalue);
}

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

void key_addr(t_ipaddr *addr, const mgmtd_value_t *key_p)
{
    if (key_p->type == C_IPV4) {
        ipv4_addr(addr, key_p);
    } else {
        ipv6_addr(addr, key_p);
    }
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

t_ipprefix key_prefix(const mgmtd_value_t *key_p)
{
    return key_p->type == C_IPV4PREFIX ? ipv4_prefix(key_p) : ipv6_prefix(key_p);
}

// Keys of a policy node: name, then sequence number, then match kind.
struct policy_keys {
    const char *name;
    uint16_t seq;
    uint32_t kind;
};

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

// Start (true) or end (false) of a container.
bool container_begins(const mgmtd_tag_value_t *cur_val_p)
{
    if (cur_val_p->v.type != C_XMLBEGIN) {
        POL_ASSERT((&cur_val_p->v)->type == C_XMLEND);
    }
    return cur_val_p->v.type == C_XMLBEGIN;
}

// Every value is traced; list readers and policy readers trace differently.
enum class trace_form { list, policy };

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

// Hands every value to fn in order. fn returns nothing, or a status of
// which the first non-zero one ends the walk.
template <typename Fn>
int32_t walk_values(trace_form form, mgmtd_tag_value_t *val_p, uint32_t num_values, Fn &&fn)
{
    for (uint32_t cur = 0; cur < num_values; cur++) {
        const mgmtd_tag_value_t *cur_val_p = &val_p[cur];
        trace_value(form, cur, cur_val_p);
        if constexpr (std::is_void_v<std::invoke_result_t<Fn &, const mgmtd_tag_value_t *>>) {
            fn(cur_val_p);
        } else if (int32_t status = fn(cur_val_p); status != 0) {
            return status;
        }
    }
    return 0;
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

/* ---- site and VPN ranges ---- */

struct id_range {
    uint32_t min;
    uint32_t max;
};

// One number is a range of one; the bounds are passed on unchecked.
std::optional<id_range> range_of(int parsed, uint64_t first, uint64_t second)
{
    if (parsed == 1) {
        return id_range{static_cast<uint32_t>(first), static_cast<uint32_t>(first)};
    }
    if (parsed == 2) {
        return id_range{static_cast<uint32_t>(first), static_cast<uint32_t>(second)};
    }
    return std::nullopt;
}

std::optional<id_range> parse_site_range(const char *text)
{
    unsigned first = 0;
    unsigned second = 0;
    const int parsed = std::sscanf(text, "%u-%u", &first, &second);
    return range_of(parsed, first, second);
}

// VPN ids are read as 64-bit numbers and narrowed to the list's 32 bits.
std::optional<id_range> parse_vpn_range(const char *text)
{
    unsigned long first = 0;
    unsigned long second = 0;
    const int parsed = std::sscanf(text, "%lu-%lu", &first, &second);
    return range_of(parsed, first, second);
}

using range_op_f = e_err (*)(t_pol_ctx *, const char *, uint32_t, uint32_t);

// Ranges are added on creation only; a modification changes nothing.
void apply_range(t_pol_ctx *ctx, mgmtd_iter_op oper, const char *name, id_range range,
                 range_op_f add, range_op_f del, mgmtd_tag_value_t *val_p, uint32_t num_values)
{
    if (oper == MOP_DELETED) {
        del(ctx, name, range.min, range.max);
        return;
    }
    trace_values(val_p, num_values);
    if (oper == MOP_CREATED) {
        add(ctx, name, range.min, range.max);
    }
}

/* ---- prefix-list entries ---- */

// The length leaves of one prefix-list entry change and the condition they
// make: an exact length overrides minimum and maximum.
class preflen_leaves {
public:
    void read(const mgmtd_tag_value_t *cur_val_p)
    {
        switch (cur_val_p->tag.tag) {
        case TAG_PREFLEN_MIN:
            read_bound(cur_val_p, min_, min_given_);
            break;
        case TAG_PREFLEN_MAX:
            read_bound(cur_val_p, max_, max_given_);
            break;
        case TAG_PREFLEN_EXACT:
            exact_ = removed(cur_val_p) ? exact::removed : exact::given;
            exact_len_ = exact_ == exact::given ? value_u8(cur_val_p) : 0;
            break;
        default:
            break;
        }
    }

    void finish(t_pfx_entry_param &param) const
    {
        param.preflen_min = min_;
        param.preflen_max = max_;
        if (exact_ == exact::removed) {
            param.preflen_min = min_given_ ? min_ : 0;
            param.preflen_max = max_given_ ? max_ : 0;
        } else if (exact_ == exact::given) {
            param.preflen_min = exact_len_;
            param.preflen_max = exact_len_;
        }
        param.pfx_op = op_of(param.preflen_min, param.preflen_max);
    }

private:
    enum class exact { absent, given, removed };

    static void read_bound(const mgmtd_tag_value_t *cur_val_p, uint8_t &len, bool &given)
    {
        len = removed(cur_val_p) ? 0 : value_u8(cur_val_p);
        given = given || !removed(cur_val_p);
    }

    static e_pfx_op op_of(uint8_t min, uint8_t max)
    {
        if (min != 0 && max != 0) {
            return PFX_OP_RANGE;
        }
        if (max != 0) {
            return PFX_OP_LE;
        }
        return min != 0 ? PFX_OP_GE : PFX_OP_EQ;
    }

    uint8_t min_ = 0;
    uint8_t max_ = 0;
    bool min_given_ = false;
    bool max_given_ = false;
    exact exact_ = exact::absent;
    uint8_t exact_len_ = 0;
};

/* ---- TLOCs and the service action ---- */

bool is_known_encap(uint8_t encap)
{
    return encap == ZEN_TLOC_ENCAP_GRE || encap == ZEN_TLOC_ENCAP_IPSEC_TUNNEL;
}

// The parts of a TLOC that one change names. A removed encapsulation reads
// as IPsec; a removed address or colour either withdraws the whole TLOC
// (set and match TLOCs) or clears that part (the service TLOC).
class tloc_parts {
public:
    explicit tloc_parts(bool removal_withdraws) : removal_withdraws_(removal_withdraws)
    {
        std::memset(&tloc_, 0, sizeof(tloc_));
    }

    static bool is_part(uint32_t tag)
    {
        return tag == TAG_TLOC_ADDRESS || tag == TAG_COLOR || tag == TAG_ENCAP;
    }

    void read(const mgmtd_tag_value_t *cur_val_p)
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

    bool withdrawn() const { return withdrawn_; }
    bool given() const { return has_addr_ || has_color_ || has_encap_; }

    // The current TLOC with the parts of this change put in, copied byte
    // for byte so that an unchanged TLOC compares equal to the stored one.
    void over(const t_tloc_id &current, t_tloc_id *out) const
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

private:
    bool removal_withdraws_;
    bool withdrawn_ = false;
    bool has_addr_ = false;
    bool has_color_ = false;
    bool has_encap_ = false;
    t_tloc_id tloc_;
};

/* ---- leaves that map onto one add/delete pair of the store ---- */

using leaf_add_f = void (*)(t_pol_ctx *, t_pol_entry *, const mgmtd_tag_value_t *, uint8_t *);
using leaf_del_f = void (*)(t_pol_ctx *, t_pol_entry *, uint8_t *);

struct leaf_pair {
    uint32_t tag;
    leaf_add_f add;
    leaf_del_f del;
};

template <auto Add, auto Read>
void add_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
              uint8_t *changed)
{
    Add(ctx, entry, Read(cur_val_p), changed);
}

template <e_pol_af Af>
void add_pfx_list_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                       uint8_t *changed)
{
    const t_pfx_list_key key = {Af, value_text(cur_val_p)};
    pol_entry_match_pfx_list_add(ctx, entry, &key, changed);
}

void add_originator_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed)
{
    t_ipaddr addr;
    value_addr(&addr, cur_val_p);
    pol_entry_match_originator_add(ctx, entry, &addr, changed);
}

// Applies the leaf if the table knows its tag; a removed leaf deletes.
bool apply_leaf(std::span<const leaf_pair> table, t_pol_ctx *ctx, t_pol_entry *entry,
                const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    for (const leaf_pair &leaf : table) {
        if (leaf.tag != cur_val_p->tag.tag) {
            continue;
        }
        if (removed(cur_val_p)) {
            leaf.del(ctx, entry, changed);
        } else {
            leaf.add(ctx, entry, cur_val_p, changed);
        }
        return true;
    }
    return false;
}

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

constexpr leaf_pair kMembershipLeaves[] = {
    {TAG_VPN, add_leaf<pol_entry_match_vpn_id_add, value_u32>, pol_entry_match_vpn_id_delete},
    {TAG_VPN_LIST, add_leaf<pol_entry_match_vpn_list_add, value_text>,
     pol_entry_match_vpn_list_delete},
};

/* ---- policies and sequences ---- */

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

enum class policy_outcome { done, not_created, not_found };

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
            read_leaf(cur_val_p);
        }
        return POL_CONFIG_OK;
    }

    void apply()
    {
        apply_tloc_list();
        apply_set_tloc();
        apply_service();
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

    void read_leaf(const mgmtd_tag_value_t *cur_val_p)
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
            read_vpn(cur_val_p);
            break;
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
            apply_leaf(kSetLeaves, ctx_, entry_, cur_val_p, changed_);
            break;
        }
    }

    // Inside the service container the VPN belongs to the service action.
    void read_vpn(const mgmtd_tag_value_t *cur_val_p)
    {
        if (!in_service_) {
            apply_leaf(kSetVpn, ctx_, entry_, cur_val_p, changed_);
            return;
        }
        has_service_vpn_ = true;
        service_vpn_ = removed(cur_val_p) ? 0 : value_u32(cur_val_p);
    }

    void apply_tloc_list()
    {
        if (!tloc_list_given_) {
            return;
        }
        if (tloc_list_ == nullptr) {
            pol_entry_set_tloc_list_delete(ctx_, entry_, changed_);
        } else {
            pol_entry_set_tloc_list_add(ctx_, entry_, tloc_list_, changed_);
        }
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

    void read(const mgmtd_tag_value_t *cur_val_p)
    {
        const uint32_t tag = cur_val_p->tag.tag;
        if (tag == TAG_TLOC) {
            in_tloc_ = container_begins(cur_val_p);
        } else if (tag == TAG_COLOR && !in_tloc_) {
            apply_leaf(kMatchColor, ctx_, entry_, cur_val_p, changed_);
        } else if (tloc_parts::is_part(tag)) {
            tloc_.read(cur_val_p);
        } else {
            apply_leaf(kMatchLeaves, ctx_, entry_, cur_val_p, changed_);
        }
    }

    void apply()
    {
        if (tloc_.withdrawn()) {
            pol_entry_match_tloc_delete(ctx_, entry_, changed_);
        } else if (tloc_.given()) {
            t_tloc_id tloc;
            tloc_.over(entry_->match_entry.match_tloc, &tloc);
            pol_entry_match_tloc_add(ctx_, entry_, &tloc, changed_);
        }
    }

private:
    t_pol_ctx *ctx_;
    t_pol_entry *entry_;
    uint8_t *changed_;
    bool in_tloc_ = false;
    tloc_parts tloc_{true};
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
void read_route_tag(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
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
        return;
    }
    const uint32_t tag = value_u32(cur_val_p);
    if (omp) {
        POL_DBG(0, "zentrak_policy_omp_tag %u", tag);
    } else {
        POL_DBG(0, "zentrak_policy_ospf_tag %u", tag);
    }
    pol_entry_match_tag_add(ctx, entry, tag, changed);
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
void read_route_pfx_list(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed)
{
    if (removed(cur_val_p)) {
        POL_DBG(0, "zentrak_policy_prefix_list delete");
        pol_entry_match_pfx_list_delete(ctx, entry, changed);
        return;
    }
    const t_pfx_list_key key = {POL_AF_IPV4, value_text(cur_val_p)};
    POL_DBG(0, "zentrak_policy_prefix_list %s", key.pfx_key_name_p);
    pol_entry_match_pfx_list_add(ctx, entry, &key, changed);
}

void read_route_seq_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed)
{
    switch (cur_val_p->tag.tag) {
    case TAG_ACTION:
        read_route_action(ctx, entry, cur_val_p, changed);
        break;
    case TAG_OMP_TAG:
    case TAG_OSPF_TAG:
        read_route_tag(ctx, entry, cur_val_p, changed);
        break;
    case TAG_METRIC:
        read_route_metric(ctx, entry, cur_val_p, changed);
        break;
    case TAG_ROUTE_PFX_LIST:
        read_route_pfx_list(ctx, entry, cur_val_p, changed);
        break;
    default:
        break;
    }
}

void read_membership_seq_leaf(t_pol_ctx *ctx, t_pol_entry *entry,
                              const mgmtd_tag_value_t *cur_val_p, uint8_t *changed)
{
    if (cur_val_p->tag.tag == TAG_ACTION) {
        read_action(ctx, entry, cur_val_p, changed);
    } else {
        apply_leaf(kMembershipLeaves, ctx, entry, cur_val_p, changed);
    }
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

// A list-name node carries no leaves the library reads: a delete drops the
// list's configuration, anything else is only traced.
template <typename Delete>
int32_t delete_or_trace(mgmtd_iter_op oper, mgmtd_tag_value_t *val_p, uint32_t num_values,
                        Delete &&cfg_del)
{
    if (oper == MOP_DELETED) {
        cfg_del();
    } else {
        trace_values(val_p, num_values);
    }
    return POL_CONFIG_OK;
}

}  // namespace

extern "C" {

/* ---- shared ---- */

uint32_t pol_yang_enum_to_filter_mask(uint32_t enum_val)
{
    POL_ASSERT(enum_val < 32);
    return enum_val == 0 ? 0 : 1u << enum_val;
}

void pol_config_update_tloc_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p)
{
    pol_tloc_list_update_fwd_pol_label(pol_ctx_p, false);
}

/* ---- site and VPN lists ---- */

int32_t pol_config_policy_site_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Site list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_site_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_site_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                    uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                    mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const char *text = key_text(&key_p[1]);
    POL_DBG(0, "Site list config - Name:%s, id:%s, Oper:%u, num:%u", name, text,
            static_cast<unsigned>(oper), static_cast<unsigned>(num_values));
    const std::optional<id_range> range = parse_site_range(text);
    if (!range) {
        POL_LOG("Invalid site list range %s in list %s", text, name);
        return POL_CONFIG_BAD_KEY;
    }
    apply_range(pol_ctx_p, oper, name, *range, pol_site_list_add_entry, pol_site_list_del_entry,
                val_p, num_values);
    return POL_CONFIG_OK;
}

int32_t pol_config_policy_vpn_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                        mgmtd_iter_op oper, uint8_t num_keys,
                                        mgmtd_value_t *key_p, uint16_t num_values,
                                        mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "VPN list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_vpn_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_vpn_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                   uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                   mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const char *text = key_text(&key_p[1]);
    POL_DBG(0, "VPN list config - Name:%s, id:%s, Oper:%u, num:%u", name, text,
            static_cast<unsigned>(oper), static_cast<unsigned>(num_values));
    const std::optional<id_range> range = parse_vpn_range(text);
    if (!range) {
        POL_LOG("Invalid vpn list range %s in list %s", text, name);
        return POL_CONFIG_BAD_KEY;
    }
    apply_range(pol_ctx_p, oper, name, *range, pol_vpn_list_add_entry, pol_vpn_list_del_entry,
                val_p, num_values);
    return POL_CONFIG_OK;
}

/* ---- TLOC and colour lists ---- */

int32_t pol_config_policy_tloc_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                         mgmtd_iter_op oper, uint8_t num_keys,
                                         mgmtd_value_t *key_p, uint16_t num_values,
                                         mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Tloc list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_tloc_list_cfg_del(pol_ctx_p, name); });
}

// Every operation but a delete (re-)adds the entry with its preference.
int32_t pol_config_policy_tloc_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                    uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                    mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 4);
    const char *name = key_text(&key_p[0]);
    POL_DBG(0, "Tloc list config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    t_tloc_id tloc;
    std::memset(&tloc, 0, sizeof(tloc));
    key_addr(&tloc.addr, &key_p[1]);
    tloc.color = static_cast<uint8_t>(key_enum(&key_p[2]));
    tloc.encap = static_cast<uint8_t>(key_enum(&key_p[3]));
    if (oper == MOP_DELETED) {
        pol_tloc_list_del_entry(pol_ctx_p, name, &tloc);
        return POL_CONFIG_OK;
    }
    uint32_t preference = 0;
    walk_values(trace_form::list, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        if (cur_val_p->tag.tag == TAG_PREFERENCE) {
            preference = removed(cur_val_p) ? 0 : value_u32(cur_val_p);
        }
    });
    pol_tloc_list_add_entry(pol_ctx_p, name, &tloc, preference);
    return POL_CONFIG_OK;
}

int32_t pol_config_policy_color_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                          mgmtd_iter_op oper, uint8_t num_keys,
                                          mgmtd_value_t *key_p, uint16_t num_values,
                                          mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Color list Config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_color_list_cfg_del(pol_ctx_p, name); });
}

int32_t pol_config_policy_color_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                     mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                     uint16_t num_values, mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const uint16_t color = static_cast<uint16_t>(key_enum(&key_p[1]));
    POL_DBG(0, "Color list config - Name:%s, Oper:%u, num:%u", name, static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_color_list_del_entry(pol_ctx_p, name, color);
        return POL_CONFIG_OK;
    }
    trace_values(val_p, num_values);
    pol_color_list_add_entry(pol_ctx_p, name, color);
    return POL_CONFIG_OK;
}

/* ---- community lists ---- */

int32_t pol_config_community_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                       mgmtd_iter_op oper, uint8_t num_keys,
                                       mgmtd_value_t *key_p, uint32_t num_values,
                                       mgmtd_tag_value_t *val_p, community_list_type list_type)
{
    check_key_count(num_keys, 1);
    const char *name = key_text(key_p);
    POL_DBG(0, "Community list Config - Name:%s, type:%d, Oper:%u, num:%u", name,
            static_cast<int>(list_type), static_cast<unsigned>(oper), num_values);
    return delete_or_trace(oper, val_p, num_values, [&] { pol_community_list_cfg_del(pol_ctx_p, name, list_type); });
}

int32_t pol_config_community_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p, mgmtd_iter_op oper,
                                  uint8_t num_keys, mgmtd_value_t *key_p, uint16_t num_values,
                                  mgmtd_tag_value_t *val_p, community_list_type list_type)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    const char *text = key_text(&key_p[1]);
    POL_DBG(0, "Community list config - Name:%s, Type:%d, Oper:%u, num:%u", name,
            static_cast<int>(list_type), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_community_list_del_entry(pol_ctx_p, name, text, list_type);
        return POL_CONFIG_OK;
    }
    trace_values(val_p, num_values);
    pol_community_list_add_entry(pol_ctx_p, name, text, list_type);
    return POL_CONFIG_OK;
}

/* ---- prefix lists ---- */

int32_t pol_config_policy_prefix_list_name(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                           mgmtd_iter_op oper, uint8_t num_keys,
                                           mgmtd_value_t *key_p, uint16_t num_values,
                                           mgmtd_tag_value_t *val_p, bool is_ipv4)
{
    check_key_count(num_keys, 1);
    const t_pfx_list_key key = {is_ipv4 ? POL_AF_IPV4 : POL_AF_IPV6, key_text(key_p)};
    POL_DBG(0, "Prefix list Config - Name:%s, is_ipv4:%u, Oper:%u, num:%u", key.pfx_key_name_p,
            static_cast<unsigned>(is_ipv4), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    return delete_or_trace(oper, val_p, num_values, [&] { pol_pfx_list_cfg_del(pol_ctx_p, &key); });
}

// The entry's family is that of its prefix key; every operation but a
// delete (re-)adds it with the condition its length leaves make.
int32_t pol_config_policy_prefix_list(t_vmgmtd_context *, t_pol_ctx *pol_ctx_p,
                                      mgmtd_iter_op oper, uint8_t num_keys, mgmtd_value_t *key_p,
                                      uint16_t num_values, mgmtd_tag_value_t *val_p)
{
    check_key_count(num_keys, 2);
    const char *name = key_text(&key_p[0]);
    t_pfx_entry_param param;
    std::memset(&param, 0, sizeof(param));
    param.pfx_op = PFX_OP_EQ;
    param.prefix = key_prefix(&key_p[1]);
    const t_pfx_list_key key = {IPPREFIX_IS_V4(&param.prefix) ? POL_AF_IPV4 : POL_AF_IPV6, name};
    char text[128];
    POL_DBG(0, "Prefix config - Name:%s, pfx:%s, Oper:%u, num:%u", name,
            ipprefix_print(&param.prefix, text, sizeof(text)), static_cast<unsigned>(oper),
            static_cast<unsigned>(num_values));
    if (oper == MOP_DELETED) {
        pol_pfx_list_del_entry(pol_ctx_p, &key, &param);
        return POL_CONFIG_OK;
    }
    preflen_leaves lengths;
    walk_values(trace_form::list, val_p, num_values,
                [&](const mgmtd_tag_value_t *cur_val_p) { lengths.read(cur_val_p); });
    lengths.finish(param);
    pol_pfx_list_entry_add(pol_ctx_p, &key, &param);
    return POL_CONFIG_OK;
}

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
        return POL_CONFIG_NOT_FOUND;
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
        return POL_CONFIG_NOT_FOUND;
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
    change.apply();
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
    walk_values(trace_form::policy, val_p, num_values,
                [&](const mgmtd_tag_value_t *cur_val_p) { change.read(cur_val_p); });
    change.apply();
    return notify_if_changed(pol_ctx_p, changed);
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
    pol_entry_match_community_list_add(pol_ctx_p, entry, value_text(&val_p[0]), list_type,
                                       &changed);
    return POL_CONFIG_OK;
}

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
        return POL_CONFIG_NOT_FOUND;
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
        return POL_CONFIG_NOT_FOUND;
    }
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        read_route_seq_leaf(pol_ctx_p, entry, cur_val_p, &changed);
    });
    return notify_if_changed(pol_ctx_p, changed);
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
        return POL_CONFIG_NOT_FOUND;
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
        return POL_CONFIG_NOT_FOUND;
    }
    walk_values(trace_form::policy, val_p, num_values, [&](const mgmtd_tag_value_t *cur_val_p) {
        read_membership_seq_leaf(pol_ctx_p, entry, cur_val_p, &changed);
    });
    return notify_if_changed(pol_ctx_p, changed);
}

}  // extern "C"
