// Data nodes as the values a configuration change callback is handed:
// term values and addresses, containers between their brackets,
// leaf-lists, what a node holds, held, or changed, and its keys.
#include "mgmtd_ds_internal.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

using zen::mgmtd_detail::call_values;
using zen::mgmtd_detail::is_key;

// The helpers every value of a commit goes through are marked inline: a
// hint to the compiler to inline them into their callers.
namespace {

// A text as a C_BUF value, its storage kept in cv while the callback runs.
inline mgmtd_value_t text_value(call_values &cv, const char *text)
{
    cv.texts.emplace_back(text != nullptr ? text : "");
    mgmtd_value_t v{};
    v.type = C_BUF;
    v.val.buf.ptr = reinterpret_cast<unsigned char *>(cv.texts.back().data());
    v.val.buf.size = static_cast<uint32_t>(cv.texts.back().size());
    return v;
}

// Addresses and prefixes of the inet types, by the type plugin that
// stored them; IPv4 in network byte order.
inline bool address_value(const char *plugin_id, const char *text, mgmtd_value_t *v)
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

bool is_presence(const lysc_node *schema)
{
    return (schema->flags & LYS_PRESENCE) != 0;
}

// The data child of node with the given schema (the first one of a
// leaf-list), null when there is none.
inline const lyd_node *child_of(const lyd_node *node, const lysc_node *schema)
{
    lyd_node *match = nullptr;
    if (node == nullptr || lyd_child(node) == nullptr ||
        lyd_find_sibling_val(lyd_child(node), schema, nullptr, 0, &match) != LY_SUCCESS) {
        return nullptr;
    }
    return match;
}

// Data children of node with the given schema, in data order.
inline std::vector<const lyd_node *> children_of(const lyd_node *node, const lysc_node *schema)
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

// Whether a leaf-list keeps the same entries (its order aside).
bool same_entries(const std::vector<const lyd_node *> &was,
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

}  // namespace

mgmtd_value_t mgmtd_ds::term_value(call_values &cv, const lyd_node *node)
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

void mgmtd_ds::push(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                    mgmtd_value_t v) const
{
    mgmtd_tag_value_t tv{};
    tv.tag.tag = tag(schema);
    tv.tag.ns = ns;
    tv.v = v;
    out.push_back(tv);
}

void mgmtd_ds::push_type(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                         enum mgmtd_vtype type) const
{
    mgmtd_value_t v{};
    v.type = type;
    push(out, schema, v);
}

// A container's inner values between its brackets; an empty
// non-presence container is left out.
void mgmtd_ds::push_container(std::vector<mgmtd_tag_value_t> &out, const lysc_node *schema,
                              std::vector<mgmtd_tag_value_t> &&inner, bool always) const
{
    if (inner.empty() && !always) {
        return;
    }
    push_type(out, schema, C_XMLBEGIN);
    out.insert(out.end(), inner.begin(), inner.end());
    push_type(out, schema, C_XMLEND);
}

mgmtd_value_t mgmtd_ds::list_value(call_values &cv, const std::vector<const lyd_node *> &entries)
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

// Everything a node holds, for a creation.
std::vector<mgmtd_tag_value_t> mgmtd_ds::present_values(call_values &cv, const lyd_node *node)
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
std::vector<mgmtd_tag_value_t> mgmtd_ds::removed_values(const lyd_node *node)
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

// What changed in a node that stays: old_node and new_node are the node
// in the running and in the new tree.
mgmtd_ds::value_changes mgmtd_ds::changed_values(call_values &cv, const lyd_node *old_node,
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

void mgmtd_ds::changed_leaf(call_values &cv, const lysc_node *schema, const lyd_node *was,
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
void mgmtd_ds::changed_leaf_list(call_values &cv, const lysc_node *schema,
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

// A container that comes hands over everything it holds, one that goes
// every leaf it held as removed, one that stays what changed inside it;
// it counts as a removal when nothing inside it is set.
void mgmtd_ds::changed_container(call_values &cv, const lysc_node *schema, const lyd_node *was,
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
void mgmtd_ds::node_keys(call_values &cv, const lyd_node *node, uint8_t num_keys)
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
