// Unwrapping of the `config` envelope with libxml2: each child element is
// copied into a document of its own, so that the namespaces it inherited
// from the envelope are declared on it, and printed without a declaration.
#include "envelope.hpp"

#include <zen/maapi.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <memory>

namespace zen::mgmtd {

namespace {

struct doc_deleter {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using doc_ptr = std::unique_ptr<xmlDoc, doc_deleter>;

struct buffer_deleter {
    void operator()(xmlBuffer *buf) const { xmlBufferFree(buf); }
};
using buffer_ptr = std::unique_ptr<xmlBuffer, buffer_deleter>;

bool is_envelope(const xmlNode *root)
{
    return root != nullptr && xmlStrcmp(root->name, BAD_CAST "config") == 0 && root->ns != nullptr &&
           xmlStrcmp(root->ns->href, BAD_CAST MGMTD_CONFIG_NS) == 0;
}

// The element as a standalone text, its namespaces declared on it.
bool print_element(const xmlNode *element, std::string &out)
{
    doc_ptr doc(xmlNewDoc(BAD_CAST "1.0"));
    if (doc == nullptr) {
        return false;
    }
    xmlNode *copy = xmlDocCopyNode(const_cast<xmlNode *>(element), doc.get(), 1);
    if (copy == nullptr) {
        return false;
    }
    xmlDocSetRootElement(doc.get(), copy);
    xmlReconciliateNs(doc.get(), copy);
    buffer_ptr buf(xmlBufferCreate());
    if (buf == nullptr || xmlNodeDump(buf.get(), doc.get(), copy, 0, 0) < 0) {
        return false;
    }
    out.append(reinterpret_cast<const char *>(xmlBufferContent(buf.get())),
               static_cast<size_t>(xmlBufferLength(buf.get())));
    return true;
}

}  // namespace

unwrap_result unwrap_envelope(const std::string &text, std::string &out, std::string &why)
{
    if (text.find("config") == std::string::npos) {
        return unwrap_result::not_wrapped;
    }
    doc_ptr doc(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (doc == nullptr) {
        // Not one XML document (several top-level elements are): the data
        // parser reads it as it is and tells what is wrong, if anything.
        xmlResetLastError();
        return unwrap_result::not_wrapped;
    }
    const xmlNode *root = xmlDocGetRootElement(doc.get());
    if (!is_envelope(root)) {
        return unwrap_result::not_wrapped;
    }
    out.clear();
    for (const xmlNode *child = root->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && !print_element(child, out)) {
            why = "cannot copy an element of the envelope";
            return unwrap_result::malformed;
        }
    }
    return unwrap_result::unwrapped;
}

}  // namespace zen::mgmtd
