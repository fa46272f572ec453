// Policy documents: the converter table and its entry point, the document
// builder every converter uses, the value namers, and the documents of the
// data-plane objects and lists (the policy documents are pol_xml_policy.cpp's).
#include "pol_xml.hpp"

#include <libxml/parser.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

#include <zen/zen_util.h>

#include "pol_util.hpp"

// Stops the process, reporting the converters' source name.
#define POL_XML_ASSERT(cond)                                \
    do {                                                    \
        if (!(cond)) {                                      \
            pol_assert_fail("pol_xml", __LINE__, #cond);    \
        }                                                   \
    } while (0)

namespace pol::xml {

/* ---- builder ---- */

builder builder::text(const char *name, const char *value) const
{
    if (!*ok_) {
        return {nullptr, ok_};
    }
    return {xmlNewTextChild(node_, nullptr, BAD_CAST name, BAD_CAST value), ok_};
}

builder builder::fmt(const char *name, const char *format, ...) const
{
    char value[kTextSize];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(value, sizeof(value), format, ap);
    va_end(ap);
    return text(name, value);
}

void builder::per_bit(const char *name, uint32_t mask, namer_f namer) const
{
    for (uint32_t bit = 0; bit < 32; bit++) {
        if ((mask & (1u << bit)) != 0) {
            text(name, namer(bit));
        }
    }
}

builder builder::addr(const char *name, const t_ipaddr &addr) const
{
    char value[kTextSize];
    return text(name, ipaddr_print(&addr, value, sizeof(value)));
}

builder builder::prefix(const char *name, const t_ipprefix &pfx) const
{
    char value[kTextSize];
    return text(name, ipprefix_print(&pfx, value, sizeof(value)));
}

void builder::color(const char *name, uint32_t color) const
{
    if (is_color(color)) {
        text(name, zen_util_tloc_color_name(color));
    }
}

void builder::encap(const char *name, uint32_t encap) const
{
    if (is_encap(encap)) {
        text(name, zen_util_tloc_encap_name(encap));
    }
}

void builder::drop_if_empty() const
{
    if (node_ != nullptr && node_->children == nullptr) {
        xmlUnlinkNode(node_);
        xmlFreeNode(node_);
    }
}

/* ---- timing and the document ---- */

cpu_timer::cpu_timer()
{
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start_);
}

time_t cpu_timer::elapsed_ns() const
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return (now.tv_sec - start_.tv_sec) * 1000000000L + (now.tv_nsec - start_.tv_nsec);
}

document::document(const char *root_name) : doc_(xmlNewDoc(BAD_CAST "1.0"))
{
    if (doc_ == nullptr) {
        return;
    }
    root_ = xmlNewNode(nullptr, BAD_CAST root_name);
    if (root_ != nullptr) {
        xmlDocSetRootElement(doc_.get(), root_);
    }
}

char *document::dump(pol_xml_t *out, const cpu_timer &timer) const
{
    xmlChar *text = nullptr;
    int size = 0;
    xmlDocDumpFormatMemory(doc_.get(), &text, &size, 1);
    if (text == nullptr) {
        return nullptr;
    }
    out->buf = reinterpret_cast<char *>(text);
    out->buf_siz = static_cast<uint32_t>(size);
    out->time_spent = timer.elapsed_ns();
    return out->buf;
}

