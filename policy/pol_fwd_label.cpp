// Forwarding labels of data-policy sequences. A sequence that steers to a
// TLOC, a TLOC list or a service keeps its targets in an internal TLOC
// list; the host's label callback labels them. When the host reports a
// change for an originator only the sequences aiming at that originator
// or at the service are refreshed; each refresh re-renders the policy's
// document and queues its users, who hear once per evaluation.
#include <cstdlib>
#include <cstring>

#include "pol_fwd_internal.hpp"
#include "pol_fwd_label.h"
#include "pol_xml.hpp"

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

/* ---- name sets ---- */

// Beside each set's queue, a hash of copies of its names, so that a lookup
// does not walk the queue. The hash holds no pointer into the queue: a
// queue emptied elsewhere is noticed (found empty) and its hash started
// afresh. A hash that could not grow is dropped and the set is walked
// until it is next emptied.
constexpr std::size_t kNameLen = sizeof(t_list_name_entry::list_name);
constexpr uint32_t kFirstBuckets = 64;

struct name_slot {
    name_slot *next;
    char name[kNameLen];
};

struct name_set {
    const t_list_name_head *list;
    name_set *next;
    name_slot **buckets;
    uint32_t n_buckets;
    uint32_t count;
    bool walk;  // no hash: the queue is walked
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
    for (uint32_t b = 0; b < set->n_buckets; b++) {
        while (name_slot *slot = set->buckets[b]) {
            set->buckets[b] = slot->next;
            std::free(slot);
        }
    }
    std::free(set->buckets);
    set->buckets = nullptr;
    set->n_buckets = 0;
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
    auto *set = static_cast<name_set *>(std::calloc(1, sizeof(name_set)));
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
            std::free(set);
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

bool hash_finds(const name_set *set, const char *name)
{
    if (set->n_buckets == 0) {
        return false;
    }
    for (const name_slot *slot = set->buckets[name_hash(name) % set->n_buckets]; slot != nullptr;
         slot = slot->next) {
        if (same_name(slot->name, name)) {
            return true;
        }
    }
    return false;
}

// Doubles the buckets once the set holds as many names as buckets.
bool grow(name_set *set)
{
    if (set->count < set->n_buckets) {
        return true;
    }
    const uint32_t n = set->n_buckets == 0 ? kFirstBuckets : set->n_buckets * 2;
    auto **buckets = static_cast<name_slot **>(std::calloc(n, sizeof(name_slot *)));
    if (buckets == nullptr) {
        return false;
    }
    for (uint32_t b = 0; b < set->n_buckets; b++) {
        while (name_slot *slot = set->buckets[b]) {
            set->buckets[b] = slot->next;
            name_slot *&head = buckets[name_hash(slot->name) % n];
            slot->next = head;
            head = slot;
        }
    }
    std::free(set->buckets);
    set->buckets = buckets;
    set->n_buckets = n;
    return true;
}

bool hash_add(name_set *set, const char *name)
{
    auto *slot = static_cast<name_slot *>(std::calloc(1, sizeof(name_slot)));
    if (slot == nullptr || !grow(set)) {
        std::free(slot);
        return false;
    }
    strlcpy(slot->name, name, kNameLen);
    name_slot *&head = set->buckets[name_hash(name) % set->n_buckets];
    slot->next = head;
    head = slot;
    set->count++;
    return true;
}

}  // namespace

extern "C" {

void pol_fwd_eval_label(t_pol_ctx *ctx, struct _t_vmgmtd_context *vmgmtd_ctx_p, uint32_t originator,
                        uint8_t color, uint64_t vpn_id, uint16_t service, bool service_local)
{
    t_pol_block *next = nullptr;
    for (t_pol_block *block = pol_block_first(ctx, POL_TYPE_DATA); block != nullptr; block = next) {
        next = pol_block_next(ctx, block, POL_TYPE_DATA);
        if ((block->pol_flags & kLabelBlockFlags) != 0) {
            pol_fwd_eval_block(ctx, vmgmtd_ctx_p, block, originator, color, vpn_id, service,
                               service_local);
        }
    }
    pol_user_chg_list_notify_all(ctx);
}

void pol_fwd_eval_block(t_pol_ctx *ctx, struct _t_vmgmtd_context *, t_pol_block *block,
                        uint32_t originator, uint8_t color, uint64_t vpn_id, uint16_t service, bool)
{
    originator_t o{};
    IPADDR_SET_V4(&o.tloc.addr, originator);
    o.tloc.color = color;
    o.vpn_id = vpn_id;
    o.service = service;
    pol::tree<t_pol_fwd_vpn_entry> vpns(&block->pol_fwd_vpn_list_entries);
    for (t_pol_fwd_vpn_entry *vpn = vpns.first(); vpn != nullptr; vpn = vpns.next(vpn)) {
        pol::tree<t_pol_entry> entries(&vpn->pol_entries);
        for (t_pol_entry *entry = entries.first(); entry != nullptr; entry = entries.next(entry)) {
            if (!aims_at(entry, o)) {
                continue;
            }
            const verdict v = evaluate(ctx, entry, o);
            if (v == verdict::stop_block) {
                return;
            }
            if (v == verdict::affected) {
                pol_fwd_upd_label_set_entry(ctx, &entry->set_entry);
                pol_block_users_add_to_chg_list(ctx, block);
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
    if (hashed ? hash_finds(set, name) : walk_finds(list, name)) {
        return 1;
    }
    auto *node = pol::alloc_record<t_list_name_entry>(POL_MEM_ENTRY_LIST);
    if (node == nullptr) {
        return 0;
    }
    strlcpy(node->list_name, name, kNameLen);
    TAILQ_INSERT_TAIL(list, node, list_name_entry);
    if (hashed && !hash_add(set, name)) {
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
