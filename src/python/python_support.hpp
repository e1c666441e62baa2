#pragma once

// What the extension module's translation units share: the asyncio bridge, value conversion and
// the adapters that let Python objects serve as collaborators.

#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include <pybind11/pybind11.h>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/embeddings.hpp"
#include "orvo_core/object.hpp"
#include "orvo_core/schema/chunk.hpp"

namespace boost::asio {
class io_context;
class cancellation_signal;
}  // namespace boost::asio

namespace orvo_python {

namespace py = pybind11;

// ---- The asyncio bridge ------------------------------------------------------------------------

/// The C++ side of the asyncio loop on this thread. Its handlers run only when asyncio calls
/// back into the module (with the GIL held), so calls that involve only Python collaborators
/// need no thread.
boost::asio::io_context& loop_context();

/// Runs every ready handler of this thread's context. A call from inside a handler only asks the
/// running one to go round once more.
void pump();

/// `asyncio.get_running_loop()`; the function is looked up once, as importing costs more than
/// the call.
py::object get_running_loop();

/// Awaits a Python awaitable (coroutine, task, future) on the running asyncio loop; a value that
/// is not awaitable is the result itself. A Python exception arrives as `py::error_already_set`
/// holding the very exception object.
orvo_core::Awaitable<py::object> await_python(py::object awaitable);

/// The Python exception object for an error: the same object for one that came from Python,
/// `ValueError`, `TypeError`, `NotImplementedError` or the inference errors otherwise.
py::object exception_to_python(const std::exception_ptr& error);

/// The work of one asynchronous operation of the module, started when awaited; it can be
/// awaited once.
class PendingCall {
 public:
  explicit PendingCall(orvo_core::Awaitable<py::object> work);
  /// Starts the work on the running loop and returns the iterator of its future.
  py::object await_();
  /// Cancels the started work: what it awaits (a collaborator's task, a network call) is
  /// cancelled in turn. Nothing happens once it has finished.
  void cancel();

 private:
  std::optional<orvo_core::Awaitable<py::object>> work_;
  std::shared_ptr<boost::asio::cancellation_signal> signal_;
  std::shared_ptr<bool> finished_;
};

/// What every asynchronous operation of the module returns to Python: a coroutine, so that
/// `asyncio.run`, `create_task` and `gather` take it; nothing runs until it is awaited.
py::object Pending(orvo_core::Awaitable<py::object> work);

// ---- Values ------------------------------------------------------------------------------------

/// The conversions of one call from Python into C++.
///
/// Lists and dicts become C++ containers. While the session lives, each remembers the Python
/// object it came from, so that handing it back to Python (to a Python collaborator, or as a
/// result) gives that very object, with the writes made in C++ applied to it; `push` applies
/// them at the end of the call. Writes made in Python during the call are not read back.
class Session {
 public:
  Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  /// The value of a Python object.
  orvo_core::Any to_any(py::handle value);

  /// Applies the writes made in C++ since conversion to every dict of this session.
  void push();

  /// Reads every top-level dict of this session again from Python (for settings kept across
  /// calls, such as a reference formatter's metadata map).
  void pull();

  struct MapBridge;
  struct ListBridge;

 private:
  orvo_core::Any convert(py::handle value, int depth);
  orvo_core::Any convert_dict(py::handle value, int depth);
  orvo_core::Any convert_list(py::handle value, int depth);

  std::unordered_map<PyObject*, orvo_core::Any> memo_;
  std::vector<std::unique_ptr<MapBridge>> maps_;
  std::vector<std::unique_ptr<ListBridge>> lists_;
  std::vector<MapBridge*> roots_;
  int depth_ = 0;
};

/// Applies the C++ writes to a converted dict's Python object.
void push_map(Session::MapBridge& bridge);

/// The Python object for a value: containers that came from Python are those very objects.
py::object to_py(const orvo_core::Any& value);

/// `to_py` of a string.
py::str to_py_str(std::string_view text);

/// A Python value converted on its own, for results of Python collaborators.
orvo_core::Any to_any_detached(py::handle value);

/// The truth test of the value a Python object stands for: None and empty or zero values of the
/// value kinds are false; every other object is true, whatever its `__bool__` or `__len__` say.
bool truthy(py::handle value);

/// A Python value that C++ only passes on: scalars and strings as values, anything else as a
/// reference to the object itself, so that the caller gets back the very object.
orvo_core::Any passed_on(py::handle value);

/// A Python string as UTF-8 (lone surrogates U+DC80..U+DCFF become the bytes they stand for).
std::string to_utf8(py::handle text);

/// An embedding from a list of numbers or a one-dimensional buffer.
orvo_core::Embedding to_embedding(py::handle value);

/// A batch of embeddings from a list of vectors or a two-dimensional buffer; a C-contiguous
/// float32 buffer is shared, not copied.
orvo_core::Embeddings to_embeddings(py::handle value);

/// A Python object held by C++: the reference is dropped with the GIL, whatever thread lets go.
class PyObjectRef : public orvo_core::Object {
 public:
  explicit PyObjectRef(py::object object);
  PyObjectRef(const PyObjectRef&) = delete;
  PyObjectRef& operator=(const PyObjectRef&) = delete;
  ~PyObjectRef() override;

