// Parsing of daemon paths and their resolution against the schema of the
// loaded modules and against data trees.
#include "paths.hpp"

#include <cctype>
#include <cstring>

namespace zen::mgmtd {

namespace {

bool is_name_char(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '.' ||
           c == ':';
}

// "{k1 "k 2"}" from after the brace; pos ends after the closing brace.
bool parse_keys(const std::string &path, size_t &pos, std::vector<std::string> &keys)
{
    for (;;) {
        while (pos < path.size() && path[pos] == ' ') {
            pos++;
        }
        if (pos >= path.size()) {
            return false;
        }
        if (path[pos] == '}') {
            pos++;
            return !keys.empty();
        }
        std::string key;
        if (path[pos] == '"') {
            const size_t end = path.find('"', pos + 1);
            if (end == std::string::npos) {
                return false;
            }
            key = path.substr(pos + 1, end - pos - 1);
            pos = end + 1;
        } else {
            while (pos < path.size() && path[pos] != ' ' && path[pos] != '}') {
                key.push_back(path[pos++]);
            }
        }
        keys.push_back(std::move(key));
    }
}

bool parse_index(const std::string &path, size_t &pos, long &index)
{
    const size_t end = path.find(']', pos);
    if (end == std::string::npos || end == pos || end - pos > 9) {
        return false;
    }
    index = 0;
    for (size_t i = pos; i < end; i++) {
        if (std::isdigit(static_cast<unsigned char>(path[i])) == 0) {
            return false;
        }
        index = index * 10 + (path[i] - '0');
    }
    pos = end + 1;
    return true;
}

bool prefix_matches(const std::string &prefix, const lys_module *mod)
{
    return prefix.empty() || prefix == mod->name || (mod->prefix != nullptr && prefix == mod->prefix);
}

bool schema_matches(const lysc_node *schema, const path_step &step)
{
    if (std::strcmp(schema->name, step.name.c_str()) != 0 || !prefix_matches(step.prefix, schema->module)) {
        return false;
    }
    const bool selects = step.index >= 0 || !step.keys.empty();
    return !selects || schema->nodetype == LYS_LIST;
}

bool keys_match(const lyd_node *entry, const std::vector<std::string> &keys)
{
    size_t i = 0;
    for (const lyd_node *child = lyd_child(entry); child != nullptr; child = child->next) {
        if (child->schema == nullptr || (child->schema->flags & LYS_KEY) == 0) {
            break;
        }
        if (i >= keys.size() || keys[i] != lyd_get_value(child)) {
            return false;
        }
        i++;
    }
    return i == keys.size();
}

// The children of one parent (first: its first child) the step selects.
void select_children(lyd_node *first, const path_step &step, std::vector<lyd_node *> &out)
{
    long position = 0;
    for (lyd_node *n = first; n != nullptr; n = n->next) {
        if (n->schema == nullptr || !schema_matches(n->schema, step)) {
            continue;
        }
        if (step.index >= 0) {
            if (position++ == step.index) {
                out.push_back(n);
                return;
            }
        } else if (step.keys.empty() || keys_match(n, step.keys)) {
            out.push_back(n);
        }
    }
}

}  // namespace

std::optional<std::vector<path_step>> parse_path(const std::string &path, std::string &why)
{
    if (path.empty() || path[0] != '/') {
        why = "a path starts with /";
        return std::nullopt;
    }
    std::vector<path_step> steps;
    size_t pos = 1;
    while (pos < path.size()) {
        path_step step;
        const size_t start = pos;
        while (pos < path.size() && is_name_char(path[pos])) {
            pos++;
        }
        std::string name = path.substr(start, pos - start);
        const size_t colon = name.find(':');
        if (colon != std::string::npos) {
            step.prefix = name.substr(0, colon);
            name = name.substr(colon + 1);
        }
        step.name = std::move(name);
        bool ok = !step.name.empty() && step.name.find(':') == std::string::npos;
        if (ok && pos < path.size() && path[pos] == '[') {
            pos++;
            ok = parse_index(path, pos, step.index);
        } else if (ok && pos < path.size() && path[pos] == '{') {
            pos++;
            ok = parse_keys(path, pos, step.keys);
        }
        if (ok && pos < path.size()) {
            ok = path[pos++] == '/' && pos < path.size();
        }
        if (!ok) {
            why = "bad path step at offset " + std::to_string(start) + " of " + path;
            return std::nullopt;
        }
        steps.push_back(std::move(step));
    }
    return steps;
}

std::string join_path(const std::string &dir, const std::string &path)
{
    if (!path.empty() && path[0] == '/') {
        return path;
    }
    if (dir.empty() || dir == "/") {
        return "/" + path;
    }
    return dir + "/" + path;
}

std::vector<const lysc_node *> schema_nodes(const ly_ctx *ctx, const std::vector<path_step> &steps)
{
    std::vector<const lysc_node *> current;
    for (size_t i = 0; i < steps.size(); i++) {
        std::vector<const lysc_node *> next;
        auto scan = [&](const lysc_node *parent, const lysc_module *mod) {
            const lysc_node *child = nullptr;
            while ((child = lys_getnext(child, parent, mod, 0)) != nullptr) {
                if (schema_matches(child, steps[i])) {
                    next.push_back(child);
                }
            }
        };
        if (i == 0) {
            uint32_t idx = 0;
            const lys_module *mod;
            while ((mod = ly_ctx_get_module_iter(ctx, &idx)) != nullptr) {
                if (mod->implemented && mod->compiled != nullptr) {
                    scan(nullptr, mod->compiled);
                }
            }
        } else {
            for (const lysc_node *parent : current) {
                scan(parent, nullptr);
            }
        }
        current = std::move(next);
        if (current.empty()) {
            break;
        }
    }
    return current;
}

std::vector<lyd_node *> data_nodes(lyd_node *forest, const std::vector<path_step> &steps)
{
    std::vector<lyd_node *> current;
    if (forest == nullptr || steps.empty()) {
        return current;
    }
    select_children(lyd_first_sibling(forest), steps[0], current);
    for (size_t i = 1; i < steps.size() && !current.empty(); i++) {
        std::vector<lyd_node *> next;
        for (lyd_node *parent : current) {
            select_children(lyd_child(parent), steps[i], next);
        }
        current = std::move(next);
    }
    return current;
}

}  // namespace zen::mgmtd
