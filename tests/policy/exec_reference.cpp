// The plain evaluator: sequences sorted by number, conditions in their
// fixed order, each list condition a walk over the list's entries in
// queue order, set actions in their fixed order. Nothing here is
// clever on purpose; every step can be checked against the rules by eye.
#include "exec_reference.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace execref {

namespace {

/* ---- values ---- */

bool has(const t_zen_attr &attr, uint64_t bit)
{
    return (attr.attr_flags & bit) != 0;
}

bool within(uint64_t lo, uint64_t value, uint64_t hi)
{
    return lo <= value && value <= hi;
}

unsigned width_of(e_ipaddr_type type)
{
    return type == IP_ADDR_V4 ? 32 : (type == IP_ADDR_V6 ? 128 : 0);
}

// Address identity: same family, then the family's bytes (an IPv4 address
// is its first four bytes only).
bool same_addr(const t_ipaddr &a, const t_ipaddr &b)
{
    return a.addr_type == b.addr_type && std::memcmp(a.u.addr6_b, b.u.addr6_b, a.addr_type == IP_ADDR_V4 ? 4 : 16) == 0;
}

bool same_tloc(const t_tloc_id &a, const t_tloc_id &b)
{
    return same_addr(a.addr, b.addr) && a.color == b.color && a.encap == b.encap;
}

// An all-zero address; an address of no known family counts as zero.
bool addr_is_zero(const t_ipaddr &a)
{
    const uint8_t *bytes = a.u.addr6_b;
    return std::all_of(bytes, bytes + width_of(a.addr_type) / 8, [](uint8_t b) { return b == 0; });
}

// Bit i (0 = most significant) of the address bytes.
int bit_at(const t_ipaddr &a, unsigned i)
{
    return (a.u.addr6_b[i / 8] >> (7 - i % 8)) & 1;
}

// inner lies within outer: same family, at least as long, and equal on
// outer's leading bits. A length past the family's width is a host route.
bool prefix_within(const t_ipprefix &inner, const t_ipprefix &outer)
{
    unsigned width = width_of(outer.addr.addr_type);
    unsigned outer_len = std::min<unsigned>(outer.prefixlen, width);
    unsigned inner_len = std::min<unsigned>(inner.prefixlen, width);
    if (width == 0 || inner.addr.addr_type != outer.addr.addr_type || inner_len < outer_len) {
        return false;
    }
    for (unsigned i = 0; i < outer_len; i++) {
        if (bit_at(inner.addr, i) != bit_at(outer.addr, i)) {
            return false;
        }
    }
    return true;
}

// The route's communities as text, blank-separated, the well-known values
// by name. The callers keep routes far below the 512-byte text the
// rendering is bounded by.
std::string communities_text(const t_bgp_community &comms)
{
    static const std::pair<uint32_t, const char *> kNamed[] = {
        {0x00000000u, "internet"}, {0xFFFFFF01u, "no-export"},
        {0xFFFFFF02u, "no-advertise"}, {0xFFFFFF03u, "local-AS"}};
    std::string text;
    for (uint32_t i = 0; i < comms.n_communities; i++) {
        uint32_t v = comms.communities[i];
        auto named = std::find_if(std::begin(kNamed), std::end(kNamed), [v](const auto &n) { return n.first == v; });
        text += i > 0 ? " " : "";
        text += named != std::end(kNamed) ? named->second : std::to_string(v >> 16) + ":" + std::to_string(v & 0xFFFFu);
    }
    return text;
}

// Whether an entry of a list, walked in queue order, satisfies pred. A
// missing list has no entries; pred may also do something with each entry
// and answer true to stop the walk.
template <typename List, typename Head, typename Entry, typename Link, typename Pred>
bool any_entry(const List *list, Head List::*head, Link Entry::*link, Pred pred)
{
    for (const Entry *e = list != nullptr ? (list->*head).tqh_first : nullptr; e != nullptr; e = (e->*link).tqe_next) {
        if (pred(*e)) {
            return true;
        }
    }
    return false;
}

/* ---- the route ---- */

struct route {
    t_pol_exec_params *params;
    const t_zen_attr &attr() const { return *params->attr_in_p; }
    uint64_t vpn() const { return params->u.vroute_info.vpn_id; }
    // A TLOC route has no VPN id and only a virtual route has a prefix:
    // the union holds something else for the other kinds.
    bool has_vpn() const { return params->safi == 1 || params->safi == 3; }
    bool has_prefix() const { return params->safi == 1; }
};

// A TLOC sequence looks at the TLOC route's own locator; every other
// sequence at the route's TLOC attribute.
const t_tloc_id &route_tloc(const t_pol_match_entry &m, const route &r)
{
    return m.match_type == POL_MATCH_TLOC ? r.params->u.tloc_info.tloc : r.attr().tloc;
}

bool tloc_known(const t_pol_match_entry &m, const route &r)
{
    return m.match_type == POL_MATCH_TLOC || has(r.attr(), ZEN_ATTR_FLAG_TLOC);
}

/* ---- conditions ---- */

// The route lengths an entry admits, as a closed window [lo, hi] of
// lengths, with the entry's own length cut out for "not equal". Written
// from what each operator means: the exact prefix, a range with its ends
// in or out, everything up to or from a bound, everything but its own
// length. An empty window (lo > hi) admits nothing.
struct length_window {
    int lo, hi;
    bool except_own;
};

length_window window_of(const t_pfx_entry &e)
{
    const int own = e.prefix.prefixlen, min = e.preflen_min, max = e.preflen_max;
    const int any = 255;  // no upper limit: the longest length a route can state
    switch (e.pfx_op) {
    case PFX_OP_NONE:
    case PFX_OP_EQ: return {own, own, false};
    case PFX_OP_NE: return {0, any, true};
    case PFX_OP_RANGE: return {min, max, false};
    case PFX_OP_XRANGE: return {min + 1, max - 1, false};
    case PFX_OP_LE: return {0, max, false};
    case PFX_OP_LT: return {0, min - 1, false};  // the lower bound field, by design
    case PFX_OP_GE: return {min, any, false};
    case PFX_OP_GT: return {min + 1, any, false};
    default: return {1, 0, false};
    }
}

// The route's length lies in the entry's window, and the route's first N
// bits equal the entry's (N the entry's length, the route at least that
// long), unless the entry admits routes anywhere: an all-zero prefix of
// length 0 whose operator does not compare with the entry's own length.
bool pfx_entry_matches(const t_pfx_entry &e, const t_ipprefix &pfx)
{
    const length_window w = window_of(e);
    const int len = pfx.prefixlen;
    if (len < w.lo || len > w.hi || (w.except_own && len == e.prefix.prefixlen)) {
        return false;
    }
    bool reads_own = e.pfx_op == PFX_OP_NONE || e.pfx_op == PFX_OP_EQ || e.pfx_op == PFX_OP_NE;
    bool anywhere = addr_is_zero(e.prefix.addr) && e.prefix.prefixlen == 0 && !reads_own;
    return anywhere || prefix_within(pfx, e.prefix);
}

// A list of the other family than the route's holds nothing for it.
bool pfx_list_holds(const t_pfx_list *list, const t_ipprefix &pfx)
{
    bool v4 = pfx.addr.addr_type == IP_ADDR_V4;
    if (list == nullptr || list->pfx_af != (v4 ? POL_AF_IPV4 : POL_AF_IPV6)) {
        return false;
    }
    return any_entry(list, &t_pfx_list::pfx_entry_head, &t_pfx_entry::pfx_entry,
                     [&](const t_pfx_entry &e) { return pfx_entry_matches(e, pfx); });
}

// A standard list holds a value among the route's communities; an
// expanded one a pattern that finds the route's community text.
bool community_list_holds(const t_community_list *list, const t_bgp_community *comms)
{
    if (list == nullptr || comms == nullptr) {
        return false;
    }
    const uint32_t *values = comms->communities, n = comms->n_communities;
    std::string text = communities_text(*comms);
    return any_entry(list, &t_community_list::community_entry_head, &t_community_entry::community_entry,
                     [&](const t_community_entry &e) {
                         return list->type == COMM_LIST_TYPE_STANDARD
                                    ? std::find(values, values + n, e.community) != values + n
                                    : regexec(&e.comppattern, text.c_str(), 0, nullptr, 0) == 0;
                     });
}

// Protocol 4 pairs its subtypes: 3 also admits 5, and 4 also admits 6.
bool origin_holds(const t_pol_match_entry &m, const t_zen_attr &attr)
{
    unsigned p = attr.origin.proto, s = attr.origin.proto_sub_type, want = m.match_origin_subtype;
    if (!has(attr, ZEN_ATTR_FLAG_ORIGIN)) {
        return false;
    }
    if (p != 4) {
        return p == m.match_origin_type && s == want;
    }
    return s == want || ((want == 3 || want == 4) && s == want + 2);
}

// One row a condition: its name, its sequence bit, whether a holding
// condition records its bit in the execution, and what it means.
using holds_f = bool (*)(const t_pol_match_entry &, const route &, const t_zen_attr &);
struct condition_row {
    const char *name;
    uint64_t bit;
    bool records;
    holds_f holds;
};

#define HOLDS(...)                                                                                        \
    []([[maybe_unused]] const t_pol_match_entry &m, [[maybe_unused]] const route &r,                      \
       [[maybe_unused]] const t_zen_attr &a) -> bool { return __VA_ARGS__; }

const condition_row kConditions[] = {
    {"tag", 0x20, true, HOLDS(has(a, ZEN_ATTR_FLAG_TAG) && a.tag == m.match_tag)},
    {"origin metric", 0x4000, true,
     HOLDS(has(a, ZEN_ATTR_FLAG_ORIGIN_METRIC) && a.origin.proto_metric == m.match_origin_metric)},
    {"preference", 0x40, true, HOLDS(has(a, ZEN_ATTR_FLAG_PREFERENCE) && a.preference == m.match_preference)},
    {"domain", 0x80, true, HOLDS(has(a, ZEN_ATTR_FLAG_DOMAIN_ID) && a.domain_id == m.match_domain)},
    {"group", 0x2000, true,
     HOLDS(has(a, ZEN_ATTR_FLAG_GROUP) &&
           std::find(a.group_list, a.group_list + a.group_count, m.match_group) != a.group_list + a.group_count)},
    {"vpn id", 0x100, true, HOLDS(r.has_vpn() && r.vpn() == m.match_vpn_id)},
    {"vpn list", 0x200, false,
     HOLDS(r.has_vpn() &&
           any_entry(m.match_vpn_list_p, &t_vpn_list::vpn_entry_head, &t_pol_vpn_entry::vpn_entry,
                     [&](const t_pol_vpn_entry &e) { return within(e.min_vpn_id, r.vpn(), e.max_vpn_id); }))},
    {"tloc", 0x8, true, HOLDS(tloc_known(m, r) && same_tloc(route_tloc(m, r), m.match_tloc))},
    {"tloc list", 0x4, false,
     HOLDS(any_entry(m.match_tloc_list_p, &t_tloc_list::tloc_entry_head, &t_tloc_entry::tloc_entry,
                     [&](const t_tloc_entry &e) { return same_tloc(e.tloc, route_tloc(m, r)); }))},
    {"site", 0x2, true, HOLDS(has(a, ZEN_ATTR_FLAG_SITE_ID) && a.site_id == m.match_site_id)},
    {"site list", 0x1, false,
     HOLDS(any_entry(m.match_site_list_p, &t_site_list::site_entry_head, &t_site_entry::site_entry,
                     [&](const t_site_entry &e) { return within(e.min_site_id, a.site_id, e.max_site_id); }))},
    {"community list", 0x40000000, false, HOLDS(community_list_holds(m.match_community_list_p, a.community_p))},
    {"expanded community list", 0x80000000, false,
     HOLDS(community_list_holds(m.match_exp_community_list_p, a.community_p))},
    {"prefix list", 0x10, false,
     HOLDS(r.has_prefix() && pfx_list_holds(m.match_pfx_list_p, r.params->u.vroute_info.prefix))},
    {"origin", 0x400, true, HOLDS(origin_holds(m, a))},
    {"originator", 0x800, true,
     HOLDS(has(a, ZEN_ATTR_FLAG_ORIGINATOR) && m.match_originator.addr_type == IP_ADDR_V4 &&
           a.originator == m.match_originator.u.addr4.s_addr)},
    {"carrier", 0x1000, true, HOLDS(has(a, ZEN_ATTR_FLAG_CARRIER) && a.carrier == m.match_carrier)},
    {"color", 0x100000, true, HOLDS(tloc_known(m, r) && route_tloc(m, r).color == m.match_color)},
    {"color list", 0x200000, false,
     HOLDS(any_entry(m.match_color_list_p, &t_color_list::color_entry_head, &t_color_entry::color_entry,
                     [&](const t_color_entry &e) { return e.color == route_tloc(m, r).color; }))},
};
#undef HOLDS
static_assert(std::size(kConditions) == COND_COUNT);

bool kind_fits(const t_pol_match_entry &m, uint8_t safi)
{
    return (safi == 1 && m.match_type == POL_MATCH_VROUTE) || (safi == 2 && m.match_type == POL_MATCH_TLOC) ||
           (safi == 3 && m.match_type == POL_MATCH_SERVICE);
}

bool sequence_matches(const t_pol_entry &seq, const route &r, stats *st)
{
    const t_pol_match_entry &m = seq.match_entry;
    if (!kind_fits(m, r.params->safi)) {
        return false;
    }
    for (int kind = 0; kind < COND_COUNT; kind++) {
        const condition_row &row = kConditions[kind];
        if ((seq.entry_match_flags & row.bit) == 0) {
            continue;
        }
        bool holds = row.holds(m, r, r.attr());
        (holds ? st->held : st->failed)[kind]++;
        if (!holds) {
            return false;
        }
        r.params->entry_match_flags |= row.records ? row.bit : 0;
    }
    return true;
}

/* ---- set actions ---- */

// Which route kind and user direction each action applies to.
bool action_applies(uint64_t seq_bit, uint8_t safi, e_pol_dir dir)
{
    switch (seq_bit) {
    case 0x1: case 0x4:  // tag, preference
        return safi == 1 || safi == 2;
    case 0x2: case 0x20: case 0x40:  // TLOC, TLOC list, service
        return safi == 1 && dir == POL_DIR_OUT;
    case 0x8: case 0x10:  // VPN id, VPN list
        return safi == 1 && dir == POL_DIR_IN;
    default:  // community, the rule of both community actions
        return seq_bit == 0x200000000ULL && safi == 1;
    }
}

struct setter {
    t_pol_user *user;
    const t_pol_set_entry &set;
    uint64_t flags;  // the sequence's set flags
    t_pol_exec_params *p;
    e_pol_action *action;
    stats *st;

