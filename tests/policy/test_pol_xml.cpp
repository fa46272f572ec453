// Policy documents: golden renderings of every converter and element rule,
// each also parsed strictly by the edge router's schema (zen-policy-edge),
// validated and printed back to the same content; the value namers; the
// failure path (nothing half-written) and the table's checks.
#include <arpa/inet.h>
#include <libxml/parser.h>
#include <libyang/libyang.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <tuple>

#include "pol_test_support.hpp"
#include "pol_util.hpp"
#include "pol_xml.hpp"

namespace {

using namespace poltest;

/* ---- reading documents ---- */

// An element as name, "=text" when it holds text, and "{children}" in
// order, or sorted by name (stable) where sibling order carries no meaning.
std::string compact(xmlNodePtr el, bool sorted)
{
    std::string text;
    std::vector<std::pair<std::string, std::string>> kids;
    for (xmlNodePtr c = el->children; c != nullptr; c = c->next) {
        if (c->type == XML_ELEMENT_NODE) {
            kids.emplace_back(reinterpret_cast<const char *>(c->name), compact(c, sorted));
        } else if (c->type == XML_TEXT_NODE) {
            text += reinterpret_cast<const char *>(c->content);
        }
    }
    text.erase(text.find_last_not_of(" \n") + 1);
    if (sorted) {
        std::stable_sort(kids.begin(), kids.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
    }
    std::string out = reinterpret_cast<const char *>(el->name);
    out += text.empty() ? "" : "=" + text;
    for (std::size_t i = 0; i < kids.size(); i++) {
        out += (i == 0 ? "{" : " ") + kids[i].second + (i + 1 == kids.size() ? "}" : "");
    }
    return out;
}

// The compact form of a document's root element, or of the element depth
// levels below it.
std::string compact(const std::string &xml, bool sorted = false, int depth = 0)
{
    xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                  XML_PARSE_NOBLANKS);
    if (doc == nullptr) {
        return "unparsable: " + xml;
    }
    xmlNodePtr el = xmlDocGetRootElement(doc);
    for (int i = 0; i < depth && el != nullptr; i++) {
        el = xmlFirstElementChild(el);
    }
    std::string out = el != nullptr ? compact(el, sorted) : "empty";
    xmlFreeDoc(doc);
    return out;
}

/* ---- the edge router's schema ---- */

enum class Place { top, lists, text_only };

// The document's body under /policy-from-qarmon (and lists), parsed
// strictly, validated and printed back; the printed element in sorted
// compact form, or the schema's complaint.
class EdgeSchema {
public:
    EdgeSchema()
    {
        ly_ctx_new(ZEN_EDGE_YANG_DIR, 0, &ctx_);
        module_ = ly_ctx_load_module(ctx_, "zen-policy-edge", nullptr, nullptr);
    }
    ~EdgeSchema() { ly_ctx_destroy(ctx_); }
    bool loaded() const { return module_ != nullptr; }

