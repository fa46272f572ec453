// Registration of users, batched change notification and its re-entrancy
// rules, and the small exported entry points.
#include <map>
#include <set>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Calls = std::vector<std::string>;

Calls g_calls;
int g_depth = 0, g_max_depth = 0;

// Records the call, then runs what the user's context asks for.
void probe_cb(t_pol_user *handle, void *user_ctx)
{
    g_max_depth = std::max(g_max_depth, ++g_depth);
    g_calls.emplace_back(handle->user_name);
    if (auto *action = static_cast<std::function<void()> *>(user_ctx)) {
        (*action)();
    }
    g_depth--;
}

class PolUser : public PolContextTest {
protected:
    PolUser() { g_calls.clear(); g_max_depth = 0; }
    static t_pol_user *add(const char *user, const char *policy, std::function<void()> *action = nullptr,
                           e_pol_dir dir = POL_DIR_OUT)
    {
        return register_user(user, policy, POL_TYPE_ROUTE, dir, probe_cb, action);
    }
    // One configuration change of each route policy named: a new sequence.
    template <typename... P>
    void touch(P... policies) { (sequence(policies, next_seq_++, POL_TYPE_ROUTE, false), ...); }
    void flush() { pol_user_chg_list_notify_all(ctx_); }
    static bool queued(const t_pol_user *h) { return h->pol_user_flags & POL_USER_FLAG_QUEUED; }

    uint32_t next_seq_ = 1;
};

TEST_F(PolUser, RegistrationKeepsFirstBindingAndMakesTheBlock)
{
    std::function<void()> first = [] {}, second = [] {};
    t_pol_user *h1 = add("comp", "polA", &first);
    ASSERT_NE(h1, nullptr);
    EXPECT_EQ(add("comp", "polB", &second), h1);
    EXPECT_EQ(h1->user_ctx_p, &first);
    EXPECT_EQ(pol_block_find(ctx_, "polB", POL_TYPE_ROUTE, nullptr), nullptr);
    // The block is made empty; the reader later fills that same block.
    uint8_t changed = 0;
    EXPECT_EQ(pol_block_find_or_create(ctx_, "polA", POL_TYPE_ROUTE, &changed), h1->pol_block_p);
    EXPECT_TRUE(changed == 0 && avl_numnodes(&h1->pol_block_p->pol_entries) == 0u);

    // Another direction or type is another registration.
    t_pol_user *in = add("comp", "polB", nullptr, POL_DIR_IN);
    t_pol_user *member = register_user("comp", "polA", POL_TYPE_MEMBERSHIP, POL_DIR_OUT);
    EXPECT_TRUE(in != h1 && member != h1 && member->pol_block_p != h1->pol_block_p);
    EXPECT_TRUE(TAILQ_FIRST(&h1->pol_block_p->users_list) == h1 && TAILQ_NEXT(h1, pol_block_list_entry) == nullptr);
    flush();
    EXPECT_TRUE(g_calls.empty());  // registering notifies nobody
    for (e_pol_mem row : {POL_MEM_TYPE_POL_USER, POL_MEM_BLOCK}) {
        AllocFailure fail(row);
        EXPECT_EQ(register_user("late", "polC"), nullptr);
    }
    EXPECT_EQ(avl_numnodes(&ctx_->pol_users), 3u);
}

// Changes are batched: each user queued once, in the order of its first
// change, and delivered by a flush. A change callback may unregister any
// user, itself included, at any point of a walk (the queue flush, or a
// block's direct notification), and the walk goes on with the users still
// registered; a flush or notification inside a callback delivers nothing.
// Steps, run before the walks ("" key) or by a user's callback at its first
// call: "-u" drops one registration of u, "xP" deletes route policy P
// (detaching its users), "+P" changes policy P, "f" flushes and "nP"
// notifies the users of P.
struct UnregisterCase {
    const char *what;
    std::vector<std::pair<const char *, const char *>> users;  // queued in this order
    std::map<std::string, std::vector<std::string>> steps;
    std::vector<Calls> walks;            // what each walk delivers
    const char *notify_block = nullptr;  // the first walk goes to this block's users instead of the queue
    std::pair<const char *, const char *> idle = {};  // registered, not queued
};

