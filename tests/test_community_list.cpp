// Community lists: the community text grammar, the two kinds of list,
// entry identity (values, pattern texts, truncated patterns), the life
// cycle of a list, notification of the policies that match on it, dumps.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pol_test_support.hpp"

namespace {

using poltest::live_count;
using Texts = std::vector<std::string>;

constexpr community_list_type kStd = COMM_LIST_TYPE_STANDARD;
constexpr community_list_type kExp = COMM_LIST_TYPE_EXPANDED;

std::string render(uint32_t value)
{
    char buf[64];
    return community_getstr(value, buf, sizeof(buf));
}

void count_change(t_pol_user *, void *user_ctx)
{
    ++*static_cast<int *>(user_ctx);
}

TEST(CommunityText, TokenizerReadsFirstToken)
{
    struct {
        const char *text;
        community_token kind;
        uint32_t value;
        const char *rest;
    } const ok[] = {
        {"  65000:100 x", community_token_val, (65000u << 16) | 100, " x"},
        {"no-exportX", community_token_no_export, 0xFFFFFF01, "X"},
        {"internet", community_token_no_export, 0, ""},
        {"no-advertise", community_token_no_advertise, 0xFFFFFF02, ""},
        {"local-AS,", community_token_local_as, 0xFFFFFF03, ","},
        {"4294967296", community_token_val, 0, ""},
        {"70000:70000", community_token_val, 292552704u + 70000u, ""},
    };
    for (const auto &a : ok) {
        community_token kind = community_token_unknown;
        uint32_t value = 9;
        const char *rest = community_gettoken(a.text, &kind, &value);
        ASSERT_NE(rest, nullptr) << a.text;
        EXPECT_STREQ(rest, a.rest) << a.text;
        EXPECT_EQ(kind, a.kind) << a.text;
        EXPECT_EQ(value, a.value) << a.text;
    }
    for (const char *bad : {"1:2:3", ":5", "5:", "abc", "local-as"}) {
        community_token kind = community_token_val;
        uint32_t value = 9;
        EXPECT_EQ(community_gettoken(bad, &kind, &value), nullptr) << bad;
        EXPECT_EQ(kind, community_token_unknown) << bad;
    }
}

TEST(CommunityText, RendersAndComparesAsText)
{
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

class CommunityList : public poltest::PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        pol_debug_set(0);
        // pol_init may not start this family yet; start it here if not.
        if (ctx_ != nullptr && ctx_->community_lists.avl_compar == nullptr) {
            ASSERT_EQ(pol_community_list_main_init(ctx_), ERR_OK);
            own_family_ = true;
        }
    }

    void TearDown() override
    {
        pol_debug_set(0);
        if (own_family_ && ctx_ != nullptr) {
            pol_community_list_main_deinit(ctx_);
        }
        PolContextTest::TearDown();
    }

    // A sequence of a watched route policy that matches on the list.
    t_pol_entry *match_on(const char *policy, const char *name, community_list_type type)
    {
        poltest::register_user(policy, policy, POL_TYPE_ROUTE, POL_DIR_OUT, count_change,
                               &changes_);
        uint8_t changed = 0;
        t_pol_block *block = pol_block_find_or_create(ctx_, policy, POL_TYPE_ROUTE, &changed);
        t_pol_entry *entry = pol_entry_find_or_create(ctx_, block, 10, &changed);
        pol_entry_match_add(ctx_, block, entry, POL_MATCH_VROUTE, &changed);
        EXPECT_NE(pol_entry_match_community_list_add(ctx_, entry, name, type, &changed), nullptr);
        pol_user_chg_list_notify_all(ctx_);
        changes_ = 0;
        return entry;
    }

    void unmatch(t_pol_entry *entry, community_list_type type)
    {
        uint8_t changed = 0;
        pol_entry_match_community_list_delete(ctx_, entry, type, &changed);
    }

