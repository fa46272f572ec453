// What the configuration change callbacks share (pol_config.cpp): the
// schema tags they dispatch on, typed access to keys and values, the walk
// over a node's values with its trace, the parts of a TLOC that one change
// names, and leaves that map onto one add/delete pair of the store.
//
// The host's management layer calls one callback per changed list entry or
// container, with the node's keys and its leaves flattened in schema order.
// A callback checks the keys, then on MOP_DELETED removes what the node
// stands for; otherwise it walks the leaves, dispatching on their schema
// tags (unknown tags are skipped), and applies them to the model. Policy
// readers collect whether anything changed and flush the change queue once
// at their end; list stores notify by themselves.
//
// Keys or values of an unexpected type are errors of the schema binding and
// stop the process.
#ifndef POLICY_POL_CONFIG_INTERNAL_HPP
#define POLICY_POL_CONFIG_INTERNAL_HPP

#include <cstdint>
#include <span>
#include <type_traits>

#include <policy/pol_config.h>
#include <zen/zen_policy_tags.h>

#include "pol_internal.h"

namespace pol::config {

// Schema tags of the module's nodes (TAG_PREFERENCE, TAG_PREFLEN_MIN, ...).
enum schema_tag : uint32_t {
#define POL_CONFIG_TAG(id, name, tag) TAG_##id = tag,
    ZEN_POLICY_TAGS(POL_CONFIG_TAG)
#undef POL_CONFIG_TAG
};

/* ---- keys ---- */

void check_key_count(uint8_t num_keys, uint8_t expected);
const char *key_text(const mgmtd_value_t *key_p);
uint16_t key_u16(const mgmtd_value_t *key_p);
uint64_t key_u64(const mgmtd_value_t *key_p);
uint32_t key_enum(const mgmtd_value_t *key_p);
// An IPv4 or IPv6 address key.
void key_addr(t_ipaddr *addr, const mgmtd_value_t *key_p);
// An IPv4 or IPv6 prefix key.
t_ipprefix key_prefix(const mgmtd_value_t *key_p);

// Keys of a policy node: name, then sequence number, then match kind.
struct policy_keys {
    const char *name;
    uint16_t seq;
    uint32_t kind;
};

// Exactly `expected` keys, of which those beyond the name are read.
policy_keys policy_keys_of(uint8_t num_keys, const mgmtd_value_t *key_p, uint8_t expected);

/* ---- values ---- */

// The leaf went away in this change.
bool removed(const mgmtd_tag_value_t *cur_val_p);
uint32_t value_enum(const mgmtd_tag_value_t *cur_val_p);
uint32_t value_u32(const mgmtd_tag_value_t *cur_val_p);
uint8_t value_u8(const mgmtd_tag_value_t *cur_val_p);
uint16_t value_u16(const mgmtd_tag_value_t *cur_val_p);
bool value_bool(const mgmtd_tag_value_t *cur_val_p);
const char *value_text(const mgmtd_tag_value_t *cur_val_p);
void value_addr(t_ipaddr *addr, const mgmtd_tag_value_t *cur_val_p);
// Start (true) or end (false) of a container.
bool container_begins(const mgmtd_tag_value_t *cur_val_p);

/* ---- the walk over a node's values ---- */

// Every value is traced; list readers and policy readers trace differently.
enum class trace_form { list, policy };

void trace_value(trace_form form, uint32_t cur, const mgmtd_tag_value_t *cur_val_p);

// Hands every value to fn in order. fn returns nothing, or a status of
// which the first non-zero one ends the walk.
template <typename Fn>
int32_t walk_values(trace_form form, mgmtd_tag_value_t *val_p, uint32_t num_values, Fn &&fn)
{
    for (uint32_t cur = 0; cur < num_values; cur++) {
        const mgmtd_tag_value_t *cur_val_p = &val_p[cur];
        trace_value(form, cur, cur_val_p);
        if constexpr (std::is_void_v<std::invoke_result_t<Fn &, const mgmtd_tag_value_t *>>) {
            fn(cur_val_p);
        } else if (int32_t status = fn(cur_val_p); status != 0) {
            return status;
        }
    }
    return 0;
}

// Traces the values of a node whose leaves the reader does not read.
void trace_values(mgmtd_tag_value_t *val_p, uint32_t num_values);

// Flushes the change queue when the callback changed something.
int32_t notify_if_changed(t_pol_ctx *ctx, uint8_t changed);

/* ---- results ---- */

// The callback status of a store result: memory exhausted for ERR_ALLOC,
// so that the host stops the commit and delivers the change again; any
// other failure is a change the store refused.
int32_t status_of(e_err err);

// The callback status of a store operation that returns what it changed
// (a match or set entry, a sequence, a block): null means that a record it
// needed could not be allocated.
inline int32_t status_of(const void *stored)
{
    return stored != nullptr ? POL_CONFIG_OK : POL_CONFIG_NO_MEMORY;
}

/* ---- leaves of one choice ---- */

// The leaves of one schema choice that feed the same condition of the
// store (OMP and OSPF tag, IPv4 and IPv6 prefix list). The schema allows
// one of them at a time, so a change that switches between them removes
// one and sets the other: the leaf set wins over the leaf removed, in
// whichever order they come. Of two leaves set, the last wins.
class choice_leaves {
public:
    explicit choice_leaves(std::span<const uint32_t> tags) : tags_(tags) {}

