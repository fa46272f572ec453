// The daemon's datastores on libyang.
#include "store.hpp"

#include <zen/mgmtd_ds.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "envelope.hpp"
#include "zen_policy_edge_module.hpp"

namespace zen::mgmtd {

namespace {

failure fail(int code, std::string message)
{
    return failure{code, std::move(message)};
}

struct text_deleter {
    void operator()(char *p) const { std::free(p); }
};

bool ends_with(const std::string &s, const char *suffix)
{
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

std::vector<std::string> yang_files(const std::string &dir)
{
    std::vector<std::string> files;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        return files;
    }
    while (const dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        if (ends_with(name, ".yang")) {
            files.push_back(dir + "/" + name);
        }
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    return files;
}

// Frees data nodes of a forest (none below another), keeping its first
// sibling right.
void remove_nodes(tree &t, const std::vector<lyd_node *> &nodes)
{
    for (lyd_node *n : nodes) {
        if (n == t.first()) {
            *t.slot() = n->next;
        }
        lyd_free_tree(n);
    }
}

bool write_file(const std::string &path, const char *text, size_t size, bool sync)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, text + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ::close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    const bool synced = !sync || ::fsync(fd) == 0;
    return ::close(fd) == 0 && synced;
}

}  // namespace

/* ---- tree ---- */

tree &tree::operator=(tree &&other) noexcept
{
    if (this != &other) {
        lyd_free_all(first_);
        first_ = other.release();
    }
    return *this;
}

lyd_node *tree::release()
{
    lyd_node *first = first_;
    first_ = nullptr;
    return first;
}

tree tree::copy(bool &ok) const
{
    lyd_node *dup = nullptr;
    ok = first_ == nullptr ||
         lyd_dup_siblings(first_, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &dup) == LY_SUCCESS;
    return tree(dup);
}

/* ---- modules and the persisted configuration ---- */

std::string store::ly_error() const
{
    const ly_err_item *e = ly_err_last(ctx_.get());
    std::string out = e != nullptr && e->msg != nullptr ? e->msg : "libyang error";
    if (e != nullptr && e->path != nullptr) {
        out += std::string(" (") + e->path + ")";
    }
    ly_err_clean(ctx_.get(), nullptr);
    return out;
}

failure store::load_module_text(const char *name, const char *text)
{
    if (lys_parse_mem(ctx_.get(), text, LYS_IN_YANG, nullptr) != LY_SUCCESS) {
        return fail(MGMTD_ERR_INTERNAL, std::string("module ") + name + ": " + ly_error());
    }
    return {};
}

failure store::load_modules(const store_options &options)
{
    const mgmtd_ds_schema_t *policy = mgmtd_ds_policy_schema();
    if (failure f = load_module_text(policy->module_name, policy->module_text)) {
        return f;
    }
    if (options.edge_module) {
        if (failure f = load_module_text("zen-policy-edge", kPolicyEdgeModuleText)) {
            return f;
        }
    }
    std::vector<std::string> files = options.modules;
    if (!options.modules_dir.empty()) {
        const std::vector<std::string> dir_files = yang_files(options.modules_dir);
        files.insert(files.end(), dir_files.begin(), dir_files.end());
    }
    for (const std::string &file : files) {
        if (lys_parse_path(ctx_.get(), file.c_str(), LYS_IN_YANG, nullptr) != LY_SUCCESS) {
            return fail(MGMTD_ERR_INTERNAL, "module " + file + ": " + ly_error());
        }
    }
    return {};
}

failure store::load_running()
{
    tree loaded;
    struct stat st;
    if (::stat(running_file_.c_str(), &st) == 0) {
        lyd_node *first = nullptr;
        if (lyd_parse_data_path(ctx_.get(), running_file_.c_str(), LYD_XML,
                                LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, LYD_VALIDATE_NO_STATE,
                                &first) != LY_SUCCESS) {
            return fail(MGMTD_ERR_VALIDATION, running_file_ + ": " + ly_error());
        }
        loaded = tree(first);
    } else if (errno != ENOENT) {
        return fail(MGMTD_ERR_OS, running_file_ + ": " + std::strerror(errno));
    }
    if (failure f = validate(loaded, MGMTD_RUNNING)) {
        return fail(f.code, running_file_ + ": " + f.message);
    }
    running_ = std::make_shared<const tree>(std::move(loaded));
    candidate_ = running_;
    return {};
}

failure store::open(const store_options &options)
{
    ly_log_options(LY_LOSTORE_LAST);
    ly_ctx *ctx = nullptr;
    const char *search = options.modules_dir.empty() ? nullptr : options.modules_dir.c_str();
    if (ly_ctx_new(search, LY_CTX_NO_YANGLIBRARY, &ctx) != LY_SUCCESS) {
        return fail(MGMTD_ERR_INTERNAL, "cannot create the schema context");
    }
    ctx_.reset(ctx);
    running_file_ = options.db_dir + "/running.xml";
    fsync_ = options.fsync;
    if (failure f = load_modules(options)) {
        return f;
    }
    return load_running();
}

failure store::persist(const tree &t) const
{
    char *raw = nullptr;
    if (t.first() != nullptr &&
        lyd_print_mem(&raw, t.first(), LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
        return fail(MGMTD_ERR_INTERNAL, "cannot print the running configuration");
    }
    std::unique_ptr<char, text_deleter> text(raw);
    const std::string tmp = running_file_ + ".tmp";
    const size_t size = text != nullptr ? std::strlen(text.get()) : 0;
    if (!write_file(tmp, text != nullptr ? text.get() : "", size, fsync_) ||
        ::rename(tmp.c_str(), running_file_.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        ::unlink(tmp.c_str());
        return fail(MGMTD_ERR_OS, running_file_ + ": " + why);
    }
    return {};
}

/* ---- loads and paths ---- */

failure store::parse(int db, int flags, const std::string &text, tree &out)
{
    if ((flags & ~MAAPI_CONFIG_ALL_FLAGS) != 0) {
        return fail(MGMTD_ERR_PROTOUSAGE, "unknown load flags " + std::to_string(flags));
    }
    if ((flags & MAAPI_CONFIG_XML) == 0) {
        return fail(MGMTD_ERR_PROTOUSAGE, "XML is the only text format (load flag 0x0001)");
    }
    const bool oper = (flags & MAAPI_CONFIG_OPER) != 0;
    if (oper != (db == MGMTD_OPERATIONAL)) {
        return fail(MGMTD_ERR_PROTOUSAGE, oper ? "operational data loaded into a configuration"
                                               : "configuration loaded into operational data");
    }
    std::string inner;
    std::string why;
    const unwrap_result unwrapped = unwrap_envelope(text, inner, why);
    if (unwrapped == unwrap_result::malformed) {
        return fail(MGMTD_ERR_XML, why);
    }
    const std::string &data = unwrapped == unwrap_result::unwrapped ? inner : text;
    uint32_t parse_options = LYD_PARSE_ONLY;
    parse_options |= (flags & MAAPI_CONFIG_STRICT) != 0 ? LYD_PARSE_STRICT : 0;
    parse_options |= oper ? 0 : LYD_PARSE_NO_STATE;
    lyd_node *first = nullptr;
    if (lyd_parse_data_mem(ctx_.get(), data.c_str(), LYD_XML, parse_options, 0, &first) !=
        LY_SUCCESS) {
        return fail(MGMTD_ERR_XML, ly_error());
    }
    out = tree(first);
    return {};
}

const lysc_node *store::schema_node(const std::string &path) const
{
    std::string why;
    const auto steps = parse_path(path, why);
    if (!steps || steps->empty()) {
        return nullptr;
    }
    const std::vector<const lysc_node *> nodes = schema_nodes(ctx_.get(), *steps);
    return nodes.empty() ? nullptr : nodes.front();
}

failure store::check_path(const std::string &path) const
{
    std::string why;
    const auto steps = parse_path(path, why);
    if (!steps) {
        return fail(MGMTD_ERR_BADPATH, why);
    }
    if (steps->empty() || schema_nodes(ctx_.get(), *steps).empty()) {
        return fail(MGMTD_ERR_BADPATH, "no such node in the loaded modules: " + path);
    }
    return {};
}

/* ---- writes ---- */

failure store::validate(tree &t, int db)
{
    const uint32_t options = db == MGMTD_OPERATIONAL ? LYD_VALIDATE_PRESENT : LYD_VALIDATE_NO_STATE;
    if (lyd_validate_all(t.slot(), ctx_.get(), options, nullptr) != LY_SUCCESS) {
        return fail(MGMTD_ERR_VALIDATION, ly_error());
    }
    return {};
}

failure store::replay(tree &work, std::vector<change> &changes)
{
    for (change &c : changes) {
        if (!c.path.empty()) {
            std::string why;
            const auto steps = parse_path(c.path, why);
            remove_nodes(work, data_nodes(work.first(), steps.value_or(std::vector<path_step>{})));
            continue;
        }
        if ((c.flags & MAAPI_CONFIG_REPLACE) != 0) {
            for (lyd_node *top = c.data.first(); top != nullptr; top = top->next) {
                lyd_node *old = nullptr;
                if (work.first() != nullptr &&
                    lyd_find_sibling_first(work.first(), top, &old) == LY_SUCCESS) {
                    remove_nodes(work, {old});
                }
            }
        }
        if (c.data.first() != nullptr &&
            lyd_merge_siblings(work.slot(), c.data.first(), 0) != LY_SUCCESS) {
            return fail(MGMTD_ERR_INTERNAL, "merge: " + ly_error());
        }
    }
    return {};
}

failure store::locked_by_other(int db, uint64_t owner) const
{
    const auto it = locks_.find(db);
    if (it != locks_.end() && it->second != owner) {
        return fail(MGMTD_ERR_INUSE, std::string(db == MGMTD_RUNNING ? "running" : "candidate") +
                                         " database is locked by another session");
    }
    return {};
}

// A validated copy of source with the changes.
failure store::changed_copy(const tree &source, int db, std::vector<change> &changes, tree &out)
{
    bool ok = false;
    tree work = source.copy(ok);
    if (!ok) {
        return fail(MGMTD_ERR_MALLOC, "cannot copy the database");
    }
    if (failure f = replay(work, changes)) {
        return f;
    }
    if (failure f = validate(work, db)) {
        return f;
    }
    out = std::move(work);
    return {};
}

failure store::apply(int db, std::vector<change> &changes, uint64_t owner)
{
    if (db == MGMTD_OPERATIONAL) {
        return changed_copy(operational_, db, changes, operational_);
    }
    if (db != MGMTD_CANDIDATE) {
        return fail(MGMTD_ERR_NOT_WRITABLE, "only the candidate and operational databases take writes");
    }
    if (failure f = locked_by_other(db, owner)) {
        return f;
    }
    tree work;
    if (failure f = changed_copy(*candidate_, db, changes, work)) {
        return f;
    }
    candidate_ = std::make_shared<const tree>(std::move(work));
    return {};
}

// The candidate was validated when it was made, so it is taken as it is.
failure store::commit(uint64_t owner)
{
    if (failure f = locked_by_other(MGMTD_RUNNING, owner)) {
        return f;
    }
    if (failure f = locked_by_other(MGMTD_CANDIDATE, owner)) {
        return f;
    }
    if (candidate_ != running_) {
        if (failure f = persist(*candidate_)) {
            return f;
        }
        running_ = candidate_;
    }
    commits_++;
    return {};
}

failure store::delete_operational(const std::string &path)
{
    if (failure f = check_path(path)) {
        return f;
    }
    std::string why;
    const auto steps = parse_path(path, why);
    const std::vector<lyd_node *> nodes = data_nodes(operational_.first(), *steps);
    if (nodes.empty()) {
        return fail(MGMTD_ERR_NOEXISTS, "nothing at " + path);
    }
    remove_nodes(operational_, nodes);
    return {};
}

/* ---- locks ---- */

failure store::lock(int db, uint64_t owner)
{
    if (db != MGMTD_CANDIDATE && db != MGMTD_RUNNING) {
        return fail(MGMTD_ERR_PROTOUSAGE, "only the candidate and running databases can be locked");
    }
    if (failure f = locked_by_other(db, owner)) {
        return f;
    }
    locks_[db] = owner;
    return {};
}

failure store::unlock(int db, uint64_t owner)
{
    const auto it = locks_.find(db);
    if (it == locks_.end() || it->second != owner) {
        return fail(MGMTD_ERR_BADSTATE, "the session does not hold that lock");
    }
    locks_.erase(it);
    return {};
}

void store::unlock_all(uint64_t owner)
{
    std::erase_if(locks_, [owner](const auto &entry) { return entry.second == owner; });
}

}  // namespace zen::mgmtd
