// Policy blocks, their sequences and default actions, and cflowd templates;
// the dumps of policies and users, and the route-policy line parser of the
// text test harness.
//
// Blocks of each policy type live in their own name-keyed tree of the
// context; sequences live in a tree of their block keyed by number. Every
// operation that changes something sets the caller's changed byte and
// queues the block's users for change notification.
#include <arpa/inet.h>
#include <libxml/xmlmemory.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <zen/mgmtd.h>
#include <zen/zen_util.h>

#include "pol_util.hpp"

namespace {

void queue_users_of(t_pol_ctx *ctx, t_pol_entry *entry)
{
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
}

void mark_changed(uint8_t *changed)
{
    if (changed != nullptr) {
        *changed = 1;
    }
}

bool is_data_kind(e_pol_type type)
{
    return type == POL_TYPE_DATA || type == POL_TYPE_PFR;
}

// Allocate a block, with the cflowd template a cflowd block carries.
t_pol_block *alloc_block(e_pol_type type, t_cflowd_entry **tmpl)
{
    auto *block = pol::alloc_record<t_pol_block>(POL_MEM_BLOCK);
    if (block == nullptr || type != POL_TYPE_CFLOWD) {
        return block;
    }
    *tmpl = pol::alloc_record<t_cflowd_entry>(POL_MEM_CFLOWD_ENTRY);
    if (*tmpl == nullptr) {
        pol_free(block, POL_MEM_BLOCK);
        return nullptr;
    }
    return block;
}

void init_block_kind(t_pol_ctx *ctx, t_pol_block *block, t_cflowd_entry *tmpl)
{
    if (is_data_kind(block->pol_type)) {
        pol_fwd_block_init(ctx, block);
    } else if (block->pol_type == POL_TYPE_CFLOWD) {
        pol_cflowd_block_init(ctx, block, tmpl);
    } else {
        pol_route_block_init(ctx, block);
    }
}

// Users of a deleted block stay registered but detached: every execution
// through them rejects. They are not unlinked from the dying block.
void detach_users(t_pol_ctx *ctx, t_pol_block *block)
{
    t_pol_user *user;
    TAILQ_FOREACH(user, &block->users_list, pol_block_list_entry) {
        user->pol_block_p = nullptr;
    }
    pol_block_users_add_to_chg_list(ctx, block);
}

}  // namespace

extern "C" {

void pol_xml_free_buf(pol_xml_t *xml)
{
    if (xml->buf == nullptr) {
        return;
    }
    xmlFree(xml->buf);
    xml->buf = nullptr;
    xml->buf_siz = 0;
}

/* ---- blocks ---- */

// The name is the first member of a block, so a bare name buffer serves
// as a lookup key.
int pol_block_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_NAME_SIZE));
}

e_err pol_block_init(t_pol_ctx *ctx)
{
    POL_TREE_CREATE(&ctx->route_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->fwd_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->pfr_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->membership_policies, pol_block_cmp, t_pol_block, pol_node);
    POL_TREE_CREATE(&ctx->cflowd_templates, pol_block_cmp, t_pol_block, pol_node);
    return ERR_OK;
}

avl_tree_t *pol_block_tree(t_pol_ctx *ctx, e_pol_type type)
{
    switch (type) {
    case POL_TYPE_ROUTE:
        return &ctx->route_policies;
    case POL_TYPE_DATA:
        return &ctx->fwd_policies;
    case POL_TYPE_PFR:
        return &ctx->pfr_policies;
    case POL_TYPE_MEMBERSHIP:
        return &ctx->membership_policies;
    case POL_TYPE_CFLOWD:
        return &ctx->cflowd_templates;
    default:
        return nullptr;
    }
}

t_pol_block *pol_block_find(t_pol_ctx *ctx, const char *name, e_pol_type type, avl_index_t *where)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (tree == nullptr) {
        return nullptr;
    }
    char key[POL_NAME_SIZE];
    pol::copy_name(key, name);
    return static_cast<t_pol_block *>(avl_find(tree, key, where));
}

t_pol_block *pol_block_find_or_create(t_pol_ctx *ctx, const char *name, e_pol_type type,
                                      uint8_t *changed)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (tree == nullptr) {
        return nullptr;
    }
    avl_index_t where = 0;
    if (t_pol_block *found = pol_block_find(ctx, name, type, &where)) {
        return found;
    }
    t_cflowd_entry *tmpl = nullptr;
    t_pol_block *block = alloc_block(type, &tmpl);
    if (block == nullptr) {
        return nullptr;
    }
    pol::copy_name(block->pol_name, name);
    avl_insert(tree, block, where);
    block->pol_type = type;
    TAILQ_INIT(&block->users_list);
    init_block_kind(ctx, block, tmpl);
    block->default_action_entry.entry_action = POL_ACTION_REJECT;
    block->fetch_xml = 1;
    mark_changed(changed);
    return block;
}

t_pol_block *pol_block_first(t_pol_ctx *ctx, e_pol_type type)
{
    avl_tree_t *tree = pol_block_tree(ctx, type);
    return tree != nullptr ? static_cast<t_pol_block *>(avl_first(tree)) : nullptr;
}

t_pol_block *pol_block_next(t_pol_ctx *ctx, t_pol_block *block, e_pol_type type)
{
    POL_ASSERT(block->pol_type == type);
    return static_cast<t_pol_block *>(avl_walk(pol_block_tree(ctx, type), block, AVL_AFTER));
}

void pol_block_find_and_delete(t_pol_ctx *ctx, const char *name, e_pol_type type, uint8_t *changed)
{
    t_pol_block *block = pol_block_find(ctx, name, type, nullptr);
    if (block == nullptr) {
        return;
    }
    avl_tree_t *tree = pol_block_tree(ctx, type);
    if (is_data_kind(type)) {
        pol_fwd_block_delete(ctx, tree, block, true);
    } else {
        if (type == POL_TYPE_CFLOWD) {
            pol_cflowd_block_deinit(ctx, block);
        }
        pol_block_delete(ctx, tree, block, true);
    }
    mark_changed(changed);
}

void pol_block_delete(t_pol_ctx *ctx, avl_tree_t *tree, t_pol_block *block, bool remove)
{
    uint8_t changed = 0;
    pol_entry_delete_all(ctx, block);
    pol_block_default_action_delete(ctx, block, &changed);
    detach_users(ctx, block);
    if (remove) {
        avl_remove(tree, block);
    }
    pol_xml_free_buf(&block->pol_xml);
    pol_free(block, POL_MEM_BLOCK);
}

// Only from pol_destroy. Cflowd blocks are deliberately freed without
// their templates (see the list of deliberate leaks in docs).
void pol_block_destroy(t_pol_ctx *ctx)
{
    static constexpr e_pol_type kOrder[] = {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR,
                                            POL_TYPE_MEMBERSHIP, POL_TYPE_CFLOWD};
    for (e_pol_type type : kOrder) {
        avl_tree_t *tree = pol_block_tree(ctx, type);
        pol::tree<t_pol_block>(tree).drain([&](t_pol_block *block) {
            if (is_data_kind(type)) {
                pol_fwd_block_delete(ctx, tree, block, false);
            } else {
                pol_block_delete(ctx, tree, block, false);
            }
        });
    }
}

