// VPN lists: named sets of VPN-id ranges. Control-policy sequences match on
// them and set them as export targets; data policies are applied per VPN
// list. The fetch_xml flag tells the document publisher to render the list
// again; the list raises it and only the publisher clears it. Ranges queue
// in identity order (lower, then upper bound), the order in which a set
// VPN-list action hands them out.
#include "pol_list.hpp"

namespace {

int vpn_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_pol_vpn_entry *>(a);
    const auto *y = static_cast<const t_pol_vpn_entry *>(b);
    if (int r = pol::cmp3(x->min_vpn_id, y->min_vpn_id)) {
        return r;
    }
    return pol::cmp3(x->max_vpn_id, y->max_vpn_id);
}

using vpn_match_chain = pol::user_chain<t_vpn_list, t_pol_match_entry, &t_vpn_list::match_list_head,
                                        &t_pol_match_entry::match_vpn_entry, pol::block_of_match>;
using vpn_action_chain = pol::user_chain<t_vpn_list, t_pol_set_entry, &t_vpn_list::set_list_head,
                                         &t_pol_set_entry::set_vpn_entry, pol::block_of_set>;
using vpn_fwd_chain = pol::user_chain<t_vpn_list, t_pol_fwd_vpn_entry, &t_vpn_list::fwd_pol_head,
                                      &t_pol_fwd_vpn_entry::fwd_vpn_entry, pol::block_of_fwd_vpn>;

struct vpn_traits : pol::list_hooks<t_vpn_list> {
    using list_t = t_vpn_list;
    using entry_t = t_pol_vpn_entry;
    using key_t = const char *;
    // Notification order: match users, action users, data-policy users.
    using chains = pol::chain_list<vpn_match_chain, vpn_action_chain, vpn_fwd_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_VPN;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_VPN;
    static constexpr std::size_t list_node_offset = offsetof(t_vpn_list, vpn_list_node);
    static constexpr auto entries = &t_vpn_list::vpn_entry_head;
    static constexpr auto entry_link = &t_pol_vpn_entry::vpn_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_vpn_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = vpn_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->vpn_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->vpn_lists; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_vpn_list *) { return &ctx->vpn_lists; }
    static void set_key(t_vpn_list &list, key_t name) { pol::copy_name(list.vpn_list_name, name); }

    static void on_create(t_vpn_list *list) { list->fetch_xml = 1; }
    static void on_free(t_vpn_list *list) { pol_xml_free_buf(&list->vpn_list_xml); }
};

using vpn_lists = pol::list_family<vpn_traits>;

t_pol_vpn_entry range_probe(uint32_t min_id, uint32_t max_id)
{
    t_pol_vpn_entry probe{};
    probe.min_vpn_id = min_id;
    probe.max_vpn_id = max_id;
    return probe;
}

}  // namespace

extern "C" {

e_err pol_vpn_list_main_init(t_pol_ctx *ctx)
{
    return vpn_lists::main_init(ctx);
}

e_err pol_vpn_list_main_deinit(t_pol_ctx *ctx)
{
    return vpn_lists::main_deinit(ctx);
}

int pol_vpn_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_vpn_list *pol_vpn_list_find(t_pol_ctx *ctx, const char *name)
{
    return vpn_lists::find(ctx, name);
}

t_vpn_list *pol_vpn_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return vpn_lists::find_or_create(ctx, name, created);
}

bool pol_vpn_list_is_empty(const t_vpn_list *list)
{
    return vpn_lists::is_empty(list);
}

t_vpn_list *pol_vpn_list_first(t_pol_ctx *ctx)
{
    return vpn_lists::first(ctx);
}

t_vpn_list *pol_vpn_list_next(t_pol_ctx *ctx, t_vpn_list *list)
{
    return vpn_lists::next(ctx, list);
}

