// Site and VPN lists: life cycle, users and notification, the list user,
// the identity index against the entry queue, and the dumps.
#include <bsd/string.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "pol_test_support.hpp"

namespace {

using poltest::PolContextTest;

std::vector<std::string> g_events;

void policy_changed(t_pol_user *handle, void *)
{
    g_events.push_back(std::string("policy:") + handle->user_name);
}

void list_changed(t_pol_list_user *, void *user_ctx)
{
    g_events.push_back(std::string("list:") + static_cast<const char *>(user_ctx));
}

t_pol_list_user *watch_site_list(const char *name, const char *tag)
{
    t_pol_list_reg_params reg{};
    reg.pol_list_type = POL_LIST_SITE;
    strlcpy(reg.pol_list_name, name, sizeof(reg.pol_list_name));
    reg.pol_chg_cb = list_changed;
    reg.user_ctx_p = const_cast<char *>(tag);
    return pol_list_register(&reg);
}

std::vector<std::pair<uint32_t, uint32_t>> site_queue(const t_site_list *list)
{
    std::vector<std::pair<uint32_t, uint32_t>> out;
    for (t_site_entry *e = TAILQ_FIRST(&list->site_entry_head); e; e = TAILQ_NEXT(e, site_entry)) {
        out.emplace_back(e->min_site_id, e->max_site_id);
    }
    return out;
}

class SiteListTest : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        g_events.clear();
    }

    // A sequence of a route policy that matches on a named list.
    t_pol_entry *sequence(const char *policy, uint32_t num)
    {
        uint8_t changed = 0;
        t_pol_block *block = pol_block_find_or_create(ctx_, policy, POL_TYPE_ROUTE, &changed);
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block, num, &changed);
        entry->match_entry.pol_block_p = block;
        pol_user_chg_list_notify_all(ctx_);
        return entry;
    }
};

TEST_F(SiteListTest, ListLivesWhileItHasEntriesOrUsers)
{
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 100, 199), ERR_OK);
    t_site_list *list = pol_site_list_find(ctx_, "spokes");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 100, 199), ERR_OK);
    EXPECT_EQ(site_queue(list).size(), 1u);

    // A sequence attaches to the list; the configuration goes away.
    t_pol_entry *seq = sequence("hub", 10);
    EXPECT_EQ(pol_site_list_pol_user_add(ctx_, "spokes", &seq->match_entry), list);
    poltest::register_user("rt", "hub", POL_TYPE_ROUTE, POL_DIR_OUT, policy_changed);
    g_events.clear();
    EXPECT_EQ(pol_site_list_cfg_del(ctx_, "spokes"), ERR_OK);
    EXPECT_EQ(pol_site_list_find(ctx_, "spokes"), list) << "users keep the record";
    EXPECT_TRUE(site_queue(list).empty());
    EXPECT_TRUE(g_events.empty()) << "cfg_del is silent";

    // Refilled under the same name: same record, users told.
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 7, 7), ERR_OK);
    EXPECT_EQ(pol_site_list_find(ctx_, "spokes"), list);
    EXPECT_EQ(g_events, std::vector<std::string>{"policy:rt"});
    EXPECT_TRUE(pol_exec_match_site_id_to_site_list(list, 7));
    EXPECT_FALSE(pol_exec_match_site_id_to_site_list(list, 150));

    // A sub-range deletes nothing; the exact range does.
    EXPECT_EQ(pol_site_list_del_entry(ctx_, "spokes", 7, 8), ERR_OK);
    EXPECT_EQ(site_queue(list).size(), 1u);
    pol_site_list_cfg_del(ctx_, "spokes");
    EXPECT_EQ(pol_site_list_pol_user_remove(ctx_, list, &seq->match_entry), ERR_OK);
    EXPECT_EQ(pol_site_list_find(ctx_, "spokes"), nullptr) << "the last user frees it";
    EXPECT_EQ(pol_site_list_pol_user_remove(ctx_, nullptr, &seq->match_entry), ERR_NOT_FOUND);
}

