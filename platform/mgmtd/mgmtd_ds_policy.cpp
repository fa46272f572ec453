// Schema bindings of the policy configuration module: the module text
// (embedded at build time from zen-policy.yang) and its tag table.
#include <zen/mgmtd_ds.h>
#include <zen/zen_policy_tags.h>

#include <iterator>

#include "zen_policy_module.hpp"

namespace {

// The tag of every node name of the module (zen/zen_policy_tags.h).
constexpr mgmtd_ds_tag_t kPolicyTags[] = {
#define MGMTD_DS_POLICY_TAG(id, name, tag) {name, tag},
    ZEN_POLICY_TAGS(MGMTD_DS_POLICY_TAG)
#undef MGMTD_DS_POLICY_TAG
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
