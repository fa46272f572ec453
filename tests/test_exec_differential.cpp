// Route execution cross-checked against the plain evaluator of
// exec_reference: randomized policies, lists and routes, with fixed seeds.
//
// Each round builds a policy through the store operations (sequences of
// every route kind, random conditions over every list kind, random actions
// and set actions, a random default) and runs routes of all three kinds
// through it for inbound and outbound users, on edge routers and
// controllers. Between routes the lists (and now and then the policy)
// change, so the match-time indexes the library rebuilds lazily are
// queried right after every kind of change. For every route the verdict,
// both flag words, the rewritten attributes, the exported VPN ranges, the
// community set and the label table must agree exactly.
#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "exec_reference.hpp"
#include "pol_test_support.hpp"

namespace {

using poltest::live_count;
using poltest::PolContextTest;

/* ---- randomness ---- */

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

/* ---- the label callback ---- */

uint64_t mix(uint64_t h, uint64_t v)
{
    h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h * 0xff51afd7ed558ccdULL;
}

// Resolves a TLOC to none, one or two labels, as a function of every
// argument it is given, so that two tables filled by the same calls are
// equal and a call with any different argument shows. It always leaves
// the table's last slot free for the ultimate fallback.
void label_cb(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id,
              uint16_t service, bool svc_local, uint32_t *label_p, t_tloc_id *tloc_p,
              t_pol_te_info *te, uint32_t preference)
{
    uint64_t h = 0x243f6a8885a308d3ULL;
    for (uint64_t v : {uint64_t{afi}, uint64_t{addr}, uint64_t{color}, uint64_t{encap}, vpn_id,
                       uint64_t{service}, uint64_t{svc_local}, uint64_t{label_p != nullptr},
                       uint64_t{tloc_p != nullptr}, uint64_t{preference}}) {
        h = mix(h, v);
    }
    unsigned n = (h >> 7) % 5 == 0 ? 0 : ((h >> 7) % 5 == 4 ? 2 : 1);
    for (unsigned i = 0; i < n && te->num_entries < POL_MAX_TE_ENTRIES - 1; i++) {
        t_pol_te &e = te->entries[te->num_entries++];
        e.label = static_cast<uint32_t>(h >> 32) + i;
        e.preference = preference;
        e.tloc = t_tloc_id{};
        IPADDR_SET_V4(&e.tloc.addr, addr);
        e.tloc.color = color;
        e.tloc.encap = encap;
    }
}

/* ---- values ---- */

t_ipaddr v4(uint32_t host_order)
{
    t_ipaddr a{};
    IPADDR_SET_V4(&a, htonl(host_order));
    return a;
}

t_ipaddr v6(uint16_t w2, uint16_t w3, uint8_t last)
{
    uint8_t b[16] = {0x20, 0x01, 0x0d, 0xb8, static_cast<uint8_t>(w2 >> 8), static_cast<uint8_t>(w2),
                     static_cast<uint8_t>(w3 >> 8), static_cast<uint8_t>(w3)};
    b[15] = last;
    t_ipaddr a{};
    IPADDR_SET_V6(&a, b);
    return a;
}

// Clears the bits past len (within the family's width).
void mask_to(t_ipaddr &a, unsigned len)
{
    unsigned width = a.addr_type == IP_ADDR_V4 ? 32 : 128;
    for (unsigned i = len; i < width; i++) {
        a.u.addr6_b[i / 8] &= static_cast<uint8_t>(~(0x80u >> (i % 8)));
    }
}

const char *const kSiteLists[] = {"sites-a", "sites-b", "sites-c"};
const char *const kVpnLists[] = {"vpns-a", "vpns-b", "vpns-c"};
const char *const kTlocLists[] = {"tlocs-a", "tlocs-b", "tlocs-c"};
const char *const kColorLists[] = {"colors-a", "colors-b", "colors-c"};
// The same names in both families and both community kinds: separate lists.
const char *const kPfxLists[] = {"pfx-a", "pfx-b", "pfx-c"};
const char *const kCommunityLists[] = {"comm-a", "comm-b", "comm-c"};

const char *const kPatterns[] = {
    "^65000:",          ":1$",          "(^| )65001:2( |$)", "no-export",
    "internet",         "^$",           ".*",                "^(65000|65002):[0-9]+",
    "local-AS|no-advertise", "65535:65284", "^[0-9]+:100( |$)", " 65002:",
    "^0:",              "6500[01]:3",   "[a-z]+-[A-Z]+",     "^no-export$",
};

const uint32_t kWellKnown[] = {0x00000000u, 0xFFFFFF01u, 0xFFFFFF02u, 0xFFFFFF03u};

// Parameters of one kind of run.
struct shape {
    unsigned rounds;
    unsigned routes;            // per round
    unsigned list_entries;      // initial entries of a site, VPN, TLOC, colour or community list
    unsigned pfx_entries;       // initial entries of a prefix list
    unsigned max_sequences;
    unsigned max_conditions;    // per sequence
    unsigned mutate_percent;    // chance of changes before a route
    bool prefix_focus = false;  // sequences match on a prefix list, routes are virtual routes
};

std::string hex(uint64_t v)
{
    char buf[32];
    std::snprintf(buf, sizeof(buf), "0x%" PRIx64, v);
    return buf;
}

std::string tloc_text(const t_tloc_id &t)
{
    std::ostringstream s;
    s << "type " << t.addr.addr_type << " addr ";
    for (int i = 0; i < (t.addr.addr_type == IP_ADDR_V4 ? 4 : 16); i++) {
        s << hex(t.addr.u.addr6_b[i]) << ".";
    }
    s << " color " << unsigned{t.color} << " encap " << unsigned{t.encap};
    return s.str();
}

bool same_tloc_bytes(const t_tloc_id &a, const t_tloc_id &b)
{
    return a.addr.addr_type == b.addr.addr_type &&
           std::memcmp(a.addr.u.addr6_b, b.addr.u.addr6_b,
                       a.addr.addr_type == IP_ADDR_V4 ? 4 : 16) == 0 &&
           a.color == b.color && a.encap == b.encap;
}

// The first field in which the two executions differ, or "".
std::string first_difference(e_pol_action lib_v, const t_pol_exec_params &lib, const t_pol_te_info &lte,
                             e_pol_action ref_v, const t_pol_exec_params &ref, const t_pol_te_info &rte)
{
    std::ostringstream s;
    auto field = [&](const char *name, const std::string &a, const std::string &b) {
        if (s.tellp() == 0 && a != b) {
            s << name << ": library " << a << ", reference " << b;
        }
    };
    auto num = [](uint64_t v) { return std::to_string(v); };
    field("verdict", num(lib_v), num(ref_v));
    field("entry_match_flags", hex(lib.entry_match_flags), hex(ref.entry_match_flags));
    field("entry_set_flags", hex(lib.entry_set_flags), hex(ref.entry_set_flags));
    const t_zen_attr &la = lib.attr_out;
    const t_zen_attr &ra = ref.attr_out;
    field("attr_out.attr_flags", hex(la.attr_flags), hex(ra.attr_flags));
    field("attr_out.tloc", tloc_text(la.tloc), tloc_text(ra.tloc));
    field("attr_out.preference", num(la.preference), num(ra.preference));
    field("attr_out.tag", num(la.tag), num(ra.tag));
    field("attr_out.domain_id", num(la.domain_id), num(ra.domain_id));
    field("attr_out.site_id", num(la.site_id), num(ra.site_id));
    field("attr_out.origin", num(la.origin.proto_metric) + "/" + num(la.origin.proto) + "/" +
                                 num(la.origin.proto_sub_type),
          num(ra.origin.proto_metric) + "/" + num(ra.origin.proto) + "/" + num(ra.origin.proto_sub_type));
    field("attr_out.originator", num(la.originator), num(ra.originator));
    field("attr_out.carrier", num(la.carrier), num(ra.carrier));
    field("attr_out.group_count", num(la.group_count), num(ra.group_count));
    for (unsigned i = 0; i < ZEN_ATTR_MAX_GROUPS; i++) {
        field("attr_out.group_list", num(la.group_list[i]), num(ra.group_list[i]));
    }
    field("attr_out.community_p", hex(reinterpret_cast<uintptr_t>(la.community_p)),
          hex(reinterpret_cast<uintptr_t>(ra.community_p)));
    field("set_community_p", hex(reinterpret_cast<uintptr_t>(lib.set_community_p)),
          hex(reinterpret_cast<uintptr_t>(ref.set_community_p)));
    field("vpn_list buffer", lib.vpn_list.vpn_list_p != nullptr ? "allocated" : "none",
          ref.vpn_list.vpn_list_p != nullptr ? "allocated" : "none");
    field("vpn_list.num_vpn_entries", num(lib.vpn_list.num_vpn_entries), num(ref.vpn_list.num_vpn_entries));
    if (s.tellp() == 0 && lib.vpn_list.vpn_list_p != nullptr) {
        for (uint32_t i = 0; i < lib.vpn_list.num_vpn_entries; i++) {
            const t_pol_exec_vpn_entry &a = lib.vpn_list.vpn_list_p[i];
            const t_pol_exec_vpn_entry &b = ref.vpn_list.vpn_list_p[i];
            field(("vpn_list[" + num(i) + "]").c_str(), num(a.min_vpn_id) + "-" + num(a.max_vpn_id),
                  num(b.min_vpn_id) + "-" + num(b.max_vpn_id));
        }
    }
    field("te.num_entries", num(lte.num_entries), num(rte.num_entries));
    field("te.ultimate_tloc_action", num(lte.ultimate_tloc_action), num(rte.ultimate_tloc_action));
    for (uint32_t i = 0; s.tellp() == 0 && i < lte.num_entries && i < POL_MAX_TE_ENTRIES; i++) {
        const t_pol_te &a = lte.entries[i];
        const t_pol_te &b = rte.entries[i];
        std::string n = "te.entries[" + num(i) + "]";
        field((n + ".label").c_str(), num(a.label), num(b.label));
        field((n + ".preference").c_str(), num(a.preference), num(b.preference));
        if (s.tellp() == 0 && !same_tloc_bytes(a.tloc, b.tloc)) {
            field((n + ".tloc").c_str(), tloc_text(a.tloc), tloc_text(b.tloc));
        }
    }
    return s.str();
}

/* ---- one randomized run ---- */

class differential_run {
public:
    differential_run(t_pol_ctx *ctx, const shape &sh, execref::stats &st) : ctx_(ctx), sh_(sh), st_(st) {}

