#include "orvo_core/schema/component.hpp"

#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::Awaitable;
using orvo_core::Kwargs;

// Doubles "x"; fails when told to; its start hook rejects inputs without "x".
class Doubler : public orvo_core::Component {
 public:
  Awaitable<Any> _run(Kwargs kwargs) override {
    if (orvo_core::get(kwargs, "fail").truthy()) throw orvo_core::ValueError("run failed");
    co_return Any(orvo_core::get(kwargs, "x").as_int() * 2);
  }
  std::string _format_input_event(const orvo_core::Map& input_dict) const override {
    if (orvo_core::find(input_dict, "x") == nullptr) throw orvo_core::TypeError("no x");
    return "start";
  }
  std::string _format_output_event(const Any& output) const override {
    return "finish " + output.str();
  }
};

Kwargs kwargs_with(std::shared_ptr<orvo_test::RecordingEmitter> emitter) {
  Kwargs kwargs;
  kwargs.emplace("x", 21);
  if (emitter) kwargs.emplace("event_emitter", emitter);
  return kwargs;
}

TEST(component, run_announces_start_and_finish_to_the_invocations_emitter) {
  Doubler doubler;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  EXPECT_EQ(orvo_core::run_sync(doubler.run(kwargs_with(emitter))), Any(42));
  ASSERT_EQ(emitter->events.size(), 2U);
  EXPECT_EQ(emitter->values(), (std::vector<std::string>{"start", "finish 42"}));
  for (const auto& event : emitter->events) {
    EXPECT_EQ(event.level, orvo_core::EventLevel::INFO);
    EXPECT_EQ(event.type, orvo_core::EventType::STATUS);
  }
  EXPECT_EQ(orvo_core::run_sync(doubler.run(kwargs_with(nullptr))), Any(42));
}

TEST(component, a_failing_run_sends_no_finish_message) {
  Doubler doubler;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs = kwargs_with(emitter);
  kwargs.emplace("fail", true);
  EXPECT_THROW(orvo_core::run_sync(doubler.run(std::move(kwargs))), orvo_core::ValueError);
  EXPECT_EQ(emitter->values(), std::vector<std::string>{"start"});
}

TEST(component, a_rejecting_start_hook_yields_the_components_own_error_first) {
  Doubler doubler;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs failing;
  failing.emplace("fail", true);
  failing.emplace("event_emitter", emitter);
  EXPECT_THROW(orvo_core::run_sync(doubler.run(failing)), orvo_core::ValueError);

  // Without "x" the component itself would fail too; with "x" removed from the hook's view only,
  // a run that succeeds still reports the hook's error.
  class Lenient : public Doubler {
    Awaitable<Any> _run(Kwargs /*kwargs*/) override { co_return Any(1); }
  } lenient;
  Kwargs no_x;
  no_x.emplace("event_emitter", emitter);
  EXPECT_THROW(orvo_core::run_sync(lenient.run(no_x)), orvo_core::TypeError);
  EXPECT_TRUE(emitter->events.empty());
}

TEST(component, default_messages_name_the_concrete_class) {
  class Echo : public orvo_core::Component {
   public:
    Awaitable<Any> _run(Kwargs /*kwargs*/) override { co_return Any("ok"); }
  } echo;
  EXPECT_EQ(echo._format_input_event({}), "[Start 'Echo'] Processing input.");
  EXPECT_EQ(echo._format_output_event(Any("a\nb")), "[Finished 'Echo'] Completed:\n'a\\nb'");
}

}  // namespace
