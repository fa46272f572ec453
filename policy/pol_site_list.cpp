// Site lists: named sets of site-id ranges, with the sequences that match
// on them and at most one list user (a host component watching the list).
#include "pol_list.hpp"

namespace {

int site_entry_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const t_site_entry *>(a);
    const auto *y = static_cast<const t_site_entry *>(b);
    if (int r = pol::cmp3(x->min_site_id, y->min_site_id)) {
        return r;
    }
    return pol::cmp3(x->max_site_id, y->max_site_id);
}

// Change notifications of site lists that are running, innermost first.
// A list being notified stays allocated until its notification ends: the
// list user's callback may unregister it, and anything the callbacks do may
// let go of the list, while the notification still reads it. A release
// asked for meanwhile is carried out when the notification ends.
struct notification {
    const t_site_list *list;
    bool release_due;
    notification *outer;
};
notification *g_notifications = nullptr;

notification *notification_of(const t_site_list *list)
{
    notification *n = g_notifications;
    while (n != nullptr && n->list != list) {
        n = n->outer;
    }
    return n;
}

// Something let go of the list; if it is being notified, it is checked for
// deletion when that notification ends.
void note_release(const t_site_list *list)
{
    if (notification *n = notification_of(list)) {
        n->release_due = true;
    }
}

using site_match_chain = pol::user_chain<t_site_list, t_pol_match_entry, &t_site_list::match_list_head,
                                         &t_pol_match_entry::match_site_entry, pol::block_of_match>;

struct site_traits : pol::list_hooks<t_site_list> {
    using list_t = t_site_list;
    using entry_t = t_site_entry;
    using key_t = const char *;
    using chains = pol::chain_list<site_match_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_SITE;
    static constexpr e_pol_mem entry_mem = POL_MEM_ENTRY_SITE;
    static constexpr std::size_t list_node_offset = offsetof(t_site_list, site_list_node);
    static constexpr auto entries = &t_site_list::site_entry_head;
    static constexpr auto entry_link = &t_site_entry::site_entry;
    static constexpr int (*list_cmp)(const void *, const void *) = pol_site_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = site_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&ctx->site_lists}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &ctx->site_lists; }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_site_list *) { return &ctx->site_lists; }
    static void set_key(t_site_list &list, key_t name) { pol::copy_name(list.site_list_name, name); }

    static bool extra_empty(const t_site_list *list)
    {
        return list->site_list_user_p == nullptr && notification_of(list) == nullptr;
    }

    // The list user hears of every change first, synchronously.
    static void notify_first(t_pol_ctx *, t_site_list *list)
    {
        t_pol_list_user *user = list->site_list_user_p;
        if (user != nullptr && user->pol_list_chg_cb != nullptr) {
            user->pol_list_chg_cb(user, user->user_ctx_p);
        }
    }

    // At shutdown the list user goes with the list it belongs to.
    static void on_deinit(t_pol_ctx *, t_site_list *list)
    {
        pol_free(list->site_list_user_p, POL_MEM_LIST_POL_USER);
        list->site_list_user_p = nullptr;
    }
};

using site_lists = pol::list_family<site_traits>;

t_site_entry range_probe(uint32_t min_id, uint32_t max_id)
{
    t_site_entry probe{};
    probe.min_site_id = min_id;
    probe.max_site_id = max_id;
    return probe;
}

}  // namespace

extern "C" {

e_err pol_site_list_main_init(t_pol_ctx *ctx)
{
    return site_lists::main_init(ctx);
}

e_err pol_site_list_main_deinit(t_pol_ctx *ctx)
{
    return site_lists::main_deinit(ctx);
}

// The name is the first member of a list, so a bare name serves as a key.
int pol_site_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

t_site_list *pol_site_list_find(t_pol_ctx *ctx, const char *name)
{
    return site_lists::find(ctx, name);
}

t_site_list *pol_site_list_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)
{
    return site_lists::find_or_create(ctx, name, created);
}

bool pol_site_list_is_empty(const t_site_list *list)
{
    return site_lists::is_empty(list);
}

// Ranges are stored as given: overlapping, nested or reversed ranges are
// not compared with each other.
e_err pol_site_list_add_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id)
{
    if (pol_site_list_find_entry(ctx, name, min_id, max_id) != nullptr) {
        return ERR_OK;
    }
    uint8_t created = 0;
    t_site_list *list = site_lists::find_or_create(ctx, name, &created);
    if (list == nullptr) {
        return ERR_ALLOC;
    }
    t_site_entry *entry = site_lists::alloc_entry();
    if (entry == nullptr) {
        site_lists::undo_create(ctx, list, created);
        return ERR_ALLOC;
    }
    entry->min_site_id = min_id;
    entry->max_site_id = max_id;
    site_lists::link_entry(list, entry);
    pol_site_list_users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

e_err pol_site_list_del_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id, uint32_t max_id)
{
    t_site_list *list = site_lists::find(ctx, name);
    t_site_entry probe = range_probe(min_id, max_id);
    t_site_entry *entry = site_lists::find_entry(list, &probe);
    if (entry == nullptr) {
        return ERR_OK;
    }
    site_lists::entry_remove(ctx, list, entry);
    pol_site_list_users_add_to_chg_list(ctx, list);
    return ERR_OK;
}

