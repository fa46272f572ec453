// What the rooms of the data-policy model share: the lookup every sequence
// update starts with, the block's summary flags, and the one mechanism by
// which a sequence refers to a named list (add, delete, front end and the
// release at sequence cleanup), instantiated per reference with a traits
// record.
#ifndef POLICY_POL_FWD_INTERNAL_HPP
#define POLICY_POL_FWD_INTERNAL_HPP

#include "pol_util.hpp"

namespace pol::fwd {

// Data and app-route policies only; anything else is a programming error.
inline void check_type(e_pol_type pol_type)
{
    POL_ASSERT(pol_type == POL_TYPE_DATA || pol_type == POL_TYPE_PFR);
}

inline void set_block_flag(t_pol_block *block, uint32_t flag, bool on)
{
    if (on) {
        block->pol_flags |= flag;
    } else {
        block->pol_flags &= ~flag;
    }
}

// Finds the sequence and hands it with its block to change, which tells
// whether it changed anything; the block's users are queued only then.
template <typename F>
e_err update_entry(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name,
                   uint32_t seq_num, F &&change)
{
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block);
    if (entry == nullptr) {
        return ERR_NOT_FOUND;
    }
    if (change(entry, block)) {
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return ERR_OK;
}

/* ---- targets of a service action ---- */

// Asks the host's label callback for the sequence's service and appends
// its answer to the internal TLOC list: one node with target and the bare
// label when the answer has no TE entries and a non-zero label, else one
// node per TE entry. False when the bare label's node could not be had;
// a failure inside the TE entries stops there.
bool append_service_targets(t_pol_ctx *ctx, t_pol_set_entry *set, const t_tloc_id &target);

/* ---- references to named lists ---- */

// The front end of a reference: finds the sequence; a name (at most 128
// characters looked at) sets the reference, an absent or empty one
// removes it; the block's users are queued when that changed anything.
template <typename Add, typename Del>
void update_reference(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name,
                      uint32_t seq_num, const char *name, Add &&add, Del &&del)
{
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block);
    if (entry == nullptr) {
        return;
    }
    uint8_t changed = 0;
    if (name != nullptr && strnlen(name, POL_NAME_SIZE) > 0) {
        add(ctx, entry, name, &changed);
    } else {
        del(ctx, entry, &changed);
    }
    if (changed != 0) {
        pol_block_users_add_to_chg_list(ctx, block);
    }
}

enum class mask_of { match, set };

inline uint64_t &flags(t_pol_entry *entry, mask_of which)
{
    return which == mask_of::match ? entry->entry_match_flags : entry->entry_set_flags;
}

// Defaults of a reference's traits; a traits record derives from this and
// supplies:
//   list_t, which (mask_of), bit, held(entry) (the pointer member),
//   name_of(list), user_add(ctx, name, entry) (registers the sequence's
//   match or set entry with the list of that name, creating it if need
//   be; null when it cannot), user_remove(ctx, list, entry);
// and shadows what differs:
//   on_add / on_delete run after the reference was stored / dropped;
//   release(ctx, entry) is the sequence-cleanup step (by default the
//   delete member).
struct ref_hooks {
    static void on_add(t_pol_ctx *, t_pol_entry *) {}
    static void on_delete(t_pol_ctx *, t_pol_entry *) {}
    static constexpr bool own_release = false;
    // A reference whose add may be given no name: it then only lets go of
    // the list held.
    static constexpr bool name_optional = false;
};

template <typename R>
struct list_ref {
    using list_t = typename R::list_t;

    // The same list held under the bit is no change. Otherwise the bit is
    // set, the old list loses this user and the new one gains it; when the
    // new one cannot be had the bit stays set with no list held.
    static list_t *add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name, uint8_t *changed)
    {
        uint64_t &mask = flags(entry, R::which);
        list_t *&held = R::held(entry);
        if constexpr (R::name_optional) {
            if (name == nullptr || name[0] == '\0') {
                if (held != nullptr) {
                    R::user_remove(ctx, held, entry);
                    held = nullptr;
                }
                return nullptr;
            }
        }
        if ((mask & R::bit) != 0 && held != nullptr &&
            std::strncmp(R::name_of(held), name, POL_LIST_NAME_SIZE) == 0) {
            return held;
        }
        mask |= R::bit;
        if (held != nullptr) {
            R::user_remove(ctx, held, entry);
            held = nullptr;
        }
        list_t *list = R::user_add(ctx, name, entry);
        if (list == nullptr) {
            return nullptr;
        }
        held = list;
        R::on_add(ctx, entry);
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
        return held;
    }

    static void del(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
    {
        uint64_t &mask = flags(entry, R::which);
        if ((mask & R::bit) == 0) {
            return;
        }
        mask &= ~R::bit;
        list_t *&held = R::held(entry);
        if (held != nullptr) {
            R::user_remove(ctx, held, entry);
            held = nullptr;
        }
        R::on_delete(ctx, entry);
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
    }

    // A name (at most 128 characters looked at) sets the reference, an
    // absent or empty one removes it.
    static void upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                    const char *vpn_name, uint32_t seq_num, const char *name)
    {
        update_reference(ctx, pol_name, pol_type, vpn_name, seq_num, name, add, del);
    }

    static void release(t_pol_ctx *ctx, t_pol_entry *entry)
    {
        if constexpr (R::own_release) {
            R::release(ctx, entry);
        } else {
            uint8_t changed = 0;
            del(ctx, entry, &changed);
        }
    }
};

// The references a sequence drops at cleanup, in order.
template <typename... Refs>
struct ref_list {
    static void release_all(t_pol_ctx *ctx, t_pol_entry *entry)
    {
        (list_ref<Refs>::release(ctx, entry), ...);
    }
};

}  // namespace pol::fwd

// The C functions of one reference: add, delete and the front end.
#define POL_FWD_REF_FUNCTIONS(Ref, add_fn, delete_fn, upd_fn)                                     \
    pol::fwd::list_ref<Ref>::list_t *add_fn(t_pol_ctx *ctx, t_pol_entry *entry, const char *name, \
                                            uint8_t *changed)                                     \
    {                                                                                             \
        return pol::fwd::list_ref<Ref>::add(ctx, entry, name, changed);                           \
    }                                                                                             \
    void delete_fn(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)                          \
    {                                                                                             \
        pol::fwd::list_ref<Ref>::del(ctx, entry, changed);                                        \
    }                                                                                             \
    void upd_fn(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type, const char *vpn_name,  \
                uint32_t seq_num, const char *name)                                               \
    {                                                                                             \
        pol::fwd::list_ref<Ref>::upd(ctx, pol_name, pol_type, vpn_name, seq_num, name);           \
    }

#endif  // POLICY_POL_FWD_INTERNAL_HPP
