// Application lists: entries applied silently and published by
// entry_change, the three user chains, a life that ends only with the
// configuration, and the dump.
#include "fwd_condition.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;
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
    t_app_list *(*add)(t_pol_ctx *, const char *, FwdCondition &);
    e_err (*remove)(t_pol_ctx *, t_app_list *, FwdCondition &);
} kChains[] = {
    {"app", [](t_pol_ctx *c, const char *n, FwdCondition &f) { return pol_app_list_user_add(c, n, &f.match); },
     [](t_pol_ctx *c, t_app_list *l, FwdCondition &f) { return pol_app_list_user_remove(c, l, &f.match); }},
    {"dns", [](t_pol_ctx *c, const char *n, FwdCondition &f) { return pol_dns_app_list_user_add(c, n, &f.match); },
     [](t_pol_ctx *c, t_app_list *l, FwdCondition &f) { return pol_dns_app_list_user_remove(c, l, &f.match); }},
    {"saas", [](t_pol_ctx *c, const char *n, FwdCondition &f) { return pol_saas_app_list_user_add(c, n, &f.saas); },
     [](t_pol_ctx *c, t_app_list *l, FwdCondition &f) { return pol_saas_app_list_user_remove(c, l, &f.saas); }},
};

TEST_F(AppListTest, EachChainHearsOnlyOfCommitsAndKeepsItsListWhole)
{
    for (const Chain &c : kChains) {
        SCOPED_TRACE(c.what);
        watch(c.what);
        FwdCondition cond(c.what);
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

    FwdCondition cond("D");
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
    FwdCondition a("D1"), a2("D1"), d("D2"), s("D3");
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
