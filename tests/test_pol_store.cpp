// The store of a sequence's match conditions and set actions: presence bits
// kept with their values, unchanged re-adds that notify nobody, the users
// chains of the named lists a sequence refers to, and the block summary
// bits of the TLOC-resolving actions.
#include <arpa/inet.h>

#include <vector>

#include <gtest/gtest.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;

void count_change(t_pol_user *, void *user_ctx)
{
    ++*static_cast<int *>(user_ctx);
}

t_tloc_id tloc(uint32_t host_order_addr, uint8_t color, uint8_t encap)
{
    t_tloc_id t{{}, color, encap};
    IPADDR_SET_V4(&t.addr, htonl(host_order_addr));
    return t;
}

std::vector<t_pol_match_entry *> pfx_users(const t_pfx_list *list)
{
    std::vector<t_pol_match_entry *> out;
    t_pol_match_entry *m = nullptr;
    TAILQ_FOREACH(m, &list->match_list_head, match_pfx_entry) {
        out.push_back(m);
    }
    return out;
}

// Keeps a prefix list alive on its own: one entry 10.0.0.0/8.
void give_entry(t_pol_ctx *ctx, const t_pfx_list_key &key)
{
    t_pfx_entry_param param{};
    IPADDR_SET_V4(&param.prefix.addr, htonl(0x0A000000));
    param.prefix.prefixlen = 8;
    ASSERT_EQ(pol_pfx_list_entry_add(ctx, &key, &param), ERR_OK);
}

const t_pfx_list_key kA = {POL_AF_IPV4, "A"};
const t_pfx_list_key kA6 = {POL_AF_IPV6, "A"};
const t_pfx_list_key kB = {POL_AF_IPV4, "B"};

class PolStore : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        user_ = register_user("rib", "P", POL_TYPE_ROUTE, POL_DIR_OUT, count_change, &notes_);
        block_ = pol_block_find(ctx_, "P", POL_TYPE_ROUTE, nullptr);
        ASSERT_NE(block_, nullptr);
    }

    // A route sequence of P; its creation has been told already.
    t_pol_entry *seq(uint32_t num)
    {
        uint8_t changed = 0;
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block_, num, &changed);
        EXPECT_NE(pol_entry_match_add(ctx_, block_, entry, POL_MATCH_VROUTE, &changed), nullptr);
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

    // Conditions and actions on one list of every family, lists named
    // here only (prefix list A is left to the caller).
    void use_every_list(t_pol_entry *entry)
    {
        uint8_t changed = 0;
        EXPECT_NE(pol_entry_match_site_list_add(ctx_, entry, "S", &changed), nullptr);
        EXPECT_NE(pol_entry_match_tloc_list_add(ctx_, entry, "T", &changed), nullptr);
        EXPECT_NE(pol_entry_match_color_list_add(ctx_, entry, "C", &changed), nullptr);
        EXPECT_NE(pol_entry_match_vpn_list_add(ctx_, entry, "V", &changed), nullptr);
        EXPECT_NE(pol_entry_set_vpn_list_add(ctx_, entry, "VX", &changed), nullptr);
        EXPECT_NE(pol_entry_set_tloc_list_add(ctx_, entry, "TX", &changed), nullptr);
    }

    bool match_lists_gone()
    {
        return pol_site_list_find(ctx_, "S") == nullptr && pol_tloc_list_find(ctx_, "T") == nullptr &&
               pol_color_list_find(ctx_, "C") == nullptr && pol_vpn_list_find(ctx_, "V") == nullptr;
    }

    t_pol_user *user_ = nullptr;
    t_pol_block *block_ = nullptr;
    int notes_ = 0;
};

