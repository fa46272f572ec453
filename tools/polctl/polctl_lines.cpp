// Reading the text inputs of polctl line by line, and their shared text
// forms.
#include "polctl_lines.hpp"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <zen/zen_util.h>

namespace polctl {

namespace {

// What reading one line of the file gave.
enum class line_status { ok, too_long, nul_byte, file_too_long, end };

// Limits that keep a file without newlines, or one that never ends (a
// device, a pipe), from growing polctl without bound.
constexpr size_t kMaxLineLength = 4096;
constexpr uint64_t kMaxFileBytes = 4u << 20;

// Lines of at most kMaxLineLength characters, from at most kMaxFileBytes
// bytes; a longer line is read to its end but not kept.
class bounded_reader {
public:
    explicit bounded_reader(std::streambuf &in) : in_(in) {}

    line_status next(std::string *text)
    {
        using traits = std::char_traits<char>;
        text->clear();
        bool any = false;
        bool too_long = false;
        bool nul_byte = false;
        while (true) {
            if (total_ >= kMaxFileBytes && in_.sgetc() != traits::eof()) {
                return line_status::file_too_long;
            }
            const int c = in_.sbumpc();
            if (c == traits::eof() && !any) {
                return line_status::end;
            }
            if (c == traits::eof() || c == '\n') {
                break;
            }
            total_++;
            any = true;
            nul_byte = nul_byte || c == '\0';
            if (text->size() < kMaxLineLength) {
                text->push_back(static_cast<char>(c));
            } else {
                too_long = true;
            }
        }
        total_++;
        if (too_long) {
            return line_status::too_long;
        }
        return nul_byte ? line_status::nul_byte : line_status::ok;
    }

private:
    std::streambuf &in_;
    uint64_t total_ = 0;
};

std::string line_problem(line_status status)
{
    switch (status) {
    case line_status::too_long:
        return "line longer than " + std::to_string(kMaxLineLength) + " characters";
    case line_status::nul_byte:
        return "NUL byte in the line";
    default:
        return "file longer than " + std::to_string(kMaxFileBytes) +
               " bytes; the rest is not read";
    }
}

}  // namespace

std::string input_error::text() const
{
    if (line > 0) {
        return file + ":" + std::to_string(line) + ": " + message;
    }
    return file + ": " + message;
}

line_reader::line_reader(const std::string &text)
{
    std::istringstream in(text.substr(0, text.find('#')));
    std::string word;
    while (in >> word) {
        words_.push_back(word);
    }
}

bool line_reader::next(const char *what, std::string *word)
{
    if (done()) {
        return fail(std::string("missing ") + what);
    }
    *word = words_[pos_++];
    return true;
}

std::string line_reader::rest_from(size_t from) const
{
    std::string out;
    for (size_t i = from; i < words_.size(); i++) {
        out += (i == from ? "" : " ") + words_[i];
    }
    return out;
}

bool line_reader::fail(const std::string &message)
{
    if (error_.empty()) {
        error_ = message;
    }
    return false;
}

bool line_reader::expect_end()
{
    return done() || fail("unexpected \"" + peek() + "\"");
}

bool read_statements(const std::string &path, const char *what, std::vector<input_error> *errors,
                     const std::function<void(int line, line_reader &in)> &statement)
{
    std::ifstream file(path);
    if (!file) {
        errors->push_back({path, 0, std::string("cannot open: ") + std::strerror(errno)});
        return false;
    }
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        errors->push_back({path, 0, std::string("is a directory, not a ") + what});
        return false;
    }
    bounded_reader reader(*file.rdbuf());
    std::string text;
    int line = 0;
    for (line_status status; (status = reader.next(&text)) != line_status::end;) {
        line++;
        if (status != line_status::ok) {
            errors->push_back({path, line, line_problem(status)});
            if (status == line_status::file_too_long) {
                break;
            }
            continue;
        }
        line_reader in(text);
        if (in.empty()) {
            continue;
        }
        statement(line, in);
        if (!in.error().empty()) {
            errors->push_back({path, line, in.error()});
        }
    }
    return true;
}

bool parse_number(const std::string &text, uint64_t max, uint64_t *value)
{
    if (text.empty() || text.size() > 20 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    const unsigned long long n = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || n > max) {
        return false;
    }
    *value = n;
    return true;
}

bool parse_address(const std::string &text, t_ipaddr *addr)
{
    std::memset(addr, 0, sizeof(*addr));
    struct in_addr v4;
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        IPADDR_SET_V4(addr, v4.s_addr);
        return true;
    }
    uint8_t v6[16];
    if (inet_pton(AF_INET6, text.c_str(), v6) == 1) {
        IPADDR_SET_V6(addr, v6);
        return true;
    }
    return false;
}

bool parse_prefix(const std::string &text, t_ipprefix *pfx)
{
    std::memset(pfx, 0, sizeof(*pfx));
    const size_t slash = text.find('/');
    uint64_t len = 0;
    if (slash == std::string::npos || !parse_address(text.substr(0, slash), &pfx->addr) ||
        !parse_number(text.substr(slash + 1), IPADDR_IS_V4(&pfx->addr) ? 32 : 128, &len)) {
        return false;
    }
    pfx->prefixlen = static_cast<uint8_t>(len);
    return true;
}

bool parse_color(const std::string &text, uint8_t *color)
{
    for (uint32_t code = 1; code <= ZEN_TLOC_COLOR_MAX; code++) {
        if (text == zen_util_tloc_color_name(code)) {
            *color = static_cast<uint8_t>(code);
            return true;
        }
    }
    return false;
}

bool parse_encap(const std::string &text, uint8_t *encap)
{
    for (uint32_t code = ZEN_TLOC_ENCAP_GRE; code < ZEN_TLOC_ENCAP_MAX; code++) {
        if (text == zen_util_tloc_encap_name(code)) {
            *encap = static_cast<uint8_t>(code);
            return true;
        }
    }
    return false;
}

bool parse_tloc(const std::string &text, t_tloc_id *tloc)
{
    std::memset(tloc, 0, sizeof(*tloc));
    const size_t last = text.rfind(':');
    if (last == std::string::npos || last == 0) {
        return false;
    }
    const size_t middle = text.rfind(':', last - 1);
    if (middle == std::string::npos) {
        return false;
    }
    return parse_address(text.substr(0, middle), &tloc->addr) &&
           parse_color(text.substr(middle + 1, last - middle - 1), &tloc->color) &&
           parse_encap(text.substr(last + 1), &tloc->encap);
}

}  // namespace polctl
