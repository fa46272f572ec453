// Matching a route against the prefix, site, VPN and colour lists, and
// the match-time indexes behind it: the prefix group table of a prefix
// list, the interval sets of site and VPN lists, the colour set of a
// colour list. Each index is one zero-filled allocation under its owner's
// category: a record followed by the arrays it points into, sized before
// anything is filled, so building never grows anything and a failed
// allocation is the only failure. Community lists are matched in
// pol_match_community.cpp, the sequence candidates of a policy chosen in
// pol_match_seq.cpp.
#include "pol_match.hpp"

#include <algorithm>
#include <cstring>

#include <zen/zen_util.h>

#include "pol_list.hpp"
#include "pol_match_internal.hpp"
#include "pol_match_prefix.hpp"

uint64_t g_pol_list_changes = 0;

namespace pol {

using namespace match_detail;

namespace {

/* ---- interval sets: site and VPN lists ---- */

template <typename F>
void for_each_range(const t_site_list *list, F &&fn)
{
    for (const t_site_entry *e = TAILQ_FIRST(&list->site_entry_head); e; e = TAILQ_NEXT(e, site_entry)) {
        fn(uint64_t{e->min_site_id}, uint64_t{e->max_site_id});
    }
}

template <typename F>
void for_each_range(const t_vpn_list *list, F &&fn)
{
    for (const t_pol_vpn_entry *e = TAILQ_FIRST(&list->vpn_entry_head); e; e = TAILQ_NEXT(e, vpn_entry)) {
        fn(e->min_vpn_id, e->max_vpn_id);
    }
}

struct id_range {
    uint64_t lo;
    uint64_t hi;
};

// A set of closed ranges, sorted and merged, answering membership in
// O(log n). Ranges whose lower bound exceeds the upper hold nothing.
struct interval_set : _t_pol_list_exec_index {
    id_range *ranges;  // room for every entry of the list
    std::size_t count;

    void add(uint64_t lo, uint64_t hi)
    {
        if (lo <= hi) {
            ranges[count++] = {lo, hi};
        }
    }

    // Sort and merge overlapping or adjacent ranges.
    void finish()
    {
        std::sort(ranges, ranges + count, [](const id_range &a, const id_range &b) {
            return a.lo != b.lo ? a.lo < b.lo : a.hi < b.hi;
        });
        std::size_t out = 0;
        for (std::size_t i = 0; i < count; i++) {
            const id_range r = ranges[i];
            if (out > 0 && (ranges[out - 1].hi == UINT64_MAX || r.lo <= ranges[out - 1].hi + 1)) {
                ranges[out - 1].hi = std::max(ranges[out - 1].hi, r.hi);
            } else {
                ranges[out++] = r;
            }
        }
        count = out;
    }

    bool contains(uint64_t v) const
    {
        const id_range *after = std::upper_bound(ranges, ranges + count, v,
                                                 [](uint64_t x, const id_range &r) { return x < r.lo; });
        return after != ranges && after[-1].hi >= v;
    }
};

template <typename List>
interval_set *build_interval_set(const List *list, e_pol_mem mem)
{
    std::size_t entries = 0;
    for_each_range(list, [&](uint64_t, uint64_t) { entries++; });
    block_layout layout{sizeof(interval_set)};
    const std::size_t ranges_at = layout.place<id_range>(entries);
    interval_set *set = alloc_index<interval_set>(layout, mem);
    if (set == nullptr) {
        return nullptr;
    }
    set->ranges = array_at<id_range>(set, ranges_at);
    for_each_range(list, [&](uint64_t lo, uint64_t hi) { set->add(lo, hi); });
    set->finish();
    return set;
}

// Some range of the list holds id, bounds inclusive.
template <typename List>
bool list_contains(List *list, uint64_t id, e_pol_mem mem)
{
    if (list == nullptr) {
        return false;
    }
    auto build = [mem](const List *l) { return build_interval_set(l, mem); };
    if (const interval_set *set = current_index<interval_set>(list, build)) {
        return set->contains(id);
    }
    bool found = false;
    for_each_range(list, [&](uint64_t lo, uint64_t hi) { found = found || (lo <= id && id <= hi); });
    return found;
}

/* ---- colour sets ---- */

// The colours of a colour list that a TLOC can carry (eight bits), one bit
// each.
struct color_set : _t_pol_list_exec_index {
    uint64_t bits[4];

