// The text test harness: loads lists and policies from a plain text file,
// so a test or a developer can populate the model without a management
// daemon. One line describes one thing; its first word picks the parser.
// The line format is in docs/test-harness.md.
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

}  // extern "C"
