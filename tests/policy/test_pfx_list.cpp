// Prefix lists: the (family, name) key, entries identified by prefix alone,
// the life cycle of a list, its identity index, notification of the
// policies that match on it, and the dumps.
#include <arpa/inet.h>

#include <zen/zen_util.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;
using PfxList = PolContextTest;

t_pfx_entry_param pfx(const char *text, e_pfx_op op = PFX_OP_NONE, uint8_t min = 0, uint8_t max = 0)
{
    t_pfx_entry_param p{op, {}, min, max};
    const std::string s(text), addr = s.substr(0, s.find('/'));
    const bool v6 = addr.find(':') != std::string::npos;
    p.prefix.addr.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), p.prefix.addr.u.addr6_b), 1) << text;
    p.prefix.prefixlen = static_cast<uint8_t>(std::stoi(s.substr(s.find('/') + 1)));
    return p;
}

t_pfx_list_key key(const char *name, e_pol_af af = POL_AF_IPV4)
{
    return t_pfx_list_key{af, name};
}

// A new sequence of the policy, matching on the keyed list.
t_pol_match_entry *match_on(const char *policy, uint32_t seq, const t_pfx_list_key &k)
{
    t_pol_match_entry *m = &sequence(policy, seq, POL_TYPE_ROUTE, false)->match_entry;
    m->match_pfx_list_p = pol_pfx_list_user_add(g_pol_ctx_p, &k, m);
    EXPECT_NE(m->match_pfx_list_p, nullptr);
    pol_user_chg_list_notify_all(g_pol_ctx_p);
    return m;
}

void unmatch(t_pol_match_entry *m)
{
    EXPECT_EQ(pol_pfx_list_user_remove(g_pol_ctx_p, m->match_pfx_list_p, m), ERR_OK);
    m->match_pfx_list_p = nullptr;
}

Texts entries(const t_pfx_list *list)
{
    Texts out;
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

TEST_F(PfxList, SharedLifeCycle)
{
    const t_pfx_list_key k = key("edge");
    const t_pfx_entry_param p[] = {pfx("10.0.0.0/8"), pfx("11.0.0.0/8")};
    check_list_life_cycle<t_pfx_list>(
        ctx_, {.list_row = POL_MEM_LIST_PREFIX, .entry_row = POL_MEM_ENTRY_PREFIX,
               .find = [&] { return pol_pfx_list_find(ctx_, &k); },
               .find_or_create = [&](uint8_t *c) { return pol_pfx_list_find_or_create(ctx_, &k, c); },
               .add = [&](int i) { return pol_pfx_list_entry_add(ctx_, &k, &p[i]); },
               .has = [&](int i) { return pol_pfx_list_find_entry(ctx_, &k, &p[i], nullptr) != nullptr; },
               .cfg_del = [&] { return pol_pfx_list_cfg_del(ctx_, &k); },
               .user_add = [&](t_pol_match_entry *m) { return pol_pfx_list_user_add(ctx_, &k, m); },
               .user_remove = pol_pfx_list_user_remove,
               .del = pol_pfx_list_del, .is_empty = pol_pfx_list_is_empty});
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &p[0]), ERR_OK);  // unknown list: no error
}

TEST_F(PfxList, KeyIsFamilyAndBoundedName)
{
    const t_pfx_list_key k4 = key("shared"), k6 = key("shared", POL_AF_IPV6), late4 = key("zzz");
    const t_pfx_entry_param p4 = pfx("10.0.0.0/8"), p6 = pfx("2001:db8::/32");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &p4), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &p6), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &late4, &p4), ERR_OK);
    t_pfx_list *l6 = pol_pfx_list_find(ctx_, &k6);
    ASSERT_NE(l6, nullptr);
    EXPECT_NE(pol_pfx_list_find(ctx_, &k4), l6);
    EXPECT_EQ(l6->pfx_af, POL_AF_IPV6);
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k6, &p4, nullptr), nullptr);
    EXPECT_EQ(entries(l6), Texts{"2001:db8::/32 UNKNOWN 0-0"});
    // Family orders before name: every IPv4 list precedes every IPv6 list.
    EXPECT_EQ(avl_walk(&ctx_->pfx_lists, pol_pfx_list_find(ctx_, &late4), AVL_AFTER), l6);
    pol_pfx_list_cfg_del(ctx_, &k4);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k4), nullptr);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k6), l6);

    // Names are kept to 63 characters.
    const std::string base(63, 'n'), a = base + "a", b = base + "b";
    const t_pfx_list_key ka = key(a.c_str()), kb = key(b.c_str());
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &ka, &p4), ERR_OK);
    t_pfx_list *lb = nullptr;
    EXPECT_NE(pol_pfx_list_find_entry(ctx_, &kb, &p4, &lb), nullptr);
    EXPECT_EQ(lb, pol_pfx_list_find(ctx_, &ka));
    EXPECT_EQ(std::string(lb->pfx_list_name), base);
}

