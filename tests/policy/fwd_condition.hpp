// For the data-side list tests: a condition linked as the data-policy model
// links it (a match entry under a VPN-list record of a data policy), and a
// fixture whose data-policy users go first (a data policy with users
// outlives the shutdown's deletion).
#ifndef FWD_CONDITION_HPP
#define FWD_CONDITION_HPP

#include "pol_test_support.hpp"

namespace poltest {

struct FwdCondition {
    t_pol_fwd_vpn_entry vpn{};
    t_pol_match_entry match{};
    t_app_list_dll_node saas{};  // how the condition holds a SaaS list
    explicit FwdCondition(const char *policy)
    {
        uint8_t changed = 0;
        vpn.pol_block_p = pol_block_find_or_create(g_pol_ctx_p, policy, POL_TYPE_DATA, &changed);
        match.pol_vpn_p = &vpn;
        saas.match_entry_p = &match;
    }
};

class FwdListTest : public PolContextTest {
protected:
    // A user named after the data policy it watches, recording into calls_.
    void watch(const char *policy)
    {
        users_.push_back(register_user(policy, policy, POL_TYPE_DATA, POL_DIR_NONE, record_cb, &calls_));
    }
    void TearDown() override
    {
        for (t_pol_user *&user : users_) {
            pol_unregister(&user);
        }
        PolContextTest::TearDown();
    }
    std::vector<std::string> calls_;
    std::vector<t_pol_user *> users_;
};

}  // namespace poltest

#endif  // FWD_CONDITION_HPP
