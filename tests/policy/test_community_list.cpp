// Community lists: the community text grammar, the two kinds of list,
// entry identity (values, pattern texts, truncated patterns), the life
// cycle of a list, notification of the policies that match on it, dumps.
#include <cstring>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;
using CommunityList = PolContextTest;

constexpr community_list_type kStd = COMM_LIST_TYPE_STANDARD;
constexpr community_list_type kExp = COMM_LIST_TYPE_EXPANDED;

std::string render(uint32_t value)
{
    char buf[64];
    return community_getstr(value, buf, sizeof(buf));
}

TEST(CommunityText, ReadsRendersAndCompares)
{
    const community_token none = community_token_unknown;
    struct { const char *text; community_token kind; uint32_t value; const char *rest; } const cases[] = {
        {"  65000:100 x", community_token_val, (65000u << 16) | 100, " x"},
        {"no-exportX", community_token_no_export, 0xFFFFFF01, "X"},
        {"internet", community_token_no_export, 0, ""},
        {"no-advertise", community_token_no_advertise, 0xFFFFFF02, ""},
        {"local-AS,", community_token_local_as, 0xFFFFFF03, ","},
        {"4294967295", community_token_val, 0xFFFFFFFFu, ""},
        {"65535:65535,", community_token_val, 0xFFFFFFFFu, ","},
        // Out of range is refused, not wrapped into another value.
        {"4294967296", none, 0, nullptr}, {"65536:1", none, 0, nullptr},
        {"1:65536", none, 0, nullptr}, {"99999999999:1", none, 0, nullptr},
        {"1:99999999999999999999999", none, 0, nullptr},
        {"1:2:3", none, 0, nullptr}, {":5", none, 0, nullptr}, {"5:", none, 0, nullptr},
        {"abc", none, 0, nullptr}, {"local-as", none, 0, nullptr},
    };
    for (const auto &c : cases) {
        community_token kind = c.rest ? none : community_token_val;
        uint32_t value = 9;
        const char *rest = community_gettoken(c.text, &kind, &value);
        EXPECT_EQ(std::string(rest ? rest : "(none)"), c.rest ? c.rest : "(none)") << c.text;
        EXPECT_EQ(kind, c.kind) << c.text;
        EXPECT_TRUE(c.rest == nullptr || value == c.value) << c.text;
    }

    EXPECT_EQ(render(0xFFFFFF04), "65535:65284");
    EXPECT_EQ(render(0) + render(0xFFFFFF02) + render(0xFFFFFF03), "internetno-advertiselocal-AS");
    char buf[600];
    const uint32_t few[] = {(65000u << 16) | 1, 0xFFFFFF01};
    t_pol_set_community set{const_cast<uint32_t *>(few), 2};
    EXPECT_STREQ(pol_dump_set_community(buf, &set), "65000:1 no-export");

    // Too many to fit: whole texts only, within the 512-byte buffer.
    const std::vector<uint32_t> many(100, 0xFFFFFFFE);
    std::memset(buf, 'Z', sizeof(buf));
    const std::string got = community_list_getstr(buf, many.data(), 100);
    EXPECT_EQ(got.size(), std::size_t{42 * 12 - 1});
    EXPECT_EQ(got.substr(got.size() - 12), " 65535:65534");
    EXPECT_EQ(buf[POL_COMMUNITY_LIST_STR_SIZE], 'Z');

    const uint32_t a = (100u << 16) | 20, b = (100u << 16) | 3;
    EXPECT_EQ(pol_community_cmp(&a, &b), -1);
    EXPECT_EQ(pol_community_cmp(&few[1], &few[0]), 1);
    EXPECT_EQ(pol_community_cmp(&a, &a), 0);
    EXPECT_EQ(pol_community_cmp(nullptr, &a), -1);
}