// An entry is its prefix alone; every change reaches each policy matching
// on the list once, however many of its sequences do.
TEST_F(PfxList, PrefixAloneIdentifiesAnEntryAndChangesNotifyItsPolicies)
{
    const t_pfx_list_key k = key("edge"), k6 = key("edge", POL_AF_IPV6);
    int p1_calls = 0, p2_calls = 0;
    register_user("P1", "P1", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &p1_calls);
    register_user("P2", "P2", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &p2_calls);
    t_pol_match_entry *a = match_on("P1", 10, k), *b = match_on("P1", 20, k), *c = match_on("P2", 10, k6);
    t_pfx_list *list = pol_pfx_list_find(ctx_, &k);
    p1_calls = p2_calls = 0;
    const t_pfx_entry_param ge = pfx("10.0.0.0/8", PFX_OP_GE, 16, 32), other = pfx("172.16.0.0/12");
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &ge), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &other), ERR_OK);
    const uint64_t generation = list->generation;

    // The operator and bounds are overwritten in place.
    const t_pfx_entry_param le = pfx("10.0.0.0/8", PFX_OP_LE, 0, 24);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &le), ERR_OK);
    EXPECT_EQ(entries(list), (Texts{"10.0.0.0/8 LE 0-24", "172.16.0.0/12 UNKNOWN 0-0"}));
    EXPECT_TRUE(p1_calls == 3 && p2_calls == 0 && list->generation != generation);

    // The length is part of the prefix; the list found is reported either way.
    t_pfx_list stale{};
    t_pfx_list *found = &stale;
    const t_pfx_entry_param longer = pfx("10.0.0.0/16", PFX_OP_LE, 40, 24);
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k, &longer, &found), nullptr);
    EXPECT_EQ(found, list);
    const t_pfx_list_key unknown = key("none");
    EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &unknown, &ge, &found), nullptr);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &longer), ERR_OK);
    EXPECT_EQ(p1_calls, 3);
    const t_pfx_entry_param eq = pfx("10.0.0.0/8", PFX_OP_EQ, 1, 2), p6 = pfx("2001:db8::/32");
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &k, &eq), ERR_OK);
    EXPECT_EQ(entries(list), Texts{"172.16.0.0/12 UNKNOWN 0-0"});
    EXPECT_EQ(p1_calls, 4);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &p6), ERR_OK);
    EXPECT_TRUE(p1_calls == 4 && p2_calls == 1);

    unmatch(a);
    unmatch(b);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &k), list) << "its entry still holds it";
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &ge), ERR_OK);
    pol_pfx_list_cfg_del(ctx_, &k6);
    EXPECT_TRUE(p1_calls == 4 && p2_calls == 1);
    unmatch(c);
}

// The routes an entry sees run from its own length to its family's width:
// a bound beyond the width, a lower bound above the upper or a bound the
// operator reads below the prefix's length is refused, and changes nothing.
TEST_F(PfxList, ConditionsThatDoNotFitThePrefixAreRefused)
{
    struct {
        const char *prefix;
        e_pfx_op op;
        uint8_t min, max;
        bool fits;
    } const cases[] = {
        {"10.0.0.0/16", PFX_OP_RANGE, 16, 16, true},   {"10.0.0.0/16", PFX_OP_RANGE, 24, 20, false},
        {"10.0.0.0/16", PFX_OP_RANGE, 8, 24, false},   {"10.0.0.0/16", PFX_OP_RANGE, 24, 33, false},
        {"10.0.0.0/16", PFX_OP_XRANGE, 15, 17, true},  {"10.0.0.0/16", PFX_OP_XRANGE, 20, 20, false},
        {"10.0.0.0/16", PFX_OP_LE, 0, 16, true},       {"10.0.0.0/16", PFX_OP_LE, 0, 8, false},
        {"10.0.0.0/16", PFX_OP_LE, 40, 24, false},     {"10.0.0.0/16", PFX_OP_LT, 17, 0, true},
        {"10.0.0.0/16", PFX_OP_LT, 16, 0, false},      {"10.0.0.0/16", PFX_OP_GE, 16, 0, true},
        {"10.0.0.0/16", PFX_OP_GE, 8, 0, false},       {"10.0.0.0/16", PFX_OP_GE, 33, 0, false},
        {"10.0.0.0/16", PFX_OP_GT, 31, 0, true},       {"10.0.0.0/16", PFX_OP_GT, 32, 0, false},
        {"10.0.0.0/16", PFX_OP_EQ, 0, 0, true},        {"10.0.0.0/33", PFX_OP_NONE, 0, 0, false},
        {"0.0.0.0/0", PFX_OP_RANGE, 8, 24, true},      {"2001:db8::/32", PFX_OP_LE, 0, 128, true},
        {"2001:db8::/32", PFX_OP_LE, 0, 129, false},   {"2001:db8::/32", PFX_OP_GE, 31, 0, false},
    };
    const t_pfx_list_key k = key("bounds");
    int calls = 0;
    register_user("P1", "P1", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &calls);
    t_pol_match_entry *seq = match_on("P1", 10, k);
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.prefix) + " " + pol_util_pfx_op_str(c.op) + " " + std::to_string(c.min) +
                     "-" + std::to_string(c.max));
        const t_pfx_entry_param plain = pfx(c.prefix), cond = pfx(c.prefix, c.op, c.min, c.max);
        pol_pfx_list_del_entry(ctx_, &k, &plain);
        EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &k, &cond), c.fits ? ERR_OK : ERR_BAD_PARAM);
        EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k, &cond, nullptr) != nullptr, c.fits);
        if (c.fits || c.op == PFX_OP_NONE) {
            continue;
        }
        // A refused rewrite keeps the stored condition and notifies nobody.
        ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, &plain), ERR_OK);
        calls = 0;
        EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &k, &cond), ERR_BAD_PARAM);
        EXPECT_EQ(pol_pfx_list_find_entry(ctx_, &k, &cond, nullptr)->pfx_op, PFX_OP_NONE);
        EXPECT_EQ(calls, 0);
    }
    // A refused entry of a list nobody names creates no list.
    const t_pfx_list_key fresh = key("fresh");
    const t_pfx_entry_param wide = pfx("10.0.0.0/8", PFX_OP_GE, 40);
    EXPECT_EQ(pol_pfx_list_entry_add(ctx_, &fresh, &wide), ERR_BAD_PARAM);
    EXPECT_EQ(pol_pfx_list_find(ctx_, &fresh), nullptr);
    pol_pfx_list_cfg_del(ctx_, &k);
    unmatch(seq);
}

