// The commands of polctl: run routes through a committed configuration,
// show what a commit delivers, check a configuration, show the library's
// dumps. Text output is meant for people and golden files alike: it holds
// no addresses of memory and no times.
#include "polctl_cmd.hpp"

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

namespace {

/* ---- library log lines ---- */

std::ostream *g_log_stream = nullptr;

void log_sink(int, const char *text)
{
    if (g_log_stream != nullptr) {
        *g_log_stream << "log: " << text << "\n";
    }
}

// The library's log lines go to err at a debug level above 0, nowhere otherwise.
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

std::string join(const std::vector<std::string> &items, const char *sep = " ")
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
    t_zen_attr attr = route.attr;
    t_bgp_community *communities = nullptr;
    if (route.has_communities) {
        const size_t n = route.communities.size();
        communities = static_cast<t_bgp_community *>(
            std::calloc(1, sizeof(t_bgp_community) + n * sizeof(uint32_t)));
        communities->n_communities = static_cast<uint32_t>(n);
        communities->ref_count = 1;
        std::copy(route.communities.begin(), route.communities.end(), communities->communities);
        attr.community_p = communities;
    }
    t_pol_te_info te;
    std::memset(&te, 0, sizeof(te));
    t_pol_exec_params params;
    pol_pre_execute(&params, device);
    params.attr_in_p = &attr;
    params.afi = route.afi;
    params.safi = route.safi;
    if (route.safi == POL_SAFI_VROUTE) {
        params.u.vroute_info.vpn_id = route.vpn;
        params.u.vroute_info.prefix = route.prefix;
    } else if (route.safi == POL_SAFI_TLOC) {
        params.u.tloc_info.tloc = route.route_tloc;
    } else {
        params.u.service_info.vpn_id = route.vpn;
    }
    params.in_label = route.in_label;
    params.te_info_p = &te;

