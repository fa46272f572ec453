// App-probe classes: a forwarding class and the DSCP to mark probes with
// on each TLOC colour. Sequences do not use a class directly: SLA classes
// refer to it, and a change of the class is a change of every SLA class
// that refers to it (which tells its own users). A class lives while it
// has colour entries, SLA classes or a forwarding class.
#include "pol_list.hpp"

namespace {

int color_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_app_probe_class_color_entry *>(a);
    const auto *y = static_cast<const t_app_probe_class_color_entry *>(b);
    return pol::cmp3(x->color, y->color);
}

// SLA classes hear of a change through their own entry_change, not
// through a policy block.
using probe_sla_chain =
    pol::user_chain<t_app_probe_class, t_fwd_sla_class, &t_app_probe_class::sla_class_head,
                    &t_fwd_sla_class::set_app_probe_class_sla_entry, nullptr>;

struct probe_class_traits : pol::list_hooks<t_app_probe_class> {
    using list_t = t_app_probe_class;
    using entry_t = t_app_probe_class_color_entry;
    using key_t = const char *;
    using chains = pol::chain_list<probe_sla_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_APP_PROBE_CLASS;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_APP_PROBE_CLASS_COLOR;
    static constexpr std::size_t list_node_offset = offsetof(t_app_probe_class, app_probe_class_node);
    static constexpr auto entries = &t_app_probe_class::app_probe_class_color_entry_head;
    static constexpr auto entry_link = &t_app_probe_class_color_entry::app_probe_class_color_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_app_probe_class_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = color_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->app_probe_class_list}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->app_probe_class_list; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_app_probe_class *)
    {
        return &ctx->app_probe_class_list;
    }
    static void set_key(t_app_probe_class &c, key_t name) { pol::copy_name(c.app_probe_class_name, name); }

    // A configured forwarding class keeps the class alive.
    static bool extra_empty(const t_app_probe_class *c) { return c->forwarding_class[0] == '\0'; }
    static void on_create(t_app_probe_class *c) { c->fetch_xml = 1; }
    static void on_free(t_app_probe_class *c) { pol_xml_free_buf(&c->app_probe_class_xml); }
};

using probe_classes = pol::list_family<probe_class_traits>;

// Colours count on their low 16 bits.
t_app_probe_class_color_entry color_probe(uint32_t color)
{
    t_app_probe_class_color_entry probe{};
    probe.color = static_cast<uint16_t>(color);
    return probe;
}

}  // namespace

extern "C" {

e_err pol_app_probe_class_main_init(t_pol_ctx *ctx)
{
    return probe_classes::main_init(ctx);
}

e_err pol_app_probe_class_main_deinit(t_pol_ctx *ctx)
{
    return probe_classes::main_deinit(ctx);
}

// The name is the first member of a class, so a bare name serves as a key.
int pol_app_probe_class_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_app_probe_class *pol_app_probe_class_find(t_pol_ctx *ctx, const char *name)
{
    return probe_classes::find(ctx, name);
}

t_app_probe_class *pol_app_probe_class_find_or_create(t_pol_ctx *ctx, const char *name,
                                                      uint8_t *created)
{
    return probe_classes::find_or_create(ctx, name, created);
}

bool pol_app_probe_class_is_empty(const t_app_probe_class *probe_class)
{
    return probe_classes::is_empty(probe_class);
}

t_app_probe_class *pol_app_probe_class_first(t_pol_ctx *ctx)
{
    return probe_classes::first(ctx);
}

t_app_probe_class *pol_app_probe_class_next(t_pol_ctx *ctx, t_app_probe_class *probe_class)
{
    return probe_classes::next(ctx, probe_class);
}

e_err pol_app_probe_class_entry_change(t_pol_ctx *ctx, const char *name, const char *fwd_class)
{
    t_app_probe_class *probe_class = probe_classes::find_or_create(ctx, name, nullptr);
    if (probe_class == nullptr) {
        return ERR_ALLOC;
    }
    if (fwd_class != nullptr) {
        pol::copy_name(probe_class->forwarding_class, fwd_class);
    }
    probe_class->fetch_xml = 1;
    pol_app_probe_class_users_add_to_chg_list(ctx, probe_class);
    return ERR_OK;
}

// Only for an existing class (an unknown one gives ERR_ALLOC and nothing
// is created). Nobody is told: the entry_change that follows does that.
e_err pol_app_probe_class_add_entry(t_pol_ctx *ctx, const char *name, uint32_t color, uint8_t dscp)
{
    t_app_probe_class *probe_class = probe_classes::find(ctx, name);
    if (probe_class == nullptr) {
        return ERR_ALLOC;
    }
    if (t_app_probe_class_color_entry *entry = pol_app_probe_class_find_entry(ctx, probe_class, color)) {
        entry->dscp = dscp;
    } else {
        entry = probe_classes::alloc_entry();
        if (entry == nullptr) {
            return ERR_ALLOC;
        }
        entry->color = static_cast<uint16_t>(color);
        entry->dscp = dscp;
        probe_classes::link_entry(probe_class, entry);
    }
    probe_class->fetch_xml = 1;
    return ERR_OK;
}

// Any delete on an existing class asks for a new document; only a removal
// notifies.
e_err pol_app_probe_class_del_entry(t_pol_ctx *ctx, const char *name, uint32_t color)
{
    t_app_probe_class *probe_class = probe_classes::find(ctx, name);
    if (probe_class == nullptr) {
        return ERR_OK;
    }
    probe_class->fetch_xml = 1;
    t_app_probe_class_color_entry *entry = pol_app_probe_class_find_entry(ctx, probe_class, color);
    if (entry == nullptr) {
        return ERR_OK;
    }
    probe_classes::entry_remove(ctx, probe_class, entry);
    pol_app_probe_class_users_add_to_chg_list(ctx, probe_class);
    return ERR_OK;
}

t_app_probe_class_color_entry *pol_app_probe_class_find_entry(t_pol_ctx *, t_app_probe_class *probe_class,
                                                              uint32_t color)
{
    t_app_probe_class_color_entry probe = color_probe(color);
    return probe_classes::find_entry(probe_class, &probe);
}

void pol_app_probe_class_color_entry_remove(t_pol_ctx *ctx, t_app_probe_class *probe_class,
                                            t_app_probe_class_color_entry *entry)
{
    probe_classes::entry_remove(ctx, probe_class, entry);
}

void pol_app_probe_class_del_all_entries(t_pol_ctx *ctx, t_app_probe_class *probe_class)
{
    probe_classes::del_all_entries(ctx, probe_class);
}

// The colour entries go; the class itself only when nothing else holds
// it, so a class with a forwarding class stays in the tree.
e_err pol_app_probe_class_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return probe_classes::cfg_del(ctx, name);
}

