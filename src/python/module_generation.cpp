// Bindings of the reference formatters and response synthesizers. Python subclasses override the
// asynchronous operations with `async def` and the text hooks with plain methods.

#include <array>
#include <span>
#include <tuple>
#include <type_traits>

#include <pybind11/eval.h>
#include <pybind11/stl.h>

#include "chunk_lists.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/judge_answer_parser.hpp"
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
using rs::StaticListResponseSynthesizer;

py::object chunks_to_py(const Chunks& chunks) {
  py::list out(chunks.size());
  for (std::size_t i = 0; i < chunks.size(); ++i) out[i] = py::cast(chunks[i]);
  return out;
}

// Reads the chunks of a list or tuple into `chunks`; returns the first item that is no Chunk,
// or null when there is none.
py::handle read_chunks(py::handle sequence, Chunks& chunks) {
  const auto size = static_cast<std::size_t>(PySequence_Fast_GET_SIZE(sequence.ptr()));
  PyObject** items = PySequence_Fast_ITEMS(sequence.ptr());
  chunks.reserve(size);
  // Copying a chunk's pointer writes its count, and that write stalls until the line is in
  // the cache. Each Python object is fetched well ahead; its holder is read, and the count
  // (which sits just before the chunk, allocated with it by `make_shared`) fetched, a while
  // before the copy, so that the misses overlap. `found` keeps the holders read in between.
  std::array<const std::shared_ptr<Chunk>*, kFetchAhead> found{};
  for (std::size_t next = 0; next < size + kFetchAhead; ++next) {
    if (next >= kFetchAhead) {
      const std::size_t i = next - kFetchAhead;
      if (const auto* holder = found[i % kFetchAhead]) {
        chunks.push_back(*holder);
      } else {
        const py::handle item(items[i]);
        if (!py::isinstance<Chunk>(item)) return item;
        chunks.push_back(hold<Chunk>(item));
      }
    }
    if (next < size) {
      if (next + kFetchAhead < size) __builtin_prefetch(items[next + kFetchAhead]);
      const auto* holder = exact_holder<Chunk>(items[next]);
      if (holder != nullptr)
        __builtin_prefetch(reinterpret_cast<const char*>(holder->get()) - 16, 1);
      found[next % kFetchAhead] = holder;
    }
  }
  return {};
}

std::string type_name_of(py::handle value) {
  return py::str(py::type::handle_of(value).attr("__name__"));
}

Chunks chunks_from_py(py::handle value) {
  if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr())) {
    throw orvo_core::TypeError("chunks must be a list of Chunk, not " + type_name_of(value));
  }
  Chunks chunks;
  if (py::handle odd = read_chunks(value, chunks)) {
    throw orvo_core::TypeError("chunks must be a list of Chunk; found " + type_name_of(odd));
  }
  return chunks;
}

namespace {

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

// The module's shared default metadata map, and its `format_chunk_as_string`: a plain Python
// function, so that what it returns is one too. Both live as long as the module.
py::object* default_metadata_map = nullptr;
py::object* format_chunk_as_string_function = nullptr;

// Python-side state of a formatter: the callables behind its attributes.
class FormatterState : public PySettings {
 public:
  std::shared_ptr<GilObject> references_callable;
  std::shared_ptr<GilObject> chunk_callable;
};

// Sets up a formatter built from Python: without a chunk function it formats with the default
// one over the given metadata map, or over the module's shared default map when none (or an
// empty one) is given; either map is read again at every call. The attribute shows the plain
// function that `format_chunk_as_string` makes for that map, the same object at every read.
template <class T>
std::shared_ptr<T> configured(std::shared_ptr<T> self, const py::object& references,
                              const py::object& chunk, const py::object& map) {
  if (!references.is_none()) self->references_callable = std::make_shared<GilObject>(references);
  if (!chunk.is_none()) {
    self->chunk_callable = std::make_shared<GilObject>(chunk);
    return self;
  }
  const py::object chosen = truthy(map) ? map : *default_metadata_map;
  self->format_chunk_func = rf::format_chunk_as_string(metadata_map(chosen, self->settings));
  self->chunk_callable = std::make_shared<GilObject>((*format_chunk_as_string_function)(chosen));
  return self;
}

// What a formatter built from Python can do beyond its C++ class: format references around a
// Python `_get_relevant_chunks`, whose very list is then the result.
class PythonFormatter {
 public:
  virtual ~PythonFormatter() = default;
  virtual orvo_core::Awaitable<Any> format_reference_here(
      std::string response, py::object chunks, std::shared_ptr<EventEmitter> event_emitter) = 0;
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
class PyFormatter : public PyComponent<Base>, public FormatterState, public PythonFormatter {
 public:
  using PyComponent<Base>::PyComponent;

