// Data prefix lists of both families and application lists: entries
// applied silently and published by entry_change, users by role or chain,
// a life that ends only with the configuration (the dumps and the two
// prefix families kept apart are the command-line goldens').
#include <arpa/inet.h>

#include "fwd_test_support.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;

class FwdListTest : public PolContextTest {
protected:
    // A user named after the data policy it watches, recording into calls_.
    void watch(const char *policy) { register_user(policy, policy, POL_TYPE_DATA, POL_DIR_NONE, record_cb, &calls_); }
    Texts calls_;
};

/* ---- data prefix lists ---- */

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
    t_fwd_pfx_list *(*first)(t_pol_ctx *);
    t_fwd_pfx_list *(*next)(t_pol_ctx *, t_fwd_pfx_list *);
    void (*dump)(mgmtd_cli_user_info *);

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
     pol_fwd_pfx_list_user_remove, pol_fwd_pfx_list_is_empty, pol_fwd_pfx_list_del, pol_fwd_pfx_list_first,
     pol_fwd_pfx_list_next, pol_dump_fwd_pfx_list_all},
    {"v6", {"2001:db8::/32", "2001:db8::/48", "2001:db9::/32"},
     pol_fwd_pfx6_list_find, pol_fwd_pfx6_list_add_prefix, pol_fwd_pfx6_list_del_prefix,
     pol_fwd_pfx6_list_entry_change, pol_fwd_pfx6_list_cfg_del, pol_fwd_pfx6_list_user_add,
     pol_fwd_pfx6_list_user_remove, pol_fwd_pfx6_list_is_empty, pol_fwd_pfx6_list_del, pol_fwd_pfx6_list_first,
     pol_fwd_pfx6_list_next, pol_dump_fwd_pfx6_list_all},
};

TEST_F(FwdPfxListTest, CommitsReachBothRolesInOnePassAndListsOutliveTheirUsers)
{
    for (const Family &f : kFamilies) {
        SCOPED_TRACE(f.what);
        const std::string src_pol = std::string(f.what) + "-src", dst_pol = std::string(f.what) + "-dst";
        watch(dst_pol.c_str());
        watch(src_pol.c_str());
        DataSequence src(src_pol.c_str()), dst(dst_pol.c_str()), other(dst_pol.c_str());
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
        EXPECT_NE(dump(f.dump).find(ptr(list) + ", 0)"), std::string::npos);
        EXPECT_EQ(entries(f.dump, "L"), (Texts{f.pfx[0], f.pfx[2]}));
        EXPECT_EQ(f.commit(ctx_, "L"), ERR_OK);
        EXPECT_TRUE(calls_ == (Texts{src_pol, dst_pol}) && list->fetch_xml == 1);

        EXPECT_EQ(f.cfg_del(ctx_, "L"), ERR_OK);  // in use: kept whole
        EXPECT_TRUE(f.find(ctx_, "L") == list && entries(f.dump, "L") == (Texts{f.pfx[0], f.pfx[2]}));
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
        EXPECT_TRUE(ghost->fetch_xml == 1 && entries(f.dump, "ghost").empty());
        EXPECT_TRUE(f.first(ctx_) == ghost && f.next(ctx_, ghost) == nullptr);
    }
}

/* ---- application lists ---- */

using AppListTest = FwdListTest;

Texts apps(const std::string &list)
{
    return entries(pol_dump_app_list_all, list);
}

const struct Chain {
    const char *what;
    t_app_list *(*add)(t_pol_ctx *, const char *, DataSequence &);
    e_err (*remove)(t_pol_ctx *, t_app_list *, DataSequence &);
} kChains[] = {
    {"app", [](t_pol_ctx *c, const char *n, DataSequence &f) { return pol_app_list_user_add(c, n, &f.match); },
     [](t_pol_ctx *c, t_app_list *l, DataSequence &f) { return pol_app_list_user_remove(c, l, &f.match); }},
    {"dns", [](t_pol_ctx *c, const char *n, DataSequence &f) { return pol_dns_app_list_user_add(c, n, &f.match); },
     [](t_pol_ctx *c, t_app_list *l, DataSequence &f) { return pol_dns_app_list_user_remove(c, l, &f.match); }},
    {"saas", [](t_pol_ctx *c, const char *n, DataSequence &f) { return pol_saas_app_list_user_add(c, n, &f.saas); },
     [](t_pol_ctx *c, t_app_list *l, DataSequence &f) { return pol_saas_app_list_user_remove(c, l, &f.saas); }},
};

TEST_F(AppListTest, EachChainHearsOnlyOfCommitsAndKeepsItsListWhole)
{
    for (const Chain &c : kChains) {
        SCOPED_TRACE(c.what);
        watch(c.what);
        DataSequence cond(c.what);
        t_app_list *list = c.add(ctx_, "L", cond);  // an unknown name is created
        ASSERT_NE(list, nullptr);
        EXPECT_TRUE(list->fetch_xml == 1 && !pol_app_list_is_empty(list));
        list->fetch_xml = 0;
        calls_.clear();
        for (const char *app : {"web", "mail", "web"}) {
            EXPECT_EQ(pol_app_list_entry_add_app(ctx_, "L", app, POL_APP_LIST_TYPE_APP), ERR_OK);
        }
        EXPECT_EQ(pol_app_list_entry_del_app(ctx_, "L", "ftp"), ERR_OK);
        EXPECT_TRUE(calls_.empty() && list->fetch_xml == 0);
        EXPECT_NE(dump(pol_dump_app_list_all).find(ptr(list) + ", 0)"), std::string::npos);
        EXPECT_EQ(apps("L"), (Texts{"mail", "web"}));
        EXPECT_EQ(pol_app_list_entry_change(ctx_, "L"), ERR_OK);
        EXPECT_TRUE(calls_ == Texts{c.what} && list->fetch_xml == 1);

        calls_.clear();
        EXPECT_EQ(pol_app_list_cfg_del(ctx_, "L"), ERR_OK);  // in use: kept whole
        EXPECT_TRUE(pol_app_list_find(ctx_, "L") == list && apps("L") == (Texts{"mail", "web"}));
        EXPECT_EQ(c.remove(ctx_, list, cond), ERR_OK);  // the last user: kept
        EXPECT_TRUE(pol_app_list_find(ctx_, "L") == list && pol_app_list_is_empty(list));
        EXPECT_EQ(c.remove(ctx_, nullptr, cond), ERR_NOT_FOUND);
        EXPECT_EQ(pol_app_list_cfg_del(ctx_, "L"), ERR_OK);
        EXPECT_TRUE(pol_app_list_find(ctx_, "L") == nullptr && calls_.empty());
    }
}

