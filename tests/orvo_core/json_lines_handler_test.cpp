#include "orvo_core/event/json_lines_handler.hpp"

#include <sstream>

#include <gtest/gtest.h>

#include "orvo_core/json.hpp"

namespace {

TEST(json_lines_handler, writes_one_parsable_line_per_event) {
  std::ostringstream out;
  orvo_core::JsonLinesHandler handler(out);
  orvo_core::Event first{"two\nlines \xc3\xa9", orvo_core::EventLevel::INFO,
                         orvo_core::EventType::RESPONSE};
  orvo_core::Event second{"{\"data_type\": \"reference\"}", orvo_core::EventLevel::WARNING,
                          orvo_core::EventType::DATA};
  orvo_core::run_sync(handler.handle(first));
  orvo_core::run_sync(handler.handle(second));
  std::istringstream lines(out.str());
  std::string line;
  orvo_core::List parsed;
  while (std::getline(lines, line)) parsed.push_back(orvo_core::parse_json(line));
  EXPECT_EQ(orvo_core::Any(parsed).str(),
            "[{'type': 'RESPONSE', 'level': 'INFO', 'value': 'two\\nlines \xc3\xa9'}, "
            "{'type': 'DATA', 'level': 'WARNING', 'value': '{\"data_type\": \"reference\"}'}]");
}

}  // namespace
