// Forwarding labels of data-policy sequences. A sequence that steers to a
// TLOC, a TLOC list or a service keeps its targets in an internal TLOC
// list; the host's label callback labels them. When the host reports a
// change for an originator only the sequences aiming at that originator
// or at the service are refreshed; each refresh re-renders the policy's
// document and queues its users, who hear once per evaluation.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "pol_fwd_internal.hpp"
#include "pol_fwd_label.h"
#include "pol_xml.hpp"

uint64_t g_pol_fwd_target_changes = 0;

namespace {

constexpr uint32_t kLabelBlockFlags =
    POL_FWD_BLOCK_FLAG_SETS_TLOC | POL_FWD_BLOCK_FLAG_SETS_SERVICE | POL_FWD_BLOCK_FLAG_SETS_TLOC_LIST;

struct originator_t {
    t_tloc_id tloc;
    uint64_t vpn_id;
    uint16_t service;
};

bool has(const t_pol_entry *entry, uint64_t bit)
{
    return (entry->entry_set_flags & bit) != 0;
}

uint32_t ipv4_word(const t_ipaddr &addr)
{
    uint32_t word = 0;
    IPADDR_GET_IPV4(&addr, &word);
    return word;
}

bool any_target_at(const t_pol_set_entry &set, const t_ipaddr &addr)
{
    const t_tloc_entry *node;
    TAILQ_FOREACH(node, &set.fwd_tloc_entry_head, tloc_entry) {
        if (IPADDR_CMP(&node->tloc.addr, &addr) == 0) {
            return true;
        }
    }
    return false;
}

// Whether the sequence names the originator's VPN, service and TLOC at all.
bool aims_at(const t_pol_entry *entry, const originator_t &o)
{
    const t_pol_set_entry &s = entry->set_entry;
    if (s.set_fwd_vpn_id != o.vpn_id) {
        return false;
    }
    if (has(entry, POL_FWD_SET_FLAG_SERVICE) && s.set_fwd_service != o.service) {
        return false;
    }
    return !has(entry, POL_FWD_SET_FLAG_TLOC) || IPADDR_CMP(&s.set_fwd_tloc.addr, &o.tloc.addr) == 0;
}

enum class verdict { unaffected, affected, stop_block };

// The set TLOC wins over the TLOC list, the list over the service; a
// service sequence takes the host's fresh answer for its targets.
verdict evaluate(t_pol_ctx *ctx, t_pol_entry *entry, const originator_t &o)
{
    t_pol_set_entry *set = &entry->set_entry;
    if (has(entry, POL_FWD_SET_FLAG_TLOC)) {
        return verdict::affected;
    }
    if (has(entry, POL_FWD_SET_FLAG_TLOC_LIST)) {
        return any_target_at(*set, o.tloc.addr) ? verdict::affected : verdict::unaffected;
    }
    if (!has(entry, POL_FWD_SET_FLAG_SERVICE)) {
        return verdict::unaffected;
    }
    pol_fwd_entry_set_tloc_list_del_internal_list(ctx, set);
    if (!pol::fwd::append_service_targets(ctx, set, o.tloc)) {
        return verdict::stop_block;
    }
    return verdict::affected;
}

void call_label_cb(t_pol_ctx *ctx, const t_pol_set_entry &s, const t_tloc_id &tloc, uint32_t *label)
{
    t_pol_label_cb_f cb = ctx->init_params.pol_label_cb;
    if (cb == nullptr) {
        return;
    }
    const uint16_t service = has(s.pol_entry_p, POL_FWD_SET_FLAG_SERVICE) ? s.set_fwd_service : 0;
    cb(1, ipv4_word(tloc.addr), tloc.color, tloc.encap, s.set_fwd_vpn_id, service,
       s.set_fwd_service_local, label, nullptr, nullptr, 0);
}

// Every target into the record's TE table, each labelled afresh first
// when the targets come from a TLOC list. The table holds 64 targets; a
// sequence with more hands over its first 64.
void label_targets(t_pol_ctx *ctx, t_pol_set_entry *set, t_pol_te_info &te)
{
    const bool from_list = set->set_fwd_tloc_list_p != nullptr;
    t_tloc_entry *node;
    TAILQ_FOREACH(node, &set->fwd_tloc_entry_head, tloc_entry) {
        if (from_list) {
            call_label_cb(ctx, *set, node->tloc, &node->set_fwd_label);
        }
        if (te.num_entries < POL_MAX_TE_ENTRIES) {
            t_pol_te &slot = te.entries[te.num_entries++];
            slot.label = node->set_fwd_label;
            slot.preference = node->route_preference;
            TLOC_COPY(&slot.tloc, &node->tloc);
        }
    }
}

// The reader also refreshes app-route sequences: each policy is rendered
// as its own kind.
void rerender(t_pol_block *block)
{
    pol_xml_free_buf(&block->pol_xml);
    pol_xml_convert(block, &block->pol_xml,
                    block->pol_type == POL_TYPE_PFR ? POL_XML_TYPE_PFR_POLICY : POL_XML_TYPE_DATA_POLICY);
}

originator_t make_originator(uint32_t originator, uint8_t color, uint64_t vpn_id, uint16_t service)
{
    originator_t o{};
    IPADDR_SET_V4(&o.tloc.addr, originator);
    o.tloc.color = color;
    o.vpn_id = vpn_id;
    o.service = service;
    return o;
}

bool evaluated(const t_pol_block *block)
{
    return (block->pol_flags & kLabelBlockFlags) != 0;
}

verdict eval_sequence(t_pol_ctx *ctx, t_pol_block *block, t_pol_entry *entry, const originator_t &o)
{
    if (!aims_at(entry, o)) {
        return verdict::unaffected;
    }
    const verdict v = evaluate(ctx, entry, o);
    if (v == verdict::affected) {
        pol_fwd_upd_label_set_entry(ctx, &entry->set_entry);
        pol_block_users_add_to_chg_list(ctx, block);
    }
    return v;
}

/* ---- target index ---- */

// The data sequences by what they aim at, so that an originator's change
// looks at its own sequences only: a sequence that sets a TLOC under the
// TLOC's IPv4 address, else one that sets a TLOC list under the address of
// each of its targets, else one that sets a service under the service.
// That is the precedence of evaluate(), so every sequence an originator
// affects is under its address or its service; what else is found there
// is weeded out by the same tests as in the walk.
//
// Sequences are kept by name (policy, VPN list, number) and found again
// when asked for, so the index never points at a freed record. It is
// rebuilt when the targets of some sequence may have changed
// (g_pol_fwd_target_changes moved) or for another context. Candidates are
// taken in their walk order (policy name, VPN list name, sequence
// number), so the host is asked in the same order as by the walk.
constexpr uint64_t kAddrKey = 1ull << 32;
constexpr uint64_t kServiceKey = 2ull << 32;

struct target_ref {
    uint64_t key;
    uint32_t ordinal;  // position of the sequence in walk order
};

struct target_seq {
    char pol_name[POL_NAME_SIZE];
    char vpn_name[POL_NAME_SIZE];
    uint32_t seq_num;
};

struct target_index {
    const t_pol_ctx *ctx;
    uint64_t changes;
    target_ref *refs;  // by key, then ordinal
    uint32_t n_refs;
    target_seq *seqs;  // by ordinal
    uint32_t n_seqs;
};

target_index g_index{};
bool g_index_valid = false;

bool addr_key(const t_ipaddr &addr, uint64_t *key)
{
    if (addr.addr_type != IP_ADDR_V4) {
        return false;
    }
    *key = kAddrKey | ipv4_word(addr);
    return true;
}

// Hands fn every key the sequence is found under.
template <typename F>
void for_each_key(const t_pol_entry *entry, F &&fn)
{
    const t_pol_set_entry &s = entry->set_entry;
    uint64_t key = 0;
    if (has(entry, POL_FWD_SET_FLAG_TLOC)) {
        if (addr_key(s.set_fwd_tloc.addr, &key)) {
            fn(key);
        }
    } else if (has(entry, POL_FWD_SET_FLAG_TLOC_LIST)) {
        const t_tloc_entry *node;
        TAILQ_FOREACH(node, &s.fwd_tloc_entry_head, tloc_entry) {
            if (addr_key(node->tloc.addr, &key)) {
                fn(key);
            }
        }
    } else if (has(entry, POL_FWD_SET_FLAG_SERVICE)) {
        fn(kServiceKey | s.set_fwd_service);
    }
}

// Every data sequence in walk order with its block and VPN record.
template <typename F>
void for_each_data_sequence(t_pol_ctx *ctx, F &&fn)
{
    for (t_pol_block *block = pol_block_first(ctx, POL_TYPE_DATA); block != nullptr;
         block = pol_block_next(ctx, block, POL_TYPE_DATA)) {
        pol::tree<t_pol_fwd_vpn_entry> vpns(&block->pol_fwd_vpn_list_entries);
        for (t_pol_fwd_vpn_entry *vpn = vpns.first(); vpn != nullptr; vpn = vpns.next(vpn)) {
            pol::tree<t_pol_entry>(&vpn->pol_entries).for_each([&](t_pol_entry *entry) { fn(block, vpn, entry); });
        }
    }
}

int target_ref_cmp(const void *a, const void *b)
{
    const auto *x = static_cast<const target_ref *>(a);
    const auto *y = static_cast<const target_ref *>(b);
    return x->key != y->key ? pol::cmp3(x->key, y->key) : pol::cmp3(x->ordinal, y->ordinal);
}

// The index is counted as the blocks' memory, as their sequence
// candidates are.
constexpr e_pol_mem kIndexMem = POL_MEM_BLOCK;

template <typename T>
T *index_array(uint32_t n)
{
    return static_cast<T *>(pol_calloc(n + 1, sizeof(T), kIndexMem));
}

void drop_index()
{
    pol_free(g_index.refs, kIndexMem);
    pol_free(g_index.seqs, kIndexMem);
    g_index = target_index{};
    g_index_valid = false;
}

bool build_index(t_pol_ctx *ctx)
{
    uint32_t n_seqs = 0, n_refs = 0;
    for_each_data_sequence(ctx, [&](t_pol_block *, t_pol_fwd_vpn_entry *, t_pol_entry *entry) {
        uint32_t keys = 0;
        for_each_key(entry, [&](uint64_t) { keys++; });
        n_refs += keys;
        n_seqs += keys != 0 ? 1 : 0;
    });
    auto *refs = index_array<target_ref>(n_refs);
    auto *seqs = index_array<target_seq>(n_seqs);
    if (refs == nullptr || seqs == nullptr) {
        pol_free(refs, kIndexMem);
        pol_free(seqs, kIndexMem);
        return false;
    }
    uint32_t ordinal = 0, r = 0;
    for_each_data_sequence(ctx, [&](t_pol_block *block, t_pol_fwd_vpn_entry *vpn, t_pol_entry *entry) {
        const uint32_t before = r;
        for_each_key(entry, [&](uint64_t key) { refs[r++] = {key, ordinal}; });
        if (r != before) {
            target_seq &t = seqs[ordinal++];
            pol::copy_name(t.pol_name, block->pol_name);
            pol::copy_name(t.vpn_name, vpn->vpn_name);
            t.seq_num = entry->entry_num;
        }
    });
    std::qsort(refs, n_refs, sizeof(target_ref), target_ref_cmp);
    g_index = {ctx, g_pol_fwd_target_changes, refs, n_refs, seqs, n_seqs};
    g_index_valid = true;
    return true;
}

// Null when the index cannot be had; the caller walks instead.
const target_index *current_index(t_pol_ctx *ctx)
{
    if (g_index_valid && g_index.ctx == ctx && g_index.changes == g_pol_fwd_target_changes) {
        return &g_index;
    }
    drop_index();
    return build_index(ctx) ? &g_index : nullptr;
}

// The run of references under key.
std::pair<const target_ref *, const target_ref *> refs_under(const target_index &index, uint64_t key)
{
    const target_ref *first = index.refs, *last = index.refs + index.n_refs;
    const target_ref probe{key, 0};
    while (first != last) {  // lower bound
        const target_ref *mid = first + (last - first) / 2;
        if (target_ref_cmp(mid, &probe) < 0) {
            first = mid + 1;
        } else {
            last = mid;
        }
    }
    last = first;
    while (last != index.refs + index.n_refs && last->key == key) {
        last++;
    }
    return {first, last};
}

// The sequences under the originator's address and under its service,
// merged in walk order, each once; a policy whose evaluation stopped is
// left for the rest of this one.
void eval_candidates(t_pol_ctx *ctx, const target_index &index, const originator_t &o)
{
    uint64_t key = 0;
    auto by_addr = addr_key(o.tloc.addr, &key) ? refs_under(index, key)
                                               : std::pair<const target_ref *, const target_ref *>{};
    auto by_service = refs_under(index, kServiceKey | o.service);
    const char *stopped = nullptr;
    uint32_t last = UINT32_MAX;
    while (by_addr.first != by_addr.second || by_service.first != by_service.second) {
        auto &from = by_service.first == by_service.second ||
                             (by_addr.first != by_addr.second && by_addr.first->ordinal < by_service.first->ordinal)
                         ? by_addr
                         : by_service;
        const uint32_t ordinal = (from.first++)->ordinal;
        if (ordinal == last) {
            continue;
        }
        last = ordinal;
        const target_seq &t = index.seqs[ordinal];
        if (stopped != nullptr && std::strncmp(stopped, t.pol_name, POL_NAME_SIZE) == 0) {
            continue;
        }
        t_pol_block *block = pol_block_find(ctx, t.pol_name, POL_TYPE_DATA, nullptr);
        if (block == nullptr || !evaluated(block)) {
            continue;
        }
        t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, t.pol_name, POL_TYPE_DATA, t.vpn_name, t.seq_num, nullptr);
        if (entry != nullptr && eval_sequence(ctx, block, entry, o) == verdict::stop_block) {
            stopped = t.pol_name;
        }
    }
}

