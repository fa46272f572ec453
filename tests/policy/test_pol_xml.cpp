// Policy documents: golden renderings of every converter and element rule,
// each also parsed strictly by the edge router's schema (zen-policy-edge),
// validated and printed back to the same content; the value namers; the
// failure path (nothing half-written) and the table's checks.
#include <arpa/inet.h>
#include <libxml/parser.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>

#include "pol_test_support.hpp"
#include "pol_util.hpp"
#include "pol_xml.hpp"
#include "xml_test_support.hpp"

namespace {

using namespace poltest;

/* ---- values and hand-built records ---- */

t_ipaddr addr(const char *text)
{
    t_ipaddr a{};
    const bool v6 = std::strchr(text, ':') != nullptr;
    a.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
    inet_pton(v6 ? AF_INET6 : AF_INET, text, &a.u);
    return a;
}

t_ipprefix prefix(const char *text)
{
    const std::string s(text);
    const auto slash = s.find('/');
    t_ipprefix p{};
    p.addr = addr(s.substr(0, slash).c_str());
    p.prefixlen = static_cast<uint8_t>(std::stoi(s.substr(slash + 1)));
    return p;
}

t_tloc_id tloc(const char *ip, uint8_t color, uint8_t encap)
{
    return {addr(ip), color, encap};
}

// Zero-filled records that live as long as the test.
class Arena {
public:
    template <typename T>
    T *make()
    {
        auto p = std::make_shared<T>();
        keep_.push_back(p);
        return p.get();
    }
    template <typename T, std::size_t N>
    T *named(char (T::*field)[N], const char *name)
    {
        T *rec = make<T>();
        pol::copy_name(rec->*field, name);
        return rec;
    }

private:
    std::vector<std::shared_ptr<void>> keep_;
};

using Object = std::pair<const void *, e_pol_xml_type>;

struct Golden {
    const char *what;
    std::function<Object()> build;
    const char *expect;  // compact form
    Place place;
};

class PolXmlTest : public PolContextTest {
protected:
    // Renders, checks the record and the compact form, and unless the case
    // is text only, the schema's round trip.
    void check(const Golden &g)
    {
        SCOPED_TRACE(g.what);
        const auto [object, type] = g.build();
        pol_xml_t out{};
        const char *text = pol_xml_convert(object, &out, type);
        ASSERT_TRUE(text != nullptr && text == out.buf);
        EXPECT_EQ(out.buf_siz, std::strlen(text));
        EXPECT_GT(out.time_spent, 0);
        EXPECT_EQ(std::string(text, 22), "<?xml version=\"1.0\"?>\n");
        EXPECT_EQ(compact(text), g.expect);
        if (g.place != Place::text_only) {
            EXPECT_EQ(schema_.round_trip(text, g.place), compact(text, true));
        }
        pol_xml_free_buf(&out);
    }

    void SetUp() override
    {
        PolContextTest::SetUp();
        ASSERT_TRUE(schema_.loaded());
    }

    // Data-plane objects of the live context, their values written as the
    // configuration reader writes them.
    t_fwd_policer *policer(const char *name, uint64_t rate, uint32_t burst, uint8_t exceed)
    {
        t_fwd_policer *p = pol_fwd_policer_find_or_create(ctx_, name, nullptr);
        std::tie(p->rate, p->burst, p->exceed_action) = std::tuple(rate, burst, exceed);
        return p;
    }

    t_app_probe_class *probe_class(const char *name, const char *fwd_class,
                                   std::initializer_list<std::pair<uint16_t, uint8_t>> colors)
    {
        pol_app_probe_class_entry_change(ctx_, name, fwd_class);
        for (auto [color, dscp] : colors) {
            pol_app_probe_class_add_entry(ctx_, name, color, dscp);
        }
        return pol_app_probe_class_find(ctx_, name);
    }

