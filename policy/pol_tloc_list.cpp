// TLOC lists: named sets of transport locators, each with a route
// preference. Sequences match on them (match users) and set them as an
// action (action users); the list also carries its rendered document and
// the flag that asks for the data-policy labels of its action users to be
// recomputed.
//
// Entries queue in identity order (TLOC_CMP: address, colour,
// encapsulation), as in every list family; here it decides above all which
// TLOCs a set action puts in the 64-slot label table when the list has
// more.
#include <arpa/inet.h>

#include <cstdio>

#include "pol_list.hpp"

namespace {

int tloc_entry_cmp(const void *a, const void *b)
{
    return TLOC_CMP(&static_cast<const t_tloc_entry *>(a)->tloc,
                    &static_cast<const t_tloc_entry *>(b)->tloc);
}

using tloc_match_chain = pol::user_chain<t_tloc_list, t_pol_match_entry, &t_tloc_list::match_list_head,
                                         &t_pol_match_entry::match_tloc_entry, pol::block_of_match>;
using tloc_action_chain = pol::user_chain<t_tloc_list, t_pol_set_entry, &t_tloc_list::set_list_head,
                                          &t_pol_set_entry::set_tloc_entry, pol::block_of_set>;

struct tloc_traits : pol::list_hooks<t_tloc_list> {
    using list_t = t_tloc_list;
    using entry_t = t_tloc_entry;
    using key_t = const char *;
    // Match users are told before action users.
    using chains = pol::chain_list<tloc_match_chain, tloc_action_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_TLOC;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_TLOC;
    static constexpr std::size_t list_node_offset = offsetof(t_tloc_list, tloc_list_node);
    static constexpr auto entries = &t_tloc_list::tloc_entry_head;
    static constexpr auto entry_link = &t_tloc_entry::tloc_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_tloc_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = tloc_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->tloc_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->tloc_lists; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_tloc_list *) { return &ctx->tloc_lists; }
    static void set_key(t_tloc_list &list, key_t name) { pol::copy_name(list.tloc_list_name, name); }

    // A new list has no document yet.
    static void on_create(t_tloc_list *list) { list->fetch_xml = 1; }
    static void on_free(t_tloc_list *list) { pol_xml_free_buf(&list->tloc_list_xml); }
};

using tloc_lists = pol::list_family<tloc_traits>;

t_tloc_entry tloc_probe(const t_tloc_id *tloc)
{
    t_tloc_entry probe{};
    TLOC_COPY(&probe.tloc, tloc);
    return probe;
}

void mark_changed(t_tloc_list *list, bool labels)
{
    list->fetch_xml = 1;
    if (labels) {
        list->update_fwd_policy_label = true;
    }
}

// The data-policy label refresh of the set entry runs here once the
// data-policy model exists.
void refresh_data_policy_labels(t_pol_ctx *, t_pol_set_entry *, t_tloc_list *) {}

bool is_data_policy_user(const t_pol_set_entry *set)
{
    const t_pol_block *block = pol::block_of_set(set);
    return set->pol_vpn_p != nullptr && block != nullptr && block->pol_type == POL_TYPE_DATA;
}

}  // namespace

extern "C" {

e_err pol_tloc_list_main_init(t_pol_ctx *ctx)
{
    return tloc_lists::main_init(ctx);
}

e_err pol_tloc_list_main_deinit(t_pol_ctx *ctx)
{
    return tloc_lists::main_deinit(ctx);
}

// The name is the first member of a list, so a bare name serves as a key.
int pol_tloc_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_tloc_list *pol_tloc_list_find(t_pol_ctx *ctx, const char *name)
{
    return tloc_lists::find(ctx, name);
}

t_tloc_list *pol_tloc_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return tloc_lists::find_or_create(ctx, name, created);
}

bool pol_tloc_list_is_empty(const t_tloc_list *list)
{
    return tloc_lists::is_empty(list);
}

t_tloc_list *pol_tloc_list_first(t_pol_ctx *ctx)
{
    return tloc_lists::first(ctx);
}

