// Route execution: one route through the control, route or membership
// policy of a registered user, and the set actions of the sequence that
// decides.
//
// Sequences are tried in ascending number; a sequence applies only to its
// kind of route, and matches when every condition it carries holds. The
// first match decides; its set actions run only on accept. Conditions that
// name a list ask the match module (pol_match.hpp), whose indexes keep the
// cost per route from growing with the size of the lists.
#include <arpa/inet.h>

#include <algorithm>
#include <bit>

#include <zen/zen_util.h>

#include "pol_list.hpp"
#include "pol_match.hpp"

namespace {

const t_zen_attr &route_attr(const t_pol_exec_params *params)
{
    return *params->attr_in_p;
}

bool has(const t_zen_attr &attr, uint64_t bit)
{
    return (attr.attr_flags & bit) != 0;
}

// The route TLOC: a TLOC route's own locator for a TLOC sequence, the
// route's TLOC attribute otherwise.
const t_tloc_id &route_tloc(const t_pol_match_entry *m, const t_pol_exec_params *params)
{
    return m->match_type == POL_MATCH_TLOC ? params->u.tloc_info.tloc : route_attr(params).tloc;
}

// A TLOC or colour condition of a non-TLOC sequence needs the attribute.
bool route_tloc_present(const t_pol_match_entry *m, const t_pol_exec_params *params)
{
    return m->match_type == POL_MATCH_TLOC || has(route_attr(params), ZEN_ATTR_FLAG_TLOC);
}

uint64_t route_vpn(const t_pol_exec_params *params)
{
    return params->u.vroute_info.vpn_id;
}

// Which members of the route union the route kind carries: a VPN id for
// virtual and service routes, a prefix for virtual routes only. A
// condition on a field the route does not carry fails.
bool carries_vpn(const t_pol_exec_params *params)
{
    return params->safi == POL_SAFI_VROUTE || params->safi == POL_SAFI_SERVICE;
}

bool carries_prefix(const t_pol_exec_params *params)
{
    return params->safi == POL_SAFI_VROUTE;
}

// One route's evaluation: its record, and its community text, rendered
// once when an expanded list first needs it.
struct route_eval {
    t_pol_exec_params *params;
    pol::community_text text;