    EdgeSchema schema_;
    Arena arena_;
};

TEST_F(PolXmlTest, ObjectAndListDocuments)
{
    const Golden cases[] = {
        {"vpn list: ranges and single VPNs in the list's order",
         [&] {
             pol_vpn_list_add_entry(ctx_, "VL", 7, 7);
             pol_vpn_list_add_entry(ctx_, "VL", 1, 5);
             return Object{pol_vpn_list_find(ctx_, "VL"), POL_XML_TYPE_VPNLIST};
         },
         "vpn-list{name=VL vpn{id=1-5} vpn{id=7}}", Place::lists},
        {"tloc list: names of colour and encapsulation, preference",
         [&] {
             const t_tloc_id a = tloc("10.0.0.2", 4, 1), b = tloc("10.0.0.1", 22, 2);
             pol_tloc_list_add_entry(ctx_, "TL", &a, 0);
             pol_tloc_list_add_entry(ctx_, "TL", &b, 4000000000u);
             return Object{pol_tloc_list_find(ctx_, "TL"), POL_XML_TYPE_TLOCLIST};
         },
         "tloc-list{name=TL tloc{ip=10.0.0.1 color=private6 encap=ipsec preference=4000000000} "
         "tloc{ip=10.0.0.2 color=business-internet encap=gre preference=0}}",
         Place::lists},
        {"IPv4 data prefix list",
         [&] {
             for (const char *p : {"192.0.2.0/24", "10.1.0.0/16"}) {
                 const t_ipprefix pfx = prefix(p);
                 pol_fwd_pfx_list_add_prefix(ctx_, "P4", &pfx);
             }
             return Object{pol_fwd_pfx_list_find(ctx_, "P4"), POL_XML_TYPE_FWD_PFXLIST};
         },
         "data-prefix-list{name=P4 ip-prefix{ip=10.1.0.0/16} ip-prefix{ip=192.0.2.0/24}}", Place::lists},
        {"IPv6 data prefix list",
         [&] {
             const t_ipprefix pfx = prefix("2001:db8::/32");
             pol_fwd_pfx6_list_add_prefix(ctx_, "P6", &pfx);
             return Object{pol_fwd_pfx6_list_find(ctx_, "P6"), POL_XML_TYPE_FWD_PFX6LIST};
         },
         "data-ipv6-prefix-list{name=P6 ipv6-prefix{ipv6=2001:db8::/32}}", Place::lists},
        {"application list",
         [&] {
             pol_app_list_entry_add_app(ctx_, "A", "zoom", POL_APP_LIST_TYPE_APP);
             pol_app_list_entry_add_app(ctx_, "A", "webex", POL_APP_LIST_TYPE_APP);
             return Object{pol_app_list_find(ctx_, "A"), POL_XML_TYPE_APPLIST};
         },
         "app-list{name=A app=webex app=zoom}", Place::lists},
        {"application-family list",
         [&] {
             pol_app_list_entry_add_app(ctx_, "F", "voice", POL_APP_LIST_TYPE_APP_FAMILY);
             return Object{pol_app_list_find(ctx_, "F"), POL_XML_TYPE_APPLIST};
         },
         "app-list{name=F app-family=voice}", Place::lists},
        {"policer", [&] { return Object{policer("POL", 10000000000ULL, 15000, 0), POL_XML_TYPE_POLICER}; },
         "policer{name=POL rate=10000000000 burst=15000 exceed=drop}", Place::top},
        {"policer remarking", [&] { return Object{policer("R", 0, 0, 1), POL_XML_TYPE_POLICER}; },
         "policer{name=R rate=0 burst=0 exceed=remark}", Place::top},
        {"SLA class",
         [&] {
             t_fwd_sla_class *c = pol_fwd_sla_class_find_or_create(ctx_, "GOLD", nullptr);
             pol::copy_name(c->app_probe_class_name, "PROBE");
             std::tie(c->loss, c->latency, c->jitter) = std::tuple(5, 300, 65534);
             return Object{c, POL_XML_TYPE_SLA_CLASS};
         },
         "sla-class{name=GOLD loss=5 latency=300 jitter=65534 app-probe-class=PROBE}", Place::top},
        {"SLA class with nothing configured",
         [&] { return Object{pol_fwd_sla_class_find_or_create(ctx_, "NONE", nullptr), POL_XML_TYPE_SLA_CLASS}; },
         "sla-class{name=NONE loss=255 latency=65535 jitter=65535 app-probe-class}", Place::top},
        {"app-probe class: colours in the class's order",
         [&] { return Object{probe_class("PROBE", "fc-voice", {{10, 46}, {2, 0}}), POL_XML_TYPE_APP_PROBE_CLASS}; },
         "app-probe-class{name=PROBE forwarding-class=fc-voice color{color-name=mpls dscp=0} "
         "color{color-name=blue dscp=46}}",
         Place::lists},
        {"app-probe class without forwarding class",
         [&] { return Object{probe_class("BARE", "", {}), POL_XML_TYPE_APP_PROBE_CLASS}; },
         "app-probe-class{name=BARE forwarding-class}", Place::lists},
        {"cflowd template: settings, protocol, collectors in identity order",
         [&] {
             uint8_t changed = 0;
             t_pol_block *b = pol_block_find_or_create(ctx_, "CF", POL_TYPE_CFLOWD, &changed);
             t_cflowd_entry *t = b->pol_cflowd_entry;
             t->flow_active_timeout = 600;
             t->flow_inactive_timeout = 15;
             t->template_refresh = 90;
             t->flow_sampling_interval = 1;
             t->protocol = 2;
             t_cflowd_collector c{};
             c.vpn_id = 512;
             c.addr = addr("2001:db8::9");
             c.port = 65535;
             c.transport_type = 1;
             pol::copy_name(c.source_if, "ge0/1");
             pol_cflowd_add_collector(t, &c);
             c.vpn_id = 1;
             c.addr = addr("192.0.2.9");
             c.port = 2055;
             c.transport_type = 0;
             c.source_if[0] = '\0';
             pol_cflowd_add_collector(t, &c);
             return Object{b, POL_XML_TYPE_CFLOWD};
         },
         "cflowd-template{name=CF flow-active-timeout=600 flow-inactive-timeout=15 template-refresh=90 "
         "flow-sampling-interval=1 protocol=both "
         "collector{vpn=1 address=192.0.2.9 port=2055 transport=transport_tcp source-interface} "
         "collector{vpn=512 address=2001:db8::9 port=65535 transport=transport_udp source-interface=ge0/1}}",
         Place::top},
        {"cflowd template of IPv4 only: no protocol",
         [&] {
             uint8_t changed = 0;
             return Object{pol_block_find_or_create(ctx_, "CF4", POL_TYPE_CFLOWD, &changed), POL_XML_TYPE_CFLOWD};
         },
         "cflowd-template{name=CF4 flow-active-timeout=0 flow-inactive-timeout=0 template-refresh=0 "
         "flow-sampling-interval=0}",
         Place::top},
    };
    for (const Golden &g : cases) {
        check(g);
    }
}

/* ---- policy documents ---- */

// One sequence of a data or app-route policy of the live context (policy
// and VPN record made if need be), filled through the model's setters.
struct Seq {
    t_pol_ctx *ctx;
    const char *pol;
    e_pol_type type;
    const char *vpn;
    uint32_t num;

