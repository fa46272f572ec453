// Matching a route against the named lists, and the match-time indexes
// behind it: the interval sets of site and VPN lists and the prefix group
// table of a prefix list. Each index is one zero-filled allocation under
// its list's category: a record followed by the arrays it points into,
// sized from the list before anything is filled, so building never grows
// anything and a failed allocation is the only failure.
#include "pol_match.hpp"

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>

#include <zen/zen_util.h>

// What every index starts with.
struct _t_pol_list_exec_index {
    uint64_t generation;  // of the list it was built from
    e_pol_mem mem;        // its list's category, under which it is counted
};

namespace pol {

namespace {

/* ---- the prefix-length operators ---- */

// The length condition of one entry, copied out of the list. The meaning
// of each operator is documented at e_pfx_op.
struct length_rule {
    e_pfx_op op;
    uint8_t own;  // the entry prefix's own length
    uint8_t min;  // preflen_min
    uint8_t max;  // preflen_max

    static length_rule of(const t_pfx_entry *e)
    {
        return {e->pfx_op, e->prefix.prefixlen, e->preflen_min, e->preflen_max};
    }

    bool holds(uint8_t len) const
    {
        switch (op) {
        case PFX_OP_NONE:
        case PFX_OP_EQ:
            return len == own;
        case PFX_OP_NE:
            return len != own;
        case PFX_OP_RANGE:
            return min <= len && len <= max;
        case PFX_OP_XRANGE:
            return min < len && len < max;
        case PFX_OP_LE:
            return len <= max;
        case PFX_OP_LT:
            return len < min;
        case PFX_OP_GE:
            return len >= min;
        case PFX_OP_GT:
            return len > min;
        default:
            return false;
        }
    }
};

// A zero prefix of length 0 whose operator does not compare with the
// entry's own length applies its length condition to every route.
bool is_catch_all(const t_pfx_entry *e)
{
    return IPADDR_IS_ZERO(&e->prefix.addr) && e->prefix.prefixlen == 0 && e->pfx_op != PFX_OP_NONE &&
           e->pfx_op != PFX_OP_EQ && e->pfx_op != PFX_OP_NE;
}

template <typename F>
void for_each_pfx_entry(const t_pfx_list *list, F &&fn)
{
    for (const t_pfx_entry *e = TAILQ_FIRST(&list->pfx_entry_head); e; e = TAILQ_NEXT(e, pfx_entry)) {
        fn(e);
    }
}

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
};

template <typename T>
T *array_at(void *block, std::size_t offset)
{
    return reinterpret_cast<T *>(static_cast<char *>(block) + offset);
}

// A zero-filled block of the list's category starting with an Index
// record; null when the allocation fails. Blocks are released with
// pol_free alone, so the records hold nothing to destroy.
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
    return index;
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

/* ---- the prefix group table ---- */

// A prefix as two big-endian 64-bit words, so that masking to a length is
// the same for both families.
struct bits128 {
    uint64_t hi;
    uint64_t lo;
    bool operator==(const bits128 &o) const { return hi == o.hi && lo == o.lo; }
};

// splitmix64 finaliser: every input bit reaches the low bits a table
// index is taken from.
uint64_t mix64(uint64_t x)
{
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

uint8_t family_width(e_ipaddr_type type)
{
    return type == IP_ADDR_V4 ? 32 : 128;
}

uint64_t be64(const uint8_t *p)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; i++) {
        v = (v << 8) | p[i];
    }
    return v;
}

bits128 masked_bits(const t_ipaddr &addr, uint8_t len)
{
    uint8_t bytes[16] = {};
    std::memcpy(bytes, addr.u.addr6_b, addr.addr_type == IP_ADDR_V4 ? 4 : 16);
    bits128 b = {be64(bytes), be64(bytes + 8)};
    if (len < 64) {
        b.hi = len == 0 ? 0 : b.hi & (~0ULL << (64 - len));
        b.lo = 0;
    } else if (len < 128) {
        b.lo = len == 64 ? 0 : b.lo & (~0ULL << (128 - len));
    }
    return b;
}

constexpr std::size_t kLengths = 129;  // 0 to 128

// One group: the rules of the entries of one (length, masked prefix).
struct group_slot {
    bits128 key;
    uint32_t first;  // index of the group's first rule in the part's rules
    uint32_t count;  // 0: empty slot
    uint8_t len;
};

// The entries of one address family grouped by (length, masked prefix) in
// a flat open-addressing table: a route probes once per entry length
// present, and each probe touches one slot and one run of rules, so the
// cost stays flat as the list grows.
struct prefix_groups {
    group_slot *slots;  // a power of two, at least twice the entries; none without entries
    std::size_t n_slots;
    length_rule *rules;  // one per entry, grouped by slot
    uint8_t lengths[kLengths];  // the entry lengths present, ascending
    uint8_t n_lengths;

    static std::size_t slots_for(std::size_t entries)
    {
        std::size_t size = entries == 0 ? 0 : 16;
        while (size < entries * 2) {
            size *= 2;
        }
        return size;
    }

    static std::size_t hash(const bits128 &key, uint8_t len) { return mix64(key.hi ^ mix64(key.lo ^ len)); }

    // The group's slot, or the empty slot where it would go.
    group_slot *probe(const bits128 &key, uint8_t len) const
    {
        const std::size_t mask = n_slots - 1;
        for (std::size_t i = hash(key, len) & mask;; i = (i + 1) & mask) {
            group_slot &s = slots[i];
            if (s.count == 0 || (s.len == len && s.key == key)) {
                return &s;
            }
        }
    }

