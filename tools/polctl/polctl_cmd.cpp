// The commands of polctl that only read a configuration: check it, show
// the library's dumps; and the pieces every command shares. Text output is
// meant for people and golden files alike: it holds no addresses of memory
// and no times. The run and diff commands: polctl_run.cpp, polctl_diff.cpp.
#include "polctl_cmd_internal.hpp"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include <policy/pol_config.h>
#include <zen/zen_util.h>

#include "polctl_host.hpp"
#include "polctl_json.hpp"
#include "polctl_routes.hpp"

#ifndef POLCTL_SOURCE_EXAMPLES
#define POLCTL_SOURCE_EXAMPLES "examples"
#endif
#ifndef POLCTL_INSTALL_EXAMPLES
#define POLCTL_INSTALL_EXAMPLES "/usr/local/share/libpolicy/examples"
#endif

namespace polctl {

namespace cmd_detail {

namespace {

/* ---- library log lines ---- */

std::ostream *g_log_stream = nullptr;

void log_sink(int, const char *text)
{
    if (g_log_stream != nullptr) {
        *g_log_stream << "log: " << text << "\n";
    }
}

}  // namespace

void set_logging(const options &opt, std::ostream &err)
{
    g_log_stream = opt.debug > 0 ? &err : nullptr;
    pol_log_set_sink(log_sink);
    pol_debug_set(opt.debug);
}

/* ---- shared pieces ---- */

std::vector<std::string> words_of(const char *text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string word;
    while (in >> word) {
        out.push_back(word);
    }
    return out;
}

std::vector<std::string> match_words(uint64_t flags)
{
    t_pol_entry entry;
    std::memset(&entry, 0, sizeof(entry));
    entry.entry_match_flags = flags;
    char buf[512];
    return words_of(pol_util_match_flags_str(&entry, buf, sizeof(buf)));
}

std::vector<std::string> set_words(uint64_t flags)
{
    t_pol_entry entry;
    std::memset(&entry, 0, sizeof(entry));
    entry.entry_set_flags = flags;
    char buf[512];
    return words_of(pol_util_set_flags_str(&entry, buf, sizeof(buf)));
}

std::string join(const std::vector<std::string> &items, const char *sep)
{
    std::string out;
    for (size_t i = 0; i < items.size(); i++) {
        out += (i == 0 ? "" : sep) + items[i];
    }
    return out;
}

std::string community_text(uint32_t value)
{
    char buf[64];
    return community_getstr(value, buf, sizeof(buf));
}

std::string address_text(uint32_t ipv4_word)
{
    t_ipaddr addr;
    IPADDR_INIT(&addr, IP_ADDR_V4);
    IPADDR_SET_V4(&addr, ipv4_word);
    char buf[64];
    return ipaddr_print(&addr, buf, sizeof(buf));
}

std::string vpn_range_text(uint64_t min, uint64_t max)
{
    return min == max ? std::to_string(min) : std::to_string(min) + "-" + std::to_string(max);
}

void report_errors(const std::vector<input_error> &errors, std::ostream &err)
{
    for (const input_error &e : errors) {
        err << "polctl: " << e.text() << "\n";
    }
}

void json_errors(json_writer &j, const std::vector<input_error> &errors)
{
    j.key("errors").begin_array();
    for (const input_error &e : errors) {
        j.begin_object().field("file", e.file);
        if (e.line > 0) {
            j.field("line", e.line);
        }
        j.field("message", e.message).end();
    }
    j.end();
}

// A datastore message ("FILE:LINE: text" or "commit stopped at PATH: ...")
// as an input error.
input_error ds_error(const std::string &file, const std::string &message)
{
    input_error e;
    e.file = file;
    std::string rest = message;
    if (rest.rfind(file + ":", 0) == 0) {
        rest = rest.substr(file.size() + 1);
        const size_t colon = rest.find(": ");
        if (colon != std::string::npos && colon > 0 &&
            rest.find_first_not_of("0123456789") == colon) {
            e.line = std::atoi(rest.substr(0, colon).c_str());
            rest = rest.substr(colon + 2);
        } else if (rest.rfind(" ", 0) == 0) {
            rest = rest.substr(1);
        }
    }
    e.message = rest;
    return e;
}

// The report of a command that stopped at its input.
int input_failure(const options &opt, const char *command, const std::string &config,
                  const std::vector<input_error> &errors, std::ostream &out, std::ostream &err)
{
    report_errors(errors, err);
    if (opt.json) {
        json_writer j;
        j.begin_object().field("command", command).field("config", config);
        json_errors(j, errors);
        out << j.end().str();
    }
    return EXIT_INPUT;
}

bool start_host(host &h, std::ostream &err)
{
    std::string error;
    if (!h.start(&error)) {
        err << "polctl: " << error << "\n";
        return false;
    }
    return true;
}

// Starts the host and commits one configuration file: EXIT_OK, or the exit
// status of the failure, already reported.
int start_and_commit(host &h, const options &opt, const char *command, const std::string &config,
                     std::ostream &out, std::ostream &err)
{
    set_logging(opt, err);
    if (!start_host(h, err)) {
        return EXIT_INPUT;
    }
    std::string message;
    if (h.commit_file(config, &message) != MGMTD_DS_OK) {
        return input_failure(opt, command, config, {ds_error(config, message)}, out, err);
    }
    return EXIT_OK;
}

// What the library's dump commands print for one CLI session.
std::string capture_dump(const std::function<void(struct mgmtd_cli_user_info *)> &dump)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    if (stream == nullptr) {
        return std::string();
    }
    constexpr uint32_t kSession = 7;
    maapi_cli_bind_stream(kSession, stream);
    struct mgmtd_cli_user_info cli = {-1, kSession, "polctl"};
    dump(&cli);
    maapi_cli_unbind_stream(kSession);
    std::fclose(stream);
    std::string out(text != nullptr ? text : "", size);
    std::free(text);
    return out;
}
}  // namespace cmd_detail

