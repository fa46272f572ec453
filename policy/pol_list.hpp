// The common framework of the named-list families.
//
// Every family keeps its lists in a name-keyed tree of the context; a list
// owns its entries and chains the policy records that use it (its users).
// A list comes into being the first time anybody names it and lives while
// it has entries or users. The family verbs (find, find_or_create, del,
// cfg_del, is_empty, first, next, user chains, notification, entry
// bookkeeping) are written once here and instantiated per family with a
// traits record; each family's source file adds only what differs and the
// thin C functions under the family's own names.
//
// Entries of the tail-queue families sit both in an identity index (an
// intrusive tree keyed on what makes an entry unique in its list), so the
// duplicate check, find and delete cost O(log n), and in the queue, which
// keeps them in the order of that index. The configuration's lists are
// sets: the order in which their entries arrive depends on the history of
// commits (a changed entry is deleted and added again, an order changed in
// the file alone is no change at all), so a queue in identity order lets
// what a list holds alone decide what its walks see: dumps, documents and
// the actions that copy a list's entries out in order.
#ifndef POLICY_POL_LIST_HPP
#define POLICY_POL_LIST_HPP

#include <algorithm>
#include <array>
#include <tuple>

#include "pol_match.hpp"
#include "pol_util.hpp"

namespace pol {

// Operations on a BSD tail queue whose links are the member Link of T.
template <typename T, auto Link>
struct tailq {
    template <typename Head>
    static void init(Head &h)
    {
        h.tqh_first = nullptr;
        h.tqh_last = &h.tqh_first;
    }
    template <typename Head>
    static bool empty(const Head &h)
    {
        return h.tqh_first == nullptr;
    }
    template <typename Head>
    static T *first(const Head &h)
    {
        return h.tqh_first;
    }
    static T *next(const T *e) { return (e->*Link).tqe_next; }
    template <typename Head>
    static void push_back(Head &h, T *e)
    {
        (e->*Link).tqe_next = nullptr;
        (e->*Link).tqe_prev = h.tqh_last;
        *h.tqh_last = e;
        h.tqh_last = &(e->*Link).tqe_next;
    }
    // Links e in front of pos, which is in the queue.
    static void insert_before(T *pos, T *e)
    {
        (e->*Link).tqe_prev = (pos->*Link).tqe_prev;
        (e->*Link).tqe_next = pos;
        *(pos->*Link).tqe_prev = e;
        (pos->*Link).tqe_prev = &(e->*Link).tqe_next;
    }
    template <typename Head>
    static void remove(Head &h, T *e)
    {
        T *nx = (e->*Link).tqe_next;
        if (nx != nullptr) {
            (nx->*Link).tqe_prev = (e->*Link).tqe_prev;
        } else {
            h.tqh_last = (e->*Link).tqe_prev;
        }
        *(e->*Link).tqe_prev = nx;
    }
    // Visit in order; fn must not unlink the element it is given.
    template <typename Head, typename F>
    static void for_each(const Head &h, F &&fn)
    {
        for (T *e = h.tqh_first; e != nullptr; e = next(e)) {
            fn(e);
        }
    }
};

// How a user record reaches the policy block whose users must hear of a
// change of the list it uses.
inline t_pol_block *block_of_match(const t_pol_match_entry *m)
{
    return m->pol_block_p;
}
inline t_pol_block *block_of_set(const t_pol_set_entry *s)
{
    return s->pol_block_p;
}
inline t_pol_block *block_of_fwd_vpn(const t_pol_fwd_vpn_entry *v)
{
    return v->pol_block_p;
}

// A data-policy sequence's match or set entry reaches its policy through
// the VPN-list level it sits under; without one it has no block.
template <typename User>
t_pol_block *block_of_data_user(const User *u)
{
    return u->pol_vpn_p != nullptr ? u->pol_vpn_p->pol_block_p : nullptr;
}
// A SaaS list's user is the node by which a condition holds the list.
inline t_pol_block *block_of_data_user(const t_app_list_dll_node *node)
{
    return node->match_entry_p != nullptr ? block_of_data_user(node->match_entry_p) : nullptr;
}

// One chain of users on a list: the head member on the list, the link
// member in the user record, and the way to the user's block.
template <typename List, typename User, auto Head, auto Link, t_pol_block *(*BlockOf)(const User *)>
struct user_chain {
    using list_type = List;
    using user_type = User;
    using links = tailq<User, Link>;