t_site_entry *pol_site_list_find_entry(t_pol_ctx *ctx, const char *name, uint32_t min_id,
                                       uint32_t max_id)
{
    t_site_entry probe = range_probe(min_id, max_id);
    return site_lists::find_entry(site_lists::find(ctx, name), &probe);
}

void pol_site_list_entry_remove(t_pol_ctx *ctx, t_site_list *list, t_site_entry *entry)
{
    site_lists::entry_remove(ctx, list, entry);
}

void pol_site_list_del_all_entries(t_pol_ctx *ctx, t_site_list *list)
{
    site_lists::del_all_entries(ctx, list);
}

// Deliberately silent: users learn of the emptied list with the next change
// that notifies.
e_err pol_site_list_cfg_del(t_pol_ctx *ctx, const char *name)
{
    note_release(site_lists::find(ctx, name));
    return site_lists::cfg_del(ctx, name);
}

void pol_site_list_del(t_pol_ctx *ctx, t_site_list **list_pp, uint8_t remove)
{
    site_lists::del(ctx, list_pp, remove != 0);
}

t_site_list *pol_site_list_pol_user_add(t_pol_ctx *ctx, const char *name, t_pol_match_entry *match)
{
    return site_lists::user_add<site_match_chain>(ctx, name, match);
}

e_err pol_site_list_pol_user_remove(t_pol_ctx *ctx, t_site_list *list, t_pol_match_entry *match)
{
    note_release(list);
    return site_lists::user_remove<site_match_chain>(ctx, list, match);
}

// One list user per list: a second registration gets the first one back,
// with its callback and context unchanged, holding one registration more.
t_pol_list_user *pol_site_list_user_add(t_pol_ctx *ctx, const char *name,
                                        t_pol_list_change_cb_f chg_cb, void *user_ctx_p)
{
    uint8_t created = 0;
    t_site_list *list = site_lists::find_or_create(ctx, name, &created);
    if (list == nullptr) {
        return nullptr;
    }
    if (t_pol_list_user *user = list->site_list_user_p) {
        user->ref_count++;
        return user;
    }
    auto *user = pol::alloc_record<t_pol_list_user>(POL_MEM_LIST_POL_USER);
    if (user == nullptr) {
        site_lists::undo_create(ctx, list, created);
        return nullptr;
    }
    user->pol_list_type = POL_LIST_SITE;
    user->pol_list_chg_cb = chg_cb;
    user->user_ctx_p = user_ctx_p;
    user->site_list_p = list;
    user->ref_count = 1;
    list->site_list_user_p = user;
    return user;
}

// Drops one registration; the last frees the list user.
e_err pol_site_list_user_remove(t_pol_ctx *ctx, t_pol_list_user *list_user)
{
    if (list_user == nullptr || list_user->site_list_p == nullptr) {
        return ERR_NOT_FOUND;
    }
    if (--list_user->ref_count > 0) {
        return ERR_OK;
    }
    t_site_list *list = list_user->site_list_p;
    pol_free(list_user, POL_MEM_LIST_POL_USER);
    list->site_list_user_p = nullptr;
    note_release(list);
    site_lists::del_if_empty(ctx, list);
    return ERR_OK;
}

// Every notification of a site list goes through here, so that the list
// outlives whatever its watcher's callback releases.
void pol_site_list_users_add_to_chg_list(t_pol_ctx *ctx, t_site_list *list)
{
    notification self = {list, false, g_notifications};
    g_notifications = &self;
    site_lists::users_add_to_chg_list(ctx, list);
    g_notifications = self.outer;
    if (!self.release_due) {
        return;
    }
    if (notification *outer = notification_of(list)) {
        outer->release_due = true;
    } else {
        site_lists::del_if_empty(ctx, list);
    }
}

// Answered by the match module from the list's interval set.
bool pol_exec_match_site_id_to_site_list(t_site_list *list, uint32_t site_id)
{
    return pol::site_list_contains(list, site_id);
}

/* ---- text test harness ---- */

// "site-list NAME SITE [delete]" or "site-list NAME delete"; one site at a
// time (a range of one). The messages' words "prefix list" are kept.
void pol_test_parse_site_list(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    e_pol_test_list_op op = pol_test_list_op(token, num_tokens);
    if (op == POL_TEST_LIST_INVALID) {
        POL_LOG("site-list line needs a name and a site or delete");
        return;
    }
    const char *name = token[1];
    if (op == POL_TEST_LIST_DEL_LIST) {
        POL_DBG(0, "Deleting prefix list %s", name);
        site_lists::cfg_del(ctx, name);
        return;
    }
    uint64_t site = 0;
    if (!pol_test_parse_number(token[2], UINT32_MAX, &site)) {
        POL_LOG("site-list %s: bad site id %s", name, token[2]);
        return;
    }
    const auto id = static_cast<uint32_t>(site);
    if (op == POL_TEST_LIST_DEL_ENTRY) {
        POL_DBG(0, "Deleting prefix list %s site: %d", name, static_cast<int>(id));
        pol_site_list_del_entry(ctx, name, id, id);
    } else {
        POL_DBG(0, "Adding prefix list %s site: %d", name, static_cast<int>(id));
        pol_site_list_add_entry(ctx, name, id, id);
    }
}

}  // extern "C"