using namespace cmd_detail;

namespace {

/* ---- check ---- */

struct count_row {
    const char *what;
    const char *xpath;
    const char *entries_what;   // null: the row counts no entries
    const char *entries_xpath;
};

constexpr count_row kCountRows[] = {
    {"site-lists", "/zen-policy:policy/lists/site-list", "entries",
     "/zen-policy:policy/lists/site-list/site"},
    {"vpn-lists", "/zen-policy:policy/lists/vpn-list", "entries",
     "/zen-policy:policy/lists/vpn-list/vpn"},
    {"tloc-lists", "/zen-policy:policy/lists/tloc-list", "entries",
     "/zen-policy:policy/lists/tloc-list/tloc"},
    {"color-lists", "/zen-policy:policy/lists/color-list", "entries",
     "/zen-policy:policy/lists/color-list/entry"},
    {"prefix-lists", "/zen-policy:policy/lists/prefix-list", "entries",
     "/zen-policy:policy/lists/prefix-list/entry"},
    {"ipv6-prefix-lists", "/zen-policy:policy/lists/ipv6-prefix-list", "entries",
     "/zen-policy:policy/lists/ipv6-prefix-list/entry"},
    {"community-lists", "/zen-policy:policy/lists/community-list", "entries",
     "/zen-policy:policy/lists/community-list/entry"},
    {"expanded-community-lists", "/zen-policy:policy/lists/expanded-community-list", "entries",
     "/zen-policy:policy/lists/expanded-community-list/entry"},
    {"control-policies", "/zen-policy:policy/control-policy", "sequences",
     "/zen-policy:policy/control-policy/sequence"},
    {"route-policies", "/zen-policy:policy/route-policy", "sequences",
     "/zen-policy:policy/route-policy/sequence"},
    {"membership-policies", "/zen-policy:policy/membership-policy", "sequences",
     "/zen-policy:policy/membership-policy/sequence"},
    {"data-prefix-lists", "/zen-policy:policy/lists/data-prefix-list", "entries",
     "/zen-policy:policy/lists/data-prefix-list/entry"},
    {"data-ipv6-prefix-lists", "/zen-policy:policy/lists/data-ipv6-prefix-list", "entries",
     "/zen-policy:policy/lists/data-ipv6-prefix-list/entry"},
    {"app-lists", "/zen-policy:policy/lists/app-list", "entries",
     "/zen-policy:policy/lists/app-list/*"},
    {"app-probe-classes", "/zen-policy:policy/lists/app-probe-class", "colors",
     "/zen-policy:policy/lists/app-probe-class/color"},
    {"app-ids", "/zen-policy:policy/app-id", nullptr, nullptr},
    {"sla-classes", "/zen-policy:policy/sla-class", nullptr, nullptr},
    {"policers", "/zen-policy:policy/policer", nullptr, nullptr},
    {"data-policies", "/zen-policy:policy/data-policy", "sequences",
     "/zen-policy:policy/data-policy/vpn-list/sequence"},
    {"app-route-policies", "/zen-policy:policy/app-route-policy", "sequences",
     "/zen-policy:policy/app-route-policy/vpn-list/sequence"},
    {"cflowd-templates", "/zen-policy:policy/cflowd-template", "collectors",
     "/zen-policy:policy/cflowd-template/collector"},
};

}  // namespace