    // The entries in queue order; with first, the first entry whose text
    // is first_of.
    Texts entries(const char *name, community_list_type type, const std::string &first_of = "",
                  const t_community_entry **first = nullptr)
    {
        Texts out;
        const t_community_list *list = pol_community_list_find(ctx_, name, type);
        const t_community_entry *e = nullptr;
        for (e = list != nullptr ? TAILQ_FIRST(&list->community_entry_head) : nullptr; e != nullptr;
             e = TAILQ_NEXT(e, community_entry)) {
            out.push_back(type == kStd ? render(e->community) : e->pattern);
            if (first != nullptr && *first == nullptr && out.back() == first_of) {
                *first = e;
            }
        }
        return out;
    }

    int changes_ = 0;
    bool own_family_ = false;
};

TEST_F(CommunityList, BadTextsAndPatterns)
{
    for (const char *bad : {"1:2:3", ":5", "5:", "abc", " "}) {
        const std::string name = std::string("L") + bad;
        EXPECT_EQ(pol_community_list_add_entry(ctx_, name.c_str(), bad, kStd), ERR_BAD_PARAM);
        const t_community_list *list = pol_community_list_find(ctx_, name.c_str(), kStd);
        ASSERT_NE(list, nullptr) << bad;
        EXPECT_TRUE(pol_community_list_is_empty(list)) << bad;
    }
    EXPECT_EQ(live_count(POL_MEM_ENTRY_COMMUNITY), 0);
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "L", "no-exportX", kStd), ERR_OK);
    EXPECT_NE(pol_community_list_find_entry(ctx_, "L", "no-export", kStd), nullptr);

    poltest::LogCapture log;
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "E", "(", kExp), ERR_FAIL);
    regex_t re;
    char error[100];
    regerror(regcomp(&re, "(", REG_EXTENDED | REG_NOSUB), &re, error, sizeof(error));
    ASSERT_EQ(log.lines.size(), 1u);
    const std::string &line = log.lines[0];
    const std::string tail =
        "]: [POL] expanded-community-list pattern:( regex-error " + std::string(error) + "\n";
    EXPECT_EQ(line.rfind("191 pol_community_list_add_entry[", 0), 0u) << line;
    EXPECT_EQ(line.substr(line.size() - std::min(line.size(), tail.size())), tail);
    EXPECT_TRUE(pol_community_list_is_empty(pol_community_list_find(ctx_, "E", kExp)));
}

TEST_F(CommunityList, KindsAreSeparateLists)
{
    poltest::LogCapture log;
    pol_debug_set(1);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "L", "65000:1", kStd), ERR_OK);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "L", "^65000:", kExp), ERR_OK);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_NE(log.lines[0].find("[POL] Created new list of type 1, name L"), std::string::npos);
    EXPECT_NE(log.lines[1].find("[POL] Created new list of type 2, name L"), std::string::npos);
    EXPECT_NE(pol_community_list_find(ctx_, "L", kStd), pol_community_list_find(ctx_, "L", kExp));
    EXPECT_EQ(entries("L", kStd), Texts{"65000:1"});
    EXPECT_EQ(entries("L", kExp), Texts{"^65000:"});
    EXPECT_EQ(pol_community_list_find_entry(ctx_, "L", "65000:1", kExp), nullptr);
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "L", "1:1", COMM_LIST_TYPE_INVALID), ERR_ALLOC);
}

TEST_F(CommunityList, ChangesNotifyMatchingPolicies)
{
    t_pol_entry *seq = match_on("P", "S", kStd);
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "S", "65000:1", kStd), ERR_OK);
    // The same value again, however written: no entry, one more call.
    EXPECT_EQ(pol_community_list_add_entry(ctx_, "S", "4259840001 x", kStd), ERR_OK);
    EXPECT_EQ(changes_, 2);
    EXPECT_EQ(entries("S", kStd), Texts{"65000:1"});
    EXPECT_EQ(pol_community_list_del_entry(ctx_, "S", "1:1", kStd), ERR_OK);
    EXPECT_EQ(changes_, 2);
    EXPECT_EQ(pol_community_list_del_entry(ctx_, "S", "65000:1", kStd), ERR_OK);
    EXPECT_EQ(changes_, 3);
    unmatch(seq, kStd);
}