  orvo_core::Awaitable<Any> format_reference(std::string response, Chunks chunks,
                                             std::shared_ptr<EventEmitter> event_emitter) override {
    py::function override = py::get_override(static_cast<const Base*>(this), "format_reference");
    if (!override) {
      if (!py::get_override(static_cast<const Base*>(this), "_get_relevant_chunks")) {
        co_return co_await Base::format_reference(std::move(response), std::move(chunks),
                                                  std::move(event_emitter));
      }
      co_return co_await format_reference_here(std::move(response), chunks_to_py(chunks),
                                               std::move(event_emitter));
    }
    py::object call = override(py::arg("response") = to_py_str(response),
                               py::arg("chunks") = chunks_to_py(chunks),
                               py::arg("event_emitter") = collaborator_to_py(event_emitter));
    py::object result = co_await await_python(std::move(call));
    co_return to_any_detached(result);
  }

  orvo_core::Awaitable<Any> format_reference_here(
      std::string response, py::object chunks,
      std::shared_ptr<EventEmitter> event_emitter) override {
    py::function override =
        py::get_override(static_cast<const Base*>(this), "_get_relevant_chunks");
    if (!override) {
      co_return co_await Base::format_reference(std::move(response), chunks_from_py(chunks),
                                                std::move(event_emitter));
    }
    py::object call = override(to_py_str(response), chunks);
    py::object relevant_list = co_await await_python(std::move(call));
    Chunks relevant = chunks_from_py(relevant_list);
    Any references = this->stringify ? Any(this->_format_as_string(relevant))
                                     : Any(std::make_shared<PyObjectRef>(std::move(relevant_list)));
    co_await this->stream_references(references, relevant, std::move(event_emitter));
    co_return references;
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

// The similarity formatter built from Python: constructors check nothing, so a threshold that
// is not a number is kept as given and fails where scores are compared with it.
class PySimilarity : public PyFormatter<rf::SimilarityBasedReferenceFormatter> {
 public:
  using Similarity = rf::SimilarityBasedReferenceFormatter;
  using PyFormatter::PyFormatter;

  orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response, Chunks chunks) override {
    if (!chunks.empty()) check_threshold();
    co_return co_await PyFormatter::_get_relevant_chunks(std::move(response), std::move(chunks));
  }

  orvo_core::Awaitable<Chunks> _select_relevant_chunks(
      std::string response, Chunks chunks, std::shared_ptr<EventEmitter> event_emitter) override {
    if (!chunks.empty()) check_threshold();
    co_return co_await PyFormatter::_select_relevant_chunks(std::move(response), std::move(chunks),
                                                            std::move(event_emitter));
  }

  // A Python invoker gets the `str` objects that chunks made from Python keep.
  orvo_core::Awaitable<orvo_core::Embeddings> _embed_contents(
      std::span<const std::shared_ptr<Chunk>> chunks) override {
    auto* python = dynamic_cast<PyEMInvoker*>(em_invoker.get());
    if (python == nullptr) co_return co_await Similarity::_embed_contents(chunks);
    py::list texts = contents_to_py(chunks);
    co_return co_await python->invoke_list(std::move(texts));
  }

  /// Raises `TypeError` when the threshold given is not a number.
  void check_threshold() const {
    if (!odd_threshold) return;
    throw orvo_core::TypeError(
        "'>=' not supported between instances of 'float' and '" +
        std::string(py::str(py::type::handle_of(odd_threshold->get()).attr("__name__"))) + "'");
  }

  void set_threshold(const py::object& value) {
    const bool number = (PyFloat_Check(value.ptr()) != 0 || PyLong_Check(value.ptr()) != 0);
    odd_threshold = number ? nullptr : std::make_shared<GilObject>(value);
    if (number) threshold = value.cast<double>();
  }

  std::shared_ptr<GilObject> odd_threshold;  ///< The threshold given, when it is no number.
};

// The LM-based formatter's context hooks are overridable too.
class PyLMFormatter : public PyFormatter<rf::LMBasedReferenceFormatter> {
 public:
  using PyFormatter::PyFormatter;

