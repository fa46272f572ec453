// polctl diff: every callback that committing a second configuration
// after a first delivers, and the users it notifies.
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
}  // namespace

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


}  // namespace polctl
