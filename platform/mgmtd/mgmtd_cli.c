/* Command-line output of the management daemon: one stream per session. */
#include <zen/mgmtd.h>

#include <stddef.h>

enum { MGMTD_CLI_MAX_BOUND = 64 };

struct cli_binding {
    uint32_t usid;
    FILE *out;
};

static struct cli_binding g_bindings[MGMTD_CLI_MAX_BOUND];

static struct cli_binding *binding_of(uint32_t usid)
{
    for (size_t i = 0; i < MGMTD_CLI_MAX_BOUND; i++) {
        if (g_bindings[i].out != NULL && g_bindings[i].usid == usid) {
            return &g_bindings[i];
        }
    }
    return NULL;
}

int maapi_cli_bind_stream(uint32_t usid, FILE *out)
{
    struct cli_binding *b = binding_of(usid);
    for (size_t i = 0; b == NULL && i < MGMTD_CLI_MAX_BOUND; i++) {
        if (g_bindings[i].out == NULL) {
            b = &g_bindings[i];
        }
    }
    if (b == NULL || out == NULL) {
        return -1;
    }
    b->usid = usid;
    b->out = out;
    return 0;
}

void maapi_cli_unbind_stream(uint32_t usid)
{
    struct cli_binding *b = binding_of(usid);
    if (b != NULL) {
        b->out = NULL;
    }
}

int maapi_cli_vprintf(int maapi_sock, uint32_t usid, const char *fmt, va_list ap)
{
    (void)maapi_sock;
    struct cli_binding *b = binding_of(usid);
    FILE *out = b != NULL ? b->out : stdout;
    int n = vfprintf(out, fmt, ap);
    return n < 0 ? -1 : 0;
}

int maapi_cli_printf(int maapi_sock, uint32_t usid, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = maapi_cli_vprintf(maapi_sock, usid, fmt, ap);
    va_end(ap);
    return rc;
}
