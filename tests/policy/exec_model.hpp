// Building and changing control-policy models for cross-checks of route
// execution against exec_reference: named lists, sequence conditions and
// set actions, routes, and the outcome of one execution as comparable
// lines. Every choice comes from a chooser, so that a seeded generator
// and a fuzzer's input bytes drive the same operations.
#ifndef EXEC_MODEL_HPP
#define EXEC_MODEL_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "exec_reference.hpp"
#include "pol_internal.h"

namespace execmodel {

// How far values spread. Long lists need wide spans to hold distinct
// entries; routes drawn from the same spans still fall on them.
struct spans {
    uint32_t ids = 26;          // site and VPN ids, most of them below this
    uint32_t tloc_addrs = 3;    // distinct IPv4 TLOC addresses
    uint32_t prefix_rows = 4;   // values of the address word below a prefix's /16 (IPv4) or /48 (IPv6)
    uint32_t pfx_entries = 2;   // how far into a prefix list a delete or rewrite reaches for its entry
};

// Where every choice comes from.
class chooser {
public:
    spans spread;

    virtual ~chooser() = default;
    // 0 to n - 1 (0 when n is 0).
    virtual uint32_t below(uint32_t n) = 0;
    virtual uint64_t bits() = 0;

    bool percent(uint32_t p) { return below(100) < p; }
    template <typename T, std::size_t N>
    T pick(const T (&options)[N]) { return options[below(N)]; }
};

// Every family uses the same few names, so that conditions and actions
// name lists that exist, lists that were dropped and lists never filled.
extern const char *const kListNames[3];

enum family : unsigned { SITE, VPN, TLOC, COLOR, PFX, COMMUNITY, EXP_COMMUNITY, FAMILIES };
// REWRITE adds an entry with the prefix of one a prefix list holds: a
// new operator and bounds for it (on other families, an addition).
enum list_op : unsigned { ADD, DELETE_ENTRY, DROP_LIST, REWRITE };

// The value a list change concerned, to steer a route onto it.
struct touched {
    family fam;
    uint32_t id;         // SITE, VPN: one end of the range
    t_tloc_id tloc;      // TLOC
    uint32_t color;      // COLOR
    t_ipprefix prefix;   // PFX
    uint32_t community;  // COMMUNITY, EXP_COMMUNITY
};

// One change to the named list of a family, with a value from a small
// span (so that additions repeat entries and deletions hit them).
touched change_list(t_pol_ctx *ctx, chooser &c, family fam, list_op op, const char *name);

// The n-th entry of a prefix list, or null.
t_pfx_entry *pfx_entry_at(t_pol_ctx *ctx, const t_pfx_list_key &key, uint32_t n);

// An address's width in bits (32 or 128), and bit i of it (0 the most
// significant) set or cleared.
unsigned width_of(const t_ipaddr &a);
void set_bit(t_ipaddr &a, unsigned i, bool on);

// Condition kinds are execref::condition_kind; set kinds follow from
// kSetsFrom, in execref::set_kind order without the additive community
// (the community kind picks replace, additive or both).
constexpr int kSetsFrom = execref::COND_COUNT;
constexpr int kKinds = kSetsFrom + int{execref::SET_COUNT} - 1;

// Adds one condition or set action of a kind, with a value from the
// chooser, to a sequence; or removes it.
void change_sequence(t_pol_ctx *ctx, chooser &c, t_pol_entry *seq, int kind, bool add);

// A value for the default entry of a block: its action and, now and then,
// set actions (the default entry has no store operations of its own).
void set_default(chooser &c, t_pol_block *block);

// A route attribute record; community_p, when set, comes from calloc and
// goes back with std::free.
t_zen_attr random_attr(chooser &c);
t_tloc_id random_tloc(chooser &c);
// A prefix whose host bits are cleared more often for a list entry than
// for a route.
t_ipprefix random_prefix(chooser &c, bool ipv6, bool route);
uint64_t random_id(chooser &c, bool vpn = false);

// A label callback that answers every TLOC with none, one or two labels
// hashed from every argument, and leaves the table's last slot free for
// the ultimate fallback.
void hash_label_cb(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id,
                   uint16_t service, bool svc_local, uint32_t *label_p, t_tloc_id *tloc_p,
                   t_pol_te_info *te, uint32_t preference);

// Everything one execution hands back, a field a line.
std::vector<std::string> outcome(e_pol_action verdict, const t_pol_exec_params &p, const t_pol_te_info &te);

}  // namespace execmodel

#endif  // EXEC_MODEL_HPP