    std::string round_trip(const std::string &doc, Place place) const
    {
        const bool lists = place == Place::lists;
        const std::string body = doc.substr(doc.find("?>") + 2);
        const std::string wrapped = "<policy-from-qarmon xmlns=\"urn:zen:params:xml:ns:yang:zen-policy-edge\">" +
                                    std::string(lists ? "<lists>" : "") + body +
                                    (lists ? "</lists>" : "") + "</policy-from-qarmon>";
        lyd_node *tree = nullptr;
        if (lyd_parse_data_mem(ctx_, wrapped.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_PRESENT,
                               &tree) != LY_SUCCESS) {
            return std::string("schema: ") + ly_errmsg(ctx_);
        }
        char *printed = nullptr;
        lyd_print_mem(&printed, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
        std::string out = compact(printed, true, lists ? 2 : 1);
        std::free(printed);
        lyd_free_all(tree);
        return out;
    }

private:
    ly_ctx *ctx_ = nullptr;
    const lys_module *module_ = nullptr;
};

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
    t_tloc_id t{};
    t.addr = addr(ip);
    t.color = color;
    t.encap = encap;
    return t;
}

int prefix_cmp(const void *a, const void *b)
{
    const auto &x = static_cast<const t_fwd_pfx_list_entry *>(a)->ip_prefix;
    const auto &y = static_cast<const t_fwd_pfx_list_entry *>(b)->ip_prefix;
    if (int r = IPADDR_CMP(&x.addr, &y.addr)) {
        return r;
    }
    return (x.prefixlen > y.prefixlen) - (x.prefixlen < y.prefixlen);
}

int app_cmp(const void *a, const void *b)
{
    const int r = std::strncmp(static_cast<const t_app_list_entry *>(a)->name,
                               static_cast<const t_app_list_entry *>(b)->name, 128);
    return (r > 0) - (r < 0);
}

// Zero-filled records and arrays that live as long as the test.
class Arena {
public:
    template <typename T>
    T *make()
    {
        auto p = std::make_shared<T>();
        keep_.push_back(p);
        return p.get();
    }
    template <typename T>
    T *array(std::initializer_list<T> values)
    {
        auto p = std::shared_ptr<T[]>(new T[values.size()]);
        std::copy(values.begin(), values.end(), p.get());
        keep_.push_back(p);
        return p.get();
    }

    t_fwd_pfx_list *pfx_list(const char *name, std::initializer_list<const char *> prefixes)
    {
        auto *l = make<t_fwd_pfx_list>();
        pol::copy_name(l->fwd_pfx_list_name, name);
        POL_TREE_CREATE(&l->ip_fwd_pfx_entry_db, prefix_cmp, t_fwd_pfx_list_entry, avl_node);
        for (const char *p : prefixes) {
            auto *e = make<t_fwd_pfx_list_entry>();
            e->ip_prefix = prefix(p);
            avl_add(&l->ip_fwd_pfx_entry_db, e);
        }
        return l;
    }

    t_app_list *app_list(const char *name, t_app_list_type type, std::initializer_list<const char *> apps)
    {
        auto *l = make<t_app_list>();
        pol::copy_name(l->app_list_name, name);
        l->app_list_type = type;
        POL_TREE_CREATE(&l->app_list_entry_db, app_cmp, t_app_list_entry, avl_node);
        for (const char *a : apps) {
            auto *e = make<t_app_list_entry>();
            pol::copy_name(e->name, a);
            avl_add(&l->app_list_entry_db, e);
        }
        return l;
    }

    template <typename T, std::size_t N>
    T *named(char (T::*field)[N], const char *name)
    {
        T *rec = make<T>();
        pol::copy_name(rec->*field, name);
        return rec;
    }

    t_fwd_policer *policer(const char *name, uint64_t rate, uint32_t burst, uint8_t exceed)
    {
        auto *p = named(&t_fwd_policer::fwd_policer_name, name);
        std::tie(p->rate, p->burst, p->exceed_action) = std::tuple(rate, burst, exceed);
        return p;
    }

    t_fwd_sla_class *sla(const char *name, const char *probe = "", uint8_t loss = 0, uint16_t latency = 0,
                         uint16_t jitter = 0)
    {
        auto *c = named(&t_fwd_sla_class::sla_class_name, name);
        pol::copy_name(c->app_probe_class_name, probe);
        std::tie(c->loss, c->latency, c->jitter) = std::tuple(loss, latency, jitter);
        return c;
    }

