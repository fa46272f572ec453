// Matching a route against the named lists: what each prefix-length
// operator means, and the match-time indexes that answer a list condition
// without walking the list's entries (the prefix group table of a prefix
// list, the interval sets of site and VPN lists).
//
// A list bumps its generation on every entry change; its index remembers
// the generation it was built from and is rebuilt on the first query after
// a change. An index is one allocation through the accounting allocator,
// counted under the list's own category. When that allocation fails the
// query walks the list's entries instead, and the next query tries to
// build again.
#ifndef POLICY_POL_MATCH_HPP
#define POLICY_POL_MATCH_HPP

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

// Releases a list's index, if it has one (the list is going away).
void free_exec_index(t_pol_list_exec_index **index_pp);

}  // namespace pol

#endif  // POLICY_POL_MATCH_HPP
