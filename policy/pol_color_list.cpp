// Colour lists: named sets of TLOC colour numbers that sequences match on.
#include "pol_list.hpp"

namespace {

int color_entry_cmp(const void *a, const void *b)
{
    return pol::cmp3(static_cast<const t_color_entry *>(a)->color,
                     static_cast<const t_color_entry *>(b)->color);
}

using color_match_chain = pol::user_chain<t_color_list, t_pol_match_entry, &t_color_list::match_list_head,
                                          &t_pol_match_entry::match_color_entry, pol::block_of_match>;

struct color_traits : pol::list_hooks<t_color_list> {
    using list_t = t_color_list;
    using entry_t = t_color_entry;
    using key_t = const char *;
    using chains = pol::chain_list<color_match_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_COLOR;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_COLOR;
    static constexpr std::size_t list_node_offset = offsetof(t_color_list, color_list_node);
    static constexpr auto entries = &t_color_list::color_entry_head;
    static constexpr auto entry_link = &t_color_entry::color_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_color_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = color_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->color_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->color_lists; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_color_list *) { return &ctx->color_lists; }
    static void set_key(t_color_list &list, key_t name) { pol::copy_name(list.color_list_name, name); }
};

using color_lists = pol::list_family<color_traits>;

// Colours are stored and compared on their low 16 bits.
t_color_entry color_probe(uint32_t color)
{
    t_color_entry probe{};
    probe.color = static_cast<uint16_t>(color);
    return probe;
}

}  // namespace

extern "C" {

e_err pol_color_list_main_init(t_pol_ctx *ctx)
{
    return color_lists::main_init(ctx);
}

e_err pol_color_list_main_deinit(t_pol_ctx *ctx)
{
    return color_lists::main_deinit(ctx);
}

// The name is the first member of a list, so a bare name serves as a key.
int pol_color_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_color_list *pol_color_list_find(t_pol_ctx *ctx, const char *name)
{
    return color_lists::find(ctx, name);
}

t_color_list *pol_color_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return color_lists::find_or_create(ctx, name, created);
}

bool pol_color_list_is_empty(const t_color_list *list)
{
    return color_lists::is_empty(list);
}

// Deliberately a repeated colour notifies the users again, as a new one
// would.
e_err pol_color_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t color)
{
    if (pol_color_list_find_entry(ctx, name, color) != nullptr) {
        color_lists::users_add_to_chg_list(ctx, color_lists::find(ctx, name));
        return ERR_OK;
    }
    uint8_t created = 0;
    t_color_list *list = color_lists::find_or_create(ctx, name, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    t_color_entry *entry = color_lists::alloc_entry();
    if (entry == nullptr) {
        color_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    entry->color = color_probe(color).color;
    color_lists::link_entry(list, entry);
    color_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

e_err pol_color_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t color)
{
    t_color_list *list = color_lists::find(ctx, name);
    t_color_entry probe = color_probe(color);
    t_color_entry *entry = color_lists::find_entry(list, &probe);
    if (entry == nullptr) {
        return ERR_OK;
    }
    color_lists::entry_remove(ctx, list, entry);
    color_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

t_color_entry *pol_color_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t color)
{
    t_color_entry probe = color_probe(color);
    return color_lists::find_entry(color_lists::find(ctx, name), &probe);
}

// Route matching asks through the identity index, without a name lookup.
t_color_entry *pol_color_list_lookup(t_color_list *list, uint32_t color)
{
    t_color_entry probe = color_probe(color);
    return color_lists::find_entry(list, &probe);
}

void pol_color_list_entry_remove(t_pol_ctx *ctx, t_color_list *list, t_color_entry *entry)
{
    color_lists::entry_remove(ctx, list, entry);
}

void pol_color_list_del_all_entries(t_pol_ctx *ctx, t_color_list *list)
{
    color_lists::del_all_entries(ctx, list);
}

// Deliberately silent: users learn of the emptied list with the next change
// that notifies.
e_err pol_color_list_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return color_lists::cfg_del(ctx, name);
}

void pol_color_list_del(t_pol_ctx *ctx, t_color_list **list_pp, uint8_t remove)
{
    color_lists::del(ctx, list_pp, remove != 0);
}

t_color_list *pol_color_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return color_lists::user_add<color_match_chain>(ctx, name, match);
}

e_err pol_color_list_user_remove(t_pol_ctx *ctx, t_color_list *list, t_pol_match_entry *match)
{
    return color_lists::user_remove<color_match_chain>(ctx, list, match);
}

void pol_color_list_users_add_to_chg_list(t_pol_ctx *ctx, t_color_list *list)
{
    color_lists::users_add_to_chg_list(ctx, list);
}

}  // extern "C"
