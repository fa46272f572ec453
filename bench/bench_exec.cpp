// Route execution throughput: pol_execute against the plain evaluator of
// tests/exec_reference (which walks every sequence and every list entry in
// order), on the same policies and routes, in the same process.
//
// Scenarios:
//   typical          (a) 10 sequences over small lists of every kind.
//   prefix-N         (b, c) 100 sequences each matching an IPv4 prefix list
//                    of N entries (1,000, 10,000, 100,000); only the last
//                    sequence's list holds the routes. The 99 that miss all
//                    name one shared list, the last one a second list.
//   distinct-10000   (b) the same with 100 distinct lists of 10,000.
//   expanded         (d) 10 sequences each matching an expanded community
//                    list of 100 patterns; routes carry 10 communities.
//   seq-10, seq-1000 10 or 1,000 sequences, each naming its own list of
//                    ten prefixes; routes match a random sequence, one in
//                    ten none; -early, -middle, -never: routes that match
//                    the first, the middle or no sequence of 1,000.
// Library and reference run in alternating passes over the same routes
// and each side's rate is that of its median pass (the reference, far
// slower on long lists, on fewer routes; rates are routes per second
// either way). Before timing, a sample of routes goes through both and
// must get the same verdict, match and set flags and preference.
//
// Targets (each printed as met or MISSED; the exit status is non-zero
// when one is missed):
//   (a) typical at least 3 times the reference;
//   (b) prefix-10000 at least 100 times the reference, and the distinct
//       lists within 2 times the shared list's time per route;
//   (c) prefix-100000 / prefix-1000: time per route grows less than 2x;
//   (d) expanded at least 100 times the reference;
//   seq-1000 within 5 times seq-10's time per route.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "exec_reference.hpp"
#include "pol_internal.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// Resolves every TLOC to one label.
void bench_label_cb(uint16_t, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id, uint16_t,
                    bool, uint32_t *, t_tloc_id *, t_pol_te_info *te, uint32_t preference)
{
    if (te->num_entries + 1 < POL_MAX_TE_ENTRIES) {
        t_pol_te &e = te->entries[te->num_entries++];
        e.label = addr ^ static_cast<uint32_t>(vpn_id) ^ color;
        e.preference = preference;
        e.tloc = t_tloc_id{};
        IPADDR_SET_V4(&e.tloc.addr, addr);
        e.tloc.color = color;
        e.tloc.encap = encap;
    }
}

t_ipaddr v4(uint32_t host_order)
{
    t_ipaddr a{};
    IPADDR_SET_V4(&a, htonl(host_order));
    return a;
}

t_ipprefix v4_prefix(uint32_t host_order, uint8_t len)
{
    return t_ipprefix{v4(host_order), len};
}

uint32_t community(uint32_t high, uint32_t low)
{
    return high << 16 | low;
}

/* ---- routes ---- */

struct bench_route {
    t_zen_attr attr{};
    uint64_t vpn = 0;
    t_ipprefix prefix{};
};

t_bgp_community *make_communities(const std::vector<uint32_t> &values)
{
    auto *c = static_cast<t_bgp_community *>(
        std::calloc(1, sizeof(t_bgp_community) + values.size() * sizeof(uint32_t)));
    c->n_communities = static_cast<uint32_t>(values.size());
    c->ref_count = 1;
    for (std::size_t i = 0; i < values.size(); i++) {
        c->communities[i] = values[i];
    }
    return c;
}

// One policy in its own context, with its user and its routes.
struct scenario {
    t_pol_ctx *ctx = nullptr;
    t_pol_user *user = nullptr;
    t_pol_block *block = nullptr;
    std::vector<bench_route> routes;
    unsigned lib_routes = 0;  // how many executions each side times
    unsigned ref_routes = 0;

