// The dumps of the command line: policies with their sequences, cflowd
// templates and users, and the named lists of the route-policy families.
// Every line goes to the requesting CLI session; layouts in docs/dumps.md.
#include <zen/mgmtd.h>
#include <zen/zen_util.h>

#include <cstdio>

#include "pol_list.hpp"

namespace {

const char *dump_title(e_pol_type type)
{
    switch (type) {
    case POL_TYPE_ROUTE:
        return "\n  ROUTE POLICIES";
    case POL_TYPE_DATA:
        return "\n  FORWARDING POLICIES";
    case POL_TYPE_PFR:
        return "\n  PERF ROUTE POLICIES";
    case POL_TYPE_MEMBERSHIP:
        return "\n  MEMBERSHIP POLICIES";
    case POL_TYPE_CFLOWD:
        return "\n  CFLOWD TEMPLATES";
    default:
        return nullptr;
    }
}

// A rendered flag word without its trailing blank.
const char *trimmed(char *buf)
{
    std::size_t n = std::strlen(buf);
    if (n > 0 && buf[n - 1] == ' ') {
        buf[n - 1] = '\0';
    }
    return buf;
}

// Prints the items of one line ("\n    match: a, b"), opening the line with
// its first item; nothing at all when no item comes.
class item_line {
public:
    item_line(mgmtd_cli_user_info *uinfo, const char *label) : uinfo_(uinfo), label_(label) {}

