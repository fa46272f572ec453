// Configuration datastore and commit engine on libyang: strict parsing and
// validation of configuration files, the running tree, and the delivery of
// a commit's changes to the subscribed configuration change callbacks.
// The delivery rules are described in zen/mgmtd_ds.h.
#include <zen/mgmtd_ds.h>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <libyang/libyang.h>
#include <libyang/plugins_types.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

// One subscription with its own copies of the texts.
struct subscription {
    mgmtd_ds_sub_t sub;
    std::string path;
    std::string name;
    const lysc_node *schema;
};

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char *text = nullptr;
    const int n = vasprintf(&text, fmt, ap);
    va_end(ap);
    if (n < 0) {
        return std::string();
    }
    std::string out(text);
    std::free(text);
    return out;
}

// FNV-1a of a text: the namespace hash of xml_tag.ns.
uint32_t text_hash(const char *text)
{
    uint32_t h = 2166136261u;
    for (const char *p = text; *p != '\0'; p++) {
        h ^= static_cast<unsigned char>(*p);
        h *= 16777619u;
    }
    return h;
}

// A data path as text (libyang allocates it).
std::string path_of(const lyd_node *node)
{
    char *text = lyd_path(node, LYD_PATH_STD, nullptr, 0);
    std::string out = text != nullptr ? text : "?";
    std::free(text);
    return out;
}

// The diff operation of a node: its own, or the one it inherits.
const char *diff_op(const lyd_node *node, const char *inherited)
{
    const lyd_meta *meta = lyd_find_meta(node->meta, nullptr, "yang:operation");
    return meta != nullptr ? lyd_get_meta_value(meta) : inherited;
}

bool op_is(const char *op, const char *what)
{
    return op != nullptr && std::strcmp(op, what) == 0;
}

bool is_key(const lysc_node *schema)
{
    return (schema->flags & LYS_KEY) != 0;
}

bool is_term(const lysc_node *schema)
{
    return (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;
}

lyd_node *counterpart(const lyd_node *siblings, const lyd_node *target)
{
    lyd_node *match = nullptr;
    if (siblings == nullptr || lyd_find_sibling_first(siblings, target, &match) != LY_SUCCESS) {
        return nullptr;
    }
    return match;
}

// Subscribed schema nodes and their rows in the subscription table.
using subscription_index = std::unordered_map<const lysc_node *, size_t>;

// Storage for what one callback is handed: texts and leaf-list arrays stay
// where they are while the callback runs.
struct call_values {
    std::deque<std::string> texts;
    std::deque<std::vector<mgmtd_value_t>> lists;
    std::vector<mgmtd_value_t> keys;
    std::vector<mgmtd_tag_value_t> values;
};

}  // namespace

struct mgmtd_ds_tree {
    lyd_node *root;
};

struct mgmtd_ds {
    ly_ctx *ctx = nullptr;
    const lys_module *mod = nullptr;
    uint32_t ns = 0;
    std::unordered_map<std::string, uint32_t> tag_of_name;
    std::unordered_map<uint32_t, std::string> name_of_tag;
    std::unordered_map<const lysc_node *, int> rank;
    std::vector<subscription> subs;
    std::unordered_map<const lysc_node *, size_t> sub_of_schema;
    void *host_ctx = nullptr;
    mgmtd_ds_trace_f trace = nullptr;
    void *trace_ctx = nullptr;
    t_vmgmtd_context vctx{};
    lyd_node *running = nullptr;
    std::string error;
    uint32_t delivered = 0;

    /* ---- schema ---- */

    bool subscribed(const lysc_node *schema) const
    {
        return sub_of_schema.count(schema) != 0;
    }

    // A node that stands in its parent's values: not a key, not a list and
    // without a subscription of its own.
    bool is_value_node(const lysc_node *schema) const
    {
        return is_value_node_of(schema, sub_of_schema);
    }

    static bool is_value_node_of(const lysc_node *schema, const subscription_index &index)
    {
        return !is_key(schema) && schema->nodetype != LYS_LIST && index.count(schema) == 0;
    }

    // The most values a node of this schema can hand over with the given
    // subscriptions: one per leaf and leaf-list, two brackets per container
    // and what the container holds (as present_values delivers them).
    static size_t max_values(const lysc_node *parent, const subscription_index &index)
    {
        size_t n = 0;
        const lysc_node *child = nullptr;
        while ((child = lys_getnext(child, parent, nullptr, 0)) != nullptr) {
            if (!is_value_node_of(child, index)) {
                continue;
            }
            if ((child->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0) {
                n += 1;
            } else if (child->nodetype == LYS_CONTAINER) {
                n += 2 + max_values(child, index);
            }
        }
        return n;
    }

    uint32_t tag(const lysc_node *schema) const
    {
        auto it = tag_of_name.find(schema->name);
        return it != tag_of_name.end() ? it->second : 0;
    }

    void rank_children(const lysc_node *parent)
    {
        int n = 0;
        const lysc_node *child = nullptr;
        while ((child = lys_getnext(child, parent, parent == nullptr ? mod->compiled : nullptr,
                                    0)) != nullptr) {
            rank[child] = n++;
            if ((child->nodetype & (LYS_CONTAINER | LYS_LIST)) != 0) {
                rank_children(child);
            }
        }
    }

    // Every data node of the module must have a tag.
    bool check_tags()
    {
        const lysc_node *top = mod->compiled != nullptr ? mod->compiled->data : nullptr;
        for (const lysc_node *root = top; root != nullptr; root = root->next) {
            const lysc_node *elem = nullptr;
            LYSC_TREE_DFS_BEGIN(root, elem)
            {
                if ((elem->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST)) != 0 &&
                    tag_of_name.count(elem->name) == 0) {
                    error = format("schema node \"%s\" of module %s has no tag", elem->name,
                                   mod->name);
                    return false;
                }
                LYSC_TREE_DFS_END(root, elem);
            }
        }
        return true;
    }