  [[nodiscard]] py::object object() const;
  [[nodiscard]] std::string type_name() const override;
  [[nodiscard]] std::string repr() const override;
  [[nodiscard]] std::string str() const override;
  [[nodiscard]] bool equals(const orvo_core::Object& other) const override;
  /// A tuple's items, converted; nothing for any other object.
  [[nodiscard]] std::optional<std::vector<orvo_core::Any>> items() const override;

 private:
  PyObject* object_;
};

/// Whether `value` is an instance of a bound class itself, not of a Python subclass of one.
bool is_native(py::handle value);

/// Holds a Python reference and drops it with the GIL, for state that C++ may release anywhere.
class GilObject {
 public:
  GilObject() = default;
  explicit GilObject(py::object object) : object_(object.release().ptr()) {}
  GilObject(const GilObject&) = delete;
  GilObject& operator=(const GilObject&) = delete;
  ~GilObject();
  [[nodiscard]] py::object get() const { return py::reinterpret_borrow<py::object>(object_); }
  [[nodiscard]] PyObject* ptr() const { return object_; }
  /// Holds `object` instead; the GIL is held.
  void reset(py::object object) {
    PyObject* old = object_;
    object_ = object.release().ptr();
    Py_XDECREF(old);
  }

 private:
  PyObject* object_ = nullptr;
};

/// A chunk made from Python. It keeps the `str` its content came from, so that handing the
/// content back to Python (to an embedding invoker, as `chunk.content`) builds no new string.
class PyChunk : public orvo_core::Chunk {
 public:
  using Chunk::Chunk;
  /// Sets the content from a `str` (kept, unless of a subclass) or `bytes`; anything else is a
  /// `TypeError`.
  void set_content(py::handle value);
  /// The Python string it keeps, while the content is still the one it came from; else null.
  [[nodiscard]] PyObject* kept_content() const {
    return content.data() == kept_data_ && content.size() == kept_size_ ? text_.ptr() : nullptr;
  }
  [[nodiscard]] std::string type_name() const override { return "Chunk"; }

 private:
  GilObject text_;
  // The content's storage when `text_` was taken: C++ never writes a chunk's content, but a
  // write would show here.
  const char* kept_data_ = nullptr;
  std::size_t kept_size_ = 0;
};

/// A chunk's content from a `str` or `bytes`; anything else is a `TypeError`.
std::string content_from_py(py::handle value);

/// A chunk's content as a Python string: the one a chunk made from Python keeps, else a new one.
py::str content_to_py(const orvo_core::Chunk& chunk);

/// The contents of chunks as a list of Python strings, as `content_to_py` gives them.
py::list contents_to_py(std::span<const std::shared_ptr<orvo_core::Chunk>> chunks);

/// How many items ahead of its use a loop over chunks fetches what an item points to: far
/// enough for a miss to complete, near enough for the line to stay in the cache.
inline constexpr std::size_t kFetchAhead = 16;

/// The holder of an instance whose class is exactly the bound class of `T`, read straight from
/// the instance; null for any other object. Lists of thousands of chunks cross with every call,
/// and pybind11's general cast looks the type up by name each time.
template <class T>
const std::shared_ptr<T>* exact_holder(PyObject* value) {
  static const py::detail::type_info* const info = py::detail::get_type_info(typeid(T));
  if (info == nullptr || Py_TYPE(value) != info->type) return nullptr;
  // Of exactly the class of `T`, the instance holds its value and holder first.
  const py::detail::value_and_holder holder(reinterpret_cast<py::detail::instance*>(value), info, 0,
                                            0);
  if (!holder.holder_constructed()) return nullptr;
  return &holder.template holder<std::shared_ptr<T>>();
}

/// The C++ object of an instance whose class is exactly the bound class of `T`; null for any
/// other object.
template <class T>
std::shared_ptr<T> exact_instance(py::handle value) {
  const std::shared_ptr<T>* holder = exact_holder<T>(value.ptr());
  return holder != nullptr ? *holder : nullptr;
}

/// The C++ object of an instance of a bound class. For an instance of a Python subclass the
/// pointer also keeps the Python instance alive, since its overrides live there: C++ may hold
/// the object long after Python dropped its last reference.
template <class T>
std::shared_ptr<T> hold(py::handle value) {
  auto cpp = value.cast<std::shared_ptr<T>>();
  if (is_native(value)) return cpp;
  struct Both {
    Both(std::shared_ptr<T> c, py::object p) : cpp(std::move(c)), python(std::move(p)) {}
    std::shared_ptr<T> cpp;
    GilObject python;
  };
  T* raw = cpp.get();
  auto both = std::make_shared<Both>(std::move(cpp), py::reinterpret_borrow<py::object>(value));
  return std::shared_ptr<T>(std::move(both), raw);
}

/// Names the public module of what is bound from now on: pybind11 takes the `__module__` of a
/// class or function from the module's `__name__` when it makes one, and writes signatures with
/// it, so `help()` shows where users import things from. The extension's own name comes back
/// when this goes.
class Home {
 public:
  explicit Home(py::module_& m) : module_(m), own_(m.attr("__name__")) {}
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;
  ~Home() { PyObject_SetAttrString(module_.ptr(), "__name__", own_.ptr()); }
  void set(const char* name) { module_.attr("__name__") = name; }

 private:
  py::module_& module_;
  py::object own_;
};

// ---- Binding entry points
// ------------------------------------------------------------------------

void bind_core(py::module_& m);
void bind_inference(py::module_& m);
void bind_generation(py::module_& m);

}  // namespace orvo_python
