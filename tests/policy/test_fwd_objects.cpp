// Policers, SLA classes, app-probe classes and app-ids: their life cycle
// with data-policy users, the policer's leaves, the colour entries and the
// SLA-class chain of an app-probe class with its change cascade (their
// dumps are the command-line goldens').
#include <bsd/string.h>

#include "fwd_test_support.hpp"

namespace {

using namespace poltest;
using Calls = std::vector<std::string>;
using FwdObjectsTest = PolContextTest;

// Debug logging on for one scope.
struct DebugLevel {
    explicit DebugLevel(uint32_t level) { pol_debug_set(level); }
    ~DebugLevel() { pol_debug_set(0); }
};

bool logged(const LogCapture &log, const std::string &text)
{
    return std::any_of(log.lines.begin(), log.lines.end(), [&](const std::string &line) {
        return line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0;
    });
}

mgmtd_tag_value_t leaf(uint32_t tag, mgmtd_vtype type, uint64_t value = 0)
{
    mgmtd_tag_value_t tv{};
    tv.tag.tag = tag;
    tv.v.type = type;
    if (type == C_UINT64) {
        tv.v.val.u64 = value;
    } else if (type == C_ENUM_VALUE) {
        tv.v.val.enumvalue = static_cast<int32_t>(value);
    } else {
        tv.v.val.u32 = static_cast<uint32_t>(value);
    }
    return tv;
}

constexpr uint32_t kRate = 0x31c4ad27, kBurst = 0x4b124597, kExceed = 0x3fe4de6;

// One value-object family (policer, SLA class, app-id) on the object "X",
// through its own C functions, pol_fwd_<family>_*.
struct Family {
    const char *what;
    e_pol_mem row;
    e_err (*change)();
    void *(*find)();
    void *(*user_add)(DataSequence &);
    e_err (*user_remove)(void *, DataSequence &);
    e_err (*cfg_del)();
    void (*del)(void *);
    bool last_user_deletes;
};

#define FAMILY(fam, T, row, change, user, last_user_deletes)                                               \
    Family{#fam, row, [] { return change; },                                                                   \
           []() -> void * { return pol_fwd_##fam##_find(g_pol_ctx_p, "X"); },                                 \
           [](DataSequence &s) -> void * { return pol_fwd_##fam##_user_add(g_pol_ctx_p, "X", &s.user); },     \
           [](void *o, DataSequence &s) {                                                                      \
               return pol_fwd_##fam##_user_remove(g_pol_ctx_p, static_cast<T *>(o), &s.user);                 \
           },                                                                                                  \
           [] { return pol_fwd_##fam##_cfg_del(g_pol_ctx_p, "X"); },                                          \
           [](void *o) {                                                                                       \
               T *rec = static_cast<T *>(o);                                                                   \
               pol_fwd_##fam##_del(g_pol_ctx_p, &rec, 1);                                                      \
           },                                                                                                  \
           last_user_deletes}

// Policers, SLA classes and app-ids share one life cycle: made by
// entry_change or a user, kept by users, gone with cfg_del once unused.
// They differ in whether the last user takes the object along.
TEST_F(FwdObjectsTest, ValueObjectsLiveWhileConfiguredOrUsed)
{
    const Family families[] = {
        FAMILY(policer, t_fwd_policer, POL_MEM_TYPE_POLICER, pol_fwd_policer_entry_change(g_pol_ctx_p, "X", 0, nullptr),
               set, false),
        FAMILY(sla_class, t_fwd_sla_class, POL_MEM_TYPE_PFR, pol_fwd_sla_class_entry_change(g_pol_ctx_p, "X"), set,
               false),
        FAMILY(app_id, t_fwd_app_id, POL_MEM_ENTRY_APPID, pol_fwd_app_id_entry_change(g_pol_ctx_p, "X"), match, true),
    };
    Calls calls;
    register_user("ar", "AR", POL_TYPE_PFR, POL_DIR_OUT, record_cb, &calls);
    register_user("decoy", "decoy", POL_TYPE_PFR, POL_DIR_OUT, record_cb, &calls);
    for (const Family &f : families) {
        SCOPED_TRACE(f.what);
        const int64_t live0 = live_count(f.row);
        DataSequence seq("AR", POL_TYPE_PFR);
        calls.clear();
        for (bool by_user : {false, true}) {
            AllocFailure fail(f.row);
            EXPECT_TRUE(by_user ? f.user_add(seq) == nullptr : f.change() == ERR_ALLOC);
        }
        ASSERT_EQ(f.change(), ERR_OK);
        void *obj = f.find();
        ASSERT_NE(obj, nullptr);
        EXPECT_EQ(f.user_add(seq), obj);
        EXPECT_EQ(f.change(), ERR_OK);
        EXPECT_EQ(calls, Calls{"ar"});  // through the VPN record only
        EXPECT_EQ(f.cfg_del(), ERR_OK);
        EXPECT_EQ(f.find(), obj);  // in use: kept as it is
        EXPECT_DEATH({ dup2(2, 1); f.del(obj); }, "pol_list\\.hpp:[0-9]+: failed assertion `chains::empty\\(list\\)'");
        EXPECT_EQ(f.user_remove(obj, seq), ERR_OK);
        EXPECT_EQ(f.user_remove(nullptr, seq), ERR_NOT_FOUND);
        EXPECT_EQ(f.find() == nullptr, f.last_user_deletes);
        EXPECT_EQ(f.cfg_del(), ERR_OK);
        EXPECT_EQ(f.find(), nullptr);
        EXPECT_EQ(live_count(f.row), live0);
    }
}

TEST_F(FwdObjectsTest, PolicerLeaves)
{
    Calls calls;
    register_user("dp", "DP", POL_TYPE_DATA, POL_DIR_OUT, record_cb, &calls);
    DataSequence d("DP");
    t_fwd_policer *policer = pol_fwd_policer_user_add(ctx_, "P", &d.set);
    const struct {
        std::vector<mgmtd_tag_value_t> leaves;
        uint64_t rate;
        uint32_t burst;
        uint8_t exceed;
    } steps[] = {
        {{leaf(kRate, C_UINT64, 1ull << 40), leaf(kBurst, C_UINT32, 9), leaf(kExceed, C_ENUM_VALUE, 2)}, 1ull << 40, 9, 2},
        {{leaf(kRate, C_NOEXISTS), leaf(kBurst, C_UINT32, 7)}, 1ull << 40, 7, 2},     // removed: kept
        {{leaf(0x12345678, C_BUF), leaf(kExceed, C_ENUM_VALUE, 1)}, 1ull << 40, 7, 1},  // unknown tag: skipped
        {{}, 1ull << 40, 7, 1},
    };
    for (const auto &s : steps) {
        policer->fetch_xml = 0;
        calls.clear();
        EXPECT_EQ(pol_fwd_policer_entry_change(ctx_, "P", static_cast<uint16_t>(s.leaves.size()), s.leaves.data()),
                  ERR_OK);
        EXPECT_TRUE(policer->rate == s.rate && policer->burst == s.burst && policer->exceed_action == s.exceed);
        EXPECT_TRUE(policer->fetch_xml == 1 && calls == Calls{"dp"});
    }
    // A leaf of a wrong value kind is a programming error.
    const struct {
        mgmtd_tag_value_t bad;
        const char *message;
    } deaths[] = {
        {leaf(kRate, C_UINT32, 5), "failed assertion `\\(&p_curr_val->v\\)->type == C_UINT64'"},
        {leaf(kBurst, C_UINT64, 5), "failed assertion `\\(&p_curr_val->v\\)->type == C_UINT32'"},
        {leaf(kExceed, C_UINT8, 5), "failed assertion `\\(&p_curr_val->v\\)->type == C_ENUM_VALUE'"},
    };
    for (const auto &d2 : deaths) {
        EXPECT_DEATH({ dup2(2, 1); pol_fwd_policer_entry_change(ctx_, "P", 1, &d2.bad); },
                     std::string("pol_fwd_policer\\.cpp:[0-9]+: ") + d2.message);
    }
    pol_fwd_policer_user_remove(ctx_, policer, &d.set);
}

TEST_F(FwdObjectsTest, AppProbeClassColourEntries)
{
    const int64_t classes0 = live_count(POL_MEM_LIST_APP_PROBE_CLASS);
    EXPECT_EQ(pol_app_probe_class_add_entry(ctx_, "A", 1, 10), 1);  // unknown class: nothing made
    EXPECT_TRUE(pol_app_probe_class_find(ctx_, "A") == nullptr && live_count(POL_MEM_LIST_APP_PROBE_CLASS) == classes0);

    ASSERT_EQ(pol_app_probe_class_entry_change(ctx_, "A", nullptr), ERR_OK);
    t_app_probe_class *apc = pol_app_probe_class_find(ctx_, "A");
    ASSERT_TRUE(apc != nullptr && apc->fetch_xml == 1 && apc->forwarding_class[0] == '\0');
    EXPECT_EQ(pol_app_probe_class_add_entry(ctx_, "A", 0x10001, 10), ERR_OK);
    t_app_probe_class_color_entry *e1 = pol_app_probe_class_find_entry(ctx_, apc, 1);
    ASSERT_TRUE(e1 != nullptr && e1->color == 1 && e1->dscp == 10);
    pol_app_probe_class_add_entry(ctx_, "A", 2, 20);
    apc->fetch_xml = 0;
    EXPECT_EQ(pol_app_probe_class_add_entry(ctx_, "A", 1, 12), ERR_OK);  // in place
    EXPECT_TRUE(pol_app_probe_class_find_entry(ctx_, apc, 0x20001) == e1 && e1->dscp == 12 && apc->fetch_xml == 1);
    EXPECT_EQ(TAILQ_FIRST(&apc->app_probe_class_color_entry_head), e1);
    EXPECT_EQ(TAILQ_NEXT(e1, app_probe_class_color_entry)->color, 2);
    {
        AllocFailure fail(POL_MEM_ENTRY_APP_PROBE_CLASS_COLOR);
        EXPECT_EQ(pol_app_probe_class_add_entry(ctx_, "A", 3, 30), 1);
    }
    apc->fetch_xml = 0;
    EXPECT_EQ(pol_app_probe_class_del_entry(ctx_, "A", 9), ERR_OK);  // absent colour
    EXPECT_EQ(apc->fetch_xml, 1);
    EXPECT_EQ(pol_app_probe_class_del_entry(ctx_, "none", 1), ERR_OK);
    EXPECT_EQ(pol_app_probe_class_del_entry(ctx_, "A", 0x10001), ERR_OK);
    EXPECT_EQ(pol_app_probe_class_find_entry(ctx_, apc, 1), nullptr);

    // A forwarding class keeps the class through cfg_del; its colours go.
    pol_app_probe_class_entry_change(ctx_, "A", std::string(80, 'f').c_str());
    EXPECT_EQ(std::string(apc->forwarding_class), std::string(63, 'f'));
    EXPECT_DEATH({ dup2(2, 1); pol_app_probe_class_del(ctx_, &apc, 1); }, "failed assertion `queue::empty");
    EXPECT_EQ(pol_app_probe_class_cfg_del(ctx_, "A"), ERR_OK);
    EXPECT_TRUE(pol_app_probe_class_find(ctx_, "A") == apc && pol_app_probe_class_find_entry(ctx_, apc, 2) == nullptr);
    apc->forwarding_class[0] = '\0';
    pol_app_probe_class_add_entry(ctx_, "A", 4, 40);
    EXPECT_EQ(pol_app_probe_class_cfg_del(ctx_, "A"), ERR_OK);
    EXPECT_EQ(pol_app_probe_class_find(ctx_, "A"), nullptr);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_APP_PROBE_CLASS_COLOR), 0);
}

// A change of an app-probe class is a change of each SLA class in its
// chain, in chain order; the SLA classes' users hear of it. An SLA class
// leaves the chain with its configuration, by name, or by moving.
TEST_F(FwdObjectsTest, ProbeClassChangesCascadeToSlaClasses)
{
    Calls calls;
    register_user("u2", "AR2", POL_TYPE_PFR, POL_DIR_OUT, record_cb, &calls);
    register_user("u1", "AR1", POL_TYPE_PFR, POL_DIR_OUT, record_cb, &calls);
    DataSequence s1("AR1", POL_TYPE_PFR), s2("AR2", POL_TYPE_PFR), s3("AR1", POL_TYPE_PFR);
    t_fwd_sla_class *b = pol_fwd_sla_class_user_add(ctx_, "B", &s2.set);
    t_fwd_sla_class *a = pol_fwd_sla_class_user_add(ctx_, "A", &s1.set);
    t_fwd_sla_class *lone = pol_fwd_sla_class_user_add(ctx_, "lone", &s3.set);
    EXPECT_EQ(pol_fwd_app_probe_class_user_add(ctx_, "apc", b), nullptr);  // unknown: nothing made
    EXPECT_EQ(pol_app_probe_class_find(ctx_, "apc"), nullptr);
    pol_app_probe_class_entry_change(ctx_, "apc", nullptr);
    t_app_probe_class *apc = pol_app_probe_class_find(ctx_, "apc");
    EXPECT_EQ(pol_fwd_app_probe_class_user_add(ctx_, "apc", b), apc);
    EXPECT_EQ(pol_fwd_app_probe_class_user_add(ctx_, "apc", a), apc);
    EXPECT_EQ(pol_fwd_app_probe_class_user_add(ctx_, "apc", a), apc);  // linked once
    EXPECT_TRUE(pol_app_probe_class_find_sla_entry(ctx_, apc, a) == a &&
                pol_app_probe_class_find_sla_entry(ctx_, apc, lone) == nullptr);

    const std::function<void()> changes[] = {
        [&] { pol_app_probe_class_entry_change(ctx_, "apc", "fc"); },
        [&] { pol_app_probe_class_add_entry(ctx_, "apc", 7, 1); pol_app_probe_class_del_entry(ctx_, "apc", 7); },
    };
    for (const auto &change : changes) {
        for (t_fwd_sla_class *c : {a, b, lone}) {
            c->fetch_xml = 0;
        }
        calls.clear();
        DebugLevel debug(1);
        LogCapture log;
        change();
        EXPECT_EQ(calls, (Calls{"u2", "u1"}));  // B then A, each flushed at once
        EXPECT_TRUE(a->fetch_xml == 1 && b->fetch_xml == 1 && lone->fetch_xml == 0);
        EXPECT_TRUE(logged(log, "[POL] Notifying app-probe-class apc change to sla-class B\n"));
    }
    calls.clear();
    pol_app_probe_class_add_entry(ctx_, "apc", 8, 1);  // adding alone tells nobody
    EXPECT_TRUE(calls.empty());

    pol_fwd_sla_class_user_remove(ctx_, a, &s1.set);
    pol_fwd_sla_class_user_remove(ctx_, b, &s2.set);
    pol_fwd_sla_class_user_remove(ctx_, lone, &s3.set);
    EXPECT_DEATH({ dup2(2, 1); pol_app_probe_class_del(ctx_, &apc, 1); }, "failed assertion `queue::empty");
    EXPECT_EQ(pol_fwd_sla_class_cfg_del(ctx_, "A"), ERR_OK);  // unused: it leaves the chain and goes
    EXPECT_TRUE(pol_fwd_sla_class_find(ctx_, "A") == nullptr && TAILQ_FIRST(&apc->sla_class_head) == b &&
                TAILQ_NEXT(b, set_app_probe_class_sla_entry) == nullptr);

    // Taking an SLA class out of its app-probe class, and moving it.
    EXPECT_EQ(pol_fwd_app_probe_class_entry_find_and_delete(ctx_, lone), 0);  // names none
    strlcpy(lone->app_probe_class_name, "apc", sizeof(lone->app_probe_class_name));
    EXPECT_EQ(pol_fwd_app_probe_class_entry_find_and_delete(ctx_, lone), 1);  // not in its chain
    strlcpy(lone->app_probe_class_name, "gone", sizeof(lone->app_probe_class_name));
    EXPECT_EQ(pol_fwd_app_probe_class_entry_find_and_delete(ctx_, lone), 1);
    EXPECT_EQ(pol_fwd_sla_class_cfg_del(ctx_, "B"), ERR_OK);
    pol_app_probe_class_entry_change(ctx_, "P1", nullptr);
    pol_fwd_app_probe_class_user_add(ctx_, "P1", lone);
    pol_fwd_app_probe_class_user_add(ctx_, "apc", lone);  // moves; P1, left empty, goes
    EXPECT_TRUE(pol_app_probe_class_find(ctx_, "P1") == nullptr && std::string(lone->app_probe_class_name) == "apc");
    {
        DebugLevel debug(1);
        LogCapture log;
        EXPECT_EQ(pol_fwd_app_probe_class_entry_find_and_delete(ctx_, lone), 0);
        EXPECT_TRUE(logged(log, "[POL] Removing app-probe-class apc entry from sla class lone"));
    }
    EXPECT_TRUE(lone->app_probe_class_name[0] == '\0' && lone->pol_app_probe_class_p == nullptr);
    EXPECT_TRUE(pol_app_probe_class_find(ctx_, "apc") == apc && TAILQ_EMPTY(&apc->sla_class_head));  // kept by "fc"
}

}  // namespace