const UnregisterCase kUnregisterCases[] = {
    {"changes batched in first-queued order", {{"b", "P2"}, {"a1", "P1"}, {"a2", "P1"}},
     {{"", {"+P2", "+P1", "+P1"}}}, {{"b", "a1", "a2"}, {}}},
    {"unregistered user leaves the queue", {{"h", "P1"}, {"keep", "P1"}}, {{"", {"-h"}}}, {{"keep"}}},
    {"callback's own flush and notification do not nest; its change queues it again", {{"a", "P1"}, {"y", "P5"}},
     {{"a", {"+P1", "f", "nP1"}}}, {{"a"}, {"y", "a"}}},
    {"users queued behind the walk are delivered by it, not by an inner flush", {{"c", "P4"}, {"x", "P2"}},
     {{"c", {"+P3", "f"}}}, {{"c", "x", "b"}}, nullptr, {"b", "P3"}},
    {"detached user unregistered before the flush", {{"a", "P1"}, {"b", "P2"}, {"c", "P3"}},
     {{"", {"xP2", "-b"}}}, {{"a", "c"}}},
    {"callback unregisters a queued detached user", {{"a", "P1"}, {"v", "P2"}, {"c", "P3"}},
     {{"", {"xP2"}}, {"a", {"-v"}}}, {{"a", "c"}}},
    {"callback detaches the next user, then unregisters it", {{"a", "P1"}, {"v", "P2"}, {"c", "P3"}},
     {{"a", {"xP2", "-v"}}}, {{"a", "c"}}},
    {"detached callback unregisters itself", {{"a", "P1"}, {"s", "P2"}, {"c", "P3"}},
     {{"", {"xP2"}}, {"s", {"-s"}}}, {{"a", "s", "c"}}},
    {"callback queues itself again, then unregisters", {{"a", "P1"}, {"s", "P2"}, {"c", "P3"}},
     {{"s", {"+P2", "-s"}}}, {{"a", "s", "c"}}},
    {"callback unregisters everybody left", {{"a", "P1"}, {"v", "P2"}, {"w", "P3"}},
     {{"", {"xP3"}}, {"a", {"-w", "-v", "-a"}}}, {{"a"}}},
    {"a second registration counts", {{"t", "P1"}, {"t", "P9"}, {"c", "P2"}},
     {{"", {"-t"}}, {"c", {"-t"}}}, {{"t", "c"}}},
    {"block walk: callback unregisters the next user", {{"a", "P1"}, {"v", "P1"}, {"w", "P1"}},
     {{"a", {"-v"}}}, {{"a", "w"}}, "P1"},
    {"block walk: callback deletes the block", {{"a", "P1"}, {"v", "P1"}},
     {{"a", {"xP1", "-v"}}}, {{"a"}}, "P1"},
};

// Detached users stay queued but keep no link into the freed block.
void expect_no_link_into_deleted_blocks(const std::map<std::string, std::vector<t_pol_user *>> &handles)
{
    for (const auto &[name, hs] : handles) {
        for (const t_pol_user *h : hs) {
            if (h != nullptr && h->pol_block_p == nullptr) {
                const auto &link = h->pol_block_list_entry;
                EXPECT_TRUE(link.tqe_next == nullptr && link.tqe_prev == nullptr) << name;
                EXPECT_TRUE(h->pol_user_flags & POL_USER_FLAG_QUEUED) << name;
            }
        }
    }
}

