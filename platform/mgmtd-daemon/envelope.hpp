// The `config` envelope of loaded texts (MGMTD_CONFIG_NS).
#ifndef ZEN_MGMTD_ENVELOPE_HPP
#define ZEN_MGMTD_ENVELOPE_HPP

#include <string>

namespace zen::mgmtd {

enum class unwrap_result { unwrapped, not_wrapped, malformed };

// When the text is one XML document whose root element is the envelope,
// out gets its element children as a sequence of top-level elements, each
// with the namespace declarations it uses. malformed: an element could not
// be copied (why says so).
unwrap_result unwrap_envelope(const std::string &text, std::string &out, std::string &why);

}  // namespace zen::mgmtd

#endif  // ZEN_MGMTD_ENVELOPE_HPP