    /* ---- libyang errors ---- */

    // The first stored libyang error of a file, as "FILE:LINE: message (at PATH)".
    std::string ly_error(const char *file)
    {
        const ly_err_item *e = ly_err_first(ctx);
        std::string msg = e != nullptr && e->msg != nullptr ? e->msg : "invalid data";
        std::string where = e != nullptr && e->path != nullptr ? e->path : "";
        ly_err_clean(ctx, nullptr);
        long line = -1;
        const size_t at_line = where.find("line number ");
        if (at_line != std::string::npos) {
            line = std::strtol(where.c_str() + at_line + 12, nullptr, 10);
        }
        std::string data_path;
        const size_t at_path = where.find("location \"");
        if (at_path != std::string::npos) {
            const size_t start = at_path + 10;
            const size_t end = where.find('"', start);
            data_path = where.substr(start, end == std::string::npos ? end : end - start);
        }
        std::string out = file;
        if (line > 0) {
            out += format(":%ld", line);
        }
        out += ": " + msg;
        if (!data_path.empty()) {
            out += " (at " + data_path + ")";
        }
        return out;
    }

    /* ---- values ---- */

    mgmtd_value_t text_value(call_values &cv, const char *text)
    {
        cv.texts.emplace_back(text != nullptr ? text : "");
        mgmtd_value_t v{};
        v.type = C_BUF;
        v.val.buf.ptr = reinterpret_cast<unsigned char *>(cv.texts.back().data());
        v.val.buf.size = static_cast<uint32_t>(cv.texts.back().size());
        return v;
    }

    mgmtd_value_t term_value(call_values &cv, const lyd_node *node)
    {
        const lyd_value *value = &reinterpret_cast<const lyd_node_term *>(node)->value;
        while (value->realtype->basetype == LY_TYPE_UNION) {
            value = &value->subvalue->value;
        }
        const char *text = lyd_get_value(node);
        mgmtd_value_t v{};
        switch (value->realtype->basetype) {
        case LY_TYPE_UINT8:
            v.type = C_UINT8;
            v.val.u8 = value->uint8;
            return v;
        case LY_TYPE_UINT16:
            v.type = C_UINT16;
            v.val.u16 = value->uint16;
            return v;
        case LY_TYPE_UINT32:
            v.type = C_UINT32;
            v.val.u32 = value->uint32;
            return v;
        case LY_TYPE_UINT64:
            v.type = C_UINT64;
            v.val.u64 = value->uint64;
            return v;
        case LY_TYPE_BOOL:
            v.type = C_BOOL;
            v.val.boolean = value->boolean != 0;
            return v;
        case LY_TYPE_ENUM:
            v.type = C_ENUM_VALUE;
            v.val.enumvalue = value->enum_item->value;
            return v;
        case LY_TYPE_STRING:
            if (address_value(value->realtype->plugin->id, text, &v)) {
                return v;
            }
            return text_value(cv, text);
        default:
            return text_value(cv, text);
        }
    }

    // Addresses and prefixes of the inet types, by the type plugin that
    // stored them; IPv4 in network byte order.
    static bool address_value(const char *plugin_id, const char *text, mgmtd_value_t *v)
    {
        const bool v4 = std::strstr(plugin_id, "ipv4-") != nullptr;
        const bool v6 = std::strstr(plugin_id, "ipv6-") != nullptr;
        if (!v4 && !v6) {
            return false;
        }
        if (std::strstr(plugin_id, "-address") != nullptr) {
            v->type = v4 ? C_IPV4 : C_IPV6;
            return inet_pton(v4 ? AF_INET : AF_INET6, text,
                             v4 ? static_cast<void *>(&v->val.ip) : &v->val.ip6) == 1;
        }
        if (std::strstr(plugin_id, "-prefix") == nullptr) {
            return false;
        }
        const char *slash = std::strchr(text, '/');
        if (slash == nullptr) {
            return false;
        }
        const std::string addr(text, static_cast<size_t>(slash - text));
        const auto len = static_cast<uint8_t>(std::strtoul(slash + 1, nullptr, 10));
        if (v4) {
            v->type = C_IPV4PREFIX;
            v->val.ipv4prefix.len = len;
            return inet_pton(AF_INET, addr.c_str(), &v->val.ipv4prefix.ip) == 1;
        }
        v->type = C_IPV6PREFIX;
        v->val.ipv6prefix.len = len;
        return inet_pton(AF_INET6, addr.c_str(), &v->val.ipv6prefix.ip6) == 1;
    }

