// Data prefix lists: named sets of IPv4 (pol_fwd_pfx_list_*) or IPv6
// (pol_fwd_pfx6_list_*) prefixes that data-policy sequences match as source
// or destination addresses. The two families differ only in their tree,
// the category of their entries and the links of their users, so one
// implementation serves both. Prefixes are applied silently and published
// by entry_change; a list lives until its configuration is deleted while
// nobody uses it. A name may exist in both families as two lists.
#include "pol_list.hpp"

namespace {

template <avl_tree_t t_pol_ctx::*Tree, e_pol_mem EntryMem, auto SrcLink, auto DstLink>
struct fwd_pfx_traits : pol::list_hooks<t_fwd_pfx_list> {
    using src_chain = pol::user_chain<t_fwd_pfx_list, t_pol_match_entry,
                                      &t_fwd_pfx_list::match_src_list_head, SrcLink,
                                      pol::block_of_data_user<t_pol_match_entry>>;
    using dst_chain = pol::user_chain<t_fwd_pfx_list, t_pol_match_entry,
                                      &t_fwd_pfx_list::match_dst_list_head, DstLink,
                                      pol::block_of_data_user<t_pol_match_entry>>;

    using list_t = t_fwd_pfx_list;
    using entry_t = t_fwd_pfx_list_entry;
    using key_t = const char *;
    // Notification order: source users, then destination users.
    using chains = pol::chain_list<src_chain, dst_chain>;
    static constexpr e_pol_mem list_mem = POL_MEM_LIST_FWD_PREFIX;
    static constexpr e_pol_mem entry_mem = EntryMem;
    static constexpr std::size_t list_node_offset = offsetof(t_fwd_pfx_list, fwd_pfx_list_node);
    static constexpr auto entry_tree = &t_fwd_pfx_list::ip_fwd_pfx_entry_db;
    static constexpr std::size_t entry_node_offset = offsetof(t_fwd_pfx_list_entry, avl_node);
    static constexpr int (*list_cmp)(const void *, const void *) = pol_fwd_pfx_list_cmp;
    static constexpr int (*entry_cmp)(const void *, const void *) = pol_fwd_pfx_list_entry_cmp;

    static std::array<avl_tree_t *, 1> trees(t_pol_ctx *ctx) { return {&(ctx->*Tree)}; }
    static avl_tree_t *tree_of(t_pol_ctx *ctx, key_t) { return &(ctx->*Tree); }
    static avl_tree_t *tree_of_list(t_pol_ctx *ctx, const t_fwd_pfx_list *) { return &(ctx->*Tree); }
    static void set_key(t_fwd_pfx_list &list, key_t name) { pol::copy_name(list.fwd_pfx_list_name, name); }

    static void on_free(t_fwd_pfx_list *list) { pol_xml_free_buf(&list->fwd_pfx_list_xml); }
};

// What the families do beyond the common verbs: prefixes by value, users
// by role.
template <typename Traits>
struct fwd_pfx_family : pol::keyed_list_family<Traits> {
    using lists = pol::keyed_list_family<Traits>;

    static t_fwd_pfx_list_entry probe(const t_ipprefix *prefix)
    {
        t_fwd_pfx_list_entry entry{};
        entry.ip_prefix = *prefix;
        return entry;
    }

    // The prefix's family is not checked.
    static e_err add_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix)
    {
        t_fwd_pfx_list *list = lists::find_or_create(ctx, name, nullptr);
        if (list == nullptr) {
            return ERR_ALLOC;
        }
        return lists::add_entry(list, probe(prefix));
    }

    // An unknown list name creates the (empty) list.
    static e_err del_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix)
    {
        t_fwd_pfx_list *list = lists::find_or_create(ctx, name, nullptr);
        if (list == nullptr) {
            return ERR_ALLOC;
        }
        lists::del_entry(list, probe(prefix));
        return ERR_OK;
    }

    // Any role but source is a destination.
    static t_fwd_pfx_list *user_add(t_pol_ctx *ctx, const char *name, e_pol_fwd_pfx_type role,
                                    t_pol_match_entry *match)
    {
        if (role == POL_FWD_LIST_SRC) {
            return lists::template user_add<typename Traits::src_chain>(ctx, name, match);
        }
        return lists::template user_add<typename Traits::dst_chain>(ctx, name, match);
    }

    static e_err user_remove(t_pol_ctx *ctx, t_fwd_pfx_list *list, e_pol_fwd_pfx_type role,
                             t_pol_match_entry *match)
    {
        if (role == POL_FWD_LIST_SRC) {
            return lists::template user_remove<typename Traits::src_chain>(ctx, list, match);
        }
        return lists::template user_remove<typename Traits::dst_chain>(ctx, list, match);
    }
};