    template <typename... Args>
    void add(const char *fmt, Args... args)
    {
        if (first_) {
            pol_cli_printf(uinfo_, "\n    %s: ", label_);
            first_ = false;
        } else {
            pol_cli_printf(uinfo_, ", ");
        }
        pol_cli_printf(uinfo_, fmt, args...);
    }

private:
    mgmtd_cli_user_info *uinfo_;
    const char *label_;
    bool first_ = true;
};

const char *name_or_dash(const char *name)
{
    return name != nullptr ? name : "-";
}

void dump_match_values(const t_pol_entry *entry, mgmtd_cli_user_info *uinfo)
{
    const t_pol_match_entry &m = entry->match_entry;
    const uint64_t f = entry->entry_match_flags;
    char text[128];
    item_line line(uinfo, "match");
    if (f & POL_MATCH_FLAG_TAG) {
        line.add("tag %u", m.match_tag);
    }
    if (f & POL_MATCH_FLAG_ORIGIN_METRIC) {
        line.add("metric %u", m.match_origin_metric);
    }
    if (f & POL_MATCH_FLAG_DOMAIN) {
        line.add("domain %u", m.match_domain);
    }
    if (f & POL_MATCH_FLAG_PREFERENCE) {
        line.add("preference %u", m.match_preference);
    }
    if (f & POL_MATCH_FLAG_VPN_ID) {
        line.add("vpn %lu", static_cast<unsigned long>(m.match_vpn_id));
    }
    if (f & POL_MATCH_FLAG_VPN_LIST) {
        line.add("vpn-list %s", name_or_dash(m.match_vpn_list_p ? m.match_vpn_list_p->vpn_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_SITE) {
        line.add("site %u", m.match_site_id);
    }
    if (f & POL_MATCH_FLAG_SITE_LIST) {
        line.add("site-list %s", name_or_dash(m.match_site_list_p ? m.match_site_list_p->site_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_TLOC) {
        line.add("tloc %s", tloc_id_print_short(&m.match_tloc, text, sizeof(text)));
    }
    if (f & POL_MATCH_FLAG_TLOC_LIST) {
        line.add("tloc-list %s", name_or_dash(m.match_tloc_list_p ? m.match_tloc_list_p->tloc_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_PFX_LIST) {
        const t_pfx_list *pfx = m.match_pfx_list_p;
        line.add("prefix-list %s%s", name_or_dash(pfx ? pfx->pfx_list_name : nullptr),
                 pfx != nullptr && pfx->pfx_af == POL_AF_IPV6 ? " (ipv6)" : "");
    }
    if (f & POL_MATCH_FLAG_ORIGIN) {
        line.add("origin %u/%u", static_cast<unsigned>(m.match_origin_type),
                 static_cast<unsigned>(m.match_origin_subtype));
    }
    if (f & POL_MATCH_FLAG_ORIGINATOR) {
        line.add("originator %s", ipaddr_print(&m.match_originator, text, sizeof(text)));
    }
    if (f & POL_MATCH_FLAG_CARRIER) {
        line.add("carrier %u", static_cast<unsigned>(m.match_carrier));
    }
    if (f & POL_MATCH_FLAG_GROUP) {
        line.add("group %u", m.match_group);
    }
    if (f & POL_MATCH_FLAG_COLOR) {
        line.add("color %s", zen_util_tloc_color_name(m.match_color));
    }
    if (f & POL_MATCH_FLAG_COLOR_LIST) {
        line.add("color-list %s", name_or_dash(m.match_color_list_p ? m.match_color_list_p->color_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_COMMUNITY_LIST) {
        const t_community_list *c = m.match_community_list_p;
        line.add("community-list %s", name_or_dash(c ? c->community_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_EXP_COMMUNITY_LIST) {
        const t_community_list *c = m.match_exp_community_list_p;
        line.add("expanded-community-list %s", name_or_dash(c ? c->community_list_name : nullptr));
    }
}

void dump_set_values(const t_pol_entry *entry, mgmtd_cli_user_info *uinfo)
{
    const t_pol_set_entry &s = entry->set_entry;
    const uint64_t f = entry->entry_set_flags;
    char text[128];
    item_line line(uinfo, "set");
    if (f & POL_SET_FLAG_TAG) {
        line.add("tag %u", s.set_tag);
    }
    if (f & POL_SET_FLAG_PREFERENCE) {
        line.add("preference %u", s.set_preference);
    }
    if (f & POL_SET_FLAG_TLOC) {
        line.add("tloc %s", tloc_id_print_short(&s.set_tloc, text, sizeof(text)));
    }
    if (f & POL_SET_FLAG_VPN_ID) {
        line.add("vpn %lu", static_cast<unsigned long>(s.export_vpn_id));
    }
    if (f & POL_SET_FLAG_VPN_LIST) {
        line.add("vpn-list %s", name_or_dash(s.export_vpn_list_p ? s.export_vpn_list_p->vpn_list_name : nullptr));
    }
    if (f & POL_SET_FLAG_SERVICE) {
        line.add("service %s tloc %s vpn %lu", zen_util_svc_name(s.set_service),
                 tloc_id_print_short(&s.set_svc_tloc, text, sizeof(text)),
                 static_cast<unsigned long>(s.set_svc_vpn_id));
    }
    if (f & POL_SET_FLAG_TLOC_LIST) {
        line.add("tloc-list %s", name_or_dash(s.tloc_list_p ? s.tloc_list_p->tloc_list_name : nullptr));
    }
    if ((f & POL_SET_FLAG_COMMUNITY) && s.set_community != nullptr) {
        char communities[POL_COMMUNITY_LIST_STR_SIZE] = "";
        line.add("community %s%s", pol_dump_set_community(communities, s.set_community),
                 (f & POL_SET_FLAG_COMMUNITY_ADDITIVE) ? " additive" : "");
    }
}

// The sequences of a data block sit under its VPN lists.
void dump_data_sequences(t_pol_block *block, mgmtd_cli_user_info *uinfo)
{
    pol::tree<t_pol_fwd_vpn_entry>(&block->pol_fwd_vpn_list_entries).for_each([&](t_pol_fwd_vpn_entry *vpn) {
        pol_cli_printf(uinfo, "\n  vpn-list %s", vpn->vpn_name);
        pol::tree<t_pol_entry>(&vpn->pol_entries).for_each([&](t_pol_entry *entry) {
            pol_dump_entry(entry, uinfo);
        });
    });
}

int dump_policies_of(mgmtd_cli_user_info *uinfo, e_pol_type type)
{
    if (g_pol_ctx_p != nullptr) {
        pol_dump_policies(uinfo, type);
    }
    return 0;
}

// A list's entries, in the identity order its queue keeps.
using site_entries = pol::tailq<t_site_entry, &t_site_entry::site_entry>;
using vpn_entries = pol::tailq<t_pol_vpn_entry, &t_pol_vpn_entry::vpn_entry>;
using tloc_entries = pol::tailq<t_tloc_entry, &t_tloc_entry::tloc_entry>;
using color_entries = pol::tailq<t_color_entry, &t_color_entry::color_entry>;
using pfx_entries = pol::tailq<t_pfx_entry, &t_pfx_entry::pfx_entry>;
using community_entries = pol::tailq<t_community_entry, &t_community_entry::community_entry>;

// One "User: POLICY" line per user of a chain, in rank order (by policy
// type and name, then sequence), whatever order they linked in.
template <typename User, auto Link, typename Head>
void dump_users(mgmtd_cli_user_info *uinfo, const Head &head)
{
    pol::for_each_user_ranked<User, Link>(head, [&](const User *user) {
        pol_cli_printf(uinfo, "\n  User: %s", pol::block_name(user->pol_block_p));
    });
}

// Header, entries, "end" and the policies of the match users of every
// list of one community tree.
template <typename Header, typename Entry>
void dump_community_tree(mgmtd_cli_user_info *uinfo, avl_tree_t *tree, Header &&header, Entry &&entry)
{
    pol::tree<t_community_list>(tree).for_each([&](t_community_list *list) {
        header(list);
        community_entries::for_each(list->community_entry_head, entry);
        pol_cli_printf(uinfo, "\nend \n");
        dump_users<t_pol_match_entry, &t_pol_match_entry::match_community_entry>(uinfo,
                                                                                list->match_list_head);
    });
}

}  // namespace

extern "C" {

/* ---- policies ---- */

void pol_dump_policies(struct mgmtd_cli_user_info *uinfo, e_pol_type type)
{
    const char *title = dump_title(type);
    if (title == nullptr || g_pol_ctx_p == nullptr) {
        return;
    }
    pol_cli_dump_heading(uinfo, title);
    for (t_pol_block *block = pol_block_first(g_pol_ctx_p, type); block != nullptr;
         block = pol_block_next(g_pol_ctx_p, block, type)) {
        pol_dump_block(block, uinfo);
    }
}

int pol_dump_route_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_ROUTE);
}

int pol_dump_membership_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_MEMBERSHIP);
}

int pol_dump_cflowd_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_CFLOWD);
}

void pol_dump_block(t_pol_block *block, struct mgmtd_cli_user_info *uinfo)
{
    if (block->pol_type == POL_TYPE_CFLOWD) {
        pol_dump_cflowd_template(block, uinfo);
    } else {
        pol_cli_printf(uinfo, "\n%s-policy %s", pol_util_type_str(block->pol_type), block->pol_name);
        if (pol::is_data_kind(block->pol_type)) {
            dump_data_sequences(block, uinfo);
        } else {
            pol::tree<t_pol_entry>(&block->pol_entries).for_each([&](t_pol_entry *entry) {
                pol_dump_entry(entry, uinfo);
            });
        }
    }
    pol_cli_printf(uinfo, "\n    default-action: %s, fetch_xml: %u",
                   pol_util_action_str(block->default_action_entry.entry_action),
                   static_cast<unsigned>(block->fetch_xml));
    pol_cli_printf(uinfo, "\n\n  Users:");
    t_pol_user *user;
    TAILQ_FOREACH(user, &block->users_list, pol_block_list_entry) {
        pol_dump_user(user, uinfo);
    }
}

void pol_dump_cflowd_template(t_pol_block *block, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\n%s-policy %s", pol_util_type_str(block->pol_type), block->pol_name);
    const t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (tmpl == nullptr) {
        return;
    }
    pol_cli_printf(uinfo, "\n  flow-active-timeout: %ld", static_cast<long>(tmpl->flow_active_timeout));
    pol_cli_printf(uinfo, "\n  flow-inactive-timeout: %ld", static_cast<long>(tmpl->flow_inactive_timeout));
    pol_cli_printf(uinfo, "\n  flow-sampling-interval: %ld", static_cast<long>(tmpl->flow_sampling_interval));
    pol_cli_printf(uinfo, "\n  template-refresh: %ld", static_cast<long>(tmpl->template_refresh));
    pol_cli_printf(uinfo, "\n  protocol: %d", static_cast<int>(tmpl->protocol));
    int number = 0;
    pol::tree<t_cflowd_collector>(const_cast<avl_tree_t *>(&tmpl->collector_db))
        .for_each([&](t_cflowd_collector *coll) {
            char addr[100];
            pol_cli_printf(uinfo, "\n  Collector: %d", ++number);
            pol_cli_printf(uinfo, "\n    vpn_id: %ld", static_cast<long>(coll->vpn_id));
            pol_cli_printf(uinfo, "\n    addr: %s", ipaddr_print(&coll->addr, addr, sizeof(addr)));
            pol_cli_printf(uinfo, "\n    port: %d", static_cast<int>(coll->port));
            pol_cli_printf(uinfo, "\n    transport_type: %d", static_cast<int>(coll->transport_type));
            pol_cli_printf(uinfo, "\n    source_if: %s", coll->source_if);
        });
}

// Layout in docs/dumps.md. Data-policy conditions reuse the bits of
// control-policy conditions, so a data sequence shows its flag words only.
void pol_dump_entry(t_pol_entry *entry, struct mgmtd_cli_user_info *uinfo)
{
    char match_flags[512];
    char set_flags[256];
    pol_cli_printf(uinfo, "\n  sequence %u: match-type %s, action %s", entry->entry_num,
                   pol_util_match_type_str(entry->match_entry.match_type),
                   pol_util_action_str(entry->entry_action));
    pol_util_match_flags_str(entry, match_flags, sizeof(match_flags));
    pol_util_set_flags_str(entry, set_flags, sizeof(set_flags));
    pol_cli_printf(uinfo, "\n    flags: match [%s] set [%s]", trimmed(match_flags), trimmed(set_flags));
    if (entry->pol_vpn_p != nullptr ||
        (entry->pol_block_p != nullptr && pol::is_data_kind(entry->pol_block_p->pol_type))) {
        return;
    }
    dump_match_values(entry, uinfo);
    dump_set_values(entry, uinfo);
}

// Every policy type, then every list family.
int pol_dump_all(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    if (g_pol_ctx_p == nullptr) {
        return 0;
    }
    static constexpr e_pol_type kTypes[] = {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR,
                                            POL_TYPE_MEMBERSHIP, POL_TYPE_CFLOWD};
    for (e_pol_type type : kTypes) {
        pol_dump_policies(uinfo, type);
    }
    static constexpr void (*kListDumps[])(struct mgmtd_cli_user_info *) = {
        pol_dump_pfx_list_all,       pol_dump_site_list_all,      pol_dump_vpn_list_all,
        pol_dump_tloc_list_all,      pol_dump_color_list_all,     pol_dump_community_list_all,
        pol_dump_expanded_community_list_all,
        pol_dump_app_list_all,       pol_dump_fwd_pfx_list_all,   pol_dump_fwd_pfx6_list_all,
        pol_dump_fwd_policer_all,    pol_dump_fwd_sla_class_all,  pol_dump_app_probe_class_all,
        pol_dump_fwd_app_id_all,
    };
    for (auto dump : kListDumps) {
        dump(uinfo);
    }
    return 0;
}

/* ---- named lists ---- */

void pol_dump_site_list(t_site_list *list, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\nsite-list: %s (0x%p)", list->site_list_name, static_cast<void *>(list));
    site_entries::for_each(list->site_entry_head, [&](const t_site_entry *e) {
        pol_cli_printf(uinfo, "\n  site-id %d-%d", static_cast<int>(e->min_site_id),
                       static_cast<int>(e->max_site_id));
    });
    if (const t_pol_list_user *user = list->site_list_user_p) {
        pol_cli_printf(uinfo, "\n  User: %p, list: %s, list-type: %s, ctx: %p, chg_cb: %p",
                       static_cast<const void *>(user), list->site_list_name,
                       pol_util_list_type_str(user->pol_list_type), user->user_ctx_p,
                       reinterpret_cast<void *>(user->pol_list_chg_cb));
    }
    pol_cli_printf(uinfo, "\nend\n");
}

void pol_dump_site_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  SITE LISTS");
    pol::tree<t_site_list>(&g_pol_ctx_p->site_lists).for_each([&](t_site_list *list) {
        pol_dump_site_list(list, uinfo);
    });
}

// Action users are deliberately not listed.
void pol_dump_vpn_list(t_vpn_list *list, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\nvpn-list: %s (0x%p, %u)", list->vpn_list_name,
                   static_cast<void *>(list), list->fetch_xml);
    vpn_entries::for_each(list->vpn_entry_head, [&](const t_pol_vpn_entry *e) {
        pol_cli_printf(uinfo, "\n    vpn-id: %lu-%lu", static_cast<unsigned long>(e->min_vpn_id),
                       static_cast<unsigned long>(e->max_vpn_id));
    });
    pol_cli_printf(uinfo, "\nend \n");
    dump_users<t_pol_match_entry, &t_pol_match_entry::match_vpn_entry>(uinfo, list->match_list_head);
    dump_users<t_pol_fwd_vpn_entry, &t_pol_fwd_vpn_entry::fwd_vpn_entry>(uinfo, list->fwd_pol_head);
}

void pol_dump_vpn_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  VPN LISTS");
    pol::tree<t_vpn_list>(&g_pol_ctx_p->vpn_lists).for_each([&](t_vpn_list *list) {
        pol_dump_vpn_list(list, uinfo);
    });
}

// Action users are deliberately not listed.
void pol_dump_tloc_list(t_tloc_list *list, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\ntloc-list: %s (%p, %u)", list->tloc_list_name, static_cast<void *>(list),
                   static_cast<unsigned>(list->fetch_xml));
    tloc_entries::for_each(list->tloc_entry_head, [&](const t_tloc_entry *e) {
        char text[128];
        pol_cli_printf(uinfo, "\n  tloc %s preference %u", tloc_id_print_short(&e->tloc, text, sizeof(text)),
                       static_cast<unsigned>(e->route_preference));
    });
    pol_cli_printf(uinfo, "\nend \n");
    dump_users<t_pol_match_entry, &t_pol_match_entry::match_tloc_entry>(uinfo, list->match_list_head);
}

void pol_dump_tloc_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  TLOC LISTS");
    pol::tree<t_tloc_list>(&g_pol_ctx_p->tloc_lists).for_each([&](t_tloc_list *list) {
        pol_dump_tloc_list(list, uinfo);
    });
}

