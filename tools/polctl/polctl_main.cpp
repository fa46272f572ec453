// polctl: the command-line host of the policy library.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <zen/maapi.h>

#include "polctl_cmd.hpp"

namespace {

const char kUsage[] =
    "usage: polctl [--json] [--debug LEVEL] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  run [CONFIG] [ROUTES]       commit CONFIG, register the users ROUTES declares and run\n"
    "                              its routes; print verdicts, flags, rewritten attributes,\n"
    "                              TLOCs with labels, export VPNs and communities\n"
    "  diff OLD NEW                commit OLD, then NEW; print every callback delivered and\n"
    "                              every user notified\n"
    "  check CONFIG                validate CONFIG and summarise it\n"
    "  show WHAT [CONFIG] [ROUTES] load CONFIG (and the users of ROUTES) and print the\n"
    "                              library's dump of WHAT: policies, lists, users or memory\n"
    "  render CONFIG [--kind K]    commit CONFIG and print the document of every data-plane\n"
    "                              object, or of the objects of kind K\n"
    "  stats CONFIG                commit and render CONFIG, then print the library's summary\n"
    "                              and statistics tables of the documents\n"
    "  publish CONFIG --edge NAME  commit CONFIG and print the payload of the policies that\n"
    "                              edge NAME's apply-policy entry names\n"
    "  load PAYLOAD [--port N]     load a payload into the management daemon as configuration\n"
    "                              (filtered against its schema) and as show data\n"
    "  show-data [--port N]        print the daemon's show data under /policy/from-qarmon\n"
    "\n"
    "CONFIG is an XML or JSON (*.json) file of the zen-policy module; ROUTES a routes file.\n"
    "Defaults: the files of the examples directory (%s).\n"
    "\n"
    "options:\n"
    "  --json          print the report as JSON\n"
    "  --debug LEVEL   library debug level; its log lines go to standard error\n"
    "  --kind K        render: only the documents of kind K (data-policy, vpn-list, ...)\n"
    "  --labels FILE   render, stats: the label callback answers from FILE (labels of\n"
    "                  TLOCs, targets of services; docs/polctl-routes.md)\n"
    "  --edge NAME     publish: the edge router whose policies to publish\n"
    "  --port N        load, show-data: the daemon's port on 127.0.0.1 (default 4565)\n"
    "  -h, --help      print this help\n"
    "\n"
    "exit status: 0 done, 1 bad input (the message names the file and line, or the\n"
    "configuration path) or a daemon that is down or refuses the load, 2 usage\n";

void usage(std::ostream &out)
{
    char text[sizeof(kUsage) + 512];
    std::snprintf(text, sizeof(text), kUsage, polctl::examples_dir().c_str());
    out << text;
}

int usage_error(const std::string &message)
{
    std::cerr << "polctl: " << message << "\n";
    usage(std::cerr);
    return polctl::EXIT_USAGE;
}

}  // namespace

int main(int argc, char **argv)
{
    polctl::options opt;
    std::string kind;  // render only
    std::string edge;  // publish only
    int port = 0;      // load and show-data only; 0: not given
    std::vector<std::string> args;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(std::cout);
            return polctl::EXIT_OK;
        }
        if (arg == "--json") {
            opt.json = true;
        } else if (arg == "--kind") {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return usage_error("--kind needs a kind");
            }
            kind = argv[++i];
        } else if (arg == "--labels") {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return usage_error("--labels needs a file");
            }
            opt.labels = argv[++i];
        } else if (arg == "--edge") {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return usage_error("--edge needs an edge name");
            }
            edge = argv[++i];
        } else if (arg == "--port") {
            char *end = nullptr;
            const long value = i + 1 < argc ? std::strtol(argv[++i], &end, 10) : 0;
            if (end == nullptr || *end != '\0' || value < 1 || value > 65535) {
                return usage_error("--port needs a port from 1 to 65535");
            }
            port = static_cast<int>(value);
        } else if (arg == "--debug") {
            char *end = nullptr;
            if (i + 1 >= argc) {
                return usage_error("--debug needs a level");
            }
            const unsigned long level = std::strtoul(argv[++i], &end, 10);
            if (*end != '\0' || level > 255) {
                return usage_error("--debug needs a level from 0 to 255");
            }
            opt.debug = static_cast<uint32_t>(level);
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option " + arg);
        } else {
            args.push_back(arg);
        }
    }
    if (args.empty()) {
        return usage_error("no command");
    }
    const std::string command = args[0];
    const std::string examples = polctl::examples_dir();
    const std::string config = examples + "/policy.xml";
    const std::string routes = examples + "/routes.txt";
    auto arg = [&](size_t i, const std::string &fallback) {
        return args.size() > i ? args[i] : fallback;
    };
    if (!kind.empty() && command != "render") {
        return usage_error("--kind goes with render only");
    }
    if (!opt.labels.empty() && command != "render" && command != "stats") {
        return usage_error("--labels goes with render and stats only");
    }
    if (!edge.empty() && command != "publish") {
        return usage_error("--edge goes with publish only");
    }
    if (port != 0 && command != "load" && command != "show-data") {
        return usage_error("--port goes with load and show-data only");
    }
    if (command == "publish") {
        if (args.size() != 2 || edge.empty()) {
            return usage_error("publish needs one CONFIG and --edge NAME");
        }
        return polctl::cmd_publish(opt, args[1], edge, std::cout, std::cerr);
    }
    if (command == "load" || command == "show-data") {
        const size_t want = command == "load" ? 2 : 1;
        if (args.size() != want) {
            return usage_error(command == "load" ? "load needs one PAYLOAD" : "show-data takes no argument");
        }
        const int daemon_port = port != 0 ? port : MGMTD_PORT;
        return command == "load" ? polctl::cmd_load(opt, args[1], daemon_port, std::cout, std::cerr)
                                 : polctl::cmd_show_data(opt, daemon_port, std::cout, std::cerr);
    }
    if (command == "run") {
        if (args.size() > 3) {
            return usage_error("run takes at most CONFIG and ROUTES");
        }
        return polctl::cmd_run(opt, arg(1, config), arg(2, routes), std::cout, std::cerr);
    }
    if (command == "diff") {
        if (args.size() != 3) {
            return usage_error("diff needs OLD and NEW");
        }
        return polctl::cmd_diff(opt, args[1], args[2], std::cout, std::cerr);
    }
    if (command == "check") {
        if (args.size() != 2) {
            return usage_error("check needs one CONFIG");
        }
        return polctl::cmd_check(opt, args[1], std::cout, std::cerr);
    }
    if (command == "show") {
        if (args.size() < 2 || args.size() > 4) {
            return usage_error("show needs WHAT, then at most CONFIG and ROUTES");
        }
        // The example routes file only goes with the example configuration.
        const std::string users = args.size() > 2 ? arg(3, "") : routes;
        return polctl::cmd_show(opt, args[1], arg(2, config), users, std::cout, std::cerr);
    }
    if (command == "render" || command == "stats") {
        if (args.size() != 2) {
            return usage_error(command + " needs one CONFIG");
        }
        return command == "render" ? polctl::cmd_render(opt, args[1], kind, std::cout, std::cerr)
                                   : polctl::cmd_stats(opt, args[1], std::cout, std::cerr);
    }
    return usage_error("unknown command \"" + command + "\"");
}
