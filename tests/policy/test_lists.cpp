// The named-list families. One table runs what they share on each: the
// life cycle of a list, and random adds and deletes read back through the
// family's own dump (identity order, each entry once, lookups agree). Then
// what each family adds: the community grammar and refused patterns, the
// TLOC preference and label rules, the prefix-list key and conditions, the
// site-list user, the VPN list's three user chains; notification and dumps.
#include <arpa/inet.h>
#include <bsd/string.h>

#include <cstring>
#include <map>
#include <sstream>

#include <policy/pol_config.h>
#include <zen/zen_util.h>

#include "pol_test_support.hpp"

namespace {

using namespace poltest;
using Texts = std::vector<std::string>;
using Calls = std::vector<std::string>;
using Lists = PolContextTest;

constexpr community_list_type kStd = COMM_LIST_TYPE_STANDARD;
constexpr community_list_type kExp = COMM_LIST_TYPE_EXPANDED;

std::string render(uint32_t value)
{
    char buf[64];
    return community_getstr(value, buf, sizeof(buf));
}

t_tloc_id tloc(uint32_t host, uint8_t color, uint8_t encap = 2)
{
    t_tloc_id t{};
    t.addr.addr_type = IP_ADDR_V4;
    t.addr.u.addr4.s_addr = htonl(0x0a000000u | host);
    t.color = color;
    t.encap = encap;
    return t;
}

t_pfx_entry_param pfx(const std::string &text, e_pfx_op op = PFX_OP_NONE, uint8_t min = 0, uint8_t max = 0)
{
    t_pfx_entry_param p{op, {}, min, max};
    const std::string addr = text.substr(0, text.find('/'));
    const bool v6 = addr.find(':') != std::string::npos;
    p.prefix.addr.addr_type = v6 ? IP_ADDR_V6 : IP_ADDR_V4;
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), p.prefix.addr.u.addr6_b), 1) << text;
    p.prefix.prefixlen = static_cast<uint8_t>(std::stoi(text.substr(text.find('/') + 1)));
    return p;
}

t_pfx_list_key key(const char *name, e_pol_af af = POL_AF_IPV4)
{
    return t_pfx_list_key{af, name};
}

/* ---- what every family shares ---- */

// One family on its list "L": items 0..items-1 are its entries, each with
// an attribute below attrs that a repeated add overwrites.
struct Family {
    const char *name;
    std::size_t items;
    uint32_t attrs;
    std::function<e_err(std::size_t, uint32_t)> add, del;
    std::function<std::optional<uint32_t>(std::size_t)> find;  // the attribute of the entry held
    std::function<void(const Family &)> life_cycle;
    // Random changes, where given: identity order, an item's line in the
    // dump, the dump, and what else must agree with the model.
    std::function<bool(std::size_t, std::size_t)> before = nullptr;
    std::function<std::string(std::size_t, uint32_t)> line = nullptr;
    std::function<std::string()> dump = nullptr;
    std::function<void(const ListModel &)> extra = [](const ListModel &) {};
};

// The shared life cycle on the family's list of the given key, through the
// family's verbs; its entries 0 and 1 are the family's items 0 and 1.
template <typename L, typename Key>
std::function<void(const Family &)> life_cycle(t_pol_ctx *ctx, e_pol_mem list_row, e_pol_mem entry_row, Key key,
                                               auto find, auto find_or_create, auto cfg_del, auto user_add,
                                               e_err (*user_remove)(t_pol_ctx *, L *, t_pol_match_entry *),
                                               void (*del)(t_pol_ctx *, L **, uint8_t), bool (*is_empty)(const L *))
{
    auto call = [=](auto verb, auto... rest) {
        return std::apply([&](auto... k) { return verb(ctx, k..., rest...); }, key);
    };
    return [=](const Family &f) {
        check_list_life_cycle<L>(
            ctx, {.list_row = list_row, .entry_row = entry_row, .find = [=] { return call(find); },
                  .find_or_create = [=](uint8_t *c) { return call(find_or_create, c); },
                  .add = [&](int i) { return f.add(i, 0); }, .has = [&](int i) { return f.find(i).has_value(); },
                  .cfg_del = [=] { return call(cfg_del); },
                  .user_add = [=](t_pol_match_entry *m) { return call(user_add, m); },
                  .user_remove = user_remove, .del = del, .is_empty = is_empty});
    };
}

