#include "orvo_core/event/console_handler.hpp"

#include <sstream>

#include <gtest/gtest.h>

namespace {

using orvo_core::Event;
using orvo_core::EventLevel;
using orvo_core::EventType;

void handle(orvo_core::EventHandler& handler, std::string value, EventType type,
            EventLevel level = EventLevel::INFO) {
  orvo_core::run_sync(handler.handle(Event{std::move(value), level, type}));
}

TEST(console_handler, streams_the_response_then_shows_reference_text) {
  std::ostringstream out;
  std::ostringstream status;
  orvo_core::ConsoleHandler console(out, status);
  handle(console, "[Start 'X'] ...", EventType::STATUS);
  handle(console, "Tides", EventType::RESPONSE);
  handle(console, " rise.", EventType::RESPONSE);
  handle(console, R"js({"data_type": "reference", "data_value": "References:\n1. [A](a)"})js",
         EventType::DATA);
  handle(console, "server slow", EventType::STATUS, EventLevel::WARNING);
  EXPECT_EQ(out.str(), "Tides rise.\n\nReferences:\n1. [A](a)\n");
  EXPECT_EQ(status.str(), "server slow\n") << "status only when asked, warnings always";
}

TEST(console_handler, colours_only_when_told_or_on_a_terminal) {
  std::ostringstream coloured;
  orvo_core::ConsoleHandler always(coloured, coloured, true,
                                   orvo_core::ConsoleHandler::Color::always);
  handle(always, "status", EventType::STATUS);
  EXPECT_EQ(coloured.str(), "\x1b[2mstatus\x1b[0m\n");
}

}  // namespace
