# polctl end to end, run from the source tree so that the reports name the
# inputs by their relative paths. The same checks run in the sanitizer
# build, where any report fails them.
function(polctl_test name rc)
  cmake_parse_arguments(T "" "GOLDEN;GOLDEN_ERR;ERR_REGEX;OUT_REGEX;MASK_POINTERS;MASK_TIMES;JSON_ARRAY"
    "ARGS" ${ARGN})
  string(REPLACE ";" "|" args "${T_ARGS}")
  add_test(NAME ${name}
    COMMAND ${CMAKE_COMMAND} -DPOLCTL=$<TARGET_FILE:polctl> -DARGS=${args}
            -DWORKDIR=${PROJECT_SOURCE_DIR} -DEXPECT_RC=${rc}
            -DGOLDEN=${T_GOLDEN} -DGOLDEN_ERR=${T_GOLDEN_ERR}
            -DERR_REGEX=${T_ERR_REGEX} -DOUT_REGEX=${T_OUT_REGEX}
            -DMASK_POINTERS=${T_MASK_POINTERS} -DMASK_TIMES=${T_MASK_TIMES}
            -DJSON_ARRAY=${T_JSON_ARRAY}
            -P ${CMAKE_CURRENT_SOURCE_DIR}/polctl_check.cmake)
endfunction()

set(POLCTL_GOLDEN ${PROJECT_SOURCE_DIR}/tests/golden)
set(POLCTL_DATA tests/data/polctl)
polctl_test(polctl_run 0 ARGS run examples/policy.xml examples/routes.txt
  GOLDEN ${POLCTL_GOLDEN}/run.txt)
polctl_test(polctl_run_json 0 ARGS --json run examples/policy.xml examples/routes.txt
  GOLDEN ${POLCTL_GOLDEN}/run.json)
polctl_test(polctl_run_json_config 0 ARGS run examples/policy.json examples/routes.txt
  GOLDEN ${POLCTL_GOLDEN}/run-from-json.txt)
polctl_test(polctl_diff 0 ARGS diff examples/policy.xml examples/policy-v2.xml
  GOLDEN ${POLCTL_GOLDEN}/diff.txt)
polctl_test(polctl_diff_json 0 ARGS --json diff examples/policy.xml examples/policy-v2.xml
  OUT_REGEX "\"command\": \"diff\"")
polctl_test(polctl_check 0 ARGS check examples/policy-v2.xml GOLDEN ${POLCTL_GOLDEN}/check.txt)
polctl_test(polctl_check_data 0 ARGS check examples/data-policy.xml
  GOLDEN ${POLCTL_GOLDEN}/check-data.txt)
polctl_test(polctl_diff_data 0 ARGS diff examples/data-policy.xml examples/data-policy-v2.xml
  GOLDEN ${POLCTL_GOLDEN}/diff-data.txt)
foreach(what policies lists)
  polctl_test(polctl_show_data_${what} 0 ARGS show ${what} examples/data-policy.xml
    GOLDEN ${POLCTL_GOLDEN}/show-data-${what}.txt MASK_POINTERS 1)
endforeach()
# Every kind of list, entries and lists given out of order, with the
# policies that match on them and one that only sets a TLOC list.
polctl_test(polctl_show_every_list 0 ARGS show lists ${POLCTL_DATA}/show-lists.xml
  GOLDEN ${POLCTL_GOLDEN}/show-lists.txt MASK_POINTERS 1)
# The documents of the data-plane objects: every kind, one kind, as JSON,
# and their cost (the durations vary per run: masked). A configuration of
# the control side only has no data-plane object but its VPN and TLOC lists.
polctl_test(polctl_render_data 0 ARGS render examples/data-policy.xml
  GOLDEN ${POLCTL_GOLDEN}/render-data.txt)
polctl_test(polctl_render_data_kind 0 ARGS render --kind sla-class examples/data-policy.xml
  GOLDEN ${POLCTL_GOLDEN}/render-data-sla-class.txt)
# With the label callback answering from a labels file: the TLOC-list,
# set-TLOC and service sequences show the labels and targets it gave.
polctl_test(polctl_render_data_labels 0 ARGS render examples/data-policy.xml --labels examples/labels.txt
  GOLDEN ${POLCTL_GOLDEN}/render-data-labels.txt)
polctl_test(polctl_stats_labels 0 ARGS --json stats --labels examples/labels.txt examples/data-policy.xml
  OUT_REGEX "\"documents\": 15,")
polctl_test(polctl_render_json 0 ARGS --json render examples/data-policy.xml JSON_ARRAY 15)
polctl_test(polctl_render_json_kind 0 ARGS --json render --kind vpn-list examples/data-policy.xml
  JSON_ARRAY 2)
