// The plain evaluator: sequences sorted by number, conditions in their
// fixed order, each list condition a walk over the list's entries in
// queue order, set actions in their fixed order. Nothing here is
// clever on purpose; every step can be checked against the rules by eye.
#include "exec_reference.hpp"

#include <algorithm>
#include <cstdio>
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

// Address identity: same family, then the family's bytes (an IPv4 address
// is its first four bytes only).
bool same_addr(const t_ipaddr &a, const t_ipaddr &b)
{
    if (a.addr_type != b.addr_type) {
        return false;
    }
    if (a.addr_type == IP_ADDR_V4) {
        return std::memcmp(a.u.addr6_b, b.u.addr6_b, 4) == 0;
    }
    return std::memcmp(a.u.addr6_b, b.u.addr6_b, 16) == 0;
}

bool same_tloc(const t_tloc_id &a, const t_tloc_id &b)
{
    return same_addr(a.addr, b.addr) && a.color == b.color && a.encap == b.encap;
}

// An all-zero address; an address of no known family counts as zero.
bool addr_is_zero(const t_ipaddr &a)
{
    unsigned bytes = 0;
    if (a.addr_type == IP_ADDR_V4) {
        bytes = 4;
    } else if (a.addr_type == IP_ADDR_V6) {
        bytes = 16;
    } else {
        return true;
    }
    for (unsigned i = 0; i < bytes; i++) {
        if (a.u.addr6_b[i] != 0) {
            return false;
        }
    }
    return true;
}

unsigned width_of(e_ipaddr_type type)
{
    return type == IP_ADDR_V4 ? 32 : (type == IP_ADDR_V6 ? 128 : 0);
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
    if (width == 0 || inner.addr.addr_type != outer.addr.addr_type) {
        return false;
    }
    unsigned inner_len = std::min<unsigned>(inner.prefixlen, width);
    unsigned outer_len = std::min<unsigned>(outer.prefixlen, width);
    if (inner_len < outer_len) {
        return false;
    }
    for (unsigned i = 0; i < outer_len; i++) {
        if (bit_at(inner.addr, i) != bit_at(outer.addr, i)) {
            return false;
        }
    }
    return true;
}

uint32_t ipv4_word(const t_ipaddr &a)
{
    return a.addr_type == IP_ADDR_V4 ? a.u.addr4.s_addr : 0;
}

/* ---- community text ---- */

std::string community_text(uint32_t value)
{
    switch (value) {
    case 0x00000000u:
        return "internet";
    case 0xFFFFFF01u:
        return "no-export";
    case 0xFFFFFF02u:
        return "no-advertise";
    case 0xFFFFFF03u:
        return "local-AS";
    default:
        return std::to_string(value >> 16) + ":" + std::to_string(value & 0xFFFFu);
    }
}

// The route's communities, blank-separated. The callers keep routes far
// below the 512-byte text the rendering is bounded by.
std::string communities_text(const t_bgp_community &comms)
{
    std::string text;
    for (uint32_t i = 0; i < comms.n_communities; i++) {
        if (i > 0) {
            text += ' ';
        }
        text += community_text(comms.communities[i]);
    }
    return text;
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
    int lo;
    int hi;
    bool except_own;
};

length_window window_of(const t_pfx_entry &e)
{
    const int own = e.prefix.prefixlen, min = e.preflen_min, max = e.preflen_max;
    const int any = 255;  // no upper limit: the longest length a route can state
    switch (e.pfx_op) {
    case PFX_OP_NONE:
    case PFX_OP_EQ:
        return {own, own, false};
    case PFX_OP_NE:
        return {0, any, true};
    case PFX_OP_RANGE:
        return {min, max, false};
    case PFX_OP_XRANGE:
        return {min + 1, max - 1, false};
    case PFX_OP_LE:
        return {0, max, false};
    case PFX_OP_LT:  // the lower bound field, by design
        return {0, min - 1, false};
    case PFX_OP_GE:
        return {min, any, false};
    case PFX_OP_GT:
        return {min + 1, any, false};
    default:
        return {1, 0, false};
    }
}

// An all-zero prefix of length 0 whose operator does not compare with the
// entry's own length admits routes anywhere.
bool matches_anywhere(const t_pfx_entry &e)
{
    bool reads_own = e.pfx_op == PFX_OP_NONE || e.pfx_op == PFX_OP_EQ || e.pfx_op == PFX_OP_NE;
    return addr_is_zero(e.prefix.addr) && e.prefix.prefixlen == 0 && !reads_own;
}

