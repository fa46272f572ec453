// Requests and answers, errors and the daemon address of the management
// daemon's client library.
#include "client.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

__thread int mgmtd_errno = 0;

namespace zen::client {

namespace {

thread_local std::string t_lasterr;
std::atomic<int> g_timeout_ms{30000};
std::atomic<uint32_t> g_next_id{1};

std::mutex g_addr_mutex;
sockaddr_storage g_addr{};
socklen_t g_addr_len = 0;

struct error_text {
    int code;
    const char *text;
};

constexpr error_text kErrorTexts[] = {
#define MGMTD_ERRCODE_TEXT(code, name, text) {code, text},
    MGMTD_ERRORS(MGMTD_ERRCODE_TEXT)
#undef MGMTD_ERRCODE_TEXT
};

// Reads answers until the one of request id arrives (an answer to an
// earlier request that timed out is skipped).
bool read_answer(int sock, uint32_t id, wire::frame &answer)
{
    const int timeout_ms = g_timeout_ms.load();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        std::string why;
        const wire::io st = wire::read_frame(sock, answer, left.count() > 0 ? int(left.count()) : 0,
                                             timeout_ms, &why);
        switch (st) {
        case wire::io::ok:
            break;
        case wire::io::timeout:
            fail(MGMTD_ERR_TIMEOUT, "no answer from the management daemon within " +
                                        std::to_string(timeout_ms) + " ms");
            return false;
        case wire::io::closed:
            fail(MGMTD_ERR_OS, "the management daemon closed the connection");
            return false;
        case wire::io::bad_frame:
            fail(MGMTD_ERR_PROTO, "bad answer from the management daemon: " + why);
            return false;
        case wire::io::error:
            fail(MGMTD_ERR_OS, std::string("receive: ") + std::strerror(errno));
            return false;
        }
        if ((answer.flags & MGMTD_WIRE_REPLY) != 0 && answer.id == id) {
            return true;
        }
    }
}

}  // namespace

int fail(int code, std::string message)
{
    mgmtd_errno = code;
    t_lasterr = std::move(message);
    return MGMTD_ERR;
}

bool call(int sock, uint16_t op, const wire::writer &request, std::string &results)
{
    if (request.payload().size() > MGMTD_WIRE_MAX_PAYLOAD) {
        fail(MGMTD_ERR_TOOBIG, "request larger than " + std::to_string(MGMTD_WIRE_MAX_PAYLOAD) +
                                   " bytes");
        return false;
    }
    wire::frame f;
    f.op = op;
    f.id = g_next_id.fetch_add(1);
    f.payload = request.payload();
    if (!wire::write_all(sock, wire::encode(f))) {
        fail(MGMTD_ERR_OS, std::string("send: ") + std::strerror(errno));
        return false;
    }
    wire::frame answer;
    if (!read_answer(sock, f.id, answer)) {
        return false;
    }
    wire::reader r(answer.payload);
    const int32_t status = r.i32();
    std::string message = r.str();
    if (!r.ok()) {
        fail(MGMTD_ERR_PROTO, "truncated answer from the management daemon");
        return false;
    }
    if (status != 0) {
        fail(status, std::move(message));
        return false;
    }
    results.assign(r.rest());
    return true;
}

int call_status(int sock, uint16_t op, const wire::writer &request)
{
    std::string results;
    return call(sock, op, request, results) ? MGMTD_OK : MGMTD_ERR;
}

int connect_kind(int sock, const struct sockaddr *srv, socklen_t srv_len, int kind)
{
    if (srv == nullptr || srv_len <= 0 || srv_len > socklen_t(sizeof(sockaddr_storage))) {
        return fail(MGMTD_ERR_PROTOUSAGE, "no daemon address");
    }
    int rc;
    do {
        rc = ::connect(sock, srv, srv_len);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return fail(MGMTD_ERR_OS, std::string("connect: ") + std::strerror(errno));
    }
    {
        std::lock_guard<std::mutex> lock(g_addr_mutex);
        std::memcpy(&g_addr, srv, srv_len);
        g_addr_len = srv_len;
    }
    wire::writer w;
    w.i32(kind).str("libzenmaapi");
    return call_status(sock, MGMTD_OP_HELLO, w);
}

socklen_t daemon_address(struct sockaddr_storage &out)
{
    std::lock_guard<std::mutex> lock(g_addr_mutex);
    if (g_addr_len != 0) {
        out = g_addr;
        return g_addr_len;
    }
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(MGMTD_PORT);
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(&out, &in, sizeof in);
    return sizeof in;
}

std::string vformat(const char *fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0) {
        return std::string();
    }
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

}  // namespace zen::client

extern "C" const char *mgmtd_lasterr(void)
{
    return zen::client::t_lasterr.c_str();
}

extern "C" const char *mgmtd_strerror(int code)
{
    for (const auto &e : zen::client::kErrorTexts) {
        if (e.code == code) {
            return e.text;
        }
    }
    return "unknown error";
}

extern "C" void mgmtd_set_timeout_ms(int timeout_ms)
{
    if (timeout_ms > 0) {
        zen::client::g_timeout_ms.store(timeout_ms);
    }
}