polctl_test(polctl_render_control_only 0 ARGS render examples/policy.xml
  OUT_REGEX "^# vpn-list corporate\n.*# vpn-list shared-services\n.*# tloc-list hub-tlocs\n.*\nexamples/policy.xml: 3 documents\n$")
polctl_test(polctl_stats_data 0 ARGS stats examples/data-policy.xml
  GOLDEN ${POLCTL_GOLDEN}/stats-data.txt MASK_TIMES 1)
polctl_test(polctl_stats_json 0 ARGS --json stats examples/data-policy.xml
  OUT_REGEX "\"documents\": 15,\n  \"text\": \".*data-ipv6-prefix-list ==>")
polctl_test(polctl_check_data_v2 0 ARGS check examples/data-policy-v2.xml
  OUT_REGEX "^examples/data-policy-v2.xml: valid")
polctl_test(polctl_check_json 0 ARGS --json check examples/policy.xml
  OUT_REGEX "\"valid\": true")
foreach(what policies lists users memory)
  polctl_test(polctl_show_${what} 0 ARGS show ${what} OUT_REGEX ".")
endforeach()
polctl_test(polctl_show_json 0 ARGS --json show policies OUT_REGEX "\"text\": \".*hub-and-spoke")
polctl_test(polctl_help 0 ARGS --help OUT_REGEX "usage: polctl")
polctl_test(polctl_usage_no_command 2 ERR_REGEX "no command")
polctl_test(polctl_usage_unknown 2 ARGS frobnicate ERR_REGEX "unknown command")
polctl_test(polctl_usage_option 2 ARGS --colour run ERR_REGEX "unknown option --colour")
polctl_test(polctl_usage_show 2 ARGS show everything ERR_REGEX "show what")
polctl_test(polctl_usage_render_kind 2 ARGS render --kind policy examples/data-policy.xml
  ERR_REGEX "render --kind takes one of data-policy, app-route-policy, .*, app-list, not \"policy\"")
polctl_test(polctl_usage_kind_elsewhere 2 ARGS stats --kind vpn-list examples/data-policy.xml
  ERR_REGEX "--kind goes with render only")
polctl_test(polctl_usage_render 2 ARGS render ERR_REGEX "render needs one CONFIG")
polctl_test(polctl_usage_labels_elsewhere 2 ARGS check --labels examples/labels.txt examples/data-policy.xml
  ERR_REGEX "--labels goes with render and stats only")
polctl_test(polctl_usage_diff 2 ARGS diff examples/policy.xml ERR_REGEX "diff needs OLD and NEW")

