// The store of a sequence's match conditions and set actions: presence bits
// kept with their values, unchanged re-adds that notify nobody, the users
// chains of the named lists a sequence refers to, and the block summary
// bits of the TLOC-resolving actions.
#include <arpa/inet.h>

#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using users = std::vector<t_pol_match_entry *>;
using effects = std::pair<int, int>;  // the changed flag, and callbacks a flush then delivers

t_tloc_id tloc(uint32_t host_order_addr, uint8_t color, uint8_t encap)
{
    t_tloc_id t{{}, color, encap};
    IPADDR_SET_V4(&t.addr, htonl(host_order_addr));
    return t;
}

users pfx_users(const t_pfx_list *list)
{
    users out;
    t_pol_match_entry *m = nullptr;
    TAILQ_FOREACH(m, &list->match_list_head, match_pfx_entry) {
        out.push_back(m);
    }
    return out;
}

const t_pfx_list_key kA = {POL_AF_IPV4, "A"}, kA6 = {POL_AF_IPV6, "A"}, kB = {POL_AF_IPV4, "B"};

class PolStore : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        user_ = register_user("rib", "P", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &notes_);
        block_ = user_->pol_block_p;
        ASSERT_NE(block_, nullptr);
    }

    // A route sequence of P; its creation has been told already.
    t_pol_entry *seq(uint32_t num)
    {
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block_, num, &changed_);
        EXPECT_NE(pol_entry_match_add(ctx_, block_, entry, POL_MATCH_VROUTE, &changed_), nullptr);
        notified();
        return entry;
    }

    // Change callbacks delivered by one flush.
    int notified()
    {
        int before = notes_;
        pol_user_chg_list_notify_all(ctx_);
        return notes_ - before;
    }

    template <typename Op>
    effects effect(Op op)
    {
        uint8_t changed = 0;
        op(&changed);
        return {changed, notified()};
    }

    t_pol_user *user_ = nullptr;
    t_pol_block *block_ = nullptr;
    int notes_ = 0;
    uint8_t changed_ = 0;
};

TEST_F(PolStore, EqualValueAddedAgainChangesNothing)
{
    t_pol_entry *e = seq(10);
    auto tag = [&](uint32_t v) {
        return effect([&](uint8_t *c) { EXPECT_EQ(pol_entry_match_tag_add(ctx_, e, v, c), &e->match_entry); });
    };
    EXPECT_EQ(tag(77), effects(1, 1));
    EXPECT_EQ(tag(77), effects(0, 0));
    EXPECT_EQ(tag(78), effects(1, 1));
    // A zero value is a value: the bit, not the field, says it is there.
    EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_set_tag_add(ctx_, e, 0, c); }), effects(1, 1));
    EXPECT_EQ(e->entry_set_flags, POL_SET_FLAG_TAG);
    for (int changes : {1, 0}) {
        EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_match_tag_delete(ctx_, e, c); }), effects(changes, changes));
        EXPECT_EQ(e->entry_match_flags & POL_MATCH_FLAG_TAG, 0u);
    }

    // TLOCs are equal field by field: neither padding nor the bytes an IPv4
    // address leaves unused take part; a field does.
    const t_tloc_id t = tloc(0x01010101, 3, 2);
    t_tloc_id noisy, other_color = t;
    std::memset(&noisy, 0xA5, sizeof(noisy));
    IPADDR_SET_V4(&noisy.addr, t.addr.u.addr4.s_addr);
    noisy.color = t.color;
    noisy.encap = t.encap;
    other_color.color = 4;
    for (auto [given, changes] : {std::pair{&t, 1}, {&noisy, 0}, {&other_color, 1}}) {
        EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_set_tloc_add(ctx_, e, given, c); }), effects(changes, changes));
    }
    for (auto [given, changes] : {std::pair{&t, 1}, {&noisy, 0}}) {
        EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_set_service_add(ctx_, e, 1, given, 5, c); }),
                  effects(changes, changes));
    }
}

