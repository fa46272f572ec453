// The text test harness: loads lists and policies from a plain text file,
// so a test or a developer can populate the model without a management
// daemon. One line describes one thing; its first word picks the parser.
// The list lines are read by their families; the route-policy lines here.
// The line format is in docs/test-harness.md.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "pol_util.hpp"

namespace {

// A whole line is read at once: room for every word the token array can
// hold with its separator, and the newline. Longer lines are refused.
constexpr int kLineBufSize = POL_TEST_MAX_TOKENS * POL_TEST_TOKEN_SIZE + 24;

struct parse_keyword {
    const char *word;
    e_pol_parse_type type;
};

// Compared exactly and in this order; the first match wins.
constexpr parse_keyword kParseKeywords[] = {
    {"prefix-list", E_POL_PARSE_PREFIX_LIST},
    {"tloc-list", E_POL_PARSE_TLOC_LIST},
    {"site-list", E_POL_PARSE_SITE_LIST},
    {"route-policy", E_POL_PARSE_ROUTE_POLICY},
    {"forwarding-policy", E_POL_PARSE_FWD_POLICY},
    {"site-policy", E_POL_PARSE_SITE_POLICY},
};

struct token_span {
    const char *start;
    std::size_t len;
};

enum class read_result { line, overlong, nul_byte, end };

// Reads the next line. A line that does not fit the buffer (and is not the
// file's last) is skipped whole rather than handed over in pieces; so is a
// line holding a NUL byte, whose text would end at that byte. Read byte by
// byte, so that a NUL never hides where the line ends.
read_result read_line(FILE *fp, char (&buf)[kLineBufSize])
{
    std::size_t len = 0;
    bool overlong = false;
    bool nul_byte = false;
    int c = EOF;
    while ((c = std::fgetc(fp)) != EOF) {
        if (len + 1 < sizeof(buf)) {
            buf[len++] = static_cast<char>(c);
        } else {
            overlong = true;
        }
        nul_byte = nul_byte || c == '\0';
        if (c == '\n') {
            break;
        }
    }
    buf[len] = '\0';
    if (len == 0) {
        return read_result::end;
    }
    if (overlong) {
        return read_result::overlong;
    }
    return nul_byte ? read_result::nul_byte : read_result::line;
}

/* ---- route-policy lines ---- */

// Grammar and examples in docs/test-harness.md. A line is checked whole
// before anything changes, so a malformed line changes nothing.
enum class rp_arg_kind { none, number, name, tloc, addr, action, match_type };

struct rp_arg {
    uint64_t num = 0;
    const char *name = nullptr;
    t_tloc_id tloc{};
    t_ipaddr addr{};
};

// One keyword of a sequence line: what its value is, and how it is applied
// and removed ("no KEYWORD"). add returns false when a list could not be had.
struct rp_keyword {
    const char *word;
    rp_arg_kind kind;
    uint64_t max;
    bool (*add)(t_pol_ctx *, t_pol_entry *, const rp_arg &, uint8_t *);
    void (*remove)(t_pol_ctx *, t_pol_entry *, uint8_t *);
};

template <typename R>
bool got(R *result)
{
    return result != nullptr;
}

constexpr uint64_t kU8 = UINT8_MAX, kU16 = UINT16_MAX, kU32 = UINT32_MAX, kU64 = UINT64_MAX;

#define RP_NUM(word, max, what, type)                                                           \
    {word, rp_arg_kind::number, max,                                                            \
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {                           \
         return got(pol_entry_##what##_add(c, e, static_cast<type>(a.num), ch));                \
     },                                                                                         \
     pol_entry_##what##_delete}
#define RP_NAME(word, what)                                                                     \
    {word, rp_arg_kind::name, 0,                                                                \
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {                           \
         return got(pol_entry_##what##_add(c, e, a.name, ch));                                  \
     },                                                                                         \
     pol_entry_##what##_delete}

const rp_keyword kRouteKeywords[] = {
    // The match type is applied before everything else on the line.
    {"match-type", rp_arg_kind::match_type, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_add(c, e->pol_block_p, e, static_cast<e_pol_match_type>(a.num), ch));
     },
     nullptr},
    RP_NUM("tag", kU32, match_tag, uint32_t),
    RP_NUM("metric", kU32, match_origin_metric, uint32_t),
    RP_NUM("preference", kU32, match_preference, uint32_t),
    RP_NUM("domain", kU32, match_domain, uint32_t),
    RP_NUM("group", kU32, match_group, uint32_t),
    RP_NUM("vpn", kU64, match_vpn_id, uint64_t),
    RP_NAME("vpn-list", match_vpn_list),
    RP_NUM("site", kU32, match_site, uint32_t),
    RP_NAME("site-list", match_site_list),
    {"tloc", rp_arg_kind::tloc, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_tloc_add(c, e, &a.tloc, ch));
     },
     pol_entry_match_tloc_delete},
    RP_NAME("tloc-list", match_tloc_list),
    {"prefix-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         const t_pfx_list_key key = {POL_AF_IPV4, a.name};
         return got(pol_entry_match_pfx_list_add(c, e, &key, ch));
     },
     pol_entry_match_pfx_list_delete},
    RP_NUM("origin", kU32, match_origin, uint32_t),
    {"originator", rp_arg_kind::addr, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_originator_add(c, e, &a.addr, ch));
     },
     pol_entry_match_originator_delete},
    RP_NUM("carrier", kU8, match_carrier, uint8_t),
    RP_NUM("color", kU16, match_color, uint16_t),
    RP_NAME("color-list", match_color_list),
    {"community-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_community_list_add(c, e, a.name, COMM_LIST_TYPE_STANDARD, ch));
     },
     [](t_pol_ctx *c, t_pol_entry *e, uint8_t *ch) {
         pol_entry_match_community_list_delete(c, e, COMM_LIST_TYPE_STANDARD, ch);
     }},
    {"expanded-community-list", rp_arg_kind::name, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_match_community_list_add(c, e, a.name, COMM_LIST_TYPE_EXPANDED, ch));
     },
     [](t_pol_ctx *c, t_pol_entry *e, uint8_t *ch) {
         pol_entry_match_community_list_delete(c, e, COMM_LIST_TYPE_EXPANDED, ch);
     }},
    {"action", rp_arg_kind::action, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_action_add(c, e, static_cast<e_pol_action>(a.num), ch));
     },
     pol_entry_action_delete},
    RP_NUM("set-tag", kU32, set_tag, uint32_t),
    RP_NUM("set-preference", kU32, set_preference, uint32_t),
    {"set-tloc", rp_arg_kind::tloc, 0,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         return got(pol_entry_set_tloc_add(c, e, &a.tloc, ch));
     },
     pol_entry_set_tloc_delete},
    RP_NUM("set-vpn", kU64, set_vpn_id, uint64_t),
    RP_NAME("set-vpn-list", set_vpn_list),
    RP_NAME("set-tloc-list", set_tloc_list),
    {"set-service", rp_arg_kind::number, kU16,
     [](t_pol_ctx *c, t_pol_entry *e, const rp_arg &a, uint8_t *ch) {
         const t_tloc_id no_tloc{};
         return got(pol_entry_set_service_add(c, e, static_cast<uint16_t>(a.num), &no_tloc, 0, ch));
     },
     pol_entry_set_service_delete},
};

