#pragma once

#include <cstdint>
#include <string>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/markdown_reference.hpp"

// Inline: the default reference text writes one entry per kept chunk, and a call per value
// showed in its time.
namespace orvo_generation::reference_formatter::detail {

// Where a value goes in an entry: bare text, a link's text, or its destination.
enum class Part : std::uint8_t { Text, LinkText, Destination };

inline void append_part(std::string& out, const orvo_core::Any* value, bool markdown, Part part) {
  if (!markdown) {
    if (value != nullptr) {
      value->append_str(out);
    } else {
      out += "None";
    }
    return;
  }
  const std::string text = value != nullptr ? value->str() : "None";
  out += part == Part::Destination ? encode_link_destination(text)
                                   : escape_markdown_text(text, part == Part::Text);
}

// Appends a reference entry: "[title](url)", or the title alone when the address is missing or
// false; a missing title reads "None". With `markdown`, the title is escaped and the address
// encoded (see markdown_reference.hpp).
inline void append_entry(std::string& out, const orvo_core::Any* title, const orvo_core::Any* url,
                         bool markdown) {
  const bool linked = url != nullptr && url->truthy();
  if (linked) out.push_back('[');
  append_part(out, title, markdown, linked ? Part::LinkText : Part::Text);
  if (!linked) return;
  out += "](";
  append_part(out, url, markdown, Part::Destination);
  out.push_back(')');
}

}  // namespace orvo_generation::reference_formatter::detail