    bool wants(uint64_t bit) const { return (flags & bit) != 0 && action_applies(bit, p->safi, user->pol_direction); }

    void done(uint64_t bit, int kind) const
    {
        p->entry_set_flags |= bit;
        st->applied[kind]++;
    }

    void label(const t_tloc_id &tloc, uint64_t vpn, uint16_t service, uint32_t preference) const
    {
        uint32_t addr = tloc.addr.addr_type == IP_ADDR_V4 ? tloc.addr.u.addr4.s_addr : 0;
        user->pol_label_cb(p->afi, addr, tloc.color, tloc.encap, vpn, service, false, nullptr, nullptr, p->te_info_p,
                           preference);
    }

    // After the labels of a TLOC action: the route's own TLOC is appended
    // unless the ultimate action is 0 or 1; with neither labels nor that
    // fallback, the accept becomes a reject.
    void ultimate_step() const
    {
        t_pol_te_info *te = p->te_info_p;
        te->ultimate_tloc_action = set.set_ultimate_action;
        if (set.set_ultimate_action != 0 && set.set_ultimate_action != 1) {
            te->entries[te->num_entries++] = t_pol_te{p->in_label, p->attr_out.preference, p->attr_out.tloc};
            st->ultimate_fallback++;
        } else if (te->num_entries == 0) {
            *action = POL_ACTION_REJECT;
            st->unresolved_tloc++;
        }
    }

