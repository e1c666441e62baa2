#pragma once

#include <string>

#include "orvo_core/any.hpp"

namespace orvo_generation::reference_formatter::detail {

// Appends a reference entry: "[title](url)", or the title alone when the address is missing or
// false; a missing title reads "None". With `markdown`, the title is escaped and the address
// encoded (see markdown_reference.hpp).
void append_entry(std::string& out, const orvo_core::Any* title, const orvo_core::Any* url,
                  bool markdown);

}  // namespace orvo_generation::reference_formatter::detail