// Random adds and deletes: the dump's entry lines (indented, lower case)
// read as the model's items in identity order, and find agrees.
void check_random_changes(const Family &f, unsigned seed, int steps)
{
    std::map<std::string, std::pair<std::size_t, uint32_t>> item_of_line;
    for (std::size_t i = 0; i < f.items; i++) {
        for (uint32_t a = 0; a < f.attrs; a++) {
            item_of_line[f.line(i, a)] = {i, a};
        }
    }
    check_index_against_queue(
        seed, steps, f.items, f.attrs, f.before, [&](std::size_t i, uint32_t a) { ASSERT_EQ(f.add(i, a), ERR_OK); },
        [&](std::size_t i, uint32_t a) { ASSERT_EQ(f.del(i, a), ERR_OK); },
        [&] {
            ListModel queued;
            std::istringstream text(f.dump());
            for (std::string line; std::getline(text, line);) {
                const std::size_t at = line.find_first_not_of(' ');
                if (at != 0 && at != std::string::npos && std::islower(line[at])) {
                    auto it = item_of_line.find(line);
                    queued.push_back(it != item_of_line.end() ? it->second : std::pair{f.items, 0u});
                }
            }
            return queued;
        },
        f.find, f.extra);
}

class ListFamilies : public PolContextTest {
protected:
    // Community items 0..11 are the values of the standard list, given in
    // either spelling; the rest are the patterns of the expanded one.
    Family community()
    {
        static const Texts patterns = {"^1:", "a", "c|d", std::string(126, 'x'), std::string(127, 'x')};
        auto kind = [](std::size_t i) { return i < 12 ? kStd : kExp; };
        auto stored = [](std::size_t i) { return i < 12 ? render(static_cast<uint32_t>(i)) : patterns[i - 12]; };
        auto given = [colon = std::make_shared<bool>()](std::size_t i) {
            return i >= 12 ? patterns[i - 12] : ((*colon = !*colon) ? "0:" : "") + std::to_string(i);
        };
        auto change = [=, this](auto op) {
            return [=, this](std::size_t i, uint32_t) { return op(ctx_, "L", given(i).c_str(), kind(i)); };
        };
        return {"community", 12 + patterns.size(), 1, change(pol_community_list_add_entry),
                change(pol_community_list_del_entry),
                [=, this](std::size_t i) -> std::optional<uint32_t> {
                    const t_community_entry *e = pol_community_list_find_entry(ctx_, "L", given(i).c_str(), kind(i));
                    if (e == nullptr) {
                        return std::nullopt;
                    }
                    return (kind(i) == kStd ? render(e->community) : std::string(e->pattern)) == stored(i) ? 0 : 1;
                },
                life_cycle(ctx_, POL_MEM_LIST_COMMUNITY, POL_MEM_ENTRY_COMMUNITY, std::tuple{"L", kStd},
                           pol_community_list_find, pol_community_list_find_or_create, pol_community_list_cfg_del,
                           pol_community_list_user_add, pol_community_list_user_remove, pol_community_list_del,
                           pol_community_list_is_empty),
                [](std::size_t i, std::size_t j) { return i < j; },
                [=](std::size_t i, uint32_t) {
                    return (i < 12 ? "  community: " : "  community pattern: ") + stored(i);
                },
                [] { return dump(pol_dump_community_list_all) + dump(pol_dump_expanded_community_list_all); }};
    }

    // 24 TLOCs over 3 addresses, 4 colours and 2 encapsulations; the
    // attribute is the preference, and both lookups must agree.
    Family tlocs()
    {
        static const std::vector<t_tloc_id> u = [] {
            std::vector<t_tloc_id> out;
            for (uint32_t n = 0; n < 24; n++) {
                out.push_back(tloc(1 + n % 3, static_cast<uint8_t>(1 + n / 6), static_cast<uint8_t>(1 + n % 2)));
            }
            return out;
        }();
        return {"tloc", u.size(), 100,
                [this](std::size_t i, uint32_t pref) { return pol_tloc_list_add_entry(ctx_, "L", &u[i], pref); },
                [this](std::size_t i, uint32_t) { return pol_tloc_list_del_entry(ctx_, "L", &u[i]); },
                [this](std::size_t i) {
                    t_tloc_entry *e = pol_tloc_list_find_entry(ctx_, "L", &u[i]);
                    EXPECT_EQ(pol_tloc_list_lookup(pol_tloc_list_find(ctx_, "L"), &u[i]), e);
                    return e ? std::optional<uint32_t>(e->route_preference) : std::nullopt;
                },
                life_cycle(ctx_, POL_MEM_LIST_TLOC, POL_MEM_ENTRY_TLOC, std::tuple{"L"}, pol_tloc_list_find,
                           pol_tloc_list_find_or_create, pol_tloc_list_cfg_del, pol_tloc_list_user_add,
                           pol_tloc_list_user_remove, pol_tloc_list_del, pol_tloc_list_is_empty),
                [](std::size_t i, std::size_t j) { return TLOC_CMP(&u[i], &u[j]) < 0; },
                [](std::size_t i, uint32_t pref) {
                    char text[128];
                    return std::string("  tloc ") + tloc_id_print_short(&u[i], text, sizeof(text)) + " preference " +
                           std::to_string(pref);
                },
                [] { return dump(pol_dump_tloc_list_all); }};
    }