/* ---- name sets ---- */

// Beside each set's queue, a hash table of copies of its names, so that a
// lookup does not walk the queue. The table holds no pointer into the
// queue: a queue emptied elsewhere is noticed (found empty) and its table
// started afresh. A table that could not grow is dropped and the set is
// walked until it is next emptied. The set records and their tables are
// counted as the queue's nodes are.
constexpr std::size_t kNameLen = sizeof(t_list_name_entry::list_name);
constexpr uint32_t kFirstSlots = 64;  // a power of two; the table doubles at half full
constexpr e_pol_mem kNameMem = POL_MEM_ENTRY_LIST;

struct name_slot {
    bool used;
    char name[kNameLen];
};

struct name_set {
    const t_list_name_head *list;
    name_set *next;
    name_slot *slots;  // open addressing, linear probing
    uint32_t n_slots;
    uint32_t count;
    bool walk;  // no table: the queue is walked
};

name_set *g_name_sets = nullptr;

// FNV-1a over the stored part of the name (its first 32 characters).
uint64_t name_hash(const char *name)
{
    uint64_t h = 14695981039346656037ull;
    for (std::size_t i = 0; i < kNameLen - 1 && name[i] != '\0'; i++) {
        h = (h ^ static_cast<unsigned char>(name[i])) * 1099511628211ull;
    }
    return h;
}