    explicit route_eval(t_pol_exec_params *p) : params(p) {}
};

bool community_condition(t_pol_match_entry *m, route_eval &ev, community_list_type kind)
{
    t_community_list *list = kind == COMM_LIST_TYPE_STANDARD ? m->match_community_list_p
                                                             : m->match_exp_community_list_p;
    const t_bgp_community *comms = route_attr(ev.params).community_p;
    return list != nullptr && comms != nullptr && pol::community_list_matches(list, *comms, ev.text);
}

/* ---- the condition table ---- */

using condition_f = bool (*)(t_pol_match_entry *, route_eval &);

struct condition {
    uint64_t bit;        // sequence bit
    condition_f test;
    bool records;        // single-value conditions record their bit
};

template <bool (*Test)(t_pol_match_entry *, t_pol_exec_params *)>
bool plain(t_pol_match_entry *m, route_eval &ev)
{
    return Test(m, ev.params);
}

bool community_list_standard(t_pol_match_entry *m, route_eval &ev)
{
    return community_condition(m, ev, COMM_LIST_TYPE_STANDARD);
}

bool community_list_expanded(t_pol_match_entry *m, route_eval &ev)
{
    return community_condition(m, ev, COMM_LIST_TYPE_EXPANDED);
}

// In evaluation order.
constexpr condition kConditions[] = {
    {POL_MATCH_FLAG_TAG, plain<pol_exec_match_tag>, true},
    {POL_MATCH_FLAG_ORIGIN_METRIC, plain<pol_exec_match_origin_metric>, true},
    {POL_MATCH_FLAG_PREFERENCE, plain<pol_exec_match_preference>, true},
    {POL_MATCH_FLAG_DOMAIN, plain<pol_exec_match_domain>, true},
    {POL_MATCH_FLAG_GROUP, plain<pol_exec_match_group>, true},
    {POL_MATCH_FLAG_VPN_ID, plain<pol_exec_match_vpn_id>, true},
    {POL_MATCH_FLAG_VPN_LIST, plain<pol_exec_match_vpn_list>, false},
    {POL_MATCH_FLAG_TLOC, plain<pol_exec_match_tloc>, true},
    {POL_MATCH_FLAG_TLOC_LIST, plain<pol_exec_match_tloc_list>, false},
    {POL_MATCH_FLAG_SITE, plain<pol_exec_match_site>, true},
    {POL_MATCH_FLAG_SITE_LIST, plain<pol_exec_match_site_list>, false},
    {POL_MATCH_FLAG_COMMUNITY_LIST, community_list_standard, false},
    {POL_MATCH_FLAG_EXP_COMMUNITY_LIST, community_list_expanded, false},
    {POL_MATCH_FLAG_PFX_LIST, plain<pol_exec_match_pfx_list>, false},
    {POL_MATCH_FLAG_ORIGIN, plain<pol_exec_match_origin>, true},
    {POL_MATCH_FLAG_ORIGINATOR, plain<pol_exec_match_originator>, true},
    {POL_MATCH_FLAG_CARRIER, plain<pol_exec_match_carrier>, true},
    {POL_MATCH_FLAG_COLOR, plain<pol_exec_match_color>, true},
    {POL_MATCH_FLAG_COLOR_LIST, plain<pol_exec_match_color_list>, false},
};

// All conditions of one sequence, in table order, stopping at the first
// that fails; skip holds the bits already known to hold. Only single-value
// conditions record their bit.
constexpr std::size_t kConditionCount = sizeof(kConditions) / sizeof(kConditions[0]);
static_assert(kConditionCount <= 32);

// For each sequence bit, one bit at its condition's place in the table.
struct condition_order {
    uint32_t place_of_bit[64] = {};

    constexpr condition_order()
    {
        for (std::size_t i = 0; i < kConditionCount; i++) {
            place_of_bit[std::countr_zero(kConditions[i].bit)] = 1u << i;
        }
    }

