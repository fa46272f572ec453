// Data prefix lists of both families: prefixes applied silently and
// published by entry_change, users by role, a life that ends only with the
// configuration, the two families kept apart, and the dumps.
#include <arpa/inet.h>

#include <zen/zen_util.h>

#include "fwd_condition.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;
using FwdPfxListTest = FwdListTest;

t_ipprefix prefix(const std::string &text)
{
    t_ipprefix p{};
    const std::string addr = text.substr(0, text.find('/'));
    const bool v6 = addr.find(':') != std::string::npos;
    p.addr.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), p.addr.u.addr6_b), 1) << text;
    p.prefixlen = static_cast<uint8_t>(std::stoi(text.substr(text.find('/') + 1)));
    return p;
}

Texts prefixes(t_fwd_pfx_list *list)
{
    Texts out;
    avl_tree_t *db = &list->ip_fwd_pfx_entry_db;
    for (void *e = avl_first(db); e != nullptr; e = avl_walk(db, e, AVL_AFTER)) {
        char buf[64];
        out.emplace_back(ipprefix_print(&static_cast<t_fwd_pfx_list_entry *>(e)->ip_prefix, buf, sizeof(buf)));
    }
    return out;
}

const struct Family {
    const char *what;
    const char *pfx[3];  // in prefix order
    t_fwd_pfx_list *(*find)(t_pol_ctx *, const char *);
    e_err (*add)(t_pol_ctx *, const char *, const t_ipprefix *);
    e_err (*del)(t_pol_ctx *, const char *, const t_ipprefix *);
    e_err (*commit)(t_pol_ctx *, const char *);
    e_err (*cfg_del)(t_pol_ctx *, const char *);
    t_fwd_pfx_list *(*user_add)(t_pol_ctx *, const char *, e_pol_fwd_pfx_type, t_pol_match_entry *);
    e_err (*user_remove)(t_pol_ctx *, t_fwd_pfx_list *, e_pol_fwd_pfx_type, t_pol_match_entry *);
    bool (*is_empty)(const t_fwd_pfx_list *);
    void (*del_list)(t_pol_ctx *, t_fwd_pfx_list **, uint8_t);

    e_err add_text(const char *name, const std::string &text) const { return apply(add, name, text); }
    e_err del_text(const char *name, const std::string &text) const { return apply(del, name, text); }
    static e_err apply(e_err (*op)(t_pol_ctx *, const char *, const t_ipprefix *), const char *name,
                       const std::string &text)
    {
        const t_ipprefix p = prefix(text);
        return op(g_pol_ctx_p, name, &p);
    }
} kFamilies[] = {
    {"v4", {"10.0.0.0/8", "10.0.0.0/16", "10.1.0.0/16"},
     pol_fwd_pfx_list_find, pol_fwd_pfx_list_add_prefix, pol_fwd_pfx_list_del_prefix,
     pol_fwd_pfx_list_entry_change, pol_fwd_pfx_list_cfg_del, pol_fwd_pfx_list_user_add,
     pol_fwd_pfx_list_user_remove, pol_fwd_pfx_list_is_empty, pol_fwd_pfx_list_del},
    {"v6", {"2001:db8::/32", "2001:db8::/48", "2001:db9::/32"},
     pol_fwd_pfx6_list_find, pol_fwd_pfx6_list_add_prefix, pol_fwd_pfx6_list_del_prefix,
     pol_fwd_pfx6_list_entry_change, pol_fwd_pfx6_list_cfg_del, pol_fwd_pfx6_list_user_add,
     pol_fwd_pfx6_list_user_remove, pol_fwd_pfx6_list_is_empty, pol_fwd_pfx6_list_del},
};

