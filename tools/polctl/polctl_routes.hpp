// The routes file of polctl: the device kind, the users to register, label
// rules and the routes to run, one statement a line (docs/polctl-routes.md).
#ifndef POLCTL_ROUTES_HPP
#define POLCTL_ROUTES_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "pol_internal.h"
#include "polctl_lines.hpp"

namespace polctl {

struct user_decl {
    int line = 0;
    std::string name;
    std::string policy;
    e_pol_type type = POL_TYPE_ROUTE;
    e_pol_dir dir = POL_DIR_OUT;
};

struct label_decl {
    int line = 0;
    t_tloc_id tloc{};
    bool unreachable = false;
    uint32_t label = 0;
};

struct route_decl {
    int line = 0;
    std::string user;
    std::string text;  // the route as written, after the user name
    uint8_t safi = POL_SAFI_VROUTE;
    uint16_t afi = 1;
    t_ipprefix prefix{};       // virtual route
    uint64_t vpn = 0;          // virtual and service routes
    t_tloc_id route_tloc{};    // TLOC route
    t_zen_attr attr{};         // attributes (community_p stays null here)
    std::vector<uint32_t> communities;
    bool has_communities = false;
    uint32_t in_label = 0;
};

struct routes_file {
    std::string path;
    e_zen_device device = ZEN_DEVICE_QARMON;
    std::vector<user_decl> users;
    std::vector<label_decl> labels;
    std::vector<route_decl> routes;
    std::vector<input_error> errors;
};

// Reads the file; a bad line is recorded in errors and skipped. False
// (with one error) only when the file cannot be read.
bool read_routes_file(const std::string &path, routes_file *out);

// The device kind as the routes file and the output name it.
const char *device_name(e_zen_device device);

// One run of a declared route through pol_execute, set up as a host does:
// the route's attribute record with its communities, an empty label table
// and the execution parameters. Post-execution and the buffers go with it.
class route_execution {
public:
    route_execution(const route_decl &route, e_zen_device device);
    ~route_execution();
    route_execution(const route_execution &) = delete;
    route_execution &operator=(const route_execution &) = delete;

    e_pol_action run(t_pol_user *user) { return pol_execute(user, &params_); }
    const t_zen_attr &attr_in() const { return attr_; }
    const t_pol_exec_params &params() const { return params_; }
    const t_pol_te_info &te() const { return te_; }

private:
    e_zen_device device_;
    t_zen_attr attr_;
    t_bgp_community *communities_ = nullptr;
    t_pol_te_info te_{};
    t_pol_exec_params params_{};
};

}  // namespace polctl

#endif  // POLCTL_ROUTES_HPP
