#include "xml_test_support.hpp"

#include <libxml/parser.h>
#include <libyang/libyang.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <memory>
#include <utility>
#include <vector>

namespace poltest {
namespace {

std::string compact(xmlNodePtr el, bool sorted)
{
    std::string text;
    std::vector<std::pair<std::string, std::string>> kids;
    for (xmlNodePtr c = el->children; c != nullptr; c = c->next) {
        if (c->type == XML_ELEMENT_NODE) {
            kids.emplace_back(reinterpret_cast<const char *>(c->name), compact(c, sorted));
        } else if (c->type == XML_TEXT_NODE) {
            text += reinterpret_cast<const char *>(c->content);
        }
    }
    text.erase(text.find_last_not_of(" \n") + 1);
    if (sorted) {
        std::stable_sort(kids.begin(), kids.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    }
    std::string out = reinterpret_cast<const char *>(el->name);
    out += text.empty() ? "" : "=" + text;
    for (std::size_t i = 0; i < kids.size(); i++) {
        out += (i == 0 ? "{" : " ") + kids[i].second + (i + 1 == kids.size() ? "}" : "");
    }
    return out;
}

// One schema context for the whole run, released at exit; none when the
// schema cannot be read.
ly_ctx *edge_schema()
{
    static const std::unique_ptr<ly_ctx, void (*)(ly_ctx *)> ctx([] {
        ly_ctx *c = nullptr;
        ly_ctx_new(ZEN_EDGE_YANG_DIR, 0, &c);
        if (ly_ctx_load_module(c, "zen-policy-edge", nullptr, nullptr) == nullptr) {
            ly_ctx_destroy(c);
            c = nullptr;
        }
        return c;
    }(), ly_ctx_destroy);
    return ctx.get();
}

}  // namespace

std::string compact(const std::string &xml, bool sorted, int depth)
{
    xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, XML_PARSE_NOBLANKS);
    if (doc == nullptr) {
        return "unparsable: " + xml;
    }
    xmlNodePtr el = xmlDocGetRootElement(doc);
    for (int i = 0; i < depth && el != nullptr; i++) {
        el = xmlFirstElementChild(el);
    }
    std::string out = el != nullptr ? compact(el, sorted) : "empty";
    xmlFreeDoc(doc);
    return out;
}

std::string schema_round_trip(const std::string &doc)
{
    ly_ctx *ctx = edge_schema();
    if (ctx == nullptr) {
        return "schema: zen-policy-edge not loaded from " ZEN_EDGE_YANG_DIR;
    }
    const std::size_t decl_end = doc.find("?>");
    const std::string body = decl_end == std::string::npos ? doc : doc.substr(decl_end + 2);
    const std::string root = compact(body), element = root.substr(0, root.find_first_of("={"));
    const bool lists = element == "app-probe-class" || element.ends_with("-list");
    const std::string wrapped = "<policy-from-qarmon xmlns=\"urn:zen:params:xml:ns:yang:zen-policy-edge\">" +
                                std::string(lists ? "<lists>" : "") + body + (lists ? "</lists>" : "") +
                                "</policy-from-qarmon>";
    lyd_node *tree = nullptr;
    if (lyd_parse_data_mem(ctx, wrapped.c_str(), LYD_XML, LYD_PARSE_STRICT, LYD_VALIDATE_PRESENT, &tree) !=
        LY_SUCCESS) {
        return std::string("schema: ") + ly_errmsg(ctx);
    }
    char *printed = nullptr;
    lyd_print_mem(&printed, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS);
    std::string out = compact(printed, true, lists ? 2 : 1);
    std::free(printed);
    lyd_free_all(tree);
    return out;
}

std::string golden(const std::string &file, const std::string &key)
{
    std::ifstream in(std::string(POL_TEST_GOLDEN) + "/" + file);
    std::stringstream text;
    text << in.rdbuf();
    const std::string all = "\n" + text.str(), header = "\n# " + key + "\n";
    const std::size_t start = all.find(header);
    if (start == std::string::npos) {
        return "no section \"" + key + "\" in " + file;
    }
    const std::size_t body = start + header.size();
    const std::size_t end = std::min(all.find("\n# ", body), all.size() - 1);
    return all.substr(body, end - body);
}

}  // namespace poltest
