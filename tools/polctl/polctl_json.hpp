// A small JSON writer: objects and arrays with two-blank indentation.
#ifndef POLCTL_JSON_HPP
#define POLCTL_JSON_HPP

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace polctl {

class json_writer {
public:
    json_writer &begin_object() { return open('{', '}'); }
    json_writer &begin_array() { return open('[', ']'); }

    json_writer &end()
    {
        const char closer = stack_.back().closer;
        const bool empty = stack_.back().first;
        stack_.pop_back();
        if (!empty) {
            newline();
        }
        out_ += closer;
        return *this;
    }

    json_writer &key(const std::string &name)
    {
        item();
        quote(name);
        out_ += ": ";
        pending_key_ = true;
        return *this;
    }

    json_writer &value(const std::string &text)
    {
        item();
        quote(text);
        return *this;
    }
    json_writer &value(const char *text)
    {
        return text != nullptr ? value(std::string(text)) : null();
    }
    json_writer &value(int64_t n) { return raw(std::to_string(n)); }
    json_writer &value(uint64_t n) { return raw(std::to_string(n)); }
    json_writer &value(int n) { return value(static_cast<int64_t>(n)); }
    json_writer &value(unsigned n) { return value(static_cast<uint64_t>(n)); }
    json_writer &value(bool b) { return raw(b ? "true" : "false"); }
    json_writer &null() { return raw("null"); }

    // "name": value in one call.
    template <typename T>
    json_writer &field(const std::string &name, T v)
    {
        key(name);
        return value(v);
    }

    json_writer &string_array(const std::string &name, const std::vector<std::string> &items)
    {
        key(name).begin_array();
        for (const std::string &s : items) {
            value(s);
        }
        return end();
    }

    std::string str() const { return out_ + "\n"; }

private:
    struct level {
        char closer;
        bool first;
    };

    json_writer &open(char opener, char closer)
    {
        item();
        out_ += opener;
        stack_.push_back({closer, true});
        return *this;
    }

    json_writer &raw(const std::string &text)
    {
        item();
        out_ += text;
        return *this;
    }

    // Separator and indentation before an element (not after a key).
    void item()
    {
        if (pending_key_) {
            pending_key_ = false;
            return;
        }
        if (stack_.empty()) {
            return;
        }
        if (!stack_.back().first) {
            out_ += ',';
        }
        stack_.back().first = false;
        newline();
    }

    void newline()
    {
        out_ += '\n';
        out_.append(2 * stack_.size(), ' ');
    }

    // A JSON string: quotes, backslashes and control characters escaped;
    // bytes that are not UTF-8 (input files may hold any) replaced by
    // U+FFFD, so the document stays valid.
    void quote(const std::string &text)
    {
        out_ += '"';
        for (size_t i = 0; i < text.size();) {
            const auto c = static_cast<unsigned char>(text[i]);
            if (c >= 0x80) {
                const size_t n = utf8_length(text, i);
                out_ += n == 0 ? "\\ufffd" : text.substr(i, n);
                i += n == 0 ? 1 : n;
                continue;
            }
            i++;
            switch (c) {
            case '"':
                out_ += "\\\"";
                break;
            case '\\':
                out_ += "\\\\";
                break;
            case '\n':
                out_ += "\\n";
                break;
            case '\t':
                out_ += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char esc[8];
                    std::snprintf(esc, sizeof(esc), "\\u%04x", static_cast<unsigned>(c));
                    out_ += esc;
                } else {
                    out_ += static_cast<char>(c);
                }
            }
        }
        out_ += '"';
    }

    // The length of the well-formed UTF-8 sequence at text[i] (no overlong
    // forms, surrogates or code points past U+10FFFF), or 0.
    static size_t utf8_length(const std::string &text, size_t i)
    {
        const auto byte = [&](size_t k) {
            return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u;
        };
        const unsigned lead = byte(0);
        size_t n = 0;
        unsigned low = 0x80;   // range of the second byte
        unsigned high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            n = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            n = 3;
            low = lead == 0xE0 ? 0xA0 : 0x80;
            high = lead == 0xED ? 0x9F : 0xBF;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            n = 4;
            low = lead == 0xF0 ? 0x90 : 0x80;
            high = lead == 0xF4 ? 0x8F : 0xBF;
        } else {
            return 0;
        }
        if (byte(1) < low || byte(1) > high) {
            return 0;
        }
        for (size_t k = 2; k < n; k++) {
            if (byte(k) < 0x80 || byte(k) > 0xBF) {
                return 0;
            }
        }
        return n;
    }

    std::string out_;
    std::vector<level> stack_;
    bool pending_key_ = false;
};

}  // namespace polctl

#endif  // POLCTL_JSON_HPP
