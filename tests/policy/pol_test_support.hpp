// Helpers shared by the policy test suites: a fixture owning one context
// with an accounting check, captures of log lines, command output and
// injected allocation failures, and the checks every list family shares.
#ifndef POL_TEST_SUPPORT_HPP
#define POL_TEST_SUPPORT_HPP

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

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

// Change callbacks: count_cb adds one to the int at user_ctx; record_cb
// appends the user's name to the std::vector<std::string> at user_ctx.
void count_cb(t_pol_user *user, void *user_ctx);
void record_cb(t_pol_user *user, void *user_ctx);

// Sequence num of a policy of the live context (both made if need be),
// ready to be linked to a list as a match or action user; by default the
// users it queued are notified, so later calls count only what follows.
t_pol_entry *sequence(const char *policy, uint32_t num, e_pol_type type = POL_TYPE_ROUTE,
                      bool flush = true);

// "%p" of a pointer, and the banner a dump section starts with.
std::string ptr(const void *p);
std::string heading(const std::string &title);

// One context per test. TearDown destroys it and expects every accounting
// row back at its value from before pol_init.
class PolContextTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { expect_memory_back_to_start(); }
    void destroy_context();
    void expect_memory_back_to_start();

    t_pol_ctx *ctx_ = nullptr;

private:
    int64_t start_[POL_MEM_MAX] = {};
};

// Lines the library logs while alive, each as "<priority> <text>".
struct LogCapture {
    LogCapture();
    ~LogCapture();
    const std::vector<std::string> &lines;
};

// Makes the nth (1-based) allocation of one category fail while alive.
struct AllocFailure {
    explicit AllocFailure(e_pol_mem row, unsigned nth = 1);
    ~AllocFailure();
};

// What a dump prints: fn is called with a captured command-line session.
std::string dump(const std::function<void(mgmtd_cli_user_info *)> &fn);

// One list of a family, driven through the family's own functions; add(i)
// and has(i) concern the family's entry i (0 or 1).
template <typename L>
struct ListOps {
    e_pol_mem list_row, entry_row;
    std::function<L *()> find;
    std::function<L *(uint8_t *)> find_or_create;
    std::function<e_err(int)> add;
    std::function<bool(int)> has;
    std::function<e_err()> cfg_del;
    std::function<L *(t_pol_match_entry *)> user_add;
    e_err (*user_remove)(t_pol_ctx *, L *, t_pol_match_entry *);
    void (*del)(t_pol_ctx *, L **, uint8_t);
    bool (*is_empty)(const L *);
};