    template <typename F, typename... A>
    void operator()(F upd, A... args) const
    {
        ASSERT_EQ(upd(ctx, pol, type, vpn, num, args...), ERR_OK);
    }
    // A match array handed over under the accounting row of its leaf.
    template <typename T, typename F>
    void array(F upd, uint32_t tag, std::initializer_list<T> values) const
    {
        auto *a = static_cast<T *>(pol_malloc(values.size() * sizeof(T), pol_fwd_get_mem_type(tag)));
        std::copy(values.begin(), values.end(), a);
        ASSERT_EQ(upd(ctx, pol, type, vpn, num, a, static_cast<uint32_t>(values.size()), tag), ERR_OK);
    }
    void drop() const { (*this)(pol_fwd_entry_action_upd, uint8_t{1}); }
    t_pol_entry *entry() const
    {
        t_pol_block *block = nullptr;
        return pol_fwd_pol_entry_get(ctx, pol, type, vpn, num, &block);
    }
};

class PolXmlPolicyTest : public PolXmlTest {
protected:
    void TearDown() override
    {
        for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) {
            (*it)();
        }
        PolXmlTest::TearDown();
    }

    Seq seq(const char *pol, e_pol_type type, const char *vpn, uint32_t num)
    {
        uint8_t changed = 0;
        EXPECT_NE(pol_block_find_or_create(ctx_, pol, type, &changed), nullptr);
        EXPECT_NE(pol_fwd_vpn_find_or_create(ctx_, pol, type, vpn), nullptr);
        EXPECT_NE(pol_fwd_entry_find_or_create(ctx_, pol, type, vpn, static_cast<uint16_t>(num)), nullptr);
        return {ctx_, pol, type, vpn, num};
    }

    static Object object(const char *pol, e_pol_type type)
    {
        return {pol_block_find(g_pol_ctx_p, pol, type, nullptr),
                type == POL_TYPE_DATA ? POL_XML_TYPE_DATA_POLICY : POL_XML_TYPE_PFR_POLICY};
    }

