// The built-in document check: renders one sample object of each kind
// through the converters and prints the documents to the operator's
// session, so that the document format can be seen on a device without any
// configuration. Every sample lives on the stack of its function; its
// document is released after printing and nothing stays behind.
#include <arpa/inet.h>
#include <zen/mgmtd.h>

#include "pol_util.hpp"
#include "pol_xml.hpp"

namespace {

constexpr const char *kRule = "================================";

// The sample TLOC has the default colour over IPsec: its document names
// both, and a zero code has no name in the schema.
constexpr uint8_t kSampleColorDefault = 1;

// The address the samples use. Where a sample holds it as a prefix, the
// prefix is that one host: a zero length would print the address with
// "/0", which no document of a real list carries.
t_ipaddr sample_v4_addr()
{
    t_ipaddr addr{};
    addr.addr_type = IP_ADDR_V4;
    inet_pton(AF_INET, "10.0.1.100", &addr.u.addr4);
    return addr;
}

// Renders object as a document of type and prints it under the type's
// name, without its XML declaration.
void show_sample(mgmtd_cli_user_info *uinfo, const void *object, e_pol_xml_type type)
{
    pol_cli_printf(uinfo, "\n\n%s", kRule);
    pol_cli_printf(uinfo, "\n    %s", pol_xml_type_str(type));
    pol_xml_t doc{};
    if (pol_xml_convert(object, &doc, type) != nullptr) {
        pol_cli_printf(uinfo, "\n%s", doc.buf + pol::xml::kXmlDeclSize);
    }
    pol_cli_printf(uinfo, "\n %s", kRule);
    pol_xml_free_buf(&doc);
}

// A tree of a sample that holds one record of the stack while the sample
// renders; emptied again before the record goes.
template <typename Rec>
class one_record_tree {
public:
    one_record_tree(avl_tree_t *tree, int (*cmp)(const void *, const void *), std::size_t offset, Rec *rec)
        : tree_(tree), rec_(rec)
    {
        avl_create(tree_, cmp, sizeof(Rec), offset);
        avl_add(tree_, rec_);
    }
    ~one_record_tree()
    {
        avl_remove(tree_, rec_);
        avl_destroy(tree_);
    }
    one_record_tree(const one_record_tree &) = delete;
    one_record_tree &operator=(const one_record_tree &) = delete;

private:
    avl_tree_t *tree_;
    Rec *rec_;
};

void show_pfx_list_sample(mgmtd_cli_user_info *uinfo, const t_ipaddr &addr, e_pol_xml_type type)
{
    t_fwd_pfx_list list{};
    pol::copy_name(list.fwd_pfx_list_name, "test-data-prefix-list");
    t_fwd_pfx_list_entry entry{};
    entry.ip_prefix.addr = addr;
    entry.ip_prefix.prefixlen = addr.addr_type == IP_ADDR_V4 ? 32 : 128;
    one_record_tree tree(&list.ip_fwd_pfx_entry_db, pol_fwd_pfx_list_entry_cmp,
                         offsetof(t_fwd_pfx_list_entry, avl_node), &entry);
    show_sample(uinfo, &list, type);
}

}  // namespace

