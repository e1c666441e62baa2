// Bindings of the reference formatters and response synthesizers. Python subclasses override the
// asynchronous operations with `async def` and the text hooks with plain methods.

#include <pybind11/stl.h>

#include "orvo_core/errors.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"
#include "python_awaitables.hpp"

namespace orvo_python {

namespace rf = orvo_generation::reference_formatter;
namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::EventEmitter;
using rf::Chunks;

namespace {

py::object chunks_to_py(const Chunks& chunks) {
  py::list out(chunks.size());
  for (std::size_t i = 0; i < chunks.size(); ++i) out[i] = py::cast(chunks[i]);
  return out;
}

Chunks chunks_from_py(py::handle value) {
  if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr())) {
    throw orvo_core::TypeError("chunks must be a list of Chunk, not " +
                               std::string(py::str(py::type::handle_of(value).attr("__name__"))));
  }
  Chunks chunks;
  for (py::handle item : py::reinterpret_borrow<py::sequence>(value)) {
    if (!py::isinstance<Chunk>(item)) {
      throw orvo_core::TypeError("chunks must be a list of Chunk; found " +
                                 std::string(py::str(py::type::handle_of(item).attr("__name__"))));
    }
    chunks.push_back(item.cast<std::shared_ptr<Chunk>>());
  }
  return chunks;
}

py::object chunk_to_py(const Chunk& chunk) {
  return py::cast(&chunk, py::return_value_policy::reference);
}

// A Python callable as a per-chunk texts -> reference text function.
rf::FormatReferencesFunc references_func(const py::object& function) {
  if (function.is_none()) return {};
  auto held = std::make_shared<GilObject>(function);
  return [held](const orvo_core::List& entries) {
    const py::gil_scoped_acquire gil;
    return to_utf8(py::str(held->get()(to_py(Any(entries)))));
  };
}

// A Python callable as a chunk -> entry function.
rf::FormatChunkFunc chunk_func(const py::object& function) {
  if (function.is_none()) return {};
  auto held = std::make_shared<GilObject>(function);
  return [held](const Chunk& chunk) {
    const py::gil_scoped_acquire gil;
    return to_any_detached(held->get()(chunk_to_py(chunk)));
  };
}

// The C++ map a metadata map given from Python stands for; a dict is kept in `settings` and read
// again at every call, so changes to it after construction take effect.
Any metadata_map(const py::object& value, std::shared_ptr<Session>& settings) {
  if (value.is_none()) return {};
  if (!PyDict_Check(value.ptr())) return to_any_detached(value);
  if (!settings) settings = std::make_shared<Session>();
  return settings->to_any(value);
}

// `format_chunk_as_string(metadata_map)`: reads its map again at every call.
class ChunkFormatter : public PySettings {
 public:
  explicit ChunkFormatter(const py::object& map) {
    function = rf::format_chunk_as_string(metadata_map(map, settings));
  }
  explicit ChunkFormatter(rf::FormatChunkFunc f) : function(std::move(f)) {}
  py::object call(const Chunk& chunk) {
    pull();
    return to_py(function(chunk));
  }
  rf::FormatChunkFunc function;
};

// Python-side state of a formatter: the callables it was given, for the attributes.
class FormatterState : public PySettings {
 public:
  std::shared_ptr<GilObject> references_callable;
  std::shared_ptr<GilObject> chunk_callable;
};

// The hooks every component family shares: the event texts and the type name.
template <class Base>
class PyComponent : public Base {
 public:
  using Base::Base;

  [[nodiscard]] std::string _format_input_event(const orvo_core::Map& input) const override {
    const py::gil_scoped_acquire gil;
    if (py::function f = py::get_override(static_cast<const Base*>(this), "_format_input_event")) {
      return to_utf8(py::str(f(to_py(Any(input)))));
    }
    return Base::_format_input_event(input);
  }

  [[nodiscard]] std::string _format_output_event(const Any& output) const override {
    const py::gil_scoped_acquire gil;
    if (py::function f = py::get_override(static_cast<const Base*>(this), "_format_output_event")) {
      return to_utf8(py::str(f(to_py(output))));
    }
    return Base::_format_output_event(output);
  }

  [[nodiscard]] std::string type_name() const override {
    return python_type_name(static_cast<const Base*>(this), typeid(Base), Base::type_name());
  }
};

template <class Base>
class PyFormatter : public PyComponent<Base>, public FormatterState {
 public:
  using PyComponent<Base>::PyComponent;