    Family colors()
    {
        return {"color", 2, 1,
                [this](std::size_t i, uint32_t) { return pol_color_list_add_entry(ctx_, "L", 4 + i); },
                [this](std::size_t i, uint32_t) { return pol_color_list_del_entry(ctx_, "L", 4 + i); },
                [this](std::size_t i) {
                    return pol_color_list_find_entry(ctx_, "L", 4 + i) ? std::optional<uint32_t>(0) : std::nullopt;
                },
                life_cycle(ctx_, POL_MEM_LIST_COLOR, POL_MEM_ENTRY_COLOR, std::tuple{"L"}, pol_color_list_find,
                           pol_color_list_find_or_create, pol_color_list_cfg_del, pol_color_list_user_add,
                           pol_color_list_user_remove, pol_color_list_del, pol_color_list_is_empty)};
    }

    // 36 prefixes of both families; the attribute is the operator, with
    // bounds that fit every operator.
    Family prefixes()
    {
        static const t_pfx_list_key k = key("L");
        static const std::vector<t_pfx_entry_param> pool = [] {
            std::vector<t_pfx_entry_param> out;
            for (int i = 0; i < 12; i++) {
                const std::string n = std::to_string(i);
                const std::string texts[] = {"10." + n + ".0.0/16", "10." + n + ".0.0/24", "2001:db8:" + n + "::/48"};
                for (const std::string &text : texts) {
                    out.push_back(pfx(text));
                }
            }
            return out;
        }();
        auto with_op = [](std::size_t i, uint32_t op) {
            t_pfx_entry_param p = pool[i];
            p.pfx_op = static_cast<e_pfx_op>(op);
            p.preflen_min = static_cast<uint8_t>(p.prefix.prefixlen + 1);
            p.preflen_max = IPPREFIX_IS_V4(&p.prefix) ? 32 : 128;
            return p;
        };
        return {"prefix", pool.size(), 9,
                [=, this](std::size_t i, uint32_t op) {
                    const t_pfx_entry_param p = with_op(i, op);
                    return pol_pfx_list_entry_add(ctx_, &k, &p);
                },
                [=, this](std::size_t i, uint32_t op) {
                    const t_pfx_entry_param p = with_op(i, op);
                    return pol_pfx_list_del_entry(ctx_, &k, &p);
                },
                [this](std::size_t i) -> std::optional<uint32_t> {
                    const t_pfx_entry *f = pol_pfx_list_find_entry(ctx_, &k, &pool[i], nullptr);
                    if (f == nullptr) {
                        return std::nullopt;
                    }
                    const bool same = IPPREFIX_CMP(&f->prefix, &pool[i].prefix) == 0;
                    return same ? static_cast<uint32_t>(f->pfx_op) : UINT32_MAX;
                },
                life_cycle(ctx_, POL_MEM_LIST_PREFIX, POL_MEM_ENTRY_PREFIX, std::tuple{&k}, pol_pfx_list_find,
                           pol_pfx_list_find_or_create, pol_pfx_list_cfg_del, pol_pfx_list_user_add,
                           pol_pfx_list_user_remove, pol_pfx_list_del, pol_pfx_list_is_empty),
                [](std::size_t i, std::size_t j) { return IPPREFIX_CMP(&pool[i].prefix, &pool[j].prefix) < 0; },
                [=](std::size_t i, uint32_t op) {
                    const t_pfx_entry_param p = with_op(i, op);
                    char buf[64];
                    return std::string("  prefix ") + ipprefix_print(&p.prefix, buf, sizeof(buf)) + " " +
                           pol_util_pfx_op_str(op) + " min " + std::to_string(p.preflen_min) + " max " +
                           std::to_string(p.preflen_max);
                },
                [] { return dump(pol_dump_pfx_list_all); }};
    }

