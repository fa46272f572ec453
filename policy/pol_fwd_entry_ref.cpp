// The references of data-policy sequences to named lists, each one
// instance of the reference mechanism (pol_fwd_internal.hpp), and the
// release of everything a sequence refers to when it goes.
//
// A new reference is a traits record here, one POL_FWD_REF_FUNCTIONS line
// for its C functions and, when a sequence must drop it at cleanup, its
// place in cleanup_steps.
#include <cstddef>
#include <type_traits>

#include "pol_fwd_internal.hpp"
#include "pol_fwd_label.h"

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
    // Without its list the sequence may aim at its service again.
    static void on_delete(t_pol_ctx *ctx, t_pol_entry *e)
    {
        g_pol_fwd_target_changes++;
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

// A reference of one of a sequence's entries (Member: a member pointer of
// t_pol_match_entry or t_pol_set_entry) to a list of one family, with no
// more to it than registering and the presence bit.
template <typename List, uint64_t Bit, auto Member, auto Name, auto UserAdd, auto UserRemove>
struct plain_ref : pol::fwd::ref_hooks {
    using list_t = List;
    static constexpr bool on_match =
        std::is_same_v<decltype(Member), List *t_pol_match_entry::*>;
    static constexpr mask_of which = on_match ? mask_of::match : mask_of::set;
    static constexpr uint64_t bit = Bit;
    static auto &entry_of(t_pol_entry *e)
    {
        if constexpr (on_match) {
            return e->match_entry;
        } else {
            return e->set_entry;
        }
    }
    static list_t *&held(t_pol_entry *e) { return entry_of(e).*Member; }
    static const char *name_of(const list_t *list) { return list->*Name; }
    static list_t *user_add(t_pol_ctx *ctx, const char *name, t_pol_entry *e)
    {
        return UserAdd(ctx, name, &entry_of(e));
    }
    static void user_remove(t_pol_ctx *ctx, list_t *list, t_pol_entry *e)
    {
        UserRemove(ctx, list, &entry_of(e));
    }
};

// The data-prefix families register a condition in its role.
template <auto UserAdd, e_pol_fwd_pfx_type Role>
t_fwd_pfx_list *pfx_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return UserAdd(ctx, name, Role, match);
}
template <auto UserRemove, e_pol_fwd_pfx_type Role>
e_err pfx_user_remove(t_pol_ctx *ctx, t_fwd_pfx_list *list, t_pol_match_entry *match)
{
    return UserRemove(ctx, list, Role, match);
}

template <uint64_t Bit, auto Member, auto UserAdd, auto UserRemove, e_pol_fwd_pfx_type Role>
using pfx_ref = plain_ref<t_fwd_pfx_list, Bit, Member, &t_fwd_pfx_list::fwd_pfx_list_name,
                          pfx_user_add<UserAdd, Role>, pfx_user_remove<UserRemove, Role>>;

using src_pfx_ref = pfx_ref<POL_FWD_MATCH_FLAG_SRC_LIST, &t_pol_match_entry::match_src_list_p,
                            pol_fwd_pfx_list_user_add, pol_fwd_pfx_list_user_remove, POL_FWD_LIST_SRC>;
using dst_pfx_ref = pfx_ref<POL_FWD_MATCH_FLAG_DST_LIST, &t_pol_match_entry::match_dst_list_p,
                            pol_fwd_pfx_list_user_add, pol_fwd_pfx_list_user_remove, POL_FWD_LIST_DST>;
using src_pfx6_ref = pfx_ref<POL_FWD_MATCH_FLAG_SRC6_LIST, &t_pol_match_entry::match_src6_list_p,
                             pol_fwd_pfx6_list_user_add, pol_fwd_pfx6_list_user_remove, POL_FWD_LIST_SRC>;
using dst_pfx6_ref = pfx_ref<POL_FWD_MATCH_FLAG_DST6_LIST, &t_pol_match_entry::match_dst6_list_p,
                             pol_fwd_pfx6_list_user_add, pol_fwd_pfx6_list_user_remove, POL_FWD_LIST_DST>;