  orvo_core::Awaitable<Any> format_reference(std::string response, Chunks chunks,
                                             std::shared_ptr<EventEmitter> event_emitter) override {
    py::function override = py::get_override(static_cast<const Base*>(this), "format_reference");
    if (!override) {
      co_return co_await Base::format_reference(std::move(response), std::move(chunks),
                                                std::move(event_emitter));
    }
    py::object call = override(py::arg("response") = to_py_str(response),
                               py::arg("chunks") = chunks_to_py(chunks),
                               py::arg("event_emitter") = collaborator_to_py(event_emitter));
    py::object result = co_await await_python(std::move(call));
    co_return to_any_detached(result);
  }

  orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response, Chunks chunks) override {
    py::function override =
        py::get_override(static_cast<const Base*>(this), "_get_relevant_chunks");
    if (!override) {
      co_return co_await Base::_get_relevant_chunks(std::move(response), std::move(chunks));
    }
    py::object call = override(to_py_str(response), chunks_to_py(chunks));
    py::object result = co_await await_python(std::move(call));
    co_return chunks_from_py(result);
  }

  [[nodiscard]] std::string _format_as_string(const Chunks& chunks) const override {
    const py::gil_scoped_acquire gil;
    if (py::function f = py::get_override(static_cast<const Base*>(this), "_format_as_string")) {
      return to_utf8(py::str(f(chunks_to_py(chunks))));
    }
    return Base::_format_as_string(chunks);
  }
};

// The LM-based formatter's context hooks are overridable too.
class PyLMFormatter : public PyFormatter<rf::LMBasedReferenceFormatter> {
 public:
  using PyFormatter::PyFormatter;

  [[nodiscard]] std::string _format_batch_context(const Chunks& chunks) const override {
    const py::gil_scoped_acquire gil;
    if (py::function f = py::get_override(static_cast<const rf::LMBasedReferenceFormatter*>(this),
                                          "_format_batch_context")) {
      return to_utf8(py::str(f(chunks_to_py(chunks))));
    }
    return LMBasedReferenceFormatter::_format_batch_context(chunks);
  }

  [[nodiscard]] std::string _format_chunk_as_context(const Chunk& chunk) const override {
    const py::gil_scoped_acquire gil;
    if (py::function f = py::get_override(static_cast<const rf::LMBasedReferenceFormatter*>(this),
                                          "_format_chunk_as_context")) {
      return to_utf8(py::str(f(chunk_to_py(chunk))));
    }
    return LMBasedReferenceFormatter::_format_chunk_as_context(chunk);
  }
};

template <class Base>
class PySynthesizer : public PyComponent<Base> {
 public:
  using PyComponent<Base>::PyComponent;

  orvo_core::Awaitable<std::string> synthesize_response(Any query, Any state_variables, Any history,
                                                        std::shared_ptr<EventEmitter> event_emitter,
                                                        Any system_multimodal_contents,
                                                        Any user_multimodal_contents) override {
    py::function override = py::get_override(static_cast<const Base*>(this), "synthesize_response");
    if (!override) {
      co_return co_await Base::synthesize_response(std::move(query), std::move(state_variables),
                                                   std::move(history), std::move(event_emitter),
                                                   std::move(system_multimodal_contents),
                                                   std::move(user_multimodal_contents));
    }
    py::object call = override(
        py::arg("query") = to_py(query), py::arg("state_variables") = to_py(state_variables),
        py::arg("history") = to_py(history),
        py::arg("event_emitter") = collaborator_to_py(event_emitter),
        py::arg("system_multimodal_contents") = to_py(system_multimodal_contents),
        py::arg("user_multimodal_contents") = to_py(user_multimodal_contents));
    py::object result = co_await await_python(std::move(call));
    if (!PyUnicode_Check(result.ptr())) {
      throw orvo_core::TypeError(
          "synthesize_response must return a str, not " +
          std::string(py::str(py::type::handle_of(result).attr("__name__"))));
    }
    co_return to_utf8(result);
  }
};

orvo_core::Awaitable<py::object> chunks_result(orvo_core::Awaitable<Chunks> work,
                                               std::shared_ptr<void> keep) {
  Chunks chunks = co_await std::move(work);
  keep.reset();
  co_return chunks_to_py(chunks);
}