#undef RP_NUM
#undef RP_NAME

const rp_keyword *rp_find_keyword(const char *word)
{
    for (const rp_keyword &kw : kRouteKeywords) {
        if (std::strcmp(kw.word, word) == 0) {
            return &kw;
        }
    }
    return nullptr;
}

struct rp_word {
    const char *word;
    uint64_t value;
};
constexpr rp_word kActions[] = {{"accept", POL_ACTION_ACCEPT}, {"reject", POL_ACTION_REJECT}};
constexpr rp_word kMatchTypes[] = {
    {"route", POL_MATCH_VROUTE}, {"tloc", POL_MATCH_TLOC}, {"service", POL_MATCH_SERVICE}};

template <std::size_t N>
bool rp_lookup(const rp_word (&words)[N], const char *text, uint64_t *value)
{
    for (const rp_word &w : words) {
        if (std::strcmp(w.word, text) == 0) {
            *value = w.value;
            return true;
        }
    }
    return false;
}

bool rp_parse_arg(const rp_keyword &kw, const char *text, rp_arg *arg)
{
    switch (kw.kind) {
    case rp_arg_kind::number:
        return pol_test_parse_number(text, kw.max, &arg->num);
    case rp_arg_kind::name:
        arg->name = text;
        return *text != '\0';
    case rp_arg_kind::tloc:
        return pol_test_tloc_str_to_tloc(text, &arg->tloc) == ERR_OK;
    case rp_arg_kind::addr: {
        in_addr v4{};
        if (inet_pton(AF_INET, text, &v4) != 1) {
            return false;
        }
        IPADDR_SET_V4(&arg->addr, v4.s_addr);
        return true;
    }
    case rp_arg_kind::action:
        return rp_lookup(kActions, text, &arg->num);
    case rp_arg_kind::match_type:
        return rp_lookup(kMatchTypes, text, &arg->num);
    case rp_arg_kind::none:
        break;
    }
    return true;
}

