// The daemon's TCP server.
#include "server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zen::mgmtd {

namespace {

void set_send_timeout(int fd, int timeout_ms)
{
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

server::~server()
{
    reap(true);
    if (listen_fd_ >= 0) {
        ::close(listen_fd_);
    }
}

bool server::listen(std::string &why)
{
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        why = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(options_.port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(listen_fd_, 64) != 0) {
        why = "127.0.0.1:" + std::to_string(options_.port) + ": " + std::strerror(errno);
        return false;
    }
    socklen_t len = sizeof addr;
    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    return true;
}

void server::run(int stop_fd)
{
    for (;;) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        // Wakes now and then to join the threads of closed connections.
        const int n = poll(fds, 2, 1000);
        if (n < 0 && errno != EINTR) {
            break;
        }
        if (n > 0 && (fds[1].revents & POLLIN) != 0) {
            break;
        }
        if (n > 0 && (fds[0].revents & POLLIN) != 0) {
            accept_one();
        }
        reap(false);
    }
    reap(true);
}

void server::accept_one()
{
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (clients_.size() >= static_cast<size_t>(options_.max_clients)) {
        ::close(fd);
        return;
    }
    set_send_timeout(fd, options_.send_timeout_ms);
    client &cl = clients_.emplace_back();
    cl.fd = fd;
    cl.thread = std::thread([this, &cl] { serve(cl); });
}

// The threads of closed connections are joined and their sockets closed
// here, by the thread that made them; all: every connection is shut down
// first.
void server::reap(bool all)
{
    for (auto it = clients_.begin(); it != clients_.end();) {
        if (all && !it->done.load()) {
            ::shutdown(it->fd, SHUT_RDWR);
        }
        if (all || it->done.load()) {
            it->thread.join();
            ::close(it->fd);
            it = clients_.erase(it);
        } else {
            ++it;
        }
    }
}

void server::serve(client &cl)
{
    connection_state conn;
    daemon_.attach(conn);
    for (;;) {
        wire::frame request;
        std::string why;
        const wire::io st = wire::read_frame(cl.fd, request, -1, options_.frame_timeout_ms, &why);
        wire::frame answer;
        answer.op = request.op;
        answer.id = request.id;
        answer.flags = MGMTD_WIRE_REPLY;
        bool close = false;
        if (st == wire::io::bad_frame || (st == wire::io::ok && (request.flags & MGMTD_WIRE_REPLY) != 0)) {
            wire::writer w;
            w.i32(MGMTD_ERR_PROTO).str(st == wire::io::bad_frame ? why : "an answer sent to the daemon");
            answer.payload = w.payload();
            close = true;
        } else if (st == wire::io::ok) {
            answer.payload = daemon_.handle(conn, request, close);
        } else {
            break;   // closed, timed out inside a frame, or failed
        }
        if (!wire::write_all(cl.fd, wire::encode(answer)) || close) {
            break;
        }
    }
    daemon_.detach(conn);
    // The peer sees the end now; the socket is closed when the thread is joined.
    ::shutdown(cl.fd, SHUT_RDWR);
    cl.done.store(true);
}

}  // namespace zen::mgmtd
