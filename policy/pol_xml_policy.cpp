// Policy documents of data and app-route policies: per VPN list its
// sequences with their match and action parts, and its default action.
#include <utility>

#include <zen/zen_util.h>

#include "pol_util.hpp"
#include "pol_xml.hpp"

namespace {

using pol::xml::builder;

// The sequence's action that accepts, and the FEC mode rendered "adaptive".
constexpr uint8_t kActionAccept = 0;
constexpr uint8_t kFecAdaptive = 10;

bool has(uint64_t flags, uint64_t bit)
{
    return (flags & bit) != 0;
}

/* ---- match ---- */

template <typename T, typename Add>
void each(const T *values, uint32_t count, Add &&add)
{
    for (uint32_t i = 0; values != nullptr && i < count; i++) {
        add(values[i]);
    }
}

void add_prefixes(const builder &match, const char *name, const t_ipprefix *pfx, uint32_t n)
{
    each(pfx, n, [&](const t_ipprefix &p) { match.prefix(name, p); });
}

// A range with equal bounds is one number.
void add_ranges(const builder &match, const char *name, const t_pol_range *ranges, uint32_t n)
{
    each(ranges, n, [&](const t_pol_range &r) {
        if (r.min_val != r.max_val) {
            match.fmt(name, "%d-%d", static_cast<int>(r.min_val), static_cast<int>(r.max_val));
        } else {
            match.fmt(name, "%d", static_cast<int>(r.min_val));
        }
    });
}

void add_numbers(const builder &match, const char *name, const uint8_t *values, uint32_t n)
{
    each(values, n, [&](uint8_t v) { match.fmt(name, "%d", v); });
}

void add_icmp(const builder &match, const char *name, const uint32_t *values, uint32_t n,
              pol::xml::namer_f namer)
{
    each(values, n, [&](uint32_t v) { match.text(name, namer(v)); });
}

// A list condition under its bit, when a list is held.
template <typename L, std::size_t N>
void add_list_name(const builder &match, const char *name, uint64_t flags, uint64_t bit,
                   const L *list, char (L::*list_name)[N])
{
    if (has(flags, bit) && list != nullptr) {
        match.text(name, list->*list_name);
    }
}

void add_saas_lists(const builder &match, const t_dll &lists)
{
    for (const t_dlnode *n = lists.p_head; n != nullptr; n = n->p_next) {
        const auto *node = reinterpret_cast<const t_app_list_dll_node *>(
            reinterpret_cast<const char *>(n) - offsetof(t_app_list_dll_node, app_list_node));
        if (node->match_app_list_p != nullptr) {
            match.text("cloud-saas-app-list", node->match_app_list_p->app_list_name);
        }
    }
}

void add_match_children(const builder &match, const t_pol_entry &entry)
{
    const t_pol_match_entry &m = entry.match_entry;
    const uint64_t f = entry.entry_match_flags;
    add_prefixes(match, "source-ip", m.match_src_ip_list, m.match_num_src_ip);
    add_list_name(match, "source-data-prefix-list", f, POL_FWD_MATCH_FLAG_SRC_LIST, m.match_src_list_p,
                  &t_fwd_pfx_list::fwd_pfx_list_name);
    add_prefixes(match, "source-ipv6", m.match_src_ipv6_list, m.match_num_src_ipv6);
    add_list_name(match, "source-data-ipv6-prefix-list", f, POL_FWD_MATCH_FLAG_SRC6_LIST, m.match_src6_list_p,
                  &t_fwd_pfx_list::fwd_pfx_list_name);
    add_prefixes(match, "destination-ip", m.match_dst_ip_list, m.match_num_dst_ip);
    add_list_name(match, "destination-data-prefix-list", f, POL_FWD_MATCH_FLAG_DST_LIST, m.match_dst_list_p,
                  &t_fwd_pfx_list::fwd_pfx_list_name);
    add_prefixes(match, "destination-ipv6", m.match_dst_ipv6_list, m.match_num_dst_ipv6);
    add_list_name(match, "destination-data-ipv6-prefix-list", f, POL_FWD_MATCH_FLAG_DST6_LIST,
                  m.match_dst6_list_p, &t_fwd_pfx_list::fwd_pfx_list_name);
    add_list_name(match, "app-list", f, POL_FWD_MATCH_FLAG_APP_LIST, m.match_app_list_p,
                  &t_app_list::app_list_name);
    add_list_name(match, "dns-app-list", f, POL_FWD_MATCH_FLAG_DNS_APP_LIST, m.match_dns_app_list_p,
                  &t_app_list::app_list_name);
    add_saas_lists(match, m.match_saas_app_list);
    add_ranges(match, "source-port", m.match_src_port_list, m.match_num_src_port);
    add_ranges(match, "destination-port", m.match_dst_port_list, m.match_num_dst_port);
    add_numbers(match, "protocol", m.match_proto_list, m.match_num_proto);
    add_numbers(match, "dscp", m.match_dscp_list, m.match_num_dscp);
    if (has(f, POL_FWD_MATCH_FLAG_TCP)) {
        match.text("tcp", "syn");  // the one TCP flag a condition can name
    }
    if (has(f, POL_FWD_MATCH_FLAG_PLP)) {
        match.text("plp", m.match_plp == 1 ? "high" : "low");
    }
    add_ranges(match, "packet-length", m.match_packet_len, m.match_num_packet_len);
    if (has(f, POL_FWD_MATCH_FLAG_DNS)) {
        match.text("dns", m.match_dns == 1 ? "request" : "response");
    }
    if (has(f, POL_FWD_MATCH_FLAG_TRAFFIC_CATEGORY)) {
        match.text("traffic-category", m.match_traf_category == 1 ? "optimize" : "optimize-allow");
    }
    add_icmp(match, "icmp-msg", m.match_icmp_list, m.match_num_icmp, pol_xml_icmp_msg_val_to_str);
    add_icmp(match, "icmp6-msg", m.match_icmp6_list, m.match_num_icmp6,
             pol_xml_icmp6_msg_val_to_str);
}

/* ---- action ---- */

void add_nat(const builder &action, uint64_t f, const t_pol_set_entry &s)
{
    if (!has(f, POL_FWD_SET_FLAG_NAT_POOL) && !has(f, POL_FWD_SET_FLAG_NAT_VPN)) {
        return;
    }
    builder nat = action.empty("nat");
    if (has(f, POL_FWD_SET_FLAG_NAT_POOL)) {
        nat.fmt("pool", "%d", static_cast<int>(s.set_nat_pool_id));
    }
    if (has(f, POL_FWD_SET_FLAG_NAT_VPN)) {
        nat.fmt("use-vpn", "%d", static_cast<int>(s.set_nat_vpn_id));
    }
    if (has(f, POL_FWD_SET_FLAG_NAT_FALLBACK) && s.set_nat_fallback) {
        nat.text("fallback", "true");
    }
}

// Duplication goes under the FEC element when both are set: the edge
// router reads it there.
void add_loss_protection(const builder &action, uint64_t f, const t_pol_set_entry &s)
{
    if (!has(f, POL_FWD_SET_FLAG_FEC) && !has(f, POL_FWD_SET_FLAG_PKT_DUP)) {
        return;
    }
    builder lp = action.empty("loss-protection");
    builder dup_parent = lp;
    if (has(f, POL_FWD_SET_FLAG_FEC)) {
        dup_parent = lp.text("forward-error-correction",
                             s.loss_protection_fec == kFecAdaptive ? "adaptive" : "always");
    }
    if (has(f, POL_FWD_SET_FLAG_PKT_DUP)) {
        dup_parent.empty("packet-duplication");
    }
}

void add_redirect_dns(const builder &action, uint64_t f, const t_pol_set_entry &s)
{
    if (has(f, POL_FWD_SET_FLAG_REDIRECT_DNS_IP)) {
        action.addr("redirect-dns", s.redirect_dns_ip_addr);
    }
    if (has(f, POL_FWD_SET_FLAG_REDIRECT_DNS_TYPE)) {
        action.text("redirect-dns",
                    s.redirect_dns_type == POL_ACTION_REDIRECT_DNS_UMBRELLA ? "umbrella" : "host");
    }
}

bool sets_anything(const t_pol_entry &entry)
{
    const uint64_t f = entry.entry_set_flags;
    const t_pol_set_entry &s = entry.set_entry;
    return has(f, POL_FWD_SET_FLAG_LOCAL_TLOC | POL_FWD_SET_FLAG_LOCAL_TLOC_LIST | POL_FWD_SET_FLAG_POLICER | POL_FWD_SET_FLAG_DSCP | POL_FWD_SET_FLAG_FWD_CLASS |
                      POL_FWD_SET_FLAG_SERVICE | POL_FWD_SET_FLAG_VPN) ||
           !IPADDR_IS_ZERO(&s.next_hop) || !IPADDR_IS_ZERO(&s.next_hop_ipv6) ||
           s.set_fwd_tloc_list_p != nullptr || !IPADDR_IS_ZERO(&s.set_fwd_tloc.addr);
}

/* ---- set ---- */

void add_local_tlocs(const builder &set, uint64_t f, const t_pol_set_entry &s)
{
    if (has(f, POL_FWD_SET_FLAG_LOCAL_TLOC)) {
        builder local = set.empty("local-tloc");
        local.color("color", s.set_local_tloc.color);
        local.encap("encap", s.set_local_tloc.encap);
    }
    if (has(f, POL_FWD_SET_FLAG_LOCAL_TLOC_LIST)) {
        builder list = set.empty("local-tloc-list");
        list.per_bit("color", s.set_local_tloc_list.color_mask, zen_util_tloc_color_name);
        list.per_bit("encap", s.set_local_tloc_list.encap_mask, zen_util_tloc_encap_name);
        if (s.set_local_tloc_list.restrict1 != 0) {
            list.empty("restrict");
        }
    }
}

// The service's TLOC list stays under set, beside the service.
bool add_target(const builder &set, uint64_t f, const t_pol_set_entry &s)
{
    bool ok = true;
    if (!has(f, POL_FWD_SET_FLAG_SERVICE)) {
        if (has(f, POL_FWD_SET_FLAG_VPN)) {
            set.fmt("vpn", "%lu", s.set_fwd_vpn_id);
        }
        ok = pol_xml_convert_tloc(set.node(), &s.set_fwd_tloc);
    } else {
        builder svc = set.empty("service");
        svc.text("svc-type", zen_util_svc_name(s.set_fwd_service));
        svc.fmt("vpn", "%lu", s.set_fwd_vpn_id);
        ok = pol_xml_convert_tloc(svc.node(), &s.set_fwd_tloc);
        if (s.set_fwd_service_local) {
            svc.empty("local");
        }
        if (s.set_fwd_service_local_restrict) {
            svc.empty("restrict");
        }
    }
    if (s.set_fwd_tloc_list_p != nullptr) {
        set.text("tloc-list", s.set_fwd_tloc_list_p->tloc_list_name);
    }
    return ok;
}

void add_tloc_pref_list(const builder &set, const t_pol_set_entry &s)
{
    int num = 0;
    const t_tloc_entry *e;
    TAILQ_FOREACH(e, &s.fwd_tloc_entry_head, tloc_entry) {
        builder pref = set.empty("zen-tloc-pref-list");
        pref.fmt("list-num", "%d", num++);
        if (e->set_fwd_label != 0) {
            pref.fmt("tloc-label", "%d", static_cast<int>(e->set_fwd_label));
        }
        pref.addr("tloc-ip", e->tloc.addr);
        pref.color("tloc-color", e->tloc.color);
        pref.encap("tloc-encap", e->tloc.encap);
        if (e->route_preference != 0) {
            pref.fmt("tloc-preference", "%d", static_cast<int>(e->route_preference));
        }
    }
}

/* ---- policy ---- */

bool add_default_action(const builder &vpn_list, const t_pol_entry &dflt, e_pol_xml_type type)
{
    if (type == POL_XML_TYPE_DATA_POLICY) {
        if (dflt.set_entry.action == kActionAccept) {
            vpn_list.text("default-action", "accept");
        }
        return true;
    }
    if (!has(dflt.entry_set_flags, POL_FWD_SET_FLAG_SLA_CLASS)) {
        return true;
    }
    return pol_xml_convert_sla_class_node(vpn_list.empty("default-action").node(), &dflt.set_entry);
}

bool add_sequence(const builder &vpn_list, const t_pol_entry &entry, e_pol_xml_type type)
{
    builder seq = vpn_list.empty("sequence");
    seq.fmt("seq-value", "%d", static_cast<int>(entry.entry_num));
    return seq.ok() && pol_xml_convert_fwd_match(seq.node(), &entry) &&
           pol_xml_convert_fwd_action(seq.node(), &entry, type);
}

char *convert_policy(const void *object, pol_xml_t *out, const char *root_name, e_pol_xml_type type)
{
    const auto *block = static_cast<const t_pol_block *>(object);
    return pol::xml::render(root_name, out, [&](const builder &root) {
        root.text("name", block->pol_name);
        pol::tree<t_pol_fwd_vpn_entry> vpns(const_cast<avl_tree_t *>(&block->pol_fwd_vpn_list_entries));
        for (const t_pol_fwd_vpn_entry *vpn = vpns.first(); vpn != nullptr;
             vpn = vpns.next(const_cast<t_pol_fwd_vpn_entry *>(vpn))) {
            builder vpn_list = root.empty("vpn-list");
            vpn_list.text("name", vpn->vpn_name);
            if (!vpn_list.ok() || !pol_xml_convert_dp_vpn_list(vpn_list.node(), vpn, type)) {
                return false;
            }
        }
        return true;
    });
}

}  // namespace

