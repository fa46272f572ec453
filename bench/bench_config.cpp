// Configuration throughput: polctl's check and diff commands (the
// polctl_core functions, with the library's readers subscribed as polctl
// subscribes them) on one IPv4 prefix list of N entries, N = 1,000, 10,000
// and 100,000, written to a temporary directory.
//
//   check  parse, validate and count the file, commit it: N + 1 callbacks.
//   diff   commit the file, then the same file with one entry's `le`
//          changed: N + 1 callbacks, then one; every callback is traced
//          and printed as polctl prints it.
//
// Times are the process's CPU time (the machine is shared, so wall time
// says more about the neighbours than about the code); the wall time is
// printed beside it. Each command runs once untimed before it is timed.
// The summary gives each time against the 1,000-entry time of the same run.
//
// Targets (the exit status is non-zero when one is missed):
//   check of 100,000 entries under 2 s, diff of 100,000 entries under 3 s;
//   from 10,000 to 100,000 entries, each command's time grows at most 12x.
#include <benchmark/benchmark.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "polctl_cmd.hpp"

namespace {

constexpr int kSizes[] = {1000, 10000, 100000};
constexpr double kCheckTarget = 2.0;   // s at 100,000 entries
constexpr double kDiffTarget = 3.0;    // s at 100,000 entries
constexpr double kGrowthTarget = 12.0; // 100,000 against 10,000 entries

double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double wall_seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Entry i of the list: a distinct /28 of 10.0.0.0/8 with le 32, or le 30
// for the one entry that the changed file edits.
std::string prefix_list_file(int entries, int changed_entry)
{
    std::string out = "<policy xmlns=\"urn:zen:params:xml:ns:yang:zen-policy\"><lists>\n"
                      "<prefix-list><name>bench</name>\n";
    char line[128];
    for (int i = 0; i < entries; i++) {
        const unsigned addr = 0x0a000000u + (static_cast<unsigned>(i) << 4);
        std::snprintf(line, sizeof(line),
                      "<entry><prefix>%u.%u.%u.%u/28</prefix><le>%d</le></entry>\n", addr >> 24,
                      (addr >> 16) & 0xff, (addr >> 8) & 0xff, addr & 0xff,
                      i == changed_entry ? 30 : 32);
        out += line;
    }
    return out + "</prefix-list></lists></policy>\n";
}

class temp_files {
public:
    temp_files()
    {
        char dir[] = "/tmp/bench_configXXXXXX";
        if (mkdtemp(dir) != nullptr) {
            dir_ = dir;
        }
    }
    ~temp_files()
    {
        for (const std::string &f : files_) {
            std::remove(f.c_str());
        }
        if (!dir_.empty()) {
            rmdir(dir_.c_str());
        }
    }
    temp_files(const temp_files &) = delete;
    temp_files &operator=(const temp_files &) = delete;

    std::string write(const std::string &name, const std::string &text)
    {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        files_.push_back(path);
        return path;
    }

private:
    std::string dir_;
    std::vector<std::string> files_;
};

// The command's standard output: formatted in full, but only its first
// and its last few kilobytes are kept (the summary lines the run checks),
// as a terminal keeps what it shows, instead of a string of tens of
// megabytes that would be timed with the command.
class output_ends : public std::streambuf {
public:
    std::string text() const { return head_ + "\n...\n" + tail_; }

protected:
    int_type overflow(int_type c) override
    {
        if (c != traits_type::eof()) {
            const char ch = traits_type::to_char_type(c);
            xsputn(&ch, 1);
        }
        return traits_type::not_eof(c);
    }