// The life cycle every family shares: a list comes into being when first
// named and lives while it has entries or users; cfg_del empties it at once
// and silently; deleting a list in use stops the process; a failed
// allocation takes back only a list the call created.
template <typename L>
void check_list_life_cycle(t_pol_ctx *ctx, const ListOps<L> &f)
{
    const char *in_use = "pol_list\\.hpp:[0-9]+: failed assertion `queue::empty";
    const int64_t lists0 = live_count(f.list_row);
    int calls = 0;
    struct Registration {  // gone with the calls it counts into
        t_pol_user *user;
        ~Registration() { pol_unregister(&user); }
    } watcher{register_user("life", "LIFE", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &calls)};
    t_pol_match_entry *user = &sequence("LIFE", 1)->match_entry;
    calls = 0;

    uint8_t created = 9;
    L *list = f.find_or_create(&created);
    ASSERT_TRUE(list != nullptr && created == 1 && f.is_empty(list));
    EXPECT_TRUE(f.find_or_create(&created) == list && created == 0);
    f.del(ctx, &list, 1);
    EXPECT_TRUE(list == nullptr && f.find() == nullptr);

    list = f.user_add(user);  // a user naming an unknown list creates it
    ASSERT_TRUE(list != nullptr && f.find() == list && !f.is_empty(list));
    ASSERT_EQ(f.add(0), ERR_OK);
    EXPECT_TRUE(f.find() == list && f.has(0) && !f.has(1));
    EXPECT_EQ(calls, 1);
    EXPECT_DEATH({ dup2(2, 1); f.del(ctx, &list, 1); }, in_use);
    EXPECT_EQ(f.cfg_del(), ERR_OK);  // the user keeps the emptied record
    EXPECT_TRUE(f.find() == list && !f.has(0) && calls == 1);
    EXPECT_DEATH({ dup2(2, 1); f.del(ctx, &list, 1); }, in_use);
    EXPECT_EQ(f.user_remove(ctx, list, user), ERR_OK);
    EXPECT_EQ(f.find(), nullptr);
    EXPECT_EQ(f.user_remove(ctx, nullptr, user), ERR_NOT_FOUND);
    EXPECT_EQ(live_count(f.list_row), lists0);

    for (e_pol_mem row : {f.entry_row, f.list_row}) {
        AllocFailure fail(row);
        EXPECT_EQ(f.add(0), ERR_ALLOC);
    }
    {
        AllocFailure fail(f.list_row);
        EXPECT_EQ(f.user_add(user), nullptr);
    }
    EXPECT_TRUE(f.find() == nullptr && live_count(f.list_row) == lists0);
    ASSERT_EQ(f.add(0), ERR_OK);
    {
        AllocFailure fail(f.entry_row);
        EXPECT_EQ(f.add(1), ERR_ALLOC);
    }
    list = f.find();
    EXPECT_TRUE(list != nullptr && f.has(0) && !f.has(1));
    EXPECT_DEATH({ dup2(2, 1); f.del(ctx, &list, 1); }, in_use);
    EXPECT_EQ(f.cfg_del(), ERR_OK);  // without users the list goes
    EXPECT_EQ(f.find(), nullptr);
    EXPECT_EQ(f.cfg_del(), ERR_OK);
    EXPECT_EQ(live_count(f.list_row), lists0);
}

// Items 0..n-1 of one list, each at most once with the attribute a
// repeated add overwrites, in the list's identity order.
using ListModel = std::vector<std::pair<std::size_t, uint32_t>>;

// Random adds (attributes below attrs) and deletes of items; after each step
// queue() must read as the model, kept in the order before(i, j) gives the
// items' identities whatever order they came in, find(i) must give the
// attribute of exactly the model's items, and extra(model) may check more.
template <typename Before, typename Add, typename Del, typename Queue, typename Find,
          typename Extra = void (*)(const ListModel &)>
void check_index_against_queue(unsigned seed, int steps, std::size_t n, uint32_t attrs, Before before, Add add,
                               Del del, Queue queue, Find find, Extra extra = [](const ListModel &) {})
{
    std::mt19937 rng(seed);
    ListModel model;
    auto in_model = [&](std::size_t i) {
        return std::find_if(model.begin(), model.end(), [&](const auto &m) { return m.first == i; });
    };
    for (int step = 0; step < steps; step++) {
        const std::size_t i = rng() % n;
        const uint32_t attr = rng() % attrs;
        auto it = in_model(i);
        if (rng() % 3 != 0) {
            add(i, attr);
            if (it == model.end()) {
                auto at = std::find_if(model.begin(), model.end(), [&](const auto &m) { return before(i, m.first); });
                model.emplace(at, i, attr);
            } else {
                it->second = attr;
            }
        } else {
            del(i, attr);
            if (it != model.end()) {
                model.erase(it);
            }
        }
        ASSERT_EQ(queue(), model) << "step " << step;
        for (std::size_t j = 0; j < n; j++) {
            auto m = in_model(j);
            ASSERT_EQ(find(j), m == model.end() ? std::nullopt : std::optional<uint32_t>(m->second))
                << "step " << step << " item " << j;
        }
        ASSERT_NO_FATAL_FAILURE(extra(model)) << "step " << step;
    }
}

}  // namespace poltest

#endif  // POL_TEST_SUPPORT_HPP
