// Diagnostics: the log writer, the process stop for broken invariants, the
// text renderers of enumerations and flag words, and the memory report
// command.
#include <malloc.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <zen/mgmtd.h>

#include "pol_util.hpp"

namespace {

pol_log_sink_f g_log_sink = nullptr;

constexpr int kLogTextSize = 1024;

// Categories that the "policy push" total adds up.
constexpr bool in_push_total(int row)
{
    return row == POL_MEM_CTX || row == POL_MEM_BLOCK || row == POL_MEM_ENTRY ||
           (row >= POL_MEM_TYPE_PFR && row <= POL_MEM_LIST_POL_USER) ||
           (row >= POL_MEM_LIST_FWD_PREFIX && row <= POL_MEM_LIST_APP) ||
           (row >= POL_MEM_LIST_VPN && row <= POL_MEM_ENTRY_LIST) || row == POL_MEM_ENTRY_TLOC ||
           (row >= POL_MEM_ENTRY_VPN && row <= POL_MEM_ENTRY_MATCH_ICMP6);
}

uint64_t current_count(const t_pol_mem_info &row)
{
    return row.alloc - row.free;
}

// The text of one enumerator.
struct enum_name {
    uint32_t value;
    const char *text;
};

// A constant text per enumeration value, with a fallback for the rest.
template <std::size_t N>
const char *name_of(const enum_name (&names)[N], uint32_t value, const char *fallback)
{
    for (const enum_name &n : names) {
        if (n.value == value) {
            return n.text;
        }
    }
    return fallback;
}

constexpr enum_name kActionNames[] = {
    {POL_ACTION_ACCEPT, "accept"},
    {POL_ACTION_REJECT, "reject"},
};
constexpr enum_name kTypeNames[] = {
    {POL_TYPE_ROUTE, "route"},           {POL_TYPE_DATA, "data"},
    {POL_TYPE_PFR, "perf route"},        {POL_TYPE_MEMBERSHIP, "membership"},
    {POL_TYPE_CFLOWD, "cflowd"},
};
constexpr enum_name kListTypeNames[] = {
    {POL_LIST_PREFIX, "prefix-list"},
    {POL_LIST_SITE, "site-list"},
    {POL_LIST_TLOC, "tloc-list"},
};
constexpr enum_name kDirNames[] = {
    {POL_DIR_NONE, "none"},
    {POL_DIR_IN, "in"},
    {POL_DIR_OUT, "out"},
};
constexpr enum_name kMatchTypeNames[] = {
    {POL_MATCH_VROUTE, "route"},
    {POL_MATCH_TLOC, "tloc"},
    {POL_MATCH_SERVICE, "service"},
    {POL_MATCH_PACKET, "packet"},
};
constexpr enum_name kProtoNames[] = {
    {POL_PROTO_UDP, "udp"},
    {POL_PROTO_TCP, "tcp"},
    {POL_PROTO_ICMP, "icmp"},
};
// PFX_OP_NONE has no text: it renders as the fallback.
constexpr enum_name kPfxOpNames[] = {
    {PFX_OP_RANGE, "RANGE"}, {PFX_OP_XRANGE, "XRANGE"}, {PFX_OP_EQ, "EQ"}, {PFX_OP_NE, "NE"},
    {PFX_OP_LE, "LE"},       {PFX_OP_LT, "LT"},         {PFX_OP_GE, "GE"}, {PFX_OP_GT, "GT"},
};
constexpr enum_name kDscpNames[] = {
    {POL_DSCP_DEFAULT, "default"}, {POL_DSCP_AF11, "af11"}, {POL_DSCP_AF12, "af12"},
    {POL_DSCP_AF13, "af13"},       {POL_DSCP_AF21, "af21"}, {POL_DSCP_AF22, "af22"},
    {POL_DSCP_AF23, "af23"},       {POL_DSCP_AF31, "af31"}, {POL_DSCP_AF32, "af32"},
    {POL_DSCP_AF33, "af33"},       {POL_DSCP_AF41, "af41"}, {POL_DSCP_AF42, "af42"},
    {POL_DSCP_AF43, "af43"},       {POL_DSCP_EF, "ef"},     {POL_DSCP_CS1, "cs1"},
    {POL_DSCP_CS2, "cs2"},         {POL_DSCP_CS3, "cs3"},   {POL_DSCP_CS4, "cs4"},
    {POL_DSCP_CS5, "cs5"},         {POL_DSCP_CS6, "cs6"},   {POL_DSCP_CS7, "cs7"},
};

// One word of a flag-word rendering.
struct flag_word {
    uint64_t bit;
    const char *word;
};

// Data-policy conditions reuse bits of control-policy conditions: source
// IP shares the carrier bit, destination IP the group bit, source port the
// metric bit. Such a bit renders both of its words, in this order.
constexpr flag_word kMatchFlagWords[] = {
    {POL_MATCH_FLAG_TAG, "TAG"},
    {POL_MATCH_FLAG_ORIGIN_METRIC, "METRIC"},
    {POL_MATCH_FLAG_DOMAIN, "DOMAIN"},
    {POL_MATCH_FLAG_PREFERENCE, "PREF"},
    {POL_MATCH_FLAG_VPN_ID, "VPN-ID"},
    {POL_MATCH_FLAG_VPN_LIST, "VPN-LIST"},
    {POL_MATCH_FLAG_SITE, "SITE"},
    {POL_MATCH_FLAG_SITE_LIST, "SITE-LIST"},
    {POL_MATCH_FLAG_TLOC, "TLOC"},
    {POL_MATCH_FLAG_TLOC_LIST, "TLOC-LIST"},
    {POL_MATCH_FLAG_PFX_LIST, "PFX-LIST"},
    {POL_MATCH_FLAG_ORIGIN, "ORIGIN"},
    {POL_MATCH_FLAG_ORIGINATOR, "ORIGINATOR"},
    {POL_MATCH_FLAG_CARRIER, "CARRIER"},
    {POL_MATCH_FLAG_GROUP, "GROUP"},
    {0x1000ULL, "SRC_IP"},
    {0x2000ULL, "DST_IP"},
    {0x800000ULL, "SRC66_IP"},  // sic: the word operators' scripts know
    {1ULL << 24, "DST6_IP"},
    {0x4000ULL, "SRC_PORT"},
    {0x8000ULL, "DST_PORT"},
    {0x10000ULL, "DSCP"},
    {0x20000ULL, "PROTO"},
    {POL_MATCH_FLAG_COLOR, "COLOR"},
    {POL_MATCH_FLAG_COLOR_LIST, "COLOR-LIST"},
    {POL_MATCH_FLAG_COMMUNITY_LIST, "COMMUNITY-LIST"},
    {POL_MATCH_FLAG_EXP_COMMUNITY_LIST, "EXP-COMMUNITY-LIST"},
};

// The additive-community bit is deliberately not rendered.
constexpr flag_word kSetFlagWords[] = {
    {POL_SET_FLAG_TAG, "TAG"},
    {POL_SET_FLAG_PREFERENCE, "PREF"},
    {POL_SET_FLAG_TLOC, "TLOC"},
    {POL_SET_FLAG_VPN_ID, "VPN-ID"},
    {POL_SET_FLAG_VPN_LIST, "VPN-LIST"},
    {POL_SET_FLAG_SERVICE, "SERVICE"},
    {POL_SET_FLAG_TLOC_LIST, "TLOC_LIST"},
    {POL_SET_FLAG_COMMUNITY, "COMMUNITY"},
};

// Appends "word " for every set bit, in table order. Each snprintf advances
// the write position and shrinks the room by what it reports; once a word
// does not fit, the text ends truncated (and terminated) there.
template <std::size_t N>
char *render_flags(uint64_t flags, const flag_word (&words)[N], char *buf, size_t size)
{
    if (buf == nullptr || size == 0) {
        return buf;
    }
    buf[0] = '\0';
    char *pos = buf;
    size_t room = size;
    for (const flag_word &fw : words) {
        if ((flags & fw.bit) == 0) {
            continue;
        }
        int n = std::snprintf(pos, room, "%s ", fw.word);
        if (n < 0 || static_cast<size_t>(n) >= room) {
            break;
        }
        pos += n;
        room -= static_cast<size_t>(n);
    }
    return buf;
}

}  // namespace