TEST_F(AppListTest, LastAddDecidesTheTypeNamesAreBoundedFailuresUndoCreation)
{
    const std::string app127(127, 'a'), name63(63, 'n');
    const struct {
        std::string app;
        t_app_list_type type;
        Texts want;
    } steps[] = {
        {"web", POL_APP_LIST_TYPE_APP, {"web"}},
        {"social", POL_APP_LIST_TYPE_APP_FAMILY, {"social", "web"}},  // the whole list: families
        {"web", POL_APP_LIST_TYPE_APP, {"social", "web"}},            // a repeat still sets it
        {app127 + "x", POL_APP_LIST_TYPE_APP_FAMILY, {app127, "social", "web"}},
        {app127 + "y", POL_APP_LIST_TYPE_APP, {app127, "social", "web"}},
    };
    for (const auto &s : steps) {
        ASSERT_EQ(pol_app_list_entry_add_app(ctx_, (name63 + "x").c_str(), s.app.c_str(), s.type), ERR_OK);
        t_app_list *list = pol_app_list_find(ctx_, name63.c_str());
        ASSERT_NE(list, nullptr);
        EXPECT_TRUE(list->app_list_type == s.type && apps(name63) == s.want) << s.app;
    }
    EXPECT_EQ(pol_app_list_entry_del_app(ctx_, name63.c_str(), (app127 + "z").c_str()), ERR_OK);
    EXPECT_EQ(apps(name63), (Texts{"social", "web"}));

    EXPECT_EQ(pol_app_list_entry_del_app(ctx_, "ghost", "web"), ERR_OK);  // an unknown list
    t_app_list *ghost = pol_app_list_find(ctx_, "ghost");
    ASSERT_NE(ghost, nullptr);
    EXPECT_TRUE(ghost->fetch_xml == 1 && apps("ghost").empty() && pol_app_list_is_empty(ghost));
    EXPECT_TRUE(pol_app_list_first(ctx_) == ghost && pol_app_list_next(ctx_, ghost)->app_list_name == name63);

    DataSequence cond("D");
    const std::function<e_err()> creators[] = {
        [&] { return pol_app_list_entry_add_app(ctx_, "new", "web", POL_APP_LIST_TYPE_APP); },
        [&] { return pol_app_list_entry_del_app(ctx_, "new", "web"); },
        [&] { return pol_app_list_entry_change(ctx_, "new"); },
        [&] { return pol_dns_app_list_user_add(ctx_, "new", &cond.match) ? ERR_OK : ERR_ALLOC; },
    };
    for (const auto &op : creators) {
        AllocFailure fail(POL_MEM_LIST_APP, 1);
        EXPECT_EQ(op(), ERR_ALLOC);
    }
    EXPECT_EQ(pol_app_list_find(ctx_, "new"), nullptr);
    {
        AllocFailure fail(POL_MEM_LIST_APP_ENTRY, 1);
        EXPECT_EQ(pol_app_list_entry_add_app(ctx_, "new", "web", POL_APP_LIST_TYPE_APP), ERR_ALLOC);
    }
    ASSERT_NE(pol_app_list_find(ctx_, "new"), nullptr);  // the list stays
    EXPECT_TRUE(apps("new").empty());
}

// One commit tells the chains in order: application, DNS, SaaS.
TEST_F(AppListTest, OneCommitTellsTheChainsInOrder)
{
    for (const char *policy : {"D3", "D2", "D1"}) {
        watch(policy);
    }
    DataSequence a("D1"), d("D2"), s("D3");
    t_app_list *list = pol_saas_app_list_user_add(ctx_, "apps", &s.saas);
    pol_dns_app_list_user_add(ctx_, "apps", &d.match);
    pol_app_list_user_add(ctx_, "apps", &a.match);
    pol_user_chg_list_notify_all(ctx_);
    calls_.clear();
    EXPECT_EQ(pol_app_list_entry_change(ctx_, "apps"), ERR_OK);
    EXPECT_EQ(calls_, (Texts{"D1", "D2", "D3"}));
    EXPECT_DEATH({ dup2(2, 1); pol_app_list_del(ctx_, &list, 1); },
                 "pol_list\\.hpp:[0-9]+: failed assertion `chains::empty");
    pol_app_list_user_remove(ctx_, list, &a.match);
    pol_dns_app_list_user_remove(ctx_, list, &d.match);
    pol_saas_app_list_user_remove(ctx_, list, &s.saas);
    pol_app_list_del(ctx_, &list, 1);
    EXPECT_TRUE(list == nullptr && pol_app_list_find(ctx_, "apps") == nullptr);
}

}  // namespace