    // Rounds with seeds first_seed, first_seed + 1, ...; the lists carry
    // over from round to round. Stops after a few mismatches.
    void run(uint64_t first_seed)
    {
        first_seed_ = first_seed;
        for (unsigned round = 0; round < sh_.rounds && failures_ < kMaxFailures; round++) {
            seed_ = first_seed + round;
            rng_ = rng(seed_);
            if (round == 0) {
                fill_lists();
            }
            build_policy(round);
            for (route_ = 0; route_ < sh_.routes && failures_ < kMaxFailures; route_++) {
                if (rng_.percent(sh_.mutate_percent)) {
                    mutate();
                }
                check_one_route();
            }
            drop_policy();
        }
    }

    unsigned executions() const { return executions_; }
    unsigned max_te_entries() const { return max_te_entries_; }
    unsigned vpn_full() const { return vpn_full_; }

private:
    static constexpr unsigned kMaxFailures = 5;

    /* ---- values ---- */

    t_tloc_id random_tloc()
    {
        t_tloc_id t{};
        uint32_t which = rng_.below(tloc_addrs() + 1);
        t.addr = which < tloc_addrs() ? v4(0x0a000001u + which) : v6(0, 0, 1);
        if (t.addr.addr_type == IP_ADDR_V4 && rng_.percent(10)) {
            t.addr.u.addr32_b[2] = static_cast<uint32_t>(rng_.bits());  // not part of an IPv4 address
        }
        t.color = static_cast<uint8_t>(rng_.below(4) + 1);
        t.encap = static_cast<uint8_t>(rng_.below(2) + 1);
        return t;
    }

    // Value spans grow with the lists, so that long lists hold distinct
    // entries and routes still fall on them.
    uint32_t id_span() const { return std::max(26u, 2 * sh_.list_entries); }
    uint32_t tloc_addrs() const { return std::max(3u, sh_.list_entries / 4); }
    uint32_t pfx_span() const { return std::max(4u, sh_.pfx_entries / 20); }

    // Ids cluster on a few small values, so single-value conditions hold
    // often enough; the rest spread over the span.
    uint32_t random_id()
    {
        if (rng_.percent(3)) {
            return 0xFFFFFFFFu;
        }
        return rng_.percent(50) ? rng_.below(6) : rng_.below(id_span());
    }

    uint64_t random_vpn()
    {
        if (rng_.percent(3)) {
            return rng_.percent(50) ? 0xFFFFFFFFull : 0x100000005ull;
        }
        return rng_.percent(50) ? rng_.below(6) : rng_.below(id_span() + 2);
    }

    uint32_t random_community()
    {
        if (rng_.percent(20)) {
            return rng_.pick(kWellKnown);
        }
        static const uint32_t kHigh[] = {0, 65000, 65001, 65002, 65535};
        static const uint32_t kLow[] = {0, 1, 2, 3, 100, 65284};
        return rng_.pick(kHigh) << 16 | rng_.pick(kLow);
    }

    std::string community_entry_text(uint32_t value)
    {
        for (uint32_t i = 0; i < 4; i++) {
            static const char *const kNames[] = {"internet", "no-export", "no-advertise", "local-AS"};
            if (value == kWellKnown[i] && rng_.percent(60)) {
                return kNames[i];
            }
        }
        if (rng_.percent(10)) {
            return std::to_string(value);  // a bare 32-bit number
        }
        return std::to_string(value >> 16) + ":" + std::to_string(value & 0xFFFFu);
    }

    t_ipprefix random_prefix(bool ipv6, bool route)
    {
        t_ipprefix p{};
        if (!ipv6) {
            static const uint32_t kLast[] = {0, 1, 128, 255};
            uint32_t host = 0x0a000000u | rng_.below(2) << 16 | rng_.below(pfx_span()) << 8 | rng_.pick(kLast);
            if (rng_.percent(5)) {
                host = 0x0b000000u | rng_.below(4) << 8;
            }
            p.addr = v4(host);
            static const uint8_t kLens[] = {0, 8, 15, 16, 17, 22, 24, 25, 28, 30, 32};
            p.prefixlen = rng_.pick(kLens);
            if (rng_.percent(3)) {
                p.prefixlen = static_cast<uint8_t>(33 + rng_.below(8));  // past the width: a host route
            }
        } else {
            static const uint8_t kLast[] = {0, 1, 0x80};
            p.addr = v6(static_cast<uint16_t>(rng_.below(2)), static_cast<uint16_t>(rng_.below(pfx_span())),
                        rng_.pick(kLast));
            if (rng_.percent(30)) {
                p.addr.u.addr6_b[8] = static_cast<uint8_t>(rng_.pick(kLast));
            }
            static const uint8_t kLens[] = {0, 32, 47, 48, 63, 64, 65, 72, 96, 100, 120, 127, 128};
            p.prefixlen = rng_.pick(kLens);
            if (rng_.percent(3)) {
                p.prefixlen = static_cast<uint8_t>(129 + rng_.below(4));
            }
        }
        if (rng_.percent(route ? 50 : 80)) {
            mask_to(p.addr, p.prefixlen);
        }
        if (!ipv6 && rng_.percent(10)) {
            // An IPv4 address is its first four bytes; the rest must not count.
            p.addr.u.addr32_b[1] = static_cast<uint32_t>(rng_.bits());
            p.addr.u.addr32_b[3] = static_cast<uint32_t>(rng_.bits());
        }
        return p;
    }