// Compares and copies only the leading part of the default entry, of the
// size of a set-entry record; the default action itself is written by the
// configuration reader.
t_pol_entry *pol_block_default_action_add(t_pol_ctx *ctx, t_pol_block *block,
                                          const t_pol_entry *proto, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (std::memcmp(dflt, proto, sizeof(t_pol_set_entry)) != 0) {
        std::memcpy(static_cast<void *>(dflt), proto, sizeof(t_pol_set_entry));
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return dflt;
}

void pol_block_default_action_delete(t_pol_ctx *ctx, t_pol_block *block, uint8_t *changed)
{
    t_pol_entry *dflt = &block->default_action_entry;
    if (dflt->entry_action != POL_ACTION_REJECT) {
        mark_changed(changed);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    std::memset(static_cast<void *>(dflt), 0, sizeof(*dflt));
    dflt->entry_action = POL_ACTION_REJECT;
}

/* ---- sequences ---- */

void pol_route_block_init(t_pol_ctx *, t_pol_block *block)
{
    POL_TREE_CREATE(&block->pol_entries, pol_entry_cmp, t_pol_entry, entry_node);
}

// The number is the first member of a sequence, so a bare number serves as
// a lookup key.
int pol_entry_cmp(const void *a, const void *b)
{
    return pol::cmp3(*static_cast<const uint32_t *>(a), *static_cast<const uint32_t *>(b));
}

t_pol_entry *pol_entry_find(t_pol_ctx *, t_pol_block *block, uint32_t num, avl_index_t *where)
{
    return static_cast<t_pol_entry *>(avl_find(&block->pol_entries, &num, where));
}

t_pol_entry *pol_entry_find_or_create(t_pol_ctx *ctx, t_pol_block *block, uint32_t num,
                                      uint8_t *changed)
{
    avl_index_t where = 0;
    if (t_pol_entry *found = pol_entry_find(ctx, block, num, &where)) {
        return found;
    }
    auto *entry = pol::alloc_record<t_pol_entry>(POL_MEM_ENTRY);
    if (entry == nullptr) {
        return nullptr;
    }
    entry->entry_num = num;
    entry->entry_action = POL_ACTION_REJECT;
    entry->pol_block_p = block;
    pol_entry_set_add(ctx, entry);
    avl_insert(&block->pol_entries, entry, where);
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return entry;
}

void pol_entry_find_and_delete(t_pol_ctx *ctx, t_pol_block *block, uint32_t num, uint8_t *changed)
{
    t_pol_entry *entry = pol_entry_find(ctx, block, num, nullptr);
    if (entry == nullptr) {
        return;
    }
    pol_entry_delete(ctx, block, entry, true);
    mark_changed(changed);
}

void pol_entry_delete(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry, bool remove)
{
    uint8_t changed = 0;
    pol_entry_set_delete(ctx, entry, &changed);
    pol_entry_match_delete(ctx, entry, &changed);
    pol_block_users_add_to_chg_list(ctx, block);
    if (remove) {
        avl_remove(&block->pol_entries, entry);
    }
    pol_free(entry, POL_MEM_ENTRY);
}

void pol_entry_delete_all(t_pol_ctx *ctx, t_pol_block *block)
{
    pol::tree<t_pol_entry>(&block->pol_entries).drain([&](t_pol_entry *entry) {
        pol_entry_delete(ctx, block, entry, false);
    });
}

t_pol_entry *pol_entry_action_add(t_pol_ctx *ctx, t_pol_entry *entry, e_pol_action action,
                                  uint8_t *changed)
{
    if (entry->entry_action != action) {
        entry->entry_action = action;
        mark_changed(changed);
        queue_users_of(ctx, entry);
    }
    return entry;
}

void pol_entry_action_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (entry->entry_action != POL_ACTION_REJECT) {
        entry->entry_action = POL_ACTION_REJECT;
        mark_changed(changed);
        queue_users_of(ctx, entry);
    }
}

t_pol_set_entry *pol_entry_set_add(t_pol_ctx *, t_pol_entry *entry)
{
    entry->set_entry.pol_block_p = entry->pol_block_p;
    return &entry->set_entry;
}

/* ---- match conditions and set actions ---- */

}  // extern "C"

