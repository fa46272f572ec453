// Community lists and the community set action of a sequence.
#include "pol_util.hpp"

extern "C" {

// Sets (non-empty array) or clears the communities a sequence sets. The
// record takes ownership of the array. Allocation failure returns 2.
int pol_config_set_bgp_community_upd(t_pol_entry *entry, uint32_t *communities, uint16_t count)
{
    t_pol_set_entry &set = entry->set_entry;
    if (communities != nullptr && count != 0) {
        auto *rec = pol::alloc_record<t_pol_set_community>(POL_MEM_SET_COMMUNITY);
        if (rec == nullptr) {
            return 2;
        }
        // A record set before is deliberately replaced without being freed.
        rec->communities = communities;
        rec->n_communities = count;
        set.set_community = rec;
        entry->entry_set_flags |= POL_SET_FLAG_COMMUNITY;
        return 0;
    }
    if (set.set_community != nullptr) {
        pol_free(set.set_community->communities, POL_MEM_SET_ENTRY_COMMUNITY);
        pol_free(set.set_community, POL_MEM_SET_COMMUNITY);
        set.set_community = nullptr;
    }
    entry->entry_set_flags &= ~POL_SET_FLAG_COMMUNITY;
    return 0;
}

}  // extern "C"
