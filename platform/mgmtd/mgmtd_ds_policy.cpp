// Schema bindings of the policy configuration module: the module text
// (embedded at build time from zen-policy.yang) and its tag table.
#include <zen/mgmtd_ds.h>

#include <iterator>

#include "zen_policy_module.hpp"

namespace {

// The tag of every node name of the module. A name has one tag wherever it
// occurs, as the schema compiler hashes names: "preference" is the same
// tag in a TLOC-list entry, a match and a set. The first group holds the
// values the policy readers know by number; the second the tags this
// project assigned to the remaining names (0x7a70xxxx).
constexpr mgmtd_ds_tag_t kPolicyTags[] = {
    // leaves and containers with a fixed role
    {"preference", 0x176ecfd3},
    {"ge", 0x0c7fba2e},
    {"le", 0x10ae453c},
    {"eq", 0x0308c88e},
    {"default-action", 0x7037c488},
    {"action", 0x0369ffb7},
    {"ultimate-tloc-action", 0x4a63a685},
    {"omp-tag", 0x0c2c7467},
    {"vpn", 0x4d7d11c2},
    {"vpn-list", 0x6aebf6e6},
    {"tloc-list", 0x72d28bfe},
    {"community", 0x04de5c80},
    {"additive", 0x4e8cbcb6},
    {"service", 0x32fc12e6},
    {"tloc", 0x33c074ce},
    {"address", 0x61fa2cdb},
    {"color", 0x2b503622},
    {"encap", 0x5a62686b},
    {"type", 0x6ccfcce4},
    {"carrier", 0x4ef9605a},
    {"site-list", 0x6d6fa00b},
    {"site-id", 0x59a72353},
    {"origin", 0x775cf168},
    {"originator", 0x470748d8},
    {"group-id", 0x7ce0369b},
    {"domain-id", 0x1beabc63},
    {"prefix-list", 0x5dc389d2},
    {"ipv6-prefix-list", 0x1acbe4b9},
    {"color-list", 0x3129eae5},
    {"ospf-tag", 0x06c5a139},
    {"metric", 0x0e042d5a},
    {"ip-prefix-list", 0x4b843099},
    // project-assigned
    {"policy", 0x7a700001},
    {"lists", 0x7a700002},
    {"name", 0x7a700003},
    {"site", 0x7a700004},
    {"range", 0x7a700005},
    {"entry", 0x7a700006},
    {"prefix", 0x7a700007},
    {"community-list", 0x7a700008},
    {"expanded-community-list", 0x7a700009},
    {"pattern", 0x7a70000a},
    {"control-policy", 0x7a70000b},
    {"sequence", 0x7a70000c},
    {"seq", 0x7a70000d},
    {"match", 0x7a70000e},
    {"kind", 0x7a70000f},
    {"set", 0x7a700010},
    {"route-policy", 0x7a700011},
    {"membership-policy", 0x7a700012},
};

constexpr mgmtd_ds_schema_t kPolicySchema = {
    "zen-policy",
    zen::kPolicyModuleText,
    kPolicyTags,
    std::size(kPolicyTags),
};

}  // namespace

extern "C" const mgmtd_ds_schema_t *mgmtd_ds_policy_schema(void)
{
    return &kPolicySchema;
}
