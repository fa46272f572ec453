// Policy documents: golden renderings (tests/golden/pol-xml-documents.txt)
// of every converter and element rule, each also parsed strictly by the
// edge router's schema (zen-policy-edge), validated and printed back to the
// same content; the value namers; the failure path (nothing half-written)
// and the table's checks.
#include <arpa/inet.h>
#include <libxml/parser.h>

#include <algorithm>
#include <cstring>
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
    return {addr(s.substr(0, slash).c_str()), static_cast<uint8_t>(std::stoi(s.substr(slash + 1)))};
}

t_tloc_id tloc(const char *ip, uint8_t color, uint8_t encap) { return {addr(ip), color, encap}; }

using Object = std::pair<const void *, e_pol_xml_type>;

// A document expected as the section named what of the golden file, or as
// the text given; schema: whether it also passes the schema.
struct Golden {
    std::string what;
    Object object;
    bool schema = true;
    std::string text = golden("pol-xml-documents.txt", what);
};

class PolXmlTest : public PolContextTest {
protected:
    // Renders and checks the record, the text and where asked the schema's
    // round trip.
    void check(const Golden &g)
    {
        SCOPED_TRACE(g.what);
        pol_xml_t out{};
        const char *text = pol_xml_convert(g.object.first, &out, g.object.second);
        if (text == nullptr || text != out.buf) {
            ADD_FAILURE() << "no document in the record";
            return;
        }
        EXPECT_EQ(out.buf_siz, std::strlen(text));
        EXPECT_GT(out.time_spent, 0);
        EXPECT_EQ(text, "<?xml version=\"1.0\"?>\n" + g.text);
        if (g.schema) {
            EXPECT_EQ(schema_round_trip(text), compact(text, true));
        }
        pol_xml_free_buf(&out);
    }
};

