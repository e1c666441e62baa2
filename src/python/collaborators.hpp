#pragma once

// Python objects as the collaborators that C++ components call, and C++ collaborators whose
// network I/O runs off the asyncio thread.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_core/event/event_emitter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "python_support.hpp"

namespace orvo_python {

/// Any Python object with `async def emit(value, level, type)`.
class PyEventEmitter : public orvo_core::EventEmitter {
 public:
  explicit PyEventEmitter(py::object target) : target_(std::move(target)) {}
  orvo_core::Awaitable<void> emit(std::string value, orvo_core::EventLevel level,
                                  orvo_core::EventType type) override;
  [[nodiscard]] std::string type_name() const override;
  [[nodiscard]] py::object target() const { return target_.get(); }

 private:
  GilObject target_;
};

/// Any Python object with `async def process(prompt_kwargs, history=None, *, event_emitter=None,
/// system_multimodal_contents=None, user_multimodal_contents=None)`.
class PyLMRequestProcessor : public orvo_inference::LMRequestProcessor {
 public:
  explicit PyLMRequestProcessor(py::object target) : target_(std::move(target)) {}
  orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter,
      orvo_core::Any system_multimodal_contents, orvo_core::Any user_multimodal_contents) override;
  orvo_core::Awaitable<orvo_core::Any> process_variables(
      std::shared_ptr<orvo_core::Map> prompt_kwargs) override;
  [[nodiscard]] std::string type_name() const override;
  [[nodiscard]] py::object target() const { return target_.get(); }

 private:
  GilObject target_;
};

/// Any Python object with `async def invoke(text_or_texts)` returning a list of numbers or a
/// buffer for one text, and a list of those or a 2-D buffer for a list of texts.
class PyEMInvoker : public orvo_inference::BaseEMInvoker {
 public:
  explicit PyEMInvoker(py::object target) : target_(std::move(target)) {}
  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override;
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override;
  /// The embeddings of a list of Python strings.
  orvo_core::Awaitable<orvo_core::Embeddings> invoke_list(py::list texts);
  [[nodiscard]] std::string type_name() const override;
  [[nodiscard]] py::object target() const { return target_.get(); }

 private:
  GilObject target_;
};

/// Runs a network-bound language-model invoker on the module's I/O thread; streamed events come
/// back to the asyncio thread before they reach the emitter.
class IoLMInvoker : public orvo_inference::BaseLMInvoker {
 public:
  explicit IoLMInvoker(std::shared_ptr<orvo_inference::BaseLMInvoker> inner)
      : inner_(std::move(inner)) {}
  orvo_core::Awaitable<std::string> invoke(
      std::vector<orvo_inference::ChatMessage> messages,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter) override;
  [[nodiscard]] std::string type_name() const override { return inner_->type_name(); }

 private:
  std::shared_ptr<orvo_inference::BaseLMInvoker> inner_;
};

/// Runs a network-bound embedding invoker on the module's I/O thread.
class IoEMInvoker : public orvo_inference::BaseEMInvoker {
 public:
  explicit IoEMInvoker(std::shared_ptr<orvo_inference::BaseEMInvoker> inner)
      : inner_(std::move(inner)) {}
  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override;
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override;
  [[nodiscard]] std::string type_name() const override { return inner_->type_name(); }

 private:
  std::shared_ptr<orvo_inference::BaseEMInvoker> inner_;
};

/// The member of the bound enumeration, itself (`EventLevel.INFO`), not a new object per event.
py::object to_py(orvo_core::EventLevel level);
py::object to_py(orvo_core::EventType type);

/// The emitter a Python value stands for: null for None or a false value (`0`, `""`, `[]`, ...),
/// the object itself for an `EventEmitter`, an adapter for any other object (its `emit` is looked
/// up when it is called, so a wrong one fails only where an event is emitted).
std::shared_ptr<orvo_core::EventEmitter> emitter_from_py(py::handle value);

/// The request processor a Python object stands for: a native one as it is, anything else
/// through its `process`.
std::shared_ptr<orvo_inference::LMRequestProcessor> processor_from_py(py::handle value);

/// The embedding invoker a Python object stands for.
std::shared_ptr<orvo_inference::BaseEMInvoker> invoker_from_py(py::handle value);

/// The Python object a collaborator stands for: the original object of an adapter.
py::object collaborator_to_py(const std::shared_ptr<orvo_core::Object>& collaborator);

/// The Python class name of a bound object, or `fallback` when it has no Python side.
std::string python_type_name(const void* self, const std::type_info& type, std::string fallback);

}  // namespace orvo_python