    // The export buffer, calloc'ed on first use; false when there is none.
    bool vpn_buffer() const
    {
        t_pol_vpn_list &list = p->vpn_list;
        if (list.vpn_list_p == nullptr) {
            void *buffer = std::calloc(POL_MAX_VPN, sizeof(t_pol_exec_vpn_entry));
            list.vpn_list_p = static_cast<t_pol_exec_vpn_entry *>(buffer);
        }
        return list.vpn_list_p != nullptr;
    }

    // A range appended to the export buffer while it has room.
    bool export_vpns(uint64_t lo, uint64_t hi) const
    {
        t_pol_vpn_list &list = p->vpn_list;
        if (list.num_vpn_entries < POL_MAX_VPN) {
            list.vpn_list_p[list.num_vpn_entries++] = t_pol_exec_vpn_entry{lo, hi};
        } else {
            st->vpn_truncated++;
        }
        return false;
    }

    // A single TLOC, the set one or the service's, through the callback
    // when there is one.
    void resolve(uint64_t bit, int kind, const t_tloc_id &tloc, uint64_t vpn, uint16_t service) const
    {
        p->te_info_p->num_entries = 0;
        if (user->pol_label_cb != nullptr) {
            label(tloc, vpn, service, 0);
        }
        ultimate_step();
        done(bit, kind);
    }