// A sequence moves between the users chains of the lists it names; a list
// it leaves without entries or other users goes. When the new list cannot be
// created, the bit stays set and the sequence stays on the old list, which
// its pointer still names.
TEST_F(PolStore, ReplacingPrefixListMovesSequenceBetweenUsersChains)
{
    t_pol_entry *a = seq(10), *b = seq(20);
    t_pfx_entry_param param{};  // keeps A alive on its own: one entry 10.0.0.0/8
    IPADDR_SET_V4(&param.prefix.addr, htonl(0x0A000000));
    param.prefix.prefixlen = 8;
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &kA, &param), ERR_OK);
    pol_entry_match_pfx_list_add(ctx_, a, &kA, &changed_);
    pol_entry_match_pfx_list_add(ctx_, b, &kA, &changed_);
    t_pfx_list *list_a = pol_pfx_list_find(ctx_, &kA);
    ASSERT_TRUE(list_a != nullptr && a->match_entry.match_pfx_list_p == list_a);
    EXPECT_EQ(notified(), 1);
    auto move = [&](t_pol_entry *e, const t_pfx_list_key &k, t_pol_match_entry *want) {
        return effect([&](uint8_t *c) { EXPECT_EQ(pol_entry_match_pfx_list_add(ctx_, e, &k, c), want); });
    };
    EXPECT_EQ(move(a, kA, &a->match_entry), effects(0, 0));
    EXPECT_EQ(pfx_users(list_a), (users{&a->match_entry, &b->match_entry}));

    const int64_t lists = live_count(POL_MEM_LIST_PREFIX);
    {
        AllocFailure fail(POL_MEM_LIST_PREFIX);
        EXPECT_EQ(move(a, kA6, nullptr), effects(0, 0));
    }
    EXPECT_TRUE((a->entry_match_flags & POL_MATCH_FLAG_PFX_LIST) != 0 && a->match_entry.match_pfx_list_p == list_a);
    EXPECT_EQ(pfx_users(list_a), (users{&a->match_entry, &b->match_entry})) << "still a user of the list it points at";
    EXPECT_TRUE(pol_pfx_list_find(ctx_, &kA6) == nullptr && live_count(POL_MEM_LIST_PREFIX) == lists);

    // The next attempt, with memory, lands there: the same name in the other
    // family is another list.
    EXPECT_EQ(move(a, kA6, &a->match_entry), effects(1, 1));
    t_pfx_list *list_a6 = pol_pfx_list_find(ctx_, &kA6);
    ASSERT_NE(list_a6, nullptr);
    EXPECT_TRUE(pfx_users(list_a) == users{&b->match_entry} && pfx_users(list_a6) == users{&a->match_entry});

    // A6 has neither entries nor other users: leaving it frees it.
    pol_entry_match_pfx_list_add(ctx_, a, &kB, &changed_);
    EXPECT_TRUE(pol_pfx_list_find(ctx_, &kA6) == nullptr && live_count(POL_MEM_LIST_PREFIX) == lists + 1);
    t_pfx_list *list_b = pol_pfx_list_find(ctx_, &kB);
    ASSERT_NE(list_b, nullptr);

    // A keeps its entry, so it stays with an empty chain.
    pol_entry_match_pfx_list_add(ctx_, b, &kB, &changed_);
    EXPECT_TRUE(pol_pfx_list_find(ctx_, &kA) == list_a && pfx_users(list_a).empty());
    EXPECT_EQ(pfx_users(list_b), (users{&a->match_entry, &b->match_entry}));
    pol_entry_match_pfx_list_delete(ctx_, a, &changed_);
    EXPECT_EQ(a->entry_match_flags & POL_MATCH_FLAG_PFX_LIST, 0u);
    EXPECT_EQ(pfx_users(list_b), users{&b->match_entry});
}