    // A route prefix: often inside (or just beside) a prefix some list
    // holds, with the last changed entry preferred, so that lookups land
    // on entries and on the bit right after their length.
    t_ipprefix route_prefix(bool ipv6)
    {
        const t_ipprefix *base = nullptr;
        if (hint_.addr.addr_type != IP_ADDR_UNKNOWN && rng_.percent(60)) {
            base = &hint_;
        } else if (rng_.percent(sh_.prefix_focus ? 85 : 50)) {
            t_pfx_list_key key = {ipv6 ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kPfxLists)};
            if (t_pfx_list *l = pol_pfx_list_find(ctx_, &key)) {
                if (auto *e = nth<t_pfx_entry>(l->pfx_entry_head,
                                               [](t_pfx_entry *x) { return TAILQ_NEXT(x, pfx_entry); },
                                               rng_.below(sh_.pfx_entries + 1))) {
                    base = &e->prefix;
                }
            }
        }
        hint_ = t_ipprefix{};
        if (base == nullptr || base->addr.addr_type == IP_ADDR_UNKNOWN) {
            return random_prefix(ipv6, true);
        }
        t_ipprefix p = *base;
        unsigned width = p.addr.addr_type == IP_ADDR_V4 ? 32 : 128;
        unsigned own = std::min<unsigned>(p.prefixlen, width);
        // Random bits past the entry's length; now and then the first of
        // them is the only one set.
        for (unsigned i = own; i < width; i++) {
            bool set = rng_.percent(30) ? (i == own) : rng_.percent(50);
            uint8_t bit = static_cast<uint8_t>(0x80u >> (i % 8));
            p.addr.u.addr6_b[i / 8] = static_cast<uint8_t>(set ? p.addr.u.addr6_b[i / 8] | bit
                                                               : p.addr.u.addr6_b[i / 8] & ~bit);
        }
        if (rng_.percent(15) && own > 0) {
            p.addr.u.addr6_b[(own - 1) / 8] ^= static_cast<uint8_t>(0x80u >> ((own - 1) % 8));  // just outside
        }
        unsigned len = own + rng_.below(width - own + 1);
        p.prefixlen = static_cast<uint8_t>(rng_.percent(10) ? rng_.below(width + 5) : len);
        return p;
    }

    t_pfx_entry_param random_pfx_entry(bool ipv6)
    {
        t_pfx_entry_param e{};
        if (rng_.percent(12)) {
            ipv6 = !ipv6;  // an entry of the other family
        }
        if (rng_.percent(15)) {
            // 0.0.0.0/0 or ::/0, of either family: with most operators it
            // skips the containment test.
            IPADDR_INIT(&e.prefix.addr, rng_.percent(50) ? IP_ADDR_V6 : IP_ADDR_V4);
            e.prefix.prefixlen = 0;
        } else {
            e.prefix = random_prefix(ipv6, false);
        }
        e.pfx_op = static_cast<e_pfx_op>(rng_.percent(3) ? 9 : rng_.below(9));
        unsigned width = ipv6 ? 128 : 32;
        if (rng_.percent(70)) {
            // Bounds around the entry's own length.
            unsigned lo = std::min<unsigned>(e.prefix.prefixlen + rng_.below(9), width);
            e.preflen_min = static_cast<uint8_t>(lo);
            e.preflen_max = static_cast<uint8_t>(std::min<unsigned>(lo + rng_.below(12), width));
        } else {
            e.preflen_min = static_cast<uint8_t>(rng_.below(width + 9));
            e.preflen_max = static_cast<uint8_t>(rng_.below(width + 9));
        }
        return e;
    }

    /* ---- lists ---- */

    void site_add(const char *name)
    {
        uint32_t lo = random_id();
        uint32_t hi = rng_.percent(15) ? lo - std::min<uint32_t>(lo, rng_.below(4) + 1)  // reversed
                                       : (lo == 0xFFFFFFFFu ? lo : lo + rng_.below(5));
        pol_site_list_add_entry(ctx_, name, lo, hi);
        touched_.site = true;
        touched_.site_id = rng_.percent(50) ? lo : hi;
    }

    void vpn_add(const char *name)
    {
        uint32_t lo = random_id();
        uint32_t hi = rng_.percent(15) ? lo - std::min<uint32_t>(lo, rng_.below(4) + 1)
                                       : (lo == 0xFFFFFFFFu ? lo : lo + rng_.below(5));
        pol_vpn_list_add_entry(ctx_, name, lo, hi);
        touched_.vpn = true;
        touched_.vpn_id = rng_.percent(50) ? lo : hi;
    }

    void tloc_add(const char *name)
    {
        t_tloc_id t = random_tloc();
        pol_tloc_list_add_entry(ctx_, name, &t, rng_.below(1000));  // a TLOC again: new preference
        touched_.tloc = true;
        touched_.tloc_id = t;
    }

    void color_add(const char *name)
    {
        uint32_t color = rng_.percent(10) ? 65536u + rng_.below(5) : rng_.below(6);  // low 16 bits count
        pol_color_list_add_entry(ctx_, name, color);
        touched_.color = true;
        touched_.color_v = static_cast<uint8_t>(color & 0xFFFFu);
    }

    void pfx_add(const char *name, bool ipv6)
    {
        t_pfx_list_key key = {ipv6 ? POL_AF_IPV6 : POL_AF_IPV4, name};
        t_pfx_entry_param e = random_pfx_entry(ipv6);
        pol_pfx_list_entry_add(ctx_, &key, &e);
        hint_ = e.prefix;
    }

    void community_add(const char *name, community_list_type type)
    {
        if (type == COMM_LIST_TYPE_STANDARD) {
            uint32_t value = random_community();
            pol_community_list_add_entry(ctx_, name, community_entry_text(value).c_str(), type);
            touched_.community = true;
            touched_.community_v = value;
        } else {
            pol_community_list_add_entry(ctx_, name, rng_.pick(kPatterns), type);
        }
    }

    // The nth entry of a tail queue, or null.
    template <typename Entry, typename Head, typename Next>
    Entry *nth(Head &head, Next next, uint32_t n)
    {
        Entry *e = TAILQ_FIRST(&head);
        while (e != nullptr && n-- > 0) {
            e = next(e);
        }
        return e;
    }