    // Site ranges lo..lo+d (lo <= 60, d < 8); what a site matches must
    // agree with the model too.
    Family sites()
    {
        auto lo = [](std::size_t i) { return static_cast<uint32_t>(i / 8); };
        auto hi = [](std::size_t i) { return static_cast<uint32_t>(i / 8 + i % 8); };
        return {"site", 61 * 8, 1,
                [=, this](std::size_t i, uint32_t) { return pol_site_list_add_entry(ctx_, "L", lo(i), hi(i)); },
                [=, this](std::size_t i, uint32_t) { return pol_site_list_del_entry(ctx_, "L", lo(i), hi(i)); },
                [=, this](std::size_t i) -> std::optional<uint32_t> {
                    const t_site_entry *e = pol_site_list_find_entry(ctx_, "L", lo(i), hi(i));
                    if (e == nullptr) {
                        return std::nullopt;
                    }
                    return e->min_site_id == lo(i) && e->max_site_id == hi(i) ? 0 : 1;
                },
                life_cycle(ctx_, POL_MEM_LIST_SITE, POL_MEM_ENTRY_SITE, std::tuple{"L"}, pol_site_list_find,
                           pol_site_list_find_or_create, pol_site_list_cfg_del, pol_site_list_pol_user_add,
                           pol_site_list_pol_user_remove, pol_site_list_del, pol_site_list_is_empty),
                [](std::size_t i, std::size_t j) { return i < j; },  // by lower, then upper bound
                [=](std::size_t i, uint32_t) {
                    return "  site-id " + std::to_string(lo(i)) + "-" + std::to_string(hi(i));
                },
                [] { return dump(pol_dump_site_list_all); },
                [=, this](const ListModel &model) {
                    t_site_list *list = pol_site_list_find(ctx_, "L");
                    for (uint32_t site = 0; site < 70; site++) {
                        bool want = std::any_of(model.begin(), model.end(),
                                                [&](auto &m) { return lo(m.first) <= site && site <= hi(m.first); });
                        ASSERT_EQ(pol_exec_match_site_id_to_site_list(list, site), want) << "site " << site;
                    }
                }};
    }

    Family vpns()
    {
        return {"vpn", 2, 1,
                [this](std::size_t i, uint32_t) { return pol_vpn_list_add_entry(ctx_, "L", 10 * i, 10 * i + 5); },
                [this](std::size_t i, uint32_t) { return pol_vpn_list_del_entry(ctx_, "L", 10 * i, 10 * i + 5); },
                [this](std::size_t i) {
                    return pol_vpn_list_find_entry(ctx_, "L", 10 * i, 10 * i + 5) ? std::optional<uint32_t>(0)
                                                                                     : std::nullopt;
                },
                life_cycle(ctx_, POL_MEM_LIST_VPN, POL_MEM_ENTRY_VPN, std::tuple{"L"}, pol_vpn_list_find,
                           pol_vpn_list_find_or_create, pol_vpn_list_cfg_del, pol_vpn_list_match_user_add,
                           pol_vpn_list_match_user_remove, pol_vpn_list_del, pol_vpn_list_is_empty)};
    }
};

TEST_F(ListFamilies, LifeCycleAndRandomChanges)
{
    const std::pair<Family, int> rows[] = {{community(), 2000}, {tlocs(), 600}, {colors(), 0},
                                           {prefixes(), 1500},  {sites(), 1000}, {vpns(), 0}};
    for (const auto &[family, steps] : rows) {
        SCOPED_TRACE(family.name);
        family.life_cycle(family);
        if (steps != 0) {
            check_random_changes(family, 20240611, steps);
        }
    }
}

/* ---- community lists ---- */

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
TEST_F(Lists, RefusedEntriesFailTheReaderWithTheReason)
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

TEST_F(Lists, BadTextsPatternsKindsAndPatternLengths)
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

    // A pattern too long to be stored (127 characters fit: see the random
    // changes) is refused whole: it never stays behind to match after its
    // removal, nor piles up on re-commits.
    for (std::size_t length : {128, 255}) {
        const std::string pattern(length, 'p');
        for (int commit = 0; commit < 2; commit++) {
            EXPECT_EQ(pol_community_list_add_entry(ctx_, "P", pattern.c_str(), kExp), ERR_BAD_PARAM) << length;
        }
        EXPECT_EQ(entries("P", kExp), Texts{}) << length;
        EXPECT_EQ(pol_community_list_find_entry(ctx_, "P", pattern.c_str(), kExp), nullptr) << length;
        EXPECT_EQ(pol_community_list_del_entry(ctx_, "P", pattern.c_str(), kExp), ERR_OK);
        const t_community_list *list = pol_community_list_find(ctx_, "P", kExp);
        EXPECT_TRUE(list == nullptr || pol_community_list_is_empty(list)) << length;
    }
}

