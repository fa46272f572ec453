// Route execution cross-checked against the plain evaluator of
// exec_reference, over randomized policies, lists and routes with fixed
// seeds. Policies are built and changed through the store operations, the
// lists change between routes and the next route is steered onto what
// changed, so the match-time indexes the library rebuilds lazily are
// queried right after every kind of change; some routes run while an index
// cannot be allocated and are answered from the entries. Verdict, flag
// words, rewritten attributes, exported VPN ranges, community set and
// label table must agree.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "exec_reference.hpp"
#include "pol_match.hpp"
#include "pol_test_support.hpp"

namespace {

class rng {
public:
    explicit rng(uint64_t seed) : gen_(seed) {}
    uint32_t below(uint32_t n) { return n == 0 ? 0 : static_cast<uint32_t>(gen_() % n); }
    bool percent(uint32_t p) { return below(100) < p; }
    uint64_t bits() { return gen_(); }
    template <typename T, std::size_t N>
    T pick(const T (&options)[N])
    {
        return options[below(N)];
    }

private:
    std::mt19937_64 gen_;
};

// Resolves a TLOC to none, one or two labels, as a hash of every argument,
// so that two tables filled by the same calls are equal and a call with
// any different argument shows. It leaves the table's last slot free for
// the ultimate fallback.
void label_cb(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id,
              uint16_t service, bool svc_local, uint32_t *label_p, t_tloc_id *tloc_p,
              t_pol_te_info *te, uint32_t preference)
{
    uint64_t h = 0x243f6a8885a308d3ULL;
    for (uint64_t v : {uint64_t{afi}, uint64_t{addr}, uint64_t{color}, uint64_t{encap}, vpn_id,
                       uint64_t{service}, uint64_t{svc_local}, uint64_t{label_p != nullptr},
                       uint64_t{tloc_p != nullptr}, uint64_t{preference}}) {
        h = (h ^ (v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2))) * 0xff51afd7ed558ccdULL;
    }
    unsigned n = (h >> 7) % 5 == 0 ? 0 : ((h >> 7) % 5 == 4 ? 2 : 1);
    for (unsigned i = 0; i < n && te->num_entries < POL_MAX_TE_ENTRIES - 1; i++) {
        t_pol_te &e = te->entries[te->num_entries++];
        e = t_pol_te{static_cast<uint32_t>(h >> 32) + i, preference, t_tloc_id{{}, color, encap}};
        IPADDR_SET_V4(&e.tloc.addr, addr);
    }
}

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

unsigned width_of(const t_ipaddr &a)
{
    return a.addr_type == IP_ADDR_V4 ? 32 : 128;
}

void set_bit(t_ipaddr &a, unsigned i, bool on)
{
    uint8_t bit = static_cast<uint8_t>(0x80u >> (i % 8));
    a.u.addr6_b[i / 8] = static_cast<uint8_t>(on ? a.u.addr6_b[i / 8] | bit : a.u.addr6_b[i / 8] & ~bit);
}

// Every family uses the same names: families, both prefix-list families
// and both community kinds keep separate lists all the same.
const char *const kNames[] = {"list-a", "list-b", "list-c"};
const char *const kPatterns[] = {"^65000:", ":1$", "(^| )65001:2( |$)", "no-export", "internet", "^$", ".*",
                                 "^(65000|65002):[0-9]+", "local-AS|no-advertise", "65535:65284",
                                 "^[0-9]+:100( |$)", " 65002:", "^0:", "6500[01]:3", "[a-z]+-[A-Z]+", "^no-export$"};
enum family : unsigned { SITE, VPN, TLOC, COLOR, PFX, COMMUNITY, FAMILIES };
constexpr int kSetsFrom = execref::COND_COUNT, kKinds = kSetsFrom + int{execref::SET_COUNT} - 1;

struct shape {
    unsigned rounds, routes;       // routes per round
    unsigned list_entries;         // initial entries of a site, VPN, TLOC, colour or community list
    unsigned pfx_entries;          // initial entries of a prefix list
    unsigned max_sequences, max_conditions;
    unsigned mutate_percent;       // chance of changes before a route
    bool prefix_focus = false;     // sequences match on a prefix list, routes are virtual routes
};

// Everything one execution hands back, a field a line (an IPv4 address
// counts by its four bytes only).
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

// One randomized run: rounds with seeds first_seed, first_seed + 1, ...,
// each a new policy with four users (inbound and outbound, with and
// without a label callback) taking routes of every kind, on edge routers
// and controllers; the lists carry over from round to round.
class differential_run {
public:
    differential_run(t_pol_ctx *ctx, const shape &sh, execref::stats &st) : ctx_(ctx), sh_(sh), st_(st) {}

    void run(uint64_t first_seed)
    {
        for (unsigned round = 0; round < sh_.rounds && failures_ < 5; round++) {
            seed_ = first_seed + round;
            rng_ = rng(seed_);
            for (unsigned family = 0; round == 0 && family < FAMILIES; family++) {
                for (unsigned i = 0; i < 6 * (family == PFX ? sh_.pfx_entries : sh_.list_entries); i++) {
                    change_list(family, ADD, kNames[i % 3]);  // both families or kinds, at random
                }
            }
            build_policy(round);
            for (route_ = 0; route_ < sh_.routes && failures_ < 5; route_++) {
                if (rng_.percent(sh_.mutate_percent)) {
                    mutate();
                }
                check_one_route();
            }
            drop_policy();
        }
    }

    unsigned executions = 0, max_te_entries = 0, vpn_full = 0;
    unsigned walked = 0;  // executions that found an index allocation failing

private:
    // Values cluster on a few small ones, so that single-value conditions
    // hold often enough; spans grow with the lists, so that long lists hold
    // distinct entries and routes still fall on them.
    uint64_t random_id(bool vpn = false)
    {
        if (rng_.percent(3)) {
            return vpn && rng_.percent(50) ? 0x100000005ull : 0xFFFFFFFFu;  // VPN ids go past 32 bits
        }
        return rng_.percent(50) ? rng_.below(6) : rng_.below(std::max(26u, 2 * sh_.list_entries) + (vpn ? 2 : 0));
    }

    t_tloc_id random_tloc()
    {
        uint32_t addrs = std::max(3u, sh_.list_entries / 4), which = rng_.below(addrs + 1);
        t_tloc_id t{which < addrs ? v4(0x0a000001u + which) : v6(0, 0, 1), static_cast<uint8_t>(rng_.below(4) + 1),
                    static_cast<uint8_t>(rng_.below(2) + 1)};
        if (t.addr.addr_type == IP_ADDR_V4 && rng_.percent(10)) {
            t.addr.u.addr32_b[2] = static_cast<uint32_t>(rng_.bits());  // not part of an IPv4 address
        }
        return t;
    }

    uint32_t random_community()
    {
        static const uint32_t kWellKnown[] = {0x00000000u, 0xFFFFFF01u, 0xFFFFFF02u, 0xFFFFFF03u};
        static const uint32_t kHigh[] = {0, 65000, 65001, 65002, 65535};
        static const uint32_t kLow[] = {0, 1, 2, 3, 100, 65284};
        return rng_.percent(20) ? rng_.pick(kWellKnown) : rng_.pick(kHigh) << 16 | rng_.pick(kLow);
    }

