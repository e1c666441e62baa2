#include "orvo_core/event/json_lines_handler.hpp"

#include "orvo_core/text.hpp"

namespace orvo_core {

JsonLinesHandler::JsonLinesHandler(std::ostream& out) : out_(out) {}

Awaitable<void> JsonLinesHandler::handle(Event event) {
  std::string line = R"({"type": ")";
  line += to_string(event.type);
  line += R"(", "level": ")";
  line += to_string(event.level);
  line += R"(", "value": )";
  text::append_json_string(line, event.value);
  line += "}\n";
  out_ << line << std::flush;
  co_return;
}

}  // namespace orvo_core