    Object matches()
    {
        const Seq s = seq("DP", POL_TYPE_DATA, "V1", 10);
        pol_fwd_default_entry_action_upd(ctx_, "DP", POL_TYPE_DATA, "V1", 0);
        s.array(pol_fwd_entry_pfx_upd, 0x553788af, {prefix("10.1.0.0/16"), prefix("10.2.0.0/16")});
        s.array(pol_fwd_entry_pfx_upd, 0x3ade449f, {prefix("2001:db8::/32")});
        s.array(pol_fwd_entry_pfx_upd, 0x22688857, {prefix("192.0.2.0/24")});
        s.array(pol_fwd_entry_pfx_upd, 0x7277a1c1, {prefix("2001:db8:1::/48")});
        s.array(pol_fwd_entry_range_config_upd, 0x0f472580, {t_pol_range{80, 80}, t_pol_range{1000, 2000}});
        s.array(pol_fwd_entry_range_config_upd, 0x6475b955, {t_pol_range{443, 443}});
        s.array(pol_fwd_entry_range_config_upd, 0x5b2c4c8c, {t_pol_range{64, 1500}});
        s.array(pol_fwd_entry_list_config_upd, 0x3838f6e1, {uint8_t{6}, uint8_t{17}});
        s.array(pol_fwd_entry_list_config_upd, 0x42a50984, {uint8_t{46}});
        s.array(pol_fwd_entry_icmp_list_config_upd, 0x2ab85e1b, {uint32_t{3 * 256 + 255}, uint32_t{0}});
        s.array(pol_fwd_entry_icmp_list_config_upd, 0x0e190ee1, {uint32_t{128 * 256}});
        s(pol_fwd_entry_tcp_upd, 0x12u, true);  // whatever flags: "syn"
        s(pol_fwd_entry_plp_upd, 1u, true);
        s(pol_fwd_entry_dns_upd, 2u, true);
        s(pol_fwd_entry_traffic_category_upd, 1u, true);
        for (auto [upd, name] : {std::pair<ref_upd, const char *>{pol_fwd_entry_src_pfx_upd, "SRC"}, {pol_fwd_entry_src_pfx6_upd, "SRC6"},
                                 {pol_fwd_entry_dst_pfx_upd, "DST"}, {pol_fwd_entry_dst_pfx6_upd, "DST6"},
                                 {pol_fwd_entry_app_list_upd, "APPS"}, {pol_fwd_entry_dns_app_list_upd, "DNS"},
                                 {pol_fwd_entry_saas_app_list_upd, "S2"},  // held order, not name order
                                 {pol_fwd_entry_saas_app_list_upd, "S1"}}) {
            upd(ctx_, "DP", POL_TYPE_DATA, "V1", 10, name);
        }
        const Seq other = seq("DP", POL_TYPE_DATA, "V1", 5);
        other(pol_fwd_entry_tcp_upd, 0u, true);
        other(pol_fwd_entry_plp_upd, 0u, true);
        other(pol_fwd_entry_dns_upd, 1u, true);
        other(pol_fwd_entry_traffic_category_upd, 2u, true);
        return object("DP", POL_TYPE_DATA);
    }

