// Prefix lists: the (family, name) key, entries identified by prefix alone,
// the life cycle of a list, its identity index, notification of the
// policies that match on it, and the dumps.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zen/zen_util.h>

#include "pol_test_support.hpp"

namespace {

using poltest::live_count;
using poltest::PolContextTest;

t_pfx_entry_param pfx(const char *text, e_pfx_op op = PFX_OP_NONE, uint8_t min = 0, uint8_t max = 0)
{
    t_pfx_entry_param p{};
    const std::string s(text);
    const std::size_t slash = s.find('/');
    const std::string addr = s.substr(0, slash);
    p.prefix.prefixlen = static_cast<uint8_t>(std::stoi(s.substr(slash + 1)));
    if (addr.find(':') != std::string::npos) {
        uint8_t bytes[16];
        EXPECT_EQ(inet_pton(AF_INET6, addr.c_str(), bytes), 1) << text;
        IPADDR_SET_V6(&p.prefix.addr, bytes);
    } else {
        in_addr a{};
        EXPECT_EQ(inet_pton(AF_INET, addr.c_str(), &a), 1) << text;
        IPADDR_SET_V4(&p.prefix.addr, a.s_addr);
    }
    p.pfx_op = op;
    p.preflen_min = min;
    p.preflen_max = max;
    return p;
}

t_pfx_list_key key(const char *name, e_pol_af af = POL_AF_IPV4)
{
    return t_pfx_list_key{af, name};
}

void count_change(t_pol_user *, void *user_ctx)
{
    ++*static_cast<int *>(user_ctx);
}

class PfxList : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        // pol_init may not start this family yet; start it here if not.
        if (ctx_ != nullptr && ctx_->pfx_lists.avl_compar == nullptr) {
            ASSERT_EQ(pol_pfx_list_main_init(ctx_), ERR_OK);
            own_family_ = true;
        }
    }

    void TearDown() override
    {
        if (own_family_ && ctx_ != nullptr) {
            pol_pfx_list_main_deinit(ctx_);
        }
        PolContextTest::TearDown();
    }

    // Registers a user of a route policy whose calls count into *calls
    // (changes_ unless told otherwise).
    void watch(const char *policy, int *calls = nullptr)
    {
        poltest::register_user(policy, policy, POL_TYPE_ROUTE, POL_DIR_OUT, count_change,
                               calls != nullptr ? calls : &changes_);
    }

    // A new sequence of the policy that matches on the keyed list.
    t_pol_entry *match_on(const char *policy, uint32_t seq, const t_pfx_list_key &k)
    {
        uint8_t changed = 0;
        t_pol_block *block = pol_block_find_or_create(ctx_, policy, POL_TYPE_ROUTE, &changed);
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block, seq, &changed);
        entry->match_entry.pol_block_p = block;
        entry->match_entry.match_pfx_list_p = pol_pfx_list_user_add(ctx_, &k, &entry->match_entry);
        EXPECT_NE(entry->match_entry.match_pfx_list_p, nullptr);
        pol_user_chg_list_notify_all(ctx_);
        changes_ = 0;
        return entry;
    }

    void unmatch(t_pol_entry *entry)
    {
        t_pol_match_entry *match = &entry->match_entry;
        EXPECT_EQ(pol_pfx_list_user_remove(ctx_, match->match_pfx_list_p, match), ERR_OK);
        match->match_pfx_list_p = nullptr;
    }

    static std::vector<std::string> entries(const t_pfx_list *list)
    {
        std::vector<std::string> out;
        const t_pfx_entry *e = nullptr;
        TAILQ_FOREACH(e, &list->pfx_entry_head, pfx_entry)
        {
            char buf[64];
            out.push_back(std::string(ipprefix_print(&e->prefix, buf, sizeof(buf))) + " " +
                          pol_util_pfx_op_str(e->pfx_op) + " " + std::to_string(e->preflen_min) + "-" +
                          std::to_string(e->preflen_max));
        }
        return out;
    }

    int changes_ = 0;
    bool own_family_ = false;
};

using Texts = std::vector<std::string>;

