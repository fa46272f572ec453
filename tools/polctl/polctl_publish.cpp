// The commands of polctl that carry the data side to an edge router
// through the management daemon (zen-mgmtd): publish, on the controller's
// side, assembles the payload of the policies one edge uses; load, on the
// edge's side, wraps it, filters it against the daemon's schema and loads
// it as configuration and as show data; show-data reads the show data back.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <zen/maapi.h>

#include "pol_publish.hpp"
#include "polctl_cmd_internal.hpp"

namespace polctl {

using namespace cmd_detail;

namespace {

/* ---- publish ---- */

constexpr const char *kEdgesPath = "/zen-policy:policy/apply-policy/edge";

// The leaves of an edge's entry, and the policy each names as the library
// registers it.
struct policy_slot {
    const char *leaf;
    e_pol_type type;
    e_pol_dir dir;
};

// In the order pol_fwd_policy_populate takes them.
constexpr policy_slot kSlots[] = {
    {"data-policy-from-service", POL_TYPE_DATA, POL_DIR_IN},
    {"data-policy-from-tunnel", POL_TYPE_DATA, POL_DIR_OUT},
    {"app-route-policy", POL_TYPE_PFR, POL_DIR_NONE},
    {"cflowd-template", POL_TYPE_CFLOWD, POL_DIR_NONE},
};
constexpr size_t kNumSlots = std::size(kSlots);

// Every leaf text an XPath expression selects in the running configuration.
std::vector<std::string> running_values(const host &h, const std::string &xpath)
{
    std::vector<std::string> values;
    mgmtd_ds_running_foreach(
        h.ds(), xpath.c_str(),
        [](void *ctx, const char *value) { static_cast<std::vector<std::string> *>(ctx)->push_back(value); },
        &values);
    return values;
}

// The policy name of each slot of a committed edge's entry ("" for none).
std::vector<std::string> edge_policies(const host &h, const std::string &edge)
{
    std::vector<std::string> names;
    for (const policy_slot &slot : kSlots) {
        // The edge name comes from the datastore, whose names hold no quote.
        const auto values = running_values(h, std::string(kEdgesPath) + "[name='" + edge + "']/" + slot.leaf);
        names.push_back(values.empty() ? std::string() : values.front());
    }
    return names;
}

// Registers the edge as a user of each policy and assembles its payload:
// ERR_OK with the text, or the library's error.
int assemble_payload(host &h, const std::string &edge, const std::vector<std::string> &policies,
                     std::string *payload)
{
    t_pol_user *users[kNumSlots] = {};
    for (size_t i = 0; i < kNumSlots; i++) {
        if (policies[i].empty()) {
            continue;
        }
        user_record *u = h.register_user("edge " + edge, policies[i], kSlots[i].type, kSlots[i].dir);
        if (u == nullptr) {
            return ERR_NOT_FOUND;
        }
        users[i] = u->handle;
    }
    pol_fwd_queue_xml_config(h.ctx(), 1);
    uint32_t size = 0;
    char *xml = nullptr;
    const int rc = pol_fwd_policy_populate(users[0], users[1], users[2], users[3], &size, &xml);
    if (rc == ERR_OK && xml != nullptr) {
        payload->assign(xml, size);
    }
    pol_free(xml, POL_MEM_XML_1);
    return rc;
}

/* ---- the daemon ---- */

struct daemon_address {
    explicit daemon_address(int port)
    {
        in.sin_family = AF_INET;
        in.sin_port = htons(static_cast<uint16_t>(port));
        in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    const sockaddr *addr() const { return reinterpret_cast<const sockaddr *>(&in); }
    sockaddr_in in{};
};

// A connection to the daemon, closed at the end of its scope.
class daemon_conn {
public:
    daemon_conn() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~daemon_conn()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    daemon_conn(const daemon_conn &) = delete;
    daemon_conn &operator=(const daemon_conn &) = delete;

