// The labels file of polctl (docs/polctl-routes.md, "The labels file"):
// what the host's label callback answers when the library asks for the
// label of a TLOC, or for the targets of a service as an originator offers
// it. render and stats install a callback that answers from it.
#ifndef POLCTL_LABELS_HPP
#define POLCTL_LABELS_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "pol_internal.h"
#include "polctl_lines.hpp"

namespace polctl {

// "tloc TLOC label N [vpn ID] [service NAME]": the label of an IPv4 TLOC,
// for one VPN or service when given, for any otherwise.
struct tloc_answer {
    int line = 0;
    t_tloc_id tloc{};
    uint32_t label = 0;
    bool any_vpn = true;
    uint64_t vpn = 0;
    bool any_service = true;
    uint16_t service = 0;
};

// "service NAME vpn ID [originator ADDRESS:COLOUR] (label N | te TLOC
// LABEL PREFERENCE...)": what the service in the VPN, offered by the
// originator, steers to: one label at the originator, or TE entries.
// Without an originator: the answer when the service is configured.
struct service_answer {
    int line = 0;
    uint16_t service = 0;
    uint64_t vpn = 0;
    t_tloc_id originator{};  // IPv4 address and colour, or cleared; no encapsulation
    uint32_t label = 0;
    std::vector<t_pol_te> te;
};

struct labels_file {
    std::string path;
    std::vector<tloc_answer> tlocs;
    std::vector<service_answer> services;
    std::vector<input_error> errors;

    // The first answer to the question, or null: the "no label" answer.
    const tloc_answer *answer(const t_tloc_id &tloc, uint64_t vpn, uint16_t service) const;
    const service_answer *answer(uint16_t service, uint64_t vpn, const t_tloc_id &originator) const;
};

// Reads the file; bad lines are recorded in errors. False (with one error)
// only when the file cannot be read.
bool read_labels_file(const std::string &path, labels_file *out);

// The label callback that answers from file (the library's callback
// carries no context: one file at a time, kept until the next call).
// Asked what the file does not answer, it gives label 0 and no TE entry.
t_pol_label_cb_f label_callback_from(const labels_file *file);

// Reports every service answer's originator to the library
// (pol_fwd_eval_label), as a host does when an originator's labels
// change, so that the service sequences take their targets from the file.
void report_service_answers(t_pol_ctx *ctx, const labels_file &file);

}  // namespace polctl

#endif  // POLCTL_LABELS_HPP