TEST_F(SiteListTest, NamesAgreeingInTheirFirst63CharactersAreOneList)
{
    std::string base(63, 's');
    pol_site_list_add_entry(ctx_, (base + "A").c_str(), 1, 1);
    pol_site_list_add_entry(ctx_, (base + "B").c_str(), 2, 2);
    t_site_list *list = pol_site_list_find(ctx_, base.c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(std::string(list->site_list_name), base);
    EXPECT_EQ(site_queue(list).size(), 2u);
    EXPECT_EQ(avl_numnodes(&ctx_->site_lists), 1u);
}

TEST_F(SiteListTest, ListUserIsToldFirstAndOnlyOnce)
{
    t_pol_list_user *watcher = watch_site_list("dc", "first");
    ASSERT_NE(watcher, nullptr);
    EXPECT_EQ(watch_site_list("dc", "second"), watcher) << "one list user per list";
    EXPECT_STREQ(static_cast<const char *>(watcher->user_ctx_p), "first");

    t_pol_entry *seq = sequence("pol-a", 5);
    pol_site_list_pol_user_add(ctx_, "dc", &seq->match_entry);
    poltest::register_user("omp", "pol-a", POL_TYPE_ROUTE, POL_DIR_IN, policy_changed);

    pol_site_list_add_entry(ctx_, "dc", 10, 20);
    pol_site_list_add_entry(ctx_, "dc", 40, 30);  // reversed: stored, matches nothing
    EXPECT_EQ(g_events, (std::vector<std::string>{"list:first", "policy:omp", "list:first",
                                                  "policy:omp"}));
    EXPECT_EQ(pol_list_site_match(watcher, 15), 1);
    EXPECT_EQ(pol_list_site_match(watcher, 35), 0);
    EXPECT_EQ(pol_list_site_match(nullptr, 15), 0);

    t_pol_list_reg_params tloc{};
    tloc.pol_list_type = POL_LIST_TLOC;
    EXPECT_EQ(pol_list_register(&tloc), nullptr);

    pol_site_list_pol_user_remove(ctx_, pol_site_list_find(ctx_, "dc"), &seq->match_entry);
    pol_site_list_cfg_del(ctx_, "dc");
    EXPECT_NE(pol_site_list_find(ctx_, "dc"), nullptr) << "the list user keeps it";
    pol_list_unregister(watcher);
    EXPECT_EQ(pol_site_list_find(ctx_, "dc"), nullptr);
}

TEST_F(SiteListTest, AllocationFailureLeavesNoHalfBuiltList)
{
    {
        poltest::AllocFailure fail(POL_MEM_ENTRY_SITE);
        EXPECT_EQ(pol_site_list_add_entry(ctx_, "new", 1, 2), ERR_ALLOC);
    }
    EXPECT_EQ(pol_site_list_find(ctx_, "new"), nullptr);
    pol_site_list_add_entry(ctx_, "old", 1, 1);
    {
        poltest::AllocFailure fail(POL_MEM_ENTRY_SITE);
        EXPECT_EQ(pol_site_list_add_entry(ctx_, "old", 2, 2), ERR_ALLOC);
    }
    EXPECT_EQ(site_queue(pol_site_list_find(ctx_, "old")).size(), 1u) << "existing list kept";
    {
        poltest::AllocFailure fail(POL_MEM_LIST_POL_USER);
        EXPECT_EQ(watch_site_list("watched", "x"), nullptr);
    }
    EXPECT_EQ(pol_site_list_find(ctx_, "watched"), nullptr);
}

// The identity index, the queue and the interval index agree with a plain
// model under a long random add/delete sequence.
TEST_F(SiteListTest, IndexesAgreeWithTheQueueUnderRandomChanges)
{
    std::mt19937 rng(12345);
    std::uniform_int_distribution<uint32_t> id(0, 60);
    std::vector<std::pair<uint32_t, uint32_t>> model;
    for (int step = 0; step < 4000; step++) {
        uint32_t lo = id(rng);
        uint32_t hi = lo + id(rng) % 8;
        auto it = std::find(model.begin(), model.end(), std::make_pair(lo, hi));
        if (rng() % 3 == 0) {
            pol_site_list_del_entry(ctx_, "rand", lo, hi);
            if (it != model.end()) {
                model.erase(it);
            }
        } else {
            pol_site_list_add_entry(ctx_, "rand", lo, hi);
            if (it == model.end()) {
                model.emplace_back(lo, hi);
            }
        }
        t_site_list *list = pol_site_list_find(ctx_, "rand");
        if (model.empty()) {
            ASSERT_EQ(list, nullptr);
            continue;
        }
        ASSERT_EQ(site_queue(list), model);
        ASSERT_EQ(pol_site_list_find_entry(ctx_, "rand", lo, hi) != nullptr,
                  std::find(model.begin(), model.end(), std::make_pair(lo, hi)) != model.end());
        uint32_t probe = id(rng) + 2;
        bool expected = std::any_of(model.begin(), model.end(),
                                    [&](auto r) { return r.first <= probe && probe <= r.second; });
        ASSERT_EQ(pol_exec_match_site_id_to_site_list(list, probe), expected) << "site " << probe;
    }
}

TEST_F(SiteListTest, DeletingAListInUseStopsTheProcess)
{
    pol_site_list_add_entry(ctx_, "busy", 1, 1);
    t_site_list *list = pol_site_list_find(ctx_, "busy");
    EXPECT_DEATH(
        {
            dup2(2, 1);
            pol_site_list_del(ctx_, &list, 1);
        },
        "pol_list.hpp:[0-9]+: failed assertion `queue::empty");
}

TEST_F(SiteListTest, DumpPrintsEveryListWithItsUser)
{
    pol_site_list_add_entry(ctx_, "east", 1, 9);
    pol_site_list_add_entry(ctx_, "east", 20, 20);
    t_pol_list_user *watcher = watch_site_list("east", "w");
    poltest::CliCapture cli;
    pol_dump_site_list_all(cli.session());
    std::string text = cli.text();
    char expected_user[256];
    snprintf(expected_user, sizeof(expected_user),
             "\n  User: %p, list: east, list-type: site-list, ctx: %p, chg_cb: %p", (void *)watcher,
             watcher->user_ctx_p, reinterpret_cast<void *>(list_changed));
    EXPECT_EQ(text.rfind("\n================================\n  SITE LISTS\n================================"
                         "\nsite-list: east (0x",
                         0),
              0u);
    EXPECT_NE(text.find("\n  site-id 1-9\n  site-id 20-20" + std::string(expected_user) + "\nend\n"),
              std::string::npos)
        << text;
}

/* ---- VPN lists ---- */

using VpnListTest = SiteListTest;

TEST_F(VpnListTest, DocumentFlagAndThreeUserChains)
{
    EXPECT_EQ(pol_vpn_list_add_entry(ctx_, "corp", 10, 20), ERR_OK);
    t_vpn_list *list = pol_vpn_list_find(ctx_, "corp");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->fetch_xml, 1);

    // The publisher clears the flag; a delete attempt raises it even when it
    // removes nothing, a repeated add does not.
    list->fetch_xml = 0;
    pol_vpn_list_add_entry(ctx_, "corp", 10, 20);
    EXPECT_EQ(list->fetch_xml, 0);
    pol_vpn_list_del_entry(ctx_, "corp", 11, 20);
    EXPECT_EQ(list->fetch_xml, 1);

    // Users of all three chains hear of a change, in chain order.
    t_pol_entry *matcher = sequence("m-pol", 1);
    t_pol_entry *setter = sequence("s-pol", 1);
    setter->set_entry.pol_block_p = setter->pol_block_p;
    uint8_t changed = 0;
    t_pol_block *data = pol_block_find_or_create(ctx_, "d-pol", POL_TYPE_DATA, &changed);
    t_pol_fwd_vpn_entry fwd{};
    fwd.pol_block_p = data;
    pol_vpn_list_match_user_add(ctx_, "corp", &matcher->match_entry);
    pol_vpn_list_action_user_add(ctx_, "corp", &setter->set_entry);
    pol_vpn_list_fwd_pol_user_add(ctx_, "corp", &fwd);
    t_pol_user *data_user =
        poltest::register_user("u-data", "d-pol", POL_TYPE_DATA, POL_DIR_NONE, policy_changed);
    poltest::register_user("u-set", "s-pol", POL_TYPE_ROUTE, POL_DIR_OUT, policy_changed);
    poltest::register_user("u-match", "m-pol", POL_TYPE_ROUTE, POL_DIR_IN, policy_changed);
    g_events.clear();
    pol_vpn_list_add_entry(ctx_, "corp", 30, 30);
    EXPECT_EQ(g_events, (std::vector<std::string>{"policy:u-match", "policy:u-set", "policy:u-data"}));

    // cfg_del keeps the record while any chain holds a user, and the flag.
    list->fetch_xml = 0;
    pol_vpn_list_cfg_del(ctx_, "corp");
    EXPECT_EQ(pol_vpn_list_find(ctx_, "corp"), list);
    EXPECT_EQ(list->fetch_xml, 0);
    pol_vpn_list_match_user_remove(ctx_, list, &matcher->match_entry);
    pol_vpn_list_action_user_remove(ctx_, list, &setter->set_entry);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "corp"), list) << "the data policy still uses it";
    pol_vpn_list_fwd_pol_user_remove(ctx_, list, &fwd);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "corp"), nullptr);
    // A data policy that still has users outlives its deletion; unregister
    // before shutdown so the block is freed.
    pol_unregister(&data_user);
}