    // The conditions of a sequence's bits, as places in evaluation order.
    uint32_t places(uint64_t flags) const
    {
        uint32_t out = 0;
        for (; flags != 0; flags &= flags - 1) {
            out |= place_of_bit[std::countr_zero(flags)];
        }
        return out;
    }
};
constexpr condition_order kOrder;

// All conditions of one sequence, in table order, stopping at the first
// that fails; skip holds the bits already known to hold. Only single-value
// conditions record their bit.
bool match_sequence(t_pol_entry *entry, route_eval &ev, uint64_t skip)
{
    t_pol_match_entry *m = &entry->match_entry;
    if (!pol_exec_match_valid(entry, m, ev.params)) {
        return false;
    }
    for (uint32_t places = kOrder.places(entry->entry_match_flags & ~skip); places != 0; places &= places - 1) {
        const condition &c = kConditions[std::countr_zero(places)];
        if (!c.test(m, ev)) {
            return false;
        }
        if (c.records) {
            ev.params->entry_match_flags |= c.bit;
        }
    }
    return true;
}

/* ---- set actions ---- */

// Applicability of each set action by route kind and user direction.
bool set_applies(uint64_t bit, uint8_t safi, e_pol_dir dir)
{
    switch (bit) {
    case POL_SET_FLAG_TAG:
    case POL_SET_FLAG_PREFERENCE:
        return safi == POL_SAFI_VROUTE || safi == POL_SAFI_TLOC;
    case POL_SET_FLAG_TLOC:
    case POL_SET_FLAG_TLOC_LIST:
    case POL_SET_FLAG_SERVICE:
        return safi == POL_SAFI_VROUTE && dir == POL_DIR_OUT;
    case POL_SET_FLAG_VPN_ID:
    case POL_SET_FLAG_VPN_LIST:
        return safi == POL_SAFI_VROUTE && dir == POL_DIR_IN;
    case POL_SET_FLAG_COMMUNITY:
    case POL_SET_FLAG_COMMUNITY_ADDITIVE:
        return safi == POL_SAFI_VROUTE;
    default:
        return false;
    }
}

// The per-execution export buffer, allocated on first use.
bool ensure_vpn_buffer(t_pol_exec_params *params)
{
    if (params->vpn_list.vpn_list_p == nullptr) {
        params->vpn_list.vpn_list_p = static_cast<t_pol_exec_vpn_entry *>(
            pol_calloc(POL_MAX_VPN, sizeof(t_pol_exec_vpn_entry), POL_MEM_LIST_VPN_1));
    }
    return params->vpn_list.vpn_list_p != nullptr;
}

void append_vpn_range(t_pol_exec_params *params, uint64_t min_id, uint64_t max_id)
{
    t_pol_vpn_list &vl = params->vpn_list;
    if (vl.num_vpn_entries < POL_MAX_VPN) {
        vl.vpn_list_p[vl.num_vpn_entries++] = {min_id, max_id};
    }
}

uint32_t ipv4_word(const t_tloc_id &tloc)
{
    uint32_t word = 0;
    IPADDR_GET_IPV4(&tloc.addr, &word);
    return word;
}

// The step shared by the TLOC, service and TLOC-list actions: an ultimate
// action of 2 or more falls back to the route's own TLOC; otherwise a table
// that stayed empty turns the accept into a reject.
void ultimate_tloc_step(const t_pol_set_entry *set, t_pol_exec_params *params, e_pol_action *action)
{
    t_pol_te_info *te = params->te_info_p;
    te->ultimate_tloc_action = set->set_ultimate_action;
    if (set->set_ultimate_action != 0 && set->set_ultimate_action != 1) {
        if (te->num_entries < POL_MAX_TE_ENTRIES) {
            te->entries[te->num_entries++] = {params->in_label, params->attr_out.preference,
                                              params->attr_out.tloc};
        }
    } else if (te->num_entries == 0) {
        *action = POL_ACTION_REJECT;
    }
}

// One TLOC resolved through the user's label callback into the table.
void resolve_tloc(t_pol_user *user, t_pol_exec_params *params, const t_tloc_id &tloc, uint64_t vpn,
                  uint16_t service, uint32_t preference)
{
    user->pol_label_cb(params->afi, ipv4_word(tloc), tloc.color, tloc.encap, vpn, service, false,
                       nullptr, nullptr, params->te_info_p, preference);
}

// The first sequence, in ascending number, whose conditions all hold. With
// the block's sequence index only the candidates are tried (their prefix
// condition already holds); when none matches, the block's last sequence
// is evaluated all the same, so that the recorded condition bits are those
// a walk over every sequence leaves behind.
t_pol_entry *first_matching_sequence(t_pol_block *block, t_pol_exec_params *params)
{
    route_eval ev(params);
    pol::candidates c{};
    if (!pol::sequence_candidates(block, params, &c)) {
        pol::tree<t_pol_entry> sequences(&block->pol_entries);
        for (t_pol_entry *entry = sequences.first(); entry != nullptr; entry = sequences.next(entry)) {
            params->entry_match_flags = 0;
            if (match_sequence(entry, ev, 0)) {
                return entry;
            }
        }
        return nullptr;
    }
    for (uint32_t i = 0; i < c.count; i++) {
        params->entry_match_flags = 0;
        if (match_sequence(c.entries[i], ev, c.known)) {
            return c.entries[i];
        }
    }
    if (c.last != nullptr && (c.count == 0 || c.entries[c.count - 1] != c.last)) {
        params->entry_match_flags = 0;
        match_sequence(c.last, ev, 0);
    }
    return nullptr;
}

}  // namespace

