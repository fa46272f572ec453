// zen-mgmtd: the host's management daemon.
//
//   zen-mgmtd [--port N] [--db DIR] [--module FILE]... [--modules-dir DIR]
//             [--no-edge-module] [--no-fsync]
//
// Serves the management and data connections of the client library on
// 127.0.0.1 (port 4565 by default; 0 picks a free port), with the running
// configuration persisted in DIR/running.xml (written to a temporary file,
// synced unless --no-fsync, and renamed over it). Once it listens it prints
// "zen-mgmtd: listening on 127.0.0.1:<port>" on standard output; SIGTERM
// or SIGINT stop it. docs/mgmtd-daemon.md describes it.
#include <libxml/parser.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "server.hpp"

namespace {

int g_stop_pipe[2] = {-1, -1};

void on_stop_signal(int)
{
    const char byte = 1;
    const ssize_t ignored = write(g_stop_pipe[1], &byte, 1);
    (void)ignored;
}

int usage(const char *why)
{
    std::fprintf(stderr,
                 "zen-mgmtd: %s\n"
                 "usage: zen-mgmtd [--port N] [--db DIR] [--module FILE]... [--modules-dir DIR] "
                 "[--no-edge-module] [--no-fsync]\n",
                 why);
    return 2;
}

bool parse_port(const char *text, int &port)
{
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 65535) {
        return false;
    }
    port = static_cast<int>(v);
    return true;
}

bool install_stop_signals()
{
    if (pipe2(g_stop_pipe, O_CLOEXEC) != 0) {
        return false;
    }
    struct sigaction sa{};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    zen::mgmtd::store_options store_options;
    store_options.db_dir = "/var/lib/zen-mgmtd";
    zen::mgmtd::server_options server_options;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--port" && has_value) {
            if (!parse_port(argv[++i], server_options.port)) {
                return usage("bad port");
            }
        } else if (arg == "--db" && has_value) {
            store_options.db_dir = argv[++i];
        } else if (arg == "--module" && has_value) {
            store_options.modules.push_back(argv[++i]);
        } else if (arg == "--modules-dir" && has_value) {
            store_options.modules_dir = argv[++i];
        } else if (arg == "--no-fsync") {
            store_options.fsync = false;
        } else if (arg == "--no-edge-module") {
            store_options.edge_module = false;
        } else {
            return usage(("unknown or incomplete option " + arg).c_str());
        }
    }
    if (mkdir(store_options.db_dir.c_str(), 0700) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "zen-mgmtd: %s: %s\n", store_options.db_dir.c_str(), std::strerror(errno));
        return 1;
    }
    xmlInitParser();
    int rc = 0;
    {
        zen::mgmtd::daemon service;
        if (const zen::mgmtd::failure f = service.open(store_options)) {
            std::fprintf(stderr, "zen-mgmtd: %s\n", f.message.c_str());
            rc = 1;
        } else {
            zen::mgmtd::server srv(service, server_options);
            std::string why;
            if (!install_stop_signals() || !srv.listen(why)) {
                std::fprintf(stderr, "zen-mgmtd: cannot listen: %s\n", why.c_str());
                rc = 1;
            } else {
                std::printf("zen-mgmtd: listening on 127.0.0.1:%d\n", srv.port());
                std::fflush(stdout);
                srv.run(g_stop_pipe[0]);
            }
        }
    }
    xmlCleanupParser();
    return rc;
}