// The route's length lies in the entry's window, and the route's first N
// bits equal the entry's (N the entry's length, the route at least that
// long), unless the entry admits routes anywhere.
bool pfx_entry_matches(const t_pfx_entry &e, const t_ipprefix &pfx)
{
    const length_window w = window_of(e);
    const int len = pfx.prefixlen;
    if (len < w.lo || len > w.hi || (w.except_own && len == e.prefix.prefixlen)) {
        return false;
    }
    return matches_anywhere(e) || prefix_within(pfx, e.prefix);
}

bool pfx_list_holds(const t_pfx_list *list, const route &r)
{
    if (list == nullptr) {
        return false;
    }
    const t_ipprefix &pfx = r.params->u.vroute_info.prefix;
    bool v4 = pfx.addr.addr_type == IP_ADDR_V4;
    if ((v4 && list->pfx_af == POL_AF_IPV6) || (!v4 && list->pfx_af == POL_AF_IPV4)) {
        return false;
    }
    for (const t_pfx_entry *e = TAILQ_FIRST(&list->pfx_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, pfx_entry)) {
        if (pfx_entry_matches(*e, pfx)) {
            return true;
        }
    }
    return false;
}

bool community_list_holds(const t_community_list *list, const route &r)
{
    const t_bgp_community *comms = r.attr().community_p;
    if (list == nullptr || comms == nullptr) {
        return false;
    }
    std::string text = communities_text(*comms);
    for (const t_community_entry *e = TAILQ_FIRST(&list->community_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, community_entry)) {
        if (list->type == COMM_LIST_TYPE_STANDARD) {
            for (uint32_t i = 0; i < comms->n_communities; i++) {
                if (comms->communities[i] == e->community) {
                    return true;
                }
            }
        } else if (regexec(&e->comppattern, text.c_str(), 0, nullptr, 0) == 0) {
            return true;
        }
    }
    return false;
}

bool vpn_list_holds(const t_vpn_list *list, uint64_t vpn)
{
    if (list == nullptr) {
        return false;
    }
    for (const t_pol_vpn_entry *e = TAILQ_FIRST(&list->vpn_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, vpn_entry)) {
        if (e->min_vpn_id <= vpn && vpn <= e->max_vpn_id) {
            return true;
        }
    }
    return false;
}

bool site_list_holds(const t_site_list *list, uint32_t site)
{
    if (list == nullptr) {
        return false;
    }
    for (const t_site_entry *e = TAILQ_FIRST(&list->site_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, site_entry)) {
        if (e->min_site_id <= site && site <= e->max_site_id) {
            return true;
        }
    }
    return false;
}

bool tloc_list_holds(const t_tloc_list *list, const t_tloc_id &tloc)
{
    if (list == nullptr) {
        return false;
    }
    for (const t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, tloc_entry)) {
        if (same_tloc(e->tloc, tloc)) {
            return true;
        }
    }
    return false;
}

bool color_list_holds(const t_color_list *list, uint8_t color)
{
    if (list == nullptr) {
        return false;
    }
    for (const t_color_entry *e = TAILQ_FIRST(&list->color_entry_head); e != nullptr;
         e = TAILQ_NEXT(e, color_entry)) {
        if (e->color == color) {
            return true;
        }
    }
    return false;
}

bool origin_holds(const t_pol_match_entry &m, const t_zen_attr &attr)
{
    if (!has(attr, ZEN_ATTR_FLAG_ORIGIN)) {
        return false;
    }
    unsigned p = attr.origin.proto;
    unsigned s = attr.origin.proto_sub_type;
    if (p != 4) {
        return p == m.match_origin_type && s == m.match_origin_subtype;
    }
    if (m.match_origin_subtype == 3) {
        return s == 3 || s == 5;
    }
    if (m.match_origin_subtype == 4) {
        return s == 4 || s == 6;
    }
    return s == m.match_origin_subtype;
}

bool group_holds(const t_pol_match_entry &m, const t_zen_attr &attr)
{
    if (!has(attr, ZEN_ATTR_FLAG_GROUP) || attr.group_count == 0) {
        return false;
    }
    for (unsigned i = 0; i < attr.group_count; i++) {
        if (attr.group_list[i] == m.match_group) {
            return true;
        }
    }
    return false;
}