bool same_name(const char *stored, const char *name)
{
    return std::strncmp(stored, name, kNameLen - 1) == 0;
}

void drop_slots(name_set *set)
{
    pol_free(set->slots, kNameMem);
    set->slots = nullptr;
    set->n_slots = 0;
    set->count = 0;
}

// A set met for the first time with names already in it is walked until
// it is next emptied.
name_set *name_set_of(const t_list_name_head *list)
{
    for (name_set *set = g_name_sets; set != nullptr; set = set->next) {
        if (set->list == list) {
            return set;
        }
    }
    auto *set = pol::alloc_record<name_set>(kNameMem);
    if (set != nullptr) {
        set->list = list;
        set->walk = !TAILQ_EMPTY(list);
        set->next = g_name_sets;
        g_name_sets = set;
    }
    return set;
}

void forget_name_set(const t_list_name_head *list)
{
    for (name_set **at = &g_name_sets; *at != nullptr; at = &(*at)->next) {
        if ((*at)->list == list) {
            name_set *set = *at;
            *at = set->next;
            drop_slots(set);
            pol_free(set, kNameMem);
            return;
        }
    }
}

bool walk_finds(const t_list_name_head *list, const char *name)
{
    const t_list_name_entry *node;
    TAILQ_FOREACH(node, list, list_name_entry) {
        if (same_name(node->list_name, name)) {
            return true;
        }
    }
    return false;
}