struct rp_op {
    const rp_keyword *kw;
    bool remove;
    rp_arg arg;
};

struct rp_line {
    const char *policy = nullptr;
    uint32_t seq = 0;
    rp_op ops[POL_TEST_MAX_TOKENS];
    int n_ops = 0;
};

e_err rp_reject(const char *policy, const char *why, const char *word)
{
    POL_LOG("route-policy %s: %s %s, line ignored", policy, why, word);
    return ERR_BAD_PARAM;
}

// Reads the clauses of a sequence line from token 3 on.
e_err rp_parse_clauses(char token[][POL_TEST_TOKEN_SIZE], int count, rp_line *line)
{
    for (int i = 3; i < count; i++) {
        rp_op op{};
        if (std::strcmp(token[i], "no") == 0) {
            op.remove = true;
            if (++i == count) {
                return rp_reject(line->policy, "nothing to remove after", "no");
            }
        }
        op.kw = rp_find_keyword(token[i]);
        if (op.kw == nullptr) {
            return rp_reject(line->policy, "unknown keyword", token[i]);
        }
        if (op.remove) {
            if (op.kw->remove == nullptr) {
                return rp_reject(line->policy, "cannot remove", token[i]);
            }
        } else if (op.kw->kind != rp_arg_kind::none) {
            if (i + 1 == count) {
                return rp_reject(line->policy, "missing value after", token[i]);
            }
            if (!rp_parse_arg(*op.kw, token[i + 1], &op.arg)) {
                return rp_reject(line->policy, "bad value", token[i + 1]);
            }
            i++;
        }
        line->ops[line->n_ops++] = op;
    }
    return ERR_OK;
}

e_err rp_apply(t_pol_ctx *ctx, const rp_line &line)
{
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, line.policy, POL_TYPE_ROUTE, &changed);
    if (block == nullptr) {
        return ERR_ALLOC;
    }
    t_pol_entry *entry = pol_entry_find_or_create(ctx, block, line.seq, &changed);
    if (entry == nullptr) {
        return ERR_ALLOC;
    }
    const rp_keyword *match_type_kw = rp_find_keyword("match-type");
    const rp_op *match_type = nullptr;
    for (int i = 0; i < line.n_ops; i++) {
        if (line.ops[i].kw == match_type_kw) {
            match_type = &line.ops[i];
        }
    }
    if (match_type != nullptr) {
        match_type->kw->add(ctx, entry, match_type->arg, &changed);
    } else if (entry->match_entry.match_type == POL_MATCH_INVALID) {
        pol_entry_match_add(ctx, block, entry, POL_MATCH_VROUTE, &changed);
    }
    e_err result = ERR_OK;
    for (int i = 0; i < line.n_ops; i++) {
        const rp_op &op = line.ops[i];
        if (op.kw == match_type_kw) {
            continue;
        }
        if (op.remove) {
            op.kw->remove(ctx, entry, &changed);
        } else if (!op.kw->add(ctx, entry, op.arg, &changed)) {
            POL_LOG("route-policy %s %u: %s could not be applied", line.policy, line.seq, op.kw->word);
            result = ERR_ALLOC;
        }
    }
    return result;
}

e_err rp_default_action(t_pol_ctx *ctx, const char *policy, const char *word)
{
    uint64_t action = 0;
    if (!rp_lookup(kActions, word, &action)) {
        return rp_reject(policy, "bad default action", word);
    }
    uint8_t changed = 0;
    t_pol_block *block = pol_block_find_or_create(ctx, policy, POL_TYPE_ROUTE, &changed);
    if (block == nullptr) {
        return ERR_ALLOC;
    }
    if (block->default_action_entry.entry_action != static_cast<e_pol_action>(action)) {
        block->default_action_entry.entry_action = static_cast<e_pol_action>(action);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return ERR_OK;
}

}  // namespace

