// The data-policy model: VPN records and their default sequences, sequence
// numbers, block deletion with users, teardown and the linked-list
// invariants (the match-array memory table is checked with the arrays).
#include <arpa/inet.h>

#include <cstring>

#include "fwd_test_support.hpp"

namespace {

using namespace poltest;
using FwdModelTest = FwdTest;

const char *kBadType = "failed assertion `pol_type == POL_TYPE_DATA \\|\\| pol_type == POL_TYPE_PFR'";

TEST_F(FwdModelTest, VpnRecordLifeCycle)
{
    EXPECT_EQ(pol_fwd_vpn_find_or_create(ctx_, "nope", POL_TYPE_DATA, "V"), nullptr);
    EXPECT_EQ(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_PFR, "V"), nullptr);  // other type

    // The record the fixture made: a data-policy user of its VPN list, with
    // a default sequence of action 1 outside the sequence tree.
    t_vpn_list *list = pol_vpn_list_find(ctx_, "V");
    ASSERT_TRUE(list != nullptr && vpn_->vpn_list_p == list);
    EXPECT_EQ(TAILQ_FIRST(&list->fwd_pol_head), vpn_);
    const t_pol_entry *dflt = vpn_->default_pol_entry;
    ASSERT_NE(dflt, nullptr);
    EXPECT_TRUE(dflt->entry_num == 0 && dflt->set_entry.action == 1 && dflt->pol_vpn_p == vpn_ &&
                dflt->pol_block_p == block_ && dflt->set_entry.pol_vpn_p == vpn_);
    EXPECT_EQ(pol_fwd_entry_find(ctx_, vpn_, 0, nullptr), nullptr);

    // A failed allocation leaves nothing; existing: the same record and no
    // notification; new: exactly one.
    for (e_pol_mem row : {POL_MEM_FWD_ENTRY_VPN, POL_MEM_ENTRY_POLICY, POL_MEM_LIST_VPN}) {
        AllocFailure fail(row);
        EXPECT_EQ(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "W"), nullptr) << row;
    }
    EXPECT_TRUE(pol_fwd_vpn_find(ctx_, block_, "W", nullptr) == nullptr && pol_vpn_list_find(ctx_, "W") == nullptr);
    EXPECT_EQ(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V"), vpn_);
    EXPECT_EQ(notified(), 0);
    const std::string long_a = std::string(128, 'x') + "a", long_b = std::string(128, 'x') + "b";
    t_pol_fwd_vpn_entry *lv = pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, long_a.c_str());
    ASSERT_NE(lv, nullptr);
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, long_b.c_str()), lv);
    EXPECT_EQ(std::strlen(lv->vpn_name), 127u);

    const int64_t records = live_count(POL_MEM_FWD_ENTRY_VPN), seqs = live_count(POL_MEM_ENTRY_POLICY);
    pol_fwd_vpn_find_and_delete(ctx_, "D", POL_TYPE_DATA, long_b.c_str());
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(pol_fwd_vpn_find(ctx_, block_, long_a.c_str(), nullptr), nullptr);
    EXPECT_EQ(live_count(POL_MEM_FWD_ENTRY_VPN), records - 1);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_POLICY), seqs - 1);
    pol_fwd_vpn_find_and_delete(ctx_, "D", POL_TYPE_DATA, "gone");
    pol_fwd_vpn_find_and_delete(ctx_, "nope", POL_TYPE_DATA, "V");
    EXPECT_EQ(notified(), 0);

    // The VPN list goes with its last user.
    pol_fwd_vpn_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V");
    EXPECT_EQ(pol_vpn_list_find(ctx_, "V"), nullptr);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_POLICY), seqs - 3);
}

TEST_F(FwdModelTest, SequenceNumbersAndLookups)
{
    EXPECT_EQ(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "W", 1), nullptr);  // no record
    EXPECT_EQ(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10), entry_);
    EXPECT_TRUE(entry_->set_entry.pol_entry_p == entry_ && entry_->match_entry.pol_vpn_p == vpn_);

    // 16 bits on creation and deletion, 32 on lookups.
    const uint32_t big = 0x10007;
    t_pol_entry *seven = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", static_cast<uint16_t>(big));
    ASSERT_NE(seven, nullptr);
    EXPECT_EQ(seven->entry_num, 7u);
    EXPECT_EQ(notified(), 0);  // made silently
    EXPECT_EQ(pol_fwd_entry_find(ctx_, vpn_, big, nullptr), nullptr);
    t_pol_block *block = nullptr;
    EXPECT_EQ(pol_fwd_pol_entry_get(ctx_, "D", POL_TYPE_DATA, "V", 7, &block), seven);
    EXPECT_EQ(pol_fwd_pol_entry_get(ctx_, "D", POL_TYPE_DATA, "V", big, nullptr), nullptr);

    // The block is handed out even when what is under it is missing.
    block = nullptr;
    EXPECT_EQ(pol_fwd_pol_entry_get(ctx_, "D", POL_TYPE_DATA, "W", 7, &block), nullptr);
    EXPECT_EQ(block, block_);
    block = nullptr;
    EXPECT_EQ(pol_fwd_default_pol_entry_get(ctx_, "D", POL_TYPE_DATA, "V", &block), vpn_->default_pol_entry);
    EXPECT_EQ(block, block_);

    pol_fwd_entry_seq_mod(ctx_, "D", POL_TYPE_DATA, "V", 8);
    EXPECT_EQ(notified(), 0);
    pol_fwd_entry_seq_mod(ctx_, "D", POL_TYPE_DATA, "V", 7);
    EXPECT_EQ(notified(), 1);

    pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", static_cast<uint16_t>(big));
    EXPECT_EQ(pol_fwd_entry_find(ctx_, vpn_, 7, nullptr), nullptr);
    EXPECT_EQ(notified(), 1);
    pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 7);
    EXPECT_EQ(notified(), 0);
    {
        AllocFailure fail(POL_MEM_ENTRY_POLICY);
        EXPECT_EQ(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 9), nullptr);
    }
    EXPECT_EQ(pol_fwd_entry_find(ctx_, vpn_, 9, nullptr), nullptr);
}

