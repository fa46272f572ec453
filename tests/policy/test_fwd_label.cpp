// Forwarding labels of data-policy sequences: which sequences an
// originator's label change reaches and what the host is asked, the TLOC
// list refresh walk, re-rendered documents, one notification per
// evaluation, and the list-name sets of the document publisher.
#include <bsd/string.h>
#include <libxml/xmlmemory.h>
#include <policy/pol_config.h>

#include "fwd_test_support.hpp"
#include "pol_fwd_label.h"

using namespace poltest;

namespace {

// Data policy "D" on VPN list "V":
//   10 TLOC 10.0.0.1 colour 1, VPN 12      20 TLOC list TL (.1, .2), VPN 12
//   30 service 4, VPN 12                    40 service 5, VPN 12
//   50 TLOC 10.0.0.3, VPN 12                60 TLOC 10.0.0.1, VPN 13
//   70 TLOC 10.0.0.1 with service 4, VPN 12
// and policy "E" (its own user) whose one sequence only counts.
class FwdLabelTest : public FwdTest {
protected:
    void SetUp() override
    {
        FwdTest::SetUp();
        ctx_->init_params.pol_label_cb = label_cb;
        g_host = LabelHost{};
        const t_tloc_id t1{v4(1), 1, 2}, t2{v4(2), 2, 2};
        ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t1, 10), ERR_OK);
        ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t2, 20), ERR_OK);
        for (uint32_t n : {10u, 20u, 30u, 40u, 50u, 60u, 70u}) {
            ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", uint16_t(n)), nullptr);
            pol_fwd_entry_vpn_upd(ctx_, "D", POL_TYPE_DATA, "V", n, n == 60 ? 13 : 12, true);
        }
        set_tloc(10, 1);
        pol_fwd_entry_tloc_list_upd(ctx_, "D", POL_TYPE_DATA, "V", 20, "TL");
        pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 30, 4, false);
        pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 40, 5, false);
        set_tloc(50, 3);
        set_tloc(60, 1);
        set_tloc(70, 1);
        pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 70, 4, false);
        register_user("e", "E", POL_TYPE_DATA, POL_DIR_IN, count_cb, &other_calls_);
        ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "E", POL_TYPE_DATA, "V"), nullptr);
        ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, "E", POL_TYPE_DATA, "V", 10), nullptr);
        pol_fwd_entry_vpn_upd(ctx_, "E", POL_TYPE_DATA, "V", 10, 12, true);
        notified();
        other_calls_ = 0;
        g_host.calls.clear();
        stale_document();
    }
    void set_tloc(uint32_t seq, uint32_t host)
    {
        const t_tloc_id t{v4(host), 1, 2};
        ASSERT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", seq, true, &t), ERR_OK);
    }
    t_pol_entry *seq(uint32_t n) { return pol_fwd_pol_entry_get(ctx_, "D", POL_TYPE_DATA, "V", n, nullptr); }

    // A document text that no rendering produces, to see it replaced.
    void stale_document()
    {
        pol_xml_free_buf(&block_->pol_xml);
        block_->pol_xml.buf = reinterpret_cast<char *>(xmlStrdup(BAD_CAST "stale"));
    }
    bool rerendered() const
    {
        const char *buf = block_->pol_xml.buf;
        return buf != nullptr && std::string(buf) != "stale" && std::string(buf).find("<data-policy") != std::string::npos;
    }

    // What the host is asked by an originator's evaluation, and by the
    // plain walk of every data policy that has such sequences.
    std::vector<std::string> evaluate(uint32_t host, uint64_t vpn, uint16_t service, uint8_t color = 1)
    {
        g_host.calls.clear();
        pol_fwd_eval_label(ctx_, nullptr, htonl(0x0a000000u | host), color, vpn, service, false);
        return g_host.calls;
    }
    std::vector<std::string> walk(uint32_t host, uint64_t vpn, uint16_t service, uint8_t color = 1)
    {
        g_host.calls.clear();
        for (t_pol_block *b = pol_block_first(ctx_, POL_TYPE_DATA); b != nullptr;
             b = pol_block_next(ctx_, b, POL_TYPE_DATA)) {
            if (b->pol_flags & 0x38) {
                pol_fwd_eval_block(ctx_, nullptr, b, htonl(0x0a000000u | host), color, vpn, service, false);
            }
        }
        notified();
        return g_host.calls;
    }

    int other_calls_ = 0;
};

