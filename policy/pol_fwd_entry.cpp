// Updates of the plain fields of a data-policy sequence: valued conditions
// and actions, flag-only actions, the sequence's action and the variable
// match arrays.
//
// Every valued field follows one rule, written once (scalar_upd): adding
// a value equal to the present one changes nothing, otherwise the value is
// stored and marked present; removing an absent value changes nothing,
// otherwise the value is zeroed and marked absent; only a change queues
// the block's users. A field row names where the value lives, how its
// presence is kept (a bit of a mask, or a non-zero value) and how values
// compare and are stored.
#include "pol_fwd_internal.hpp"

namespace {

using pol::fwd::mask_of;

/* ---- presence ---- */

// Present while a bit of the sequence's match or set mask is set.
template <mask_of Which, uint64_t Bit>
struct by_bit {
    static bool has(t_pol_entry *e) { return (pol::fwd::flags(e, Which) & Bit) != 0; }
    template <typename V>
    static bool comparable(t_pol_entry *e, const V &) { return has(e); }
    template <typename V>
    static bool present(t_pol_entry *e, const V &) { return has(e); }
    static void mark(t_pol_entry *e, bool on)
    {
        uint64_t &mask = pol::fwd::flags(e, Which);
        mask = on ? (mask | Bit) : (mask & ~Bit);
    }
};

// No bit: present while the value is not zero; an add compares only with
// a stored value (next hops).
struct by_value {
    template <typename V>
    static bool comparable(t_pol_entry *, const V &v) { return !is_zero(v); }
    template <typename V>
    static bool present(t_pol_entry *, const V &v) { return !is_zero(v); }
    static void mark(t_pol_entry *, bool) {}

    static bool is_zero(const t_ipaddr &a) { return IPADDR_IS_ZERO(&a); }
    template <typename V>
    static bool is_zero(const V &v) { return v == V{}; }
};

// No bit, and an add of the value already there is no change even when it
// is zero (loss protection).
struct by_value_always_compared : by_value {
    template <typename V>
    static bool comparable(t_pol_entry *, const V &) { return true; }
};

/* ---- comparison and storage ---- */

struct plain {
    template <typename F, typename A>
    static bool equal(const F &field, A arg) { return field == static_cast<F>(arg); }
    template <typename F, typename A>
    static void store(F &field, A arg) { field = static_cast<F>(arg); }
};

struct address {
    static bool equal(const t_ipaddr &field, const t_ipaddr *arg) { return IPADDR_CMP(&field, arg) == 0; }
    static void store(t_ipaddr &field, const t_ipaddr *arg) { std::memcpy(&field, arg, sizeof(field)); }
};

// Names compared over and stored within the 128 bytes of their field.
struct name128 {
    static bool equal(const char (&field)[128], const char *arg)
    {
        return std::strncmp(field, arg, sizeof(field)) == 0;
    }
    static void store(char (&field)[128], const char *arg) { pol::copy_name(field, arg); }
};

struct local_tloc {
    static bool equal(const t_local_tloc_id &f, const t_local_tloc_id_args *a)
    {
        return f.color == a->color && f.encap == a->encap;
    }
    static void store(t_local_tloc_id &f, const t_local_tloc_id_args *a)
    {
        f.color = a->color;
        f.encap = a->encap;
    }
};

struct local_tloc_list {
    static bool equal(const t_pol_set_local_tloc_list &f, const t_pol_set_local_tloc_list_args *a)
    {
        return f.color_mask == a->color_mask && f.encap_mask == a->encap_mask &&
               f.restrict1 == a->restrict1;
    }
    static void store(t_pol_set_local_tloc_list &f, const t_pol_set_local_tloc_list_args *a)
    {
        f.color_mask = a->color_mask;
        f.encap_mask = a->encap_mask;
        f.restrict1 = a->restrict1;
    }
};

/* ---- the one scalar rule ---- */

// Part is the match or set entry of a sequence, Field the member in it.
template <auto Part, auto Field>
struct field_row {
    static auto &field(t_pol_entry *e) { return (e->*Part).*Field; }
};

template <typename Row, typename Presence, typename Rule, typename A>
bool scalar_change(t_pol_entry *e, A arg, bool add)
{
    auto &field = Row::field(e);
    if (add) {
        if (Presence::comparable(e, field) && Rule::equal(field, arg)) {
            return false;
        }
        Presence::mark(e, true);
        Rule::store(field, arg);
        return true;
    }
    if (!Presence::present(e, field)) {
        return false;
    }
    Presence::mark(e, false);
    std::memset(static_cast<void *>(&field), 0, sizeof(field));
    return true;
}

template <auto Part, auto Field, typename Presence, typename Rule = plain, typename A>
e_err scalar_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name,
                 uint32_t seq_num, A arg, bool add)
{
    using row = field_row<Part, Field>;
    return pol::fwd::update_entry(ctx, pol_name, pol_type, vpn_name, seq_num,
                                  [&](t_pol_entry *e, t_pol_block *) {
                                      return scalar_change<row, Presence, Rule>(e, arg, add);
                                  });
}

