#include "fuzz_support.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "exec_model.hpp"
#include "exec_reference.hpp"

namespace fuzzsup {

namespace {

void discard_log(int, const char *) {}

std::string scratch_dir()
{
    if (access("/dev/shm", W_OK) == 0) {
        return "/dev/shm";
    }
    const char *tmp = std::getenv("TMPDIR");
    return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

}  // namespace

scratch_file::scratch_file(const char *suffix)
    : path_(scratch_dir() + "/libpolicy-fuzz-" + std::to_string(getpid()) + suffix)
{
}

scratch_file::~scratch_file()
{
    std::remove(path_.c_str());
}

void scratch_file::write(const uint8_t *data, size_t size) const
{
    FILE *fp = std::fopen(path_.c_str(), "wb");
    if (fp == nullptr || (size > 0 && std::fwrite(data, 1, size, fp) != size) || std::fclose(fp) != 0) {
        std::perror(path_.c_str());
        std::abort();  // the harness itself cannot run
    }
}

void quiet_library_log()
{
    pol_log_set_sink(discard_log);
}

accounting accounting::now()
{
    accounting a;
    for (int i = 0; i < POL_MEM_MAX; i++) {
        a.live[i] = static_cast<int64_t>(g_pol_mem_info[i].alloc - g_pol_mem_info[i].free);
    }
    return a;
}

void accounting::expect_back_at(const accounting &start, const char *when,
                                std::initializer_list<e_pol_mem> exempt) const
{
    std::string rows;
    for (int i = 0; i < POL_MEM_MAX; i++) {
        bool skipped = std::find(exempt.begin(), exempt.end(), static_cast<e_pol_mem>(i)) != exempt.end();
        if (!skipped && live[i] != start.live[i]) {
            rows += "\n  row " + std::to_string(i) + " (" + g_pol_mem_info[i].desc + "): " +
                    std::to_string(start.live[i]) + " live before, " + std::to_string(live[i]) + " after";
        }
    }
    if (!rows.empty()) {
        fail(std::string("accounting not back at its start ") + when + ":" + rows);
    }
}

bool avoid_known_faults()
{
    static const bool avoid = std::getenv("POL_FUZZ_KNOWN_FAULTS") == nullptr;
    return avoid;
}

void fail(const std::string &message)
{
    std::fprintf(stderr, "\n==== fuzz check failed: %s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

void execute_against_reference(t_pol_user *user, t_pol_exec_params &lib, const std::string &context)
{
    t_pol_exec_params ref;
    t_pol_te_info lib_te{}, ref_te{};
    lib.te_info_p = &lib_te;
    std::memcpy(static_cast<void *>(&ref), &lib, sizeof(ref));
    ref.te_info_p = &ref_te;

    const int64_t buffers = accounting::now().live[POL_MEM_LIST_VPN_1];
    const e_pol_action lib_v = pol_execute(user, &lib);
    const e_pol_action ref_v = execref::execute(user, &ref);
    const std::vector<std::string> got = execmodel::outcome(lib_v, lib, lib_te);
    const std::vector<std::string> want = execmodel::outcome(ref_v, ref, ref_te);
    const auto diff = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
    if (diff.first != got.end() || diff.second != want.end()) {
        fail(std::string("library and reference disagree on a route of ") + user->user_name + " (" +
             context + "): library " + (diff.first != got.end() ? *diff.first : "-") +
             ", reference " + (diff.second != want.end() ? *diff.second : "-"));
    }
    // Only a controller's post-execution releases the export buffer.
    if (lib.my_device_type == ZEN_DEVICE_QARMON) {
        pol_post_execute(&lib);
    } else {
        pol_free(lib.vpn_list.vpn_list_p, POL_MEM_LIST_VPN_1);
    }
    if (accounting::now().live[POL_MEM_LIST_VPN_1] != buffers) {
        fail("more than one export VPN buffer for one execution");
    }
    execref::release(&ref);
}

}  // namespace fuzzsup
