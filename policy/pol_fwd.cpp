// Data and application-route policy blocks: their per-VPN-list level.
//
// A data block keeps, per VPN list it is applied to, one VPN record (in the
// block's tree, keyed by the list's name) holding the sequences for that
// list (keyed by number) and one default sequence. The VPN record is a
// data-policy user of the VPN list of its name. Sequences are made here
// without notification; their setters (pol_fwd_entry*.cpp) notify when a
// field really changes.
#include <cstdio>
#include <cstdlib>

#include "pol_fwd_internal.hpp"

namespace {

t_pol_block *find_block(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type)
{
    pol::fwd::check_type(pol_type);
    return pol_block_find(ctx, pol_name, pol_type, nullptr);
}

// A sequence (the default one included) wired to its VPN record and block.
t_pol_entry *alloc_sequence(t_pol_fwd_vpn_entry *vpn, t_pol_block *block, uint32_t num)
{
    auto *entry = pol::alloc_record<t_pol_entry>(POL_MEM_ENTRY_POLICY);
    if (entry == nullptr) {
        return nullptr;
    }
    entry->entry_num = num;
    entry->pol_block_p = block;
    entry->pol_vpn_p = vpn;
    // The list families reach the block to notify through these.
    entry->match_entry.pol_block_p = block;
    entry->match_entry.pol_vpn_p = vpn;
    entry->set_entry.pol_block_p = block;
    entry->set_entry.pol_vpn_p = vpn;
    entry->set_entry.pol_entry_p = entry;
    entry->match_entry.match_saas_app_list = t_dll{};
    TAILQ_INIT(&entry->set_entry.fwd_tloc_entry_head);
    return entry;
}

void free_vpn_record(t_pol_fwd_vpn_entry *vpn)
{
    pol_free(vpn->default_pol_entry, POL_MEM_ENTRY_POLICY);
    avl_destroy(&vpn->pol_entries);
    pol_free(vpn, POL_MEM_FWD_ENTRY_VPN);
}

// A VPN record with its default sequence (action 1) and empty sequence
// tree, not yet linked anywhere.
t_pol_fwd_vpn_entry *alloc_vpn_record(t_pol_block *block, const char *vpn_name)
{
    auto *vpn = pol::alloc_record<t_pol_fwd_vpn_entry>(POL_MEM_FWD_ENTRY_VPN);
    if (vpn == nullptr) {
        return nullptr;
    }
    pol::copy_name(vpn->vpn_name, vpn_name);
    vpn->default_pol_entry = alloc_sequence(vpn, block, 0);
    if (vpn->default_pol_entry == nullptr) {
        pol_free(vpn, POL_MEM_FWD_ENTRY_VPN);
        return nullptr;
    }
    vpn->default_pol_entry->set_entry.action = 1;
    POL_TREE_CREATE(&vpn->pol_entries, pol_entry_cmp, t_pol_entry, entry_node);
    vpn->pol_block_p = block;
    return vpn;
}

t_pol_fwd_vpn_entry *find_vpn(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                              const char *vpn_name, t_pol_block **block_out)
{
    t_pol_block *block = find_block(ctx, pol_name, pol_type);
    if (block_out != nullptr) {
        *block_out = block;
    }
    return block != nullptr ? pol_fwd_vpn_find(ctx, block, vpn_name, nullptr) : nullptr;
}

// The invariants of the linked lists report under their own source name.
#define DLL_ASSERT(cond)                                 \
    do {                                                 \
        if (!(cond)) {                                   \
            pol_assert_fail("dll", __LINE__, #cond);     \
        }                                                \
    } while (0)

// Configuration leaf tags of the match arrays and their accounting rows.
struct mem_of_tag {
    uint32_t tag;
    e_pol_mem mem;
};
constexpr mem_of_tag kMatchArrayMem[] = {
    {0x553788af, POL_MEM_ENTRY_MATCH_SRC_IP},   {0x3ade449f, POL_MEM_ENTRY_MATCH_SRC_IPV6},
    {0x22688857, POL_MEM_ENTRY_MATCH_DST_IP},   {0x7277a1c1, POL_MEM_ENTRY_MATCH_DST_IPV6},
    {0x0f472580, POL_MEM_ENTRY_MATCH_SRC_PORT}, {0x6475b955, POL_MEM_ENTRY_MATCH_DST_PORT},
    {0x3838f6e1, POL_MEM_ENTRY_MATCH_PROTO},    {0x42a50984, POL_MEM_ENTRY_MATCH_DSCP},
    {0x5b2c4c8c, POL_MEM_ENTRY_MATCH_PKT_LEN},  {0x2ab85e1b, POL_MEM_ENTRY_MATCH_ICMP},
    {0x0e190ee1, POL_MEM_ENTRY_MATCH_ICMP6},
};

}  // namespace

extern "C" {

/* ---- blocks ---- */

e_err pol_fwd_block_init(t_pol_ctx *, t_pol_block *block)
{
    POL_TREE_CREATE(&block->pol_fwd_vpn_list_entries, pol_fwd_vpn_entry_cmp, t_pol_fwd_vpn_entry,
                    vpn_node);
    return ERR_OK;
}

// A data block that still has users is emptied and kept, so that its users
// keep a valid (empty) policy; otherwise it is freed.
void pol_fwd_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool del_from_tree)
{
    pol::tree<t_pol_fwd_vpn_entry>(&block->pol_fwd_vpn_list_entries)
        .drain([&](t_pol_fwd_vpn_entry *vpn) { pol_fwd_vpn_delete(ctx, vpn, false); });
    pol_fwd_block_init(ctx, block);
    if (!TAILQ_EMPTY(&block->users_list)) {
        pol_block_users_add_to_chg_list(ctx, block);
        return;
    }
    if (del_from_tree) {
        avl_remove(tree, block);
    }
    pol_xml_free_buf(&block->pol_xml);
    pol_free(block, POL_MEM_BLOCK);
}

/* ---- VPN records ---- */

// The VPN-list name is the first member of a VPN record.
int pol_fwd_vpn_entry_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_NAME_SIZE));
}

