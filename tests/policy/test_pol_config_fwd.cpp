// Configuration change callbacks of the data side, driven as the host's
// management layer drives them: the objects data policies refer to, data
// and app-route policies with their VPN lists and sequences, and the
// start-up read through the host's read calls.
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <policy/pol_config.h>
#include <zen/zen_policy_tags.h>
#include <zen/zen_util.h>

#include "mgmtd_builder.hpp"
#include "pol_config_internal.hpp"
#include "pol_test_support.hpp"

namespace {

using mgmtd_builder::keys;
using mgmtd_builder::values;
using poltest::LogCapture;
using U64s = std::vector<uint64_t>;

enum schema_tag : uint32_t {
#define TEST_POLICY_TAG(id, name, tag) T_##id = tag,
    ZEN_POLICY_TAGS(TEST_POLICY_TAG)
#undef TEST_POLICY_TAG
};

bool logged(const LogCapture &log, const std::string &text)
{
    return std::any_of(log.lines.begin(), log.lines.end(),
                       [&](const std::string &line) { return line.find("[POL] " + text) != std::string::npos; });
}

// Keys and values are taken as variables or as built inside the call.
class ConfigFwdTest : public poltest::PolContextTest {
protected:
    template <typename Reader, typename K, typename V = values>
    int32_t run(Reader reader, mgmtd_iter_op op, K &&k, V &&v = V())
    {
        return reader(&host_, ctx_, op, k.size(), k.data(), v.size(), v.data());
    }

    template <typename V = values>
    int32_t named(pol_config_cb_f reader, mgmtd_iter_op op, const char *name, V &&v = V())
    {
        return run(reader, op, keys().text(name), v);
    }

    template <typename V = values>
    int32_t sla(mgmtd_iter_op op, const char *name, V &&v = V())
    {
        return named(pol_config_policy_sla_class_read, op, name, v);
    }

    int32_t probe_class(const char *name, int color, uint8_t dscp)
    {
        named(pol_config_policy_app_probe_class_name_read, MOP_CREATED, name);
        return run(pol_config_policy_app_probe_class_color_read, MOP_CREATED, keys().text(name).enum_value(color),
                   values().u8(T_DSCP, dscp));
    }

    t_vmgmtd_context host_{};
};

/* ---- objects of one key: create, change, delete ---- */

// Each is created, changed and deleted by its reader; a failed allocation
// fails the creation with a text of its own, logged and kept for the host.
TEST_F(ConfigFwdTest, ObjectsOfOneKeyLifeAndFailure)
{
#define FOUND(find) [](t_pol_ctx *c, const char *n) { return (find) != nullptr; }
    const struct {
        pol_config_cb_f reader;
        bool (*exists)(t_pol_ctx *, const char *);
        e_pol_mem row;
        const char *failure;  // on creation of "x"; nullptr: not checked
    } cases[] = {
        {pol_config_policy_app_id_read, FOUND(pol_fwd_app_id_find(c, n)), POL_MEM_ENTRY_APPID,
         "Failed to create fwd app id: x"},
        {pol_config_app_list_read, FOUND(pol_app_list_find(c, n)), POL_MEM_LIST_APP,
         "Failed to create fwd app-list: x"},
        {pol_config_fwd_pfx_list_read, FOUND(pol_fwd_pfx_list_find(c, n)), POL_MEM_LIST_FWD_PREFIX,
         "Failed to create fwd pfx-list - pfx: x"},
        {pol_config_fwd_pfx6_list_read, FOUND(pol_fwd_pfx6_list_find(c, n)), POL_MEM_LIST_FWD_PREFIX,
         "Failed to create fwd pfx6-list - pfx: x"},
        // The policer's failure deliberately reads as the SLA class's.
        {pol_config_fwd_policer_read, FOUND(pol_fwd_policer_find(c, n)), POL_MEM_TYPE_POLICER,
         "Failed to create fwd sla class: x"},
        {pol_config_policy_app_probe_class_name_read, FOUND(pol_app_probe_class_find(c, n)), POL_MEM_MAX, nullptr},
        {pol_config_policy_sla_class_read, FOUND(pol_fwd_sla_class_find(c, n)), POL_MEM_MAX, nullptr},
        {pol_config_cflowd_template_read, FOUND(pol_block_find(c, n, POL_TYPE_CFLOWD, nullptr)), POL_MEM_MAX, nullptr},
    };
#undef FOUND
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        for (mgmtd_iter_op op : {MOP_CREATED, MOP_MODIFIED, MOP_DELETED}) {
            EXPECT_EQ(named(c.reader, op, "obj"), POL_CONFIG_OK);
            EXPECT_EQ(c.exists(ctx_, "obj"), op != MOP_DELETED) << op;
        }
        if (c.failure != nullptr) {
            LogCapture log;
            poltest::AllocFailure fail(c.row);
            EXPECT_EQ(named(c.reader, MOP_CREATED, "x"), POL_CONFIG_NOT_FOUND);
            EXPECT_TRUE(logged(log, c.failure));
            EXPECT_STREQ(pol_config_error(), c.failure);
        }
    }
}