    Object actions()
    {
        const t_tloc_id targets[] = {tloc("10.0.0.1", 10, 2), tloc("10.0.0.2", 11, 1)};
        pol_tloc_list_add_entry(ctx_, "TL", &targets[0], 100);
        pol_tloc_list_add_entry(ctx_, "TL", &targets[1], 0);
        pol_tloc_list_find_entry(ctx_, "TL", &targets[0])->set_fwd_label = 5000;  // as the host labelled it
        const Seq s = seq("ACT", POL_TYPE_DATA, "V", 7);
        s.drop();
        s(pol_fwd_entry_count_upd, "CNT", true);
        s(pol_fwd_entry_nat_pool_upd, 3u, true);
        s(pol_fwd_entry_nat_use_vpn_upd, 0u, true);
        s(pol_fwd_entry_nat_fallback_upd, true, true);
        for (auto flag : {pol_fwd_entry_cflowd_upd, pol_fwd_entry_log_upd, pol_fwd_entry_tcp_opt_upd,
                          pol_fwd_entry_ssl_opt_upd, pol_fwd_entry_sig_upd, pol_fwd_entry_cloud_saas_upd}) {
            s(flag, true);
        }
        s(pol_fwd_entry_loss_protect_upd, 2u, true);
        s(pol_fwd_entry_fec_upd, 10u, true);
        const t_ipaddr dns = addr("198.51.100.53"), nh = addr("192.0.2.1"), nh6 = addr("2001:db8::1");
        s(pol_fwd_entry_redirect_dns_ip_upd, &dns, true);
        s(pol_fwd_entry_redirect_dns_type_upd, uint8_t{POL_ACTION_REDIRECT_DNS_UMBRELLA}, true);
        s(pol_fwd_entry_backup_sla_prefer_color_upd, (1u << 1) | (1u << 3), true);
        const t_local_tloc_id_args local{5, 2, true, true};
        s(pol_fwd_local_tloc_upd, &local, true);
        const t_pol_set_local_tloc_list_args local_list{(1u << 4) | (1u << 9), 1u << 1, 1, true, true, true};
        s(pol_fwd_local_tloc_list_upd, &local_list, true);
        s(pol_fwd_entry_next_hop_upd, &nh, true);
        s(pol_fwd_entry_next_hop_v6_upd, &nh6, true);
        s(pol_fwd_entry_dscp_upd, uint8_t{46}, true);
        s(pol_fwd_entry_fwd_class_upd, "fc1", true);
        pol_fwd_entry_vpn_upd(ctx_, "ACT", POL_TYPE_DATA, "V", 7, 100, true);
        const t_tloc_id target = tloc("10.0.0.1", 9, 2);
        EXPECT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "ACT", POL_TYPE_DATA, "V", 7, true, &target), ERR_OK);
        pol_fwd_entry_tloc_list_upd(ctx_, "ACT", POL_TYPE_DATA, "V", 7, "TL");
        s.entry()->set_entry.set_fwd_label = 1000;  // as label evaluation left it
        pol_fwd_entry_policer_upd(ctx_, "ACT", POL_TYPE_DATA, "V", 7, "POL");
        return object("ACT", POL_TYPE_DATA);
    }

    using ref_upd = void (*)(t_pol_ctx *, const char *, e_pol_type, const char *, uint32_t, const char *);

    Object app_route()
    {
        const Seq s = seq("AR", POL_TYPE_PFR, "V", 1);
        s(pol_fwd_entry_backup_sla_prefer_color_upd, 1u << 5, true);
        pol_fwd_entry_sla_class_upd(ctx_, "AR", POL_TYPE_PFR, "V", 1, "GOLD", 1, (1u << 2) | (1u << 4), false, true,
                                    true);
        pol_fwd_default_entry_sla_class_upd(ctx_, "AR", POL_TYPE_PFR, "V", "SILVER", 0, 0, false);
        seq("AR", POL_TYPE_PFR, "W", 2);
        return object("AR", POL_TYPE_PFR);
    }

    std::vector<std::function<void()>> undo_;
};