TEST_F(Lists, CommunityChangesNotifyMatchingPolicies)
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
    pol_entry_match_community_list_delete(ctx_, seq, kStd, &changed);
}

/* ---- TLOC and colour lists ---- */

// The preferences of a list's entries in queue order.
std::vector<uint32_t> preferences(const t_tloc_list *list)
{
    std::vector<uint32_t> out;
    for (const t_tloc_entry *e = TAILQ_FIRST(&list->tloc_entry_head); e; e = TAILQ_NEXT(e, tloc_entry)) {
        out.push_back(e->route_preference);
    }
    return out;
}

TEST_F(Lists, ActionUsersAndTheDocumentFlag)
{
    t_pol_match_entry match{};
    t_pol_set_entry set{};
    const t_tloc_id a = tloc(1, 1), b = tloc(2, 1);
    t_tloc_list *list = pol_tloc_list_user_add(ctx_, "L", &match);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->fetch_xml, 1);  // a new list has no document yet
    EXPECT_EQ(pol_tloc_list_action_user_add(ctx_, "L", &set), list);
    ASSERT_EQ(pol_tloc_list_add_entry(ctx_, "L", &a, 3), ERR_OK);
    list->fetch_xml = 0;
    {
        AllocFailure fail(POL_MEM_ENTRY_TLOC);  // a failed add still asks for a document
        EXPECT_EQ(pol_tloc_list_add_entry(ctx_, "L", &b, 1), ERR_ALLOC);
    }
    EXPECT_EQ(list->fetch_xml, 1);
    list->fetch_xml = 0;
    EXPECT_EQ(pol_tloc_list_cfg_del(ctx_, "L"), ERR_OK);
    EXPECT_EQ(list->fetch_xml, 0);  // cfg_del leaves it alone
    EXPECT_EQ(pol_tloc_list_user_remove(ctx_, list, &match), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), list);  // the action user holds it
    EXPECT_EQ(pol_tloc_list_action_user_remove(ctx_, list, &set), ERR_OK);
    EXPECT_EQ(pol_tloc_list_find(ctx_, "L"), nullptr);
}

