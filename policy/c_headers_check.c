/* Compiled as C: every public header of the library must stay C-clean. */
#include <policy/pol.h>
#include <policy/pol_api.h>
#include <policy/pol_config.h>
#include <policy/pol_fwd.h>
#include <policy/pol_lists.h>

#include "pol_internal.h"

#include <zen/avl.h>
#include <zen/ip_util.h>
#include <zen/mgmtd.h>
#include <zen/zen_attr.h>
#include <zen/zen_err.h>
#include <zen/zen_policy_tags.h>
#include <zen/zen_types.h>
#include <zen/zen_util.h>

/* The records are plain C layouts: a C compiler must see the same sizes. */
_Static_assert(sizeof(t_pol_ctx) > 0, "context record");
_Static_assert(sizeof(((t_pol_te_info *)0)->entries) / sizeof(t_pol_te) == POL_MAX_TE_ENTRIES,
               "label table capacity");

/* The schema tag table expands in C: every row a name and a non-zero tag. */
#define C_CHECK_TAG(id, name, tag) +(sizeof(name) > 1 && (tag) != 0 ? 0 : 1)
_Static_assert((0 ZEN_POLICY_TAGS(C_CHECK_TAG)) == 0, "schema tag table");
#undef C_CHECK_TAG