    static void init(List *l) { links::init(l->*Head); }
    static bool empty(const List *l) { return links::empty(l->*Head); }
    static void add(List *l, User *u) { links::push_back(l->*Head, u); }
    static void remove(List *l, User *u) { links::remove(l->*Head, u); }
    template <typename F>
    static void for_each(const List *l, F &&fn)
    {
        links::for_each(l->*Head, fn);
    }
    static void queue_blocks(t_pol_ctx *ctx, const List *l)
    {
        for_each(l, [&](User *u) { pol_block_users_add_to_chg_list(ctx, BlockOf(u)); });
    }
};

template <typename... Chains>
struct chain_list {
    template <typename List>
    static void init(List *l)
    {
        (Chains::init(l), ...);
    }
    template <typename List>
    static bool empty(const List *l)
    {
        return (Chains::empty(l) && ...);
    }
    template <typename List>
    static void queue_blocks(t_pol_ctx *ctx, const List *l)
    {
        (Chains::queue_blocks(ctx, l), ...);
    }
};

// Defaults of the traits hooks; a family's traits derive from this and
// shadow what differs.
template <typename List>
struct list_hooks {
    static void on_create(List *) {}
    static bool extra_empty(const List *) { return true; }
    // Told first on every change notification (the site list's list user).
    static void notify_first(t_pol_ctx *, List *) {}
    // Releases what the record owns besides its entries.
    static void on_free(List *) {}
    // Releases what an entry owns besides its record, before it is freed.
    template <typename Entry>
    static void on_entry_free(const List *, Entry *)
    {
    }
    // At library shutdown, before the record is freed.
    static void on_deinit(t_pol_ctx *, List *) {}
    // Before a record is deleted: lets go of what it refers to.
    static void on_detach(t_pol_ctx *, List *) {}
};

// Families whose values sit in the record itself (policers, SLA classes,
// app-ids) have no entries: their traits name no entries member, and the
// entry verbs are not there for them. Only families that route execution
// matches on keep a match-time index and a generation.
template <typename Traits>
concept has_entries = requires { Traits::entries; };

template <typename List>
concept has_exec_index = requires(List *l) { l->exec_index; };

template <typename Traits>
struct entry_types {
    using entry_t = void;
    using queue = void;
};
template <has_entries Traits>
struct entry_types<Traits> {
    using entry_t = typename Traits::entry_t;
    using queue = tailq<entry_t, Traits::entry_link>;
};

// The name-keyed tree of a family, whatever it keeps its entries in:
// finding, creating and walking its lists, attaching users and telling them
// of a change. Family (the deriving template) readies a new record's
// entries with init_entries.
template <typename Traits, typename Family>
struct list_tree {
    using list_t = typename Traits::list_t;
    using key_t = typename Traits::key_t;
    using chains = typename Traits::chains;

    static e_err main_init(t_pol_ctx *ctx)
    {
        if (ctx == nullptr) {
            return ERR_BAD_CTX;
        }
        for (avl_tree_t *t : Traits::trees(ctx)) {
            avl_create(t, Traits::list_cmp, sizeof(list_t), Traits::list_node_offset);
        }
        return ERR_OK;
    }

    static list_t *find(t_pol_ctx *ctx, key_t key, avl_index_t *where = nullptr)
    {
        avl_tree_t *t = Traits::tree_of(ctx, key);
        if (t == nullptr) {
            return nullptr;
        }
        list_t probe{};
        Traits::set_key(probe, key);
        return static_cast<list_t *>(avl_find(t, &probe, where));
    }