void pol_dump_color_list(t_color_list *list, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\ncolor-list: %s (%p)", list->color_list_name, static_cast<void *>(list));
    color_entries::for_each(list->color_entry_head, [&](const t_color_entry *e) {
        pol_cli_printf(uinfo, "\n  color %s", zen_util_tloc_color_name(e->color));
    });
    pol_cli_printf(uinfo, "\nend \n");
    dump_users<t_pol_match_entry, &t_pol_match_entry::match_color_entry>(uinfo, list->match_list_head);
}

void pol_dump_color_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  COLOR LISTS");
    pol::tree<t_color_list>(&g_pol_ctx_p->color_lists).for_each([&](t_color_list *list) {
        pol_dump_color_list(list, uinfo);
    });
}

void pol_dump_pfx_list(t_pfx_list *list, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, list->pfx_af == POL_AF_IPV6 ? "\nIPv6 prefix-list: %s (%p)"
                                                      : "\nIPv4 prefix-list: %s (%p)",
                   list->pfx_list_name, static_cast<void *>(list));
    pfx_entries::for_each(list->pfx_entry_head, [&](const t_pfx_entry *e) {
        char buf[64];
        pol_cli_printf(uinfo, "\n  prefix %s %s min %d max %d",
                       ipprefix_print(&e->prefix, buf, sizeof(buf)), pol_util_pfx_op_str(e->pfx_op),
                       static_cast<int>(e->preflen_min), static_cast<int>(e->preflen_max));
    });
    pol_cli_printf(uinfo, "\nend \n");
    dump_users<t_pol_match_entry, &t_pol_match_entry::match_pfx_entry>(uinfo, list->match_list_head);
}

