// The references of data-policy sequences to named lists, each one
// instance of the reference mechanism (pol_fwd_internal.hpp), and the
// release of everything a sequence refers to when it goes.
//
// A new reference is a traits record here, one POL_FWD_REF_FUNCTIONS line
// for its C functions and, when a sequence must drop it at cleanup, its
// place in cleanup_steps.
#include "pol_fwd_internal.hpp"

namespace {

using pol::fwd::mask_of;

// The TLOC list a sequence sets. The block's summary bit follows the
// reference and the sequence's targets are copied from the list.
struct tloc_list_ref : pol::fwd::ref_hooks {
    using list_t = t_tloc_list;
    static constexpr mask_of which = mask_of::set;
    static constexpr uint64_t bit = POL_FWD_SET_FLAG_TLOC_LIST;
    static list_t *&held(t_pol_entry *e) { return e->set_entry.set_fwd_tloc_list_p; }
    static const char *name_of(const list_t *list) { return list->tloc_list_name; }
    static list_t *user_add(t_pol_ctx *ctx, const char *name, t_pol_entry *e)
    {
        return pol_tloc_list_action_user_add(ctx, name, &e->set_entry);
    }
    static void user_remove(t_pol_ctx *ctx, list_t *list, t_pol_entry *e)
    {
        pol_tloc_list_action_user_remove(ctx, list, &e->set_entry);
    }
    static void on_add(t_pol_ctx *ctx, t_pol_entry *e)
    {
        pol::fwd::set_block_flag(e->pol_block_p, POL_FWD_BLOCK_FLAG_SETS_TLOC_LIST, true);
        pol_fwd_upd_set_internal_tloc_list(ctx, &e->set_entry, held(e));
    }
    static void on_delete(t_pol_ctx *ctx, t_pol_entry *e)
    {
        pol_fwd_entry_set_tloc_list_del_internal_list(ctx, &e->set_entry);
        pol::fwd::set_block_flag(e->pol_block_p, POL_FWD_BLOCK_FLAG_SETS_TLOC_LIST, false);
    }
    // At cleanup: leave the list and free the targets, whatever set them.
    static constexpr bool own_release = true;
    static void release(t_pol_ctx *ctx, t_pol_entry *e)
    {
        if (held(e) != nullptr) {
            user_remove(ctx, held(e), e);
            held(e) = nullptr;
        }
        pol_fwd_entry_set_tloc_list_del_internal_list(ctx, &e->set_entry);
    }
};

// What a sequence lets go of before it is freed, in this order: the TLOC
// list with the targets; then the source, destination, IPv6 source and
// IPv6 destination data-prefix lists, the app-id, the application list,
// the DNS application list, the SaaS application lists, the SLA class and
// the policer, as their families come.
using cleanup_steps = pol::fwd::ref_list<tloc_list_ref>;

}  // namespace

extern "C" {

POL_FWD_REF_FUNCTIONS(tloc_list_ref, pol_fwd_entry_set_tloc_list_add,
                      pol_fwd_entry_set_tloc_list_delete, pol_fwd_entry_tloc_list_upd)

void pol_fwd_entry_cleanup(t_pol_ctx *ctx, t_pol_entry *entry)
{
    cleanup_steps::release_all(ctx, entry);
    uint8_t changed = 0;
    pol_fwd_entry_match_cleanup(ctx, entry, &changed);
}

e_err pol_fwd_entry_app_probe_class_upd(const char *, t_fwd_sla_class *)
{
    return ERR_IGNORE;
}

}  // extern "C"
