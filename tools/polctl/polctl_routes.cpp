// Reader of the routes file. Every line is checked whole before it counts:
// a line with any problem is reported with its number and left out.
#include "polctl_routes.hpp"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include <zen/zen_util.h>

namespace polctl {

namespace {

struct origin_name {
    const char *name;
    uint8_t proto;
    uint8_t sub_type;
};

// Route origins by name: (protocol, subtype) as the routing daemons report them.
constexpr origin_name kOrigins[] = {
    {"static", 1, 0},
    {"connected", 2, 0},
    {"bgp-internal", 3, 1},
    {"bgp-external", 3, 2},
    {"ospf-intra-area", 4, 1},
    {"ospf-inter-area", 4, 2},
    {"ospf-external1", 4, 3},
    {"ospf-external2", 4, 4},
    {"ospf-nssa-external1", 4, 5},
    {"ospf-nssa-external2", 4, 6},
    {"eigrp", 5, 0},
    {"rip", 8, 0},
};

bool parse_origin(const std::string &text, t_zen_origin *origin)
{
    for (const origin_name &o : kOrigins) {
        if (text == o.name) {
            origin->proto = o.proto;
            origin->proto_sub_type = o.sub_type;
            return true;
        }
    }
    const size_t slash = text.find('/');
    uint64_t proto = 0;
    uint64_t sub = 0;
    if (slash == std::string::npos || !parse_number(text.substr(0, slash), 255, &proto) ||
        !parse_number(text.substr(slash + 1), 255, &sub)) {
        return false;
    }
    origin->proto = static_cast<uint8_t>(proto);
    origin->proto_sub_type = static_cast<uint8_t>(sub);
    return true;
}

bool parse_carrier(const std::string &text, uint8_t *carrier)
{
    if (text == "default") {
        *carrier = 0;
        return true;
    }
    uint64_t n = 0;
    if (text.rfind("carrier", 0) == 0 && parse_number(text.substr(7), 8, &n) && n >= 1) {
        *carrier = static_cast<uint8_t>(n);
        return true;
    }
    return false;
}

std::vector<std::string> split_commas(const std::string &text)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        out.push_back(text.substr(start, comma == std::string::npos ? comma : comma - start));
        if (comma == std::string::npos) {
            return out;
        }
        start = comma + 1;
    }
}

bool parse_community(const std::string &text, uint32_t *value)
{
    community_token kind = community_token_unknown;
    const char *end = community_gettoken(text.c_str(), &kind, value);
    return kind != community_token_unknown && end != nullptr && *end == '\0';
}

// "device controller|edge"
void read_device(line_reader &in, routes_file *out, bool *seen)
{
    std::string word;
    if (!in.next("device kind (controller or edge)", &word)) {
        return;
    }
    if (*seen) {
        in.fail("the device kind is given twice");
    } else if (word == "controller") {
        out->device = ZEN_DEVICE_QARMON;
    } else if (word == "edge") {
        out->device = ZEN_DEVICE_RIMBA;
    } else {
        in.fail("unknown device kind \"" + word + "\" (controller or edge)");
    }
    *seen = in.error().empty();
}

// "user NAME policy POLICY type route|control|membership dir in|out"
void read_user(line_reader &in, routes_file *out)
{
    user_decl user;
    std::string type = "route";
    std::string dir;
    if (!in.next("user name", &user.name)) {
        return;
    }
    std::map<std::string, std::string> fields;
    while (!in.done()) {
        std::string key;
        std::string value;
        in.next("keyword", &key);
        if (key != "policy" && key != "type" && key != "dir") {
            in.fail("unknown user keyword \"" + key + "\" (policy, type, dir)");
            return;
        }
        if (!in.next(("value of " + key).c_str(), &value)) {
            return;
        }
        fields[key] = value;
    }
    if (fields.count("policy") == 0 || fields.count("dir") == 0) {
        in.fail("a user needs a policy and a dir");
        return;
    }
    user.policy = fields["policy"];
    type = fields.count("type") != 0 ? fields["type"] : type;
    dir = fields["dir"];
    if (type == "route" || type == "control") {
        user.type = POL_TYPE_ROUTE;
    } else if (type == "membership") {
        user.type = POL_TYPE_MEMBERSHIP;
    } else {
        in.fail("unknown policy type \"" + type + "\" (route, control or membership)");
        return;
    }
    if (dir == "in") {
        user.dir = POL_DIR_IN;
    } else if (dir == "out") {
        user.dir = POL_DIR_OUT;
    } else {
        in.fail("unknown direction \"" + dir + "\" (in or out)");
        return;
    }
    if (user.name.size() >= POL_NAME_SIZE || user.policy.size() >= POL_NAME_SIZE) {
        in.fail("user or policy name longer than 127 characters");
        return;
    }
    for (const user_decl &other : out->users) {
        if (other.name == user.name) {
            in.fail("user \"" + user.name + "\" is declared twice (line " +
                    std::to_string(other.line) + ")");
            return;
        }
    }
    out->users.push_back(user);
}

