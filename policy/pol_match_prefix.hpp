// The prefix-length operators as length rules, and the prefix group
// table: the entries of one or several prefix lists grouped by (length,
// masked prefix), answering which rules admit a route with one probe per
// entry length present. Shared by the prefix list index and the sequence
// candidates of a policy. Internal to the match module.
#ifndef POLICY_POL_MATCH_PREFIX_HPP
#define POLICY_POL_MATCH_PREFIX_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "pol_match_internal.hpp"

namespace pol::match_detail {

/* ---- the prefix-length operators ---- */

// The length condition of one entry, copied out of the list, with the
// number of the list it came from where several lists share a table. The
// meaning of each operator is documented at e_pfx_op.
struct length_rule {
    uint8_t op;   // e_pfx_op; kNever for a value outside the enumeration
    uint8_t own;  // the entry prefix's own length
    uint8_t min;  // preflen_min
    uint8_t max;  // preflen_max
    uint32_t tag;

    static constexpr uint8_t kNever = 0xFF;

    static length_rule of(const t_pfx_entry *e, uint32_t tag = 0)
    {
        const unsigned op = static_cast<unsigned>(e->pfx_op);
        return {op <= PFX_OP_GT ? static_cast<uint8_t>(op) : kNever, e->prefix.prefixlen, e->preflen_min,
                e->preflen_max, tag};
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
inline bool is_catch_all(const t_pfx_entry *e)
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

// The list admits routes of the prefix's family.
inline bool family_admits(uint8_t pfx_af, const t_ipprefix &route)
{
    const bool v4 = IPPREFIX_IS_V4(&route);
    return !((v4 && pfx_af == POL_AF_IPV6) || (!v4 && pfx_af == POL_AF_IPV4));
}

/* ---- the prefix group table ---- */

// A prefix as two big-endian 64-bit words, so that masking to a length is
// the same for both families.
struct bits128 {
    uint64_t hi;
    uint64_t lo;
    bool operator==(const bits128 &o) const { return hi == o.hi && lo == o.lo; }
};

inline uint8_t family_width(e_ipaddr_type type)
{
    return type == IP_ADDR_V4 ? 32 : 128;
}

inline uint64_t be64(const uint8_t *p)
{
    uint64_t v;
    std::memcpy(&v, p, sizeof(v));
    return __builtin_bswap64(v);
}

// The address's bits kept to the first len.
inline bits128 masked(bits128 b, uint8_t len)
{
    if (len < 64) {
        b.hi = len == 0 ? 0 : b.hi & (~0ULL << (64 - len));
        b.lo = 0;
    } else if (len < 128) {
        b.lo = len == 64 ? 0 : b.lo & (~0ULL << (128 - len));
    }
    return b;
}

inline bits128 address_bits(const t_ipaddr &addr)
{
    uint8_t bytes[16] = {};
    std::memcpy(bytes, addr.u.addr6_b, addr.addr_type == IP_ADDR_V4 ? 4 : 16);
    return {be64(bytes), be64(bytes + 8)};
}

inline bits128 masked_bits(const t_ipaddr &addr, uint8_t len)
{
    return masked(address_bits(addr), len);
}

constexpr std::size_t kLengths = 129;  // 0 to 128

// One group: the rules of the entries of one (length, masked prefix). A
// group of one rule holds it; a larger group holds in head.tag the index
// of its run's first rule. The key is the masked address, in 32 bits for
// IPv4 (a 16-byte slot) and in 128 for IPv6 (32 bytes).
template <typename Key>
struct group_slot {
    Key key;
    uint32_t count_len;  // rules in the low 24 bits (0: empty slot), length in the high 8
    length_rule head;

    uint32_t count() const { return count_len & 0xFFFFFFu; }
    uint8_t len() const { return static_cast<uint8_t>(count_len >> 24); }
    uint32_t first() const { return head.tag; }
};

inline uint32_t slot_key(const bits128 &b, uint32_t *)
{
    return static_cast<uint32_t>(b.hi >> 32);
}

inline bits128 slot_key(const bits128 &b, bits128 *)
{
    return b;
}

inline uint64_t key_hash(uint32_t key, uint8_t len)
{
    return mix64(static_cast<uint64_t>(key) << 8 | len);
}

inline uint64_t key_hash(const bits128 &key, uint8_t len)
{
    return mix64(key.hi ^ ((key.lo << 17) | (key.lo >> 47)) ^ (len * 0x9e3779b97f4a7c15ULL));
}

// The key's first byte: the groups of one first byte share a range of
// the table.
inline uint8_t key_top(uint32_t key)
{
    return static_cast<uint8_t>(key >> 24);
}

inline uint8_t key_top(const bits128 &key)
{
    return static_cast<uint8_t>(key.hi >> 56);
}

constexpr std::size_t kLine = 64;

// The slots of one cache line: a probe reads its home line and goes on to
// the next only when that one is full, so that a lookup costs one line per
// length, the lines of all lengths fetched together.
template <typename Key>
struct alignas(kLine) group_bucket {
    static constexpr std::size_t kSlots = kLine / sizeof(group_slot<Key>);
    group_slot<Key> slots[kSlots];
};
static_assert(sizeof(group_bucket<uint32_t>) == kLine && group_bucket<uint32_t>::kSlots == 4);
static_assert(sizeof(group_bucket<bits128>) == kLine && group_bucket<bits128>::kSlots == 2);

// The buckets of the groups whose keys start with one byte, and the
// lengths of those groups (a bit per length, or per two IPv6 lengths): a
// route probes a range only at the lengths it holds.
struct bucket_range {
    uint32_t first;
    uint32_t count;
    uint64_t lengths;
};

// The grouped entries of one family, counted by their keys' first byte.
struct family_count {
    // From this many entries on, the table is split by first byte.
    static constexpr std::size_t kSplitFrom = 4096;

    std::size_t entries = 0;
    uint32_t by_top[256] = {};

    bool split() const { return entries >= kSplitFrom; }
};

// The entries of one address family grouped by (length, masked prefix) in
// a flat open-addressing table of lines: a route probes once per entry
// length present, and each probe reads one line (and the run of a group
// of several rules), so the cost stays flat as the list grows. A large
// table keeps the groups of each first byte in a range of their own, so
// that the routes of one part of the address space, and the groups of
// every length they probe, stay within a part of the table (fewer pages
// to translate and lines to fetch when the table is not in cache).
template <typename Key>
struct prefix_groups {
    using slot = group_slot<Key>;
    using bucket = group_bucket<Key>;

    bucket *buckets;
    bucket_range *ranges;  // by the key's first byte, or one for all
    uint32_t range_mask;   // 0xFF when split, 0 otherwise
    length_rule *rules;    // the runs of the groups of several rules
    uint8_t lengths[kLengths];  // the entry lengths present, ascending
    uint8_t n_lengths;

    // Half the IPv4 slots stay empty, a third of the IPv6 ones (their
    // slots are twice the size): a probe rarely reads a second line.
    static uint32_t buckets_for(std::size_t entries)
    {
        if (entries == 0) {
            return 0;
        }
        const std::size_t slots = bucket::kSlots == 4 ? 2 * entries + 1 : entries + entries / 2 + 1;
        return static_cast<uint32_t>((slots + bucket::kSlots - 1) / bucket::kSlots);
    }

    static std::size_t ranges_for(const family_count &n) { return n.split() ? 256 : 1; }

    static std::size_t buckets_for(const family_count &n)
    {
        if (!n.split()) {
            return buckets_for(n.entries);
        }
        std::size_t total = 0;
        for (uint32_t entries : n.by_top) {
            total += buckets_for(entries);
        }
        return total;
    }

    // Before the build: the arrays, and the range of each first byte.
    void lay_out(bucket *bucket_array, bucket_range *range_array, length_rule *rule_array, const family_count &n)
    {
        *this = {bucket_array, range_array, n.split() ? 0xFFu : 0u, rule_array, {}, 0};
        uint32_t first = 0;
        for (std::size_t r = 0; r < ranges_for(n); r++) {
            ranges[r] = {first, n.split() ? buckets_for(n.by_top[r]) : buckets_for(n.entries), 0};
            first += ranges[r].count;
        }
    }

    static Key key_of(const bits128 &masked_bits) { return slot_key(masked_bits, static_cast<Key *>(nullptr)); }

    bucket_range &range_of(const Key &key) const { return ranges[key_top(key) & range_mask]; }

    static uint64_t length_bit(uint8_t len)
    {
        constexpr unsigned kShift = sizeof(Key) > 4 ? 1 : 0;  // 129 IPv6 lengths on 64 bits
        return 1ULL << std::min(len >> kShift, 63);
    }

    // The key's home bucket; none (SIZE_MAX) when no group of the key's
    // first byte may have its length.
    std::size_t home(const Key &key, uint8_t len) const
    {
        const bucket_range &r = range_of(key);
        return (r.lengths & length_bit(len)) == 0 ? SIZE_MAX : r.first + reduce(key_hash(key, len), r.count);
    }

    // The group's slot, or the empty slot where it would go, searched from
    // the home bucket on, within the key's range.
    slot *probe_from(std::size_t b, const Key &key, uint8_t len) const
    {
        const bucket_range &r = range_of(key);
        for (;; b = b + 1 == r.first + r.count ? r.first : b + 1) {
            for (slot &s : buckets[b].slots) {
                if (s.count() == 0 || (s.len() == len && s.key == key)) {
                    return &s;
                }
            }
        }
    }

    slot *probe(const Key &key, uint8_t len) const { return probe_from(home(key, len), key, len); }

    // First pass of a build: one more entry in its group.
    void count(const Key &key, uint8_t len)
    {
        range_of(key).lengths |= length_bit(len);
        slot *s = probe(key, len);
        if (s->count() == 0) {
            s->key = key;
            s->count_len = static_cast<uint32_t>(len) << 24;
        }
        s->count_len++;
    }

    // Between the passes: the run of each group of several rules, ending
    // where the next begins (place fills it downwards), and the lengths
    // present.
    void lay_out_runs()
    {
        bool present[kLengths] = {};
        uint32_t end = 0;
        const bucket_range &last = ranges[range_mask];
        for (std::size_t b = 0; b < last.first + last.count; b++) {
            for (slot &s : buckets[b].slots) {
                if (s.count() > 1) {
                    end += s.count();
                    s.head.tag = end;
                }
                present[s.len()] = present[s.len()] || s.count() != 0;
            }
        }
        for (std::size_t len = 0; len < kLengths; len++) {
            if (present[len]) {
                lengths[n_lengths++] = static_cast<uint8_t>(len);
            }
        }
    }

    // Second pass: the entry's rule into its group.
    void place(const Key &key, uint8_t len, const length_rule &rule)
    {
        slot *s = probe(key, len);
        if (s->count() == 1) {
            s->head = rule;
        } else {
            rules[--s->head.tag] = rule;
        }
    }

    // Calls fn on every rule of a group containing the route whose length
    // condition holds, until fn returns true; true when one did.
    template <typename F>
    bool find(const t_ipaddr &addr, uint8_t clamped_len, uint8_t route_len, F &&fn) const
    {
        // Every home line first, fetched together, then the probes.
        const bits128 bits = address_bits(addr);
        Key keys[kLengths];
        std::size_t homes[kLengths];
        uint8_t n = 0;
        for (; n < n_lengths && lengths[n] <= clamped_len; n++) {
            keys[n] = key_of(masked(bits, lengths[n]));
            homes[n] = home(keys[n], lengths[n]);
            if (homes[n] != SIZE_MAX) {
                __builtin_prefetch(&buckets[homes[n]]);
            }
        }
        for (uint8_t i = 0; i < n; i++) {
            if (homes[i] == SIZE_MAX) {
                continue;
            }
            const slot *s = probe_from(homes[i], keys[i], lengths[i]);
            if (s->count() == 1) {
                if (s->head.holds(route_len) && fn(s->head)) {
                    return true;
                }
                continue;
            }
            for (uint32_t r = 0; r < s->count(); r++) {
                const length_rule &rule = rules[s->first() + r];
                if (rule.holds(route_len) && fn(rule)) {
                    return true;
                }
            }
        }
        return false;
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

// Entries by address family, and the catch-all entries, which skip the
// containment test, held apart. An entry whose address is of no family
// contains nothing and is left out. Filled from a source that calls its
// argument with (entry, tag) for every entry, as often as asked.
struct prefix_table {
    prefix_groups<uint32_t> v4;
    prefix_groups<bits128> v6;
    length_rule *catch_all;
    std::size_t n_catch_all;

    struct sizes {
        family_count v4, v6;
        std::size_t any = 0;
    };
    struct offsets {
        std::size_t v4_buckets, v4_ranges, v6_buckets, v6_ranges, rules;
    };

    template <typename Source>
    static sizes measure(Source &&source)
    {
        sizes n;
        source([&](const t_pfx_entry *e, uint32_t) {
            const e_ipaddr_type type = e->prefix.addr.addr_type;
            family_count *family = type == IP_ADDR_V4 ? &n.v4 : (type == IP_ADDR_V6 ? &n.v6 : nullptr);
            if (is_catch_all(e)) {
                n.any++;
            } else if (family != nullptr) {
                family->entries++;
                family->by_top[key_top(group_key::of(e).bits)]++;
            }
        });
        return n;
    }

    static offsets place_arrays(block_layout &layout, const sizes &n)
    {
        offsets at;
        at.v4_buckets = layout.place_aligned<group_bucket<uint32_t>>(decltype(v4)::buckets_for(n.v4));
        at.v4_ranges = layout.place<bucket_range>(decltype(v4)::ranges_for(n.v4));
        at.v6_buckets = layout.place_aligned<group_bucket<bits128>>(decltype(v6)::buckets_for(n.v6));
        at.v6_ranges = layout.place<bucket_range>(decltype(v6)::ranges_for(n.v6));
        at.rules = layout.place<length_rule>(n.v4.entries + n.v6.entries + n.any);
        return at;
    }

    // Calls fn with the part of the address family; false without one.
    template <typename Table, typename F>
    static bool with_part(Table &table, e_ipaddr_type type, F &&fn)
    {
        if (type == IP_ADDR_V4) {
            return fn(table.v4);
        }
        return type == IP_ADDR_V6 && fn(table.v6);
    }

    template <typename Source>
    void fill(void *block, const offsets &at, const sizes &n, Source &&source)
    {
        length_rule *rule_array = array_at<length_rule>(block, at.rules);
        v4.lay_out(aligned_array_at<group_bucket<uint32_t>>(block, at.v4_buckets),
                   array_at<bucket_range>(block, at.v4_ranges), rule_array, n.v4);
        v6.lay_out(aligned_array_at<group_bucket<bits128>>(block, at.v6_buckets),
                   array_at<bucket_range>(block, at.v6_ranges), rule_array + n.v4.entries, n.v6);
        catch_all = rule_array + n.v4.entries + n.v6.entries;
        n_catch_all = 0;
        // Calls step(part, key) for an entry of a family's part.
        auto grouped = [this](const t_pfx_entry *e, auto &&step) {
            if (!is_catch_all(e)) {
                with_part(*this, e->prefix.addr.addr_type, [&](auto &part) {
                    const group_key k = group_key::of(e);
                    step(part, part.key_of(k.bits), k.len);
                    return true;
                });
            }
        };
        source([&](const t_pfx_entry *e, uint32_t) {
            grouped(e, [](auto &part, const auto &key, uint8_t len) { part.count(key, len); });
        });
        v4.lay_out_runs();
        v6.lay_out_runs();
        source([&](const t_pfx_entry *e, uint32_t tag) {
            if (is_catch_all(e)) {
                catch_all[n_catch_all++] = length_rule::of(e, tag);
            }
            grouped(e, [&](auto &part, const auto &key, uint8_t len) {
                part.place(key, len, length_rule::of(e, tag));
            });
        });
    }

    // Calls fn on every rule that admits the route until fn returns true;
    // true when one did.
    template <typename F>
    bool find(const t_ipprefix &route, F &&fn) const
    {
        for (std::size_t i = 0; i < n_catch_all; i++) {
            if (catch_all[i].holds(route.prefixlen) && fn(catch_all[i])) {
                return true;
            }
        }
        const e_ipaddr_type type = route.addr.addr_type;
        return with_part(*this, type, [&](const auto &part) {
            return part.find(route.addr, std::min(route.prefixlen, family_width(type)), route.prefixlen, fn);
        });
    }
};

}  // namespace pol::match_detail

#endif  // POLICY_POL_MATCH_PREFIX_HPP
