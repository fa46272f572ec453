#include "commit_series.hpp"

#include "pol_xml.hpp"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include <zen/mgmtd_ds.h>

#include "polctl_host.hpp"
#include "polctl_routes.hpp"

namespace commit_series {

namespace {

/* ---- the route sample ---- */

// Values the series files and the fuzz generator use, so that every
// condition of theirs both holds and fails on some route of the sample.
const char *const kSites[] = {"1", "5", "100", "150", "199", "250", "300"};
const char *const kVpns[] = {"1", "10", "20", "25", "50", "60"};
const char *const kTlocs[] = {"10.0.0.1:mpls:ipsec", "10.0.0.2:mpls:ipsec",
                              "10.0.0.2:business-internet:ipsec", "10.0.0.3:lte:gre",
                              "10.0.0.4:gold:ipsec", "10.0.0.5:mpls:gre",
                              "2001:db8::1:private1:ipsec"};
const char *const kPrefixes4[] = {"10.0.0.0/8",    "10.1.0.0/16",  "10.1.2.0/24",
                                  "10.1.2.0/28",   "172.16.5.0/24", "172.16.0.0/12",
                                  "192.168.1.0/24", "0.0.0.0/0",   "10.200.0.0/30"};
const char *const kPrefixes6[] = {"2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:2::/64",
                                  "fd00::/8", "2001:db8:1:2::1/128"};
const char *const kPreferences[] = {"50", "100", "200"};
const char *const kTags[] = {"5", "7", "9"};
const char *const kDomains[] = {"1", "2"};
const char *const kOrigins[] = {"static", "connected", "bgp-external", "ospf-intra-area"};
const char *const kMetrics[] = {"100", "800"};
const char *const kOriginators[] = {"10.0.0.9", "10.0.0.1"};
const char *const kCarriers[] = {"default", "carrier1", "carrier2"};
const char *const kGroups[] = {"1", "2", "3", "1,2", "2,3"};
const char *const kCommunities[] = {"65000:1",  "65000:10",  "65000:100", "65001:5",
                                    "no-export", "65535:666", "65000:1,65001:5",
                                    "65000:100,no-export"};

class sample_chooser {
public:
    uint32_t below(uint32_t n)
    {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<uint32_t>((state_ >> 33) % n);
    }
    bool percent(uint32_t p) { return below(100) < p; }
    template <size_t N>
    const char *pick(const char *const (&options)[N])
    {
        return options[below(N)];
    }

private:
    uint64_t state_ = 20240601;
};

constexpr int kSampleRoutes = 320;

std::string sample_attributes(sample_chooser &c)
{
    std::string out;
    auto maybe = [&](const char *name, const char *value) {
        if (c.percent(55)) {
            out += std::string(" ") + name + " " + value;
        }
    };
    maybe("site", c.pick(kSites));
    maybe("tloc", c.pick(kTlocs));
    maybe("preference", c.pick(kPreferences));
    maybe("tag", c.pick(kTags));
    maybe("domain", c.pick(kDomains));
    maybe("origin", c.pick(kOrigins));
    maybe("metric", c.pick(kMetrics));
    maybe("originator", c.pick(kOriginators));
    maybe("carrier", c.pick(kCarriers));
    maybe("group", c.pick(kGroups));
    maybe("community", c.pick(kCommunities));
    return out;
}

std::vector<std::string> make_sample_texts()
{
    sample_chooser c;
    std::vector<std::string> out;
    for (int i = 0; i < kSampleRoutes; i++) {
        std::string text;
        switch (i % 4) {
        case 0:
            text = std::string("vroute ") + c.pick(kPrefixes4) + " vpn " + c.pick(kVpns);
            break;
        case 1:
            text = std::string("vroute ") + c.pick(kPrefixes6) + " vpn " + c.pick(kVpns);
            break;
        case 2:
            text = std::string("tloc ") + c.pick(kTlocs);
            break;
        default:
            text = std::string("service vpn ") + c.pick(kVpns);
            break;
        }
        out.push_back(text + sample_attributes(c));
    }
    return out;
}

// The sample read as polctl reads a routes file.
const std::vector<polctl::route_decl> &sample_routes()
{
    static const std::vector<polctl::route_decl> routes = [] {
        char path[] = "/tmp/commit-series-routes-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) {
            std::perror("route sample");
            std::abort();
        }
        close(fd);
        {
            std::ofstream out(path);
            for (const std::string &text : sample_route_texts()) {
                out << "route u " << text << "\n";
            }
        }
        polctl::routes_file rf;
        const bool read = polctl::read_routes_file(path, &rf);
        std::remove(path);
        if (!read || !rf.errors.empty() || rf.routes.size() != sample_route_texts().size()) {
            std::fprintf(stderr, "route sample does not read: %s\n",
                         rf.errors.empty() ? "?" : rf.errors.front().text().c_str());
            std::abort();
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
    s << "verdict " << pol_util_action_str(verdict) << std::hex << " match " << p.entry_match_flags
      << " set " << p.entry_set_flags << std::dec << " | attr flags " << a.attr_flags << " tloc "
      << polctl::tloc_text(a.tloc) << " pref " << a.preference << " tag " << a.tag << " domain "
      << a.domain_id << " site " << a.site_id << " origin " << unsigned{a.origin.proto} << "/"
      << unsigned{a.origin.proto_sub_type} << "/" << a.origin.proto_metric << " originator "
      << a.originator << " carrier " << unsigned{a.carrier} << " groups " << a.group_count
      << " communities " << communities_text(a.community_p) << " | set communities "
      << communities_text(p.set_community_p) << " | te " << te.num_entries << " ultimate "
      << unsigned{te.ultimate_tloc_action};
    for (uint32_t i = 0; i < std::min<uint32_t>(te.num_entries, POL_MAX_TE_ENTRIES); i++) {
        s << " [" << polctl::tloc_text(te.entries[i].tloc) << " label " << te.entries[i].label
          << " pref " << te.entries[i].preference << "]";
    }
    s << " | export";
    for (uint32_t i = 0; p.vpn_list.vpn_list_p != nullptr && i < p.vpn_list.num_vpn_entries &&
                         i < POL_MAX_VPN;
         i++) {
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

// pol_dump_all without the addresses of records and callbacks.
std::string dump_all()
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    if (out == nullptr) {
        return "";
    }
    constexpr uint32_t kSession = 13;
    maapi_cli_bind_stream(kSession, out);
    struct mgmtd_cli_user_info cli = {-1, kSession, "commit-series"};
    pol_dump_all(&cli, 0, nullptr);
    maapi_cli_unbind_stream(kSession);
    std::fclose(out);
    const std::string dump(text != nullptr ? text : "", size);
    std::free(text);
    static const std::regex kPointer("(0x)+[0-9a-fA-F]+|\\(nil\\)");
    return std::regex_replace(dump, kPointer, "ADDR") + documents();
}

struct snapshot {
    std::string dump;
    std::vector<std::vector<std::string>> answers;  // [user][route]
};

snapshot snapshot_of(const polctl::host &h)
{
    snapshot s;
    s.dump = dump_all();
    for (const auto &user : h.users()) {
        std::vector<std::string> answers;
        for (const polctl::route_decl &route : sample_routes()) {
            answers.push_back(answer(route, user->handle));
        }
        s.answers.push_back(std::move(answers));
    }
    return s;
}

// A started host with the users registered; aborts when it cannot start
// (the harness itself is broken then).
void start(polctl::host &h, const std::vector<user_spec> &users)
{
    std::string error;
    if (!h.start(&error)) {
        std::fprintf(stderr, "commit series: %s\n", error.c_str());
        std::abort();
    }
    for (const user_spec &u : users) {
        if (h.register_user(u.name, u.policy, u.type, u.dir) == nullptr) {
            std::fprintf(stderr, "commit series: user %s not registered\n", u.name.c_str());
            std::abort();
        }
    }
}

/* ---- comparison ---- */

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

std::string dump_difference(const std::string &series, const std::string &fresh)
{
    if (series == fresh) {
        return "";
    }
    const std::vector<std::string> a = lines_of(series), b = lines_of(fresh);
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) {
        i++;
    }
    auto at = [](const std::vector<std::string> &v, size_t n) {
        return n < v.size() ? "\"" + v[n] + "\"" : std::string("(end of dump)");
    };
    return "dump line " + std::to_string(i + 1) + ": series " + at(a, i) + ", fresh " + at(b, i) +
           "\n--- series dump ---\n" + series + "\n--- fresh dump ---\n" + fresh;
}

std::string answer_difference(const snapshot &series, const snapshot &fresh,
                              const std::vector<user_spec> &users)
{
    for (size_t u = 0; u < users.size(); u++) {
        for (size_t r = 0; r < sample_routes().size(); r++) {
            if (series.answers[u][r] != fresh.answers[u][r]) {
                return "user " + users[u].name + " route \"" + sample_route_texts()[r] +
                       "\":\n  series " + series.answers[u][r] + "\n  fresh  " +
                       fresh.answers[u][r];
            }
        }
    }
    return "";
}

// Users whose answer on some route changed in the step and who were not
// told of it.
std::string unnotified(const snapshot &before, const snapshot &after,
                       const std::vector<user_spec> &users,
                       const std::vector<polctl::notification> &notified)
{
    std::set<std::string> heard;
    for (const polctl::notification &n : notified) {
        heard.insert(n.user);
    }
    for (size_t u = 0; u < users.size(); u++) {
        if (heard.count(users[u].name) != 0) {
            continue;
        }
        for (size_t r = 0; r < sample_routes().size(); r++) {
            if (before.answers[u][r] != after.answers[u][r]) {
                return "user " + users[u].name + " was not notified, yet its answer on route \"" +
                       sample_route_texts()[r] + "\" changed:\n  before " + before.answers[u][r] +
                       "\n  after  " + after.answers[u][r];
            }
        }
    }
    return "";
}

std::string join_problems(const std::vector<std::string> &problems)
{
    std::string out;
    for (const std::string &p : problems) {
        if (!p.empty()) {
            out += (out.empty() ? "" : "\n") + p;
        }
    }
    return out;
}

void collect_names(void *names, const char *value)
{
    static_cast<std::set<std::string> *>(names)->insert(value);
}

}  // namespace

const std::vector<std::string> &sample_route_texts()
{
    static const std::vector<std::string> texts = make_sample_texts();
    return texts;
}

std::vector<user_spec> users_of_files(const std::vector<std::string> &files)
{
    char err[512] = "";
    mgmtd_ds_t *ds = mgmtd_ds_open(mgmtd_ds_policy_schema(), err, sizeof(err));
    if (ds == nullptr) {
        std::fprintf(stderr, "commit series: %s\n", err);
        std::abort();
    }
    std::set<std::string> route_names, membership_names, data_names, app_route_names;
    for (const std::string &file : files) {
        mgmtd_ds_tree_t *tree = nullptr;
        if (mgmtd_ds_load(ds, file.c_str(), &tree) != MGMTD_DS_OK) {
            continue;
        }
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/control-policy/name", collect_names,
                              &route_names);
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/route-policy/name", collect_names,
                              &route_names);
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/membership-policy/name", collect_names,
                              &membership_names);
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/data-policy/name", collect_names, &data_names);
        mgmtd_ds_tree_foreach(tree, "/zen-policy:policy/app-route-policy/name", collect_names,
                              &app_route_names);
        mgmtd_ds_tree_free(tree);
    }
    mgmtd_ds_close(ds);
    std::vector<user_spec> users;
    for (const std::string &name : route_names) {
        users.push_back({"route:" + name, name, POL_TYPE_ROUTE, POL_DIR_OUT});
    }
    for (const std::string &name : membership_names) {
        users.push_back({"membership:" + name, name, POL_TYPE_MEMBERSHIP, POL_DIR_IN});
    }
    for (const std::string &name : data_names) {
        users.push_back({"data:" + name, name, POL_TYPE_DATA, POL_DIR_IN});
    }
    for (const std::string &name : app_route_names) {
        users.push_back({"app-route:" + name, name, POL_TYPE_PFR, POL_DIR_IN});
    }
    return users;
}

std::vector<step_report> check_series(const std::vector<std::string> &files,
                                      const std::vector<user_spec> &users)
{
    std::vector<step_report> reports(files.size());
    std::vector<snapshot> fresh(files.size());
    for (size_t k = 0; k < files.size(); k++) {
        reports[k].step = k + 1;
        polctl::host h;
        start(h, users);
        std::string error;
        reports[k].committed = h.commit_file(files[k], &error) == MGMTD_DS_OK;
        if (!reports[k].committed) {
            reports[k].refusal = error;
            continue;
        }
        fresh[k] = snapshot_of(h);
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
            reports[k].difference = "the series refused a step a fresh datastore takes: " + error;
        }
        const snapshot after = snapshot_of(h);
        reports[k].difference = join_problems(
            {reports[k].difference, dump_difference(after.dump, fresh[k].dump),
             answer_difference(after, fresh[k], users),
             unnotified(before, after, users, h.take_notifications())});
        before = after;
    }
    return reports;
}

}  // namespace commit_series