void pol_dump_pfx_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  PREFIX LISTS         ");
    pol::tree<t_pfx_list>(&g_pol_ctx_p->pfx_lists).for_each([&](t_pfx_list *list) {
        pol_dump_pfx_list(list, uinfo);
    });
}

void pol_dump_community_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  COMMUNITY LISTS");
    char text[POL_COMMUNITY_STR_SIZE];
    dump_community_tree(
        uinfo, &g_pol_ctx_p->community_lists,
        [&](const t_community_list *list) {
            pol_cli_printf(uinfo, "\ncommunity-list: %s (%p)", list->community_list_name,
                           static_cast<const void *>(list));
        },
        [&](const t_community_entry *e) {
            pol_cli_printf(uinfo, "\n  community: %s",
                           community_getstr(e->community, text, sizeof(text)));
        });
}

void pol_dump_expanded_community_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  EXPANDED COMMUNITY LISTS");
    dump_community_tree(
        uinfo, &g_pol_ctx_p->exp_community_lists,
        [&](const t_community_list *list) {
            pol_cli_printf(uinfo, "\nexpanded-community-list: %s (%p)", list->community_list_name,
                           static_cast<const void *>(list));
        },
        [&](const t_community_entry *e) {
            pol_cli_printf(uinfo, "\n  community pattern: %s", e->pattern);
        });
}