TEST_F(PolStore, EqualValueAddedAgainChangesNothing)
{
    t_pol_entry *e = seq(10);
    uint8_t changed = 0;
    EXPECT_EQ(pol_entry_match_tag_add(ctx_, e, 77, &changed), &e->match_entry);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(e->match_entry.match_tag, 77u);
    EXPECT_NE(e->entry_match_flags & POL_MATCH_FLAG_TAG, 0u);

    changed = 0;
    pol_entry_match_tag_add(ctx_, e, 77, &changed);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(notified(), 0);

    pol_entry_match_tag_add(ctx_, e, 78, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(notified(), 1);

    // A zero value is a value: the bit, not the field, says it is there.
    changed = 0;
    pol_entry_set_tag_add(ctx_, e, 0, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(e->entry_set_flags, POL_SET_FLAG_TAG);

    pol_entry_match_tag_delete(ctx_, e, &changed);
    EXPECT_EQ(e->entry_match_flags & POL_MATCH_FLAG_TAG, 0u);
    EXPECT_EQ(notified(), 1);
    changed = 0;
    pol_entry_match_tag_delete(ctx_, e, &changed);
    EXPECT_EQ(changed, 0);
}

TEST_F(PolStore, ReplacingPrefixListMovesSequenceBetweenUsersChains)
{
    t_pol_entry *a = seq(10);
    t_pol_entry *b = seq(20);
    give_entry(ctx_, kA);
    uint8_t changed = 0;
    pol_entry_match_pfx_list_add(ctx_, a, &kA, &changed);
    pol_entry_match_pfx_list_add(ctx_, b, &kA, &changed);
    t_pfx_list *list_a = pol_pfx_list_find(ctx_, &kA);
    ASSERT_NE(list_a, nullptr);
    EXPECT_EQ(a->match_entry.match_pfx_list_p, list_a);
    EXPECT_EQ(notified(), 1);
    changed = 0;
    EXPECT_EQ(pol_entry_match_pfx_list_add(ctx_, a, &kA, &changed), &a->match_entry);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(notified(), 0);
    EXPECT_EQ(pfx_users(list_a), (std::vector<t_pol_match_entry *>{&a->match_entry, &b->match_entry}));

    // The same name in the other family is another list.
    pol_entry_match_pfx_list_add(ctx_, a, &kA6, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(notified(), 1);
    t_pfx_list *list_a6 = pol_pfx_list_find(ctx_, &kA6);
    ASSERT_NE(list_a6, nullptr);
    EXPECT_EQ(pfx_users(list_a), std::vector<t_pol_match_entry *>{&b->match_entry});
    EXPECT_EQ(pfx_users(list_a6), std::vector<t_pol_match_entry *>{&a->match_entry});

    // A6 has neither entries nor other users: leaving it frees it.
    const int64_t lists = live_count(POL_MEM_LIST_PREFIX);
    pol_entry_match_pfx_list_add(ctx_, a, &kB, &changed);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kA6), nullptr);
    EXPECT_EQ(live_count(POL_MEM_LIST_PREFIX), lists);
    t_pfx_list *list_b = pol_pfx_list_find(ctx_, &kB);
    ASSERT_NE(list_b, nullptr);

    // A keeps its entry, so it stays with an empty chain.
    pol_entry_match_pfx_list_add(ctx_, b, &kB, &changed);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kA), list_a);
    EXPECT_TRUE(pfx_users(list_a).empty());
    EXPECT_EQ(pfx_users(list_b), (std::vector<t_pol_match_entry *>{&a->match_entry, &b->match_entry}));

    pol_entry_match_pfx_list_delete(ctx_, a, &changed);
    EXPECT_EQ(a->entry_match_flags & POL_MATCH_FLAG_PFX_LIST, 0u);
    EXPECT_EQ(pfx_users(list_b), std::vector<t_pol_match_entry *>{&b->match_entry});
}