TEST_F(PolUser, CallbacksMayUnregisterAnyUserDuringAWalk)
{
    const int64_t users0 = live_count(POL_MEM_TYPE_POL_USER);
    for (const UnregisterCase &c : kUnregisterCases) {
        SCOPED_TRACE(c.what);
        g_calls.clear();
        g_max_depth = 0;
        std::map<std::string, std::vector<t_pol_user *>> handles;
        std::map<std::string, std::function<void()>> actions;
        std::set<std::string> ran;
        auto run = [&](const std::string &who) {
            auto it = c.steps.find(who);
            const std::vector<std::string> none;
            for (const std::string &step : it != c.steps.end() && ran.insert(who).second ? it->second : none) {
                const std::string arg = step.substr(1);
                uint8_t changed = 0;
                if (step[0] == '-') {
                    auto &hs = handles[arg];
                    auto live = std::find_if(hs.begin(), hs.end(), [](t_pol_user *h) { return h != nullptr; });
                    ASSERT_NE(live, hs.end()) << step;
                    pol_unregister(&*live);
                    EXPECT_EQ(*live, nullptr);
                    const bool left = std::any_of(hs.begin(), hs.end(), [](t_pol_user *h) { return h != nullptr; });
                    EXPECT_EQ(pol_user_find(ctx_, arg.c_str(), POL_TYPE_ROUTE, POL_DIR_OUT, nullptr) != nullptr, left);
                } else if (step[0] == 'x') {
                    pol_block_find_and_delete(ctx_, arg.c_str(), POL_TYPE_ROUTE, &changed);
                    expect_no_link_into_deleted_blocks(handles);
                } else if (step[0] == '+') {
                    touch(arg.c_str());
                } else if (step[0] == 'n') {
                    pol_block_user_notify_all(ctx_, pol_block_find(ctx_, arg.c_str(), POL_TYPE_ROUTE, nullptr));
                } else {
                    flush();
                }
            }
        };
        auto add_user = [&](const char *user, const char *policy) {
            actions[user] = [&run, name = std::string(user)] { run(name); };
            handles[user].push_back(add(user, policy, &actions[user]));
            EXPECT_EQ(handles[user].back(), handles[user].front());
        };
        for (const auto &[user, policy] : c.users) {
            add_user(user, policy);
            touch(policy);
        }
        if (c.idle.first != nullptr) {
            add_user(c.idle.first, c.idle.second);
        }
        run("");
        EXPECT_TRUE(g_calls.empty());  // nothing is delivered before a walk
        for (size_t walk = 0; walk < c.walks.size(); walk++) {
            g_calls.clear();
            if (walk == 0 && c.notify_block != nullptr) {
                pol_block_user_notify_all(ctx_, pol_block_find(ctx_, c.notify_block, POL_TYPE_ROUTE, nullptr));
            } else {
                flush();
            }
            EXPECT_EQ(g_calls, c.walks[walk]) << "walk " << walk;
        }
        EXPECT_EQ(g_max_depth, 1);
        EXPECT_TRUE(c.notify_block != nullptr || TAILQ_EMPTY(&ctx_->pol_users_chg));
        for (auto &[name, hs] : handles) {
            for (t_pol_user *&h : hs) {
                pol_unregister(&h);
            }
        }
        pol_unregister(nullptr);
        flush();
        EXPECT_TRUE(TAILQ_EMPTY(&ctx_->pol_users_chg) && avl_numnodes(&ctx_->pol_users) == 0u);
        EXPECT_EQ(live_count(POL_MEM_TYPE_POL_USER), users0);
        expect_memory_back_to_start();  // then a fresh context for the next case
        SetUp();
    }
}

TEST_F(PolUser, NothingDeliveredOrQueuedWhileDestroying)
{
    t_pol_user *a = add("a", "P1"), *b = add("b", "P2");
    touch("P1");
    ctx_->pol_ctx_flags |= POL_CTX_FLAG_DESTROYING;
    pol_block_users_add_to_chg_list(ctx_, b->pol_block_p);
    flush();
    pol_block_user_notify_all(ctx_, a->pol_block_p);
    EXPECT_TRUE(!queued(b) && queued(a) && g_calls.empty());
    ctx_->pol_ctx_flags &= static_cast<uint8_t>(~POL_CTX_FLAG_DESTROYING);
    touch("P2");
    destroy_context();  // with users still queued
    EXPECT_TRUE(g_calls.empty());
}

/* ---- exported entry points ---- */

using PolApi = PolUser;

TEST_F(PolApi, InitDebugAndLogging)
{
    EXPECT_EQ(pol_init(nullptr), nullptr);
    EXPECT_EQ(g_pol_ctx_p, ctx_);
    LogCapture log;
    pol_debug_set(4660);
    EXPECT_EQ(g_pol_dbg_level, 52u);
    const int line = __LINE__ + 1;
    POL_DBG(3, "level %u", g_pol_dbg_level);
    pol_debug_set(0x100);
    EXPECT_EQ(g_pol_dbg_level, 0u);
    POL_DBG(0, "hidden");
    POL_LOG("always");
    EXPECT_EQ(log.lines, (Calls{"191 TestBody[" + std::to_string(line) + "]: [POL] level 52",
                                "191 TestBody[" + std::to_string(line + 4) + "]: [POL] always"}));
}