    r.verdict = pol_execute(handle, &params);
    r.matched = match_words(params.entry_match_flags);
    r.sets = set_words(params.entry_set_flags);
    for (const attr_field &field : kAttrFields) {
        const std::string from = present_text(attr, field);
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
    t_pol_exec_vpn_entry *vpn_buffer = params.vpn_list.vpn_list_p;
    pol_post_execute(&params);
    // Only a controller's post-execution releases the export buffer; on
    // other devices the host gives it back.
    if (device != ZEN_DEVICE_QARMON && vpn_buffer != nullptr) {
        pol_free(vpn_buffer, POL_MEM_LIST_VPN_1);
    }
    std::free(communities);
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

/* ---- diff ---- */

// One value handed to a callback, with the container depth it sits at.
struct value_record {
    std::string name;
    uint32_t tag;
    std::string type;
    std::string text;  // empty for container marks and removed leaves
    int depth;

    std::string hex_tag() const
    {
        char hex[16];
        std::snprintf(hex, sizeof(hex), "0x%08" PRIx32, tag);
        return hex;
    }

    // "name 0x0369ffb7 C_ENUM_VALUE 0", indented by depth.
    std::string line() const
    {
        return std::string(2 * static_cast<size_t>(depth), ' ') + name + " " + hex_tag() + " " +
               type + (text.empty() ? "" : " " + text);
    }
};

struct callback_record {
    std::string path;
    std::string sub;
    int32_t arg;
    mgmtd_iter_op oper;
    std::vector<std::string> keys;  // "C_BUF hub"
    std::vector<value_record> values;
    int32_t status;
    std::vector<notification> notified;
};

struct diff_trace {
    host *h;
    std::vector<callback_record> records;
};

std::string value_text(const mgmtd_value_t &v)
{
    if (v.type == C_XMLBEGIN || v.type == C_XMLEND || v.type == C_NOEXISTS) {
        return "";
    }
    char buf[1024];
    return mgmtd_value_print(&v, buf, sizeof(buf));
}

void on_trace(void *trace_ctx_p, const char *node_path, const mgmtd_ds_sub_t *sub,
              mgmtd_iter_op oper, uint8_t num_keys, const mgmtd_value_t *key_p,
              uint32_t num_values, const mgmtd_tag_value_t *val_p, int32_t status)
{
    auto *trace = static_cast<diff_trace *>(trace_ctx_p);
    callback_record rec;
    rec.path = node_path;
    rec.sub = sub->name;
    rec.arg = sub->arg;
    rec.oper = oper;
    rec.status = status;
    for (uint8_t i = 0; i < num_keys; i++) {
        rec.keys.push_back(std::string(mgmtd_value_type_name(key_p[i].type)) + " " +
                           value_text(key_p[i]));
    }
    int depth = 0;
    for (uint32_t i = 0; i < num_values; i++) {
        const mgmtd_tag_value_t &tv = val_p[i];
        if (tv.v.type == C_XMLEND && depth > 0) {
            depth--;
        }
        const char *name = mgmtd_ds_tag_name(trace->h->ds(), tv.tag.tag);
        rec.values.push_back({name != nullptr ? name : "?", tv.tag.tag,
                              mgmtd_value_type_name(tv.v.type), value_text(tv.v), depth});
        if (tv.v.type == C_XMLBEGIN) {
            depth++;
        }
    }
    rec.notified = trace->h->take_notifications();
    trace->records.push_back(std::move(rec));
}

struct commit_report {
    std::string file;
    std::vector<callback_record> callbacks;
    std::vector<notification> after;  // notified after the last callback
    std::string error;
    int status = MGMTD_DS_OK;
};

void print_commit_text(int number, const commit_report &c, std::ostream &out)
{
    out << "commit " << number << ": " << c.file << "\n";
    size_t notified = 0;
    for (size_t i = 0; i < c.callbacks.size(); i++) {
        const callback_record &rec = c.callbacks[i];
        out << "  #" << i + 1 << " " << mgmtd_iter_op_name(rec.oper) << " " << rec.sub << " " << rec.path
            << (rec.arg != 0 ? " arg " + std::to_string(rec.arg) : "")
            << (rec.status != 0 ? " status " + std::to_string(rec.status) : "") << "\n";
        out << "     keys: " << (rec.keys.empty() ? "-" : join(rec.keys, ", ")) << "\n";
        for (const value_record &v : rec.values) {
            out << "     value " << v.line() << "\n";
        }
        for (const notification &n : rec.notified) {
            out << "     notify " << n.user << " (policy " << n.policy << ")\n";
        }
        notified += rec.notified.size();
    }
    for (const notification &n : c.after) {
        out << "  notify " << n.user << " (policy " << n.policy << ")\n";
    }
    notified += c.after.size();
    if (!c.error.empty()) {
        out << "  error: " << c.error << "\n";
    }
    out << "  " << c.callbacks.size() << " callbacks, " << notified << " notifications\n";
}

void print_commit_json(json_writer &j, const commit_report &c)
{
    j.begin_object().field("file", c.file).key("callbacks").begin_array();
    for (const callback_record &rec : c.callbacks) {
        j.begin_object()
            .field("operation", mgmtd_iter_op_name(rec.oper))
            .field("subscription", rec.sub)
            .field("path", rec.path)
            .field("arg", static_cast<int64_t>(rec.arg))
            .field("status", static_cast<int64_t>(rec.status));
        j.string_array("keys", rec.keys).key("values").begin_array();
        for (const value_record &v : rec.values) {
            j.begin_object()
                .field("name", v.name)
                .field("tag", v.hex_tag())
                .field("type", v.type)
                .field("depth", v.depth);
            if (!v.text.empty()) {
                j.field("value", v.text);
            }
            j.end();
        }
        j.end();
        j.key("notified").begin_array();
        for (const notification &n : rec.notified) {
            j.begin_object().field("user", n.user).field("policy", n.policy).end();
        }
        j.end().end();
    }
    j.end().key("notified_after").begin_array();
    for (const notification &n : c.after) {
        j.begin_object().field("user", n.user).field("policy", n.policy).end();
    }
    j.end();
    if (c.error.empty()) {
        j.key("error").null();
    } else {
        j.field("error", c.error);
    }
    j.end();
}

// A watcher user on every policy a configuration names.
void watch_policies(host &h, const mgmtd_ds_tree_t *tree, std::set<std::string> *watched)
{
    struct kind {
        const char *xpath;
        e_pol_type type;
        e_pol_dir dir;
    };
    static constexpr kind kKinds[] = {
        {"/zen-policy:policy/control-policy/name", POL_TYPE_ROUTE, POL_DIR_OUT},
        {"/zen-policy:policy/route-policy/name", POL_TYPE_ROUTE, POL_DIR_OUT},
        {"/zen-policy:policy/membership-policy/name", POL_TYPE_MEMBERSHIP, POL_DIR_IN},
    };
    for (const kind &k : kKinds) {
        std::vector<std::string> names;
        mgmtd_ds_tree_foreach(
            tree, k.xpath,
            [](void *ctx, const char *value) {
                static_cast<std::vector<std::string> *>(ctx)->push_back(value);
            },
            &names);
        for (const std::string &name : names) {
            const std::string key = std::to_string(k.type) + "/" + name;
            if (watched->insert(key).second) {
                h.register_user("watch:" + name, name, k.type, k.dir);
            }
        }
    }
}

/* ---- check ---- */

struct count_row {
    const char *what;
    const char *xpath;
    const char *entries_what;
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
};

/* ---- show ---- */

// What the library's dump commands print for one CLI session.
template <typename Fn>
std::string capture_dump(Fn &&dump)
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

int cmd_diff(const options &opt, const std::string &old_config, const std::string &new_config,
             std::ostream &out, std::ostream &err)
{
    set_logging(opt, err);
    host h;
    if (!start_host(h, err)) {
        return EXIT_INPUT;
    }
    diff_trace trace{&h, {}};
    mgmtd_ds_set_trace(h.ds(), on_trace, &trace);
    std::set<std::string> watched;
    std::vector<commit_report> commits;
    std::vector<input_error> errors;
    for (const std::string &file : {old_config, new_config}) {
        commit_report c;
        c.file = file;
        mgmtd_ds_tree_t *tree = nullptr;
        c.status = mgmtd_ds_load(h.ds(), file.c_str(), &tree);
        if (c.status == MGMTD_DS_OK) {
            watch_policies(h, tree, &watched);
            h.take_notifications();
            c.status = h.commit(tree, &c.error);
        } else {
            c.error = mgmtd_ds_error(h.ds());
        }
        if (c.status != MGMTD_DS_OK) {
            errors.push_back(ds_error(file, c.error));
        }
        c.callbacks = std::move(trace.records);
        trace.records.clear();
        c.after = h.take_notifications();
        commits.push_back(std::move(c));
        if (commits.back().status != MGMTD_DS_OK) {
            break;
        }
    }
    report_errors(errors, err);
    if (opt.json) {
        json_writer j;
        j.begin_object().field("command", "diff").key("commits").begin_array();
        for (const commit_report &c : commits) {
            print_commit_json(j, c);
        }
        j.end();
        json_errors(j, errors);
        out << j.end().str();
    } else {
        for (size_t i = 0; i < commits.size(); i++) {
            print_commit_text(static_cast<int>(i + 1), commits[i], out);
        }
        if (!errors.empty()) {
            out << "running configuration: as after the last commit that completed\n";
        }
    }
    return errors.empty() ? EXIT_OK : EXIT_INPUT;
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
    std::vector<std::pair<std::string, long>> counts;
    if (mgmtd_ds_load(h.ds(), config.c_str(), &tree) != MGMTD_DS_OK) {
        errors.push_back(ds_error(config, mgmtd_ds_error(h.ds())));
    } else {
        for (const count_row &row : kCountRows) {
            counts.emplace_back(row.what, mgmtd_ds_tree_count(tree, row.xpath));
            counts.emplace_back(std::string(row.what) + "." + row.entries_what,
                                mgmtd_ds_tree_count(tree, row.entries_xpath));
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
        for (size_t i = 0; i + 1 < counts.size(); i += 2) {
            char line[128];
            std::snprintf(line, sizeof(line), "  %-26s %4ld  (%ld %s)\n", counts[i].first.c_str(),
                          counts[i].second, counts[i + 1].second,
                          counts[i + 1].first.substr(counts[i + 1].first.find('.') + 1).c_str());
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
        } else if (what == "lists") {
            pol_dump_pfx_list_all(cli);
            pol_dump_site_list_all(cli);
            pol_dump_vpn_list_all(cli);
            pol_dump_tloc_list_all(cli);
            pol_dump_color_list_all(cli);
            pol_dump_community_list_all(cli);
            pol_dump_expanded_community_list_all(cli);
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
