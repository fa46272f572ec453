// The daemon's TCP server: one listening socket on 127.0.0.1 and a thread
// per client connection.
//
// A thread per connection keeps each connection's protocol a plain
// sequence of blocking reads and writes (a frame in, an answer out), and
// the request handling is serialized by the daemon's mutex anyway, so
// nothing would be gained by multiplexing. Clients are the host's local
// processes, few and long-lived; their number is bounded (max_clients):
// a connection beyond it is closed at once.
#ifndef ZEN_MGMTD_SERVER_HPP
#define ZEN_MGMTD_SERVER_HPP

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include "daemon.hpp"

namespace zen::mgmtd {

struct server_options {
    int port = 4565;            // 0: any free port
    int max_clients = 256;
    int frame_timeout_ms = 10000;   // a frame's bytes, once it started
    int send_timeout_ms = 10000;    // an answer the client does not read
};

class server {
public:
    server(daemon &d, const server_options &options) : daemon_(d), options_(options) {}
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    bool listen(std::string &why);
    int port() const { return port_; }
    // Serves until stop_fd becomes readable, then closes every connection.
    void run(int stop_fd);

private:
    struct client {
        int fd = -1;
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void accept_one();
    void serve(client &cl);
    void reap(bool all);

    daemon &daemon_;
    server_options options_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::list<client> clients_;
};

}  // namespace zen::mgmtd

#endif  // ZEN_MGMTD_SERVER_HPP
