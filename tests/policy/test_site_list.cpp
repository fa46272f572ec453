// Site and VPN lists: life cycle, users and notification, the list user,
// the identity index against the entry queue, and the dumps.
#include <bsd/string.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Calls = std::vector<std::string>;
using SiteListTest = PolContextTest;
using VpnListTest = PolContextTest;

void list_changed(t_pol_list_user *, void *user_ctx)
{
    static_cast<Calls *>(user_ctx)->push_back("list");
}

t_pol_list_user *watch_site_list(const char *name, Calls *calls)
{
    t_pol_list_reg_params reg{};
    reg.pol_list_type = POL_LIST_SITE;
    strlcpy(reg.pol_list_name, name, sizeof(reg.pol_list_name));
    reg.pol_chg_cb = list_changed;
    reg.user_ctx_p = calls;
    return pol_list_register(&reg);
}

TEST_F(SiteListTest, SharedLifeCycle)
{
    check_list_life_cycle<t_site_list>(
        ctx_, {.list_row = POL_MEM_LIST_SITE, .entry_row = POL_MEM_ENTRY_SITE,
               .find = [&] { return pol_site_list_find(ctx_, "L"); },
               .find_or_create = [&](uint8_t *c) { return pol_site_list_find_or_create(ctx_, "L", c); },
               .add = [&](int i) { return pol_site_list_add_entry(ctx_, "L", 10 * i, 10 * i + 5); },
               .has = [&](int i) { return pol_site_list_find_entry(ctx_, "L", 10 * i, 10 * i + 5) != nullptr; },
               .cfg_del = [&] { return pol_site_list_cfg_del(ctx_, "L"); },
               .user_add = [&](t_pol_match_entry *m) { return pol_site_list_pol_user_add(ctx_, "L", m); },
               .user_remove = pol_site_list_pol_user_remove,
               .del = pol_site_list_del, .is_empty = pol_site_list_is_empty});
    check_list_life_cycle<t_vpn_list>(
        ctx_, {.list_row = POL_MEM_LIST_VPN, .entry_row = POL_MEM_ENTRY_VPN,
               .find = [&] { return pol_vpn_list_find(ctx_, "V"); },
               .find_or_create = [&](uint8_t *c) { return pol_vpn_list_find_or_create(ctx_, "V", c); },
               .add = [&](int i) { return pol_vpn_list_add_entry(ctx_, "V", 10 * i, 10 * i + 5); },
               .has = [&](int i) { return pol_vpn_list_find_entry(ctx_, "V", 10 * i, 10 * i + 5) != nullptr; },
               .cfg_del = [&] { return pol_vpn_list_cfg_del(ctx_, "V"); },
               .user_add = [&](t_pol_match_entry *m) { return pol_vpn_list_match_user_add(ctx_, "V", m); },
               .user_remove = pol_vpn_list_match_user_remove,
               .del = pol_vpn_list_del, .is_empty = pol_vpn_list_is_empty});
}

TEST_F(SiteListTest, RangesAreStoredAsGivenAndNamesBounded)
{
    Calls calls;
    t_pol_entry *seq = sequence("hub", 10);
    t_site_list *list = pol_site_list_pol_user_add(ctx_, "spokes", &seq->match_entry);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 100, 199), ERR_OK);
    EXPECT_TRUE(pol_exec_match_site_id_to_site_list(list, 150));
    pol_site_list_cfg_del(ctx_, "spokes");  // what the entries matched goes with them
    EXPECT_FALSE(pol_exec_match_site_id_to_site_list(list, 150));
    register_user("rt", "hub", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 7, 7), ERR_OK);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 7, 7), ERR_OK);  // a repeat: nothing
    EXPECT_TRUE(avl_numnodes(&list->entry_index) == 1u && calls == Calls{"rt"});
    EXPECT_TRUE(pol_exec_match_site_id_to_site_list(list, 7) && !pol_exec_match_site_id_to_site_list(list, 6) &&
                !pol_exec_match_site_id_to_site_list(list, 8) && !pol_exec_match_site_id_to_site_list(nullptr, 7));
    // A sub-range deletes nothing and tells nobody.
    EXPECT_EQ(pol_site_list_del_entry(ctx_, "spokes", 7, 8), ERR_OK);
    EXPECT_TRUE(avl_numnodes(&list->entry_index) == 1u && calls.size() == 1u);
    pol_site_list_cfg_del(ctx_, "spokes");
    pol_site_list_pol_user_remove(ctx_, list, &seq->match_entry);

    // Names agreeing in their first 63 characters are one list.
    std::string base(63, 's');
    pol_site_list_add_entry(ctx_, (base + "A").c_str(), 1, 1);
    pol_site_list_add_entry(ctx_, (base + "B").c_str(), 2, 2);
    list = pol_site_list_find(ctx_, base.c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(list->site_list_name == base && avl_numnodes(&list->entry_index) == 2u &&
                avl_numnodes(&ctx_->site_lists) == 1u);
}