extern "C" {

const char *g_pol_meminfo_file = "/var/log/pol_meminfo.txt";

void pol_log_set_sink(pol_log_sink_f sink)
{
    g_log_sink = sink;
}

void pol_log_write(const char *func, int line, const char *fmt, ...)
{
    char text[kLogTextSize];
    int n = std::snprintf(text, sizeof(text), "%s[%d]: [POL] ", func, line);
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text + n, sizeof(text) - n, fmt, ap);
    va_end(ap);
    if (g_log_sink != nullptr) {
        g_log_sink(POL_LOG_PRIORITY, text);
    } else {
        syslog(POL_LOG_PRIORITY, "%s", text);
    }
}

const char *pol_util_action_str(uint32_t action)
{
    return name_of(kActionNames, action, "unknown");
}

const char *pol_util_type_str(uint32_t type)
{
    return name_of(kTypeNames, type, "unknown");
}

const char *pol_util_list_type_str(uint32_t type)
{
    return name_of(kListTypeNames, type, "unknown");
}

// Deliberately upper case, unlike the other fallbacks.
const char *pol_util_dir_str(uint32_t dir)
{
    return name_of(kDirNames, dir, "UNKNOWN");
}

const char *pol_util_match_type_str(uint32_t match_type)
{
    return name_of(kMatchTypeNames, match_type, "unknown");
}