TEST_F(Lists, TlocChangesReachEachPolicyUserOnceMatchUsersFirst)
{
    Calls calls;
    register_user("u3", "P2", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u1", "P1", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u2", "P1", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    t_pol_entry *p1_match = sequence("P1", 10), *p2_set = sequence("P2", 10), *p1_set = sequence("P1", 20);
    t_tloc_list *list = pol_tloc_list_action_user_add(ctx_, "L", &p2_set->set_entry);
    pol_tloc_list_action_user_add(ctx_, "L", &p1_set->set_entry);
    pol_tloc_list_user_add(ctx_, "L", &p1_match->match_entry);
    const t_tloc_id a = tloc(1, 1), b = tloc(2, 1);
    calls.clear();

    pol_tloc_list_add_entry(ctx_, "L", &a, 1);
    EXPECT_EQ(calls, (Calls{"u1", "u2", "u3"}));
    calls.clear();
    list->fetch_xml = 0;
    list->update_fwd_policy_label = false;
    pol_tloc_list_del_entry(ctx_, "L", &b);  // absent: a new document, nothing else
    EXPECT_TRUE(calls.empty() && list->fetch_xml == 1 && !list->update_fwd_policy_label);
    pol_tloc_list_del_entry(ctx_, "L", &a);
    EXPECT_EQ(calls.size(), 3u);

    t_pol_entry *p2_match = sequence("P2", 30);
    calls.clear();
    t_color_list *colors = pol_color_list_user_add(ctx_, "C", &p2_match->match_entry);
    pol_color_list_add_entry(ctx_, "C", 2);
    pol_color_list_add_entry(ctx_, "C", 2);  // a repeat notifies again
    pol_color_list_del_entry(ctx_, "C", 8);
    EXPECT_EQ(calls, (Calls{"u3", "u3"}));

    pol_tloc_list_user_remove(ctx_, list, &p1_match->match_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p1_set->set_entry);
    pol_tloc_list_action_user_remove(ctx_, list, &p2_set->set_entry);
    pol_color_list_user_remove(ctx_, colors, &p2_match->match_entry);
}

TEST_F(Lists, PreferenceAndLabelFlagRules)
{
    t_tloc_id a = tloc(1, 1), b = tloc(1, 2), c = tloc(1, 1, 1);
    pol_tloc_list_add_entry(ctx_, "N", &a, 5);
    t_tloc_list *list = pol_tloc_list_find(ctx_, "N");
    EXPECT_FALSE(list->update_fwd_policy_label);  // first entry of a new list
    pol_tloc_list_add_entry(ctx_, "N", &b, 6);
    pol_tloc_list_add_entry(ctx_, "N", &c, 8);
    EXPECT_TRUE(list->update_fwd_policy_label);
    list->fetch_xml = 0;
    list->update_fwd_policy_label = false;
    EXPECT_EQ(preferences(list), (std::vector<uint32_t>{8, 5, 6}));  // identity order: c, a, b
    pol_tloc_list_add_entry(ctx_, "N", &a, 7);
    EXPECT_EQ(preferences(list), (std::vector<uint32_t>{8, 7, 6}));
    EXPECT_TRUE(list->fetch_xml == 1 && list->update_fwd_policy_label);
    EXPECT_EQ(pol_tloc_list_find_entry(ctx_, "N", &a)->set_fwd_label, 0u);

    // Only a data-policy action user lets the refresh clear the flag.
    uint8_t changed = 0;
    t_pol_fwd_vpn_entry vpn{};
    t_pol_set_entry control{};
    control.pol_vpn_p = &vpn;
    control.pol_block_p = sequence("R", 1)->set_entry.pol_block_p;
    // A data sequence, at first as if it had no VPN entry.
    pol_block_find_or_create(ctx_, "D", POL_TYPE_DATA, &changed);
    ASSERT_NE(pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V"), nullptr);
    t_pol_set_entry &fwd = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10)->set_entry;
    t_pol_fwd_vpn_entry *fwd_vpn = std::exchange(fwd.pol_vpn_p, nullptr);
    pol_tloc_list_action_user_add(ctx_, "N", &control);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);
    pol_tloc_list_action_user_add(ctx_, "N", &fwd);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_TRUE(list->update_fwd_policy_label);  // no VPN entry yet
    fwd.pol_vpn_p = fwd_vpn;
    Calls calls;
    register_user("w", "R", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    pol_block_users_add_to_chg_list(ctx_, control.pol_block_p);
    pol_tloc_list_update_fwd_pol_label(ctx_, 0);
    EXPECT_FALSE(list->update_fwd_policy_label);
    EXPECT_EQ(calls, Calls{"w"});  // flushed after the walk
    pol_tloc_list_action_user_remove(ctx_, list, &control);
    pol_tloc_list_action_user_remove(ctx_, list, &fwd);
}

TEST_F(Lists, ColoursCountOnTheirLow16Bits)
{
    ASSERT_EQ(pol_color_list_add_entry(ctx_, "C", 0x10105), ERR_OK);
    t_color_entry *e = pol_color_list_find_entry(ctx_, "C", 0x105);
    ASSERT_TRUE(e != nullptr && e->color == 0x105);
    EXPECT_TRUE(pol_color_list_find_entry(ctx_, "C", 0x20105) == e &&
                pol_color_list_lookup(pol_color_list_find(ctx_, "C"), 0x20105) == e);
    pol_color_list_add_entry(ctx_, "C", 0x105);
    EXPECT_EQ(TAILQ_NEXT(e, color_entry), nullptr);
    pol_color_list_del_entry(ctx_, "C", 0x30105);
    EXPECT_EQ(pol_color_list_find_entry(ctx_, "C", 0x105), nullptr);
}

/* ---- prefix lists ---- */

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

TEST_F(Lists, KeyIsFamilyAndBoundedName)
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
TEST_F(Lists, PrefixAloneIdentifiesAnEntryAndChangesNotifyItsPolicies)
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
    EXPECT_EQ(pol_pfx_list_del_entry(ctx_, &unknown, &ge), ERR_OK);  // unknown list: no error
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
TEST_F(Lists, ConditionsThatDoNotFitThePrefixAreRefused)
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

/* ---- site and VPN lists ---- */

void list_changed(t_pol_list_user *, void *user_ctx)
{
    static_cast<Calls *>(user_ctx)->push_back("list");
}

t_pol_list_user *watch_site_list(const char *name, Calls *calls)
{
    t_pol_list_reg_params reg{};
    reg.pol_list_type = POL_LIST_SITE;
    strlcpy(reg.pol_list_name, name, sizeof(reg.pol_list_name));
    reg.pol_chg_cb = list_changed;
    reg.user_ctx_p = calls;
    return pol_list_register(&reg);
}

TEST_F(Lists, RangesAreStoredAsGivenAndNamesBounded)
{
    Calls calls;
    t_pol_entry *seq = sequence("hub", 10);
    t_site_list *list = pol_site_list_pol_user_add(ctx_, "spokes", &seq->match_entry);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 100, 199), ERR_OK);
    EXPECT_TRUE(pol_exec_match_site_id_to_site_list(list, 150));
    pol_site_list_cfg_del(ctx_, "spokes");  // what the entries matched goes with them
    EXPECT_FALSE(pol_exec_match_site_id_to_site_list(list, 150));
    register_user("rt", "hub", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 7, 7), ERR_OK);
    EXPECT_EQ(pol_site_list_add_entry(ctx_, "spokes", 7, 7), ERR_OK);  // a repeat: nothing
    EXPECT_TRUE(avl_numnodes(&list->entry_index) == 1u && calls == Calls{"rt"});
    EXPECT_TRUE(pol_exec_match_site_id_to_site_list(list, 7) && !pol_exec_match_site_id_to_site_list(list, 6) &&
                !pol_exec_match_site_id_to_site_list(list, 8) && !pol_exec_match_site_id_to_site_list(nullptr, 7));
    // A sub-range deletes nothing and tells nobody.
    EXPECT_EQ(pol_site_list_del_entry(ctx_, "spokes", 7, 8), ERR_OK);
    EXPECT_TRUE(avl_numnodes(&list->entry_index) == 1u && calls.size() == 1u);
    pol_site_list_cfg_del(ctx_, "spokes");
    pol_site_list_pol_user_remove(ctx_, list, &seq->match_entry);

    // Names agreeing in their first 63 characters are one list.
    std::string base(63, 's');
    pol_site_list_add_entry(ctx_, (base + "A").c_str(), 1, 1);
    pol_site_list_add_entry(ctx_, (base + "B").c_str(), 2, 2);
    list = pol_site_list_find(ctx_, base.c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(list->site_list_name == base && avl_numnodes(&list->entry_index) == 2u &&
                avl_numnodes(&ctx_->site_lists) == 1u);
}

