// TLOC lists and colour lists: life cycle, change notification, the
// preference and flag rules, the queue in identity order whatever the
// history, and the label table a set action fills from it.
#include <arpa/inet.h>

#include <utility>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Calls = std::vector<std::string>;
using TlocListTest = PolContextTest;

t_tloc_id tloc(uint32_t host, uint8_t color, uint8_t encap = 2)
{
    t_tloc_id t{};
    t.addr.addr_type = IP_ADDR_V4;
    t.addr.u.addr4.s_addr = htonl(0x0a000000u | host);
    t.color = color;
    t.encap = encap;
    return t;
}

// The preferences of a list's entries in queue order.
std::vector<uint32_t> preferences(const t_tloc_list *list)
{
    std::vector<uint32_t> out;
    for (const t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e; e = TAILQ_NEXT(e, tloc_entry)) {
        out.push_back(e->route_preference);
    }
    return out;
}

TEST_F(TlocListTest, SharedLifeCycle)
{
    const t_tloc_id t[] = {tloc(1, 1), tloc(2, 1)};
    check_list_life_cycle<t_tloc_list>(
        ctx_, {.list_row = POL_MEM_LIST_TLOC, .entry_row = POL_MEM_ENTRY_TLOC,
               .find = [&] { return pol_tloc_list_find(ctx_, "L"); },
               .find_or_create = [&](uint8_t *c) { return pol_tloc_list_find_or_create(ctx_, "L", c); },
               .add = [&](int i) { return pol_tloc_list_add_entry(ctx_, "L", &t[i], 3); },
               .has = [&](int i) { return pol_tloc_list_find_entry(ctx_, "L", &t[i]) != nullptr; },
               .cfg_del = [&] { return pol_tloc_list_cfg_del(ctx_, "L"); },
               .user_add = [&](t_pol_match_entry *m) { return pol_tloc_list_user_add(ctx_, "L", m); },
               .user_remove = pol_tloc_list_user_remove,
               .del = pol_tloc_list_del, .is_empty = pol_tloc_list_is_empty});
    check_list_life_cycle<t_color_list>(
        ctx_, {.list_row = POL_MEM_LIST_COLOR, .entry_row = POL_MEM_ENTRY_COLOR,
               .find = [&] { return pol_color_list_find(ctx_, "C"); },
               .find_or_create = [&](uint8_t *c) { return pol_color_list_find_or_create(ctx_, "C", c); },
               .add = [&](int i) { return pol_color_list_add_entry(ctx_, "C", 4 + i); },
               .has = [&](int i) { return pol_color_list_find_entry(ctx_, "C", 4 + i) != nullptr; },
               .cfg_del = [&] { return pol_color_list_cfg_del(ctx_, "C"); },
               .user_add = [&](t_pol_match_entry *m) { return pol_color_list_user_add(ctx_, "C", m); },
               .user_remove = pol_color_list_user_remove,
               .del = pol_color_list_del, .is_empty = pol_color_list_is_empty});
}

TEST_F(TlocListTest, ActionUsersAndTheDocumentFlag)
{
    t_pol_match_entry match{};
    t_pol_set_entry set{};
    const t_tloc_id a = tloc(1, 1), b = tloc(2, 1);
    t_tloc_list *list = pol_tloc_list_user_add(ctx_, "L", &match);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->fetch_xml, 1);  // a new list has no document yet
    EXPECT_EQ(pol_tloc_list_action_user_add(ctx_, "L", &set), list);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "L", &a, 3), ERR_OK);
    list->fetch_xml = 0;
    {
        AllocFailure fail(POL_MEM_ENTRY_TLOC);  // a failed add still asks for a document
        EXPECT_EQ(pol_tloc_list_add_entry(ctx_, "L", &b, 1), ERR_ALLOC);
    }
    EXPECT_EQ(list->fetch_xml, 1);
    list->fetch_xml = 0;
    EXPECT_EQ(pol_tloc_list_cfg_del(ctx_, "L"), ERR_OK);
    EXPECT_EQ(list->fetch_xml, 0);  // cfg_del leaves it alone
    EXPECT_EQ(pol_tloc_list_user_remove(ctx_, list, &match), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), list);  // the action user holds it
    EXPECT_EQ(pol_tloc_list_action_user_remove(ctx_, list, &set), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), nullptr);
}