    static list_t *find_or_create(t_pol_ctx *ctx, key_t key, uint8_t *created)
    {
        if (created != nullptr) {
            *created = 0;
        }
        avl_index_t where = 0;
        if (list_t *found = find(ctx, key, &where)) {
            return found;
        }
        avl_tree_t *t = Traits::tree_of(ctx, key);
        if (t == nullptr) {
            return nullptr;
        }
        auto *list = alloc_record<list_t>(Traits::list_mem);
        if (list == nullptr) {
            return nullptr;
        }
        Traits::set_key(*list, key);
        avl_insert(t, list, where);
        chains::init(list);
        Family::init_entries(list);
        Traits::on_create(list);
        if (created != nullptr) {
            *created = 1;
        }
        return list;
    }

    // Walk in name order (families with a single tree).
    static list_t *first(t_pol_ctx *ctx) { return tree<list_t>(Traits::trees(ctx)[0]).first(); }

    static list_t *next(t_pol_ctx *ctx, list_t *list)
    {
        return tree<list_t>(Traits::tree_of_list(ctx, list)).next(list);
    }

    static void users_add_to_chg_list(t_pol_ctx *ctx, list_t *list)
    {
        Traits::notify_first(ctx, list);
        chains::queue_blocks(ctx, list);
        pol_user_chg_list_notify_all(ctx);
    }

    template <typename Chain>
    static list_t *user_add(t_pol_ctx *ctx, key_t key, typename Chain::user_type *user)
    {
        list_t *list = find_or_create(ctx, key, nullptr);
        if (list != nullptr) {
            Chain::add(list, user);
        }
        return list;
    }
};

// The generic family. Traits supplies:
//   list_t, entry_t, key_t (what callers name a list with),
//   list_mem, entry_mem, trees(ctx) (all trees of the family),
//   tree_of(ctx, key) (tree for a key, or null), tree_of_list(ctx, list),
//   list_cmp, set_key(list, key), list_node_offset,
//   entries (head member), entry_link (member),
//   entry_cmp (identity order of entries), chains (chain_list<...>),
//   and the list_hooks. A family without entries leaves out entry_t,
//   entry_mem, entries, entry_link and entry_cmp.
template <typename Traits>
struct list_family : list_tree<Traits, list_family<Traits>> {
    using base = list_tree<Traits, list_family<Traits>>;
    using list_t = typename Traits::list_t;
    using entry_t = typename entry_types<Traits>::entry_t;
    using key_t = typename Traits::key_t;
    using queue = typename entry_types<Traits>::queue;
    using chains = typename Traits::chains;
    using base::find;
    using base::find_or_create;
    using base::first;
    using base::main_init;
    using base::next;
    using base::user_add;
    using base::users_add_to_chg_list;

    static void init_entries(list_t *list)
    {
        if constexpr (has_entries<Traits>) {
            queue::init(list->*Traits::entries);
            POL_TREE_CREATE(&list->entry_index, Traits::entry_cmp, entry_t, index_node);
        }
    }

    // Every list is emptied and freed; users are not told.
    static e_err main_deinit(t_pol_ctx *ctx)
    {
        for (avl_tree_t *t : Traits::trees(ctx)) {
            tree<list_t>(t).drain([&](list_t *list) {
                clear_entries(ctx, list);
                Traits::on_deinit(ctx, list);
                del(ctx, &list, false);
            });
        }
        return ERR_OK;
    }

    static bool has_no_entries(const list_t *list)
    {
        if constexpr (has_entries<Traits>) {
            return queue::empty(list->*Traits::entries);
        } else {
            return true;
        }
    }

    static bool is_empty(const list_t *list)
    {
        return has_no_entries(list) && chains::empty(list) && Traits::extra_empty(list);
    }

