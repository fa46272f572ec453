// Community lists: the community text grammar, the two kinds of list,
// entry identity (values, pattern texts), patterns refused and why (also
// as the configuration reader tells the host), the life cycle of a list,
// notification of the policies that match on it, dumps.
#include <cstring>

#include <policy/pol_config.h>

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
    const int order[] = {pol_community_cmp(&a, &b), pol_community_cmp(&few[1], &few[0]), pol_community_cmp(&a, &a),
                         pol_community_cmp(nullptr, &a)};
    EXPECT_EQ(std::vector<int>(order, order + 4), (std::vector<int>{-1, 1, 0, -1}));
}

// The entries' texts in queue order.
Texts entries(const char *name, community_list_type type)
{
    Texts out;
    const t_community_list *list = pol_community_list_find(g_pol_ctx_p, name, type);
    for (const t_community_entry *e = list ? TAILQ_FIRST(&list->community_entry_head) : nullptr; e;
         e = TAILQ_NEXT(e, community_entry)) {
        out.push_back(type == kStd ? render(e->community) : e->pattern);
    }
    return out;
}

// The reader's status for one community-list entry the host creates,
// called directly or as the datastore calls the subscription table's row.
int32_t read_entry(const char *name, const char *text, community_list_type type, bool by_table = false)
{
    const char *texts[] = {name, text};
    mgmtd_value_t keys[2] = {};
    for (int i = 0; i < 2; i++) {
        keys[i].type = C_BUF;
        auto *bytes = reinterpret_cast<unsigned char *>(const_cast<char *>(texts[i]));
        keys[i].val.buf = {static_cast<uint32_t>(std::strlen(texts[i])), bytes};
    }
    if (!by_table) {
        return pol_config_community_list(nullptr, g_pol_ctx_p, MOP_CREATED, 2, keys, 0, nullptr, type);
    }
    size_t count = 0;
    const mgmtd_ds_sub_t *subs = pol_config_subscriptions(&count), *end = subs + count;
    const std::string row = type == kExp ? "expanded-community-list-entry" : "community-list-entry";
    const mgmtd_ds_sub_t *sub = std::find_if(subs, end, [&](const mgmtd_ds_sub_t &s) { return row == s.name; });
    EXPECT_NE(sub, end) << "no subscription " << row;
    return sub == end ? 0 : sub->cb(nullptr, g_pol_ctx_p, MOP_CREATED, 2, keys, 0, nullptr, sub->arg);
}

std::string compiler_error(const char *pattern)
{
    regex_t re;
    char error[100];
    regerror(regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB), &re, error, sizeof(error));
    return error;
}

// An entry the store refuses fails its reader with a reason that is
// logged and kept for the host, and leaves no entry behind.
TEST_F(CommunityList, RefusedEntriesFailTheReaderWithTheReason)
{
    const std::string long_pattern(128, 'x');
    struct {
        const char *text;
        community_list_type type;
        std::string reason;
    } const cases[] = {
        {"(", kExp, "expanded-community-list E: \"(\" does not compile: " + compiler_error("(")},
        {"65000:[1", kExp, "expanded-community-list E: \"65000:[1\" does not compile: " + compiler_error("65000:[1")},
        {long_pattern.c_str(), kExp,
         "expanded-community-list E: \"" + long_pattern + "\" is longer than 127 characters"},
        {"abc", kStd, "community-list E: \"abc\" is not a community"},
    };
    for (const auto &c : cases) {
        LogCapture log;
        pol_config_error_clear();
        EXPECT_EQ(read_entry("E", c.text, c.type), POL_CONFIG_BAD_KEY) << c.text;
        EXPECT_EQ(pol_config_error(), c.reason);
        ASSERT_FALSE(log.lines.empty());
        EXPECT_TRUE(log.lines.back().ends_with("]: [POL] " + c.reason)) << log.lines.back();
        EXPECT_EQ(pol_community_list_find_entry(ctx_, "E", c.text, c.type), nullptr) << c.text;
    }
    EXPECT_EQ(live_count(POL_MEM_ENTRY_COMMUNITY), 0);
    {
        AllocFailure fail(POL_MEM_ENTRY_COMMUNITY);
        EXPECT_EQ(read_entry("E", "^1:", kExp), POL_CONFIG_NO_MEMORY);
    }
    EXPECT_EQ(read_entry("E", "^1:", kExp), POL_CONFIG_OK);
    EXPECT_STRNE(pol_config_error(), "");  // kept until cleared

    // Through the subscription table every call starts without a reason.
    EXPECT_EQ(read_entry("E", "(", kExp, true), POL_CONFIG_BAD_KEY);
    EXPECT_EQ(pol_config_error(), cases[0].reason);
    EXPECT_EQ(read_entry("E", "^2:", kExp, true), POL_CONFIG_OK);
    EXPECT_STREQ(pol_config_error(), "");
}