namespace {

// A value condition or action: the presence bit and the stored value move
// together; re-adding an equal value changes nothing, so re-reading an
// unchanged configuration notifies nobody.
template <typename T, typename Eq>
bool store_value(t_pol_ctx *ctx, t_pol_entry *entry, uint64_t &flags, uint64_t bit, T &field,
                 const T &value, uint8_t *changed, Eq equal)
{
    if ((flags & bit) != 0 && equal(field, value)) {
        return false;
    }
    flags |= bit;
    field = value;
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return true;
}

template <typename T>
bool store_value(t_pol_ctx *ctx, t_pol_entry *entry, uint64_t &flags, uint64_t bit, T &field,
                 const T &value, uint8_t *changed)
{
    return store_value(ctx, entry, flags, bit, field, value, changed,
                       [](const T &a, const T &b) { return a == b; });
}

template <typename T>
bool clear_value(t_pol_ctx *ctx, t_pol_entry *entry, uint64_t &flags, uint64_t bit, T &field,
                 uint8_t *changed)
{
    if ((flags & bit) == 0) {
        return false;
    }
    flags &= ~bit;
    field = T{};
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return true;
}

bool tloc_bytes_equal(const t_tloc_id &a, const t_tloc_id &b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

bool same_name(const char *stored, const char *name)
{
    return std::strncmp(stored, name != nullptr ? name : "", POL_LIST_NAME_SIZE) == 0;
}

// A condition or action that names a list: the sequence's record (match or
// set entry) joins the list's users, so a change of the list reaches the
// policy's users. Operations of one list family for one user chain.
template <typename List, typename Key, typename User>
struct list_link {
    List *(*reserve)(t_pol_ctx *, Key);  // find or create the list, no user added
    List *(*user_add)(t_pol_ctx *, Key, User *);
    e_err (*user_remove)(t_pol_ctx *, List *, User *);
    bool (*same)(const List *, Key);
};

// Links the named list; the same list again changes nothing. When the new
// list cannot be had, the bit stays set and the old list stays in the field.
// The new list is secured before the record leaves the old one, so a failed
// replacement never leaves the field pointing at a list that went away.
template <typename List, typename Key, typename User>
bool link_list(t_pol_ctx *ctx, t_pol_entry *entry, uint64_t &flags, uint64_t bit, List *&field,
               Key key, User *user, const list_link<List, Key, User> &ops, uint8_t *changed)
{
    if ((flags & bit) != 0 && field != nullptr && ops.same(field, key)) {
        return true;
    }
    flags |= bit;
    if (ops.reserve(ctx, key) == nullptr) {
        return false;
    }
    if (field != nullptr) {
        ops.user_remove(ctx, field, user);
    }
    List *list = ops.user_add(ctx, key, user);
    if (list == nullptr) {
        return false;
    }
    field = list;
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return true;
}

template <typename List, typename Key, typename User>
void unlink_list(t_pol_ctx *ctx, t_pol_entry *entry, uint64_t &flags, uint64_t bit, List *&field,
                 User *user, const list_link<List, Key, User> &ops, uint8_t *changed)
{
    if ((flags & bit) == 0) {
        return;
    }
    flags &= ~bit;
    List *old = field;
    field = nullptr;
    if (old != nullptr) {
        ops.user_remove(ctx, old, user);
    }
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

const list_link<t_vpn_list, const char *, t_pol_match_entry> kVpnMatch = {
    [](t_pol_ctx *c, const char *n) { return pol_vpn_list_find_or_create(c, n, nullptr); },
    pol_vpn_list_match_user_add, pol_vpn_list_match_user_remove,
    [](const t_vpn_list *l, const char *n) { return same_name(l->vpn_list_name, n); }};
const list_link<t_vpn_list, const char *, t_pol_set_entry> kVpnAction = {
    [](t_pol_ctx *c, const char *n) { return pol_vpn_list_find_or_create(c, n, nullptr); },
    pol_vpn_list_action_user_add, pol_vpn_list_action_user_remove,
    [](const t_vpn_list *l, const char *n) { return same_name(l->vpn_list_name, n); }};
const list_link<t_tloc_list, const char *, t_pol_match_entry> kTlocMatch = {
    [](t_pol_ctx *c, const char *n) { return pol_tloc_list_find_or_create(c, n, nullptr); },
    pol_tloc_list_user_add, pol_tloc_list_user_remove,
    [](const t_tloc_list *l, const char *n) { return same_name(l->tloc_list_name, n); }};
const list_link<t_tloc_list, const char *, t_pol_set_entry> kTlocAction = {
    [](t_pol_ctx *c, const char *n) { return pol_tloc_list_find_or_create(c, n, nullptr); },
    pol_tloc_list_action_user_add, pol_tloc_list_action_user_remove,
    [](const t_tloc_list *l, const char *n) { return same_name(l->tloc_list_name, n); }};
const list_link<t_site_list, const char *, t_pol_match_entry> kSiteMatch = {
    [](t_pol_ctx *c, const char *n) { return pol_site_list_find_or_create(c, n, nullptr); },
    pol_site_list_pol_user_add, pol_site_list_pol_user_remove,
    [](const t_site_list *l, const char *n) { return same_name(l->site_list_name, n); }};
const list_link<t_color_list, const char *, t_pol_match_entry> kColorMatch = {
    [](t_pol_ctx *c, const char *n) { return pol_color_list_find_or_create(c, n, nullptr); },
    pol_color_list_user_add, pol_color_list_user_remove,
    [](const t_color_list *l, const char *n) { return same_name(l->color_list_name, n); }};
const list_link<t_pfx_list, const t_pfx_list_key *, t_pol_match_entry> kPfxMatch = {
    [](t_pol_ctx *c, const t_pfx_list_key *k) { return pol_pfx_list_find_or_create(c, k, nullptr); },
    pol_pfx_list_user_add, pol_pfx_list_user_remove,
    [](const t_pfx_list *l, const t_pfx_list_key *k) {
        return l->pfx_af == k->pfx_key_af && same_name(l->pfx_list_name, k->pfx_key_name_p);
    }};

// Community lists: the key carries the kind, which picks the tree.
struct community_key {
    const char *name;
    community_list_type type;
};
const list_link<t_community_list, community_key, t_pol_match_entry> kCommunityMatch = {
    [](t_pol_ctx *c, community_key k) {
        return pol_community_list_find_or_create(c, k.name, k.type, nullptr);
    },
    [](t_pol_ctx *c, community_key k, t_pol_match_entry *m) {
        return pol_community_list_user_add(c, k.name, k.type, m);
    },
    pol_community_list_user_remove,
    [](const t_community_list *l, community_key k) {
        return l->type == k.type && same_name(l->community_list_name, k.name);
    }};

// Origin codes of the configuration and the (protocol, subtype) pair each
// stands for; codes 8 to 10 are accepted and deliberately ignored.
struct origin_pair {
    bool known;
    uint8_t type;
    uint8_t subtype;
};
constexpr origin_pair kOriginCodes[] = {
    {true, 2, 0}, {true, 1, 0}, {true, 4, 2}, {true, 4, 1}, {true, 4, 3}, {true, 4, 4},  {true, 3, 1},
    {true, 3, 2}, {false, 0, 0}, {false, 0, 0}, {false, 0, 0}, {true, 5, 0}, {true, 8, 0},
};

void set_block_flag(t_pol_entry *entry, uint32_t flag, bool on)
{
    if (entry->pol_block_p == nullptr) {
        return;
    }
    if (on) {
        entry->pol_block_p->pol_flags |= flag;
    } else {
        entry->pol_block_p->pol_flags &= ~flag;
    }
}

}  // namespace

#define POL_MATCH (entry->match_entry)
#define POL_SET (entry->set_entry)
#define POL_MFLAGS (entry->entry_match_flags)
#define POL_SFLAGS (entry->entry_set_flags)

extern "C" {

t_pol_match_entry *pol_entry_match_add(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry,
                                       e_pol_match_type type, uint8_t *changed)
{
    if (POL_MATCH.match_type != POL_MATCH_INVALID) {
        if (POL_MATCH.match_type == type) {
            return &POL_MATCH;
        }
        pol_entry_match_delete(ctx, entry, changed);
    }
    POL_MATCH.match_type = type;
    POL_MATCH.pol_block_p = block;
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return &POL_MATCH;
}

// Every condition goes, in a fixed order, each unhooking the sequence
// from the list it names; then the whole match entry is zeroed.
void pol_entry_match_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (POL_MFLAGS == 0 && POL_MATCH.match_type == POL_MATCH_INVALID) {
        return;
    }
    pol_entry_match_origin_metric_delete(ctx, entry, changed);
    pol_entry_match_tag_delete(ctx, entry, changed);
    pol_entry_match_preference_delete(ctx, entry, changed);
    pol_entry_match_domain_delete(ctx, entry, changed);
    pol_entry_match_group_delete(ctx, entry, changed);
    pol_entry_match_vpn_id_delete(ctx, entry, changed);
    pol_entry_match_vpn_list_delete(ctx, entry, changed);
    pol_entry_match_tloc_delete(ctx, entry, changed);
    pol_entry_match_tloc_list_delete(ctx, entry, changed);
    pol_entry_match_site_delete(ctx, entry, changed);
    pol_entry_match_site_list_delete(ctx, entry, changed);
    pol_entry_match_pfx_list_delete(ctx, entry, changed);
    pol_entry_match_carrier_delete(ctx, entry, changed);
    pol_entry_match_color_delete(ctx, entry, changed);
    pol_entry_match_color_list_delete(ctx, entry, changed);
    pol_entry_match_community_list_delete(ctx, entry, COMM_LIST_TYPE_EXPANDED, changed);
    pol_entry_match_community_list_delete(ctx, entry, COMM_LIST_TYPE_STANDARD, changed);
    POL_MFLAGS = 0;
    std::memset(static_cast<void *>(&POL_MATCH), 0, sizeof(POL_MATCH));
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

#define POL_VALUE_PAIR(what, bit, field, type)                                                   \
    t_pol_match_entry *pol_entry_match_##what##_add(t_pol_ctx *ctx, t_pol_entry *entry, type v,  \
                                                    uint8_t *changed)                            \
    {                                                                                            \
        store_value(ctx, entry, POL_MFLAGS, bit, POL_MATCH.field, static_cast<decltype(POL_MATCH.field)>(v), changed); \
        return &POL_MATCH;                                                                       \
    }                                                                                            \
    void pol_entry_match_##what##_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)   \
    {                                                                                            \
        clear_value(ctx, entry, POL_MFLAGS, bit, POL_MATCH.field, changed);                      \
    }

POL_VALUE_PAIR(tag, POL_MATCH_FLAG_TAG, match_tag, uint32_t)
POL_VALUE_PAIR(origin_metric, POL_MATCH_FLAG_ORIGIN_METRIC, match_origin_metric, uint32_t)
POL_VALUE_PAIR(preference, POL_MATCH_FLAG_PREFERENCE, match_preference, uint32_t)
POL_VALUE_PAIR(domain, POL_MATCH_FLAG_DOMAIN, match_domain, uint32_t)
POL_VALUE_PAIR(group, POL_MATCH_FLAG_GROUP, match_group, uint32_t)
POL_VALUE_PAIR(vpn_id, POL_MATCH_FLAG_VPN_ID, match_vpn_id, uint64_t)
POL_VALUE_PAIR(site, POL_MATCH_FLAG_SITE, match_site_id, uint32_t)
POL_VALUE_PAIR(carrier, POL_MATCH_FLAG_CARRIER, match_carrier, uint8_t)
POL_VALUE_PAIR(color, POL_MATCH_FLAG_COLOR, match_color, uint16_t)

#define POL_LIST_MATCH_PAIR(what, bit, field, key_type, ops)                                      \
    t_pol_match_entry *pol_entry_match_##what##_add(t_pol_ctx *ctx, t_pol_entry *entry,           \
                                                    key_type key, uint8_t *changed)               \
    {                                                                                             \
        return link_list(ctx, entry, POL_MFLAGS, bit, POL_MATCH.field, key, &POL_MATCH, ops, changed) \
                   ? &POL_MATCH                                                                   \
                   : nullptr;                                                                     \
    }                                                                                             \
    void pol_entry_match_##what##_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)    \
    {                                                                                             \
        unlink_list(ctx, entry, POL_MFLAGS, bit, POL_MATCH.field, &POL_MATCH, ops, changed);      \
    }

POL_LIST_MATCH_PAIR(vpn_list, POL_MATCH_FLAG_VPN_LIST, match_vpn_list_p, const char *, kVpnMatch)
POL_LIST_MATCH_PAIR(tloc_list, POL_MATCH_FLAG_TLOC_LIST, match_tloc_list_p, const char *, kTlocMatch)
POL_LIST_MATCH_PAIR(site_list, POL_MATCH_FLAG_SITE_LIST, match_site_list_p, const char *, kSiteMatch)
POL_LIST_MATCH_PAIR(pfx_list, POL_MATCH_FLAG_PFX_LIST, match_pfx_list_p, const t_pfx_list_key *,
                    kPfxMatch)
POL_LIST_MATCH_PAIR(color_list, POL_MATCH_FLAG_COLOR_LIST, match_color_list_p, const char *,
                    kColorMatch)

t_pol_match_entry *pol_entry_match_tloc_add(t_pol_ctx *ctx, t_pol_entry *entry,
                                            const t_tloc_id *tloc, uint8_t *changed)
{
    store_value(ctx, entry, POL_MFLAGS, POL_MATCH_FLAG_TLOC, POL_MATCH.match_tloc, *tloc, changed,
                [](const t_tloc_id &a, const t_tloc_id &b) { return TLOC_CMP(&a, &b) == 0; });
    return &POL_MATCH;
}

void pol_entry_match_tloc_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    clear_value(ctx, entry, POL_MFLAGS, POL_MATCH_FLAG_TLOC, POL_MATCH.match_tloc, changed);
}