    // Only for lists without entries and users: anything else is an
    // internal inconsistency and stops the process.
    static void del(t_pol_ctx *ctx, list_t **list_pp, bool remove_from_tree)
    {
        list_t *list = *list_pp;
        if constexpr (has_entries<Traits>) {
            POL_ASSERT(queue::empty(list->*Traits::entries) && chains::empty(list));
        } else {
            POL_ASSERT(chains::empty(list));
        }
        Traits::on_detach(ctx, list);
        if (remove_from_tree) {
            avl_remove(Traits::tree_of_list(ctx, list), list);
        }
        Traits::on_free(list);
        if constexpr (has_exec_index<list_t>) {
            free_exec_index(&list->exec_index);
        }
        if constexpr (has_entries<Traits>) {
            avl_destroy(&list->entry_index);
        }
        pol_free(list, Traits::list_mem);
        *list_pp = nullptr;
    }

    static void del_if_empty(t_pol_ctx *ctx, list_t *list)
    {
        if (is_empty(list)) {
            del(ctx, &list, true);
        }
    }

    // The configuration of the list was deleted: its entries go at once,
    // silently; the record stays while users still point at it.
    static e_err cfg_del(t_pol_ctx *ctx, key_t key)
    {
        if (list_t *list = find(ctx, key)) {
            clear_entries(ctx, list);
            del_if_empty(ctx, list);
        }
        return ERR_OK;
    }

    static void clear_entries(t_pol_ctx *ctx, list_t *list)
    {
        if constexpr (has_entries<Traits>) {
            del_all_entries(ctx, list);
        }
    }

    /* ---- user chains ---- */

    // Unlinks the user; a list left without entries and users goes away.
    template <typename Chain>
    static e_err user_remove(t_pol_ctx *ctx, list_t *list, typename Chain::user_type *user)
    {
        if (list == nullptr) {
            return ERR_NOT_FOUND;
        }
        Chain::remove(list, user);
        del_if_empty(ctx, list);
        return ERR_OK;
    }

    /* ---- entries ---- */

    static entry_t *find_entry(list_t *list, const entry_t *probe)
    {
        if (list == nullptr) {
            return nullptr;
        }
        return static_cast<entry_t *>(avl_find(&list->entry_index, probe, nullptr));
    }

    static entry_t *alloc_entry() { return alloc_record<entry_t>(Traits::entry_mem); }

    // The list's match-time index is stale; so is every policy index built
    // over lists, which a process-wide count of list changes tells at once.
    static void bump_generation(list_t *list)
    {
        if constexpr (has_exec_index<list_t>) {
            list->generation++;
            g_pol_list_changes++;
        }
    }

    // Links a filled entry into the index and into the queue in front of
    // its successor in identity order, which the index finds in O(log n).
    static void link_entry(list_t *list, entry_t *entry)
    {
        avl_add(&list->entry_index, entry);
        entry_t *next = tree<entry_t>(&list->entry_index).next(entry);
        if (next != nullptr) {
            queue::insert_before(next, entry);
        } else {
            queue::push_back(list->*Traits::entries, entry);
        }
        bump_generation(list);
    }

    // An entry's attributes changed in place: match-time indexes are stale.
    static void touch(list_t *list) { bump_generation(list); }

    // Unlinks and frees one entry; nobody is told.
    static void entry_remove(t_pol_ctx *, list_t *list, entry_t *entry)
    {
        queue::remove(list->*Traits::entries, entry);
        avl_remove(&list->entry_index, entry);
        bump_generation(list);
        Traits::on_entry_free(list, entry);
        pol_free(entry, Traits::entry_mem);
    }

    static void del_all_entries(t_pol_ctx *, list_t *list)
    {
        tree<entry_t>(&list->entry_index).drain([list](entry_t *entry) {
            Traits::on_entry_free(list, entry);
            pol_free(entry, Traits::entry_mem);
        });
        POL_TREE_CREATE(&list->entry_index, Traits::entry_cmp, entry_t, index_node);
        queue::init(list->*Traits::entries);
        bump_generation(list);
        POL_ASSERT(queue::empty(list->*Traits::entries));
    }