    t_app_probe_class *probe_class(const char *name, const char *fwd_class,
                                   std::initializer_list<std::pair<uint16_t, uint8_t>> colors)
    {
        auto *c = named(&t_app_probe_class::app_probe_class_name, name);
        pol::copy_name(c->forwarding_class, fwd_class);
        TAILQ_INIT(&c->app_probe_class_color_entry_head);
        for (auto [color, dscp] : colors) {
            auto *e = make<t_app_probe_class_color_entry>();
            std::tie(e->color, e->dscp) = std::tuple(color, dscp);
            TAILQ_INSERT_TAIL(&c->app_probe_class_color_entry_head, e, app_probe_class_color_entry);
        }
        return c;
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
             return Object{arena_.pfx_list("P4", {"10.1.0.0/16", "192.0.2.0/24"}), POL_XML_TYPE_FWD_PFXLIST};
         },
         "data-prefix-list{name=P4 ip-prefix{ip=10.1.0.0/16} ip-prefix{ip=192.0.2.0/24}}", Place::lists},
        {"IPv6 data prefix list",
         [&] { return Object{arena_.pfx_list("P6", {"2001:db8::/32"}), POL_XML_TYPE_FWD_PFX6LIST}; },
         "data-ipv6-prefix-list{name=P6 ipv6-prefix{ipv6=2001:db8::/32}}", Place::lists},
        {"application list",
         [&] {
             return Object{arena_.app_list("A", POL_APP_LIST_TYPE_APP, {"zoom", "webex"}), POL_XML_TYPE_APPLIST};
         },
         "app-list{name=A app=webex app=zoom}", Place::lists},
        {"application-family list",
         [&] {
             return Object{arena_.app_list("F", POL_APP_LIST_TYPE_APP_FAMILY, {"voice"}), POL_XML_TYPE_APPLIST};
         },
         "app-list{name=F app-family=voice}", Place::lists},
        {"policer", [&] { return Object{arena_.policer("POL", 10000000000ULL, 15000, 1), POL_XML_TYPE_POLICER}; },
         "policer{name=POL rate=10000000000 burst=15000 exceed=drop}", Place::top},
        {"policer remarking", [&] { return Object{arena_.policer("R", 0, 0, 0), POL_XML_TYPE_POLICER}; },
         "policer{name=R rate=0 burst=0 exceed=remark}", Place::top},
        {"SLA class", [&] { return Object{arena_.sla("GOLD", "PROBE", 5, 300, 65534), POL_XML_TYPE_SLA_CLASS}; },
         "sla-class{name=GOLD loss=5 latency=300 jitter=65534 app-probe-class=PROBE}", Place::top},
        {"SLA class with nothing configured",
         [&] { return Object{arena_.sla("NONE", "", 255, 65535, 65535), POL_XML_TYPE_SLA_CLASS}; },
         "sla-class{name=NONE loss=255 latency=65535 jitter=65535 app-probe-class}", Place::top},
        {"app-probe class",
         [&] { return Object{arena_.probe_class("PROBE", "fc-voice", {{10, 46}, {2, 0}}), POL_XML_TYPE_APP_PROBE_CLASS}; },
         "app-probe-class{name=PROBE forwarding-class=fc-voice color{color-name=blue dscp=46} "
         "color{color-name=mpls dscp=0}}",
         Place::lists},
        {"app-probe class without forwarding class",
         [&] { return Object{arena_.probe_class("BARE", "", {}), POL_XML_TYPE_APP_PROBE_CLASS}; },
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
         "collector{vpn=1 address=192.0.2.9 port=2055 transport=transport_udp source-interface} "
         "collector{vpn=512 address=2001:db8::9 port=65535 transport=transport_tcp source-interface=ge0/1}}",
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

// A data or app-route policy built record by record: VPN records (with a
// default sequence that drops, unless told otherwise) and sequences.
class PolicyRecords {
public:
    PolicyRecords(t_pol_ctx *ctx, Arena &arena, const char *name, e_pol_type type) : arena_(arena)
    {
        block_ = arena.make<t_pol_block>();
        pol::copy_name(block_->pol_name, name);
        block_->pol_type = type;
        pol_fwd_block_init(ctx, block_);
    }

    Object object() const
    {
        return {block_, block_->pol_type == POL_TYPE_DATA ? POL_XML_TYPE_DATA_POLICY : POL_XML_TYPE_PFR_POLICY};
    }

    t_pol_entry *default_entry(const char *vpn_name) { return vpn(vpn_name)->default_pol_entry; }

    t_pol_fwd_vpn_entry *vpn(const char *name, bool with_default = true)
    {
        t_pol_fwd_vpn_entry key{};
        pol::copy_name(key.vpn_name, name);
        if (auto *found = static_cast<t_pol_fwd_vpn_entry *>(avl_find(&block_->pol_fwd_vpn_list_entries, &key, nullptr))) {
            return found;
        }
        auto *v = arena_.make<t_pol_fwd_vpn_entry>();
        pol::copy_name(v->vpn_name, name);
        POL_TREE_CREATE(&v->pol_entries, pol_entry_cmp, t_pol_entry, entry_node);
        if (with_default) {
            v->default_pol_entry = new_entry(0);
            v->default_pol_entry->set_entry.action = 1;
        }
        avl_add(&block_->pol_fwd_vpn_list_entries, v);
        return v;
    }

    t_pol_entry *seq(const char *vpn_name, uint32_t num)
    {
        t_pol_entry *e = new_entry(num);
        avl_add(&vpn(vpn_name)->pol_entries, e);
        return e;
    }

private:
    t_pol_entry *new_entry(uint32_t num)
    {
        auto *e = arena_.make<t_pol_entry>();
        e->entry_num = num;
        TAILQ_INIT(&e->set_entry.fwd_tloc_entry_head);
        return e;
    }

    Arena &arena_;
    t_pol_block *block_;
};

void link_saas(Arena &arena, t_pol_match_entry &m, t_app_list *list)
{
    auto *node = arena.make<t_app_list_dll_node>();
    node->match_app_list_p = list;
    node->app_list_node.p_prev = m.match_saas_app_list.p_tail;
    (m.match_saas_app_list.p_tail ? m.match_saas_app_list.p_tail->p_next : m.match_saas_app_list.p_head) =
        &node->app_list_node;
    m.match_saas_app_list.p_tail = &node->app_list_node;
    m.match_saas_app_list.count++;
}

class PolXmlPolicyTest : public PolXmlTest {
protected:
    Object matches()
    {
        PolicyRecords p(ctx_, arena_, "DP", POL_TYPE_DATA);
        p.default_entry("V1")->set_entry.action = 0;
        t_pol_entry *e = p.seq("V1", 10);
        t_pol_match_entry &m = e->match_entry;
        m.match_src_ip_list = arena_.array<t_ipprefix>({prefix("10.1.0.0/16"), prefix("10.2.0.0/16")});
        m.match_num_src_ip = 2;
        m.match_src_ipv6_list = arena_.array<t_ipprefix>({prefix("2001:db8::/32")});
        m.match_num_src_ipv6 = 1;
        m.match_dst_ip_list = arena_.array<t_ipprefix>({prefix("192.0.2.0/24")});
        m.match_num_dst_ip = 1;
        m.match_dst_ipv6_list = arena_.array<t_ipprefix>({prefix("2001:db8:1::/48")});
        m.match_num_dst_ipv6 = 1;
        m.match_src_list_p = arena_.pfx_list("SRC", {});
        m.match_src6_list_p = arena_.pfx_list("SRC6", {});
        m.match_dst_list_p = arena_.pfx_list("DST", {});
        m.match_dst6_list_p = arena_.pfx_list("DST6", {});
        m.match_app_list_p = arena_.app_list("APPS", POL_APP_LIST_TYPE_APP, {});
        m.match_dns_app_list_p = arena_.app_list("DNS", POL_APP_LIST_TYPE_APP, {});
        link_saas(arena_, m, arena_.app_list("S2", POL_APP_LIST_TYPE_APP, {}));
        link_saas(arena_, m, arena_.app_list("S1", POL_APP_LIST_TYPE_APP, {}));
        m.match_src_port_list = arena_.array<t_pol_range>({{80, 80}, {1000, 2000}});
        m.match_num_src_port = 2;
        m.match_dst_port_list = arena_.array<t_pol_range>({{443, 443}});
        m.match_num_dst_port = 1;
        m.match_proto_list = arena_.array<uint8_t>({6, 17});
        m.match_num_proto = 2;
        m.match_dscp_list = arena_.array<uint8_t>({46});
        m.match_num_dscp = 1;
        m.match_packet_len = arena_.array<t_pol_range>({{64, 1500}});
        m.match_num_packet_len = 1;
        m.match_icmp_list = arena_.array<uint32_t>({3 * 256 + 255, 0});
        m.match_num_icmp = 2;
        m.match_icmp6_list = arena_.array<uint32_t>({128 * 256});
        m.match_num_icmp6 = 1;
        m.match_tcp_flags = 0x12;
        m.match_plp = 1;
        m.match_dns = 2;
        m.match_traf_category = 1;
        e->entry_match_flags = 0x1000 | 0x2000 | 0x80000 | 0x400000 | 0x800000 | 0x1000000 | 0x2000000 |
                               0x4000000 | 0x8000000 | 0x10000000 | 0x20000000;
        t_pol_entry *other = p.seq("V1", 5);
        other->entry_match_flags = 0x4000000 | 0x8000000 | 0x10000000 | 0x20000000;
        other->match_entry.match_dns = 1;
        other->match_entry.match_traf_category = 2;
        return p.object();
    }

    Object actions()
    {
        PolicyRecords p(ctx_, arena_, "ACT", POL_TYPE_DATA);
        t_pol_entry *e = p.seq("V", 7);
        t_pol_set_entry &s = e->set_entry;
        s.action = 1;
        pol::copy_name(s.set_counter_name, "CNT");
        s.set_nat_pool_id = 3;
        s.set_nat_fallback = true;
        s.loss_protect = 2;
        s.loss_protection_fec = 10;
        s.redirect_dns_ip_addr = addr("198.51.100.53");
        s.redirect_dns_type = POL_ACTION_REDIRECT_DNS_UMBRELLA;
        s.set_backup_sla_preferred_color = (1u << 1) | (1u << 3);
        s.set_local_tloc = {5, 2};
        s.set_local_tloc_list = {(1u << 4) | (1u << 9), 1u << 1, 1};
        s.next_hop = addr("192.0.2.1");
        s.next_hop_ipv6 = addr("2001:db8::1");
        s.set_fwd_policer_p = arena_.policer("POL", 0, 0, 0);
        s.set_fwd_dscp = 46;
        pol::copy_name(s.set_fwd_class, "fc1");
        s.set_fwd_vpn_id = 100;
        s.set_fwd_tloc = tloc("10.0.0.1", 9, 2);
        s.set_fwd_tloc_list_p = pol_tloc_list_find_or_create(ctx_, "TL", nullptr);
        s.set_fwd_label = 1000;
        for (auto [t, label, pref] : {std::tuple{tloc("10.0.0.1", 10, 2), 5000u, 100u},
                                      std::tuple{tloc("10.0.0.2", 11, 1), 0u, 0u}}) {
            auto *node = arena_.make<t_tloc_entry>();
            node->tloc = t;
            node->set_fwd_label = label;
            node->route_preference = pref;
            TAILQ_INSERT_TAIL(&s.fwd_tloc_entry_head, node, tloc_entry);
        }
        e->entry_set_flags = 0x2000 | 0x10000000 | 0x20000 | 0x20000000 | 0x40000 | 0x4000 | 0x80000 |
                             0x100000 | 0x200000 | 0x800000 | 0x40000000 | 0x100000000 | 0x8000 | 0x10000 |
                             0x1000000 | 0x2000000 | 0x800 | 0x4000000 | 0x8000000 | 0x100 | 0x80 | 0x1000;
        return p.object();
    }

    Object app_route()
    {
        PolicyRecords p(ctx_, arena_, "AR", POL_TYPE_PFR);
        t_pol_entry *e = p.seq("V", 1);
        e->entry_set_flags = 0x200 | 0x8000;
        e->set_entry.set_sla_class_p = arena_.sla("GOLD");
        e->set_entry.set_sla_preferred_color = (1u << 2) | (1u << 4);
        e->set_entry.set_sla_strict = 1;
        e->set_entry.set_backup_sla_preferred_color = 1u << 5;
        p.default_entry("V")->entry_set_flags = 0x200;
        p.default_entry("V")->set_entry.set_sla_class_p = arena_.sla("SILVER");
        p.seq("W", 2);
        return p.object();
    }
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
             PolicyRecords p(ctx_, arena_, "SVC", POL_TYPE_DATA);
             t_pol_entry *e = p.seq("V", 3);
             e->entry_set_flags = 0x400 | 0x1000 | 0x80000000;
             e->set_entry.set_fwd_service = 1;
             e->set_entry.set_fwd_vpn_id = 10;
             e->set_entry.set_fwd_tloc = tloc("10.0.0.9", 1, 1);
             e->set_entry.set_fwd_service_local = e->set_entry.set_fwd_service_local_restrict = true;
             e->set_entry.set_fwd_tloc_list_p = pol_tloc_list_find_or_create(ctx_, "TL2", nullptr);
             return p.object();
         },
         "data-policy{name=SVC vpn-list{name=V sequence{seq-value=3 action{action-value=accept "
         "set{service{svc-type=firewall vpn=10 tloc{ip=10.0.0.9 color=default encap=gre} local restrict} "
         "tloc-list=TL2}}}}}",
         Place::top},
        {"data: empty match and action removed, drop renders no default, no default sequence no body",
         [&] {
             PolicyRecords p(ctx_, arena_, "E", POL_TYPE_DATA);
             p.vpn("A", false);
             p.seq("B", 1)->set_entry.action = 1;
             t_pol_entry *label_only = p.seq("B", 2);  // a label alone makes no set
             label_only->set_entry.action = 1;
             label_only->set_entry.set_fwd_label = 77;
             t_pol_entry *color_only = p.seq("B", 3);  // a TLOC with only a colour
             color_only->set_entry.action = 1;
             color_only->entry_set_flags = 0x100;
             color_only->set_entry.set_fwd_vpn_id = 5;
             color_only->set_entry.set_fwd_tloc.color = 3;
             return p.object();
         },
         "data-policy{name=E vpn-list{name=A} vpn-list{name=B sequence{seq-value=1} sequence{seq-value=2} "
         "sequence{seq-value=3 action{set{vpn=5 tloc{color=metro-ethernet}}}}}}",
         Place::top},
        {"data: packet duplication alone",
         [&] {
             PolicyRecords p(ctx_, arena_, "DUP", POL_TYPE_DATA);
             t_pol_entry *e = p.seq("V", 1);
             e->set_entry.action = 1;
             e->entry_set_flags = 0x400000;
             return p.object();
         },
         "data-policy{name=DUP vpn-list{name=V sequence{seq-value=1 action{loss-protection{packet-duplication}}}}}",
         Place::top},
        // Duplication under the FEC element makes mixed content, which no
        // schema leaf holds: text only.
        {"data: packet duplication under forward error correction",
         [&] {
             PolicyRecords p(ctx_, arena_, "FEC", POL_TYPE_DATA);
             t_pol_entry *e = p.seq("V", 1);
             e->set_entry.action = 1;
             e->entry_set_flags = 0x200000 | 0x400000;
             return p.object();
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
    EXPECT_STREQ(pol_cflowd_transport_type(0), "transport_udp");
    EXPECT_STREQ(pol_cflowd_transport_type(1), "transport_tcp");
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