TEST_F(PfxList, IndexAgreesWithQueue)
{
    std::vector<t_pfx_entry_param> pool;
    for (int i = 0; i < 12; i++) {
        const std::string n = std::to_string(i);
        for (const std::string &text : {"10." + n + ".0.0/16", "10." + n + ".0.0/24", "2001:db8:" + n + "::/48"}) {
            pool.push_back(pfx(text.c_str()));
        }
    }
    const t_pfx_list_key k = key("churn");
    t_pfx_entry_param p;
    auto with_op = [&](std::size_t i, uint32_t op) {  // bounds that fit every operator
        p = pool[i];
        p.pfx_op = static_cast<e_pfx_op>(op);
        p.preflen_min = static_cast<uint8_t>(p.prefix.prefixlen + 1);
        p.preflen_max = IPPREFIX_IS_V4(&p.prefix) ? 32 : 128;
        return &p;
    };
    check_index_against_queue(
        20240611, 1500, pool.size(), 9,
        [&](std::size_t i, std::size_t j) { return IPPREFIX_CMP(&pool[i].prefix, &pool[j].prefix) < 0; },
        [&](std::size_t i, uint32_t op) { ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k, with_op(i, op)), ERR_OK); },
        [&](std::size_t i, uint32_t op) { ASSERT_EQ(pol_pfx_list_del_entry(ctx_, &k, with_op(i, op)), ERR_OK); },
        [&] {
            ListModel queued;
            const t_pfx_list *list = pol_pfx_list_find(ctx_, &k);
            for (const t_pfx_entry *e = list ? TAILQ_FIRST(&list->pfx_entry_head) : nullptr; e;
                 e = TAILQ_NEXT(e, pfx_entry)) {
                auto at = std::find_if(pool.begin(), pool.end(), [&](const t_pfx_entry_param &p) {
                    return IPPREFIX_CMP(&p.prefix, &e->prefix) == 0;
                });
                queued.emplace_back(at - pool.begin(), e->pfx_op);
            }
            return queued;
        },
        [&](std::size_t i) -> std::optional<uint32_t> {
            const t_pfx_entry *f = pol_pfx_list_find_entry(ctx_, &k, &pool[i], nullptr);
            if (f == nullptr) {
                return std::nullopt;
            }
            return IPPREFIX_CMP(&f->prefix, &pool[i].prefix) == 0 ? static_cast<uint32_t>(f->pfx_op) : UINT32_MAX;
        });
}

TEST_F(PfxList, DumpsListsInKeyOrder)
{
    const t_pfx_list_key k4 = key("b4"), k6 = key("a6", POL_AF_IPV6);
    const t_pfx_entry_param ge = pfx("10.0.0.0/8", PFX_OP_GE, 16, 32), none = pfx("192.168.1.0/24"),
                            le = pfx("2001:db8::/32", PFX_OP_LE, 0, 64);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &ge), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k4, &none), ERR_OK);
    ASSERT_EQ(pol_pfx_list_entry_add(ctx_, &k6, &le), ERR_OK);
    t_pol_match_entry *seq = match_on("P1", 10, k4);
    EXPECT_EQ(dump(pol_dump_pfx_list_all),
              heading("PREFIX LISTS         ") + "\nIPv4 prefix-list: b4 (" + ptr(pol_pfx_list_find(ctx_, &k4)) +
                  ")\n  prefix 10.0.0.0/8 GE min 16 max 32\n  prefix 192.168.1.0/24 UNKNOWN min 0 max 0"
                  "\nend \n\n  User: P1\nIPv6 prefix-list: a6 (" + ptr(pol_pfx_list_find(ctx_, &k6)) +
                  ")\n  prefix 2001:db8::/32 LE min 0 max 64\nend \n");
    unmatch(seq);
}

}  // namespace
