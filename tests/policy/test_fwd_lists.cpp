// Data prefix lists of both families and application lists: entries
// applied silently and published by entry_change, users by role or chain,
// a life that ends only with the configuration, the two prefix families
// kept apart, and the dumps.
#include <arpa/inet.h>

#include <zen/zen_util.h>

#include "fwd_test_support.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;

// Its data-policy users go first: a data policy with users outlives the
// shutdown's deletion.
class FwdListTest : public PolContextTest {
protected:
    // A user named after the data policy it watches, recording into calls_.
    void watch(const char *policy)
    {
        users_.push_back(register_user(policy, policy, POL_TYPE_DATA, POL_DIR_NONE, record_cb, &calls_));
    }
    void TearDown() override
    {
        for (t_pol_user *&user : users_) {
            pol_unregister(&user);
        }
        PolContextTest::TearDown();
    }
    Texts calls_;
    std::vector<t_pol_user *> users_;
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
    DataSequence s("S"), d1("D1"), d2("D2");
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

/* ---- application lists ---- */

using AppListTest = FwdListTest;

Texts apps(t_app_list *list)
{
    Texts out;
    avl_tree_t *db = &list->app_list_entry_db;
    for (void *e = avl_first(db); e != nullptr; e = avl_walk(db, e, AVL_AFTER)) {
        out.emplace_back(static_cast<t_app_list_entry *>(e)->name);
    }
    return out;
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
        EXPECT_EQ(apps(list), (Texts{"mail", "web"}));
        EXPECT_EQ(pol_app_list_entry_change(ctx_, "L"), ERR_OK);
        EXPECT_TRUE(calls_ == Texts{c.what} && list->fetch_xml == 1);

        calls_.clear();
        EXPECT_EQ(pol_app_list_cfg_del(ctx_, "L"), ERR_OK);  // in use: kept whole
        EXPECT_TRUE(pol_app_list_find(ctx_, "L") == list && apps(list) == (Texts{"mail", "web"}));
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
        EXPECT_TRUE(list->app_list_type == s.type && apps(list) == s.want) << s.app;
    }
    EXPECT_EQ(pol_app_list_entry_del_app(ctx_, name63.c_str(), (app127 + "z").c_str()), ERR_OK);
    EXPECT_EQ(apps(pol_app_list_find(ctx_, name63.c_str())), (Texts{"social", "web"}));

    EXPECT_EQ(pol_app_list_entry_del_app(ctx_, "ghost", "web"), ERR_OK);  // an unknown list
    t_app_list *ghost = pol_app_list_find(ctx_, "ghost");
    ASSERT_NE(ghost, nullptr);
    EXPECT_TRUE(ghost->fetch_xml == 1 && apps(ghost).empty() && pol_app_list_is_empty(ghost));
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
    EXPECT_TRUE(apps(pol_app_list_find(ctx_, "new")).empty());
}

TEST_F(AppListTest, OneCommitTellsTheChainsInOrderAndTheDumpShowsThem)
{
    for (const char *policy : {"D3", "D2", "D1"}) {
        watch(policy);
    }
    DataSequence a("D1"), a2("D1"), d("D2"), s("D3");
    pol_app_list_entry_add_app(ctx_, "apps", "web", POL_APP_LIST_TYPE_APP);
    pol_app_list_entry_add_app(ctx_, "apps", "mail", POL_APP_LIST_TYPE_APP_FAMILY);
    t_app_list *list = pol_saas_app_list_user_add(ctx_, "apps", &s.saas);
    pol_dns_app_list_user_add(ctx_, "apps", &d.match);
    pol_app_list_user_add(ctx_, "apps", &a.match);
    pol_app_list_user_add(ctx_, "apps", &a2.match);
    pol_app_list_entry_add_app(ctx_, "zed", "chat", POL_APP_LIST_TYPE_APP);
    t_app_list *zed = pol_app_list_find(ctx_, "zed");
    zed->fetch_xml = 0;
    pol_user_chg_list_notify_all(ctx_);
    calls_.clear();
    EXPECT_EQ(pol_app_list_entry_change(ctx_, "apps"), ERR_OK);
    EXPECT_EQ(calls_, (Texts{"D1", "D2", "D3"}));
    EXPECT_DEATH({ dup2(2, 1); pol_app_list_del(ctx_, &list, 1); },
                 "pol_list\\.hpp:[0-9]+: failed assertion `chains::empty");

    EXPECT_EQ(dump(pol_dump_app_list_all),
              heading("APP LISTS") + "\napp-list: apps (" + ptr(list) +
                  ", 1)\n  APP LIST Type: app-family\n  APP LIST Entries:\n    mail\n    web"
                  "\n  APP LIST User: D1\n  APP LIST User: D1\n  DNS APP LIST User: D2"
                  "\n  SAAS APP LIST User: D3\nend \n"
                  "\napp-list: zed (" + ptr(zed) + ", 0)\n  APP LIST Type: app\n  APP LIST Entries:\n    chat\nend \n");
    pol_app_list_user_remove(ctx_, list, &a.match);
    pol_app_list_user_remove(ctx_, list, &a2.match);
    pol_dns_app_list_user_remove(ctx_, list, &d.match);
    pol_saas_app_list_user_remove(ctx_, list, &s.saas);
    pol_app_list_del(ctx_, &list, 1);
    EXPECT_TRUE(list == nullptr && pol_app_list_find(ctx_, "apps") == nullptr);
    // zed and its entry go with the context.
}

}  // namespace
