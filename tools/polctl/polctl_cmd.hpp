// The commands of polctl. Each writes its report to out and its problems
// to err, and returns the exit status: 0 done, 1 bad input (the message
// names the file and line or the configuration path), 2 usage.
#ifndef POLCTL_CMD_HPP
#define POLCTL_CMD_HPP

#include <cstdint>
#include <ostream>
#include <string>

namespace polctl {

enum exit_status { EXIT_OK = 0, EXIT_INPUT = 1, EXIT_USAGE = 2 };

struct options {
    bool json = false;
    uint32_t debug = 0;  // library debug level; its log lines go to err
    std::string labels;  // render and stats: the labels file the label callback answers from
};

int cmd_run(const options &opt, const std::string &config, const std::string &routes,
            std::ostream &out, std::ostream &err);
int cmd_diff(const options &opt, const std::string &old_config, const std::string &new_config,
             std::ostream &out, std::ostream &err);
int cmd_check(const options &opt, const std::string &config, std::ostream &out,
              std::ostream &err);
// what: policies, lists, users or memory.
int cmd_show(const options &opt, const std::string &what, const std::string &config,
             const std::string &routes, std::ostream &out, std::ostream &err);

// Commits CONFIG and renders the document of every data-plane object, or
// of the objects of one kind (a word of pol_xml_type_str; empty: every kind).
int cmd_render(const options &opt, const std::string &config, const std::string &kind,
               std::ostream &out, std::ostream &err);
// Commits and renders as cmd_render, then prints the library's summary and
// statistics tables of the documents.
int cmd_stats(const options &opt, const std::string &config, std::ostream &out, std::ostream &err);

// Controller side: commits CONFIG and prints the payload of the policies
// that edge's apply-policy entry names (pol_fwd_policy_populate).
int cmd_publish(const options &opt, const std::string &config, const std::string &edge,
                std::ostream &out, std::ostream &err);
// Edge side: wraps the payload in a file, filtered against the daemon's
// schema, and loads it into the daemon on 127.0.0.1:port as configuration
// (candidate, apply, commit), then as show data.
int cmd_load(const options &opt, const std::string &payload_file, int port, std::ostream &out,
             std::ostream &err);
// Prints the show data under /policy/from-qarmon of the daemon on port.
int cmd_show_data(const options &opt, int port, std::ostream &out, std::ostream &err);

// Where the example inputs live: the source tree, or the installed copy.
std::string examples_dir();

}  // namespace polctl

#endif  // POLCTL_CMD_HPP