    void push(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema, mgmtd_value_t v) const
    {
        mgmtd_tag_value_t tv{};
        tv.tag.tag = tag(schema);
        tv.tag.ns = ns;
        tv.v = v;
        out.push_back(tv);
    }

    void push_type(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                   enum mgmtd_vtype type) const
    {
        mgmtd_value_t v{};
        v.type = type;
        push(out, schema, v);
    }

    // A container's inner values between its brackets; an empty
    // non-presence container is left out.
    void push_container(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                        std::vector<mgmtd_tag_value_t> &&inner, bool always) const
    {
        if (inner.empty() && !always) {
            return;
        }
        push_type(out, schema, C_XMLBEGIN);
        out.insert(out.end(), inner.begin(), inner.end());
        push_type(out, schema, C_XMLEND);
    }

    static bool is_presence(const lysc_node *schema)
    {
        return (schema->flags & LYS_PRESENCE) != 0;
    }

    // Data children of node with the given schema, in data order.
    static std::vector<const lyd_node *> children_of(const lyd_node *node, const lysc_node *schema)
    {
        std::vector<const lyd_node *> out;
        if (node == nullptr) {
            return out;
        }
        const lyd_node *child = nullptr;
        LY_LIST_FOR(lyd_child(node), child)
        {
            if (child->schema == schema) {
                out.push_back(child);
            }
        }
        return out;
    }

    mgmtd_value_t list_value(call_values &cv, const std::vector<const lyd_node *> &entries)
    {
        cv.lists.emplace_back();
        std::vector<mgmtd_value_t> &items = cv.lists.back();
        for (const lyd_node *entry : entries) {
            items.push_back(term_value(cv, entry));
        }
        mgmtd_value_t v{};
        v.type = C_LIST;
        v.val.list.size = static_cast<uint32_t>(items.size());
        v.val.list.ptr = items.data();
        return v;
    }

    template <typename Fn>
    void for_value_children(const lysc_node *parent, Fn &&fn) const
    {
        const lysc_node *child = nullptr;
        while ((child = lys_getnext(child, parent, nullptr, 0)) != nullptr) {
            if (is_value_node(child)) {
                fn(child);
            }
        }
    }

    // Everything a node holds, for a creation.
    std::vector<mgmtd_tag_value_t> present_values(call_values &cv, const lyd_node *node)
    {
        std::vector<mgmtd_tag_value_t> out;
        for_value_children(node->schema, [&](const lysc_node *schema) {
            const std::vector<const lyd_node *> found = children_of(node, schema);
            if (found.empty()) {
                return;
            }
            if (schema->nodetype == LYS_LEAF) {
                push(out, schema, term_value(cv, found.front()));
            } else if (schema->nodetype == LYS_LEAFLIST) {
                push(out, schema, list_value(cv, found));
            } else if (schema->nodetype == LYS_CONTAINER) {
                push_container(out, schema, present_values(cv, found.front()),
                               is_presence(schema));
            }
        });
        return out;
    }

    // Every leaf a removed container held, as removed.
    std::vector<mgmtd_tag_value_t> removed_values(const lyd_node *node)
    {
        std::vector<mgmtd_tag_value_t> out;
        for_value_children(node->schema, [&](const lysc_node *schema) {
            const std::vector<const lyd_node *> found = children_of(node, schema);
            if (found.empty()) {
                return;
            }
            if (schema->nodetype == LYS_CONTAINER) {
                push_container(out, schema, removed_values(found.front()), is_presence(schema));
            } else {
                push_type(out, schema, C_NOEXISTS);
            }
        });
        return out;
    }

    // What changed in a node that stays: diff is the node in the diff tree,
    // old_node and new_node the node in the running and the new tree.
    std::vector<mgmtd_tag_value_t> changed_values(call_values &cv, const lyd_node *diff,
                                                  const lyd_node *old_node,
                                                  const lyd_node *new_node)
    {
        std::vector<mgmtd_tag_value_t> out;
        for_value_children(diff->schema, [&](const lysc_node *schema) {
            const std::vector<const lyd_node *> found = children_of(diff, schema);
            if (found.empty()) {
                return;
            }
            const lyd_node *d = found.front();
            const char *op = diff_op(d, "none");
            if (schema->nodetype == LYS_LEAF) {
                if (op_is(op, "delete")) {
                    push_type(out, schema, C_NOEXISTS);
                } else if (op_is(op, "create") || op_is(op, "replace")) {
                    push(out, schema, term_value(cv, d));
                }
            } else if (schema->nodetype == LYS_LEAFLIST) {
                const bool changed = std::any_of(found.begin(), found.end(), [](const lyd_node *e) {
                    return !op_is(diff_op(e, "none"), "none");
                });
                if (!changed) {
                    return;
                }
                const std::vector<const lyd_node *> now = children_of(new_node, schema);
                if (now.empty()) {
                    push_type(out, schema, C_NOEXISTS);
                } else {
                    push(out, schema, list_value(cv, now));
                }
            } else if (schema->nodetype == LYS_CONTAINER) {
                if (op_is(op, "create")) {
                    const lyd_node *now = counterpart(lyd_child(new_node), d);
                    push_container(out, schema, present_values(cv, now != nullptr ? now : d),
                                   is_presence(schema));
                } else if (op_is(op, "delete")) {
                    push_container(out, schema, removed_values(d), is_presence(schema));
                } else {
                    const lyd_node *was = counterpart(lyd_child(old_node), d);
                    const lyd_node *now = counterpart(lyd_child(new_node), d);
                    push_container(out, schema, changed_values(cv, d, was, now), false);
                }
            }
        });
        return out;
    }