t_pol_match_entry *pol_entry_match_originator_add(t_pol_ctx *ctx, t_pol_entry *entry,
                                                  const t_ipaddr *addr, uint8_t *changed)
{
    store_value(ctx, entry, POL_MFLAGS, POL_MATCH_FLAG_ORIGINATOR, POL_MATCH.match_originator,
                *addr, changed,
                [](const t_ipaddr &a, const t_ipaddr &b) { return IPADDR_CMP(&a, &b) == 0; });
    return &POL_MATCH;
}

void pol_entry_match_originator_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    clear_value(ctx, entry, POL_MFLAGS, POL_MATCH_FLAG_ORIGINATOR, POL_MATCH.match_originator,
                changed);
}

// Stores the (protocol, subtype) pair of a configuration origin code.
t_pol_match_entry *pol_entry_match_origin_add(t_pol_ctx *ctx, t_pol_entry *entry, uint32_t code,
                                              uint8_t *changed)
{
    if (code >= std::size(kOriginCodes) || !kOriginCodes[code].known) {
        return &POL_MATCH;
    }
    const origin_pair &pair = kOriginCodes[code];
    if ((POL_MFLAGS & POL_MATCH_FLAG_ORIGIN) != 0 && POL_MATCH.match_origin_type == pair.type &&
        POL_MATCH.match_origin_subtype == pair.subtype) {
        return &POL_MATCH;
    }
    POL_MFLAGS |= POL_MATCH_FLAG_ORIGIN;
    POL_MATCH.match_origin_type = pair.type;
    POL_MATCH.match_origin_subtype = pair.subtype;
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return &POL_MATCH;
}

void pol_entry_match_origin_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if ((POL_MFLAGS & POL_MATCH_FLAG_ORIGIN) == 0) {
        return;
    }
    POL_MFLAGS &= ~POL_MATCH_FLAG_ORIGIN;
    POL_MATCH.match_origin_type = 0;
    POL_MATCH.match_origin_subtype = 0;
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

}  // extern "C"

namespace {

uint64_t community_bit(community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? POL_MATCH_FLAG_EXP_COMMUNITY_LIST
                                           : POL_MATCH_FLAG_COMMUNITY_LIST;
}

t_community_list *&community_field(t_pol_entry *entry, community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? POL_MATCH.match_exp_community_list_p
                                           : POL_MATCH.match_community_list_p;
}

community_list_type other_kind(community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED;
}

}  // namespace

extern "C" {

// A sequence's record has one link for community-list users, so it can sit
// on one community list at a time: matching on a list of the other kind
// first drops the current one.
t_pol_match_entry *pol_entry_match_community_list_add(t_pol_ctx *ctx, t_pol_entry *entry,
                                                      const char *name, community_list_type type,
                                                      uint8_t *changed)
{
    if (type != COMM_LIST_TYPE_STANDARD && type != COMM_LIST_TYPE_EXPANDED) {
        return nullptr;
    }
    community_key key = {name, type};
    t_community_list *current = community_field(entry, type);
    if ((POL_MFLAGS & (POL_MATCH_FLAG_COMMUNITY_LIST | POL_MATCH_FLAG_EXP_COMMUNITY_LIST)) != 0 &&
        current != nullptr && kCommunityMatch.same(current, key)) {
        return &POL_MATCH;
    }
    pol_entry_match_community_list_delete(ctx, entry, other_kind(type), changed);
    return link_list(ctx, entry, POL_MFLAGS, community_bit(type), community_field(entry, type), key,
                     &POL_MATCH, kCommunityMatch, changed)
               ? &POL_MATCH
               : nullptr;
}

void pol_entry_match_community_list_delete(t_pol_ctx *ctx, t_pol_entry *entry,
                                           community_list_type type, uint8_t *changed)
{
    if (type != COMM_LIST_TYPE_STANDARD && type != COMM_LIST_TYPE_EXPANDED) {
        return;
    }
    unlink_list(ctx, entry, POL_MFLAGS, community_bit(type), community_field(entry, type),
                &POL_MATCH, kCommunityMatch, changed);
}

/* ---- set actions ---- */

#define POL_SET_VALUE_PAIR(what, bit, field, type)                                               \
    t_pol_set_entry *pol_entry_set_##what##_add(t_pol_ctx *ctx, t_pol_entry *entry, type v,      \
                                                uint8_t *changed)                                \
    {                                                                                            \
        store_value(ctx, entry, POL_SFLAGS, bit, POL_SET.field, static_cast<decltype(POL_SET.field)>(v), changed); \
        return &POL_SET;                                                                         \
    }                                                                                            \
    void pol_entry_set_##what##_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)     \
    {                                                                                            \
        clear_value(ctx, entry, POL_SFLAGS, bit, POL_SET.field, changed);                        \
    }

POL_SET_VALUE_PAIR(tag, POL_SET_FLAG_TAG, set_tag, uint32_t)
POL_SET_VALUE_PAIR(preference, POL_SET_FLAG_PREFERENCE, set_preference, uint32_t)
POL_SET_VALUE_PAIR(vpn_id, POL_SET_FLAG_VPN_ID, export_vpn_id, uint64_t)

// The block's summary bit follows the last add or delete of any sequence:
// deliberately, deleting the action from one sequence clears it even when
// others still carry the action.
t_pol_set_entry *pol_entry_set_tloc_add(t_pol_ctx *ctx, t_pol_entry *entry, const t_tloc_id *tloc,
                                        uint8_t *changed)
{
    store_value(ctx, entry, POL_SFLAGS, POL_SET_FLAG_TLOC, POL_SET.set_tloc, *tloc, changed,
                tloc_bytes_equal);
    set_block_flag(entry, POL_BLOCK_FLAG_SETS_TLOC, true);
    return &POL_SET;
}

void pol_entry_set_tloc_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if (clear_value(ctx, entry, POL_SFLAGS, POL_SET_FLAG_TLOC, POL_SET.set_tloc, changed)) {
        set_block_flag(entry, POL_BLOCK_FLAG_SETS_TLOC, false);
    }
}

t_pol_set_entry *pol_entry_set_vpn_list_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                            uint8_t *changed)
{
    return link_list(ctx, entry, POL_SFLAGS, POL_SET_FLAG_VPN_LIST, POL_SET.export_vpn_list_p, name,
                     &POL_SET, kVpnAction, changed)
               ? &POL_SET
               : nullptr;
}

void pol_entry_set_vpn_list_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    unlink_list(ctx, entry, POL_SFLAGS, POL_SET_FLAG_VPN_LIST, POL_SET.export_vpn_list_p, &POL_SET,
                kVpnAction, changed);
}

t_pol_set_entry *pol_entry_set_tloc_list_add(t_pol_ctx *ctx, t_pol_entry *entry, const char *name,
                                             uint8_t *changed)
{
    bool linked = link_list(ctx, entry, POL_SFLAGS, POL_SET_FLAG_TLOC_LIST, POL_SET.tloc_list_p,
                            name, &POL_SET, kTlocAction, changed);
    if (!linked) {
        return nullptr;
    }
    set_block_flag(entry, POL_BLOCK_FLAG_SETS_TLOC_LIST, true);
    return &POL_SET;
}