    t_ipprefix random_prefix(bool ipv6, bool route)
    {
        static const uint8_t kLast[] = {0, 1, 0x80, 0xff};
        static const uint8_t kLens4[] = {0, 8, 15, 16, 17, 22, 24, 25, 28, 30, 32};
        static const uint8_t kLens6[] = {0, 32, 47, 48, 63, 64, 65, 72, 96, 100, 120, 127, 128};
        uint32_t span = std::max(4u, sh_.pfx_entries / 20);
        t_ipprefix p{};
        uint32_t host = 0x0a000000u | rng_.below(2) << 16 | rng_.below(span) << 8 | rng_.pick(kLast);
        p.addr = ipv6 ? v6(rng_.below(2), rng_.below(span), rng_.pick(kLast))
                      : v4(rng_.percent(5) ? 0x0b000000u | rng_.below(4) << 8 : host);
        p.addr.u.addr6_b[8] = ipv6 && rng_.percent(30) ? rng_.pick(kLast) : 0;
        p.prefixlen = rng_.percent(3) ? static_cast<uint8_t>(width_of(p.addr) + 1 + rng_.below(8))  // a host route
                                      : (ipv6 ? rng_.pick(kLens6) : rng_.pick(kLens4));
        for (unsigned i = p.prefixlen, mask = rng_.percent(route ? 50 : 80); mask && i < width_of(p.addr); i++) {
            set_bit(p.addr, i, false);
        }
        if (!ipv6 && rng_.percent(10)) {  // an IPv4 address is its first four bytes; the rest must not count
            p.addr.u.addr32_b[1] = static_cast<uint32_t>(rng_.bits());
            p.addr.u.addr32_b[3] = static_cast<uint32_t>(rng_.bits());
        }
        return p;
    }

    // Inside or just beside a list's prefix: random bits past its length
    // (now and then only the first of them set, or its last bit flipped),
    // so that lookups land on entries and on the bit right after them.
    t_ipprefix near(t_ipprefix p)
    {
        unsigned width = width_of(p.addr), own = std::min<unsigned>(p.prefixlen, width);
        for (unsigned i = own; i < width; i++) {
            set_bit(p.addr, i, rng_.percent(30) ? i == own : rng_.percent(50));
        }
        if (own > 0 && rng_.percent(15)) {
            p.addr.u.addr6_b[(own - 1) / 8] ^= static_cast<uint8_t>(0x80u >> ((own - 1) % 8));
        }
        unsigned len = rng_.percent(10) ? rng_.below(width + 5) : own + rng_.below(width - own + 1);
        p.prefixlen = static_cast<uint8_t>(len);
        return p;
    }

    t_pfx_entry_param random_pfx_entry(bool ipv6)
    {
        t_pfx_entry_param e{};
        ipv6 = rng_.percent(12) ? !ipv6 : ipv6;  // now and then an entry of the other family
        if (rng_.percent(15)) {  // 0.0.0.0/0 or ::/0: most operators skip containment
            IPADDR_INIT(&e.prefix.addr, rng_.percent(50) ? IP_ADDR_V6 : IP_ADDR_V4);
        } else {
            e.prefix = random_prefix(ipv6, false);
        }
        e.pfx_op = static_cast<e_pfx_op>(rng_.percent(3) ? 9 : rng_.below(9));
        unsigned width = ipv6 ? 128 : 32, lo = std::min<unsigned>(e.prefix.prefixlen + rng_.below(9), width);
        unsigned hi = std::min<unsigned>(lo + rng_.below(12), width);
        bool around = rng_.percent(70);  // bounds around the entry's own length, or anywhere
        e.preflen_min = static_cast<uint8_t>(around ? lo : rng_.below(width + 9));
        e.preflen_max = static_cast<uint8_t>(around ? hi : rng_.below(width + 9));
        return e;
    }

    t_pfx_entry *pfx_entry_at(const t_pfx_list_key &key, uint32_t n)
    {
        t_pfx_list *list = pol_pfx_list_find(ctx_, &key);
        t_pfx_entry *e = list != nullptr ? TAILQ_FIRST(&list->pfx_entry_head) : nullptr;
        for (; e != nullptr && n > 0; n--) {
            e = TAILQ_NEXT(e, pfx_entry);
        }
        return e;
    }

    enum list_op { ADD, DELETE_ENTRY, DROP_LIST, REWRITE };

    // One change to one list of a family: an entry added or deleted, or the
    // list's configuration dropped (its users keep the record). Values come
    // from small spans, so that additions repeat entries (a TLOC again takes
    // a new preference) and deletions hit them; prefix lists delete, or
    // rewrite the operator and bounds of, an entry they hold. The next route
    // is steered onto the value concerned. Returns the list's name.
    const char *change_list(unsigned family, list_op op, const char *name = nullptr)
    {
        name = name != nullptr ? name : rng_.pick(kNames);
        auto apply = [op](auto add, auto del, auto drop) {
            return op == DROP_LIST ? drop() : (op == DELETE_ENTRY ? del() : add());
        };
        switch (family) {
        case SITE:
        case VPN: {
            uint32_t lo = static_cast<uint32_t>(random_id());
            uint32_t hi = rng_.percent(15) ? lo - std::min<uint32_t>(lo, rng_.below(4) + 1)  // reversed
                                           : (lo == 0xFFFFFFFFu ? lo : lo + rng_.below(5));
            uint32_t id = rng_.percent(50) ? lo : hi;
            bool site = family == SITE;
            apply([&] { return (site ? pol_site_list_add_entry : pol_vpn_list_add_entry)(ctx_, name, lo, hi); },
                  [&] { return (site ? pol_site_list_del_entry : pol_vpn_list_del_entry)(ctx_, name, lo, hi); },
                  [&] { return (site ? pol_site_list_cfg_del : pol_vpn_list_cfg_del)(ctx_, name); });
            steer_ = [site, id](t_zen_attr &a, t_pol_exec_params &p) {
                if (site) {
                    a.site_id = id;
                } else if (p.safi != POL_SAFI_TLOC) {  // a service route's VPN id is the same word
                    p.u.vroute_info.vpn_id = id;
                }
            };
            break;
        }
        case TLOC: {
            t_tloc_id t = random_tloc();
            apply([&] { return pol_tloc_list_add_entry(ctx_, name, &t, rng_.below(1000)); },
                  [&] { return pol_tloc_list_del_entry(ctx_, name, &t); },
                  [&] { return pol_tloc_list_cfg_del(ctx_, name); });
            steer_ = [t](t_zen_attr &a, t_pol_exec_params &p) {
                a.tloc = t;
                p.u.tloc_info.tloc = p.safi == POL_SAFI_TLOC ? t : p.u.tloc_info.tloc;
            };
            break;
        }
        case COLOR: {
            uint32_t color = (rng_.percent(10) ? 65536u : 0) + rng_.below(6);  // the low 16 bits count
            apply([&] { return pol_color_list_add_entry(ctx_, name, color); },
                  [&] { return pol_color_list_del_entry(ctx_, name, color); },
                  [&] { return pol_color_list_cfg_del(ctx_, name); });
            steer_ = [color](t_zen_attr &a, t_pol_exec_params &) { a.tloc.color = static_cast<uint8_t>(color); };
            break;
        }
        case PFX: {
            t_pfx_list_key key = {rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, name};
            t_pfx_entry *e = pfx_entry_at(key, rng_.below(sh_.pfx_entries + 2));
            t_pfx_entry_param p = random_pfx_entry(key.pfx_key_af == POL_AF_IPV6);
            p.prefix = e != nullptr && op != ADD ? e->prefix : p.prefix;  // a delete reads the prefix only
            apply([&] { return pol_pfx_list_entry_add(ctx_, &key, &p); },
                  [&] { return pol_pfx_list_del_entry(ctx_, &key, &p); },
                  [&] { return pol_pfx_list_cfg_del(ctx_, &key); });
            steer_ = [this, pfx = p.prefix](t_zen_attr &, t_pol_exec_params &r) {
                if (r.safi == POL_SAFI_VROUTE && rng_.percent(75)) {
                    r.u.vroute_info.prefix = near(pfx);
                }
            };
            break;
        }
        default: {
            community_list_type type = rng_.percent(50) ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED;
            uint32_t value = random_community();
            std::string text = std::to_string(value >> 16) + ":" + std::to_string(value & 0xFFFF);
            text = type == COMM_LIST_TYPE_EXPANDED ? rng_.pick(kPatterns) : text;
            apply([&] { return pol_community_list_add_entry(ctx_, name, text.c_str(), type); },
                  [&] { return pol_community_list_del_entry(ctx_, name, text.c_str(), type); },
                  [&] { return pol_community_list_cfg_del(ctx_, name, type); });
            steer_ = [value](t_zen_attr &a, t_pol_exec_params &) {
                if (a.community_p == nullptr || a.community_p->n_communities == 0) {
                    std::free(a.community_p);
                    a.community_p = static_cast<t_bgp_community *>(std::calloc(1, sizeof(t_bgp_community) + 4));
                    a.community_p->n_communities = 1;
                }
                a.community_p->communities[value % a.community_p->n_communities] = value;
            };
            break;
        }
        }
        return name;
    }

