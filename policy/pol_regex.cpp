// The POSIX regular-expression functions, exported by the library under
// their own names. Each forwards to the next definition in the lookup
// order after this object, resolved once: the C library's, or an
// interposer between us and it (a sanitizer runtime intercepts these
// four, and its interceptor then calls the C library itself).
#include <dlfcn.h>
#include <regex.h>

#include <cstddef>

namespace {

using regcomp_f = int (*)(regex_t *, const char *, int);
using regexec_f = int (*)(const regex_t *, const char *, size_t, regmatch_t *, int);
using regerror_f = size_t (*)(int, const regex_t *, char *, size_t);
using regfree_f = void (*)(regex_t *);

// The next definition of name, or null when there is none. A lookup that
// comes back to our own function would make the forwarder call itself;
// it is treated as missing.
template <typename F>
F next_definition(const char *name, F self)
{
    auto fn = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
    return fn != self ? fn : nullptr;
}

}  // namespace

extern "C" {

int regcomp(regex_t *__restrict preg, const char *__restrict pattern, int cflags)
{
    static const regcomp_f next = next_definition<regcomp_f>("regcomp", regcomp);
    if (next == nullptr) {
        return REG_ESPACE;
    }
    return next(preg, pattern, cflags);
}

int regexec(const regex_t *__restrict preg, const char *__restrict string, size_t nmatch,
            regmatch_t pmatch[__restrict_arr], int eflags)
{
    static const regexec_f next = next_definition<regexec_f>("regexec", regexec);
    if (next == nullptr) {
        return REG_NOMATCH;
    }
    return next(preg, string, nmatch, pmatch, eflags);
}

size_t regerror(int errcode, const regex_t *__restrict preg, char *__restrict errbuf,
                size_t errbuf_size)
{
    static const regerror_f next = next_definition<regerror_f>("regerror", regerror);
    if (next == nullptr) {
        if (errbuf != nullptr && errbuf_size > 0) {
            errbuf[0] = '\0';
        }
        return 1;
    }
    return next(errcode, preg, errbuf, errbuf_size);
}

void regfree(regex_t *preg)
{
    static const regfree_f next = next_definition<regfree_f>("regfree", regfree);
    if (next != nullptr) {
        next(preg);
    }
}

}  // extern "C"
