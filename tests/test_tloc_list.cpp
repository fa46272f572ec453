// TLOC lists and colour lists: life cycle, change notification, the
// preference and flag rules, and the identity index against the queue.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "pol_test_support.hpp"

namespace {

using poltest::AllocFailure;
using poltest::CliCapture;

std::vector<std::string> g_calls;

void record_cb(t_pol_user *, void *user_ctx)
{
    g_calls.emplace_back(static_cast<const char *>(user_ctx));
}

t_tloc_id tloc(uint32_t host, uint8_t color, uint8_t encap = 2)
{
    t_tloc_id t{};
    t.addr.addr_type = IP_ADDR_V4;
    t.addr.u.addr4.s_addr = htonl(0x0a000000u | host);
    t.color = color;
    t.encap = encap;
    return t;
}

class TlocListTest : public poltest::PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        // Brought up here until pol_init does it.
        if (ctx_->tloc_lists.avl_compar == nullptr) {
            ASSERT_EQ(pol_tloc_list_main_init(ctx_), ERR_OK);
        }
        if (ctx_->color_lists.avl_compar == nullptr) {
            ASSERT_EQ(pol_color_list_main_init(ctx_), ERR_OK);
        }
        g_calls.clear();
    }
    void TearDown() override
    {
        if (ctx_ != nullptr) {
            pol_tloc_list_main_deinit(ctx_);
            pol_color_list_main_deinit(ctx_);
        }
        PolContextTest::TearDown();
    }

    // A sequence of a policy, ready to be linked as a match or action user;
    // the queue it filled on creation is flushed and forgotten.
    t_pol_entry *sequence(const char *policy, uint32_t num, e_pol_type type = POL_TYPE_ROUTE)
    {
        uint8_t changed = 0;
        t_pol_block *block = pol_block_find_or_create(ctx_, policy, type, &changed);
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block, num, &changed);
        entry->match_entry.pol_block_p = block;
        pol_user_chg_list_notify_all(ctx_);
        g_calls.clear();
        return entry;
    }

    std::vector<uint32_t> preferences(const char *name)
    {
        std::vector<uint32_t> out;
        t_tloc_list *list = pol_tloc_list_find(ctx_, name);
        for (t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e; e = TAILQ_NEXT(e, tloc_entry)) {
            out.push_back(e->route_preference);
        }
        return out;
    }
};

using TlocListDeathTest = TlocListTest;

TEST_F(TlocListTest, ListLivesWhileItHasEntriesOrUsers)
{
    t_pol_match_entry match{};
    t_pol_set_entry set{};
    t_tloc_id a = tloc(1, 1);
    t_tloc_list *list = pol_tloc_list_user_add(ctx_, "L", &match);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->fetch_xml, 1);
    EXPECT_EQ(pol_tloc_list_action_user_add(ctx_, "L", &set), list);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "L", &a, 3), ERR_OK);

    list->fetch_xml = 0;
    EXPECT_EQ(pol_tloc_list_cfg_del(ctx_, "L"), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), list);
    EXPECT_TRUE(TAILQ_EMPTY(&list->tloc_entry_head));
    EXPECT_EQ(pol_tloc_list_find_entry(ctx_, "L", &a), nullptr);
    EXPECT_EQ(list->fetch_xml, 0);
    EXPECT_EQ(pol_tloc_list_user_remove(ctx_, list, &match), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), list);  // the action user holds it
    EXPECT_EQ(pol_tloc_list_action_user_remove(ctx_, list, &set), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), nullptr);
    EXPECT_EQ(pol_tloc_list_user_remove(ctx_, nullptr, &match), ERR_NOT_FOUND);

    t_color_list *colors = pol_color_list_user_add(ctx_, "C", &match);
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 4), ERR_OK);
    pol_color_list_cfg_del(ctx_, "C");
    EXPECT_EQ(pol_color_list_find(ctx_, "C"), colors);
    EXPECT_TRUE(pol_color_list_user_remove(ctx_, colors, &match) == ERR_OK &&
                pol_color_list_find(ctx_, "C") == nullptr);
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "D", 4), ERR_OK);
    pol_color_list_cfg_del(ctx_, "D");
    EXPECT_EQ(pol_color_list_find(ctx_, "D"), nullptr);
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(TlocListDeathTest, DeletingAListInUseStops)
{
    t_pol_set_entry set{};
    t_tloc_list *list = pol_tloc_list_action_user_add(ctx_, "L", &set);
    EXPECT_DEATH({ dup2(2, 1); pol_tloc_list_del(ctx_, &list, 1); }, "failed assertion");
    pol_color_list_add_entry(ctx_, "C", 1);
    t_color_list *colors = pol_color_list_find(ctx_, "C");
    EXPECT_DEATH({ dup2(2, 1); pol_color_list_del(ctx_, &colors, 1); }, "failed assertion");
    pol_tloc_list_action_user_remove(ctx_, list, &set);
}

