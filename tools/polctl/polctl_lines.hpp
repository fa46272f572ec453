// The text inputs of polctl (the routes file, the labels file): one
// statement a line, words separated by blanks, '#' to the end of the line
// a comment; a bad line is reported with its number and left out. And the
// text forms of numbers, addresses, colours and encapsulations they share.
#ifndef POLCTL_LINES_HPP
#define POLCTL_LINES_HPP

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "pol_internal.h"

namespace polctl {

// A problem of one line of an input file.
struct input_error {
    std::string file;
    int line = 0;
    std::string message;

    std::string text() const;
};

// A line's words, and the first problem found in them.
class line_reader {
public:
    explicit line_reader(const std::string &text);

    bool empty() const { return words_.empty(); }
    size_t size() const { return words_.size(); }
    bool done() const { return pos_ >= words_.size(); }
    const std::string &peek() const { return words_[pos_]; }

    // The next word, or a problem naming what was expected.
    bool next(const char *what, std::string *word);
    // The words from index from to the end, joined by blanks.
    std::string rest_from(size_t from) const;
    // Records the problem unless one is recorded already; false.
    bool fail(const std::string &message);
    // A problem naming the next word when any word is left.
    bool expect_end();

    const std::string &error() const { return error_; }

private:
    std::vector<std::string> words_;
    size_t pos_ = 0;
    std::string error_;
};

// Hands every line with words to statement with its number; a problem
// statement records in the reader is appended to errors as file and line.
// Lines are at most 4096 characters without NUL bytes, the file at most
// 4 MiB (the rest is reported and not read). False, with one error, when
// the file cannot be read; what names the kind of file ("is a directory,
// not a WHAT").
bool read_statements(const std::string &path, const char *what, std::vector<input_error> *errors,
                     const std::function<void(int line, line_reader &in)> &statement);

bool parse_number(const std::string &text, uint64_t max, uint64_t *value);
bool parse_address(const std::string &text, t_ipaddr *addr);
// "10.1.0.0/16", "2001:db8::/32"; a length past the family's width is refused.
bool parse_prefix(const std::string &text, t_ipprefix *pfx);
bool parse_color(const std::string &text, uint8_t *color);
bool parse_encap(const std::string &text, uint8_t *encap);
// "10.0.0.1:mpls:ipsec", "2001:db8::1:gold:gre" (split from the right).
bool parse_tloc(const std::string &text, t_tloc_id *tloc);

}  // namespace polctl

#endif  // POLCTL_LINES_HPP