namespace {

/* ---- ICMP message names ---- */

constexpr uint8_t kAnyCode = 255;

struct icmp_name {
    uint8_t type;
    uint8_t code;
    const char *name;
};

constexpr icmp_name kIcmpNames[] = {
    {0, 0, "echo-reply"},
    {3, 0, "net-unreachable"},
    {3, 1, "host-unreachable"},
    {3, 2, "protocol-unreachable"},
    {3, 3, "port-unreachable"},
    {3, 4, "packet-too-big"},
    {3, 5, "source-route-failed"},
    {3, 6, "network-unknown"},
    {3, 7, "host-unknown"},
    {3, 8, "host-isolated"},
    {3, 9, "dod-net-prohibited"},
    {3, 11, "net-tos-unreachable"},
    {3, 12, "host-tos-unreachable"},
    {3, 13, "administratively-prohibited"},
    {3, 14, "host-precedence-unreachable"},
    {3, 15, "precedence-unreachable"},
    {3, kAnyCode, "unreachable"},
    {5, 0, "net-redirect"},
    {5, 1, "host-redirect"},
    {5, 3, "host-tos-redirect"},
    {5, kAnyCode, "redirect"},
    {8, 0, "echo"},
    {9, 0, "router-advertisement"},
    {10, 0, "router-solicitation"},
    {11, 0, "ttl-exceeded"},
    {11, 1, "reassembly-timeout"},
    {11, kAnyCode, "time-exceeded"},
    {12, 0, "general-parameter-problem"},
    {12, 1, "option-missing"},
    {12, 2, "no-room-for-option"},
    {12, kAnyCode, "parameter-problem"},
    {13, 0, "timestamp-request"},
    {14, 0, "timestamp-reply"},
    {40, 0, "photuris"},
    {42, 0, "extended-echo"},
    {43, 0, "echo-reply-no-error"},
    {43, 1, "malformed-query"},
    {43, 2, "interface-error"},
    {43, 3, "table-entry-error"},
    {43, 4, "multiple-interface-match"},
    {43, kAnyCode, "extended-echo-reply"},
};

constexpr icmp_name kIcmp6Names[] = {
    {1, 0, "no-route"},
    {1, 1, "no-admin"},
    {1, 2, "beyond-scope"},
    {1, 3, "destination-unreachable"},
    {1, 4, "port-unreachable"},
    {1, 5, "source-policy"},
    {1, 6, "reject-route"},
    {1, 7, "source-route-header"},
    {1, kAnyCode, "unreachable"},
    {2, 0, "packet-too-big"},
    {3, 0, "hop-limit"},
    {3, 1, "reassembly-timeout"},
    {3, kAnyCode, "time-exceeded"},
    {4, 0, "header"},
    {4, 1, "next-header-type"},
    {4, 2, "parameter-option"},
    {4, kAnyCode, "parameter-problem"},
    {128, 0, "echo-request"},
    {129, 0, "echo-reply"},
    {130, 0, "mld-query"},
    {131, 0, "mld-report"},
    {132, 0, "mld-reduction"},
    {133, 0, "router-solicitation"},
    {134, 0, "router-advertisement"},
    {135, 0, "nd-ns"},
    {136, 0, "nd-na"},
    {137, 0, "redirect"},
    {138, 0, "renum-command"},
    {138, 1, "renum-result"},
    {138, 15, "router-renumbering"},
    {138, kAnyCode, "renum-seq-number"},
    {139, 0, "ni-query-v6-address"},
    {139, 1, "ni-query-name"},
    {139, 2, "ni-query-v4-address"},
    {139, kAnyCode, "ni-query"},
    {140, 0, "ni-response-success"},
    {140, 1, "ni-response-refuse"},
    {140, 2, "ni-response-qtype-unknown"},
    {140, kAnyCode, "ni-response"},
    {141, 0, "ind-solicitation"},
    {142, 0, "ind-advertisement"},
    {143, 0, "mldv2-report"},
    {144, 0, "dhaad-request"},
    {145, 0, "dhaad-reply"},
    {146, 0, "mpd-solicitation"},
    {147, 0, "mpd-advertisement"},
    {148, 0, "cp-solicitation"},
    {149, 0, "cp-advertisement"},
    {151, 0, "mr-advertisement"},
    {152, 0, "mr-solicitation"},
    {153, 0, "mr-termination"},
    {155, 0, "rpl-control"},
};

template <std::size_t N>
constexpr const char *icmp_lookup(const icmp_name (&table)[N], uint32_t value)
{
    if (value > 0xffff) {
        return "invalid";
    }
    for (const icmp_name &row : table) {
        if (row.type == (value >> 8) && row.code == (value & 0xff)) {
            return row.name;
        }
    }
    return "invalid";
}

static_assert(std::string_view(icmp_lookup(kIcmpNames, 3 * 256 + kAnyCode)) == "unreachable");
static_assert(std::string_view(icmp_lookup(kIcmpNames, 3 * 256 + 10)) == "invalid");

/* ---- documents of objects and lists ---- */

// The codes of the configuration schema's enumerations (zen-policy).
constexpr uint32_t kCflowdTransportUdp = 1;
constexpr uint8_t kCflowdProtocolIpv6 = 1;
constexpr uint8_t kCflowdProtocolBoth = 2;
constexpr uint8_t kPolicerExceedRemark = 1;

const char *cflowd_protocol_str(uint8_t protocol)
{
    switch (protocol) {
    case kCflowdProtocolIpv6:
        return "ipv6";
    case kCflowdProtocolBoth:
        return "both";
    default:
        return nullptr;
    }
}

void add_collector(const builder &tmpl, const t_cflowd_collector &coll)
{
    builder c = tmpl.empty("collector");
    c.fmt("vpn", "%lu", coll.vpn_id);
    c.addr("address", coll.addr);
    c.fmt("port", "%u", coll.port);
    c.text("transport", pol_cflowd_transport_type(coll.transport_type));
    c.text("source-interface", coll.source_if);
}

void add_vpn_range(const builder &list, const t_pol_vpn_entry &e)
{
    builder vpn = list.empty("vpn");
    if (e.min_vpn_id != e.max_vpn_id) {
        vpn.fmt("id", "%lu-%lu", e.min_vpn_id, e.max_vpn_id);
    } else {
        vpn.fmt("id", "%lu", e.min_vpn_id);
    }
}

void add_tloc_entry(const builder &list, const t_tloc_entry &e)
{
    builder tloc = list.empty("tloc");
    tloc.addr("ip", e.tloc.addr);
    tloc.text("color", zen_util_tloc_color_name(e.tloc.color));
    tloc.text("encap", zen_util_tloc_encap_name(e.tloc.encap));
    tloc.fmt("preference", "%u", e.route_preference);
}

}  // namespace
}  // namespace pol::xml