TEST_F(PfxList, LivesWhileItHasEntriesOrUsers)
{
    const int64_t lists0 = live_count(POL_MEM_LIST_PREFIX);
    const t_pfx_list_key k = key("edge");
    const t_pfx_entry_param p = pfx("10.0.0.0/8");
    watch("P1");

    // A user naming an unknown list creates it empty; entries fill that record.
    t_pol_entry *seq = match_on("P1", 10, k);
    t_pfx_list *list = pol_pfx_list_find(ctx_, &k);
    ASSERT_EQ(list, seq->match_entry.match_pfx_list_p);
    EXPECT_FALSE(pol_pfx_list_is_empty(list));
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), list);
    EXPECT_EQ(changes_, 1);

    // Removing the configuration empties the record but keeps it, silently.
    EXPECT_EQ(pol_pfx_list_cfg_del(ctx_, &k), ERR_OK);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), list);
    EXPECT_TRUE(TAILQ_EMPTY(&list->pfx_entry_head));
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k, &p, nullptr), nullptr);
    EXPECT_EQ(changes_, 1);

    unmatch(seq);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), nullptr);
    EXPECT_EQ(live_count(POL_MEM_LIST_PREFIX), lists0);
    EXPECT_EQ(pol_pfx_list_user_remove(ctx_, nullptr, &seq->match_entry), ERR_NOT_FOUND);

    // Without users, cfg_del frees the list; unknown names are no error.
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    EXPECT_EQ(pol_pfx_list_cfg_del(ctx_, &k), ERR_OK);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), nullptr);
    EXPECT_EQ(pol_pfx_list_cfg_del(ctx_, &k), ERR_OK);
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &p), ERR_OK);
    EXPECT_EQ(live_count(POL_MEM_LIST_PREFIX), lists0);

    uint8_t created = 0;
    list = pol_pfx_list_find_or_create(ctx_, &k, &created);
    EXPECT_EQ(created, 1);
    EXPECT_EQ(pol_pfx_list_find_or_create(ctx_, &k, &created), list);
    EXPECT_EQ(created, 0);
    pol_pfx_list_del(ctx_, &list, 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), nullptr);
}

using PfxListDeathTest = PfxList;

TEST_F(PfxListDeathTest, DeletingAListInUseStops)
{
    const t_pfx_list_key k = key("busy");
    const t_pfx_entry_param p = pfx("10.0.0.0/8");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    t_pfx_list *list = pol_pfx_list_find(ctx_, &k);
    EXPECT_DEATH({ dup2(2, 1); pol_pfx_list_del(ctx_, &list, 1); }, "failed assertion");

    pol_pfx_list_cfg_del(ctx_, &k);
    t_pol_entry *seq = match_on("P1", 10, k);
    list = pol_pfx_list_find(ctx_, &k);
    EXPECT_DEATH({ dup2(2, 1); pol_pfx_list_del(ctx_, &list, 1); }, "failed assertion");
    unmatch(seq);
}

TEST_F(PfxList, KeyIsFamilyAndBoundedName)
{
    const t_pfx_list_key k4 = key("shared", POL_AF_IPV4);
    const t_pfx_list_key k6 = key("shared", POL_AF_IPV6);
    const t_pfx_entry_param p4 = pfx("10.0.0.0/8");
    const t_pfx_entry_param p6 = pfx("2001:db8::/32");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &p4), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &p6), ERR_OK);
    t_pfx_list *l4 = pol_pfx_list_find(ctx_, &k4);
    t_pfx_list *l6 = pol_pfx_list_find(ctx_, &k6);
    ASSERT_NE(l4, nullptr);
    ASSERT_NE(l6, nullptr);
    EXPECT_NE(l4, l6);
    EXPECT_EQ(l6->pfx_af, POL_AF_IPV6);
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k6, &p4, nullptr), nullptr);
    EXPECT_EQ(entries(l6), Texts{"2001:db8::/32 UNKNOWN 0-0"});

    // Family orders before name: every IPv4 list precedes every IPv6 list.
    const t_pfx_list_key late4 = key("zzz", POL_AF_IPV4);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &late4, &p4), ERR_OK);
    EXPECT_EQ(avl_walk(&ctx_->pfx_lists, pol_pfx_list_find(ctx_, &late4), AVL_AFTER), l6);

    pol_pfx_list_cfg_del(ctx_, &k4);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k4), nullptr);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k6), l6);

    // Names are kept to 63 characters.
    const std::string base(63, 'n');
    const std::string a = base + "a", b = base + "b";
    const t_pfx_list_key ka = key(a.c_str()), kb = key(b.c_str());
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &ka, &p4), ERR_OK);
    t_pfx_list *lb = nullptr;
    EXPECT_NE(pol_pfx_list_find_entry(ctx_, &kb, &p4, &lb), nullptr);
    EXPECT_EQ(lb, pol_pfx_list_find(ctx_, &ka));
    EXPECT_EQ(std::string(lb->pfx_list_name), base);
}