    // Opens a management or data connection; false with the reason.
    bool open(int port, bool data, std::string *why)
    {
        const daemon_address a(port);
        const int rc = fd_ < 0 ? MGMTD_ERR
                       : data  ? cdb_connect(fd_, CDB_DATA_SOCKET, a.addr(), sizeof a.in)
                               : maapi_connect(fd_, a.addr(), sizeof a.in);
        if (rc != MGMTD_OK) {
            *why = "the management daemon does not answer on 127.0.0.1:" + std::to_string(port) +
                   " (socket error: " + (fd_ < 0 ? std::strerror(errno) : mgmtd_lasterr()) + ")";
            return false;
        }
        return true;
    }
    int fd() const { return fd_; }

private:
    int fd_;
};

int daemon_failure(const options &opt, const char *command, int port, const std::string &message,
                   std::ostream &out, std::ostream &err)
{
    err << "polctl: " << command << ": " << message << "\n";
    if (opt.json) {
        json_writer j;
        j.begin_object().field("command", command).field("port", port).field("error", message);
        out << j.end().str();
    }
    return EXIT_INPUT;
}

/* ---- load ---- */

// What the library logs while loading: the paths the compatibility filter
// pruned, and every line for --debug.
struct load_log {
    std::vector<std::string> pruned;
    std::ostream *echo = nullptr;
};

load_log *g_load_log = nullptr;

void load_log_sink(int, const char *text)
{
    if (g_load_log == nullptr) {
        return;
    }
    if (g_load_log->echo != nullptr) {
        *g_load_log->echo << "log: " << text << "\n";
    }
    static const char kIncompat[] = "[POL] Incompat xpath: ";
    const char *path = std::strstr(text, kIncompat);
    if (path == nullptr) {
        return;
    }
    // The path inside the payload: without the wrapper's steps and the
    // namespace prefix of every step. Both wrappings prune the same paths.
    std::string shown(path + sizeof(kIncompat) - 1);
    const std::string prefix = POL_XML_NS_PREFIX ":";
    for (size_t at = shown.find(prefix); at != std::string::npos; at = shown.find(prefix, at)) {
        shown.erase(at, prefix.size());
    }
    for (const char *wrapper : {"/policy-from-qarmon", "/policy/from-qarmon"}) {
        if (shown.rfind(wrapper, 0) == 0) {
            shown.erase(0, std::strlen(wrapper));
        }
    }
    std::vector<std::string> &pruned = g_load_log->pruned;
    if (std::find(pruned.begin(), pruned.end(), shown) == pruned.end()) {
        pruned.push_back(shown);
    }
}

// Points the library's load calls at the daemon's port and a show data
// file of its own, and its log lines at a load_log, for one load.
class load_session {
public:
    load_session(int port, load_log *log)
    {
        char tmpl[] = "/tmp/polctl-load-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) {
            dir_ = tmpl;
        }
        show_file_ = dir_ + "/show_fwd_pol_data.xml";
        pol::publish::settings s = pol::publish::default_settings();
        s.port = port;
        s.show_data_file = show_file_.c_str();
        pol::publish::set_settings(s);
        g_load_log = log;
        pol_log_set_sink(load_log_sink);
    }
    ~load_session()
    {
        pol_log_set_sink(nullptr);
        g_load_log = nullptr;
        pol::publish::set_settings(pol::publish::default_settings());
        mgmtd_cs_reset();
        std::error_code ec;
        if (!dir_.empty()) {
            std::filesystem::remove_all(dir_, ec);
        }
    }
    load_session(const load_session &) = delete;
    load_session &operator=(const load_session &) = delete;