# Bad input: exit 1 with the file and line (or the configuration path).
# A file the datastore refuses whole delivers nothing to the library; one
# whose entry the library refuses (a third field: what a diff from the
# examples delivers before that entry) stops the commit there.
foreach(bad
    "malformed.xml|:6: Opening \\(\"site-list\"\\) and closing"
    "unknown-leaf.xml|:9: Node \"weight\" not found"
    "wrong-type.xml|:8: Invalid type uint32 value \"high\""
    "duplicate-key.xml|:7: Duplicate instance of \"vpn\""
    "missing-key.xml|:6: List instance is missing its key \"seq\""
    "dangling-ref.xml|: Invalid leafref value \"no-such-list\".*at /zen-policy:policy/control-policy"
    "bad-prefix.xml|:6: Unsatisfied pattern - \"10.0.0.0/33\""
    "wrong-type.json|:8: Value \"-5\" is out of type uint32"
    # libyang checks must constraints on the parsed tree: the data path, no line
    "must.xml|: ge must not exceed le \\(at /zen-policy:policy/lists/prefix-list\\[name='corp'\\]/entry"
    "prefix-length-below.xml|: ge, le and eq must not be below the prefix length \\(at /zen-policy:policy/lists/prefix-list"
    # leaves of one choice feed one condition or action: one of them at a time
    "choice-route-tag.xml|:9: Data for both cases \"omp-tag\" and \"ospf-tag\" exist"
    "choice-prefix-lists.xml|:14: Data for both cases \"prefix-list\" and \"ipv6-prefix-list\" exist"
    "choice-community-lists.xml|:14: Data for both cases \"community-list\" and \"expanded-community-list\" exist"
    "choice-steering.xml|:16: Data for both cases \"tloc-list\" and \"service\" exist"
    # conditions the match's kind of route does not carry
    "kind-vpn-on-tloc.xml|: a TLOC route has no VPN: vpn does not apply to tloc matches"
    "kind-prefix-list-on-service.xml|: a prefix list applies to route matches only, not to tloc or service matches"
    # an id that would wrap in 32 bits
    "range-wraps.xml|:5: an id is a number from 0 to 4294967295 without leading zeros"
    # the data side: strict types, and what each kind of policy's sequence carries
    "data-unknown-leaf.xml|:15: Node \"weight\" not found as a child of \"match\""
    "data-bad-prefix.xml|:6: Unsatisfied pattern - \"10.2.0.0/40\""
    "data-bad-port-range.xml|:15: a port or length range is low-high or one number"
    "data-color-out-of-range.xml|:19: Invalid enumeration value \"red\""
    "data-sla-on-data-policy.xml|:19: Node \"sla-class\" not found as a child of \"sequence\""
    "data-tloc-on-app-route.xml|:15: Node \"set\" not found as a child of \"sequence\""
    # an empty or blank file is no configuration (the empty one is <policy/>)
    "empty.xml|:1: no configuration: the file is empty"
    "blank.xml|:3: no configuration: the file is blank"
    "blank.json|:1: no configuration: the file is blank"
    # a pattern is at most 127 characters long, as the library stores it
    "long-pattern.xml|:6: Unsatisfied length - string \"x+\" length is not allowed"
    # the library refuses a pattern that does not compile, and says why
    "bad-pattern.xml|: commit stopped at /zen-policy:policy/lists/expanded-community-list\\[name='deny'\\]/entry\\[pattern='[^']+'\\]: create callback expanded-community-list-entry returned status -1: expanded-community-list deny: \"[^\"]+\" does not compile: Unmatched \\( or \\\\\\(|19 callbacks, 4 notifications")
  string(REPLACE "|" ";" pair "${bad}")
  list(GET pair 0 file)
  list(GET pair 1 message)
  set(delivered "0 callbacks, 0 notifications")
  list(LENGTH pair fields)
  if(fields GREATER 2)
    list(GET pair 2 delivered)
  endif()
  string(REGEX REPLACE "[.]" "_" tag ${file})
  polctl_test(polctl_bad_check_${tag} 1 ARGS check ${POLCTL_DATA}/${file}
    ERR_REGEX "polctl: ${POLCTL_DATA}/${file}${message}")
  polctl_test(polctl_bad_run_${tag} 1 ARGS run ${POLCTL_DATA}/${file} examples/routes.txt
    ERR_REGEX "polctl: ${POLCTL_DATA}/${file}${message}")
  # The second commit stops: the callbacks delivered, nothing after them.
  polctl_test(polctl_bad_diff_${tag} 1 ARGS diff examples/policy.xml ${POLCTL_DATA}/${file}
    OUT_REGEX "commit 2: ${POLCTL_DATA}/${file}\n.*  error: [^\n]*\n  ${delivered}\nrunning configuration: as after the last commit that completed\n$"
    ERR_REGEX "polctl: ${POLCTL_DATA}/${file}${message}")
endforeach()
# The empty configuration is written out; it removes everything.
polctl_test(polctl_diff_to_empty 0 ARGS diff examples/policy.xml ${POLCTL_DATA}/empty-policy.xml
  OUT_REGEX "commit 2: ${POLCTL_DATA}/empty-policy.xml\n  #1 delete site-list .*  17 callbacks")
# render and stats commit as check does: the same report of bad input.
polctl_test(polctl_bad_render 1 ARGS render ${POLCTL_DATA}/malformed.xml
  ERR_REGEX "polctl: ${POLCTL_DATA}/malformed.xml:6: Opening")
polctl_test(polctl_bad_stats 1 ARGS --json stats ${POLCTL_DATA}/dangling-ref.xml
  OUT_REGEX "\"command\": \"stats\""
  ERR_REGEX "polctl: ${POLCTL_DATA}/dangling-ref.xml: Invalid leafref value")
# Every bad line of a labels file, each named by file and line; nothing renders.
polctl_test(polctl_bad_labels 1 ARGS render examples/data-policy.xml --labels ${POLCTL_DATA}/bad-labels.txt
  GOLDEN_ERR ${POLCTL_GOLDEN}/bad-labels.err OUT_REGEX "^$")
polctl_test(polctl_bad_missing_file 1 ARGS check ${POLCTL_DATA}/no-such-file.xml
  ERR_REGEX "no-such-file.xml: cannot open")
polctl_test(polctl_bad_routes 1 ARGS run examples/policy.xml ${POLCTL_DATA}/bad-routes.txt
  GOLDEN ${POLCTL_GOLDEN}/bad-routes.txt GOLDEN_ERR ${POLCTL_GOLDEN}/bad-routes.err)
polctl_test(polctl_bad_routes_file 1 ARGS run examples/policy.xml ${POLCTL_DATA}/none.txt
  ERR_REGEX "none.txt: cannot open")
polctl_test(polctl_bad_routes_directory 1 ARGS run examples/policy.xml ${POLCTL_DATA}
  ERR_REGEX "polctl: ${POLCTL_DATA}: is a directory, not a routes file")
polctl_test(polctl_bad_config_directory 1 ARGS check ${POLCTL_DATA}
  ERR_REGEX "polctl: ${POLCTL_DATA}: is a directory, not a configuration file")