    // Adds one condition or set action with a random value, or deletes it.
    // Kinds are the conditions, then the set actions but the additive
    // communities (the community action picks replace, additive or both).
    void change_sequence(t_pol_entry *e, int kind, bool add)
    {
// An adder: statements on the run r, the sequence e and the changed flag c.
#define WITH(...) [](differential_run &r, t_pol_entry *e, uint8_t *c) { __VA_ARGS__; }
        using del_f = void (*)(t_pol_ctx *, t_pol_entry *, uint8_t *);
        static const std::pair<void (*)(differential_run &, t_pol_entry *, uint8_t *), del_f> kOps[] = {
            {WITH(pol_entry_match_tag_add(r.ctx_, e, r.rng_.below(4), c)), pol_entry_match_tag_delete},
            {WITH(pol_entry_match_origin_metric_add(r.ctx_, e, r.rng_.below(4), c)),
             pol_entry_match_origin_metric_delete},
            {WITH(pol_entry_match_preference_add(r.ctx_, e, r.rng_.below(4), c)), pol_entry_match_preference_delete},
            {WITH(pol_entry_match_domain_add(r.ctx_, e, r.rng_.below(3), c)), pol_entry_match_domain_delete},
            {WITH(pol_entry_match_group_add(r.ctx_, e, r.rng_.below(6), c)), pol_entry_match_group_delete},
            {WITH(pol_entry_match_vpn_id_add(r.ctx_, e, r.random_id(true), c)), pol_entry_match_vpn_id_delete},
            {WITH(pol_entry_match_vpn_list_add(r.ctx_, e, r.rng_.pick(kNames), c)), pol_entry_match_vpn_list_delete},
            {WITH(t_tloc_id t = r.random_tloc(); pol_entry_match_tloc_add(r.ctx_, e, &t, c)),
             pol_entry_match_tloc_delete},
            {WITH(pol_entry_match_tloc_list_add(r.ctx_, e, r.rng_.pick(kNames), c)), pol_entry_match_tloc_list_delete},
            {WITH(pol_entry_match_site_add(r.ctx_, e, uint32_t(r.random_id()), c)), pol_entry_match_site_delete},
            {WITH(pol_entry_match_site_list_add(r.ctx_, e, r.rng_.pick(kNames), c)), pol_entry_match_site_list_delete},
            {WITH(pol_entry_match_community_list_add(r.ctx_, e, r.rng_.pick(kNames), COMM_LIST_TYPE_STANDARD, c)),
             [](t_pol_ctx *x, t_pol_entry *e, uint8_t *c) {
                 pol_entry_match_community_list_delete(x, e, COMM_LIST_TYPE_STANDARD, c);
             }},
            {WITH(pol_entry_match_community_list_add(r.ctx_, e, r.rng_.pick(kNames), COMM_LIST_TYPE_EXPANDED, c)),
             [](t_pol_ctx *x, t_pol_entry *e, uint8_t *c) {
                 pol_entry_match_community_list_delete(x, e, COMM_LIST_TYPE_EXPANDED, c);
             }},
            // A TLOC route's locator overlays the prefix: never on a TLOC sequence.
            {WITH(t_pfx_list_key k = {r.rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, r.rng_.pick(kNames)};
                  if (e->match_entry.match_type != POL_MATCH_TLOC) { pol_entry_match_pfx_list_add(r.ctx_, e, &k, c); }),
             pol_entry_match_pfx_list_delete},
            // Codes 4 and 5 (protocol 4, subtypes 3 and 4) match subtypes in pairs.
            {WITH(uint32_t code = r.rng_.percent(50) ? 4 + r.rng_.below(2) : r.rng_.below(13);
                  pol_entry_match_origin_add(r.ctx_, e, code, c)),
             pol_entry_match_origin_delete},
            // IPv6 originators never match, not even one whose leading bytes
            // spell a route's IPv4 originator, nor :: against 0.0.0.0.
            {WITH(t_ipaddr a = v4(r.rng_.percent(50) ? 0x01010101 : 0x02020202); uint8_t b[16] = {};
                  std::memset(b, r.rng_.percent(50) ? 1 : 0, 4); if (r.rng_.percent(25)) { IPADDR_SET_V6(&a, b); }
                  pol_entry_match_originator_add(r.ctx_, e, &a, c)),
             pol_entry_match_originator_delete},
            {WITH(pol_entry_match_carrier_add(r.ctx_, e, uint8_t(r.rng_.below(4)), c)), pol_entry_match_carrier_delete},
            {WITH(pol_entry_match_color_add(r.ctx_, e, uint16_t(r.rng_.percent(10) ? 257 : r.rng_.below(5)), c)),
             pol_entry_match_color_delete},
            {WITH(pol_entry_match_color_list_add(r.ctx_, e, r.rng_.pick(kNames), c)),
             pol_entry_match_color_list_delete},
            // set actions
            {WITH(pol_entry_set_tag_add(r.ctx_, e, 100 + r.rng_.below(3), c)), pol_entry_set_tag_delete},
            {WITH(pol_entry_set_preference_add(r.ctx_, e, 200 + r.rng_.below(3), c)), pol_entry_set_preference_delete},
            {WITH(t_tloc_id t = r.random_tloc(); pol_entry_set_tloc_add(r.ctx_, e, &t, c)), pol_entry_set_tloc_delete},
            {WITH(pol_entry_set_vpn_id_add(r.ctx_, e, r.rng_.below(40), c)), pol_entry_set_vpn_id_delete},
            {WITH(pol_entry_set_vpn_list_add(r.ctx_, e, r.rng_.pick(kNames), c)), pol_entry_set_vpn_list_delete},
            {WITH(pol_entry_set_tloc_list_add(r.ctx_, e, r.rng_.pick(kNames), c)), pol_entry_set_tloc_list_delete},
            {WITH(t_tloc_id t = r.random_tloc(); uint16_t service = uint16_t(r.rng_.below(6));
                  pol_entry_set_service_add(r.ctx_, e, service, &t, r.rng_.below(2) * r.rng_.below(40), c)),
             pol_entry_set_service_delete},
            // The community array is handed over to the sequence.
            {WITH(uint16_t n = uint16_t(1 + r.rng_.below(4));
                  auto *v = static_cast<uint32_t *>(pol_malloc(n * sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
                  std::generate(v, v + n, [&r] { return r.random_community(); });
                  pol_config_set_bgp_community_upd(e, nullptr, 0); pol_config_set_bgp_community_upd(e, v, n);
                  unsigned how = r.rng_.below(3);  // replace, additive, or both (additive wins)
                  e->entry_set_flags &= how == 1 ? ~(POL_SET_FLAG_COMMUNITY | POL_SET_FLAG_COMMUNITY_ADDITIVE) : ~0ULL;
                  e->entry_set_flags |= how != 0 ? POL_SET_FLAG_COMMUNITY_ADDITIVE : 0; (void)c),
             [](t_pol_ctx *, t_pol_entry *e, uint8_t *) {
                 pol_config_set_bgp_community_upd(e, nullptr, 0);
                 e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE;
             }},
        };
#undef WITH
        static_assert(std::size(kOps) == kKinds);
        uint8_t ch = 0;
        if (!add) {
            kOps[kind].second(ctx_, e, &ch);
            return;
        }
        kOps[kind].first(*this, e, &ch);
        if (kind >= kSetsFrom) {
            e->set_entry.set_ultimate_action = static_cast<uint8_t>(rng_.below(4));
        }
    }

    // Sequences of every route kind (and of none or a wrong one) with
    // random conditions, action and set actions.
    void add_sequence(uint32_t num)
    {
        uint8_t ch = 0;
        t_pol_entry *e = pol_entry_find_or_create(ctx_, block_, num, &ch);
        ASSERT_NE(e, nullptr);
        static const e_pol_match_type kTypes[] = {POL_MATCH_VROUTE,  POL_MATCH_VROUTE,  POL_MATCH_VROUTE,
                                                  POL_MATCH_VROUTE,  POL_MATCH_TLOC,    POL_MATCH_TLOC,
                                                  POL_MATCH_SERVICE, POL_MATCH_SERVICE, POL_MATCH_INVALID,
                                                  POL_MATCH_PACKET};
        e_pol_match_type type = rng_.percent(90) ? POL_MATCH_VROUTE : POL_MATCH_SERVICE;
        pol_entry_match_add(ctx_, block_, e, sh_.prefix_focus ? type : rng_.pick(kTypes), &ch);
        if (sh_.prefix_focus) {
            change_sequence(e, execref::COND_PFX_LIST, true);
        }
        static const unsigned kConditionCounts[] = {0, 1, 1, 1, 2, 2, 2, 3, 3, 4};
        for (unsigned n = std::min(rng_.pick(kConditionCounts), sh_.max_conditions); n > 0; n--) {
            change_sequence(e, static_cast<int>(rng_.below(execref::COND_COUNT)), true);
        }
        static const e_pol_action kActions[] = {POL_ACTION_ACCEPT, POL_ACTION_ACCEPT, POL_ACTION_ACCEPT,
                                                POL_ACTION_ACCEPT, POL_ACTION_REJECT, POL_ACTION_REJECT,
                                                POL_ACTION_INVALID};
        pol_entry_action_add(ctx_, e, rng_.pick(kActions), &ch);
        for (int kind = kSetsFrom; kind < kKinds; kind++) {
            if (rng_.percent(30)) {
                change_sequence(e, kind, true);
            }
        }
    }

    // The default entry carries set actions only exceptionally; it has no
    // store operations of its own, so its fields are written directly.
    void set_default()
    {
        t_pol_entry &d = block_->default_action_entry;
        d.entry_action = rng_.percent(40) ? POL_ACTION_ACCEPT : POL_ACTION_REJECT;
        d.entry_action = rng_.percent(4) ? POL_ACTION_INVALID : d.entry_action;
        if (rng_.percent(20)) {
            d.entry_set_flags = rng_.bits() & (POL_SET_FLAG_TAG | POL_SET_FLAG_PREFERENCE | POL_SET_FLAG_TLOC |
                                               POL_SET_FLAG_VPN_ID | POL_SET_FLAG_SERVICE);
            t_pol_set_entry &s = d.set_entry;
            s.set_tag = 900;
            s.set_preference = 901;
            s.export_vpn_id = 902;
            s.set_service = 3;
            s.set_tloc = random_tloc();
            s.set_svc_tloc = random_tloc();
            s.set_ultimate_action = static_cast<uint8_t>(rng_.below(3));
        }
    }

    void build_policy(unsigned round)
    {
        policy_name_ = "policy-" + std::to_string(round);
        block_type_ = rng_.percent(85) ? POL_TYPE_ROUTE : POL_TYPE_MEMBERSHIP;
        for (unsigned i = 0; i < 4; i++) {
            std::string user = policy_name_ + "-" + std::to_string(i);
            e_pol_dir dir = i % 2 ? POL_DIR_OUT : POL_DIR_IN;
            users_[i] = poltest::register_user(user.c_str(), policy_name_.c_str(), block_type_, dir);
            ASSERT_NE(users_[i], nullptr);
            users_[i]->pol_label_cb = i < 2 ? label_cb : nullptr;
        }
        ASSERT_NE(block_ = users_[0]->pol_block_p, nullptr);
        for (unsigned n = rng_.below(sh_.max_sequences + 1); n > 0; n--) {
            add_sequence(1 + rng_.below(100));  // in random order; a repeat number extends the sequence
        }
        set_default();
        pol_user_chg_list_notify_all(ctx_);
    }

    void drop_policy()
    {
        for (t_pol_user *&user : users_) {
            pol_unregister(&user);
        }
        uint8_t ch = 0;
        pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &ch);
        pol_user_chg_list_notify_all(ctx_);
        block_ = nullptr;
    }

    std::vector<t_pol_entry *> sequences()
    {
        std::vector<t_pol_entry *> all;
        auto collect = [](void *record, void *arg) {
            static_cast<std::vector<t_pol_entry *> *>(arg)->push_back(static_cast<t_pol_entry *>(record));
            return 0;
        };
        if (block_ != nullptr) {
            avl_foreach(&block_->pol_entries, collect, &all);
        }
        return all;
    }

    void mutate()
    {
        unsigned what = rng_.below(100);
        std::vector<t_pol_entry *> seqs = sequences();
        t_pol_entry *seq = seqs.empty() ? nullptr : seqs[rng_.below(static_cast<uint32_t>(seqs.size()))];
        uint8_t ch = 0;
        if (what < 68) {
            list_op op = what < 31 ? ADD : (what < 57 ? DELETE_ENTRY : (what < 63 ? DROP_LIST : REWRITE));
            unsigned family = op == REWRITE || (sh_.prefix_focus && rng_.percent(80)) ? PFX : rng_.below(FAMILIES);
            const char *name = change_list(family, op);
            for (unsigned i = 0; op == DROP_LIST && sh_.list_entries > 20 && i < sh_.list_entries; i++) {
                change_list(family, ADD, name);  // a long list is configured anew
            }
        } else if (block_ == nullptr) {
            return;
        } else if (what < 86 && seq != nullptr) {
            uint32_t kind = what < 78 ? rng_.below(kSetsFrom) : kSetsFrom + rng_.below(kKinds - kSetsFrom);
            change_sequence(seq, static_cast<int>(kind), rng_.percent(50));
        } else if (what < 90) {
            add_sequence(1 + rng_.below(100));
        } else if (what < 94 && seq != nullptr) {
            pol_entry_find_and_delete(ctx_, block_, seq->entry_num, &ch);
        } else if (what < 96 && seq != nullptr) {  // a new route kind clears every condition of the sequence
            bool vroute = seq->match_entry.match_type == POL_MATCH_VROUTE;
            pol_entry_match_add(ctx_, block_, seq, vroute ? POL_MATCH_SERVICE : POL_MATCH_VROUTE, &ch);
        } else if (what < 99) {
            set_default();
        } else if (rng_.percent(20)) {  // the policy goes away under its users: they reject from now on
            pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &ch);
            block_ = nullptr;
        }
        pol_user_chg_list_notify_all(ctx_);
    }

