// Prefix lists: named sets of IPv4 or IPv6 prefixes, each with a length
// condition, and the sequences that match on them. A list is named by the
// pair (address family, name); an entry is identified by its prefix alone,
// its operator and bounds being attributes that a repeated add overwrites.
#include <arpa/inet.h>

#include <cstdio>

#include "pol_list.hpp"

namespace {

int pfx_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_pfx_entry *>(a);
    const auto *y = static_cast<const t_pfx_entry *>(b);
    return IPPREFIX_CMP(&x->prefix, &y->prefix);
}

using pfx_match_chain = pol::user_chain<t_pfx_list, t_pol_match_entry, &t_pfx_list::match_list_head,
                                        &t_pol_match_entry::match_pfx_entry, pol::block_of_match>;

struct pfx_traits : pol::list_hooks<t_pfx_list> {
    using list_t = t_pfx_list;
    using entry_t = t_pfx_entry;
    using key_t = const t_pfx_list_key *;
    using chains = pol::chain_list<pfx_match_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_PREFIX;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_PREFIX;
    static constexpr std::size_t list_node_offset = offsetof(t_pfx_list, pfx_list_node);
    static constexpr auto entries = &t_pfx_list::pfx_entry_head;
    static constexpr auto entry_link = &t_pfx_entry::pfx_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_pfx_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = pfx_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->pfx_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t key)
    {
        return key != nullptr ? &ctx->pfx_lists : nullptr;
    }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_pfx_list *) { return &ctx->pfx_lists; }
    static void set_key(t_pfx_list &list, key_t key)
    {
        list.pfx_af = key->pfx_key_af;
        pol::copy_name(list.pfx_list_name, key->pfx_key_name_p);
    }
};

using pfx_lists = pol::list_family<pfx_traits>;

t_pfx_entry prefix_probe(const t_pfx_entry_param *param)
{
    t_pfx_entry probe{};
    probe.prefix = param->prefix;
    return probe;
}

// The routes an entry can match lie inside its prefix, so their lengths run
// from the prefix's own length to the width of its family. A condition is
// refused when a bound lies beyond that width, when its lower bound exceeds
// its upper one, or when the bound the operator reads lies below the
// prefix's own length (the condition would then refuse every route inside
// the prefix, or say nothing). Operators that read no bound (none, eq, ne
// and unknown ones) only need bounds within the width.
bool condition_fits(const t_pfx_entry_param *param)
{
    const unsigned width = IPPREFIX_IS_V4(&param->prefix) ? 32 : 128;
    const unsigned own = param->prefix.prefixlen;
    const unsigned min = param->preflen_min;
    const unsigned max = param->preflen_max;
    if (own > width || min > width || max > width) {
        return false;
    }
    switch (param->pfx_op) {
    case PFX_OP_RANGE:
        return own <= min && min <= max;
    case PFX_OP_XRANGE:
        return own <= min + 1 && min < max;
    case PFX_OP_LE:
        return own <= max;
    case PFX_OP_LT:
        return own < min;
    case PFX_OP_GE:
        return own <= min;
    case PFX_OP_GT:
        return own <= min && min < width;
    default:
        return true;
    }
}

void set_condition(t_pfx_entry *entry, const t_pfx_entry_param *param)
{
    entry->pfx_op = param->pfx_op;
    entry->preflen_min = param->preflen_min;
    entry->preflen_max = param->preflen_max;
}

}  // namespace

extern "C" {

e_err pol_pfx_list_main_init(t_pol_ctx *ctx)
{
    return pfx_lists::main_init(ctx);
}

e_err pol_pfx_list_main_deinit(t_pol_ctx *ctx)
{
    return pfx_lists::main_deinit(ctx);
}

// IPv4 lists order before IPv6 lists; within a family, by name.
int pol_pfx_list_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_pfx_list *>(a);
    const auto *y = static_cast<const t_pfx_list *>(b);
    if (int r = pol::cmp3(static_cast<unsigned>(x->pfx_af), static_cast<unsigned>(y->pfx_af))) {
        return r;
    }
    return pol::fold(std::strncmp(x->pfx_list_name, y->pfx_list_name, POL_LIST_NAME_SIZE));
}

t_pfx_list *pol_pfx_list_find(t_pol_ctx *ctx, const t_pfx_list_key *key)
{
    return pfx_lists::find(ctx, key);
}

t_pfx_list *pol_pfx_list_find_or_create(t_pol_ctx *ctx, const t_pfx_list_key *key, uint8_t *created)
{
    return pfx_lists::find_or_create(ctx, key, created);
}

bool pol_pfx_list_is_empty(const t_pfx_list *list)
{
    return pfx_lists::is_empty(list);
}