/* ---- SLA classes ---- */

// A removed limit reads as unset (all ones) and marks the class for fetching;
// the limits a file sets are in the show-data-lists golden. A change from
// app-probe class A to B leaves A before B is named, and a removed app-probe
// class leaves the class without one.
TEST_F(ConfigFwdTest, SlaClassLimitsRemovedLeavesAndAppProbeClass)
{
    ASSERT_EQ(sla(MOP_CREATED, "voice", values().u8(T_SLA_LOSS, 3).u16(T_SLA_LATENCY, 150).u16(T_SLA_JITTER, 20)),
              POL_CONFIG_OK);
    t_fwd_sla_class *c = pol_fwd_sla_class_find(ctx_, "voice");
    ASSERT_NE(c, nullptr);
    auto limits = [&] { return U64s{c->loss, c->latency, c->jitter}; };
    const std::pair<uint32_t, U64s> removals[] = {
        {T_SLA_LOSS, {255, 150, 20}}, {T_SLA_LATENCY, {255, 65535, 20}}, {T_SLA_JITTER, {255, 65535, 65535}}};
    for (const auto &[tag, want] : removals) {
        c->fetch_xml = 0;
        EXPECT_EQ(sla(MOP_MODIFIED, "voice", values().removed(tag)), POL_CONFIG_OK);
        EXPECT_TRUE(limits() == want && c->fetch_xml == 1) << tag;
    }

    ASSERT_EQ(probe_class("A", 2, 46), POL_CONFIG_OK);
    ASSERT_EQ(probe_class("B", 4, 34), POL_CONFIG_OK);
    ASSERT_EQ(sla(MOP_MODIFIED, "voice", values().text(T_APP_PROBE_CLASS, "A")), POL_CONFIG_OK);
    t_app_probe_class *a = pol_app_probe_class_find(ctx_, "A"), *b = pol_app_probe_class_find(ctx_, "B");
    ASSERT_EQ(c->pol_app_probe_class_p, a);

    ASSERT_EQ(sla(MOP_MODIFIED, "voice", values().text(T_APP_PROBE_CLASS, "B")), POL_CONFIG_OK);
    EXPECT_TRUE(TAILQ_EMPTY(&a->sla_class_head));
    EXPECT_TRUE(c->pol_app_probe_class_p == b && pol_app_probe_class_find_sla_entry(ctx_, b, c) == c);

    EXPECT_EQ(sla(MOP_MODIFIED, "voice", values().removed(T_APP_PROBE_CLASS).u8(T_SLA_LOSS, 9)), POL_CONFIG_OK);
    EXPECT_STREQ(c->app_probe_class_name, "");
    EXPECT_NE(c->loss, 9) << "the walk ends at a removed app-probe class";
    EXPECT_EQ(sla(MOP_DELETED, "voice"), POL_CONFIG_OK);
    EXPECT_EQ(pol_fwd_sla_class_find(ctx_, "voice"), nullptr);
    EXPECT_EQ(sla(MOP_DELETED, "voice"), POL_CONFIG_NOT_FOUND);
}

/* ---- application lists, prefixes, colours, cflowd ---- */