// Only an outbound route user of a live policy answers what it sets.
TEST_F(PolApi, HandleQueries)
{
    char buf[16] = "garbage";
    EXPECT_STREQ(pol_handle_get_name(nullptr, buf, sizeof(buf)), "");
    t_pol_user *out = add("out", "route-pol");
    EXPECT_STREQ(pol_handle_get_name(out, buf, 4), "rou");
    t_pol_user *in = add("in", "route-pol", nullptr, POL_DIR_IN);
    t_pol_user *member = register_user("m", "route-pol", POL_TYPE_MEMBERSHIP, POL_DIR_OUT);
    member->pol_block_p->pol_flags = POL_BLOCK_FLAG_SETS_TLOC;
    auto sets = [](t_pol_user *h) {
        return pol_handle_sets_service(h) * 100 + pol_handle_sets_tloc(h) * 10 + pol_handle_sets_tloc_list(h);
    };
    out->pol_block_p->pol_flags = POL_BLOCK_FLAG_SETS_SERVICE | POL_BLOCK_FLAG_SETS_TLOC;
    EXPECT_EQ(sets(out), 110);
    EXPECT_EQ(sets(in) + sets(member) + sets(nullptr), 0);
    uint8_t changed = 0;  // a detached handle answers nothing
    pol_block_find_and_delete(ctx_, "route-pol", POL_TYPE_ROUTE, &changed);
    EXPECT_EQ(sets(out), 0);
    EXPECT_STREQ(pol_handle_get_name(out, buf, sizeof(buf)), "");
    flush();
}

// A site-list watcher's callback may unregister it (once per registration)
// while the list is being changed, here by deleting its last entry. Steps
// of the callback: "-w" drops one registration, "+w" registers again,
// "cfg" deletes the list's configuration.
struct WatcherCase {
    const char *what;
    int registrations;
    bool policy_matches;  // a sequence of policy "PL" (user "pu") matches on the list
    std::vector<std::string> steps;
    Calls delivered;
    bool list_stays;
};

const WatcherCase kWatcherCases[] = {
    {"leaves when the list empties", 1, false, {"-w"}, {"list"}, false},
    {"leaves while a policy still matches", 1, true, {"-w"}, {"list", "pu"}, true},
    {"leaves and deletes the configuration", 1, false, {"-w", "cfg"}, {"list"}, false},
    {"leaves and comes back", 1, false, {"-w", "+w"}, {"list"}, true},
    {"registered twice, leaves once", 2, false, {"-w"}, {"list"}, true},
    {"registered twice, leaves twice", 2, true, {"-w", "-w"}, {"list", "pu"}, true},
};

void watcher_cb(t_pol_list_user *, void *user_ctx)
{
    g_calls.emplace_back("list");
    (*static_cast<std::function<void()> *>(user_ctx))();
}

TEST_F(PolApi, SiteListWatcherMayLeaveFromItsCallback)
{
    for (const WatcherCase &c : kWatcherCases) {
        SCOPED_TRACE(c.what);
        g_calls.clear();
        const int64_t watchers0 = live_count(POL_MEM_LIST_POL_USER);
        std::vector<t_pol_list_user *> regs;
        bool ran = false;
        std::function<void()> steps;
        t_pol_list_reg_params reg{POL_LIST_SITE, "L", watcher_cb, &steps};
        steps = [&] {
            for (const std::string &step : ran ? std::vector<std::string>{} : c.steps) {
                if (step == "-w") {
                    pol_list_unregister(regs.back());
                    regs.pop_back();
                } else if (step == "+w") {
                    regs.push_back(pol_list_register(&reg));
                } else {
                    pol_site_list_cfg_del(ctx_, "L");
                }
            }
            ran = true;
        };
        uint8_t changed = 0;
        t_pol_user *pu = nullptr;
        if (c.policy_matches) {
            pu = add("pu", "PL");
            pol_entry_match_site_list_add(ctx_, sequence("PL", 5), "L", &changed);
        }
        pol_site_list_add_entry(ctx_, "L", 1, 1);
        for (int i = 0; i < c.registrations; i++) {
            regs.push_back(pol_list_register(&reg));
            ASSERT_EQ(regs.back(), regs.front());
        }
        g_calls.clear();
        pol_site_list_del_entry(ctx_, "L", 1, 1);
        EXPECT_EQ(g_calls, c.delivered);
        EXPECT_EQ(pol_site_list_find(ctx_, "L") != nullptr, c.list_stays);
        while (!regs.empty()) {
            pol_list_unregister(regs.back());
            regs.pop_back();
        }
        EXPECT_EQ(live_count(POL_MEM_LIST_POL_USER), watchers0);
        if (pu != nullptr) {
            pol_unregister(&pu);
            pol_block_find_and_delete(ctx_, "PL", POL_TYPE_ROUTE, &changed);
        }
        EXPECT_EQ(pol_site_list_find(ctx_, "L"), nullptr);
    }
}

}  // namespace
