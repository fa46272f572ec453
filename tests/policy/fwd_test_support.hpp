// A data policy "D" applied to VPN list "V" with sequence 10, and one user
// of it counting its change notifications; shared by the data-policy suites.
#ifndef FWD_TEST_SUPPORT_HPP
#define FWD_TEST_SUPPORT_HPP

#include "pol_test_support.hpp"

namespace poltest {

class FwdTest : public PolContextTest {
protected:
    void SetUp() override
    {
        PolContextTest::SetUp();
        uint8_t changed = 0;
        block_ = pol_block_find_or_create(ctx_, "D", POL_TYPE_DATA, &changed);
        ASSERT_NE(block_, nullptr);
        user_ = register_user("u", "D", POL_TYPE_DATA, POL_DIR_IN, count_cb, &calls_);
        vpn_ = pol_fwd_vpn_find_or_create(ctx_, "D", POL_TYPE_DATA, "V");
        ASSERT_NE(vpn_, nullptr);
        entry_ = pol_fwd_entry_find_or_create(ctx_, "D", POL_TYPE_DATA, "V", 10);
        ASSERT_NE(entry_, nullptr);
        notified();
    }
    void TearDown() override
    {
        pol_unregister(&user_);
        PolContextTest::TearDown();
    }

    // Change notifications delivered since the last call.
    int notified()
    {
        pol_user_chg_list_notify_all(ctx_);
        const int n = calls_;
        calls_ = 0;
        return n;
    }

    t_pol_block *block_ = nullptr;
    t_pol_user *user_ = nullptr;
    t_pol_fwd_vpn_entry *vpn_ = nullptr;
    t_pol_entry *entry_ = nullptr;
    int calls_ = 0;
};

inline t_ipaddr v4(uint32_t host)
{
    t_ipaddr a{};
    IPADDR_SET_V4(&a, htonl(0x0a000000u | host));
    return a;
}

}  // namespace poltest

#endif  // FWD_TEST_SUPPORT_HPP
