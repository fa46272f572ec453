/* Forwarding labels of data-policy sequences: the targets a sequence that
 * sets a TLOC, a TLOC list or a service steers to, the labels the host's
 * label callback gives them, their refresh when the host reports a change
 * for an originator or a TLOC list changes, and the name sets the document
 * publisher collects. */
#ifndef POLICY_POL_FWD_LABEL_H
#define POLICY_POL_FWD_LABEL_H

#include <policy/pol_api.h>
#include <policy/pol_fwd.h>

#include "pol_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What one label refresh hands the management worker: the sequence by
 * name and its labels (the TLOC's label, or one TE entry per target). */
typedef struct _t_pol_mgmtd_thread_label_params {
    char data_pol_name[POL_NAME_SIZE];
    char vpn_list_name[POL_NAME_SIZE];
    uint32_t seq_num;
    uint32_t label;
    bool in_thread;
    t_pol_te_info fwd_te_info;
} t_pol_mgmtd_thread_label_params;

struct _t_vmgmtd_context;

/* Moves whenever a data sequence may have changed what it aims at (its
 * TLOC, its service, or the targets copied from its TLOC list); the label
 * evaluation's index of sequences by target is current while it has not
 * moved. */
extern uint64_t g_pol_fwd_target_changes;

/* Releases the label evaluation's index of sequences by target (the
 * context is going away); the next evaluation builds it again. */
void pol_fwd_target_index_release(void);

/* Re-evaluates one data block for the originator TLOC (IPv4 word as
 * t_ipaddr stores it, colour, encapsulation 0): the sequences of VPN id
 * vpn_id that steer to it or to the service are refreshed and the block's
 * users queued (not notified). */
void pol_fwd_eval_block(t_pol_ctx *ctx, struct _t_vmgmtd_context *vmgmtd_ctx_p, t_pol_block *block,
                        uint32_t originator, uint8_t color, uint64_t vpn_id, uint16_t service,
                        bool service_local);

/* Refreshes the labels of one sequence named by policy, VPN list and
 * number; an unknown sequence is left alone. */
void pol_fwd_upd_label(struct _t_vmgmtd_context *vmgmtd_ctx_p, t_pol_ctx *ctx, const char *pol_name,
                       e_pol_type pol_type, const char *vpn_list_name, uint32_t seq_num);

/* Asks the host for the labels of the sequence's targets, re-renders its
 * block's document and queues the block's users. A set entry outside a
 * data-policy VPN record is left alone. */
void pol_fwd_upd_label_set_entry(t_pol_ctx *ctx, t_pol_set_entry *set);

/* Test and insert: 1 when name (its first 32 characters) is in the set;
 * otherwise records it and answers 0 (also when it cannot be recorded).
 * Answers in constant time whatever the size of the set. A set is emptied
 * only with pol_fwd_list_clear (or found empty and started afresh). */
int pol_fwd_list_exists(t_list_name_head *list, const char *name);
void pol_fwd_list_clear(t_list_name_head *list);

#ifdef __cplusplus
}
#endif

#endif /* POLICY_POL_FWD_LABEL_H */