// An originator's evaluation asks the host for the sequences aiming at it
// as they are then, in the same order as the walk, and the service
// sequences take the host's answer.
TEST_F(FwdLabelTest, OriginatorReachesOnlyTheSequencesAimingAtIt)
{
    const t_tloc_id t1{v4(1), 1, 2};
    struct Case {
        std::function<void()> change;
        uint32_t originator;
        uint64_t vpn;
        uint16_t service;
        std::vector<std::string> asked;  // in the order the host is asked
        std::function<void()> then = [] {};
        uint8_t color = 1;  // the originator's
    };
    const auto labels_kept = [&] {
        EXPECT_EQ(seq(10)->set_entry.set_fwd_label, 101u);
        EXPECT_EQ(targets(seq(20)), (std::vector<std::string>{"1/1:101:10", "2/2:102:20"}));
    };
    const auto service_targets = [&](const std::vector<std::string> &want) { EXPECT_EQ(targets(seq(40)), want); };
    const Case cases[] = {
        // TLOC at it, the list holding it, the service, the TLOC with that service.
        {[] {}, 1, 12, 4, {"1/1:12:0", "1/1:12:0", "2/2:12:0", "0/0:12:4", "1/1:12:4"}},
        // Only the list holds .2; the TLOC-with-service sequence wants .1.
        {[] {}, 2, 12, 4, {"1/1:12:0", "2/2:12:0", "0/0:12:4"}},
        // Another service: the service sequences stay out, so does 70.
        {[] {}, 1, 12, 5, {"1/1:12:0", "1/1:12:0", "2/2:12:0", "0/0:12:5"}},
        {[] {}, 3, 12, 9, {"3/1:12:0"}},
        {[] {}, 1, 13, 0, {"1/1:13:0"}},
        {[] {}, 9, 12, 7, {}, labels_kept},
        // The service sequence's targets: the host's TE entries when there
        // are any, else the bare label at the originator, else none.
        {[] { g_host.service_label = 55; }, 7, 12, 5, {"0/0:12:5"}, [&] { service_targets({"7/3:55:0"}); }, 3},
        {[] { g_host.service_te = {{5, 40, {v4(3), 1, 2}}, {6, 50, {v4(4), 2, 2}}}; }, 7, 12, 5, {"0/0:12:5"},
         [&] { service_targets({"3/1:5:40", "4/2:6:50"}); }, 3},
        {[] { g_host = LabelHost{}; }, 7, 12, 5, {"0/0:12:5"}, [&] { service_targets({}); }, 3},
        // What the sequences aim at changes between two evaluations.
        {[] {}, 1, 12, 9, {"1/1:12:0", "1/1:12:0", "2/2:12:0"}},
        {[&] { set_tloc(50, 1); }, 1, 12, 9, {"1/1:12:0", "1/1:12:0", "2/2:12:0", "1/1:12:0"}},
        {[&] { pol_fwd_entry_find_and_delete(ctx_, "D", POL_TYPE_DATA, "V", 10); }, 1, 12, 9,
         {"1/1:12:0", "2/2:12:0", "1/1:12:0"}},
        {[&] {
             pol_tloc_list_del_entry(ctx_, "TL", &t1);
             pol_config_update_tloc_list(nullptr, ctx_);
         },
         1, 12, 9, {"1/1:12:0"}},
        {[&] { pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 40, 9, false); }, 1, 12, 9,
         {"0/0:12:9", "1/1:12:0"}},
        {[&] {
             pol_fwd_entry_tloc_list_upd(ctx_, "D", POL_TYPE_DATA, "V", 20, "");
             pol_fwd_entry_svc_upd(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 20, 9, false);
         },
         1, 12, 9, {"0/0:12:9", "0/0:12:9", "1/1:12:0"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        c.change();
        notified();
        stale_document();
        EXPECT_EQ(evaluate(c.originator, c.vpn, c.service, c.color), c.asked);
        c.then();
        EXPECT_EQ(calls_, c.asked.empty() ? 0 : 1);  // once, however many sequences
        EXPECT_EQ(rerendered(), !c.asked.empty());
        EXPECT_EQ(other_calls_, 0);  // a policy with no such sequence is never evaluated
        calls_ = 0;
        EXPECT_EQ(walk(c.originator, c.vpn, c.service, c.color), c.asked);
    }
}

// Policy "B" holds many sequences aiming elsewhere: an originator none of
// them names asks the host nothing, one they do not name either leaves
// them alone (what it costs is bench_fwd's to show).
TEST_F(FwdLabelTest, EvaluationLooksOnlyAtItsOwnSequences)
{
    const t_tloc_id far{v4(200), 1, 2};
    uint8_t changed = 0;
    ASSERT_NE(pol_block_find_or_create(ctx_, "B", POL_TYPE_DATA, &changed), nullptr);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "B", POL_TYPE_DATA, "W"), nullptr);
    for (uint32_t n = 1000; n < 1500; n++) {
        ASSERT_NE(pol_fwd_entry_find_or_create(ctx_, "B", POL_TYPE_DATA, "W", uint16_t(n)), nullptr);
        pol_fwd_entry_vpn_upd(ctx_, "B", POL_TYPE_DATA, "W", n, 12, true);
        ASSERT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "B", POL_TYPE_DATA, "W", n, true, &far), ERR_OK);
    }
    notified();
    const int64_t blocks = live_count(POL_MEM_BLOCK);
    {
        AllocFailure fail(POL_MEM_BLOCK);  // no index: the evaluation walks instead and asks the same
        EXPECT_EQ(evaluate(3, 12, 9), std::vector<std::string>{"3/1:12:0"});
    }
    EXPECT_EQ(live_count(POL_MEM_BLOCK), blocks);
    EXPECT_EQ(evaluate(3, 12, 9), std::vector<std::string>{"3/1:12:0"});  // the index is made here
    EXPECT_EQ(live_count(POL_MEM_BLOCK), blocks + 2);  // counted as the blocks' memory, freed with the context
    pol_fwd_eval_label(ctx_, nullptr, htonl(0x0a000009u), 1, 12, 7, false);  // aimed at by none
    EXPECT_EQ(g_host.calls.size(), 1u);
}

