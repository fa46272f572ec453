// A data policy "D" applied to VPN list "V" with sequence 10, and one user
// of it counting its change notifications; a host answering label
// questions; shared by the data-policy suites.
#ifndef FWD_TEST_SUPPORT_HPP
#define FWD_TEST_SUPPORT_HPP

#include <arpa/inet.h>

#include <algorithm>
#include <sstream>

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

// A sequence's entries linked as the data-policy model links them: they
// reach their policy through the VPN record, never through their own block
// pointer (pointed at a decoy policy that nobody watches).
struct DataSequence {
    t_pol_fwd_vpn_entry vpn{};
    t_pol_match_entry match{};
    t_pol_set_entry set{};
    t_app_list_dll_node saas{};  // how the sequence holds a SaaS list

    explicit DataSequence(const char *policy, e_pol_type type = POL_TYPE_DATA)
    {
        uint8_t changed = 0;
        vpn.pol_block_p = pol_block_find_or_create(g_pol_ctx_p, policy, type, &changed);
        t_pol_block *decoy = pol_block_find_or_create(g_pol_ctx_p, "decoy", type, &changed);
        match.pol_vpn_p = set.pol_vpn_p = &vpn;
        match.pol_block_p = set.pol_block_p = decoy;
        saas.match_entry_p = &match;
    }
};

inline t_ipaddr v4(uint32_t host)
{
    t_ipaddr a{};
    IPADDR_SET_V4(&a, htonl(0x0a000000u | host));
    return a;
}

inline uint32_t host_byte(uint32_t word)
{
    return ntohl(word) & 0xff;
}

// The host: a TLOC's label is 100 + the low byte of its address; a service
// question (a TE table to fill) gets the answer set beforehand. Each call is
// recorded as "host/colour:vpn:service", the last one's other arguments as
// {afi, encap, service local, TLOC given and zero, last}.
struct LabelHost {
    std::vector<std::string> calls;
    uint32_t service_label = 0;
    std::vector<t_pol_te> service_te;
    std::vector<uint64_t> last_args;
};
inline LabelHost g_host;

inline void label_cb(uint16_t afi, uint32_t addr, uint8_t color, uint8_t encap, uint64_t vpn_id, uint16_t service,
                     bool svc_local, uint32_t *label_p, t_tloc_id *tloc_p, t_pol_te_info *te_info_p, uint32_t last)
{
    g_host.calls.push_back(std::to_string(host_byte(addr)) + "/" + std::to_string(color) + ":" +
                           std::to_string(vpn_id) + ":" + std::to_string(service));
    g_host.last_args = {afi, encap, svc_local,
                        tloc_p != nullptr && IPADDR_IS_ZERO(&tloc_p->addr) && tloc_p->color == 0, last};
    if (te_info_p == nullptr) {
        *label_p = 100 + host_byte(addr);
        return;
    }
    *label_p = g_host.service_label;
    for (const t_pol_te &e : g_host.service_te) {
        te_info_p->entries[te_info_p->num_entries++] = e;
    }
}

// A sequence's targets as "host/colour:label:preference".
inline std::vector<std::string> targets(const t_pol_entry *entry)
{
    std::vector<std::string> out;
    const t_tloc_entry *n;
    TAILQ_FOREACH(n, &entry->set_entry.fwd_tloc_entry_head, tloc_entry) {
        out.push_back(std::to_string(host_byte(n->tloc.addr.u.addr4.s_addr)) + "/" + std::to_string(n->tloc.color) +
                      ":" + std::to_string(n->set_fwd_label) + ":" + std::to_string(n->route_preference));
    }
    return out;
}

// A dump's records in order: each one's name and the lines under it.
using Records = std::vector<std::pair<std::string, std::vector<std::string>>>;
inline Records records(void (*fn)(mgmtd_cli_user_info *))
{
    Records out;
    std::istringstream text(dump(fn));
    for (std::string l; std::getline(text, l);) {
        const std::size_t colon = l.find(": ");
        if (!l.empty() && l[0] != ' ' && colon != std::string::npos) {
            out.emplace_back(l.substr(colon + 2, l.find(" (") - colon - 2), std::vector<std::string>{});
        } else if (!out.empty()) {
            out.back().second.push_back(l);
        }
    }
    return out;
}

// The names of the records that show the line "  " + line, once per showing.
inline std::vector<std::string> showing(void (*fn)(mgmtd_cli_user_info *), const std::string &line)
{
    std::vector<std::string> out;
    for (const auto &[name, lines] : records(fn)) {
        out.insert(out.end(), std::count(lines.begin(), lines.end(), "  " + line), name);
    }
    return out;
}

// The entries a dump shows for the record "name" (its lines indented by four).
inline std::vector<std::string> entries(void (*fn)(mgmtd_cli_user_info *), const std::string &name)
{
    std::vector<std::string> out;
    for (const auto &[record, lines] : records(fn)) {
        for (const std::string &l : lines) {
            if (record == name && l.rfind("    ", 0) == 0) {
                out.push_back(l.substr(4));
            }
        }
    }
    return out;
}

}  // namespace poltest

#endif  // FWD_TEST_SUPPORT_HPP