using pol::xml::builder;
using pol::xml::render;

extern "C" {

const t_pol_xml_convert_f pol_xml_convert_vector[POL_XML_TYPE_MAX] = {
    nullptr,
    pol_xml_convert_data_policy,
    pol_xml_convert_pfr_policy,
    pol_xml_convert_cflowd,
    pol_xml_convert_policer,
    pol_xml_convert_sla_class,
    pol_xml_convert_app_probe_class,
    pol_xml_convert_fwd_pfx_list,
    pol_xml_convert_fwd_pfx_list,
    pol_xml_convert_vpn_list,
    pol_xml_convert_tloc_list,
    pol_xml_convert_app_list,
};

char *pol_xml_convert(const void *object, pol_xml_t *out, e_pol_xml_type xml_type)
{
    POL_XML_ASSERT(xml_type > POL_XML_TYPE_INVALID);
    POL_XML_ASSERT(xml_type < POL_XML_TYPE_MAX);
    POL_XML_ASSERT(pol_xml_convert_vector[xml_type]);
    return pol_xml_convert_vector[xml_type](object, out, xml_type);
}

const char *pol_xml_icmp_msg_val_to_str(uint32_t value)
{
    return pol::xml::icmp_lookup(pol::xml::kIcmpNames, value);
}

const char *pol_xml_icmp6_msg_val_to_str(uint32_t value)
{
    return pol::xml::icmp_lookup(pol::xml::kIcmp6Names, value);
}

const char *pol_xml_loss_protect_str(uint32_t value)
{
    switch (value) {
    case 1:
        return "fec-adaptive";
    case 2:
        return "fec-always";
    case 3:
        return "pkt-dup";
    default:
        return "unknown";
    }
}

const char *pol_cflowd_transport_type(uint32_t type)
{
    return type == pol::xml::kCflowdTransportUdp ? "transport_udp" : "transport_tcp";
}

char *pol_xml_convert_cflowd(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *block = static_cast<const t_pol_block *>(object);
    const t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    return render("cflowd-template", out, [&](const builder &root) {
        root.text("name", block->pol_name);
        if (tmpl == nullptr) {
            return true;
        }
        root.fmt("flow-active-timeout", "%lu", tmpl->flow_active_timeout);
        root.fmt("flow-inactive-timeout", "%lu", tmpl->flow_inactive_timeout);
        root.fmt("template-refresh", "%lu", tmpl->template_refresh);
        root.fmt("flow-sampling-interval", "%lu", tmpl->flow_sampling_interval);
        if (const char *protocol = pol::xml::cflowd_protocol_str(tmpl->protocol)) {
            root.text("protocol", protocol);
        }
        pol::tree<t_cflowd_collector> collectors(const_cast<avl_tree_t *>(&tmpl->collector_db));
        collectors.for_each([&](const t_cflowd_collector *c) { pol::xml::add_collector(root, *c); });
        return true;
    });
}

char *pol_xml_convert_policer(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *policer = static_cast<const t_fwd_policer *>(object);
    return render("policer", out, [&](const builder &root) {
        root.text("name", policer->fwd_policer_name);
        root.fmt("rate", "%lu", policer->rate);
        root.fmt("burst", "%u", policer->burst);
        root.text("exceed",
                  policer->exceed_action == pol::xml::kPolicerExceedRemark ? "remark" : "drop");
        return true;
    });
}

char *pol_xml_convert_sla_class(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *sla = static_cast<const t_fwd_sla_class *>(object);
    return render("sla-class", out, [&](const builder &root) {
        root.text("name", sla->sla_class_name);
        root.fmt("loss", "%hhu", sla->loss);
        root.fmt("latency", "%hu", sla->latency);
        root.fmt("jitter", "%hu", sla->jitter);
        root.text("app-probe-class", sla->app_probe_class_name);
        return true;
    });
}

char *pol_xml_convert_app_probe_class(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *cls = static_cast<const t_app_probe_class *>(object);
    return render("app-probe-class", out, [&](const builder &root) {
        root.text("name", cls->app_probe_class_name);
        root.text("forwarding-class", cls->forwarding_class);
        const t_app_probe_class_color_entry *e;
        TAILQ_FOREACH(e, &cls->app_probe_class_color_entry_head, app_probe_class_color_entry) {
            builder color = root.empty("color");
            color.text("color-name", zen_util_tloc_color_name(e->color));
            color.fmt("dscp", "%hu", static_cast<unsigned short>(e->dscp));
        }
        return true;
    });
}

char *pol_xml_convert_fwd_pfx_list(const void *object, pol_xml_t *out, e_pol_xml_type type)
{
    const auto *list = static_cast<const t_fwd_pfx_list *>(object);
    const bool v6 = type == POL_XML_TYPE_FWD_PFX6LIST;
    return render(v6 ? "data-ipv6-prefix-list" : "data-prefix-list", out, [&](const builder &root) {
        root.text("name", list->fwd_pfx_list_name);
        pol::tree<t_fwd_pfx_list_entry> entries(const_cast<avl_tree_t *>(&list->ip_fwd_pfx_entry_db));
        entries.for_each([&](const t_fwd_pfx_list_entry *e) {
            root.empty(v6 ? "ipv6-prefix" : "ip-prefix").prefix(v6 ? "ipv6" : "ip", e->ip_prefix);
        });
        return true;
    });
}

char *pol_xml_convert_vpn_list(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *list = static_cast<const t_vpn_list *>(object);
    return render("vpn-list", out, [&](const builder &root) {
        root.text("name", list->vpn_list_name);
        const t_pol_vpn_entry *e;
        TAILQ_FOREACH(e, &list->vpn_entry_head, vpn_entry) {
            pol::xml::add_vpn_range(root, *e);
        }
        return true;
    });
}

char *pol_xml_convert_tloc_list(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *list = static_cast<const t_tloc_list *>(object);
    return render("tloc-list", out, [&](const builder &root) {
        root.text("name", list->tloc_list_name);
        const t_tloc_entry *e;
        TAILQ_FOREACH(e, &list->tloc_entry_head, tloc_entry) {
            pol::xml::add_tloc_entry(root, *e);
        }
        return true;
    });
}

// Each entry names an application or, in a list of families, a family.
char *pol_xml_convert_app_list(const void *object, pol_xml_t *out, e_pol_xml_type)
{
    const auto *list = static_cast<const t_app_list *>(object);
    const char *entry_name = list->app_list_type == POL_APP_LIST_TYPE_APP ? "app" : "app-family";
    return render("app-list", out, [&](const builder &root) {
        root.text("name", list->app_list_name);
        pol::tree<t_app_list_entry> entries(const_cast<avl_tree_t *>(&list->app_list_entry_db));
        entries.for_each([&](const t_app_list_entry *e) { root.text(entry_name, e->name); });
        return true;
    });
}

}  // extern "C"
