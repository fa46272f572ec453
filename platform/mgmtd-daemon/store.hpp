// The daemon's datastores: the libyang context with the loaded modules,
// the candidate, running and operational data trees, the database locks,
// and the running configuration's file.
//
// Not thread-safe: the daemon calls it under one mutex (daemon.hpp).
#ifndef ZEN_MGMTD_STORE_HPP
#define ZEN_MGMTD_STORE_HPP

#include <zen/maapi.h>

#include <libyang/libyang.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "paths.hpp"

namespace zen::mgmtd {

// An operation's failure: a framework error code and a message.
struct failure {
    int code = MGMTD_ERR_NONE;
    std::string message;
    explicit operator bool() const { return code != MGMTD_ERR_NONE; }
};

struct ctx_deleter {
    void operator()(ly_ctx *ctx) const { ly_ctx_destroy(ctx); }
};
using ctx_ptr = std::unique_ptr<ly_ctx, ctx_deleter>;

// A data forest (top-level siblings of any module), owned; may be empty.
class tree {
public:
    tree() = default;
    explicit tree(lyd_node *first) : first_(first) {}
    tree(tree &&other) noexcept : first_(other.release()) {}
    tree &operator=(tree &&other) noexcept;
    tree(const tree &) = delete;
    tree &operator=(const tree &) = delete;
    ~tree() { lyd_free_all(first_); }

    lyd_node *first() const { return first_; }
    // Where libyang calls that can change the first sibling write it.
    lyd_node **slot() { return &first_; }
    lyd_node *release();
    // A deep copy; an empty tree on failure is told apart by ok.
    tree copy(bool &ok) const;

private:
    lyd_node *first_ = nullptr;
};

using snapshot = std::shared_ptr<const tree>;

// One change a transaction collected: a parsed text or a deletion.
struct change {
    tree data;          // a load
    int flags = 0;      // its load flags
    std::string path;   // a deletion when not empty
};

struct store_options {
    std::string db_dir;                 // running.xml lives here
    std::vector<std::string> modules;   // YANG files to load
    std::string modules_dir;            // every *.yang there, also the import search dir
    bool edge_module = true;            // the built-in edge policy document module
    bool fsync = true;                  // running.xml reaches the disk before a commit is answered
};

class store {
public:
    // Loads the modules and the persisted running configuration.
    failure open(const store_options &options);

    // Parses a text for a transaction on db (the load flags as documented
    // in zen/maapi.h); nothing is kept when it fails.
    failure parse(int db, int flags, const std::string &text, tree &out);
    // Checks that a path could name data of the loaded modules.
    failure check_path(const std::string &path) const;

    // Writes a transaction's changes into db, all or none.
    failure apply(int db, std::vector<change> &changes, uint64_t owner);
    // Makes the candidate the running configuration (persisted first).
    failure commit(uint64_t owner);

    failure lock(int db, uint64_t owner);
    failure unlock(int db, uint64_t owner);
    void unlock_all(uint64_t owner);
    int locks() const { return static_cast<int>(locks_.size()); }
    long commits() const { return commits_; }

    // The running configuration as it is now (kept alive by the holder).
    snapshot running() const { return running_; }
    // The operational tree, changed in place by data sessions.
    tree &operational() { return operational_; }

    // Deletes what a path names from the operational tree (data sessions).
    failure delete_operational(const std::string &path);

    // The schema node a path names (the first when several modules have one).
    const lysc_node *schema_node(const std::string &path) const;

private:
    failure load_modules(const store_options &options);
    failure load_module_text(const char *name, const char *text);
    failure load_running();
    failure persist(const tree &t) const;
    failure changed_copy(const tree &source, int db, std::vector<change> &changes, tree &out);
    failure validate(tree &t, int db);
    failure replay(tree &work, std::vector<change> &changes);
    failure locked_by_other(int db, uint64_t owner) const;
    std::string ly_error() const;

    ctx_ptr ctx_;
    std::string running_file_;
    bool fsync_ = true;
    // Both immutable once made: an apply makes a new candidate, a commit
    // makes the candidate the running configuration as it is.
    snapshot running_ = std::make_shared<const tree>();
    snapshot candidate_ = running_;
    tree operational_;
    std::map<int, uint64_t> locks_;
    long commits_ = 0;
};

}  // namespace zen::mgmtd

#endif  // ZEN_MGMTD_STORE_HPP
