// Application lists: named sets of applications or application families
// that data-policy sequences match as applications, as DNS applications and
// as SaaS applications. Entries are applied silently and published by
// pol_app_list_entry_change; a list lives until its configuration is
// deleted while nobody uses it.
#include "pol_list.hpp"

namespace {

using app_chain = pol::user_chain<t_app_list, t_pol_match_entry, &t_app_list::match_list_head,
                                  &t_pol_match_entry::app_list_entry, pol::block_of_data_user<t_pol_match_entry>>;
using dns_app_chain =
    pol::user_chain<t_app_list, t_pol_match_entry, &t_app_list::match_dns_list_head,
                    &t_pol_match_entry::dns_app_list_entry, pol::block_of_data_user<t_pol_match_entry>>;
using saas_app_chain =
    pol::user_chain<t_app_list, t_app_list_dll_node, &t_app_list::match_saas_list_head,
                    &t_app_list_dll_node::saas_user_entry, pol::block_of_data_user>;

struct app_traits : pol::list_hooks<t_app_list> {
    using list_t = t_app_list;
    using entry_t = t_app_list_entry;
    using key_t = const char *;
    // Notification order: application, DNS, SaaS users.
    using chains = pol::chain_list<app_chain, dns_app_chain, saas_app_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_APP;
    static constexpr e_pol_mem entry_mem = POL_MEM_LIST_APP_ENTRY;
    static constexpr std::size_t list_node_offset = offsetof(t_app_list, app_list_node);
    static constexpr auto entry_tree = &t_app_list::app_list_entry_db;
    static constexpr std::size_t entry_node_offset = offsetof(t_app_list_entry, avl_node);
    static constexpr int (*list_cmp)(const void *, const void *) = pol_app_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = pol_app_list_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->app_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->app_lists; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_app_list *) { return &ctx->app_lists; }
    static void set_key(t_app_list &list, key_t name) { pol::copy_name(list.app_list_name, name); }

    static void on_free(t_app_list *list) { pol_xml_free_buf(&list->app_list_xml); }
};

using app_lists = pol::keyed_list_family<app_traits>;

t_app_list_entry app_probe(const char *app)
{
    t_app_list_entry probe{};
    pol::copy_name(probe.name, app);
    return probe;
}

}  // namespace

extern "C" {

e_err pol_app_list_main_init(t_pol_ctx *ctx)
{
    return app_lists::main_init(ctx);
}

e_err pol_app_list_main_deinit(t_pol_ctx *ctx)
{
    return app_lists::main_deinit(ctx);
}

// The name is the first member of a list, so a bare name serves as a key.
int pol_app_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

int pol_app_list_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_app_list_entry *>(a);
    const auto *y = static_cast<const t_app_list_entry *>(b);
    return pol::fold(std::strncmp(x->name, y->name, sizeof(x->name)));
}

t_app_list *pol_app_list_find(t_pol_ctx *ctx, const char *name)
{
    return app_lists::find(ctx, name);
}

t_app_list *pol_app_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return app_lists::find_or_create(ctx, name, created);
}

bool pol_app_list_is_empty(const t_app_list *list)
{
    return app_lists::is_empty(list);
}

t_app_list *pol_app_list_first(t_pol_ctx *ctx)
{
    return app_lists::first(ctx);
}

t_app_list *pol_app_list_next(t_pol_ctx *ctx, t_app_list *list)
{
    return app_lists::next(ctx, list);
}

// Every add sets the list's type, so the last add decides it.
e_err pol_app_list_entry_add_app(t_pol_ctx *ctx, const char *name, const char *app,
                                 t_app_list_type type)
{
    t_app_list *list = app_lists::find_or_create(ctx, name, nullptr);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    list->app_list_type = type;
    return app_lists::add_entry(list, app_probe(app));
}

// An unknown list name creates the (empty) list.
e_err pol_app_list_entry_del_app(t_pol_ctx *ctx, const char *name, const char *app)
{
    t_app_list *list = app_lists::find_or_create(ctx, name, nullptr);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    app_lists::del_entry(list, app_probe(app));
    return ERR_OK;
}

e_err pol_app_list_entry_change(t_pol_ctx *ctx, const char *name)
{
    return app_lists::entry_change(ctx, name);
}

e_err pol_app_list_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return app_lists::cfg_del(ctx, name);
}

void pol_app_list_del(t_pol_ctx *ctx, t_app_list **list_pp, uint8_t remove)
{
    app_lists::del(ctx, list_pp, remove != 0);
}

t_app_list *pol_app_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return app_lists::user_add<app_chain>(ctx, name, match);
}

e_err pol_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_pol_match_entry *match)
{
    return app_lists::user_remove<app_chain>(ctx, list, match);
}

t_app_list *pol_dns_app_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return app_lists::user_add<dns_app_chain>(ctx, name, match);
}

e_err pol_dns_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_pol_match_entry *match)
{
    return app_lists::user_remove<dns_app_chain>(ctx, list, match);
}

t_app_list *pol_saas_app_list_user_add(t_pol_ctx *ctx, const char *name, t_app_list_dll_node *node)
{
    return app_lists::user_add<saas_app_chain>(ctx, name, node);
}

e_err pol_saas_app_list_user_remove(t_pol_ctx *ctx, t_app_list *list, t_app_list_dll_node *node)
{
    return app_lists::user_remove<saas_app_chain>(ctx, list, node);
}

void pol_app_list_users_add_to_chg_list(t_pol_ctx *ctx, t_app_list *list)
{
    app_lists::users_add_to_chg_list(ctx, list);
}

}  // extern "C"
