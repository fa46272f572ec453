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
// Entries of the tail-queue families sit both in the queue (dumps and
// matching visit its order: insertion order, unless a family links its
// entries otherwise, as the TLOC list does) and in an identity index (an
// intrusive tree keyed on what makes an entry unique in its list), so the
// duplicate check, find and delete cost O(log n).
#ifndef POLICY_POL_LIST_HPP
#define POLICY_POL_LIST_HPP

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
// A data-policy sequence's match or set entry reaches its block through
// the sequence's VPN record, not through its own block pointer.
template <typename User>
t_pol_block *block_of_data_user(const User *u)
{
    return u->pol_vpn_p != nullptr ? u->pol_vpn_p->pol_block_p : nullptr;
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
struct list_family {
    using list_t = typename Traits::list_t;
    using entry_t = typename entry_types<Traits>::entry_t;
    using key_t = typename Traits::key_t;
    using queue = typename entry_types<Traits>::queue;
    using chains = typename Traits::chains;

    /* ---- the family's tree ---- */

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
        if constexpr (has_entries<Traits>) {
            queue::init(list->*Traits::entries);
            POL_TREE_CREATE(&list->entry_index, Traits::entry_cmp, entry_t, index_node);
        }
        chains::init(list);
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

    static void users_add_to_chg_list(t_pol_ctx *ctx, list_t *list)
    {
        Traits::notify_first(ctx, list);
        chains::queue_blocks(ctx, list);
        pol_user_chg_list_notify_all(ctx);
    }

    /* ---- user chains ---- */

    template <typename Chain>
    static list_t *user_add(t_pol_ctx *ctx, key_t key, typename Chain::user_type *user)
    {
        list_t *list = find_or_create(ctx, key, nullptr);
        if (list != nullptr) {
            Chain::add(list, user);
        }
        return list;
    }

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

    // Links a filled entry at the tail of the queue and into the index.
    static void link_entry(list_t *list, entry_t *entry)
    {
        queue::push_back(list->*Traits::entries, entry);
        avl_add(&list->entry_index, entry);
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

// The policy names of the blocks of a chain's users, for the dumps.
inline const char *block_name(const t_pol_block *block)
{
    return block != nullptr ? block->pol_name : "";
}

}  // namespace pol

#endif  // POLICY_POL_LIST_HPP
