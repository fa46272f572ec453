// Reading policy documents in tests: a compact text form of an element
// tree, and the edge router's schema (zen-policy-edge) that a document must
// pass strictly.
#ifndef POL_XML_TEST_SUPPORT_HPP
#define POL_XML_TEST_SUPPORT_HPP

#include <libxml/tree.h>
#include <libyang/libyang.h>

#include <string>

namespace poltest {

// An element as name, "=text" when it holds text, and "{children}" in
// order, or sorted by name (stable) where sibling order carries no meaning.
std::string compact(xmlNodePtr el, bool sorted);

// The compact form of a document's root element, or of the element depth
// levels below it.
std::string compact(const std::string &xml, bool sorted = false, int depth = 0);

// Where a document sits under /policy-from-qarmon: directly, under its
// lists, or nowhere (text checks only).
enum class Place { top, lists, text_only };

// The document's body under /policy-from-qarmon (and lists), parsed
// strictly, validated and printed back; the printed element in sorted
// compact form, or the schema's complaint.
class EdgeSchema {
public:
    EdgeSchema();
    ~EdgeSchema();
    EdgeSchema(const EdgeSchema &) = delete;
    EdgeSchema &operator=(const EdgeSchema &) = delete;
    bool loaded() const { return module_ != nullptr; }

    std::string round_trip(const std::string &doc, Place place) const;

private:
    ly_ctx *ctx_ = nullptr;
    const lys_module *module_ = nullptr;
};

}  // namespace poltest

#endif  // POL_XML_TEST_SUPPORT_HPP
