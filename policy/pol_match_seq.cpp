// The sequence candidates of a policy: the sequences a route may match,
// by route kind and, in a policy with many prefix conditions, only those
// whose prefix list admits the route, found with one probe of a prefix
// group table shared by all the policy's lists. The index is one
// zero-filled allocation under the policy's category, rebuilt when the
// policy or one of its lists changes.
#include <algorithm>
#include <functional>

#include <zen/zen_util.h>

#include "pol_list.hpp"
#include "pol_match.hpp"
#include "pol_match_internal.hpp"
#include "pol_match_prefix.hpp"

namespace pol {

using namespace match_detail;

namespace {

/* ---- sequence candidates of a policy ---- */

// A route kind's index in the per-kind arrays (safi 1 to 3), or -1.
int kind_slot(uint8_t safi)
{
    return safi >= POL_SAFI_VROUTE && safi <= POL_SAFI_SERVICE ? safi - POL_SAFI_VROUTE : -1;
}

constexpr int kKinds = 3;

int kind_slot_of(const t_pol_entry *e)
{
    switch (e->match_entry.match_type) {
    case POL_MATCH_VROUTE:
        return kind_slot(POL_SAFI_VROUTE);
    case POL_MATCH_TLOC:
        return kind_slot(POL_SAFI_TLOC);
    case POL_MATCH_SERVICE:
        return kind_slot(POL_SAFI_SERVICE);
    default:
        return -1;
    }
}

bool has_prefix_condition(const t_pol_entry *e)
{
    return (e->entry_match_flags & POL_MATCH_FLAG_PFX_LIST) != 0;
}

// A sequence some route can match: a known kind, and a prefix condition
// only on virtual-route sequences and only with its list.
bool can_match(const t_pol_entry *e)
{
    const int kind = kind_slot_of(e);
    if (kind < 0) {
        return false;
    }
    return !has_prefix_condition(e) ||
           (kind == kind_slot(POL_SAFI_VROUTE) && e->match_entry.match_pfx_list_p != nullptr);
}

template <typename F>
void for_each_sequence(t_pol_block *block, F &&fn)
{
    tree<t_pol_entry> sequences(&block->pol_entries);
    for (t_pol_entry *e = sequences.first(); e != nullptr; e = sequences.next(e)) {
        fn(e);
    }
}

// One prefix list named by the policy's sequences, with the generation
// the index was built from and the run of its sequences in postings.
struct named_list {
    t_pfx_list *list;
    uint64_t generation;
    uint32_t first;
    uint32_t count;
    uint8_t pfx_af;
};

// (list, position) of a virtual-route sequence with a prefix condition,
// sorted to group the sequences of each list.
struct list_use {
    t_pfx_list *list;
    uint32_t position;
    bool operator<(const list_use &o) const
    {
        return list != o.list ? std::less<t_pfx_list *>()(list, o.list) : position < o.position;
    }
};

// The prefix conditions of all sequences in one table whose rules carry
// their list's number: a route probes it once and learns every list that
// admits it; the sequences to visit are those without a prefix condition
// and those of the admitting lists, in sequence order. Positions number
// the sequences some route can match, in sequence order.
struct sequence_index : _t_pol_block_exec_index {
    uint64_t list_changes;  // g_pol_list_changes when the lists were last seen current
    prefix_table table;
    named_list *lists;
    uint32_t n_lists;
    uint64_t known;  // the prefix bit when candidates are chosen by their lists
    uint32_t *postings;      // positions, grouped by list, ascending in each
    t_pol_entry **by_position;
    t_pol_entry *last;  // the block's last sequence, whatever it matches
    t_pol_entry **always[kKinds];  // without a prefix condition, by kind, in order
    uint32_t n_always[kKinds];
    uint32_t *always_positions;   // those of virtual routes
    // Per-route scratch.
    uint64_t *admitted;  // a bit per list
    uint32_t *admitting;
    uint32_t *chosen;
    t_pol_entry **out;

    // Built from the block as it is and from its lists as they are. While
    // no list of the process changed, the lists need no look.
    bool current(const t_pol_block *block)
    {
        if (generation != block->generation) {
            return false;
        }
        if (list_changes == g_pol_list_changes) {
            return true;
        }
        for (uint32_t l = 0; l < n_lists; l++) {
            if (lists[l].list->generation != lists[l].generation) {
                return false;
            }
        }
        list_changes = g_pol_list_changes;
        return true;
    }