// The flag is raised before the entry is allocated, so it stays raised
// even when the allocation then fails.
e_err pol_vpn_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id)
{
    if (pol_vpn_list_find_entry(ctx, name, min_id, max_id) != nullptr) {
        return ERR_OK;
    }
    uint8_t created = 0;
    t_vpn_list *list = vpn_lists::find_or_create(ctx, name, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    list->fetch_xml = 1;
    t_pol_vpn_entry *entry = vpn_lists::alloc_entry();
    if (entry == nullptr) {
        vpn_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    entry->min_vpn_id = min_id;
    entry->max_vpn_id = max_id;
    vpn_lists::link_entry(list, entry);
    vpn_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

// Any delete attempt on an existing list marks it for rendering, even one
// that removes nothing; only a removal notifies.
e_err pol_vpn_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id)
{
    t_vpn_list *list = vpn_lists::find(ctx, name);
    if (list == nullptr) {
        return ERR_OK;
    }
    list->fetch_xml = 1;
    t_pol_vpn_entry probe = range_probe(min_id, max_id);
    t_pol_vpn_entry *entry = vpn_lists::find_entry(list, &probe);
    if (entry == nullptr) {
        return ERR_OK;
    }
    vpn_lists::entry_remove(ctx, list, entry);
    vpn_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

t_pol_vpn_entry *pol_vpn_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id,
                                         uint32_t max_id)
{
    t_pol_vpn_entry probe = range_probe(min_id, max_id);
    return vpn_lists::find_entry(vpn_lists::find(ctx, name), &probe);
}

void pol_vpn_list_entry_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_vpn_entry *entry)
{
    vpn_lists::entry_remove(ctx, list, entry);
}

void pol_vpn_list_del_all_entries(t_pol_ctx *ctx, t_vpn_list *list)
{
    vpn_lists::del_all_entries(ctx, list);
}

// Silent, and leaves fetch_xml as it is.
e_err pol_vpn_list_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return vpn_lists::cfg_del(ctx, name);
}

void pol_vpn_list_del(t_pol_ctx *ctx, t_vpn_list **list_pp, uint8_t remove)
{
    vpn_lists::del(ctx, list_pp, remove != 0);
}

t_vpn_list *pol_vpn_list_match_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return vpn_lists::user_add<vpn_match_chain>(ctx, name, match);
}

e_err pol_vpn_list_match_user_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_match_entry *match)
{
    return vpn_lists::user_remove<vpn_match_chain>(ctx, list, match);
}

t_vpn_list *pol_vpn_list_action_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set)
{
    return vpn_lists::user_add<vpn_action_chain>(ctx, name, set);
}

e_err pol_vpn_list_action_user_remove(t_pol_ctx *ctx, t_vpn_list *list, t_pol_set_entry *set)
{
    return vpn_lists::user_remove<vpn_action_chain>(ctx, list, set);
}

t_vpn_list *pol_vpn_list_fwd_pol_user_add(t_pol_ctx *ctx, const char *name,
                                          t_pol_fwd_vpn_entry *fwd_vpn)
{
    return vpn_lists::user_add<vpn_fwd_chain>(ctx, name, fwd_vpn);
}

e_err pol_vpn_list_fwd_pol_user_remove(t_pol_ctx *ctx, t_vpn_list *list,
                                       t_pol_fwd_vpn_entry *fwd_vpn)
{
    return vpn_lists::user_remove<vpn_fwd_chain>(ctx, list, fwd_vpn);
}

void pol_vpn_list_users_add_to_chg_list(t_pol_ctx *ctx, t_vpn_list *list)
{
    vpn_lists::users_add_to_chg_list(ctx, list);
}

/* ---- text test harness ---- */

// "vpn-list NAME VPN [delete]" or "vpn-list NAME delete"; one VPN at a
// time. The harness's file has no keyword for it.
void pol_test_parse_vpn_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    e_pol_test_list_op op = pol_test_list_op(token, num_tokens);
    if (op == POL_TEST_LIST_INVALID) {
        POL_LOG("vpn-list line needs a name and a vpn or delete");
        return;
    }
    const char *name = token[1];
    if (op == POL_TEST_LIST_DEL_LIST) {
        POL_DBG(0, "Deleting vpn list %s", name);
        vpn_lists::cfg_del(ctx, name);
        return;
    }
    uint64_t vpn = 0;
    if (!pol_test_parse_number(token[2], UINT32_MAX, &vpn)) {
        POL_LOG("vpn-list %s: bad vpn id %s", name, token[2]);
        return;
    }
    const auto id = static_cast<uint32_t>(vpn);
    if (op == POL_TEST_LIST_DEL_ENTRY) {
        POL_DBG(0, "Deleting vpn list %s vpn: %d", name, static_cast<int>(id));
        pol_vpn_list_del_entry(ctx, name, id, id);
    } else {
        POL_DBG(0, "Adding vpn list %s vpn: %d", name, static_cast<int>(id));
        pol_vpn_list_add_entry(ctx, name, id, id);
    }
}

}  // extern "C"