extern "C" {

const char *g_pol_test_cfg_file = "/var/run/policy_cfg.txt";

const char *pol_config_policy_get_match_type(uint32_t pol_match_type)
{
    switch (pol_match_type) {
    case 0:
        return "route";
    case 1:
        return "tloc";
    default:
        return "unknown";
    }
}

e_pol_parse_type pol_test_parse_get_type(const char *type_str)
{
    if (type_str == nullptr) {
        return E_POL_PARSE_MAX;
    }
    for (const parse_keyword &kw : kParseKeywords) {
        if (std::strcmp(type_str, kw.word) == 0) {
            return kw.type;
        }
    }
    return E_POL_PARSE_MAX;
}

// Words are separated by blanks (runs of blanks count as one). The last
// character of the last word is dropped: it is the line's newline, or on
// a last line that has none, its last real character.
int pol_test_get_tokens(const char *line, char token[][POL_TEST_TOKEN_SIZE],
                        e_pol_parse_type *pol_type_p)
{
    if (pol_type_p != nullptr) {
        *pol_type_p = E_POL_PARSE_MAX;
    }
    token_span spans[POL_TEST_MAX_TOKENS];
    int count = 0;
    for (const char *p = line != nullptr ? line : ""; *p != '\0';) {
        while (*p == ' ') {
            p++;
        }
        if (*p == '\0') {
            break;
        }
        const char *start = p;
        while (*p != '\0' && *p != ' ') {
            p++;
        }
        if (count == POL_TEST_MAX_TOKENS) {
            POL_LOG("Line has more than %d words, ignored", POL_TEST_MAX_TOKENS);
            return -1;
        }
        spans[count++] = {start, static_cast<std::size_t>(p - start)};
    }
    if (count > 0) {
        spans[count - 1].len--;
    }
    for (int i = 0; i < count; i++) {
        if (spans[i].len >= POL_TEST_TOKEN_SIZE) {
            POL_LOG("Word %d is longer than %d characters, line ignored", i, POL_TEST_TOKEN_SIZE - 1);
            return -1;
        }
    }
    for (int i = 0; i < count; i++) {
        std::memcpy(token[i], spans[i].start, spans[i].len);
        token[i][spans[i].len] = '\0';
    }
    if (pol_type_p != nullptr) {
        *pol_type_p = pol_test_parse_get_type(count > 0 ? token[0] : "");
    }
    for (int i = 0; i < count; i++) {
        POL_DBG(2, "i: %d,   %s - %d", i, token[i], static_cast<int>(std::strlen(token[i])));
    }
    return count;
}

bool pol_test_parse_number(const char *text, uint64_t max, uint64_t *value)
{
    if (text == nullptr || *text < '0' || *text > '9') {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > max) {
        return false;
    }
    *value = v;
    return true;
}

e_pol_test_list_op pol_test_list_op(char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    if (num_tokens < 3 || token[1][0] == '\0' || token[2][0] == '\0') {
        return POL_TEST_LIST_INVALID;
    }
    if (std::strcmp(token[2], "delete") == 0) {
        return POL_TEST_LIST_DEL_LIST;
    }
    if (num_tokens > 3 && std::strcmp(token[3], "delete") == 0) {
        return POL_TEST_LIST_DEL_ENTRY;
    }
    return POL_TEST_LIST_ADD;
}

void pol_test_parse_cfg(t_omp_parse_cb parse_cb)
{
    t_pol_ctx *ctx = g_pol_ctx_p;
    POL_DBG(0, "Parsing policy file %s", g_pol_test_cfg_file);
    if (ctx == nullptr) {
        POL_LOG("No policy context, %s not read", g_pol_test_cfg_file);
        return;
    }
    FILE *fp = std::fopen(g_pol_test_cfg_file, "rt");
    if (fp == nullptr) {
        POL_LOG("Failed to open file @%s", g_pol_test_cfg_file);
        return;
    }
    char line[kLineBufSize];
    char token[POL_TEST_MAX_TOKENS][POL_TEST_TOKEN_SIZE];
    int line_no = 0;
    for (read_result r; (r = read_line(fp, line)) != read_result::end; line_no++) {
        if (r == read_result::overlong) {
            POL_LOG("Line %d is longer than %d characters, ignored", line_no, kLineBufSize - 2);
            continue;
        }
        if (r == read_result::nul_byte) {
            POL_LOG("Line %d holds a NUL byte, ignored", line_no);
            continue;
        }
        POL_DBG(0, "%d %s", line_no, line);
        std::memset(token, 0, sizeof(token));
        e_pol_parse_type type = E_POL_PARSE_MAX;
        int count = pol_test_get_tokens(line, token, &type);
        // Words never contain a blank, so this never holds: a comment line
        // is dropped because a lone "#" is no keyword.
        if (count <= 0 || std::strncmp(token[0], "# ", 2) == 0) {
            continue;
        }
        switch (type) {
        case E_POL_PARSE_PREFIX_LIST:
            pol_test_parse_pfx_list(ctx, token, count);
            break;
        case E_POL_PARSE_TLOC_LIST:
            pol_test_parse_tloc_list(ctx, token, count);
            break;
        case E_POL_PARSE_SITE_LIST:
            pol_test_parse_site_list(ctx, token, count);
            break;
        case E_POL_PARSE_ROUTE_POLICY:
        case E_POL_PARSE_FWD_POLICY:  // deliberately read as a route policy
            pol_test_parse_route_policy(ctx, token, count);
            break;
        case E_POL_PARSE_SITE_POLICY:
            if (parse_cb != nullptr) {
                parse_cb(token, count);
            }
            break;
        default:
            break;
        }
    }
    std::fclose(fp);
    pol_user_chg_list_notify_all(ctx);
}

/* ---- route-policy lines ---- */

// Users are only queued; the harness notifies once per file.
e_err pol_test_parse_route_policy(t_pol_ctx *ctx, char token[][POL_TEST_TOKEN_SIZE], int num_tokens)
{
    if (num_tokens < 0 || num_tokens > POL_TEST_MAX_TOKENS) {
        POL_LOG("route-policy line of %d words ignored", num_tokens);
        return ERR_BAD_PARAM;
    }
    // Words must end inside their slots; empty trailing words (a blank
    // before the newline) do not count.
    int count = num_tokens;
    for (int i = 0; i < count; i++) {
        if (strnlen(token[i], POL_TEST_TOKEN_SIZE) == POL_TEST_TOKEN_SIZE) {
            POL_LOG("route-policy line with an overlong word ignored");
            return ERR_BAD_PARAM;
        }
    }
    while (count > 0 && token[count - 1][0] == '\0') {
        count--;
    }
    if (count < 3 || token[1][0] == '\0') {
        POL_LOG("route-policy line needs a name and a sequence, default or delete");
        return ERR_BAD_PARAM;
    }
    rp_line line;
    line.policy = token[1];
    if (std::strcmp(token[2], "delete") == 0) {
        if (count != 3) {
            return rp_reject(line.policy, "unexpected word after delete:", token[3]);
        }
        uint8_t changed = 0;
        POL_DBG(0, "Deleting route policy %s", line.policy);
        pol_block_find_and_delete(ctx, line.policy, POL_TYPE_ROUTE, &changed);
        return ERR_OK;
    }
    if (std::strcmp(token[2], "default") == 0) {
        if (count != 4) {
            return rp_reject(line.policy, "default takes one word:", count > 4 ? token[4] : "accept|reject");
        }
        POL_DBG(0, "Route policy %s default action %s", line.policy, token[3]);
        return rp_default_action(ctx, line.policy, token[3]);
    }
    uint64_t seq = 0;
    if (!pol_test_parse_number(token[2], UINT32_MAX, &seq)) {
        return rp_reject(line.policy, "bad sequence number", token[2]);
    }
    line.seq = static_cast<uint32_t>(seq);
    if (count >= 4 && std::strcmp(token[3], "delete") == 0) {
        if (count != 4) {
            return rp_reject(line.policy, "unexpected word after delete:", token[4]);
        }
        POL_DBG(0, "Deleting route policy %s sequence %u", line.policy, line.seq);
        if (t_pol_block *block = pol_block_find(ctx, line.policy, POL_TYPE_ROUTE, nullptr)) {
            uint8_t changed = 0;
            pol_entry_find_and_delete(ctx, block, line.seq, &changed);
        }
        return ERR_OK;
    }
    if (e_err err = rp_parse_clauses(token, count, &line); err != ERR_OK) {
        return err;
    }
    POL_DBG(0, "Route policy %s sequence %u: %d clauses", line.policy, line.seq, line.n_ops);
    return rp_apply(ctx, line);
}

}  // extern "C"