    // Deletes a random entry of a random list of one family, through the
    // family's delete operation.
    void delete_one(unsigned family)
    {
        switch (family) {
        case 0:
            if (t_site_list *l = pol_site_list_find(ctx_, rng_.pick(kSiteLists))) {
                auto *e = nth<t_site_entry>(l->site_entry_head,
                                            [](t_site_entry *x) { return TAILQ_NEXT(x, site_entry); },
                                            rng_.below(sh_.list_entries + 2));
                if (e != nullptr) {
                    touched_.site = true;
                    touched_.site_id = e->min_site_id;
                    pol_site_list_del_entry(ctx_, l->site_list_name, e->min_site_id, e->max_site_id);
                }
            }
            break;
        case 1:
            if (t_vpn_list *l = pol_vpn_list_find(ctx_, rng_.pick(kVpnLists))) {
                auto *e = nth<t_pol_vpn_entry>(l->vpn_entry_head,
                                               [](t_pol_vpn_entry *x) { return TAILQ_NEXT(x, vpn_entry); },
                                               rng_.below(sh_.list_entries + 2));
                if (e != nullptr) {
                    touched_.vpn = true;
                    touched_.vpn_id = e->min_vpn_id;
                    pol_vpn_list_del_entry(ctx_, l->vpn_list_name, static_cast<uint32_t>(e->min_vpn_id),
                                           static_cast<uint32_t>(e->max_vpn_id));
                }
            }
            break;
        case 2:
            if (t_tloc_list *l = pol_tloc_list_find(ctx_, rng_.pick(kTlocLists))) {
                auto *e = nth<t_tloc_entry>(l->tloc_entry_head,
                                            [](t_tloc_entry *x) { return TAILQ_NEXT(x, tloc_entry); },
                                            rng_.below(sh_.list_entries + 2));
                if (e != nullptr) {
                    t_tloc_id t = e->tloc;
                    touched_.tloc = true;
                    touched_.tloc_id = t;
                    pol_tloc_list_del_entry(ctx_, l->tloc_list_name, &t);
                }
            }
            break;
        case 3:
            if (t_color_list *l = pol_color_list_find(ctx_, rng_.pick(kColorLists))) {
                auto *e = nth<t_color_entry>(l->color_entry_head,
                                             [](t_color_entry *x) { return TAILQ_NEXT(x, color_entry); },
                                             rng_.below(sh_.list_entries + 2));
                if (e != nullptr) {
                    touched_.color = true;
                    touched_.color_v = static_cast<uint8_t>(e->color);
                    pol_color_list_del_entry(ctx_, l->color_list_name, e->color);
                }
            }
            break;
        case 4: {
            t_pfx_list_key key = {rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kPfxLists)};
            if (t_pfx_list *l = pol_pfx_list_find(ctx_, &key)) {
                auto *e = nth<t_pfx_entry>(l->pfx_entry_head,
                                           [](t_pfx_entry *x) { return TAILQ_NEXT(x, pfx_entry); },
                                           rng_.below(sh_.pfx_entries + 2));
                if (e != nullptr) {
                    t_pfx_entry_param p{};
                    p.prefix = e->prefix;
                    p.pfx_op = static_cast<e_pfx_op>(rng_.below(9));  // only the prefix counts
                    hint_ = p.prefix;
                    pol_pfx_list_del_entry(ctx_, &key, &p);
                }
            }
            break;
        }
        default: {
            community_list_type type = rng_.percent(50) ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED;
            if (t_community_list *l = pol_community_list_find(ctx_, rng_.pick(kCommunityLists), type)) {
                auto *e = nth<t_community_entry>(
                    l->community_entry_head, [](t_community_entry *x) { return TAILQ_NEXT(x, community_entry); },
                    rng_.below(sh_.list_entries + 2));
                if (e != nullptr) {
                    std::string text = type == COMM_LIST_TYPE_STANDARD
                                           ? std::to_string(e->community >> 16) + ":" +
                                                 std::to_string(e->community & 0xFFFFu)
                                           : std::string(e->pattern);
                    if (type == COMM_LIST_TYPE_STANDARD) {
                        touched_.community = true;
                        touched_.community_v = e->community;
                    }
                    pol_community_list_del_entry(ctx_, l->community_list_name, text.c_str(), type);
                }
            }
            break;
        }
        }
    }

    void add_one(unsigned family)
    {
        switch (family) {
        case 0:
            site_add(rng_.pick(kSiteLists));
            break;
        case 1:
            vpn_add(rng_.pick(kVpnLists));
            break;
        case 2:
            tloc_add(rng_.pick(kTlocLists));
            break;
        case 3:
            color_add(rng_.pick(kColorLists));
            break;
        case 4:
            pfx_add(rng_.pick(kPfxLists), rng_.percent(40));
            break;
        default:
            community_add(rng_.pick(kCommunityLists),
                          rng_.percent(50) ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED);
            break;
        }
    }

    // The configuration of a whole list goes; its users keep the record.
    // The next route is steered onto the list's first entry.
    void cfg_delete_one(unsigned family)
    {
        switch (family) {
        case 0: {
            const char *name = rng_.pick(kSiteLists);
            t_site_list *l = pol_site_list_find(ctx_, name);
            if (t_site_entry *e = l != nullptr ? TAILQ_FIRST(&l->site_entry_head) : nullptr) {
                touched_.site = true;
                touched_.site_id = e->min_site_id;
            }
            pol_site_list_cfg_del(ctx_, name);
            break;
        }
        case 1: {
            const char *name = rng_.pick(kVpnLists);
            t_vpn_list *l = pol_vpn_list_find(ctx_, name);
            if (t_pol_vpn_entry *e = l != nullptr ? TAILQ_FIRST(&l->vpn_entry_head) : nullptr) {
                touched_.vpn = true;
                touched_.vpn_id = e->min_vpn_id;
            }
            pol_vpn_list_cfg_del(ctx_, name);
            break;
        }
        case 2: {
            const char *name = rng_.pick(kTlocLists);
            t_tloc_list *l = pol_tloc_list_find(ctx_, name);
            if (t_tloc_entry *e = l != nullptr ? TAILQ_FIRST(&l->tloc_entry_head) : nullptr) {
                touched_.tloc = true;
                touched_.tloc_id = e->tloc;
            }
            pol_tloc_list_cfg_del(ctx_, name);
            break;
        }
        case 3: {
            const char *name = rng_.pick(kColorLists);
            t_color_list *l = pol_color_list_find(ctx_, name);
            if (t_color_entry *e = l != nullptr ? TAILQ_FIRST(&l->color_entry_head) : nullptr) {
                touched_.color = true;
                touched_.color_v = static_cast<uint8_t>(e->color);
            }
            pol_color_list_cfg_del(ctx_, name);
            break;
        }
        case 4: {
            t_pfx_list_key key = {rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kPfxLists)};
            t_pfx_list *l = pol_pfx_list_find(ctx_, &key);
            if (t_pfx_entry *e = l != nullptr ? TAILQ_FIRST(&l->pfx_entry_head) : nullptr) {
                hint_ = e->prefix;
            }
            pol_pfx_list_cfg_del(ctx_, &key);
            break;
        }
        default: {
            const char *name = rng_.pick(kCommunityLists);
            community_list_type type = rng_.percent(50) ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED;
            t_community_list *l = pol_community_list_find(ctx_, name, type);
            t_community_entry *e = l != nullptr ? TAILQ_FIRST(&l->community_entry_head) : nullptr;
            if (e != nullptr && type == COMM_LIST_TYPE_STANDARD) {
                touched_.community = true;
                touched_.community_v = e->community;
            }
            pol_community_list_cfg_del(ctx_, name, type);
            break;
        }
        }
    }

    void refill(unsigned family)
    {
        for (unsigned i = 0; i < (family == 4 ? sh_.pfx_entries : sh_.list_entries); i++) {
            add_one(family);
        }
    }

    // Initial contents: list_entries additions per list (fewer entries
    // where they repeat), pfx_entries per prefix list.
    void fill_lists()
    {
        for (unsigned i = 0; i < sh_.list_entries; i++) {
            for (unsigned l = 0; l < 3; l++) {
                site_add(kSiteLists[l]);
                vpn_add(kVpnLists[l]);
                tloc_add(kTlocLists[l]);
                color_add(kColorLists[l]);
                community_add(kCommunityLists[l], COMM_LIST_TYPE_STANDARD);
                community_add(kCommunityLists[l], COMM_LIST_TYPE_EXPANDED);
            }
        }
        for (unsigned i = 0; i < sh_.pfx_entries; i++) {
            for (unsigned l = 0; l < 3; l++) {
                pfx_add(kPfxLists[l], false);
                pfx_add(kPfxLists[l], true);
            }
        }
    }

    /* ---- the policy ---- */

    void add_condition(t_pol_entry *e, int kind)
    {
        uint8_t changed = 0;
        switch (kind) {
        case execref::COND_TAG:
            pol_entry_match_tag_add(ctx_, e, rng_.below(4), &changed);
            break;
        case execref::COND_ORIGIN_METRIC:
            pol_entry_match_origin_metric_add(ctx_, e, rng_.below(4), &changed);
            break;
        case execref::COND_PREFERENCE:
            pol_entry_match_preference_add(ctx_, e, rng_.below(4), &changed);
            break;
        case execref::COND_DOMAIN:
            pol_entry_match_domain_add(ctx_, e, rng_.below(3), &changed);
            break;
        case execref::COND_GROUP:
            pol_entry_match_group_add(ctx_, e, rng_.below(6), &changed);
            break;
        case execref::COND_VPN_ID:
            pol_entry_match_vpn_id_add(ctx_, e, random_vpn(), &changed);
            break;
        case execref::COND_VPN_LIST:
            pol_entry_match_vpn_list_add(ctx_, e, rng_.pick(kVpnLists), &changed);
            break;
        case execref::COND_TLOC: {
            t_tloc_id t = random_tloc();
            pol_entry_match_tloc_add(ctx_, e, &t, &changed);
            break;
        }
        case execref::COND_TLOC_LIST:
            pol_entry_match_tloc_list_add(ctx_, e, rng_.pick(kTlocLists), &changed);
            break;
        case execref::COND_SITE:
            pol_entry_match_site_add(ctx_, e, random_id(), &changed);
            break;
        case execref::COND_SITE_LIST:
            pol_entry_match_site_list_add(ctx_, e, rng_.pick(kSiteLists), &changed);
            break;
        case execref::COND_COMMUNITY_LIST:
            pol_entry_match_community_list_add(ctx_, e, rng_.pick(kCommunityLists), COMM_LIST_TYPE_STANDARD,
                                               &changed);
            break;
        case execref::COND_EXP_COMMUNITY_LIST:
            pol_entry_match_community_list_add(ctx_, e, rng_.pick(kCommunityLists), COMM_LIST_TYPE_EXPANDED,
                                               &changed);
            break;
        case execref::COND_PFX_LIST: {
            // A TLOC route carries no prefix: its locator overlays the
            // prefix field, so a prefix list is never given to a TLOC
            // sequence.
            if (e->match_entry.match_type == POL_MATCH_TLOC) {
                break;
            }
            t_pfx_list_key key = {rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kPfxLists)};
            pol_entry_match_pfx_list_add(ctx_, e, &key, &changed);
            break;
        }
        case execref::COND_ORIGIN:
            // Codes 4 and 5 (protocol 4, subtypes 3 and 4) match subtypes in pairs.
            pol_entry_match_origin_add(ctx_, e, rng_.percent(50) ? 4 + rng_.below(2) : rng_.below(13), &changed);
            break;
        case execref::COND_ORIGINATOR: {
            // IPv6 originators never match, not even one whose leading
            // bytes spell a route's IPv4 originator, nor :: against 0.0.0.0.
            static const uint32_t kWords[] = {0x01010101, 0x02020202};
            t_ipaddr a = v4(rng_.pick(kWords));
            if (rng_.percent(25)) {
                uint8_t b[16] = {};
                if (rng_.percent(50)) {
                    b[0] = b[1] = b[2] = b[3] = 1;
                }
                IPADDR_SET_V6(&a, b);
            }
            pol_entry_match_originator_add(ctx_, e, &a, &changed);
            break;
        }
        case execref::COND_CARRIER:
            pol_entry_match_carrier_add(ctx_, e, static_cast<uint8_t>(rng_.below(4)), &changed);
            break;
        case execref::COND_COLOR:
            pol_entry_match_color_add(ctx_, e, static_cast<uint16_t>(rng_.percent(10) ? 257 : rng_.below(5)),
                                      &changed);
            break;
        default:
            pol_entry_match_color_list_add(ctx_, e, rng_.pick(kColorLists), &changed);
            break;
        }
    }

    void delete_condition(t_pol_entry *e, int kind)
    {
        uint8_t changed = 0;
        switch (kind) {
        case execref::COND_TAG:
            pol_entry_match_tag_delete(ctx_, e, &changed);
            break;
        case execref::COND_ORIGIN_METRIC:
            pol_entry_match_origin_metric_delete(ctx_, e, &changed);
            break;
        case execref::COND_PREFERENCE:
            pol_entry_match_preference_delete(ctx_, e, &changed);
            break;
        case execref::COND_DOMAIN:
            pol_entry_match_domain_delete(ctx_, e, &changed);
            break;
        case execref::COND_GROUP:
            pol_entry_match_group_delete(ctx_, e, &changed);
            break;
        case execref::COND_VPN_ID:
            pol_entry_match_vpn_id_delete(ctx_, e, &changed);
            break;
        case execref::COND_VPN_LIST:
            pol_entry_match_vpn_list_delete(ctx_, e, &changed);
            break;
        case execref::COND_TLOC:
            pol_entry_match_tloc_delete(ctx_, e, &changed);
            break;
        case execref::COND_TLOC_LIST:
            pol_entry_match_tloc_list_delete(ctx_, e, &changed);
            break;
        case execref::COND_SITE:
            pol_entry_match_site_delete(ctx_, e, &changed);
            break;
        case execref::COND_SITE_LIST:
            pol_entry_match_site_list_delete(ctx_, e, &changed);
            break;
        case execref::COND_COMMUNITY_LIST:
            pol_entry_match_community_list_delete(ctx_, e, COMM_LIST_TYPE_STANDARD, &changed);
            break;
        case execref::COND_EXP_COMMUNITY_LIST:
            pol_entry_match_community_list_delete(ctx_, e, COMM_LIST_TYPE_EXPANDED, &changed);
            break;
        case execref::COND_PFX_LIST:
            pol_entry_match_pfx_list_delete(ctx_, e, &changed);
            break;
        case execref::COND_ORIGIN:
            pol_entry_match_origin_delete(ctx_, e, &changed);
            break;
        case execref::COND_ORIGINATOR:
            pol_entry_match_originator_delete(ctx_, e, &changed);
            break;
        case execref::COND_CARRIER:
            pol_entry_match_carrier_delete(ctx_, e, &changed);
            break;
        case execref::COND_COLOR:
            pol_entry_match_color_delete(ctx_, e, &changed);
            break;
        default:
            pol_entry_match_color_list_delete(ctx_, e, &changed);
            break;
        }
    }

    void set_communities(t_pol_entry *e)
    {
        pol_config_set_bgp_community_upd(e, nullptr, 0);
        e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE;
        uint16_t n = static_cast<uint16_t>(1 + rng_.below(4));
        auto *values = static_cast<uint32_t *>(pol_malloc(n * sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
        ASSERT_NE(values, nullptr);
        for (uint16_t i = 0; i < n; i++) {
            values[i] = random_community();
        }
        ASSERT_EQ(pol_config_set_bgp_community_upd(e, values, n), 0);
        switch (rng_.below(3)) {
        case 0:  // replace only
            break;
        case 1:  // additive only
            e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY;
            e->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;
            break;
        default:  // both: additive wins
            e->entry_set_flags |= POL_SET_FLAG_COMMUNITY_ADDITIVE;
            break;
        }
    }

    void add_set(t_pol_entry *e, int kind)
    {
        uint8_t changed = 0;
        switch (kind) {
        case execref::SET_TAG:
            pol_entry_set_tag_add(ctx_, e, 100 + rng_.below(3), &changed);
            break;
        case execref::SET_PREFERENCE:
            pol_entry_set_preference_add(ctx_, e, 200 + rng_.below(3), &changed);
            break;
        case execref::SET_TLOC: {
            t_tloc_id t = random_tloc();
            pol_entry_set_tloc_add(ctx_, e, &t, &changed);
            break;
        }
        case execref::SET_VPN_ID:
            pol_entry_set_vpn_id_add(ctx_, e, rng_.below(40), &changed);
            break;
        case execref::SET_VPN_LIST:
            pol_entry_set_vpn_list_add(ctx_, e, rng_.pick(kVpnLists), &changed);
            break;
        case execref::SET_TLOC_LIST:
            pol_entry_set_tloc_list_add(ctx_, e, rng_.pick(kTlocLists), &changed);
            break;
        case execref::SET_SERVICE: {
            t_tloc_id t = random_tloc();
            pol_entry_set_service_add(ctx_, e, static_cast<uint16_t>(rng_.below(6)), &t,
                                      rng_.percent(50) ? 0 : rng_.below(40), &changed);
            break;
        }
        default:
            set_communities(e);
            break;
        }
        static const uint8_t kUltimate[] = {0, 1, 2, 3};
        e->set_entry.set_ultimate_action = rng_.pick(kUltimate);
    }

    void delete_set(t_pol_entry *e, int kind)
    {
        uint8_t changed = 0;
        switch (kind) {
        case execref::SET_TAG:
            pol_entry_set_tag_delete(ctx_, e, &changed);
            break;
        case execref::SET_PREFERENCE:
            pol_entry_set_preference_delete(ctx_, e, &changed);
            break;
        case execref::SET_TLOC:
            pol_entry_set_tloc_delete(ctx_, e, &changed);
            break;
        case execref::SET_VPN_ID:
            pol_entry_set_vpn_id_delete(ctx_, e, &changed);
            break;
        case execref::SET_VPN_LIST:
            pol_entry_set_vpn_list_delete(ctx_, e, &changed);
            break;
        case execref::SET_TLOC_LIST:
            pol_entry_set_tloc_list_delete(ctx_, e, &changed);
            break;
        case execref::SET_SERVICE:
            pol_entry_set_service_delete(ctx_, e, &changed);
            break;
        default:
            pol_config_set_bgp_community_upd(e, nullptr, 0);
            e->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY_ADDITIVE;
            break;
        }
    }

    void add_sequence(uint32_t num)
    {
        uint8_t changed = 0;
        t_pol_entry *e = pol_entry_find_or_create(ctx_, block_, num, &changed);
        ASSERT_NE(e, nullptr);
        static const e_pol_match_type kTypes[] = {POL_MATCH_VROUTE, POL_MATCH_VROUTE, POL_MATCH_VROUTE,
                                                  POL_MATCH_VROUTE, POL_MATCH_TLOC,   POL_MATCH_TLOC,
                                                  POL_MATCH_SERVICE, POL_MATCH_SERVICE, POL_MATCH_INVALID,
                                                  POL_MATCH_PACKET};
        if (sh_.prefix_focus) {
            pol_entry_match_add(ctx_, block_, e, rng_.percent(90) ? POL_MATCH_VROUTE : POL_MATCH_SERVICE,
                                &changed);
            add_condition(e, execref::COND_PFX_LIST);
        } else {
            pol_entry_match_add(ctx_, block_, e, rng_.pick(kTypes), &changed);
        }
        static const unsigned kConditionCounts[] = {0, 1, 1, 1, 2, 2, 2, 3, 3, 4};
        for (unsigned n = std::min(rng_.pick(kConditionCounts), sh_.max_conditions); n > 0; n--) {
            add_condition(e, static_cast<int>(rng_.below(execref::COND_COUNT)));
        }
        static const e_pol_action kActions[] = {POL_ACTION_ACCEPT, POL_ACTION_ACCEPT, POL_ACTION_ACCEPT,
                                                POL_ACTION_ACCEPT, POL_ACTION_ACCEPT, POL_ACTION_ACCEPT,
                                                POL_ACTION_REJECT, POL_ACTION_REJECT, POL_ACTION_REJECT,
                                                POL_ACTION_INVALID};
        pol_entry_action_add(ctx_, e, rng_.pick(kActions), &changed);
        for (int kind = 0; kind < execref::SET_COUNT - 1; kind++) {
            if (rng_.percent(30)) {
                add_set(e, kind);
            }
        }
    }

    // The default entry carries set actions only exceptionally; it has no
    // store operations of its own, so its fields are written directly.
    void set_default()
    {
        t_pol_entry &d = block_->default_action_entry;
        d.entry_action = rng_.percent(4) ? POL_ACTION_INVALID
                                         : (rng_.percent(40) ? POL_ACTION_ACCEPT : POL_ACTION_REJECT);
        if (rng_.percent(20)) {
            d.entry_set_flags = 0;
            if (rng_.percent(50)) {
                d.entry_set_flags |= POL_SET_FLAG_TAG;
                d.set_entry.set_tag = 900;
            }
            if (rng_.percent(50)) {
                d.entry_set_flags |= POL_SET_FLAG_PREFERENCE;
                d.set_entry.set_preference = 901;
            }
            if (rng_.percent(40)) {
                d.entry_set_flags |= POL_SET_FLAG_TLOC;
                d.set_entry.set_tloc = random_tloc();
            }
            if (rng_.percent(40)) {
                d.entry_set_flags |= POL_SET_FLAG_VPN_ID;
                d.set_entry.export_vpn_id = 902;
            }
            if (rng_.percent(30)) {
                d.entry_set_flags |= POL_SET_FLAG_SERVICE;
                d.set_entry.set_service = 3;
                d.set_entry.set_svc_tloc = random_tloc();
            }
            d.set_entry.set_ultimate_action = static_cast<uint8_t>(rng_.below(3));
        }
    }

    void build_policy(unsigned round)
    {
        policy_name_ = "policy-" + std::to_string(round);
        const char *suffix[] = {"in-labels", "out-labels", "in-plain", "out-plain"};
        for (unsigned i = 0; i < 4; i++) {
            t_pol_reg_params reg{};
            std::snprintf(reg.user_name, sizeof(reg.user_name), "%s-%s", policy_name_.c_str(), suffix[i]);
            std::snprintf(reg.pol_name, sizeof(reg.pol_name), "%s", policy_name_.c_str());
            reg.pol_type = rng_.percent(85) ? POL_TYPE_ROUTE : POL_TYPE_MEMBERSHIP;
            if (i > 0) {
                reg.pol_type = users_[0]->pol_type;
            }
            reg.pol_direction = i % 2 == 0 ? POL_DIR_IN : POL_DIR_OUT;
            reg.pol_label_cb = i < 2 ? label_cb : nullptr;
            users_[i] = pol_register(&reg);
            ASSERT_NE(users_[i], nullptr);
        }
        block_ = users_[0]->pol_block_p;
        block_type_ = users_[0]->pol_type;
        ASSERT_NE(block_, nullptr);
        unsigned n = rng_.below(sh_.max_sequences + 1);
        for (unsigned i = 0; i < n; i++) {
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
        uint8_t changed = 0;
        pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &changed);
        pol_user_chg_list_notify_all(ctx_);
        block_ = nullptr;
    }

    static int collect(void *record, void *arg)
    {
        static_cast<std::vector<t_pol_entry *> *>(arg)->push_back(static_cast<t_pol_entry *>(record));
        return 0;
    }

    std::vector<t_pol_entry *> sequences()
    {
        std::vector<t_pol_entry *> all;
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
        uint8_t changed = 0;
        if (what < 57) {
            unsigned family = sh_.prefix_focus && rng_.percent(80) ? 4 : rng_.below(6);
            if (rng_.percent(55)) {
                add_one(family);
            } else {
                delete_one(family);
            }
        } else if (what < 63) {
            unsigned family = rng_.below(6);
            cfg_delete_one(family);
            if (sh_.list_entries > 20) {
                refill(family);  // a long list is configured anew
            }
        } else if (what < 68) {
            // A prefix already in a list takes a new operator and bounds.
            t_pfx_list_key key = {rng_.percent(40) ? POL_AF_IPV6 : POL_AF_IPV4, rng_.pick(kPfxLists)};
            if (t_pfx_list *l = pol_pfx_list_find(ctx_, &key)) {
                if (auto *e = nth<t_pfx_entry>(l->pfx_entry_head,
                                               [](t_pfx_entry *x) { return TAILQ_NEXT(x, pfx_entry); },
                                               rng_.below(8))) {
                    t_pfx_entry_param p = random_pfx_entry(key.pfx_key_af == POL_AF_IPV6);
                    p.prefix = e->prefix;
                    pol_pfx_list_entry_add(ctx_, &key, &p);
                    hint_ = p.prefix;
                }
            }
        } else if (block_ == nullptr) {
            return;
        } else if (what < 78 && seq != nullptr) {
            int kind = static_cast<int>(rng_.below(execref::COND_COUNT));
            if (rng_.percent(50)) {
                add_condition(seq, kind);
            } else {
                delete_condition(seq, kind);
            }
        } else if (what < 86 && seq != nullptr) {
            int kind = static_cast<int>(rng_.below(execref::SET_COUNT - 1));
            if (rng_.percent(50)) {
                add_set(seq, kind);
            } else {
                delete_set(seq, kind);
            }
        } else if (what < 90) {
            add_sequence(1 + rng_.below(100));
        } else if (what < 94 && seq != nullptr) {
            pol_entry_find_and_delete(ctx_, block_, seq->entry_num, &changed);
        } else if (what < 96 && seq != nullptr) {
            // A new route kind clears every condition of the sequence.
            pol_entry_match_add(ctx_, block_, seq,
                                seq->match_entry.match_type == POL_MATCH_VROUTE ? POL_MATCH_SERVICE
                                                                                 : POL_MATCH_VROUTE,
                                &changed);
        } else if (what < 99) {
            set_default();
        } else if (rng_.percent(20)) {
            // The policy goes away under its users: they reject from now on.
            pol_block_find_and_delete(ctx_, policy_name_.c_str(), block_type_, &changed);
            block_ = nullptr;
        }
        pol_user_chg_list_notify_all(ctx_);
    }

    /* ---- routes ---- */

    t_bgp_community *random_communities()
    {
        if (rng_.percent(20)) {
            return nullptr;
        }
        uint32_t n = rng_.percent(10) ? 0 : 1 + rng_.below(8);
        auto *c = static_cast<t_bgp_community *>(std::calloc(1, sizeof(t_bgp_community) + n * sizeof(uint32_t)));
        c->n_communities = n;
        c->ref_count = 1;
        for (uint32_t i = 0; i < n; i++) {
            c->communities[i] = random_community();
        }
        return c;
    }

    void random_attr(t_zen_attr &a)
    {
        static const uint64_t kPresence[] = {ZEN_ATTR_FLAG_TLOC,    ZEN_ATTR_FLAG_PREFERENCE, ZEN_ATTR_FLAG_TAG,
                                             ZEN_ATTR_FLAG_DOMAIN_ID, ZEN_ATTR_FLAG_SITE_ID,  ZEN_ATTR_FLAG_ORIGIN,
                                             ZEN_ATTR_FLAG_ORIGINATOR, ZEN_ATTR_FLAG_CARRIER, ZEN_ATTR_FLAG_GROUP,
                                             ZEN_ATTR_FLAG_ORIGIN_METRIC};
        a = t_zen_attr{};
        for (uint64_t bit : kPresence) {
            if (rng_.percent(65)) {
                a.attr_flags |= bit;
            }
        }
        if (rng_.percent(10)) {
            a.attr_flags |= 0x100040ULL;  // bits no condition reads travel through
        }
        a.tloc = random_tloc();
        if (rng_.percent(5)) {
            a.tloc.color = 250;
        }
        a.preference = rng_.below(4);
        a.tag = rng_.below(4);
        a.domain_id = rng_.below(3);
        a.site_id = random_id();
        static const uint8_t kProtos[] = {1, 2, 3, 4, 4, 4, 5, 8};
        a.origin.proto = rng_.pick(kProtos);
        a.origin.proto_sub_type = static_cast<uint8_t>(a.origin.proto != 4 ? rng_.below(3)
                                                       : (rng_.percent(50) ? 3 + rng_.below(4) : rng_.below(7)));
        a.origin.proto_metric = rng_.below(4);
        static const uint32_t kOriginators[] = {0x01010101, 0x02020202, 0x03030303, 0};
        a.originator = htonl(rng_.pick(kOriginators));
        a.carrier = static_cast<uint8_t>(rng_.below(4));
        a.group_count = static_cast<uint16_t>(rng_.below(6));
        for (unsigned i = 0; i < a.group_count; i++) {
            a.group_list[i] = rng_.below(6);
        }
        a.community_p = random_communities();
    }

    // The route takes what the last list change touched, most of the
    // time, so that an index not rebuilt after the change shows.
    void steer_to_touched(t_zen_attr &attr)
    {
        if (touched_.site && rng_.percent(80)) {
            attr.site_id = touched_.site_id;
        }
        if (touched_.tloc && rng_.percent(80)) {
            attr.tloc = touched_.tloc_id;
        }
        if (touched_.color && rng_.percent(80)) {
            attr.tloc.color = touched_.color_v;
        }
        if (touched_.community && rng_.percent(80)) {
            if (attr.community_p == nullptr || attr.community_p->n_communities == 0) {
                std::free(attr.community_p);
                attr.community_p = static_cast<t_bgp_community *>(
                    std::calloc(1, sizeof(t_bgp_community) + sizeof(uint32_t)));
                attr.community_p->n_communities = 1;
            }
            attr.community_p->communities[rng_.below(attr.community_p->n_communities)] = touched_.community_v;
        }
    }

    // Whether the block has a sequence that sets a TLOC list: only users
    // with a label callback may run such a policy.
    bool sets_tloc_lists()
    {
        for (t_pol_entry *e : sequences()) {
            if ((e->entry_set_flags & POL_SET_FLAG_TLOC_LIST) != 0) {
                return true;
            }
        }
        return false;
    }

    void check_one_route()
    {
        t_zen_attr attr;
        random_attr(attr);
        steer_to_touched(attr);
        bool in = rng_.percent(50);
        bool plain = rng_.percent(25) && !sets_tloc_lists();
        t_pol_user *user = users_[(in ? 0 : 1) + (plain ? 2 : 0)];
        e_zen_device device = rng_.percent(50) ? ZEN_DEVICE_QARMON : ZEN_DEVICE_RIMBA;

        t_pol_exec_params lib;
        pol_pre_execute(&lib, device);
        lib.attr_in_p = &attr;
        static const uint8_t kSafis[] = {1, 1, 1, 1, 1, 2, 2, 3, 3};
        lib.safi = sh_.prefix_focus && rng_.percent(90) ? POL_SAFI_VROUTE : rng_.pick(kSafis);
        static const uint16_t kAfis[] = {2, 10};
        lib.afi = rng_.pick(kAfis);
        switch (lib.safi) {
        case 1:
            lib.u.vroute_info.vpn_id = random_vpn();
            lib.u.vroute_info.prefix = route_prefix(lib.afi == 10);
            break;
        case 2:
            lib.u.tloc_info.tloc = rng_.percent(50) ? attr.tloc : random_tloc();
            break;
        default:
            lib.u.service_info.vpn_id = random_vpn();
            break;
        }
        if (touched_.vpn && lib.safi != 2 && rng_.percent(80)) {
            lib.u.vroute_info.vpn_id = touched_.vpn_id;  // the service route's VPN id is the same word
        }
        touched_ = touched{};
        lib.in_label = static_cast<uint32_t>(rng_.bits());
        t_pol_te_info lib_te{};
        t_pol_te_info ref_te{};
        lib.te_info_p = &lib_te;
        t_pol_exec_params ref;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        ref.te_info_p = &ref_te;

        int64_t vpn_buffers = live_count(POL_MEM_LIST_VPN_1);
        e_pol_action lib_v = pol_execute(user, &lib);
        e_pol_action ref_v = execref::execute(user, &ref, &st_);
        executions_++;
        max_te_entries_ = std::max(max_te_entries_, lib_te.num_entries);
        vpn_full_ += lib.vpn_list.num_vpn_entries == POL_MAX_VPN ? 1 : 0;

        std::string diff = first_difference(lib_v, lib, lib_te, ref_v, ref, ref_te);
        if (!diff.empty()) {
            failures_++;
            ADD_FAILURE() << "seed " << seed_ << " (round " << seed_ - first_seed_ << " of the run from "
                          << first_seed_ << ") route " << route_ << " (safi " << unsigned{lib.safi}
                          << ", " << (in ? "in" : "out") << (plain ? ", no label callback" : "") << "): " << diff;
        }

        if (device == ZEN_DEVICE_QARMON) {
            pol_post_execute(&lib);
        } else {
            pol_free(lib.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
        }
        EXPECT_EQ(live_count(POL_MEM_LIST_VPN_1), vpn_buffers)
            << "seed " << seed_ << " route " << route_ << ": more than one export buffer per execution";
        execref::release(&ref);
        std::free(attr.community_p);
    }

    t_pol_ctx *ctx_;
    shape sh_;
    execref::stats &st_;
    rng rng_{0};
    uint64_t first_seed_ = 0;
    uint64_t seed_ = 0;
    unsigned route_ = 0;
    unsigned failures_ = 0;
    unsigned executions_ = 0;
    unsigned max_te_entries_ = 0;
    unsigned vpn_full_ = 0;
    std::string policy_name_;
    t_pol_user *users_[4] = {};
    t_pol_block *block_ = nullptr;
    t_ipprefix hint_{};
    // What the last list change touched (the next route is steered onto it).
    struct touched {
        bool site = false;
        uint32_t site_id = 0;
        bool vpn = false;
        uint64_t vpn_id = 0;
        bool tloc = false;
        t_tloc_id tloc_id{};
        bool color = false;
        uint8_t color_v = 0;
        bool community = false;
        uint32_t community_v = 0;
    };
    touched touched_;
    e_pol_type block_type_ = POL_TYPE_ROUTE;
};

class ExecDifferential : public PolContextTest {};

// Every condition must have been seen holding and failing, and every set
// action applied: otherwise the run proved little.
void expect_coverage(const execref::stats &st)
{
    for (int k = 0; k < execref::COND_COUNT; k++) {
        EXPECT_GT(st.held[k], 0u) << "condition never held: " << execref::condition_name(k);
        EXPECT_GT(st.failed[k], 0u) << "condition never failed: " << execref::condition_name(k);
    }
    for (int k = 0; k < execref::SET_COUNT; k++) {
        EXPECT_GT(st.applied[k], 0u) << "set action never applied: " << execref::set_name(k);
    }
    EXPECT_GT(st.accepted, 0u);
    EXPECT_GT(st.rejected, 0u);
    EXPECT_GT(st.invalid, 0u);
    EXPECT_GT(st.by_default, 0u);
    EXPECT_GT(st.unresolved_tloc, 0u);
    EXPECT_GT(st.ultimate_fallback, 0u);
}

TEST_F(ExecDifferential, SmallListsAgreeWithReference)
{
    execref::stats st;
    differential_run run(ctx_, shape{200, 60, 6, 12, 8, 4, 35}, st);
    run.run(1000);
    EXPECT_GE(run.executions(), 12000u);
    expect_coverage(st);
}

TEST_F(ExecDifferential, ListsChangingBeforeEveryRouteAgreeWithReference)
{
    execref::stats st;
    differential_run run(ctx_, shape{60, 100, 4, 8, 6, 4, 100}, st);
    run.run(5000);
    EXPECT_GE(run.executions(), 6000u);
    expect_coverage(st);
}

// Lists long enough to fill the export buffer (128 ranges) and the label
// table (64 entries), and prefix lists with many lengths and groups.
TEST_F(ExecDifferential, LargeListsAgreeWithReference)
{
    execref::stats st;
    differential_run run(ctx_, shape{60, 100, 160, 600, 6, 2, 30}, st);
    run.run(9000);
    EXPECT_GE(run.executions(), 6000u);
    EXPECT_GT(st.vpn_truncated, 0u);
    EXPECT_GT(run.vpn_full(), 0u);
    EXPECT_EQ(run.max_te_entries(), static_cast<unsigned>(POL_MAX_TE_ENTRIES));
    for (int k : {execref::COND_PFX_LIST, execref::COND_VPN_LIST, execref::COND_SITE_LIST,
                  execref::COND_TLOC_LIST}) {
        EXPECT_GT(st.held[k], 0u) << execref::condition_name(k);
        EXPECT_GT(st.failed[k], 0u) << execref::condition_name(k);
    }
}

// Every sequence matches on a prefix list; routes fall inside, beside and
// just past the entries, most often the entry that changed last, while the
// prefix lists change before most routes (additions, deletions, operators
// and bounds rewritten in place, whole lists dropped).
TEST_F(ExecDifferential, PrefixListsAgreeWithReference)
{
    execref::stats st;
    shape sh{80, 80, 4, 40, 6, 1, 80};
    sh.prefix_focus = true;
    differential_run run(ctx_, sh, st);
    run.run(13000);
    EXPECT_GE(run.executions(), 6400u);
    EXPECT_GT(st.held[execref::COND_PFX_LIST], 1000u);
    EXPECT_GT(st.failed[execref::COND_PFX_LIST], 1000u);
}

/* ---- hand-worked prefix cases, through both evaluators ---- */

t_ipprefix parse_prefix(const char *text)
{
    t_ipprefix p{};
    std::string s(text);
    std::size_t slash = s.find('/');
    std::string addr = s.substr(0, slash);
    p.prefixlen = static_cast<uint8_t>(std::stoi(s.substr(slash + 1)));
    if (addr.find(':') != std::string::npos) {
        uint8_t bytes[16];
        EXPECT_EQ(inet_pton(AF_INET6, addr.c_str(), bytes), 1) << text;
        IPADDR_SET_V6(&p.addr, bytes);
    } else {
        in_addr a{};
        EXPECT_EQ(inet_pton(AF_INET, addr.c_str(), &a), 1) << text;
        IPADDR_SET_V4(&p.addr, a.s_addr);
    }
    return p;
}

struct prefix_case {
    e_pol_af list_af;
    const char *entry;
    int op;
    uint8_t min;
    uint8_t max;
    const char *route;
    bool matches;
};

const prefix_case kPrefixCases[] = {
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_LE, 0, 24, "10.1.2.0/24", true},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_LE, 0, 24, "10.1.2.0/25", false},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_EQ, 0, 0, "0.0.0.0/0", true},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_EQ, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_NONE, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_RANGE, 8, 24, "10.0.0.0/8", true},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_RANGE, 8, 24, "10.0.0.0/7", false},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_RANGE, 8, 24, "10.0.0.0/25", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_NE, 0, 0, "10.1.0.0/16", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_NE, 0, 0, "11.0.0.0/16", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_NE, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_LT, 24, 32, "10.1.0.0/23", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_LT, 24, 32, "10.1.0.0/24", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_GT, 16, 0, "10.1.1.0/17", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_GT, 16, 0, "10.1.0.0/16", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_GE, 16, 0, "10.1.0.0/16", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_GE, 16, 0, "10.0.0.0/15", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_XRANGE, 16, 24, "10.1.0.0/16", false},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_XRANGE, 16, 24, "10.1.0.0/17", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_XRANGE, 16, 24, "10.1.1.0/24", false},
    {POL_AF_IPV4, "10.0.0.0/8", 9, 0, 32, "10.1.1.0/24", false},
    {POL_AF_IPV4, "10.1.2.3/8", PFX_OP_LE, 0, 32, "10.200.0.0/16", true},
    {POL_AF_IPV4, "10.0.0.0/8", PFX_OP_LE, 0, 40, "10.1.1.1/35", true},
    {POL_AF_IPV4, "10.0.0.0/35", PFX_OP_GE, 0, 0, "10.0.0.0/32", true},
    {POL_AF_IPV4, "10.0.0.0/35", PFX_OP_GE, 0, 0, "10.0.0.1/32", false},
    {POL_AF_IPV4, "::/0", PFX_OP_GE, 0, 0, "10.0.0.0/8", true},
    {POL_AF_IPV4, "::/0", PFX_OP_NE, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV4, "::/0", PFX_OP_NONE, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV4, "0.0.0.0/0", PFX_OP_NE, 0, 0, "10.0.0.0/8", true},
    {POL_AF_IPV6, "0.0.0.0/0", PFX_OP_LE, 0, 64, "2001:db8::/32", true},
    {POL_AF_IPV6, "0.0.0.0/0", PFX_OP_NE, 0, 0, "2001:db8::/32", false},
    {POL_AF_IPV4, "2001:db8::/32", PFX_OP_LE, 0, 128, "10.0.0.0/8", false},
    {POL_AF_IPV6, "0.0.0.0/0", PFX_OP_GE, 0, 0, "10.0.0.0/8", false},
    {POL_AF_IPV6, "::/0", PFX_OP_LE, 0, 64, "2001:db8:1::/48", true},
    {POL_AF_IPV6, "2001:db8::/32", PFX_OP_LE, 0, 64, "2001:db8:1::/48", true},
    {POL_AF_IPV6, "2001:db8::/32", PFX_OP_LE, 0, 64, "2001:db9:1::/48", false},
    {POL_AF_IPV6, "2001:db8::/100", PFX_OP_LE, 0, 128, "2001:db8::800:0/128", true},
    {POL_AF_IPV6, "2001:db8::/100", PFX_OP_LE, 0, 128, "2001:db8::1000:0/128", false},
    {POL_AF_IPV6, "2001:db8::/65", PFX_OP_GE, 65, 0, "2001:db8::4000:0:0:0/80", true},
    {POL_AF_IPV6, "2001:db8::/33", PFX_OP_GE, 33, 0, "2001:db8:8000::/40", false},
    {POL_AF_IPV6, "2001:db8::/33", PFX_OP_GE, 33, 0, "2001:db8:7fff::/48", true},
};