constexpr auto kSet = &t_pol_entry::set_entry;
constexpr auto kMatch = &t_pol_entry::match_entry;
template <uint64_t Bit>
using set_bit = by_bit<mask_of::set, Bit>;
template <uint64_t Bit>
using match_bit = by_bit<mask_of::match, Bit>;

// A flag-only action: add sets the bit when clear, remove clears it when set.
template <uint64_t Bit>
e_err flag_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name,
               uint32_t seq_num, bool add)
{
    return pol::fwd::update_entry(ctx, pol_name, pol_type, vpn_name, seq_num,
                                  [&](t_pol_entry *e, t_pol_block *) {
                                      const bool was = set_bit<Bit>::has(e);
                                      set_bit<Bit>::mark(e, add);
                                      return was != add;
                                  });
}

bool action_change(t_pol_entry *entry, uint8_t action)
{
    if (entry->set_entry.action == action) {
        return false;
    }
    entry->set_entry.action = action;
    return true;
}

/* ---- match arrays ---- */

// One variable match array: its configuration leaf, its items and count.
template <typename T>
struct match_array {
    uint32_t tag;
    T *t_pol_match_entry::*items;
    uint32_t t_pol_match_entry::*count;
};

using M = t_pol_match_entry;
constexpr match_array<t_ipprefix> kPrefixArrays[] = {
    {0x553788af, &M::match_src_ip_list, &M::match_num_src_ip},
    {0x3ade449f, &M::match_src_ipv6_list, &M::match_num_src_ipv6},
    {0x22688857, &M::match_dst_ip_list, &M::match_num_dst_ip},
    {0x7277a1c1, &M::match_dst_ipv6_list, &M::match_num_dst_ipv6},
};
constexpr match_array<t_pol_range> kRangeArrays[] = {
    {0x0f472580, &M::match_src_port_list, &M::match_num_src_port},
    {0x6475b955, &M::match_dst_port_list, &M::match_num_dst_port},
    {0x5b2c4c8c, &M::match_packet_len, &M::match_num_packet_len},
};
constexpr match_array<uint8_t> kByteArrays[] = {
    {0x3838f6e1, &M::match_proto_list, &M::match_num_proto},
    {0x42a50984, &M::match_dscp_list, &M::match_num_dscp},
};
constexpr match_array<uint32_t> kIcmpArrays[] = {
    {0x2ab85e1b, &M::match_icmp_list, &M::match_num_icmp},
    {0x0e190ee1, &M::match_icmp6_list, &M::match_num_icmp6},
};

template <typename T, std::size_t N>
const match_array<T> *array_of_tag(const match_array<T> (&table)[N], uint32_t tag)
{
    for (const match_array<T> &row : table) {
        if (row.tag == tag) {
            return &row;
        }
    }
    return nullptr;
}

// A held array is released when another one takes its place, so nothing
// handed over is ever lost.
template <typename T>
bool array_change(t_pol_match_entry &m, const match_array<T> &row, T *items, uint32_t count)
{
    T *&held = m.*row.items;
    if (count != 0) {
        if (held != nullptr && held != items) {
            pol_free(held, pol_fwd_get_mem_type(row.tag));
        }
        held = items;
        m.*row.count = count;
        return true;
    }
    if (held == nullptr) {
        return false;
    }
    pol_free(held, pol_fwd_get_mem_type(row.tag));
    held = nullptr;
    m.*row.count = 0;
    return true;
}

template <typename T, std::size_t N>
e_err array_upd(const match_array<T> (&table)[N], t_pol_ctx *ctx, const char *pol_name,
                e_pol_type pol_type, const char *vpn_name, uint32_t seq_num, T *items,
                uint32_t count, uint32_t xml_tag)
{
    const match_array<T> *row = array_of_tag(table, xml_tag);
    if (row == nullptr) {
        return ERR_FAIL;
    }
    return pol::fwd::update_entry(ctx, pol_name, pol_type, vpn_name, seq_num,
                                  [&](t_pol_entry *e, t_pol_block *) {
                                      return array_change(e->match_entry, *row, items, count);
                                  });
}

template <typename T, std::size_t N>
void free_arrays(const match_array<T> (&table)[N], t_pol_match_entry &m)
{
    for (const match_array<T> &row : table) {
        pol_free(m.*row.items, pol_fwd_get_mem_type(row.tag));
    }
}

}  // namespace

