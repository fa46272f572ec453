// Reading policy documents in tests: a compact text form of an element
// tree, and the edge router's schema (zen-policy-edge) that a document must
// pass strictly.
#ifndef POL_XML_TEST_SUPPORT_HPP
#define POL_XML_TEST_SUPPORT_HPP

#include <string>

namespace poltest {

// The element depth levels below a document's root as name, "=text" when it
// holds text, and "{children}" in order, or sorted by name (stable) where
// sibling order carries no meaning.
std::string compact(const std::string &xml, bool sorted = false, int depth = 0);

// Where a document sits under /policy-from-qarmon: directly, under its
// lists, or nowhere (text checks only).
enum class Place { top, lists, text_only };

// The document (with or without its XML declaration) put at its place,
// parsed strictly by the schema, validated and printed back: the printed
// element in sorted compact form, or the schema's complaint.
std::string schema_round_trip(const std::string &doc, Place place);

}  // namespace poltest

#endif  // POL_XML_TEST_SUPPORT_HPP