TEST_F(PfxList, PrefixAloneIdentifiesAnEntry)
{
    const t_pfx_list_key k = key("edge");
    watch("P1");
    t_pol_entry *seq = match_on("P1", 10, k);
    t_pfx_list *list = pol_pfx_list_find(ctx_, &k);

    const t_pfx_entry_param ge = pfx("10.0.0.0/8", PFX_OP_GE, 16, 0);
    const t_pfx_entry_param other = pfx("172.16.0.0/12");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &ge), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &other), ERR_OK);
    EXPECT_EQ(changes_, 2);
    const uint64_t generation = list->generation;

    // The operator and bounds are overwritten in place, unchecked.
    const t_pfx_entry_param le = pfx("10.0.0.0/8", PFX_OP_LE, 40, 24);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &le), ERR_OK);
    EXPECT_EQ(entries(list), (Texts{"10.0.0.0/8 LE 40-24", "172.16.0.0/12 UNKNOWN 0-0"}));
    EXPECT_EQ(changes_, 3);
    EXPECT_NE(list->generation, generation);

    // The length is part of the prefix.
    t_pfx_list stale{};
    t_pfx_list *found = &stale;
    const t_pfx_entry_param longer = pfx("10.0.0.0/16", PFX_OP_LE, 40, 24);
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k, &longer, &found), nullptr);
    EXPECT_EQ(found, list);
    const t_pfx_list_key unknown = key("none");
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &unknown, &ge, &found), nullptr);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &longer), ERR_OK);
    EXPECT_EQ(changes_, 3);

    const t_pfx_entry_param eq = pfx("10.0.0.0/8", PFX_OP_EQ, 1, 2);
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &eq), ERR_OK);
    EXPECT_EQ(entries(list), Texts{"172.16.0.0/12 UNKNOWN 0-0"});
    EXPECT_EQ(changes_, 4);
    pol_pfx_list_cfg_del(ctx_, &k);
    unmatch(seq);
}

TEST_F(PfxList, FailedAllocationLeavesNoList)
{
    const int64_t lists0 = live_count(POL_MEM_LIST_PREFIX);
    const t_pfx_list_key k = key("edge");
    const t_pfx_entry_param p = pfx("10.0.0.0/8");
    {
        poltest::AllocFailure fail(POL_MEM_ENTRY_PREFIX);
        EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_ALLOC);
    }
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), nullptr);
    EXPECT_EQ(live_count(POL_MEM_LIST_PREFIX), lists0);
    {
        poltest::AllocFailure fail(POL_MEM_LIST_PREFIX);
        EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_ALLOC);
    }
    {
        poltest::AllocFailure fail(POL_MEM_LIST_PREFIX);
        t_pol_match_entry match{};
        EXPECT_EQ(pol_pfx_list_user_add(ctx_, &k, &match), nullptr);
    }
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), nullptr);

    // An existing list survives a failed add with its entries.
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    const t_pfx_entry_param q = pfx("11.0.0.0/8");
    {
        poltest::AllocFailure fail(POL_MEM_ENTRY_PREFIX);
        EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &k, &q), ERR_ALLOC);
    }
    ASSERT_NE(pol_pfx_list_find(ctx_, &k), nullptr);
    EXPECT_EQ(entries(pol_pfx_list_find(ctx_, &k)), Texts{"10.0.0.0/8 UNKNOWN 0-0"});
}

TEST_F(PfxList, IndexAgreesWithQueue)
{
    std::vector<t_pfx_entry_param> pool;
    for (int i = 0; i < 12; i++) {
        const std::string net = "10." + std::to_string(i) + ".0.0/";
        pool.push_back(pfx((net + "16").c_str()));
        pool.push_back(pfx((net + "24").c_str()));
        pool.push_back(pfx(("2001:db8:" + std::to_string(i) + "::/48").c_str()));
    }
    const t_pfx_list_key k = key("churn");
    std::vector<std::pair<std::size_t, int>> model;  // pool index, operator
    std::mt19937 rng(20240611);
    for (int step = 0; step < 1500; step++) {
        const std::size_t i = rng() % pool.size();
        const int op = static_cast<int>(rng() % 9);
        t_pfx_entry_param p = pool[i];
        p.pfx_op = static_cast<e_pfx_op>(op);
        auto it = std::find_if(model.begin(), model.end(), [&](const auto &m) { return m.first == i; });
        if (rng() % 5 < 3) {
            ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
            if (it != model.end()) {
                it->second = op;
            } else {
                model.emplace_back(i, op);
            }
        } else {
            ASSERT_EQ(pol_pfx_list_del_entry(ctx_, &k, &p), ERR_OK);
            if (it != model.end()) {
                model.erase(it);
            }
        }

        const t_pfx_list *list = pol_pfx_list_find(ctx_, &k);
        ASSERT_NE(list, nullptr);
        std::vector<std::pair<std::size_t, int>> seen;
        const t_pfx_entry *e = nullptr;
        TAILQ_FOREACH(e, &list->pfx_entry_head, pfx_entry)
        {
            std::size_t at = 0;
            while (at < pool.size() && IPPREFIX_CMP(&pool[at].prefix, &e->prefix) != 0) {
                at++;
            }
            seen.emplace_back(at, e->pfx_op);
        }
        ASSERT_EQ(seen, model) << "step " << step;
        ASSERT_EQ(avl_numnodes(&list->entry_index), model.size()) << "step " << step;
        for (std::size_t j = 0; j < pool.size(); j++) {
            const bool held =
                std::any_of(model.begin(), model.end(), [&](const auto &m) { return m.first == j; });
            const t_pfx_entry *f = pol_pfx_list_find_entry(ctx_, &k, &pool[j], nullptr);
            ASSERT_EQ(f != nullptr, held) << "step " << step << " prefix " << j;
            if (f != nullptr) {
                ASSERT_EQ(IPPREFIX_CMP(&f->prefix, &pool[j].prefix), 0);
            }
        }
    }
}