void pol_entry_set_tloc_list_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if ((POL_SFLAGS & POL_SET_FLAG_TLOC_LIST) != 0) {
        set_block_flag(entry, POL_BLOCK_FLAG_SETS_TLOC_LIST, false);
    }
    unlink_list(ctx, entry, POL_SFLAGS, POL_SET_FLAG_TLOC_LIST, POL_SET.tloc_list_p, &POL_SET,
                kTlocAction, changed);
}

t_pol_set_entry *pol_entry_set_service_add(t_pol_ctx *ctx, t_pol_entry *entry, uint16_t service,
                                           const t_tloc_id *tloc, uint64_t vpn_id, uint8_t *changed)
{
    set_block_flag(entry, POL_BLOCK_FLAG_SETS_SERVICE, true);
    if ((POL_SFLAGS & POL_SET_FLAG_SERVICE) != 0 && POL_SET.set_service == service &&
        tloc_bytes_equal(POL_SET.set_svc_tloc, *tloc) && POL_SET.set_svc_vpn_id == vpn_id) {
        return &POL_SET;
    }
    POL_SFLAGS |= POL_SET_FLAG_SERVICE;
    POL_SET.set_service = service;
    POL_SET.set_svc_tloc = *tloc;
    POL_SET.set_svc_vpn_id = vpn_id;
    mark_changed(changed);
    queue_users_of(ctx, entry);
    return &POL_SET;
}

void pol_entry_set_service_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    if ((POL_SFLAGS & POL_SET_FLAG_SERVICE) == 0) {
        return;
    }
    set_block_flag(entry, POL_BLOCK_FLAG_SETS_SERVICE, false);
    POL_SFLAGS &= ~POL_SET_FLAG_SERVICE;
    POL_SET.set_service = 0;
    POL_SET.set_svc_tloc = t_tloc_id{};
    POL_SET.set_svc_vpn_id = 0;
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

// Unhooks the lists the actions name, clears the community set, then zeroes
// every action (the record's block pointer included).
void pol_entry_set_delete(t_pol_ctx *ctx, t_pol_entry *entry, uint8_t *changed)
{
    pol_entry_set_vpn_list_delete(ctx, entry, changed);
    pol_entry_set_tloc_list_delete(ctx, entry, changed);
    pol_config_set_bgp_community_upd(entry, nullptr, 0);
    if (POL_SFLAGS == 0) {
        return;
    }
    POL_SFLAGS = 0;
    std::memset(static_cast<void *>(&POL_SET), 0, sizeof(POL_SET));
    mark_changed(changed);
    queue_users_of(ctx, entry);
}

/* ---- cflowd templates ---- */

void pol_cflowd_block_init(t_pol_ctx *, t_pol_block *block, t_cflowd_entry *tmpl)
{
    block->pol_cflowd_entry = tmpl;
    tmpl->cflowd_pol_block_p = block;
    POL_TREE_CREATE(&tmpl->collector_db, pol_cflowd_entry_cmp, t_cflowd_collector, avl_node);
}

void pol_cflowd_block_deinit(t_pol_ctx *, t_pol_block *block)
{
    t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (tmpl == nullptr) {
        return;
    }
    pol::tree<t_cflowd_collector> collectors(&tmpl->collector_db);
    while (t_cflowd_collector *coll = collectors.first()) {
        collectors.remove(coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    avl_destroy(&tmpl->collector_db);
    pol_free(tmpl, POL_MEM_CFLOWD_ENTRY);
    block->pol_cflowd_entry = nullptr;
}

// A collector's identity: VPN, address, port, transport (not the source
// interface).
int pol_cflowd_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_cflowd_collector *>(a);
    const auto *y = static_cast<const t_cflowd_collector *>(b);
    if (int r = pol::cmp3(x->vpn_id, y->vpn_id)) {
        return r;
    }
    if (int r = IPADDR_CMP(&x->addr, &y->addr)) {
        return r;
    }
    if (int r = pol::cmp3(x->port, y->port)) {
        return r;
    }
    return pol::cmp3(x->transport_type, y->transport_type);
}

int pol_cflowd_add_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    avl_index_t where = 0;
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, &where));
    if (coll != nullptr) {
        if (std::strncmp(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE) != 0) {
            pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
        }
        return 0;
    }
    coll = pol::alloc_record<t_cflowd_collector>(POL_MEM_CFLOWD_COLL_ENTRY);
    if (coll == nullptr) {
        return 1;
    }
    coll->vpn_id = proto->vpn_id;
    coll->port = proto->port;
    coll->transport_type = proto->transport_type;
    IPADDR_COPY(&coll->addr, &proto->addr);
    coll->cflowd_entry_p = tmpl;
    avl_insert(&tmpl->collector_db, coll, where);
    pol::copy_name_bounded(coll->source_if, proto->source_if, POL_CFLOWD_SOURCE_IF_SIZE);
    return 0;
}

int pol_cflowd_del_collector(t_cflowd_entry *tmpl, const t_cflowd_collector *proto)
{
    auto *coll = static_cast<t_cflowd_collector *>(avl_find(&tmpl->collector_db, proto, nullptr));
    if (coll != nullptr) {
        avl_remove(&tmpl->collector_db, coll);
        pol_free(coll, POL_MEM_CFLOWD_COLL_ENTRY);
    }
    return 0;
}

}  // extern "C"

/* ---- dumps ---- */

namespace {

const char *dump_title(e_pol_type type)
{
    switch (type) {
    case POL_TYPE_ROUTE:
        return "\n  ROUTE POLICIES";
    case POL_TYPE_DATA:
        return "\n  FORWARDING POLICIES";
    case POL_TYPE_PFR:
        return "\n  PERF ROUTE POLICIES";
    case POL_TYPE_MEMBERSHIP:
        return "\n  MEMBERSHIP POLICIES";
    case POL_TYPE_CFLOWD:
        return "\n  CFLOWD TEMPLATES";
    default:
        return nullptr;
    }
}

// A rendered flag word without its trailing blank.
const char *trimmed(char *buf)
{
    std::size_t n = std::strlen(buf);
    if (n > 0 && buf[n - 1] == ' ') {
        buf[n - 1] = '\0';
    }
    return buf;
}

// Prints the items of one line ("\n    match: a, b"), opening the line with
// its first item; nothing at all when no item comes.
class item_line {
public:
    item_line(mgmtd_cli_user_info *uinfo, const char *label) : uinfo_(uinfo), label_(label) {}