    // Keys of a node and of the lists above it, outermost first.
    void node_keys(call_values &cv, const lyd_node *node, uint8_t num_keys)
    {
        std::vector<std::vector<const lyd_node *>> levels;
        for (const lyd_node *p = node; p != nullptr; p = lyd_parent(p)) {
            if (p->schema->nodetype != LYS_LIST) {
                continue;
            }
            std::vector<const lyd_node *> level;
            const lyd_node *child = nullptr;
            LY_LIST_FOR(lyd_child(p), child)
            {
                if (child->schema == nullptr || !is_key(child->schema)) {
                    break;
                }
                level.push_back(child);
            }
            levels.push_back(level);
        }
        std::reverse(levels.begin(), levels.end());
        for (const auto &level : levels) {
            for (const lyd_node *key : level) {
                if (cv.keys.size() < num_keys) {
                    cv.keys.push_back(term_value(cv, key));
                }
            }
        }
    }

    /* ---- delivery ---- */

    // Siblings of a diff level in schema order (entries of one list keep
    // their order).
    std::vector<const lyd_node *> in_schema_order(const lyd_node *first) const
    {
        std::vector<const lyd_node *> nodes;
        const lyd_node *node = nullptr;
        LY_LIST_FOR(first, node)
        {
            if (node->schema != nullptr) {
                nodes.push_back(node);
            }
        }
        std::stable_sort(nodes.begin(), nodes.end(), [this](const lyd_node *a, const lyd_node *b) {
            return rank_of(a->schema) < rank_of(b->schema);
        });
        return nodes;
    }

    int rank_of(const lysc_node *schema) const
    {
        auto it = rank.find(schema);
        return it != rank.end() ? it->second : 0;
    }

    // Calls the subscription of node; false when the callback failed.
    bool deliver(const lyd_node *node, mgmtd_iter_op oper, call_values &cv)
    {
        const subscription &s = subs[sub_of_schema.at(node->schema)];
        node_keys(cv, node, s.sub.num_keys);
        mgmtd_value_t *keys = cv.keys.empty() ? nullptr : cv.keys.data();
        mgmtd_tag_value_t *values = cv.values.empty() ? nullptr : cv.values.data();
        const auto num_keys = static_cast<uint8_t>(cv.keys.size());
        // At most MGMTD_DS_MAX_VALUES: mgmtd_ds_subscribe refuses larger nodes.
        const auto num_values = static_cast<uint16_t>(cv.values.size());
        const int32_t status =
            s.sub.cb(&vctx, host_ctx, oper, num_keys, keys, num_values, values, s.sub.arg);
        delivered++;
        const std::string path = path_of(node);
        if (trace != nullptr) {
            trace(trace_ctx, path.c_str(), &s.sub, oper, num_keys, keys, num_values, values,
                  status);
        }
        if (status != 0) {
            error = format("commit stopped at %s: %s callback %s returned status %" PRId32,
                           path.c_str(), mgmtd_iter_op_name(oper), s.name.c_str(), status);
            return false;
        }
        return true;
    }

    // Deletions: the topmost deleted node of every subscription.
    bool deliver_deletions(const lyd_node *first, const char *inherited, lyd_node **working)
    {
        for (const lyd_node *node : in_schema_order(first)) {
            if (is_term(node->schema)) {
                continue;
            }
            const char *op = diff_op(node, inherited);
            if (op_is(op, "create")) {
                continue;
            }
            if (op_is(op, "delete") && subscribed(node->schema)) {
                call_values cv;
                if (!deliver(node, MOP_DELETED, cv)) {
                    return false;
                }
                apply_deletion(node, working);
                continue;
            }
            if (!deliver_deletions(lyd_child(node), op, working)) {
                return false;
            }
        }
        return true;
    }

    // Creations and modifications, parents first.
    bool deliver_updates(const lyd_node *first, const lyd_node *old_first,
                         const lyd_node *new_first, const char *inherited, lyd_node **working)
    {
        for (const lyd_node *node : in_schema_order(first)) {
            if (is_term(node->schema)) {
                continue;
            }
            const char *op = diff_op(node, inherited);
            if (op_is(op, "delete")) {
                continue;
            }
            const bool created = op_is(op, "create");
            const lyd_node *now = counterpart(new_first, node);
            const lyd_node *was = created ? nullptr : counterpart(old_first, node);
            if (now == nullptr) {
                error = format("commit: %s is missing from the new configuration",
                               path_of(node).c_str());
                return false;
            }
            if (subscribed(node->schema)) {
                call_values cv;
                if (created) {
                    cv.values = present_values(cv, now);
                    if (!deliver(now, MOP_CREATED, cv)) {
                        return false;
                    }
                    apply_creation(now, working);
                } else {
                    cv.values = changed_values(cv, node, was, now);
                    const uint32_t flags = subs[sub_of_schema.at(node->schema)].sub.flags;
                    if (!cv.values.empty() && (flags & MGMTD_DS_SUB_WHOLE) != 0) {
                        cv = call_values();
                        cv.values = present_values(cv, now);
                    }
                    if (!cv.values.empty()) {
                        if (!deliver(now, MOP_MODIFIED, cv)) {
                            return false;
                        }
                        apply_modification(now, working);
                    }
                }
            }
            if (!deliver_updates(lyd_child(node), was != nullptr ? lyd_child(was) : nullptr,
                                 lyd_child(now), op, working)) {
                return false;
            }
        }
        return true;
    }

