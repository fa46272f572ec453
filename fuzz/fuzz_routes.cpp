// The polctl routes-file reader fed arbitrary bytes: it must read or
// refuse every line without crashing, report each problem on a line of
// the file, keep the statements it took in line order, and its TLOCs must
// read back from their own text.
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "polctl_host.hpp"
#include "polctl_routes.hpp"

namespace {

const fuzzsup::scratch_file *g_routes;

template <typename Decl>
int check_ascending(const std::vector<Decl> &decls, int after, const char *what)
{
    for (const Decl &d : decls) {
        if (d.line <= 0) {
            fuzzsup::fail(std::string(what) + " taken from line " + std::to_string(d.line));
        }
        if (d.line < after) {
            fuzzsup::fail(std::string(what) + " of line " + std::to_string(d.line) + " after line " +
                          std::to_string(after));
        }
        after = d.line;
    }
    return after;
}

void check_tloc_reads_back(const t_tloc_id &tloc, const char *what)
{
    const std::string text = polctl::tloc_text(tloc);
    t_tloc_id again{};
    if (!polctl::parse_tloc(text, &again) || TLOC_CMP(&again, &tloc) != 0) {
        fuzzsup::fail(std::string(what) + " TLOC does not read back from its text " + text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzsup::quiet_library_log();
    static const fuzzsup::scratch_file routes(".routes.txt");
    g_routes = &routes;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    g_routes->write(data, size);
    polctl::routes_file rf;
    const bool read = polctl::read_routes_file(g_routes->path(), &rf);
    if (!read && rf.errors.size() != 1) {
        fuzzsup::fail("an unreadable file reported " + std::to_string(rf.errors.size()) + " problems");
    }
    int last_error_line = 0;
    for (const polctl::input_error &e : rf.errors) {
        if (e.file != g_routes->path() || e.message.empty() || e.line < last_error_line) {
            fuzzsup::fail("problem reported out of place: " + e.text());
        }
        last_error_line = e.line;
    }
    check_ascending(rf.users, 1, "user");
    check_ascending(rf.labels, 1, "label");
    check_ascending(rf.routes, 1, "route");
    for (const polctl::label_decl &l : rf.labels) {
        check_tloc_reads_back(l.tloc, "label");
    }
    for (const polctl::route_decl &r : rf.routes) {
        if (r.user.empty()) {
            fuzzsup::fail("route of line " + std::to_string(r.line) + " without a user");
        }
        if (r.safi == POL_SAFI_TLOC) {
            check_tloc_reads_back(r.route_tloc, "route");
        }
        if ((r.attr.attr_flags & ZEN_ATTR_FLAG_TLOC) != 0) {
            check_tloc_reads_back(r.attr.tloc, "attribute");
        }
        if (!r.has_communities && !r.communities.empty()) {
            fuzzsup::fail("route of line " + std::to_string(r.line) + " has communities it does not declare");
        }
    }
    return 0;
}
