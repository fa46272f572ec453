// The commit: the running and the new tree compared level by level, the
// change plan delivered to the subscribed callbacks, and the running tree
// rebuilt from the changes taken when a callback stops the commit.
#include "mgmtd_ds_internal.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

using zen::mgmtd_detail::format;
using zen::mgmtd_detail::is_key;
using zen::mgmtd_detail::is_term;

namespace {

// A data path as text (libyang allocates it).
std::string path_of(const lyd_node *node)
{
    char *text = lyd_path(node, LYD_PATH_STD, nullptr, 0);
    std::string out = text != nullptr ? text : "?";
    std::free(text);
    return out;
}

}  // namespace

/* ---- comparison of the running and the new tree ---- */

// The helpers every list entry of a commit goes through are marked inline:
// a hint to the compiler to inline them into their callers.
namespace {

// Keys come first among a list entry's children, in key order.
inline bool same_keys(const lyd_node *a, const lyd_node *b)
{
    const lyd_node *ka = lyd_child(a);
    const lyd_node *kb = lyd_child(b);
    for (; ka != nullptr && ka->schema != nullptr && is_key(ka->schema);
         ka = ka->next, kb = kb->next) {
        if (kb == nullptr || kb->schema != ka->schema || !mgmtd_ds::same_value(ka, kb)) {
            return false;
        }
    }
    return true;
}

// Whether two inner nodes have one identity: the same schema node and,
// for list entries, the same key values. The hash libyang keeps in
// every data node covers both and settles most differences.
inline bool same_identity(const lyd_node *a, const lyd_node *b)
{
    return a->schema == b->schema && a->hash == b->hash &&
           (a->schema->nodetype != LYS_LIST || same_keys(a, b));
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
inline std::vector<const lyd_node *> inner_nodes(const lyd_node *first)
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

}  // namespace

// The inner children of one node in its two versions, paired by
// identity, in delivery order: schema order, and within one schema node
// the running entries in their order, then the new ones in file order.
// Nodes pair in place as long as both versions list the same identities
// in the same order (a configuration edited in a few places); the rest
// of the new ones are found through an index of their identities.
std::vector<mgmtd_ds::node_pair> mgmtd_ds::paired(const lyd_node *old_first,
                                                  const lyd_node *new_first) const
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

int mgmtd_ds::rank_of(const lysc_node *schema) const
{
    auto it = rank.find(schema);
    return it != rank.end() ? it->second : 0;
}

/* ---- delivery ---- */

// Calls the subscription of node; false when the callback failed.
bool mgmtd_ds::deliver(const lyd_node *node, mgmtd_iter_op oper, call_values &cv)
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
bool mgmtd_ds::deliver_change(const lyd_node *node, mgmtd_iter_op oper, call_values &cv)
{
    if (!deliver(node, oper, cv)) {
        return false;
    }
    taken.push_back({oper, node});
    return true;
}

// One walk over both trees, level by level.
void mgmtd_ds::plan_changes(const lyd_node *old_first, const lyd_node *new_first,
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
bool mgmtd_ds::deliver_plan(const change_plan &plan)
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
bool mgmtd_ds::deliver_update(const node_pair &p)
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

lyd_node *mgmtd_ds::find_in(lyd_node *tree, const lyd_node *node) const
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
void mgmtd_ds::strip_subscribed(lyd_node *top) const
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

void mgmtd_ds::apply_deletion(const lyd_node *node, lyd_node **working) const
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

void mgmtd_ds::apply_creation(const lyd_node *node, lyd_node **working) const
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

void mgmtd_ds::apply_modification(const lyd_node *node, lyd_node **working) const
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
void mgmtd_ds::keep_taken_changes()
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
int mgmtd_ds::commit(lyd_node *candidate)
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