TEST_F(CommunityList, BadTextsPatternsKindsAndPatternLengths)
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
    ASSERT_EQ(log.lines.size(), 1u);
    const std::string &line = log.lines[0];
    EXPECT_TRUE(line.starts_with("191 pol_community_list_add_entry[") &&
                line.ends_with("]: [POL] expanded-community-list pattern:( regex-error " + compiler_error("(") + "\n"))
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

    // A pattern is stored whole or refused: one too long to be stored never
    // stays behind to match after its removal, nor piles up on re-commits.
    for (std::size_t length : {1, 127, 128, 255}) {
        const std::string pattern(length, 'p');
        const bool fits = length < POL_COMMUNITY_PATTERN_SIZE;
        for (int commit = 0; commit < 2; commit++) {
            EXPECT_EQ(pol_community_list_add_entry(ctx_, "P", pattern.c_str(), kExp), fits ? ERR_OK : ERR_BAD_PARAM)
                << length;
        }
        EXPECT_EQ(entries("P", kExp), fits ? Texts{pattern} : Texts{}) << length;
        const t_community_list *list = pol_community_list_find(ctx_, "P", kExp);
        EXPECT_EQ(pol_community_list_find_entry(ctx_, "P", pattern.c_str(), kExp),
                  fits ? TAILQ_FIRST(&list->community_entry_head) : nullptr) << length;
        EXPECT_EQ(pol_community_list_del_entry(ctx_, "P", pattern.c_str(), kExp), ERR_OK);
        list = pol_community_list_find(ctx_, "P", kExp);
        EXPECT_TRUE(list == nullptr || pol_community_list_is_empty(list)) << length;
    }
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

// Random adds and deletes of both kinds: the queue keeps identity order
// (community value, or pattern text) whatever order the entries came in,
// each text at most once, and lookups find the entry of their text. Items
// 0..11 are the values of the standard list, given in either spelling; the
// rest are the patterns, in text order.
TEST_F(CommunityList, IndexAgreesWithQueue)
{
    const Texts patterns = {"^1:", "a", "c|d", std::string(126, 'x'), std::string(127, 'x')};
    auto kind = [](std::size_t i) { return i < 12 ? kStd : kExp; };
    auto stored = [&](std::size_t i) { return i < 12 ? render(static_cast<uint32_t>(i)) : patterns[i - 12]; };
    bool colon = false;
    auto given = [&](std::size_t i) {
        return i >= 12 ? patterns[i - 12] : ((colon = !colon) ? "0:" : "") + std::to_string(i);
    };
    auto change = [&](auto op) {
        return [&, op](std::size_t i, uint32_t) { ASSERT_EQ(op(ctx_, "L", given(i).c_str(), kind(i)), ERR_OK); };
    };
    check_index_against_queue(
        7, 2000, 12 + patterns.size(), 1, [](std::size_t i, std::size_t j) { return i < j; },
        change(pol_community_list_add_entry), change(pol_community_list_del_entry),
        [&] {
            ListModel queued;
            for (community_list_type type : {kStd, kExp}) {
                for (const std::string &text : entries("L", type)) {
                    std::size_t i = 0;
                    while (i < 12 + patterns.size() && !(kind(i) == type && stored(i) == text)) {
                        i++;
                    }
                    queued.emplace_back(i, 0);
                }
            }
            return queued;
        },
        [&](std::size_t i) -> std::optional<uint32_t> {
            const t_community_entry *e = pol_community_list_find_entry(ctx_, "L", given(i).c_str(), kind(i));
            if (e == nullptr) {
                return std::nullopt;
            }
            return (kind(i) == kStd ? render(e->community) : std::string(e->pattern)) == stored(i) ? 0 : UINT32_MAX;
        });
}

TEST_F(CommunityList, NotifiesMatchingPoliciesAndDumps)
{
    int calls = 0;
    register_user("P", "P", POL_TYPE_ROUTE, POL_DIR_OUT, count_cb, &calls);
    t_pol_entry *seq = sequence("P", 10, POL_TYPE_ROUTE, false);
    uint8_t changed = 0;
    pol_entry_match_add(ctx_, seq->pol_block_p, seq, POL_MATCH_VROUTE, &changed);
    ASSERT_NE(pol_entry_match_community_list_add(ctx_, seq, "S1", kStd, &changed), nullptr);
    pol_user_chg_list_notify_all(ctx_);
    calls = 0;
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
    pol_entry_match_community_list_delete(ctx_, seq, kStd, &changed);
}

}  // namespace
