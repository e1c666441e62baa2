#pragma once

// Turning C++ coroutines into the awaitables that bound methods return.

#include <memory>
#include <utility>

#include "collaborators.hpp"
#include "orvo_core/schema/component.hpp"
#include "python_support.hpp"

namespace orvo_python {

/// Settings of a component that came from Python containers and are read again from them at
/// the start of every call (a reference formatter's metadata map).
class PySettings {
 public:
  PySettings() = default;
  PySettings(const PySettings&) = delete;
  PySettings& operator=(const PySettings&) = delete;
  virtual ~PySettings() = default;
  /// Reads the settings again from their Python objects.
  void pull() {
    if (settings) settings->pull();
  }
  std::shared_ptr<Session> settings;  ///< Null when no setting came from a Python container.
};

/// Keeps a bound object alive for as long as a call runs: the C++ object and its Python
/// instance, whose class may override operations in Python.
template <class T>
std::shared_ptr<void> keep_alive(std::shared_ptr<T> self) {
  class Keep {
   public:
    explicit Keep(std::shared_ptr<T> cpp) : cpp_(std::move(cpp)), python_(py::cast(cpp_)) {}

   private:
    std::shared_ptr<T> cpp_;
    GilObject python_;
  };
  return std::make_shared<Keep>(std::move(self));
}

/// Awaits `work` and gives None; `keep` lives as long as the work.
orvo_core::Awaitable<py::object> as_none(orvo_core::Awaitable<void> work,
                                         std::shared_ptr<void> keep);

/// Awaits `work` and converts its result; the writes made to the session's containers reach
/// their Python objects whether the work succeeds or fails.
orvo_core::Awaitable<py::object> as_python(orvo_core::Awaitable<orvo_core::Any> work,
                                           std::shared_ptr<Session> session,
                                           std::shared_ptr<void> keep);

/// Whether `component` reads the keyword argument `name` (the keys of its family's `_run`).
bool reads_key(const orvo_core::Component& component, std::string_view name);

/// The keyword arguments of one invocation of `component`: the value under "event_emitter"
/// stands for an emitter (any object with `emit` serves), the other keys it reads are converted
/// in `session`, and the rest travel unconverted, as references to themselves.
orvo_core::Kwargs to_kwargs(const orvo_core::Component& component, const py::kwargs& kwargs,
                            Session& session);

/// Starts nothing: returns the awaitable of `call(*self, kwargs)` for a bound method.
template <class Self, class Call>
py::object start_component_call(std::shared_ptr<Self> self, const py::kwargs& kwargs, Call call) {
  if (auto* settings = dynamic_cast<PySettings*>(self.get())) settings->pull();
  auto session = std::make_shared<Session>();
  orvo_core::Kwargs converted = to_kwargs(*self, kwargs, *session);
  orvo_core::Awaitable<orvo_core::Any> work = call(*self, std::move(converted));
  return Pending(as_python(std::move(work), std::move(session), keep_alive(std::move(self))));
}

}  // namespace orvo_python