// The source tree's examples, else the installed ones next to the program
// (BINDIR/../share/libpolicy/examples), else those of the configured prefix.
std::string examples_dir()
{
    if (access(POLCTL_SOURCE_EXAMPLES "/policy.xml", R_OK) == 0) {
        return POLCTL_SOURCE_EXAMPLES;
    }
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n > 0) {
        exe[n] = '\0';
        std::string dir(exe);
        dir = dir.substr(0, dir.rfind('/'));
        dir = dir.substr(0, dir.rfind('/')) + "/share/libpolicy/examples";
        if (access((dir + "/policy.xml").c_str(), R_OK) == 0) {
            return dir;
        }
    }
    return POLCTL_INSTALL_EXAMPLES;
}


int cmd_check(const options &opt, const std::string &config, std::ostream &out,
              std::ostream &err)
{
    set_logging(opt, err);
    host h;
    if (!start_host(h, err)) {
        return EXIT_INPUT;
    }
    std::vector<input_error> errors;
    mgmtd_ds_tree_t *tree = nullptr;
    // Per row: the nodes, then their entries when the row counts them.
    std::vector<std::pair<std::string, long>> counts;
    if (mgmtd_ds_load(h.ds(), config.c_str(), &tree) != MGMTD_DS_OK) {
        errors.push_back(ds_error(config, mgmtd_ds_error(h.ds())));
    } else {
        for (const count_row &row : kCountRows) {
            counts.emplace_back(row.what, mgmtd_ds_tree_count(tree, row.xpath));
            if (row.entries_xpath != nullptr) {
                counts.emplace_back(std::string(row.what) + "." + row.entries_what,
                                    mgmtd_ds_tree_count(tree, row.entries_xpath));
            }
        }
        // The library must take it too.
        std::string message;
        if (h.commit(tree, &message) != MGMTD_DS_OK) {
            errors.push_back(ds_error(config, message));
        }
    }
    report_errors(errors, err);
    const uint32_t delivered = errors.empty() ? mgmtd_ds_delivered(h.ds()) : 0;
    if (opt.json) {
        json_writer j;
        j.begin_object()
            .field("command", "check")
            .field("config", config)
            .field("valid", errors.empty());
        j.key("counts").begin_object();
        for (const auto &c : counts) {
            j.field(c.first, static_cast<int64_t>(c.second));
        }
        j.end().field("callbacks", delivered);
        json_errors(j, errors);
        out << j.end().str();
    } else if (errors.empty()) {
        out << config << ": valid, " << delivered << " callbacks\n";
        for (size_t i = 0; i < counts.size(); i++) {
            char line[128];
            const bool has_entries =
                i + 1 < counts.size() && counts[i + 1].first.find('.') != std::string::npos;
            if (has_entries) {
                const auto &entries = counts[++i];
                std::snprintf(line, sizeof(line), "  %-26s %4ld  (%ld %s)\n",
                              counts[i - 1].first.c_str(), counts[i - 1].second, entries.second,
                              entries.first.substr(entries.first.find('.') + 1).c_str());
            } else {
                std::snprintf(line, sizeof(line), "  %-26s %4ld\n", counts[i].first.c_str(),
                              counts[i].second);
            }
            out << line;
        }
    }
    return errors.empty() ? EXIT_OK : EXIT_INPUT;
}