t_pol_fwd_vpn_entry *pol_fwd_vpn_find(t_pol_ctx *, t_pol_block *block, const char *vpn_name,
                                      avl_index_t *where)
{
    char key[POL_NAME_SIZE];
    pol::copy_name(key, vpn_name);
    return static_cast<t_pol_fwd_vpn_entry *>(avl_find(&block->pol_fwd_vpn_list_entries, key, where));
}

// The block must exist; a new record is told to the block's users.
t_pol_fwd_vpn_entry *pol_fwd_vpn_find_or_create(t_pol_ctx *ctx, const char *pol_name,
                                                e_pol_type pol_type, const char *vpn_name)
{
    t_pol_block *block = find_block(ctx, pol_name, pol_type);
    if (block == nullptr) {
        return nullptr;
    }
    avl_index_t where = 0;
    if (t_pol_fwd_vpn_entry *found = pol_fwd_vpn_find(ctx, block, vpn_name, &where)) {
        return found;
    }
    t_pol_fwd_vpn_entry *vpn = alloc_vpn_record(block, vpn_name);
    if (vpn == nullptr) {
        return nullptr;
    }
    vpn->vpn_list_p = pol_vpn_list_fwd_pol_user_add(ctx, vpn->vpn_name, vpn);
    if (vpn->vpn_list_p == nullptr) {
        free_vpn_record(vpn);
        return nullptr;
    }
    avl_insert(&block->pol_fwd_vpn_list_entries, vpn, where);
    pol_block_users_add_to_chg_list(ctx, block);
    return vpn;
}

void pol_fwd_vpn_find_and_delete(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                 const char *vpn_name)
{
    if (t_pol_fwd_vpn_entry *vpn = find_vpn(ctx, pol_name, pol_type, vpn_name, nullptr)) {
        pol_fwd_vpn_delete(ctx, vpn, true);
    }
}

// The default sequence first, then every sequence by the walk that does
// not rebalance.
void pol_fwd_vpn_cleanup(t_pol_ctx *ctx, t_pol_fwd_vpn_entry *vpn)
{
    if (vpn->default_pol_entry != nullptr) {
        pol_fwd_entry_delete(ctx, vpn->default_pol_entry, false);
        vpn->default_pol_entry = nullptr;
    }
    pol::tree<t_pol_entry>(&vpn->pol_entries).drain([&](t_pol_entry *entry) {
        pol_fwd_entry_delete(ctx, entry, false);
    });
}

void pol_fwd_vpn_delete(t_pol_ctx *ctx, t_pol_fwd_vpn_entry *vpn, bool db_remove)
{
    t_pol_block *block = vpn->pol_block_p;
    pol_fwd_vpn_cleanup(ctx, vpn);
    pol_vpn_list_fwd_pol_user_remove(ctx, vpn->vpn_list_p, vpn);
    vpn->vpn_list_p = nullptr;
    if (db_remove) {
        avl_remove(&block->pol_fwd_vpn_list_entries, vpn);
    }
    pol_free(vpn, POL_MEM_FWD_ENTRY_VPN);
    pol_block_users_add_to_chg_list(ctx, block);
}

/* ---- sequences ---- */

