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

    void quote(const std::string &text)
    {
        out_ += '"';
        for (const char c : text) {
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
                if (static_cast<unsigned char>(c) < 0x20) {
                    char esc[8];
                    std::snprintf(esc, sizeof(esc), "\\u%04x", static_cast<unsigned>(c));
                    out_ += esc;
                } else {
                    out_ += c;
                }
            }
        }
        out_ += '"';
    }

    std::string out_;
    std::vector<level> stack_;
    bool pending_key_ = false;
};

}  // namespace polctl

#endif  // POLCTL_JSON_HPP