extern "C" {

/* ---- valued fields ---- */

#define POL_FWD_SCALAR(name, arg_decl, arg, part, field, presence, ...)                            \
    e_err pol_fwd_##name##_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,          \
                               const char *vpn_name, uint32_t seq_num, arg_decl, bool add)         \
    {                                                                                              \
        return scalar_upd<part, field, presence __VA_OPT__(, ) __VA_ARGS__>(ctx, pol_name, pol_type,   \
                                                                     vpn_name, seq_num, arg, add); \
    }

using S = t_pol_set_entry;
POL_FWD_SCALAR(entry_dscp, uint8_t dscp_action, dscp_action, kSet, &S::set_fwd_dscp,
               set_bit<POL_FWD_SET_FLAG_DSCP>)
POL_FWD_SCALAR(entry_nat_use_vpn, uint32_t val, val, kSet, &S::set_nat_vpn_id,
               set_bit<POL_FWD_SET_FLAG_NAT_VPN>)
POL_FWD_SCALAR(entry_nat_pool, uint32_t val, val, kSet, &S::set_nat_pool_id,
               set_bit<POL_FWD_SET_FLAG_NAT_POOL>)
POL_FWD_SCALAR(entry_nat_fallback, bool val, val, kSet, &S::set_nat_fallback,
               set_bit<POL_FWD_SET_FLAG_NAT_FALLBACK>)
POL_FWD_SCALAR(entry_fec, uint32_t val, val, kSet, &S::loss_protection_fec,
               set_bit<POL_FWD_SET_FLAG_FEC>)
POL_FWD_SCALAR(entry_redirect_dns_type, uint8_t type, type, kSet, &S::redirect_dns_type,
               set_bit<POL_FWD_SET_FLAG_REDIRECT_DNS_TYPE>)
POL_FWD_SCALAR(entry_redirect_dns_ip, const t_ipaddr *ip, ip, kSet, &S::redirect_dns_ip_addr,
               set_bit<POL_FWD_SET_FLAG_REDIRECT_DNS_IP>, address)
POL_FWD_SCALAR(local_tloc, const t_local_tloc_id_args *local_tloc_args, local_tloc_args, kSet,
               &S::set_local_tloc, set_bit<POL_FWD_SET_FLAG_LOCAL_TLOC>, local_tloc)
POL_FWD_SCALAR(local_tloc_list, const t_pol_set_local_tloc_list_args *args, args, kSet,
               &S::set_local_tloc_list, set_bit<POL_FWD_SET_FLAG_LOCAL_TLOC_LIST>, local_tloc_list)
POL_FWD_SCALAR(entry_backup_sla_prefer_color, uint32_t color, color, kSet,
               &S::set_backup_sla_preferred_color, set_bit<POL_FWD_SET_FLAG_BACKUP_SLA_COLOR>)
POL_FWD_SCALAR(entry_fwd_class, const char *fwd_class, fwd_class, kSet, &S::set_fwd_class,
               set_bit<POL_FWD_SET_FLAG_FWD_CLASS>, name128)
POL_FWD_SCALAR(entry_count, const char *cnt_name, cnt_name, kSet, &S::set_counter_name,
               set_bit<POL_FWD_SET_FLAG_COUNTER>, name128)
POL_FWD_SCALAR(entry_dns, uint32_t val, val, kMatch, &M::match_dns,
               match_bit<POL_FWD_MATCH_FLAG_DNS>)
POL_FWD_SCALAR(entry_traffic_category, uint32_t val, val, kMatch, &M::match_traf_category,
               match_bit<POL_FWD_MATCH_FLAG_TRAFFIC_CATEGORY>)
POL_FWD_SCALAR(entry_plp, uint32_t val, val, kMatch, &M::match_plp,
               match_bit<POL_FWD_MATCH_FLAG_PLP>)
POL_FWD_SCALAR(entry_tcp, uint32_t val, val, kMatch, &M::match_tcp_flags,
               match_bit<POL_FWD_MATCH_FLAG_TCP>)
POL_FWD_SCALAR(entry_loss_protect, uint32_t val, val, kSet, &S::loss_protect,
               by_value_always_compared)
POL_FWD_SCALAR(entry_next_hop, const t_ipaddr *nh_ip, nh_ip, kSet, &S::next_hop, by_value, address)
POL_FWD_SCALAR(entry_next_hop_v6, const t_ipaddr *nh_ip, nh_ip, kSet, &S::next_hop_ipv6, by_value,
               address)