    // Attributes present or not, with values that conditions hit often.
    t_zen_attr random_attr()
    {
        static const uint64_t kPresence[] = {ZEN_ATTR_FLAG_TLOC,      ZEN_ATTR_FLAG_PREFERENCE, ZEN_ATTR_FLAG_TAG,
                                             ZEN_ATTR_FLAG_DOMAIN_ID, ZEN_ATTR_FLAG_SITE_ID,    ZEN_ATTR_FLAG_ORIGIN,
                                             ZEN_ATTR_FLAG_ORIGINATOR, ZEN_ATTR_FLAG_CARRIER,  ZEN_ATTR_FLAG_GROUP,
                                             ZEN_ATTR_FLAG_ORIGIN_METRIC};
        static const uint8_t kProtos[] = {1, 2, 3, 4, 4, 4, 5, 8};
        static const uint32_t kOriginators[] = {0x01010101, 0x02020202, 0x03030303, 0};
        t_zen_attr a{};
        for (uint64_t bit : kPresence) {
            a.attr_flags |= rng_.percent(65) ? bit : 0;
        }
        a.attr_flags |= rng_.percent(10) ? 0x100040ULL : 0;  // bits no condition reads travel through
        a.tloc = random_tloc();
        a.tloc.color = rng_.percent(5) ? 250 : a.tloc.color;
        a.preference = rng_.below(4);
        a.tag = rng_.below(4);
        a.domain_id = rng_.below(3);
        a.site_id = static_cast<uint32_t>(random_id());
        a.origin.proto = rng_.pick(kProtos);
        a.origin.proto_sub_type = static_cast<uint8_t>(
            a.origin.proto != 4 ? rng_.below(3) : (rng_.percent(50) ? 3 + rng_.below(4) : rng_.below(7)));
        a.origin.proto_metric = rng_.below(4);
        a.originator = htonl(rng_.pick(kOriginators));
        a.carrier = static_cast<uint8_t>(rng_.below(4));
        a.group_count = static_cast<uint16_t>(rng_.below(6));
        std::generate(a.group_list, a.group_list + a.group_count, [this] { return rng_.below(6); });
        if (rng_.percent(80)) {
            uint32_t n = rng_.percent(10) ? 0 : 1 + rng_.below(8);
            a.community_p = static_cast<t_bgp_community *>(std::calloc(1, sizeof(t_bgp_community) + 4 * n));
            a.community_p->n_communities = n;
            a.community_p->ref_count = 1;
            for (uint32_t i = 0; i < n; i++) {
                a.community_p->communities[i] = random_community();
            }
        }
        return a;
    }