    scenario()
    {
        t_pol_init_params params{};
        ctx = pol_init(&params);
        t_pol_reg_params reg{};
        std::snprintf(reg.user_name, sizeof(reg.user_name), "bench-user");
        std::snprintf(reg.pol_name, sizeof(reg.pol_name), "bench-policy");
        reg.pol_type = POL_TYPE_ROUTE;
        reg.pol_direction = POL_DIR_OUT;
        reg.pol_label_cb = bench_label_cb;
        user = pol_register(&reg);
        block = user->pol_block_p;
    }

    ~scenario()
    {
        for (bench_route &r : routes) {
            std::free(r.attr.community_p);
        }
        pol_unregister(&user);
        pol_destroy();
    }

    t_pol_entry *sequence(uint32_t num, e_pol_action action)
    {
        uint8_t changed = 0;
        t_pol_entry *e = pol_entry_find_or_create(ctx, block, num, &changed);
        pol_entry_match_add(ctx, block, e, POL_MATCH_VROUTE, &changed);
        pol_entry_action_add(ctx, e, action, &changed);
        return e;
    }
};

// The execution parameters of one benchmark route (an IPv4 virtual route
// on an edge router), with te as its label table.
t_pol_exec_params route_params(const bench_route &r, t_pol_te_info *te)
{
    t_pol_exec_params p;
    pol_pre_execute(&p, ZEN_DEVICE_RIMBA);
    p.attr_in_p = const_cast<t_zen_attr *>(&r.attr);
    p.afi = 2;
    p.safi = POL_SAFI_VROUTE;
    p.u.vroute_info.vpn_id = r.vpn;
    p.u.vroute_info.prefix = r.prefix;
    p.te_info_p = te;
    return p;
}

// Runs count routes (cycling) through exec; returns seconds.
template <typename Exec>
double run_routes(const scenario &sc, unsigned count, Exec exec, uint64_t &accepted)
{
    t_pol_te_info te;
    auto start = clock_type::now();
    for (unsigned i = 0; i < count; i++) {
        const bench_route &r = sc.routes[i % sc.routes.size()];
        te.num_entries = 0;
        t_pol_exec_params p = route_params(r, &te);
        accepted += exec(p) == POL_ACTION_ACCEPT ? 1 : 0;
    }
    return seconds_since(start);
}