void pol_fwd_entry_vpn_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                           const char *vpn_name, uint32_t seq_num, uint64_t vpn_id, bool add)
{
    scalar_upd<kSet, &S::set_fwd_vpn_id, set_bit<POL_FWD_SET_FLAG_VPN>>(ctx, pol_name, pol_type,
                                                                        vpn_name, seq_num, vpn_id, add);
}

// Deliberately never compares and never tells the users.
e_err pol_fwd_entry_svc_local_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                  const char *vpn_name, uint32_t seq_num, bool svc_local,
                                  bool svc_local_restrict, bool add)
{
    return pol::fwd::update_entry(ctx, pol_name, pol_type, vpn_name, seq_num,
                                  [&](t_pol_entry *e, t_pol_block *) {
                                      t_pol_set_entry &s = e->set_entry;
                                      s.set_fwd_service_local = add && svc_local;
                                      s.set_fwd_service_local_restrict = add && svc_local_restrict;
                                      set_bit<POL_FWD_SET_FLAG_SERVICE_LOCAL>::mark(e, add && svc_local);
                                      return false;
                                  });
}

/* ---- flag-only actions ---- */

#define POL_FWD_FLAG(name, bit)                                                                 \
    e_err pol_fwd_entry_##name##_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, \
                                     const char *vpn_name, uint32_t seq_num, bool add)          \
    {                                                                                           \
        return flag_upd<bit>(ctx, pol_name, pol_type, vpn_name, seq_num, add);                  \
    }

POL_FWD_FLAG(cflowd, POL_FWD_SET_FLAG_CFLOWD)
POL_FWD_FLAG(tcp_opt, POL_FWD_SET_FLAG_TCP_OPT)
POL_FWD_FLAG(ssl_opt, POL_FWD_SET_FLAG_SSL_OPT)
POL_FWD_FLAG(pkt_dup, POL_FWD_SET_FLAG_PKT_DUP)
POL_FWD_FLAG(cloud_saas, POL_FWD_SET_FLAG_CLOUD_SAAS)
POL_FWD_FLAG(log, POL_FWD_SET_FLAG_LOG)
POL_FWD_FLAG(sig, POL_FWD_SET_FLAG_SIG)

/* ---- the sequence's action ---- */

e_err pol_fwd_entry_action_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                               const char *vpn_name, uint32_t seq_num, uint8_t action)
{
    return pol::fwd::update_entry(ctx, pol_name, pol_type, vpn_name, seq_num,
                                  [&](t_pol_entry *e, t_pol_block *) { return action_change(e, action); });
}

e_err pol_fwd_default_entry_action_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                       const char *vpn_name, uint8_t action)
{
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_default_pol_entry_get(ctx, pol_name, pol_type, vpn_name, &block);
    if (entry == nullptr) {
        return ERR_NOT_FOUND;
    }
    if (action_change(entry, action)) {
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return ERR_OK;
}

/* ---- match arrays ---- */

e_err pol_fwd_entry_pfx_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                            const char *vpn_name, uint32_t seq_num, t_ipprefix *pfx_list,
                            uint32_t count, uint32_t xml_tag)
{
    return array_upd(kPrefixArrays, ctx, pol_name, pol_type, vpn_name, seq_num, pfx_list, count, xml_tag);
}

e_err pol_fwd_entry_range_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                     const char *vpn_name, uint32_t seq_num, t_pol_range *ranges,
                                     uint32_t count, uint32_t xml_tag)
{
    return array_upd(kRangeArrays, ctx, pol_name, pol_type, vpn_name, seq_num, ranges, count, xml_tag);
}

e_err pol_fwd_entry_list_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                    const char *vpn_name, uint32_t seq_num, uint8_t *values,
                                    uint32_t count, uint32_t xml_tag)
{
    return array_upd(kByteArrays, ctx, pol_name, pol_type, vpn_name, seq_num, values, count, xml_tag);
}

e_err pol_fwd_entry_icmp_list_config_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                         const char *vpn_name, uint32_t seq_num, uint32_t *values,
                                         uint32_t count, uint32_t xml_tag)
{
    return array_upd(kIcmpArrays, ctx, pol_name, pol_type, vpn_name, seq_num, values, count, xml_tag);
}

// Only on the way to freeing the sequence: the pointers are left as they are.
void pol_fwd_entry_match_cleanup(t_pol_ctx *, t_pol_entry *entry, uint8_t *changed)
{
    t_pol_match_entry &m = entry->match_entry;
    free_arrays(kPrefixArrays, m);
    free_arrays(kRangeArrays, m);
    free_arrays(kByteArrays, m);
    free_arrays(kIcmpArrays, m);
    pol::mark_changed(changed);
}

}  // extern "C"