bool condition_holds(int kind, const t_pol_match_entry &m, const route &r)
{
    const t_zen_attr &a = r.attr();
    switch (kind) {
    case COND_TAG:
        return has(a, ZEN_ATTR_FLAG_TAG) && a.tag == m.match_tag;
    case COND_ORIGIN_METRIC:
        return has(a, ZEN_ATTR_FLAG_ORIGIN_METRIC) && a.origin.proto_metric == m.match_origin_metric;
    case COND_PREFERENCE:
        return has(a, ZEN_ATTR_FLAG_PREFERENCE) && a.preference == m.match_preference;
    case COND_DOMAIN:
        return has(a, ZEN_ATTR_FLAG_DOMAIN_ID) && a.domain_id == m.match_domain;
    case COND_GROUP:
        return group_holds(m, a);
    case COND_VPN_ID:
        return r.has_vpn() && r.vpn() == m.match_vpn_id;
    case COND_VPN_LIST:
        return r.has_vpn() && vpn_list_holds(m.match_vpn_list_p, r.vpn());
    case COND_TLOC:
        return tloc_known(m, r) && same_tloc(route_tloc(m, r), m.match_tloc);
    case COND_TLOC_LIST:
        return tloc_list_holds(m.match_tloc_list_p, route_tloc(m, r));
    case COND_SITE:
        return has(a, ZEN_ATTR_FLAG_SITE_ID) && a.site_id == m.match_site_id;
    case COND_SITE_LIST:
        return site_list_holds(m.match_site_list_p, a.site_id);
    case COND_COMMUNITY_LIST:
        return community_list_holds(m.match_community_list_p, r);
    case COND_EXP_COMMUNITY_LIST:
        return community_list_holds(m.match_exp_community_list_p, r);
    case COND_PFX_LIST:
        return r.has_prefix() && pfx_list_holds(m.match_pfx_list_p, r);
    case COND_ORIGIN:
        return origin_holds(m, a);
    case COND_ORIGINATOR:
        return has(a, ZEN_ATTR_FLAG_ORIGINATOR) && m.match_originator.addr_type == IP_ADDR_V4 &&
               a.originator == m.match_originator.u.addr4.s_addr;
    case COND_CARRIER:
        return has(a, ZEN_ATTR_FLAG_CARRIER) && a.carrier == m.match_carrier;
    case COND_COLOR:
        return tloc_known(m, r) && route_tloc(m, r).color == m.match_color;
    case COND_COLOR_LIST:
        return color_list_holds(m.match_color_list_p, route_tloc(m, r).color);
    default:
        return false;
    }
}

// Sequence bit of each condition, in evaluation order, and whether a
// holding condition records its bit in the execution.
struct condition_row {
    uint64_t bit;
    bool records;
};

const condition_row kRows[COND_COUNT] = {
    {0x20, true},          // tag
    {0x4000, true},        // origin metric
    {0x40, true},          // preference
    {0x80, true},          // domain
    {0x2000, true},        // group
    {0x100, true},         // VPN id
    {0x200, false},        // VPN list
    {0x8, true},           // TLOC
    {0x4, false},          // TLOC list
    {0x2, true},           // site
    {0x1, false},          // site list
    {0x40000000, false},   // standard community list
    {0x80000000, false},   // expanded community list
    {0x10, false},         // prefix list
    {0x400, true},         // origin
    {0x800, true},         // originator
    {0x1000, true},        // carrier
    {0x100000, true},      // colour
    {0x200000, false},     // colour list
};

bool kind_fits(const t_pol_match_entry &m, uint8_t safi)
{
    return (safi == 1 && m.match_type == POL_MATCH_VROUTE) ||
           (safi == 2 && m.match_type == POL_MATCH_TLOC) ||
           (safi == 3 && m.match_type == POL_MATCH_SERVICE);
}

bool sequence_matches(const t_pol_entry &seq, const route &r, stats *st)
{
    const t_pol_match_entry &m = seq.match_entry;
    if (!kind_fits(m, r.params->safi)) {
        return false;
    }
    for (int kind = 0; kind < COND_COUNT; kind++) {
        if ((seq.entry_match_flags & kRows[kind].bit) == 0) {
            continue;
        }
        bool holds = condition_holds(kind, m, r);
        if (st != nullptr) {
            (holds ? st->held : st->failed)[kind]++;
        }
        if (!holds) {
            return false;
        }
        if (kRows[kind].records) {
            r.params->entry_match_flags |= kRows[kind].bit;
        }
    }
    return true;
}

/* ---- set actions ---- */

