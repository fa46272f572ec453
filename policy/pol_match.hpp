// Matching a route against the named lists: what each prefix-length
// operator means, and the match-time indexes that answer a list condition
// without walking the list's entries (the prefix group table of a prefix
// list, the interval sets of site and VPN lists, the colour set of a
// colour list, the value sets and the
// pattern automaton of a community list), and the sequence candidates of
// a policy, which let a route skip the sequences whose prefix condition it
// cannot satisfy.
//
// A list bumps its generation on every entry change, a policy block on
// every change of its sequences' conditions; an index remembers the
// generations it was built from and is rebuilt on the first query after a
// change. An index is one allocation through the accounting allocator,
// counted under its owner's category. When that allocation fails the
// query walks the entries (or every sequence) instead, and the next query
// tries to build again.
#ifndef POLICY_POL_MATCH_HPP
#define POLICY_POL_MATCH_HPP

#include <cstddef>
#include <cstdint>

#include "pol_internal.h"

namespace pol {

// The operator of a configured prefix-list entry from its ge and le
// lengths (0 = not given): both give a range, one alone a half-open
// bound, neither the exact prefix.
e_pfx_op pfx_op_of_bounds(uint8_t ge, uint8_t le);

// One entry against a route prefix: containment (skipped by the
// catch-all entry), then the entry's length condition.
bool pfx_entry_matches(const t_pfx_entry *entry, const t_ipprefix &route);

// A list condition: the list exists and admits the route. A prefix list
// also needs the route to be of the list's address family.
bool pfx_list_matches(t_pfx_list *list, const t_ipprefix &route);
bool vpn_list_contains(t_vpn_list *list, uint64_t vpn_id);
bool site_list_contains(t_site_list *list, uint32_t site_id);
bool color_list_contains(t_color_list *list, uint8_t color);

// The text of a route's communities, the one community_list_getstr
// writes, with a plain decimal writer; returns its length.
std::size_t render_communities(char *buf, const uint32_t *values, uint32_t count);

// A route's community text, rendered on first use and kept for the rest
// of the route's evaluation.
struct community_text {
    char text[POL_COMMUNITY_LIST_STR_SIZE];  // not cleared: written before it is read
    std::size_t length = 0;
    bool ready = false;

    community_text() {}

    const char *of(const t_bgp_community &comms);
};

// A community list condition (standard or expanded by the list's kind)
// for a route that carries communities.
bool community_list_matches(t_community_list *list, const t_bgp_community &comms, community_text &text);

// The sequences of a policy that a route may match, in sequence order:
// of the route's kind and, in a policy with many prefix conditions, with
// a prefix condition only when the route satisfies it (known then holds
// its bit: no need to test it again). Valid until the next call for the
// block. False when there is no index (unknown route kind, nothing to
// index, or no memory): then every sequence is to be visited.
struct candidates {
    t_pol_entry *const *entries;
    uint32_t count;
    t_pol_entry *last;  // the block's last sequence
    uint64_t known;     // condition bits that hold for every candidate
};
bool sequence_candidates(t_pol_block *block, const t_pol_exec_params *params, candidates *out);

// The sequences or conditions of the block changed: its index is stale.
void block_changed(t_pol_block *block);

// Releases a list's index, if it has one (the list is going away).
void free_exec_index(t_pol_list_exec_index **index_pp);

// Bytes held by a list's index (0 without one), for the benchmarks.
std::size_t exec_index_bytes(const t_pol_list_exec_index *index);

}  // namespace pol

#endif  // POLICY_POL_MATCH_HPP
