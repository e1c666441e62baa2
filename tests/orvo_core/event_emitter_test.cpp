#include "orvo_core/event/event_emitter.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using orvo_core::Event;
using orvo_core::EventLevel;
using orvo_core::EventType;

struct Collector : orvo_core::EventHandler {
  Collector(std::string name, std::vector<std::string>* log) : name(std::move(name)), log(log) {}
  orvo_core::Awaitable<void> handle(Event event) override {
    log->push_back(name + ":" + event.value + ":" + std::string(orvo_core::to_string(event.type)));
    co_return;
  }

  std::string name;
  std::vector<std::string>* log;
};

TEST(event_emitter, passes_each_event_at_its_minimum_level_to_every_handler_in_order) {
  std::vector<std::string> log;
  orvo_core::EventEmitter emitter(
      {std::make_shared<Collector>("a", &log), std::make_shared<Collector>("b", &log)},
      EventLevel::INFO);
  orvo_core::run_sync(emitter.emit("one", EventLevel::INFO, EventType::DATA));
  orvo_core::run_sync(emitter.emit("quiet", EventLevel::TRACE, EventType::STATUS));
  orvo_core::run_sync(emitter.emit("two", EventLevel::WARNING, EventType::RESPONSE));
  EXPECT_EQ(log, (std::vector<std::string>{"a:one:DATA", "b:one:DATA", "a:two:RESPONSE",
                                           "b:two:RESPONSE"}));
}

}  // namespace
