// Policy blocks, their sequences and default actions, and cflowd templates.
//
// Blocks of each policy type live in their own name-keyed tree of the
// context; sequences live in a tree of their block keyed by number. Every
// operation that changes something sets the caller's changed byte and
// queues the block's users for change notification.
#include <libxml/xmlmemory.h>

#include "pol_util.hpp"

namespace {

void queue_users_of(t_pol_ctx *ctx, t_pol_entry *entry)
{
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
}

void mark_changed(uint8_t *changed)
{
    if (changed != nullptr) {
        *changed = 1;
    }
}

bool is_data_kind(e_pol_type type)
{
    return type == POL_TYPE_DATA || type == POL_TYPE_PFR;
}

// Allocate a block, with the cflowd template a cflowd block carries.
t_pol_block *alloc_block(e_pol_type type, t_cflowd_entry **tmpl)
{
    auto *block = pol::alloc_record<t_pol_block>(POL_MEM_BLOCK);
    if (block == nullptr || type != POL_TYPE_CFLOWD) {
        return block;
    }
    *tmpl = pol::alloc_record<t_cflowd_entry>(POL_MEM_CFLOWD_ENTRY);
    if (*tmpl == nullptr) {
        pol_free(block, POL_MEM_BLOCK);
        return nullptr;
    }
    return block;
}

void init_block_kind(t_pol_ctx *ctx, t_pol_block *block, t_cflowd_entry *tmpl)
{
    if (is_data_kind(block->pol_type)) {
        pol_fwd_block_init(ctx, block);
    } else if (block->pol_type == POL_TYPE_CFLOWD) {
        pol_cflowd_block_init(ctx, block, tmpl);
    } else {
        pol_route_block_init(ctx, block);
    }
}

// Users of a deleted block stay registered but detached: every execution
// through them rejects. They are not unlinked from the dying block.
void detach_users(t_pol_ctx *ctx, t_pol_block *block)
{
    t_pol_user *user;
    TAILQ_FOREACH(user, &block->users_list, pol_block_list_entry) {
        user->pol_block_p = nullptr;
    }
    pol_block_users_add_to_chg_list(ctx, block);
}

}  // namespace

extern "C" {

void pol_xml_free_buf(pol_xml_t *xml)
{
    if (xml->buf == nullptr) {
        return;
    }
    xmlFree(xml->buf);
    xml->buf = nullptr;
    xml->buf_siz = 0;
}

/* ---- blocks ---- */

// The name is the first member of a block, so a bare name buffer serves
// as a lookup key.
int pol_block_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_NAME_SIZE));
}

e_err pol_block_init(t_pol_ctx *ctx)
{
    POL_TREE_CREATE(&ctx->route_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->fwd_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->pfr_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->membership_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->cflowd_templates, pol_block_cmp, t_pol_block, pol_node);
    return ERR_OK;
}

avl_tree_t *pol_block_tree(t_pol_ctx *ctx, e_pol_type type)
{
    switch (type) {
    case POL_TYPE_ROUTE:
        return &ctx->route_policies;
    case POL_TYPE_DATA:
        return &ctx->fwd_policies;
    case POL_TYPE_PFR:
        return &ctx->pfr_policies;
    case POL_TYPE_MEMBERSHIP:
        return &ctx->membership_policies;
    case POL_TYPE_CFLOWD:
        return &ctx->cflowd_templates;
    default:
        return nullptr;
    }
}

t_pol_block *pol_block_find(t_pol_ctx *ctx, const char *name, e_pol_type type, avl_index_t *where)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (tree == nullptr) {
        return nullptr;
    }
    char key[POL_NAME_SIZE];
    pol::copy_name(key, name);
    return static_cast<t_pol_block *>(avl_find(tree, key, where));
}

t_pol_block *pol_block_find_or_create(t_pol_ctx *ctx, const char *name, e_pol_type type,
                                      uint8_t *changed)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (tree == nullptr) {
        return nullptr;
    }
    avl_index_t where = 0;
    if (t_pol_block *found = pol_block_find(ctx, name, type, &where)) {
        return found;
    }
    t_cflowd_entry *tmpl = nullptr;
    t_pol_block *block = alloc_block(type, &tmpl);
    if (block == nullptr) {
        return nullptr;
    }
    pol::copy_name(block->pol_name, name);
    avl_insert(tree, block, where);
    block->pol_type = type;
    TAILQ_INIT(&block->users_list);
    init_block_kind(ctx, block, tmpl);
    block->default_action_entry.entry_action = POL_ACTION_REJECT;
    block->fetch_xml = 1;
    mark_changed(changed);
    return block;
}