e_pol_action run_library(t_pol_user *user, t_pol_exec_params &p)
{
    e_pol_action v = pol_execute(user, &p);
    pol_free(p.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
    return v;
}

e_pol_action run_reference(t_pol_user *user, t_pol_exec_params &p)
{
    e_pol_action v = execref::execute(user, &p);
    execref::release(&p);
    return v;
}

/* ---- (a) a typical policy ---- */

std::unique_ptr<scenario> build_typical()
{
    auto sc = std::make_unique<scenario>();
    t_pol_ctx *ctx = sc->ctx;
    uint8_t changed = 0;
    const t_pfx_list_key branch = {POL_AF_IPV4, "branch-nets"};
    const t_pfx_list_key dc = {POL_AF_IPV4, "dc-nets"};
    const t_pfx_list_key v6 = {POL_AF_IPV6, "v6-nets"};
    for (uint32_t i = 0; i < 10; i++) {
        t_pfx_entry_param e{};
        e.prefix = v4_prefix(0x0a000000u | i << 16, 16);
        e.pfx_op = PFX_OP_LE;
        e.preflen_max = 24;
        pol_pfx_list_entry_add(ctx, &branch, &e);
        e.prefix = v4_prefix(0xac100000u | (i * 16) << 8, 20);
        e.pfx_op = PFX_OP_GE;
        e.preflen_min = 24;
        pol_pfx_list_entry_add(ctx, &dc, &e);
        uint8_t b[16] = {0x20, 0x01, 0x0d, 0xb8, 0, static_cast<uint8_t>(i)};
        IPADDR_SET_V6(&e.prefix.addr, b);
        e.prefix.prefixlen = 48;
        e.pfx_op = PFX_OP_LE;
        e.preflen_max = 64;
        pol_pfx_list_entry_add(ctx, &v6, &e);
    }
    for (uint32_t i = 0; i < 5; i++) {
        pol_site_list_add_entry(ctx, "branches", 100 + i * 200, 199 + i * 200);
        pol_site_list_add_entry(ctx, "dcs", 1000 + i * 10, 1004 + i * 10);
        pol_vpn_list_add_entry(ctx, "corp-vpns", 10 + i * 10, 14 + i * 10);
        pol_community_list_add_entry(ctx, "customers", ("65000:" + std::to_string(i + 1)).c_str(),
                                     COMM_LIST_TYPE_STANDARD);
    }
    for (uint32_t i = 0; i < 4; i++) {
        t_tloc_id t{};
        t.addr = v4(0xc0a80001u + i);
        t.color = static_cast<uint8_t>(1 + i % 2);
        t.encap = 2;
        pol_tloc_list_add_entry(ctx, "hub-tlocs", &t, 100 * (i + 1));
    }
    for (uint32_t c : {1u, 3u, 5u}) {
        pol_color_list_add_entry(ctx, "public", c);
    }
    for (const char *p : {"^65100:", "(^| )65200:[0-9]+$", "no-export"}) {
        pol_community_list_add_entry(ctx, "transit", p, COMM_LIST_TYPE_EXPANDED);
    }

    t_pol_entry *e = sc->sequence(10, POL_ACTION_ACCEPT);
    pol_entry_match_pfx_list_add(ctx, e, &branch, &changed);
    pol_entry_match_site_list_add(ctx, e, "branches", &changed);
    pol_entry_set_preference_add(ctx, e, 200, &changed);
    e = sc->sequence(20, POL_ACTION_ACCEPT);
    pol_entry_match_pfx_list_add(ctx, e, &dc, &changed);
    pol_entry_match_community_list_add(ctx, e, "customers", COMM_LIST_TYPE_STANDARD, &changed);
    pol_entry_set_tloc_list_add(ctx, e, "hub-tlocs", &changed);
    e = sc->sequence(30, POL_ACTION_REJECT);
    pol_entry_match_color_list_add(ctx, e, "public", &changed);
    pol_entry_match_vpn_list_add(ctx, e, "corp-vpns", &changed);
    e = sc->sequence(40, POL_ACTION_ACCEPT);
    pol_entry_match_tag_add(ctx, e, 7, &changed);
    pol_entry_set_tag_add(ctx, e, 8, &changed);
    e = sc->sequence(50, POL_ACTION_ACCEPT);
    pol_entry_match_pfx_list_add(ctx, e, &v6, &changed);
    e = sc->sequence(60, POL_ACTION_REJECT);
    pol_entry_match_community_list_add(ctx, e, "transit", COMM_LIST_TYPE_EXPANDED, &changed);
    e = sc->sequence(70, POL_ACTION_ACCEPT);
    pol_entry_match_site_list_add(ctx, e, "dcs", &changed);
    auto *values = static_cast<uint32_t *>(pol_malloc(2 * sizeof(uint32_t), POL_MEM_SET_ENTRY_COMMUNITY));
    values[0] = community(65000, 70);
    values[1] = community(65000, 71);
    pol_config_set_bgp_community_upd(e, values, 2);
    e = sc->sequence(80, POL_ACTION_ACCEPT);
    pol_entry_match_origin_add(ctx, e, 4, &changed);
    e = sc->sequence(90, POL_ACTION_ACCEPT);
    pol_entry_match_vpn_id_add(ctx, e, 10, &changed);
    pol_entry_match_tloc_list_add(ctx, e, "hub-tlocs", &changed);
    e = sc->sequence(100, POL_ACTION_REJECT);
    pol_entry_match_domain_add(ctx, e, 2, &changed);
    sc->block->default_action_entry.entry_action = POL_ACTION_ACCEPT;
    pol_user_chg_list_notify_all(ctx);

    std::mt19937 rng(7);
    for (unsigned i = 0; i < 4096; i++) {
        bench_route r;
        r.attr.attr_flags = ZEN_ATTR_FLAG_TLOC | ZEN_ATTR_FLAG_TAG | ZEN_ATTR_FLAG_SITE_ID |
                            ZEN_ATTR_FLAG_ORIGIN | ZEN_ATTR_FLAG_PREFERENCE | ZEN_ATTR_FLAG_DOMAIN_ID;
        r.attr.tloc.addr = v4(0xc0a80001u + rng() % 8);
        r.attr.tloc.color = static_cast<uint8_t>(1 + rng() % 6);
        r.attr.tloc.encap = 2;
        r.attr.tag = rng() % 10;
        r.attr.site_id = rng() % 1100;
        r.attr.domain_id = rng() % 3;
        r.attr.origin.proto = static_cast<uint8_t>(1 + rng() % 4);
        r.attr.origin.proto_sub_type = static_cast<uint8_t>(rng() % 4);
        r.attr.attr_flags |= ZEN_ATTR_FLAG_ORIGIN;
        static const uint32_t kHigh[] = {65000, 65100, 65200, 65300};
        r.attr.community_p = make_communities({community(kHigh[rng() % 4], rng() % 8),
                                               community(kHigh[rng() % 4], rng() % 8),
                                               community(65300, rng() % 100)});
        r.vpn = rng() % 60;
        switch (rng() % 3) {
        case 0:
            r.prefix = v4_prefix(0x0a000000u | (rng() % 16) << 16 | (rng() % 256) << 8, 16 + rng() % 17);
            break;
        case 1:
            r.prefix = v4_prefix(0xac100000u | (rng() % 256) << 8, 20 + rng() % 13);
            break;
        default:
            r.prefix = v4_prefix(0xc0a80000u | (rng() % 256) << 8, 24);
            break;
        }
        sc->routes.push_back(r);
    }
    sc->lib_routes = 400000;
    sc->ref_routes = 100000;
    return sc;
}

/* ---- (b), (c) long prefix lists ---- */

// Entry i of a list whose addresses start at first octet `first` (the
// miss list at 10, the hit list at 11; each list steps by 2): nine in ten
// are a /24 taking lengths 24 to 32, one in ten a /20 (from 100 octets
// up) taking 28 and longer, so lookups meet two lengths.
t_pfx_entry_param long_list_entry(uint32_t i, uint32_t first)
{
    t_pfx_entry_param e{};
    if (i % 10 == 9) {
        uint32_t j = i / 10;
        e.prefix = v4_prefix((first + 100 + 2 * (j / 4096)) << 24 | (j % 4096) << 12, 20);
        e.pfx_op = PFX_OP_GE;
        e.preflen_min = 28;
    } else {
        e.prefix = v4_prefix((first + 2 * (i / 65536)) << 24 | (i % 65536) << 8, 24);
        e.pfx_op = PFX_OP_RANGE;
        e.preflen_min = 24;
        e.preflen_max = 32;
    }
    return e;
}

std::unique_ptr<scenario> build_long_prefix(uint32_t entries)
{
    auto sc = std::make_unique<scenario>();
    const t_pfx_list_key miss = {POL_AF_IPV4, "miss"};
    const t_pfx_list_key hit = {POL_AF_IPV4, "hit"};
    std::vector<t_pfx_entry_param> hits;
    for (uint32_t i = 0; i < entries; i++) {
        t_pfx_entry_param e = long_list_entry(i, 10);
        pol_pfx_list_entry_add(sc->ctx, &miss, &e);
        e = long_list_entry(i, 11);
        pol_pfx_list_entry_add(sc->ctx, &hit, &e);
        hits.push_back(e);
    }
    uint8_t changed = 0;
    for (uint32_t n = 1; n <= 100; n++) {
        t_pol_entry *e = sc->sequence(n, POL_ACTION_ACCEPT);
        pol_entry_match_pfx_list_add(sc->ctx, e, n < 100 ? &miss : &hit, &changed);
        pol_entry_set_preference_add(sc->ctx, e, n, &changed);
    }
    pol_user_chg_list_notify_all(sc->ctx);

    // Host routes and /28s inside random entries of the matching list.
    std::mt19937 rng(11);
    for (unsigned i = 0; i < 8192; i++) {
        const t_pfx_entry_param &e = hits[rng() % hits.size()];
        bench_route r;
        uint32_t base = ntohl(e.prefix.addr.u.addr4.s_addr);
        uint8_t len = rng() % 2 == 0 ? 32 : 28;
        uint32_t host = rng() & ((1u << (32 - e.prefix.prefixlen)) - 1);
        r.prefix = v4_prefix((base | host) & ~((1u << (32 - len)) - 1), len);
        r.vpn = 1;
        sc->routes.push_back(r);
    }
    sc->lib_routes = 100000;
    // The reference walks about 99.5 lists of the given length per route.
    sc->ref_routes = std::max(10u, 1500000000u / (100 * entries) / 10);
    return sc;
}

/* ---- (d) expanded community lists ---- */

std::unique_ptr<scenario> build_expanded()
{
    auto sc = std::make_unique<scenario>();
    uint8_t changed = 0;
    for (uint32_t l = 0; l < 10; l++) {
        std::string name = "exp-" + std::to_string(l);
        for (uint32_t k = 0; k < 100; k++) {
            std::string pattern = "(^| )6500" + std::to_string(l) + ":" + std::to_string(k) + "( |$)";
            pol_community_list_add_entry(sc->ctx, name.c_str(), pattern.c_str(), COMM_LIST_TYPE_EXPANDED);
        }
        t_pol_entry *e = sc->sequence(10 * (l + 1), POL_ACTION_ACCEPT);
        pol_entry_match_community_list_add(sc->ctx, e, name.c_str(), COMM_LIST_TYPE_EXPANDED, &changed);
    }
    pol_user_chg_list_notify_all(sc->ctx);

    // Ten communities, none of the first nine lists' values; half the
    // routes carry one value of the last list.
    std::mt19937 rng(13);
    for (unsigned i = 0; i < 1024; i++) {
        bench_route r;
        std::vector<uint32_t> values;
        for (unsigned c = 0; c < 10; c++) {
            values.push_back(community(65100 + rng() % 10, rng() % 1000));
        }
        if (i % 2 == 0) {
            values[rng() % 10] = community(65009, rng() % 100);
        }
        r.attr.community_p = make_communities(values);
        r.prefix = v4_prefix(0x0a000000u, 8);
        sc->routes.push_back(r);
    }
    sc->lib_routes = 3000;
    sc->ref_routes = 3000;
    return sc;
}

/* ---- (b') distinct long prefix lists ---- */

// Entry i of list l, whose addresses all start with octet l + 1: nine in
// ten a /24 taking lengths 24 to 32, one in ten a /20 taking 28 and longer.
t_pfx_entry_param distinct_list_entry(uint32_t i, uint32_t l)
{
    t_pfx_entry_param e{};
    const uint32_t octet = (l + 1) << 24;
    if (i % 10 == 9) {
        e.prefix = v4_prefix(octet | 0x800000u | (i / 10) << 12, 20);
        e.pfx_op = PFX_OP_GE;
        e.preflen_min = 28;
    } else {
        e.prefix = v4_prefix(octet | i << 8, 24);
        e.pfx_op = PFX_OP_RANGE;
        e.preflen_min = 24;
        e.preflen_max = 32;
    }
    return e;
}

// A host route or a /28 inside the given entry.
bench_route route_inside(const t_pfx_entry_param &e, std::mt19937 &rng)
{
    bench_route r;
    uint32_t base = ntohl(e.prefix.addr.u.addr4.s_addr);
    uint8_t len = rng() % 2 == 0 ? 32 : 28;
    uint32_t host = rng() & ((1u << (32 - e.prefix.prefixlen)) - 1);
    r.prefix = v4_prefix((base | host) & ~((1u << (32 - len)) - 1), len);
    r.vpn = 1;
    return r;
}

// 100 sequences, each naming its own list of `entries` entries; only the
// last list holds the routes.
std::unique_ptr<scenario> build_distinct_prefix(uint32_t entries)
{
    auto sc = std::make_unique<scenario>();
    uint8_t changed = 0;
    std::vector<t_pfx_entry_param> hits;
    for (uint32_t n = 1; n <= 100; n++) {
        const std::string name = "list-" + std::to_string(n);
        const t_pfx_list_key key = {POL_AF_IPV4, name.c_str()};
        for (uint32_t i = 0; i < entries; i++) {
            t_pfx_entry_param e = distinct_list_entry(i, n - 1);
            pol_pfx_list_entry_add(sc->ctx, &key, &e);
            if (n == 100) {
                hits.push_back(e);
            }
        }
        t_pol_entry *e = sc->sequence(n, POL_ACTION_ACCEPT);
        pol_entry_match_pfx_list_add(sc->ctx, e, &key, &changed);
        pol_entry_set_preference_add(sc->ctx, e, n, &changed);
    }
    pol_user_chg_list_notify_all(sc->ctx);
    std::mt19937 rng(17);
    for (unsigned i = 0; i < 8192; i++) {
        sc->routes.push_back(route_inside(hits[rng() % hits.size()], rng));
    }
    sc->lib_routes = 100000;
    sc->ref_routes = 50;
    return sc;
}

/* ---- many sequences ---- */

// Which sequence the routes of a many-sequence policy match.
enum class hit_at { random, early, middle, never };

// n sequences, each naming its own prefix list of ten /24s (lengths 24 to
// 32) and setting its own preference. Routes fall inside an entry of the
// chosen sequence's list, or outside every list.
std::unique_ptr<scenario> build_many_sequences(uint32_t n, hit_at where)
{
    auto sc = std::make_unique<scenario>();
    uint8_t changed = 0;
    std::vector<std::vector<t_pfx_entry_param>> lists(n);
    for (uint32_t s = 0; s < n; s++) {
        const std::string name = "seq-list-" + std::to_string(s);
        const t_pfx_list_key key = {POL_AF_IPV4, name.c_str()};
        for (uint32_t k = 0; k < 10; k++) {
            t_pfx_entry_param e{};
            e.prefix = v4_prefix(0x0a000000u | (s * 10 + k) << 8, 24);
            e.pfx_op = PFX_OP_RANGE;
            e.preflen_min = 24;
            e.preflen_max = 32;
            pol_pfx_list_entry_add(sc->ctx, &key, &e);
            lists[s].push_back(e);
        }
        t_pol_entry *e = sc->sequence(s + 1, POL_ACTION_ACCEPT);
        pol_entry_match_pfx_list_add(sc->ctx, e, &key, &changed);
        pol_entry_set_preference_add(sc->ctx, e, s + 1, &changed);
    }
    pol_user_chg_list_notify_all(sc->ctx);
    std::mt19937 rng(19);
    for (unsigned i = 0; i < 4096; i++) {
        uint32_t s = where == hit_at::early ? 0 : (where == hit_at::middle ? n / 2 : rng() % n);
        if (where == hit_at::never || (where == hit_at::random && rng() % 10 == 0)) {
            bench_route r;
            r.prefix = v4_prefix(0x0b000000u | (rng() % 65536) << 8, 24);
            sc->routes.push_back(r);
            continue;
        }
        sc->routes.push_back(route_inside(lists[s][rng() % 10], rng));
    }
    sc->lib_routes = 200000;
    sc->ref_routes = std::max(20u, 20000000u / (n * 10));
    return sc;
}

/* ---- the benchmarks ---- */

struct result {
    double lib_rate = 0;   // routes/s
    double ref_rate = 0;
    double lib_ns = 0;     // per route
    bool agree = true;
};
std::map<std::string, result> g_results;

constexpr unsigned kPasses = 5;

struct named_scenario {
    std::string name;
    std::function<std::unique_ptr<scenario>()> build;
};

std::vector<named_scenario> &scenarios()
{
    static std::vector<named_scenario> all = [] {
        std::vector<named_scenario> v;
        v.push_back({"typical", build_typical});
        v.push_back({"prefix-1000", [] { return build_long_prefix(1000); }});
        v.push_back({"prefix-10000", [] { return build_long_prefix(10000); }});
        v.push_back({"prefix-100000", [] { return build_long_prefix(100000); }});
        v.push_back({"distinct-10000", [] { return build_distinct_prefix(10000); }});
        v.push_back({"expanded", build_expanded});
        v.push_back({"seq-10", [] { return build_many_sequences(10, hit_at::random); }});
        v.push_back({"seq-1000", [] { return build_many_sequences(1000, hit_at::random); }});
        v.push_back({"seq-1000-early", [] { return build_many_sequences(1000, hit_at::early); }});
        v.push_back({"seq-1000-middle", [] { return build_many_sequences(1000, hit_at::middle); }});
        v.push_back({"seq-1000-never", [] { return build_many_sequences(1000, hit_at::never); }});
        return v;
    }();
    return all;
}

// Same verdicts, set flags and preference on a sample of routes; this also
// builds the indexes.
bool sample_agrees(scenario &sc)
{
    unsigned sample = std::min<unsigned>(std::min(sc.ref_routes, 50u), sc.routes.size());
    for (unsigned i = 0; i < sample; i++) {
        const bench_route &route = sc.routes[i];
        t_pol_te_info te_a{};
        t_pol_te_info te_b{};
        t_pol_exec_params a = route_params(route, &te_a);
        t_pol_exec_params b = route_params(route, &te_b);
        e_pol_action va = run_library(sc.user, a);
        e_pol_action vb = run_reference(sc.user, b);
        if (va != vb || a.entry_set_flags != b.entry_set_flags || a.entry_match_flags != b.entry_match_flags ||
            a.attr_out.preference != b.attr_out.preference) {
            return false;
        }
    }
    return true;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The library and the reference in alternating passes over the same
// routes; each side's rate is that of its median pass, so that other work
// on the shared machine weighs on both alike and decides no target.
void run_scenario(benchmark::State &state, const named_scenario &ns)
{
    for (auto _ : state) {
        std::unique_ptr<scenario> sc = ns.build();
        result &r = g_results[ns.name];
        r.agree = sample_agrees(*sc);
        if (!r.agree) {
            state.SkipWithError("library and reference disagree");
            break;
        }
        const unsigned lib_per_pass = sc->lib_routes / kPasses;
        const unsigned ref_per_pass = std::max(1u, sc->ref_routes / kPasses);
        std::vector<double> lib, ref;
        uint64_t accepted = 0;
        for (unsigned pass = 0; pass < kPasses; pass++) {
            lib.push_back(run_routes(*sc, lib_per_pass,
                                     [&](t_pol_exec_params &p) { return run_library(sc->user, p); }, accepted));
            ref.push_back(run_routes(*sc, ref_per_pass,
                                     [&](t_pol_exec_params &p) { return run_reference(sc->user, p); }, accepted));
        }
        benchmark::DoNotOptimize(accepted);
        state.SetIterationTime(median(lib) * kPasses);
        r.lib_rate = lib_per_pass / median(lib);
        r.lib_ns = 1e9 * median(lib) / lib_per_pass;
        r.ref_rate = ref_per_pass / median(ref);
        state.counters["routes_per_s"] = r.lib_rate;
        state.counters["ref_routes_per_s"] = r.ref_rate;
    }
}

void register_all()
{
    for (const named_scenario &ns : scenarios()) {
        benchmark::RegisterBenchmark(("exec/" + ns.name).c_str(),
                                     [&ns](benchmark::State &s) { run_scenario(s, ns); })
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
}

// One target: printed as met or MISSED; false when missed. A scenario
// left out by a filter is not judged.
bool judge(const char *what, bool measured, bool met)
{
    if (!measured) {
        std::printf("%-60s not run\n", what);
        return true;
    }
    std::printf("%-60s %s\n", what, met ? "met" : "MISSED");
    return met;
}

double ratio_of(const result &r)
{
    return r.ref_rate > 0 ? r.lib_rate / r.ref_rate : 0;
}

// Prints the summary; false when a target is missed.
bool print_summary()
{
    bool ok = true;
    std::printf("\n%-16s %14s %14s %10s %12s\n", "scenario", "library/s", "reference/s", "ratio", "library ns");
    for (const named_scenario &ns : scenarios()) {
        auto found = g_results.find(ns.name);
        if (found == g_results.end()) {
            continue;
        }
        const result &r = found->second;
        ok = ok && r.agree;
        std::printf("%-16s %14.0f %14.0f %9.1fx %12.0f%s\n", ns.name.c_str(), r.lib_rate, r.ref_rate, ratio_of(r),
                    r.lib_ns, r.agree ? "" : "  DISAGREE");
    }
    auto has = [](const char *name) { return g_results.count(name) != 0 && g_results[name].lib_ns > 0; };
    auto ns_of = [](const char *name) { return g_results[name].lib_ns; };
    char line[128];
    std::snprintf(line, sizeof(line), "(a) typical >= 3x the reference: %.1fx", ratio_of(g_results["typical"]));
    ok = judge(line, has("typical"), ratio_of(g_results["typical"]) >= 3.0) && ok;
    std::snprintf(line, sizeof(line), "(b) prefix-10000 >= 100x the reference: %.0fx",
                  ratio_of(g_results["prefix-10000"]));
    ok = judge(line, has("prefix-10000"), ratio_of(g_results["prefix-10000"]) >= 100.0) && ok;
    double distinct = has("distinct-10000") && has("prefix-10000") ? ns_of("distinct-10000") / ns_of("prefix-10000") : 0;
    std::snprintf(line, sizeof(line), "(b) 100 distinct lists within 2x of one shared list: %.2fx", distinct);
    ok = judge(line, has("distinct-10000") && has("prefix-10000"), distinct <= 2.0) && ok;
    double growth = has("prefix-100000") && has("prefix-1000") ? ns_of("prefix-100000") / ns_of("prefix-1000") : 0;
    std::snprintf(line, sizeof(line), "(c) time per route, 100,000 vs 1,000 entries < 2x: %.2fx", growth);
    ok = judge(line, has("prefix-100000") && has("prefix-1000"), growth < 2.0) && ok;
    std::snprintf(line, sizeof(line), "(d) expanded >= 100x the reference: %.0fx", ratio_of(g_results["expanded"]));
    ok = judge(line, has("expanded"), ratio_of(g_results["expanded"]) >= 100.0) && ok;
    double sequences = has("seq-1000") && has("seq-10") ? ns_of("seq-1000") / ns_of("seq-10") : 0;
    std::snprintf(line, sizeof(line), "1,000 sequences within 5x of 10: %.2fx", sequences);
    ok = judge(line, has("seq-1000") && has("seq-10"), sequences <= 5.0) && ok;
    return ok;
}

}  // namespace

int main(int argc, char **argv)
{
    register_all();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return print_summary() ? 0 : 1;
}
