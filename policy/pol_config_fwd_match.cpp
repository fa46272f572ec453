// Readers of a data-policy sequence's colour sets and of its match leaves
// that fill arrays (prefixes, port and length ranges "%u-%u", protocol and
// DSCP values, ICMP messages): each array is replaced whole.
#include <cstdio>
#include <cstring>

#include "pol_config_fwd_internal.hpp"

namespace pol::config::fwd {

namespace {

/* ---- colour masks ---- */

const mgmtd_value_t *list_items(const mgmtd_tag_value_t *cur_val_p, uint32_t *count)
{
    POL_ASSERT((&cur_val_p->v)->type == C_LIST);
    *count = cur_val_p->v.val.list.size;
    return cur_val_p->v.val.list.ptr;
}

}  // namespace

uint32_t colors_mask(const mgmtd_tag_value_t *cur_val_p)
{
    uint32_t count = 0;
    const mgmtd_value_t *items = list_items(cur_val_p, &count);
    uint32_t mask = 0;
    for (uint32_t i = 0; i < count; i++) {
        POL_ASSERT((&items[i])->type == C_ENUM_VALUE);
        mask |= pol_yang_enum_to_filter_mask(static_cast<uint32_t>(items[i].val.enumvalue));
    }
    return mask;
}

uint8_t sla_colors_mask(const mgmtd_tag_value_t *cur_val_p)
{
    return static_cast<uint8_t>(colors_mask(cur_val_p));
}

namespace {

/* ---- match arrays ---- */

// The array of the store a match leaf fills: the leaf's own tag, but for
// the source ports, whose array the store knows under another tag.
uint32_t array_tag(uint32_t leaf_tag)
{
    return leaf_tag == TAG_SRC_PORT ? static_cast<uint32_t>(TAG_PKT_DUP) : leaf_tag;
}

// The messages of one kind of match array.
struct array_texts {
    const char *del_failed;
    const char *alloc_failed;
    const char *add_failed;
};

constexpr array_texts kPfxTexts = {
    "Failed to del pfx from match %s policy entry",
    "Failed to alloc memory for pfx list, match %s policy entry",
    "Failed to add source-ip to match %s policy entry"};
constexpr array_texts kRangeTexts = {
    "Failed to del range config from match %s policy entry",
    "Failed to alloc memory for range config, match %s policy entry",
    "Failed to add pol ranges to match %s policy entry"};
constexpr array_texts kListTexts = {
    "Failed to del list config from match %s policy entry",
    "Failed to alloc memory for list config, match %s policy entry",
    "Failed to add pol list to match %s policy entry"};
constexpr array_texts kIcmpTexts = {
    "Failed to del icmp list config from match %s policy entry",
    "Failed to alloc memory for icmp list config, match %s policy entry",
    "Failed to add pol icmp list to match %s policy entry"};

// How one kind of array is counted, filled and handed to the store.
template <typename T>
struct array_kind {
    e_err (*upd)(t_pol_ctx *, const char *, e_pol_type, const char *, uint32_t, T *, uint32_t,
                 uint32_t);
    const array_texts *texts;
};

// fmt is one of the texts above, naming the policy type.
int32_t fail_array(const seq_at &at, const char *fmt)
{
    char what[160];
    std::snprintf(what, sizeof(what), fmt, pol_util_type_str(at.type));
    return POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, "%s - pol: %s, vpn: %s seq: %d", what,
                           at.keys.name, at.keys.vpn, static_cast<int>(at.keys.seq));
}

// The old array goes first (a removed leaf ends there); then a new one of
// count items, filled by fill(items) (false: the leaf is unusable), is
// handed over.
template <typename T, typename Fill>
int32_t replace_array(const seq_at &at, const array_kind<T> &kind, uint32_t tag, uint32_t count,
                      Fill &&fill)
{
    const fwd_keys &k = at.keys;
    if (kind.upd(at.ctx, k.name, at.type, k.vpn, k.seq, nullptr, 0, tag) != ERR_OK) {
        return fail_array(at, kind.texts->del_failed);
    }
    if (count == 0) {
        return POL_CONFIG_OK;
    }
    const e_pol_mem mem = pol_fwd_get_mem_type(tag);
    auto *items = static_cast<T *>(pol_calloc(count, sizeof(T), mem));
    if (items == nullptr) {
        return fail_array(at, kind.texts->alloc_failed);
    }
    if (!fill(items) || kind.upd(at.ctx, k.name, at.type, k.vpn, k.seq, items, count, tag) != ERR_OK) {
        pol_free(items, mem);
        return fail_array(at, kind.texts->add_failed);
    }
    return POL_CONFIG_OK;
}

constexpr array_kind<t_ipprefix> kPfxArrays = {pol_fwd_entry_pfx_upd, &kPfxTexts};
constexpr array_kind<t_pol_range> kRangeArrays = {pol_fwd_entry_range_config_upd, &kRangeTexts};
constexpr array_kind<uint8_t> kByteArrays = {pol_fwd_entry_list_config_upd, &kListTexts};
constexpr array_kind<uint32_t> kIcmpArrays = {pol_fwd_entry_icmp_list_config_upd, &kIcmpTexts};

int32_t read_prefixes(const seq_at &at, const mgmtd_tag_value_t *cur_val_p)
{
    uint32_t count = 0;
    const mgmtd_value_t *items = removed(cur_val_p) ? nullptr : list_items(cur_val_p, &count);
    return replace_array(at, kPfxArrays, cur_val_p->tag.tag, count, [&](t_ipprefix *out) {
        for (uint32_t i = 0; i < count; i++) {
            out[i] = key_prefix(&items[i]);
        }
        return true;
    });
}

// "80 443 8000-8080": numbers and low-high ranges separated by spaces.
uint32_t range_count(const char *text)
{
    uint32_t count = 0;
    for (const char *p = text; *p != '\0';) {
        while (*p == ' ') {
            p++;
        }
        if (*p != '\0') {
            count++;
        }
        while (*p != '\0' && *p != ' ') {
            p++;
        }
    }
    return count;
}

bool parse_ranges(const char *text, t_pol_range *out, uint32_t count)
{
    const char *p = text;
    for (uint32_t i = 0; i < count; i++) {
        while (*p == ' ') {
            p++;
        }
        unsigned low = 0;
        unsigned high = 0;
        const int got = std::sscanf(p, "%u-%u", &low, &high);
        if (got < 1) {
            return false;
        }
        out[i] = {low, got == 2 ? high : low};
        while (*p != '\0' && *p != ' ') {
            p++;
        }
    }
    return true;
}

int32_t read_ranges(const seq_at &at, const mgmtd_tag_value_t *cur_val_p)
{
    const char *text = removed(cur_val_p) ? "" : value_text(cur_val_p);
    const uint32_t count = range_count(text);
    return replace_array(at, kRangeArrays, array_tag(cur_val_p->tag.tag), count,
                         [&](t_pol_range *out) { return parse_ranges(text, out, count); });
}

int32_t read_bytes(const seq_at &at, const mgmtd_tag_value_t *cur_val_p)
{
    uint32_t count = 0;
    const mgmtd_value_t *items = removed(cur_val_p) ? nullptr : list_items(cur_val_p, &count);
    return replace_array(at, kByteArrays, cur_val_p->tag.tag, count, [&](uint8_t *out) {
        for (uint32_t i = 0; i < count; i++) {
            POL_ASSERT((&items[i])->type == C_UINT8);
            out[i] = items[i].val.u8;
        }
        return true;
    });
}

int32_t read_icmp(const seq_at &at, const mgmtd_tag_value_t *cur_val_p)
{
    uint32_t count = 0;
    const mgmtd_value_t *items = removed(cur_val_p) ? nullptr : list_items(cur_val_p, &count);
    return replace_array(at, kIcmpArrays, cur_val_p->tag.tag, count, [&](uint32_t *out) {
        for (uint32_t i = 0; i < count; i++) {
            POL_ASSERT((&items[i])->type == C_ENUM_VALUE);
            out[i] = static_cast<uint32_t>(items[i].val.enumvalue);
        }
        return true;
    });
}

struct array_leaf {
    uint32_t tag;
    array_reader_f read;
};

// Match leaves that fill an array of the sequence.
constexpr array_leaf kMatchArrays[] = {
    {TAG_SRC_IP, read_prefixes},       {TAG_SRC_IPV6, read_prefixes},
    {TAG_DST_IP, read_prefixes},       {TAG_DST_IPV6, read_prefixes},
    {TAG_SRC_PORT, read_ranges},       {TAG_DST_PORT, read_ranges},
    {TAG_PACKET_LENGTH, read_ranges},  {TAG_PROTOCOL, read_bytes},
    {TAG_DSCP, read_bytes},            {TAG_ICMP_MSG, read_icmp},
    {TAG_ICMP6_MSG, read_icmp},
};

}  // namespace

array_reader_f match_array_reader(uint32_t tag)
{
    for (const array_leaf &leaf : kMatchArrays) {
        if (leaf.tag == tag) {
            return leaf.read;
        }
    }
    return nullptr;
}

}  // namespace pol::config::fwd
