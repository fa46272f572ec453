// Named-list throughput: for each family, build one list of N distinct
// entries through its add operation, look every entry up, delete them all.
// The reference is a plain list that walks its queue for the duplicate
// check, the lookup and the delete, as a list without an index must; at
// N = 100,000 its quadratic total would take minutes, so it is timed on a
// sample of operations against a full-size queue, which gives its per-
// operation rate at that size. Work an add needs whatever the lookup
// structure (compiling a pattern) is charged to both. Both run in this process; the summary
// prints entries/s, the ratio and whether the targets hold.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <regex.h>

#include "pol_internal.h"

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

struct family {
    const char *name;
    uint32_t entries;
    void (*add)(t_pol_ctx *, uint32_t);
    bool (*find)(t_pol_ctx *, uint32_t);
    void (*del)(t_pol_ctx *, uint32_t);
    void (*entry_work)(uint32_t) = no_entry_work;
};

const family kFamilies[] = {
    {"site", kEntries, [](t_pol_ctx *c, uint32_t i) { pol_site_list_add_entry(c, kName, i, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_site_list_find_entry(c, kName, i, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_site_list_del_entry(c, kName, i, i); }},
    {"vpn", kEntries, [](t_pol_ctx *c, uint32_t i) { pol_vpn_list_add_entry(c, kName, i, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_vpn_list_find_entry(c, kName, i, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_vpn_list_del_entry(c, kName, i, i); }},
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
     }},
    {"color", kColorEntries, [](t_pol_ctx *c, uint32_t i) { pol_color_list_add_entry(c, kName, i); },
     [](t_pol_ctx *c, uint32_t i) { return pol_color_list_find_entry(c, kName, i) != nullptr; },
     [](t_pol_ctx *c, uint32_t i) { pol_color_list_del_entry(c, kName, i); }},
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
     }},
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
     compile_pattern},
};

struct result {
    double lib_rate = 0;      // entries/s over add + find + delete
    double lib_seconds = 0;   // whole build, lookup and delete
    double ref_rate = 0;      // entries/s of the walking reference at full size
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
    }
}

// Prints the summary; false when a target is missed.
bool print_summary()
{
    bool ok = true;
    std::printf("\n%-20s %10s %14s %14s %9s %10s  %s\n", "family", "entries", "library/s",
                "reference/s", "ratio", "total s", "targets (>=100x, <1 s)");
    for (const family &fam : kFamilies) {
        const result &r = g_results[fam.name];
        double ratio = r.ref_rate > 0 ? r.lib_rate / r.ref_rate : 0;
        bool met = ratio >= 100.0 && r.lib_seconds < 1.0;
        ok = ok && met;
        std::printf("%-20s %10u %14.0f %14.0f %8.0fx %10.3f  %s\n", fam.name, fam.entries,
                    r.lib_rate, r.ref_rate, ratio, r.lib_seconds, met ? "met" : "MISSED");
    }
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