    std::streamsize xsputn(const char *s, std::streamsize n) override
    {
        const auto len = static_cast<size_t>(n);
        if (head_.size() < kKeep) {
            head_.append(s, std::min(len, kKeep - head_.size()));
        }
        tail_.append(s, len);
        if (tail_.size() > 2 * kKeep) {
            tail_.erase(0, tail_.size() - kKeep);
        }
        return n;
    }

private:
    static constexpr size_t kKeep = 4096;
    std::string head_;
    std::string tail_;
};

struct input_pair {
    std::string base;     // N entries
    std::string changed;  // the same with one entry edited
};

std::map<int, input_pair> g_inputs;

struct timing {
    double cpu = 0;
    double wall = 0;
};

// Seconds per run, by command and size.
std::map<std::string, std::map<int, timing>> g_times;

// Runs one command per iteration and records its mean time; the output
// must hold every expected text (the numbers of callbacks).
template <typename Command>
void run_command(benchmark::State &state, const char *name, int entries, Command &&command,
                 const std::vector<std::string> &expect)
{
    // One untimed run first, so that every size is timed with the heap
    // already grown to it (the first run of a size pays the page faults).
    {
        output_ends sink;
        std::ostream out(&sink);
        std::ostringstream err;
        command(out, err);
    }
    double cpu = 0;
    double wall = 0;
    for (auto _ : state) {
        output_ends sink;
        std::ostream out(&sink);
        std::ostringstream err;
        const double cpu_start = cpu_seconds();
        const double wall_start = wall_seconds();
        const int rc = command(out, err);
        const double cpu_used = cpu_seconds() - cpu_start;
        wall += wall_seconds() - wall_start;
        cpu += cpu_used;
        state.SetIterationTime(cpu_used);
        const std::string text = sink.text();
        bool as_expected = rc == polctl::EXIT_OK;
        for (const std::string &e : expect) {
            as_expected = as_expected && text.find(e) != std::string::npos;
        }
        if (!as_expected) {
            std::fprintf(stderr, "%s: %s\n", name, err.str().c_str());
            state.SkipWithError("the command did not deliver as expected");
            return;
        }
    }
    const auto runs = static_cast<double>(state.iterations());
    g_times[name][entries] = {cpu / runs, wall / runs};
    state.counters["entries"] = entries;
}

// Texts are formatted with snprintf: g++ 12 warns falsely on some
// std::string concatenations at -O3.
std::string format_count(const char *fmt, int count)
{
    char buf[96];
    std::snprintf(buf, sizeof(buf), fmt, count);
    return buf;
}

void bench_check(benchmark::State &state)
{
    const int entries = static_cast<int>(state.range(0));
    const std::string &file = g_inputs[entries].base;
    run_command(
        state, "check", entries,
        [&](std::ostream &out, std::ostream &err) {
            return polctl::cmd_check(polctl::options{}, file, out, err);
        },
        {format_count("valid, %d callbacks", entries + 1)});
}

void bench_diff(benchmark::State &state)
{
    const int entries = static_cast<int>(state.range(0));
    const input_pair &in = g_inputs[entries];
    run_command(
        state, "diff", entries,
        [&](std::ostream &out, std::ostream &err) {
            return polctl::cmd_diff(polctl::options{}, in.base, in.changed, out, err);
        },
        {format_count(" %d callbacks, 0 notifications\ncommit 2:", entries + 1),
         "\n  1 callbacks, 0 notifications\n"});
}

// Fewer runs of the larger inputs: one 100,000-entry run takes about a
// second.
int64_t runs_for(int entries)
{
    return entries <= 1000 ? 20 : entries <= 10000 ? 3 : 1;
}

void register_all(temp_files &files)
{
    for (int n : kSizes) {
        const std::string tag = std::to_string(n);
        g_inputs[n] = {files.write("list-" + tag + ".xml", prefix_list_file(n, -1)),
                       files.write("list-" + tag + "-changed.xml", prefix_list_file(n, n / 2))};
        struct command {
            const char *name;
            void (*fn)(benchmark::State &);
        };
        for (const command &c : {command{"config/check", bench_check},
                                 command{"config/diff", bench_diff}}) {
            benchmark::RegisterBenchmark(c.name, c.fn)
                ->Arg(n)
                ->Iterations(runs_for(n))
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}

// Prints the summary; false when a target is missed.
bool print_summary()
{
    bool ok = true;
    std::printf("\n%-8s %10s %10s %10s %10s %12s  %s\n", "command", "entries", "cpu s", "wall s",
                "vs 1k", "us/entry", "target");
    const std::map<std::string, double> limits = {{"check", kCheckTarget},
                                                  {"diff", kDiffTarget}};
    for (const auto &[name, limit] : limits) {
        const std::map<int, timing> &times = g_times[name];
        const double base = times.count(1000) != 0 ? times.at(1000).cpu : 0;
        for (int n : kSizes) {
            const timing t = times.count(n) != 0 ? times.at(n) : timing{};
            std::string target = "reported";
            if (n == 100000) {
                const bool met = t.cpu > 0 && t.cpu < limit;
                ok = ok && met;
                char text[32];
                std::snprintf(text, sizeof(text), "<%.0f s: ", limit);
                target = text + std::string(met ? "met" : "MISSED");
            }
            std::printf("%-8s %10d %10.3f %10.3f %9.1fx %12.2f  %s\n", name.c_str(), n, t.cpu,
                        t.wall, base > 0 ? t.cpu / base : 0, t.cpu * 1e6 / n, target.c_str());
        }
        const double small = times.count(10000) != 0 ? times.at(10000).cpu : 0;
        const double large = times.count(100000) != 0 ? times.at(100000).cpu : 0;
        const double growth = small > 0 ? large / small : 0;
        const bool met = growth > 0 && growth <= kGrowthTarget;
        ok = ok && met;
        std::printf("%s time, 100,000 vs 10,000 entries: %.1fx (target <= %.0fx: %s)\n",
                    name.c_str(), growth, kGrowthTarget, met ? "met" : "MISSED");
    }
    return ok;
}

}  // namespace

int main(int argc, char **argv)
{
    temp_files files;
    register_all(files);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return print_summary() ? 0 : 1;
}