const char *pol_util_proto_str(uint32_t proto)
{
    return name_of(kProtoNames, proto, "unknown");
}

const char *pol_util_pfx_op_str(uint32_t op)
{
    return name_of(kPfxOpNames, op, "UNKNOWN");
}

const char *pol_util_dscp_str(uint32_t dscp)
{
    return name_of(kDscpNames, dscp, "unknown");
}

char *pol_util_match_flags_str(const t_pol_entry *entry, char *buf, size_t size)
{
    return render_flags(entry != nullptr ? entry->entry_match_flags : 0, kMatchFlagWords, buf, size);
}

char *pol_util_set_flags_str(const t_pol_entry *entry, char *buf, size_t size)
{
    return render_flags(entry != nullptr ? entry->entry_set_flags : 0, kSetFlagWords, buf, size);
}

void pol_cli_printf(struct mgmtd_cli_user_info *uinfo, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    maapi_cli_vprintf(uinfo != nullptr ? uinfo->maapi_sock : -1, uinfo != nullptr ? uinfo->usid : 0,
                      fmt, ap);
    va_end(ap);
}

void pol_cli_dump_heading(struct mgmtd_cli_user_info *uinfo, const char *title)
{
    pol_cli_printf(uinfo, "\n================================");
    pol_cli_printf(uinfo, "%s", title);
    pol_cli_printf(uinfo, "\n================================");
}

void pol_assert_fail(const char *file, unsigned line, const char *cond)
{
    std::printf("%s:%u: failed assertion `%s'\n", file, line, cond);
    std::fflush(stdout);
    std::abort();
}

int pol_dump_memory_info(struct mgmtd_cli_user_info *uinfo, int argc, char **argv)
{
    const int sock = uinfo != nullptr ? uinfo->maapi_sock : -1;
    const uint32_t usid = uinfo != nullptr ? uinfo->usid : 0;

    maapi_cli_printf(sock, usid, "    ================================");
    maapi_cli_printf(sock, usid, "\n    MEMORY STATISTICS");
    maapi_cli_printf(sock, usid, "\n    ================================");
    maapi_cli_printf(sock, usid, "\n%-20s    %-25s    %-10s  %-4s  %-12s    %-12s    %-12s    %-12s\n",
                     "DESCRIPTION", "TYPE", "SIZE", "CACHE", "#ALLOC", "#FREE", "#PEAK", "#CURRENT");

    uint64_t total = 0;
    uint64_t push_total = 0;
    for (int i = 0; i < POL_MEM_MAX; i++) {
        const t_pol_mem_info &row = g_pol_mem_info[i];
        const uint64_t current = current_count(row);
        maapi_cli_printf(sock, usid, "\n%-20s    %-25s    %-10u  %-4s  %-12lu    %-12lu    %-12lu    %-12lu",
                         row.desc, row.struct_name, row.struct_size, row.cache_needed ? "yes" : "no",
                         (unsigned long)row.alloc, (unsigned long)row.free,
                         (unsigned long)row.max_alloc, (unsigned long)current);
        total += row.struct_size * current;
        if (in_push_total(i)) {
            push_total += row.struct_size * current;
        }
    }
    maapi_cli_printf(sock, usid, "\n\nTotal memory used: %d Bytes", static_cast<int32_t>(total));
    maapi_cli_printf(sock, usid, "\nPolicy push memory used: %d Bytes",
                     static_cast<int32_t>(push_total));

    if (argc > 1 && argv != nullptr && argv[1] != nullptr && std::strstr(argv[1], "--detail")) {
        FILE *fp = std::fopen(g_pol_meminfo_file, "w");
        if (fp == nullptr) {
            return 0;
        }
        if (malloc_info(0, fp) == 0) {
            maapi_cli_printf(sock, usid, "\n wrote malloc info to %s\n", g_pol_meminfo_file);
        } else {
            maapi_cli_printf(sock, usid, "\n Could not write malloc info to %s\n", g_pol_meminfo_file);
        }
        std::fclose(fp);
    }
    return 0;
}

}  // extern "C"