TEST_F(TlocListTest, ChangesReachEachPolicyUserOnceMatchUsersFirstAndDumps)
{
    Calls calls;
    register_user("u3", "P2", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u1", "P1", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u2", "P1", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    t_pol_entry *p1_match = sequence("P1", 10), *p2_set = sequence("P2", 10), *p1_set = sequence("P1", 20);
    t_tloc_list *list = pol_tloc_list_action_user_add(ctx_, "L", &p2_set->set_entry);
    pol_tloc_list_action_user_add(ctx_, "L", &p1_set->set_entry);
    pol_tloc_list_user_add(ctx_, "L", &p1_match->match_entry);
    const t_tloc_id a = tloc(1, 1), b = tloc(2, 1);
    calls.clear();

    pol_tloc_list_add_entry(ctx_, "L", &a, 1);
    EXPECT_EQ(calls, (Calls{"u1", "u2", "u3"}));
    calls.clear();
    list->fetch_xml = 0;
    list->update_fwd_policy_label = false;
    pol_tloc_list_del_entry(ctx_, "L", &b);  // absent: a new document, nothing else
    EXPECT_TRUE(calls.empty() && list->fetch_xml == 1 && !list->update_fwd_policy_label);
    pol_tloc_list_del_entry(ctx_, "L", &a);
    EXPECT_EQ(calls.size(), 3u);

    t_pol_entry *p2_match = sequence("P2", 30);
    calls.clear();
    t_color_list *colors = pol_color_list_user_add(ctx_, "C", &p2_match->match_entry);
    pol_color_list_add_entry(ctx_, "C", 2);
    pol_color_list_add_entry(ctx_, "C", 2);  // a repeat notifies again
    pol_color_list_del_entry(ctx_, "C", 8);
    EXPECT_EQ(calls, (Calls{"u3", "u3"}));

    // The dumps list the match users only.
    const t_tloc_id c = tloc(1, 2, 2), d = tloc(2, 40, 1);
    pol_tloc_list_add_entry(ctx_, "L", &c, 9);
    pol_tloc_list_add_entry(ctx_, "L", &d, 0);
    pol_color_list_add_entry(ctx_, "C", 999);
    EXPECT_EQ(dump(pol_dump_tloc_list_all), heading("TLOC LISTS") + "\ntloc-list: L (" + ptr(list) +
                                                ", 1)\n  tloc 10.0.0.1:mpls:ipsec preference 9"
                                                "\n  tloc 10.0.0.2:unknown:gre preference 0\nend \n\n  User: P1");
    EXPECT_EQ(dump(pol_dump_color_list_all), heading("COLOR LISTS") + "\ncolor-list: C (" + ptr(colors) +
                                                 ")\n  color mpls\n  color unknown\nend \n\n  User: P2");
    pol_tloc_list_user_remove(ctx_, list, &p1_match->match_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p1_set->set_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p2_set->set_entry);
    pol_color_list_user_remove(ctx_, colors, &p2_match->match_entry);
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
    EXPECT_EQ(preferences(list), (std::vector<uint32_t>{8, 5, 6}));  // identity order: c, a, b
    pol_tloc_list_add_entry(ctx_, "N", &a, 7);
    EXPECT_EQ(preferences(list), (std::vector<uint32_t>{8, 7, 6}));
    EXPECT_TRUE(list->fetch_xml == 1 && list->update_fwd_policy_label);
    EXPECT_EQ(pol_tloc_list_find_entry(ctx_, "N", &a)->set_fwd_label, 0u);

    // Only a data-policy action user lets the refresh clear the flag.
    uint8_t changed = 0;
    t_pol_fwd_vpn_entry vpn{};
    t_pol_set_entry control{};
    control.pol_vpn_p = &vpn;
    control.pol_block_p = sequence("R", 1)->set_entry.pol_block_p;
    // A data sequence, at first as if it had no VPN entry.
    pol_block_find_or_create(ctx_, "D", POL_TYPE_DATA, &changed);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V"), nullptr);
    t_pol_set_entry &fwd = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10)->set_entry;
    t_pol_fwd_vpn_entry *fwd_vpn = std::exchange(fwd.pol_vpn_p, nullptr);
    pol_tloc_list_action_user_add(ctx_, "N", &control);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);
    pol_tloc_list_action_user_add(ctx_, "N", &fwd);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);  // no VPN entry yet
    fwd.pol_vpn_p = fwd_vpn;
    Calls calls;
    register_user("w", "R", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    pol_block_users_add_to_chg_list(ctx_, control.pol_block_p);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_FALSE(list->update_fwd_policy_label);
    EXPECT_EQ(calls, Calls{"w"});  // flushed after the walk
    pol_tloc_list_action_user_remove(ctx_, list, &control);
    pol_tloc_list_action_user_remove(ctx_, list, &fwd);
}

TEST_F(TlocListTest, ColoursCountOnTheirLow16Bits)
{
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 0x10105), ERR_OK);
    t_color_entry *e = pol_color_list_find_entry(ctx_, "C", 0x105);
    ASSERT_TRUE(e != nullptr && e->color == 0x105);
    EXPECT_TRUE(pol_color_list_find_entry(ctx_, "C", 0x20105) == e &&
                pol_color_list_lookup(pol_color_list_find(ctx_, "C"), 0x20105) == e);
    pol_color_list_add_entry(ctx_, "C", 0x105);
    EXPECT_EQ(TAILQ_NEXT(e, color_entry), nullptr);
    pol_color_list_del_entry(ctx_, "C", 0x30105);
    EXPECT_EQ(pol_color_list_find_entry(ctx_, "C", 0x105), nullptr);
}