    // Takes the leaf if it belongs to the choice.
    bool read(const mgmtd_tag_value_t *cur_val_p);

    // The leaf to apply once the walk is over, or null when the change
    // names none of the choice.
    const mgmtd_tag_value_t *outcome() const { return given_ != nullptr ? given_ : removal_; }

private:
    std::span<const uint32_t> tags_;
    const mgmtd_tag_value_t *given_ = nullptr;
    const mgmtd_tag_value_t *removal_ = nullptr;
};

/* ---- failure reasons ---- */

// Keeps the reason of a failing callback for pol_config_error; returns status.
int32_t keep_error(int32_t status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// A callback fails with status: the reason is logged and kept for the host.
#define POL_CONFIG_FAIL(status, fmt, ...) \
    (POL_LOG(fmt, ##__VA_ARGS__), pol::config::keep_error(status, fmt, ##__VA_ARGS__))

/* ---- TLOCs ---- */

// The parts of a TLOC that one change names. A removed encapsulation reads
// as IPsec; a removed address or colour either withdraws the whole TLOC
// (set and match TLOCs) or clears that part (the service TLOC).
class tloc_parts {
public:
    explicit tloc_parts(bool removal_withdraws);

    static bool is_part(uint32_t tag)
    {
        return tag == TAG_TLOC_ADDRESS || tag == TAG_COLOR || tag == TAG_ENCAP;
    }

    void read(const mgmtd_tag_value_t *cur_val_p);

    bool withdrawn() const { return withdrawn_; }
    bool given() const { return has_addr_ || has_color_ || has_encap_; }

    // The current TLOC with the parts of this change put in, copied byte
    // for byte so that an unchanged TLOC compares equal to the stored one.
    void over(const t_tloc_id &current, t_tloc_id *out) const;

private:
    bool removal_withdraws_;
    bool withdrawn_ = false;
    bool has_addr_ = false;
    bool has_color_ = false;
    bool has_encap_ = false;
    t_tloc_id tloc_;
};

/* ---- leaves that map onto one add/delete pair of the store ---- */

// An add returns the callback status of the store operation it calls.
using leaf_add_f = int32_t (*)(t_pol_ctx *, t_pol_entry *, const mgmtd_tag_value_t *, uint8_t *);
using leaf_del_f = void (*)(t_pol_ctx *, t_pol_entry *, uint8_t *);

struct leaf_pair {
    uint32_t tag;
    leaf_add_f add;
    leaf_del_f del;
};

// The add of a store operation that takes the leaf's value as Read reads it.
template <auto Add, auto Read>
int32_t add_leaf(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                 uint8_t *changed)
{
    return status_of(Add(ctx, entry, Read(cur_val_p), changed));
}

// Applies the leaf if the table knows its tag; a removed leaf deletes.
// The status of the add (deletes cannot fail); 0 for a tag not in the table.
int32_t apply_leaf(std::span<const leaf_pair> table, t_pol_ctx *ctx, t_pol_entry *entry,
                const mgmtd_tag_value_t *cur_val_p, uint8_t *changed);

/* ---- policies and sequences ---- */

// The sequence action leaf (0 accepts, 1 rejects, anything else is left
// alone); returns the action it applied.
e_pol_action read_action(t_pol_ctx *ctx, t_pol_entry *entry, const mgmtd_tag_value_t *cur_val_p,
                         uint8_t *changed);

// not_created: there was no memory for the block.
enum class policy_outcome { done, not_created, not_found };

// What every policy reader does: delete, create or find the block, then
// apply its default action.
policy_outcome read_policy(t_pol_ctx *ctx, const char *name, e_pol_type type, mgmtd_iter_op oper,
                           mgmtd_tag_value_t *val_p, uint32_t num_values);

int32_t delete_sequence(t_pol_ctx *ctx, t_pol_block *block, uint32_t seq);

// Created on MOP_CREATED, found otherwise; null when neither works.
t_pol_entry *sequence_for(t_pol_ctx *ctx, t_pol_block *block, uint32_t seq, mgmtd_iter_op oper,
                          uint8_t *changed);

/* ---- data policies ---- */

// Recomputes the labels of one data-policy sequence (context, policy name,
// type, VPN list, sequence number); the sequence reader calls it after a
// TLOC, TLOC-list, service or local-TLOC change. pol_fwd_upd_label unless
// a test puts its own; null puts pol_fwd_upd_label back.
using fwd_label_hook_f = void (*)(t_vmgmtd_context *, t_pol_ctx *, const char *, e_pol_type,
                                  const char *, uint32_t);
void set_fwd_label_hook(fwd_label_hook_f hook);

}  // namespace pol::config

#endif  // POLICY_POL_CONFIG_INTERNAL_HPP