  std::shared_ptr<GilObject> answer_parser_callable;  ///< What `answer_parser` shows.

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

  orvo_core::Awaitable<Any> synthesize_response(Any query, Any state_variables, Any history,
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
    co_return passed_on(result);
  }
};

// The static list synthesizer built from Python: constructors check nothing, so a text given
// that is not a string is kept as it is and fails only where it is used.
class PyStaticList : public PySynthesizer<rs::StaticListResponseSynthesizer> {
 public:
  using PySynthesizer::PySynthesizer;

  orvo_core::Awaitable<Any> synthesize_response(Any query, Any state_variables, Any history,
                                                std::shared_ptr<EventEmitter> event_emitter,
                                                Any system_multimodal_contents,
                                                Any user_multimodal_contents) override {
    if (!py::get_override(static_cast<const StaticListResponseSynthesizer*>(this),
                          "synthesize_response")) {
      check_texts(state_variables);
    }
    co_return co_await PySynthesizer::synthesize_response(
        std::move(query), std::move(state_variables), std::move(history), std::move(event_emitter),
        std::move(system_multimodal_contents), std::move(user_multimodal_contents));
  }

  /// Raises `TypeError` when a text that this call would use is not a string.
  void check_texts(const Any& state_variables) const {
    const Any* list = state_variables.is_map()
                          ? orvo_core::find(state_variables.as_map(), "context_list")
                          : nullptr;
    if (list == nullptr || !list->is_list()) return;  // the synthesizer's own error comes first
    for (const Any& item : list->as_list()) {
      if (!item.is_string()) return;
    }
    const auto require = [this](std::size_t i) {
      if (!odd[i]) return;
      throw orvo_core::TypeError(
          std::string("`") + kNames[i] + "` must be a str, not " +
          std::string(py::str(py::type::handle_of(odd[i]->get()).attr("__name__"))));
    };
    if (list->as_list().empty()) {
      require(1);
    } else {
      require(0);
      require(2);
    }
  }

