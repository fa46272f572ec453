// SLA classes: the loss, latency and jitter limits that app-route policy
// sequences require of a path, each tied to the app-probe class whose
// probes measure them. The values sit in the record; the configuration
// reader writes them and then calls entry_change. A change of the
// app-probe class reaches the SLA classes that refer to it, and through
// them their users.
#include "pol_list.hpp"

namespace {

using sla_set_chain =
    pol::user_chain<t_fwd_sla_class, t_pol_set_entry, &t_fwd_sla_class::set_sla_class_head,
                    &t_pol_set_entry::set_sla_class_entry, pol::block_of_data_user<t_pol_set_entry>>;

struct sla_class_traits : pol::list_hooks<t_fwd_sla_class> {
    using list_t = t_fwd_sla_class;
    using key_t = const char *;
    using chains = pol::chain_list<sla_set_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_TYPE_PFR;
    static constexpr std::size_t list_node_offset = offsetof(t_fwd_sla_class, sla_class_node);
    static constexpr int (*list_cmp)(const void *, const void *) = pol_fwd_sla_class_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->sla_classes}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->sla_classes; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_fwd_sla_class *) { return &ctx->sla_classes; }
    static void set_key(t_fwd_sla_class &c, key_t name) { pol::copy_name(c.sla_class_name, name); }

    // A new class has no document and no limit configured yet.
    static void on_create(t_fwd_sla_class *c)
    {
        c->fetch_xml = 1;
        c->loss = POL_SLA_LOSS_UNSET;
        c->latency = POL_SLA_LATENCY_UNSET;
        c->jitter = POL_SLA_JITTER_UNSET;
    }

    // A deleted class leaves the chain of its app-probe class first.
    static void on_detach(t_pol_ctx *ctx, t_fwd_sla_class *c)
    {
        pol_fwd_app_probe_class_entry_find_and_delete(ctx, c);
    }

    static void on_free(t_fwd_sla_class *c) { pol_xml_free_buf(&c->sla_class_xml); }
};

using sla_classes = pol::list_family<sla_class_traits>;

}  // namespace

extern "C" {

e_err pol_fwd_sla_class_main_init(t_pol_ctx *ctx)
{
    return sla_classes::main_init(ctx);
}

e_err pol_fwd_sla_class_main_deinit(t_pol_ctx *ctx)
{
    return sla_classes::main_deinit(ctx);
}

// The name is the first member of a class, so a bare name serves as a key.
int pol_fwd_sla_class_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_fwd_sla_class *pol_fwd_sla_class_find(t_pol_ctx *ctx, const char *name)
{
    return sla_classes::find(ctx, name);
}

t_fwd_sla_class *pol_fwd_sla_class_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return sla_classes::find_or_create(ctx, name, created);
}

bool pol_fwd_sla_class_is_empty(const t_fwd_sla_class *sla_class)
{
    return sla_classes::is_empty(sla_class);
}

t_fwd_sla_class *pol_fwd_sla_class_first(t_pol_ctx *ctx)
{
    return sla_classes::first(ctx);
}

t_fwd_sla_class *pol_fwd_sla_class_next(t_pol_ctx *ctx, t_fwd_sla_class *sla_class)
{
    return sla_classes::next(ctx, sla_class);
}

e_err pol_fwd_sla_class_entry_change(t_pol_ctx *ctx, const char *name)
{
    t_fwd_sla_class *sla_class = sla_classes::find_or_create(ctx, name, nullptr);
    if (sla_class == nullptr) {
        return ERR_ALLOC;
    }
    sla_class->fetch_xml = 1;
    sla_classes::users_add_to_chg_list(ctx, sla_class);
    return ERR_OK;
}

// Only a class no sequence uses goes; one in use stays as it is.
e_err pol_fwd_sla_class_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return sla_classes::cfg_del(ctx, name);
}

void pol_fwd_sla_class_del(t_pol_ctx *ctx, t_fwd_sla_class **sla_class_pp, uint8_t remove)
{
    sla_classes::del(ctx, sla_class_pp, remove != 0);
}

t_fwd_sla_class *pol_fwd_sla_class_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set)
{
    return sla_classes::user_add<sla_set_chain>(ctx, name, set);
}

// The class stays even without users: its configuration still exists.
e_err pol_fwd_sla_class_user_remove(t_pol_ctx *, t_fwd_sla_class *sla_class, t_pol_set_entry *set)
{
    if (sla_class == nullptr) {
        return ERR_NOT_FOUND;
    }
    sla_set_chain::remove(sla_class, set);
    return ERR_OK;
}

void pol_fwd_sla_class_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_sla_class *sla_class)
{
    sla_classes::users_add_to_chg_list(ctx, sla_class);
}

}  // extern "C"
