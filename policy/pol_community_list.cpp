// Community lists (standard: community values; expanded: regular
// expressions run over the text form of a route's communities), the
// community text grammar shared by the reader, execution and the dumps,
// and the community set action of a sequence.
//
// The two kinds live in two trees, so one name may exist once of each.
// A list's identity index holds both kinds of entry under one order:
// community value, then pattern text. Standard entries all carry an empty
// pattern and expanded ones a zero value, so within a list only the field
// of its kind decides. A pattern is stored whole or not at all (at most
// POL_COMMUNITY_PATTERN_SIZE - 1 characters), so it is stored, compared
// and looked up at one width, and an expanded entry owns its compiled
// pattern until the entry goes.
#include <cctype>
#include <cstdio>

#include "pol_list.hpp"

namespace {

struct well_known_community {
    const char *name;
    uint32_t value;
    community_token kind;
};

// In the tokenizer's order of trial, which is also the order of lookup
// for rendering. "internet" deliberately reports the kind of no-export.
constexpr well_known_community kWellKnown[] = {
    {"internet", 0x00000000u, community_token_no_export},
    {"no-export", 0xFFFFFF01u, community_token_no_export},
    {"no-advertise", 0xFFFFFF02u, community_token_no_advertise},
    {"local-AS", 0xFFFFFF03u, community_token_local_as},
};

// Compiled with extended syntax; matching needs no sub-match positions.
constexpr int kPatternFlags = REG_EXTENDED | REG_NOSUB;

constexpr std::size_t kRegexErrorSize = 100;

constexpr std::size_t kPatternMax = POL_COMMUNITY_PATTERN_SIZE - 1;

struct community_key {
    const char *name;
    community_list_type type;
};

int community_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_community_entry *>(a);
    const auto *y = static_cast<const t_community_entry *>(b);
    if (int r = pol::cmp3(x->community, y->community)) {
        return r;
    }
    return pol::fold(std::strncmp(x->pattern, y->pattern, POL_COMMUNITY_PATTERN_SIZE));
}

bool pattern_fits(const char *text)
{
    return strnlen(text, POL_COMMUNITY_PATTERN_SIZE) <= kPatternMax;
}

// Compiles text into re; on failure the compiler's message goes into
// error and nothing stays allocated.
int compile_pattern(regex_t *re, const char *text, char *error, std::size_t size)
{
    const int rc = regcomp(re, text, kPatternFlags);
    if (rc != 0) {
        regerror(rc, re, error, size);
    }
    return rc;
}

using community_match_chain =
    pol::user_chain<t_community_list, t_pol_match_entry, &t_community_list::match_list_head,
                    &t_pol_match_entry::match_community_entry, pol::block_of_match>;

struct community_traits : pol::list_hooks<t_community_list> {
    using list_t = t_community_list;
    using entry_t = t_community_entry;
    using key_t = community_key;
    using chains = pol::chain_list<community_match_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_COMMUNITY;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_COMMUNITY;
    static constexpr std::size_t list_node_offset = offsetof(t_community_list, community_list_node);
    static constexpr auto entries = &t_community_list::community_entry_head;
    static constexpr auto entry_link = &t_community_entry::community_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_community_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = community_entry_cmp;

    static std::array<avl_tree_t *, 2> trees(t_pol_ctx *ctx)
    {
        return {&ctx->community_lists, &ctx->exp_community_lists};
    }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t key)
    {
        return pol_community_list_tree(ctx, key.type);
    }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_community_list *list)
    {
        return pol_community_list_tree(ctx, list->type);
    }
    static void set_key(t_community_list &list, key_t key)
    {
        pol::copy_name(list.community_list_name, key.name);
        list.type = key.type;
    }
    static void on_entry_free(const t_community_list *list, t_community_entry *entry)
    {
        if (list->type == COMM_LIST_TYPE_EXPANDED) {
            regfree(&entry->comppattern);
        }
    }
};

using community_lists = pol::list_family<community_traits>;

// The value of the first token of text, or false when it is not a
// community (including a text of white space only).
bool first_community(const char *text, uint32_t *value)
{
    community_token kind = community_token_unknown;
    community_gettoken(text, &kind, value);
    return kind != community_token_unknown;
}

const char *text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