TEST_F(TlocListTest, ChangesReachEachPolicyUserOnceMatchUsersFirst)
{
    poltest::register_user("u3", "P2", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, (void *)"u3");
    poltest::register_user("u1", "P1", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, (void *)"u1");
    poltest::register_user("u2", "P1", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, (void *)"u2");
    t_pol_entry *p1_match = sequence("P1", 10);
    t_pol_entry *p2_set = sequence("P2", 10);
    t_pol_entry *p1_set = sequence("P1", 20);
    t_tloc_list *list = pol_tloc_list_action_user_add(ctx_, "L", &p2_set->set_entry);
    pol_tloc_list_action_user_add(ctx_, "L", &p1_set->set_entry);
    pol_tloc_list_user_add(ctx_, "L", &p1_match->match_entry);
    t_tloc_id a = tloc(1, 1), b = tloc(2, 1);

    pol_tloc_list_add_entry(ctx_, "L", &a, 1);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"u1", "u2", "u3"}));
    g_calls.clear();
    list->fetch_xml = 0;
    list->update_fwd_policy_label = false;
    pol_tloc_list_del_entry(ctx_, "L", &b);
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(list->fetch_xml, 1);
    EXPECT_FALSE(list->update_fwd_policy_label);
    pol_tloc_list_del_entry(ctx_, "L", &a);
    EXPECT_EQ(g_calls.size(), 3u);

    t_pol_entry *p2_match = sequence("P2", 30);
    pol_color_list_user_add(ctx_, "C", &p2_match->match_entry);
    pol_color_list_add_entry(ctx_, "C", 7);
    pol_color_list_add_entry(ctx_, "C", 7);  // a repeat notifies again
    pol_color_list_del_entry(ctx_, "C", 8);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"u3", "u3"}));

    pol_tloc_list_user_remove(ctx_, list, &p1_match->match_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p1_set->set_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p2_set->set_entry);
    pol_color_list_user_remove(ctx_, pol_color_list_find(ctx_, "C"), &p2_match->match_entry);
}