TEST_F(PolXmlPolicyTest, PolicyDocuments)
{
    const Golden cases[] = {
        {"data: every match condition in order, sequences in number order, default accept",
         [&] { return matches(); },
         "data-policy{name=DP vpn-list{name=V1 "
         "sequence{seq-value=5 match{tcp=syn plp=low dns=request traffic-category=optimize-allow} "
         "action{action-value=accept}} "
         "sequence{seq-value=10 match{source-ip=10.1.0.0/16 source-ip=10.2.0.0/16 source-data-prefix-list=SRC "
         "source-ipv6=2001:db8::/32 source-data-ipv6-prefix-list=SRC6 destination-ip=192.0.2.0/24 "
         "destination-data-prefix-list=DST destination-ipv6=2001:db8:1::/48 "
         "destination-data-ipv6-prefix-list=DST6 app-list=APPS dns-app-list=DNS cloud-saas-app-list=S2 "
         "cloud-saas-app-list=S1 source-port=80 source-port=1000-2000 destination-port=443 protocol=6 "
         "protocol=17 dscp=46 tcp=syn plp=high packet-length=64-1500 dns=response traffic-category=optimize "
         "icmp-msg=unreachable icmp-msg=echo-reply icmp6-msg=echo-request} action{action-value=accept}} "
         "default-action=accept}}",
         Place::top},
        {"data: every action and set element in order",
         [&] { return actions(); },
         "data-policy{name=ACT vpn-list{name=V sequence{seq-value=7 action{count=CNT "
         "nat{pool=3 use-vpn=0 fallback=true} cflowd log tcp-optimization ssl-optimization "
         "loss-protect=fec-always loss-protection{forward-error-correction=adaptive} "
         "redirect-dns=198.51.100.53 redirect-dns=umbrella sig backup-sla-preferred-color=default "
         "backup-sla-preferred-color=metro-ethernet cloud-saas{allow-local} "
         "set{local-tloc{color=public-internet encap=ipsec} "
         "local-tloc-list{color=business-internet color=green encap=gre restrict} next-hop=192.0.2.1 "
         "next-hop-ipv6=2001:db8::1 policer=POL dscp=46 forwarding-class=fc1 vpn=100 "
         "tloc{ip=10.0.0.1 color=green encap=ipsec} tloc-list=TL vpn-label=1000 "
         "zen-tloc-pref-list{list-num=0 tloc-label=5000 tloc-ip=10.0.0.1 tloc-color=blue tloc-encap=ipsec "
         "tloc-preference=100} zen-tloc-pref-list{list-num=1 tloc-ip=10.0.0.2 tloc-color=gold tloc-encap=gre}}}}}}",
         Place::top},
        {"data: the service's TLOC list beside the service",
         [&] {
             const Seq s = seq("SVC", POL_TYPE_DATA, "V", 3);
             const t_tloc_id t = tloc("10.0.0.9", 1, 1);
             pol_tloc_list_add_entry(ctx_, "TL2", &t, 0);
             pol_fwd_entry_vpn_upd(ctx_, "SVC", POL_TYPE_DATA, "V", 3, 10, true);
             EXPECT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "SVC", POL_TYPE_DATA, "V", 3, true, &t), ERR_OK);
             pol_fwd_entry_tloc_list_upd(ctx_, "SVC", POL_TYPE_DATA, "V", 3, "TL2");
             EXPECT_EQ(pol_fwd_entry_svc_upd(nullptr, ctx_, "SVC", POL_TYPE_DATA, "V", 3, 1, false), ERR_OK);
             s(pol_fwd_entry_svc_local_upd, true, true, true);
             return object("SVC", POL_TYPE_DATA);
         },
         "data-policy{name=SVC vpn-list{name=V sequence{seq-value=3 action{action-value=accept "
         "set{service{svc-type=firewall vpn=10 tloc{ip=10.0.0.9 color=default encap=gre} local restrict} "
         "tloc-list=TL2 zen-tloc-pref-list{list-num=0 tloc-ip=10.0.0.9 tloc-color=default tloc-encap=gre}}}}}}",
         Place::top},
        {"data: empty match and action removed, drop renders no default, no default sequence no body",
         [&] {
             seq("E", POL_TYPE_DATA, "B", 1).drop();
             const Seq label_only = seq("E", POL_TYPE_DATA, "B", 2);  // a label alone makes no set
             label_only.drop();
             label_only.entry()->set_entry.set_fwd_label = 77;
             const Seq color_only = seq("E", POL_TYPE_DATA, "B", 3);  // a TLOC of a colour alone
             color_only.drop();
             pol_fwd_entry_vpn_upd(ctx_, "E", POL_TYPE_DATA, "B", 3, 5, true);
             const t_tloc_id color = tloc("0.0.0.0", 3, 0);
             pol_fwd_entry_tloc_upd(nullptr, ctx_, "E", POL_TYPE_DATA, "B", 3, false, &color);
             t_pol_fwd_vpn_entry *a = pol_fwd_vpn_find_or_create(ctx_, "E", POL_TYPE_DATA, "A");
             undo_.push_back([a, dflt = a->default_pol_entry] { a->default_pol_entry = dflt; });
             a->default_pol_entry = nullptr;
             return object("E", POL_TYPE_DATA);
         },
         "data-policy{name=E vpn-list{name=A} vpn-list{name=B sequence{seq-value=1} sequence{seq-value=2} "
         "sequence{seq-value=3 action{set{vpn=5 tloc{color=metro-ethernet}}}}}}",
         Place::top},
        {"data: packet duplication alone",
         [&] {
             const Seq s = seq("DUP", POL_TYPE_DATA, "V", 1);
             s.drop();
             s(pol_fwd_entry_pkt_dup_upd, true);
             return object("DUP", POL_TYPE_DATA);
         },
         "data-policy{name=DUP vpn-list{name=V sequence{seq-value=1 action{loss-protection{packet-duplication}}}}}",
         Place::top},
        // Duplication under the FEC element makes mixed content, which no
        // schema leaf holds: text only.
        {"data: packet duplication under forward error correction",
         [&] {
             const Seq s = seq("FEC", POL_TYPE_DATA, "V", 1);
             s.drop();
             s(pol_fwd_entry_pkt_dup_upd, true);
             s(pol_fwd_entry_fec_upd, 1u, true);
             return object("FEC", POL_TYPE_DATA);
         },
         "data-policy{name=FEC vpn-list{name=V sequence{seq-value=1 "
         "action{loss-protection{forward-error-correction=always{packet-duplication}}}}}}",
         Place::text_only},
        {"app-route: SLA class parts, no action value, default with and without SLA class",
         [&] { return app_route(); },
         "app-route-policy{name=AR vpn-list{name=V sequence{seq-value=1 action{"
         "backup-sla-preferred-color=public-internet sla-class{sla-class-name=GOLD preferred-color=mpls "
         "preferred-color=business-internet strict=true}}} default-action{sla-class{sla-class-name=SILVER}}} "
         "vpn-list{name=W sequence{seq-value=2}}}",
         Place::top},
    };
    for (const Golden &g : cases) {
        check(g);
    }
}