    // Drops a list this call created, after a failure left it empty.
    static void undo_create(t_pol_ctx *ctx, list_t *list, uint8_t created)
    {
        if (created) {
            del(ctx, &list, true);
        }
    }

    template <typename F>
    static void for_each_entry(const list_t *list, F &&fn)
    {
        queue::for_each(list->*Traits::entries, fn);
    }

};

// Families of the data-policy side whose lists belong to their
// configuration (application lists, data prefix lists). Their entries sit
// only in a per-list tree ordered by the entry itself; adds and deletes are
// silent, and a separate commit (entry_change) raises the document flag
// and tells the users. Entries do not keep a list alive and losing its last
// user does not end it: a list goes only when its configuration is deleted
// while nobody uses it, or at shutdown. Traits supplies what list_family's
// traits do for the tree, plus entry_tree (the per-list tree member),
// entry_cmp, entry_node_offset, and on_free releasing the document buffer.
template <typename Traits>
struct keyed_list_family : list_tree<Traits, keyed_list_family<Traits>> {
    using base = list_tree<Traits, keyed_list_family<Traits>>;
    using list_t = typename Traits::list_t;
    using entry_t = typename Traits::entry_t;
    using key_t = typename Traits::key_t;
    using chains = typename Traits::chains;
    using base::find;
    using base::find_or_create;
    using base::first;
    using base::main_init;
    using base::next;
    using base::user_add;
    using base::users_add_to_chg_list;

    static avl_tree_t *entries(list_t *list) { return &(list->*Traits::entry_tree); }

    // A new list is rendered on the next publication.
    static void init_entries(list_t *list)
    {
        avl_create(entries(list), Traits::entry_cmp, sizeof(entry_t), Traits::entry_node_offset);
        list->fetch_xml = 1;
    }

    // Users are not told; by now every user has let go.
    static e_err main_deinit(t_pol_ctx *ctx)
    {
        for (avl_tree_t *t : Traits::trees(ctx)) {
            tree<list_t>(t).drain([&](list_t *list) { del(ctx, &list, false); });
        }
        return ERR_OK;
    }

    static bool is_empty(const list_t *list) { return chains::empty(list); }

    // Frees the list with its entries; a list still in use is an internal
    // inconsistency and stops the process.
    static void del(t_pol_ctx *ctx, list_t **list_pp, bool remove_from_tree)
    {
        list_t *list = *list_pp;
        POL_ASSERT(chains::empty(list));
        if (remove_from_tree) {
            avl_remove(Traits::tree_of_list(ctx, list), list);
        }
        Traits::on_free(list);
        tree<entry_t>(entries(list)).drain([](entry_t *entry) { pol_free(entry, Traits::entry_mem); });
        pol_free(list, Traits::list_mem);
        *list_pp = nullptr;
    }

    // While users remain the list stays whole and goes on matching.
    static e_err cfg_del(t_pol_ctx *ctx, key_t key)
    {
        list_t *list = find(ctx, key);
        if (list != nullptr && is_empty(list)) {
            del(ctx, &list, true);
        }
        return ERR_OK;
    }

    // Unlinks the user and keeps the list, even without users.
    template <typename Chain>
    static e_err user_remove(t_pol_ctx *, list_t *list, typename Chain::user_type *user)
    {
        if (list == nullptr) {
            return ERR_NOT_FOUND;
        }
        Chain::remove(list, user);
        return ERR_OK;
    }

    static entry_t *find_entry(list_t *list, const entry_t *probe, avl_index_t *where = nullptr)
    {
        return static_cast<entry_t *>(avl_find(entries(list), probe, where));
    }