TEST_F(CommunityList, LifecycleFollowsEntriesAndUsers)
{
    t_pol_entry *seq = match_on("P", "L", kStd);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "L", "1:1", kStd), ERR_OK);
    changes_ = 0;
    t_community_list *list = pol_community_list_find(ctx_, "L", kStd);
    EXPECT_DEATH({ dup2(2, 1); pol_community_list_del(ctx_, &list, 1); }, "failed assertion");
    EXPECT_EQ(pol_community_list_cfg_del(ctx_, "L", kStd), ERR_OK);
    EXPECT_EQ(changes_, 0);
    EXPECT_EQ(pol_community_list_find(ctx_, "L", kStd), list);
    EXPECT_EQ(live_count(POL_MEM_ENTRY_COMMUNITY), 0);
    EXPECT_DEATH({ dup2(2, 1); pol_community_list_del(ctx_, &list, 1); }, "failed assertion");
    unmatch(seq, kStd);
    EXPECT_EQ(live_count(POL_MEM_LIST_COMMUNITY), 0);

    // A failed entry allocation takes back only a list it created.
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "N", "1:1", kStd), ERR_OK);
    for (const char *name : {"M", "N"}) {
        poltest::AllocFailure fail(POL_MEM_ENTRY_COMMUNITY);
        EXPECT_EQ(pol_community_list_add_entry(ctx_, name, "1:2", kStd), ERR_ALLOC);
    }
    EXPECT_EQ(pol_community_list_find(ctx_, "M", kStd), nullptr);
    EXPECT_EQ(entries("N", kStd), Texts{"1:1"});
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
        const std::string text = type == kExp    ? patterns[rng() % patterns.size()]
                                 : rng() % 2 != 0 ? std::to_string(v)
                                                  : "0:" + std::to_string(v);
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
        ASSERT_EQ(pol_community_list_find_entry(ctx_, "L", text.c_str(), type),
                  text.size() < 128 ? first : nullptr)
            << step;
    }
}

TEST_F(CommunityList, DumpsListsWithEntriesAndUsers)
{
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "S1", "65000:1", kStd), ERR_OK);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "S1", "no-export", kStd), ERR_OK);
    ASSERT_EQ(pol_community_list_add_entry(ctx_, "E1", "^65000:", kExp), ERR_OK);
    t_pol_entry *seq = match_on("P", "S1", kStd);
    const std::string rule = "\n================================";
    char head[2][200];
    std::snprintf(head[0], sizeof(head[0]), "\ncommunity-list: S1 (%p)",
                  static_cast<void *>(pol_community_list_find(ctx_, "S1", kStd)));
    std::snprintf(head[1], sizeof(head[1]), "\nexpanded-community-list: E1 (%p)",
                  static_cast<void *>(pol_community_list_find(ctx_, "E1", kExp)));
    poltest::CliCapture std_cli, exp_cli(4343);
    pol_dump_community_list_all(std_cli.session());
    pol_dump_expanded_community_list_all(exp_cli.session());
    EXPECT_EQ(std_cli.text(), rule + "\n  COMMUNITY LISTS" + rule + head[0] +
                                  "\n  community: 65000:1\n  community: no-export" +
                                  "\nend \n\n  User: P");
    EXPECT_EQ(exp_cli.text(), rule + "\n  EXPANDED COMMUNITY LISTS" + rule + head[1] +
                                  "\n  community pattern: ^65000:\nend \n");
    unmatch(seq, kStd);
}

}  // namespace