extern "C" {

/* ---- conditions ---- */

bool pol_exec_match_valid(t_pol_entry *, t_pol_match_entry *m, t_pol_exec_params *params)
{
    switch (m->match_type) {
    case POL_MATCH_VROUTE:
        return params->safi == POL_SAFI_VROUTE;
    case POL_MATCH_TLOC:
        return params->safi == POL_SAFI_TLOC;
    case POL_MATCH_SERVICE:
        return params->safi == POL_SAFI_SERVICE;
    default:
        return false;
    }
}

bool pol_exec_match_tag(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_TAG) && route_attr(p).tag == m->match_tag;
}

bool pol_exec_match_origin_metric(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_ORIGIN_METRIC) &&
           route_attr(p).origin.proto_metric == m->match_origin_metric;
}

bool pol_exec_match_preference(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_PREFERENCE) && route_attr(p).preference == m->match_preference;
}

bool pol_exec_match_domain(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_DOMAIN_ID) && route_attr(p).domain_id == m->match_domain;
}

bool pol_exec_match_group(t_pol_match_entry *m, t_pol_exec_params *p)
{
    const t_zen_attr &attr = route_attr(p);
    if (!has(attr, ZEN_ATTR_FLAG_GROUP)) {
        return false;
    }
    uint16_t count = std::min<uint16_t>(attr.group_count, ZEN_ATTR_MAX_GROUPS);
    return std::find(attr.group_list, attr.group_list + count, m->match_group) != attr.group_list + count;
}

bool pol_exec_match_vpn_id(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return carries_vpn(p) && route_vpn(p) == m->match_vpn_id;
}

bool pol_exec_match_vpn_list(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return carries_vpn(p) && pol::vpn_list_contains(m->match_vpn_list_p, route_vpn(p));
}

bool pol_exec_match_tloc(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return route_tloc_present(m, p) && TLOC_CMP(&route_tloc(m, p), &m->match_tloc) == 0;
}

// Deliberately no presence test on the attribute TLOC.
bool pol_exec_match_tloc_list(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return m->match_tloc_list_p != nullptr &&
           pol_tloc_list_lookup(m->match_tloc_list_p, &route_tloc(m, p)) != nullptr;
}

bool pol_exec_match_site(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_SITE_ID) && route_attr(p).site_id == m->match_site_id;
}

bool pol_exec_match_site_list(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return pol_exec_match_site_id_to_site_list(m->match_site_list_p, route_attr(p).site_id);
}

bool pol_exec_match_community_list(t_pol_match_entry *m, t_pol_exec_params *p, community_list_type kind)
{
    route_eval ev(p);
    return community_condition(m, ev, kind);
}

// The route must carry a prefix, of the list's family.
bool pol_exec_match_pfx_list(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return carries_prefix(p) && pol::pfx_list_matches(m->match_pfx_list_p, p->u.vroute_info.prefix);
}

// One entry against the prefix the record holds; the route-kind rule is
// the list condition's.
bool pol_exec_match_pfx_entry(t_pfx_entry *e, t_pol_exec_params *p)
{
    return pol::pfx_entry_matches(e, p->u.vroute_info.prefix);
}

// Protocol 4's subtypes come in pairs; its type is deliberately not compared.
bool pol_exec_match_origin(t_pol_match_entry *m, t_pol_exec_params *p)
{
    const t_zen_attr &attr = route_attr(p);
    if (!has(attr, ZEN_ATTR_FLAG_ORIGIN)) {
        return false;
    }
    uint8_t proto = attr.origin.proto;
    uint8_t sub = attr.origin.proto_sub_type;
    if (proto != 4) {
        return proto == m->match_origin_type && sub == m->match_origin_subtype;
    }
    switch (m->match_origin_subtype) {
    case 3:
        return sub == 3 || sub == 5;
    case 4:
        return sub == 4 || sub == 6;
    default:
        return sub == m->match_origin_subtype;
    }
}

// IPv6 originators never match.
bool pol_exec_match_originator(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_ORIGINATOR) && IPADDR_IS_V4(&m->match_originator) &&
           route_attr(p).originator == m->match_originator.u.addr4.s_addr;
}