    // Adds a copy of probe unless the list holds an equal entry; silent.
    static e_err add_entry(list_t *list, const entry_t &probe)
    {
        avl_index_t where = 0;
        if (find_entry(list, &probe, &where) != nullptr) {
            return ERR_OK;
        }
        auto *entry = alloc_record<entry_t>(Traits::entry_mem);
        if (entry == nullptr) {
            return ERR_ALLOC;
        }
        *entry = probe;
        avl_insert(entries(list), entry, where);
        return ERR_OK;
    }

    // Removes the entry equal to probe, if any; silent.
    static void del_entry(list_t *list, const entry_t &probe)
    {
        if (entry_t *entry = find_entry(list, &probe)) {
            avl_remove(entries(list), entry);
            pol_free(entry, Traits::entry_mem);
        }
    }

    // Commits the adds and deletes made so far: the list is rendered again
    // and its users are told.
    static e_err entry_change(t_pol_ctx *ctx, key_t key)
    {
        list_t *list = find_or_create(ctx, key, nullptr);
        if (list == nullptr) {
            return ERR_ALLOC;
        }
        list->fetch_xml = 1;
        users_add_to_chg_list(ctx, list);
        return ERR_OK;
    }
};

// The policy names of the blocks of a chain's users, for the dumps.
inline const char *block_name(const t_pol_block *block)
{
    return block != nullptr ? block->pol_name : "";
}

/* ---- users in a canonical order ---- */

// Where a user sits in the configuration: its policy's type and name, the
// VPN list of a data-policy sequence and the sequence number. A chain links
// its users in the order they came, which depends on the history of
// commits; this rank does not.
struct user_rank {
    int type;
    const char *policy;
    const char *vpn;
    uint32_t sequence;
};

inline int compare(const user_rank &a, const user_rank &b)
{
    if (int r = cmp3(a.type, b.type)) {
        return r;
    }
    if (int r = fold(std::strcmp(a.policy, b.policy))) {
        return r;
    }
    if (int r = fold(std::strcmp(a.vpn, b.vpn))) {
        return r;
    }
    return cmp3(a.sequence, b.sequence);
}

inline user_rank block_rank(const t_pol_block *block, const t_pol_fwd_vpn_entry *vpn, uint32_t sequence)
{
    return {block != nullptr ? static_cast<int>(block->pol_type) : -1, block_name(block),
            vpn != nullptr ? vpn->vpn_name : "", sequence};
}

// A match user is the condition part of a sequence: the store links only
// the match records of sequences (t_pol_entry) into the chains.
inline user_rank rank_of(const t_pol_match_entry *m)
{
    const auto *seq = reinterpret_cast<const t_pol_entry *>(reinterpret_cast<const char *>(m) -
                                                            offsetof(t_pol_entry, match_entry));
    return block_rank(m->pol_block_p, m->pol_vpn_p, seq->entry_num);
}

// A data policy applied to a VPN list: its block and the list's name.
inline user_rank rank_of(const t_pol_fwd_vpn_entry *v)
{
    return block_rank(v->pol_block_p, v, 0);
}

// Visits the users of a chain in rank order (rank_of). The order is built
// in a scratch array for the walk; without memory for it, the chain's own
// order is visited.
template <typename User, auto Link, typename Head, typename F>
void for_each_user_ranked(const Head &head, F &&fn)
{
    using links = tailq<User, Link>;
    std::size_t n = 0;
    links::for_each(head, [&](User *) { n++; });
    auto **users = static_cast<User **>(pol_calloc(n == 0 ? 1 : n, sizeof(User *), POL_MEM_BLOCK));
    if (users == nullptr) {
        links::for_each(head, fn);
        return;
    }
    std::size_t i = 0;
    links::for_each(head, [&](User *u) { users[i++] = u; });
    std::stable_sort(users, users + n,
                     [](const User *a, const User *b) { return compare(rank_of(a), rank_of(b)) < 0; });
    for (i = 0; i < n; i++) {
        fn(users[i]);
    }
    pol_free(users, POL_MEM_BLOCK);
}

}  // namespace pol

#endif  // POLICY_POL_LIST_HPP