TEST_F(PfxList, NotifiesPoliciesThatMatchOnIt)
{
    const t_pfx_list_key k = key("edge");
    const t_pfx_list_key k6 = key("edge", POL_AF_IPV6);
    int p2_calls = 0;
    watch("P1");
    watch("P2", &p2_calls);
    t_pol_entry *a = match_on("P1", 10, k);
    t_pol_entry *b = match_on("P1", 20, k);
    t_pol_entry *c = match_on("P2", 10, k6);
    p2_calls = 0;

    // Two sequences of one policy still give its user one call per change.
    const t_pfx_entry_param p = pfx("10.0.0.0/8");
    const t_pfx_entry_param q = pfx("11.0.0.0/8");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    EXPECT_EQ(changes_, 1);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &q), ERR_OK);
    EXPECT_EQ(changes_, 2);
    ASSERT_EQ(pol_pfx_list_del_entry(ctx_, &k, &p), ERR_OK);
    EXPECT_EQ(changes_, 3);
    const t_pfx_entry_param p6 = pfx("2001:db8::/32");
    EXPECT_EQ(p2_calls, 0);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &p6), ERR_OK);
    EXPECT_EQ(changes_, 3);
    EXPECT_EQ(p2_calls, 1);

    unmatch(a);
    unmatch(b);
    EXPECT_NE(pol_pfx_list_find(ctx_, &k), nullptr) << "its entry still holds it";
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &p), ERR_OK);
    pol_pfx_list_cfg_del(ctx_, &k6);
    EXPECT_EQ(changes_, 3);
    EXPECT_EQ(p2_calls, 1);
    unmatch(c);
}

TEST_F(PfxList, DumpsListsInKeyOrder)
{
    const t_pfx_list_key k4 = key("b4", POL_AF_IPV4);
    const t_pfx_list_key k6 = key("a6", POL_AF_IPV6);
    const t_pfx_entry_param ge = pfx("10.0.0.0/8", PFX_OP_GE, 16, 32);
    const t_pfx_entry_param none = pfx("192.168.1.0/24");
    const t_pfx_entry_param le = pfx("2001:db8::/32", PFX_OP_LE, 0, 64);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &ge), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &none), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &le), ERR_OK);
    t_pol_entry *seq = match_on("P1", 10, k4);

    poltest::CliCapture cli;
    pol_dump_pfx_list_all(cli.session());
    char p4[32], p6[32];
    std::snprintf(p4, sizeof(p4), "%p", static_cast<void *>(pol_pfx_list_find(ctx_, &k4)));
    std::snprintf(p6, sizeof(p6), "%p", static_cast<void *>(pol_pfx_list_find(ctx_, &k6)));
    EXPECT_EQ(cli.text(), std::string("\n================================\n  PREFIX LISTS         "
                                      "\n================================") +
                              "\nIPv4 prefix-list: b4 (" + p4 + ")" +
                              "\n  prefix 10.0.0.0/8 GE min 16 max 32"
                              "\n  prefix 192.168.1.0/24 UNKNOWN min 0 max 0"
                              "\nend \n"
                              "\n  User: P1"
                              "\nIPv6 prefix-list: a6 (" + p6 + ")" +
                              "\n  prefix 2001:db8::/32 LE min 0 max 64"
                              "\nend \n");
    unmatch(seq);
}

}  // namespace
