// Match-time indexes of the named lists. Route execution asks "does some
// entry of this list match the route"; instead of walking the entries it
// consults an index built from them. A list bumps its generation on every
// entry change; the index remembers the generation it was built from and
// is rebuilt on the first query after a change.
#ifndef POLICY_POL_EXEC_INDEX_HPP
#define POLICY_POL_EXEC_INDEX_HPP

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "pol_internal.h"

struct _t_pol_list_exec_index {
    uint64_t generation = 0;
    virtual ~_t_pol_list_exec_index() = default;
};

namespace pol {

inline void free_exec_index(t_pol_list_exec_index **index_pp)
{
    delete *index_pp;
    *index_pp = nullptr;
}

// The list's index of type Index, (re)built by build(Index&) when missing
// or older than the list.
template <typename Index, typename List, typename Build>
const Index &current_exec_index(List *list, Build &&build)
{
    auto *index = static_cast<Index *>(list->exec_index);
    if (index == nullptr) {
        index = new Index();
        list->exec_index = index;
        index->generation = list->generation - 1;
    }
    if (index->generation != list->generation) {
        *index = Index();
        build(*index);
        index->generation = list->generation;
    }
    return *index;
}

// A set of closed ranges, sorted and merged, answering membership in
// O(log n). Ranges whose lower bound exceeds the upper hold nothing.
struct interval_index : _t_pol_list_exec_index {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;

    void add(uint64_t lo, uint64_t hi)
    {
        if (lo <= hi) {
            ranges.emplace_back(lo, hi);
        }
    }

    // Sort and merge overlapping or adjacent ranges.
    void finish()
    {
        std::sort(ranges.begin(), ranges.end());
        std::size_t out = 0;
        for (const auto &r : ranges) {
            if (out > 0 && touches(ranges[out - 1], r)) {
                ranges[out - 1].second = std::max(ranges[out - 1].second, r.second);
            } else {
                ranges[out++] = r;
            }
        }
        ranges.resize(out);
    }

    static bool touches(const std::pair<uint64_t, uint64_t> &prev,
                        const std::pair<uint64_t, uint64_t> &r)
    {
        return prev.second == UINT64_MAX || r.first <= prev.second + 1;
    }

    bool contains(uint64_t v) const
    {
        auto it = std::upper_bound(ranges.begin(), ranges.end(), std::make_pair(v, UINT64_MAX));
        return it != ranges.begin() && std::prev(it)->second >= v;
    }
};

}  // namespace pol

#endif  // POLICY_POL_EXEC_INDEX_HPP