TEST_F(Lists, ListUserIsToldFirstAndOnlyOnceAndDumped)
{
    Calls calls, second;
    t_pol_list_user *watcher = watch_site_list("dc", &calls);
    ASSERT_NE(watcher, nullptr);
    EXPECT_EQ(watch_site_list("dc", &second), watcher) << "one list user per list";

    t_pol_entry *seq = sequence("pol-a", 5);
    pol_site_list_pol_user_add(ctx_, "dc", &seq->match_entry);
    register_user("omp", "pol-a", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    pol_site_list_add_entry(ctx_, "dc", 10, 20);
    pol_site_list_add_entry(ctx_, "dc", 40, 30);  // reversed: stored, matches nothing
    EXPECT_EQ(calls, (Calls{"list", "omp", "list", "omp"}));
    EXPECT_TRUE(pol_list_site_match(watcher, 15) == 1 && pol_list_site_match(watcher, 35) == 0 &&
                pol_list_site_match(nullptr, 15) == 0);
    t_pol_list_reg_params tloc{};
    tloc.pol_list_type = POL_LIST_TLOC;
    EXPECT_EQ(pol_list_register(&tloc), nullptr);
    EXPECT_EQ(dump(pol_dump_site_list_all),
              heading("SITE LISTS") + "\nsite-list: dc (0x" + ptr(pol_site_list_find(ctx_, "dc")) +
                  ")\n  site-id 10-20\n  site-id 40-30\n  User: " + ptr(watcher) +
                  ", list: dc, list-type: site-list, ctx: " + ptr(&calls) +
                  ", chg_cb: " + ptr(reinterpret_cast<void *>(list_changed)) + "\nend\n");

    pol_site_list_pol_user_remove(ctx_, pol_site_list_find(ctx_, "dc"), &seq->match_entry);
    pol_site_list_cfg_del(ctx_, "dc");
    EXPECT_NE(pol_site_list_find(ctx_, "dc"), nullptr) << "the list user keeps it";
    pol_list_unregister(watcher);
    EXPECT_NE(pol_site_list_find(ctx_, "dc"), nullptr) << "the second registration still holds it";
    pol_list_unregister(watcher);
    EXPECT_EQ(pol_site_list_find(ctx_, "dc"), nullptr);
    {
        AllocFailure fail(POL_MEM_LIST_POL_USER);
        EXPECT_EQ(watch_site_list("watched", &calls), nullptr);
    }
    EXPECT_EQ(pol_site_list_find(ctx_, "watched"), nullptr);
}

TEST_F(Lists, DocumentFlagAndThreeUserChains)
{
    EXPECT_EQ(pol_vpn_list_add_entry(ctx_, "corp", 10, 20), ERR_OK);
    t_vpn_list *list = pol_vpn_list_find(ctx_, "corp");
    ASSERT_TRUE(list != nullptr && list->fetch_xml == 1);
    // The publisher clears the flag; a delete attempt raises it even when it
    // removes nothing, a repeated add does not, nor does cfg_del.
    list->fetch_xml = 0;
    pol_vpn_list_add_entry(ctx_, "corp", 10, 20);
    const int after_repeat = list->fetch_xml;
    pol_vpn_list_del_entry(ctx_, "corp", 11, 20);
    EXPECT_TRUE(after_repeat == 0 && list->fetch_xml == 1);

    // Users of all three chains hear of a change, in chain order.
    Calls calls;
    t_pol_entry *matcher = sequence("m-pol", 1), *setter = sequence("s-pol", 1);
    uint8_t changed = 0;
    t_pol_fwd_vpn_entry fwd{};
    fwd.pol_block_p = pol_block_find_or_create(ctx_, "d-pol", POL_TYPE_DATA, &changed);
    pol_vpn_list_match_user_add(ctx_, "corp", &matcher->match_entry);
    pol_vpn_list_action_user_add(ctx_, "corp", &setter->set_entry);
    pol_vpn_list_fwd_pol_user_add(ctx_, "corp", &fwd);
    t_pol_user *data_user = register_user("u-data", "d-pol", POL_TYPE_DATA, POL_DIR_NONE, record_cb, &calls);
    register_user("u-set", "s-pol", POL_TYPE_ROUTE, POL_DIR_OUT, record_cb, &calls);
    register_user("u-match", "m-pol", POL_TYPE_ROUTE, POL_DIR_IN, record_cb, &calls);
    pol_vpn_list_add_entry(ctx_, "corp", 30, 30);
    EXPECT_EQ(calls, (Calls{"u-match", "u-set", "u-data"}));

    list->fetch_xml = 0;
    pol_vpn_list_cfg_del(ctx_, "corp");
    EXPECT_TRUE(pol_vpn_list_find(ctx_, "corp") == list && list->fetch_xml == 0);
    pol_vpn_list_match_user_remove(ctx_, list, &matcher->match_entry);
    pol_vpn_list_action_user_remove(ctx_, list, &setter->set_entry);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "corp"), list) << "the data policy still uses it";
    pol_vpn_list_fwd_pol_user_remove(ctx_, list, &fwd);
    EXPECT_EQ(pol_vpn_list_find(ctx_, "corp"), nullptr);
    // A data policy that still has users outlives its deletion; unregister
    // before shutdown so the block is freed.
    pol_unregister(&data_user);
}