  /// The texts given that are not strings: `preceding_line`, `fallback_response`, `delimiter`.
  std::array<std::shared_ptr<GilObject>, 3> odd;
  static constexpr std::array<const char*, 3> kNames = {"preceding_line", "fallback_response",
                                                        "delimiter"};
};

std::string* static_list_text(StaticListResponseSynthesizer& self, std::size_t i) {
  std::array<std::string*, 3> texts = {&self.preceding_line, &self.fallback_response,
                                       &self.delimiter};
  return texts[i];
}

void set_static_list_text(StaticListResponseSynthesizer& self, std::size_t i,
                          const py::object& value) {
  auto* python = dynamic_cast<PyStaticList*>(&self);
  if (PyUnicode_Check(value.ptr()) != 0 || python == nullptr) {
    *static_list_text(self, i) = to_utf8(value);
    if (python != nullptr) python->odd[i].reset();
    return;
  }
  python->odd[i] = std::make_shared<GilObject>(value);
}

py::object static_list_text_value(StaticListResponseSynthesizer& self, std::size_t i) {
  auto* python = dynamic_cast<PyStaticList*>(&self);
  if (python != nullptr && python->odd[i]) return python->odd[i]->get();
  return to_py_str(*static_list_text(self, i));
}

orvo_core::Awaitable<py::object> chunks_result(orvo_core::Awaitable<Chunks> work,
                                               std::shared_ptr<void> keep) {
  Chunks chunks = co_await std::move(work);
  keep.reset();
  co_return chunks_to_py(chunks);
}

// The texts of the start and finish messages, as every component family builds them.
template <class Base, class Class>
void bind_event_hooks(Class& c) {
  c.def(
       "_format_input_event",
       [](const Base& self, const py::dict& input_dict) {
         return to_py_str(self.Base::_format_input_event(to_any_detached(input_dict).as_map()));
       },
       py::arg("input_dict"))
      .def(
          "_format_output_event",
          [](const Base& self, const py::object& output) {
            return to_py_str(self.Base::_format_output_event(to_any_detached(output)));
          },
          py::arg("output"));
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
            return py::none();
          },
          [](T& self, const py::object& function) {
            self.format_chunk_func = chunk_func(function);
            if (auto* state = dynamic_cast<FormatterState*>(&self)) {
              state->chunk_callable = std::make_shared<GilObject>(function);
            }
          });
}

// A formatter's `_run`. A list of chunks crosses straight into the chunk list it reads, not
// through a list of values first; anything else takes the general way, which checks it.
py::object start_formatter_run(std::shared_ptr<rf::BaseReferenceFormatter> self,
                               const py::kwargs& kwargs) {
  PyObject* given = PyDict_GetItemString(kwargs.ptr(), "chunks");
  Chunks chunks;
  if (given == nullptr || !PyList_Check(given) || read_chunks(given, chunks)) {
    return start_component_call(self, kwargs,
                                [](rf::BaseReferenceFormatter& formatter, orvo_core::Kwargs k) {
                                  return formatter._run(std::move(k));
                                });
  }
  auto rest = py::reinterpret_steal<py::kwargs>(PyDict_Copy(kwargs.ptr()));
  if (!rest || PyDict_DelItemString(rest.ptr(), "chunks") != 0) throw py::error_already_set();
  auto list = std::make_shared<PyObjectRef>(py::reinterpret_borrow<py::object>(given));
  return start_component_call(
      self, rest, [&chunks, &list](rf::BaseReferenceFormatter& formatter, orvo_core::Kwargs k) {
        // The list goes along unread: it keeps the chunks' Python objects, which are what C++
        // hands back to Python during the call.
        k.insert_or_assign("chunks", Any(std::move(list)));
        return formatter._run_chunks(std::move(k), std::move(chunks));
      });
}

// `format_chunk_as_string` as a plain Python function over the module's `_format_chunk`.
py::object make_format_chunk_as_string(const py::module_& m) {
  py::dict scope;
  scope["__name__"] = m.attr("__name__");
  scope["_format_chunk"] = m.attr("_format_chunk");
  py::exec(R"(
def format_chunk_as_string(metadata_map):
    """Creates a function that formats a chunk as a string of reference."""
    def _format_chunk_as_string(chunk):
        return _format_chunk(chunk, metadata_map)
    return _format_chunk_as_string
)",
           scope);
  return scope["format_chunk_as_string"];
}

// A flag given to a constructor, by the truth test: constructors check nothing.
bool flag(const py::object& value) {
  return truthy(value);
}

// The module's judge-answer readers, which a formatter given one of them calls directly.
py::object* parse_judge_answer_function = nullptr;
py::object* read_judge_answer_function = nullptr;

