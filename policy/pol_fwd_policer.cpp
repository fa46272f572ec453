// Policers: named rate limits that data-policy sequences apply as a set
// action. The values sit in the record; the configuration reader hands
// over a policer's leaves and this file stores the ones it knows. The
// fetch_xml flag asks the document publisher to render the policer again.
#include <zen/mgmtd.h>
#include <zen/zen_policy_tags.h>

#include "pol_list.hpp"

namespace {

// Schema tags of the policer's leaves.
enum policer_tag : uint32_t {
#define POLICER_TAG(id, name, tag) kTag##id = tag,
    ZEN_POLICY_TAGS(POLICER_TAG)
#undef POLICER_TAG
};

using policer_set_chain =
    pol::user_chain<t_fwd_policer, t_pol_set_entry, &t_fwd_policer::set_policer_head,
                    &t_pol_set_entry::set_policer_entry, pol::block_of_data_user<t_pol_set_entry>>;

struct policer_traits : pol::list_hooks<t_fwd_policer> {
    using list_t = t_fwd_policer;
    using key_t = const char *;
    using chains = pol::chain_list<policer_set_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_TYPE_POLICER;
    static constexpr std::size_t list_node_offset = offsetof(t_fwd_policer, fwd_policer_node);
    static constexpr int (*list_cmp)(const void *, const void *) = pol_fwd_policer_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->fwd_policers}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->fwd_policers; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_fwd_policer *) { return &ctx->fwd_policers; }
    static void set_key(t_fwd_policer &p, key_t name) { pol::copy_name(p.fwd_policer_name, name); }

    static void on_create(t_fwd_policer *p) { p->fetch_xml = 1; }
    static void on_free(t_fwd_policer *p) { pol_xml_free_buf(&p->fwd_policer_xml); }
};

using policers = pol::list_family<policer_traits>;

// Stores one leaf the policer knows; a removed leaf keeps the stored
// value, and a value of any other kind is a programming error.
void store_leaf(t_fwd_policer *policer, const mgmtd_tag_value_t *p_curr_val)
{
    if (p_curr_val->v.type == C_NOEXISTS) {
        return;
    }
    switch (p_curr_val->tag.tag) {
    case kTagPOLICER_RATE:
        POL_ASSERT((&p_curr_val->v)->type == C_UINT64);
        policer->rate = p_curr_val->v.val.u64;
        break;
    case kTagPOLICER_BURST:
        POL_ASSERT((&p_curr_val->v)->type == C_UINT32);
        policer->burst = p_curr_val->v.val.u32;
        break;
    case kTagPOLICER_EXCEED:
        POL_ASSERT((&p_curr_val->v)->type == C_ENUM_VALUE);
        policer->exceed_action = static_cast<uint8_t>(p_curr_val->v.val.enumvalue);
        break;
    default:
        break;
    }
}

}  // namespace

extern "C" {

e_err pol_fwd_policer_main_init(t_pol_ctx *ctx)
{
    return policers::main_init(ctx);
}

e_err pol_fwd_policer_main_deinit(t_pol_ctx *ctx)
{
    return policers::main_deinit(ctx);
}

// The name is the first member of a policer, so a bare name serves as a key.
int pol_fwd_policer_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_fwd_policer *pol_fwd_policer_find(t_pol_ctx *ctx, const char *name)
{
    return policers::find(ctx, name);
}

t_fwd_policer *pol_fwd_policer_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return policers::find_or_create(ctx, name, created);
}

bool pol_fwd_policer_is_empty(const t_fwd_policer *policer)
{
    return policers::is_empty(policer);
}

t_fwd_policer *pol_fwd_policer_first(t_pol_ctx *ctx)
{
    return policers::first(ctx);
}

t_fwd_policer *pol_fwd_policer_next(t_pol_ctx *ctx, t_fwd_policer *policer)
{
    return policers::next(ctx, policer);
}

e_err pol_fwd_policer_entry_change(t_pol_ctx *ctx, const char *name, uint16_t num_values,
                                   const struct mgmtd_tag_value *val_p)
{
    t_fwd_policer *policer = policers::find_or_create(ctx, name, nullptr);
    if (policer == nullptr) {
        return ERR_ALLOC;
    }
    for (uint16_t i = 0; i < num_values; i++) {
        store_leaf(policer, &val_p[i]);
    }
    policer->fetch_xml = 1;
    policers::users_add_to_chg_list(ctx, policer);
    return ERR_OK;
}

// Only a policer no sequence applies goes; one in use stays as it is.
e_err pol_fwd_policer_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return policers::cfg_del(ctx, name);
}

void pol_fwd_policer_del(t_pol_ctx *ctx, t_fwd_policer **policer_pp, uint8_t remove)
{
    policers::del(ctx, policer_pp, remove != 0);
}

t_fwd_policer *pol_fwd_policer_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set)
{
    return policers::user_add<policer_set_chain>(ctx, name, set);
}

// The policer stays even without users: its configuration still exists.
e_err pol_fwd_policer_user_remove(t_pol_ctx *, t_fwd_policer *policer, t_pol_set_entry *set)
{
    if (policer == nullptr) {
        return ERR_NOT_FOUND;
    }
    policer_set_chain::remove(policer, set);
    return ERR_OK;
}

void pol_fwd_policer_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_policer *policer)
{
    policers::users_add_to_chg_list(ctx, policer);
}

}  // extern "C"