    template <typename... Args>
    void add(const char *fmt, Args... args)
    {
        if (first_) {
            pol_cli_printf(uinfo_, "\n    %s: ", label_);
            first_ = false;
        } else {
            pol_cli_printf(uinfo_, ", ");
        }
        pol_cli_printf(uinfo_, fmt, args...);
    }

private:
    mgmtd_cli_user_info *uinfo_;
    const char *label_;
    bool first_ = true;
};

const char *name_or_dash(const char *name)
{
    return name != nullptr ? name : "-";
}

void dump_match_values(const t_pol_entry *entry, mgmtd_cli_user_info *uinfo)
{
    const t_pol_match_entry &m = entry->match_entry;
    const uint64_t f = entry->entry_match_flags;
    char text[128];
    item_line line(uinfo, "match");
    if (f & POL_MATCH_FLAG_TAG) {
        line.add("tag %u", m.match_tag);
    }
    if (f & POL_MATCH_FLAG_ORIGIN_METRIC) {
        line.add("metric %u", m.match_origin_metric);
    }
    if (f & POL_MATCH_FLAG_DOMAIN) {
        line.add("domain %u", m.match_domain);
    }
    if (f & POL_MATCH_FLAG_PREFERENCE) {
        line.add("preference %u", m.match_preference);
    }
    if (f & POL_MATCH_FLAG_VPN_ID) {
        line.add("vpn %lu", static_cast<unsigned long>(m.match_vpn_id));
    }
    if (f & POL_MATCH_FLAG_VPN_LIST) {
        line.add("vpn-list %s", name_or_dash(m.match_vpn_list_p ? m.match_vpn_list_p->vpn_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_SITE) {
        line.add("site %u", m.match_site_id);
    }
    if (f & POL_MATCH_FLAG_SITE_LIST) {
        line.add("site-list %s", name_or_dash(m.match_site_list_p ? m.match_site_list_p->site_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_TLOC) {
        line.add("tloc %s", tloc_id_print_short(&m.match_tloc, text, sizeof(text)));
    }
    if (f & POL_MATCH_FLAG_TLOC_LIST) {
        line.add("tloc-list %s", name_or_dash(m.match_tloc_list_p ? m.match_tloc_list_p->tloc_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_PFX_LIST) {
        const t_pfx_list *pfx = m.match_pfx_list_p;
        line.add("prefix-list %s%s", name_or_dash(pfx ? pfx->pfx_list_name : nullptr),
                 pfx != nullptr && pfx->pfx_af == POL_AF_IPV6 ? " (ipv6)" : "");
    }
    if (f & POL_MATCH_FLAG_ORIGIN) {
        line.add("origin %u/%u", static_cast<unsigned>(m.match_origin_type),
                 static_cast<unsigned>(m.match_origin_subtype));
    }
    if (f & POL_MATCH_FLAG_ORIGINATOR) {
        line.add("originator %s", ipaddr_print(&m.match_originator, text, sizeof(text)));
    }
    if (f & POL_MATCH_FLAG_CARRIER) {
        line.add("carrier %u", static_cast<unsigned>(m.match_carrier));
    }
    if (f & POL_MATCH_FLAG_GROUP) {
        line.add("group %u", m.match_group);
    }
    if (f & POL_MATCH_FLAG_COLOR) {
        line.add("color %s", zen_util_tloc_color_name(m.match_color));
    }
    if (f & POL_MATCH_FLAG_COLOR_LIST) {
        line.add("color-list %s", name_or_dash(m.match_color_list_p ? m.match_color_list_p->color_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_COMMUNITY_LIST) {
        const t_community_list *c = m.match_community_list_p;
        line.add("community-list %s", name_or_dash(c ? c->community_list_name : nullptr));
    }
    if (f & POL_MATCH_FLAG_EXP_COMMUNITY_LIST) {
        const t_community_list *c = m.match_exp_community_list_p;
        line.add("expanded-community-list %s", name_or_dash(c ? c->community_list_name : nullptr));
    }
}

void dump_set_values(const t_pol_entry *entry, mgmtd_cli_user_info *uinfo)
{
    const t_pol_set_entry &s = entry->set_entry;
    const uint64_t f = entry->entry_set_flags;
    char text[128];
    item_line line(uinfo, "set");
    if (f & POL_SET_FLAG_TAG) {
        line.add("tag %u", s.set_tag);
    }
    if (f & POL_SET_FLAG_PREFERENCE) {
        line.add("preference %u", s.set_preference);
    }
    if (f & POL_SET_FLAG_TLOC) {
        line.add("tloc %s", tloc_id_print_short(&s.set_tloc, text, sizeof(text)));
    }
    if (f & POL_SET_FLAG_VPN_ID) {
        line.add("vpn %lu", static_cast<unsigned long>(s.export_vpn_id));
    }
    if (f & POL_SET_FLAG_VPN_LIST) {
        line.add("vpn-list %s", name_or_dash(s.export_vpn_list_p ? s.export_vpn_list_p->vpn_list_name : nullptr));
    }
    if (f & POL_SET_FLAG_SERVICE) {
        line.add("service %s tloc %s vpn %lu", zen_util_svc_name(s.set_service),
                 tloc_id_print_short(&s.set_svc_tloc, text, sizeof(text)),
                 static_cast<unsigned long>(s.set_svc_vpn_id));
    }
    if (f & POL_SET_FLAG_TLOC_LIST) {
        line.add("tloc-list %s", name_or_dash(s.tloc_list_p ? s.tloc_list_p->tloc_list_name : nullptr));
    }
    if ((f & POL_SET_FLAG_COMMUNITY) && s.set_community != nullptr) {
        char communities[POL_COMMUNITY_LIST_STR_SIZE] = "";
        line.add("community %s%s", pol_dump_set_community(communities, s.set_community),
                 (f & POL_SET_FLAG_COMMUNITY_ADDITIVE) ? " additive" : "");
    }
}

// The sequences of a data block sit under its VPN lists.
void dump_data_sequences(t_pol_block *block, mgmtd_cli_user_info *uinfo)
{
    pol::tree<t_pol_fwd_vpn_entry>(&block->pol_fwd_vpn_list_entries).for_each([&](t_pol_fwd_vpn_entry *vpn) {
        pol_cli_printf(uinfo, "\n  vpn-list %s", vpn->vpn_name);
        pol::tree<t_pol_entry>(&vpn->pol_entries).for_each([&](t_pol_entry *entry) {
            pol_dump_entry(entry, uinfo);
        });
    });
}

int dump_policies_of(mgmtd_cli_user_info *uinfo, e_pol_type type)
{
    if (g_pol_ctx_p != nullptr) {
        pol_dump_policies(uinfo, type);
    }
    return 0;
}

}  // namespace

extern "C" {

void pol_dump_policies(struct mgmtd_cli_user_info *uinfo, e_pol_type type)
{
    const char *title = dump_title(type);
    if (title == nullptr || g_pol_ctx_p == nullptr) {
        return;
    }
    pol_cli_dump_heading(uinfo, title);
    for (t_pol_block *block = pol_block_first(g_pol_ctx_p, type); block != nullptr;
         block = pol_block_next(g_pol_ctx_p, block, type)) {
        pol_dump_block(block, uinfo);
    }
}

int pol_dump_route_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_ROUTE);
}

int pol_dump_membership_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_MEMBERSHIP);
}

int pol_dump_cflowd_policies(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    return dump_policies_of(uinfo, POL_TYPE_CFLOWD);
}

void pol_dump_block(t_pol_block *block, struct mgmtd_cli_user_info *uinfo)
{
    if (block->pol_type == POL_TYPE_CFLOWD) {
        pol_dump_cflowd_template(block, uinfo);
    } else {
        pol_cli_printf(uinfo, "\n%s-policy %s", pol_util_type_str(block->pol_type), block->pol_name);
        if (is_data_kind(block->pol_type)) {
            dump_data_sequences(block, uinfo);
        } else {
            pol::tree<t_pol_entry>(&block->pol_entries).for_each([&](t_pol_entry *entry) {
                pol_dump_entry(entry, uinfo);
            });
        }
    }
    pol_cli_printf(uinfo, "\n    default-action: %s, fetch_xml: %u",
                   pol_util_action_str(block->default_action_entry.entry_action),
                   static_cast<unsigned>(block->fetch_xml));
    pol_cli_printf(uinfo, "\n\n  Users:");
    t_pol_user *user;
    TAILQ_FOREACH(user, &block->users_list, pol_block_list_entry) {
        pol_dump_user(user, uinfo);
    }
}

void pol_dump_cflowd_template(t_pol_block *block, struct mgmtd_cli_user_info *uinfo)
{
    pol_cli_printf(uinfo, "\n%s-policy %s", pol_util_type_str(block->pol_type), block->pol_name);
    const t_cflowd_entry *tmpl = block->pol_cflowd_entry;
    if (tmpl == nullptr) {
        return;
    }
    pol_cli_printf(uinfo, "\n  flow-active-timeout: %ld", static_cast<long>(tmpl->flow_active_timeout));
    pol_cli_printf(uinfo, "\n  flow-inactive-timeout: %ld", static_cast<long>(tmpl->flow_inactive_timeout));
    pol_cli_printf(uinfo, "\n  flow-sampling-interval: %ld", static_cast<long>(tmpl->flow_sampling_interval));
    pol_cli_printf(uinfo, "\n  template-refresh: %ld", static_cast<long>(tmpl->template_refresh));
    pol_cli_printf(uinfo, "\n  protocol: %d", static_cast<int>(tmpl->protocol));
    int number = 0;
    pol::tree<t_cflowd_collector>(const_cast<avl_tree_t *>(&tmpl->collector_db))
        .for_each([&](t_cflowd_collector *coll) {
            char addr[100];
            pol_cli_printf(uinfo, "\n  Collector: %d", ++number);
            pol_cli_printf(uinfo, "\n    vpn_id: %ld", static_cast<long>(coll->vpn_id));
            pol_cli_printf(uinfo, "\n    addr: %s", ipaddr_print(&coll->addr, addr, sizeof(addr)));
            pol_cli_printf(uinfo, "\n    port: %d", static_cast<int>(coll->port));
            pol_cli_printf(uinfo, "\n    transport_type: %d", static_cast<int>(coll->transport_type));
            pol_cli_printf(uinfo, "\n    source_if: %s", coll->source_if);
        });
}

// Layout in docs/dumps.md. Data-policy conditions reuse the bits of
// control-policy conditions, so a data sequence shows its flag words only.
void pol_dump_entry(t_pol_entry *entry, struct mgmtd_cli_user_info *uinfo)
{
    char match_flags[512];
    char set_flags[256];
    pol_cli_printf(uinfo, "\n  sequence %u: match-type %s, action %s", entry->entry_num,
                   pol_util_match_type_str(entry->match_entry.match_type),
                   pol_util_action_str(entry->entry_action));
    pol_util_match_flags_str(entry, match_flags, sizeof(match_flags));
    pol_util_set_flags_str(entry, set_flags, sizeof(set_flags));
    pol_cli_printf(uinfo, "\n    flags: match [%s] set [%s]", trimmed(match_flags), trimmed(set_flags));
    if (entry->pol_vpn_p != nullptr ||
        (entry->pol_block_p != nullptr && is_data_kind(entry->pol_block_p->pol_type))) {
        return;
    }
    dump_match_values(entry, uinfo);
    dump_set_values(entry, uinfo);
}

// Every policy type, then every list family.
int pol_dump_all(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    if (g_pol_ctx_p == nullptr) {
        return 0;
    }
    static constexpr e_pol_type kTypes[] = {POL_TYPE_ROUTE, POL_TYPE_DATA, POL_TYPE_PFR,
                                            POL_TYPE_MEMBERSHIP, POL_TYPE_CFLOWD};
    for (e_pol_type type : kTypes) {
        pol_dump_policies(uinfo, type);
    }
    static constexpr void (*kListDumps[])(struct mgmtd_cli_user_info *) = {
        pol_dump_pfx_list_all,       pol_dump_site_list_all,      pol_dump_vpn_list_all,
        pol_dump_tloc_list_all,      pol_dump_color_list_all,     pol_dump_community_list_all,
        pol_dump_expanded_community_list_all,
    };
    for (auto dump : kListDumps) {
        dump(uinfo);
    }
    return 0;
}

}  // extern "C"

/* ---- route-policy lines of the text test harness ---- */

namespace {

// Grammar and examples in docs/test-harness.md. A line is checked whole
// before anything changes, so a malformed line changes nothing.
enum class rp_arg_kind { none, number, name, tloc, addr, action, match_type };

struct rp_arg {
    uint64_t num = 0;
    const char *name = nullptr;
    t_tloc_id tloc{};
    t_ipaddr addr{};
};

// One keyword of a sequence line: what its value is, and how it is applied
// and removed ("no KEYWORD"). add returns false when a list could not be had.
struct rp_keyword {
    const char *word;
    rp_arg_kind kind;
    uint64_t max;
    bool (*add)(t_pol_ctx *, t_pol_entry *, const rp_arg &, uint8_t *);
    void (*remove)(t_pol_ctx *, t_pol_entry *, uint8_t *);
};

template <typename R>
bool got(R *result)
{
    return result != nullptr;
}

constexpr uint64_t kU8 = UINT8_MAX, kU16 = UINT16_MAX, kU32 = UINT32_MAX, kU64 = UINT64_MAX;

#define RP_NUM(word, max, what, type)                                                           \
    {word, rp_arg_kind::number, max,                                                            \
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {                           \
         return got(pol_entry_##what##_add(c, e, static_cast<type>(a.num), ch));                \
     },                                                                                         \
     pol_entry_##what##_delete}
#define RP_NAME(word, what)                                                                     \
    {word, rp_arg_kind::name, 0,                                                                \
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {                           \
         return got(pol_entry_##what##_add(c, e, a.name, ch));                                  \
     },                                                                                         \
     pol_entry_##what##_delete}

const rp_keyword kRouteKeywords[] = {
    // The match type is applied before everything else on the line.
    {"match-type", rp_arg_kind::match_type, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_add(c, e->pol_block_p, e, static_cast<e_pol_match_type>(a.num), ch));
     },
     nullptr},
    RP_NUM("tag", kU32, match_tag, uint32_t),
    RP_NUM("metric", kU32, match_origin_metric, uint32_t),
    RP_NUM("preference", kU32, match_preference, uint32_t),
    RP_NUM("domain", kU32, match_domain, uint32_t),
    RP_NUM("group", kU32, match_group, uint32_t),
    RP_NUM("vpn", kU64, match_vpn_id, uint64_t),
    RP_NAME("vpn-list", match_vpn_list),
    RP_NUM("site", kU32, match_site, uint32_t),
    RP_NAME("site-list", match_site_list),
    {"tloc", rp_arg_kind::tloc, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_tloc_add(c, e, &a.tloc, ch));
     },
     pol_entry_match_tloc_delete},
    RP_NAME("tloc-list", match_tloc_list),
    {"prefix-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         const t_pfx_list_key key = {POL_AF_IPV4, a.name};
         return got(pol_entry_match_pfx_list_add(c, e, &key, ch));
     },
     pol_entry_match_pfx_list_delete},
    RP_NUM("origin", kU32, match_origin, uint32_t),
    {"originator", rp_arg_kind::addr, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_originator_add(c, e, &a.addr, ch));
     },
     pol_entry_match_originator_delete},
    RP_NUM("carrier", kU8, match_carrier, uint8_t),
    RP_NUM("color", kU16, match_color, uint16_t),
    RP_NAME("color-list", match_color_list),
    {"community-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_community_list_add(c, e, a.name, COMM_LIST_TYPE_STANDARD, ch));
     },
     [](t_pol_ctx *c, t_pol_entry *e, uint8_t *ch) {
         pol_entry_match_community_list_delete(c, e, COMM_LIST_TYPE_STANDARD, ch);
     }},
    {"expanded-community-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_community_list_add(c, e, a.name, COMM_LIST_TYPE_EXPANDED, ch));
     },
     [](t_pol_ctx *c, t_pol_entry *e, uint8_t *ch) {
         pol_entry_match_community_list_delete(c, e, COMM_LIST_TYPE_EXPANDED, ch);
     }},
    {"action", rp_arg_kind::action, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_action_add(c, e, static_cast<e_pol_action>(a.num), ch));
     },
     pol_entry_action_delete},
    RP_NUM("set-tag", kU32, set_tag, uint32_t),
    RP_NUM("set-preference", kU32, set_preference, uint32_t),
    {"set-tloc", rp_arg_kind::tloc, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_set_tloc_add(c, e, &a.tloc, ch));
     },
     pol_entry_set_tloc_delete},
    RP_NUM("set-vpn", kU64, set_vpn_id, uint64_t),
    RP_NAME("set-vpn-list", set_vpn_list),
    RP_NAME("set-tloc-list", set_tloc_list),
    {"set-service", rp_arg_kind::number, kU16,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         const t_tloc_id no_tloc{};
         return got(pol_entry_set_service_add(c, e, static_cast<uint16_t>(a.num), &no_tloc, 0, ch));
     },
     pol_entry_set_service_delete},
};

