// Model operations for execution cross-checks: values cluster on a few
// small ones, so that single-value conditions hold often enough and list
// entries repeat.
#include "exec_model.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

namespace execmodel {

const char *const kListNames[3] = {"list-a", "list-b", "list-c"};

namespace {

const char *const kPatterns[] = {"^65000:", ":1$", "(^| )65001:2( |$)", "no-export", "internet", "^$", ".*",
                                 "^(65000|65002):[0-9]+", "local-AS|no-advertise", "65535:65284",
                                 "^[0-9]+:100( |$)", " 65002:", "^0:", "6500[01]:3", "[a-z]+-[A-Z]+", "^no-export$"};

t_ipaddr v4(uint32_t host_order)
{
    t_ipaddr a{};
    IPADDR_SET_V4(&a, htonl(host_order));
    return a;
}

// 2001:db8:<w2>:<w3>::<last>
t_ipaddr v6(uint32_t w2, uint32_t w3, uint8_t last)
{
    uint8_t b[16] = {0x20, 0x01, 0x0d, 0xb8, static_cast<uint8_t>(w2 >> 8), static_cast<uint8_t>(w2),
                     static_cast<uint8_t>(w3 >> 8), static_cast<uint8_t>(w3)};
    b[15] = last;
    t_ipaddr a{};
    IPADDR_SET_V6(&a, b);
    return a;
}

uint32_t random_community(chooser &c)
{
    static const uint32_t kWellKnown[] = {0x00000000u, 0xFFFFFF01u, 0xFFFFFF02u, 0xFFFFFF03u};
    static const uint32_t kHigh[] = {0, 65000, 65001, 65002, 65535};
    static const uint32_t kLow[] = {0, 1, 2, 3, 100, 65284};
    return c.percent(20) ? c.pick(kWellKnown) : c.pick(kHigh) << 16 | c.pick(kLow);
}

t_pfx_entry_param random_pfx_entry(chooser &c, bool ipv6)
{
    t_pfx_entry_param e{};
    ipv6 = c.percent(12) ? !ipv6 : ipv6;  // now and then an entry of the other family
    if (c.percent(15)) {  // 0.0.0.0/0 or ::/0: most operators skip containment
        IPADDR_INIT(&e.prefix.addr, c.percent(50) ? IP_ADDR_V6 : IP_ADDR_V4);
    } else {
        e.prefix = random_prefix(c, ipv6, false);
    }
    e.pfx_op = static_cast<e_pfx_op>(c.percent(3) ? 9 : c.below(9));
    unsigned width = ipv6 ? 128 : 32, lo = std::min<unsigned>(e.prefix.prefixlen + c.below(9), width);
    unsigned hi = std::min<unsigned>(lo + c.below(12), width);
    bool around = c.percent(70);  // bounds around the entry's own length, or anywhere
    e.preflen_min = static_cast<uint8_t>(around ? lo : c.below(width + 9));
    e.preflen_max = static_cast<uint8_t>(around ? hi : c.below(width + 9));
    return e;
}

// One list change: an addition (also for REWRITE), the deletion of an
// entry, or the drop of the whole list.
template <typename Add, typename Delete, typename Drop>
void apply(list_op op, Add add, Delete del, Drop drop)
{
    if (op == ADD || op == REWRITE) {
        add();
    } else if (op == DELETE_ENTRY) {
        del();
    } else {
        drop();
    }
}

// Returns one end of the range, the id a route is steered onto.
uint32_t change_range_list(t_pol_ctx *ctx, chooser &c, bool site, list_op op, const char *name)
{
    uint32_t lo = static_cast<uint32_t>(random_id(c));
    uint32_t hi = c.percent(15) ? lo - std::min<uint32_t>(lo, c.below(4) + 1)  // reversed
                                : (lo == 0xFFFFFFFFu ? lo : lo + c.below(5));
    apply(op, [&] { (site ? pol_site_list_add_entry : pol_vpn_list_add_entry)(ctx, name, lo, hi); },
          [&] { (site ? pol_site_list_del_entry : pol_vpn_list_del_entry)(ctx, name, lo, hi); },
          [&] { (site ? pol_site_list_cfg_del : pol_vpn_list_cfg_del)(ctx, name); });
    return c.percent(50) ? lo : hi;
}

// Returns the prefix of the entry concerned.
t_ipprefix change_pfx_list(t_pol_ctx *ctx, chooser &c, list_op op, const char *name)
{
    t_pfx_list_key key = {c.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, name};
    t_pfx_entry *e = pfx_entry_at(ctx, key, c.below(c.spread.pfx_entries + 2));
    t_pfx_entry_param p = random_pfx_entry(c, key.pfx_key_af == POL_AF_IPV6);
    p.prefix = e != nullptr && op != ADD ? e->prefix : p.prefix;  // a delete reads the prefix only
    apply(op, [&] { pol_pfx_list_entry_add(ctx, &key, &p); }, [&] { pol_pfx_list_del_entry(ctx, &key, &p); },
          [&] { pol_pfx_list_cfg_del(ctx, &key); });
    return p.prefix;
}

// Returns the community value an addition or deletion of a standard entry
// names (an expanded one takes a pattern; the value steers all the same).
uint32_t change_community_list(t_pol_ctx *ctx, chooser &c, bool expanded, list_op op, const char *name)
{
    community_list_type type = expanded ? COMM_LIST_TYPE_EXPANDED : COMM_LIST_TYPE_STANDARD;
    uint32_t value = random_community(c);
    std::string text = expanded ? c.pick(kPatterns) : std::to_string(value >> 16) + ":" + std::to_string(value & 0xFFFF);
    apply(op, [&] { pol_community_list_add_entry(ctx, name, text.c_str(), type); },
          [&] { pol_community_list_del_entry(ctx, name, text.c_str(), type); },
          [&] { pol_community_list_cfg_del(ctx, name, type); });
    return value;
}

// The community set action: the array is handed over to the sequence;
// replace, additive, or both flags (additive wins).
void add_set_community(chooser &c, t_pol_entry *e)
{
    uint16_t n = static_cast<uint16_t>(1 + c.below(4));
    auto *v = static_cast<uint32_t *>(pol_malloc(n * sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
    if (v == nullptr) {
        return;
    }
    std::generate(v, v + n, [&c] { return random_community(c); });
    pol_config_set_bgp_community_upd(e, nullptr, 0);
    if (pol_config_set_bgp_community_upd(e, v, n) != 0) {  // not taken over
        pol_free(v, POL_MEM_SET_ENTRY_COMMUNITY);
        return;
    }
    unsigned how = c.below(3);
    e->entry_set_flags &= how == 1 ? ~(POL_SET_FLAG_COMMUNITY | POL_SET_FLAG_COMMUNITY_ADDITIVE) : ~0ULL;
    e->entry_set_flags |= how != 0 ? POL_SET_FLAG_COMMUNITY_ADDITIVE : 0;
}

// An adder (a remover): statements on the context x, the chooser c, the
// sequence e and the changed flag ch.
#define WITH(...) [](t_pol_ctx *x, chooser &c, t_pol_entry *e, uint8_t *ch) { __VA_ARGS__; }
#define WITHOUT(...) [](t_pol_ctx *x, t_pol_entry *e, uint8_t *ch) { __VA_ARGS__; }
using add_f = void (*)(t_pol_ctx *, chooser &, t_pol_entry *, uint8_t *);
using del_f = void (*)(t_pol_ctx *, t_pol_entry *, uint8_t *);

const std::pair<add_f, del_f> kSequenceOps[] = {
    {WITH(pol_entry_match_tag_add(x, e, c.below(4), ch)), pol_entry_match_tag_delete},
    {WITH(pol_entry_match_origin_metric_add(x, e, c.below(4), ch)), pol_entry_match_origin_metric_delete},
    {WITH(pol_entry_match_preference_add(x, e, c.below(4), ch)), pol_entry_match_preference_delete},
    {WITH(pol_entry_match_domain_add(x, e, c.below(3), ch)), pol_entry_match_domain_delete},
    {WITH(pol_entry_match_group_add(x, e, c.below(6), ch)), pol_entry_match_group_delete},
    {WITH(pol_entry_match_vpn_id_add(x, e, random_id(c, true), ch)), pol_entry_match_vpn_id_delete},
    {WITH(pol_entry_match_vpn_list_add(x, e, c.pick(kListNames), ch)), pol_entry_match_vpn_list_delete},
    {WITH(t_tloc_id t = random_tloc(c); pol_entry_match_tloc_add(x, e, &t, ch)), pol_entry_match_tloc_delete},
    {WITH(pol_entry_match_tloc_list_add(x, e, c.pick(kListNames), ch)), pol_entry_match_tloc_list_delete},
    {WITH(pol_entry_match_site_add(x, e, uint32_t(random_id(c)), ch)), pol_entry_match_site_delete},
    {WITH(pol_entry_match_site_list_add(x, e, c.pick(kListNames), ch)), pol_entry_match_site_list_delete},
    {WITH(pol_entry_match_community_list_add(x, e, c.pick(kListNames), COMM_LIST_TYPE_STANDARD, ch)),
     WITHOUT(pol_entry_match_community_list_delete(x, e, COMM_LIST_TYPE_STANDARD, ch))},
    {WITH(pol_entry_match_community_list_add(x, e, c.pick(kListNames), COMM_LIST_TYPE_EXPANDED, ch)),
     WITHOUT(pol_entry_match_community_list_delete(x, e, COMM_LIST_TYPE_EXPANDED, ch))},
    // A TLOC route's locator overlays the prefix: never on a TLOC sequence.
    {WITH(t_pfx_list_key k = {c.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, c.pick(kListNames)};
          if (e->match_entry.match_type != POL_MATCH_TLOC) { pol_entry_match_pfx_list_add(x, e, &k, ch); }),
     pol_entry_match_pfx_list_delete},
    // Codes 4 and 5 (protocol 4, subtypes 3 and 4) match subtypes in pairs.
    {WITH(uint32_t code = c.percent(50) ? 4 + c.below(2) : c.below(13); pol_entry_match_origin_add(x, e, code, ch)),
     pol_entry_match_origin_delete},
    // IPv6 originators never match, not even one whose leading bytes spell
    // a route's IPv4 originator.
    {WITH(t_ipaddr a = v4(c.percent(50) ? 0x01010101 : 0x02020202); uint8_t b[16] = {};
          std::memset(b, c.percent(50) ? 1 : 0, 4); if (c.percent(25)) { IPADDR_SET_V6(&a, b); }
          pol_entry_match_originator_add(x, e, &a, ch)),
     pol_entry_match_originator_delete},
    {WITH(pol_entry_match_carrier_add(x, e, uint8_t(c.below(4)), ch)), pol_entry_match_carrier_delete},
    {WITH(pol_entry_match_color_add(x, e, uint16_t(c.percent(10) ? 257 : c.below(5)), ch)),
     pol_entry_match_color_delete},
    {WITH(pol_entry_match_color_list_add(x, e, c.pick(kListNames), ch)), pol_entry_match_color_list_delete},
    // set actions
    {WITH(pol_entry_set_tag_add(x, e, 100 + c.below(3), ch)), pol_entry_set_tag_delete},
    {WITH(pol_entry_set_preference_add(x, e, 200 + c.below(3), ch)), pol_entry_set_preference_delete},
    {WITH(t_tloc_id t = random_tloc(c); pol_entry_set_tloc_add(x, e, &t, ch)), pol_entry_set_tloc_delete},
    {WITH(pol_entry_set_vpn_id_add(x, e, c.below(40), ch)), pol_entry_set_vpn_id_delete},
    {WITH(pol_entry_set_vpn_list_add(x, e, c.pick(kListNames), ch)), pol_entry_set_vpn_list_delete},
    {WITH(pol_entry_set_tloc_list_add(x, e, c.pick(kListNames), ch)), pol_entry_set_tloc_list_delete},
    {WITH(t_tloc_id t = random_tloc(c); uint16_t service = uint16_t(c.below(6));
          pol_entry_set_service_add(x, e, service, &t, c.below(2) * c.below(40), ch)),
     pol_entry_set_service_delete},
    {WITH((void)x; (void)ch; add_set_community(c, e)),
     WITHOUT((void)x; (void)ch; pol_config_set_bgp_community_upd(e, nullptr, 0);
             e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE)},
};
#undef WITH
#undef WITHOUT
static_assert(std::size(kSequenceOps) == kKinds);

}  // namespace

uint64_t random_id(chooser &c, bool vpn)
{
    if (c.percent(3)) {
        return vpn && c.percent(50) ? 0x100000005ull : 0xFFFFFFFFu;  // VPN ids go past 32 bits
    }
    return c.percent(50) ? c.below(6) : c.below(c.spread.ids + (vpn ? 2 : 0));
}

t_tloc_id random_tloc(chooser &c)
{
    uint32_t which = c.below(c.spread.tloc_addrs + 1);
    t_tloc_id t{which < c.spread.tloc_addrs ? v4(0x0a000001u + which) : v6(0, 0, 1), static_cast<uint8_t>(c.below(4) + 1),
                static_cast<uint8_t>(c.below(2) + 1)};
    if (t.addr.addr_type == IP_ADDR_V4 && c.percent(10)) {
        t.addr.u.addr32_b[2] = static_cast<uint32_t>(c.bits());  // not part of an IPv4 address
    }
    return t;
}

t_ipprefix random_prefix(chooser &c, bool ipv6, bool route)
{
    static const uint8_t kLast[] = {0, 1, 0x80, 0xff};
    static const uint8_t kLens4[] = {0, 8, 15, 16, 17, 22, 24, 25, 28, 30, 32};
    static const uint8_t kLens6[] = {0, 32, 47, 48, 63, 64, 65, 72, 96, 100, 120, 127, 128};
    t_ipprefix p{};
    uint32_t rows = c.spread.prefix_rows;
    uint32_t host = 0x0a000000u | c.below(2) << 16 | c.below(rows) << 8 | c.pick(kLast);
    p.addr = ipv6 ? v6(c.below(2), c.below(rows), c.pick(kLast)) : v4(c.percent(5) ? 0x0b000000u | c.below(4) << 8 : host);
    p.addr.u.addr6_b[8] = ipv6 && c.percent(30) ? c.pick(kLast) : 0;
    p.prefixlen = c.percent(3) ? static_cast<uint8_t>(width_of(p.addr) + 1 + c.below(8))  // a host route
                               : (ipv6 ? c.pick(kLens6) : c.pick(kLens4));
    for (unsigned i = p.prefixlen, mask = c.percent(route ? 50 : 80); mask && i < width_of(p.addr); i++) {
        set_bit(p.addr, i, false);
    }
    if (!ipv6 && c.percent(10)) {  // an IPv4 address is its first four bytes; the rest must not count
        p.addr.u.addr32_b[1] = static_cast<uint32_t>(c.bits());
        p.addr.u.addr32_b[3] = static_cast<uint32_t>(c.bits());
    }
    return p;
}

unsigned width_of(const t_ipaddr &a)
{
    return a.addr_type == IP_ADDR_V4 ? 32 : 128;
}

void set_bit(t_ipaddr &a, unsigned i, bool on)
{
    uint8_t bit = static_cast<uint8_t>(0x80u >> (i % 8));
    a.u.addr6_b[i / 8] = static_cast<uint8_t>(on ? a.u.addr6_b[i / 8] | bit : a.u.addr6_b[i / 8] & ~bit);
}

t_pfx_entry *pfx_entry_at(t_pol_ctx *ctx, const t_pfx_list_key &key, uint32_t n)
{
    t_pfx_list *list = pol_pfx_list_find(ctx, &key);
    t_pfx_entry *e = list != nullptr ? TAILQ_FIRST(&list->pfx_entry_head) : nullptr;
    for (; e != nullptr && n > 0; n--) {
        e = TAILQ_NEXT(e, pfx_entry);
    }
    return e;
}

touched change_list(t_pol_ctx *ctx, chooser &c, family fam, list_op op, const char *name)
{
    touched t{};
    t.fam = fam;
    if (fam == SITE || fam == VPN) {
        t.id = change_range_list(ctx, c, fam == SITE, op, name);
    } else if (fam == TLOC) {
        t.tloc = random_tloc(c);
        apply(op, [&] { pol_tloc_list_add_entry(ctx, name, &t.tloc, c.below(1000)); },
              [&] { pol_tloc_list_del_entry(ctx, name, &t.tloc); }, [&] { pol_tloc_list_cfg_del(ctx, name); });
    } else if (fam == COLOR) {
        t.color = (c.percent(10) ? 65536u : 0) + c.below(6);  // the low 16 bits count
        apply(op, [&] { pol_color_list_add_entry(ctx, name, t.color); },
              [&] { pol_color_list_del_entry(ctx, name, t.color); }, [&] { pol_color_list_cfg_del(ctx, name); });
    } else if (fam == PFX) {
        t.prefix = change_pfx_list(ctx, c, op, name);
    } else {
        t.community = change_community_list(ctx, c, fam != COMMUNITY, op, name);
    }
    return t;
}

void change_sequence(t_pol_ctx *ctx, chooser &c, t_pol_entry *seq, int kind, bool add)
{
    uint8_t changed = 0;
    const auto &op = kSequenceOps[std::clamp(kind, 0, kKinds - 1)];
    if (!add) {
        op.second(ctx, seq, &changed);
        return;
    }
    op.first(ctx, c, seq, &changed);
    if (kind >= kSetsFrom) {
        seq->set_entry.set_ultimate_action = static_cast<uint8_t>(c.below(4));
    }
}

void set_default(chooser &c, t_pol_block *block)
{
    t_pol_entry &d = block->default_action_entry;
    d.entry_action = c.percent(40) ? POL_ACTION_ACCEPT : POL_ACTION_REJECT;
    d.entry_action = c.percent(4) ? POL_ACTION_INVALID : d.entry_action;
    if (c.percent(20)) {
        d.entry_set_flags = c.bits() & (POL_SET_FLAG_TAG | POL_SET_FLAG_PREFERENCE | POL_SET_FLAG_TLOC |
                                        POL_SET_FLAG_VPN_ID | POL_SET_FLAG_SERVICE);
        t_pol_set_entry &s = d.set_entry;
        s.set_tag = 900;
        s.set_preference = 901;
        s.export_vpn_id = 902;
        s.set_service = 3;
        s.set_tloc = random_tloc(c);
        s.set_svc_tloc = random_tloc(c);
        s.set_ultimate_action = static_cast<uint8_t>(c.below(3));
    }
}

t_zen_attr random_attr(chooser &c)
{
    static const uint64_t kPresence[] = {ZEN_ATTR_FLAG_TLOC,       ZEN_ATTR_FLAG_PREFERENCE, ZEN_ATTR_FLAG_TAG,
                                         ZEN_ATTR_FLAG_DOMAIN_ID,  ZEN_ATTR_FLAG_SITE_ID,    ZEN_ATTR_FLAG_ORIGIN,
                                         ZEN_ATTR_FLAG_ORIGINATOR, ZEN_ATTR_FLAG_CARRIER,    ZEN_ATTR_FLAG_GROUP,
                                         ZEN_ATTR_FLAG_ORIGIN_METRIC};
    static const uint8_t kProtos[] = {1, 2, 3, 4, 4, 4, 5, 8};
    static const uint32_t kOriginators[] = {0x01010101, 0x02020202, 0x03030303, 0};
    t_zen_attr a{};
    for (uint64_t bit : kPresence) {
        a.attr_flags |= c.percent(65) ? bit : 0;
    }
    a.attr_flags |= c.percent(10) ? 0x100040ULL : 0;  // bits no condition reads travel through
    a.tloc = random_tloc(c);
    a.tloc.color = c.percent(5) ? 250 : a.tloc.color;
    a.preference = c.below(4);
    a.tag = c.below(4);
    a.domain_id = c.below(3);
    a.site_id = static_cast<uint32_t>(random_id(c));
    a.origin.proto = c.pick(kProtos);
    a.origin.proto_sub_type =
        static_cast<uint8_t>(a.origin.proto != 4 ? c.below(3) : (c.percent(50) ? 3 + c.below(4) : c.below(7)));
    a.origin.proto_metric = c.below(4);
    a.originator = htonl(c.pick(kOriginators));
    a.carrier = static_cast<uint8_t>(c.below(4));
    a.group_count = static_cast<uint16_t>(c.below(6));
    std::generate(a.group_list, a.group_list + a.group_count, [&c] { return c.below(6); });
    if (c.percent(80)) {
        uint32_t n = c.percent(10) ? 0 : 1 + c.below(8);
        a.community_p = static_cast<t_bgp_community *>(std::calloc(1, sizeof(t_bgp_community) + 4 * n));
        a.community_p->n_communities = n;
        a.community_p->ref_count = 1;
        for (uint32_t i = 0; i < n; i++) {
            a.community_p->communities[i] = random_community(c);
        }
    }
    return a;
}

void hash_label_cb(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id, uint16_t service,
                   bool svc_local, uint32_t *label_p, t_tloc_id *tloc_p, t_pol_te_info *te, uint32_t preference)
{
    uint64_t h = 0x243f6a8885a308d3ULL;
    for (uint64_t v : {uint64_t{afi}, uint64_t{addr}, uint64_t{color}, uint64_t{encap}, vpn_id, uint64_t{service},
                       uint64_t{svc_local}, uint64_t{label_p != nullptr}, uint64_t{tloc_p != nullptr},
                       uint64_t{preference}}) {
        h = (h ^ (v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2))) * 0xff51afd7ed558ccdULL;
    }
    unsigned n = (h >> 7) % 5 == 0 ? 0 : ((h >> 7) % 5 == 4 ? 2 : 1);
    for (unsigned i = 0; i < n && te->num_entries < POL_MAX_TE_ENTRIES - 1; i++) {
        t_pol_te &e = te->entries[te->num_entries++];
        e = t_pol_te{static_cast<uint32_t>(h >> 32) + i, preference, t_tloc_id{{}, color, encap}};
        IPADDR_SET_V4(&e.tloc.addr, addr);
    }
}

std::vector<std::string> outcome(e_pol_action verdict, const t_pol_exec_params &p, const t_pol_te_info &te)
{
    std::vector<std::string> out;
    auto line = [&out](const std::string &name, auto... values) {
        std::ostringstream s;
        s << std::hex << name << ":";
        ((s << ' ' << values), ...);
        out.push_back(s.str());
    };
    auto tloc_text = [](const t_tloc_id &t) {
        std::ostringstream s;
        s << "family " << t.addr.addr_type << " bytes";
        for (unsigned i = 0; i < width_of(t.addr) / 8; i++) {
            s << ' ' << unsigned{t.addr.u.addr6_b[i]};
        }
        return s.str() + " color " + std::to_string(t.color) + " encap " + std::to_string(t.encap);
    };
    const t_zen_attr &a = p.attr_out;
    std::ostringstream groups;
    for (uint32_t g : a.group_list) {
        groups << g << ' ';
    }
    line("verdict, match and set flags", verdict, p.entry_match_flags, p.entry_set_flags);
    line("attr_out flags tloc", a.attr_flags, tloc_text(a.tloc));
    line("attr_out preference tag domain site", a.preference, a.tag, a.domain_id, a.site_id);
    line("attr_out origin originator carrier", a.origin.proto_metric, unsigned{a.origin.proto},
         unsigned{a.origin.proto_sub_type}, a.originator, unsigned{a.carrier});
    line("attr_out groups", a.group_count, groups.str());
    line("attr_out.community_p set_community_p", static_cast<void *>(a.community_p), p.set_community_p);
    const t_pol_exec_vpn_entry *vpns = p.vpn_list.vpn_list_p;
    line("vpn_list", vpns != nullptr ? "buffer" : "none", p.vpn_list.num_vpn_entries);
    for (uint32_t i = 0; vpns != nullptr && i < std::min<uint32_t>(p.vpn_list.num_vpn_entries, POL_MAX_VPN); i++) {
        line("vpn_list[" + std::to_string(i) + "]", vpns[i].min_vpn_id, vpns[i].max_vpn_id);
    }
    line("te num_entries ultimate", te.num_entries, unsigned{te.ultimate_tloc_action});
    for (uint32_t i = 0; i < std::min<uint32_t>(te.num_entries, POL_MAX_TE_ENTRIES); i++) {
        const t_pol_te &e = te.entries[i];
        line("te[" + std::to_string(i) + "] label preference tloc", e.label, e.preference, tloc_text(e.tloc));
    }
    return out;
}

}  // namespace execmodel