    void check_one_route()
    {
        t_zen_attr attr = random_attr();
        bool in = rng_.percent(50);
        std::vector<t_pol_entry *> seqs = sequences();  // TLOC-list actions need a label callback
        bool plain = rng_.percent(25) && std::none_of(seqs.begin(), seqs.end(), [](t_pol_entry *e) {
                         return (e->entry_set_flags & POL_SET_FLAG_TLOC_LIST) != 0;
                     });
        t_pol_user *user = users_[(in ? 0 : 1) + (plain ? 2 : 0)];
        e_zen_device device = rng_.percent(50) ? ZEN_DEVICE_QARMON : ZEN_DEVICE_RIMBA;
        t_pol_exec_params lib, ref;
        pol_pre_execute(&lib, device);
        lib.attr_in_p = &attr;
        static const uint8_t kSafis[] = {1, 1, 1, 1, 1, 2, 2, 3, 3};
        lib.safi = sh_.prefix_focus && rng_.percent(90) ? POL_SAFI_VROUTE : rng_.pick(kSafis);
        lib.afi = rng_.percent(50) ? 2 : 10;
        if (lib.safi == POL_SAFI_TLOC) {
            lib.u.tloc_info.tloc = rng_.percent(50) ? attr.tloc : random_tloc();
        } else {
            lib.u.vroute_info.vpn_id = random_id(true);
        }
        if (lib.safi == POL_SAFI_VROUTE) {  // often on a prefix some list holds
            t_pfx_list_key key = {lib.afi == 10 ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kNames)};
            bool listed = rng_.percent(sh_.prefix_focus ? 85 : 50);
            t_pfx_entry *e = listed ? pfx_entry_at(key, rng_.below(sh_.pfx_entries + 1)) : nullptr;
            lib.u.vroute_info.prefix = e != nullptr ? near(e->prefix) : random_prefix(lib.afi == 10, true);
        }
        if (steer_ && rng_.percent(80)) {
            steer_(attr, lib);
        }
        steer_ = nullptr;
        lib.in_label = static_cast<uint32_t>(rng_.bits());
        t_pol_te_info lib_te{}, ref_te{};
        lib.te_info_p = &lib_te;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        ref.te_info_p = &ref_te;

        int64_t vpn_buffers = poltest::live_count(POL_MEM_LIST_VPN_1);
        e_pol_action lib_v = execute_starving_an_index(user, &lib);
        e_pol_action ref_v = execref::execute(user, &ref, &st_);
        executions++;
        max_te_entries = std::max(max_te_entries, lib_te.num_entries);
        vpn_full += lib.vpn_list.num_vpn_entries == POL_MAX_VPN ? 1 : 0;
        std::vector<std::string> got = outcome(lib_v, lib, lib_te), want = outcome(ref_v, ref, ref_te);
        auto diff = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
        if (diff.first != got.end() || diff.second != want.end()) {
            failures_++;
            ADD_FAILURE() << "seed " << seed_ << " route " << route_ << " (safi " << unsigned{lib.safi} << ", "
                          << (in ? "in" : "out") << (plain ? ", no label callback" : "") << "): library "
                          << (diff.first != got.end() ? *diff.first : "-") << ", reference "
                          << (diff.second != want.end() ? *diff.second : "-");
        }
        if (device == ZEN_DEVICE_QARMON) {
            pol_post_execute(&lib);
        } else {
            pol_free(lib.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
        }
        EXPECT_EQ(poltest::live_count(POL_MEM_LIST_VPN_1), vpn_buffers)
            << "seed " << seed_ << " route " << route_ << ": more than one export buffer per execution";
        execref::release(&ref);
        std::free(attr.community_p);
    }

    // One route in five runs while the index of one list family cannot be
    // allocated (chosen by the route's number, leaving the random stream
    // alone): a list that needs a new index then answers from its entries.
    e_pol_action execute_starving_an_index(t_pol_user *user, t_pol_exec_params *lib)
    {
        static const e_pol_mem kIndexRows[] = {POL_MEM_LIST_SITE, POL_MEM_LIST_VPN, POL_MEM_LIST_PREFIX};
        if ((seed_ + route_) % 5 != 0) {
            return pol_execute(user, lib);
        }
        const e_pol_mem row = kIndexRows[(seed_ + route_) / 5 % 3];
        const uint64_t tries = g_pol_mem_info[row].alloc;
        poltest::AllocFailure fail(row);
        e_pol_action verdict = pol_execute(user, lib);
        walked += g_pol_mem_info[row].alloc != tries ? 1 : 0;
        return verdict;
    }

    t_pol_ctx *ctx_;
    shape sh_;
    execref::stats &st_;
    rng rng_{0};
    uint64_t seed_ = 0;
    unsigned route_ = 0, failures_ = 0;
    std::string policy_name_;
    t_pol_user *users_[4] = {};
    t_pol_block *block_ = nullptr;
    e_pol_type block_type_ = POL_TYPE_ROUTE;
    std::function<void(t_zen_attr &, t_pol_exec_params &)> steer_;  // onto what the last list change touched
};

