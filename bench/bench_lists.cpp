// Named-list throughput: for each family, build one list of N distinct
// entries through its add operation, look every entry up, delete them all.
// The reference is a plain list that walks its queue for the duplicate
// check, the lookup and the delete, as a list without an index must; at
// N = 100,000 its quadratic total would take minutes, so it is timed on a
// sample of operations against a full-size queue, which gives its per-
// operation rate at that size. Work an add needs whatever the lookup
// structure (compiling a pattern) is charged to both. Both run in this process; the summary
// prints entries/s, the ratio and whether the targets hold.
//
// Beside the walk, the same keys (the entry's number) go through an
// ordinary sorted map and a hash set, for scale: what a container that
// knows nothing of the families costs. Bytes per entry are the entry
// record's and, for the families that match through one, the match-time
// index's, built by one query once the list is full (target: at most 64
// bytes of index per prefix entry).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include <arpa/inet.h>
#include <regex.h>

#include "pol_internal.h"
#include "pol_match.hpp"

namespace {

constexpr uint32_t kEntries = 100000;
constexpr uint32_t kColorEntries = 65536;  // colours are 16-bit
constexpr uint32_t kReferenceSample = 500;
const char *const kName = "bench-list";

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

/* ---- one adapter per family: add, find and delete entry number i ---- */

t_tloc_id tloc_of(uint32_t i)
{
    t_tloc_id t{};
    IPADDR_SET_V4(&t.addr, htonl(0x0a000000u + i));
    t.color = 1;
    t.encap = 2;
    return t;
}

t_pfx_entry_param pfx_of(uint32_t i)
{
    t_pfx_entry_param p{};
    IPADDR_SET_V4(&p.prefix.addr, htonl(0x0a000000u + (i << 8)));
    p.prefix.prefixlen = 24;
    p.pfx_op = PFX_OP_LE;
    p.preflen_max = 28;
    return p;
}

const t_pfx_list_key kPfxKey = {POL_AF_IPV4, kName};

// Texts are formatted with snprintf: g++ 12 warns falsely on some
// std::string concatenations at -O3.
std::string format_text(const char *fmt, uint32_t a, uint32_t b)
{
    char buf[64];
    std::snprintf(buf, sizeof(buf), fmt, a, b);
    return buf;
}

std::string community_of(uint32_t i)
{
    return format_text("%u:%u", i >> 16, i & 0xffff);
}

std::string pattern_of(uint32_t i)
{
    return format_text("^%u:[0-9]+$%.0u", i, 0);
}

// What an add costs besides finding its place: the expanded family
// compiles its pattern, and the reference must pay for that too.
void no_entry_work(uint32_t) {}

void compile_pattern(uint32_t i)
{
    regex_t re;
    if (regcomp(&re, pattern_of(i).c_str(), REG_EXTENDED | REG_NOSUB) == 0) {
        regfree(&re);
    }
}

// The bytes of a full list's match-time index, built by one query; 0 for
// a family without one.
std::size_t no_index(t_pol_ctx *)
{
    return 0;
}

std::size_t community_index_bytes(t_pol_ctx *c, community_list_type type)
{
    t_community_list *list = pol_community_list_find(c, kName, type);
    t_bgp_community none{};
    pol::community_text text;
    pol::community_list_matches(list, none, text);
    return pol::exec_index_bytes(list->exec_index);
}

struct family {
    const char *name;
    uint32_t entries;
    void (*add)(t_pol_ctx *, uint32_t);
    bool (*find)(t_pol_ctx *, uint32_t);
    void (*del)(t_pol_ctx *, uint32_t);
    std::size_t entry_bytes;
    std::size_t (*index_bytes)(t_pol_ctx *) = no_index;
    void (*entry_work)(uint32_t) = no_entry_work;
};

const family kFamilies[] = {
    {"site", kEntries, [](t_pol_ctx *c, uint32_t i) { pol_site_list_add_entry(c, kName, i, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_site_list_find_entry(c, kName, i, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_site_list_del_entry(c, kName, i, i); }, sizeof(t_site_entry),
     [](t_pol_ctx *c) {
         t_site_list *list = pol_site_list_find(c, kName);
         pol::site_list_contains(list, 0);
         return pol::exec_index_bytes(list->exec_index);
     }},
    {"vpn", kEntries, [](t_pol_ctx *c, uint32_t i) { pol_vpn_list_add_entry(c, kName, i, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_vpn_list_find_entry(c, kName, i, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_vpn_list_del_entry(c, kName, i, i); }, sizeof(t_pol_vpn_entry),
     [](t_pol_ctx *c) {
         t_vpn_list *list = pol_vpn_list_find(c, kName);
         pol::vpn_list_contains(list, 0);
         return pol::exec_index_bytes(list->exec_index);
     }},
    {"tloc", kEntries,
     [](t_pol_ctx *c, uint32_t i) {
         t_tloc_id t = tloc_of(i);
         pol_tloc_list_add_entry(c, kName, &t, i);
     },
     [](t_pol_ctx *c, uint32_t i) {
         t_tloc_id t = tloc_of(i);
         return pol_tloc_list_find_entry(c, kName, &t) != nullptr;
     },
     [](t_pol_ctx *c, uint32_t i) {
         t_tloc_id t = tloc_of(i);
         pol_tloc_list_del_entry(c, kName, &t);
     },
     sizeof(t_tloc_entry)},
    {"color", kColorEntries, [](t_pol_ctx *c, uint32_t i) { pol_color_list_add_entry(c, kName, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_color_list_find_entry(c, kName, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_color_list_del_entry(c, kName, i); }, sizeof(t_color_entry)},
    {"prefix", kEntries,
     [](t_pol_ctx *c, uint32_t i) {
         t_pfx_entry_param p = pfx_of(i);
         pol_pfx_list_entry_add(c, &kPfxKey, &p);
     },
     [](t_pol_ctx *c, uint32_t i) {
         t_pfx_entry_param p = pfx_of(i);
         return pol_pfx_list_find_entry(c, &kPfxKey, &p, nullptr) != nullptr;
     },
     [](t_pol_ctx *c, uint32_t i) {
         t_pfx_entry_param p = pfx_of(i);
         pol_pfx_list_del_entry(c, &kPfxKey, &p);
     },
     sizeof(t_pfx_entry),
     [](t_pol_ctx *c) {
         t_pfx_list *list = pol_pfx_list_find(c, &kPfxKey);
         pol::pfx_list_matches(list, pfx_of(0).prefix);
         return pol::exec_index_bytes(list->exec_index);
     }},
    {"community", kEntries,
     [](t_pol_ctx *c, uint32_t i) {
         pol_community_list_add_entry(c, kName, community_of(i).c_str(), COMM_LIST_TYPE_STANDARD);
     },
     [](t_pol_ctx *c, uint32_t i) {
         return pol_community_list_find_entry(c, kName, community_of(i).c_str(),
                                              COMM_LIST_TYPE_STANDARD) != nullptr;
     },
     [](t_pol_ctx *c, uint32_t i) {
         pol_community_list_del_entry(c, kName, community_of(i).c_str(), COMM_LIST_TYPE_STANDARD);
     },
     sizeof(t_community_entry), [](t_pol_ctx *c) { return community_index_bytes(c, COMM_LIST_TYPE_STANDARD); }},
    {"expanded-community", kEntries,
     [](t_pol_ctx *c, uint32_t i) {
         pol_community_list_add_entry(c, kName, pattern_of(i).c_str(), COMM_LIST_TYPE_EXPANDED);
     },
     [](t_pol_ctx *c, uint32_t i) {
         return pol_community_list_find_entry(c, kName, pattern_of(i).c_str(),
                                              COMM_LIST_TYPE_EXPANDED) != nullptr;
     },
     [](t_pol_ctx *c, uint32_t i) {
         pol_community_list_del_entry(c, kName, pattern_of(i).c_str(), COMM_LIST_TYPE_EXPANDED);
     },
     sizeof(t_community_entry), no_index, compile_pattern},
};

struct result {
    double lib_rate = 0;      // entries/s over add + find + delete
    double lib_seconds = 0;   // whole build, lookup and delete
    double ref_rate = 0;      // entries/s of the walking reference at full size
    double map_rate = 0;      // entries/s of a sorted map of the same keys
    double hash_rate = 0;     // entries/s of a hash set of the same keys
    double index_bytes = 0;   // per entry
};
std::map<std::string, result> g_results;

// The library: all three phases over every entry, timed whole.
void run_library(benchmark::State &state, const family &fam)
{
    for (auto _ : state) {
        t_pol_init_params params{};
        pol_init(&params);
        t_pol_ctx *ctx = g_pol_ctx_p;
        auto start = clock_type::now();
        for (uint32_t i = 0; i < fam.entries; i++) {
            fam.add(ctx, i);
        }
        double build_secs = seconds_since(start);
        g_results[fam.name].index_bytes = static_cast<double>(fam.index_bytes(ctx)) / fam.entries;
        start = clock_type::now() - std::chrono::duration_cast<clock_type::duration>(
                                        std::chrono::duration<double>(build_secs));
        uint32_t found = 0;
        for (uint32_t i = 0; i < fam.entries; i++) {
            found += fam.find(ctx, i) ? 1 : 0;
        }
        for (uint32_t i = 0; i < fam.entries; i++) {
            fam.del(ctx, i);
        }
        double secs = seconds_since(start);
        state.SetIterationTime(secs);
        if (found != fam.entries) {
            state.SkipWithError("an added entry was not found");
        }
        pol_destroy();
        result &r = g_results[fam.name];
        r.lib_seconds = secs;
        r.lib_rate = 3.0 * fam.entries / secs;
        state.counters["entries_per_s"] = r.lib_rate;
    }
}

// The reference: a queue of keys at full size; each add walks the queue for
// a duplicate, each find and delete walks to the key.
void run_reference(benchmark::State &state, const family &fam)
{
    for (auto _ : state) {
        std::list<uint32_t> queue;
        for (uint32_t i = 0; i < fam.entries; i++) {
            queue.push_back(i);
        }
        std::vector<uint32_t> sample;
        for (uint32_t k = 0; k < kReferenceSample; k++) {
            sample.push_back(static_cast<uint32_t>((k * 2654435761u) % fam.entries));
        }
        auto start = clock_type::now();
        uint32_t hits = 0;
        for (uint32_t key : sample) {  // add of a new key: full walk, append
            uint32_t fresh = fam.entries + key;
            if (std::find(queue.begin(), queue.end(), fresh) == queue.end()) {
                fam.entry_work(fresh);
                queue.push_back(fresh);
            }
        }
        for (uint32_t key : sample) {  // find
            hits += std::find(queue.begin(), queue.end(), key) != queue.end() ? 1 : 0;
        }
        for (uint32_t key : sample) {  // delete
            auto it = std::find(queue.begin(), queue.end(), fam.entries + key);
            if (it != queue.end()) {
                queue.erase(it);
            }
        }
        double secs = seconds_since(start);
        benchmark::DoNotOptimize(hits);
        state.SetIterationTime(secs);
        result &r = g_results[fam.name];
        r.ref_rate = 3.0 * sample.size() / secs;
        state.counters["entries_per_s"] = r.ref_rate;
    }
}

// The same keys through a standard container: insert, find, erase.
template <typename Container>
double container_rate(uint32_t entries)
{
    Container c;
    auto start = clock_type::now();
    for (uint32_t i = 0; i < entries; i++) {
        if constexpr (std::is_same_v<Container, std::unordered_set<uint32_t>>) {
            c.insert(i);
        } else {
            c.emplace(i, i);
        }
    }
    uint32_t hits = 0;
    for (uint32_t i = 0; i < entries; i++) {
        hits += c.find(i) != c.end() ? 1 : 0;
    }
    for (uint32_t i = 0; i < entries; i++) {
        c.erase(i);
    }
    double secs = seconds_since(start);
    benchmark::DoNotOptimize(hits);
    return 3.0 * entries / secs;
}

void run_containers(benchmark::State &state, const family &fam)
{
    for (auto _ : state) {
        auto start = clock_type::now();
        result &r = g_results[fam.name];
        r.map_rate = container_rate<std::map<uint32_t, uint32_t>>(fam.entries);
        r.hash_rate = container_rate<std::unordered_set<uint32_t>>(fam.entries);
        state.SetIterationTime(seconds_since(start));
    }
}

void register_all()
{
    for (const family &fam : kFamilies) {
        char lib_name[96];
        char ref_name[96];
        std::snprintf(lib_name, sizeof(lib_name), "lists/%s/library", fam.name);
        std::snprintf(ref_name, sizeof(ref_name), "lists/%s/reference", fam.name);
        benchmark::RegisterBenchmark(lib_name, [&fam](benchmark::State &s) { run_library(s, fam); })
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(ref_name,
                                     [&fam](benchmark::State &s) { run_reference(s, fam); })
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
        char std_name[96];
        std::snprintf(std_name, sizeof(std_name), "lists/%s/containers", fam.name);
        benchmark::RegisterBenchmark(std_name, [&fam](benchmark::State &s) { run_containers(s, fam); })
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
}

// Prints the summary; false when a target is missed.
bool print_summary()
{
    bool ok = true;
    std::printf("\n%-19s %8s %11s %11s %7s %8s %11s %11s %8s %9s  %s\n", "family", "entries", "library/s",
                "reference/s", "ratio", "total s", "map/s", "hash/s", "entry B", "index B", "targets (>=100x, <1 s)");
    for (const family &fam : kFamilies) {
        const result &r = g_results[fam.name];
        double ratio = r.ref_rate > 0 ? r.lib_rate / r.ref_rate : 0;
        bool met = ratio >= 100.0 && r.lib_seconds < 1.0;
        ok = ok && met;
        std::printf("%-19s %8u %11.0f %11.0f %6.0fx %8.3f %11.0f %11.0f %8zu %9.1f  %s\n", fam.name, fam.entries,
                    r.lib_rate, r.ref_rate, ratio, r.lib_seconds, r.map_rate, r.hash_rate, fam.entry_bytes,
                    r.index_bytes, met ? "met" : "MISSED");
    }
    const double prefix_index = g_results["prefix"].index_bytes;
    const bool small = prefix_index > 0 && prefix_index <= 64.0;
    ok = ok && small;
    std::printf("prefix index bytes per entry <= 64: %.1f %s\n", prefix_index, small ? "met" : "MISSED");
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
