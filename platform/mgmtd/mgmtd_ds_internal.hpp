// Internals of the configuration datastore, shared by its source files:
//
//   mgmtd_ds.cpp         open and close, schema indexing and tags, the
//                        subscription table, libyang errors, the C API;
//   mgmtd_ds_values.cpp  data nodes as mgmtd values: term values and
//                        addresses, containers, leaf-lists, what a node
//                        holds, held, or changed, and its keys;
//   mgmtd_ds_commit.cpp  comparison of the running and the new tree, the
//                        change plan and its delivery, and the running tree
//                        after a stopped commit;
//   mgmtd_ds_print.cpp   names of value kinds and operations, value texts.
//
// The delivery rules are described in zen/mgmtd_ds.h.
#ifndef ZEN_MGMTD_DS_INTERNAL_HPP
#define ZEN_MGMTD_DS_INTERNAL_HPP

#include <zen/mgmtd_ds.h>

#include <libyang/libyang.h>
#include <libyang/plugins_types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Nothing declared here leaves the library (its interface is the C API):
// hidden, the member functions are called directly between the files and
// can be inlined within one. The two structs the public header declares
// first are marked hidden at their definitions.
#define ZEN_MGMTD_DS_HIDDEN __attribute__((visibility("hidden")))
#pragma GCC visibility push(hidden)

namespace zen::mgmtd_detail {

// One subscription with its own copies of the texts.
struct subscription {
    mgmtd_ds_sub_t sub;
    std::string path;
    std::string name;
    const lysc_node *schema;
};

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

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

inline bool is_key(const lysc_node *schema)
{
    return (schema->flags & LYS_KEY) != 0;
}

inline bool is_term(const lysc_node *schema)
{
    return (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;
}

}  // namespace zen::mgmtd_detail

struct ZEN_MGMTD_DS_HIDDEN mgmtd_ds_tree {
    lyd_node *root;
};

struct ZEN_MGMTD_DS_HIDDEN mgmtd_ds {
    using subscription = zen::mgmtd_detail::subscription;
    using subscription_index = zen::mgmtd_detail::subscription_index;
    using call_values = zen::mgmtd_detail::call_values;

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

    /* ---- schema (mgmtd_ds.cpp; the look-ups every commit makes are inline here) ---- */

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
        return !zen::mgmtd_detail::is_key(schema) && schema->nodetype != LYS_LIST &&
               index.count(schema) == 0;
    }

    static size_t max_values(const lysc_node *parent, const subscription_index &index);

    uint32_t tag(const lysc_node *schema) const
    {
        auto it = tag_of_name.find(schema->name);
        return it != tag_of_name.end() ? it->second : 0;
    }

    void rank_children(const lysc_node *parent);
    bool check_tags();
    void index_value_schemas();

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

    /* ---- libyang errors (mgmtd_ds.cpp) ---- */

    std::string ly_error(const char *file);

    /* ---- values (mgmtd_ds_values.cpp) ---- */

    mgmtd_value_t term_value(call_values &cv, const lyd_node *node);
    void push(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
              mgmtd_value_t v) const;
    void push_type(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                   enum mgmtd_vtype type) const;
    void push_container(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                        std::vector<mgmtd_tag_value_t> &&inner, bool always) const;
    mgmtd_value_t list_value(call_values &cv, const std::vector<const lyd_node *> &entries);
    std::vector<mgmtd_tag_value_t> present_values(call_values &cv, const lyd_node *node);
    std::vector<mgmtd_tag_value_t> removed_values(const lyd_node *node);

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

    value_changes changed_values(call_values &cv, const lyd_node *old_node,
                                 const lyd_node *new_node);

    // Two values of one leaf compared by their type on the stored values
    // (libyang's own node comparison prints the canonical text of types
    // stored in binary, such as prefixes, and keeps it). Here, as the
    // comparison of the keys of every list entry of a commit uses it.
    static bool same_value(const lyd_node *a, const lyd_node *b)
    {
        const lyd_value &va = reinterpret_cast<const lyd_node_term *>(a)->value;
        const lyd_value &vb = reinterpret_cast<const lyd_node_term *>(b)->value;
        return va.realtype == vb.realtype && va.realtype->plugin->compare(&va, &vb) == LY_SUCCESS;
    }

    void changed_leaf(call_values &cv, const lysc_node *schema, const lyd_node *was,
                      const lyd_node *now, value_changes &out);
    void changed_leaf_list(call_values &cv, const lysc_node *schema,
                           const std::vector<const lyd_node *> &was,
                           const std::vector<const lyd_node *> &now, value_changes &out);
    void changed_container(call_values &cv, const lysc_node *schema, const lyd_node *was,
                           const lyd_node *now, value_changes &out);
    void node_keys(call_values &cv, const lyd_node *node, uint8_t num_keys);

    /* ---- comparison of the running and the new tree (mgmtd_ds_commit.cpp) ---- */

    // An inner node in the running tree (was), the new tree (now) or both.
    struct node_pair {
        const lyd_node *was;
        const lyd_node *now;
        int rank;
    };

    std::vector<node_pair> paired(const lyd_node *old_first, const lyd_node *new_first) const;
    int rank_of(const lysc_node *schema) const;

    /* ---- delivery (mgmtd_ds_commit.cpp) ---- */

    bool deliver(const lyd_node *node, mgmtd_iter_op oper, call_values &cv);
    bool deliver_change(const lyd_node *node, mgmtd_iter_op oper, call_values &cv);

    // What a commit delivers, in delivery order: the topmost deleted node
    // of every subscription, then every subscribed node that is new or
    // stays (created, or modified when its values changed), parents first.
    struct change_plan {
        std::vector<const lyd_node *> deletions;
        std::vector<node_pair> updates;
    };

    void plan_changes(const lyd_node *old_first, const lyd_node *new_first,
                      change_plan &plan) const;
    bool deliver_plan(const change_plan &plan);
    bool deliver_update(const node_pair &p);

    /* ---- the running tree after a stopped commit (mgmtd_ds_commit.cpp) ---- */

    lyd_node *find_in(lyd_node *tree, const lyd_node *node) const;
    void strip_subscribed(lyd_node *top) const;
    void apply_deletion(const lyd_node *node, lyd_node **working) const;
    void apply_creation(const lyd_node *node, lyd_node **working) const;
    void apply_modification(const lyd_node *node, lyd_node **working) const;
    void keep_taken_changes();
    int commit(lyd_node *candidate);
};

#pragma GCC visibility pop

#endif /* ZEN_MGMTD_DS_INTERNAL_HPP */