TEST_F(VpnListTest, WalkAndDump)
{
    pol_vpn_list_add_entry(ctx_, "b", 5, 5);
    pol_vpn_list_add_entry(ctx_, "a", 1, 4000000000u);
    ASSERT_NE(pol_vpn_list_first(ctx_), nullptr);
    EXPECT_STREQ(pol_vpn_list_first(ctx_)->vpn_list_name, "a");
    EXPECT_STREQ(pol_vpn_list_next(ctx_, pol_vpn_list_first(ctx_))->vpn_list_name, "b");
    EXPECT_EQ(pol_vpn_list_next(ctx_, pol_vpn_list_find(ctx_, "b")), nullptr);

    t_pol_entry *matcher = sequence("pol-x", 3);
    pol_vpn_list_match_user_add(ctx_, "a", &matcher->match_entry);
    poltest::CliCapture cli;
    pol_dump_vpn_list(pol_vpn_list_find(ctx_, "a"), cli.session());
    char expected[128];
    snprintf(expected, sizeof(expected), "\nvpn-list: a (0x%p, 1)", (void *)pol_vpn_list_find(ctx_, "a"));
    EXPECT_EQ(cli.text(), std::string(expected) + "\n    vpn-id: 1-4000000000\nend \n\n  User: pol-x");
    pol_vpn_list_match_user_remove(ctx_, pol_vpn_list_find(ctx_, "a"), &matcher->match_entry);
}

}  // namespace
