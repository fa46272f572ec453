// Route execution: one route through the policy of a registered user.
#include "pol_util.hpp"

namespace {

// The route kind must fit the sequence's match type.
bool match_valid(const t_pol_entry *entry, const t_pol_exec_params *params)
{
    switch (entry->match_entry.match_type) {
    case POL_MATCH_VROUTE:
        return params->safi == POL_SAFI_VROUTE;
    case POL_MATCH_TLOC:
        return params->safi == POL_SAFI_TLOC;
    case POL_MATCH_SERVICE:
        return params->safi == POL_SAFI_SERVICE;
    default:
        return false;
    }
}

// A sequence matches when its kind fits and every condition holds. The
// condition tests are not part of this build yet: a sequence carrying any
// condition does not match, which errs on the side of the default action.
bool sequence_matches(const t_pol_entry *entry, const t_pol_exec_params *params)
{
    return match_valid(entry, params) && entry->entry_match_flags == 0;
}

}  // namespace

extern "C" {

e_pol_action pol_exec_route(t_pol_user *user, t_pol_exec_params *params)
{
    t_pol_block *block = user->pol_block_p;
    if (block == nullptr) {
        return POL_ACTION_REJECT;
    }
    for (t_pol_entry *entry = pol::tree<t_pol_entry>(&block->pol_entries).first(); entry != nullptr;
         entry = pol::tree<t_pol_entry>(&block->pol_entries).next(entry)) {
        params->entry_match_flags = 0;
        if (sequence_matches(entry, params)) {
            return entry->entry_action;
        }
    }
    return block->default_action_entry.entry_action;
}

}  // extern "C"