    void run() const
    {
        t_zen_attr &out = p->attr_out;
        t_pol_te_info *te = p->te_info_p;
        if (wants(0x1)) {
            out.tag = set.set_tag;
            out.attr_flags |= ZEN_ATTR_FLAG_TAG;
            done(0x1, SET_TAG);
        }
        if (wants(0x4)) {
            out.preference = set.set_preference;
            out.attr_flags |= ZEN_ATTR_FLAG_PREFERENCE;
            done(0x4, SET_PREFERENCE);
        }
        if (wants(0x2)) {
            resolve(0x2, SET_TLOC, set.set_tloc, p->u.vroute_info.vpn_id, 0);
        }
        if (wants(0x8) && vpn_buffer()) {
            export_vpns(set.export_vpn_id, set.export_vpn_id);
            done(0x8, SET_VPN_ID);
        }
        if (wants(0x10) && set.export_vpn_list_p != nullptr && vpn_buffer()) {  // records the VPN id bit
            any_entry(set.export_vpn_list_p, &t_vpn_list::vpn_entry_head, &t_pol_vpn_entry::vpn_entry,
                      [&](const t_pol_vpn_entry &e) { return export_vpns(e.min_vpn_id, e.max_vpn_id); });
            done(0x8, SET_VPN_LIST);
        }
        uint64_t vpn = set.set_svc_vpn_id != 0 ? set.set_svc_vpn_id : p->u.vroute_info.vpn_id;
        if (wants(0x20)) {  // a TLOC list, when there is one, wins over the service
            if (set.tloc_list_p != nullptr && te != nullptr) {
                te->num_entries = 0;
                any_entry(set.tloc_list_p, &t_tloc_list::tloc_entry_head, &t_tloc_entry::tloc_entry,
                          [&](const t_tloc_entry &e) {
                              label(e.tloc, vpn, set.set_service, e.route_preference);
                              return te->num_entries >= POL_MAX_TE_ENTRIES;
                          });
                ultimate_step();
                done(0x20, SET_TLOC_LIST);
            }
        } else if (wants(0x40)) {
            resolve(0x40, SET_SERVICE, set.set_svc_tloc, vpn, set.set_service);
        }
        uint64_t community = flags & 0x400000000ULL ? 0x400000000ULL : flags & 0x200000000ULL;  // additive wins
        if (community != 0 && action_applies(0x200000000ULL, p->safi, user->pol_direction)) {
            p->set_community_p = set.set_community;
            done(community, community == 0x400000000ULL ? SET_COMMUNITY_ADDITIVE : SET_COMMUNITY);
        }
    }
};

e_pol_action decide(t_pol_user *user, const t_pol_entry &seq, t_pol_exec_params *params, stats *st)
{
    e_pol_action action = seq.entry_action;
    if (action == POL_ACTION_ACCEPT) {
        setter{user, seq.set_entry, seq.entry_set_flags, params, &action, st}.run();
    }
    return action;
}

}  // namespace