// What a file creates is in the show-data-lists golden (the kind of an
// application list, prefixes in network order, a probe class's colours,
// DSCPs and forwarding class) and the show-data-policies golden (a cflowd
// template's leaves and collectors); here, list and class entries go, and
// every change marks the template for fetching.
TEST_F(ConfigFwdTest, EntriesGoAndCflowdChangesMarkTheTemplate)
{
    keys app, pfx6;
    app.text("office").text("webex");
    pfx6.text("v6").ipv6_prefix("2001:db8::", 32);
    for (mgmtd_iter_op op : {MOP_CREATED, MOP_DELETED}) {
        EXPECT_EQ(run(pol_config_app_list_app_read, op, app), POL_CONFIG_OK);
        EXPECT_EQ(run(pol_config_fwd_pfx6_list_ip_read, op, pfx6), POL_CONFIG_OK);
    }
    const t_fwd_pfx_list *v6 = pol_fwd_pfx6_list_find(ctx_, "v6");
    EXPECT_TRUE(v6 == nullptr || avl_is_empty(&v6->ip_fwd_pfx_entry_db));

    ASSERT_EQ(probe_class("probe", 2, 46), POL_CONFIG_OK);
    t_app_probe_class *pc = pol_app_probe_class_find(ctx_, "probe");
    ASSERT_NE(pc, nullptr);
    EXPECT_EQ(run(pol_config_policy_app_probe_class_color_read, MOP_DELETED, keys().text("probe").enum_value(2)),
              POL_CONFIG_OK);
    EXPECT_EQ(pol_app_probe_class_find_entry(ctx_, pc, 2), nullptr);

    ASSERT_EQ(named(pol_config_cflowd_template_read, MOP_CREATED, "tmpl",
                    values().u32(T_FLOW_ACTIVE_TIMEOUT, 60).u32(T_TEMPLATE_REFRESH, 90)),
              POL_CONFIG_OK);
    t_pol_block *block = pol_block_find(ctx_, "tmpl", POL_TYPE_CFLOWD, nullptr);
    ASSERT_NE(block, nullptr);
    t_cflowd_entry *t = block->pol_cflowd_entry;
    EXPECT_EQ(block->fetch_xml, 1);
    block->fetch_xml = 0;
    ASSERT_EQ(named(pol_config_cflowd_template_read, MOP_MODIFIED, "tmpl", values().removed(T_TEMPLATE_REFRESH)),
              POL_CONFIG_OK);
    EXPECT_EQ((U64s{t->flow_active_timeout, t->template_refresh, block->fetch_xml}), (U64s{60, 0, 1}));

    keys cltr;
    cltr.text("tmpl").u64(10).ipv4("192.0.2.9").u16(2055).enum_value(1);
    block->fetch_xml = 0;
    ASSERT_EQ(run(pol_config_cflowd_collector_read, MOP_CREATED, cltr), POL_CONFIG_OK);
    EXPECT_EQ((U64s{avl_numnodes(&t->collector_db), block->fetch_xml}), (U64s{1, 1}));
    ASSERT_EQ(run(pol_config_cflowd_collector_read, MOP_DELETED, cltr), POL_CONFIG_OK);
    EXPECT_EQ(avl_numnodes(&t->collector_db), 0u);
    LogCapture log;
    EXPECT_EQ(run(pol_config_cflowd_collector_read, MOP_CREATED,
                  keys().text("none").u64(1).ipv4("192.0.2.1").u16(1).enum_value(0)),
              POL_CONFIG_NOT_FOUND);
    EXPECT_TRUE(logged(log, "Failed to find cflowd template: none"));
}

/* ---- data and app-route policies ---- */

// The policy "dp", its VPN list "corp" and its sequence 10.
class ConfigFwdPolicyTest : public ConfigFwdTest {
protected:
    template <typename Reader, typename K, typename V>
    int32_t read(Reader reader, K &&k, mgmtd_iter_op op, V &&v, e_pol_type type)
    {
        return reader(type, &host_, ctx_, op, k.size(), k.data(), v.size(), v.data());
    }
    int32_t policy(mgmtd_iter_op op, e_pol_type type = POL_TYPE_DATA)
    {
        return read(pol_config_fwd_read, keys().text("dp"), op, values(), type);
    }
    template <typename V = values>
    int32_t vpn_list(mgmtd_iter_op op, V &&v = V(), e_pol_type type = POL_TYPE_DATA)
    {
        return read(pol_config_fwd_vpn_list_read, keys().text("dp").text("corp"), op, v, type);
    }
    template <typename V = values>
    int32_t seq(mgmtd_iter_op op, V &&v = V(), e_pol_type type = POL_TYPE_DATA)
    {
        return read(pol_config_fwd_seq_read, keys().text("dp").text("corp").u16(10), op, v, type);
    }
    t_pol_entry *entry(e_pol_type type = POL_TYPE_DATA)
    {
        return pol_fwd_pol_entry_get(ctx_, "dp", type, "corp", 10, nullptr);
    }
    t_pol_entry *default_entry(e_pol_type type = POL_TYPE_DATA)
    {
        return pol_fwd_default_pol_entry_get(ctx_, "dp", type, "corp", nullptr);
    }
    void make(e_pol_type type = POL_TYPE_DATA)
    {
        ASSERT_EQ(policy(MOP_CREATED, type), POL_CONFIG_OK);
        ASSERT_EQ(vpn_list(MOP_CREATED, values(), type), POL_CONFIG_OK);
        ASSERT_EQ(seq(MOP_CREATED, values(), type), POL_CONFIG_OK);
        ASSERT_NE(entry(type), nullptr);
    }
};

