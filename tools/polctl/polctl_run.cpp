// polctl run: every route of a routes file through the committed
// configuration, with its verdict, flags, rewritten attributes and labels.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include <policy/pol_config.h>
#include <zen/zen_util.h>

#include "polctl_cmd_internal.hpp"

namespace polctl {

using namespace cmd_detail;

namespace {

/* ---- run ---- */

struct te_row {
    std::string tloc;
    uint32_t label;
    uint32_t preference;
};

struct attr_change {
    std::string name;
    std::string from;
    std::string to;
};

struct route_result {
    const route_decl *route = nullptr;
    e_pol_action verdict = POL_ACTION_INVALID;
    std::vector<std::string> matched;
    std::vector<std::string> sets;
    std::vector<attr_change> changes;
    std::vector<te_row> tlocs;
    uint8_t ultimate = 0;
    std::vector<std::pair<uint64_t, uint64_t>> exports;
    std::string community_mode;
    std::vector<std::string> communities;
};

// One presence-bit attribute of the route record, as text ("-" when absent).
struct attr_field {
    const char *name;
    uint64_t flag;
    std::string (*text)(const t_zen_attr &);
};

std::string present_text(const t_zen_attr &attr, const attr_field &field)
{
    return (attr.attr_flags & field.flag) != 0 ? field.text(attr) : "-";
}

const attr_field kAttrFields[] = {
    {"tloc", ZEN_ATTR_FLAG_TLOC, [](const t_zen_attr &a) { return tloc_text(a.tloc); }},
    {"preference", ZEN_ATTR_FLAG_PREFERENCE,
     [](const t_zen_attr &a) { return std::to_string(a.preference); }},
    {"tag", ZEN_ATTR_FLAG_TAG, [](const t_zen_attr &a) { return std::to_string(a.tag); }},
    {"domain", ZEN_ATTR_FLAG_DOMAIN_ID,
     [](const t_zen_attr &a) { return std::to_string(a.domain_id); }},
    {"site", ZEN_ATTR_FLAG_SITE_ID, [](const t_zen_attr &a) { return std::to_string(a.site_id); }},
    {"originator", ZEN_ATTR_FLAG_ORIGINATOR,
     [](const t_zen_attr &a) { return address_text(a.originator); }},
    {"carrier", ZEN_ATTR_FLAG_CARRIER,
     [](const t_zen_attr &a) { return std::to_string(a.carrier); }},
    {"metric", ZEN_ATTR_FLAG_ORIGIN_METRIC,
     [](const t_zen_attr &a) { return std::to_string(a.origin.proto_metric); }},
};

route_result run_route(const route_decl &route, t_pol_user *handle, e_zen_device device)
{
    route_result r;
    r.route = &route;
    route_execution exec(route, device);
    r.verdict = exec.run(handle);
    const t_pol_exec_params &params = exec.params();
    const t_pol_te_info &te = exec.te();
    r.matched = match_words(params.entry_match_flags);
    r.sets = set_words(params.entry_set_flags);
    for (const attr_field &field : kAttrFields) {
        const std::string from = present_text(exec.attr_in(), field);
        const std::string to = present_text(params.attr_out, field);
        if (from != to) {
            r.changes.push_back({field.name, from, to});
        }
    }
    for (uint32_t i = 0; i < te.num_entries && i < POL_MAX_TE_ENTRIES; i++) {
        r.tlocs.push_back({tloc_text(te.entries[i].tloc), te.entries[i].label,
                           te.entries[i].preference});
    }
    r.ultimate = te.ultimate_tloc_action;
    for (uint32_t i = 0; params.vpn_list.vpn_list_p != nullptr &&
                         i < params.vpn_list.num_vpn_entries && i < POL_MAX_VPN;
         i++) {
        r.exports.emplace_back(params.vpn_list.vpn_list_p[i].min_vpn_id,
                               params.vpn_list.vpn_list_p[i].max_vpn_id);
    }
    if (params.set_community_p != nullptr) {
        const bool additive = (params.entry_set_flags & POL_SET_FLAG_COMMUNITY_ADDITIVE) != 0;
        r.community_mode = additive ? "additive" : "replace";
        for (uint32_t i = 0; i < params.set_community_p->n_communities; i++) {
            r.communities.push_back(community_text(params.set_community_p->communities[i]));
        }
    }
    return r;
}

void print_route_text(const route_result &r, const user_record &user, std::ostream &out)
{
    out << "line " << r.route->line << ": " << user.name << " " << r.route->text << "\n";
    out << "  verdict     " << pol_util_action_str(r.verdict) << "\n";
    out << "  matched     " << (r.matched.empty() ? "-" : join(r.matched)) << "\n";
    out << "  sets        " << (r.sets.empty() ? "-" : join(r.sets)) << "\n";
    for (const attr_change &c : r.changes) {
        out << "  attribute   " << c.name << " " << c.from << " -> " << c.to << "\n";
    }
    for (const te_row &t : r.tlocs) {
        out << "  tloc        " << t.tloc << " label " << t.label << " preference " << t.preference
            << "\n";
    }
    if (r.ultimate != 0) {
        out << "  ultimate    " << static_cast<unsigned>(r.ultimate) << "\n";
    }
    if (!r.exports.empty()) {
        std::vector<std::string> ranges;
        for (const auto &e : r.exports) {
            ranges.push_back(vpn_range_text(e.first, e.second));
        }
        out << "  export vpn  " << join(ranges, ", ") << "\n";
    }
    if (!r.community_mode.empty()) {
        out << "  community   " << r.community_mode << " "
            << (r.communities.empty() ? "-" : join(r.communities)) << "\n";
    }
}

void print_route_json(json_writer &j, const route_result &r, const user_record &user)
{
    j.begin_object()
        .field("line", r.route->line)
        .field("user", user.name)
        .field("policy", user.policy)
        .field("route", r.route->text)
        .field("verdict", pol_util_action_str(r.verdict));
    j.string_array("matched", r.matched).string_array("sets", r.sets);
    j.key("attributes").begin_object();
    for (const attr_change &c : r.changes) {
        j.key(c.name).begin_object().field("from", c.from).field("to", c.to).end();
    }
    j.end();
    j.key("tlocs").begin_array();
    for (const te_row &t : r.tlocs) {
        j.begin_object()
            .field("tloc", t.tloc)
            .field("label", t.label)
            .field("preference", t.preference)
            .end();
    }
    j.end();
    j.field("ultimate_tloc_action", static_cast<unsigned>(r.ultimate));
    j.key("export_vpns").begin_array();
    for (const auto &e : r.exports) {
        j.begin_object().field("min", e.first).field("max", e.second).end();
    }
    j.end();
    if (r.community_mode.empty()) {
        j.key("communities").null();
    } else {
        j.key("communities")
            .begin_object()
            .field("mode", r.community_mode)
            .string_array("values", r.communities)
            .end();
    }
    j.end();
}

}  // namespace

namespace cmd_detail {

// The users a routes file declares, registered on policies that exist.
std::map<std::string, user_record *> register_users(host &h, const routes_file &rf,
                                                    std::vector<input_error> *errors)
{
    std::map<std::string, user_record *> users;
    for (const user_decl &u : rf.users) {
        if (pol_block_find(h.ctx(), u.policy.c_str(), u.type, nullptr) == nullptr) {
            errors->push_back({rf.path, u.line,
                               "policy \"" + u.policy + "\" of type " + pol_util_type_str(u.type) +
                                   " is not in the configuration"});
            continue;
        }
        user_record *record = h.register_user(u.name, u.policy, u.type, u.dir);
        if (record == nullptr) {
            errors->push_back({rf.path, u.line, "user \"" + u.name + "\" could not be registered"});
            continue;
        }
        users[u.name] = record;
    }
    return users;
}

bool line_order(const input_error &a, const input_error &b)
{
    return a.file != b.file ? a.file < b.file : a.line < b.line;
}

}  // namespace cmd_detail

int cmd_run(const options &opt, const std::string &config, const std::string &routes,
            std::ostream &out, std::ostream &err)
{
    host h;
    if (int rc = start_and_commit(h, opt, "run", config, out, err); rc != EXIT_OK) {
        return rc;
    }
    std::vector<input_error> errors;
    const uint32_t delivered = mgmtd_ds_delivered(h.ds());
    routes_file rf;
    if (!read_routes_file(routes, &rf)) {
        return input_failure(opt, "run", config, rf.errors, out, err);
    }
    errors = rf.errors;
    h.take_notifications();
    std::map<std::string, user_record *> users = register_users(h, rf, &errors);
    for (const label_decl &l : rf.labels) {
        if (l.unreachable) {
            h.labels().set_unreachable(l.tloc);
        } else {
            h.labels().set_label(l.tloc, l.label);
        }
    }
    std::set<std::string> declared;
    for (const user_decl &u : rf.users) {
        declared.insert(u.name);
    }
    std::vector<std::pair<route_result, const user_record *>> results;
    for (const route_decl &route : rf.routes) {
        auto it = users.find(route.user);
        if (it == users.end()) {
            errors.push_back({rf.path, route.line,
                              declared.count(route.user) != 0
                                  ? "user \"" + route.user + "\" is not registered"
                                  : "unknown user \"" + route.user + "\""});
            continue;
        }
        results.emplace_back(run_route(route, it->second->handle, rf.device), it->second);
    }
    std::stable_sort(errors.begin(), errors.end(), line_order);
    report_errors(errors, err);

    size_t accepted = 0;
    for (const auto &r : results) {
        accepted += r.first.verdict == POL_ACTION_ACCEPT ? 1 : 0;
    }
    const size_t rejected = results.size() - accepted;
    if (opt.json) {
        json_writer j;
        j.begin_object()
            .field("command", "run")
            .field("config", config)
            .field("callbacks", delivered)
            .field("routes_file", routes)
            .field("device", device_name(rf.device));
        j.key("users").begin_array();
        for (const auto &u : users) {
            j.begin_object()
                .field("name", u.second->name)
                .field("policy", u.second->policy)
                .field("type", pol_util_type_str(u.second->type))
                .field("dir", pol_util_dir_str(u.second->dir))
                .end();
        }
        j.end().key("routes").begin_array();
        for (const auto &r : results) {
            print_route_json(j, r.first, *r.second);
        }
        j.end().key("labels").begin_array();
        for (const auto &l : h.labels().handed_out()) {
            j.begin_object()
                .field("tloc", std::get<0>(l.first))
                .field("vpn", std::get<1>(l.first))
                .field("service", static_cast<unsigned>(std::get<2>(l.first)))
                .field("label", l.second)
                .end();
        }
        j.end();
        json_errors(j, errors);
        j.key("summary")
            .begin_object()
            .field("routes", static_cast<uint64_t>(results.size()))
            .field("accepted", static_cast<uint64_t>(accepted))
            .field("rejected", static_cast<uint64_t>(rejected))
            .field("skipped_lines", static_cast<uint64_t>(errors.size()))
            .end();
        out << j.end().str();
    } else {
        out << "configuration " << config << ": " << delivered << " callbacks\n";
        out << "routes " << routes << ": device " << device_name(rf.device) << "\n";
        out << "users:\n";
        for (const auto &u : users) {
            out << "  " << u.second->name << ": policy " << u.second->policy << ", type "
                << pol_util_type_str(u.second->type) << ", dir "
                << pol_util_dir_str(u.second->dir) << "\n";
        }
        out << "routes:\n";
        for (const auto &r : results) {
            print_route_text(r.first, *r.second, out);
        }
        out << "labels:\n";
        for (const auto &l : h.labels().handed_out()) {
            out << "  " << std::get<0>(l.first) << " vpn " << std::get<1>(l.first) << " service "
                << std::get<2>(l.first) << ": " << l.second << "\n";
        }
        out << "summary: " << results.size() << " routes, " << accepted << " accepted, "
            << rejected << " rejected, " << errors.size() << " lines skipped\n";
    }
    return errors.empty() ? EXIT_OK : EXIT_INPUT;
}


}  // namespace polctl
