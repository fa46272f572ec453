#!/bin/sh
# The shared library exports its entry points and data, and nothing of its
# internals: checks the dynamic symbol table against the promised interface
# and the version script, and the soname.
#   check_exports.sh LIBRARY [VERSION_SCRIPT]
# Without VERSION_SCRIPT, policy/libpolicy.map is looked for upwards from
# this script's directory.
set -eu
lib="$1"
map="${2:-}"
if [ -z "$map" ]; then
  dir=$(cd "$(dirname "$0")" && pwd)
  while [ "$dir" != / ] && [ ! -f "$dir/policy/libpolicy.map" ]; do dir=$(dirname "$dir"); done
  map="$dir/policy/libpolicy.map"
fi
[ -f "$map" ] || { echo "version script not found: $map"; exit 1; }

symbols=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^LIBPOLICY_')
status=0

# The interface hosts rely on.
for required in \
    pol_init pol_destroy pol_debug_set pol_register pol_unregister \
    pol_list_register pol_list_unregister pol_list_site_match pol_community_cmp \
    pol_handle_sets_tloc pol_handle_sets_tloc_list pol_handle_sets_service pol_handle_get_name \
    pol_pre_execute pol_execute pol_post_execute \
    pol_malloc pol_calloc pol_realloc pol_free pol_mem_info_update \
    regcomp regexec regerror regfree \
    pol_config_policy_site_list_name pol_config_policy_site_list \
    pol_config_policy_vpn_list_name pol_config_policy_vpn_list \
    pol_config_policy_tloc_list_name pol_config_policy_tloc_list \
    pol_config_policy_color_list_name pol_config_policy_color_list \
    pol_config_community_list_name pol_config_community_list \
    pol_config_policy_prefix_list_name pol_config_policy_prefix_list \
    pol_config_control_policy_read pol_config_control_policy_seq_read \
    pol_config_control_policy_match_read pol_config_control_policy_match_community_list_read \
    pol_config_route_policy_read pol_config_route_policy_seq_read \
    pol_config_membership_policy_read pol_config_membership_policy_seq_read \
    pol_config_policy_sla_class_read pol_config_policy_app_id_read pol_config_app_list_read pol_config_app_list_app_read pol_config_app_list_app_family_read pol_config_policy_app_probe_class_name_read pol_config_policy_app_probe_class_color_read pol_config_fwd_pfx_list_read pol_config_fwd_pfx6_list_read pol_config_fwd_pfx_list_ip_read pol_config_fwd_pfx6_list_ip_read pol_config_fwd_policer_read pol_config_cflowd_template_read pol_config_cflowd_collector_read \
    pol_config_fwd_read pol_config_fwd_vpn_list_read pol_config_fwd_seq_read pol_config_read_fwd_policy pol_config_cdb_read_ops_set \
    pol_config_update_tloc_list pol_config_error pol_config_error_clear pol_config_subscriptions pol_yang_enum_to_filter_mask pol_test_parse_cfg \
    pol_fwd_eval_label \
    pol_dump_memory_info pol_dump_route_policies pol_dump_membership_policies \
    pol_dump_cflowd_policies pol_dump_users_change_list pol_dump_all \
    pol_dump_xml_data_policy pol_dump_xml_pfr_policy pol_dump_xml_cflowd pol_dump_xml_policer \
    pol_dump_xml_sla_class pol_dump_xml_app_probe_class pol_dump_xml_fwd_prefix_list \
    pol_dump_xml_fwd_prefix_ipv6_list pol_dump_xml_vpn_list pol_dump_xml_tloc_list pol_dump_xml_app_list \
    pol_dump_xml_summary pol_dump_xml_statistics pol_dump_test_xml_gen \
    g_pol_ctx_p g_pol_dbg_level g_pol_mem_info g_polbuf1 g_pol_list_head \
    pol_show_data_pol_from_qarmon \
    pol_fwd_queue_xml_config pol_fwd_policy_populate pol_fwd_policy_xml_get pol_fwd_policy_xml_get_list \
    pol_fwd_policy_append pol_fwd_policy_hdr_add pol_show_fwd_policy_hdr_add \
    pol_fwd_policy_mgmtd_set pol_fwd_policy_mgmtd_delete \
    pol_show_fwd_policy_mgmtd_set pol_show_fwd_policy_mgmtd_delete; do
  echo "$symbols" | grep -qx "$required" || { echo "missing export: $required"; status=1; }
done

# Internals, among them helpers that share a prefix with exported names.
for internal in pol_block_find_or_create pol_user_chg_list_notify_all pol_site_list_add_entry \
                pol_exec_route avl_add pol_config_policy_get_match_type \
                pol_config_set_bgp_community_upd pol_test_get_tokens pol_test_parse_get_type \
                pol_dump_xml_data_policy_all pol_dump_obj_xml_statistics pol_xml_gen_test nsec_to_str \
                pol_fwd_eval_block pol_fwd_upd_label_set_entry pol_fwd_list_exists \
                pol_xml_fetch_compat_config pol_xml_remove_incompat_nodes pol_xml_dfs strstr_reverse; do
  if echo "$symbols" | grep -qx "$internal"; then echo "internal symbol exported: $internal"; status=1; fi
done

# Every export is named in the version script one by one: no pattern there
# may let internals out.
global=$(sed -e 's#/\*.*\*/##' -e '/^ *\/\*/,/\*\//d' "$map" | sed -n '/global:/,/local:/p' \
         | grep -v 'global:\|local:' | tr -d ' \t;' | grep -v '^$' || true)
if echo "$global" | grep -q '[*?]'; then
  echo "pattern in the global section of $map:"; echo "$global" | grep '[*?]'; status=1
fi
for sym in $symbols; do
  echo "$global" | grep -qx "$sym" || { echo "exported but not named in $map: $sym"; status=1; }
done

if echo "$symbols" | grep -q '^_Z'; then echo "C++ symbols exported:"; echo "$symbols" | grep '^_Z' | head; status=1; fi
readelf -d "$lib" | grep -q 'Library soname: \[libpolicy.so.0\]' || { echo "wrong soname"; status=1; }
# The subscription table is plain data: the datastore and its schema
# library stay the host's (the start-up read takes its cdb_* calls from the
# host through a table of function pointers). The daemon's client library,
# libzenmaapi, is linked: publishing the edge policy documents loads them
# into the daemon with its maapi_* and cdb_* calls and asks its schema.
if readelf -d "$lib" | grep NEEDED | grep -Eq 'libyang|libzenmgmtds'; then
  echo "links the configuration datastore:"; readelf -d "$lib" | grep NEEDED; status=1
fi
readelf -d "$lib" | grep NEEDED | grep -q 'libzenmaapi' || { echo "does not link libzenmaapi"; status=1; }
exit $status