// The slot holding name, or the free slot where it would go.
name_slot *probe(name_slot *slots, uint32_t n_slots, const char *name)
{
    uint32_t at = static_cast<uint32_t>(name_hash(name)) & (n_slots - 1);
    while (slots[at].used && !same_name(slots[at].name, name)) {
        at = (at + 1) & (n_slots - 1);
    }
    return &slots[at];
}

bool table_finds(const name_set *set, const char *name)
{
    return set->n_slots != 0 && probe(set->slots, set->n_slots, name)->used;
}

// Doubles the table once it is half full.
bool grow(name_set *set)
{
    if (2 * (set->count + 1) <= set->n_slots) {
        return true;
    }
    const uint32_t n = set->n_slots == 0 ? kFirstSlots : set->n_slots * 2;
    auto *slots = static_cast<name_slot *>(pol_calloc(n, sizeof(name_slot), kNameMem));
    if (slots == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < set->n_slots; i++) {
        if (set->slots[i].used) {
            *probe(slots, n, set->slots[i].name) = set->slots[i];
        }
    }
    pol_free(set->slots, kNameMem);
    set->slots = slots;
    set->n_slots = n;
    return true;
}

bool table_add(name_set *set, const char *name)
{
    if (!grow(set)) {
        return false;
    }
    name_slot *slot = probe(set->slots, set->n_slots, name);
    slot->used = true;
    strlcpy(slot->name, name, kNameLen);
    set->count++;
    return true;
}

}  // namespace