// The communities a sequence sets, as one text; null for no record.
char *pol_dump_set_community(char *buf, const t_pol_set_community *set)
{
    if (set == nullptr) {
        return nullptr;
    }
    return community_list_getstr(buf, set->communities, set->n_communities);
}

}  // extern "C"

/* ---- data-plane lists and objects ---- */

namespace {

// One "<label> User: POLICY" line per data-policy user of a chain, naming
// the policy of the user's sequence.
template <typename User, auto Link, typename Head>
void dump_data_users(mgmtd_cli_user_info *uinfo, const char *label, const Head &head)
{
    pol::tailq<User, Link>::for_each(head, [&](const User *user) {
        pol_cli_printf(uinfo, "\n  %s User: %s", label, pol::block_name(pol::block_of_data_user(user)));
    });
}

void dump_app_list(t_app_list *list, mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\napp-list: %s (%p, %u)", list->app_list_name, static_cast<void *>(list),
                   static_cast<unsigned>(list->fetch_xml));
    pol_cli_printf(uinfo, "\n  APP LIST Type: %s",
                   list->app_list_type == POL_APP_LIST_TYPE_APP ? "app" : "app-family");
    pol_cli_printf(uinfo, "\n  APP LIST Entries:");
    pol::tree<t_app_list_entry>(&list->app_list_entry_db).for_each([&](const t_app_list_entry *e) {
        pol_cli_printf(uinfo, "\n    %s", e->name);
    });
    dump_data_users<t_pol_match_entry, &t_pol_match_entry::app_list_entry>(uinfo, "APP LIST", list->match_list_head);
    dump_data_users<t_pol_match_entry, &t_pol_match_entry::dns_app_list_entry>(uinfo, "DNS APP LIST",
                                                           list->match_dns_list_head);
    dump_data_users<t_app_list_dll_node, &t_app_list_dll_node::saas_user_entry>(uinfo, "SAAS APP LIST",
                                                            list->match_saas_list_head);
    pol_cli_printf(uinfo, "\nend \n");
}