extern "C" {

void pol_xml_test_stub(struct mgmtd_cli_user_info *) {}

void pol_xml_test_cflowd(struct mgmtd_cli_user_info *uinfo)
{
    t_cflowd_entry tmpl{};
    tmpl.flow_active_timeout = 60;
    tmpl.flow_inactive_timeout = 60;
    tmpl.template_refresh = 30;
    tmpl.flow_sampling_interval = 100;
    t_pol_block block{};
    pol::copy_name(block.pol_name, "test-cflowd");
    block.pol_type = POL_TYPE_CFLOWD;
    block.pol_cflowd_entry = &tmpl;
    tmpl.cflowd_pol_block_p = &block;
    t_cflowd_collector collector{};
    collector.cflowd_entry_p = &tmpl;
    collector.addr = sample_v4_addr();
    collector.port = 4739;
    pol::copy_name(collector.source_if, "ge1/0");
    one_record_tree tree(&tmpl.collector_db, pol_cflowd_entry_cmp, offsetof(t_cflowd_collector, avl_node),
                         &collector);
    show_sample(uinfo, &block, POL_XML_TYPE_CFLOWD);
}

void pol_xml_test_policer(struct mgmtd_cli_user_info *uinfo)
{
    t_fwd_policer policer{};
    pol::copy_name(policer.fwd_policer_name, "test-policer");
    policer.rate = 1000000;
    policer.burst = 10000;
    show_sample(uinfo, &policer, POL_XML_TYPE_POLICER);
}

void pol_xml_test_sla_class(struct mgmtd_cli_user_info *uinfo)
{
    t_fwd_sla_class sla{};
    pol::copy_name(sla.sla_class_name, "test-sla-class");
    sla.latency = 1000;
    sla.jitter = 1000;
    show_sample(uinfo, &sla, POL_XML_TYPE_SLA_CLASS);
}

void pol_xml_test_app_probe_class(struct mgmtd_cli_user_info *uinfo)
{
    t_app_probe_class cls{};
    pol::copy_name(cls.app_probe_class_name, "test-app_probe-class");
    pol::copy_name(cls.forwarding_class, "test-forwarding-class");
    TAILQ_INIT(&cls.app_probe_class_color_entry_head);
    TAILQ_INIT(&cls.sla_class_head);
    t_app_probe_class_color_entry color{};
    color.color = 11;
    color.dscp = 30;
    TAILQ_INSERT_TAIL(&cls.app_probe_class_color_entry_head, &color, app_probe_class_color_entry);
    show_sample(uinfo, &cls, POL_XML_TYPE_APP_PROBE_CLASS);
}

void pol_xml_test_fwd_prefix_list(struct mgmtd_cli_user_info *uinfo)
{
    show_pfx_list_sample(uinfo, sample_v4_addr(), POL_XML_TYPE_FWD_PFXLIST);
}

void pol_xml_test_fwd_prefix_ipv6_list(struct mgmtd_cli_user_info *uinfo)
{
    t_ipaddr addr{};
    addr.addr_type = IP_ADDR_V6;
    for (uint8_t i = 0; i < sizeof(addr.u.addr6_b); i++) {
        addr.u.addr6_b[i] = static_cast<uint8_t>(i + 1);
    }
    show_pfx_list_sample(uinfo, addr, POL_XML_TYPE_FWD_PFX6LIST);
}

void pol_xml_test_vpn_list(struct mgmtd_cli_user_info *uinfo)
{
    t_vpn_list list{};
    pol::copy_name(list.vpn_list_name, "test-vpn-list");
    TAILQ_INIT(&list.vpn_entry_head);
    t_pol_vpn_entry entry{};
    entry.min_vpn_id = 100;
    entry.max_vpn_id = 100;
    TAILQ_INSERT_TAIL(&list.vpn_entry_head, &entry, vpn_entry);
    show_sample(uinfo, &list, POL_XML_TYPE_VPNLIST);
}

void pol_xml_test_tloc_list(struct mgmtd_cli_user_info *uinfo)
{
    t_tloc_list list{};
    pol::copy_name(list.tloc_list_name, "test-tloc-list");
    TAILQ_INIT(&list.tloc_entry_head);
    t_tloc_entry entry{};
    entry.tloc.addr = sample_v4_addr();
    entry.tloc.color = kSampleColorDefault;
    entry.tloc.encap = ZEN_TLOC_ENCAP_IPSEC_TUNNEL;
    TAILQ_INSERT_TAIL(&list.tloc_entry_head, &entry, tloc_entry);
    show_sample(uinfo, &list, POL_XML_TYPE_TLOCLIST);
}

void pol_xml_test_app_list(struct mgmtd_cli_user_info *uinfo)
{
    t_app_list list{};
    pol::copy_name(list.app_list_name, "test-app-list");
    list.app_list_type = POL_APP_LIST_TYPE_APP;
    t_app_list_entry entry{};
    pol::copy_name(entry.name, "gmail");
    one_record_tree tree(&list.app_list_entry_db, pol_app_list_entry_cmp, offsetof(t_app_list_entry, avl_node),
                         &entry);
    show_sample(uinfo, &list, POL_XML_TYPE_APPLIST);
}

const t_pol_xml_test_f pol_xml_gen_test_vector[POL_XML_TYPE_MAX] = {
    nullptr,
    pol_xml_test_stub,
    pol_xml_test_stub,
    pol_xml_test_cflowd,
    pol_xml_test_policer,
    pol_xml_test_sla_class,
    pol_xml_test_app_probe_class,
    pol_xml_test_fwd_prefix_list,
    pol_xml_test_fwd_prefix_ipv6_list,
    pol_xml_test_vpn_list,
    pol_xml_test_tloc_list,
    pol_xml_test_app_list,
};

void pol_xml_gen_test(struct mgmtd_cli_user_info *uinfo)
{
    for (int type = POL_XML_TYPE_DATA_POLICY; type < POL_XML_TYPE_MAX; type++) {
        pol_xml_gen_test_vector[type](uinfo);
    }
}

int pol_dump_test_xml_gen(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    pol_cli_printf(uinfo, "%s", kRule);
    pol_cli_printf(uinfo, "\n    XML unit test");
    pol_cli_printf(uinfo, "\n%s", kRule);
    pol_xml_gen_test(uinfo);
    return 0;
}

}  // extern "C"