    /* ---- the running tree after a stopped commit ---- */

    lyd_node *find_in(lyd_node *tree, const lyd_node *node) const
    {
        lyd_node *match = nullptr;
        if (tree == nullptr ||
            lyd_find_path(tree, path_of(node).c_str(), 0, &match) != LY_SUCCESS) {
            return nullptr;
        }
        return match;
    }

    // Removes the nodes below top that have subscriptions of their own:
    // their callbacks bring them.
    void strip_subscribed(lyd_node *top) const
    {
        std::vector<lyd_node *> doomed;
        lyd_node *child = nullptr;
        LY_LIST_FOR(lyd_child(top), child)
        {
            if (subscribed(child->schema)) {
                doomed.push_back(child);
            } else if (!is_term(child->schema)) {
                strip_subscribed(child);
            }
        }
        for (lyd_node *node : doomed) {
            lyd_free_tree(node);
        }
    }

    void apply_deletion(const lyd_node *node, lyd_node **working) const
    {
        lyd_node *gone = find_in(*working, node);
        if (gone == nullptr) {
            return;
        }
        if (gone == *working) {
            *working = gone->next;
        }
        lyd_free_tree(gone);
    }

    void apply_creation(const lyd_node *node, lyd_node **working) const
    {
        lyd_node *dup = nullptr;
        if (lyd_dup_single(node, nullptr,
                           LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS | LYD_DUP_WITH_FLAGS,
                           &dup) != LY_SUCCESS) {
            return;
        }
        strip_subscribed(dup);
        lyd_node *top = dup;
        while (lyd_parent(top) != nullptr) {
            top = lyd_parent(top);
        }
        lyd_merge_tree(working, top, LYD_MERGE_DESTRUCT | LYD_MERGE_WITH_FLAGS);
    }

    void apply_modification(const lyd_node *node, lyd_node **working) const
    {
        lyd_node *target = find_in(*working, node);
        if (target == nullptr) {
            return;
        }
        std::vector<lyd_node *> doomed;
        lyd_node *child = nullptr;
        LY_LIST_FOR(lyd_child(target), child)
        {
            if (is_value_node(child->schema)) {
                doomed.push_back(child);
            }
        }
        for (lyd_node *old : doomed) {
            lyd_free_tree(old);
        }
        const lyd_node *from = nullptr;
        LY_LIST_FOR(lyd_child(node), from)
        {
            if (!is_value_node(from->schema)) {
                continue;
            }
            lyd_node *dup = nullptr;
            if (lyd_dup_single(from, reinterpret_cast<lyd_node_inner *>(target),
                               LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &dup) == LY_SUCCESS &&
                !is_term(dup->schema)) {
                strip_subscribed(dup);
            }
        }
    }

    // The diff may hold one node twice (once for what was removed below it,
    // once for what was added); the copies are merged so that every node
    // of the diff is visited once.
    static void merge_duplicates(lyd_node *first)
    {
        for (lyd_node *node = first; node != nullptr; node = node->next) {
            if (node->schema == nullptr || is_term(node->schema)) {
                continue;
            }
            const lyd_meta *own = lyd_find_meta(node->meta, nullptr, "yang:operation");
            lyd_node *other = node->next;
            while (other != nullptr) {
                lyd_node *after = other->next;
                const lyd_meta *other_own = lyd_find_meta(other->meta, nullptr, "yang:operation");
                const bool same_op = (own == nullptr && other_own == nullptr) ||
                                     (own != nullptr && other_own != nullptr &&
                                      std::strcmp(lyd_get_meta_value(own),
                                                  lyd_get_meta_value(other_own)) == 0);
                if (other->schema == node->schema && same_op &&
                    lyd_compare_single(node, other, 0) == LY_SUCCESS) {
                    std::vector<lyd_node *> moved;
                    lyd_node *child = nullptr;
                    LY_LIST_FOR(lyd_child(other), child)
                    {
                        if (child->schema == nullptr || !is_key(child->schema)) {
                            moved.push_back(child);
                        }
                    }
                    for (lyd_node *m : moved) {
                        lyd_unlink_tree(m);
                        lyd_insert_child(node, m);
                    }
                    lyd_free_tree(other);
                }
                other = after;
            }
            merge_duplicates(lyd_child(node));
        }
    }

