// Shared pieces of the fuzz targets: input bytes as a file for the readers
// that take a path, a quiet library log, and the accounting table checked
// back at a snapshot.
#ifndef FUZZ_SUPPORT_HPP
#define FUZZ_SUPPORT_HPP

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "pol_internal.h"

namespace fuzzsup {

// A per-process scratch file (tmpfs when there is one) with the given
// suffix; write() replaces its contents with the input.
class scratch_file {
public:
    explicit scratch_file(const char *suffix);
    ~scratch_file();
    void write(const uint8_t *data, size_t size) const;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// Library messages are formatted as usual but go nowhere (not to syslog).
void quiet_library_log();

// Live objects (allocations less frees) of every accounting row.
struct accounting {
    int64_t live[POL_MEM_MAX] = {};

    static accounting now();
    // Aborts, naming the rows, unless every row but the exempt ones reads
    // as in start.
    void expect_back_at(const accounting &start, const char *when,
                        std::initializer_list<e_pol_mem> exempt = {}) const;
};

// Whether the targets keep away from the known faults whose reproducers
// are in fuzz/findings/ (so that a run finds new ones): yes, unless the
// environment sets POL_FUZZ_KNOWN_FAULTS.
bool avoid_known_faults();

// Prints the message with the input's context and aborts: the engine
// saves the input as a crash.
[[noreturn]] void fail(const std::string &message);

// Runs the route that lib describes (after pol_pre_execute, with its
// attributes and route fields set) through the library and through the
// reference evaluator, and fails, naming the user and context, unless every
// output agrees and the execution left at most one export VPN buffer, which
// is released as its device's host releases it.
void execute_against_reference(t_pol_user *user, t_pol_exec_params &lib, const std::string &context);

}  // namespace fuzzsup

#endif  // FUZZ_SUPPORT_HPP
