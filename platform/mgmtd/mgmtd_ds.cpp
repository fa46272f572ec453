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
#include <list>
#include <string>
#include <unordered_map>
#include <unordered_set>
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

bool is_key(const lysc_node *schema)
{
    return (schema->flags & LYS_KEY) != 0;
}

bool is_term(const lysc_node *schema)
{
    return (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;
}

// Subscribed schema nodes and their rows in the subscription table.
using subscription_index = std::unordered_map<const lysc_node *, size_t>;

// Storage for what one callback is handed: texts and leaf-list arrays stay
// where they are while the callback runs.
struct call_values {
    std::list<std::string> texts;
    std::list<std::vector<mgmtd_value_t>> lists;
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
    // Lists and containers that have lists or containers below them.
    std::unordered_set<const lysc_node *> holds_inner;
    std::vector<subscription> subs;
    std::unordered_map<const lysc_node *, size_t> sub_of_schema;
    // The value children of every list and container, in schema order,
    // for the subscription table in force.
    std::unordered_map<const lysc_node *, std::vector<const lysc_node *>> value_schemas;
    void *host_ctx = nullptr;
    mgmtd_ds_trace_f trace = nullptr;
    void *trace_ctx = nullptr;
    t_vmgmtd_context vctx{};
    lyd_node *running = nullptr;
    std::string error;
    uint32_t delivered = 0;

    // A change of the commit under way whose callback returned 0: the node
    // of the running tree for a deletion, of the new tree otherwise.
    struct taken_change {
        mgmtd_iter_op oper;
        const lyd_node *node;
    };
    std::vector<taken_change> taken;

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
                holds_inner.insert(parent);
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

    // The data child of node with the given schema (the first one of a
    // leaf-list), null when there is none.
    static const lyd_node *child_of(const lyd_node *node, const lysc_node *schema)
    {
        lyd_node *match = nullptr;
        if (node == nullptr || lyd_child(node) == nullptr ||
            lyd_find_sibling_val(lyd_child(node), schema, nullptr, 0, &match) != LY_SUCCESS) {
            return nullptr;
        }
        return match;
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

    // Lists the value children of every list and container of the module.
    void index_value_schemas()
    {
        value_schemas.clear();
        for (const auto &[schema, order] : rank) {
            if ((schema->nodetype & (LYS_CONTAINER | LYS_LIST)) == 0) {
                continue;
            }
            std::vector<const lysc_node *> &values = value_schemas[schema];
            const lysc_node *child = nullptr;
            while ((child = lys_getnext(child, schema, nullptr, 0)) != nullptr) {
                if (is_value_node(child)) {
                    values.push_back(child);
                }
            }
        }
    }

    template <typename Fn>
    void for_value_children(const lysc_node *parent, Fn &&fn) const
    {
        auto it = value_schemas.find(parent);
        if (it == value_schemas.end()) {
            return;
        }
        for (const lysc_node *child : it->second) {
            fn(child);
        }
    }

    // Everything a node holds, for a creation.
    std::vector<mgmtd_tag_value_t> present_values(call_values &cv, const lyd_node *node)
    {
        std::vector<mgmtd_tag_value_t> out;
        for_value_children(node->schema, [&](const lysc_node *schema) {
            const lyd_node *found = child_of(node, schema);
            if (found == nullptr) {
                return;
            }
            if (schema->nodetype == LYS_LEAF) {
                push(out, schema, term_value(cv, found));
            } else if (schema->nodetype == LYS_LEAFLIST) {
                push(out, schema, list_value(cv, children_of(node, schema)));
            } else if (schema->nodetype == LYS_CONTAINER) {
                push_container(out, schema, present_values(cv, found), is_presence(schema));
            }
        });
        return out;
    }

    // Every leaf a removed container held, as removed.
    std::vector<mgmtd_tag_value_t> removed_values(const lyd_node *node)
    {
        std::vector<mgmtd_tag_value_t> out;
        for_value_children(node->schema, [&](const lysc_node *schema) {
            const lyd_node *found = child_of(node, schema);
            if (found == nullptr) {
                return;
            }
            if (schema->nodetype == LYS_CONTAINER) {
                push_container(out, schema, removed_values(found), is_presence(schema));
            } else {
                push_type(out, schema, C_NOEXISTS);
            }
        });
        return out;
    }

    // What changed at one level of a node that stays: the values that went
    // away and the values that were set, each in schema order.
    struct value_changes {
        std::vector<mgmtd_tag_value_t> removed;
        std::vector<mgmtd_tag_value_t> set;

        bool empty() const { return removed.empty() && set.empty(); }

        // Removals first: a reader that turns two leaves into one condition
        // (a tag taken from either of two leaves) sees the old leaf go
        // before the new one comes, and keeps the condition.
        std::vector<mgmtd_tag_value_t> in_order() const
        {
            std::vector<mgmtd_tag_value_t> out(removed);
            out.insert(out.end(), set.begin(), set.end());
            return out;
        }
    };

    // What changed in a node that stays: old_node and new_node are the node
    // in the running and in the new tree.
    value_changes changed_values(call_values &cv, const lyd_node *old_node,
                                 const lyd_node *new_node)
    {
        value_changes out;
        for_value_children(new_node->schema, [&](const lysc_node *schema) {
            if (schema->nodetype == LYS_LEAFLIST) {
                changed_leaf_list(cv, schema, children_of(old_node, schema),
                                  children_of(new_node, schema), out);
                return;
            }
            const lyd_node *was = child_of(old_node, schema);
            const lyd_node *now = child_of(new_node, schema);
            if (schema->nodetype == LYS_LEAF) {
                changed_leaf(cv, schema, was, now, out);
            } else if (schema->nodetype == LYS_CONTAINER) {
                changed_container(cv, schema, was, now, out);
            }
        });
        return out;
    }

    // Two values of one leaf compared by their type on the stored values
    // (libyang's own node comparison prints the canonical text of types
    // stored in binary, such as prefixes, and keeps it).
    static bool same_value(const lyd_node *a, const lyd_node *b)
    {
        const lyd_value &va = reinterpret_cast<const lyd_node_term *>(a)->value;
        const lyd_value &vb = reinterpret_cast<const lyd_node_term *>(b)->value;
        return va.realtype == vb.realtype && va.realtype->plugin->compare(&va, &vb) == LY_SUCCESS;
    }

    void changed_leaf(call_values &cv, const lysc_node *schema, const lyd_node *was,
                      const lyd_node *now, value_changes &out)
    {
        if (now == nullptr) {
            if (was != nullptr) {
                push_type(out.removed, schema, C_NOEXISTS);
            }
        } else if (was == nullptr || !same_value(was, now)) {
            push(out.set, schema, term_value(cv, now));
        }
    }

    // A leaf-list is handed over whole when its set of entries changed.
    void changed_leaf_list(call_values &cv, const lysc_node *schema,
                           const std::vector<const lyd_node *> &was,
                           const std::vector<const lyd_node *> &now, value_changes &out)
    {
        if (same_entries(was, now)) {
            return;
        }
        if (now.empty()) {
            push_type(out.removed, schema, C_NOEXISTS);
        } else {
            push(out.set, schema, list_value(cv, now));
        }
    }

    static bool same_entries(const std::vector<const lyd_node *> &was,
                             const std::vector<const lyd_node *> &now)
    {
        if (was.size() != now.size()) {
            return false;
        }
        std::unordered_set<std::string> old_values;
        for (const lyd_node *entry : was) {
            old_values.insert(lyd_get_value(entry));
        }
        return std::all_of(now.begin(), now.end(), [&](const lyd_node *entry) {
            return old_values.count(lyd_get_value(entry)) != 0;
        });
    }

    // A container that comes hands over everything it holds, one that goes
    // every leaf it held as removed, one that stays what changed inside it;
    // it counts as a removal when nothing inside it is set.
    void changed_container(call_values &cv, const lysc_node *schema, const lyd_node *was,
                           const lyd_node *now, value_changes &out)
    {
        if (was == nullptr && now == nullptr) {
            return;
        }
        if (was == nullptr) {
            push_container(out.set, schema, present_values(cv, now), is_presence(schema));
        } else if (now == nullptr) {
            push_container(out.removed, schema, removed_values(was), is_presence(schema));
        } else {
            const value_changes inner = changed_values(cv, was, now);
            push_container(inner.set.empty() ? out.removed : out.set, schema, inner.in_order(),
                           false);
        }
    }

    // Keys of a node and of the lists above it, outermost first.
    void node_keys(call_values &cv, const lyd_node *node, uint8_t num_keys)
    {
        std::vector<const lyd_node *> lists;
        for (const lyd_node *p = node; p != nullptr; p = lyd_parent(p)) {
            if (p->schema->nodetype == LYS_LIST) {
                lists.push_back(p);
            }
        }
        for (auto it = lists.rbegin(); it != lists.rend(); ++it) {
            const lyd_node *key = nullptr;
            LY_LIST_FOR(lyd_child(*it), key)
            {
                if (key->schema == nullptr || !is_key(key->schema) ||
                    cv.keys.size() >= num_keys) {
                    break;
                }
                cv.keys.push_back(term_value(cv, key));
            }
        }
    }

    /* ---- comparison of the running and the new tree ---- */

    // Whether two inner nodes have one identity: the same schema node and,
    // for list entries, the same key values. The hash libyang keeps in
    // every data node covers both and settles most differences.
    static bool same_identity(const lyd_node *a, const lyd_node *b)
    {
        return a->schema == b->schema && a->hash == b->hash &&
               (a->schema->nodetype != LYS_LIST || same_keys(a, b));
    }

    // Keys come first among a list entry's children, in key order.
    static bool same_keys(const lyd_node *a, const lyd_node *b)
    {
        const lyd_node *ka = lyd_child(a);
        const lyd_node *kb = lyd_child(b);
        for (; ka != nullptr && ka->schema != nullptr && is_key(ka->schema);
             ka = ka->next, kb = kb->next) {
            if (kb == nullptr || kb->schema != ka->schema || !same_value(ka, kb)) {
                return false;
            }
        }
        return true;
    }

    // Inner nodes of one tree level, from a position on, found by identity:
    // an open-addressing table of positions probed with the nodes' hashes.
    class identity_index {
    public:
        static constexpr size_t npos = SIZE_MAX;

        identity_index(const std::vector<const lyd_node *> &nodes, size_t from) : nodes_(nodes)
        {
            if (from >= nodes.size()) {
                return;
            }
            size_t size = 4;
            while (size < 2 * (nodes.size() - from)) {
                size *= 2;
            }
            slots_.assign(size, kFree);
            for (size_t i = from; i < nodes.size(); i++) {
                size_t s = nodes[i]->hash & (size - 1);
                while (slots_[s] != kFree) {
                    s = (s + 1) & (size - 1);
                }
                slots_[s] = static_cast<uint32_t>(i);
            }
        }

        // Position of the node with node's identity, npos when there is none.
        size_t find(const lyd_node *node) const
        {
            if (slots_.empty()) {
                return npos;
            }
            const size_t mask = slots_.size() - 1;
            for (size_t s = node->hash & mask; slots_[s] != kFree; s = (s + 1) & mask) {
                if (same_identity(nodes_[slots_[s]], node)) {
                    return slots_[s];
                }
            }
            return npos;
        }

    private:
        static constexpr uint32_t kFree = UINT32_MAX;
        const std::vector<const lyd_node *> &nodes_;
        std::vector<uint32_t> slots_;
    };

    // The containers and list entries among siblings, in data order.
    static std::vector<const lyd_node *> inner_nodes(const lyd_node *first)
    {
        std::vector<const lyd_node *> out;
        const lyd_node *node = nullptr;
        LY_LIST_FOR(first, node)
        {
            if (node->schema != nullptr && !is_term(node->schema)) {
                out.push_back(node);
            }
        }
        return out;
    }

    // An inner node in the running tree (was), the new tree (now) or both.
    struct node_pair {
        const lyd_node *was;
        const lyd_node *now;
        int rank;
    };

    // The inner children of one node in its two versions, paired by
    // identity, in delivery order: schema order, and within one schema node
    // the running entries in their order, then the new ones in file order.
    // Nodes pair in place as long as both versions list the same identities
    // in the same order (a configuration edited in a few places); the rest
    // of the new ones are found through an index of their identities.
    std::vector<node_pair> paired(const lyd_node *old_first, const lyd_node *new_first) const
    {
        const std::vector<const lyd_node *> fresh = inner_nodes(new_first);
        const std::vector<const lyd_node *> old = inner_nodes(old_first);
        size_t in_place = 0;
        while (in_place < old.size() && in_place < fresh.size() &&
               same_identity(old[in_place], fresh[in_place])) {
            in_place++;
        }
        // Without running nodes left to look up (a new list) there is
        // nothing to index.
        const identity_index index(fresh, in_place < old.size() ? in_place : fresh.size());
        std::vector<bool> matched(fresh.size(), false);
        std::vector<node_pair> out;
        out.reserve(std::max(old.size(), fresh.size()));
        // Siblings of one schema node come together: one rank look-up each.
        const lysc_node *last_schema = nullptr;
        int last_rank = 0;
        auto rank_of_node = [&](const lyd_node *node) {
            if (node->schema != last_schema) {
                last_schema = node->schema;
                last_rank = rank_of(last_schema);
            }
            return last_rank;
        };
        for (size_t i = 0; i < old.size(); i++) {
            const size_t at = i < in_place ? i : index.find(old[i]);
            const lyd_node *now = nullptr;
            if (at != identity_index::npos) {
                matched[at] = true;
                now = fresh[at];
            }
            out.push_back({old[i], now, rank_of_node(old[i])});
        }
        for (size_t i = 0; i < fresh.size(); i++) {
            if (!matched[i]) {
                out.push_back({nullptr, fresh[i], rank_of_node(fresh[i])});
            }
        }
        auto by_rank = [](const node_pair &a, const node_pair &b) { return a.rank < b.rank; };
        if (!std::is_sorted(out.begin(), out.end(), by_rank)) {
            std::stable_sort(out.begin(), out.end(), by_rank);
        }
        return out;
    }

    int rank_of(const lysc_node *schema) const
    {
        auto it = rank.find(schema);
        return it != rank.end() ? it->second : 0;
    }

    /* ---- delivery ---- */

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

    // Delivers one change and, once its callback took it, records it for
    // the running tree of a commit that stops later.
    bool deliver_change(const lyd_node *node, mgmtd_iter_op oper, call_values &cv)
    {
        if (!deliver(node, oper, cv)) {
            return false;
        }
        taken.push_back({oper, node});
        return true;
    }

    // What a commit delivers, in delivery order: the topmost deleted node
    // of every subscription, then every subscribed node that is new or
    // stays (created, or modified when its values changed), parents first.
    struct change_plan {
        std::vector<const lyd_node *> deletions;
        std::vector<node_pair> updates;
    };

    // One walk over both trees, level by level.
    void plan_changes(const lyd_node *old_first, const lyd_node *new_first,
                      change_plan &plan) const
    {
        for (const node_pair &p : paired(old_first, new_first)) {
            const bool sub = subscribed(p.now != nullptr ? p.now->schema : p.was->schema);
            if (p.now == nullptr && sub) {
                plan.deletions.push_back(p.was);
                continue;
            }
            if (p.now != nullptr && sub) {
                plan.updates.push_back(p);
            }
            // List entries of leaves only (most of a long list) have nothing
            // below them to compare; their leaves are compared on delivery.
            if (holds_inner.count(p.now != nullptr ? p.now->schema : p.was->schema) != 0) {
                plan_changes(p.was != nullptr ? lyd_child(p.was) : nullptr,
                             p.now != nullptr ? lyd_child(p.now) : nullptr, plan);
            }
        }
    }

    // Deletions first, then creations and modifications; false when a
    // callback failed.
    bool deliver_plan(const change_plan &plan)
    {
        for (const lyd_node *gone : plan.deletions) {
            call_values cv;
            if (!deliver_change(gone, MOP_DELETED, cv)) {
                return false;
            }
        }
        for (const node_pair &p : plan.updates) {
            if (!deliver_update(p)) {
                return false;
            }
        }
        return true;
    }

    // The creation of a subscribed node, or its modification when any of
    // its values changed (all its leaves going away included).
    bool deliver_update(const node_pair &p)
    {
        call_values cv;
        if (p.was == nullptr) {
            cv.values = present_values(cv, p.now);
            return deliver_change(p.now, MOP_CREATED, cv);
        }
        const value_changes changes = changed_values(cv, p.was, p.now);
        if (changes.empty()) {
            return true;
        }
        const uint32_t flags = subs[sub_of_schema.at(p.now->schema)].sub.flags;
        cv.values = (flags & MGMTD_DS_SUB_WHOLE) != 0 ? present_values(cv, p.now) : changes.in_order();
        return deliver_change(p.now, MOP_MODIFIED, cv);
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

    // The running tree with the changes whose callbacks returned 0 applied;
    // the old running tree when it cannot be copied (the changes are then
    // delivered again, which the readers take as harmless).
    void keep_taken_changes()
    {
        lyd_node *working = nullptr;
        if (running != nullptr &&
            lyd_dup_siblings(running, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS,
                             &working) != LY_SUCCESS) {
            return;
        }
        for (const taken_change &c : taken) {
            if (c.oper == MOP_DELETED) {
                apply_deletion(c.node, &working);
            } else if (c.oper == MOP_CREATED) {
                apply_creation(c.node, &working);
            } else {
                apply_modification(c.node, &working);
            }
        }
        lyd_free_all(running);
        running = working;
    }

    // The running and the new tree are compared once, level by level,
    // pairing nodes through a hash of their identities, so that a commit
    // costs time linear in the size of the trees.
    int commit(lyd_node *candidate)
    {
        error.clear();
        delivered = 0;
        taken.clear();
        change_plan plan;
        plan_changes(running, candidate, plan);
        const bool done = deliver_plan(plan);
        if (done) {
            lyd_free_all(running);
            running = candidate;
        } else {
            keep_taken_changes();
            lyd_free_all(candidate);
        }
        taken.clear();
        return done ? MGMTD_DS_OK : MGMTD_DS_STOPPED;
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
    ds->index_value_schemas();
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