void set_answer_parser(rf::LMBasedReferenceFormatter& self, const py::object& parser) {
  auto* python = dynamic_cast<PyLMFormatter*>(&self);
  if (python != nullptr) {
    python->answer_parser_callable =
        parser.is_none() ? nullptr : std::make_shared<GilObject>(parser);
  }
  if (parser.is_none()) {
    self.answer_parser = {};
  } else if (parser.is(*parse_judge_answer_function)) {
    self.answer_parser = rf::parse_judge_answer;
  } else if (parser.is(*read_judge_answer_function)) {
    self.answer_parser = rf::read_judge_answer;
  } else {
    auto held = std::make_shared<GilObject>(parser);
    self.answer_parser = [held](const Any& lm_output, const Chunks& batch, const Any& key) {
      const py::gil_scoped_acquire gil;
      const py::object positions = held->get()(to_py(lm_output), chunks_to_py(batch), to_py(key));
      std::vector<std::size_t> selected;
      for (py::handle position : py::iter(positions)) {
        selected.push_back(position.cast<std::size_t>());
      }
      return selected;
    };
  }
}

py::object answer_parser_value(const rf::LMBasedReferenceFormatter& self) {
  const auto* python = dynamic_cast<const PyLMFormatter*>(&self);
  if (python != nullptr && python->answer_parser_callable) {
    return python->answer_parser_callable->get();
  }
  return py::none();
}

orvo_core::Awaitable<py::object> scored_result(orvo_core::Awaitable<rf::ScoredChunks> work,
                                               std::shared_ptr<void> keep) {
  rf::ScoredChunks scored = co_await std::move(work);
  keep.reset();
  co_return py::cast(std::move(scored));
}

