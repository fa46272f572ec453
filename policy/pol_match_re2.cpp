// The automaton behind pattern_set: RE2::Set in POSIX mode with
// leftmost-longest semantics, unanchored, so that a match anywhere in the
// text counts, as regexec reports it.
#include "pol_match_re2.hpp"

#include <new>

#include <re2/re2.h>
#include <re2/set.h>

namespace pol {

struct pattern_set {
    re2::RE2::Set set;
    explicit pattern_set(const re2::RE2::Options &options) : set(options, re2::RE2::UNANCHORED) {}
};

namespace {

re2::RE2::Options posix_options()
{
    re2::RE2::Options options;
    options.set_posix_syntax(true);
    options.set_longest_match(true);
    options.set_one_line(true);  // ^ and $ at the ends of the text only
    options.set_encoding(re2::RE2::Options::EncodingLatin1);
    options.set_never_capture(true);
    options.set_log_errors(false);
    return options;
}

void clear(bool *taken, std::size_t count)
{
    for (std::size_t i = 0; i < count; i++) {
        taken[i] = false;
    }
}

}  // namespace

pattern_set *pattern_set_build(const char *const *patterns, std::size_t count, bool *taken)
{
    clear(taken, count);
    pattern_set *ps = nullptr;
    try {
        ps = new pattern_set(posix_options());
        std::size_t added = 0;
        for (std::size_t i = 0; i < count; i++) {
            taken[i] = ps->set.Add(patterns[i], nullptr) >= 0;
            added += taken[i] ? 1 : 0;
        }
        if (added > 0 && ps->set.Compile()) {
            return ps;
        }
    } catch (const std::bad_alloc &) {
    }
    delete ps;
    clear(taken, count);
    return nullptr;
}

int pattern_set_match(const pattern_set *ps, const char *text, std::size_t length)
{
    try {
        re2::RE2::Set::ErrorInfo error{};
        bool found = ps->set.Match(re2::StringPiece(text, length), nullptr, &error);
        if (error.kind != re2::RE2::Set::kNoError) {
            return -1;
        }
        return found ? 1 : 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

void pattern_set_release(pattern_set *ps)
{
    delete ps;
}

}  // namespace pol
