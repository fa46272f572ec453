// Commit-series equivalence: after every commit of a series through the
// datastore, one library that took every step so far must hold what a
// fresh library that took only that step holds (the same dump of every
// policy and list, pointers aside, and the same answer for every route of
// a fixed sample), and every user whose answer changed in the step must
// have been notified in it. Shared by the GoogleTest suite and the fuzz
// target, which feed it hand-written and generated series.
#ifndef COMMIT_SERIES_HPP
#define COMMIT_SERIES_HPP

#include <cstddef>
#include <string>
#include <vector>

#include "pol_internal.h"

namespace commit_series {

// A user registered on a policy before the first commit, as polctl
// registers its users.
struct user_spec {
    std::string name;
    std::string policy;
    e_pol_type type = POL_TYPE_ROUTE;
    e_pol_dir dir = POL_DIR_OUT;
};

// One user per policy that any of the configuration files names: control
// and route policies (one type) outbound, membership policies inbound.
// Files that do not load are passed over.
std::vector<user_spec> users_of_files(const std::vector<std::string> &files);

// What happened to one step of a series.
struct step_report {
    size_t step = 0;           // 1-based
    bool committed = false;    // false: a fresh datastore refused it, and the series skipped it
    std::string refusal;       // the datastore's message when not committed
    std::string difference;    // empty when the series agrees with the fresh commit
};

// Commits the files one after another into one datastore and library and
// compares each step with a fresh datastore and library that committed
// only that file. Steps that a fresh datastore refuses are left out of the
// series. The library keeps one context, so the fresh runs go first.
std::vector<step_report> check_series(const std::vector<std::string> &files,
                                      const std::vector<user_spec> &users);

}  // namespace commit_series

#endif  // COMMIT_SERIES_HPP