// Which route kind and user direction each action applies to.
bool action_applies(uint64_t seq_bit, uint8_t safi, e_pol_dir dir)
{
    switch (seq_bit) {
    case 0x1:   // tag
    case 0x4:   // preference
        return safi == 1 || safi == 2;
    case 0x2:   // TLOC
    case 0x20:  // TLOC list
    case 0x40:  // service
        return safi == 1 && dir == POL_DIR_OUT;
    case 0x8:   // VPN id
    case 0x10:  // VPN list
        return safi == 1 && dir == POL_DIR_IN;
    case 0x200000000ULL:  // community (the rule of both community actions)
        return safi == 1;
    default:
        return false;
    }
}

struct setter {
    t_pol_user *user;
    const t_pol_entry &seq;
    t_pol_exec_params *p;
    e_pol_action *action;
    stats *st;

    const t_pol_set_entry &set() const { return seq.set_entry; }

    bool wants(uint64_t bit) const
    {
        return (seq.entry_set_flags & bit) != 0 && action_applies(bit, p->safi, user->pol_direction);
    }

    void count(int kind) const
    {
        if (st != nullptr) {
            st->applied[kind]++;
        }
    }

    void label(const t_tloc_id &tloc, uint64_t vpn, uint16_t service, uint32_t preference) const
    {
        user->pol_label_cb(p->afi, ipv4_word(tloc.addr), tloc.color, tloc.encap, vpn, service,
                           false, nullptr, nullptr, p->te_info_p, preference);
    }

    void ultimate_step() const
    {
        t_pol_te_info *te = p->te_info_p;
        te->ultimate_tloc_action = set().set_ultimate_action;
        if (set().set_ultimate_action != 0 && set().set_ultimate_action != 1) {
            t_pol_te &slot = te->entries[te->num_entries];
            slot.label = p->in_label;
            slot.preference = p->attr_out.preference;
            slot.tloc = p->attr_out.tloc;
            te->num_entries++;
            if (st != nullptr) {
                st->ultimate_fallback++;
            }
        } else if (te->num_entries == 0) {
            *action = POL_ACTION_REJECT;
            if (st != nullptr) {
                st->unresolved_tloc++;
            }
        }
    }

    void vpn_append(uint64_t lo, uint64_t hi) const
    {
        if (p->vpn_list.num_vpn_entries < POL_MAX_VPN) {
            p->vpn_list.vpn_list_p[p->vpn_list.num_vpn_entries].min_vpn_id = lo;
            p->vpn_list.vpn_list_p[p->vpn_list.num_vpn_entries].max_vpn_id = hi;
            p->vpn_list.num_vpn_entries++;
        } else if (st != nullptr) {
            st->vpn_truncated++;
        }
    }

    bool vpn_buffer() const
    {
        if (p->vpn_list.vpn_list_p == nullptr) {
            p->vpn_list.vpn_list_p =
                static_cast<t_pol_exec_vpn_entry *>(std::calloc(POL_MAX_VPN, sizeof(t_pol_exec_vpn_entry)));
        }
        return p->vpn_list.vpn_list_p != nullptr;
    }

    void run() const
    {
        if (wants(0x1)) {
            p->attr_out.tag = set().set_tag;
            p->attr_out.attr_flags |= ZEN_ATTR_FLAG_TAG;
            p->entry_set_flags |= 0x1;
            count(SET_TAG);
        }
        if (wants(0x4)) {
            p->attr_out.preference = set().set_preference;
            p->attr_out.attr_flags |= ZEN_ATTR_FLAG_PREFERENCE;
            p->entry_set_flags |= 0x4;
            count(SET_PREFERENCE);
        }
        if (wants(0x2)) {
            p->te_info_p->num_entries = 0;
            if (user->pol_label_cb != nullptr) {
                label(set().set_tloc, p->u.vroute_info.vpn_id, 0, 0);
            }
            ultimate_step();
            p->entry_set_flags |= 0x2;
            count(SET_TLOC);
        }
        if (wants(0x8) && vpn_buffer()) {
            vpn_append(set().export_vpn_id, set().export_vpn_id);
            p->entry_set_flags |= 0x8;
            count(SET_VPN_ID);
        }
        if (wants(0x10) && set().export_vpn_list_p != nullptr && vpn_buffer()) {
            for (const t_pol_vpn_entry *e = TAILQ_FIRST(&set().export_vpn_list_p->vpn_entry_head);
                 e != nullptr; e = TAILQ_NEXT(e, vpn_entry)) {
                vpn_append(e->min_vpn_id, e->max_vpn_id);
            }
            p->entry_set_flags |= 0x8;
            count(SET_VPN_LIST);
        }
        uint64_t vpn = set().set_svc_vpn_id != 0 ? set().set_svc_vpn_id : p->u.vroute_info.vpn_id;
        if (wants(0x20)) {
            if (set().tloc_list_p != nullptr && p->te_info_p != nullptr) {
                p->te_info_p->num_entries = 0;
                for (const t_tloc_entry *e = TAILQ_FIRST(&set().tloc_list_p->tloc_entry_head);
                     e != nullptr && p->te_info_p->num_entries < POL_MAX_TE_ENTRIES;
                     e = TAILQ_NEXT(e, tloc_entry)) {
                    label(e->tloc, vpn, set().set_service, e->route_preference);
                }
                ultimate_step();
                p->entry_set_flags |= 0x20;
                count(SET_TLOC_LIST);
            }
        } else if (wants(0x40)) {
            p->te_info_p->num_entries = 0;
            if (user->pol_label_cb != nullptr) {
                label(set().set_svc_tloc, vpn, set().set_service, 0);
            }
            ultimate_step();
            p->entry_set_flags |= 0x40;
            count(SET_SERVICE);
        }
        bool communities = action_applies(0x200000000ULL, p->safi, user->pol_direction);
        if (communities && (seq.entry_set_flags & 0x400000000ULL) != 0) {
            p->set_community_p = set().set_community;
            p->entry_set_flags |= 0x400000000ULL;
            count(SET_COMMUNITY_ADDITIVE);
        } else if (communities && (seq.entry_set_flags & 0x200000000ULL) != 0) {
            p->set_community_p = set().set_community;
            p->entry_set_flags |= 0x200000000ULL;
            count(SET_COMMUNITY);
        }
    }
};

