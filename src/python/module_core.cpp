// Bindings of the core types: chunks, events, components and similarity.

#include <pybind11/stl.h>

#include "collaborators.hpp"
#include "orvo_core/constants.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/schema/component.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "orvo_inference/errors.hpp"
#include "python_awaitables.hpp"

namespace orvo_python {

using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::EventEmitter;
using orvo_core::EventLevel;
using orvo_core::EventType;

namespace {

// Python subclasses of `EventEmitter` override `emit` with `async def`.
class PyEmitterTrampoline : public EventEmitter {
 public:
  using EventEmitter::EventEmitter;

  orvo_core::Awaitable<void> emit(std::string value, EventLevel level, EventType type) override {
    py::function override = py::get_override(static_cast<const EventEmitter*>(this), "emit");
    if (!override) {
      co_await EventEmitter::emit(std::move(value), level, type);
      co_return;
    }
    py::object call = override(to_py_str(value), to_py(level), to_py(type));
    co_await await_python(std::move(call));
  }

  [[nodiscard]] std::string type_name() const override {
    return python_type_name(static_cast<const EventEmitter*>(this), typeid(EventEmitter),
                            "EventEmitter");
  }
};

// `chunk.metadata`: a live view of the chunk's own map, so writes through it reach the chunk.
struct MetadataView {
  std::shared_ptr<Chunk> chunk;
};

const Any& metadata_item(const MetadataView& view, const py::str& key) {
  const Any* value = orvo_core::find(view.chunk->metadata, to_utf8(key));
  if (value == nullptr) throw py::key_error(py::repr(key));
  return *value;
}

py::dict metadata_dict(const MetadataView& view) {
  return py::reinterpret_borrow<py::dict>(to_py(Any(view.chunk->metadata)));
}

orvo_core::Map to_map(py::handle value) {
  if (value.is_none()) return {};
  if (!PyDict_Check(value.ptr())) {
    throw orvo_core::TypeError("metadata must be a dict, not " +
                               std::string(py::str(py::type::handle_of(value).attr("__name__"))));
  }
  return to_any_detached(value).as_map();
}

void bind_errors(py::module_& m) {
  py::register_exception_translator([](std::exception_ptr error) {
    try {
      if (error) std::rethrow_exception(error);
    } catch (const orvo_core::NotImplementedError&) {
      PyErr_SetNone(PyExc_NotImplementedError);
    } catch (const orvo_core::TypeError& e) {
      PyErr_SetString(PyExc_TypeError, e.what());
    } catch (const orvo_core::ValueError& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    }
  });
  auto base = py::register_exception<orvo_inference::InferenceError>(m, "InferenceError",
                                                                     PyExc_RuntimeError);
  py::register_exception<orvo_inference::ConnectError>(m, "ConnectError", base);
  py::register_exception<orvo_inference::TimeoutError>(m, "TimeoutError", base);
  py::register_exception<orvo_inference::ConnectionClosedError>(m, "ConnectionClosedError", base);
  // Each raised one carries the reply's `status`.
  py::register_exception<orvo_inference::HttpStatusError>(m, "HttpStatusError", base)
      .attr("status") = py::none();
  py::register_exception<orvo_inference::MalformedReplyError>(m, "MalformedReplyError", base);
  py::register_exception<orvo_inference::OutputParserError>(m, "OutputParserError", base);
  py::register_exception<orvo_inference::TruncatedReplyError>(m, "TruncatedReplyError", base);
}

}  // namespace

void bind_core(py::module_& m) {
  Home home(m);
  home.set("orvo_inference.errors");
  bind_errors(m);

  home.set("orvo_core.schema");
  py::class_<PendingCall>(m, "PendingCall", "The work of an orvo operation; it runs when awaited.")
      .def("__await__", &PendingCall::await_)
      .def("cancel", &PendingCall::cancel);

  py::class_<orvo_core::Object, std::shared_ptr<orvo_core::Object>>(m, "Object")
      .def("__repr__", &orvo_core::Object::repr);

  home.set("orvo_core.constants");
  py::enum_<EventLevel>(m, "EventLevel", "The level of an event.")
      .value("TRACE", EventLevel::TRACE)
      .value("INFO", EventLevel::INFO)
      .value("WARNING", EventLevel::WARNING)
      .value("ERROR", EventLevel::ERROR);
  py::enum_<EventType>(m, "EventType", "The type of an event.")
      .value("STATUS", EventType::STATUS)
      .value("RESPONSE", EventType::RESPONSE)
      .value("DATA", EventType::DATA);

  home.set("orvo_core.schema");
  py::class_<MetadataView>(m, "MetadataView", "A chunk's metadata, read and written in place.")
      .def("__getitem__",
           [](const MetadataView& v, const py::str& key) { return to_py(metadata_item(v, key)); })
      .def("__setitem__",
           [](const MetadataView& v, const py::str& key, const py::object& value) {
             v.chunk->metadata.insert_or_assign(to_utf8(key), to_any_detached(value));
           })
      .def("__delitem__",
           [](const MetadataView& v, const py::str& key) {
             if (v.chunk->metadata.erase(to_utf8(key)) == 0) throw py::key_error(py::repr(key));
           })
      .def("__len__", [](const MetadataView& v) { return v.chunk->metadata.size(); })
      .def("__contains__",
           [](const MetadataView& v, const py::object& key) {
             return PyUnicode_Check(key.ptr()) != 0 &&
                    orvo_core::find(v.chunk->metadata, to_utf8(key)) != nullptr;
           })
      .def("__iter__", [](const MetadataView& v) { return metadata_dict(v).attr("__iter__")(); })
      .def("__eq__",
           [](const MetadataView& v, const py::object& other) {
             if (py::isinstance<MetadataView>(other)) {
               return metadata_dict(v).equal(metadata_dict(other.cast<const MetadataView&>()));
             }
             return metadata_dict(v).equal(other);
           })
      .def("__repr__",
           [](const MetadataView& v) {
             std::string out;
             orvo_core::append_repr(out, v.chunk->metadata);
             return to_py_str(out);
           })
      .def(
          "get",
          [](const MetadataView& v, const py::object& key, const py::object& fallback) {
            if (!PyUnicode_Check(key.ptr())) return fallback;
            const Any* value = orvo_core::find(v.chunk->metadata, to_utf8(key));
            return value != nullptr ? to_py(*value) : fallback;
          },
          py::arg("key"), py::arg("default") = py::none())
      .def("keys", [](const MetadataView& v) { return metadata_dict(v).attr("keys")(); })
      .def("values", [](const MetadataView& v) { return metadata_dict(v).attr("values")(); })
      .def("items", [](const MetadataView& v) { return metadata_dict(v).attr("items")(); })
      .def("copy", &metadata_dict)
      .def("update", [](const MetadataView& v, const py::dict& entries) {
        for (const auto& [key, value] : to_map(entries)) {
          v.chunk->metadata.insert_or_assign(key, value);
        }
      });

  py::class_<Chunk, orvo_core::Object, PyChunk, std::shared_ptr<Chunk>>(
      m, "Chunk", "One retrieved piece of a document.")
      .def(py::init([](const py::object& content, const py::object& metadata, std::string id,
                       std::optional<double> score) {
             auto chunk =
                 std::make_shared<PyChunk>(std::string(), to_map(metadata), std::move(id), score);
             chunk->set_content(content);
             return chunk;
           }),
           py::arg("content") = "", py::arg("metadata") = py::none(), py::arg("id") = "",
           py::arg("score") = py::none())
      .def_property(
          "content", [](const Chunk& self) { return content_to_py(self); },
          [](Chunk& self, const py::object& value) {
            if (auto* own = dynamic_cast<PyChunk*>(&self)) {
              own->set_content(value);
            } else {
              self.content = content_from_py(value);
            }
          })
      .def_readwrite("id", &Chunk::id)
      .def_readwrite("score", &Chunk::score)
      .def_property(
          "metadata", [](std::shared_ptr<Chunk> self) { return MetadataView{std::move(self)}; },
          [](Chunk& self, const py::object& value) { self.metadata = to_map(value); })
      .def("model_dump", [](const Chunk& self) { return to_py(Any(self.model_dump())); })
      .def("__repr__", [](const Chunk& self) { return to_py_str(self.repr()); });

  home.set("orvo_core.event");
  py::class_<EventEmitter, orvo_core::Object, PyEmitterTrampoline, std::shared_ptr<EventEmitter>>(
      m, "EventEmitter", "The sink of the events of a component invocation.")
      .def(py::init([] { return std::make_shared<PyEmitterTrampoline>(); }))
      .def(
          "emit",
          [](std::shared_ptr<EventEmitter> self, std::string value, EventLevel level,
             EventType type) {
            orvo_core::Awaitable<void> work =
                self->EventEmitter::emit(std::move(value), level, type);
            return Pending(as_none(std::move(work), keep_alive(self)));
          },
          py::arg("value"), py::arg("level"), py::arg("type"));

  home.set("orvo_core.schema");
  py::class_<orvo_core::Component, orvo_core::Object, std::shared_ptr<orvo_core::Component>>(
      m, "Component", "The base of every pipeline component.")
      .def(
          "run",
          [](std::shared_ptr<orvo_core::Component> self, const py::kwargs& kwargs) {
            return start_component_call(
                self, kwargs,
                [](orvo_core::Component& c, orvo_core::Kwargs k) { return c.run(std::move(k)); });
          },
          "Drives one invocation: the start message, `_run`, the finish message.");

  home.set("orvo_core.utils.similarity");
  m.def(
      "cosine",
      [](const py::object& vector, const py::object& vectors) {
        const orvo_core::Embedding query = to_embedding(vector);
        const orvo_core::Embeddings rows = to_embeddings(vectors);
        return orvo_core::cosine(query, rows);
      },
      py::arg("vector"), py::arg("vectors"),
      "The cosine similarity of `vector` with each of `vectors`, in order.");
  m.def("cosine_target", [] { return std::string(orvo_core::cosine_target()); });
}

}  // namespace orvo_python