// Makes the nth allocation of the XML library (and every later one) fail
// while alive, without the library's complaints on standard error.
class XmlAllocFailure {
public:
    explicit XmlAllocFailure(int nth)
    {
        xmlMemGet(&free_, &malloc_, &realloc_, &strdup_);
        countdown_ = nth;
        xmlMemSetup(std::free, fail_malloc, fail_realloc, fail_strdup);
        xmlSetGenericErrorFunc(nullptr, quiet);
    }
    ~XmlAllocFailure()
    {
        xmlSetGenericErrorFunc(nullptr, nullptr);
        xmlMemSetup(free_, malloc_, realloc_, strdup_);
    }
    bool fired() const { return countdown_ <= 0; }

private:
    static void quiet(void *, const char *, ...) {}
    static bool fail() { return --countdown_ <= 0; }
    static void *fail_malloc(size_t n) { return fail() ? nullptr : std::malloc(n); }
    static void *fail_realloc(void *p, size_t n) { return fail() ? nullptr : std::realloc(p, n); }
    static char *fail_strdup(const char *text) { return fail() ? nullptr : strdup(text); }

    static inline int countdown_ = 0;
    xmlFreeFunc free_ = nullptr;
    xmlMallocFunc malloc_ = nullptr;
    xmlReallocFunc realloc_ = nullptr;
    xmlStrdupFunc strdup_ = nullptr;
};

// Whichever element cannot be made, the result is none and the object's
// previous document stays as it was; each part names itself in the log.
TEST_F(PolXmlPolicyTest, FailedElementLeavesThePreviousDocument)
{
    std::set<std::string> messages;
    for (const Object &object : {actions(), app_route(), matches()}) {
        pol_xml_t out{};
        ASSERT_NE(pol_xml_convert(object.first, &out, object.second), nullptr);
        const pol_xml_t before = out;
        for (int nth = 1;; nth++) {
            LogCapture log;
            XmlAllocFailure failure(nth);
            char *text = pol_xml_convert(object.first, &out, object.second);
            if (!failure.fired()) {
                ASSERT_NE(text, nullptr);
                pol_xml_free_buf(&out);
                break;
            }
            ASSERT_EQ(text, nullptr) << "allocation " << nth;
            ASSERT_TRUE(out.buf == before.buf && out.buf_siz == before.buf_siz &&
                        out.time_spent == before.time_spent);
            for (const std::string &line : log.lines) {
                messages.insert(line.substr(line.find("[POL] ") + 6));
            }
        }
        out = before;
        pol_xml_free_buf(&out);
    }
    EXPECT_EQ(messages, (std::set<std::string>{"vpn-list XML generation failed", "Match XML generation failed",
                                               "Action XML generation failed", "Set XML generation failed",
                                               "tloc XML generation failed", "sla-class XML generation failed"}));
}

