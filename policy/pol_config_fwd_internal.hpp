// What the data-policy readers share: the keys of a data-policy node, the
// sequence a callback changes, and the readers of a sequence's colour sets
// and match arrays (pol_config_fwd_match.cpp).
#ifndef POLICY_POL_CONFIG_FWD_INTERNAL_HPP
#define POLICY_POL_CONFIG_FWD_INTERNAL_HPP

#include "pol_config_internal.hpp"

namespace pol::config::fwd {

/* ---- keys ---- */

struct fwd_keys {
    const char *name;
    const char *vpn;
    uint16_t seq;
};

inline fwd_keys fwd_keys_of(e_pol_type pol_type, uint8_t num_keys, const mgmtd_value_t *key_p,
                     uint8_t expected)
{
    POL_ASSERT(pol_type == POL_TYPE_DATA || pol_type == POL_TYPE_PFR);
    check_key_count(num_keys, expected);
    fwd_keys keys = {key_text(&key_p[0]), "", 0};
    if (expected > 1) {
        keys.vpn = key_text(&key_p[1]);
    }
    if (expected > 2) {
        keys.seq = key_u16(&key_p[2]);
    }
    return keys;
}

/* ---- the sequence a callback changes ---- */

struct seq_at {
    t_vmgmtd_context *vmgmtd_ctx_p;
    t_pol_ctx *ctx;
    e_pol_type type;
    fwd_keys keys;
};

// Every failure names the sequence; msg ends in "match %s policy entry"
// with the coordinates to follow.
#define SEQ_FAIL(at, msg, ...)                                                                  \
    POL_CONFIG_FAIL(POL_CONFIG_NOT_FOUND, msg " - pol: %s, vpn: %s seq: %d", ##__VA_ARGS__,     \
                    pol_util_type_str((at).type), (at).keys.name, (at).keys.vpn,                \
                    static_cast<int>((at).keys.seq))

inline const char *op_text(bool add)
{
    return add ? "ADD" : "DEL";
}

/* ---- colour sets and match arrays ---- */

// One bit per colour of the leaf-list.
uint32_t colors_mask(const mgmtd_tag_value_t *cur_val_p);
// The SLA preferred colours are kept in 8 bits: a colour whose ordinal is
// 8 or more falls off.
uint8_t sla_colors_mask(const mgmtd_tag_value_t *cur_val_p);

// Reads a match leaf that fills an array of the sequence (the array is
// replaced whole); the callback status.
using array_reader_f = int32_t (*)(const seq_at &, const mgmtd_tag_value_t *);
// The reader of a match leaf that fills an array; null for other leaves.
array_reader_f match_array_reader(uint32_t tag);

}  // namespace pol::config::fwd

#endif  // POLICY_POL_CONFIG_FWD_INTERNAL_HPP