// "label TLOC NUMBER" or "unreachable TLOC"
void read_label(line_reader &in, routes_file *out, bool unreachable)
{
    label_decl decl;
    decl.unreachable = unreachable;
    std::string word;
    if (!in.next("TLOC (address:color:encap)", &word)) {
        return;
    }
    if (!parse_tloc(word, &decl.tloc)) {
        in.fail("bad TLOC \"" + word + "\" (address:color:encap)");
        return;
    }
    if (!unreachable) {
        uint64_t label = 0;
        if (!in.next("label", &word)) {
            return;
        }
        if (!parse_number(word, UINT32_MAX, &label)) {
            in.fail("bad label \"" + word + "\"");
            return;
        }
        decl.label = static_cast<uint32_t>(label);
    }
    if (in.expect_end()) {
        out->labels.push_back(decl);
    }
}

// One attribute of a route: keyword and value.
bool read_attribute(line_reader &in, route_decl *route)
{
    std::string key;
    std::string value;
    in.next("attribute", &key);
    if (!in.next(("value of " + key).c_str(), &value)) {
        return false;
    }
    t_zen_attr &attr = route->attr;
    uint64_t n = 0;
    auto number = [&](uint64_t max) {
        return parse_number(value, max, &n) || in.fail("bad number \"" + value + "\" for " + key);
    };
    if (key == "site" || key == "preference" || key == "tag" || key == "domain" ||
        key == "metric" || key == "label") {
        if (!number(UINT32_MAX)) {
            return false;
        }
        const auto v = static_cast<uint32_t>(n);
        if (key == "site") {
            attr.site_id = v;
            attr.attr_flags |= ZEN_ATTR_FLAG_SITE_ID;
        } else if (key == "preference") {
            attr.preference = v;
            attr.attr_flags |= ZEN_ATTR_FLAG_PREFERENCE;
        } else if (key == "tag") {
            attr.tag = v;
            attr.attr_flags |= ZEN_ATTR_FLAG_TAG;
        } else if (key == "domain") {
            attr.domain_id = v;
            attr.attr_flags |= ZEN_ATTR_FLAG_DOMAIN_ID;
        } else if (key == "metric") {
            attr.origin.proto_metric = v;
            attr.attr_flags |= ZEN_ATTR_FLAG_ORIGIN_METRIC;
        } else {
            route->in_label = v;
        }
        return true;
    }
    if (key == "tloc") {
        if (!parse_tloc(value, &attr.tloc)) {
            return in.fail("bad TLOC \"" + value + "\" (address:color:encap)");
        }
        attr.attr_flags |= ZEN_ATTR_FLAG_TLOC;
        return true;
    }
    if (key == "origin") {
        if (!parse_origin(value, &attr.origin)) {
            return in.fail("unknown origin \"" + value + "\"");
        }
        attr.attr_flags |= ZEN_ATTR_FLAG_ORIGIN;
        return true;
    }
    if (key == "originator") {
        struct in_addr v4;
        if (inet_pton(AF_INET, value.c_str(), &v4) != 1) {
            return in.fail("bad originator \"" + value + "\" (an IPv4 address)");
        }
        attr.originator = v4.s_addr;
        attr.attr_flags |= ZEN_ATTR_FLAG_ORIGINATOR;
        return true;
    }
    if (key == "carrier") {
        if (!parse_carrier(value, &attr.carrier)) {
            return in.fail("unknown carrier \"" + value + "\" (default, carrier1 to carrier8)");
        }
        attr.attr_flags |= ZEN_ATTR_FLAG_CARRIER;
        return true;
    }
    if (key == "group") {
        // A repeated group attribute adds to the groups named before it.
        const std::vector<std::string> groups = split_commas(value);
        if (groups.size() + attr.group_count > ZEN_ATTR_MAX_GROUPS) {
            return in.fail("more than 16 groups");
        }
        for (const std::string &g : groups) {
            if (!parse_number(g, UINT32_MAX, &n)) {
                return in.fail("bad group \"" + g + "\"");
            }
            attr.group_list[attr.group_count++] = static_cast<uint32_t>(n);
        }
        attr.attr_flags |= ZEN_ATTR_FLAG_GROUP;
        return true;
    }
    if (key == "community") {
        for (const std::string &c : split_commas(value)) {
            uint32_t community = 0;
            if (!parse_community(c, &community)) {
                return in.fail("bad community \"" + c + "\"");
            }
            route->communities.push_back(community);
        }
        route->has_communities = true;
        return true;
    }
    return in.fail("unknown route attribute \"" + key + "\"");
}

