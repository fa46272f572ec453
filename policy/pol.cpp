// Policy blocks, their numbered sequences and default actions.
//
// Blocks of each policy type live in their own name-keyed tree of the
// context; sequences live in a tree of their block keyed by number. Every
// operation that changes something sets the caller's changed byte and
// queues the block's users for change notification. The conditions and
// actions of a sequence are kept by the store (pol_store.cpp), the
// templates of cflowd blocks by pol_cflowd.cpp.
#include <libxml/xmlmemory.h>

#include <cstddef>
#include <type_traits>

#include "pol_match.hpp"
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

// Deletes a block by its type's rule: data blocks through the data-policy
// model (which keeps one that still has users), cflowd blocks with their
// templates, the others with their sequences.
void delete_block_of_type(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool remove)
{
    if (pol::is_data_kind(block->pol_type)) {
        pol_fwd_block_delete(ctx, tree, block, remove);
        return;
    }
    if (block->pol_type == POL_TYPE_CFLOWD) {
        pol_cflowd_block_deinit(ctx, block);
    }
    pol_block_delete(ctx, tree, block, remove);
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

// Equality of one field, never reading padding: a field whose type has no
// padding byte for byte, the others member by member.
template <typename T>
bool same_field(const T &a, const T &b)
{
    static_assert(std::has_unique_object_representations_v<T>,
                  "a field with padding needs a comparison of its own");
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

bool same_field(const t_ipaddr &a, const t_ipaddr &b)
{
    return pol::same_addr(a, b);
}

bool same_field(const t_tloc_id &a, const t_tloc_id &b)
{
    return pol::same_tloc(a, b);
}

bool same_field(const avl_node_t &a, const avl_node_t &b)
{
    return a.avl_child[0] == b.avl_child[0] && a.avl_child[1] == b.avl_child[1] &&
           a.avl_parent == b.avl_parent && a.avl_balance == b.avl_balance &&
           a.avl_which == b.avl_which;
}

bool same_field(const t_dll &a, const t_dll &b)
{
    return a.p_head == b.p_head && a.p_tail == b.p_tail && a.count == b.count;
}

template <typename R, typename... F>
bool same_fields(const R &a, const R &b, F R::*...fields)
{
    return (same_field(a.*fields, b.*fields) && ...);
}

// The part of a sequence that a default action takes over from its
// prototype is as long as a set-entry record: the sequence's own leading
// fields and its match entry up to the ICMP lists.
static_assert(offsetof(t_pol_entry, match_entry) + offsetof(t_pol_match_entry, match_icmp_list) ==
                  sizeof(t_pol_set_entry),
              "the fields compared below no longer make up the copied part");

bool same_default_part(const t_pol_entry &a, const t_pol_entry &b)
{
    using E = t_pol_entry;
    using M = t_pol_match_entry;
    return same_fields(a, b, &E::entry_num, &E::entry_node, &E::pol_block_p, &E::pol_vpn_p,
                       &E::entry_match_flags, &E::entry_set_flags) &&
           same_fields(a.match_entry, b.match_entry, &M::match_type, &M::match_pfx_entry,
                       &M::match_tloc_entry, &M::match_site_entry, &M::match_community_entry,
                       &M::match_vpn_entry, &M::app_list_entry, &M::dns_app_list_entry,
                       &M::saas_app_list_entry, &M::fwd_src_pfx_entry, &M::fwd_dst_pfx_entry,
                       &M::fwd_src_pfx6_entry, &M::fwd_dst_pfx6_entry, &M::match_app_id_entry,
                       &M::match_color_entry, &M::pol_block_p, &M::pol_vpn_p,
                       &M::match_site_list_p, &M::match_tag, &M::match_site_id, &M::match_tloc,
                       &M::match_pfx_list_p, &M::match_vpn_id, &M::match_vpn_list_p,
                       &M::match_tloc_list_p, &M::match_preference, &M::match_domain,
                       &M::match_group, &M::match_carrier, &M::match_origin_type,
                       &M::match_origin_subtype, &M::match_origin_metric, &M::match_originator,
                       &M::match_color, &M::match_color_list_p, &M::match_app_id_p,
                       &M::match_community_list_p, &M::match_exp_community_list_p) &&
           same_fields(a.match_entry, b.match_entry, &M::match_src_ip_list, &M::match_num_src_ip,
                       &M::match_src_list_p, &M::match_src_ipv6_list, &M::match_num_src_ipv6,
                       &M::match_src6_list_p, &M::match_dst_ip_list, &M::match_num_dst_ip,
                       &M::match_dst_list_p, &M::match_dst_ipv6_list, &M::match_num_dst_ipv6,
                       &M::match_dst6_list_p, &M::match_app_list_p, &M::match_dns_app_list_p,
                       &M::match_saas_app_list, &M::match_src_port_list, &M::match_num_src_port,
                       &M::match_dst_port_list, &M::match_num_dst_port, &M::match_proto_list,
                       &M::match_num_proto, &M::match_dscp_list, &M::match_num_dscp,
                       &M::match_plp, &M::match_dns, &M::match_traf_category, &M::match_tcp_flags,
                       &M::match_packet_len, &M::match_num_packet_len);
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
    delete_block_of_type(ctx, pol_block_tree(ctx, type), block, true);
    pol::mark_changed(changed);
}

void pol_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool remove)
{
    uint8_t changed = 0;
    pol_entry_delete_all(ctx, block);
    pol_block_default_action_delete(ctx, block, &changed);
    pol_block_users_detach(ctx, block);
    if (remove) {
        avl_remove(tree, block);
    }
    pol_xml_free_buf(&block->pol_xml);
    pol_free(block, POL_MEM_BLOCK);
}

// Only from pol_destroy: every block goes with all it owns. Users still
// registered are detached first (a data block would stay for them), and
// are freed later with the other users.
void pol_block_destroy(t_pol_ctx *ctx)
{
    static constexpr e_pol_type kOrder[] = {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR,
                                            POL_TYPE_MEMBERSHIP, POL_TYPE_CFLOWD};
    for (e_pol_type type : kOrder) {
        avl_tree_t *tree = pol_block_tree(ctx, type);
        pol::tree<t_pol_block>(tree).drain([&](t_pol_block *block) {
            pol_block_users_detach(ctx, block);
            delete_block_of_type(ctx, tree, block, false);
        });
    }
}

// Compares (field by field) and copies only the leading part of the
// default entry, of the size of a set-entry record; the default action
// itself is written by the configuration reader.
t_pol_entry *pol_block_default_action_add(t_pol_ctx *ctx, t_pol_block *block,
                                          const t_pol_entry *proto, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (!same_default_part(*dflt, *proto)) {
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
    pol::block_changed(block);
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
    // The block's sequence index may name this sequence.
    pol::block_changed(block);
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