// The two data prefix families differ in their tree, titles and user links.
template <auto SrcLink, auto DstLink>
void dump_fwd_pfx_lists(mgmtd_cli_user_info *uinfo, avl_tree_t *lists, const char *title,
                        const char *kind)
{
    pol_cli_dump_heading(uinfo, title);
    pol::tree<t_fwd_pfx_list>(lists).for_each([&](t_fwd_pfx_list *list) {
        pol_cli_printf(uinfo, "\n%s: %s (%p, %u)", kind, list->fwd_pfx_list_name,
                       static_cast<void *>(list), static_cast<unsigned>(list->fetch_xml));
        pol_cli_printf(uinfo, "\n  Fwd prefix List entries:");
        pol::tree<t_fwd_pfx_list_entry>(&list->ip_fwd_pfx_entry_db)
            .for_each([&](const t_fwd_pfx_list_entry *e) {
                char buf[64];
                pol_cli_printf(uinfo, "\n    %s", ipprefix_print(&e->ip_prefix, buf, sizeof(buf)));
            });
        dump_data_users<t_pol_match_entry, SrcLink>(uinfo, "SRC LIST", list->match_src_list_head);
        dump_data_users<t_pol_match_entry, DstLink>(uinfo, "DST LIST", list->match_dst_list_head);
        pol_cli_printf(uinfo, "\nend \n");
    });
}