#undef RP_NUM
#undef RP_NAME

const rp_keyword *rp_find_keyword(const char *word)
{
    for (const rp_keyword &kw : kRouteKeywords) {
        if (std::strcmp(kw.word, word) == 0) {
            return &kw;
        }
    }
    return nullptr;
}

struct rp_word {
    const char *word;
    uint64_t value;
};
constexpr rp_word kActions[] = {{"accept", POL_ACTION_ACCEPT}, {"reject", POL_ACTION_REJECT}};
constexpr rp_word kMatchTypes[] = {
    {"route", POL_MATCH_VROUTE}, {"tloc", POL_MATCH_TLOC}, {"service", POL_MATCH_SERVICE}};

template <std::size_t N>
bool rp_lookup(const rp_word (&words)[N], const char *text, uint64_t *value)
{
    for (const rp_word &w : words) {
        if (std::strcmp(w.word, text) == 0) {
            *value = w.value;
            return true;
        }
    }
    return false;
}

bool rp_parse_arg(const rp_keyword &kw, const char *text, rp_arg *arg)
{
    switch (kw.kind) {
    case rp_arg_kind::number:
        return pol_test_parse_number(text, kw.max, &arg->num);
    case rp_arg_kind::name:
        arg->name = text;
        return *text != '\0';
    case rp_arg_kind::tloc:
        return pol_test_tloc_str_to_tloc(text, &arg->tloc) == ERR_OK;
    case rp_arg_kind::addr: {
        in_addr v4{};
        if (inet_pton(AF_INET, text, &v4) != 1) {
            return false;
        }
        IPADDR_SET_V4(&arg->addr, v4.s_addr);
        return true;
    }
    case rp_arg_kind::action:
        return rp_lookup(kActions, text, &arg->num);
    case rp_arg_kind::match_type:
        return rp_lookup(kMatchTypes, text, &arg->num);
    case rp_arg_kind::none:
        break;
    }
    return true;
}

