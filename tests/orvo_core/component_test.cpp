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

// Returns "x"; fails when told to.
class Echo : public orvo_core::Component {
 public:
  Awaitable<Any> _run(Kwargs kwargs) override {
    if (orvo_core::get(kwargs, "fail").truthy()) throw orvo_core::ValueError("run failed");
    co_return orvo_core::get(kwargs, "x");
  }
};

// Its start hook rejects inputs without "x".
class Picky : public Echo {
 public:
  std::string _format_input_event(const orvo_core::Map& input_dict) const override {
    if (orvo_core::find(input_dict, "x") == nullptr) throw orvo_core::TypeError("no x");
    return "start";
  }
};

// The default messages name the concrete class and quote the result.
TEST(component, run_announces_start_and_finish_only_around_a_successful_run) {
  class Lenient : public Picky {
    Awaitable<Any> _run(Kwargs /*kwargs*/) override { co_return Any(1); }
  };
  Echo echo;
  Picky picky;
  Lenient lenient;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs;
  kwargs.emplace("fail", true);
  kwargs.emplace("event_emitter", emitter);
  // The hook rejects the input, yet the caller gets the component's own error first; only when
  // the component succeeds does the hook's error surface.
  EXPECT_THROW(orvo_core::run_sync(picky.run(kwargs)), orvo_core::ValueError);
  EXPECT_THROW(orvo_core::run_sync(lenient.run(kwargs)), orvo_core::TypeError);
  EXPECT_TRUE(emitter->events.empty());
  kwargs.emplace("x", "a\nb");
  EXPECT_THROW(orvo_core::run_sync(echo.run(kwargs)), orvo_core::ValueError);
  kwargs.insert_or_assign("fail", false);
  EXPECT_EQ(orvo_core::run_sync(echo.run(kwargs)), Any("a\nb"));
  EXPECT_EQ(emitter->values(), (std::vector<std::string>{"[Start 'Echo'] Processing input.",
                                                         "[Start 'Echo'] Processing input.",
                                                         "[Finished 'Echo'] Completed:\n'a\\nb'"}));
}

}  // namespace
