#include "orvo_core/schema/component.hpp"

#include <memory>
#include <string>
#include <vector>

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

TEST(component, run_announces_start_and_finish_to_the_invocations_emitter) {
  Doubler doubler;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs;
  kwargs.emplace("x", 21);
  EXPECT_EQ(orvo_core::run_sync(doubler.run(kwargs)), Any(42)) << "no emitter, no messages";
  kwargs.emplace("event_emitter", emitter);
  EXPECT_EQ(orvo_core::run_sync(doubler.run(kwargs)), Any(42));
  EXPECT_EQ(emitter->values(), (std::vector<std::string>{"start", "finish 42"}));
}

TEST(component, a_failing_run_or_start_hook_sends_no_finish_message) {
  class Lenient : public Doubler {
    Awaitable<Any> _run(Kwargs /*kwargs*/) override { co_return Any(1); }
  };
  Doubler doubler;
  Lenient lenient;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs;
  kwargs.emplace("fail", true);
  kwargs.emplace("event_emitter", emitter);
  // The hook rejects the input, yet the caller gets the component's own error first; only when
  // the component succeeds does the hook's error surface.
  EXPECT_THROW(orvo_core::run_sync(doubler.run(kwargs)), orvo_core::ValueError);
  EXPECT_THROW(orvo_core::run_sync(lenient.run(kwargs)), orvo_core::TypeError);
  EXPECT_TRUE(emitter->events.empty());
  kwargs.emplace("x", 21);
  EXPECT_THROW(orvo_core::run_sync(doubler.run(kwargs)), orvo_core::ValueError);
  EXPECT_EQ(emitter->values(), std::vector<std::string>{"start"});
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
