// Policy blocks, their numbered sequences and default actions.
//
// Blocks of each policy type live in their own name-keyed tree of the
// context; sequences live in a tree of their block keyed by number. Every
// operation that changes something sets the caller's changed byte and
// queues the block's users for change notification. The conditions and
// actions of a sequence are kept by the store (pol_store.cpp), the
// templates of cflowd blocks by pol_cflowd.cpp.
#include <libxml/xmlmemory.h>

#include "pol_util.hpp"

namespace {

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
    if (pol::is_data_kind(block->pol_type)) {
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
    pol::mark_changed(changed);
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
    if (pol::is_data_kind(type)) {
        pol_fwd_block_delete(ctx, tree, block, true);
    } else {
        if (type == POL_TYPE_CFLOWD) {
            pol_cflowd_block_deinit(ctx, block);
        }
        pol_block_delete(ctx, tree, block, true);
    }
    pol::mark_changed(changed);
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
            if (pol::is_data_kind(type)) {
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
        pol::mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return dflt;
}

void pol_block_default_action_delete(t_pol_ctx *ctx, t_pol_block *block, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (dflt->entry_action != POL_ACTION_REJECT) {
        pol::mark_changed(changed);
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
    pol::mark_changed(changed);
    pol_block_users_add_to_chg_list(ctx, block);
    return entry;
}

void pol_entry_find_and_delete(t_pol_ctx *ctx, t_pol_block *block, uint32_t num, uint8_t *changed)
{
    t_pol_entry *entry = pol_entry_find(ctx, block, num, nullptr);
    if (entry == nullptr) {
        return;
    }
    pol_entry_delete(ctx, block, entry, true);
    pol::mark_changed(changed);
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
        pol::mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
    }
    return entry;
}

void pol_entry_action_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (entry->entry_action != POL_ACTION_REJECT) {
        entry->entry_action = POL_ACTION_REJECT;
        pol::mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
    }
}

}  // extern "C"