using fwd_pfx4 = fwd_pfx_family<fwd_pfx_traits<&t_pol_ctx::fwd_pfx_lists, POL_MEM_LIST_PFX_ENTRY,
                                               &t_pol_match_entry::fwd_src_pfx_entry,
                                               &t_pol_match_entry::fwd_dst_pfx_entry>>;
using fwd_pfx6 = fwd_pfx_family<fwd_pfx_traits<&t_pol_ctx::fwd_pfx6_lists, POL_MEM_LIST_PFX6_ENTRY,
                                               &t_pol_match_entry::fwd_src_pfx6_entry,
                                               &t_pol_match_entry::fwd_dst_pfx6_entry>>;

}  // namespace

extern "C" {

// The name is the first member of a list, so a bare name serves as a key.
int pol_fwd_pfx_list_cmp(const void *a, const void *b)
{
    return pol::fold(std::strncmp(static_cast<const char *>(a), static_cast<const char *>(b),
                                  POL_LIST_NAME_SIZE));
}

int pol_fwd_pfx6_list_cmp(const void *a, const void *b)
{
    return pol_fwd_pfx_list_cmp(a, b);
}

// Both families order their entries by prefix.
int pol_fwd_pfx_list_entry_cmp(const void *a, const void *b)
{
    return IPPREFIX_CMP(&static_cast<const t_fwd_pfx_list_entry *>(a)->ip_prefix,
                        &static_cast<const t_fwd_pfx_list_entry *>(b)->ip_prefix);
}

// The C names of one of the two families, each a forwarder to it.
#define POL_FWD_PFX_FAMILY_FUNCTIONS(prefix, family)                                              \
    e_err prefix##_main_init(t_pol_ctx *ctx) { return family::main_init(ctx); }                  \
    e_err prefix##_main_deinit(t_pol_ctx *ctx) { return family::main_deinit(ctx); }              \
    t_fwd_pfx_list *prefix##_find(t_pol_ctx *ctx, const char *name)                               \
    {                                                                                             \
        return family::find(ctx, name);                                                           \
    }                                                                                             \
    t_fwd_pfx_list *prefix##_find_or_create(t_pol_ctx *ctx, const char *name, uint8_t *created)   \
    {                                                                                             \
        return family::find_or_create(ctx, name, created);                                        \
    }                                                                                             \
    bool prefix##_is_empty(const t_fwd_pfx_list *list) { return family::is_empty(list); }        \
    t_fwd_pfx_list *prefix##_first(t_pol_ctx *ctx) { return family::first(ctx); }                \
    t_fwd_pfx_list *prefix##_next(t_pol_ctx *ctx, t_fwd_pfx_list *list)                           \
    {                                                                                             \
        return family::next(ctx, list);                                                           \
    }                                                                                             \
    e_err prefix##_add_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix_p)       \
    {                                                                                             \
        return family::add_prefix(ctx, name, prefix_p);                                           \
    }                                                                                             \
    e_err prefix##_del_prefix(t_pol_ctx *ctx, const char *name, const t_ipprefix *prefix_p)       \
    {                                                                                             \
        return family::del_prefix(ctx, name, prefix_p);                                           \
    }                                                                                             \
    e_err prefix##_entry_change(t_pol_ctx *ctx, const char *name)                                 \
    {                                                                                             \
        return family::entry_change(ctx, name);                                                   \
    }                                                                                             \
    e_err prefix##_cfg_del(t_pol_ctx *ctx, const char *name) { return family::cfg_del(ctx, name); } \
    void prefix##_del(t_pol_ctx *ctx, t_fwd_pfx_list **list_pp, uint8_t remove)                   \
    {                                                                                             \
        family::del(ctx, list_pp, remove != 0);                                                   \
    }                                                                                             \
    t_fwd_pfx_list *prefix##_user_add(t_pol_ctx *ctx, const char *name, e_pol_fwd_pfx_type role,  \
                                      t_pol_match_entry *match)                                   \
    {                                                                                             \
        return family::user_add(ctx, name, role, match);                                          \
    }                                                                                             \
    e_err prefix##_user_remove(t_pol_ctx *ctx, t_fwd_pfx_list *list, e_pol_fwd_pfx_type role,     \
                               t_pol_match_entry *match)                                          \
    {                                                                                             \
        return family::user_remove(ctx, list, role, match);                                       \
    }                                                                                             \
    void prefix##_users_add_to_chg_list(t_pol_ctx *ctx, t_fwd_pfx_list *list)                     \
    {                                                                                             \
        family::users_add_to_chg_list(ctx, list);                                                 \
    }

POL_FWD_PFX_FAMILY_FUNCTIONS(pol_fwd_pfx_list, fwd_pfx4)
POL_FWD_PFX_FAMILY_FUNCTIONS(pol_fwd_pfx6_list, fwd_pfx6)

}  // extern "C"
