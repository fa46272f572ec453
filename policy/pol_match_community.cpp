// Matching a route's communities against a community list: the text the
// expanded patterns read, and the index of a list. A standard list's
// values sit in one value set; an expanded list's patterns that name whole
// communities become value sets by where the community must stand, and
// the patterns that need the text go into one pattern automaton, except
// those it reads differently from regcomp, left to regexec. The index is
// one zero-filled allocation under the list's category; the automaton is
// the one exception: the engine behind it allocates for itself, and a
// failure there leaves the patterns to regexec.
#include <cstring>

#include <zen/zen_util.h>

#include "pol_list.hpp"
#include "pol_match.hpp"
#include "pol_match_internal.hpp"
#include "pol_match_re2.hpp"

namespace pol {

using namespace match_detail;

namespace {

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

}  // namespace

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

}  // namespace pol