class ExecDifferential : public poltest::PolContextTest {
protected:
    // Every condition must have been seen holding and failing, every set
    // action applied and every verdict given: otherwise the run proved
    // little. Long lists make single-value conditions rare: those runs
    // check the list conditions only.
    differential_run run(const shape &sh, uint64_t seed, execref::stats &st)
    {
        differential_run r(ctx_, sh, st);
        r.run(seed);
        EXPECT_EQ(r.executions, sh.rounds * sh.routes);
        EXPECT_GT(r.walked, 0u) << "no route was answered from a list's entries";
        for (int k = 0; k < execref::COND_COUNT; k++) {
            bool exempt = sh.list_entries > 20 && !std::string(execref::condition_name(k)).ends_with("list");
            EXPECT_TRUE(st.held[k] > 0 || exempt) << "never held: " << execref::condition_name(k);
            EXPECT_TRUE(st.failed[k] > 0 || exempt) << "never failed: " << execref::condition_name(k);
        }
        for (int k = 0; k < execref::SET_COUNT; k++) {
            EXPECT_GT(st.applied[k], 0u) << "set action never applied: " << execref::set_name(k);
        }
        EXPECT_TRUE(st.accepted && st.rejected && st.invalid && st.by_default && st.unresolved_tloc &&
                    st.ultimate_fallback)
            << st.accepted << " accepted, " << st.rejected << " rejected, " << st.invalid << " invalid, "
            << st.by_default << " by default, " << st.unresolved_tloc << " unresolved TLOCs, "
            << st.ultimate_fallback << " ultimate fallbacks";
        return r;
    }
};

// Small lists, and lists and policies changing before most routes.
TEST_F(ExecDifferential, ChangingListsAndPoliciesAgreeWithReference)
{
    execref::stats st;
    run(shape{250, 60, 5, 10, 8, 4, 70}, 1000, st);
}

// Lists long enough to fill the export buffer (128 ranges) and the label
// table (64 entries), and prefix lists with many lengths and groups.
TEST_F(ExecDifferential, LargeListsAgreeWithReference)
{
    execref::stats st;
    differential_run r = run(shape{60, 100, 160, 600, 6, 2, 30}, 9000, st);
    EXPECT_GT(st.vpn_truncated, 0u);
    EXPECT_GT(r.vpn_full, 0u);
    EXPECT_EQ(r.max_te_entries, static_cast<unsigned>(POL_MAX_TE_ENTRIES));
}

// Every sequence matches on a prefix list; routes fall inside, beside and
// just past the entries while the prefix lists change before most routes.
TEST_F(ExecDifferential, PrefixListsAgreeWithReference)
{
    execref::stats st;
    run(shape{120, 80, 4, 40, 6, 1, 80, true}, 13000, st);
    EXPECT_GT(st.held[execref::COND_PFX_LIST], 1000u);
    EXPECT_GT(st.failed[execref::COND_PFX_LIST], 1000u);
}

/* ---- hand-worked prefix cases ---- */

t_ipprefix parse_prefix(const std::string &text)
{
    t_ipprefix p{};
    bool ipv6 = text.find(':') != std::string::npos;
    p.addr.addr_type = ipv6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(ipv6 ? AF_INET6 : AF_INET, text.substr(0, text.find('/')).c_str(), p.addr.u.addr6_b), 1);
    p.prefixlen = static_cast<uint8_t>(std::stoi(text.substr(text.find('/') + 1)));
    return p;
}

struct prefix_case {
    e_pol_af list_af;
    const char *entry;
    int op;
    uint8_t min, max;
    const char *route;
    bool matches;
};

constexpr e_pol_af V4 = POL_AF_IPV4, V6 = POL_AF_IPV6;
constexpr int NONE = PFX_OP_NONE, RANGE = PFX_OP_RANGE, XRANGE = PFX_OP_XRANGE, EQ = PFX_OP_EQ, NE = PFX_OP_NE,
              LE = PFX_OP_LE, LT = PFX_OP_LT, GE = PFX_OP_GE, GT = PFX_OP_GT;