/* ---- policers, SLA classes, app-probe classes, app-ids ---- */

constexpr const char *kNotConfigured = "Not Configured";

// A value as the dumps of these objects print it, or "Not Configured".
class value_text {
public:
    const char *number(int value, bool set)
    {
        if (!set) {
            return kNotConfigured;
        }
        std::snprintf(buf_, sizeof(buf_), "%d", value);
        return buf_;
    }
    // Colours and DSCPs: 0 is not configured.
    const char *code(unsigned short value)
    {
        if (value == 0) {
            return kNotConfigured;
        }
        std::snprintf(buf_, sizeof(buf_), "%hu", value);
        return buf_;
    }

private:
    char buf_[16];
};

// An app-probe class's colour entries in colour order, and the SLA
// classes that refer to it.
using probe_colors =
    pol::tailq<t_app_probe_class_color_entry, &t_app_probe_class_color_entry::app_probe_class_color_entry>;
using probe_slas = pol::tailq<t_fwd_sla_class, &t_fwd_sla_class::set_app_probe_class_sla_entry>;

const char *name_or_unset(const char *name)
{
    return name[0] != '\0' ? name : kNotConfigured;
}

// Every record of one family's tree through its dump, under a heading.
template <typename Rec>
void dump_tree(mgmtd_cli_user_info *uinfo, const char *title, avl_tree_t *tree,
               void (*dump_one)(Rec *, mgmtd_cli_user_info *))
{
    pol_cli_dump_heading(uinfo, title);
    pol::tree<Rec>(tree).for_each([&](Rec *rec) { dump_one(rec, uinfo); });
}

}  // namespace

extern "C" {

void pol_dump_app_list_all(struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_dump_heading(uinfo, "\n  APP LISTS");
    pol::tree<t_app_list>(&g_pol_ctx_p->app_lists).for_each([&](t_app_list *list) {
        dump_app_list(list, uinfo);
    });
}

void pol_dump_fwd_pfx_list_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_fwd_pfx_lists<&t_pol_match_entry::fwd_src_pfx_entry, &t_pol_match_entry::fwd_dst_pfx_entry>(
        uinfo, &g_pol_ctx_p->fwd_pfx_lists, "\n  FORWARDING PREFIX LISTS    ", "fwd-prefix-list");
}

void pol_dump_fwd_pfx6_list_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_fwd_pfx_lists<&t_pol_match_entry::fwd_src_pfx6_entry, &t_pol_match_entry::fwd_dst_pfx6_entry>(
        uinfo, &g_pol_ctx_p->fwd_pfx6_lists, "\n  FORWARDING PREFIX6 LISTS    ", "fwd-prefix6-list");
}

void pol_dump_fwd_policer(t_fwd_policer *policer, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\nfwd-policer: %s (%p, %u)", policer->fwd_policer_name,
                   static_cast<void *>(policer), static_cast<unsigned>(policer->fetch_xml));
    pol_cli_printf(uinfo, "\n  Policy Config: rate %ld, burst %d, exceed_action %d",
                   static_cast<long>(policer->rate), static_cast<int>(policer->burst),
                   static_cast<int>(policer->exceed_action));
    dump_data_users<t_pol_set_entry, &t_pol_set_entry::set_policer_entry>(uinfo, "Policer",
                                                                          policer->set_policer_head);
    pol_cli_printf(uinfo, "\nend \n");
}