TEST_F(SiteListTest, ListUserIsToldFirstAndOnlyOnceAndDumped)
{
    Calls calls, second;
    t_pol_list_user *watcher = watch_site_list("dc", &calls);
    ASSERT_NE(watcher, nullptr);
    EXPECT_EQ(watch_site_list("dc", &second), watcher) << "one list user per list";

    t_pol_entry *seq = sequence("pol-a", 5);
    pol_site_list_pol_user_add(ctx_, "dc", &seq->match_entry);
    register_user("omp", "pol-a", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    pol_site_list_add_entry(ctx_, "dc", 10, 20);
    pol_site_list_add_entry(ctx_, "dc", 40, 30);  // reversed: stored, matches nothing
    EXPECT_EQ(calls, (Calls{"list", "omp", "list", "omp"}));
    EXPECT_TRUE(pol_list_site_match(watcher, 15) == 1 && pol_list_site_match(watcher, 35) == 0 &&
                pol_list_site_match(nullptr, 15) == 0);
    t_pol_list_reg_params tloc{};
    tloc.pol_list_type = POL_LIST_TLOC;
    EXPECT_EQ(pol_list_register(&tloc), nullptr);
    EXPECT_EQ(dump(pol_dump_site_list_all),
              heading("SITE LISTS") + "\nsite-list: dc (0x" + ptr(pol_site_list_find(ctx_, "dc")) +
                  ")\n  site-id 10-20\n  site-id 40-30\n  User: " + ptr(watcher) +
                  ", list: dc, list-type: site-list, ctx: " + ptr(&calls) +
                  ", chg_cb: " + ptr(reinterpret_cast<void *>(list_changed)) + "\nend\n");

    pol_site_list_pol_user_remove(ctx_, pol_site_list_find(ctx_, "dc"), &seq->match_entry);
    pol_site_list_cfg_del(ctx_, "dc");
    EXPECT_NE(pol_site_list_find(ctx_, "dc"), nullptr) << "the list user keeps it";
    pol_list_unregister(watcher);
    EXPECT_NE(pol_site_list_find(ctx_, "dc"), nullptr) << "the second registration still holds it";
    pol_list_unregister(watcher);
    EXPECT_EQ(pol_site_list_find(ctx_, "dc"), nullptr);
    {
        AllocFailure fail(POL_MEM_LIST_POL_USER);
        EXPECT_EQ(watch_site_list("watched", &calls), nullptr);
    }
    EXPECT_EQ(pol_site_list_find(ctx_, "watched"), nullptr);
}

// Ranges lo..lo+d (lo <= 60, d < 8); the interval index must agree too.
TEST_F(SiteListTest, IndexesAgreeWithTheQueueUnderRandomChanges)
{
    auto lo = [](std::size_t i) { return static_cast<uint32_t>(i / 8); };
    auto hi = [](std::size_t i) { return static_cast<uint32_t>(i / 8 + i % 8); };
    check_index_against_queue(
        12345, 1000, 61 * 8, 1,
        [](std::size_t i, std::size_t j) { return i < j; },  // by lower, then upper bound
        [&](std::size_t i, uint32_t) { pol_site_list_add_entry(ctx_, "rand", lo(i), hi(i)); },
        [&](std::size_t i, uint32_t) { pol_site_list_del_entry(ctx_, "rand", lo(i), hi(i)); },
        [&] {
            ListModel queued;
            t_site_list *list = pol_site_list_find(ctx_, "rand");
            for (t_site_entry *e = list ? TAILQ_FIRST(&list->site_entry_head) : nullptr; e;
                 e = TAILQ_NEXT(e, site_entry)) {
                queued.emplace_back(e->min_site_id * 8 + (e->max_site_id - e->min_site_id), 0);
            }
            return queued;
        },
        [&](std::size_t i) {
            return pol_site_list_find_entry(ctx_, "rand", lo(i), hi(i)) ? std::optional<uint32_t>(0) : std::nullopt;
        },
        [&](const ListModel &model) {
            t_site_list *list = pol_site_list_find(ctx_, "rand");
            for (uint32_t site = 0; site < 70; site++) {
                bool want = std::any_of(model.begin(), model.end(),
                                        [&](auto &m) { return lo(m.first) <= site && site <= hi(m.first); });
                ASSERT_EQ(pol_exec_match_site_id_to_site_list(list, site), want) << "site " << site;
            }
        });
}

/* ---- VPN lists ---- */

TEST_F(VpnListTest, DocumentFlagAndThreeUserChains)
{
    EXPECT_EQ(pol_vpn_list_add_entry(ctx_, "corp", 10, 20), ERR_OK);
    t_vpn_list *list = pol_vpn_list_find(ctx_, "corp");
    ASSERT_TRUE(list != nullptr && list->fetch_xml == 1);
    // The publisher clears the flag; a delete attempt raises it even when it
    // removes nothing, a repeated add does not, nor does cfg_del.
    list->fetch_xml = 0;
    pol_vpn_list_add_entry(ctx_, "corp", 10, 20);
    const int after_repeat = list->fetch_xml;
    pol_vpn_list_del_entry(ctx_, "corp", 11, 20);
    EXPECT_TRUE(after_repeat == 0 && list->fetch_xml == 1);

    // Users of all three chains hear of a change, in chain order.
    Calls calls;
    t_pol_entry *matcher = sequence("m-pol", 1), *setter = sequence("s-pol", 1);
    uint8_t changed = 0;
    t_pol_fwd_vpn_entry fwd{};
    fwd.pol_block_p = pol_block_find_or_create(ctx_, "d-pol", POL_TYPE_DATA, &changed);
    pol_vpn_list_match_user_add(ctx_, "corp", &matcher->match_entry);
    pol_vpn_list_action_user_add(ctx_, "corp", &setter->set_entry);
    pol_vpn_list_fwd_pol_user_add(ctx_, "corp", &fwd);
    t_pol_user *data_user = register_user("u-data", "d-pol", POL_TYPE_DATA, POL_DIR_NONE, record_cb, &calls);
    register_user("u-set", "s-pol", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u-match", "m-pol", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    pol_vpn_list_add_entry(ctx_, "corp", 30, 30);
    EXPECT_EQ(calls, (Calls{"u-match", "u-set", "u-data"}));

    list->fetch_xml = 0;
    pol_vpn_list_cfg_del(ctx_, "corp");
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "corp") == list && list->fetch_xml == 0);
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
    t_vpn_list *a = pol_vpn_list_find(ctx_, "a"), *b = pol_vpn_list_find(ctx_, "b");
    EXPECT_TRUE(pol_vpn_list_first(ctx_) == a && pol_vpn_list_next(ctx_, a) == b && !pol_vpn_list_next(ctx_, b));

    // Users are listed by policy type, then name, whatever order they linked in.
    t_pol_entry *matchers[] = {sequence("pol-x", 3), sequence("mem-a", 1, POL_TYPE_MEMBERSHIP), sequence("pol-b", 2)};
    for (t_pol_entry *m : matchers) {
        pol_vpn_list_match_user_add(ctx_, "a", &m->match_entry);
    }
    EXPECT_EQ(dump([&](mgmtd_cli_user_info *s) { pol_dump_vpn_list(a, s); }),
              "\nvpn-list: a (0x" + ptr(a) + ", 1)\n    vpn-id: 1-4000000000\nend \n"
              "\n  User: pol-b\n  User: pol-x\n  User: mem-a");
    for (t_pol_entry *m : matchers) {
        pol_vpn_list_match_user_remove(ctx_, a, &m->match_entry);
    }
}

}  // namespace