// clang-format off
const prefix_case kPrefixCases[] = {
    // A zero prefix of length 0 skips containment, except with NONE, EQ and NE.
    {V4, "0.0.0.0/0", LE, 0, 24, "0.0.0.0/0", true},       {V4, "0.0.0.0/0", LE, 0, 24, "10.1.2.0/24", true},
    {V4, "0.0.0.0/0", LE, 0, 24, "10.1.2.0/25", false},    {V4, "0.0.0.0/0", EQ, 0, 0, "0.0.0.0/0", true},
    {V4, "0.0.0.0/0", EQ, 0, 0, "10.0.0.0/8", false},      {V4, "0.0.0.0/0", NONE, 0, 0, "10.0.0.0/8", false},
    {V4, "0.0.0.0/0", NE, 0, 0, "10.0.0.0/8", true},       {V4, "0.0.0.0/0", GE, 8, 0, "8.0.0.0/7", false},
    {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/8", true},   {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/7", false},
    {V4, "0.0.0.0/0", RANGE, 8, 24, "10.0.0.0/25", false}, {V4, "::/0", GE, 0, 0, "10.0.0.0/8", true},
    {V4, "::/0", NE, 0, 0, "10.0.0.0/8", false},           {V4, "::/0", NONE, 0, 0, "10.0.0.0/8", false},
    {V6, "0.0.0.0/0", LE, 0, 32, "2001:db8::/32", true},   {V6, "0.0.0.0/0", NE, 0, 0, "2001:db8::/32", false},
    {V6, "0.0.0.0/0", EQ, 0, 0, "::/0", false},            {V6, "::/0", LE, 0, 64, "2001:db8:1::/48", true},
    // NONE, EQ and NE compare with the entry's own length.
    {V4, "10.0.0.0/8", NE, 0, 0, "10.1.0.0/16", true},     {V4, "10.0.0.0/8", NE, 0, 0, "11.0.0.0/16", false},
    {V4, "10.0.0.0/8", NE, 0, 0, "10.0.0.0/8", false},     {V4, "10.0.0.0/8", NONE, 0, 0, "10.0.0.0/9", false},
    // LE reads the max bound; LT, GE and GT the min.
    {V4, "10.0.0.0/8", LE, 30, 16, "10.1.0.0/16", true},   {V4, "10.0.0.0/8", LE, 30, 16, "10.1.1.0/24", false},
    {V4, "10.0.0.0/8", LT, 20, 0, "10.1.0.0/16", true},    {V4, "10.0.0.0/8", LT, 20, 0, "10.1.1.0/20", false},
    {V4, "10.0.0.0/8", LT, 24, 32, "10.1.0.0/23", true},   {V4, "10.0.0.0/8", LT, 24, 32, "10.1.0.0/24", false},
    {V4, "10.0.0.0/8", GE, 16, 0, "10.1.0.0/16", true},    {V4, "10.0.0.0/8", GE, 16, 0, "10.0.0.0/15", false},
    {V4, "10.0.0.0/8", GT, 16, 0, "10.1.1.0/17", true},    {V4, "10.0.0.0/8", GT, 16, 0, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", GT, 16, 32, "10.1.0.0/17", true},   {V4, "10.0.0.0/8", GT, 16, 32, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", RANGE, 16, 24, "10.1.1.0/24", true}, {V4, "10.0.0.0/8", RANGE, 16, 24, "10.1.1.0/25", false},
    {V4, "10.0.0.0/8", RANGE, 8, 32, "11.1.0.0/16", false}, {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.0.0/16", false},
    {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.0.0/17", true}, {V4, "10.0.0.0/8", XRANGE, 16, 24, "10.1.1.0/24", false},
    {V4, "10.0.0.0/8", 9, 0, 32, "10.1.1.0/24", false},
    // Host bits of the entry do not count (lengths past the width are refused by the store).
    {V4, "10.1.2.3/8", LE, 0, 32, "10.200.0.0/16", true},
    // The list's family, then the entry's, must be the route's.
    {V4, "2001:db8::/32", LE, 0, 128, "10.0.0.0/8", false}, {V6, "0.0.0.0/0", GE, 0, 0, "10.0.0.0/8", false},
    {V6, "2001:db8::/32", LE, 0, 64, "2001:db8:1::/48", true},
    {V6, "2001:db8::/32", LE, 0, 64, "2001:db9:1::/48", false},
    {V6, "2001:db8::/100", LE, 0, 128, "2001:db8::800:0/128", true},
    {V6, "2001:db8::/100", LE, 0, 128, "2001:db8::1000:0/128", false},
    {V6, "2001:db8::/65", GE, 65, 0, "2001:db8::4000:0:0:0/80", true},
    {V6, "2001:db8::/33", GE, 33, 0, "2001:db8:8000::/40", false},
    {V6, "2001:db8::/33", GE, 33, 0, "2001:db8:7fff::/48", true},
};
// clang-format on

// Each case as the only entry of the list a sequence matches on, through
// the library and the reference, and where the list is of the route's
// family the entry alone through pol_exec_match_pfx_entry.
TEST_F(ExecDifferential, HandWorkedPrefixCasesGiveTheSameVerdictEverywhere)
{
    t_pol_user *user = poltest::register_user("prefix-cases", "prefix-policy");
    uint8_t ch = 0;
    t_pol_entry *seq = pol_entry_find_or_create(ctx_, user->pol_block_p, 10, &ch);
    pol_entry_match_add(ctx_, user->pol_block_p, seq, POL_MATCH_VROUTE, &ch);
    pol_entry_action_add(ctx_, seq, POL_ACTION_ACCEPT, &ch);
    for (const prefix_case &c : kPrefixCases) {
        std::ostringstream what;
        what << c.entry << " op " << c.op << " " << unsigned{c.min} << ".." << unsigned{c.max} << ", route " << c.route;
        t_pfx_list_key key = {c.list_af, "cases"};
        ASSERT_NE(pol_entry_match_pfx_list_add(ctx_, seq, &key, &ch), nullptr);
        pol_pfx_list_cfg_del(ctx_, &key);
        t_pfx_entry_param e{static_cast<e_pfx_op>(c.op), parse_prefix(c.entry), c.min, c.max};
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &key, &e), ERR_OK);
        t_zen_attr attr{};
        t_pol_exec_params lib, ref;
        pol_pre_execute(&lib, ZEN_DEVICE_RIMBA);
        lib.attr_in_p = &attr;
        lib.safi = POL_SAFI_VROUTE;
        lib.u.vroute_info.prefix = parse_prefix(c.route);
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        if (IPPREFIX_IS_V4(&lib.u.vroute_info.prefix) == (c.list_af == V4)) {
            t_pfx_entry *only = TAILQ_FIRST(&pol_pfx_list_find(ctx_, &key)->pfx_entry_head);
            EXPECT_EQ(pol_exec_match_pfx_entry(only, &lib), c.matches) << "entry alone: " << what.str();
        }
        e_pol_action want = c.matches ? POL_ACTION_ACCEPT : POL_ACTION_REJECT;
        EXPECT_EQ(pol_execute(user, &lib), want) << "library: " << what.str();
        EXPECT_EQ(execref::execute(user, &ref), want) << "reference: " << what.str();
        execref::release(&ref);
    }
    pol_unregister(&user);
}

// Configured ge and le lengths (0: not given) pick the operator that admits
// what they say: the entry 10.0.0.0/8 admits the routes inside it of
// lengths ge to le, ge and longer, up to le, or, with neither, its own.
TEST_F(ExecDifferential, ConfiguredBoundsPickTheOperatorTheyMean)
{
    const struct {
        uint8_t ge, le;
        e_pfx_op op;
        unsigned lo, hi;  // the lengths admitted
    } kBounds[] = {
        {0, 0, PFX_OP_EQ, 8, 8},         {16, 0, PFX_OP_GE, 16, 32},     {0, 24, PFX_OP_LE, 8, 24},
        {16, 24, PFX_OP_RANGE, 16, 24},  {8, 8, PFX_OP_RANGE, 8, 8},     {24, 16, PFX_OP_RANGE, 1, 0},
        {4, 0, PFX_OP_GE, 8, 32},        {0, 4, PFX_OP_LE, 1, 0},
    };
    for (const auto &b : kBounds) {
        SCOPED_TRACE("ge " + std::to_string(b.ge) + " le " + std::to_string(b.le));
        EXPECT_EQ(pol::pfx_op_of_bounds(b.ge, b.le), b.op);
        t_pfx_entry entry{};
        entry.pfx_op = pol::pfx_op_of_bounds(b.ge, b.le);
        entry.prefix = parse_prefix("10.0.0.0/8");
        entry.preflen_min = b.ge;
        entry.preflen_max = b.le;
        t_pol_exec_params route{};
        for (unsigned len = 0; len <= 32; len++) {
            route.u.vroute_info.prefix = parse_prefix("10.0.0.0/" + std::to_string(len));
            EXPECT_EQ(pol_exec_match_pfx_entry(&entry, &route), b.lo <= len && len <= b.hi) << "length " << len;
        }
    }
}

}  // namespace

namespace {

/* ---- expanded community patterns ---- */

// The per-entry answer the library's value sets and pattern automaton must
// give: regexec of each compiled pattern over the rendered text.
bool regexec_answer(t_community_list *list, const t_bgp_community &comms)
{
    char text[POL_COMMUNITY_LIST_STR_SIZE];
    community_list_getstr(text, comms.communities, comms.n_communities);
    for (t_community_entry *e = TAILQ_FIRST(&list->community_entry_head); e; e = TAILQ_NEXT(e, community_entry)) {
        if (regexec(&e->comppattern, text, 0, nullptr, 0) == 0) {
            return true;
        }
    }
    return false;
}

struct community_record {
    std::vector<unsigned char> bytes;
    t_bgp_community *get() { return reinterpret_cast<t_bgp_community *>(bytes.data()); }
    explicit community_record(const std::vector<uint32_t> &values)
        : bytes(sizeof(t_bgp_community) + values.size() * sizeof(uint32_t))
    {
        get()->n_communities = static_cast<uint32_t>(values.size());
        std::copy(values.begin(), values.end(), get()->communities);
    }
};

std::string community_string(uint32_t v)
{
    char buf[POL_COMMUNITY_STR_SIZE];
    return community_getstr(v, buf, sizeof(buf));
}

// Pieces of patterns: community texts as they render and as they never do,
// and the constructs of extended expressions, some of which the automaton
// reads differently (backslash classes, bracket escapes, intervals without
// a lower bound) and must leave to regexec.
std::string random_pattern(rng &r, const std::vector<uint32_t> &pool)
{
    static const char *const kAtoms[] = {
        "65000", "65001", ":", "1", "2", "0", "100", "no-export", "local-AS", "internet", ".", "[0-9]",
        "[0-9]+", "[^ ]*", "[[:digit:]]", "[]:]", "[a-z-]", " ", "\\.", "\\d", "[\\]", "x{,2}", "{", "6{2}",
        "5{1,3}", "(0|1)", "()", "a|", "\\(", "[[:alpha:]]+", "[[=a=]]", "\\<", "\\1", "(1)\\1", "^*", "(*0)", "1{0,1001}",
    };
    static const char *const kLeft[] = {"(^| )", "( |^)", "^", "", ""};
    static const char *const kRight[] = {"( |$)", "($| )", "$", "", ""};
    static const char *const kRepeat[] = {"", "", "", "*", "+", "?", "{2}", "{0,1}", "{1,}", "**"};
    static const char *const kUpperHalf[] = {"65000:", "65001:[0-9]+", "65000:[0-9]*", "065000:", "1:[0-9]+",
                                             "65535:", "0:[0-9]+"};
    auto community = [&] {
        if (r.percent(15)) {
            return std::string(r.percent(50) ? "065000:1" : (r.percent(50) ? "65535:65281" : "0:0"));
        }
        if (r.percent(20)) {
            return std::string(r.pick(kUpperHalf));
        }
        return community_string(pool[r.below(static_cast<uint32_t>(pool.size()))]);
    };
    std::string p;
    const unsigned units = 1 + r.below(3);
    for (unsigned u = 0; u < units; u++) {
        p += u > 0 ? "|" : "";
        if (r.percent(45)) {  // a whole-community shape
            p += r.pick(kLeft);
            if (r.percent(30)) {
                p += "(" + community() + "|" + community() + ")";
            } else {
                p += community();
            }
            p += r.pick(kRight);
            continue;
        }
        for (unsigned a = 1 + r.below(4); a > 0; a--) {
            p += r.percent(30) ? community() : r.pick(kAtoms);
            p += r.pick(kRepeat);
        }
    }
    return p;
}

}  // namespace