# Every condition, action and list entry of the control side once, as the
# library's dumps print the model the commit left.
foreach(what policies lists)
  polctl_test(polctl_show_control_leaves_${what} 0 ARGS show ${what} ${POLCTL_DATA}/control-leaves.xml
    GOLDEN ${POLCTL_GOLDEN}/show-control-leaves-${what}.txt MASK_POINTERS 1)
endforeach()


# The model the second example leaves, lists and policies (that a commit of
# it over the first example leaves the same is the commit series' check),
# and a commit of an unchanged configuration: no callback, nobody notified.
foreach(what policies lists)
  polctl_test(polctl_show_v2_${what} 0 ARGS show ${what} examples/policy-v2.xml
    GOLDEN ${POLCTL_GOLDEN}/show-v2-${what}.txt MASK_POINTERS 1)
endforeach()
polctl_test(polctl_diff_unchanged 0 ARGS diff examples/policy-v2.xml examples/policy-v2.xml
  OUT_REGEX "\ncommit 2: examples/policy-v2.xml\n  0 callbacks, 0 notifications\n$")

# What publish assembles for each example edge (the payload goes through a
# real daemon in test_polctl_publish), and an edge the configuration lacks.
polctl_test(polctl_publish_json 0 ARGS --json publish examples/data-policy.xml --edge branch-1
  OUT_REGEX "\"policies\": {\n    \"data-policy-from-service\": \"hub-and-spoke-data\",\n    \"app-route-policy\": \"voice-and-video\",\n    \"cflowd-template\": \"flows\"\n  },\n  \"payload\": \"<data-policy>.*<direction>from-service</direction>")
polctl_test(polctl_publish_both_ways 0 ARGS --json publish examples/data-policy.xml --edge branch-2
  OUT_REGEX "\"policies\": {\n    \"data-policy-from-service\": \"hub-and-spoke-data\",\n    \"data-policy-from-tunnel\": \"hub-and-spoke-data\"\n  },\n  \"payload\": \"<data-policy>.*<direction>all</direction>")
polctl_test(polctl_bad_publish_edge 1 ARGS publish examples/data-policy.xml --edge branch-9
  ERR_REGEX "polctl: examples/data-policy.xml: no edge \"branch-9\" under apply-policy \\(edges: branch-1, branch-2\\)" OUT_REGEX "^$")
# load and show-data with no daemon on the port (1: nobody listens there),
# and a payload that is not XML, refused before any connection.
polctl_test(polctl_bad_load_daemon_down 1 ARGS load examples/data-policy.xml --port 1
  ERR_REGEX "^polctl: load: the management daemon does not answer on 127.0.0.1:1 \\(socket error:" OUT_REGEX "^$")
polctl_test(polctl_bad_show_data_daemon_down 1 ARGS show-data --port 1
  ERR_REGEX "^polctl: show-data: the management daemon does not answer on 127.0.0.1:1 \\(socket error:" OUT_REGEX "^$")
polctl_test(polctl_bad_load_not_xml 1 ARGS load ${POLCTL_DATA}/malformed.xml --port 1
  ERR_REGEX "^polctl: ${POLCTL_DATA}/malformed.xml:8: the payload is not well-formed XML" OUT_REGEX "^$")

# The label callback of a labels file: each kind of question a data policy
# puts, answered by the first line that fits it (or by none); the order in
# which policies and sequences of each kind are printed; and routes giving
# every attribute, accepted only when the routes file was read right.
polctl_test(polctl_render_labels_questions 0 ARGS render ${POLCTL_DATA}/labels-questions.xml
  --labels ${POLCTL_DATA}/labels-questions.txt GOLDEN ${POLCTL_GOLDEN}/render-labels-questions.txt)
polctl_test(polctl_show_policy_order 0 ARGS show policies ${POLCTL_DATA}/policy-order.xml
  GOLDEN ${POLCTL_GOLDEN}/show-policy-order.txt MASK_POINTERS 1)
polctl_test(polctl_run_every_attribute 0 ARGS run ${POLCTL_DATA}/every-attribute.xml ${POLCTL_DATA}/every-attribute.txt
  GOLDEN ${POLCTL_GOLDEN}/run-every-attribute.txt)

# The data-side lists and objects their dumps print beyond the example: one
# name in both prefix families, users by role and chain, unset limits.
polctl_test(polctl_show_data_list_objects 0 ARGS show lists ${POLCTL_DATA}/data-lists.xml
  GOLDEN ${POLCTL_GOLDEN}/show-data-lists-objects.txt MASK_POINTERS 1)

# The origin type and subtype each route origin name is stored as.
polctl_test(polctl_show_origins 0 ARGS show policies ${POLCTL_DATA}/origins.xml
  GOLDEN ${POLCTL_GOLDEN}/show-origins.txt MASK_POINTERS 1)