// "route USER vroute PREFIX vpn N ...", "route USER tloc TLOC ...",
// "route USER service vpn N ..."
void read_route(line_reader &in, routes_file *out, int line)
{
    route_decl route;
    route.line = line;
    std::string kind;
    std::string word;
    if (!in.next("user name", &route.user) || !in.next("route kind", &kind)) {
        return;
    }
    route.text = in.rest_from(2);
    uint64_t vpn = 0;
    if (kind == "vroute") {
        route.safi = POL_SAFI_VROUTE;
        if (!in.next("prefix", &word)) {
            return;
        }
        if (!parse_prefix(word, &route.prefix)) {
            in.fail("bad prefix \"" + word + "\"");
            return;
        }
        route.afi = IPADDR_IS_V4(&route.prefix.addr) ? 1 : 2;
    } else if (kind == "tloc") {
        route.safi = POL_SAFI_TLOC;
        if (!in.next("TLOC", &word)) {
            return;
        }
        if (!parse_tloc(word, &route.route_tloc)) {
            in.fail("bad TLOC \"" + word + "\" (address:color:encap)");
            return;
        }
        route.afi = IPADDR_IS_V4(&route.route_tloc.addr) ? 1 : 2;
    } else if (kind == "service") {
        route.safi = POL_SAFI_SERVICE;
    } else {
        in.fail("unknown route kind \"" + kind + "\" (vroute, tloc or service)");
        return;
    }
    if (kind != "tloc") {
        if (!in.next("vpn", &word)) {
            return;
        }
        if (word != "vpn") {
            in.fail("expected \"vpn\", not \"" + word + "\"");
            return;
        }
        if (!in.next("VPN id", &word)) {
            return;
        }
        if (!parse_number(word, UINT32_MAX, &vpn)) {
            in.fail("bad VPN id \"" + word + "\"");
            return;
        }
        route.vpn = vpn;
    }
    while (!in.done()) {
        if (!read_attribute(in, &route)) {
            return;
        }
    }
    out->routes.push_back(route);
}

}  // namespace

const char *device_name(e_zen_device device)
{
    switch (device) {
    case ZEN_DEVICE_QARMON:
        return "controller";
    case ZEN_DEVICE_RIMBA:
        return "edge";
    default:
        return "other";
    }
}

bool read_routes_file(const std::string &path, routes_file *out)
{
    out->path = path;
    bool device_seen = false;
    return read_statements(path, "routes file", &out->errors, [&](int line, line_reader &in) {
        std::string statement;
        in.next("statement", &statement);
        if (statement == "device") {
            read_device(in, out, &device_seen);
            if (in.error().empty()) {
                in.expect_end();
            }
        } else if (statement == "user") {
            read_user(in, out);
            if (in.error().empty()) {
                out->users.back().line = line;
            }
        } else if (statement == "label" || statement == "unreachable") {
            read_label(in, out, statement == "unreachable");
            if (in.error().empty()) {
                out->labels.back().line = line;
            }
        } else if (statement == "route") {
            read_route(in, out, line);
        } else {
            in.fail("unknown statement \"" + statement +
                    "\" (device, user, label, unreachable or route)");
        }
    });
}

route_execution::route_execution(const route_decl &route, e_zen_device device)
    : device_(device), attr_(route.attr)
{
    if (route.has_communities) {
        const size_t n = route.communities.size();
        communities_ = static_cast<t_bgp_community *>(
            std::calloc(1, sizeof(t_bgp_community) + n * sizeof(uint32_t)));
        if (communities_ != nullptr) {
            communities_->n_communities = static_cast<uint32_t>(n);
            communities_->ref_count = 1;
            std::copy(route.communities.begin(), route.communities.end(),
                      communities_->communities);
            attr_.community_p = communities_;
        }
    }
    pol_pre_execute(&params_, device);
    params_.attr_in_p = &attr_;
    params_.afi = route.afi;
    params_.safi = route.safi;
    if (route.safi == POL_SAFI_VROUTE) {
        params_.u.vroute_info.vpn_id = route.vpn;
        params_.u.vroute_info.prefix = route.prefix;
    } else if (route.safi == POL_SAFI_TLOC) {
        params_.u.tloc_info.tloc = route.route_tloc;
    } else {
        params_.u.service_info.vpn_id = route.vpn;
    }
    params_.in_label = route.in_label;
    params_.te_info_p = &te_;
}

// Only a controller's post-execution releases the export buffer; on other
// devices the host gives it back.
route_execution::~route_execution()
{
    t_pol_exec_vpn_entry *vpn_buffer = params_.vpn_list.vpn_list_p;
    pol_post_execute(&params_);
    if (device_ != ZEN_DEVICE_QARMON && vpn_buffer != nullptr) {
        pol_free(vpn_buffer, POL_MEM_LIST_VPN_1);
    }
    std::free(communities_);
}

}  // namespace polctl