// A sequence of a watched route policy that matches on the list; its user's
// calls count into *calls from here on.
t_pol_entry *match_on(const char *policy, const char *name, community_list_type type, int *calls)
{
    register_user(policy, policy, POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, calls);
    t_pol_entry *entry = sequence(policy, 10, POL_TYPE_ROUTE, false);
    uint8_t changed = 0;
    pol_entry_match_add(g_pol_ctx_p, entry->pol_block_p, entry, POL_MATCH_VROUTE, &changed);
    EXPECT_NE(pol_entry_match_community_list_add(g_pol_ctx_p, entry, name, type, &changed), nullptr);
    pol_user_chg_list_notify_all(g_pol_ctx_p);
    *calls = 0;
    return entry;
}

void unmatch(t_pol_entry *entry, community_list_type type)
{
    uint8_t changed = 0;
    pol_entry_match_community_list_delete(g_pol_ctx_p, entry, type, &changed);
}

// The entries in queue order; with first, the first whose text is first_of.
Texts entries(const char *name, community_list_type type, const std::string &first_of = "",
              const t_community_entry **first = nullptr)
{
    Texts out;
    const t_community_list *list = pol_community_list_find(g_pol_ctx_p, name, type);
    for (const t_community_entry *e = list ? TAILQ_FIRST(&list->community_entry_head) : nullptr; e;
         e = TAILQ_NEXT(e, community_entry)) {
        out.push_back(type == kStd ? render(e->community) : e->pattern);
        if (first != nullptr && *first == nullptr && out.back() == first_of) {
            *first = e;
        }
    }
    return out;
}

TEST_F(CommunityList, BadTextsPatternsAndKinds)
{
    for (const char *bad : {"1:2:3", ":5", "5:", "abc", " "}) {
        const std::string name = std::string("L") + bad;
        EXPECT_EQ(pol_community_list_add_entry(ctx_, name.c_str(), bad, kStd), ERR_BAD_PARAM);
        const t_community_list *list = pol_community_list_find(ctx_, name.c_str(), kStd);
        EXPECT_TRUE(list != nullptr && pol_community_list_is_empty(list)) << bad;  // made, left empty
    }
    EXPECT_EQ(live_count(POL_MEM_ENTRY_COMMUNITY), 0);
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "L", "no-exportX", kStd), ERR_OK);
    EXPECT_NE(pol_community_list_find_entry(ctx_, "L", "no-export", kStd), nullptr);

    LogCapture log;
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "E", "(", kExp), ERR_FAIL);
    regex_t re;
    char error[100];
    regerror(regcomp(&re, "(", REG_EXTENDED | REG_NOSUB), &re, error, sizeof(error));
    ASSERT_EQ(log.lines.size(), 1u);
    const std::string &line = log.lines[0];
    EXPECT_TRUE(line.starts_with("191 pol_community_list_add_entry[") &&
                line.ends_with("]: [POL] expanded-community-list pattern:( regex-error " + std::string(error) + "\n"))
        << line;
    EXPECT_TRUE(pol_community_list_is_empty(pol_community_list_find(ctx_, "E", kExp)));

    // The two kinds are separate lists.
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "K", "65000:1", kStd), ERR_OK);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "K", "^65000:", kExp), ERR_OK);
    EXPECT_NE(pol_community_list_find(ctx_, "K", kStd), pol_community_list_find(ctx_, "K", kExp));
    EXPECT_EQ(entries("K", kStd), Texts{"65000:1"});
    EXPECT_EQ(entries("K", kExp), Texts{"^65000:"});
    EXPECT_EQ(pol_community_list_find_entry(ctx_, "K", "65000:1", kExp), nullptr);
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "K", "1:1", COMM_LIST_TYPE_INVALID), ERR_ALLOC);
}

