// The commands of polctl over the policy documents: render every
// data-plane object of a committed configuration with the library's
// converters and print the documents, or the library's tables of what
// rendering them cost.
#include <string>
#include <vector>

#include "pol_xml.hpp"
#include "polctl_cmd_internal.hpp"
#include "polctl_labels.hpp"

namespace polctl {

using namespace cmd_detail;

namespace {

struct rendered_doc {
    std::string kind;
    std::string name;
    std::string document;  // without the XML declaration, as the dumps show it
};

std::vector<std::string> kind_words()
{
    std::vector<std::string> words;
    for (uint32_t type = POL_XML_TYPE_INVALID + 1; type < POL_XML_TYPE_MAX; type++) {
        words.push_back(pol_xml_type_str(type));
    }
    return words;
}

// The document type a kind word names; POL_XML_TYPE_INVALID for none.
e_pol_xml_type kind_type(const std::string &word)
{
    for (uint32_t type = POL_XML_TYPE_INVALID + 1; type < POL_XML_TYPE_MAX; type++) {
        if (word == pol_xml_type_str(type)) {
            return static_cast<e_pol_xml_type>(type);
        }
    }
    return POL_XML_TYPE_INVALID;
}

std::string document_text(const pol_xml_t &doc)
{
    if (doc.buf == nullptr || doc.buf_siz < pol::xml::kXmlDeclSize) {
        return std::string();
    }
    return std::string(doc.buf + pol::xml::kXmlDeclSize, doc.buf_siz - pol::xml::kXmlDeclSize);
}

// Renders anew, into the document each record keeps, every object of one
// type (of every type when only is POL_XML_TYPE_INVALID). False, with the
// object that could not be rendered in errors, when one fails.
bool render_documents(e_pol_xml_type only, std::vector<rendered_doc> *docs,
                      std::vector<input_error> *errors)
{
    for (uint32_t t = POL_XML_TYPE_INVALID + 1; t < POL_XML_TYPE_MAX; t++) {
        const auto type = static_cast<e_pol_xml_type>(t);
        if (only != POL_XML_TYPE_INVALID && type != only) {
            continue;
        }
        pol::xml::for_each_object(type, [&](const pol::xml::kind_object &obj) {
            pol_xml_free_buf(obj.doc);
            if (pol_xml_convert(obj.record, obj.doc, obj.type) == nullptr) {
                input_error e;
                e.message = std::string("cannot render ") + pol_xml_type_str(type) + " " + obj.name;
                errors->push_back(e);
                return;
            }
            docs->push_back({pol_xml_type_str(type), obj.name, document_text(*obj.doc)});
        });
    }
    return errors->empty();
}

// Commits the configuration and renders its documents: EXIT_OK, or the
// exit status of the failure, already reported. With a labels file, the
// library's label callback answers from it, and its service answers are
// reported before rendering; it outlives the host.
int commit_and_render(host &h, labels_file &labels, const options &opt, const char *command,
                      const std::string &config, e_pol_xml_type only, std::vector<rendered_doc> *docs,
                      std::ostream &out, std::ostream &err)
{
    if (!opt.labels.empty()) {
        if (!read_labels_file(opt.labels, &labels) || !labels.errors.empty()) {
            return input_failure(opt, command, config, labels.errors, out, err);
        }
        h.set_label_callback(label_callback_from(&labels));
    }
    if (int rc = start_and_commit(h, opt, command, config, out, err); rc != EXIT_OK) {
        return rc;
    }
    report_service_answers(h.ctx(), labels);
    std::vector<input_error> errors;
    if (!render_documents(only, docs, &errors)) {
        for (input_error &e : errors) {
            e.file = config;
        }
        return input_failure(opt, command, config, errors, out, err);
    }
    return EXIT_OK;
}

}  // namespace

int cmd_render(const options &opt, const std::string &config, const std::string &kind,
               std::ostream &out, std::ostream &err)
{
    const e_pol_xml_type only = kind.empty() ? POL_XML_TYPE_INVALID : kind_type(kind);
    if (!kind.empty() && only == POL_XML_TYPE_INVALID) {
        err << "polctl: render --kind takes one of " << join(kind_words(), ", ") << ", not \"" << kind
            << "\"\n";
        return EXIT_USAGE;
    }
    labels_file labels;
    host h;
    std::vector<rendered_doc> docs;
    if (int rc = commit_and_render(h, labels, opt, "render", config, only, &docs, out, err); rc != EXIT_OK) {
        return rc;
    }
    if (opt.json) {
        json_writer j;
        j.begin_array();
        for (const rendered_doc &d : docs) {
            j.begin_object().field("kind", d.kind).field("name", d.name).field("document", d.document).end();
        }
        out << j.end().str();
        return EXIT_OK;
    }
    for (const rendered_doc &d : docs) {
        out << "# " << d.kind << " " << d.name << "\n" << d.document << "\n";
    }
    out << config << ": " << docs.size() << " documents\n";
    return EXIT_OK;
}

int cmd_stats(const options &opt, const std::string &config, std::ostream &out, std::ostream &err)
{
    labels_file labels;
    host h;
    std::vector<rendered_doc> docs;
    if (int rc = commit_and_render(h, labels, opt, "stats", config, POL_XML_TYPE_INVALID, &docs, out, err);
        rc != EXIT_OK) {
        return rc;
    }
    char arg0[] = "statistics";
    char all[] = "all";
    char *argv[] = {arg0, all, nullptr};
    const std::string text = capture_dump([&](struct mgmtd_cli_user_info *cli) {
        pol_dump_xml_summary(cli, 1, argv);
        pol_dump_xml_statistics(cli, 2, argv);
    });
    if (opt.json) {
        json_writer j;
        j.begin_object()
            .field("command", "stats")
            .field("config", config)
            .field("documents", static_cast<uint64_t>(docs.size()))
            .field("text", text);
        out << j.end().str();
    } else {
        out << text;
    }
    return EXIT_OK;
}

}  // namespace polctl
