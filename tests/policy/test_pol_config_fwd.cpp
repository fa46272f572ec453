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
    // Attach A by hand where the store does not attach it itself.
    if (c->pol_app_probe_class_p == nullptr) {
        pol_fwd_app_probe_class_user_add(ctx_, "A", c);
    }
    ASSERT_EQ(c->pol_app_probe_class_p, a);

    values to_b;
    to_b.text(T_APP_PROBE_CLASS, "B");
    ASSERT_EQ(sla(MOP_MODIFIED, "voice", to_b), POL_CONFIG_OK);
    EXPECT_EQ(pol_app_probe_class_find_sla_entry(ctx_, a, c), nullptr);
    EXPECT_TRUE(TAILQ_EMPTY(&a->sla_class_head));
    EXPECT_NE(c->pol_app_probe_class_p, a);
    (void)b;

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

}  // namespace