TEST_F(ExecDifferential, HandWorkedPrefixCasesGiveTheSameVerdictInBoth)
{
    t_pol_reg_params reg{};
    std::snprintf(reg.user_name, sizeof(reg.user_name), "prefix-cases");
    std::snprintf(reg.pol_name, sizeof(reg.pol_name), "prefix-policy");
    reg.pol_type = POL_TYPE_ROUTE;
    reg.pol_direction = POL_DIR_OUT;
    t_pol_user *user = pol_register(&reg);
    ASSERT_NE(user, nullptr);
    uint8_t changed = 0;
    t_pol_entry *seq = pol_entry_find_or_create(ctx_, user->pol_block_p, 10, &changed);
    ASSERT_NE(seq, nullptr);
    pol_entry_match_add(ctx_, user->pol_block_p, seq, POL_MATCH_VROUTE, &changed);
    pol_entry_action_add(ctx_, seq, POL_ACTION_ACCEPT, &changed);

    for (const prefix_case &c : kPrefixCases) {
        t_pfx_list_key key = {c.list_af, "cases"};
        ASSERT_NE(pol_entry_match_pfx_list_add(ctx_, seq, &key, &changed), nullptr);
        pol_pfx_list_cfg_del(ctx_, &key);
        t_pfx_entry_param e{};
        e.prefix = parse_prefix(c.entry);
        e.pfx_op = static_cast<e_pfx_op>(c.op);
        e.preflen_min = c.min;
        e.preflen_max = c.max;
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &key, &e), ERR_OK);

        t_zen_attr attr{};
        t_pol_exec_params lib;
        pol_pre_execute(&lib, ZEN_DEVICE_RIMBA);
        lib.attr_in_p = &attr;
        lib.safi = POL_SAFI_VROUTE;
        lib.u.vroute_info.prefix = parse_prefix(c.route);
        t_pol_exec_params ref;
        std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
        e_pol_action want = c.matches ? POL_ACTION_ACCEPT : POL_ACTION_REJECT;
        EXPECT_EQ(pol_execute(user, &lib), want)
            << "library: entry " << c.entry << " op " << c.op << " " << unsigned{c.min} << ".."
            << unsigned{c.max} << ", route " << c.route;
        EXPECT_EQ(execref::execute(user, &ref), want)
            << "reference: entry " << c.entry << " op " << c.op << " " << unsigned{c.min} << ".."
            << unsigned{c.max} << ", route " << c.route;
        execref::release(&ref);
    }
    pol_unregister(&user);
}

}  // namespace