TEST_F(FwdPfxListTest, CommitsReachBothRolesInOnePassAndListsOutliveTheirUsers)
{
    for (const Family &f : kFamilies) {
        SCOPED_TRACE(f.what);
        const std::string src_pol = std::string(f.what) + "-src", dst_pol = std::string(f.what) + "-dst";
        watch(dst_pol.c_str());
        watch(src_pol.c_str());
        FwdCondition src(src_pol.c_str()), dst(dst_pol.c_str()), other(dst_pol.c_str());
        t_fwd_pfx_list *list = f.user_add(ctx_, "L", POL_FWD_LIST_SRC, &src.match);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(f.user_add(ctx_, "L", POL_FWD_LIST_DST, &dst.match), list);
        EXPECT_EQ(f.user_add(ctx_, "L", POL_FWD_LIST_INVALID, &other.match), list);  // a destination
        EXPECT_EQ(TAILQ_LAST(&list->match_dst_list_head, _t_pol_match_entry_head), &other.match);
        pol_user_chg_list_notify_all(ctx_);
        calls_.clear();
        list->fetch_xml = 0;

        for (const char *p : {f.pfx[1], f.pfx[0], f.pfx[2], f.pfx[0]}) {
            EXPECT_EQ(f.add_text("L", p), ERR_OK);
        }
        EXPECT_TRUE(f.del_text("L", f.pfx[1]) == ERR_OK && f.del_text("L", f.pfx[1]) == ERR_OK);
        EXPECT_TRUE(calls_.empty() && list->fetch_xml == 0);
        EXPECT_EQ(prefixes(list), (Texts{f.pfx[0], f.pfx[2]}));
        EXPECT_EQ(f.commit(ctx_, "L"), ERR_OK);
        EXPECT_TRUE(calls_ == (Texts{src_pol, dst_pol}) && list->fetch_xml == 1);

        EXPECT_EQ(f.cfg_del(ctx_, "L"), ERR_OK);  // in use: kept whole
        EXPECT_TRUE(f.find(ctx_, "L") == list && prefixes(list) == (Texts{f.pfx[0], f.pfx[2]}));
        EXPECT_DEATH({ dup2(2, 1); f.del_list(ctx_, &list, 1); },
                     "pol_list\\.hpp:[0-9]+: failed assertion `chains::empty");
        EXPECT_EQ(f.user_remove(ctx_, list, POL_FWD_LIST_SRC, &src.match), ERR_OK);
        EXPECT_EQ(f.user_remove(ctx_, list, POL_FWD_LIST_DST, &dst.match), ERR_OK);
        EXPECT_FALSE(f.is_empty(list));
        EXPECT_EQ(f.user_remove(ctx_, list, POL_FWD_LIST_INVALID, &other.match), ERR_OK);
        EXPECT_TRUE(f.find(ctx_, "L") == list && f.is_empty(list));  // the last user: kept
        EXPECT_EQ(f.user_remove(ctx_, nullptr, POL_FWD_LIST_SRC, &src.match), ERR_NOT_FOUND);
        EXPECT_EQ(f.cfg_del(ctx_, "L"), ERR_OK);
        EXPECT_EQ(f.find(ctx_, "L"), nullptr);

        EXPECT_EQ(f.del_text("ghost", f.pfx[1]), ERR_OK);  // an unknown list
        t_fwd_pfx_list *ghost = f.find(ctx_, "ghost");
        ASSERT_NE(ghost, nullptr);
        EXPECT_TRUE(ghost->fetch_xml == 1 && prefixes(ghost).empty());
    }
}

// One name in both families is two lists, and a condition sits in the
// chains of both by links of its own.
TEST_F(FwdPfxListTest, DumpsShowEachFamilyWithItsPrefixesInOrderAndUsersByRole)
{
    FwdCondition s("S"), d1("D1"), d2("D2");
    kFamilies[0].add_text("edge", "10.1.0.0/16");
    kFamilies[0].add_text("edge", "10.0.0.0/8");
    t_fwd_pfx_list *edge = pol_fwd_pfx_list_user_add(ctx_, "edge", POL_FWD_LIST_DST, &d1.match);
    pol_fwd_pfx_list_user_add(ctx_, "edge", POL_FWD_LIST_SRC, &s.match);
    pol_fwd_pfx_list_user_add(ctx_, "edge", POL_FWD_LIST_DST, &d2.match);
    kFamilies[1].add_text("edge", "2001:db8::/32");
    t_fwd_pfx_list *edge6 = pol_fwd_pfx6_list_user_add(ctx_, "edge", POL_FWD_LIST_SRC, &s.match);
    ASSERT_TRUE(edge6 != nullptr && edge6 != edge);
    edge6->fetch_xml = 0;
    EXPECT_EQ(dump(pol_dump_fwd_pfx_list_all),
              heading("FORWARDING PREFIX LISTS    ") + "\nfwd-prefix-list: edge (" + ptr(edge) +
                  ", 1)\n  Fwd prefix List entries:\n    10.0.0.0/8\n    10.1.0.0/16"
                  "\n  SRC LIST User: S\n  DST LIST User: D1\n  DST LIST User: D2\nend \n");
    EXPECT_EQ(dump(pol_dump_fwd_pfx6_list_all),
              heading("FORWARDING PREFIX6 LISTS    ") + "\nfwd-prefix6-list: edge (" + ptr(edge6) +
                  ", 0)\n  Fwd prefix List entries:\n    2001:db8::/32\n  SRC LIST User: S\nend \n");
    pol_fwd_pfx_list_user_remove(ctx_, edge, POL_FWD_LIST_SRC, &s.match);
    pol_fwd_pfx_list_user_remove(ctx_, edge, POL_FWD_LIST_DST, &d1.match);
    pol_fwd_pfx_list_user_remove(ctx_, edge, POL_FWD_LIST_DST, &d2.match);
    EXPECT_EQ(TAILQ_FIRST(&edge6->match_src_list_head), &s.match);
    pol_fwd_pfx6_list_user_remove(ctx_, edge6, POL_FWD_LIST_SRC, &s.match);
    EXPECT_TRUE(pol_fwd_pfx6_list_first(ctx_) == edge6 && pol_fwd_pfx6_list_next(ctx_, edge6) == nullptr);
    // Both lists and their entries go with the context.
}

}  // namespace