    bool ok() const { return !dir_.empty(); }

private:
    std::string dir_;
    std::string show_file_;
};

const char *result_name(int rc)
{
    switch (rc) {
    case ERR_OK:
        return "ERR_OK";
    case ERR_SOCKET:
        return "ERR_SOCKET";
    case ERR_MGMTD_FAIL:
        return "ERR_MGMTD_FAIL";
    default:
        return "error";
    }
}

std::string result_text(int rc)
{
    return std::string(result_name(rc)) + " (" + std::to_string(rc) + ")";
}

// One wrapped text as the library hands it over.
std::string wrapped(char *(*wrap)(const char *, uint32_t, uint32_t *), const std::string &payload)
{
    uint32_t size = 0;
    char *text = wrap(payload.c_str(), static_cast<uint32_t>(payload.size()), &size);
    std::string out = text != nullptr ? std::string(text, size) : std::string();
    pol_free(text, POL_MEM_XML_2);
    return out;
}

// The result of one load and, when it failed, the daemon's reason.
struct load_step {
    const char *what = "";
    int rc = ERR_OK;
    std::string reason;
};

template <typename Load>
load_step run_step(const char *what, Load &&load)
{
    mgmtd_errno = MGMTD_ERR_NONE;
    load_step step;
    step.what = what;
    step.rc = load();
    if (step.rc != ERR_OK) {
        step.reason = mgmtd_errno != MGMTD_ERR_NONE
                          ? std::string(mgmtd_strerror(mgmtd_errno)) + ": " + mgmtd_lasterr()
                          : std::string("see the library's log (--debug 1)");
    }
    return step;
}

constexpr const char *kShowDataPath = "/zen-policy-edge:policy/from-qarmon";

// Deletes the whole show data subtree. The library's show delete takes a
// fixed set of subtrees, without the SLA classes and policers a payload
// carries among its lists.
int clear_show_data(int port)
{
    daemon_conn c;
    std::string why;
    if (!c.open(port, true, &why)) {
        return ERR_SOCKET;
    }
    const bool cleared = cdb_start_session2(c.fd(), MGMTD_OPERATIONAL, 0) == MGMTD_OK &&
                         (cdb_num_instances(c.fd(), "%s", kShowDataPath) == 0 ||
                          cdb_delete(c.fd(), "%s", kShowDataPath) == MGMTD_OK);
    return cleared && cdb_end_session(c.fd()) == MGMTD_OK ? ERR_OK : ERR_MGMTD_FAIL;
}

// Wraps and loads the payload: configuration, then, when it took, show
// data. The configuration load replaces the subtree; show data is merged,
// so what an earlier payload left there is deleted first.
std::vector<load_step> load_payload(const std::string &payload, int port)
{
    std::vector<load_step> steps;
    const std::string config = wrapped(pol_fwd_policy_hdr_add, payload);
    steps.push_back(run_step("configuration", [&] {
        return pol_fwd_policy_mgmtd_set(static_cast<uint32_t>(config.size()), config.c_str(), 0);
    }));
    if (steps.back().rc != ERR_OK) {
        return steps;
    }
    const std::string show = wrapped(pol_show_fwd_policy_hdr_add, payload);
    steps.push_back(run_step("show data", [&] {
        const int rc = clear_show_data(port);
        return rc != ERR_OK ? rc : pol_show_fwd_policy_mgmtd_set(show.c_str(), 0);
    }));
    return steps;
}

void report_load(const options &opt, const std::string &file, int port, const std::vector<std::string> &pruned,
                 const std::vector<load_step> &steps, std::ostream &out)
{
    if (opt.json) {
        json_writer j;
        j.begin_object().field("command", "load").field("payload", file).field("port", port);
        j.string_array("pruned", pruned);
        j.key("results").begin_object();
        for (const load_step &s : steps) {
            j.key(s.what).begin_object().field("code", s.rc).field("result", result_name(s.rc));
            if (!s.reason.empty()) {
                j.field("reason", s.reason);
            }
            j.end();
        }
        out << j.end().end().str();
        return;
    }
    out << file << ": loaded into 127.0.0.1:" << port << "\n";
    out << "  pruned: " << (pruned.empty() ? "nothing" : join(pruned, ", ")) << "\n";
    for (const load_step &s : steps) {
        out << "  " << s.what << ": " << result_text(s.rc) << "\n";
    }
}

// A payload is a sequence of elements: well-formed inside one element. On
// failure, e holds libxml2's message and line.
bool well_formed(const std::string &payload, input_error *e)
{
    const std::string doc = "<payload>" + payload + "</payload>";
    xmlDocPtr parsed = xmlReadMemory(doc.c_str(), static_cast<int>(doc.size()), nullptr, nullptr,
                                     XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET);
    if (parsed != nullptr) {
        xmlFreeDoc(parsed);
        return true;
    }
    const xmlError *last = xmlGetLastError();
    e->line = last != nullptr ? last->line : 0;
    std::string message = last != nullptr && last->message != nullptr ? last->message : "not XML";
    while (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    e->message = "the payload is not well-formed XML: " + message;
    return false;
}

bool read_file(const std::string &path, std::string *text)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buf;
    buf << in.rdbuf();
    *text = buf.str();
    return !in.bad();
}

}  // namespace

int cmd_publish(const options &opt, const std::string &config, const std::string &edge, std::ostream &out,
                std::ostream &err)
{
    host h;
    if (int rc = start_and_commit(h, opt, "publish", config, out, err); rc != EXIT_OK) {
        return rc;
    }
    const std::vector<std::string> edges = running_values(h, std::string(kEdgesPath) + "/name");
    if (std::find(edges.begin(), edges.end(), edge) == edges.end()) {
        input_error e;
        e.file = config;
        e.message = "no edge \"" + edge + "\" under apply-policy (edges: " +
                    (edges.empty() ? std::string("none") : join(edges, ", ")) + ")";
        return input_failure(opt, "publish", config, {e}, out, err);
    }
    const std::vector<std::string> policies = edge_policies(h, edge);
    std::string payload;
    if (int rc = assemble_payload(h, edge, policies, &payload); rc != ERR_OK) {
        input_error e;
        e.file = config;
        e.message = "cannot assemble the payload of edge \"" + edge + "\" (error " + std::to_string(rc) + ")";
        return input_failure(opt, "publish", config, {e}, out, err);
    }
    if (opt.json) {
        json_writer j;
        j.begin_object().field("command", "publish").field("config", config).field("edge", edge);
        j.key("policies").begin_object();
        for (size_t i = 0; i < kNumSlots; i++) {
            if (!policies[i].empty()) {
                j.field(kSlots[i].leaf, policies[i]);
            }
        }
        j.end().field("payload", payload);
        out << j.end().str();
    } else {
        out << payload << (payload.empty() || payload.back() == '\n' ? "" : "\n");
    }
    return EXIT_OK;
}

int cmd_load(const options &opt, const std::string &payload_file, int port, std::ostream &out,
             std::ostream &err)
{
    std::string payload;
    if (!read_file(payload_file, &payload)) {
        return input_failure(opt, "load", payload_file, {input_error{payload_file, 0, "cannot read the payload"}},
                             out, err);
    }
    input_error malformed{payload_file, 0, ""};
    if (!well_formed(payload, &malformed)) {
        return input_failure(opt, "load", payload_file, {malformed}, out, err);
    }
    // The filter asks the schema of the daemon of the last connection made:
    // this one, which also tells whether the daemon is there at all.
    daemon_conn probe;
    std::string why;
    if (!probe.open(port, false, &why)) {
        return daemon_failure(opt, "load", port, why, out, err);
    }
    load_log log;
    log.echo = opt.debug > 0 ? &err : nullptr;
    pol_debug_set(opt.debug);
    load_session session(port, &log);
    if (!session.ok()) {
        return daemon_failure(opt, "load", port, "cannot make a directory for the show data", out, err);
    }
    const std::vector<load_step> steps = load_payload(payload, port);
    report_load(opt, payload_file, port, log.pruned, steps, out);
    for (const load_step &s : steps) {
        if (s.rc != ERR_OK) {
            err << "polctl: load: " << s.what << " not loaded: " << result_text(s.rc) << ": " << s.reason << "\n";
            return EXIT_INPUT;
        }
    }
    return EXIT_OK;
}

int cmd_show_data(const options &opt, int port, std::ostream &out, std::ostream &err)
{
    daemon_conn c;
    std::string why;
    if (!c.open(port, true, &why)) {
        return daemon_failure(opt, "show-data", port, why, out, err);
    }
    char *text = nullptr;
    const bool read = cdb_start_session2(c.fd(), MGMTD_OPERATIONAL, 0) == MGMTD_OK &&
                      cdb_get_tree(c.fd(), opt.json ? CDB_TREE_JSON : CDB_TREE_XML, &text, "%s",
                                   kShowDataPath) == MGMTD_OK;
    if (!read) {
        return daemon_failure(opt, "show-data", port,
                              std::string("cannot read the show data: ") + mgmtd_lasterr(), out, err);
    }
    cdb_end_session(c.fd());
    const std::string tree(text);
    std::free(text);
    if (tree.empty()) {
        err << "polctl: show-data: no show data under /policy/from-qarmon\n";
    }
    out << (tree.empty() && opt.json ? "{}\n" : tree);
    return EXIT_OK;
}

}  // namespace polctl
