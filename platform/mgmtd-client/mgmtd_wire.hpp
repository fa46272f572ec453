// Frame codec of the management daemon's wire protocol (zen/mgmtd_wire.h),
// shared by the daemon and the client library: building and parsing
// payloads, and reading and writing whole frames on a socket.
#ifndef ZEN_MGMTD_WIRE_HPP
#define ZEN_MGMTD_WIRE_HPP

#include <zen/mgmtd_wire.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace zen::wire {

struct frame {
    uint16_t op = 0;
    uint8_t flags = 0;
    uint32_t id = 0;
    std::string payload;
};

// Appends fields to a payload.
class writer {
public:
    writer &i32(int32_t v);
    writer &i64(int64_t v);
    writer &str(std::string_view s);
    const std::string &payload() const { return buf_; }

private:
    std::string buf_;
};

// Takes fields from a payload in order; a field past the end, or a string
// longer than what is left, makes the reader fail (ok() false) and every
// later field read as 0 or "".
class reader {
public:
    explicit reader(std::string_view payload) : rest_(payload) {}
    int32_t i32();
    int64_t i64();
    std::string str();
    bool ok() const { return ok_; }
    // Every field was read and nothing is left.
    bool done() const { return ok_ && rest_.empty(); }
    // What is left unread.
    std::string_view rest() const { return rest_; }

private:
    bool take(size_t n, std::string_view &out);
    std::string_view rest_;
    bool ok_ = true;
};

enum class io { ok, closed, timeout, error, bad_frame };

// The whole frame text: header and payload.
std::string encode(const frame &f);

// Reads one frame. The first byte may take idle_ms (-1: no limit); the
// rest of the frame must follow within frame_ms. bad_frame: wrong magic,
// version or length (why says which).
io read_frame(int fd, frame &out, int idle_ms, int frame_ms, std::string *why = nullptr);

// Writes all bytes (no SIGPIPE); false on error.
bool write_all(int fd, std::string_view bytes);

}  // namespace zen::wire

#endif  // ZEN_MGMTD_WIRE_HPP