// A new match type clears every condition, unhooking the sequence from the
// lists they name, but keeps the set actions; deleting the sequence
// unhooks it from the lists of its set actions too.
TEST_F(PolStore, NewMatchTypeOrDeletedSequenceUnhooksItFromTheLists)
{
    t_pol_entry *a = seq(10), *b = seq(20);
    const t_tloc_id t = tloc(0x01010101, 3, 2);
    pol_entry_match_pfx_list_add(ctx_, a, &kA, &changed_);
    pol_entry_match_pfx_list_add(ctx_, b, &kA, &changed_);
    EXPECT_TRUE(pol_entry_match_site_list_add(ctx_, a, "S", &changed_) &&
                pol_entry_match_tloc_list_add(ctx_, a, "T", &changed_) &&
                pol_entry_match_color_list_add(ctx_, a, "C", &changed_) &&
                pol_entry_match_vpn_list_add(ctx_, a, "V", &changed_) &&
                pol_entry_set_vpn_list_add(ctx_, a, "VX", &changed_) &&
                pol_entry_set_tloc_list_add(ctx_, a, "TX", &changed_));
    pol_entry_match_tag_add(ctx_, a, 5, &changed_);
    pol_entry_match_tloc_add(ctx_, a, &t, &changed_);
    pol_entry_match_origin_add(ctx_, a, 4, &changed_);
    pol_entry_match_color_add(ctx_, a, 9, &changed_);
    notified();

    EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_match_add(ctx_, block_, a, POL_MATCH_VROUTE, c); }), effects(0, 0));
    EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_match_add(ctx_, block_, a, POL_MATCH_TLOC, c); }), effects(1, 1));
    const t_pol_match_entry &m = a->match_entry;
    EXPECT_TRUE(a->entry_match_flags == 0u && m.match_type == POL_MATCH_TLOC && m.pol_block_p == block_ &&
                m.match_pfx_list_p == nullptr && m.match_origin_type == 0);
    EXPECT_EQ(pfx_users(pol_pfx_list_find(ctx_, &kA)), users{&b->match_entry});
    EXPECT_TRUE(pol_site_list_find(ctx_, "S") == nullptr && pol_tloc_list_find(ctx_, "T") == nullptr &&
                pol_color_list_find(ctx_, "C") == nullptr && pol_vpn_list_find(ctx_, "V") == nullptr);
    EXPECT_EQ(a->entry_set_flags, POL_SET_FLAG_VPN_LIST | POL_SET_FLAG_TLOC_LIST);
    EXPECT_NE(pol_vpn_list_find(ctx_, "VX"), nullptr);

    for (int changes : {1, 0}) {
        EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_find_and_delete(ctx_, block_, 10, c); }), effects(changes, changes));
    }
    EXPECT_EQ(pol_entry_find(ctx_, block_, 10, nullptr), nullptr);
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "VX") == nullptr && pol_tloc_list_find(ctx_, "TX") == nullptr);
    pol_entry_find_and_delete(ctx_, block_, 20, &changed_);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kA), nullptr);
}

TEST_F(PolStore, DeletingOneSetTlocClearsThePolicySummary)
{
    t_pol_entry *a = seq(10), *b = seq(20), *c = seq(30);
    const t_tloc_id t1 = tloc(0x01010101, 3, 2), t2 = tloc(0x02020202, 4, 1);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
    pol_entry_set_tloc_add(ctx_, a, &t1, &changed_);
    pol_entry_set_tloc_add(ctx_, b, &t2, &changed_);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 1);

    // Deleting what a sequence does not carry leaves the summary alone.
    pol_entry_set_tloc_delete(ctx_, c, &changed_);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 1);
    pol_entry_set_tloc_delete(ctx_, a, &changed_);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
    EXPECT_TRUE(b->entry_set_flags == POL_SET_FLAG_TLOC && TLOC_CMP(&b->set_entry.set_tloc, &t2) == 0);

    // Service and TLOC list have their own summary bits; a service is the
    // same only with the same type, TLOC and VPN.
    for (auto [vpn, changes] : {std::pair{0u, 1}, {0u, 0}, {9u, 1}}) {
        EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_set_service_add(ctx_, a, 4, &t1, vpn, c); }),
                  effects(changes, changes));
    }
    pol_entry_set_tloc_list_add(ctx_, b, "TX", &changed_);
    EXPECT_EQ(pol_handle_sets_service(user_) + pol_handle_sets_tloc_list(user_), 2);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
}

// Each named origin's pair is pinned by the polctl_show_origins golden;
// codes of no pair, which no configuration can give, change nothing.
TEST_F(PolStore, UnknownOriginCodesAreIgnored)
{
    t_pol_entry *e = seq(10);
    const t_pol_match_entry &m = e->match_entry;
    auto add = [&](uint32_t code) {
        return effect([&](uint8_t *c) { EXPECT_EQ(pol_entry_match_origin_add(ctx_, e, code, c), &e->match_entry); });
    };
    EXPECT_EQ(add(12), effects(1, 1));
    for (uint32_t code : {12u, 8u, 9u, 10u, 13u, 200u}) {  // the same pair again, or codes of no pair
        EXPECT_EQ(add(code), effects(0, 0)) << "code " << code;
        EXPECT_TRUE(m.match_origin_type == 8 && m.match_origin_subtype == 0 &&
                    (e->entry_match_flags & POL_MATCH_FLAG_ORIGIN) != 0) << "code " << code;
    }
    EXPECT_EQ(effect([&](uint8_t *c) { pol_entry_match_origin_delete(ctx_, e, c); }), effects(1, 1));
    EXPECT_EQ(add(9), effects(0, 0));
    EXPECT_EQ(e->entry_match_flags & POL_MATCH_FLAG_ORIGIN, 0u);
}

}  // namespace
