// What rendering the policy documents costs, and the documents themselves,
// for the operator's command line: one dump per object kind (an object by
// name, or every object of the kind), a summary table over every kind and
// the approximate five most expensive objects of a kind.
//
// Every kind is one row of a table (its name, the context tree holding its
// objects, how a record names itself and reaches its document, how one is
// found by name); the dumps and statistics are written once over that table.
#include <zen/mgmtd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>

#include "pol_util.hpp"
#include "pol_xml.hpp"

#define POL_XML_DEBUG_ASSERT(cond)                               \
    do {                                                         \
        if (!(cond)) {                                           \
            pol_assert_fail("pol_xml_debug", __LINE__, #cond);   \
        }                                                        \
    } while (0)

namespace {

using pol::xml::kXmlDeclSize;

// One object kind.
struct xml_kind {
    const char *name;
    e_pol_xml_type type;
    avl_tree_t t_pol_ctx::*tree;
    const char *(*name_of)(const void *rec);
    pol_xml_t *(*doc_of)(void *rec);
    void *(*find)(t_pol_ctx *ctx, const char *name);
};

template <typename T, auto Name>
const char *name_of(const void *rec)
{
    return static_cast<const T *>(rec)->*Name;
}

template <typename T, auto Doc>
pol_xml_t *doc_of(void *rec)
{
    return &(static_cast<T *>(rec)->*Doc);
}

template <e_pol_type Type>
void *find_block(t_pol_ctx *ctx, const char *name)
{
    return pol_block_find(ctx, name, Type, nullptr);
}

template <typename T, T *(*Find)(t_pol_ctx *, const char *)>
void *find_list(t_pol_ctx *ctx, const char *name)
{
    return Find(ctx, name);
}

template <e_pol_type Type>
constexpr xml_kind block_kind(const char *name, e_pol_xml_type type, avl_tree_t t_pol_ctx::*tree)
{
    return {name, type, tree, name_of<t_pol_block, &t_pol_block::pol_name>,
            doc_of<t_pol_block, &t_pol_block::pol_xml>, find_block<Type>};
}

template <typename T, auto Name, auto Doc, T *(*Find)(t_pol_ctx *, const char *)>
constexpr xml_kind list_kind(const char *name, e_pol_xml_type type, avl_tree_t t_pol_ctx::*tree)
{
    return {name, type, tree, name_of<T, Name>, doc_of<T, Doc>, find_list<T, Find>};
}

// In document-type order: kKinds[i].type == i + 1.
constexpr std::array<xml_kind, POL_XML_TYPE_MAX - 1> kKinds = {{
    block_kind<POL_TYPE_DATA>("data-policy", POL_XML_TYPE_DATA_POLICY, &t_pol_ctx::fwd_policies),
    block_kind<POL_TYPE_PFR>("app-route-policy", POL_XML_TYPE_PFR_POLICY, &t_pol_ctx::pfr_policies),
    block_kind<POL_TYPE_CFLOWD>("cflowd-template", POL_XML_TYPE_CFLOWD, &t_pol_ctx::cflowd_templates),
    list_kind<t_fwd_policer, &t_fwd_policer::fwd_policer_name, &t_fwd_policer::fwd_policer_xml,
              pol_fwd_policer_find>("policer", POL_XML_TYPE_POLICER, &t_pol_ctx::fwd_policers),
    list_kind<t_fwd_sla_class, &t_fwd_sla_class::sla_class_name, &t_fwd_sla_class::sla_class_xml,
              pol_fwd_sla_class_find>("sla-class", POL_XML_TYPE_SLA_CLASS, &t_pol_ctx::sla_classes),
    list_kind<t_app_probe_class, &t_app_probe_class::app_probe_class_name,
              &t_app_probe_class::app_probe_class_xml, pol_app_probe_class_find>(
        "app-probe-class", POL_XML_TYPE_APP_PROBE_CLASS, &t_pol_ctx::app_probe_class_list),
    list_kind<t_fwd_pfx_list, &t_fwd_pfx_list::fwd_pfx_list_name, &t_fwd_pfx_list::fwd_pfx_list_xml,
              pol_fwd_pfx_list_find>("data-prefix-list", POL_XML_TYPE_FWD_PFXLIST, &t_pol_ctx::fwd_pfx_lists),
    list_kind<t_fwd_pfx_list, &t_fwd_pfx_list::fwd_pfx_list_name, &t_fwd_pfx_list::fwd_pfx_list_xml,
              pol_fwd_pfx6_list_find>("data-ipv6-prefix-list", POL_XML_TYPE_FWD_PFX6LIST,
                                      &t_pol_ctx::fwd_pfx6_lists),
    list_kind<t_vpn_list, &t_vpn_list::vpn_list_name, &t_vpn_list::vpn_list_xml, pol_vpn_list_find>(
        "vpn-list", POL_XML_TYPE_VPNLIST, &t_pol_ctx::vpn_lists),
    list_kind<t_tloc_list, &t_tloc_list::tloc_list_name, &t_tloc_list::tloc_list_xml, pol_tloc_list_find>(
        "tloc-list", POL_XML_TYPE_TLOCLIST, &t_pol_ctx::tloc_lists),
    list_kind<t_app_list, &t_app_list::app_list_name, &t_app_list::app_list_xml, pol_app_list_find>(
        "app-list", POL_XML_TYPE_APPLIST, &t_pol_ctx::app_lists),
}};

static_assert([] {
    for (std::size_t i = 0; i < kKinds.size(); i++) {
        if (kKinds[i].type != static_cast<int>(i) + 1) {
            return false;
        }
    }
    return true;
}());

const xml_kind &kind_of(e_pol_xml_type type)
{
    return kKinds[type - 1];
}

template <typename F>
void for_each_object(const xml_kind &kind, F &&fn)
{
    pol::tree<void>(&(g_pol_ctx_p->*kind.tree)).for_each([&](void *rec) { fn(rec); });
}

bool kind_is_empty(const xml_kind &kind)
{
    return avl_is_empty(&(g_pol_ctx_p->*kind.tree)) != 0;
}

void print_document(mgmtd_cli_user_info *uinfo, const pol_xml_t *doc)
{
    if (doc->buf != nullptr && doc->buf_siz >= kXmlDeclSize) {
        pol_cli_printf(uinfo, "%s", doc->buf + kXmlDeclSize);
    }
}

// The document of the object named by the command's argument.
int dump_named(e_pol_xml_type type, mgmtd_cli_user_info *uinfo, int argc, char **argv)
{
    if (g_pol_ctx_p == nullptr || argc < 2 || argv == nullptr || argv[1] == nullptr) {
        return 0;
    }
    const xml_kind &kind = kind_of(type);
    if (void *rec = kind.find(g_pol_ctx_p, argv[1])) {
        print_document(uinfo, kind.doc_of(rec));
    }
    return 0;
}

void dump_all(e_pol_xml_type type, mgmtd_cli_user_info *uinfo)
{
    if (g_pol_ctx_p == nullptr) {
        return;
    }
    const xml_kind &kind = kind_of(type);
    for_each_object(kind, [&](void *rec) { print_document(uinfo, kind.doc_of(rec)); });
}

// The shared result buffer of the value renderers.
char g_pol_xml_stat_buf[32];

// value / unit in the largest unit of the four (decimal thousands) that
// keeps it at least 1; zero and negative values print in the largest unit.
const char *scaled_str(int64_t value, const char *const (&units)[4])
{
    float divisor = 1e9f;
    const char *unit = units[3];
    if (value >= 1 && value <= 999) {
        divisor = 1.0f;
        unit = units[0];
    } else if (value >= 1000 && value <= 999999) {
        divisor = 1e3f;
        unit = units[1];
    } else if (value >= 1000000 && value <= 999999999) {
        divisor = 1e6f;
        unit = units[2];
    }
    std::snprintf(g_pol_xml_stat_buf, sizeof(g_pol_xml_stat_buf), "%3.2f %s",
                  static_cast<double>(static_cast<float>(value) / divisor), unit);
    return g_pol_xml_stat_buf;
}

// A renderer's result kept while the next one is asked for.
struct stat_text {
    char text[sizeof(g_pol_xml_stat_buf)];
    explicit stat_text(const char *s) { pol::copy_name(text, s); }
};

/* ---- summary ---- */

constexpr const char *kSummaryBorder =
    "+----------------------+---------+---------+--------------+--------------+";

struct kind_totals {
    uint32_t objects = 0;
    uint32_t valid = 0;
    uint32_t bytes = 0;  // 32-bit sums: large totals wrap
    uint32_t nsecs = 0;
};

kind_totals totals_of(const xml_kind &kind)
{
    kind_totals t;
    for_each_object(kind, [&](void *rec) {
        const pol_xml_t *pol_xml = kind.doc_of(rec);
        POL_XML_DEBUG_ASSERT(pol_xml != NULL);
        t.objects++;
        if (pol_xml->buf_siz != 0) {
            t.valid++;
            t.bytes += pol_xml->buf_siz;
            t.nsecs += static_cast<uint32_t>(pol_xml->time_spent);
        }
    });
    return t;
}

void print_summary_row(mgmtd_cli_user_info *uinfo, const char *name, const kind_totals &t)
{
    const stat_text time(nsec_to_str(t.nsecs));
    pol_cli_printf(uinfo, " | %-20s | %-7u | %-7u | %-12s | %-12s |\n", name, t.objects, t.valid, time.text,
                   bytes_to_str(t.bytes));
}

/* ---- statistics ---- */

constexpr std::size_t kTopSlots = 5;

constexpr const char *kStatBorder = "+--------------------------+--------------+--------------+";

struct top_slot {
    const char *name;
    uint32_t bytes;
    time_t nsecs;
};

// Fills the first free slot (time 0); when none is free, replaces the
// first slot that cost less than rec. Not the cheapest one: the table is
// an approximate top five, at five comparisons an object.
void top_offer(std::array<top_slot, kTopSlots> &top, const char *name, const pol_xml_t &doc)
{
    const top_slot offer{name, doc.buf_siz, doc.time_spent};
    auto slot = std::find_if(top.begin(), top.end(), [](const top_slot &s) { return s.nsecs == 0; });
    if (slot == top.end()) {
        slot = std::find_if(top.begin(), top.end(), [&](const top_slot &s) { return s.nsecs < offer.nsecs; });
    }
    if (slot != top.end()) {
        *slot = offer;
    }
}

bool pol_xml_top_sort_by_time(const top_slot &a, const top_slot &b)
{
    return a.nsecs > b.nsecs;
}

const xml_kind *kind_named(const char *word)
{
    const std::size_t n = std::strlen(word);
    for (const xml_kind &kind : kKinds) {
        if (std::strncmp(kind.name, word, n) == 0) {
            return &kind;
        }
    }
    return nullptr;
}

bool is_all(const char *word)
{
    return std::strncmp("all", word, std::strlen(word)) == 0;
}

}  // namespace

namespace pol::xml {

void for_each_object(e_pol_xml_type type, const std::function<void(const kind_object &)> &visit)
{
    if (g_pol_ctx_p == nullptr || type <= POL_XML_TYPE_INVALID || type >= POL_XML_TYPE_MAX) {
        return;
    }
    const xml_kind &kind = kind_of(type);
    ::for_each_object(kind, [&](void *rec) { visit({type, kind.name_of(rec), rec, kind.doc_of(rec)}); });
}

}  // namespace pol::xml

extern "C" {

const char *pol_xml_type_str(uint32_t type)
{
    if (type <= POL_XML_TYPE_INVALID || type >= POL_XML_TYPE_MAX) {
        return "UNKNOWN";
    }
    return kind_of(static_cast<e_pol_xml_type>(type)).name;
}

const char *nsec_to_str(int64_t nsecs)
{
    static const char *const units[4] = {"nsec", "usec", "msec", "sec"};
    return scaled_str(nsecs, units);
}

const char *bytes_to_str(int64_t bytes)
{
    static const char *const units[4] = {"b", "Kb", "Mb", "Gb"};
    return scaled_str(bytes, units);
}

#define POL_XML_DUMP_PAIR(kind, type)                                                          \
    int pol_dump_xml_##kind(struct mgmtd_cli_user_info *uinfo, int argc, char **argv)          \
    {                                                                                          \
        return dump_named(type, uinfo, argc, argv);                                            \
    }                                                                                          \
    void pol_dump_xml_##kind##_all(struct mgmtd_cli_user_info *uinfo) { dump_all(type, uinfo); }

POL_XML_DUMP_PAIR(data_policy, POL_XML_TYPE_DATA_POLICY)
POL_XML_DUMP_PAIR(pfr_policy, POL_XML_TYPE_PFR_POLICY)
POL_XML_DUMP_PAIR(cflowd, POL_XML_TYPE_CFLOWD)
POL_XML_DUMP_PAIR(policer, POL_XML_TYPE_POLICER)
POL_XML_DUMP_PAIR(sla_class, POL_XML_TYPE_SLA_CLASS)
POL_XML_DUMP_PAIR(app_probe_class, POL_XML_TYPE_APP_PROBE_CLASS)
POL_XML_DUMP_PAIR(fwd_prefix_list, POL_XML_TYPE_FWD_PFXLIST)
POL_XML_DUMP_PAIR(fwd_prefix_ipv6_list, POL_XML_TYPE_FWD_PFX6LIST)
POL_XML_DUMP_PAIR(vpn_list, POL_XML_TYPE_VPNLIST)
POL_XML_DUMP_PAIR(tloc_list, POL_XML_TYPE_TLOCLIST)
POL_XML_DUMP_PAIR(app_list, POL_XML_TYPE_APPLIST)

#undef POL_XML_DUMP_PAIR

int pol_dump_xml_summary(struct mgmtd_cli_user_info *uinfo, int, char **)
{
    if (g_pol_ctx_p == nullptr) {
        return 0;
    }
    pol_cli_printf(uinfo, "\n %s\n | %-20s | %-7s | %-7s | %-12s | %-12s |\n %s\n", kSummaryBorder, "XML type",
                   "Objects", "Valid", "Total Time", "Total Bytes", kSummaryBorder);
    kind_totals all;
    for (const xml_kind &kind : kKinds) {
        const kind_totals t = totals_of(kind);
        print_summary_row(uinfo, kind.name, t);
        all.nsecs += t.nsecs;
        all.bytes += t.bytes;
    }
    const stat_text time(nsec_to_str(all.nsecs));
    pol_cli_printf(uinfo, " %s\n\n Total time spent      : %s\n Total space allocated : %s\n\n", kSummaryBorder,
                   time.text, bytes_to_str(all.bytes));
    return 0;
}

void pol_dump_obj_xml_statistics(struct mgmtd_cli_user_info *uinfo, e_pol_xml_type type)
{
    const xml_kind &kind = kind_of(type);
    if (g_pol_ctx_p == nullptr || kind_is_empty(kind)) {
        return;
    }
    std::array<top_slot, kTopSlots> top{};
    std::size_t objects = 0;
    for_each_object(kind, [&](void *rec) {
        top_offer(top, kind.name_of(rec), *kind.doc_of(rec));
        objects++;
    });
    std::sort(top.begin(), top.end(), pol_xml_top_sort_by_time);
    pol_cli_printf(uinfo, "\n %s\n | %-24s | %-12s | %-12s |\n %s\n", kStatBorder, "Object name", "Total Time",
                   "Total Bytes", kStatBorder);
    for (std::size_t i = 0; i < std::min(kTopSlots, objects); i++) {
        const stat_text time(nsec_to_str(top[i].nsecs));
        pol_cli_printf(uinfo, " | %-24.24s | %-12s | %-12s |\n", top[i].name != nullptr ? top[i].name : "",
                       time.text, bytes_to_str(top[i].bytes));
    }
    pol_cli_printf(uinfo, " %s\n\n", kStatBorder);
}

int pol_dump_xml_statistics(struct mgmtd_cli_user_info *uinfo, int argc, char **argv)
{
    if (g_pol_ctx_p == nullptr || argc < 2 || argv == nullptr || argv[1] == nullptr) {
        return 0;
    }
    const char *word = argv[1];
    if (const xml_kind *kind = kind_named(word)) {
        pol_dump_obj_xml_statistics(uinfo, kind->type);
    } else if (is_all(word)) {
        for (const xml_kind &k : kKinds) {
            if (!kind_is_empty(k)) {
                pol_cli_printf(uinfo, "\n %s ==>", k.name);
                pol_dump_obj_xml_statistics(uinfo, k.type);
            }
        }
    } else {
        pol_cli_printf(uinfo, "Unknown choice %s\n", word);
    }
    return 0;
}

}  // extern "C"
