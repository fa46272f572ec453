// Matching a route against the named lists, and the match-time indexes
// behind it: the interval sets of site and VPN lists, the prefix group
// table of a prefix list, the value sets and pattern automaton of a
// community list, and the sequence candidates of a policy. Each index is
// one zero-filled allocation under its owner's category: a record
// followed by the arrays it points into, sized before anything is filled,
// so building never grows anything and a failed allocation is the only
// failure. The pattern automaton is the one exception: the engine behind
// it allocates for itself, and a failure there leaves the patterns to
// regexec.
#include "pol_match.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <type_traits>

#include <zen/zen_util.h>

#include "pol_list.hpp"
#include "pol_match_re2.hpp"

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

uint64_t g_pol_list_changes = 0;

namespace pol {

namespace {

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

// The list admits routes of the prefix's family.
bool family_admits(uint8_t pfx_af, const t_ipprefix &route)
{
    const bool v4 = IPPREFIX_IS_V4(&route);
    return !((v4 && pfx_af == POL_AF_IPV6) || (!v4 && pfx_af == POL_AF_IPV4));
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

/* ---- the prefix group table ---- */

// A prefix as two big-endian 64-bit words, so that masking to a length is
// the same for both families.
struct bits128 {
    uint64_t hi;
    uint64_t lo;
    bool operator==(const bits128 &o) const { return hi == o.hi && lo == o.lo; }
};

// splitmix64 finaliser: every input bit reaches the high bits a table
// index is taken from.
uint64_t mix64(uint64_t x)
{
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// A hash spread over [0, n) without a power-of-two table size.
std::size_t reduce(uint64_t hash, std::size_t n)
{
    return static_cast<std::size_t>((static_cast<unsigned __int128>(hash) * n) >> 64);
}

uint8_t family_width(e_ipaddr_type type)
{
    return type == IP_ADDR_V4 ? 32 : 128;
}

uint64_t be64(const uint8_t *p)
{
    uint64_t v;
    std::memcpy(&v, p, sizeof(v));
    return __builtin_bswap64(v);
}

// The address's bits kept to the first len.
bits128 masked(bits128 b, uint8_t len)
{
    if (len < 64) {
        b.hi = len == 0 ? 0 : b.hi & (~0ULL << (64 - len));
        b.lo = 0;
    } else if (len < 128) {
        b.lo = len == 64 ? 0 : b.lo & (~0ULL << (128 - len));
    }
    return b;
}

bits128 address_bits(const t_ipaddr &addr)
{
    uint8_t bytes[16] = {};
    std::memcpy(bytes, addr.u.addr6_b, addr.addr_type == IP_ADDR_V4 ? 4 : 16);
    return {be64(bytes), be64(bytes + 8)};
}

bits128 masked_bits(const t_ipaddr &addr, uint8_t len)
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

/* ---- community text ---- */

struct well_known_text {
    uint32_t value;
    const char *text;
    uint8_t length;
};

constexpr well_known_text kWellKnownTexts[] = {
    {0x00000000u, "internet", 8},
    {0xFFFFFF01u, "no-export", 9},
    {0xFFFFFF02u, "no-advertise", 12},
    {0xFFFFFF03u, "local-AS", 8},
};

const well_known_text *well_known(uint32_t value)
{
    for (const well_known_text &w : kWellKnownTexts) {
        if (w.value == value) {
            return &w;
        }
    }
    return nullptr;
}

std::size_t decimal_digits(uint32_t v)
{
    std::size_t n = 1;
    for (; v >= 10; v /= 10) {
        n++;
    }
    return n;
}

// Writes v in decimal ending just before end; returns where it starts.
char *write_decimal_backwards(char *end, uint32_t v)
{
    do {
        *--end = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    return end;
}

// The text of one community: a well-known name, else high:low.
std::size_t token_length(uint32_t value)
{
    if (const well_known_text *w = well_known(value)) {
        return w->length;
    }
    return decimal_digits(value >> 16) + 1 + decimal_digits(value & 0xFFFFu);
}

char *write_token(char *out, uint32_t value, std::size_t length)
{
    if (const well_known_text *w = well_known(value)) {
        std::memcpy(out, w->text, length);
        return out + length;
    }
    char *end = out + length;
    char *colon = write_decimal_backwards(end, value & 0xFFFFu) - 1;
    *colon = ':';
    write_decimal_backwards(colon, value >> 16);
    return end;
}

// How many leading communities the rendered text holds: a text that does
// not fit ends the rendering. Thirty-nine of the longest texts fit.
uint32_t fitting_tokens(const uint32_t *values, uint32_t count)
{
    constexpr uint32_t kAlwaysFit = (POL_COMMUNITY_LIST_STR_SIZE - 1) / 13;
    if (count <= kAlwaysFit) {
        return count;
    }
    std::size_t used = 0;
    for (uint32_t i = 0; i < count; i++) {
        const std::size_t need = token_length(values[i]) + (i > 0 ? 1 : 0);
        if (used + need >= POL_COMMUNITY_LIST_STR_SIZE) {
            return i;
        }
        used += need;
    }
    return count;
}

/* ---- value sets ---- */

// A set of community values. Up to kSmall values sit in a row compared
// one by one (cheaper than hashing); more go in a flat open-addressing
// table where a slot holds the value with bit 32 set, 0 when empty.
struct value_set {
    uint64_t *slots;
    std::size_t n_slots;  // 0: the set is empty
    std::size_t n_small;  // values in the row; 0 when the table is used

    static constexpr std::size_t kSmall = 8;

    static std::size_t slots_for(std::size_t values) { return values <= kSmall ? values : values * 2 + 1; }

    uint64_t *probe(uint32_t value) const
    {
        const uint64_t stored = value | (1ULL << 32);
        for (std::size_t i = reduce(mix64(value), n_slots);; i = i + 1 == n_slots ? 0 : i + 1) {
            if (slots[i] == 0 || slots[i] == stored) {
                return &slots[i];
            }
        }
    }

    void add(uint32_t value)
    {
        if (n_slots <= kSmall) {
            slots[n_small++] = value | (1ULL << 32);
        } else {
            *probe(value) = value | (1ULL << 32);
        }
    }

    bool contains(uint32_t value) const
    {
        if (n_slots <= kSmall) {
            bool found = false;
            for (std::size_t i = 0; i < n_small; i++) {
                found |= slots[i] == (value | (1ULL << 32));
            }
            return found;
        }
        return *probe(value) != 0;
    }

    bool empty() const { return n_slots == 0; }

    bool contains_any(const uint32_t *values, uint32_t count) const
    {
        if (empty()) {
            return false;
        }
        for (uint32_t i = 0; i < count; i++) {
            if (contains(values[i])) {
                return true;
            }
        }
        return false;
    }
};

/* ---- expanded patterns that name whole communities ---- */

// Where in the rendered text a community must stand for the pattern to
// match: anywhere as a whole token ((^| )X( |$)), first (^X( |$)), last
// ((^| )X$), or alone (^X$).
enum token_place { PLACE_ANY, PLACE_FIRST, PLACE_LAST, PLACE_SOLE, PLACE_COUNT };

// What a community must be: a value (its whole text), or any value of
// one upper half (a text H: or H:[0-9]+ at the start of a token; the
// well-known values render as names and have no such text).
enum token_kind { KIND_VALUE, KIND_HIGH, KIND_COUNT };

constexpr std::size_t kMaxLiterals = 64;

struct whole_communities {
    struct literal {
        token_kind kind;
        token_place place;
        uint32_t value;  // the value, or the upper half
        bool occurs;     // some community renders so
    };
    literal literals[kMaxLiterals];
    std::size_t count = 0;
};

bool skip(const char *&p, const char *text)
{
    const std::size_t n = std::strlen(text);
    if (std::strncmp(p, text, n) != 0) {
        return false;
    }
    p += n;
    return true;
}

bool is_literal_char(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ':' || c == '-';
}

const well_known_text *well_known_named(const char *text, std::size_t length)
{
    for (const well_known_text &w : kWellKnownTexts) {
        if (length == w.length && std::memcmp(text, w.text, length) == 0) {
            return &w;
        }
    }
    return nullptr;
}

// A half as the rendering writes it: plain decimal without leading zeros,
// at most 65535.
bool decimal_half(const char *text, std::size_t length, uint32_t *half)
{
    if (length == 0 || length > 5 || (text[0] == '0' && length > 1)) {
        return false;
    }
    uint32_t v = 0;
    for (std::size_t i = 0; i < length; i++) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        v = v * 10 + static_cast<uint32_t>(text[i] - '0');
    }
    *half = v;
    return v <= 65535;
}

// A literal is a community text only as the rendering writes it: a
// well-known name, or high:low in plain decimal that is not a value
// rendered as a name. Any other text is never a token.
bool community_of_text(const char *text, std::size_t length, uint32_t *value)
{
    if (const well_known_text *w = well_known_named(text, length)) {
        *value = w->value;
        return true;
    }
    const char *colon = static_cast<const char *>(std::memchr(text, ':', length));
    uint32_t high = 0, low = 0;
    if (colon == nullptr || !decimal_half(text, static_cast<std::size_t>(colon - text), &high) ||
        !decimal_half(colon + 1, length - static_cast<std::size_t>(colon + 1 - text), &low)) {
        return false;
    }
    *value = high << 16 | low;
    return well_known(*value) == nullptr;
}

enum class left_anchor { none, start, token };
enum class right_anchor { none, end, token };

// One literal of [0-9A-Za-z:-], optionally followed by [0-9]+ or [0-9]*
// (only after H:); every one of these characters stands for itself in an
// extended expression. A text without an anchor on a side is admitted
// only where no token can hold it but as a whole on that side: a name on
// either side, H: on the right.
bool parse_literal(const char *&p, left_anchor left, right_anchor right, whole_communities &out)
{
    const char *start = p;
    while (is_literal_char(*p)) {
        p++;
    }
    const std::size_t length = static_cast<std::size_t>(p - start);
    const bool digits_follow = skip(p, "[0-9]+") || skip(p, "[0-9]*");
    if (length == 0 || out.count == kMaxLiterals) {
        return false;
    }
    whole_communities::literal &lit = out.literals[out.count++];
    lit.kind = KIND_VALUE;
    lit.occurs = true;
    if (start[length - 1] == ':') {
        lit.kind = KIND_HIGH;
        return decimal_half(start, length - 1, &lit.value) && left != left_anchor::none &&
               (digits_follow || right == right_anchor::none);
    }
    if (digits_follow) {
        return false;
    }
    if (well_known_named(start, length) != nullptr) {
        return community_of_text(start, length, &lit.value);
    }
    lit.occurs = community_of_text(start, length, &lit.value);
    return left != left_anchor::none && right != right_anchor::none;
}

left_anchor parse_left(const char *&p)
{
    if (skip(p, "(^| )") || skip(p, "( |^)")) {
        return left_anchor::token;
    }
    return skip(p, "^") ? left_anchor::start : left_anchor::none;
}

// Whether a right anchor follows the literals (looked at before parsing
// them, since what they may be depends on it).
right_anchor peek_right(const char *p)
{
    if (*p == '(' && std::strchr(p, ')') != nullptr && p[1] != ' ' && p[1] != '$') {
        p = std::strchr(p, ')') + 1;  // past a group of literals
    }
    while (is_literal_char(*p)) {
        p++;
    }
    if (skip(p, "[0-9]+") || skip(p, "[0-9]*")) {
    }
    if (skip(p, "( |$)") || skip(p, "($| )")) {
        return right_anchor::token;
    }
    return skip(p, "$") ? right_anchor::end : right_anchor::none;
}

token_place place_of(left_anchor left, right_anchor right)
{
    const bool first = left == left_anchor::start;
    const bool last = right == right_anchor::end;
    return first ? (last ? PLACE_SOLE : PLACE_FIRST) : (last ? PLACE_LAST : PLACE_ANY);
}

// LEFT (LITERAL | "(" LITERAL ("|" LITERAL)* ")") RIGHT.
bool parse_unit(const char *&p, whole_communities &out)
{
    const left_anchor left = parse_left(p);
    const right_anchor right = peek_right(p);
    const std::size_t first = out.count;
    if (skip(p, "(")) {
        do {
            if (!parse_literal(p, left, right, out)) {
                return false;
            }
        } while (skip(p, "|"));
        if (!skip(p, ")")) {
            return false;
        }
    } else if (!parse_literal(p, left, right, out)) {
        return false;
    }
    if (right == right_anchor::token) {
        skip(p, "( |$)") || skip(p, "($| )");
    } else if (right == right_anchor::end && !skip(p, "$")) {
        return false;
    }
    for (std::size_t i = first; i < out.count; i++) {
        out.literals[i].place = place_of(left, right);
    }
    return true;
}

// A pattern made only of such units, separated by |, matches exactly when
// one of its literals stands in its place among the rendered communities.
bool names_whole_communities(const char *pattern, whole_communities &out)
{
    const char *p = pattern;
    do {
        if (!parse_unit(p, out)) {
            return false;
        }
    } while (skip(p, "|"));
    return *p == '\0';
}

/* ---- expanded patterns the automaton reads as regcomp does ---- */

constexpr const char *kClassNames[] = {"alnum", "alpha", "blank", "cntrl", "digit", "graph", "lower",
                                       "print", "punct", "space", "upper", "xdigit"};

// [:name:] at p (p at the '['); moves past it.
bool skip_class_name(const char *&p)
{
    for (const char *name : kClassNames) {
        const std::size_t n = std::strlen(name);
        if (p[1] == ':' && std::strncmp(p + 2, name, n) == 0 && p[2 + n] == ':' && p[3 + n] == ']') {
            p += 4 + n;
            return true;
        }
    }
    return false;
}

// A bracket expression at p (just past its '['): a leading ^, a leading ]
// as a member, named classes; no backslash (a member in regcomp, an
// escape in the automaton), no equivalence classes or collating elements.
bool screen_bracket(const char *&p)
{
    if (*p == '^') {
        p++;
    }
    if (*p == ']') {
        p++;
    }
    while (*p != ']') {
        if (*p == '\0' || *p == '\\') {
            return false;
        }
        if (*p == '[' && (p[1] == '=' || p[1] == '.')) {
            return false;
        }
        if (*p == '[' && p[1] == ':') {
            if (!skip_class_name(p)) {
                return false;
            }
            continue;
        }
        p++;
    }
    p++;
    return true;
}

// {n}, {n,} or {n,m} at p (just past its '{').
bool screen_interval(const char *&p)
{
    auto digits = [&p] {
        const char *start = p;
        while (*p >= '0' && *p <= '9') {
            p++;
        }
        return p != start;
    };
    if (!digits()) {
        return false;
    }
    if (*p == ',') {
        p++;
        digits();
    }
    return *p++ == '}';
}

// Printable ASCII in the constructs both engines read alike: escapes only
// of the special characters, well-formed intervals and brackets. What
// passes here may still be refused by the automaton (then it stays with
// regexec); what fails is left to regexec at once.
bool automaton_reads_alike(const char *pattern)
{
    for (const char *p = pattern; *p != '\0';) {
        const char c = *p++;
        if (c < 0x20 || c > 0x7e) {
            return false;
        }
        if (c == '\\') {
            if (*p == '\0' || std::strchr(".[]()*+?{}|^$\\", *p) == nullptr) {
                return false;
            }
            p++;
        } else if (c == '[') {
            if (!screen_bracket(p)) {
                return false;
            }
        } else if (c == '{') {
            if (!screen_interval(p)) {
                return false;
            }
        }
    }
    return true;
}

// The stored text is the compiled one only when it was not cut short.
bool pattern_text_complete(const t_community_entry *e)
{
    return strnlen(e->pattern, sizeof(e->pattern)) < sizeof(e->pattern) - 1;
}

/* ---- the community list index ---- */

template <typename F>
void for_each_community_entry(const t_community_list *list, F &&fn)
{
    for (const t_community_entry *e = TAILQ_FIRST(&list->community_entry_head); e;
         e = TAILQ_NEXT(e, community_entry)) {
        fn(e);
    }
}

// A standard list: its values in one set. An expanded list: the values of
// its whole-community patterns by place, then the patterns that need the
// text, the ones the automaton took marked.
struct community_index : _t_pol_list_exec_index {
    value_set sets[KIND_COUNT][PLACE_COUNT];
    const t_community_entry **text_entries;
    bool *in_automaton;
    std::size_t n_text;
    pattern_set *automaton;

    bool standard_matches(const t_bgp_community &comms) const
    {
        return sets[KIND_VALUE][PLACE_ANY].contains_any(comms.communities, comms.n_communities);
    }

    // One community against the sets of a place.
    bool stands(token_place place, uint32_t v) const
    {
        return sets[KIND_VALUE][place].contains(v) ||
               (!sets[KIND_HIGH][place].empty() && sets[KIND_HIGH][place].contains(v >> 16) &&
                well_known(v) == nullptr);
    }

    // The values stand where their sets need them among the r rendered ones.
    bool places_match(const uint32_t *values, uint32_t r) const
    {
        if (r == 0) {
            return false;
        }
        for (uint32_t i = 0; i < r; i++) {
            if (stands(PLACE_ANY, values[i])) {
                return true;
            }
        }
        return stands(PLACE_FIRST, values[0]) || stands(PLACE_LAST, values[r - 1]) ||
               (r == 1 && stands(PLACE_SOLE, values[0]));
    }

    bool text_matches(const char *text, std::size_t length) const
    {
        const int verdict = automaton != nullptr ? pattern_set_match(automaton, text, length) : -1;
        if (verdict == 1) {
            return true;
        }
        for (std::size_t i = 0; i < n_text; i++) {
            if ((verdict == 0 && in_automaton[i]) ||
                regexec(&text_entries[i]->comppattern, text, 0, nullptr, 0) != 0) {
                continue;
            }
            return true;
        }
        return false;
    }

    static void release_automaton(_t_pol_list_exec_index *index)
    {
        auto *self = static_cast<community_index *>(index);
        pattern_set_release(self->automaton);
        self->automaton = nullptr;
    }
};

// How an expanded entry is answered.
enum pattern_route { BY_VALUES, BY_TEXT };

pattern_route route_of(const t_community_entry *e, whole_communities &lits)
{
    if (pattern_text_complete(e) && names_whole_communities(e->pattern, lits)) {
        return BY_VALUES;
    }
    lits.count = 0;
    return BY_TEXT;
}

struct community_sizes {
    std::size_t per_place[KIND_COUNT][PLACE_COUNT] = {};
    std::size_t text = 0;
};

community_sizes measure_communities(const t_community_list *list)
{
    community_sizes n;
    for_each_community_entry(list, [&](const t_community_entry *e) {
        if (list->type == COMM_LIST_TYPE_STANDARD) {
            n.per_place[KIND_VALUE][PLACE_ANY]++;
            return;
        }
        whole_communities lits;
        if (route_of(e, lits) == BY_TEXT) {
            n.text++;
        }
        for (std::size_t i = 0; i < lits.count; i++) {
            n.per_place[lits.literals[i].kind][lits.literals[i].place]++;
        }
    });
    return n;
}

void fill_communities(community_index *index, const t_community_list *list)
{
    for_each_community_entry(list, [&](const t_community_entry *e) {
        if (list->type == COMM_LIST_TYPE_STANDARD) {
            index->sets[KIND_VALUE][PLACE_ANY].add(e->community);
            return;
        }
        whole_communities lits;
        if (route_of(e, lits) == BY_TEXT) {
            index->text_entries[index->n_text++] = e;
        }
        for (std::size_t i = 0; i < lits.count; i++) {
            const whole_communities::literal &lit = lits.literals[i];
            if (lit.occurs) {
                index->sets[lit.kind][lit.place].add(lit.value);
            }
        }
    });
}

// The patterns the automaton reads as regcomp does go into one automaton;
// a pattern it refuses, or an automaton that cannot be built, leaves them
// to regexec.
void build_automaton(community_index *index, const char **texts)
{
    std::size_t n = 0;
    for (std::size_t i = 0; i < index->n_text; i++) {
        const t_community_entry *e = index->text_entries[i];
        if (pattern_text_complete(e) && automaton_reads_alike(e->pattern)) {
            texts[n++] = e->pattern;
        }
    }
    if (n == 0) {
        return;
    }
    bool *taken = index->in_automaton + index->n_text;  // scratch room after the flags
    index->automaton = pattern_set_build(texts, n, taken);
    for (std::size_t i = 0, k = 0; i < index->n_text; i++) {
        const t_community_entry *e = index->text_entries[i];
        if (pattern_text_complete(e) && automaton_reads_alike(e->pattern)) {
            index->in_automaton[i] = taken[k++];
        }
    }
}

community_index *build_community_index(const t_community_list *list)
{
    const community_sizes n = measure_communities(list);
    block_layout layout{sizeof(community_index)};
    std::size_t set_at[KIND_COUNT][PLACE_COUNT];
    for (std::size_t kind = 0; kind < KIND_COUNT; kind++) {
        for (std::size_t place = 0; place < PLACE_COUNT; place++) {
            set_at[kind][place] = layout.place<uint64_t>(value_set::slots_for(n.per_place[kind][place]));
        }
    }
    const std::size_t entries_at = layout.place<const t_community_entry *>(n.text);
    const std::size_t texts_at = layout.place<const char *>(n.text);
    const std::size_t flags_at = layout.place<bool>(2 * n.text);
    community_index *index = alloc_index<community_index>(layout, POL_MEM_LIST_COMMUNITY);
    if (index == nullptr) {
        return nullptr;
    }
    for (std::size_t kind = 0; kind < KIND_COUNT; kind++) {
        for (std::size_t place = 0; place < PLACE_COUNT; place++) {
            index->sets[kind][place] = {array_at<uint64_t>(index, set_at[kind][place]),
                                        value_set::slots_for(n.per_place[kind][place]), 0};
        }
    }
    index->text_entries = array_at<const t_community_entry *>(index, entries_at);
    index->in_automaton = array_at<bool>(index, flags_at);
    fill_communities(index, list);
    build_automaton(index, array_at<const char *>(index, texts_at));
    index->release = index->automaton != nullptr ? community_index::release_automaton : nullptr;
    return index;
}

// Without an index: the standard list's identity index per value, each
// expanded pattern by regexec.
bool community_list_walk(t_community_list *list, const t_bgp_community &comms, community_text &text)
{
    if (list->type == COMM_LIST_TYPE_STANDARD) {
        for (uint32_t i = 0; i < comms.n_communities; i++) {
            if (pol_standard_community_list_entry(list, comms.communities[i]) != nullptr) {
                return true;
            }
        }
        return false;
    }
    const char *rendered = text.of(comms);
    bool found = false;
    for_each_community_entry(list, [&](const t_community_entry *e) {
        found = found || regexec(&e->comppattern, rendered, 0, nullptr, 0) == 0;
    });
    return found;
}

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

std::size_t render_communities(char *buf, const uint32_t *values, uint32_t count)
{
    char *out = buf;
    const uint32_t fit = values != nullptr ? fitting_tokens(values, count) : 0;
    for (uint32_t i = 0; i < fit; i++) {
        if (i > 0) {
            *out++ = ' ';
        }
        out = write_token(out, values[i], token_length(values[i]));
    }
    *out = '\0';
    return static_cast<std::size_t>(out - buf);
}

const char *community_text::of(const t_bgp_community &comms)
{
    if (!ready) {
        length = render_communities(text, comms.communities, comms.n_communities);
        ready = true;
    }
    return text;
}

bool community_list_matches(t_community_list *list, const t_bgp_community &comms, community_text &text)
{
    if (list == nullptr) {
        return false;
    }
    const community_index *index = current_index<community_index>(list, build_community_index);
    if (index == nullptr) {
        return community_list_walk(list, comms, text);
    }
    if (list->type == COMM_LIST_TYPE_STANDARD) {
        return index->standard_matches(comms);
    }
    if (index->places_match(comms.communities, fitting_tokens(comms.communities, comms.n_communities))) {
        return true;
    }
    if (index->n_text == 0) {
        return false;
    }
    const char *rendered = text.of(comms);
    return index->text_matches(rendered, text.length);
}

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

void free_exec_index(t_pol_list_exec_index **index_pp)
{
    release_index(index_pp);
}

std::size_t exec_index_bytes(const t_pol_list_exec_index *index)
{
    return index != nullptr ? index->bytes : 0;
}

}  // namespace pol