struct rp_op {
    const rp_keyword *kw;
    bool remove;
    rp_arg arg;
};

struct rp_line {
    const char *policy = nullptr;
    uint32_t seq = 0;
    rp_op ops[POL_TEST_MAX_TOKENS];
    int n_ops = 0;
};

e_err rp_reject(const char *policy, const char *why, const char *word)
{
    POL_LOG("route-policy %s: %s %s, line ignored", policy, why, word);
    return ERR_BAD_PARAM;
}

// Reads the clauses of a sequence line from token 3 on.
e_err rp_parse_clauses(char token[][POL_TEST_TOKEN_SIZE], int count, rp_line *line)
{
    for (int i = 3; i < count; i++) {
        rp_op op{};
        if (std::strcmp(token[i], "no") == 0) {
            op.remove = true;
            if (++i == count) {
                return rp_reject(line->policy, "nothing to remove after", "no");
            }
        }
        op.kw = rp_find_keyword(token[i]);
        if (op.kw == nullptr) {
            return rp_reject(line->policy, "unknown keyword", token[i]);
        }
        if (op.remove) {
            if (op.kw->remove == nullptr) {
                return rp_reject(line->policy, "cannot remove", token[i]);
            }
        } else if (op.kw->kind != rp_arg_kind::none) {
            if (i + 1 == count) {
                return rp_reject(line->policy, "missing value after", token[i]);
            }
            if (!rp_parse_arg(*op.kw, token[i + 1], &op.arg)) {
                return rp_reject(line->policy, "bad value", token[i + 1]);
            }
            i++;
        }
        line->ops[line->n_ops++] = op;
    }
    return ERR_OK;
}

e_err rp_apply(t_pol_ctx *ctx, const rp_line &line)
{
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, line.policy, POL_TYPE_ROUTE, &changed);
    if (block == nullptr) {
        return ERR_ALLOC;
    }
    t_pol_entry *entry = pol_entry_find_or_create(ctx, block, line.seq, &changed);
    if (entry == nullptr) {
        return ERR_ALLOC;
    }
    const rp_keyword *match_type_kw = rp_find_keyword("match-type");
    const rp_op *match_type = nullptr;
    for (int i = 0; i < line.n_ops; i++) {
        if (line.ops[i].kw == match_type_kw) {
            match_type = &line.ops[i];
        }
    }
    if (match_type != nullptr) {
        match_type->kw->add(ctx, entry, match_type->arg, &changed);
    } else if (entry->match_entry.match_type == POL_MATCH_INVALID) {
        pol_entry_match_add(ctx, block, entry, POL_MATCH_VROUTE, &changed);
    }
    e_err result = ERR_OK;
    for (int i = 0; i < line.n_ops; i++) {
        const rp_op &op = line.ops[i];
        if (op.kw == match_type_kw) {
            continue;
        }
        if (op.remove) {
            op.kw->remove(ctx, entry, &changed);
        } else if (!op.kw->add(ctx, entry, op.arg, &changed)) {
            POL_LOG("route-policy %s %u: %s could not be applied", line.policy, line.seq, op.kw->word);
            result = ERR_ALLOC;
        }
    }
    return result;
}

e_err rp_default_action(t_pol_ctx *ctx, const char *policy, const char *word)
{
    uint64_t action = 0;
    if (!rp_lookup(kActions, word, &action)) {
        return rp_reject(policy, "bad default action", word);
    }
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, policy, POL_TYPE_ROUTE, &changed);
    if (block == nullptr) {
        return ERR_ALLOC;
    }
    if (block->default_action_entry.entry_action != static_cast<e_pol_action>(action)) {
        block->default_action_entry.entry_action = static_cast<e_pol_action>(action);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return ERR_OK;
}

}  // namespace

extern "C" {

// Users are only queued; the harness notifies once per file.
e_err pol_test_parse_route_policy(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    if (num_tokens < 0 || num_tokens > POL_TEST_MAX_TOKENS) {
        POL_LOG("route-policy line of %d words ignored", num_tokens);
        return ERR_BAD_PARAM;
    }
    // Words must end inside their slots; empty trailing words (a blank
    // before the newline) do not count.
    int count = num_tokens;
    for (int i = 0; i < count; i++) {
        if (strnlen(token[i], POL_TEST_TOKEN_SIZE) == POL_TEST_TOKEN_SIZE) {
            POL_LOG("route-policy line with an overlong word ignored");
            return ERR_BAD_PARAM;
        }
    }
    while (count > 0 && token[count - 1][0] == '\0') {
        count--;
    }
    if (count < 3 || token[1][0] == '\0') {
        POL_LOG("route-policy line needs a name and a sequence, default or delete");
        return ERR_BAD_PARAM;
    }
    rp_line line;
    line.policy = token[1];
    if (std::strcmp(token[2], "delete") == 0) {
        if (count != 3) {
            return rp_reject(line.policy, "unexpected word after delete:", token[3]);
        }
        uint8_t changed = 0;
        POL_DBG(0, "Deleting route policy %s", line.policy);
        pol_block_find_and_delete(ctx, line.policy, POL_TYPE_ROUTE, &changed);
        return ERR_OK;
    }
    if (std::strcmp(token[2], "default") == 0) {
        if (count != 4) {
            return rp_reject(line.policy, "default takes one word:", count > 4 ? token[4] : "accept|reject");
        }
        POL_DBG(0, "Route policy %s default action %s", line.policy, token[3]);
        return rp_default_action(ctx, line.policy, token[3]);
    }
    uint64_t seq = 0;
    if (!pol_test_parse_number(token[2], UINT32_MAX, &seq)) {
        return rp_reject(line.policy, "bad sequence number", token[2]);
    }
    line.seq = static_cast<uint32_t>(seq);
    if (count >= 4 && std::strcmp(token[3], "delete") == 0) {
        if (count != 4) {
            return rp_reject(line.policy, "unexpected word after delete:", token[4]);
        }
        POL_DBG(0, "Deleting route policy %s sequence %u", line.policy, line.seq);
        if (t_pol_block *block = pol_block_find(ctx, line.policy, POL_TYPE_ROUTE, nullptr)) {
            uint8_t changed = 0;
            pol_entry_find_and_delete(ctx, block, line.seq, &changed);
        }
        return ERR_OK;
    }
    if (e_err err = rp_parse_clauses(token, count, &line); err != ERR_OK) {
        return err;
    }
    POL_DBG(0, "Route policy %s sequence %u: %d clauses", line.policy, line.seq, line.n_ops);
    return rp_apply(ctx, line);
}

}  // extern "C"