void pol_app_probe_class_del(t_pol_ctx *ctx, t_app_probe_class **probe_class_pp, uint8_t remove)
{
    probe_classes::del(ctx, probe_class_pp, remove != 0);
}

/* ---- the SLA classes that refer to a class ---- */

// Links an SLA class to an existing class (an unknown one gives null and
// nothing is created). An SLA class is in at most one chain: linked to
// another class, it leaves that one first.
t_app_probe_class *pol_fwd_app_probe_class_user_add(t_pol_ctx *ctx, const char *name,
                                                   t_fwd_sla_class *sla_class)
{
    t_app_probe_class *probe_class = probe_classes::find(ctx, name);
    if (probe_class == nullptr || sla_class->pol_app_probe_class_p == probe_class) {
        return probe_class;
    }
    if (t_app_probe_class *held = sla_class->pol_app_probe_class_p) {
        pol_app_probe_class_sla_entry_remove(ctx, held, sla_class);
    }
    probe_sla_chain::add(probe_class, sla_class);
    sla_class->pol_app_probe_class_p = probe_class;
    pol::copy_name(sla_class->app_probe_class_name, probe_class->app_probe_class_name);
    return probe_class;
}

// An SLA class is in the chain of the class its back pointer names.
t_fwd_sla_class *pol_app_probe_class_find_sla_entry(t_pol_ctx *, t_app_probe_class *probe_class,
                                                    t_fwd_sla_class *sla_class)
{
    if (probe_class == nullptr || sla_class->pol_app_probe_class_p != probe_class) {
        return nullptr;
    }
    return sla_class;
}

// Unlinks the SLA class; a class left with nothing goes.
void pol_app_probe_class_sla_entry_remove(t_pol_ctx *ctx, t_app_probe_class *probe_class,
                                          t_fwd_sla_class *sla_class)
{
    POL_ASSERT(sla_class->pol_app_probe_class_p == probe_class);
    probe_sla_chain::remove(probe_class, sla_class);
    sla_class->pol_app_probe_class_p = nullptr;
    probe_classes::del_if_empty(ctx, probe_class);
}

// 1 when the SLA class names a class that is missing or does not hold it.
int pol_fwd_app_probe_class_entry_find_and_delete(t_pol_ctx *ctx, t_fwd_sla_class *sla_class)
{
    if (sla_class->app_probe_class_name[0] == '\0') {
        return 0;
    }
    t_app_probe_class *probe_class = probe_classes::find(ctx, sla_class->app_probe_class_name);
    if (pol_app_probe_class_find_sla_entry(ctx, probe_class, sla_class) == nullptr) {
        return 1;
    }
    POL_DBG(0, "Removing app-probe-class %s entry from sla class %s", probe_class->app_probe_class_name,
            sla_class->sla_class_name);
    pol_app_probe_class_sla_entry_remove(ctx, probe_class, sla_class);
    std::memset(sla_class->app_probe_class_name, 0, sizeof(sla_class->app_probe_class_name));
    return 0;
}

// Every SLA class that refers to the class renders again and tells its
// own users, in chain order; the class has no users of its own.
void pol_app_probe_class_users_add_to_chg_list(t_pol_ctx *ctx, t_app_probe_class *probe_class)
{
    t_fwd_sla_class *next = nullptr;
    for (t_fwd_sla_class *sla_class = TAILQ_FIRST(&probe_class->sla_class_head); sla_class != nullptr;
         sla_class = next) {
        next = TAILQ_NEXT(sla_class, set_app_probe_class_sla_entry);
        POL_DBG(0, "Notifying app-probe-class %s change to sla-class %s\n",
                probe_class->app_probe_class_name, sla_class->sla_class_name);
        pol_fwd_sla_class_entry_change(ctx, sla_class->sla_class_name);
    }
}

}  // extern "C"