    bool contains(uint8_t color) const { return (bits[color / 64] >> (color % 64) & 1) != 0; }
};

color_set *build_color_set(const t_color_list *list)
{
    color_set *set = alloc_index<color_set>(block_layout{sizeof(color_set)}, POL_MEM_LIST_COLOR);
    if (set == nullptr) {
        return nullptr;
    }
    for (const t_color_entry *e = TAILQ_FIRST(&list->color_entry_head); e; e = TAILQ_NEXT(e, color_entry)) {
        if (e->color <= UINT8_MAX) {
            set->bits[e->color / 64] |= 1ULL << (e->color % 64);
        }
    }
    return set;
}

/* ---- the prefix list index ---- */

struct prefix_index : _t_pol_list_exec_index {
    prefix_table table;

    bool matches(const t_ipprefix &route) const
    {
        return table.find(route, [](const length_rule &) { return true; });
    }
};

prefix_index *build_prefix_index(const t_pfx_list *list)
{
    auto source = [list](auto &&fn) { for_each_pfx_entry(list, [&](const t_pfx_entry *e) { fn(e, 0); }); };
    const prefix_table::sizes n = prefix_table::measure(source);
    block_layout layout{sizeof(prefix_index)};
    const prefix_table::offsets at = prefix_table::place_arrays(layout, n);
    prefix_index *index = alloc_index<prefix_index>(layout, POL_MEM_LIST_PREFIX);
    if (index != nullptr) {
        index->table.fill(index, at, n, source);
    }
    return index;
}

}  // namespace

e_pfx_op pfx_op_of_bounds(uint8_t ge, uint8_t le)
{
    if (ge != 0 && le != 0) {
        return PFX_OP_RANGE;
    }
    if (le != 0) {
        return PFX_OP_LE;
    }
    return ge != 0 ? PFX_OP_GE : PFX_OP_EQ;
}

bool pfx_entry_matches(const t_pfx_entry *entry, const t_ipprefix &route)
{
    if (!is_catch_all(entry) && !ipprefix_is_contained(&route, &entry->prefix)) {
        return false;
    }
    return length_rule::of(entry).holds(route.prefixlen);
}

bool pfx_list_matches(t_pfx_list *list, const t_ipprefix &route)
{
    if (list == nullptr || !family_admits(list->pfx_af, route)) {
        return false;
    }
    if (const prefix_index *index = current_index<prefix_index>(list, build_prefix_index)) {
        return index->matches(route);
    }
    bool found = false;
    for_each_pfx_entry(list, [&](const t_pfx_entry *e) { found = found || pfx_entry_matches(e, route); });
    return found;
}

bool vpn_list_contains(t_vpn_list *list, uint64_t vpn_id)
{
    return list_contains(list, vpn_id, POL_MEM_LIST_VPN);
}

bool site_list_contains(t_site_list *list, uint32_t site_id)
{
    return list_contains(list, site_id, POL_MEM_LIST_SITE);
}

bool color_list_contains(t_color_list *list, uint8_t color)
{
    if (list == nullptr) {
        return false;
    }
    if (const color_set *set = current_index<color_set>(list, build_color_set)) {
        return set->contains(color);
    }
    return pol_color_list_lookup(list, color) != nullptr;
}

void free_exec_index(t_pol_list_exec_index **index_pp)
{
    release_index(index_pp);
}

std::size_t exec_index_bytes(const t_pol_list_exec_index *index)
{
    return index != nullptr ? index->bytes : 0;
}

}  // namespace pol
