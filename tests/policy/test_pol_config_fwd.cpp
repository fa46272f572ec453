// Configuration change callbacks of the data side, driven as the host's
// management layer drives them: the objects data policies refer to, data
// and app-route policies with their VPN lists and sequences, and the
// start-up read through the host's read calls.
#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <policy/pol_config.h>
#include <zen/zen_policy_tags.h>

#include "mgmtd_builder.hpp"
#include "pol_config_internal.hpp"
#include "pol_test_support.hpp"

namespace {

using mgmtd_builder::keys;
using mgmtd_builder::values;
using poltest::LogCapture;

enum schema_tag : uint32_t {
#define TEST_POLICY_TAG(id, name, tag) T_##id = tag,
    ZEN_POLICY_TAGS(TEST_POLICY_TAG)
#undef TEST_POLICY_TAG
};

bool logged(const LogCapture &log, const std::string &text)
{
    for (const std::string &line : log.lines) {
        if (line.find("[POL] " + text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class ConfigFwdTest : public poltest::PolContextTest {
protected:
    template <typename Reader>
    int32_t run(Reader reader, mgmtd_iter_op op, keys &k, values &v)
    {
        return reader(&host_, ctx_, op, k.size(), k.data(), v.size(), v.data());
    }

    int32_t named(pol_config_cb_f reader, mgmtd_iter_op op, const char *name, values &v)
    {
        keys k;
        k.text(name);
        return run(reader, op, k, v);
    }

    int32_t named(pol_config_cb_f reader, mgmtd_iter_op op, const char *name)
    {
        values v;
        return named(reader, op, name, v);
    }

    int32_t sla(mgmtd_iter_op op, const char *name, values &v)
    {
        return named(pol_config_policy_sla_class_read, op, name, v);
    }

    int32_t probe_class(const char *name, int color, uint8_t dscp)
    {
        values none;
        named(pol_config_policy_app_probe_class_name_read, MOP_CREATED, name, none);
        keys k;
        k.text(name).enum_value(color);
        values v;
        v.u8(T_DSCP, dscp);
        return run(pol_config_policy_app_probe_class_color_read, MOP_CREATED, k, v);
    }

    t_vmgmtd_context host_{};
};

/* ---- objects of one key: create, change, delete ---- */

struct named_case {
    const char *what;
    pol_config_cb_f reader;
    std::function<bool(t_pol_ctx *, const char *)> exists;
};

TEST_F(ConfigFwdTest, ObjectsOfOneKeyAreCreatedAndDeleted)
{
    const named_case cases[] = {
        {"app id", pol_config_policy_app_id_read,
         [](t_pol_ctx *c, const char *n) { return pol_fwd_app_id_find(c, n) != nullptr; }},
        {"app list", pol_config_app_list_read,
         [](t_pol_ctx *c, const char *n) { return pol_app_list_find(c, n) != nullptr; }},
        {"data-prefix list", pol_config_fwd_pfx_list_read,
         [](t_pol_ctx *c, const char *n) { return pol_fwd_pfx_list_find(c, n) != nullptr; }},
        {"data-ipv6-prefix list", pol_config_fwd_pfx6_list_read,
         [](t_pol_ctx *c, const char *n) { return pol_fwd_pfx6_list_find(c, n) != nullptr; }},
        {"app-probe class", pol_config_policy_app_probe_class_name_read,
         [](t_pol_ctx *c, const char *n) { return pol_app_probe_class_find(c, n) != nullptr; }},
        {"policer", pol_config_fwd_policer_read,
         [](t_pol_ctx *c, const char *n) { return pol_fwd_policer_find(c, n) != nullptr; }},
        {"sla class", pol_config_policy_sla_class_read,
         [](t_pol_ctx *c, const char *n) { return pol_fwd_sla_class_find(c, n) != nullptr; }},
        {"cflowd template", pol_config_cflowd_template_read, [](t_pol_ctx *c, const char *n) {
             return pol_block_find(c, n, POL_TYPE_CFLOWD, nullptr) != nullptr;
         }},
    };
    for (const named_case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(named(c.reader, MOP_CREATED, "obj"), POL_CONFIG_OK);
        EXPECT_TRUE(c.exists(ctx_, "obj"));
        EXPECT_EQ(named(c.reader, MOP_MODIFIED, "obj"), POL_CONFIG_OK);
        EXPECT_TRUE(c.exists(ctx_, "obj"));
        EXPECT_EQ(named(c.reader, MOP_DELETED, "obj"), POL_CONFIG_OK);
        EXPECT_FALSE(c.exists(ctx_, "obj"));
    }
}

TEST_F(ConfigFwdTest, FailuresOfOneKeyObjectsCarryTheirTexts)
{
    struct failing {
        const char *what;
        pol_config_cb_f reader;
        e_pol_mem row;
        const char *message;
    };
    const failing cases[] = {
        {"app id", pol_config_policy_app_id_read, POL_MEM_ENTRY_APPID,
         "Failed to create fwd app id: x"},
        {"app list", pol_config_app_list_read, POL_MEM_LIST_APP,
         "Failed to create fwd app-list: x"},
        {"pfx list", pol_config_fwd_pfx_list_read, POL_MEM_LIST_FWD_PREFIX,
         "Failed to create fwd pfx-list - pfx: x"},
        {"pfx6 list", pol_config_fwd_pfx6_list_read, POL_MEM_LIST_FWD_PREFIX,
         "Failed to create fwd pfx6-list - pfx: x"},
        // The policer's failure deliberately reads as the SLA class's.
        {"policer", pol_config_fwd_policer_read, POL_MEM_TYPE_POLICER,
         "Failed to create fwd sla class: x"},
    };
    for (const failing &c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        poltest::AllocFailure fail(c.row);
        EXPECT_EQ(named(c.reader, MOP_CREATED, "x"), POL_CONFIG_NOT_FOUND);
        EXPECT_TRUE(logged(log, c.message));
        EXPECT_STREQ(pol_config_error(), c.message);
    }
}

/* ---- SLA classes ---- */

TEST_F(ConfigFwdTest, SlaClassLimitsAndRemovedLeaves)
{
    values v;
    v.u8(T_SLA_LOSS, 3).u16(T_SLA_LATENCY, 150).u16(T_SLA_JITTER, 20);
    ASSERT_EQ(sla(MOP_CREATED, "voice", v), POL_CONFIG_OK);
    t_fwd_sla_class *c = pol_fwd_sla_class_find(ctx_, "voice");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->loss, 3);
    EXPECT_EQ(c->latency, 150);
    EXPECT_EQ(c->jitter, 20);
    c->fetch_xml = 0;

    const struct {
        uint32_t tag;
        uint8_t t_fwd_sla_class::*u8;
        uint16_t t_fwd_sla_class::*u16;
        unsigned want;
    } removals[] = {
        {T_SLA_LOSS, &t_fwd_sla_class::loss, nullptr, 255},
        {T_SLA_LATENCY, nullptr, &t_fwd_sla_class::latency, 65535},
        {T_SLA_JITTER, nullptr, &t_fwd_sla_class::jitter, 65535},
    };
    for (const auto &r : removals) {
        values gone;
        gone.removed(r.tag);
        EXPECT_EQ(sla(MOP_MODIFIED, "voice", gone), POL_CONFIG_OK);
        EXPECT_EQ(r.u8 != nullptr ? unsigned(c->*r.u8) : unsigned(c->*r.u16), r.want);
        EXPECT_EQ(c->fetch_xml, 1);
        c->fetch_xml = 0;
    }
    EXPECT_EQ(sla(MOP_DELETED, "voice", v), POL_CONFIG_OK);
    EXPECT_EQ(pol_fwd_sla_class_find(ctx_, "voice"), nullptr);
    EXPECT_EQ(sla(MOP_DELETED, "voice", v), POL_CONFIG_NOT_FOUND);
}

// A change from app-probe class A to B leaves A before B is named, and a
// removed app-probe class leaves the class without one.
TEST_F(ConfigFwdTest, SlaClassLeavesItsOldAppProbeClassFirst)
{
    ASSERT_EQ(probe_class("A", 2, 46), POL_CONFIG_OK);
    ASSERT_EQ(probe_class("B", 4, 34), POL_CONFIG_OK);
    values to_a;
    to_a.text(T_APP_PROBE_CLASS, "A");
    ASSERT_EQ(sla(MOP_CREATED, "voice", to_a), POL_CONFIG_OK);
    t_fwd_sla_class *c = pol_fwd_sla_class_find(ctx_, "voice");
    t_app_probe_class *a = pol_app_probe_class_find(ctx_, "A");
    t_app_probe_class *b = pol_app_probe_class_find(ctx_, "B");
    ASSERT_EQ(c->pol_app_probe_class_p, a);

    values to_b;
    to_b.text(T_APP_PROBE_CLASS, "B");
    ASSERT_EQ(sla(MOP_MODIFIED, "voice", to_b), POL_CONFIG_OK);
    EXPECT_EQ(pol_app_probe_class_find_sla_entry(ctx_, a, c), nullptr);
    EXPECT_TRUE(TAILQ_EMPTY(&a->sla_class_head));
    EXPECT_EQ(c->pol_app_probe_class_p, b);
    EXPECT_EQ(pol_app_probe_class_find_sla_entry(ctx_, b, c), c);

    values gone;
    gone.removed(T_APP_PROBE_CLASS).u8(T_SLA_LOSS, 9);
    EXPECT_EQ(sla(MOP_MODIFIED, "voice", gone), POL_CONFIG_OK);
    EXPECT_STREQ(c->app_probe_class_name, "");
    EXPECT_NE(c->loss, 9) << "the walk ends at a removed app-probe class";
}

/* ---- application lists, prefixes, colours ---- */

TEST_F(ConfigFwdTest, EntriesOfListsAndClasses)
{
    keys app;
    app.text("office").text("webex");
    values none;
    EXPECT_EQ(run(pol_config_app_list_app_read, MOP_CREATED, app, none), POL_CONFIG_OK);
    t_app_list *list = pol_app_list_find(ctx_, "office");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->app_list_type, POL_APP_LIST_TYPE_APP);
    keys family;
    family.text("video").text("audio-video");
    EXPECT_EQ(run(pol_config_app_list_app_family_read, MOP_CREATED, family, none), POL_CONFIG_OK);
    ASSERT_NE(pol_app_list_find(ctx_, "video"), nullptr);
    EXPECT_EQ(pol_app_list_find(ctx_, "video")->app_list_type, POL_APP_LIST_TYPE_APP_FAMILY);
    EXPECT_EQ(run(pol_config_app_list_app_read, MOP_DELETED, app, none), POL_CONFIG_OK);

    keys pfx;
    pfx.text("corp").ipv4_prefix("10.1.0.0", 16);
    EXPECT_EQ(run(pol_config_fwd_pfx_list_ip_read, MOP_CREATED, pfx, none), POL_CONFIG_OK);
    t_fwd_pfx_list *corp = pol_fwd_pfx_list_find(ctx_, "corp");
    ASSERT_NE(corp, nullptr);
    t_ipprefix want{};
    IPADDR_SET_V4(&want.addr, inet_addr("10.1.0.0"));  // network order, as every address
    want.prefixlen = 16;
    auto *stored = static_cast<t_fwd_pfx_list_entry *>(avl_first(&corp->ip_fwd_pfx_entry_db));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(IPPREFIX_CMP(&want, &stored->ip_prefix), 0);
    keys pfx6;
    pfx6.text("v6").ipv6_prefix("2001:db8::", 32);
    EXPECT_EQ(run(pol_config_fwd_pfx6_list_ip_read, MOP_CREATED, pfx6, none), POL_CONFIG_OK);
    EXPECT_NE(pol_fwd_pfx6_list_find(ctx_, "v6"), nullptr);
    EXPECT_EQ(run(pol_config_fwd_pfx6_list_ip_read, MOP_DELETED, pfx6, none), POL_CONFIG_OK);
    EXPECT_TRUE(pol_fwd_pfx6_list_find(ctx_, "v6") == nullptr ||
                avl_is_empty(&pol_fwd_pfx6_list_find(ctx_, "v6")->ip_fwd_pfx_entry_db));

    ASSERT_EQ(probe_class("probe", 2, 46), POL_CONFIG_OK);
    t_app_probe_class *pc = pol_app_probe_class_find(ctx_, "probe");
    ASSERT_NE(pc, nullptr);
    t_app_probe_class_color_entry *e = pol_app_probe_class_find_entry(ctx_, pc, 2);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->dscp, 46);
    values fwd_class;
    fwd_class.text(T_FWD_CLASS, "voice");
    EXPECT_EQ(named(pol_config_policy_app_probe_class_name_read, MOP_MODIFIED, "probe", fwd_class),
              POL_CONFIG_OK);
    EXPECT_STREQ(pc->forwarding_class, "voice");
    keys color;
    color.text("probe").enum_value(2);
    EXPECT_EQ(run(pol_config_policy_app_probe_class_color_read, MOP_DELETED, color, none),
              POL_CONFIG_OK);
    EXPECT_EQ(pol_app_probe_class_find_entry(ctx_, pc, 2), nullptr);
}

/* ---- cflowd ---- */

TEST_F(ConfigFwdTest, CflowdTemplateAndCollectors)
{
    values v;
    v.u32(T_FLOW_ACTIVE_TIMEOUT, 60).u32(T_FLOW_INACTIVE_TIMEOUT, 15)
        .u32(T_FLOW_SAMPLING_INTERVAL, 100).u32(T_TEMPLATE_REFRESH, 90)
        .enum_leaf(T_PROTOCOL, 2);
    ASSERT_EQ(named(pol_config_cflowd_template_read, MOP_CREATED, "tmpl", v), POL_CONFIG_OK);
    t_pol_block *block = pol_block_find(ctx_, "tmpl", POL_TYPE_CFLOWD, nullptr);
    ASSERT_NE(block, nullptr);
    t_cflowd_entry *t = block->pol_cflowd_entry;
    EXPECT_EQ(t->flow_active_timeout, 60u);
    EXPECT_EQ(t->flow_inactive_timeout, 15u);
    EXPECT_EQ(t->flow_sampling_interval, 100u);
    EXPECT_EQ(t->template_refresh, 90u);
    EXPECT_EQ(t->protocol, 2);
    EXPECT_EQ(block->fetch_xml, 1);

    values gone;
    gone.removed(T_TEMPLATE_REFRESH);
    block->fetch_xml = 0;
    ASSERT_EQ(named(pol_config_cflowd_template_read, MOP_MODIFIED, "tmpl", gone), POL_CONFIG_OK);
    EXPECT_EQ(t->template_refresh, 0u);
    EXPECT_EQ(t->flow_active_timeout, 60u);
    EXPECT_EQ(block->fetch_xml, 1);

    keys cltr;
    cltr.text("tmpl").u64(10).ipv4("192.0.2.9").u16(2055).enum_value(1);
    values src;
    src.text(T_SOURCE_INTERFACE, "ge0/1");
    block->fetch_xml = 0;
    ASSERT_EQ(run(pol_config_cflowd_collector_read, MOP_CREATED, cltr, src), POL_CONFIG_OK);
    ASSERT_EQ(avl_numnodes(&t->collector_db), 1u);
    auto *c = static_cast<t_cflowd_collector *>(avl_first(&t->collector_db));
    EXPECT_EQ(c->vpn_id, 10u);
    EXPECT_EQ(c->port, 2055);
    EXPECT_EQ(c->transport_type, 1u);
    EXPECT_STREQ(c->source_if, "ge0/1");
    EXPECT_EQ(block->fetch_xml, 1);
    values none;
    ASSERT_EQ(run(pol_config_cflowd_collector_read, MOP_DELETED, cltr, none), POL_CONFIG_OK);
    EXPECT_EQ(avl_numnodes(&t->collector_db), 0u);
    LogCapture log;
    keys orphan;
    orphan.text("none").u64(1).ipv4("192.0.2.1").u16(1).enum_value(0);
    EXPECT_EQ(run(pol_config_cflowd_collector_read, MOP_CREATED, orphan, none),
              POL_CONFIG_NOT_FOUND);
    EXPECT_TRUE(logged(log, "Failed to find cflowd template: none"));
    EXPECT_EQ(named(pol_config_cflowd_template_read, MOP_DELETED, "tmpl"), POL_CONFIG_OK);
    EXPECT_EQ(pol_block_find(ctx_, "tmpl", POL_TYPE_CFLOWD, nullptr), nullptr);
}

/* ---- data and app-route policies ---- */

class ConfigFwdPolicyTest : public ConfigFwdTest {
protected:
    int32_t policy(mgmtd_iter_op op, e_pol_type type = POL_TYPE_DATA)
    {
        keys k;
        k.text("dp");
        values v;
        return pol_config_fwd_read(type, &host_, ctx_, op, k.size(), k.data(), v.size(), v.data());
    }

    int32_t vpn_list(mgmtd_iter_op op, values &v, e_pol_type type = POL_TYPE_DATA)
    {
        keys k;
        k.text("dp").text("corp");
        return pol_config_fwd_vpn_list_read(type, &host_, ctx_, op, k.size(), k.data(), v.size(),
                                            v.data());
    }

    int32_t seq(mgmtd_iter_op op, values &v, e_pol_type type = POL_TYPE_DATA)
    {
        keys k;
        k.text("dp").text("corp").u16(10);
        return pol_config_fwd_seq_read(type, &host_, ctx_, op, k.size(), k.data(), v.size(),
                                       v.data());
    }

    t_pol_entry *entry(e_pol_type type = POL_TYPE_DATA)
    {
        return pol_fwd_pol_entry_get(ctx_, "dp", type, "corp", 10, nullptr);
    }

    void make(e_pol_type type = POL_TYPE_DATA)
    {
        values none;
        ASSERT_EQ(policy(MOP_CREATED, type), POL_CONFIG_OK);
        ASSERT_EQ(vpn_list(MOP_CREATED, none, type), POL_CONFIG_OK);
        ASSERT_EQ(seq(MOP_CREATED, none, type), POL_CONFIG_OK);
        ASSERT_NE(entry(type), nullptr);
    }
};

TEST_F(ConfigFwdPolicyTest, PolicyVpnListAndSequenceLifeCycle)
{
    int notified = 0;
    t_pol_user *user = poltest::register_user("u", "dp", POL_TYPE_DATA, POL_DIR_OUT,
                                              poltest::count_cb, &notified);
    make();
    EXPECT_GT(notified, 0);
    values dflt;
    dflt.enum_leaf(T_DEFAULT_ACTION, 0);
    ASSERT_EQ(vpn_list(MOP_MODIFIED, dflt), POL_CONFIG_OK);
    t_pol_entry *d = pol_fwd_default_pol_entry_get(ctx_, "dp", POL_TYPE_DATA, "corp", nullptr);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->set_entry.action, 0);
    values gone;
    gone.removed(T_DEFAULT_ACTION);
    ASSERT_EQ(vpn_list(MOP_MODIFIED, gone), POL_CONFIG_OK);
    EXPECT_EQ(d->set_entry.action, 1) << "a removed default action drops";

    values none;
    ASSERT_EQ(seq(MOP_DELETED, none), POL_CONFIG_OK);
    EXPECT_EQ(entry(), nullptr);
    ASSERT_EQ(vpn_list(MOP_DELETED, none), POL_CONFIG_OK);
    EXPECT_EQ(pol_fwd_default_pol_entry_get(ctx_, "dp", POL_TYPE_DATA, "corp", nullptr), nullptr);
    notified = 0;
    ASSERT_EQ(policy(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(notified, 0) << "deleting a data policy notifies nobody from the reader";
    pol_user_find_and_delete(ctx_, "u", "dp", POL_TYPE_DATA, POL_DIR_OUT);
    (void)user;
    ASSERT_EQ(policy(MOP_DELETED), POL_CONFIG_OK);
    EXPECT_EQ(pol_block_find(ctx_, "dp", POL_TYPE_DATA, nullptr), nullptr);
}

// Each leaf of a sequence, set on a created sequence and then removed.
TEST_F(ConfigFwdPolicyTest, SequenceLeavesSetAndRemoved)
{
    struct leaf_case {
        const char *what;
        std::function<void(values &)> set;
        uint32_t tag;
        std::function<bool(const t_pol_entry *)> present;
    };
    using E = const t_pol_entry *;
    const leaf_case cases[] = {
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
        {"match dscp", [](values &v) { v.begin(T_MATCH).bytes(T_DSCP, {10, 46}).end(T_MATCH); },
         0, [](E e) { return e->match_entry.match_num_dscp == 2; }},
        {"icmp", [](values &v) { v.begin(T_MATCH).enums(T_ICMP_MSG, {2048, 771}).end(T_MATCH); },
         T_ICMP_MSG, [](E e) {
             return e->match_entry.match_num_icmp == 2 && e->match_entry.match_icmp_list[0] == 2048;
         }},
        {"source ports", [](values &v) { v.text(T_SRC_PORT, "80 8000-8080"); }, T_SRC_PORT,
         [](E e) {
             const t_pol_match_entry &m = e->match_entry;
             return m.match_num_src_port == 2 && m.match_src_port_list[0].min_val == 80 &&
                    m.match_src_port_list[0].max_val == 80 &&
                    m.match_src_port_list[1].min_val == 8000 &&
                    m.match_src_port_list[1].max_val == 8080;
         }},
        {"redirect dns kind", [](values &v) { v.enum_leaf(T_REDIRECT_DNS, 1); }, T_REDIRECT_DNS,
         [](E e) { return (e->entry_set_flags & POL_FWD_SET_FLAG_REDIRECT_DNS_TYPE) != 0; }},
        {"next hop", [](values &v) { v.begin(T_SET).ipv4(T_NEXT_HOP, "10.0.0.1").end(T_SET); },
         0, [](E e) { return !IPADDR_IS_ZERO(&e->set_entry.next_hop); }},
        {"local tloc", [](values &v) {
             v.begin(T_SET).begin(T_LOCAL_TLOC).enum_leaf(T_COLOR, 2).end(T_LOCAL_TLOC).end(T_SET);
         }, 0, [](E e) { return (e->entry_set_flags & POL_FWD_SET_FLAG_LOCAL_TLOC) != 0; }},
    };
    make();
    for (const leaf_case &c : cases) {
        SCOPED_TRACE(c.what);
        values v;
        c.set(v);
        ASSERT_EQ(seq(MOP_MODIFIED, v), POL_CONFIG_OK) << pol_config_error();
        EXPECT_TRUE(c.present(entry()));
        if (c.tag != 0) {
            values gone;
            gone.removed(c.tag);
            ASSERT_EQ(seq(MOP_MODIFIED, gone), POL_CONFIG_OK);
            EXPECT_FALSE(c.present(entry()));
        }
    }
}

// Preferred colours are kept in 8 bits: ordinal 9 falls off. The default
// action keeps the held strict flag when only its colours change.
TEST_F(ConfigFwdPolicyTest, SlaPreferredColoursKeepEightBits)
{
    make(POL_TYPE_PFR);
    values sla_class;
    sla(MOP_CREATED, "voice", sla_class);
    values v;
    v.text(T_SLA_CLASS, "voice").enums(T_SLA_PREFERRED_COLOR, {1, 9});
    ASSERT_EQ(seq(MOP_MODIFIED, v, POL_TYPE_PFR), POL_CONFIG_OK);
    const t_pol_entry *e = entry(POL_TYPE_PFR);
    EXPECT_EQ(e->set_entry.set_sla_preferred_color, 2u);
    EXPECT_NE(e->entry_set_flags & POL_FWD_SET_FLAG_SLA_CLASS, 0u);

    values dflt;
    dflt.begin(T_DEFAULT_ACTION).text(T_SLA_CLASS, "voice").boolean(T_SLA_STRICT, true)
        .enums(T_SLA_PREFERRED_COLOR, {2, 8}).end(T_DEFAULT_ACTION);
    ASSERT_EQ(vpn_list(MOP_MODIFIED, dflt, POL_TYPE_PFR), POL_CONFIG_OK);
    const t_pol_entry *d =
        pol_fwd_default_pol_entry_get(ctx_, "dp", POL_TYPE_PFR, "corp", nullptr);
    EXPECT_EQ(d->set_entry.set_sla_preferred_color, 4u);
    EXPECT_EQ(d->set_entry.set_sla_strict, 1);
    values colours;
    colours.begin(T_DEFAULT_ACTION).enums(T_SLA_PREFERRED_COLOR, {3}).end(T_DEFAULT_ACTION);
    ASSERT_EQ(vpn_list(MOP_MODIFIED, colours, POL_TYPE_PFR), POL_CONFIG_OK);
    EXPECT_EQ(d->set_entry.set_sla_preferred_color, 8u);
    EXPECT_EQ(d->set_entry.set_sla_strict, 1);
}

TEST_F(ConfigFwdPolicyTest, SequenceChangeMarksItsPolicyForFetching)
{
    make();
    t_pol_block *block = pol_block_find(ctx_, "dp", POL_TYPE_DATA, nullptr);
    block->fetch_xml = 0;
    values v;
    v.text(T_COUNT, "c");
    ASSERT_EQ(seq(MOP_MODIFIED, v), POL_CONFIG_OK);
    EXPECT_EQ(block->fetch_xml, 1);
}

std::vector<std::string> g_labels;

void record_label(t_vmgmtd_context *, t_pol_ctx *, const char *pol, e_pol_type, const char *vpn,
                  uint32_t seq)
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
    values count;
    count.text(T_COUNT, "c");
    ASSERT_EQ(seq(MOP_MODIFIED, count), POL_CONFIG_OK);
    EXPECT_TRUE(g_labels.empty());
    values tloc;
    tloc.begin(T_SET).begin(T_TLOC).ipv4(T_TLOC_ADDRESS, "10.0.0.9").enum_leaf(T_COLOR, 2)
        .enum_leaf(T_ENCAP, 2).end(T_TLOC).end(T_SET);
    ASSERT_EQ(seq(MOP_MODIFIED, tloc), POL_CONFIG_OK);
    EXPECT_EQ(g_labels, std::vector<std::string>{"dp/corp/10"});
    EXPECT_NE(entry()->entry_set_flags & POL_FWD_SET_FLAG_TLOC, 0u);
    values gone;
    gone.begin(T_SET).begin(T_TLOC).removed(T_TLOC_ADDRESS).removed(T_COLOR).removed(T_ENCAP)
        .end(T_TLOC).end(T_SET);
    ASSERT_EQ(seq(MOP_MODIFIED, gone), POL_CONFIG_OK);
    EXPECT_EQ(entry()->entry_set_flags & POL_FWD_SET_FLAG_TLOC, 0u);
    EXPECT_EQ(g_labels.size(), 2u);
    pol::config::set_fwd_label_hook(nullptr);
}

// A failed update ends the call with status 1, names the operation, and
// notifies nobody.
TEST_F(ConfigFwdPolicyTest, FailedUpdateStopsWithoutNotification)
{
    int notified = 0;
    poltest::register_user("u", "dp", POL_TYPE_DATA, POL_DIR_OUT, poltest::count_cb, &notified);
    make();
    notified = 0;
    LogCapture log;
    values v;
    v.text(T_COUNT, "c").text(T_DST_PORT, "1-2");
    {
        poltest::AllocFailure fail(POL_MEM_ENTRY_MATCH_DST_PORT);
        EXPECT_EQ(seq(MOP_MODIFIED, v), POL_CONFIG_NOT_FOUND);
    }
    EXPECT_TRUE(logged(log, "Failed to alloc memory for range config, match "));
    EXPECT_EQ(notified, 0);
    EXPECT_STREQ(entry()->set_entry.set_counter_name, "c") << "what came before stays";
    pol_user_find_and_delete(ctx_, "u", "dp", POL_TYPE_DATA, POL_DIR_OUT);
}

/* ---- the start-up read through the host's read calls ---- */

struct cdb_double {
    std::vector<std::string> policies;
    std::vector<std::string> calls;
};
cdb_double g_cdb;

std::string format(const char *fmt, va_list ap)
{
    char buf[256];
    std::vsnprintf(buf, sizeof(buf), fmt, ap);
    return buf;
}

int fake_num_instances(int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::string path = format(fmt, ap);
    va_end(ap);
    g_cdb.calls.push_back("num " + path);
    return path == "data-policy" ? static_cast<int>(g_cdb.policies.size()) : 1;
}

int fake_get_str(int, char *buf, int n, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const std::string path = format(fmt, ap);
    va_end(ap);
    g_cdb.calls.push_back("get " + path);
    int i = -1;
    if (std::sscanf(path.c_str(), "data-policy[%d]/name", &i) == 1) {
        if (g_cdb.policies[i].empty()) {
            return -1;  // a name that cannot be read
        }
        std::snprintf(buf, n, "%s", g_cdb.policies[i].c_str());
        return 0;
    }
    std::snprintf(buf, n, "vpn");
    return 0;
}

int fake_pushd(int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    g_cdb.calls.push_back("pushd " + format(fmt, ap));
    va_end(ap);
    return 0;
}

TEST_F(ConfigFwdTest, StartUpReadCreatesTheDataPolicies)
{
    EXPECT_EQ(pol_config_read_fwd_policy(&host_, ctx_), 1) << "no read calls handed over";
    const t_pol_cdb_read_ops ops = {fake_num_instances, fake_get_str, fake_pushd};
    pol_config_cdb_read_ops_set(&ops);
    g_cdb = {{"one", "", "two"}, {}};
    EXPECT_EQ(pol_config_read_fwd_policy(&host_, ctx_), 0);
    EXPECT_NE(pol_block_find(ctx_, "one", POL_TYPE_DATA, nullptr), nullptr);
    EXPECT_NE(pol_block_find(ctx_, "two", POL_TYPE_DATA, nullptr), nullptr);
    const std::vector<std::string> want = {
        "num data-policy",        "get data-policy[0]/name", "num data-policy[0]/vpn",
        "pushd data-policy[0]/vpn[0]", "get name",           "get data-policy[1]/name",
        "get data-policy[2]/name", "num data-policy[2]/vpn", "pushd data-policy[2]/vpn[0]",
        "get name"};
    EXPECT_EQ(g_cdb.calls, want);
    pol_config_cdb_read_ops_set(nullptr);
}

}  // namespace