// Names are text: XML-special characters are escaped and read back as
// they were; a long name is rendered whole.
TEST_F(PolXmlTest, NamesAreTextWhateverTheyHold)
{
    const std::string special = "a<b>&c\"d'e &amp;";
    const std::string longest(63, 'n');
    for (const std::string &name : {special, longest}) {
        pol_vpn_list_add_entry(ctx_, name.c_str(), 3, 3);
        pol_xml_t out{};
        const char *text = pol_xml_convert(pol_vpn_list_find(ctx_, name.c_str()), &out, POL_XML_TYPE_VPNLIST);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(compact(text), "vpn-list{name=" + name + " vpn{id=3}}");
        EXPECT_EQ(schema_.round_trip(text, Place::lists), compact(text, true));
        pol_xml_free_buf(&out);
    }
    pol_xml_t out{};
    const char *text = pol_xml_convert(pol_vpn_list_find(ctx_, special.c_str()), &out, POL_XML_TYPE_VPNLIST);
    EXPECT_NE(std::string(text).find("<name>a&lt;b&gt;&amp;c\"d'e &amp;amp;</name>"), std::string::npos) << text;
    pol_xml_free_buf(&out);
}

// The document as the forwarding side gets it: declaration, then the
// elements indented by two.
TEST_F(PolXmlTest, FormattedText)
{
    pol_vpn_list_add_entry(ctx_, "V", 1, 5);
    pol_xml_t out{};
    ASSERT_NE(pol_xml_convert(pol_vpn_list_find(ctx_, "V"), &out, POL_XML_TYPE_VPNLIST), nullptr);
    EXPECT_EQ(std::string(out.buf, out.buf_siz),
              "<?xml version=\"1.0\"?>\n<vpn-list>\n  <name>V</name>\n  <vpn>\n    <id>1-5</id>\n"
              "  </vpn>\n</vpn-list>\n");
    pol_xml_free_buf(&out);
}

TEST(PolXmlNamers, IcmpLossProtectTransport)
{
    const std::pair<uint32_t, const char *> icmp[] = {
        {0, "echo-reply"}, {3 * 256 + 255, "unreachable"}, {3 * 256 + 10, "invalid"},
        {3 * 256 + 15, "precedence-unreachable"}, {5 * 256 + 2, "invalid"}, {5 * 256 + 255, "redirect"},
        {11 * 256 + 1, "reassembly-timeout"}, {12 * 256 + 255, "parameter-problem"},
        {43 * 256 + 255, "extended-echo-reply"}, {43 * 256 + 4, "multiple-interface-match"},
        {8 * 256 + 255, "invalid"}, {0x10000, "invalid"}, {255, "invalid"}};
    for (auto [value, name] : icmp) {
        EXPECT_STREQ(pol_xml_icmp_msg_val_to_str(value), name) << value;
    }
    const std::pair<uint32_t, const char *> icmp6[] = {
        {1 * 256 + 255, "unreachable"}, {1 * 256 + 7, "source-route-header"}, {1 * 256 + 8, "invalid"},
        {128 * 256, "echo-request"}, {138 * 256 + 15, "router-renumbering"},
        {138 * 256 + 2, "invalid"}, {138 * 256 + 255, "renum-seq-number"}, {140 * 256 + 255, "ni-response"},
        {150 * 256, "invalid"}, {155 * 256, "rpl-control"}, {3 * 256 + 255, "time-exceeded"}};
    for (auto [value, name] : icmp6) {
        EXPECT_STREQ(pol_xml_icmp6_msg_val_to_str(value), name) << value;
    }
    const char *loss[] = {"unknown", "fec-adaptive", "fec-always", "pkt-dup", "unknown"};
    for (uint32_t v = 0; v < 5; v++) {
        EXPECT_STREQ(pol_xml_loss_protect_str(v), loss[v]);
    }
    EXPECT_STREQ(pol_cflowd_transport_type(0), "transport_tcp");
    EXPECT_STREQ(pol_cflowd_transport_type(1), "transport_udp");
}

TEST_F(PolXmlTest, TypeOutsideTheTableStopsTheProcess)
{
    pol_vpn_list_add_entry(ctx_, "V", 1, 1);
    const void *list = pol_vpn_list_find(ctx_, "V");
    pol_xml_t out{};
    EXPECT_DEATH({ dup2(2, 1); pol_xml_convert(list, &out, POL_XML_TYPE_INVALID); },
                 "^pol_xml:[0-9]+: failed assertion `xml_type > POL_XML_TYPE_INVALID'");
    EXPECT_DEATH({ dup2(2, 1); pol_xml_convert(list, &out, POL_XML_TYPE_MAX); },
                 "^pol_xml:[0-9]+: failed assertion `xml_type < POL_XML_TYPE_MAX'");
}

}  // namespace