TEST_F(TlocListTest, PreferenceAndLabelFlagRules)
{
    t_tloc_id a = tloc(1, 1), b = tloc(1, 2), c = tloc(1, 1, 1);
    pol_tloc_list_add_entry(ctx_, "N", &a, 5);
    t_tloc_list *list = pol_tloc_list_find(ctx_, "N");
    EXPECT_FALSE(list->update_fwd_policy_label);  // first entry of a new list
    pol_tloc_list_add_entry(ctx_, "N", &b, 6);
    pol_tloc_list_add_entry(ctx_, "N", &c, 8);
    EXPECT_TRUE(list->update_fwd_policy_label);
    list->fetch_xml = 0;
    list->update_fwd_policy_label = false;
    pol_tloc_list_add_entry(ctx_, "N", &a, 7);
    EXPECT_EQ(preferences("N"), (std::vector<uint32_t>{7, 6, 8}));
    EXPECT_TRUE(list->fetch_xml == 1 && list->update_fwd_policy_label);
    EXPECT_EQ(pol_tloc_list_find_entry(ctx_, "N", &a)->set_fwd_label, 0u);

    // Only a data-policy action user lets the refresh clear the flag.
    uint8_t changed = 0;
    t_pol_block *data = pol_block_find_or_create(ctx_, "D", POL_TYPE_DATA, &changed);
    t_pol_fwd_vpn_entry vpn{};
    t_pol_set_entry control{}, fwd{};
    control.pol_vpn_p = &vpn;
    control.pol_block_p = sequence("R", 1)->set_entry.pol_block_p;
    fwd.pol_block_p = data;
    pol_tloc_list_action_user_add(ctx_, "N", &control);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);
    pol_tloc_list_action_user_add(ctx_, "N", &fwd);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);  // no VPN entry yet
    fwd.pol_vpn_p = &vpn;
    poltest::register_user("w", "R", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, (void *)"w");
    pol_block_users_add_to_chg_list(ctx_, control.pol_block_p);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_FALSE(list->update_fwd_policy_label);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"w"}));  // flushed after the walk
    pol_tloc_list_action_user_remove(ctx_, list, &control);
    pol_tloc_list_action_user_remove(ctx_, list, &fwd);
}

TEST_F(TlocListTest, ColoursCountOnTheirLow16Bits)
{
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 0x10105), ERR_OK);
    t_color_entry *e = pol_color_list_find_entry(ctx_, "C", 0x105);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->color, 0x105);
    EXPECT_EQ(pol_color_list_find_entry(ctx_, "C", 0x20105), e);
    EXPECT_EQ(pol_color_list_lookup(pol_color_list_find(ctx_, "C"), 0x20105), e);
    pol_color_list_add_entry(ctx_, "C", 0x105);
    EXPECT_EQ(TAILQ_NEXT(e, color_entry), nullptr);
    pol_color_list_del_entry(ctx_, "C", 0x30105);
    EXPECT_EQ(pol_color_list_find_entry(ctx_, "C", 0x105), nullptr);
}

TEST_F(TlocListTest, FailedAllocationLeavesNoHalfBuiltList)
{
    t_tloc_id a = tloc(1, 1);
    const int64_t lists = poltest::live_count(POL_MEM_LIST_TLOC);
    {
        AllocFailure fail(POL_MEM_ENTRY_TLOC);
        EXPECT_EQ(pol_tloc_list_add_entry(ctx_, "T", &a, 1), ERR_ALLOC);
        EXPECT_EQ(pol_tloc_list_find(ctx_, "T"), nullptr);
        EXPECT_EQ(poltest::live_count(POL_MEM_LIST_TLOC), lists);
    }
    {
        AllocFailure fail(POL_MEM_LIST_TLOC);
        t_pol_match_entry match{};
        EXPECT_EQ(pol_tloc_list_user_add(ctx_, "T", &match), nullptr);
        EXPECT_EQ(pol_tloc_list_add_entry(ctx_, "T", &a, 1), ERR_OK);  // only the first fails
    }
    pol_tloc_list_find(ctx_, "T")->fetch_xml = 0;
    t_tloc_id b = tloc(2, 1);
    {
        AllocFailure fail(POL_MEM_ENTRY_TLOC);
        EXPECT_EQ(pol_tloc_list_add_entry(ctx_, "T", &b, 1), ERR_ALLOC);
    }
    EXPECT_EQ(pol_tloc_list_find(ctx_, "T")->fetch_xml, 1);
    {
        AllocFailure fail(POL_MEM_ENTRY_COLOR);
        EXPECT_EQ(pol_color_list_add_entry(ctx_, "C", 1), ERR_ALLOC);
        EXPECT_EQ(pol_color_list_find(ctx_, "C"), nullptr);
    }
}