// The attributes and operations every formatter shares.
template <class T, class Class>
void bind_formatter_members(Class& c) {
  c.def_readwrite("stringify", &T::stringify)
      .def_readwrite("streamable", &T::streamable)
      .def_property(
          "format_references_func",
          [](T& self) -> py::object {
            auto* state = dynamic_cast<FormatterState*>(&self);
            if (state != nullptr && state->references_callable) {
              return state->references_callable->get();
            }
            return py::module_::import("orvo_core._native").attr("format_references_as_string");
          },
          [](T& self, const py::object& function) {
            self.format_references_func = references_func(function);
            if (auto* state = dynamic_cast<FormatterState*>(&self)) {
              state->references_callable = std::make_shared<GilObject>(function);
            }
          })
      .def_property(
          "format_chunk_func",
          [](T& self) -> py::object {
            auto* state = dynamic_cast<FormatterState*>(&self);
            if (state != nullptr && state->chunk_callable) return state->chunk_callable->get();
            return py::cast(std::make_shared<ChunkFormatter>(self.format_chunk_func));
          },
          [](T& self, const py::object& function) {
            self.format_chunk_func = chunk_func(function);
            if (auto* state = dynamic_cast<FormatterState*>(&self)) {
              state->chunk_callable = std::make_shared<GilObject>(function);
            }
          });
}

template <class T>
void keep_callables(T& self, const py::object& references, const py::object& chunk) {
  if (!references.is_none()) self.references_callable = std::make_shared<GilObject>(references);
  if (!chunk.is_none()) self.chunk_callable = std::make_shared<GilObject>(chunk);
}