int collect(void *record, void *arg)
{
    static_cast<std::vector<const t_pol_entry *> *>(arg)->push_back(static_cast<const t_pol_entry *>(record));
    return 0;
}

e_pol_action tally(e_pol_action action, stats *st)
{
    if (st != nullptr) {
        if (action == POL_ACTION_ACCEPT) {
            st->accepted++;
        } else if (action == POL_ACTION_REJECT) {
            st->rejected++;
        } else {
            st->invalid++;
        }
    }
    return action;
}

}  // namespace

const char *condition_name(int kind)
{
    static const char *const kNames[COND_COUNT] = {
        "tag",  "origin metric", "preference",   "domain", "group",
        "vpn id", "vpn list",    "tloc",         "tloc list", "site",
        "site list", "community list", "expanded community list", "prefix list", "origin",
        "originator", "carrier", "color",        "color list"};
    return kind >= 0 && kind < COND_COUNT ? kNames[kind] : "?";
}

const char *set_name(int kind)
{
    static const char *const kNames[SET_COUNT] = {"tag",     "preference", "tloc",
                                                  "vpn id",  "vpn list",   "tloc list",
                                                  "service", "community",  "community additive"};
    return kind >= 0 && kind < SET_COUNT ? kNames[kind] : "?";
}

e_pol_action execute(t_pol_user *user, t_pol_exec_params *params, stats *st)
{
    if (user == nullptr || params == nullptr || params->attr_in_p == nullptr) {
        return tally(POL_ACTION_REJECT, st);
    }
    params->entry_match_flags = 0;
    params->entry_set_flags = 0;
    params->attr_out = *params->attr_in_p;

    t_pol_block *block = user->pol_block_p;
    if (block == nullptr) {
        return tally(POL_ACTION_REJECT, st);
    }
    std::vector<const t_pol_entry *> sequences;
    avl_foreach(&block->pol_entries, collect, &sequences);
    std::sort(sequences.begin(), sequences.end(),
              [](const t_pol_entry *a, const t_pol_entry *b) { return a->entry_num < b->entry_num; });

    route r{params};
    for (const t_pol_entry *seq : sequences) {
        params->entry_match_flags = 0;
        if (sequence_matches(*seq, r, st)) {
            e_pol_action action = seq->entry_action;
            if (action == POL_ACTION_ACCEPT) {
                setter{user, *seq, params, &action, st}.run();
            }
            return tally(action, st);
        }
    }
    if (st != nullptr) {
        st->by_default++;
    }
    e_pol_action action = block->default_action_entry.entry_action;
    if (action == POL_ACTION_ACCEPT) {
        setter{user, block->default_action_entry, params, &action, st}.run();
    }
    return tally(action, st);
}

void release(t_pol_exec_params *params)
{
    std::free(params->vpn_list.vpn_list_p);
    params->vpn_list.vpn_list_p = nullptr;
    params->vpn_list.num_vpn_entries = 0;
}

}  // namespace execref