extern "C" {

char *pol_xml_convert_data_policy(const void *block, pol_xml_t *out, e_pol_xml_type)
{
    return convert_policy(block, out, "data-policy", POL_XML_TYPE_DATA_POLICY);
}

char *pol_xml_convert_pfr_policy(const void *block, pol_xml_t *out, e_pol_xml_type)
{
    return convert_policy(block, out, "app-route-policy", POL_XML_TYPE_PFR_POLICY);
}

bool pol_xml_convert_dp_vpn_list(xmlNodePtr vpn_list, const t_pol_fwd_vpn_entry *vpn,
                                 e_pol_xml_type type)
{
    if (vpn->default_pol_entry == nullptr) {
        return true;
    }
    bool ok = true;
    builder list(vpn_list, &ok);
    pol::tree<t_pol_entry> entries(const_cast<avl_tree_t *>(&vpn->pol_entries));
    for (const t_pol_entry *e = entries.first(); ok && e != nullptr;
         e = entries.next(const_cast<t_pol_entry *>(e))) {
        ok = add_sequence(list, *e, type);
    }
    ok = ok && add_default_action(list, *vpn->default_pol_entry, type) && list.ok();
    if (!ok) {
        POL_LOG("vpn-list XML generation failed");
    }
    return ok;
}

bool pol_xml_convert_fwd_match(xmlNodePtr sequence, const t_pol_entry *entry)
{
    bool ok = true;
    builder match = builder(sequence, &ok).empty("match");
    add_match_children(match, *entry);
    if (!ok) {
        POL_LOG("Match XML generation failed");
        return false;
    }
    match.drop_if_empty();
    return true;
}

bool pol_xml_convert_fwd_action(xmlNodePtr sequence, const t_pol_entry *entry, e_pol_xml_type type)
{
    const uint64_t f = entry->entry_set_flags;
    const t_pol_set_entry &s = entry->set_entry;
    bool ok = true;
    builder action = builder(sequence, &ok).empty("action");
    if (type == POL_XML_TYPE_DATA_POLICY && s.action == kActionAccept) {
        action.text("action-value", "accept");
    }
    if (has(f, POL_FWD_SET_FLAG_COUNTER)) {
        action.text("count", s.set_counter_name);
    }
    add_nat(action, f, s);
    for (auto [bit, name] : {std::pair{POL_FWD_SET_FLAG_CFLOWD, "cflowd"}, {POL_FWD_SET_FLAG_LOG, "log"},
                             {POL_FWD_SET_FLAG_TCP_OPT, "tcp-optimization"}, {POL_FWD_SET_FLAG_SSL_OPT, "ssl-optimization"}}) {
        if (has(f, bit)) {
            action.empty(name);
        }
    }
    if (s.loss_protect != 0) {
        action.text("loss-protect", pol_xml_loss_protect_str(s.loss_protect));
    }
    add_loss_protection(action, f, s);
    add_redirect_dns(action, f, s);
    if (has(f, POL_FWD_SET_FLAG_SIG)) {
        action.empty("sig");
    }
    if (has(f, POL_FWD_SET_FLAG_BACKUP_SLA_COLOR)) {
        action.per_bit("backup-sla-preferred-color", s.set_backup_sla_preferred_color,
                       zen_util_tloc_color_name);
    }
    if (has(f, POL_FWD_SET_FLAG_CLOUD_SAAS)) {
        action.empty("cloud-saas").empty("allow-local");
    }
    ok = ok && (!has(f, POL_FWD_SET_FLAG_SLA_CLASS) || pol_xml_convert_sla_class_node(action.node(), &s));
    ok = ok && (!sets_anything(*entry) || pol_xml_convert_fwd_action_set(action.node(), entry));
    if (!ok) {
        POL_LOG("Action XML generation failed");
        return false;
    }
    action.drop_if_empty();
    return true;
}

bool pol_xml_convert_fwd_action_set(xmlNodePtr action, const t_pol_entry *entry)
{
    const uint64_t f = entry->entry_set_flags;
    const t_pol_set_entry &s = entry->set_entry;
    bool ok = true;
    builder set = builder(action, &ok).empty("set");
    add_local_tlocs(set, f, s);
    if (!IPADDR_IS_ZERO(&s.next_hop)) {
        set.addr("next-hop", s.next_hop);
    }
    if (!IPADDR_IS_ZERO(&s.next_hop_ipv6)) {
        set.addr("next-hop-ipv6", s.next_hop_ipv6);
    }
    if (has(f, POL_FWD_SET_FLAG_POLICER) && s.set_fwd_policer_p != nullptr) {
        set.text("policer", s.set_fwd_policer_p->fwd_policer_name);
    }
    if (has(f, POL_FWD_SET_FLAG_DSCP)) {
        set.fmt("dscp", "%d", s.set_fwd_dscp);
    }
    if (has(f, POL_FWD_SET_FLAG_FWD_CLASS)) {
        set.text("forwarding-class", s.set_fwd_class);
    }
    ok = ok && add_target(set, f, s);
    if (s.set_fwd_label != 0) {
        set.fmt("vpn-label", "%u", s.set_fwd_label);
    }
    add_tloc_pref_list(set, s);
    if (!ok) {
        POL_LOG("Set XML generation failed");
    }
    return ok;
}

bool pol_xml_convert_tloc(xmlNodePtr parent, const t_tloc_id *tloc)
{
    const bool has_addr = !IPADDR_IS_ZERO(&tloc->addr);
    if (!has_addr && !pol::xml::is_color(tloc->color) && !pol::xml::is_encap(tloc->encap)) {
        return true;
    }
    bool ok = true;
    builder t = builder(parent, &ok).empty("tloc");
    if (has_addr) {
        t.addr("ip", tloc->addr);
    }
    t.color("color", tloc->color);
    t.encap("encap", tloc->encap);
    if (!ok) {
        POL_LOG("tloc XML generation failed");
    }
    return ok;
}

bool pol_xml_convert_sla_class_node(xmlNodePtr parent, const t_pol_set_entry *set)
{
    bool ok = true;
    builder sla = builder(parent, &ok).empty("sla-class");
    if (set->set_sla_class_p != nullptr) {
        sla.text("sla-class-name", set->set_sla_class_p->sla_class_name);
    }
    sla.per_bit("preferred-color", set->set_sla_preferred_color, zen_util_tloc_color_name);
    if (set->set_sla_strict != 0) {
        sla.text("strict", "true");
    }
    if (!ok) {
        POL_LOG("sla-class XML generation failed");
    }
    return ok;
}

}  // extern "C"
