// Small C++ helpers shared by the library's sources: typed access to the
// intrusive tree, bounded name keys, and three-way comparison folding.
#ifndef POLICY_POL_UTIL_HPP
#define POLICY_POL_UTIL_HPP

#include <bsd/string.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "pol_internal.h"

namespace pol {

// Fold any signed comparison result to -1, 0 or +1.
template <typename T>
constexpr int fold(T v)
{
    return (v > T{0}) - (v < T{0});
}

template <typename T>
constexpr int cmp3(const T &a, const T &b)
{
    return a < b ? -1 : (b < a ? 1 : 0);
}

// Copy a name into a fixed buffer the way every keyed record stores it:
// truncated to the buffer size less one, always terminated.
template <std::size_t N>
inline void copy_name(char (&dst)[N], const char *src)
{
    strlcpy(dst, src != nullptr ? src : "", N);
}

// As copy_name, for a source that is itself a fixed buffer of src_max bytes
// and may lack its terminator.
template <std::size_t N>
inline void copy_name_bounded(char (&dst)[N], const char *src, std::size_t src_max)
{
    std::size_t n = strnlen(src, src_max);
    if (n >= N) {
        n = N - 1;
    }
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Typed view of an intrusive tree whose records are of type T.
template <typename T>
class tree {
public:
    explicit tree(avl_tree_t *t) : t_(t) {}

    avl_tree_t *raw() const { return t_; }
    T *first() const { return static_cast<T *>(avl_first(t_)); }
    T *next(T *rec) const { return static_cast<T *>(avl_walk(t_, rec, AVL_AFTER)); }
    T *find(const T *key, avl_index_t *where = nullptr) const
    {
        return static_cast<T *>(avl_find(t_, key, where));
    }
    void insert(T *rec, avl_index_t where) const { avl_insert(t_, rec, where); }
    void add(T *rec) const { avl_add(t_, rec); }
    void remove(T *rec) const { avl_remove(t_, rec); }
    std::size_t size() const { return avl_numnodes(t_); }
    bool empty() const { return avl_is_empty(t_) != 0; }

    // Visit every record in order; fn may not remove records.
    template <typename F>
    void for_each(F &&fn) const
    {
        for (T *r = first(); r != nullptr; r = next(r)) {
            fn(r);
        }
    }

    // Hand every record to fn without rebalancing (fn may free it), then
    // release the tree.
    template <typename F>
    void drain(F &&fn) const
    {
        void *cookie = nullptr;
        while (T *r = static_cast<T *>(avl_destroy_nodes(t_, &cookie))) {
            fn(r);
        }
        avl_destroy(t_);
    }

private:
    avl_tree_t *t_;
};

// Record a real change in a caller's changed byte (when one was given); the
// byte is never cleared.
inline void mark_changed(uint8_t *changed)
{
    if (changed != nullptr) {
        *changed = 1;
    }
}

// Data and performance-routing blocks keep their sequences per VPN list.
inline bool is_data_kind(e_pol_type type)
{
    return type == POL_TYPE_DATA || type == POL_TYPE_PFR;
}

// Address identity without the bytes a value does not use: the family, then
// the family's bytes (an IPv4 address is its first four bytes only).
inline bool same_addr(const t_ipaddr &a, const t_ipaddr &b)
{
    if (a.addr_type != b.addr_type) {
        return false;
    }
    const std::size_t used = a.addr_type == IP_ADDR_V4 ? sizeof(a.u.addr4) : sizeof(a.u.addr6_b);
    return std::memcmp(a.u.addr6_b, b.u.addr6_b, used) == 0;
}

// TLOC identity field by field, so that padding never takes part.
inline bool same_tloc(const t_tloc_id &a, const t_tloc_id &b)
{
    return same_addr(a.addr, b.addr) && a.color == b.color && a.encap == b.encap;
}

// Create a tree of records of type Rec whose node is the given member.
#define POL_TREE_CREATE(tree_p, cmp, Rec, member) \
    avl_create((tree_p), (cmp), sizeof(Rec), offsetof(Rec, member))

// Allocate one zero-filled record under a memory category.
template <typename T>
inline T *alloc_record(e_pol_mem mem_type)
{
    static_assert(std::is_standard_layout_v<T>, "records are plain C layouts");
    return static_cast<T *>(pol_calloc(1, sizeof(T), mem_type));
}

}  // namespace pol

#endif  // POLICY_POL_UTIL_HPP