    int commit(lyd_node *candidate)
    {
        error.clear();
        delivered = 0;
        lyd_node *diff = nullptr;
        lyd_node *working = nullptr;
        if (lyd_diff_siblings(running, candidate, LYD_DIFF_DEFAULTS, &diff) != LY_SUCCESS ||
            (running != nullptr &&
             lyd_dup_siblings(running, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS,
                              &working) != LY_SUCCESS)) {
            error = "commit: cannot compare the configurations: " + ly_error("(commit)");
            lyd_free_all(diff);
            lyd_free_all(candidate);
            return MGMTD_DS_FAILED;
        }
        merge_duplicates(diff);
        const bool done = deliver_deletions(diff, nullptr, &working) &&
                          deliver_updates(diff, running, candidate, nullptr, &working);
        lyd_free_all(diff);
        lyd_free_all(running);
        if (done) {
            running = candidate;
            lyd_free_all(working);
            return MGMTD_DS_OK;
        }
        running = working;
        lyd_free_all(candidate);
        return MGMTD_DS_STOPPED;
    }
};

extern "C" {

mgmtd_ds_t *mgmtd_ds_open(const mgmtd_ds_schema_t *schema, char *err, size_t err_size)
{
    auto report = [&](const std::string &msg) {
        if (err != nullptr && err_size > 0) {
            std::snprintf(err, err_size, "%s", msg.c_str());
        }
    };
    if (schema == nullptr || schema->module_text == nullptr) {
        report("no schema");
        return nullptr;
    }
    auto *ds = new mgmtd_ds();
    ds->vctx.data_socket = -1;
    ds->vctx.sub_socket = -1;
    ds->vctx.maapi_socket = -1;
    // Errors are kept for the messages of this library, never printed.
    ly_log_options(LY_LOSTORE);
    lys_module *mod = nullptr;
    if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &ds->ctx) != LY_SUCCESS) {
        report("cannot create the schema context");
        delete ds;
        return nullptr;
    }
    if (lys_parse_mem(ds->ctx, schema->module_text, LYS_IN_YANG, &mod) != LY_SUCCESS) {
        report("module " + std::string(schema->module_name) + ": " + ds->ly_error("(schema)"));
        mgmtd_ds_close(ds);
        return nullptr;
    }
    ds->mod = mod;
    ds->ns = text_hash(mod->ns);
    for (size_t i = 0; i < schema->num_tags; i++) {
        ds->tag_of_name[schema->tags[i].name] = schema->tags[i].tag;
        ds->name_of_tag[schema->tags[i].tag] = schema->tags[i].name;
    }
    if (!ds->check_tags()) {
        report(ds->error);
        mgmtd_ds_close(ds);
        return nullptr;
    }
    ds->rank_children(nullptr);
    return ds;
}

void mgmtd_ds_close(mgmtd_ds_t *ds)
{
    if (ds == nullptr) {
        return;
    }
    lyd_free_all(ds->running);
    ly_ctx_destroy(ds->ctx);
    delete ds;
}

int mgmtd_ds_subscribe(mgmtd_ds_t *ds, const mgmtd_ds_sub_t *subs, size_t num_subs,
                       void *host_ctx_p)
{
    ds->error.clear();
    std::vector<subscription> table;
    std::unordered_map<const lysc_node *, size_t> index;
    for (size_t i = 0; i < num_subs; i++) {
        const mgmtd_ds_sub_t &row = subs[i];
        const char *path = row.path != nullptr ? row.path : "";
        const lysc_node *schema = lys_find_path(ds->ctx, nullptr, path, 0);
        ly_err_clean(ds->ctx, nullptr);
        if (schema == nullptr || (schema->nodetype & (LYS_LIST | LYS_CONTAINER)) == 0 ||
            schema->module != ds->mod || row.cb == nullptr) {
            ds->error = format("subscription %zu: \"%s\" is not a list or container of %s, or "
                               "has no callback",
                               i, path, ds->mod->name);
            return MGMTD_DS_FAILED;
        }
        unsigned keys = 0;
        for (const lysc_node *p = schema; p != nullptr; p = p->parent) {
            if (p->nodetype == LYS_LIST) {
                const lysc_node *child = nullptr;
                while ((child = lys_getnext(child, p, nullptr, 0)) != nullptr) {
                    keys += is_key(child) ? 1 : 0;
                }
            }
        }
        if (row.num_keys > keys || index.count(schema) != 0) {
            ds->error = format("subscription %zu: \"%s\" has %u keys, not %u, or is subscribed "
                               "twice",
                               i, path, keys, static_cast<unsigned>(row.num_keys));
            return MGMTD_DS_FAILED;
        }
        subscription s;
        s.path = path;
        s.name = row.name != nullptr ? row.name : path;
        s.schema = schema;
        s.sub = row;
        index[schema] = table.size();
        table.push_back(std::move(s));
    }
    for (size_t i = 0; i < table.size(); i++) {
        const size_t most = mgmtd_ds::max_values(table[i].schema, index);
        if (most > MGMTD_DS_MAX_VALUES) {
            ds->error = format("subscription %zu: \"%s\" can hand over %zu values, more than "
                               "the %u of one call",
                               i, table[i].path.c_str(), most, MGMTD_DS_MAX_VALUES);
            return MGMTD_DS_FAILED;
        }
    }
    ds->subs = std::move(table);
    for (subscription &s : ds->subs) {
        s.sub.path = s.path.c_str();
        s.sub.name = s.name.c_str();
    }
    ds->sub_of_schema = std::move(index);
    ds->host_ctx = host_ctx_p;
    return MGMTD_DS_OK;
}