t_tloc_list *pol_tloc_list_next(t_pol_ctx *ctx, t_tloc_list *list)
{
    return tloc_lists::next(ctx, list);
}

// A TLOC already in the list keeps its place and takes the new preference;
// a new one takes its place in identity order.
// The label flag is deliberately left alone on the first entry of a list
// this call created: no action user can hold labels of it yet.
e_err pol_tloc_list_add_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc,
                              uint32_t preference)
{
    if (t_tloc_entry *entry = pol_tloc_list_find_entry(ctx, name, tloc)) {
        entry->route_preference = preference;
        t_tloc_list *list = tloc_lists::find(ctx, name);
        // Entry contents changed: a match-time index built before is stale.
        tloc_lists::touch(list);
        mark_changed(list, true);
        tloc_lists::users_add_to_chg_list(ctx, list);
        return ERR_OK;
    }
    uint8_t created = 0;
    t_tloc_list *list = tloc_lists::find_or_create(ctx, name, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    // Set before the allocation, so a failed add still asks for a new
    // document of an existing list.
    list->fetch_xml = 1;
    t_tloc_entry *entry = tloc_lists::alloc_entry();
    if (entry == nullptr) {
        tloc_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    TLOC_COPY(&entry->tloc, tloc);
    entry->route_preference = preference;
    tloc_lists::link_entry(list, entry);
    mark_changed(list, created == 0);
    tloc_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

// Deleting a TLOC the list does not hold still asks for a new document,
// but changes no label and tells nobody.
e_err pol_tloc_list_del_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc)
{
    t_tloc_list *list = tloc_lists::find(ctx, name);
    if (list == nullptr) {
        return ERR_OK;
    }
    list->fetch_xml = 1;
    t_tloc_entry probe = tloc_probe(tloc);
    t_tloc_entry *entry = tloc_lists::find_entry(list, &probe);
    if (entry == nullptr) {
        return ERR_OK;
    }
    tloc_lists::entry_remove(ctx, list, entry);
    mark_changed(list, true);
    tloc_lists::users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

t_tloc_entry *pol_tloc_list_find_entry(t_pol_ctx *ctx, const char *name, const t_tloc_id *tloc)
{
    t_tloc_entry probe = tloc_probe(tloc);
    return tloc_lists::find_entry(tloc_lists::find(ctx, name), &probe);
}

// Route matching asks through the identity index, without a name lookup.
t_tloc_entry *pol_tloc_list_lookup(t_tloc_list *list, const t_tloc_id *tloc)
{
    t_tloc_entry probe = tloc_probe(tloc);
    return tloc_lists::find_entry(list, &probe);
}

void pol_tloc_list_entry_remove(t_pol_ctx *ctx, t_tloc_list *list, t_tloc_entry *entry)
{
    tloc_lists::entry_remove(ctx, list, entry);
}

void pol_tloc_list_del_all_entries(t_pol_ctx *ctx, t_tloc_list *list)
{
    tloc_lists::del_all_entries(ctx, list);
}

// Deliberately silent and leaves fetch_xml alone: users learn of the
// emptied list with the next change that notifies.
e_err pol_tloc_list_cfg_del(t_pol_ctx *ctx, const char *name)
{
    return tloc_lists::cfg_del(ctx, name);
}

void pol_tloc_list_del(t_pol_ctx *ctx, t_tloc_list **list_pp, uint8_t remove)
{
    tloc_lists::del(ctx, list_pp, remove != 0);
}

t_tloc_list *pol_tloc_list_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return tloc_lists::user_add<tloc_match_chain>(ctx, name, match);
}

e_err pol_tloc_list_user_remove(t_pol_ctx *ctx, t_tloc_list *list, t_pol_match_entry *match)
{
    return tloc_lists::user_remove<tloc_match_chain>(ctx, list, match);
}

t_tloc_list *pol_tloc_list_action_user_add(t_pol_ctx *ctx, const char *name, t_pol_set_entry *set)
{
    return tloc_lists::user_add<tloc_action_chain>(ctx, name, set);
}

e_err pol_tloc_list_action_user_remove(t_pol_ctx *ctx, t_tloc_list *list, t_pol_set_entry *set)
{
    return tloc_lists::user_remove<tloc_action_chain>(ctx, list, set);
}

void pol_tloc_list_users_add_to_chg_list(t_pol_ctx *ctx, t_tloc_list *list)
{
    tloc_lists::users_add_to_chg_list(ctx, list);
}

// A list keeps its flag until one of its action users belongs to a data
// policy, so lists set only by control policies are visited again later.
void pol_tloc_list_update_fwd_pol_label(t_pol_ctx *ctx, uint8_t force)
{
    for (t_tloc_list *list = tloc_lists::first(ctx); list != nullptr;
         list = tloc_lists::next(ctx, list)) {
        if (!list->update_fwd_policy_label && force == 0) {
            continue;
        }
        tloc_action_chain::for_each(list, [&](t_pol_set_entry *set) {
            if (is_data_policy_user(set)) {
                refresh_data_policy_labels(ctx, set, list);
                list->update_fwd_policy_label = false;
            }
        });
    }
    pol_user_chg_list_notify_all(ctx);
}

/* ---- text test harness ---- */

// "A.B.C.D:COLOR", optionally followed by ":gre" or ":ipsec" (no
// encapsulation without it).
e_err pol_test_tloc_str_to_tloc(const char *text, t_tloc_id *tloc)
{
    unsigned a = 0, b = 0, c = 0, d = 0, color = 0;
    int used = -1;
    if (text == nullptr ||
        std::sscanf(text, "%u.%u.%u.%u:%u%n", &a, &b, &c, &d, &color, &used) != 5 || used < 0 ||
        a > 255 || b > 255 || c > 255 || d > 255 || color > UINT8_MAX) {
        return ERR_BAD_PARAM;
    }
    uint8_t encap = ZEN_TLOC_ENCAP_NONE;
    const char *rest = text + used;
    if (std::strcmp(rest, ":gre") == 0) {
        encap = ZEN_TLOC_ENCAP_GRE;
    } else if (std::strcmp(rest, ":ipsec") == 0) {
        encap = ZEN_TLOC_ENCAP_IPSEC_TUNNEL;
    } else if (*rest != '\0') {
        return ERR_BAD_PARAM;
    }
    *tloc = t_tloc_id{};
    IPADDR_SET_V4(&tloc->addr, htonl((a << 24) | (b << 16) | (c << 8) | d));
    tloc->color = static_cast<uint8_t>(color);
    tloc->encap = encap;
    return ERR_OK;
}

// "tloc-list NAME TLOC [delete]" or "tloc-list NAME delete"; entries are
// added with preference 0.
void pol_test_parse_tloc_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    e_pol_test_list_op op = pol_test_list_op(token, num_tokens);
    if (op == POL_TEST_LIST_INVALID) {
        POL_LOG("tloc-list line needs a name and a tloc or delete");
        return;
    }
    const char *name = token[1];
    if (op == POL_TEST_LIST_DEL_LIST) {
        POL_DBG(0, "Deleting tloc list %s", name);
        tloc_lists::cfg_del(ctx, name);
        return;
    }
    t_tloc_id tloc;
    if (pol_test_tloc_str_to_tloc(token[2], &tloc) != ERR_OK) {
        POL_LOG("tloc-list %s: bad tloc %s", name, token[2]);
        return;
    }
    if (op == POL_TEST_LIST_DEL_ENTRY) {
        POL_DBG(0, "Deleting tloc list %s entry: %s", name, token[2]);
        pol_tloc_list_del_entry(ctx, name, &tloc);
    } else {
        POL_DBG(0, "Adding tloc list %s entry: %s", name, token[2]);
        pol_tloc_list_add_entry(ctx, name, &tloc, 0);
    }
}

}  // extern "C"
