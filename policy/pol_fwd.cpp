// Data and application-route policy blocks: their per-VPN-list level.
#include "pol_util.hpp"

namespace {

// The VPN-list name is the first member of a VPN record.
int pol_fwd_vpn_entry_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_NAME_SIZE));
}

}  // namespace

extern "C" {

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
    // VPN records are created only by the data-policy model; until a block
    // has one, its VPN tree is empty and there is nothing to release here.
    POL_ASSERT(avl_is_empty(&block->pol_fwd_vpn_list_entries));
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

}  // extern "C"
