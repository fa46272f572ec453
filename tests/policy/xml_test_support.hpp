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

// The document (with or without its XML declaration) put where it sits
// under /policy-from-qarmon (under its lists when it is a list or an
// app-probe class), parsed strictly by the schema, validated and printed
// back: the printed element in sorted compact form, or the schema's
// complaint.
std::string schema_round_trip(const std::string &doc);

// The text of section key of a file under tests/golden: what follows the
// line "# key" up to the blank line before the next such line.
std::string golden(const std::string &file, const std::string &key);

}  // namespace poltest

#endif  // POL_XML_TEST_SUPPORT_HPP
