// App-ids: names that data-policy sequences match on. An app-id has no
// values and no document; it lives while it is configured or matched on,
// and goes with its last user.
#include "pol_list.hpp"

namespace {

using app_id_match_chain =
    pol::user_chain<t_fwd_app_id, t_pol_match_entry, &t_fwd_app_id::match_app_id_head,
                    &t_pol_match_entry::match_app_id_entry, pol::block_of_data_user<t_pol_match_entry>>;

struct app_id_traits : pol::list_hooks<t_fwd_app_id> {
    using list_t = t_fwd_app_id;
    using key_t = const char *;
    using chains = pol::chain_list<app_id_match_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_ENTRY_APPID;
    static constexpr std::size_t list_node_offset = offsetof(t_fwd_app_id, app_id_node);
    static constexpr int (*list_cmp)(const void *, const void *) = pol_fwd_app_id_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->app_ids}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->app_ids; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_fwd_app_id *) { return &ctx->app_ids; }
    static void set_key(t_fwd_app_id &a, key_t name) { pol::copy_name(a.app_id_name, name); }
};

using app_ids = pol::list_family<app_id_traits>;

}  // namespace

extern "C" {

e_err pol_fwd_app_id_main_init(t_pol_ctx *ctx)
{
    return app_ids::main_init(ctx);
}

e_err pol_fwd_app_id_main_deinit(t_pol_ctx *ctx)
{
    return app_ids::main_deinit(ctx);
}

// The name is the first member of an app-id, so a bare name serves as a key.
int pol_fwd_app_id_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_fwd_app_id *pol_fwd_app_id_find(t_pol_ctx *ctx, const char *name)
{
    return app_ids::find(ctx, name);
}

t_fwd_app_id *pol_fwd_app_id_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return app_ids::find_or_create(ctx, name, created);
}

bool pol_fwd_app_id_is_empty(const t_fwd_app_id *app_id)
{
    return app_ids::is_empty(app_id);
}

e_err pol_fwd_app_id_entry_change(t_pol_ctx *ctx, const char *name)
{
    t_fwd_app_id *app_id = app_ids::find_or_create(ctx, name, nullptr);
    if (app_id == nullptr) {
        return ERR_ALLOC;
    }
    app_ids::users_add_to_chg_list(ctx, app_id);
    return ERR_OK;
}

// Only an app-id no sequence matches on goes; one in use stays.
e_err pol_fwd_app_id_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return app_ids::cfg_del(ctx, name);
}

void pol_fwd_app_id_del(t_pol_ctx *ctx, t_fwd_app_id **app_id_pp, uint8_t remove)
{
    app_ids::del(ctx, app_id_pp, remove != 0);
}

t_fwd_app_id *pol_fwd_app_id_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return app_ids::user_add<app_id_match_chain>(ctx, name, match);
}

// The last user takes the app-id with it.
e_err pol_fwd_app_id_user_remove(t_pol_ctx *ctx, t_fwd_app_id *app_id, t_pol_match_entry *match)
{
    return app_ids::user_remove<app_id_match_chain>(ctx, app_id, match);
}

void pol_fwd_app_id_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_app_id *app_id)
{
    app_ids::users_add_to_chg_list(ctx, app_id);
}

}  // extern "C"