// A prefix already in the list keeps its place and takes the new operator
// and bounds. A condition that does not fit the prefix (condition_fits) is
// refused with ERR_BAD_PARAM and changes nothing.
e_err pol_pfx_list_entry_add(t_pol_ctx *ctx, const t_pfx_list_key *key, const t_pfx_entry_param *param)
{
    if (!condition_fits(param)) {
        return ERR_BAD_PARAM;
    }
    t_pfx_list *list = nullptr;
    if (t_pfx_entry *entry = pol_pfx_list_find_entry(ctx, key, param, &list)) {
        set_condition(entry, param);
        // The match index was built from the old condition.
        pfx_lists::touch(list);
        pfx_lists::users_add_to_chg_list(ctx, list);
        return ERR_OK;
    }
    uint8_t created = 0;
    list = pfx_lists::find_or_create(ctx, key, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    t_pfx_entry *entry = pfx_lists::alloc_entry();
    if (entry == nullptr) {
        pfx_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    entry->prefix = param->prefix;
    set_condition(entry, param);
    pfx_lists::link_entry(list, entry);
    pfx_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

// Only the prefix identifies the entry: the operator and bounds given are
// not compared.
e_err pol_pfx_list_del_entry(t_pol_ctx *ctx, const t_pfx_list_key *key, const t_pfx_entry_param *param)
{
    t_pfx_list *list = nullptr;
    t_pfx_entry *entry = pol_pfx_list_find_entry(ctx, key, param, &list);
    if (entry == nullptr) {
        return ERR_OK;
    }
    pfx_lists::entry_remove(ctx, list, entry);
    pfx_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

t_pfx_entry *pol_pfx_list_find_entry(t_pol_ctx *ctx, const t_pfx_list_key *key,
                                     const t_pfx_entry_param *param, t_pfx_list **list_pp)
{
    if (list_pp != nullptr) {
        *list_pp = nullptr;
    }
    t_pfx_list *list = pfx_lists::find(ctx, key);
    if (list_pp != nullptr) {
        *list_pp = list;
    }
    t_pfx_entry probe = prefix_probe(param);
    return pfx_lists::find_entry(list, &probe);
}

void pol_pfx_list_entry_remove(t_pol_ctx *ctx, t_pfx_list *list, t_pfx_entry *entry)
{
    pfx_lists::entry_remove(ctx, list, entry);
}

void pol_pfx_list_del_all_entries(t_pol_ctx *ctx, t_pfx_list *list)
{
    pfx_lists::del_all_entries(ctx, list);
}

// Deliberately silent: users learn of the emptied list with the next change
// that notifies.
e_err pol_pfx_list_cfg_del(t_pol_ctx *ctx, const t_pfx_list_key *key)
{
    return pfx_lists::cfg_del(ctx, key);
}

void pol_pfx_list_del(t_pol_ctx *ctx, t_pfx_list **list_pp, uint8_t remove)
{
    pfx_lists::del(ctx, list_pp, remove != 0);
}

t_pfx_list *pol_pfx_list_user_add(t_pol_ctx *ctx, const t_pfx_list_key *key, t_pol_match_entry *match)
{
    return pfx_lists::user_add<pfx_match_chain>(ctx, key, match);
}

e_err pol_pfx_list_user_remove(t_pol_ctx *ctx, t_pfx_list *list, t_pol_match_entry *match)
{
    return pfx_lists::user_remove<pfx_match_chain>(ctx, list, match);
}

void pol_pfx_list_users_add_to_chg_list(t_pol_ctx *ctx, t_pfx_list *list)
{
    pfx_lists::users_add_to_chg_list(ctx, list);
}

/* ---- text test harness ---- */

// "A.B.C.D/LEN", IPv4 only.
e_err pol_test_pfx_str_to_pfx(const char *text, t_ipprefix *pfx)
{
    unsigned a = 0, b = 0, c = 0, d = 0, len = 0;
    int used = -1;
    if (text == nullptr ||
        std::sscanf(text, "%u.%u.%u.%u/%u%n", &a, &b, &c, &d, &len, &used) != 5 || used < 0 ||
        text[used] != '\0' || a > 255 || b > 255 || c > 255 || d > 255 || len > 32) {
        return ERR_BAD_PARAM;
    }
    *pfx = t_ipprefix{};
    IPADDR_SET_V4(&pfx->addr, htonl((a << 24) | (b << 16) | (c << 8) | d));
    pfx->prefixlen = static_cast<uint8_t>(len);
    return ERR_OK;
}

// "prefix-list NAME PREFIX [delete]" or "prefix-list NAME delete"; IPv4
// lists, entries without a length condition.
void pol_test_parse_pfx_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    e_pol_test_list_op op = pol_test_list_op(token, num_tokens);
    if (op == POL_TEST_LIST_INVALID) {
        POL_LOG("prefix-list line needs a name and a prefix or delete");
        return;
    }
    const t_pfx_list_key key = {POL_AF_IPV4, token[1]};
    if (op == POL_TEST_LIST_DEL_LIST) {
        POL_DBG(0, "Deleting prefix list %s", token[1]);
        pfx_lists::cfg_del(ctx, &key);
        return;
    }
    t_pfx_entry_param param{};
    param.pfx_op = PFX_OP_NONE;
    if (pol_test_pfx_str_to_pfx(token[2], &param.prefix) != ERR_OK) {
        POL_LOG("prefix-list %s: bad prefix %s", token[1], token[2]);
        return;
    }
    if (op == POL_TEST_LIST_DEL_ENTRY) {
        POL_DBG(0, "Deleting prefix list %s prefix: %s", token[1], token[2]);
        pol_pfx_list_del_entry(ctx, &key, &param);
    } else {
        POL_DBG(0, "Adding prefix list %s prefix: %s", token[1], token[2]);
        pol_pfx_list_entry_add(ctx, &key, &param);
    }
}

}  // extern "C"
