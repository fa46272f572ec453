// Paths of the management daemon: "/a/prefix:b[2]/c{key1 key2}/leaf".
// A step is a node name, optionally prefixed with its module's name or
// prefix; a list step may select an entry by 0-based position ([n]) or by
// its key values ({k1 k2}, in key order, a value with spaces in double
// quotes). A step without a prefix matches the node of any module, so a
// path can match in several modules at once (two top-level "policy"
// containers); every match is kept.
#ifndef ZEN_MGMTD_PATHS_HPP
#define ZEN_MGMTD_PATHS_HPP

#include <libyang/libyang.h>

#include <optional>
#include <string>
#include <vector>

namespace zen::mgmtd {

struct path_step {
    std::string prefix;
    std::string name;
    long index = -1;                 // [n]
    std::vector<std::string> keys;   // {k ...}
};

// The steps of an absolute path; none (with why) when it does not parse.
std::optional<std::vector<path_step>> parse_path(const std::string &path, std::string &why);

// path joined to a current directory (itself when absolute).
std::string join_path(const std::string &dir, const std::string &path);

// The schema nodes of the loaded modules the steps name.
std::vector<const lysc_node *> schema_nodes(const ly_ctx *ctx, const std::vector<path_step> &steps);

// The data nodes of a forest the steps name, in document order.
std::vector<lyd_node *> data_nodes(lyd_node *forest, const std::vector<path_step> &steps);

}  // namespace zen::mgmtd

#endif  // ZEN_MGMTD_PATHS_HPP