// Hand-worked verdicts for the shapes the library answers without the
// text, and the rendering that the text-bound patterns see.
TEST_F(ExecDifferential, ExpandedPatternShapesMeanWhatRegexecMeans)
{
    const struct {
        const char *pattern;
        std::vector<uint32_t> route;
        bool matches;
    } kCases[] = {
        {"^65000:1$", {65000u << 16 | 1}, true},
        {"^65000:1$", {65000u << 16 | 1, 65000u << 16 | 2}, false},
        {"(^| )65000:1( |$)", {7, 65000u << 16 | 1, 9}, true},
        {"(^| )65000:1( |$)", {65000u << 16 | 10}, false},
        {"^(65000:1|65000:2)( |$)", {65000u << 16 | 2, 3}, true},
        {"^(65000:1|65000:2)( |$)", {3, 65000u << 16 | 2}, false},
        {"(^| )65000:2$", {3, 65000u << 16 | 2}, true},
        {"(^| )65535:65281( |$)", {0xFFFFFF01u}, false},  // renders as no-export
        {"(^| )no-export( |$)", {0xFFFFFF01u}, true},
        {"^0:0$", {0}, false},  // renders as internet
        {"65000:1", {65000u << 16 | 10}, true},
        {"^$", {}, true},
        {"(^| )1:1( |$)", std::vector<uint32_t>(60, 2u << 16 | 2), false},
        {"^65100:", {65100u << 16 | 7, 1}, true},
        {"^65100:", {1, 65100u << 16 | 7}, false},
        {"(^| )65200:[0-9]+$", {1, 65200u << 16 | 9}, true},
        {"^65100:$", {65100u << 16 | 7}, false},
        {"(^| )65535:", {0xFFFFFF01u}, false},  // no-export has no upper half in its text
        {"no-export", {1, 0xFFFFFF01u}, true},
        {"5100:", {65100u << 16 | 7}, true},  // inside a token: left to the automaton
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.pattern);
        ASSERT_EQ(pol_community_list_cfg_del(ctx_, "shapes", COMM_LIST_TYPE_EXPANDED), ERR_OK);
        ASSERT_EQ(pol_community_list_add_entry(ctx_, "shapes", c.pattern, COMM_LIST_TYPE_EXPANDED), ERR_OK);
        t_community_list *list = pol_community_list_find(ctx_, "shapes", COMM_LIST_TYPE_EXPANDED);
        community_record rec(c.route);
        pol::community_text text;
        EXPECT_EQ(pol::community_list_matches(list, *rec.get(), text), c.matches);
        EXPECT_EQ(regexec_answer(list, *rec.get()), c.matches);
    }
    // The last route does not fit the text: the rendering stops before the
    // community that would not fit, as community_list_getstr does.
    std::vector<uint32_t> long_route(60, 65535u << 16 | 65535);
    long_route[41] = 1u << 16 | 1;
    community_record rec(long_route);
    char want[POL_COMMUNITY_LIST_STR_SIZE];
    char got[POL_COMMUNITY_LIST_STR_SIZE];
    community_list_getstr(want, rec.get()->communities, rec.get()->n_communities);
    EXPECT_EQ(pol::render_communities(got, rec.get()->communities, rec.get()->n_communities), std::strlen(want));
    EXPECT_STREQ(got, want);
}

// Random expanded lists against random routes: every verdict of the value
// sets, the automaton and the residual patterns equals the per-entry
// regexec answer, also when the index cannot be allocated.
TEST_F(ExecDifferential, RandomExpandedPatternsAgreeWithRegexecPerEntry)
{
    rng r(2026);
    std::vector<uint32_t> pool;
    for (uint32_t v : {0u, 0xFFFFFF01u, 0xFFFFFF02u, 0xFFFFFF03u, 65000u << 16 | 1, 65000u << 16 | 2,
                       65001u << 16 | 100, 1u << 16 | 1, 65535u << 16 | 65284, 10u << 16 | 0}) {
        pool.push_back(v);
    }
    unsigned verdicts[2] = {0, 0};
    for (unsigned batch = 0; batch < 300; batch++) {
        ASSERT_EQ(pol_community_list_cfg_del(ctx_, "random", COMM_LIST_TYPE_EXPANDED), ERR_OK);
        std::vector<std::string> patterns;
        for (unsigned n = 1 + r.below(6); patterns.size() < n;) {
            std::string p = random_pattern(r, pool);
            regex_t probe;
            if (regcomp(&probe, p.c_str(), REG_EXTENDED | REG_NOSUB) == 0) {
                patterns.push_back(p);
            }
            regfree(&probe);
        }
        for (const std::string &p : patterns) {
            ASSERT_EQ(pol_community_list_add_entry(ctx_, "random", p.c_str(), COMM_LIST_TYPE_EXPANDED), ERR_OK);
        }
        t_community_list *list = pol_community_list_find(ctx_, "random", COMM_LIST_TYPE_EXPANDED);
        for (unsigned route = 0; route < 40; route++) {
            std::vector<uint32_t> values(r.percent(5) ? 40 + r.below(20) : r.below(5));
            for (uint32_t &v : values) {
                v = r.percent(70) ? pool[r.below(static_cast<uint32_t>(pool.size()))] : static_cast<uint32_t>(r.bits());
            }
            community_record rec(values);
            pol::community_text text;
            const bool want = regexec_answer(list, *rec.get());
            bool got = false;
            if (batch % 10 == 9) {
                poltest::AllocFailure fail(POL_MEM_LIST_COMMUNITY);
                pol::free_exec_index(&list->exec_index);
                got = pol::community_list_matches(list, *rec.get(), text);
            } else {
                got = pol::community_list_matches(list, *rec.get(), text);
            }
            verdicts[want]++;
            std::string all;
            for (const std::string &p : patterns) {
                all += " [" + p + "]";
            }
            ASSERT_EQ(got, want) << "patterns" << all << " text '" << (text.ready ? text.text : "(not rendered)")
                                 << "'";
        }
    }
    EXPECT_GT(verdicts[0], 1000u);
    EXPECT_GT(verdicts[1], 1000u);
}
