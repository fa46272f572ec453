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

// One group: the rules of the entries of one (length, masked prefix).
// 32 bytes: the count and the length share a word, and a group of one rule
// holds it, so that a probe touches one line.
struct group_slot {
    bits128 key;
    uint32_t first;      // index of the group's first rule in the part's rules
    uint32_t count_len;  // rules in the low 24 bits (0: empty slot), length in the high 8
    length_rule head;    // a rule of the group: its only one when it has one

    uint32_t count() const { return count_len & 0xFFFFFFu; }
    uint8_t len() const { return static_cast<uint8_t>(count_len >> 24); }
};

// The entries of one address family grouped by (length, masked prefix) in
// a flat open-addressing table: a route probes once per entry length
// present, and each probe touches one slot and one run of rules, so the
// cost stays flat as the list grows.
struct prefix_groups {
    group_slot *slots;  // about 1.5 per entry; none without entries
    std::size_t n_slots;
    length_rule *rules;  // one per entry, grouped by slot
    uint8_t lengths[kLengths];  // the entry lengths present, ascending
    uint8_t n_lengths;

    static std::size_t slots_for(std::size_t entries) { return entries == 0 ? 0 : entries + entries / 2 + 1; }

    static uint64_t hash(const bits128 &key, uint8_t len)
    {
        return mix64(key.hi ^ ((key.lo << 17) | (key.lo >> 47)) ^ (len * 0x9e3779b97f4a7c15ULL));
    }

    std::size_t home(const bits128 &key, uint8_t len) const { return reduce(hash(key, len), n_slots); }

    // The group's slot, or the empty slot where it would go.
    group_slot *probe(const bits128 &key, uint8_t len) const { return probe_from(home(key, len), key, len); }

    group_slot *probe_from(std::size_t i, const bits128 &key, uint8_t len) const
    {
        for (;; i = i + 1 == n_slots ? 0 : i + 1) {
            group_slot &s = slots[i];
            if (s.count() == 0 || (s.len() == len && s.key == key)) {
                return &s;
            }
        }
    }

    // First pass of a build: one more entry in its group.
    void count(const bits128 &key, uint8_t len)
    {
        group_slot *s = probe(key, len);
        if (s->count() == 0) {
            s->key = key;
            s->count_len = static_cast<uint32_t>(len) << 24;
        }
        s->count_len++;
    }

    // Between the passes: each group's run of rules, ending where the
    // next begins (place fills it downwards), and the lengths present.
    void lay_out_runs()
    {
        bool present[kLengths] = {};
        uint32_t end = 0;
        for (std::size_t i = 0; i < n_slots; i++) {
            group_slot &s = slots[i];
            if (s.count() != 0) {
                end += s.count();
                s.first = end;
                present[s.len()] = true;
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
        s->head = rule;
    }

    // Calls fn on every rule of a group containing the route whose length
    // condition holds, until fn returns true; true when one did.
    template <typename F>
    bool find(const t_ipaddr &addr, uint8_t clamped_len, uint8_t route_len, F &&fn) const
    {
        // Every home slot first, fetched together, then the probes.
        const bits128 bits = address_bits(addr);
        std::size_t homes[kLengths];
        uint8_t n = 0;
        for (; n < n_lengths && lengths[n] <= clamped_len; n++) {
            homes[n] = home(masked(bits, lengths[n]), lengths[n]);
            __builtin_prefetch(&slots[homes[n]]);
        }
        for (uint8_t i = 0; i < n; i++) {
            const group_slot *s = probe_from(homes[i], masked(bits, lengths[i]), lengths[i]);
            if (s->count() == 1) {
                if (s->head.holds(route_len) && fn(s->head)) {
                    return true;
                }
                continue;
            }
            for (uint32_t r = 0; r < s->count(); r++) {
                const length_rule &rule = rules[s->first + r];
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
    prefix_groups v4;
    prefix_groups v6;
    length_rule *catch_all;
    std::size_t n_catch_all;

    struct sizes {
        std::size_t v4 = 0, v6 = 0, any = 0;
    };
    struct offsets {
        std::size_t v4_slots, v6_slots, rules;
    };

    template <typename Source>
    static sizes measure(Source &&source)
    {
        sizes n;
        source([&](const t_pfx_entry *e, uint32_t) {
            const e_ipaddr_type type = e->prefix.addr.addr_type;
            n.any += is_catch_all(e) ? 1 : 0;
            n.v4 += !is_catch_all(e) && type == IP_ADDR_V4 ? 1 : 0;
            n.v6 += !is_catch_all(e) && type == IP_ADDR_V6 ? 1 : 0;
        });
        return n;
    }

    static offsets place_arrays(block_layout &layout, const sizes &n)
    {
        offsets at;
        at.v4_slots = layout.place<group_slot>(prefix_groups::slots_for(n.v4));
        at.v6_slots = layout.place<group_slot>(prefix_groups::slots_for(n.v6));
        at.rules = layout.place<length_rule>(n.v4 + n.v6 + n.any);
        return at;
    }

    prefix_groups *part_of(e_ipaddr_type type)
    {
        return type == IP_ADDR_V4 ? &v4 : (type == IP_ADDR_V6 ? &v6 : nullptr);
    }

    const prefix_groups *part_of(e_ipaddr_type type) const
    {
        return const_cast<prefix_table *>(this)->part_of(type);
    }

    template <typename Source>
    void fill(void *block, const offsets &at, const sizes &n, Source &&source)
    {
        length_rule *rule_array = array_at<length_rule>(block, at.rules);
        v4 = {array_at<group_slot>(block, at.v4_slots), prefix_groups::slots_for(n.v4), rule_array, {}, 0};
        v6 = {array_at<group_slot>(block, at.v6_slots), prefix_groups::slots_for(n.v6), rule_array + n.v4, {}, 0};
        catch_all = rule_array + n.v4 + n.v6;
        n_catch_all = 0;
        auto grouped = [this](const t_pfx_entry *e) {
            return is_catch_all(e) ? nullptr : part_of(e->prefix.addr.addr_type);
        };
        source([&](const t_pfx_entry *e, uint32_t) {
            if (prefix_groups *part = grouped(e)) {
                const group_key k = group_key::of(e);
                part->count(k.bits, k.len);
            }
        });
        v4.lay_out_runs();
        v6.lay_out_runs();
        source([&](const t_pfx_entry *e, uint32_t tag) {
            if (is_catch_all(e)) {
                catch_all[n_catch_all++] = length_rule::of(e, tag);
            } else if (prefix_groups *part = grouped(e)) {
                const group_key k = group_key::of(e);
                part->place(k.bits, k.len, length_rule::of(e, tag));
            }
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
        const prefix_groups *part = part_of(type);
        return part != nullptr &&
               part->find(route.addr, std::min(route.prefixlen, family_width(type)), route.prefixlen, fn);
    }
};

}  // namespace pol::match_detail

#endif  // POLICY_POL_MATCH_PREFIX_HPP