TEST_F(FwdLabelTest, AllocationFailures)
{
    // The bare label's node: logged, and the rest of the policy is left.
    g_host.service_label = 55;
    {
        LogCapture log;
        AllocFailure fail(POL_MEM_ENTRY_TLOC);
        pol_fwd_eval_label(ctx_, nullptr, htonl(0x0a000001u), 1, 12, 4, false);
        ASSERT_FALSE(log.lines.empty());
        EXPECT_NE(log.lines.back().find("[POL] Failed to allocate memory for fwd_tloc_entry"), std::string::npos);
    }
    EXPECT_EQ(g_host.calls, (std::vector<std::string>{"1/1:12:0", "1/1:12:0", "2/2:12:0", "0/0:12:4"}));
    EXPECT_TRUE(targets(seq(30)).empty());
    EXPECT_EQ(calls_, 1);  // 10 and 20 were refreshed

    // The refresh record: logged, the document stays as it was.
    stale_document();
    {
        LogCapture log;
        AllocFailure fail(POL_MEM_POL_MGMTD_THREAD_ARGS);
        pol_fwd_upd_label(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10);
        ASSERT_FALSE(log.lines.empty());
        EXPECT_NE(log.lines.back().find("[POL] Failed to allocate memory for t_pol_mgmtd_thread_label_param, "
                                        "running low on memory"),
                  std::string::npos);
    }
    EXPECT_FALSE(rerendered());
    pol_fwd_upd_label(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 99);  // no such sequence
    EXPECT_FALSE(rerendered());
    pol_fwd_upd_label(nullptr, ctx_, "D", POL_TYPE_DATA, "V", 10);
    EXPECT_TRUE(rerendered());
}

// A TLOC list that changed hands its new content, labelled, to the data
// sequences that set it; their policy is re-rendered and told once.
TEST_F(FwdLabelTest, TlocListRefreshReachesDataSequences)
{
    const t_tloc_id t5{v4(5), 3, 2};
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t5, 50), ERR_OK);
    t_tloc_list *tl = pol_tloc_list_find(ctx_, "TL");
    ASSERT_TRUE(tl->update_fwd_policy_label);
    notified();
    pol_config_update_tloc_list(nullptr, ctx_);
    EXPECT_EQ(targets(seq(20)), (std::vector<std::string>{"1/1:101:10", "2/2:102:20", "5/3:105:50"}));
    EXPECT_EQ(g_host.calls, (std::vector<std::string>{"1/1:12:0", "2/2:12:0", "5/3:12:0"}));
    EXPECT_FALSE(tl->update_fwd_policy_label);
    EXPECT_TRUE(rerendered());
    EXPECT_EQ(calls_, 1);
    calls_ = 0;
    g_host.calls.clear();
    pol_config_update_tloc_list(nullptr, ctx_);  // nothing changed since
    EXPECT_TRUE(g_host.calls.empty() && calls_ == 0);

    // A target that cannot be copied drops the sequence's TLOC list.
    const t_tloc_id t6{v4(6), 3, 2};
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "TL", &t6, 60), ERR_OK);
    {
        AllocFailure fail(POL_MEM_ENTRY_TLOC, 2);
        pol_config_update_tloc_list(nullptr, ctx_);
    }
    EXPECT_TRUE(seq(20)->set_entry.set_fwd_tloc_list_p == nullptr && !(seq(20)->entry_set_flags & 0x1000) &&
                targets(seq(20)).empty());
}