bool pol_exec_match_carrier(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return has(route_attr(p), ZEN_ATTR_FLAG_CARRIER) && route_attr(p).carrier == m->match_carrier;
}

bool pol_exec_match_color(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return route_tloc_present(m, p) && route_tloc(m, p).color == m->match_color;
}

bool pol_exec_match_color_list(t_pol_match_entry *m, t_pol_exec_params *p)
{
    return pol::color_list_contains(m->match_color_list_p, route_tloc(m, p).color);
}

bool pol_exec_match(t_pol_entry *entry, t_pol_exec_params *params)
{
    route_eval ev(params);
    return match_sequence(entry, ev, 0);
}

/* ---- set actions ---- */

bool pol_exec_set_valid(t_pol_user *user, uint64_t set_bit, t_pol_exec_params *params)
{
    return set_applies(set_bit, params->safi, user->pol_direction);
}

void pol_exec_set_tag(t_pol_entry *entry, t_pol_exec_params *params)
{
    params->attr_out.tag = entry->set_entry.set_tag;
    params->attr_out.attr_flags |= ZEN_ATTR_FLAG_TAG;
    params->entry_set_flags |= POL_SET_FLAG_TAG;
}

void pol_exec_set_preference(t_pol_entry *entry, t_pol_exec_params *params)
{
    params->attr_out.preference = entry->set_entry.set_preference;
    params->attr_out.attr_flags |= ZEN_ATTR_FLAG_PREFERENCE;
    params->entry_set_flags |= POL_SET_FLAG_PREFERENCE;
}

// Without a label table the TLOC cannot be resolved: the route is rejected.
void pol_exec_set_tloc(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                       e_pol_action *action)
{
    params->entry_set_flags |= POL_SET_FLAG_TLOC;
    if (params->te_info_p == nullptr) {
        *action = POL_ACTION_REJECT;
        return;
    }
    params->te_info_p->num_entries = 0;
    const t_tloc_id &tloc = entry->set_entry.set_tloc;
    if (user->pol_label_cb != nullptr) {
        resolve_tloc(user, params, tloc, route_vpn(params), 0, 0);
    }
    ultimate_tloc_step(&entry->set_entry, params, action);
}

void pol_exec_set_service(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                          e_pol_action *action)
{
    params->entry_set_flags |= POL_SET_FLAG_SERVICE;
    if (params->te_info_p == nullptr) {
        *action = POL_ACTION_REJECT;
        return;
    }
    const t_pol_set_entry &set = entry->set_entry;
    params->te_info_p->num_entries = 0;
    uint64_t vpn = set.set_svc_vpn_id != 0 ? set.set_svc_vpn_id : route_vpn(params);
    if (user->pol_label_cb != nullptr) {
        resolve_tloc(user, params, set.set_svc_tloc, vpn, set.set_service, 0);
    }
    ultimate_tloc_step(&set, params, action);
}

// Every TLOC of the list, in list order, while the table has room. A user
// that sets TLOC lists must have a label callback: it is deliberately
// called without a test.
void pol_exec_set_tloc_list(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                            e_pol_action *action)
{
    const t_pol_set_entry &set = entry->set_entry;
    t_pol_te_info *te = params->te_info_p;
    if (set.tloc_list_p == nullptr || te == nullptr) {
        return;
    }
    te->num_entries = 0;
    uint64_t vpn = set.set_svc_vpn_id != 0 ? set.set_svc_vpn_id : route_vpn(params);
    for (t_tloc_entry *e = TAILQ_FIRST(&set.tloc_list_p->tloc_entry_head);
         e != nullptr && te->num_entries < POL_MAX_TE_ENTRIES; e = TAILQ_NEXT(e, tloc_entry)) {
        resolve_tloc(user, params, e->tloc, vpn, set.set_service, e->route_preference);
    }
    ultimate_tloc_step(&set, params, action);
    params->entry_set_flags |= POL_SET_FLAG_TLOC_LIST;
}