using app_id_ref = plain_ref<t_fwd_app_id, POL_FWD_MATCH_FLAG_APP_ID, &t_pol_match_entry::match_app_id_p,
                             &t_fwd_app_id::app_id_name, pol_fwd_app_id_user_add, pol_fwd_app_id_user_remove>;
using app_list_ref = plain_ref<t_app_list, POL_FWD_MATCH_FLAG_APP_LIST, &t_pol_match_entry::match_app_list_p,
                               &t_app_list::app_list_name, pol_app_list_user_add, pol_app_list_user_remove>;
using dns_app_list_ref =
    plain_ref<t_app_list, POL_FWD_MATCH_FLAG_DNS_APP_LIST, &t_pol_match_entry::match_dns_app_list_p,
              &t_app_list::app_list_name, pol_dns_app_list_user_add, pol_dns_app_list_user_remove>;

// A policer given with no name only lets go of the one held.
struct policer_ref
    : plain_ref<t_fwd_policer, POL_FWD_SET_FLAG_POLICER, &t_pol_set_entry::set_fwd_policer_p,
                &t_fwd_policer::fwd_policer_name, pol_fwd_policer_user_add, pol_fwd_policer_user_remove> {
    static constexpr bool name_optional = true;
};

// The SLA class of an app-route sequence; its strictness and preferred
// colours go with it.
struct sla_class_ref
    : plain_ref<t_fwd_sla_class, POL_FWD_SET_FLAG_SLA_CLASS, &t_pol_set_entry::set_sla_class_p,
                &t_fwd_sla_class::sla_class_name, pol_fwd_sla_class_user_add,
                pol_fwd_sla_class_user_remove> {
    static void on_delete(t_pol_ctx *, t_pol_entry *e)
    {
        e->set_entry.set_sla_strict = 0;
        e->set_entry.set_sla_preferred_color = 0;
    }
};

/* ---- SaaS application lists: a set of lists, one node per list ---- */

t_app_list_dll_node *saas_node_of(t_dlnode *node)
{
    return reinterpret_cast<t_app_list_dll_node *>(reinterpret_cast<char *>(node) -
                                                    offsetof(t_app_list_dll_node, app_list_node));
}

bool holds_saas_list(t_pol_entry *entry, const char *name)
{
    for (t_dlnode *n = entry->match_entry.match_saas_app_list.p_head; n != nullptr; n = n->p_next) {
        if (std::strncmp(saas_node_of(n)->match_app_list_p->app_list_name, name, POL_LIST_NAME_SIZE) == 0) {
            return true;
        }
    }
    return false;
}

// Registers the sequence with the list and appends a node for it; a list
// already held under the bit is no change.
t_app_list *saas_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name, uint8_t *changed)
{
    if ((entry->entry_match_flags & POL_FWD_MATCH_FLAG_SAAS_APP_LIST) != 0 && holds_saas_list(entry, name)) {
        return nullptr;
    }
    auto *node = pol::alloc_record<t_app_list_dll_node>(POL_MEM_LIST_APP);
    if (node == nullptr) {
        POL_LOG("Failed to allocate memory for t_app_list_dll_node running low on memory");
        return nullptr;
    }
    node->match_entry_p = &entry->match_entry;
    t_app_list *list = pol_saas_app_list_user_add(ctx, name, node);
    if (list == nullptr) {
        pol_free(node, POL_MEM_LIST_APP);
        return nullptr;
    }
    entry->entry_match_flags |= POL_FWD_MATCH_FLAG_SAAS_APP_LIST;
    node->match_app_list_p = list;
    DLL_ADD(&entry->match_entry.match_saas_app_list, &node->app_list_node);
    pol::mark_changed(changed);
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
    return list;
}

