// The actions of a data-policy sequence that aim traffic at transport
// locators: set TLOC, service, and the sequence's internal TLOC list (its
// targets with the labels the host gave), rebuilt wholesale from a TLOC
// list or from the host's answer for a service.
#include "pol_fwd_internal.hpp"
#include "pol_fwd_label.h"

namespace {

bool append_target(t_pol_set_entry *set, const t_tloc_id &tloc, uint32_t label, uint32_t preference)
{
    auto *node = pol::alloc_record<t_tloc_entry>(POL_MEM_ENTRY_TLOC);
    if (node == nullptr) {
        return false;
    }
    TLOC_COPY(&node->tloc, &tloc);
    node->set_fwd_label = label;
    node->route_preference = preference;
    TAILQ_INSERT_TAIL(&set->fwd_tloc_entry_head, node, tloc_entry);
    return true;
}

void set_tloc_merge(t_tloc_id &stored, const t_tloc_id &given, bool encap_set)
{
    if (!IPADDR_IS_ZERO(&given.addr)) {
        IPADDR_COPY(&stored.addr, &given.addr);
    }
    if (given.color != 0) {
        stored.color = given.color;
    }
    if (encap_set) {
        stored.encap = given.encap;
    }
}

// Service kept or changed: the service, its local flags and the block's
// summary bit. False when nothing is to be done.
bool service_change(t_pol_entry *entry, t_pol_block *block, uint16_t svc_type, bool svc_del)
{
    t_pol_set_entry &s = entry->set_entry;
    if (svc_type != 0 || svc_del) {
        g_pol_fwd_target_changes++;
    }
    if (svc_type != 0) {
        s.set_fwd_service = svc_type;
        entry->entry_set_flags |= POL_FWD_SET_FLAG_SERVICE;
        pol::fwd::set_block_flag(block, POL_FWD_BLOCK_FLAG_SETS_SERVICE, true);
        return true;
    }
    if (svc_del) {
        s.set_fwd_service = 0;
        s.set_fwd_service_local = false;
        s.set_fwd_service_local_restrict = false;
        entry->entry_set_flags &= ~POL_FWD_SET_FLAG_SERVICE;
        pol::fwd::set_block_flag(block, POL_FWD_BLOCK_FLAG_SETS_SERVICE, false);
        return true;
    }
    return (block->pol_flags & POL_FWD_BLOCK_FLAG_SETS_SERVICE) != 0;
}

}  // namespace

namespace pol::fwd {

bool append_service_targets(t_pol_ctx *ctx, t_pol_set_entry *set, const t_tloc_id &target)
{
    uint32_t label = 0;
    t_tloc_id tloc = target;
    t_pol_te_info te{};
    if (t_pol_label_cb_f cb = ctx->init_params.pol_label_cb) {
        cb(1, 0, 0, 0, set->set_fwd_vpn_id, set->set_fwd_service, set->set_fwd_service_local, &label,
           &tloc, &te, 0);
    }
    if (te.num_entries == 0 && label != 0 && !append_target(set, target, label, 0)) {
        POL_LOG("Failed to allocate memory for fwd_tloc_entry");
        return false;
    }
    const uint32_t n = te.num_entries < POL_MAX_TE_ENTRIES ? te.num_entries : POL_MAX_TE_ENTRIES;
    for (uint32_t i = 0; i < n; i++) {
        const t_pol_te &e = te.entries[i];
        if (!append_target(set, e.tloc, e.label, e.preference)) {
            break;
        }
    }
    return true;
}

}  // namespace pol::fwd

extern "C" {

/* ---- internal TLOC list ---- */

int pol_fwd_entry_set_tloc_list_del_internal_list(t_pol_ctx *, t_pol_set_entry *set)
{
    while (t_tloc_entry *node = TAILQ_FIRST(&set->fwd_tloc_entry_head)) {
        TAILQ_REMOVE(&set->fwd_tloc_entry_head, node, tloc_entry);
        pol_free(node, POL_MEM_ENTRY_TLOC);
    }
    return 0;
}

// A copy of the list's TLOCs with their labels and preferences; when a
// node cannot be had the sequence drops its TLOC list altogether.
int pol_fwd_upd_set_internal_tloc_list(t_pol_ctx *ctx, t_pol_set_entry *set, t_tloc_list *tloc_list)
{
    g_pol_fwd_target_changes++;
    pol_fwd_entry_set_tloc_list_del_internal_list(ctx, set);
    t_tloc_entry *e;
    TAILQ_FOREACH(e, &tloc_list->tloc_entry_head, tloc_entry) {
        if (!append_target(set, e->tloc, e->set_fwd_label, e->route_preference)) {
            uint8_t changed = 0;
            pol_fwd_entry_set_tloc_list_delete(ctx, set->pol_entry_p, &changed);
            return 1;
        }
    }
    return 0;
}

/* ---- set TLOC ---- */

// Data policies only. A TLOC without address or colour keeps the stored
// one, and the encapsulation changes only when encap_set; a null TLOC
// removes the action. The users are always told.
e_err pol_fwd_entry_tloc_upd(struct _t_vmgmtd_context *, t_pol_ctx *ctx, const char *pol_name,
                             e_pol_type pol_type, const char *vpn_name, uint32_t seq_num,
                             bool encap_set, const t_tloc_id *tloc)
{
    POL_ASSERT(pol_type == POL_TYPE_DATA);
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block);
    if (entry == nullptr) {
        return ERR_NOT_FOUND;
    }
    t_pol_set_entry &s = entry->set_entry;
    g_pol_fwd_target_changes++;
    if (tloc != nullptr) {
        set_tloc_merge(s.set_fwd_tloc, *tloc, encap_set);
        entry->entry_set_flags |= POL_FWD_SET_FLAG_TLOC;
    } else {
        s.set_fwd_tloc = t_tloc_id{};
        entry->entry_set_flags &= ~POL_FWD_SET_FLAG_TLOC;
    }
    pol::fwd::set_block_flag(block, POL_FWD_BLOCK_FLAG_SETS_TLOC, tloc != nullptr);
    pol_block_users_add_to_chg_list(ctx, block);
    return ERR_OK;
}

/* ---- service ---- */

// A non-zero svc_type sets the service, svc_del removes it with its local
// flags; with neither, only a block that has a service sequence goes on.
// A sequence without a TLOC list then rebuilds its targets: from the host's
// answer for the service when no TLOC address is set, none otherwise.
e_err pol_fwd_entry_svc_upd(struct _t_vmgmtd_context *, t_pol_ctx *ctx, const char *pol_name,
                            e_pol_type pol_type, const char *vpn_name, uint32_t seq_num,
                            uint16_t svc_type, bool svc_del)
{
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block);
    if (entry == nullptr) {
        return ERR_NOT_FOUND;
    }
    if (!service_change(entry, block, svc_type, svc_del)) {
        return ERR_OK;
    }
    t_pol_set_entry *set = &entry->set_entry;
    if (set->set_fwd_tloc_list_p == nullptr) {
        pol_fwd_entry_set_tloc_list_del_internal_list(ctx, set);
        if ((entry->entry_set_flags & POL_FWD_SET_FLAG_SERVICE) != 0 &&
            IPADDR_IS_ZERO(&set->set_fwd_tloc.addr) &&
            !pol::fwd::append_service_targets(ctx, set, t_tloc_id{})) {
            return ERR_OK;
        }
    }
    pol_block_users_add_to_chg_list(ctx, block);
    return ERR_OK;
}

}  // extern "C"