t_pol_block *pol_block_first(t_pol_ctx *ctx, e_pol_type type)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    return tree != nullptr ? static_cast<t_pol_block *>(avl_first(tree)) : nullptr;
}

t_pol_block *pol_block_next(t_pol_ctx *ctx, t_pol_block *block, e_pol_type type)
{
    POL_ASSERT(block->pol_type == type);
    return static_cast<t_pol_block *>(avl_walk(pol_block_tree(ctx, type), block, AVL_AFTER));
}

void pol_block_find_and_delete(t_pol_ctx *ctx, const char *name, e_pol_type type, uint8_t *changed)
{
    t_pol_block *block = pol_block_find(ctx, name, type, nullptr);
    if (block == nullptr) {
        return;
    }
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (is_data_kind(type)) {
        pol_fwd_block_delete(ctx, tree, block, true);
    } else {
        if (type == POL_TYPE_CFLOWD) {
            pol_cflowd_block_deinit(ctx, block);
        }
        pol_block_delete(ctx, tree, block, true);
    }
    mark_changed(changed);
}

void pol_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool remove)
{
    uint8_t changed = 0;
    pol_entry_delete_all(ctx, block);
    pol_block_default_action_delete(ctx, block, &changed);
    detach_users(ctx, block);
    if (remove) {
        avl_remove(tree, block);
    }
    pol_xml_free_buf(&block->pol_xml);
    pol_free(block, POL_MEM_BLOCK);
}

// Only from pol_destroy. Cflowd blocks are deliberately freed without
// their templates (see the list of deliberate leaks in docs).
void pol_block_destroy(t_pol_ctx *ctx)
{
    static constexpr e_pol_type kOrder[] = {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR,
                                            POL_TYPE_MEMBERSHIP, POL_TYPE_CFLOWD};
    for (e_pol_type type : kOrder) {
        avl_tree_t *tree = pol_block_tree(ctx, type);
        pol::tree<t_pol_block>(tree).drain([&](t_pol_block *block) {
            if (is_data_kind(type)) {
                pol_fwd_block_delete(ctx, tree, block, false);
            } else {
                pol_block_delete(ctx, tree, block, false);
            }
        });
    }
}

// Compares and copies only the leading part of the default entry, of the
// size of a set-entry record; the default action itself is written by the
// configuration reader.
t_pol_entry *pol_block_default_action_add(t_pol_ctx *ctx, t_pol_block *block,
                                          const t_pol_entry *proto, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (std::memcmp(dflt, proto, sizeof(t_pol_set_entry)) != 0) {
        std::memcpy(static_cast<void *>(dflt), proto, sizeof(t_pol_set_entry));
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return dflt;
}

void pol_block_default_action_delete(t_pol_ctx *ctx, t_pol_block *block, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (dflt->entry_action != POL_ACTION_REJECT) {
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    std::memset(static_cast<void *>(dflt), 0, sizeof(*dflt));
    dflt->entry_action = POL_ACTION_REJECT;
}

/* ---- sequences ---- */

void pol_route_block_init(t_pol_ctx *, t_pol_block *block)
{
    POL_TREE_CREATE(&block->pol_entries, pol_entry_cmp, t_pol_entry, entry_node);
}

// The number is the first member of a sequence, so a bare number serves as
// a lookup key.
int pol_entry_cmp(const void *a, const void *b)
{
    return pol::cmp3(*static_cast<const uint32_t *>(a), *static_cast<const uint32_t *>(b));
}

t_pol_entry *pol_entry_find(t_pol_ctx *, t_pol_block *block, uint32_t num, avl_index_t *where)
{
    return static_cast<t_pol_entry *>(avl_find(&block->pol_entries, &num, where));
}

t_pol_entry *pol_entry_find_or_create(t_pol_ctx *ctx, t_pol_block *block, uint32_t num,
                                      uint8_t *changed)
{
    avl_index_t where = 0;
    if (t_pol_entry *found = pol_entry_find(ctx, block, num, &where)) {
        return found;
    }
    auto *entry = pol::alloc_record<t_pol_entry>(POL_MEM_ENTRY);
    if (entry == nullptr) {
        return nullptr;
    }
    entry->entry_num = num;
    entry->entry_action = POL_ACTION_REJECT;
    entry->pol_block_p = block;
    pol_entry_set_add(ctx, entry);
    avl_insert(&block->pol_entries, entry, where);
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return entry;
}

void pol_entry_find_and_delete(t_pol_ctx *ctx, t_pol_block *block, uint32_t num, uint8_t *changed)
{
    t_pol_entry *entry = pol_entry_find(ctx, block, num, nullptr);
    if (entry == nullptr) {
        return;
    }
    pol_entry_delete(ctx, block, entry, true);
    mark_changed(changed);
}

void pol_entry_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry, bool remove)
{
    uint8_t changed = 0;
    pol_entry_set_delete(ctx, entry, &changed);
    pol_entry_match_delete(ctx, entry, &changed);
    pol_block_users_add_to_chg_list(ctx, block);
    if (remove) {
        avl_remove(&block->pol_entries, entry);
    }
    pol_free(entry, POL_MEM_ENTRY);
}

void pol_entry_delete_all(t_pol_ctx *ctx, t_pol_block *block)
{
    pol::tree<t_pol_entry>(&block->pol_entries).drain([&](t_pol_entry *entry) {
        pol_entry_delete(ctx, block, entry, false);
    });
}

t_pol_entry *pol_entry_action_add(t_pol_ctx *ctx, t_pol_entry *entry, e_pol_action action,
                                  uint8_t *changed)
{
    if (entry->entry_action != action) {
        entry->entry_action = action;
        mark_changed(changed);
        queue_users_of(ctx, entry);
    }
    return entry;
}

void pol_entry_action_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (entry->entry_action != POL_ACTION_REJECT) {
        entry->entry_action = POL_ACTION_REJECT;
        mark_changed(changed);
        queue_users_of(ctx, entry);
    }
}