// Drops every SaaS list the sequence holds.
void saas_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if ((entry->entry_match_flags & POL_FWD_MATCH_FLAG_SAAS_APP_LIST) == 0) {
        return;
    }
    entry->entry_match_flags &= ~POL_FWD_MATCH_FLAG_SAAS_APP_LIST;
    t_dll &held = entry->match_entry.match_saas_app_list;
    while (held.p_head != nullptr) {
        t_app_list_dll_node *node = saas_node_of(held.p_head);
        DLL_REMOVE(&held, &node->app_list_node);
        pol_saas_app_list_user_remove(ctx, node->match_app_list_p, node);
        pol_free(node, POL_MEM_LIST_APP);
    }
    pol::mark_changed(changed);
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
}

// The cleanup step of the SaaS lists.
struct saas_step : pol::fwd::ref_hooks {
    using list_t = t_app_list;
    static constexpr bool own_release = true;
    static void release(t_pol_ctx *ctx, t_pol_entry *e)
    {
        uint8_t changed = 0;
        saas_delete(ctx, e, &changed);
    }
};

/* ---- the SLA class with its two values ---- */

struct sla_values {
    const char *name;  // null or empty: keep the held class
    uint8_t strict;
    uint32_t pref_color;
    bool strict_changed;
    bool prefer_changed;
};

// Sets the SLA class of an app-route sequence: the same class updates its
// values in place, another one moves the registration and stores all.
bool set_sla_class(t_pol_ctx *ctx, t_pol_entry *entry, const sla_values &v)
{
    t_pol_set_entry &set = entry->set_entry;
    const t_fwd_sla_class *held = set.set_sla_class_p;
    const char *name = v.name != nullptr && v.name[0] != '\0' ? v.name
                       : held != nullptr                       ? held->sla_class_name
                                                               : nullptr;
    const uint8_t strict = v.strict_changed ? v.strict : set.set_sla_strict;
    const uint32_t pref = v.prefer_changed ? v.pref_color : set.set_sla_preferred_color;
    if (name == nullptr) {
        return false;
    }
    const bool same = (entry->entry_set_flags & POL_FWD_SET_FLAG_SLA_CLASS) != 0 && held != nullptr &&
                      std::strncmp(held->sla_class_name, name, POL_LIST_NAME_SIZE) == 0;
    uint8_t changed = 0;
    if (!same) {
        char kept[POL_LIST_NAME_SIZE];
        strlcpy(kept, name, sizeof(kept));  // the held class may go while moving
        if (pol::fwd::list_ref<sla_class_ref>::add(ctx, entry, kept, &changed) == nullptr) {
            return changed != 0;
        }
    }
    if (set.set_sla_strict != strict || set.set_sla_preferred_color != pref || !same) {
        set.set_sla_strict = strict;
        set.set_sla_preferred_color = pref;
        changed = 1;
    }
    return changed != 0;
}

void update_sla_class(t_pol_ctx *ctx, t_pol_entry *entry, t_pol_block *block, bool del, const sla_values &v)
{
    uint8_t changed = 0;
    if (del) {
        pol::fwd::list_ref<sla_class_ref>::del(ctx, entry, &changed);
    } else if (set_sla_class(ctx, entry, v)) {
        changed = 1;
    }
    if (changed != 0) {
        pol_block_users_add_to_chg_list(ctx, block);
    }
}

// What a sequence lets go of before it is freed, in this order: the TLOC
// list with the targets; the source, destination, IPv6 source and IPv6
// destination data-prefix lists, the app-id, the application list, the
// DNS application list, the SaaS application lists, the SLA class and the
// policer.
using cleanup_steps =
    pol::fwd::ref_list<tloc_list_ref, src_pfx_ref, dst_pfx_ref, src_pfx6_ref, dst_pfx6_ref, app_id_ref,
                       app_list_ref, dns_app_list_ref, saas_step, sla_class_ref, policer_ref>;

}  // namespace