// A block deleted while it has users stays, emptied, and they are told;
// without users it goes.
TEST_F(FwdModelTest, BlockDeleteKeepsBlockWithUsers)
{
    ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 20), nullptr);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V2"), nullptr);
    notified();
    const int64_t seqs = live_count(POL_MEM_ENTRY_POLICY);
    uint8_t changed = 0;
    pol_block_find_and_delete(ctx_, "D", POL_TYPE_DATA, &changed);
    EXPECT_EQ(pol_block_find(ctx_, "D", POL_TYPE_DATA, nullptr), block_);
    EXPECT_TRUE(avl_is_empty(&block_->pol_fwd_vpn_list_entries));
    EXPECT_EQ(user_->pol_block_p, block_);
    EXPECT_EQ(notified(), 1);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_POLICY), seqs - 4);
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "V") == nullptr && pol_vpn_list_find(ctx_, "V2") == nullptr);

    // Still usable: a record can be made again.
    EXPECT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V"), nullptr);
    const int64_t records = live_count(POL_MEM_FWD_ENTRY_VPN), blocks = live_count(POL_MEM_BLOCK);
    pol_unregister(&user_);
    pol_block_find_and_delete(ctx_, "D", POL_TYPE_DATA, &changed);
    EXPECT_EQ(pol_block_find(ctx_, "D", POL_TYPE_DATA, nullptr), nullptr);
    EXPECT_EQ(live_count(POL_MEM_FWD_ENTRY_VPN), records - 1);
    EXPECT_EQ(live_count(POL_MEM_BLOCK), blocks - 1);
}

// pol_destroy takes every record, sequence, array, target and list
// reference with it (the fixture checks the accounting afterwards).
TEST_F(FwdModelTest, DestroyReleasesEverything)
{
    const t_tloc_id t{v4(1), 3, 2};
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t, 5), ERR_OK);
    pol_fwd_entry_tloc_list_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, "TL");
    auto *ports = static_cast<t_pol_range *>(pol_malloc(sizeof(t_pol_range), POL_MEM_ENTRY_MATCH_SRC_PORT));
    ASSERT_EQ(pol_fwd_entry_range_config_upd(ctx_, "D", POL_TYPE_DATA, "V", 10, ports, 1, 0x0f472580), ERR_OK);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V2"), nullptr);
    ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V2", 1), nullptr);
    uint8_t changed = 0;
    ASSERT_NE(pol_block_find_or_create(ctx_, "A", POL_TYPE_PFR, &changed), nullptr);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "A", POL_TYPE_PFR, "V"), nullptr);
    EXPECT_EQ(TAILQ_FIRST(&entry_->set_entry.fwd_tloc_entry_head)->route_preference, 5u);
    pol_unregister(&user_);
    destroy_context();
}

TEST(FwdModel, LinkedList)
{
    t_dll dll{};
    t_dlnode n[3]{};
    for (t_dlnode &node : n) {
        DLL_ADD(&dll, &node);
    }
    DLL_REMOVE(&dll, &n[1]);
    EXPECT_TRUE(dll.count == 2 && dll.p_head == &n[0] && dll.p_tail == &n[2] && n[0].p_next == &n[2] &&
                n[2].p_prev == &n[0] && n[1].p_next == nullptr && n[1].p_prev == nullptr);
    DLL_REMOVE(&dll, &n[0]);
    EXPECT_TRUE(dll.p_head == &n[2] && n[2].p_prev == nullptr);
    DLL_REMOVE(&dll, &n[2]);
    EXPECT_TRUE(dll.count == 0 && dll.p_head == nullptr && dll.p_tail == nullptr);

    t_dll empty{};
    t_dll broken{nullptr, nullptr, 1};
    t_dll tailed{&n[0], &n[0], 0};
    t_dlnode linked{&n[1], nullptr};
    EXPECT_DEATH({ dup2(2, 1); DLL_ADD(&empty, &linked); },
                 "(^|\n)dll:[0-9]+: failed assertion `p_newnode->p_next == NULL && p_newnode->p_prev == NULL'");
    EXPECT_DEATH({ dup2(2, 1); DLL_ADD(&broken, &n[1]); }, "(^|\n)dll:[0-9]+: failed assertion `p_dll->count == 0'");
    EXPECT_DEATH({ dup2(2, 1); DLL_ADD(&tailed, &n[1]); }, "(^|\n)dll:[0-9]+: failed assertion `p_dll->count > 0'");
    EXPECT_DEATH({ dup2(2, 1); DLL_REMOVE(&empty, &n[1]); }, "(^|\n)dll:[0-9]+: failed assertion `p_dll->count > 0'");
}

TEST_F(FwdModelTest, WrongPolicyTypeStops)
{
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_ROUTE, "V"); }, kBadType);
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_MEMBERSHIP, "V", 1); }, kBadType);
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_entry_dscp_upd(ctx_, "D", POL_TYPE_CFLOWD, "V", 10, 1, true); }, kBadType);
    EXPECT_DEATH({ dup2(2, 1); pol_fwd_entry_tloc_list_upd(ctx_, "D", POL_TYPE_INVALID, "V", 10, "L"); }, kBadType);
}

}  // namespace