// Frees the sequence's community set record and its values, unless the
// values are keep (the array a replacement takes over).
void free_set_community(t_pol_set_entry &set, const uint32_t *keep)
{
    if (set.set_community == nullptr) {
        return;
    }
    if (set.set_community->communities != keep) {
        pol_free(set.set_community->communities, POL_MEM_SET_ENTRY_COMMUNITY);
    }
    pol_free(set.set_community, POL_MEM_SET_COMMUNITY);
    set.set_community = nullptr;
}

}  // namespace

extern "C" {

e_err pol_community_list_main_init(t_pol_ctx *ctx)
{
    return community_lists::main_init(ctx);
}

e_err pol_community_list_main_deinit(t_pol_ctx *ctx)
{
    pol_community_list_destroy(ctx, &ctx->community_lists);
    pol_community_list_destroy(ctx, &ctx->exp_community_lists);
    return ERR_OK;
}

// Every list of the tree is emptied and freed, then the tree itself;
// users are not told.
void pol_community_list_destroy(t_pol_ctx *ctx, avl_tree_t *tree)
{
    pol::tree<t_community_list>(tree).drain([&](t_community_list *list) {
        community_lists::del_all_entries(ctx, list);
        community_lists::del(ctx, &list, false);
    });
}

// The name is the first member of a list, so a bare name serves as a key.
int pol_community_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

avl_tree_t *pol_community_list_tree(t_pol_ctx *ctx, community_list_type type)
{
    switch (type) {
    case COMM_LIST_TYPE_STANDARD:
        return &ctx->community_lists;
    case COMM_LIST_TYPE_EXPANDED:
        return &ctx->exp_community_lists;
    default:
        return nullptr;
    }
}

t_community_list *pol_community_list_find(t_pol_ctx *ctx, const char *name,
                                          community_list_type type)
{
    return community_lists::find(ctx, community_key{name, type});
}

t_community_list *pol_community_list_find_or_create(t_pol_ctx *ctx, const char *name,
                                                    community_list_type type, uint8_t *created)
{
    uint8_t made = 0;
    t_community_list *list = community_lists::find_or_create(ctx, community_key{name, type}, &made);
    if (made) {
        POL_DBG(0, "Created new list of type %d, name %s", static_cast<int>(type),
                list->community_list_name);
    }
    if (created != nullptr) {
        *created = made;
    }
    return list;
}

bool pol_community_list_is_empty(const t_community_list *list)
{
    return community_lists::is_empty(list);
}

t_community_entry *pol_standard_community_list_entry(t_community_list *list, uint32_t community)
{
    t_community_entry probe{};
    probe.community = community;
    return community_lists::find_entry(list, &probe);
}

// A text longer than a pattern can be is never stored, so it finds nothing.
t_community_entry *pol_expanded_community_list_entry(t_community_list *list, const char *pattern)
{
    pattern = text_or_empty(pattern);
    if (!pattern_fits(pattern)) {
        return nullptr;
    }
    t_community_entry probe{};
    pol::copy_name(probe.pattern, pattern);
    return community_lists::find_entry(list, &probe);
}

// "is longer than 127 characters", or "does not compile: " and the
// pattern compiler's message.
bool pol_community_pattern_error(const char *text, char *error, size_t size)
{
    text = text_or_empty(text);
    if (!pattern_fits(text)) {
        std::snprintf(error, size, "is longer than %zu characters", kPatternMax);
        return true;
    }
    regex_t re;
    char compiler[kRegexErrorSize];
    if (compile_pattern(&re, text, compiler, sizeof(compiler)) != 0) {
        std::snprintf(error, size, "does not compile: %s", compiler);
        return true;
    }
    regfree(&re);
    return false;
}

t_community_entry *pol_community_list_find_entry(t_pol_ctx *ctx, const char *name,
                                                 const char *text, community_list_type type)
{
    t_community_list *list = community_lists::find(ctx, community_key{name, type});
    switch (type) {
    case COMM_LIST_TYPE_STANDARD: {
        uint32_t value = 0;
        if (!first_community(text, &value)) {
            return nullptr;
        }
        return pol_standard_community_list_entry(list, value);
    }
    case COMM_LIST_TYPE_EXPANDED:
        return pol_expanded_community_list_entry(list, text);
    default:
        return nullptr;
    }
}

// Only the first token of a standard entry's text counts. A text that is
// no community, or a pattern that does not compile, deliberately leaves a
// list this call created in its tree, empty. A pattern too long to be
// stored whole is refused before anything is made.
e_err pol_community_list_add_entry(t_pol_ctx *ctx, const char *name, const char *text,
                                   community_list_type type)
{
    text = text_or_empty(text);
    if (type == COMM_LIST_TYPE_EXPANDED && !pattern_fits(text)) {
        POL_LOG("expanded-community-list pattern:%.*s... longer than %zu characters",
                static_cast<int>(kPatternMax), text, kPatternMax);
        return ERR_BAD_PARAM;
    }
    if (pol_community_list_find_entry(ctx, name, text, type) != nullptr) {
        // Repeating an entry changes nothing but still tells the users.
        const community_key key{name, type};
        community_lists::users_add_to_chg_list(ctx, community_lists::find(ctx, key));
        return ERR_OK;
    }
    uint8_t created = 0;
    t_community_list *list = pol_community_list_find_or_create(ctx, name, type, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    t_community_entry *entry = community_lists::alloc_entry();
    if (entry == nullptr) {
        community_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    if (type == COMM_LIST_TYPE_STANDARD) {
        if (!first_community(text, &entry->community)) {
            pol_free(entry, POL_MEM_ENTRY_COMMUNITY);
            return ERR_BAD_PARAM;
        }
    } else {
        pol::copy_name(entry->pattern, text);
        char error[kRegexErrorSize];
        if (compile_pattern(&entry->comppattern, text, error, sizeof(error)) != 0) {
            POL_LOG("expanded-community-list pattern:%s regex-error %s\n", entry->pattern, error);
            pol_free(entry, POL_MEM_ENTRY_COMMUNITY);
            return ERR_FAIL;
        }
    }
    community_lists::link_entry(list, entry);
    community_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

e_err pol_community_list_del_entry(t_pol_ctx *ctx, const char *name, const char *text,
                                   community_list_type type)
{
    t_community_entry *entry = pol_community_list_find_entry(ctx, name, text, type);
    if (entry == nullptr) {
        return ERR_OK;
    }
    t_community_list *list = community_lists::find(ctx, community_key{name, type});
    community_lists::entry_remove(ctx, list, entry);
    community_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

// The compiled pattern of an expanded entry goes with it.
void pol_community_list_entry_remove(t_pol_ctx *ctx, t_community_list *list,
                                     t_community_entry *entry)
{
    community_lists::entry_remove(ctx, list, entry);
}

void pol_community_list_del_all_entries(t_pol_ctx *ctx, t_community_list *list)
{
    community_lists::del_all_entries(ctx, list);
}

// Deliberately silent: users learn of the emptied list with the next change
// that notifies.
e_err pol_community_list_cfg_del(t_pol_ctx *ctx, const char *name, community_list_type type)
{
    return community_lists::cfg_del(ctx, community_key{name, type});
}

void pol_community_list_del(t_pol_ctx *ctx, t_community_list **list_pp, uint8_t remove)
{
    community_lists::del(ctx, list_pp, remove != 0);
}

t_community_list *pol_community_list_user_add(t_pol_ctx *ctx, const char *name,
                                              community_list_type type, t_pol_match_entry *match)
{
    t_community_list *list = pol_community_list_find_or_create(ctx, name, type, nullptr);
    if (list != nullptr) {
        community_match_chain::add(list, match);
    }
    return list;
}

e_err pol_community_list_user_remove(t_pol_ctx *ctx, t_community_list *list,
                                     t_pol_match_entry *match)
{
    return community_lists::user_remove<community_match_chain>(ctx, list, match);
}

void pol_community_list_users_add_to_chg_list(t_pol_ctx *ctx, t_community_list *list)
{
    community_lists::users_add_to_chg_list(ctx, list);
}

/* ---- community text ---- */

const char *community_gettoken(const char *text, community_token *kind, uint32_t *value)
{
    if (text == nullptr) {
        return nullptr;
    }
    const char *p = text;
    while (std::isspace(static_cast<unsigned char>(*p))) {
        p++;
    }
    if (*p == '\0') {
        return nullptr;
    }
    const auto c = static_cast<unsigned char>(*p);
    if (std::isalpha(c)) {
        // A prefix match: whatever follows the word is left to the caller.
        for (const well_known_community &wk : kWellKnown) {
            const std::size_t len = std::strlen(wk.name);
            if (std::strncmp(p, wk.name, len) == 0) {
                *kind = wk.kind;
                *value = wk.value;
                return p + len;
            }
        }
        *kind = community_token_unknown;
        return nullptr;
    }
    if (std::isdigit(c)) {
        // aa:nn with both halves from 0 to 65535, or a bare 32-bit number.
        // A value out of range is refused rather than wrapped into another
        // community.
        uint32_t upper = 0;
        uint64_t number = 0;
        bool seen_colon = false;
        bool digit_since_colon = false;
        for (; std::isdigit(static_cast<unsigned char>(*p)) || *p == ':'; p++) {
            if (*p == ':') {
                if (seen_colon || number > 0xFFFFu) {
                    *kind = community_token_unknown;
                    return nullptr;
                }
                seen_colon = true;
                upper = static_cast<uint32_t>(number) << 16;
                number = 0;
                digit_since_colon = false;
            } else {
                number = number * 10 + static_cast<uint64_t>(*p - '0');
                digit_since_colon = true;
                if (number > (seen_colon ? 0xFFFFu : UINT32_MAX)) {
                    *kind = community_token_unknown;
                    return nullptr;
                }
            }
        }
        if (!digit_since_colon) {
            *kind = community_token_unknown;
            return nullptr;
        }
        *kind = community_token_val;
        *value = upper + static_cast<uint32_t>(number);
        return p;
    }
    *kind = community_token_unknown;
    return nullptr;
}

char *community_getstr(uint32_t value, char *buf, size_t size)
{
    for (const well_known_community &wk : kWellKnown) {
        if (wk.value == value) {
            std::snprintf(buf, size, "%s", wk.name);
            return buf;
        }
    }
    std::snprintf(buf, size, "%u:%u", value >> 16, value & 0xFFFFu);
    return buf;
}

// Texts that do not fit are left out whole rather than cut: a cut text
// would read as another community to the patterns run over the result.
char *community_list_getstr(char *buf, const uint32_t *values, uint32_t count)
{
    std::size_t used = 0;
    buf[0] = '\0';
    for (uint32_t i = 0; values != nullptr && i < count; i++) {
        char one[POL_COMMUNITY_STR_SIZE];
        community_getstr(values[i], one, sizeof(one));
        const std::size_t need = std::strlen(one) + (i > 0 ? 1 : 0);
        if (used + need >= POL_COMMUNITY_LIST_STR_SIZE) {
            break;
        }
        std::snprintf(buf + used, POL_COMMUNITY_LIST_STR_SIZE - used, "%s%s", i > 0 ? " " : "",
                      one);
        used += need;
    }
    return buf;
}

// Text order of the rendered communities, not numeric order: 100:20 sorts
// before 100:3. A null pointer compares as an empty text.
int pol_community_cmp(const uint32_t *a, const uint32_t *b)
{
    char text_a[POL_COMMUNITY_PATTERN_SIZE] = "";
    char text_b[POL_COMMUNITY_PATTERN_SIZE] = "";
    if (a != nullptr) {
        community_getstr(*a, text_a, sizeof(text_a));
    }
    if (b != nullptr) {
        community_getstr(*b, text_b, sizeof(text_b));
    }
    return pol::fold(std::strncmp(text_a, text_b, sizeof(text_a)));
}

/* ---- community set action ---- */

// Sets (non-empty array) or clears the communities a sequence sets. The
// record takes ownership of the array; a record set before is freed with
// its values. Allocation failure returns 2 and keeps the record set before.
int pol_config_set_bgp_community_upd(t_pol_entry *entry, uint32_t *communities, uint16_t count)
{
    t_pol_set_entry &set = entry->set_entry;
    if (communities != nullptr && count != 0) {
        auto *rec = pol::alloc_record<t_pol_set_community>(POL_MEM_SET_COMMUNITY);
        if (rec == nullptr) {
            return 2;
        }
        free_set_community(set, communities);
        rec->communities = communities;
        rec->n_communities = count;
        set.set_community = rec;
        entry->entry_set_flags |= POL_SET_FLAG_COMMUNITY;
        return 0;
    }
    free_set_community(set, nullptr);
    entry->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY;
    return 0;
}

}  // extern "C"