const char *condition_name(int kind)
{
    return kind >= 0 && kind < COND_COUNT ? kConditions[kind].name : "?";
}

const char *set_name(int kind)
{
    static const char *const kNames[SET_COUNT] = {"tag",       "preference", "tloc",      "vpn id",
                                                  "vpn list",  "tloc list",  "service",   "community",
                                                  "community additive"};
    return kind >= 0 && kind < SET_COUNT ? kNames[kind] : "?";
}

e_pol_action execute(t_pol_user *user, t_pol_exec_params *params, stats *st)
{
    static thread_local stats unread;  // the counts of a caller that wants none
    st = st != nullptr ? st : &unread;
    e_pol_action action = POL_ACTION_REJECT;
    t_pol_block *block = nullptr;
    if (user != nullptr && params != nullptr && params->attr_in_p != nullptr) {
        params->entry_match_flags = 0;
        params->entry_set_flags = 0;
        params->attr_out = *params->attr_in_p;
        block = user->pol_block_p;
    }
    if (block != nullptr) {
        std::vector<const t_pol_entry *> sequences;
        avl_foreach(&block->pol_entries, [](void *record, void *arg) {
            static_cast<std::vector<const t_pol_entry *> *>(arg)->push_back(static_cast<const t_pol_entry *>(record));
            return 0;
        }, &sequences);
        std::sort(sequences.begin(), sequences.end(),
                  [](const t_pol_entry *a, const t_pol_entry *b) { return a->entry_num < b->entry_num; });
        auto first = std::find_if(sequences.begin(), sequences.end(), [&](const t_pol_entry *seq) {
            params->entry_match_flags = 0;
            return sequence_matches(*seq, route{params}, st);
        });
        st->by_default += first == sequences.end() ? 1 : 0;
        action = decide(user, first != sequences.end() ? **first : block->default_action_entry, params, st);
    }
    (action == POL_ACTION_ACCEPT ? st->accepted : action == POL_ACTION_REJECT ? st->rejected : st->invalid)++;
    return action;
}

void release(t_pol_exec_params *params)
{
    std::free(params->vpn_list.vpn_list_p);
    params->vpn_list.vpn_list_p = nullptr;
    params->vpn_list.num_vpn_entries = 0;
}

}  // namespace execref
