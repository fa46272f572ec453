// What the polctl commands share: the library's log lines, the texts of
// flags, communities and addresses, the report of bad input, and starting
// the host with one committed configuration.
#ifndef POLCTL_CMD_INTERNAL_HPP
#define POLCTL_CMD_INTERNAL_HPP

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "polctl_cmd.hpp"
#include "polctl_host.hpp"
#include "polctl_json.hpp"
#include "polctl_routes.hpp"

namespace polctl::cmd_detail {

// The library's log lines go to err at a debug level above 0, nowhere otherwise.
void set_logging(const options &opt, std::ostream &err);

std::vector<std::string> words_of(const char *text);
std::vector<std::string> match_words(uint64_t flags);
std::vector<std::string> set_words(uint64_t flags);
std::string join(const std::vector<std::string> &items, const char *sep = " ");
std::string community_text(uint32_t value);
std::string address_text(uint32_t ipv4_word);
std::string vpn_range_text(uint64_t min, uint64_t max);

void report_errors(const std::vector<input_error> &errors, std::ostream &err);
void json_errors(json_writer &j, const std::vector<input_error> &errors);
// A datastore message ("FILE:LINE: text" or "commit stopped at PATH: ...")
// as an input error.
input_error ds_error(const std::string &file, const std::string &message);
// The report of a command that stopped at its input.
int input_failure(const options &opt, const char *command, const std::string &config,
                  const std::vector<input_error> &errors, std::ostream &out, std::ostream &err);

bool start_host(host &h, std::ostream &err);
// Starts the host and commits one configuration file: EXIT_OK, or the exit
// status of the failure, already reported.
int start_and_commit(host &h, const options &opt, const char *command, const std::string &config,
                     std::ostream &out, std::ostream &err);

// What the library's dump commands print for one CLI session.
std::string capture_dump(const std::function<void(struct mgmtd_cli_user_info *)> &dump);

// The users a routes file declares, registered on policies that exist;
// the others are reported in errors.
std::map<std::string, user_record *> register_users(host &h, const routes_file &rf,
                                                    std::vector<input_error> *errors);
// Input errors in file and line order.
bool line_order(const input_error &a, const input_error &b);

}  // namespace polctl::cmd_detail

#endif  // POLCTL_CMD_INTERNAL_HPP
