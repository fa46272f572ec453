// Helpers shared by the policy test suites: a fixture owning one context
// with an accounting check, and captures of log lines, command output and
// injected allocation failures.
#ifndef POL_TEST_SUPPORT_HPP
#define POL_TEST_SUPPORT_HPP

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zen/mgmtd.h>

#include "pol_internal.h"

namespace poltest {

// Live objects of an accounting row, less the allocations that an
// AllocFailure made fail (counted, but never freed).
int64_t live_count(e_pol_mem row);

t_pol_user *register_user(const char *user, const char *policy, e_pol_type type = POL_TYPE_ROUTE,
                          e_pol_dir dir = POL_DIR_OUT, t_pol_change_cb_f cb = nullptr,
                          void *user_ctx = nullptr);

// Runs an overlay route (tag 77) through a user's policy on an edge router.
e_pol_action execute_route(t_pol_user *user, t_pol_exec_params *params);

// One context per test. TearDown destroys it and expects every accounting
// row back at its value from before pol_init, apart from allowed rows.
class PolContextTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { expect_memory_back_to_start(); }
    void destroy_context();
    void allow_leak(e_pol_mem row) { allowed_.insert(row); }
    void expect_memory_back_to_start();

    t_pol_ctx *ctx_ = nullptr;

private:
    int64_t start_[POL_MEM_MAX] = {};
    std::set<int> allowed_;
};

// Lines the library logs while alive, each as "<priority> <text>".
struct LogCapture {
    LogCapture();
    ~LogCapture();
    const std::vector<std::string> &lines;
};

// What command handlers print to one command-line session.
class CliCapture {
public:
    explicit CliCapture(uint32_t usid = 4242);
    ~CliCapture();
    mgmtd_cli_user_info *session() { return &uinfo_; }
    std::string text();

private:
    mgmtd_cli_user_info uinfo_{};
    char *buf_ = nullptr;
    size_t size_ = 0;
    FILE *fp_ = nullptr;
};

// Makes the nth (1-based) allocation of one category fail while alive.
struct AllocFailure {
    explicit AllocFailure(e_pol_mem row, unsigned nth = 1);
    ~AllocFailure();
};

}  // namespace poltest

#endif  // POL_TEST_SUPPORT_HPP