extern "C" {

// Through the target index when it can be had, else by walking every
// data policy that has TLOC, TLOC-list or service sequences.
void pol_fwd_eval_label(t_pol_ctx *ctx, struct _t_vmgmtd_context *vmgmtd_ctx_p, uint32_t originator,
                        uint8_t color, uint64_t vpn_id, uint16_t service, bool service_local)
{
    if (const target_index *index = current_index(ctx)) {
        eval_candidates(ctx, *index, make_originator(originator, color, vpn_id, service));
        pol_user_chg_list_notify_all(ctx);
        return;
    }
    t_pol_block *next = nullptr;
    for (t_pol_block *block = pol_block_first(ctx, POL_TYPE_DATA); block != nullptr; block = next) {
        next = pol_block_next(ctx, block, POL_TYPE_DATA);
        if (evaluated(block)) {
            pol_fwd_eval_block(ctx, vmgmtd_ctx_p, block, originator, color, vpn_id, service,
                               service_local);
        }
    }
    pol_user_chg_list_notify_all(ctx);
}

void pol_fwd_target_index_release(void)
{
    drop_index();
}

void pol_fwd_eval_block(t_pol_ctx *ctx, struct _t_vmgmtd_context *, t_pol_block *block,
                        uint32_t originator, uint8_t color, uint64_t vpn_id, uint16_t service, bool)
{
    const originator_t o = make_originator(originator, color, vpn_id, service);
    pol::tree<t_pol_fwd_vpn_entry> vpns(&block->pol_fwd_vpn_list_entries);
    for (t_pol_fwd_vpn_entry *vpn = vpns.first(); vpn != nullptr; vpn = vpns.next(vpn)) {
        pol::tree<t_pol_entry> entries(&vpn->pol_entries);
        for (t_pol_entry *entry = entries.first(); entry != nullptr; entry = entries.next(entry)) {
            if (eval_sequence(ctx, block, entry, o) == verdict::stop_block) {
                return;
            }
        }
    }
}

void pol_fwd_upd_label(struct _t_vmgmtd_context *, t_pol_ctx *ctx, const char *pol_name,
                       e_pol_type pol_type, const char *vpn_list_name, uint32_t seq_num)
{
    t_pol_block *block = nullptr;
    t_pol_entry *entry = pol_fwd_pol_entry_get(ctx, pol_name, pol_type, vpn_list_name, seq_num, &block);
    if (entry != nullptr) {
        pol_fwd_upd_label_set_entry(ctx, &entry->set_entry);
    }
}

void pol_fwd_upd_label_set_entry(t_pol_ctx *ctx, t_pol_set_entry *set)
{
    t_pol_block *block = set->pol_vpn_p != nullptr ? set->pol_vpn_p->pol_block_p : nullptr;
    if (block == nullptr) {
        return;
    }
    auto *params = pol::alloc_record<t_pol_mgmtd_thread_label_params>(POL_MEM_POL_MGMTD_THREAD_ARGS);
    if (params == nullptr) {
        POL_LOG("Failed to allocate memory for t_pol_mgmtd_thread_label_param, running low on memory");
        return;
    }
    pol::copy_name(params->data_pol_name, block->pol_name);
    pol::copy_name(params->vpn_list_name, set->pol_vpn_p->vpn_name);
    params->seq_num = set->pol_entry_p->entry_num;
    set->set_fwd_label = 0;
    if (!IPADDR_IS_ZERO(&set->set_fwd_tloc.addr)) {
        call_label_cb(ctx, *set, set->set_fwd_tloc, &set->set_fwd_label);
        params->label = set->set_fwd_label;
    } else if (set->set_fwd_tloc_list_p != nullptr || has(set->pol_entry_p, POL_FWD_SET_FLAG_SERVICE)) {
        label_targets(ctx, set, params->fwd_te_info);
    }
    rerender(block);
    pol_block_users_add_to_chg_list(ctx, block);
    pol_free(params, POL_MEM_POL_MGMTD_THREAD_ARGS);
}

int pol_fwd_list_exists(t_list_name_head *list, const char *name)
{
    name_set *set = name_set_of(list);
    if (set != nullptr && TAILQ_EMPTY(list)) {
        drop_slots(set);
        set->walk = false;
    }
    const bool hashed = set != nullptr && !set->walk;
    if (hashed ? table_finds(set, name) : walk_finds(list, name)) {
        return 1;
    }
    auto *node = pol::alloc_record<t_list_name_entry>(POL_MEM_ENTRY_LIST);
    if (node == nullptr) {
        return 0;
    }
    strlcpy(node->list_name, name, kNameLen);
    TAILQ_INSERT_TAIL(list, node, list_name_entry);
    if (hashed && !table_add(set, name)) {
        drop_slots(set);
        set->walk = true;
    }
    return 0;
}

void pol_fwd_list_clear(t_list_name_head *list)
{
    while (t_list_name_entry *node = TAILQ_FIRST(list)) {
        TAILQ_REMOVE(list, node, list_name_entry);
        pol_free(node, POL_MEM_ENTRY_LIST);
    }
    forget_name_set(list);
}

}  // extern "C"