// A failed update ends the call with status 1, names the operation, and
// notifies nobody.
TEST_F(ConfigFwdPolicyTest, PolicyVpnListAndSequenceLifeCycle)
{
    int notified = 0;
    poltest::register_user("u", "dp", POL_TYPE_DATA, POL_DIR_OUT, poltest::count_cb, &notified);
    make();
    EXPECT_GT(notified, 0);
    notified = 0;
    {
        LogCapture log;
        poltest::AllocFailure fail(POL_MEM_ENTRY_MATCH_DST_PORT);
        EXPECT_EQ(seq(MOP_MODIFIED, values().text(T_COUNT, "c").text(T_DST_PORT, "1-2")), POL_CONFIG_NOT_FOUND);
        EXPECT_TRUE(logged(log, "Failed to alloc memory for range config, match "));
    }
    EXPECT_EQ(notified, 0);
    EXPECT_STREQ(entry()->set_entry.set_counter_name, "c") << "what came before stays";
    ASSERT_EQ(vpn_list(MOP_MODIFIED, values().enum_leaf(T_DEFAULT_ACTION, 0)), POL_CONFIG_OK);
    t_pol_entry *d = default_entry();
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->set_entry.action, 0);
    ASSERT_EQ(vpn_list(MOP_MODIFIED, values().removed(T_DEFAULT_ACTION)), POL_CONFIG_OK);
    EXPECT_EQ(d->set_entry.action, 1) << "a removed default action drops";

    ASSERT_EQ(seq(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(entry(), nullptr);
    ASSERT_EQ(vpn_list(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(default_entry(), nullptr);
    notified = 0;
    ASSERT_EQ(policy(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(notified, 0) << "deleting a data policy notifies nobody from the reader";
    pol_user_find_and_delete(ctx_, "u", "dp", POL_TYPE_DATA, POL_DIR_OUT);
    ASSERT_EQ(policy(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(pol_block_find(ctx_, "dp", POL_TYPE_DATA, nullptr), nullptr);
}

// Each leaf of a sequence, set on a created sequence and then removed; every
// change marks the policy for fetching.
TEST_F(ConfigFwdPolicyTest, SequenceLeavesSetAndRemoved)
{
    using E = const t_pol_entry *;
    const struct {
        const char *what;
        void (*set)(values &);
        uint32_t tag;  // 0: not removed
        bool (*present)(E);
    } cases[] = {
        {"count", [](values &v) { v.text(T_COUNT, "c1"); }, T_COUNT,
         [](E e) { return std::string(e->set_entry.set_counter_name) == "c1"; }},
        {"log", [](values &v) { v.text(T_LOG, ""); }, T_LOG,
         [](E e) { return (e->entry_set_flags & POL_FWD_SET_FLAG_LOG) != 0; }},
        {"nat pool", [](values &v) { v.begin(T_NAT).u32(T_NAT_POOL, 4).end(T_NAT); }, T_NAT_POOL,
         [](E e) { return e->set_entry.set_nat_pool_id == 4; }},
        {"fec", [](values &v) { v.enum_leaf(T_FEC, 11); }, T_FEC,
         [](E e) { return e->set_entry.loss_protection_fec == 11; }},
        {"tcp", [](values &v) { v.begin(T_MATCH).enum_leaf(T_TCP, 2).end(T_MATCH); }, T_TCP,
         [](E e) { return e->match_entry.match_tcp_flags == 2; }},
        {"set dscp", [](values &v) { v.begin(T_SET).u8(T_DSCP, 46).end(T_SET); }, 0,
         [](E e) { return e->set_entry.set_fwd_dscp == 46; }},
        {"match dscp", [](values &v) { v.begin(T_MATCH).bytes(T_DSCP, {10, 46}).end(T_MATCH); }, 0,
         [](E e) { return e->match_entry.match_num_dscp == 2; }},
        {"icmp", [](values &v) { v.begin(T_MATCH).enums(T_ICMP_MSG, {2048, 771}).end(T_MATCH); }, T_ICMP_MSG,
         [](E e) { return e->match_entry.match_num_icmp == 2 && e->match_entry.match_icmp_list[0] == 2048; }},
        {"source ports", [](values &v) { v.text(T_SRC_PORT, "80 8000-8080"); }, T_SRC_PORT, [](E e) {
             const t_pol_range *p = e->match_entry.match_src_port_list;
             return e->match_entry.match_num_src_port == 2 && p[0].min_val == 80 && p[0].max_val == 80 &&
                    p[1].min_val == 8000 && p[1].max_val == 8080;
         }},
        {"redirect dns kind", [](values &v) { v.enum_leaf(T_REDIRECT_DNS, 1); }, T_REDIRECT_DNS,
         [](E e) { return (e->entry_set_flags & POL_FWD_SET_FLAG_REDIRECT_DNS_TYPE) != 0; }},
        {"next hop", [](values &v) { v.begin(T_SET).ipv4(T_NEXT_HOP, "10.0.0.1").end(T_SET); }, 0,
         [](E e) { return !IPADDR_IS_ZERO(&e->set_entry.next_hop); }},
        {"local tloc",
         [](values &v) { v.begin(T_SET).begin(T_LOCAL_TLOC).enum_leaf(T_COLOR, 2).end(T_LOCAL_TLOC).end(T_SET); }, 0,
         [](E e) { return (e->entry_set_flags & POL_FWD_SET_FLAG_LOCAL_TLOC) != 0; }},
    };
    make();
    t_pol_block *block = pol_block_find(ctx_, "dp", POL_TYPE_DATA, nullptr);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        values v;
        c.set(v);
        block->fetch_xml = 0;
        ASSERT_EQ(seq(MOP_MODIFIED, v), POL_CONFIG_OK) << pol_config_error();
        EXPECT_TRUE(c.present(entry()) && block->fetch_xml == 1);
        if (c.tag != 0) {
            ASSERT_EQ(seq(MOP_MODIFIED, values().removed(c.tag)), POL_CONFIG_OK);
            EXPECT_FALSE(c.present(entry()));
        }
    }
}

// Preferred colours are kept in 8 bits: ordinal 9 falls off. The default
// action keeps the held strict flag when only its colours change.
TEST_F(ConfigFwdPolicyTest, SlaPreferredColoursKeepEightBits)
{
    make(POL_TYPE_PFR);
    sla(MOP_CREATED, "voice");
    ASSERT_EQ(seq(MOP_MODIFIED, values().text(T_SLA_CLASS, "voice").enums(T_SLA_PREFERRED_COLOR, {1, 9}), POL_TYPE_PFR),
              POL_CONFIG_OK);
    const t_pol_entry *e = entry(POL_TYPE_PFR);
    EXPECT_TRUE(e->set_entry.set_sla_preferred_color == 2u && (e->entry_set_flags & POL_FWD_SET_FLAG_SLA_CLASS));

    ASSERT_EQ(vpn_list(MOP_MODIFIED,
                       values().begin(T_DEFAULT_ACTION).text(T_SLA_CLASS, "voice").boolean(T_SLA_STRICT, true)
                           .enums(T_SLA_PREFERRED_COLOR, {2, 8}).end(T_DEFAULT_ACTION),
                       POL_TYPE_PFR),
              POL_CONFIG_OK);
    const t_pol_set_entry &d = default_entry(POL_TYPE_PFR)->set_entry;
    EXPECT_TRUE(d.set_sla_preferred_color == 4u && d.set_sla_strict == 1);
    ASSERT_EQ(vpn_list(MOP_MODIFIED,
                       values().begin(T_DEFAULT_ACTION).enums(T_SLA_PREFERRED_COLOR, {3}).end(T_DEFAULT_ACTION),
                       POL_TYPE_PFR),
              POL_CONFIG_OK);
    EXPECT_TRUE(d.set_sla_preferred_color == 8u && d.set_sla_strict == 1);
}

std::vector<std::string> g_labels;

void record_label(t_vmgmtd_context *, t_pol_ctx *, const char *pol, e_pol_type, const char *vpn, uint32_t seq)
{
    g_labels.push_back(std::string(pol) + "/" + vpn + "/" + std::to_string(seq));
}

// A TLOC, TLOC-list, service or local-TLOC change refreshes the sequence's
// labels once; other changes do not.
TEST_F(ConfigFwdPolicyTest, SteeringChangeRefreshesLabels)
{
    make();
    pol::config::set_fwd_label_hook(record_label);
    g_labels.clear();
    ASSERT_EQ(seq(MOP_MODIFIED, values().text(T_COUNT, "c")), POL_CONFIG_OK);
    EXPECT_TRUE(g_labels.empty());
    ASSERT_EQ(seq(MOP_MODIFIED, values().begin(T_SET).begin(T_TLOC).ipv4(T_TLOC_ADDRESS, "10.0.0.9")
                                    .enum_leaf(T_COLOR, 2).enum_leaf(T_ENCAP, 2).end(T_TLOC).end(T_SET)),
              POL_CONFIG_OK);
    EXPECT_EQ(g_labels, std::vector<std::string>{"dp/corp/10"});
    EXPECT_NE(entry()->entry_set_flags & POL_FWD_SET_FLAG_TLOC, 0u);
    ASSERT_EQ(seq(MOP_MODIFIED, values().begin(T_SET).begin(T_TLOC).removed(T_TLOC_ADDRESS).removed(T_COLOR)
                                    .removed(T_ENCAP).end(T_TLOC).end(T_SET)),
              POL_CONFIG_OK);
    EXPECT_EQ(entry()->entry_set_flags & POL_FWD_SET_FLAG_TLOC, 0u);
    EXPECT_EQ(g_labels.size(), 2u);
    pol::config::set_fwd_label_hook(nullptr);
}

/* ---- the start-up read through the host's read calls ---- */

std::vector<std::string> g_policies, g_calls;  // the host's data policies, the read calls made

// The path a read call names, recorded as "<call> <path>".
#define RECORD_PATH(call, path)                  \
    va_list ap;                                  \
    va_start(ap, fmt);                           \
    char path[256];                              \
    std::vsnprintf(path, sizeof(path), fmt, ap); \
    va_end(ap);                                  \
    g_calls.push_back(std::string(call " ") + path)

int fake_num_instances(int, const char *fmt, ...)
{
    RECORD_PATH("num", path);
    return std::string(path) == "data-policy" ? static_cast<int>(g_policies.size()) : 1;
}

int fake_get_str(int, char *buf, int n, const char *fmt, ...)
{
    RECORD_PATH("get", path);
    int i = -1;
    if (std::sscanf(path, "data-policy[%d]/name", &i) != 1) {
        std::snprintf(buf, n, "vpn");
    } else if (g_policies[i].empty()) {
        return -1;  // a name that cannot be read
    } else {
        std::snprintf(buf, n, "%s", g_policies[i].c_str());
    }
    return 0;
}

int fake_pushd(int, const char *fmt, ...)
{
    RECORD_PATH("pushd", path);
    return 0;
}

TEST_F(ConfigFwdTest, StartUpReadCreatesTheDataPolicies)
{
    EXPECT_EQ(pol_config_read_fwd_policy(&host_, ctx_), 1) << "no read calls handed over";
    const t_pol_cdb_read_ops ops = {fake_num_instances, fake_get_str, fake_pushd};
    pol_config_cdb_read_ops_set(&ops);
    g_policies = {"one", "", "two"};
    g_calls.clear();
    EXPECT_EQ(pol_config_read_fwd_policy(&host_, ctx_), 0);
    EXPECT_NE(pol_block_find(ctx_, "one", POL_TYPE_DATA, nullptr), nullptr);
    EXPECT_NE(pol_block_find(ctx_, "two", POL_TYPE_DATA, nullptr), nullptr);
    const std::vector<std::string> want = {
        "num data-policy",         "get data-policy[0]/name", "num data-policy[0]/vpn", "pushd data-policy[0]/vpn[0]",
        "get name",                "get data-policy[1]/name", "get data-policy[2]/name", "num data-policy[2]/vpn",
        "pushd data-policy[2]/vpn[0]", "get name"};
    EXPECT_EQ(g_calls, want);
    pol_config_cdb_read_ops_set(nullptr);
}

}  // namespace