// Random adds (with new preferences) and deletes; after each step the index
// must find exactly the model's entries and the queue keep its order.
TEST_F(TlocListTest, IndexAgreesWithQueueUnderRandomChanges)
{
    std::mt19937 rng(20240611);
    std::vector<t_tloc_id> universe;
    for (uint32_t n = 0; n < 24; n++) {
        universe.push_back(tloc(1 + n % 3, static_cast<uint8_t>(1 + n / 6), static_cast<uint8_t>(1 + n % 2)));
    }
    std::vector<std::pair<size_t, uint32_t>> model;  // universe index, preference
    auto in_model = [&](size_t k) {
        return std::find_if(model.begin(), model.end(), [&](auto &m) { return m.first == k; });
    };
    ASSERT_NE(pol_tloc_list_find_or_create(ctx_, "R", nullptr), nullptr);
    for (int step = 0; step < 600; step++) {
        size_t k = rng() % universe.size();
        uint32_t pref = rng() % 100;
        auto it = in_model(k);
        if (rng() % 3 != 0) {
            pol_tloc_list_add_entry(ctx_, "R", &universe[k], pref);
            if (it == model.end()) {
                model.emplace_back(k, pref);
            } else {
                it->second = pref;
            }
        } else {
            pol_tloc_list_del_entry(ctx_, "R", &universe[k]);
            if (it != model.end()) {
                model.erase(it);
            }
        }
        decltype(model) queued;
        t_tloc_list *list = pol_tloc_list_find(ctx_, "R");
        for (t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e; e = TAILQ_NEXT(e, tloc_entry)) {
            auto u = std::find_if(universe.begin(), universe.end(),
                                  [&](const t_tloc_id &t) { return TLOC_CMP(&t, &e->tloc) == 0; });
            queued.emplace_back(u - universe.begin(), e->route_preference);
        }
        ASSERT_EQ(queued, model) << "step " << step;
        for (size_t u = 0; u < universe.size(); u++) {
            t_tloc_entry *e = pol_tloc_list_find_entry(ctx_, "R", &universe[u]);
            ASSERT_EQ(e != nullptr, in_model(u) != model.end()) << "step " << step;
            ASSERT_EQ(pol_tloc_list_lookup(list, &universe[u]), e);
            ASSERT_TRUE(e == nullptr || e->route_preference == in_model(u)->second);
        }
    }
}

TEST_F(TlocListTest, DumpTexts)
{
    t_tloc_id a = tloc(1, 2, 2), b = tloc(2, 40, 1);
    pol_tloc_list_add_entry(ctx_, "T", &a, 9);
    pol_tloc_list_add_entry(ctx_, "T", &b, 0);
    t_pol_entry *m = sequence("P", 1), *s = sequence("Q", 1);
    t_tloc_list *list = pol_tloc_list_user_add(ctx_, "T", &m->match_entry);
    pol_tloc_list_action_user_add(ctx_, "T", &s->set_entry);
    pol_color_list_add_entry(ctx_, "C", 2);
    pol_color_list_add_entry(ctx_, "C", 999);
    t_color_list *colors = pol_color_list_user_add(ctx_, "C", &m->match_entry);

    char head[128];
    CliCapture cli;
    pol_dump_tloc_list_all(cli.session());
    std::snprintf(head, sizeof(head), "\ntloc-list: T (%p, 1)", static_cast<void *>(list));
    const std::string bar = "\n================================";
    EXPECT_EQ(cli.text(), bar + "\n  TLOC LISTS" + bar + head +
                              "\n  tloc 10.0.0.1:mpls:ipsec preference 9"
                              "\n  tloc 10.0.0.2:unknown:gre preference 0\nend \n\n  User: P");
    CliCapture cli2(4243);
    pol_dump_color_list_all(cli2.session());
    std::snprintf(head, sizeof(head), "\ncolor-list: C (%p)", static_cast<void *>(colors));
    EXPECT_EQ(cli2.text(), bar + "\n  COLOR LISTS" + bar + head +
                               "\n  color mpls\n  color unknown\nend \n\n  User: P");

    pol_tloc_list_user_remove(ctx_, list, &m->match_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &s->set_entry);
    pol_color_list_user_remove(ctx_, colors, &m->match_entry);
}

}  // namespace