TEST_F(PolStore, ChangingMatchTypeClearsEveryCondition)
{
    t_pol_entry *e = seq(10);
    uint8_t changed = 0;
    const t_tloc_id t = tloc(0x01010101, 3, 2);
    pol_entry_match_pfx_list_add(ctx_, e, &kA, &changed);
    use_every_list(e);
    pol_entry_match_tag_add(ctx_, e, 5, &changed);
    pol_entry_match_tloc_add(ctx_, e, &t, &changed);
    pol_entry_match_origin_add(ctx_, e, 4, &changed);
    pol_entry_match_color_add(ctx_, e, 9, &changed);
    notified();

    changed = 0;
    EXPECT_EQ(pol_entry_match_add(ctx_, block_, e, POL_MATCH_VROUTE, &changed), &e->match_entry);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(notified(), 0);

    pol_entry_match_add(ctx_, block_, e, POL_MATCH_TLOC, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(e->entry_match_flags, 0u);
    EXPECT_EQ(e->match_entry.match_type, POL_MATCH_TLOC);
    EXPECT_EQ(e->match_entry.pol_block_p, block_);
    EXPECT_EQ(e->match_entry.match_pfx_list_p, nullptr);
    EXPECT_EQ(e->match_entry.match_origin_type, 0);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kA), nullptr);
    EXPECT_TRUE(match_lists_gone());
    // The set actions are not conditions: they stay.
    EXPECT_EQ(e->entry_set_flags, POL_SET_FLAG_VPN_LIST | POL_SET_FLAG_TLOC_LIST);
    EXPECT_NE(pol_vpn_list_find(ctx_, "VX"), nullptr);
}

TEST_F(PolStore, DeletingOneSetTlocClearsThePolicySummary)
{
    t_pol_user *in = register_user("rib-in", "P", POL_TYPE_ROUTE, POL_DIR_IN);
    t_pol_entry *a = seq(10);
    t_pol_entry *b = seq(20);
    t_pol_entry *c = seq(30);
    const t_tloc_id t1 = tloc(0x01010101, 3, 2);
    const t_tloc_id t2 = tloc(0x02020202, 4, 1);
    uint8_t changed = 0;
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
    pol_entry_set_tloc_add(ctx_, a, &t1, &changed);
    pol_entry_set_tloc_add(ctx_, b, &t2, &changed);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 1);
    EXPECT_EQ(pol_handle_sets_tloc(in), 0);  // outbound users only

    // Deleting what a sequence does not carry leaves the summary alone.
    pol_entry_set_tloc_delete(ctx_, c, &changed);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 1);

    pol_entry_set_tloc_delete(ctx_, a, &changed);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
    EXPECT_EQ(b->entry_set_flags, POL_SET_FLAG_TLOC);
    EXPECT_EQ(TLOC_CMP(&b->set_entry.set_tloc, &t2), 0);

    // Service and TLOC list have their own summary bits.
    pol_entry_set_service_add(ctx_, a, 4, &t1, 0, &changed);
    pol_entry_set_tloc_list_add(ctx_, b, "TX", &changed);
    EXPECT_EQ(pol_handle_sets_service(user_) + pol_handle_sets_tloc_list(user_), 2);
    EXPECT_EQ(pol_handle_sets_tloc(user_), 0);
}