    // The lists that admit the route, each once.
    uint32_t admitting_lists(const t_ipprefix &route)
    {
        uint32_t n = 0;
        table.find(route, [&](const length_rule &rule) {
            uint64_t &word = admitted[rule.tag / 64];
            const uint64_t bit = 1ULL << (rule.tag % 64);
            if ((word & bit) == 0 && family_admits(lists[rule.tag].pfx_af, route)) {
                word |= bit;
                admitting[n++] = rule.tag;
            }
            return false;
        });
        for (uint32_t i = 0; i < n; i++) {
            admitted[admitting[i] / 64] = 0;
        }
        return n;
    }

    candidates of_virtual_route(const t_ipprefix &route)
    {
        const int kind = kind_slot(POL_SAFI_VROUTE);
        const uint32_t lists_hit = admitting_lists(route);
        if (lists_hit == 0) {
            return {always[kind], n_always[kind], nullptr, 0};
        }
        uint32_t n = n_always[kind];
        std::copy(always_positions, always_positions + n, chosen);
        for (uint32_t i = 0; i < lists_hit; i++) {
            const named_list &l = lists[admitting[i]];
            n = static_cast<uint32_t>(std::copy(postings + l.first, postings + l.first + l.count, chosen + n) -
                                      chosen);
        }
        std::sort(chosen, chosen + n);
        for (uint32_t i = 0; i < n; i++) {
            out[i] = by_position[chosen[i]];
        }
        return {out, n, nullptr, 0};
    }
};

struct sequence_counts {
    uint32_t positions = 0;
    uint32_t always[kKinds] = {};
    uint32_t uses = 0;
};

// by_kind_only: the prefix conditions are not indexed but tested with the
// rest; every sequence a route can match is then visited by kind.
sequence_counts count_sequences(t_pol_block *block, bool by_kind_only)
{
    sequence_counts n;
    for_each_sequence(block, [&](t_pol_entry *e) {
        if (!can_match(e)) {
            return;
        }
        n.positions++;
        if (has_prefix_condition(e) && !by_kind_only) {
            n.uses++;
        } else {
            n.always[kind_slot_of(e)]++;
        }
    });
    return n;
}

// The distinct lists of the sorted uses, with their runs of postings.
uint32_t distinct_lists(const list_use *uses, uint32_t n)
{
    uint32_t lists = 0;
    for (uint32_t i = 0; i < n; i++) {
        lists += i == 0 || uses[i].list != uses[i - 1].list ? 1 : 0;
    }
    return lists;
}

// A list's own index that its list outdated goes when the policy's index
// is rebuilt over the list: no answer ever comes from it again.
void drop_if_stale(t_pfx_list *list)
{
    if (list->exec_index != nullptr && list->exec_index->generation != list->generation) {
        free_exec_index(&list->exec_index);
    }
}

void fill_sequences(sequence_index *index, t_pol_block *block, const list_use *uses, uint32_t n_uses)
{
    uint32_t position = 0;
    uint32_t filled[kKinds] = {};
    for_each_sequence(block, [&](t_pol_entry *e) {
        index->last = e;
        if (!can_match(e)) {
            return;
        }
        if (!has_prefix_condition(e) || n_uses == 0) {
            const int kind = kind_slot_of(e);
            if (kind == kind_slot(POL_SAFI_VROUTE)) {
                index->always_positions[filled[kind]] = position;
            }
            index->always[kind][filled[kind]++] = e;
        }
        index->by_position[position++] = e;
    });
    for (uint32_t i = 0; i < n_uses; i++) {
        if (i == 0 || uses[i].list != uses[i - 1].list) {
            drop_if_stale(uses[i].list);
            named_list &l = index->lists[index->n_lists++];
            l = {uses[i].list, uses[i].list->generation, i, 0, static_cast<uint8_t>(uses[i].list->pfx_af)};
        }
        index->lists[index->n_lists - 1].count++;
        index->postings[i] = uses[i].position;
    }
}

sequence_index *build_sequence_index(t_pol_block *block, const sequence_counts &n, const list_use *uses,
                                     uint32_t n_lists)
{
    auto source = [&](auto &&fn) {
        for (uint32_t i = 0, l = 0; i < n.uses; i++) {
            if (i == 0 || uses[i].list != uses[i - 1].list) {
                for_each_pfx_entry(uses[i].list, [&](const t_pfx_entry *e) { fn(e, l); });
                l++;
            }
        }
    };
    const prefix_table::sizes sizes = prefix_table::measure(source);
    block_layout layout{sizeof(sequence_index)};
    const prefix_table::offsets table_at = prefix_table::place_arrays(layout, sizes);
    const std::size_t lists_at = layout.place<named_list>(n_lists);
    const std::size_t postings_at = layout.place<uint32_t>(n.uses);
    const std::size_t by_position_at = layout.place<t_pol_entry *>(n.positions);
    std::size_t always_at[kKinds];
    for (int k = 0; k < kKinds; k++) {
        always_at[k] = layout.place<t_pol_entry *>(n.always[k]);
    }
    const std::size_t always_positions_at = layout.place<uint32_t>(n.always[kind_slot(POL_SAFI_VROUTE)]);
    const std::size_t admitted_at = layout.place<uint64_t>((n_lists + 63) / 64);
    const std::size_t admitting_at = layout.place<uint32_t>(n_lists);
    const std::size_t chosen_at = layout.place<uint32_t>(n.positions);
    const std::size_t out_at = layout.place<t_pol_entry *>(n.positions);
    sequence_index *index = alloc_index<sequence_index>(layout, POL_MEM_BLOCK);
    if (index == nullptr) {
        return nullptr;
    }
    index->lists = array_at<named_list>(index, lists_at);
    index->postings = array_at<uint32_t>(index, postings_at);
    index->by_position = array_at<t_pol_entry *>(index, by_position_at);
    for (int k = 0; k < kKinds; k++) {
        index->always[k] = array_at<t_pol_entry *>(index, always_at[k]);
        index->n_always[k] = n.always[k];
    }
    index->always_positions = array_at<uint32_t>(index, always_positions_at);
    index->admitted = array_at<uint64_t>(index, admitted_at);
    index->admitting = array_at<uint32_t>(index, admitting_at);
    index->chosen = array_at<uint32_t>(index, chosen_at);
    index->out = array_at<t_pol_entry *>(index, out_at);
    fill_sequences(index, block, uses, n.uses);
    index->table.fill(index, table_at, sizes, source);
    return index;
}

// Counts, then sorts the prefix conditions by list in a scratch array of
// the policy's category, then builds; null when either allocation fails.
// Below this many prefix conditions a policy's sequences are only sorted
// by route kind: probing each list of a few costs less than probing the
// shared table and ordering its answer.
constexpr uint32_t kIndexedPrefixConditions = 8;

sequence_index *build_sequence_index(t_pol_block *block)
{
    const bool by_kind_only = count_sequences(block, false).uses < kIndexedPrefixConditions;
    const sequence_counts n = count_sequences(block, by_kind_only);
    if (n.positions == 0) {
        return nullptr;
    }
    auto *uses = static_cast<list_use *>(pol_calloc(n.uses == 0 ? 1 : n.uses, sizeof(list_use), POL_MEM_BLOCK));
    if (uses == nullptr) {
        return nullptr;
    }
    uint32_t position = 0, used = 0;
    for_each_sequence(block, [&](t_pol_entry *e) {
        if (!can_match(e)) {
            return;
        }
        if (has_prefix_condition(e) && !by_kind_only) {
            uses[used++] = {e->match_entry.match_pfx_list_p, position};
        }
        position++;
    });
    std::sort(uses, uses + n.uses);
    sequence_index *index = build_sequence_index(block, n, uses, distinct_lists(uses, n.uses));
    pol_free(uses, POL_MEM_BLOCK);
    if (index != nullptr) {
        index->generation = block->generation;
        index->list_changes = g_pol_list_changes;
        index->known = by_kind_only ? 0 : POL_MATCH_FLAG_PFX_LIST;
    }
    return index;
}

}  // namespace

bool sequence_candidates(t_pol_block *block, const t_pol_exec_params *params, candidates *out)
{
    const int kind = kind_slot(params->safi);
    if (kind < 0) {
        return false;
    }
    auto *index = static_cast<sequence_index *>(block->exec_index);
    if (index == nullptr || !index->current(block)) {
        release_index(&block->exec_index);
        index = build_sequence_index(block);
        block->exec_index = index;
        if (index == nullptr) {
            return false;
        }
    }
    if (kind != kind_slot(POL_SAFI_VROUTE)) {
        *out = {index->always[kind], index->n_always[kind], nullptr, 0};
    } else {
        *out = index->of_virtual_route(params->u.vroute_info.prefix);
    }
    out->last = index->last;
    out->known = index->known;
    return true;
}

void block_changed(t_pol_block *block)
{
    if (block != nullptr) {
        block->generation++;
        release_index(&block->exec_index);
    }
}

}  // namespace pol