t_pol_set_entry *pol_entry_set_add(t_pol_ctx *, t_pol_entry *entry)
{
    entry->set_entry.pol_block_p = entry->pol_block_p;
    return &entry->set_entry;
}

void pol_entry_set_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    pol_config_set_bgp_community_upd(entry, nullptr, 0);
    if (entry->entry_set_flags == 0) {
        return;
    }
    entry->entry_set_flags = 0;
    std::memset(static_cast<void *>(&entry->set_entry), 0, sizeof(entry->set_entry));
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

void pol_entry_match_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (entry->entry_match_flags == 0 && entry->match_entry.match_type == POL_MATCH_INVALID) {
        return;
    }
    entry->entry_match_flags = 0;
    std::memset(static_cast<void *>(&entry->match_entry), 0, sizeof(entry->match_entry));
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

/* ---- cflowd templates ---- */

void pol_cflowd_block_init(t_pol_ctx *, t_pol_block *block, t_cflowd_entry *tmpl)
{
    block->pol_cflowd_entry = tmpl;
    tmpl->cflowd_pol_block_p = block;
    POL_TREE_CREATE(&tmpl->collector_db, pol_cflowd_entry_cmp, t_cflowd_collector, avl_node);
}

void pol_cflowd_block_deinit(t_pol_ctx *, t_pol_block *block)
{
    t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (tmpl == nullptr) {
        return;
    }
    pol::tree<t_cflowd_collector> collectors(&tmpl->collector_db);
    while (t_cflowd_collector *coll = collectors.first()) {
        collectors.remove(coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    avl_destroy(&tmpl->collector_db);
    pol_free(tmpl, POL_MEM_CFLOWD_ENTRY);
    block->pol_cflowd_entry = nullptr;
}

// A collector's identity: VPN, address, port, transport (not the source
// interface).
int pol_cflowd_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_cflowd_collector *>(a);
    const auto *y = static_cast<const t_cflowd_collector *>(b);
    if (int r = pol::cmp3(x->vpn_id, y->vpn_id)) {
        return r;
    }
    if (int r = IPADDR_CMP(&x->addr, &y->addr)) {
        return r;
    }
    if (int r = pol::cmp3(x->port, y->port)) {
        return r;
    }
    return pol::cmp3(x->transport_type, y->transport_type);
}

int pol_cflowd_add_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    avl_index_t where = 0;
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, &where));
    if (coll != nullptr) {
        if (std::strncmp(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE) != 0) {
            pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
        }
        return 0;
    }
    coll = pol::alloc_record<t_cflowd_collector>(POL_MEM_CFLOWD_COLL_ENTRY);
    if (coll == nullptr) {
        return 1;
    }
    coll->vpn_id = proto->vpn_id;
    coll->port = proto->port;
    coll->transport_type = proto->transport_type;
    IPADDR_COPY(&coll->addr, &proto->addr);
    coll->cflowd_entry_p = tmpl;
    avl_insert(&tmpl->collector_db, coll, where);
    pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
    return 0;
}

int pol_cflowd_del_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, nullptr));
    if (coll != nullptr) {
        avl_remove(&tmpl->collector_db, coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    return 0;
}

}  // extern "C"