void bind_reference_formatters(py::module_& m) {
  Home home(m);
  home.set("orvo_generation.reference_formatter.reference_formatter");
  py::dict default_map;
  default_map["title"] = "file_name";
  default_map["url"] = "file_url";
  default_metadata_map = new py::object(default_map);
  m.attr("DEFAULT_FORMAT_CHUNK_METADATA_MAP") = default_map;
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

  m.def(
      "_format_chunk",
      [](const Chunk& chunk, const py::object& map) {
        return to_py(rf::format_chunk_as_string(to_any_detached(map))(chunk));
      },
      py::arg("chunk"), py::arg("metadata_map"));
  format_chunk_as_string_function = new py::object(make_format_chunk_as_string(m));
  m.attr("format_chunk_as_string") = *format_chunk_as_string_function;

  using Base = rf::BaseReferenceFormatter;
  py::class_<Base, orvo_core::Component, PyFormatter<Base>, std::shared_ptr<Base>> base(
      m, "BaseReferenceFormatter", "Defines a base class for reference formatters.");
  base.def(py::init([](const py::object& stringify, const py::object& references,
                       const py::object& chunk, const py::object& map,
                       const py::object& streamable) {
             return configured(
                 std::make_shared<PyFormatter<Base>>(flag(stringify), references_func(references),
                                                     chunk_func(chunk), Any(), flag(streamable)),
                 references, chunk, map);
           }),
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true)
      .def("_run", &start_formatter_run)
      .def(
          "format_reference",
          [](std::shared_ptr<Base> self, std::string response, const py::object& chunks,
             const py::object& event_emitter) {
            if (auto* settings = dynamic_cast<PySettings*>(self.get())) settings->pull();
            auto* python = dynamic_cast<PythonFormatter*>(self.get());
            orvo_core::Awaitable<Any> work =
                python != nullptr
                    ? python->format_reference_here(std::move(response), chunks,
                                                    emitter_from_py(event_emitter))
                    : self->Base::format_reference(std::move(response), chunks_from_py(chunks),
                                                   emitter_from_py(event_emitter));
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
      .def(
          "_format_as_string",
          [](const Base& self, const py::object& chunks) {
            if (auto* settings = dynamic_cast<const PySettings*>(&self)) {
              const_cast<PySettings*>(settings)->pull();
            }
            return to_py_str(self.Base::_format_as_string(chunks_from_py(chunks)));
          },
          py::arg("chunks"));
  bind_event_hooks<Base>(base);
  bind_formatter_members<Base>(base);

  using Similarity = rf::SimilarityBasedReferenceFormatter;
  home.set("orvo_generation.reference_formatter.similarity_based_reference_formatter");
  py::class_<Similarity, Base, PySimilarity, std::shared_ptr<Similarity>>(
      m, "SimilarityBasedReferenceFormatter",
      "Keeps the chunks whose content embedding is similar enough to the response's.")
      .def(py::init([](const py::object& em_invoker, const py::object& threshold,
                       const py::object& stringify, const py::object& references,
                       const py::object& chunk, const py::object& map, const py::object& streamable,
                       bool stream_scores) {
             auto self = std::make_shared<PySimilarity>(
                 invoker_from_py(em_invoker), rf::DEFAULT_THRESHOLD, flag(stringify),
                 references_func(references), chunk_func(chunk), Any(), flag(streamable));
             self->set_threshold(threshold);
             self->stream_scores = stream_scores;
             return configured(std::move(self), references, chunk, map);
           }),
           py::arg("em_invoker"), py::arg("threshold") = rf::DEFAULT_THRESHOLD,
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true,
           py::kw_only(), py::arg("stream_scores") = false)
      .def_readwrite("stream_scores", &Similarity::stream_scores)
      .def(
          "score_chunks",
          [](std::shared_ptr<Similarity> self, std::string response, const py::object& chunks) {
            Chunks given = chunks_from_py(chunks);
            const auto* python = dynamic_cast<const PySimilarity*>(self.get());
            if (python != nullptr && !given.empty()) python->check_threshold();
            orvo_core::Awaitable<rf::ScoredChunks> work =
                self->score_chunks(std::move(response), std::move(given));
            return Pending(scored_result(std::move(work), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"))
      .def_property(
          "threshold",
          [](const Similarity& self) -> py::object {
            const auto* python = dynamic_cast<const PySimilarity*>(&self);
            if (python != nullptr && python->odd_threshold) return python->odd_threshold->get();
            return py::float_(self.threshold);
          },
          [](Similarity& self, const py::object& value) {
            if (auto* python = dynamic_cast<PySimilarity*>(&self)) {
              python->set_threshold(value);
            } else {
              self.threshold = value.cast<double>();
            }
          })
      .def_property(
          "em_invoker", [](const Similarity& self) { return collaborator_to_py(self.em_invoker); },
          [](Similarity& self, const py::object& value) {
            self.em_invoker = invoker_from_py(value);
          })
      .def(
          "_get_relevant_chunks",
          [](std::shared_ptr<Similarity> self, std::string response, const py::object& chunks) {
            // No chunks, no request: absent counts as none.
            Chunks given = truthy(chunks) ? chunks_from_py(chunks) : Chunks();
            const auto* python = dynamic_cast<const PySimilarity*>(self.get());
            if (python != nullptr && !given.empty()) python->check_threshold();
            orvo_core::Awaitable<Chunks> work =
                self->Similarity::_get_relevant_chunks(std::move(response), std::move(given));
            return Pending(chunks_result(std::move(work), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"));

  home.set("orvo_generation.reference_formatter.judge_answer_parser");
  for (const auto& [name, reader, doc] :
       {std::tuple{"parse_judge_answer", &rf::parse_judge_answer,
                   "Reads a judge's answer leniently: the positions of the batch's chunks it "
                   "selects."},
        std::tuple{"read_judge_answer", &rf::read_judge_answer,
                   "Reads a judge's answer strictly: a map whose entry lists the labels it "
                   "selects."}}) {
    m.def(
        name,
        [reader = reader](const py::object& lm_output, const py::object& batch_chunks,
                          const py::object& reference_metadata) {
          return reader(to_any_detached(lm_output), chunks_from_py(batch_chunks),
                        to_any_detached(reference_metadata));
        },
        py::arg("lm_output"), py::arg("batch_chunks"), py::arg("reference_metadata"), doc);
  }
  parse_judge_answer_function = new py::object(m.attr("parse_judge_answer"));
  read_judge_answer_function = new py::object(m.attr("read_judge_answer"));

  using LM = rf::LMBasedReferenceFormatter;
  home.set("orvo_generation.reference_formatter.lm_based_reference_formatter");
  py::enum_<rf::BatchFailurePolicy>(m, "BatchFailurePolicy",
                                    "What a batch whose judging failed keeps.")
      .value("RAISE", rf::BatchFailurePolicy::RAISE)
      .value("DROP", rf::BatchFailurePolicy::DROP)
      .value("KEEP", rf::BatchFailurePolicy::KEEP)
      .value("SIMILARITY", rf::BatchFailurePolicy::SIMILARITY);
  py::class_<LM, Base, orvo_inference::UsesLM, PyLMFormatter, std::shared_ptr<LM>>(
      m, "LMBasedReferenceFormatter",
      "Lets a language model judge which chunks are relevant, a batch at a time.")
      .def(py::init([](const py::object& processor, const py::object& batch_size,
                       const py::object& reference_metadata, const py::object& stringify,
                       const py::object& references, const py::object& chunk, const py::object& map,
                       const py::object& streamable, std::int64_t max_concurrency,
                       rf::BatchFailurePolicy on_batch_failure, const py::object& answer_parser,
                       const py::object& fallback_em_invoker, double fallback_threshold) {
             auto self = std::make_shared<PyLMFormatter>(
                 processor_from_py(processor), to_any_detached(batch_size),
                 to_any_detached(reference_metadata), flag(stringify), references_func(references),
                 chunk_func(chunk), Any(), flag(streamable));
             self->max_concurrency = max_concurrency;
             self->on_batch_failure = on_batch_failure;
             set_answer_parser(*self, answer_parser);
             if (!fallback_em_invoker.is_none()) {
               self->fallback_em_invoker = invoker_from_py(fallback_em_invoker);
             }
             self->fallback_threshold = fallback_threshold;
             return configured(std::move(self), references, chunk, map);
           }),
           py::arg("lm_request_processor"), py::arg("batch_size") = rf::DEFAULT_BATCH_SIZE,
           py::arg("reference_metadata") = rf::DEFAULT_REFERENCE_METADATA,
           py::arg("stringify") = true, py::arg("format_references_func") = py::none(),
           py::arg("format_chunk_func") = py::none(),
           py::arg("format_chunk_metadata_map") = py::none(), py::arg("streamable") = true,
           py::kw_only(), py::arg("max_concurrency") = 1,
           py::arg_v("on_batch_failure", rf::BatchFailurePolicy::RAISE, "BatchFailurePolicy.RAISE"),
           py::arg("answer_parser") = py::none(), py::arg("fallback_em_invoker") = py::none(),
           py::arg("fallback_threshold") = rf::DEFAULT_THRESHOLD)
      .def_readwrite("max_concurrency", &LM::max_concurrency)
      .def_readwrite("on_batch_failure", &LM::on_batch_failure)
      .def_readwrite("fallback_threshold", &LM::fallback_threshold)
      .def_property("answer_parser", &answer_parser_value, &set_answer_parser)
      .def_property(
          "fallback_em_invoker",
          [](const LM& self) -> py::object {
            if (!self.fallback_em_invoker) return py::none();
            return collaborator_to_py(self.fallback_em_invoker);
          },
          [](LM& self, const py::object& value) {
            self.fallback_em_invoker = value.is_none() ? nullptr : invoker_from_py(value);
          })
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
      .def(
          "_format_batch_context",
          [](const LM& self, const py::object& chunks) {
            return to_py_str(self.LM::_format_batch_context(chunks_from_py(chunks)));
          },
          py::arg("chunks"))
      .def(
          "_format_chunk_as_context",
          [](const LM& self, const Chunk& chunk) {
            return to_py_str(self.LM::_format_chunk_as_context(chunk));
          },
          py::arg("chunk"));
}

template <class T>
py::object synthesize(std::shared_ptr<T> self, const py::object& query,
                      const py::object& state_variables, const py::object& history,
                      const py::object& event_emitter, const py::object& system_contents,
                      const py::object& user_contents) {
  auto session = std::make_shared<Session>();
  Any query_value = session->to_any(query);
  Any variables = session->to_any(state_variables);
  if constexpr (std::is_same_v<T, StaticListResponseSynthesizer>) {
    if (const auto* python = dynamic_cast<const PyStaticList*>(self.get())) {
      python->check_texts(variables.truthy() ? variables : Any());
    }
  }
  Any history_value = session->to_any(history);
  Any system_value = session->to_any(system_contents);
  Any user_value = session->to_any(user_contents);
  orvo_core::Awaitable<Any> work = self->T::synthesize_response(
      std::move(query_value), std::move(variables), std::move(history_value),
      emitter_from_py(event_emitter), std::move(system_value), std::move(user_value));
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
  Home home(m);
  home.set("orvo_generation.response_synthesizer.response_synthesizer");
  m.attr("DEFAULT_RESPONSE_PREFIX") = rs::DEFAULT_RESPONSE_PREFIX;
  m.attr("DEFAULT_FALLBACK_RESPONSE") = rs::DEFAULT_FALLBACK_RESPONSE;

  using Base = rs::BaseResponseSynthesizer;
  py::class_<Base, orvo_core::Component, PySynthesizer<Base>, std::shared_ptr<Base>> base(
      m, "BaseResponseSynthesizer", "Defines a base class for response synthesizers.");
  base.def(py::init(
               [](bool streamable) { return std::make_shared<PySynthesizer<Base>>(streamable); }),
           py::arg("streamable") = true)
      .def_readwrite("streamable", &Base::streamable)
      .def("_run", [](std::shared_ptr<Base> self, const py::kwargs& kwargs) {
        return start_component_call(self, kwargs, [](Base& synthesizer, orvo_core::Kwargs k) {
          return synthesizer._run(std::move(k));
        });
      });
  bind_event_hooks<Base>(base);
  bind_synthesize<Base>(base);

  using Stuff = rs::StuffResponseSynthesizer;
  home.set("orvo_generation.response_synthesizer.stuff_response_synthesizer");
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
  home.set("orvo_generation.response_synthesizer.static_list_response_synthesizer");
  py::class_<StaticList, Base, PyStaticList, std::shared_ptr<StaticList>> list(
      m, "StaticListResponseSynthesizer",
      "Defines a response synthesizer that synthesizes a static list response.");
  list.def(py::init([](const py::object& prefix, const py::object& fallback,
                       const py::object& delimiter, const py::object& streamable) {
             auto self = std::make_shared<PyStaticList>("", "", "", flag(streamable));
             const std::array<const py::object*, 3> texts = {&prefix, &fallback, &delimiter};
             for (std::size_t i = 0; i < texts.size(); ++i) {
               set_static_list_text(*self, i, *texts[i]);
             }
             return self;
           }),
           py::arg("response_prefix") = rs::DEFAULT_RESPONSE_PREFIX,
           py::arg("fallback_response") = rs::DEFAULT_FALLBACK_RESPONSE,
           py::arg("delimiter") = "\n", py::arg("streamable") = true);
  for (std::size_t i = 0; i < PyStaticList::kNames.size(); ++i) {
    list.def_property(
        PyStaticList::kNames[i], [i](StaticList& self) { return static_list_text_value(self, i); },
        [i](StaticList& self, const py::object& value) { set_static_list_text(self, i, value); });
  }
  bind_synthesize<StaticList>(list);
}

}  // namespace

bool reads_key(const orvo_core::Component& component, std::string_view name) {
  if (dynamic_cast<const rf::BaseReferenceFormatter*>(&component) != nullptr) {
    return name == "response" || name == "chunks";
  }
  if (dynamic_cast<const rs::BaseResponseSynthesizer*>(&component) != nullptr) {
    return name == "query" || name == "state_variables" || name == "variables" ||
           name == "history" || name == "system_multimodal_contents" ||
           name == "user_multimodal_contents";
  }
  return true;
}

void bind_generation(py::module_& m) {
  bind_reference_tools(m);
  bind_reference_formatters(m);
  bind_response_synthesizers(m);
}

}  // namespace orvo_python
