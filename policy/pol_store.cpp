// The store of a sequence's match conditions and set actions.
//
// The reader never writes a sequence's match or set entry itself: it calls
// one add operation per condition or action and one delete operation to
// remove it. Each operation keeps the presence bit in step with the stored
// value, hooks the sequence into the users chain of any named list it
// refers to, treats an unchanged value as no change, and otherwise sets the
// caller's changed byte and queues the block's users.
#include <iterator>

#include "pol_match.hpp"
#include "pol_util.hpp"

namespace {

void queue_users_of(t_pol_ctx *ctx, t_pol_entry *entry)
{
    pol::block_changed(entry->pol_block_p);
    pol_block_users_add_to_chg_list(ctx, entry->pol_block_p);
}

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
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
    queue_users_of(ctx, entry);
    return true;
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
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
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

uint64_t community_bit(community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? POL_MATCH_FLAG_EXP_COMMUNITY_LIST
                                           : POL_MATCH_FLAG_COMMUNITY_LIST;
}

t_community_list *&community_field(t_pol_entry *entry, community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? entry->match_entry.match_exp_community_list_p
                                           : entry->match_entry.match_community_list_p;
}

community_list_type other_kind(community_list_type type)
{
    return type == COMM_LIST_TYPE_EXPANDED ? COMM_LIST_TYPE_STANDARD : COMM_LIST_TYPE_EXPANDED;
}

}  // namespace

#define POL_MATCH (entry->match_entry)
#define POL_SET (entry->set_entry)
#define POL_MFLAGS (entry->entry_match_flags)
#define POL_SFLAGS (entry->entry_set_flags)

extern "C" {

/* ---- match conditions ---- */

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
    pol::mark_changed(changed);
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
    pol::block_changed(entry->pol_block_p);
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
    queue_users_of(ctx, entry);
}

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

// A new sequence's set entry learns its block.
t_pol_set_entry *pol_entry_set_add(t_pol_ctx *, t_pol_entry *entry)
{
    entry->set_entry.pol_block_p = entry->pol_block_p;
    return &entry->set_entry;
}

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
                pol::same_tloc);
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
        pol::same_tloc(POL_SET.set_svc_tloc, *tloc) && POL_SET.set_svc_vpn_id == vpn_id) {
        return &POL_SET;
    }
    POL_SFLAGS |= POL_SET_FLAG_SERVICE;
    POL_SET.set_service = service;
    POL_SET.set_svc_tloc = *tloc;
    POL_SET.set_svc_vpn_id = vpn_id;
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
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
    pol::mark_changed(changed);
    queue_users_of(ctx, entry);
}

}  // extern "C"