void bind_reference_formatters(py::module_& m) {
  m.attr("DEFAULT_FORMAT_CHUNK_METADATA_MAP") = to_py(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  m.attr("DEFAULT_THRESHOLD") = rf::DEFAULT_THRESHOLD;
  m.attr("DEFAULT_BATCH_SIZE") = rf::DEFAULT_BATCH_SIZE;
  m.attr("DEFAULT_REFERENCE_METADATA") = rf::DEFAULT_REFERENCE_METADATA;

  m.def(
      "format_references_as_string",
      [](const py::object& formatted_chunks) {
        if (formatted_chunks.is_none()) return std::string();
        return rf::format_references_as_string(to_any_detached(formatted_chunks).as_list());
      },
      py::arg("formatted_chunks"), "Formats a list of formatted chunks as a string of references.");

  py::class_<ChunkFormatter, std::shared_ptr<ChunkFormatter>>(m, "_ChunkFormatter")
      .def("__call__", &ChunkFormatter::call, py::arg("chunk"));
  m.def(
      "format_chunk_as_string",
      [](const py::object& metadata_map) { return std::make_shared<ChunkFormatter>(metadata_map); },
      py::arg("metadata_map"), "Creates a function that formats a chunk as a string of reference.");

  using Base = rf::BaseReferenceFormatter;
  py::class_<Base, orvo_core::Component, PyFormatter<Base>, std::shared_ptr<Base>> base(
      m, "BaseReferenceFormatter", "Defines a base class for reference formatters.");
  base.def(py::init([](bool stringify, const py::object& references, const py::object& chunk,
                       const py::object& map, bool streamable) {
             std::shared_ptr<Session> settings;
             Any converted = metadata_map(map, settings);
             auto self = std::make_shared<PyFormatter<Base>>(
                 stringify, references_func(references), chunk_func(chunk), converted, streamable);
             self->settings = settings;
             keep_callables(*self, references, chunk);
             return self;
           }),
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true)
      .def("_run",
           [](std::shared_ptr<Base> self, const py::kwargs& kwargs) {
             return start_component_call(self, kwargs, [](Base& formatter, orvo_core::Kwargs k) {
               return formatter._run(std::move(k));
             });
           })
      .def(
          "format_reference",
          [](std::shared_ptr<Base> self, std::string response, const py::object& chunks,
             const py::object& event_emitter) {
            if (auto* settings = dynamic_cast<PySettings*>(self.get())) settings->pull();
            orvo_core::Awaitable<Any> work = self->Base::format_reference(
                std::move(response), chunks_from_py(chunks), emitter_from_py(event_emitter));
            return Pending(
                as_python(std::move(work), std::make_shared<Session>(), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"), py::arg("event_emitter") = py::none())
      .def(
          "_get_relevant_chunks",
          [](std::shared_ptr<Base> self, std::string response, const py::object& chunks) {
            orvo_core::Awaitable<Chunks> work =
                self->Base::_get_relevant_chunks(std::move(response), chunks_from_py(chunks));
            return Pending(chunks_result(std::move(work), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"))
      .def("_format_as_string",
           [](const Base& self, const py::object& chunks) {
             if (auto* settings = dynamic_cast<const PySettings*>(&self)) {
               const_cast<PySettings*>(settings)->pull();
             }
             return to_py_str(self.Base::_format_as_string(chunks_from_py(chunks)));
           })
      .def("_format_input_event",
           [](const Base& self, const py::dict& input_dict) {
             return to_py_str(self.Base::_format_input_event(to_any_detached(input_dict).as_map()));
           })
      .def("_format_output_event", [](const Base& self, const py::object& output) {
        return to_py_str(self.Base::_format_output_event(to_any_detached(output)));
      });
  bind_formatter_members<Base>(base);

  using Similarity = rf::SimilarityBasedReferenceFormatter;
  py::class_<Similarity, Base, PyFormatter<Similarity>, std::shared_ptr<Similarity>>(
      m, "SimilarityBasedReferenceFormatter",
      "Keeps the chunks whose content embedding is similar enough to the response's.")
      .def(py::init([](const py::object& em_invoker, double threshold, bool stringify,
                       const py::object& references, const py::object& chunk, const py::object& map,
                       bool streamable) {
             std::shared_ptr<Session> settings;
             Any converted = metadata_map(map, settings);
             auto self = std::make_shared<PyFormatter<Similarity>>(
                 invoker_from_py(em_invoker), threshold, stringify, references_func(references),
                 chunk_func(chunk), converted, streamable);
             self->settings = settings;
             keep_callables(*self, references, chunk);
             return self;
           }),
           py::arg("em_invoker"), py::arg("threshold") = rf::DEFAULT_THRESHOLD,
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true)
      .def_readwrite("threshold", &Similarity::threshold)
      .def_property(
          "em_invoker", [](const Similarity& self) { return collaborator_to_py(self.em_invoker); },
          [](Similarity& self, const py::object& value) {
            self.em_invoker = invoker_from_py(value);
          })
      .def(
          "_get_relevant_chunks",
          [](std::shared_ptr<Similarity> self, std::string response, const py::object& chunks) {
            orvo_core::Awaitable<Chunks> work =
                self->Similarity::_get_relevant_chunks(std::move(response), chunks_from_py(chunks));
            return Pending(chunks_result(std::move(work), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"));

  using LM = rf::LMBasedReferenceFormatter;
  py::class_<LM, Base, orvo_inference::UsesLM, PyLMFormatter, std::shared_ptr<LM>>(
      m, "LMBasedReferenceFormatter",
      "Lets a language model judge which chunks are relevant, a batch at a time.")
      .def(py::init([](const py::object& processor, const py::object& batch_size,
                       const py::object& reference_metadata, bool stringify,
                       const py::object& references, const py::object& chunk, const py::object& map,
                       bool streamable) {
             std::shared_ptr<Session> settings;
             Any converted = metadata_map(map, settings);
             auto self = std::make_shared<PyLMFormatter>(
                 processor_from_py(processor), to_any_detached(batch_size),
                 to_any_detached(reference_metadata), stringify, references_func(references),
                 chunk_func(chunk), converted, streamable);
             self->settings = settings;
             keep_callables(*self, references, chunk);
             return self;
           }),
           py::arg("lm_request_processor"), py::arg("batch_size") = rf::DEFAULT_BATCH_SIZE,
           py::arg("reference_metadata") = rf::DEFAULT_REFERENCE_METADATA,
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true)
      .def_property(
          "lm_request_processor",
          [](const LM& self) { return collaborator_to_py(self.lm_request_processor); },
          [](LM& self, const py::object& value) {
            self.lm_request_processor = processor_from_py(value);
          })
      .def_property(
          "batch_size", [](const LM& self) { return to_py(self.batch_size); },
          [](LM& self, const py::object& value) { self.batch_size = to_any_detached(value); })
      .def_property(
          "reference_metadata", [](const LM& self) { return to_py(self.reference_metadata); },
          [](LM& self, const py::object& value) {
            self.reference_metadata = to_any_detached(value);
          })
      .def(
          "_get_relevant_chunks",
          [](std::shared_ptr<LM> self, std::string response, const py::object& chunks) {
            orvo_core::Awaitable<Chunks> work =
                self->LM::_get_relevant_chunks(std::move(response), chunks_from_py(chunks));
            return Pending(chunks_result(std::move(work), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"))
      .def("_format_batch_context",
           [](const LM& self, const py::object& chunks) {
             return to_py_str(self.LM::_format_batch_context(chunks_from_py(chunks)));
           })
      .def("_format_chunk_as_context", [](const LM& self, const Chunk& chunk) {
        return to_py_str(self.LM::_format_chunk_as_context(chunk));
      });
}

orvo_core::Awaitable<Any> text_as_any(orvo_core::Awaitable<std::string> text) {
  std::string result = co_await std::move(text);
  co_return Any(std::move(result));
}

template <class T>
py::object synthesize(std::shared_ptr<T> self, const py::object& query,
                      const py::object& state_variables, const py::object& history,
                      const py::object& event_emitter, const py::object& system_contents,
                      const py::object& user_contents) {
  auto session = std::make_shared<Session>();
  Any query_value = session->to_any(query);
  Any variables = session->to_any(state_variables);
  Any history_value = session->to_any(history);
  Any system_value = session->to_any(system_contents);
  Any user_value = session->to_any(user_contents);
  orvo_core::Awaitable<std::string> text = self->T::synthesize_response(
      std::move(query_value), std::move(variables), std::move(history_value),
      emitter_from_py(event_emitter), std::move(system_value), std::move(user_value));
  orvo_core::Awaitable<Any> work = text_as_any(std::move(text));
  return Pending(as_python(std::move(work), std::move(session), keep_alive(self)));
}

template <class T, class Class>
void bind_synthesize(Class& c) {
  c.def("synthesize_response", &synthesize<T>, py::arg("query") = py::none(),
        py::arg("state_variables") = py::none(), py::arg("history") = py::none(),
        py::arg("event_emitter") = py::none(), py::arg("system_multimodal_contents") = py::none(),
        py::arg("user_multimodal_contents") = py::none());
}

void bind_response_synthesizers(py::module_& m) {
  m.attr("DEFAULT_RESPONSE_PREFIX") = rs::DEFAULT_RESPONSE_PREFIX;
  m.attr("DEFAULT_FALLBACK_RESPONSE") = rs::DEFAULT_FALLBACK_RESPONSE;

  using Base = rs::BaseResponseSynthesizer;
  py::class_<Base, orvo_core::Component, PySynthesizer<Base>, std::shared_ptr<Base>> base(
      m, "BaseResponseSynthesizer", "Defines a base class for response synthesizers.");
  base.def(py::init(
               [](bool streamable) { return std::make_shared<PySynthesizer<Base>>(streamable); }),
           py::arg("streamable") = true)
      .def_readwrite("streamable", &Base::streamable)
      .def("_run",
           [](std::shared_ptr<Base> self, const py::kwargs& kwargs) {
             return start_component_call(self, kwargs, [](Base& synthesizer, orvo_core::Kwargs k) {
               return synthesizer._run(std::move(k));
             });
           })
      .def("_format_input_event",
           [](const Base& self, const py::dict& input_dict) {
             return to_py_str(self.Base::_format_input_event(to_any_detached(input_dict).as_map()));
           })
      .def("_format_output_event", [](const Base& self, const py::object& output) {
        return to_py_str(self.Base::_format_output_event(to_any_detached(output)));
      });
  bind_synthesize<Base>(base);

  using Stuff = rs::StuffResponseSynthesizer;
  py::class_<Stuff, Base, orvo_inference::UsesLM, PySynthesizer<Stuff>, std::shared_ptr<Stuff>>
      stuff(m, "StuffResponseSynthesizer",
            "Synthesizes the response with one language-model request.");
  stuff
      .def(py::init([](const py::object& processor, bool streamable) {
             return std::make_shared<PySynthesizer<Stuff>>(processor_from_py(processor),
                                                           streamable);
           }),
           py::arg("lm_request_processor"), py::arg("streamable") = true)
      .def_property(
          "lm_request_processor",
          [](const Stuff& self) { return collaborator_to_py(self.lm_request_processor); },
          [](Stuff& self, const py::object& value) {
            self.lm_request_processor = processor_from_py(value);
          });
  bind_synthesize<Stuff>(stuff);

  using StaticList = rs::StaticListResponseSynthesizer;
  py::class_<StaticList, Base, PySynthesizer<StaticList>, std::shared_ptr<StaticList>> list(
      m, "StaticListResponseSynthesizer",
      "Defines a response synthesizer that synthesizes a static list response.");
  list.def(py::init([](std::string prefix, std::string fallback, std::string delimiter,
                       bool streamable) {
             return std::make_shared<PySynthesizer<StaticList>>(
                 std::move(prefix), std::move(fallback), std::move(delimiter), streamable);
           }),
           py::arg("response_prefix") = rs::DEFAULT_RESPONSE_PREFIX,
           py::arg("fallback_response") = rs::DEFAULT_FALLBACK_RESPONSE,
           py::arg("delimiter") = "\n", py::arg("streamable") = true)
      .def_readwrite("preceding_line", &StaticList::preceding_line)
      .def_readwrite("fallback_response", &StaticList::fallback_response)
      .def_readwrite("delimiter", &StaticList::delimiter);
  bind_synthesize<StaticList>(list);
}

}  // namespace

void bind_generation(py::module_& m) {
  bind_reference_formatters(m);
  bind_response_synthesizers(m);
}

}  // namespace orvo_python