int cmd_show(const options &opt, const std::string &what, const std::string &config,
             const std::string &routes, std::ostream &out, std::ostream &err)
{
    static const std::set<std::string> kWhat = {"policies", "lists", "users", "memory"};
    if (kWhat.count(what) == 0) {
        err << "polctl: show what? (policies, lists, users or memory), not \"" << what << "\"\n";
        return EXIT_USAGE;
    }
    host h;
    if (int rc = start_and_commit(h, opt, "show", config, out, err); rc != EXIT_OK) {
        return rc;
    }
    std::vector<input_error> errors;
    routes_file rf;
    if (!routes.empty()) {
        read_routes_file(routes, &rf);
        errors = rf.errors;
        register_users(h, rf, &errors);
    }
    std::stable_sort(errors.begin(), errors.end(), line_order);
    report_errors(errors, err);
    char arg0[] = "show";
    char *argv[] = {arg0, nullptr};
    const std::string text = capture_dump([&](struct mgmtd_cli_user_info *cli) {
        if (what == "policies") {
            pol_dump_route_policies(cli, 1, argv);
            pol_dump_membership_policies(cli, 1, argv);
            pol_dump_policies(cli, POL_TYPE_DATA);
            pol_dump_policies(cli, POL_TYPE_PFR);
            pol_dump_cflowd_policies(cli, 1, argv);
        } else if (what == "lists") {
            pol_dump_pfx_list_all(cli);
            pol_dump_site_list_all(cli);
            pol_dump_vpn_list_all(cli);
            pol_dump_tloc_list_all(cli);
            pol_dump_color_list_all(cli);
            pol_dump_community_list_all(cli);
            pol_dump_expanded_community_list_all(cli);
            pol_dump_fwd_pfx_list_all(cli);
            pol_dump_fwd_pfx6_list_all(cli);
            pol_dump_app_list_all(cli);
            pol_dump_app_probe_class_all(cli);
            pol_dump_fwd_app_id_all(cli);
            pol_dump_fwd_sla_class_all(cli);
            pol_dump_fwd_policer_all(cli);
        } else if (what == "users") {
            pol_cli_dump_heading(cli, "USERS");
            for (auto *user = static_cast<t_pol_user *>(avl_first(&h.ctx()->pol_users));
                 user != nullptr;
                 user = static_cast<t_pol_user *>(AVL_NEXT(&h.ctx()->pol_users, user))) {
                pol_dump_user(user, cli);
            }
            pol_dump_users_change_list(cli, 1, argv);
        } else {
            pol_dump_memory_info(cli, 1, argv);
        }
    });
    if (opt.json) {
        json_writer j;
        j.begin_object()
            .field("command", "show")
            .field("what", what)
            .field("config", config)
            .field("text", text);
        json_errors(j, errors);
        out << j.end().str();
    } else {
        out << text << "\n";
    }
    return errors.empty() ? EXIT_OK : EXIT_INPUT;
}


}  // namespace polctl