struct NameSetTest : PolContextTest {
    void TearDown() override
    {
        pol_fwd_list_clear(&list_);
        PolContextTest::TearDown();
    }
    t_list_name_head list_ = TAILQ_HEAD_INITIALIZER(list_);
};

TEST_F(NameSetTest, TestAndInsert)
{
    const std::string long_name(40, 'x');
    struct Step {
        std::string name;
        int answer;
        bool fail = false;
    };
    const Step steps[] = {
        {"a", 0}, {"a", 1}, {"b", 0}, {"A", 0},
        {long_name, 0}, {long_name.substr(0, 32), 1}, {long_name.substr(0, 31), 0},  // 32 characters count
        {"c", 0, true}, {"c", 0}, {"c", 1},  // a name that could not be recorded is asked anew
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.name);
        std::optional<AllocFailure> fail;
        if (s.fail) {
            fail.emplace(POL_MEM_ENTRY_LIST);
        }
        EXPECT_EQ(pol_fwd_list_exists(&list_, s.name.c_str()), s.answer);
    }
    EXPECT_EQ(live_count(POL_MEM_ENTRY_LIST), 6 + 2);  // the names, the set's record and its table

    // Emptied: by its own clear, or by hand elsewhere; names count afresh.
    pol_fwd_list_clear(&list_);
    EXPECT_EQ(pol_fwd_list_exists(&list_, "a"), 0);
    while (t_list_name_entry *n = TAILQ_FIRST(&list_)) {
        TAILQ_REMOVE(&list_, n, list_name_entry);
        pol_free(n, POL_MEM_ENTRY_LIST);
    }
    EXPECT_EQ(pol_fwd_list_exists(&list_, "a"), 0);
    EXPECT_EQ(pol_fwd_list_exists(&list_, "a"), 1);

    // A set first met with names in it still knows them.
    t_list_name_head other = TAILQ_HEAD_INITIALIZER(other);
    auto *n = static_cast<t_list_name_entry *>(pol_calloc(1, sizeof(t_list_name_entry), POL_MEM_ENTRY_LIST));
    strlcpy(n->list_name, "pre", sizeof(n->list_name));
    TAILQ_INSERT_TAIL(&other, n, list_name_entry);
    EXPECT_EQ(pol_fwd_list_exists(&other, "pre"), 1);
    EXPECT_EQ(pol_fwd_list_exists(&other, "new"), 0);
    EXPECT_EQ(pol_fwd_list_exists(&other, "new"), 1);
    pol_fwd_list_clear(&other);
}

// Many names, each asked twice: every name is found again, none twice,
// also when the table cannot grow (the 36th allocation of the set is its
// first growth, at 32 names) and the set is walked from then on.
TEST_F(NameSetTest, ManyNamesEachOnce)
{
    constexpr int kNames = 5000;
    // The allocation made to fail (0: none), the tables left with the set's record.
    for (const auto &[fail_at, tables] : {std::pair{0u, 1}, std::pair{36u, 0}}) {
        SCOPED_TRACE(fail_at);
        std::optional<AllocFailure> fail;
        if (fail_at != 0) {
            fail.emplace(POL_MEM_ENTRY_LIST, fail_at);
        }
        const int64_t before = live_count(POL_MEM_ENTRY_LIST);
        int answers = 0;
        for (int round = 0; round < 2; round++) {
            for (int i = 0; i < kNames; i++) {
                answers += pol_fwd_list_exists(&list_, ("list-" + std::to_string(i)).c_str());
            }
        }
        EXPECT_EQ(answers, kNames);
        EXPECT_EQ(live_count(POL_MEM_ENTRY_LIST), before + kNames + 1 + tables);
        pol_fwd_list_clear(&list_);
        EXPECT_EQ(live_count(POL_MEM_ENTRY_LIST), before);
    }
}

}  // namespace
