#pragma once

#include <string>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/object.hpp"

namespace orvo_core {

/// Base of every pipeline component. A component is invoked with the keyword arguments of one
/// invocation; subclasses implement `_run` and the two message hooks. Nothing here depends on a
/// constructor having run, so subclasses need not call one.
class Component : public Object {
 public:
  /// Drives one invocation, as a host does: announces the start, awaits `_run(kwargs)`, announces
  /// the finish, and returns `_run`'s result unchanged.
  ///
  /// The start message (`_format_input_event(kwargs)`) and the finish message
  /// (`_format_output_event(result)`) go to the invocation's own emitter, the `EventEmitter`
  /// under "event_emitter" in `kwargs`, with `EventLevel::INFO` and `EventType::STATUS`; without
  /// an emitter they go nowhere. When `_run` fails, its error propagates and no finish message is
  /// sent. When the start message cannot be built (the hook rejects the input), `_run` still runs
  /// so that the caller gets the component's own input error; should `_run` succeed, the hook's
  /// error is raised.
  Awaitable<Any> run(Kwargs kwargs);

  /// The component's work for one invocation.
  virtual Awaitable<Any> _run(Kwargs kwargs) = 0;

  /// The text of the start message for the invocation's inputs.
  [[nodiscard]] virtual std::string _format_input_event(const Map& input_dict) const;

  /// The text of the finish message for the invocation's result.
  [[nodiscard]] virtual std::string _format_output_event(const Any& output) const;
};

}  // namespace orvo_core
