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

// Where every choice comes from.
class chooser {
public:
    virtual ~chooser() = default;
    // 0 to n - 1 (0 when n is 0).
    virtual uint32_t below(uint32_t n) = 0;
    virtual uint64_t bits() = 0;

    bool percent(uint32_t p) { return below(100) < p; }
    template <typename T, std::size_t N>
    T pick(const T (&options)[N])
    {
        return options[below(N)];
    }
};

// Every family uses the same few names, so that conditions and actions
// name lists that exist, lists that were dropped and lists never filled.
extern const char *const kListNames[3];

enum family : unsigned { SITE, VPN, TLOC, COLOR, PFX, COMMUNITY, EXP_COMMUNITY, FAMILIES };
enum list_op : unsigned { ADD, DELETE_ENTRY, DROP_LIST };

// One change to the named list of a family, with a value from a small
// span (so that additions repeat entries and deletions hit them).
void change_list(t_pol_ctx *ctx, chooser &c, family fam, list_op op, const char *name);

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
t_ipprefix random_prefix(chooser &c, bool ipv6);
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