TEST_F(PolXmlTest, ObjectAndListDocuments)
{
    pol_vpn_list_add_entry(ctx_, "VL", 7, 7);
    pol_vpn_list_add_entry(ctx_, "VL", 1, 5);
    const t_tloc_id a = tloc("10.0.0.2", 4, 1), b = tloc("10.0.0.1", 22, 2);
    pol_tloc_list_add_entry(ctx_, "TL", &a, 0);
    pol_tloc_list_add_entry(ctx_, "TL", &b, 4000000000u);
    for (const char *p : {"192.0.2.0/24", "10.1.0.0/16"}) {
        const t_ipprefix pfx = prefix(p);
        pol_fwd_pfx_list_add_prefix(ctx_, "P4", &pfx);
    }
    pol_app_list_entry_add_app(ctx_, "A", "zoom", POL_APP_LIST_TYPE_APP);
    pol_app_list_entry_add_app(ctx_, "A", "webex", POL_APP_LIST_TYPE_APP);
    pol_app_list_entry_add_app(ctx_, "F", "voice", POL_APP_LIST_TYPE_APP_FAMILY);
    t_fwd_policer *policer = pol_fwd_policer_find_or_create(ctx_, "R", nullptr);
    std::tie(policer->rate, policer->burst, policer->exceed_action) = std::tuple(10000000000ULL, 15000, 1);
    t_fwd_sla_class *sla = pol_fwd_sla_class_find_or_create(ctx_, "GOLD", nullptr);
    pol::copy_name(sla->app_probe_class_name, "PROBE");
    std::tie(sla->loss, sla->latency, sla->jitter) = std::tuple(5, 300, 65534);
    pol_app_probe_class_entry_change(ctx_, "PROBE", "fc-voice");
    pol_app_probe_class_add_entry(ctx_, "PROBE", 10, 46);
    pol_app_probe_class_add_entry(ctx_, "PROBE", 2, 0);
    uint8_t changed = 0;
    t_pol_block *cflowd = pol_block_find_or_create(ctx_, "CF", POL_TYPE_CFLOWD, &changed);
    t_cflowd_entry *t = cflowd->pol_cflowd_entry;
    std::tie(t->flow_active_timeout, t->flow_inactive_timeout, t->template_refresh, t->flow_sampling_interval,
             t->protocol) = std::tuple(600, 15, 90, 1, 2);
    for (auto [vpn, ip, port, udp, source] :
         {std::tuple{512, "2001:db8::9", 65535, 1, "ge0/1"}, std::tuple{1, "192.0.2.9", 2055, 0, ""}}) {
        t_cflowd_collector c{};
        std::tie(c.vpn_id, c.addr, c.port, c.transport_type) = std::tuple(vpn, addr(ip), port, udp);
        pol::copy_name(c.source_if, source);
        pol_cflowd_add_collector(t, &c);
    }
    const Golden cases[] = {
        {"vpn list: ranges and single VPNs in the list's order",
         {pol_vpn_list_find(ctx_, "VL"), POL_XML_TYPE_VPNLIST}},
        {"tloc list: names of colour and encapsulation, preference",
         {pol_tloc_list_find(ctx_, "TL"), POL_XML_TYPE_TLOCLIST}},
        {"IPv4 data prefix list", {pol_fwd_pfx_list_find(ctx_, "P4"), POL_XML_TYPE_FWD_PFXLIST}},
        {"application list", {pol_app_list_find(ctx_, "A"), POL_XML_TYPE_APPLIST}},
        {"application-family list", {pol_app_list_find(ctx_, "F"), POL_XML_TYPE_APPLIST}},
        {"policer: 64-bit rate, remarking", {policer, POL_XML_TYPE_POLICER}},
        {"SLA class", {sla, POL_XML_TYPE_SLA_CLASS}},
        {"app-probe class: colours in the class's order",
         {pol_app_probe_class_find(ctx_, "PROBE"), POL_XML_TYPE_APP_PROBE_CLASS}},
        {"cflowd template: settings, protocol, collectors in identity order", {cflowd, POL_XML_TYPE_CFLOWD}},
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

    // Packet duplication as a sequence's only action, or beside forward
    // error correction.
    Object duplication(const char *pol, bool fec)
    {
        const Seq s = seq(pol, POL_TYPE_DATA, "V", 1);
        s.drop();
        s(pol_fwd_entry_pkt_dup_upd, true);
        if (fec) {
            s(pol_fwd_entry_fec_upd, 1u, true);
        }
        return object(pol, POL_TYPE_DATA);
    }
};

TEST_F(PolXmlPolicyTest, PolicyDocuments)
{
    const Seq svc = seq("SVC", POL_TYPE_DATA, "V", 3);  // a service with a TLOC list beside it
    const t_tloc_id t = tloc("10.0.0.9", 1, 1);
    pol_tloc_list_add_entry(ctx_, "TL2", &t, 0);
    pol_fwd_entry_vpn_upd(ctx_, "SVC", POL_TYPE_DATA, "V", 3, 10, true);
    EXPECT_EQ(pol_fwd_entry_tloc_upd(nullptr, ctx_, "SVC", POL_TYPE_DATA, "V", 3, true, &t), ERR_OK);
    pol_fwd_entry_tloc_list_upd(ctx_, "SVC", POL_TYPE_DATA, "V", 3, "TL2");
    EXPECT_EQ(pol_fwd_entry_svc_upd(nullptr, ctx_, "SVC", POL_TYPE_DATA, "V", 3, 1, false), ERR_OK);
    svc(pol_fwd_entry_svc_local_upd, true, true, true);

    seq("E", POL_TYPE_DATA, "B", 1).drop();
    const Seq label_only = seq("E", POL_TYPE_DATA, "B", 2);  // a label alone makes no set
    label_only.drop();
    label_only.entry()->set_entry.set_fwd_label = 77;
    const Seq color_only = seq("E", POL_TYPE_DATA, "B", 3);  // a TLOC of a colour alone
    color_only.drop();
    pol_fwd_entry_vpn_upd(ctx_, "E", POL_TYPE_DATA, "B", 3, 5, true);
    const t_tloc_id color = tloc("0.0.0.0", 3, 0);
    pol_fwd_entry_tloc_upd(nullptr, ctx_, "E", POL_TYPE_DATA, "B", 3, false, &color);
    // VPN A without its default sequence, given back before teardown.
    t_pol_fwd_vpn_entry *vpn_a = pol_fwd_vpn_find_or_create(ctx_, "E", POL_TYPE_DATA, "A");
    t_pol_entry *const default_a = std::exchange(vpn_a->default_pol_entry, nullptr);

    const Golden cases[] = {
        {"data: every match condition in order, sequences in number order, default accept", matches()},
        {"data: every action and set element in order", actions()},
        {"data: the service's TLOC list beside the service", object("SVC", POL_TYPE_DATA)},
        {"data: empty match and action removed, drop renders no default, no default sequence no body",
         object("E", POL_TYPE_DATA)},
        {"data: packet duplication alone", duplication("DUP", false)},
        // Duplication under the FEC element makes mixed content, which no
        // schema leaf holds: text only.
        {"data: packet duplication under forward error correction", duplication("FEC", true), false},
        {"app-route: SLA class parts, no action value, default with and without SLA class", app_route()},
    };
    for (const Golden &g : cases) {
        check(g);
    }
    vpn_a->default_pol_entry = default_a;
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
    const std::string special = "a<b>&c\"d'e &amp;", longest(63, 'n');
    for (const auto &[name, escaped] : {std::pair{special, std::string("a&lt;b&gt;&amp;c\"d'e &amp;amp;")},
                                        std::pair{longest, longest}}) {
        pol_vpn_list_add_entry(ctx_, name.c_str(), 3, 3);
        check({name, {pol_vpn_list_find(ctx_, name.c_str()), POL_XML_TYPE_VPNLIST}, true,
               "<vpn-list>\n  <name>" + escaped + "</name>\n  <vpn>\n    <id>3</id>\n  </vpn>\n</vpn-list>\n"});
    }
}

// Beyond the names the documents above show: unknown codes of a known type,
// the any-code rows, types without such a row, values out of range.
TEST(PolXmlNamers, IcmpAndLossProtect)
{
    for (auto [value, name] : {std::pair<uint32_t, const char *>{3 * 256 + 10, "invalid"},
                               {3 * 256 + 15, "precedence-unreachable"}, {5 * 256 + 2, "invalid"},
                               {5 * 256 + 255, "redirect"}, {11 * 256 + 1, "reassembly-timeout"},
                               {43 * 256 + 4, "multiple-interface-match"}, {43 * 256 + 255, "extended-echo-reply"},
                               {8 * 256 + 255, "invalid"}, {0x10000, "invalid"}, {255, "invalid"}}) {
        EXPECT_STREQ(pol_xml_icmp_msg_val_to_str(value), name) << value;
    }
    for (auto [value, name] : {std::pair<uint32_t, const char *>{1 * 256 + 255, "unreachable"},
                               {1 * 256 + 7, "source-route-header"}, {1 * 256 + 8, "invalid"},
                               {138 * 256 + 15, "router-renumbering"}, {138 * 256 + 2, "invalid"},
                               {150 * 256, "invalid"}, {155 * 256, "rpl-control"}, {3 * 256 + 255, "time-exceeded"}}) {
        EXPECT_STREQ(pol_xml_icmp6_msg_val_to_str(value), name) << value;
    }
    const char *loss[] = {"unknown", "fec-adaptive", "fec-always", "pkt-dup", "unknown"};
    for (uint32_t v = 0; v < 5; v++) {
        EXPECT_STREQ(pol_xml_loss_protect_str(v), loss[v]);
    }
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