void mgmtd_ds_set_trace(mgmtd_ds_t *ds, mgmtd_ds_trace_f trace, void *trace_ctx_p)
{
    ds->trace = trace;
    ds->trace_ctx = trace_ctx_p;
}

const char *mgmtd_ds_error(const mgmtd_ds_t *ds)
{
    return ds->error.c_str();
}

// A configuration file is a regular file holding a document. An empty or
// blank file is refused, at its last line, rather than read as the empty
// configuration: a file emptied by mistake must not commit as the deletion
// of everything (the empty configuration is an empty policy element or
// object). False with the message in error.
static bool check_config_file(const char *path, std::string *error)
{
    FILE *file = std::fopen(path, "r");
    if (file == nullptr) {
        *error = format("%s: cannot open: %s", path, std::strerror(errno));
        return false;
    }
    struct stat st;
    if (fstat(fileno(file), &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = format("%s: %s", path,
                        S_ISDIR(st.st_mode) ? "is a directory, not a configuration file"
                                            : "not a regular file");
        std::fclose(file);
        return false;
    }
    long newlines = 0;
    int last = '\n';
    int c = EOF;
    while ((c = std::fgetc(file)) != EOF && std::isspace(c)) {
        newlines += c == '\n' ? 1 : 0;
        last = c;
    }
    std::fclose(file);
    if (c == EOF) {
        const long line = std::max(1L, newlines + (last != '\n' ? 1 : 0));
        *error = format("%s:%ld: no configuration: the file is %s", path, line,
                        st.st_size == 0 ? "empty" : "blank");
        return false;
    }
    return true;
}

int mgmtd_ds_load(mgmtd_ds_t *ds, const char *path, mgmtd_ds_tree_t **tree_pp)
{
    ds->error.clear();
    *tree_pp = nullptr;
    if (!check_config_file(path, &ds->error)) {
        return MGMTD_DS_INVALID;
    }
    const size_t len = std::strlen(path);
    const LYD_FORMAT fmt =
        len > 5 && std::strcmp(path + len - 5, ".json") == 0 ? LYD_JSON : LYD_XML;
    lyd_node *tree = nullptr;
    ly_err_clean(ds->ctx, nullptr);
    if (lyd_parse_data_path(ds->ctx, path, fmt, LYD_PARSE_STRICT | LYD_PARSE_NO_STATE,
                            LYD_VALIDATE_NO_STATE, &tree) != LY_SUCCESS) {
        ds->error = ds->ly_error(path);
        lyd_free_all(tree);
        return MGMTD_DS_INVALID;
    }
    *tree_pp = new mgmtd_ds_tree{tree};
    return MGMTD_DS_OK;
}

void mgmtd_ds_tree_free(mgmtd_ds_tree_t *tree)
{
    if (tree != nullptr) {
        lyd_free_all(tree->root);
        delete tree;
    }
}

static long count_of(const lyd_node *root, const char *xpath)
{
    if (root == nullptr) {
        return 0;
    }
    ly_set *set = nullptr;
    if (lyd_find_xpath(root, xpath, &set) != LY_SUCCESS) {
        ly_err_clean(const_cast<ly_ctx *>(LYD_CTX(root)), nullptr);
        return -1;
    }
    const long n = static_cast<long>(set->count);
    ly_set_free(set, nullptr);
    return n;
}

long mgmtd_ds_tree_count(const mgmtd_ds_tree_t *tree, const char *xpath)
{
    return tree != nullptr ? count_of(tree->root, xpath) : 0;
}

long mgmtd_ds_tree_foreach(const mgmtd_ds_tree_t *tree, const char *xpath,
                           void (*fn)(void *fn_ctx_p, const char *value), void *fn_ctx_p)
{
    if (tree == nullptr || tree->root == nullptr) {
        return 0;
    }
    ly_set *set = nullptr;
    if (lyd_find_xpath(tree->root, xpath, &set) != LY_SUCCESS) {
        ly_err_clean(const_cast<ly_ctx *>(LYD_CTX(tree->root)), nullptr);
        return -1;
    }
    for (uint32_t i = 0; i < set->count; i++) {
        if (set->dnodes[i]->schema != nullptr && is_term(set->dnodes[i]->schema)) {
            fn(fn_ctx_p, lyd_get_value(set->dnodes[i]));
        }
    }
    const long n = static_cast<long>(set->count);
    ly_set_free(set, nullptr);
    return n;
}

int mgmtd_ds_commit(mgmtd_ds_t *ds, mgmtd_ds_tree_t *tree)
{
    lyd_node *candidate = tree != nullptr ? tree->root : nullptr;
    delete tree;
    return ds->commit(candidate);
}

int mgmtd_ds_commit_file(mgmtd_ds_t *ds, const char *path)
{
    mgmtd_ds_tree_t *tree = nullptr;
    const int status = mgmtd_ds_load(ds, path, &tree);
    if (status != MGMTD_DS_OK) {
        ds->delivered = 0;
        return status;
    }
    return mgmtd_ds_commit(ds, tree);
}

uint32_t mgmtd_ds_delivered(const mgmtd_ds_t *ds)
{
    return ds->delivered;
}

char *mgmtd_ds_running_text(const mgmtd_ds_t *ds)
{
    char *text = nullptr;
    if (ds->running == nullptr) {
        return strdup("");
    }
    if (lyd_print_mem(&text, ds->running, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
        return nullptr;
    }
    return text != nullptr ? text : strdup("");
}

long mgmtd_ds_running_count(const mgmtd_ds_t *ds, const char *xpath)
{
    return count_of(ds->running, xpath);
}

const char *mgmtd_ds_tag_name(const mgmtd_ds_t *ds, uint32_t tag)
{
    auto it = ds->name_of_tag.find(tag);
    return it != ds->name_of_tag.end() ? it->second.c_str() : nullptr;
}

const char *mgmtd_iter_op_name(mgmtd_iter_op oper)
{
    switch (oper) {
    case MOP_CREATED:
        return "create";
    case MOP_DELETED:
        return "delete";
    case MOP_MODIFIED:
        return "modify";
    default:
        return "other";
    }
}

const char *mgmtd_value_type_name(enum mgmtd_vtype type)
{
    switch (type) {
    case C_NOEXISTS:
        return "C_NOEXISTS";
    case C_BUF:
        return "C_BUF";
    case C_UINT8:
        return "C_UINT8";
    case C_UINT16:
        return "C_UINT16";
    case C_UINT32:
        return "C_UINT32";
    case C_UINT64:
        return "C_UINT64";
    case C_IPV4:
        return "C_IPV4";
    case C_IPV6:
        return "C_IPV6";
    case C_BOOL:
        return "C_BOOL";
    case C_ENUM_VALUE:
        return "C_ENUM_VALUE";
    case C_BIT32:
        return "C_BIT32";
    case C_LIST:
        return "C_LIST";
    case C_XMLBEGIN:
        return "C_XMLBEGIN";
    case C_XMLEND:
        return "C_XMLEND";
    case C_IPV4PREFIX:
        return "C_IPV4PREFIX";
    case C_IPV6PREFIX:
        return "C_IPV6PREFIX";
    }
    return "C_UNKNOWN";
}

char *mgmtd_value_print(const mgmtd_value_t *value, char *buf, size_t size)
{
    if (size == 0) {
        return buf;
    }
    char addr[INET6_ADDRSTRLEN] = "";
    switch (value->type) {
    case C_BUF:
        std::snprintf(buf, size, "%s", reinterpret_cast<const char *>(value->val.buf.ptr));
        break;
    case C_UINT8:
        std::snprintf(buf, size, "%u", static_cast<unsigned>(value->val.u8));
        break;
    case C_UINT16:
        std::snprintf(buf, size, "%u", static_cast<unsigned>(value->val.u16));
        break;
    case C_UINT32:
        std::snprintf(buf, size, "%" PRIu32, value->val.u32);
        break;
    case C_UINT64:
        std::snprintf(buf, size, "%" PRIu64, value->val.u64);
        break;
    case C_BOOL:
        std::snprintf(buf, size, "%s", value->val.boolean != 0 ? "true" : "false");
        break;
    case C_ENUM_VALUE:
        std::snprintf(buf, size, "%" PRId32, value->val.enumvalue);
        break;
    case C_BIT32:
        std::snprintf(buf, size, "0x%" PRIx32, value->val.b32);
        break;
    case C_IPV4:
        inet_ntop(AF_INET, &value->val.ip, addr, sizeof(addr));
        std::snprintf(buf, size, "%s", addr);
        break;
    case C_IPV6:
        inet_ntop(AF_INET6, &value->val.ip6, addr, sizeof(addr));
        std::snprintf(buf, size, "%s", addr);
        break;
    case C_IPV4PREFIX:
        inet_ntop(AF_INET, &value->val.ipv4prefix.ip, addr, sizeof(addr));
        std::snprintf(buf, size, "%s/%u", addr, static_cast<unsigned>(value->val.ipv4prefix.len));
        break;
    case C_IPV6PREFIX:
        inet_ntop(AF_INET6, &value->val.ipv6prefix.ip6, addr, sizeof(addr));
        std::snprintf(buf, size, "%s/%u", addr, static_cast<unsigned>(value->val.ipv6prefix.len));
        break;
    case C_LIST: {
        size_t used = static_cast<size_t>(std::snprintf(buf, size, "["));
        for (uint32_t i = 0; i < value->val.list.size && used < size; i++) {
            char item[128];
            mgmtd_value_print(&value->val.list.ptr[i], item, sizeof(item));
            used += static_cast<size_t>(
                std::snprintf(buf + used, size - used, "%s%s", i == 0 ? "" : " ", item));
        }
        if (used < size) {
            std::snprintf(buf + used, size - used, "]");
        }
        break;
    }
    default:
        buf[0] = '\0';
        break;
    }
    return buf;
}

}  // extern "C"