t_pol_entry *pol_fwd_entry_find(t_pol_ctx *, t_pol_fwd_vpn_entry *vpn, uint32_t seq_num,
                                avl_index_t *where)
{
    return static_cast<t_pol_entry *>(avl_find(&vpn->pol_entries, &seq_num, where));
}

// The VPN record must exist. No notification: the setters tell the users
// once a field is set.
t_pol_entry *pol_fwd_entry_find_or_create(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                          const char *vpn_name, uint16_t seq_num)
{
    t_pol_block *block = nullptr;
    t_pol_fwd_vpn_entry *vpn = find_vpn(ctx, pol_name, pol_type, vpn_name, &block);
    if (vpn == nullptr) {
        return nullptr;
    }
    avl_index_t where = 0;
    if (t_pol_entry *found = pol_fwd_entry_find(ctx, vpn, seq_num, &where)) {
        return found;
    }
    t_pol_entry *entry = alloc_sequence(vpn, block, seq_num);
    if (entry != nullptr) {
        avl_insert(&vpn->pol_entries, entry, where);
    }
    return entry;
}

void pol_fwd_entry_find_and_delete(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                   const char *vpn_name, uint16_t seq_num)
{
    t_pol_fwd_vpn_entry *vpn = find_vpn(ctx, pol_name, pol_type, vpn_name, nullptr);
    if (vpn == nullptr) {
        return;
    }
    if (t_pol_entry *entry = pol_fwd_entry_find(ctx, vpn, seq_num, nullptr)) {
        pol_fwd_entry_delete(ctx, entry, true);
    }
}

void pol_fwd_entry_delete(t_pol_ctx *ctx, t_pol_entry *entry, bool db_remove)
{
    t_pol_block *block = entry->pol_block_p;
    pol_fwd_entry_cleanup(ctx, entry);
    if (db_remove) {
        avl_remove(&entry->pol_vpn_p->pol_entries, entry);
    }
    pol_free(entry, POL_MEM_ENTRY_POLICY);
    pol_block_users_add_to_chg_list(ctx, block);
}

void pol_fwd_entry_seq_mod(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                           const char *vpn_name, uint32_t seq_num)
{
    t_pol_block *block = nullptr;
    if (pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_name, seq_num, &block) != nullptr) {
        pol_block_users_add_to_chg_list(ctx, block);
    }
}

t_pol_entry *pol_fwd_pol_entry_get(t_pol_ctx *ctx, const char *pol_name, e_pol_type pol_type,
                                   const char *vpn_name, uint32_t seq_num, t_pol_block **block_out)
{
    t_pol_fwd_vpn_entry *vpn = find_vpn(ctx, pol_name, pol_type, vpn_name, block_out);
    return vpn != nullptr ? pol_fwd_entry_find(ctx, vpn, seq_num, nullptr) : nullptr;
}

t_pol_entry *pol_fwd_default_pol_entry_get(t_pol_ctx *ctx, const char *pol_name,
                                           e_pol_type pol_type, const char *vpn_name,
                                           t_pol_block **block_out)
{
    t_pol_fwd_vpn_entry *vpn = find_vpn(ctx, pol_name, pol_type, vpn_name, block_out);
    return vpn != nullptr ? vpn->default_pol_entry : nullptr;
}

e_pol_mem pol_fwd_get_mem_type(uint32_t xml_tag)
{
    for (const mem_of_tag &row : kMatchArrayMem) {
        if (row.tag == xml_tag) {
            return row.mem;
        }
    }
    return POL_MEM_MAX;
}

/* ---- doubly linked lists ---- */

void DLL_ADD(t_dll *p_dll, t_dlnode *p_newnode)
{
    DLL_ASSERT(p_newnode->p_next == NULL && p_newnode->p_prev == NULL);
    if (p_dll->p_tail == nullptr) {
        DLL_ASSERT(p_dll->count == 0);
        p_dll->p_head = p_newnode;
    } else {
        DLL_ASSERT(p_dll->count > 0);
        p_dll->p_tail->p_next = p_newnode;
        p_newnode->p_prev = p_dll->p_tail;
    }
    p_dll->p_tail = p_newnode;
    p_newnode->p_next = nullptr;
    p_dll->count++;
}

void DLL_REMOVE(t_dll *p_dll, t_dlnode *p_node)
{
    DLL_ASSERT(p_dll->count > 0);
    if (p_node->p_prev != nullptr) {
        p_node->p_prev->p_next = p_node->p_next;
    } else {
        p_dll->p_head = p_node->p_next;
    }
    if (p_node->p_next != nullptr) {
        p_node->p_next->p_prev = p_node->p_prev;
    } else {
        p_dll->p_tail = p_node->p_prev;
    }
    p_dll->count--;
    p_node->p_next = nullptr;
    p_node->p_prev = nullptr;
}

}  // extern "C"