extern "C" {

POL_FWD_REF_FUNCTIONS(tloc_list_ref, pol_fwd_entry_set_tloc_list_add,
                      pol_fwd_entry_set_tloc_list_delete, pol_fwd_entry_tloc_list_upd)
POL_FWD_REF_FUNCTIONS(src_pfx_ref, pol_fwd_entry_match_src_list_add,
                      pol_fwd_entry_match_src_list_delete, pol_fwd_entry_src_pfx_upd)
POL_FWD_REF_FUNCTIONS(dst_pfx_ref, pol_fwd_entry_match_dst_list_add,
                      pol_fwd_entry_match_dst_list_delete, pol_fwd_entry_dst_pfx_upd)
POL_FWD_REF_FUNCTIONS(src_pfx6_ref, pol_fwd_entry_match_src6_list_add,
                      pol_fwd_entry_match_src6_list_delete, pol_fwd_entry_src_pfx6_upd)
POL_FWD_REF_FUNCTIONS(dst_pfx6_ref, pol_fwd_entry_match_dst6_list_add,
                      pol_fwd_entry_match_dst6_list_delete, pol_fwd_entry_dst_pfx6_upd)
POL_FWD_REF_FUNCTIONS(app_id_ref, pol_fwd_entry_match_app_id_add,
                      pol_fwd_entry_match_app_id_delete, pol_fwd_entry_app_id_upd)
POL_FWD_REF_FUNCTIONS(app_list_ref, pol_fwd_entry_match_app_list_add,
                      pol_fwd_entry_match_app_list_delete, pol_fwd_entry_app_list_upd)
POL_FWD_REF_FUNCTIONS(dns_app_list_ref, pol_fwd_entry_match_dns_app_list_add,
                      pol_fwd_entry_match_dns_app_list_delete, pol_fwd_entry_dns_app_list_upd)
POL_FWD_REF_FUNCTIONS(policer_ref, pol_fwd_entry_set_policer_add, pol_fwd_entry_set_policer_delete,
                      pol_fwd_entry_policer_upd)

t_app_list *pol_fwd_entry_match_saas_app_list_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                                  uint8_t *changed)
{
    return saas_add(ctx, entry, name, changed);
}

void pol_fwd_entry_match_saas_app_list_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    saas_delete(ctx, entry, changed);
}

void pol_fwd_entry_saas_app_list_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                     const char *vpn_name, uint32_t seq_num, const char *name)
{
    pol::fwd::update_reference(ctx, pol_name, pol_type, vpn_name, seq_num, name, saas_add, saas_delete);
}

t_fwd_sla_class *pol_fwd_entry_sla_class_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                             uint8_t *changed)
{
    return pol::fwd::list_ref<sla_class_ref>::add(ctx, entry, name, changed);
}

void pol_fwd_entry_sla_class_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    pol::fwd::list_ref<sla_class_ref>::del(ctx, entry, changed);
}

void pol_fwd_entry_sla_class_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                 const char *vpn_name, uint32_t seq_num, const char *sla_class_name,
                                 uint8_t sla_strict, uint32_t sla_pref_color, bool del,
                                 bool strict_changed, bool prefer_changed)
{
    POL_ASSERT(pol_type == POL_TYPE_PFR);
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block);
    if (entry != nullptr) {
        update_sla_class(ctx, entry, block, del,
                         {sla_class_name, sla_strict, sla_pref_color, strict_changed, prefer_changed});
    }
}

void pol_fwd_default_entry_sla_class_upd(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                         const char *vpn_name, const char *sla_class_name,
                                         uint8_t sla_strict, uint32_t sla_pref_color, bool del)
{
    POL_ASSERT(pol_type == POL_TYPE_PFR);
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_default_pol_entry_get(ctx, pol_name, pol_type, vpn_name, &block);
    if (entry != nullptr) {
        update_sla_class(ctx, entry, block, del, {sla_class_name, sla_strict, sla_pref_color, true, true});
    }
}

int pol_fwd_entry_app_probe_class_add(t_pol_ctx *ctx, const char *sla_class_name,
                                      const char *app_probe_class_name)
{
    t_fwd_sla_class *sla_class = pol_fwd_sla_class_find(ctx, sla_class_name);
    if (sla_class == nullptr) {
        return 1;
    }
    return pol_fwd_app_probe_class_user_add(ctx, app_probe_class_name, sla_class) != nullptr ? 0 : 1;
}

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