    // First pass of a build: one more entry in its group.
    void count(const bits128 &key, uint8_t len)
    {
        group_slot *s = probe(key, len);
        if (s->count == 0) {
            s->key = key;
            s->len = len;
        }
        s->count++;
    }

    // Between the passes: each group's run of rules, ending where the
    // next begins (place fills it downwards), and the lengths present.
    void lay_out_runs()
    {
        bool present[kLengths] = {};
        uint32_t end = 0;
        for (std::size_t i = 0; i < n_slots; i++) {
            group_slot &s = slots[i];
            if (s.count != 0) {
                end += s.count;
                s.first = end;
                present[s.len] = true;
            }
        }
        for (std::size_t len = 0; len < kLengths; len++) {
            if (present[len]) {
                lengths[n_lengths++] = static_cast<uint8_t>(len);
            }
        }
    }

    // Second pass: the entry's rule into its group's run.
    void place(const bits128 &key, uint8_t len, const length_rule &rule)
    {
        group_slot *s = probe(key, len);
        rules[--s->first] = rule;
    }

    bool matches(const t_ipaddr &addr, uint8_t clamped_len, uint8_t route_len) const
    {
        for (uint8_t i = 0; i < n_lengths && lengths[i] <= clamped_len; i++) {
            const group_slot *s = probe(masked_bits(addr, lengths[i]), lengths[i]);
            for (uint32_t r = 0; r < s->count; r++) {
                if (rules[s->first + r].holds(route_len)) {
                    return true;
                }
            }
        }
        return false;
    }
};

// Entries by address family, and the catch-all entries, which skip the
// containment test, held apart. An entry whose address is of no family
// contains nothing and is left out.
struct prefix_index : _t_pol_list_exec_index {
    prefix_groups v4;
    prefix_groups v6;
    length_rule *catch_all;
    std::size_t n_catch_all;

    prefix_groups *part_of(e_ipaddr_type type)
    {
        return type == IP_ADDR_V4 ? &v4 : (type == IP_ADDR_V6 ? &v6 : nullptr);
    }

    const prefix_groups *part_of(e_ipaddr_type type) const
    {
        return const_cast<prefix_index *>(this)->part_of(type);
    }

    bool matches(const t_ipprefix &route) const
    {
        for (std::size_t i = 0; i < n_catch_all; i++) {
            if (catch_all[i].holds(route.prefixlen)) {
                return true;
            }
        }
        const e_ipaddr_type type = route.addr.addr_type;
        const prefix_groups *part = part_of(type);
        return part != nullptr && part->matches(route.addr, std::min(route.prefixlen, family_width(type)),
                                                route.prefixlen);
    }
};

// The group key of a grouped entry: its length within the family's width
// and its prefix masked to that length.
struct group_key {
    bits128 bits;
    uint8_t len;

    static group_key of(const t_pfx_entry *e)
    {
        const uint8_t len = std::min(e->prefix.prefixlen, family_width(e->prefix.addr.addr_type));
        return {masked_bits(e->prefix.addr, len), len};
    }
};

prefix_index *build_prefix_index(const t_pfx_list *list)
{
    std::size_t v4 = 0, v6 = 0, any = 0;
    for_each_pfx_entry(list, [&](const t_pfx_entry *e) {
        const e_ipaddr_type type = e->prefix.addr.addr_type;
        any += is_catch_all(e) ? 1 : 0;
        v4 += !is_catch_all(e) && type == IP_ADDR_V4 ? 1 : 0;
        v6 += !is_catch_all(e) && type == IP_ADDR_V6 ? 1 : 0;
    });
    block_layout layout{sizeof(prefix_index)};
    const std::size_t v4_slots = layout.place<group_slot>(prefix_groups::slots_for(v4));
    const std::size_t v6_slots = layout.place<group_slot>(prefix_groups::slots_for(v6));
    const std::size_t rules = layout.place<length_rule>(v4 + v6 + any);
    prefix_index *index = alloc_index<prefix_index>(layout, POL_MEM_LIST_PREFIX);
    if (index == nullptr) {
        return nullptr;
    }
    length_rule *rule_array = array_at<length_rule>(index, rules);
    index->v4 = {array_at<group_slot>(index, v4_slots), prefix_groups::slots_for(v4), rule_array, {}, 0};
    index->v6 = {array_at<group_slot>(index, v6_slots), prefix_groups::slots_for(v6), rule_array + v4, {}, 0};
    index->catch_all = rule_array + v4 + v6;

    auto grouped = [index](const t_pfx_entry *e) {
        return is_catch_all(e) ? nullptr : index->part_of(e->prefix.addr.addr_type);
    };
    for_each_pfx_entry(list, [&](const t_pfx_entry *e) {
        if (prefix_groups *part = grouped(e)) {
            const group_key k = group_key::of(e);
            part->count(k.bits, k.len);
        }
    });
    index->v4.lay_out_runs();
    index->v6.lay_out_runs();
    for_each_pfx_entry(list, [&](const t_pfx_entry *e) {
        if (is_catch_all(e)) {
            index->catch_all[index->n_catch_all++] = length_rule::of(e);
        } else if (prefix_groups *part = grouped(e)) {
            const group_key k = group_key::of(e);
            part->place(k.bits, k.len, length_rule::of(e));
        }
    });
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
    if (list == nullptr) {
        return false;
    }
    const bool v4 = IPPREFIX_IS_V4(&route);
    if ((v4 && list->pfx_af == POL_AF_IPV6) || (!v4 && list->pfx_af == POL_AF_IPV4)) {
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

void free_exec_index(t_pol_list_exec_index **index_pp)
{
    if (*index_pp != nullptr) {
        pol_free(*index_pp, (*index_pp)->mem);
        *index_pp = nullptr;
    }
}

}  // namespace pol
