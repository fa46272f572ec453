#!/bin/sh
# The shared library exports its entry points and data, and nothing of its
# internals: checks the dynamic symbol table, the soname and the libraries
# it needs.
set -eu
lib="$1"
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//')
status=0
for required in pol_init pol_destroy pol_register pol_unregister pol_debug_set pol_execute \
                pol_list_register pol_community_cmp g_pol_ctx_p g_pol_mem_info g_pol_dbg_level \
                pol_config_control_policy_read pol_config_subscriptions regcomp; do
  echo "$symbols" | grep -qx "$required" || { echo "missing export: $required"; status=1; }
done
for internal in pol_block_find_or_create pol_user_chg_list_notify_all pol_site_list_add_entry \
                pol_exec_route avl_add; do
  if echo "$symbols" | grep -qx "$internal"; then echo "internal symbol exported: $internal"; status=1; fi
done
if echo "$symbols" | grep -q '^_Z'; then echo "C++ symbols exported:"; echo "$symbols" | grep '^_Z' | head; status=1; fi
readelf -d "$lib" | grep -q 'Library soname: \[libpolicy.so.0\]' || { echo "wrong soname"; status=1; }
# The subscription table is plain data: the datastore and its schema
# library stay the host's.
if readelf -d "$lib" | grep NEEDED | grep -Eq 'libyang|libzenmgmtds'; then
  echo "links the configuration datastore:"; readelf -d "$lib" | grep NEEDED; status=1
fi
exit $status