void pol_dump_fwd_policer_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_tree(uinfo, "\n  FORWARDING POLICERS      ", &g_pol_ctx_p->fwd_policers, pol_dump_fwd_policer);
}

void pol_dump_fwd_sla_class(t_fwd_sla_class *sla_class, struct mgmtd_cli_user_info *uinfo)
{
    value_text text;
    pol_cli_printf(uinfo, "\nsla-class: %s (%p, %u)", sla_class->sla_class_name,
                   static_cast<void *>(sla_class), static_cast<unsigned>(sla_class->fetch_xml));
    pol_cli_printf(uinfo, "\n  Loss: %s", text.number(sla_class->loss, sla_class->loss < POL_SLA_LOSS_UNSET));
    pol_cli_printf(uinfo, "\n  Latency: %s",
                   text.number(sla_class->latency, sla_class->latency < POL_SLA_LATENCY_UNSET));
    pol_cli_printf(uinfo, "\n  Jitter: %s",
                   text.number(sla_class->jitter, sla_class->jitter < POL_SLA_JITTER_UNSET));
    pol_cli_printf(uinfo, "\n  App Probe Class: %s", name_or_unset(sla_class->app_probe_class_name));
    dump_data_users<t_pol_set_entry, &t_pol_set_entry::set_sla_class_entry>(uinfo, "SLA CLASS",
                                                                            sla_class->set_sla_class_head);
    pol_cli_printf(uinfo, "\nend \n");
}

void pol_dump_fwd_sla_class_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_tree(uinfo, "\n  SLA CLASSES         ", &g_pol_ctx_p->sla_classes, pol_dump_fwd_sla_class);
}

void pol_dump_app_probe_class(t_app_probe_class *probe_class, struct mgmtd_cli_user_info *uinfo)
{
    value_text text;
    pol_cli_printf(uinfo, "\napp_probe_class: %s (0x%p, %u)", probe_class->app_probe_class_name,
                   static_cast<void *>(probe_class), static_cast<unsigned>(probe_class->fetch_xml));
    pol_cli_printf(uinfo, "\n  Forwarding-Class: %s", name_or_unset(probe_class->forwarding_class));
    probe_colors::for_each(probe_class->app_probe_class_color_entry_head,
                           [&](const t_app_probe_class_color_entry *e) {
                               pol_cli_printf(uinfo, "\n  Color: %s", text.code(e->color));
                               pol_cli_printf(uinfo, "\n  DSCP: %s", text.code(e->dscp));
                           });
    probe_slas::for_each(probe_class->sla_class_head, [&](const t_fwd_sla_class *sla_class) {
        pol_cli_printf(uinfo, "\n App Probe Class %s is referenced in : %s",
                       probe_class->app_probe_class_name, sla_class->sla_class_name);
    });
    pol_cli_printf(uinfo, "\nend \n");
}

void pol_dump_app_probe_class_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_tree(uinfo, "\n APP PROBE CLASS LISTS", &g_pol_ctx_p->app_probe_class_list,
              pol_dump_app_probe_class);
}

void pol_dump_fwd_app_id(t_fwd_app_id *app_id, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\napp-id: %s (%p)", app_id->app_id_name, static_cast<void *>(app_id));
    dump_data_users<t_pol_match_entry, &t_pol_match_entry::match_app_id_entry>(uinfo, "APP ID",
                                                                               app_id->match_app_id_head);
    pol_cli_printf(uinfo, "\nend \n");
}

void pol_dump_fwd_app_id_all(struct mgmtd_cli_user_info *uinfo)
{
    dump_tree(uinfo, "\n  FORWARDING APP IDS", &g_pol_ctx_p->app_ids, pol_dump_fwd_app_id);
}

}  // extern "C"
