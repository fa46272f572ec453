// Frame codec of the management daemon's wire protocol.
#include "mgmtd_wire.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

namespace zen::wire {

namespace {

void put_u32(std::string &out, uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((v >> shift) & 0xffu));
    }
}

uint32_t get_u32(const unsigned char *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// Waits until fd is readable or the time is up; 0 readable, else an io status.
io wait_readable(int fd, int timeout_ms)
{
    pollfd p{fd, POLLIN, 0};
    for (;;) {
        const int n = poll(&p, 1, timeout_ms);
        if (n > 0) {
            return io::ok;
        }
        if (n == 0) {
            return io::timeout;
        }
        if (errno != EINTR) {
            return io::error;
        }
    }
}

// Reads exactly size bytes before the deadline (no deadline when idle_ms
// is -1 and nothing was read yet).
io read_exact(int fd, char *buf, size_t size, std::chrono::steady_clock::time_point deadline,
              bool no_deadline)
{
    size_t got = 0;
    while (got < size) {
        int wait_ms = -1;
        if (!no_deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
        const io w = wait_readable(fd, wait_ms);
        if (w != io::ok) {
            return w;
        }
        const ssize_t n = recv(fd, buf + got, size - got, 0);
        if (n == 0) {
            return io::closed;
        }
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return errno == ECONNRESET ? io::closed : io::error;
        }
        got += static_cast<size_t>(n);
    }
    return io::ok;
}

}  // namespace

writer &writer::i32(int32_t v)
{
    put_u32(buf_, static_cast<uint32_t>(v));
    return *this;
}

writer &writer::i64(int64_t v)
{
    put_u32(buf_, static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
    put_u32(buf_, static_cast<uint32_t>(static_cast<uint64_t>(v) & 0xffffffffu));
    return *this;
}

writer &writer::str(std::string_view s)
{
    put_u32(buf_, static_cast<uint32_t>(s.size()));
    buf_.append(s);
    return *this;
}

bool reader::take(size_t n, std::string_view &out)
{
    if (!ok_ || rest_.size() < n) {
        ok_ = false;
        out = {};
        return false;
    }
    out = rest_.substr(0, n);
    rest_.remove_prefix(n);
    return true;
}

int32_t reader::i32()
{
    std::string_view b;
    if (!take(4, b)) {
        return 0;
    }
    return static_cast<int32_t>(get_u32(reinterpret_cast<const unsigned char *>(b.data())));
}

int64_t reader::i64()
{
    const uint64_t hi = static_cast<uint32_t>(i32());
    const uint64_t lo = static_cast<uint32_t>(i32());
    return ok_ ? static_cast<int64_t>((hi << 32) | lo) : 0;
}

std::string reader::str()
{
    const uint32_t n = static_cast<uint32_t>(i32());
    std::string_view b;
    if (!take(n, b)) {
        return std::string();
    }
    return std::string(b);
}

std::string encode(const frame &f)
{
    std::string out;
    out.reserve(MGMTD_WIRE_HEADER_SIZE + f.payload.size());
    put_u32(out, MGMTD_WIRE_MAGIC);
    out.push_back(static_cast<char>(MGMTD_WIRE_VERSION));
    out.push_back(static_cast<char>(f.flags));
    out.push_back(static_cast<char>(f.op >> 8));
    out.push_back(static_cast<char>(f.op & 0xffu));
    put_u32(out, f.id);
    put_u32(out, static_cast<uint32_t>(f.payload.size()));
    out += f.payload;
    return out;
}

io read_frame(int fd, frame &out, int idle_ms, int frame_ms, std::string *why)
{
    unsigned char head[MGMTD_WIRE_HEADER_SIZE];
    char *hp = reinterpret_cast<char *>(head);
    const auto start = std::chrono::steady_clock::now();
    // The first byte may be waited for as long as the connection may idle.
    io st = read_exact(fd, hp, 1, start + std::chrono::milliseconds(idle_ms < 0 ? 0 : idle_ms),
                       idle_ms < 0);
    if (st != io::ok) {
        return st;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(frame_ms);
    st = read_exact(fd, hp + 1, sizeof head - 1, deadline, false);
    if (st != io::ok) {
        return st;
    }
    const uint32_t length = get_u32(head + 12);
    const char *bad = nullptr;
    if (get_u32(head) != MGMTD_WIRE_MAGIC) {
        bad = "bad magic";
    } else if (head[4] != MGMTD_WIRE_VERSION) {
        bad = "unsupported protocol version";
    } else if (length > MGMTD_WIRE_MAX_PAYLOAD) {
        bad = "frame too large";
    }
    out.op = static_cast<uint16_t>((head[6] << 8) | head[7]);
    out.flags = head[5];
    out.id = get_u32(head + 8);
    if (bad != nullptr) {
        if (why != nullptr) {
            *why = bad;
        }
        return io::bad_frame;
    }
    out.payload.assign(length, '\0');
    return read_exact(fd, out.payload.data(), length, deadline, false);
}

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

}  // namespace zen::wire