TEST_F(PolStore, OriginCodesMapToPairsAndUnknownCodesAreIgnored)
{
    t_pol_entry *e = seq(10);
    const struct {
        uint32_t code;
        uint8_t type, subtype;
    } rows[] = {{0, 2, 0}, {1, 1, 0}, {2, 4, 2}, {3, 4, 1}, {4, 4, 3},
                {5, 4, 4}, {6, 3, 1}, {7, 3, 2}, {11, 5, 0}, {12, 8, 0}};
    for (const auto &r : rows) {
        uint8_t changed = 0;
        EXPECT_EQ(pol_entry_match_origin_add(ctx_, e, r.code, &changed), &e->match_entry);
        EXPECT_EQ(changed, 1) << "code " << r.code;
        EXPECT_EQ(e->match_entry.match_origin_type, r.type) << "code " << r.code;
        EXPECT_EQ(e->match_entry.match_origin_subtype, r.subtype) << "code " << r.code;
        EXPECT_NE(e->entry_match_flags & POL_MATCH_FLAG_ORIGIN, 0u);
    }
    uint8_t changed = 0;
    pol_entry_match_origin_add(ctx_, e, 12, &changed);
    EXPECT_EQ(changed, 0);
    notified();

    for (uint32_t code : {8u, 9u, 10u, 13u, 200u}) {
        pol_entry_match_origin_add(ctx_, e, code, &changed);
        EXPECT_EQ(changed, 0) << "code " << code;
        EXPECT_EQ(e->match_entry.match_origin_type, 8) << "code " << code;
        EXPECT_EQ(e->match_entry.match_origin_subtype, 0) << "code " << code;
    }
    EXPECT_EQ(notified(), 0);

    pol_entry_match_origin_delete(ctx_, e, &changed);
    EXPECT_EQ(changed, 1);
    changed = 0;
    pol_entry_match_origin_add(ctx_, e, 9, &changed);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(e->entry_match_flags & POL_MATCH_FLAG_ORIGIN, 0u);
}

// When the new list cannot be created, the bit stays set and the sequence
// stays on the old list, which its pointer still names.
TEST_F(PolStore, FailedListCreationKeepsTheOldList)
{
    t_pol_entry *e = seq(10);
    give_entry(ctx_, kA);
    uint8_t changed = 0;
    pol_entry_match_pfx_list_add(ctx_, e, &kA, &changed);
    t_pfx_list *list_a = pol_pfx_list_find(ctx_, &kA);
    notified();

    const int64_t lists = live_count(POL_MEM_LIST_PREFIX);
    changed = 0;
    {
        AllocFailure fail(POL_MEM_LIST_PREFIX);
        EXPECT_EQ(pol_entry_match_pfx_list_add(ctx_, e, &kB, &changed), nullptr);
    }
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(notified(), 0);
    EXPECT_NE(e->entry_match_flags & POL_MATCH_FLAG_PFX_LIST, 0u);
    EXPECT_EQ(e->match_entry.match_pfx_list_p, list_a);
    EXPECT_EQ(pfx_users(list_a), std::vector<t_pol_match_entry *>{&e->match_entry})
        << "still a user of the list it points at";
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kB), nullptr);
    EXPECT_EQ(live_count(POL_MEM_LIST_PREFIX), lists);

    // The next attempt, with memory, lands on B.
    EXPECT_EQ(pol_entry_match_pfx_list_add(ctx_, e, &kB, &changed), &e->match_entry);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(pfx_users(pol_pfx_list_find(ctx_, &kB)), std::vector<t_pol_match_entry *>{&e->match_entry});
}

TEST_F(PolStore, DeletingSequenceUnhooksItFromEveryList)
{
    t_pol_entry *a = seq(10);
    t_pol_entry *b = seq(20);
    uint8_t changed = 0;
    pol_entry_match_pfx_list_add(ctx_, a, &kA, &changed);
    pol_entry_match_pfx_list_add(ctx_, b, &kA, &changed);
    use_every_list(a);
    notified();

    changed = 0;
    pol_entry_find_and_delete(ctx_, block_, 10, &changed);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(pol_entry_find(ctx_, block_, 10, nullptr), nullptr);
    EXPECT_TRUE(match_lists_gone());
    EXPECT_EQ(pol_vpn_list_find(ctx_, "VX"), nullptr);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "TX"), nullptr);
    t_pfx_list *list_a = pol_pfx_list_find(ctx_, &kA);
    ASSERT_NE(list_a, nullptr);
    EXPECT_EQ(pfx_users(list_a), std::vector<t_pol_match_entry *>{&b->match_entry});

    changed = 0;
    pol_entry_find_and_delete(ctx_, block_, 10, &changed);
    EXPECT_EQ(changed, 0);
    pol_entry_find_and_delete(ctx_, block_, 20, &changed);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &kA), nullptr);
}

}  // namespace
