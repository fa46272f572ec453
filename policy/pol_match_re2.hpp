// One multi-pattern automaton over the patterns of an expanded community
// list, answering "does any of them match this text" in one pass. Kept in
// its own unit: it is the only code of the library built with exceptions,
// so that an allocation failure inside the regular-expression engine ends
// as a failed build or an unanswered query instead of crossing the C
// boundary.
#ifndef POLICY_POL_MATCH_RE2_HPP
#define POLICY_POL_MATCH_RE2_HPP

#include <cstddef>

namespace pol {

struct pattern_set;

// The patterns of the set, by the caller's numbering: the ones the engine
// accepted have taken[i] set; the others (syntax it reads differently or
// not at all) are the caller's to evaluate. Null when nothing could be
// built, with every taken[i] cleared.
pattern_set *pattern_set_build(const char *const *patterns, std::size_t count, bool *taken);

// 1: some pattern of the set matches text somewhere; 0: none does; -1:
// the engine could not answer (out of memory): ask the patterns one by one.
int pattern_set_match(const pattern_set *set, const char *text, std::size_t length);

void pattern_set_release(pattern_set *set);

}  // namespace pol

#endif  // POLICY_POL_MATCH_RE2_HPP
