// What the match-time indexes share: the record every index starts with,
// the one zero-filled allocation that holds an index and the arrays it
// points into, the rebuild of a stale index on query, and the hash mixing
// of the open-addressing tables. Internal to the match module.
#ifndef POLICY_POL_MATCH_INTERNAL_HPP
#define POLICY_POL_MATCH_INTERNAL_HPP

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

#include "pol_match.hpp"

// What every index starts with.
struct _t_pol_list_exec_index {
    uint64_t generation;  // of the list (or block) it was built from
    e_pol_mem mem;        // its owner's category, under which it is counted
    std::size_t bytes;    // the size of its block
    // Gives back what the index holds outside its own block; null when
    // there is nothing.
    void (*release)(_t_pol_list_exec_index *index);
};

// A policy's index is an index like a list's, kept in its own slot type.
struct _t_pol_block_exec_index : _t_pol_list_exec_index {};

namespace pol::match_detail {

/* ---- one allocation per index ---- */

// Byte offsets of the arrays that follow an index record in its block.
struct block_layout {
    std::size_t size;

    template <typename T>
    std::size_t place(std::size_t count)
    {
        std::size_t at = (size + alignof(T) - 1) / alignof(T) * alignof(T);
        size = at + count * sizeof(T);
        return at;
    }

    // An array whose elements must sit at a multiple of alignof(T) in
    // memory, more than the allocation promises: room to shift it there
    // (aligned_array_at finds it).
    template <typename T>
    std::size_t place_aligned(std::size_t count)
    {
        return place<char>(count == 0 ? 0 : count * sizeof(T) + alignof(T) - 1);
    }
};

template <typename T>
T *array_at(void *block, std::size_t offset)
{
    return reinterpret_cast<T *>(static_cast<char *>(block) + offset);
}

template <typename T>
T *aligned_array_at(void *block, std::size_t offset)
{
    const auto at = reinterpret_cast<std::uintptr_t>(array_at<char>(block, offset));
    return reinterpret_cast<T *>((at + alignof(T) - 1) / alignof(T) * alignof(T));
}

// A zero-filled block of the given category starting with an Index
// record; null when the allocation fails. Blocks are released with
// pol_free alone (after the index's release hook), so the records hold
// nothing to destroy.
template <typename Index>
Index *alloc_index(const block_layout &layout, e_pol_mem mem)
{
    static_assert(std::is_trivially_destructible_v<Index>);
    void *block = pol_calloc(1, layout.size, mem);
    if (block == nullptr) {
        return nullptr;
    }
    auto *index = new (block) Index();
    index->mem = mem;
    index->bytes = layout.size;
    return index;
}

template <typename Index>
void release_index(Index **index_pp)
{
    if (*index_pp != nullptr) {
        if ((*index_pp)->release != nullptr) {
            (*index_pp)->release(*index_pp);
        }
        pol_free(*index_pp, (*index_pp)->mem);
        *index_pp = nullptr;
    }
}

// The list's index when it is as new as the list; otherwise the old one
// goes and build(list) makes another, which may fail (null): the caller
// then walks the entries and the next query tries again.
template <typename Index, typename List, typename Build>
const Index *current_index(List *list, Build &&build)
{
    auto *index = static_cast<Index *>(list->exec_index);
    if (index != nullptr && index->generation == list->generation) {
        return index;
    }
    free_exec_index(&list->exec_index);
    index = build(list);
    if (index != nullptr) {
        index->generation = list->generation;
        list->exec_index = index;
    }
    return index;
}

/* ---- hashing for the open-addressing tables ---- */

// splitmix64 finaliser: every input bit reaches the high bits a table
// index is taken from.
inline uint64_t mix64(uint64_t x)
{
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// A hash spread over [0, n) without a power-of-two table size.
inline std::size_t reduce(uint64_t hash, std::size_t n)
{
    return static_cast<std::size_t>((static_cast<unsigned __int128>(hash) * n) >> 64);
}

}  // namespace pol::match_detail

#endif  // POLICY_POL_MATCH_INTERNAL_HPP