// Random adds (with new preferences) and deletes of 24 TLOCs: the queue
// reads as the TLOCs held in identity order, whatever order they came in,
// and both lookups agree with it.
TEST_F(TlocListTest, QueueInIdentityOrderUnderRandomChanges)
{
    std::vector<t_tloc_id> u;
    for (uint32_t n = 0; n < 24; n++) {
        u.push_back(tloc(1 + n % 3, static_cast<uint8_t>(1 + n / 6), static_cast<uint8_t>(1 + n % 2)));
    }
    t_tloc_list *list = pol_tloc_list_find_or_create(ctx_, "R", nullptr);
    ASSERT_NE(list, nullptr);
    check_index_against_queue(
        20240611, 600, u.size(), 100, [&](std::size_t i, std::size_t j) { return TLOC_CMP(&u[i], &u[j]) < 0; },
        [&](std::size_t i, uint32_t pref) { pol_tloc_list_add_entry(ctx_, "R", &u[i], pref); },
        [&](std::size_t i, uint32_t) { pol_tloc_list_del_entry(ctx_, "R", &u[i]); },
        [&] {
            ListModel queued;
            for (t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e; e = TAILQ_NEXT(e, tloc_entry)) {
                auto at = std::find_if(u.begin(), u.end(), [&](const t_tloc_id &t) { return TLOC_CMP(&t, &e->tloc) == 0; });
                queued.emplace_back(at - u.begin(), e->route_preference);
            }
            return queued;
        },
        [&](std::size_t i) {
            t_tloc_entry *e = pol_tloc_list_find_entry(ctx_, "R", &u[i]);
            EXPECT_EQ(pol_tloc_list_lookup(list, &u[i]), e);
            return e ? std::optional<uint32_t>(e->route_preference) : std::nullopt;
        });
}

// Appends the TLOC it is asked for to the label table.
void append_label(uint16_t, uint32_t addr, uint8_t color, uint8_t encap, uint64_t, uint16_t, bool,
                  uint32_t *, t_tloc_id *, t_pol_te_info *te, uint32_t preference)
{
    t_pol_te &slot = te->entries[te->num_entries++];
    slot = {1, preference, {{}, color, encap}};
    IPADDR_SET_V4(&slot.tloc.addr, addr);
}

// The label table a policy that sets the list fills for an overlay route.
std::vector<std::pair<uint32_t, uint32_t>> label_table(const char *list)
{
    const std::string policy = std::string("set-") + list;
    t_pol_user *user = register_user(policy.c_str(), policy.c_str());
    user->pol_label_cb = append_label;
    t_pol_entry *e = sequence(policy.c_str(), 10);
    uint8_t changed = 0;
    pol_entry_match_add(g_pol_ctx_p, e->pol_block_p, e, POL_MATCH_VROUTE, &changed);
    pol_entry_action_add(g_pol_ctx_p, e, POL_ACTION_ACCEPT, &changed);
    pol_entry_set_tloc_list_add(g_pol_ctx_p, e, list, &changed);
    t_zen_attr attr{};
    t_pol_te_info te{};
    t_pol_exec_params params{};
    pol_pre_execute(&params, ZEN_DEVICE_RIMBA);
    params.attr_in_p = &attr;
    params.safi = POL_SAFI_VROUTE;
    params.te_info_p = &te;
    EXPECT_EQ(pol_execute(user, &params), POL_ACTION_ACCEPT);
    std::vector<std::pair<uint32_t, uint32_t>> out;  // (address word, preference)
    for (uint32_t k = 0; k < te.num_entries; k++) {
        out.emplace_back(te.entries[k].tloc.addr.u.addr4.s_addr, te.entries[k].preference);
    }
    pol_post_execute(&params);
    return out;
}

// A list of 70 TLOCs, more than the table's 64 slots: the same content
// gives the same table whatever order its entries came in or went and
// came back in (a re-commit adds them anew).
TEST_F(TlocListTest, LabelTableDependsOnlyOnTheContent)
{
    auto change = [&](const char *list, uint32_t n, bool add = true) {
        const t_tloc_id t = tloc(1 + n, 1);
        ASSERT_EQ(add ? pol_tloc_list_add_entry(ctx_, list, &t, n) : pol_tloc_list_del_entry(ctx_, list, &t), ERR_OK);
    };
    for (uint32_t n = 0; n < 70; n++) {
        change("ascending", n);
        change("descending", 69 - n);
        change("recommitted", n);
    }
    for (uint32_t n = 0; n < 20; n++) {
        change("recommitted", n % 10, n >= 10);
    }
    const auto table = label_table("ascending");
    ASSERT_EQ(table.size(), std::size_t{POL_MAX_TE_ENTRIES});
    EXPECT_EQ(label_table("descending"), table);
    EXPECT_EQ(label_table("recommitted"), table);
}

}  // namespace
