// A plain evaluator of control policies, written to be obviously right
// rather than fast, for cross-checking route execution.
//
// It reads the same records as the library (user, block, sequences, named
// lists) and fills the same execution record, but answers every condition
// by walking the list's entries in queue order with its own tests: no
// match-time index, no identity-index lookup and no execution function of
// the library is used. Set actions are applied to the caller's record;
// the export VPN buffer comes from the C library (calloc) and must be given
// back with release(), never through the library's accounting.
#ifndef EXEC_REFERENCE_HPP
#define EXEC_REFERENCE_HPP

#include <cstdint>

#include "pol_internal.h"

namespace execref {

// Conditions, in the order a sequence evaluates them.
enum condition_kind {
    COND_TAG, COND_ORIGIN_METRIC, COND_PREFERENCE, COND_DOMAIN, COND_GROUP, COND_VPN_ID, COND_VPN_LIST,
    COND_TLOC, COND_TLOC_LIST, COND_SITE, COND_SITE_LIST, COND_COMMUNITY_LIST, COND_EXP_COMMUNITY_LIST,
    COND_PFX_LIST, COND_ORIGIN, COND_ORIGINATOR, COND_CARRIER, COND_COLOR, COND_COLOR_LIST, COND_COUNT
};

enum set_kind {
    SET_TAG, SET_PREFERENCE, SET_TLOC, SET_VPN_ID, SET_VPN_LIST, SET_TLOC_LIST, SET_SERVICE, SET_COMMUNITY,
    SET_COMMUNITY_ADDITIVE, SET_COUNT
};

const char *condition_name(int kind);
const char *set_name(int kind);

// What the evaluations went through, so that a randomized run can show it
// reached every condition, both ways, and every action.
struct stats {
    uint64_t held[COND_COUNT] = {};
    uint64_t failed[COND_COUNT] = {};
    uint64_t applied[SET_COUNT] = {};
    uint64_t accepted = 0, rejected = 0, invalid = 0;
    uint64_t by_default = 0;          // no sequence matched
    uint64_t unresolved_tloc = 0;     // an accept turned into a reject by a TLOC action
    uint64_t ultimate_fallback = 0;   // the route's own TLOC appended
    uint64_t vpn_truncated = 0;       // an export list that reached its capacity
};

// One route through the user's policy. Reads attr_in_p, afi, safi, u,
// in_label and te_info_p of params; writes entry_match_flags,
// entry_set_flags, attr_out, set_community_p, vpn_list and the table at
// te_info_p, exactly as pol_execute is meant to.
e_pol_action execute(t_pol_user *user, t_pol_exec_params *params, stats *st = nullptr);

// Frees the export VPN buffer an execute() allocated.
void release(t_pol_exec_params *params);

}  // namespace execref

#endif  // EXEC_REFERENCE_HPP