void pol_exec_set_vpn_id(t_pol_entry *entry, t_pol_exec_params *params)
{
    if (!ensure_vpn_buffer(params)) {
        return;
    }
    uint64_t vpn = entry->set_entry.export_vpn_id;
    append_vpn_range(params, vpn, vpn);
    params->entry_set_flags |= POL_SET_FLAG_VPN_ID;
}

// The same recorded bit as the VPN-id action: the host reads vpn_list.
void pol_exec_set_vpn_list(t_pol_entry *entry, t_pol_exec_params *params)
{
    t_vpn_list *list = entry->set_entry.export_vpn_list_p;
    if (list == nullptr || !ensure_vpn_buffer(params)) {
        return;
    }
    for (t_pol_vpn_entry *e = TAILQ_FIRST(&list->vpn_entry_head);
         e != nullptr && params->vpn_list.num_vpn_entries < POL_MAX_VPN; e = TAILQ_NEXT(e, vpn_entry)) {
        append_vpn_range(params, e->min_vpn_id, e->max_vpn_id);
    }
    params->entry_set_flags |= POL_SET_FLAG_VPN_ID;
}

void pol_exec_set_community(t_pol_entry *entry, t_pol_exec_params *params)
{
    params->set_community_p = entry->set_entry.set_community;
    params->entry_set_flags |= POL_SET_FLAG_COMMUNITY;
}

void pol_exec_set_community_additive(t_pol_entry *entry, t_pol_exec_params *params)
{
    params->set_community_p = entry->set_entry.set_community;
    params->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;
}

void pol_exec_set(t_pol_user *user, t_pol_entry *entry, t_pol_exec_params *params,
                  e_pol_action *action)
{
    auto wants = [&](uint64_t bit) {
        return (entry->entry_set_flags & bit) != 0 && pol_exec_set_valid(user, bit, params);
    };
    if (wants(POL_SET_FLAG_TAG)) {
        pol_exec_set_tag(entry, params);
    }
    if (wants(POL_SET_FLAG_PREFERENCE)) {
        pol_exec_set_preference(entry, params);
    }
    if (wants(POL_SET_FLAG_TLOC)) {
        pol_exec_set_tloc(user, entry, params, action);
    }
    if (wants(POL_SET_FLAG_VPN_ID)) {
        pol_exec_set_vpn_id(entry, params);
    }
    if (wants(POL_SET_FLAG_VPN_LIST)) {
        pol_exec_set_vpn_list(entry, params);
    }
    // A TLOC list deliberately wins over a service of the same sequence.
    if (wants(POL_SET_FLAG_TLOC_LIST)) {
        pol_exec_set_tloc_list(user, entry, params, action);
    } else if (wants(POL_SET_FLAG_SERVICE)) {
        pol_exec_set_service(user, entry, params, action);
    }
    // Additive wins over replace; both are judged by the replace rule.
    bool communities = pol_exec_set_valid(user, POL_SET_FLAG_COMMUNITY, params);
    if (communities && (entry->entry_set_flags & POL_SET_FLAG_COMMUNITY_ADDITIVE) != 0) {
        pol_exec_set_community_additive(entry, params);
    } else if (communities && (entry->entry_set_flags & POL_SET_FLAG_COMMUNITY) != 0) {
        pol_exec_set_community(entry, params);
    }
}

/* ---- one route ---- */

e_pol_action pol_exec_route(t_pol_user *user, t_pol_exec_params *params)
{
    t_pol_block *block = user->pol_block_p;
    if (block == nullptr) {
        return POL_ACTION_REJECT;
    }
    t_pol_entry *decided = first_matching_sequence(block, params);
    if (decided != nullptr) {
        e_pol_action action = decided->entry_action;
        if (action == POL_ACTION_ACCEPT) {
            pol_exec_set(user, decided, params, &action);
        }
        return action;
    }
    e_pol_action action = block->default_action_entry.entry_action;
    if (action == POL_ACTION_ACCEPT) {
        pol_exec_set(user, &block->default_action_entry, params, &action);
    }
    return action;
}

}  // extern "C"