TEST_F(Lists, WalkAndDump)
{
    pol_vpn_list_add_entry(ctx_, "b", 5, 5);
    pol_vpn_list_add_entry(ctx_, "a", 1, 4000000000u);
    t_vpn_list *a = pol_vpn_list_find(ctx_, "a"), *b = pol_vpn_list_find(ctx_, "b");
    EXPECT_TRUE(pol_vpn_list_first(ctx_) == a && pol_vpn_list_next(ctx_, a) == b && !pol_vpn_list_next(ctx_, b));

    // Users are listed by policy type, then name, whatever order they linked in.
    t_pol_entry *matchers[] = {sequence("pol-x", 3), sequence("mem-a", 1, POL_TYPE_MEMBERSHIP), sequence("pol-b", 2)};
    for (t_pol_entry *m : matchers) {
        pol_vpn_list_match_user_add(ctx_, "a", &m->match_entry);
    }
    EXPECT_EQ(dump([&](mgmtd_cli_user_info *s) { pol_dump_vpn_list(a, s); }),
              "\nvpn-list: a (0x" + ptr(a) + ", 1)\n    vpn-id: 1-4000000000\nend \n"
              "\n  User: pol-b\n  User: pol-x\n  User: mem-a");
    for (t_pol_entry *m : matchers) {
        pol_vpn_list_match_user_remove(ctx_, a, &m->match_entry);
    }
}

}  // namespace