TEST_F(CommunityList, SharedLifeCycle)
{
    const char *text[] = {"1:1", "1:2"};
    check_list_life_cycle<t_community_list>(
        ctx_, {.list_row = POL_MEM_LIST_COMMUNITY, .entry_row = POL_MEM_ENTRY_COMMUNITY,
               .find = [&] { return pol_community_list_find(ctx_, "L", kStd); },
               .find_or_create = [&](uint8_t *c) { return pol_community_list_find_or_create(ctx_, "L", kStd, c); },
               .add = [&](int i) { return pol_community_list_add_entry(ctx_, "L", text[i], kStd); },
               .has = [&](int i) { return pol_community_list_find_entry(ctx_, "L", text[i], kStd) != nullptr; },
               .cfg_del = [&] { return pol_community_list_cfg_del(ctx_, "L", kStd); },
               .user_add = [&](t_pol_match_entry *m) { return pol_community_list_user_add(ctx_, "L", kStd, m); },
               .user_remove = pol_community_list_user_remove,
               .del = pol_community_list_del, .is_empty = pol_community_list_is_empty});
}

// Patterns of 128 characters or more are stored truncated and then never
// equal their text, so they are stored again; lookups by the truncated
// text must find the first of them in queue order.
TEST_F(CommunityList, IndexAgreesWithQueue)
{
    std::mt19937 rng(7);
    const Texts patterns = {"a", "^1:", "c|d", std::string(130, 'x'), std::string(127, 'x')};
    Texts model[2];
    for (int step = 0; step < 2000; step++) {
        const bool add = rng() % 3 != 0;
        const community_list_type type = rng() % 2 != 0 ? kStd : kExp;
        const uint32_t v = rng() % 12;
        const std::string text =
            type == kExp ? patterns[rng() % patterns.size()] : (rng() % 2 ? "" : "0:") + std::to_string(v);
        const std::string stored = type == kExp ? text.substr(0, 127) : render(v);
        Texts &m = model[type - 1];
        auto at = text.size() < 128 ? std::find(m.begin(), m.end(), stored) : m.end();
        if (add && at == m.end()) {
            m.push_back(stored);
        } else if (!add && at != m.end()) {
            m.erase(at);
        }
        auto op = add ? pol_community_list_add_entry : pol_community_list_del_entry;
        ASSERT_EQ(op(ctx_, "L", text.c_str(), type), ERR_OK);
        const t_community_entry *first = nullptr;
        ASSERT_EQ(entries("L", type, stored, &first), m) << step;
        ASSERT_EQ(pol_community_list_find_entry(ctx_, "L", text.c_str(), type), text.size() < 128 ? first : nullptr)
            << step;
    }
}

TEST_F(CommunityList, NotifiesMatchingPoliciesAndDumps)
{
    int calls = 0;
    t_pol_entry *seq = match_on("P", "S1", kStd, &calls);
    // The second text repeats the first value: no entry, but a call all the same.
    for (const char *text : {"65000:1", "4259840001 x", "1:1", "no-export"}) {
        ASSERT_EQ(pol_community_list_add_entry(ctx_, "S1", text, kStd), ERR_OK);
    }
    EXPECT_EQ(pol_community_list_del_entry(ctx_, "S1", "1:2", kStd), ERR_OK);  // absent: no call
    EXPECT_EQ(pol_community_list_del_entry(ctx_, "S1", "1:1", kStd), ERR_OK);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "E1", "^65000:", kExp), ERR_OK);
    EXPECT_EQ(calls, 5);
    EXPECT_EQ(dump(pol_dump_community_list_all),
              heading("COMMUNITY LISTS") + "\ncommunity-list: S1 (" + ptr(pol_community_list_find(ctx_, "S1", kStd)) +
                  ")\n  community: 65000:1\n  community: no-export\nend \n\n  User: P");
    EXPECT_EQ(dump(pol_dump_expanded_community_list_all),
              heading("EXPANDED COMMUNITY LISTS") + "\nexpanded-community-list: E1 (" +
                  ptr(pol_community_list_find(ctx_, "E1", kExp)) + ")\n  community pattern: ^65000:\nend \n");
    unmatch(seq, kStd);
}

}  // namespace
