#include "commit_series.hpp"

#include "pol_xml.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>
#include <sstream>

#include <zen/mgmtd_ds.h>

#include "polctl_cmd_internal.hpp"
#include "polctl_host.hpp"
#include "polctl_routes.hpp"

namespace commit_series {

namespace {

[[noreturn]] void harness_broken(const std::string &what)
{
    std::fprintf(stderr, "commit series: %s\n", what.c_str());
    std::abort();
}

/* ---- the route sample ---- */

#ifndef COMMIT_SERIES_ROUTES
#error "COMMIT_SERIES_ROUTES names the routes file of the sample"
#endif

// The sample as polctl reads a routes file.
const std::vector<polctl::route_decl> &sample_routes()
{
    static const std::vector<polctl::route_decl> routes = [] {
        polctl::routes_file rf;
        if (!polctl::read_routes_file(COMMIT_SERIES_ROUTES, &rf) || !rf.errors.empty() || rf.routes.empty()) {
            harness_broken("route sample does not read: " + (rf.errors.empty() ? "?" : rf.errors.front().text()));
        }
        return rf.routes;
    }();
    return routes;
}

/* ---- one route's answer ---- */

// A route's communities or the ones a sequence sets (both records count
// and hold them the same way).
template <typename Set>
std::string communities_text(const Set *set)
{
    if (set == nullptr) {
        return "none";
    }
    std::string out = std::to_string(set->n_communities) + ":";
    for (uint32_t i = 0; i < set->n_communities; i++) {
        out += " " + std::to_string(set->communities[i]);
    }
    return out;
}

// Everything pol_execute hands back for the route, as one line of text.
std::string answer(const polctl::route_decl &route, t_pol_user *user)
{
    polctl::route_execution exec(route, ZEN_DEVICE_QARMON);
    const e_pol_action verdict = exec.run(user);
    const t_pol_exec_params &p = exec.params();
    const t_pol_te_info &te = exec.te();
    const t_zen_attr &a = p.attr_out;
    std::ostringstream s;
    s << "verdict " << pol_util_action_str(verdict) << std::hex << " match " << p.entry_match_flags << " set "
      << p.entry_set_flags << std::dec << " | attr flags " << a.attr_flags << " tloc " << polctl::tloc_text(a.tloc)
      << " pref " << a.preference << " tag " << a.tag << " domain " << a.domain_id << " site " << a.site_id
      << " origin " << unsigned{a.origin.proto} << "/" << unsigned{a.origin.proto_sub_type} << "/"
      << a.origin.proto_metric << " originator " << a.originator << " carrier " << unsigned{a.carrier} << " groups "
      << a.group_count << " communities " << communities_text(a.community_p) << " | set communities "
      << communities_text(p.set_community_p) << " | te " << te.num_entries << " ultimate "
      << unsigned{te.ultimate_tloc_action};
    for (uint32_t i = 0; i < std::min<uint32_t>(te.num_entries, POL_MAX_TE_ENTRIES); i++) {
        s << " [" << polctl::tloc_text(te.entries[i].tloc) << " label " << te.entries[i].label << " pref "
          << te.entries[i].preference << "]";
    }
    s << " | export";
    for (uint32_t i = 0; p.vpn_list.vpn_list_p != nullptr && i < p.vpn_list.num_vpn_entries && i < POL_MAX_VPN; i++) {
        s << " " << p.vpn_list.vpn_list_p[i].min_vpn_id << "-" << p.vpn_list.vpn_list_p[i].max_vpn_id;
    }
    return s.str();
}

/* ---- one state of the library ---- */

// The documents of the data and app-route policies: what an edge router is
// given of them, every match and action included.
std::string documents()
{
    std::string out;
    const std::pair<avl_tree_t *, e_pol_xml_type> kinds[] = {
        {&g_pol_ctx_p->fwd_policies, POL_XML_TYPE_DATA_POLICY},
        {&g_pol_ctx_p->pfr_policies, POL_XML_TYPE_PFR_POLICY},
    };
    for (const auto &[tree, type] : kinds) {
        for (void *block = avl_first(tree); block != nullptr; block = avl_walk(tree, block, AVL_AFTER)) {
            pol_xml_t doc{};
            if (const char *text = pol_xml_convert(block, &doc, type)) {
                out += text;
            }
            pol_xml_free_buf(&doc);
        }
    }
    return out;
}

// pol_dump_all's text with the addresses of records and callbacks masked.
std::string library_dump()
{
    static const std::regex kPointer("(0x)+[0-9a-fA-F]+|\\(nil\\)");
    const std::string dump =
        polctl::cmd_detail::capture_dump([](mgmtd_cli_user_info *cli) { pol_dump_all(cli, 0, nullptr); });
    return std::regex_replace(dump, kPointer, "ADDR");
}

struct snapshot {
    std::string dump;
    std::vector<std::vector<std::string>> answers;  // [user][route]
};

snapshot snapshot_of(const polctl::host &h)
{
    snapshot s{library_dump() + documents(), {}};
    for (const auto &user : h.users()) {
        s.answers.emplace_back();
        for (const polctl::route_decl &route : sample_routes()) {
            s.answers.back().push_back(answer(route, user->handle));
        }
    }
    return s;
}

// A started host with the users registered.
void start(polctl::host &h, const std::vector<user_spec> &users)
{
    std::string error;
    if (!h.start(&error)) {
        harness_broken(error);
    }
    for (const user_spec &u : users) {
        if (h.register_user(u.name, u.policy, u.type, u.dir) == nullptr) {
            harness_broken("user " + u.name + " not registered");
        }
    }
}

/* ---- comparison ---- */

std::string dump_difference(const std::string &series, const std::string &fresh)
{
    std::istringstream a(series), b(fresh);
    std::string la, lb;
    for (size_t line = 1; series != fresh; line++) {
        const bool more_a = bool(std::getline(a, la)), more_b = bool(std::getline(b, lb));
        if (!more_a || !more_b || la != lb) {
            auto at = [](bool more, const std::string &text) { return more ? "\"" + text + "\"" : "(end of dump)"; };
            return "dump line " + std::to_string(line) + ": series " + at(more_a, la) + ", fresh " + at(more_b, lb) +
                   "\n--- series dump ---\n" + series + "\n--- fresh dump ---\n" + fresh;
        }
    }
    return "";
}

// The first route on which a user's answers differ, told as "what": user,
// route, both answers; empty when they agree. Users in skip are not looked at.
std::string first_change(const char *what, const snapshot &x, const snapshot &y, const char *x_name,
                         const char *y_name, const std::vector<user_spec> &users,
                         const std::set<std::string> &skip = {})
{
    for (size_t u = 0; u < users.size(); u++) {
        for (size_t r = 0; skip.count(users[u].name) == 0 && r < sample_routes().size(); r++) {
            if (x.answers[u][r] != y.answers[u][r]) {
                return "user " + users[u].name + what + sample_routes()[r].text + "\":\n  " + x_name + " " +
                       x.answers[u][r] + "\n  " + y_name + " " + y.answers[u][r];
            }
        }
    }
    return "";
}

// Where the series after a step differs from the fresh commit of the step,
// and users whose answer changed in the step without a notification, after
// the problems already found.
std::string step_difference(std::string problems, const snapshot &before, const snapshot &after,
                            const snapshot &fresh, const std::vector<user_spec> &users,
                            const std::vector<polctl::notification> &notified)
{
    std::set<std::string> heard;
    for (const polctl::notification &n : notified) {
        heard.insert(n.user);
    }
    for (const std::string &p :
         {dump_difference(after.dump, fresh.dump), first_change(" route \"", after, fresh, "series", "fresh ", users),
          first_change(" was not notified, yet its answer changed on route \"", before, after, "before", "after ",
                       users, heard)}) {
        problems += (problems.empty() || p.empty() ? "" : "\n") + p;
    }
    return problems;
}

void collect_names(void *names, const char *value)
{
    static_cast<std::set<std::string> *>(names)->insert(value);
}

}  // namespace

std::vector<user_spec> users_of_files(const std::vector<std::string> &files)
{
    char err[512] = "";
    mgmtd_ds_t *ds = mgmtd_ds_open(mgmtd_ds_policy_schema(), err, sizeof(err));
    if (ds == nullptr) {
        harness_broken(err);
    }
    // Control and route policies are both route users.
    struct kind {
        const char *path, *user_prefix;
        e_pol_type type;
        e_pol_dir dir;
        std::set<std::string> names;
    } kinds[] = {
        {"control-policy", "route:", POL_TYPE_ROUTE, POL_DIR_OUT, {}},
        {"membership-policy", "membership:", POL_TYPE_MEMBERSHIP, POL_DIR_IN, {}},
        {"data-policy", "data:", POL_TYPE_DATA, POL_DIR_IN, {}},
        {"app-route-policy", "app-route:", POL_TYPE_PFR, POL_DIR_IN, {}},
    };
    for (const std::string &file : files) {
        mgmtd_ds_tree_t *tree = nullptr;
        if (mgmtd_ds_load(ds, file.c_str(), &tree) != MGMTD_DS_OK) {
            continue;
        }
        for (kind &k : kinds) {
            const std::string path = std::string("/zen-policy:policy/") + k.path + "/name";
            mgmtd_ds_tree_foreach(tree, path.c_str(), collect_names, &k.names);
        }
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/route-policy/name", collect_names, &kinds[0].names);
        mgmtd_ds_tree_free(tree);
    }
    mgmtd_ds_close(ds);
    std::vector<user_spec> users;
    for (const kind &k : kinds) {
        for (const std::string &name : k.names) {
            users.push_back({k.user_prefix + name, name, k.type, k.dir});
        }
    }
    return users;
}

std::vector<step_report> check_series(const std::vector<std::string> &files, const std::vector<user_spec> &users)
{
    std::vector<step_report> reports(files.size());
    std::vector<snapshot> fresh(files.size());
    for (size_t k = 0; k < files.size(); k++) {
        reports[k].step = k + 1;
        polctl::host h;
        start(h, users);
        reports[k].committed = h.commit_file(files[k], &reports[k].refusal) == MGMTD_DS_OK;
        if (reports[k].committed) {
            reports[k].refusal.clear();
            fresh[k] = snapshot_of(h);
        }
    }

    polctl::host h;
    start(h, users);
    snapshot before = snapshot_of(h);
    for (size_t k = 0; k < files.size(); k++) {
        if (!reports[k].committed) {
            continue;
        }
        h.take_notifications();
        std::string error;
        if (h.commit_file(files[k], &error) != MGMTD_DS_OK) {
            error = "the series refused a step a fresh datastore takes: " + error;
        } else {
            error.clear();
        }
        const snapshot after = snapshot_of(h);
        reports[k].difference = step_difference(error, before, after, fresh[k], users, h.take_notifications());
        before = after;
    }
    return reports;
}

}  // namespace commit_series
