// Python values to `Any` and back, keeping the identity of the containers a call was given.

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "python_support.hpp"

namespace orvo_python {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

namespace {
constexpr int kMaxDepth = 1000;

bool interpreter_alive() {
  return Py_IsInitialized() != 0 && _Py_IsFinalizing() == 0;
}

// A value with no C++ kind (an int beyond 64 bits, a dict keyed by other things than strings)
// travels as a reference to itself.
Any reference_to(py::handle value) {
  return Any(std::make_shared<PyObjectRef>(py::reinterpret_borrow<py::object>(value)));
}

bool has_str_keys(py::handle dict) {
  PyObject* key = nullptr;
  PyObject* item = nullptr;
  Py_ssize_t position = 0;
  while (PyDict_Next(dict.ptr(), &position, &key, &item) != 0) {
    if (PyUnicode_Check(key) == 0) return false;
  }
  return true;
}
}  // namespace

// ---- GIL-safe references -----------------------------------------------------------------------

GilObject::~GilObject() {
  if (object_ == nullptr || !interpreter_alive()) return;
  const py::gil_scoped_acquire gil;
  Py_DECREF(object_);
}

PyObjectRef::PyObjectRef(py::object object) : object_(object.release().ptr()) {}

PyObjectRef::~PyObjectRef() {
  if (!interpreter_alive()) return;
  const py::gil_scoped_acquire gil;
  Py_DECREF(object_);
}

py::object PyObjectRef::object() const {
  return py::reinterpret_borrow<py::object>(object_);
}

std::string PyObjectRef::type_name() const {
  const py::gil_scoped_acquire gil;
  return py::str(py::type::handle_of(object_).attr("__name__"));
}

std::string PyObjectRef::repr() const {
  const py::gil_scoped_acquire gil;
  return to_utf8(py::repr(object_));
}

std::string PyObjectRef::str() const {
  const py::gil_scoped_acquire gil;
  return to_utf8(py::str(object_));
}

bool PyObjectRef::equals(const orvo_core::Object& other) const {
  const auto* that = dynamic_cast<const PyObjectRef*>(&other);
  if (that == nullptr) return false;
  const py::gil_scoped_acquire gil;
  return object().equal(that->object());
}

std::optional<std::vector<Any>> PyObjectRef::items() const {
  const py::gil_scoped_acquire gil;
  if (!PyTuple_Check(object_)) return std::nullopt;
  std::vector<Any> items;
  for (py::handle item : py::reinterpret_borrow<py::tuple>(object_)) {
    items.push_back(to_any_detached(item));
  }
  return items;
}

// ---- Strings -----------------------------------------------------------------------------------

std::string to_utf8(py::handle text) {
  Py_ssize_t size = 0;
  if (const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
    return {data, static_cast<std::size_t>(size)};
  }
  // Lone surrogates: U+DC80..U+DCFF stand for the bytes that were not UTF-8.
  PyErr_Clear();
  py::object bytes = py::reinterpret_steal<py::object>(
      PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape"));
  if (!bytes) throw py::error_already_set();
  return {PyBytes_AS_STRING(bytes.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

py::str to_py_str(std::string_view text) {
  PyObject* result =
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
  if (result == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(result);
}

std::string content_from_py(py::handle value) {
  py::detail::make_caster<std::string> text;
  if (!text.load(value, true)) {
    throw py::type_error("content must be a str, not " +
                         std::string(py::str(py::type::handle_of(value).attr("__name__"))));
  }
  return std::move(static_cast<std::string&>(text));
}

void PyChunk::set_content(py::handle value) {
  content = content_from_py(value);
  if (PyUnicode_CheckExact(value.ptr()) != 0) {
    text_.reset(py::reinterpret_borrow<py::object>(value));
    kept_data_ = content.data();
    kept_size_ = content.size();
  } else {
    text_.reset(py::object());
    kept_data_ = nullptr;
  }
}

namespace {

// The string a chunk made from Python keeps for its content; null for other chunks. Only the
// addresses of the types are compared: comparing their names costs more than a new string.
PyObject* kept_content(const orvo_core::Chunk& chunk) {
  if (&typeid(chunk) != &typeid(PyChunk)) return nullptr;
  return static_cast<const PyChunk&>(chunk).kept_content();
}

}  // namespace

py::str content_to_py(const orvo_core::Chunk& chunk) {
  if (PyObject* kept = kept_content(chunk)) return py::reinterpret_borrow<py::str>(kept);
  return to_py_str(chunk.content);
}

py::list contents_to_py(std::span<const std::shared_ptr<orvo_core::Chunk>> chunks) {
  const std::size_t size = chunks.size();
  py::list texts(size);
  for (std::size_t i = 0; i < size; ++i) {
    // Chunks and their strings are cold after a batch of embeddings went through the cache.
    // Each chunk is fetched well ahead, its string (whose count is written) once the chunk is
    // in, so that the misses overlap instead of following one another.
    if (i + 2 * kFetchAhead < size) {
      const auto* object = reinterpret_cast<const char*>(chunks[i + 2 * kFetchAhead].get());
      __builtin_prefetch(object);
      __builtin_prefetch(object + sizeof(orvo_core::Chunk));
    }
    if (i + kFetchAhead < size) {
      if (PyObject* kept = kept_content(*chunks[i + kFetchAhead])) __builtin_prefetch(kept, 1);
    }
    PyList_SET_ITEM(texts.ptr(), static_cast<Py_ssize_t>(i),
                    content_to_py(*chunks[i]).release().ptr());
  }
  return texts;
}

// ---- Bridges -----------------------------------------------------------------------------------

struct Session::MapBridge {
  std::shared_ptr<Map> cpp;
  py::object origin;
  Map snapshot;  // the entries as last seen by Python
  bool pushing = false;
};

struct Session::ListBridge {
  std::shared_ptr<List> cpp;
  py::object origin;
};

namespace {
// Containers converted by live sessions, by the address of the C++ container. A session keeps
// its containers alive, so an address is never reused while it is listed here.
std::unordered_map<const void*, Session::MapBridge*>& map_bridges() {
  static auto* bridges = new std::unordered_map<const void*, Session::MapBridge*>();
  return *bridges;
}
std::unordered_map<const void*, Session::ListBridge*>& list_bridges() {
  static auto* bridges = new std::unordered_map<const void*, Session::ListBridge*>();
  return *bridges;
}

// Whether C++ left an entry as Python last saw it.
bool same(const Any& a, const Any& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Any::Kind::None:
      return true;
    case Any::Kind::Bool:
      return a.as_bool() == b.as_bool();
    case Any::Kind::Int:
      return a.as_int() == b.as_int();
    case Any::Kind::Float:
      return std::bit_cast<std::uint64_t>(a.as_float()) ==
             std::bit_cast<std::uint64_t>(b.as_float());
    case Any::Kind::String:
      return a.as_string() == b.as_string();
    case Any::Kind::List:
      return a.list_ptr() == b.list_ptr();
    case Any::Kind::Map:
      return a.map_ptr() == b.map_ptr();
    case Any::Kind::Object:
      return a.as_object() == b.as_object();
  }
  return false;
}
}  // namespace

void push_map(Session::MapBridge& bridge) {
  if (bridge.pushing) return;
  bridge.pushing = true;
  try {
    auto dict = py::reinterpret_borrow<py::dict>(bridge.origin);
    for (const auto& [key, value] : *bridge.cpp) {
      const auto seen = bridge.snapshot.find(key);
      if (seen == bridge.snapshot.end() || !same(seen->second, value)) {
        dict[to_py_str(key)] = to_py(value);
      }
    }
    for (const auto& [key, value] : bridge.snapshot) {
      if (bridge.cpp->find(key) == bridge.cpp->end()) dict.attr("pop")(to_py_str(key), py::none());
    }
    bridge.snapshot = *bridge.cpp;
  } catch (...) {
    bridge.pushing = false;
    throw;
  }
  bridge.pushing = false;
}

Session::Session() = default;

Session::~Session() {
  for (const auto& bridge : maps_) map_bridges().erase(bridge->cpp.get());
  for (const auto& bridge : lists_) list_bridges().erase(bridge->cpp.get());
}

void Session::push() {
  for (const auto& bridge : maps_) push_map(*bridge);
}

void Session::pull() {
  std::vector<MapBridge*> roots = roots_;
  for (MapBridge* root : roots) {
    memo_.clear();
    Map fresh;
    for (auto [key, value] : py::reinterpret_borrow<py::dict>(root->origin)) {
      if (!PyUnicode_Check(key.ptr())) {
        throw orvo_core::TypeError("dict keys must be str, not " +
                                   std::string(py::str(py::type::handle_of(key).attr("__name__"))));
      }
      fresh.insert_or_assign(to_utf8(key), convert(value, 1));
    }
    *root->cpp = std::move(fresh);
    root->snapshot = *root->cpp;
  }
}

Any Session::to_any(py::handle value) {
  memo_.clear();
  return convert(value, 0);
}

Any Session::convert(py::handle value, int depth) {
  if (depth > kMaxDepth) throw orvo_core::ValueError("value nested too deeply");
  PyObject* object = value.ptr();
  if (object == Py_None) return {};
  if (PyBool_Check(object)) return Any(object == Py_True);
  if (PyLong_Check(object)) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) return reference_to(value);
    if (number == -1 && PyErr_Occurred() != nullptr) throw py::error_already_set();
    return Any(static_cast<std::int64_t>(number));
  }
  if (PyFloat_Check(object)) return Any(PyFloat_AS_DOUBLE(object));
  if (PyUnicode_Check(object)) return Any(to_utf8(value));
  if (PyDict_Check(object)) return convert_dict(value, depth);
  if (PyList_Check(object)) return convert_list(value, depth);
  if (auto chunk = exact_instance<orvo_core::Chunk>(value)) return Any(std::move(chunk));
  if (py::isinstance<orvo_core::Object>(value)) return Any(hold<orvo_core::Object>(value));
  return Any(std::make_shared<PyObjectRef>(py::reinterpret_borrow<py::object>(value)));
}

Any Session::convert_dict(py::handle value, int depth) {
  if (auto seen = memo_.find(value.ptr()); seen != memo_.end()) return seen->second;
  if (!has_str_keys(value)) return reference_to(value);
  auto map = std::make_shared<Map>();
  auto bridge = std::make_unique<MapBridge>();
  bridge->cpp = map;
  bridge->origin = py::reinterpret_borrow<py::object>(value);
  Any result(map);
  memo_.emplace(value.ptr(), result);
  for (auto [key, item] : py::reinterpret_borrow<py::dict>(value)) {
    map->insert_or_assign(to_utf8(key), convert(item, depth + 1));
  }
  bridge->snapshot = *map;
  map_bridges()[map.get()] = bridge.get();
  if (depth == 0) roots_.push_back(bridge.get());
  maps_.push_back(std::move(bridge));
  return result;
}

Any Session::convert_list(py::handle value, int depth) {
  if (auto seen = memo_.find(value.ptr()); seen != memo_.end()) return seen->second;
  auto list = std::make_shared<List>();
  auto bridge = std::make_unique<ListBridge>();
  bridge->cpp = list;
  bridge->origin = py::reinterpret_borrow<py::object>(value);
  Any result(list);
  memo_.emplace(value.ptr(), result);
  auto items = py::reinterpret_borrow<py::list>(value);
  list->reserve(items.size());
  for (py::handle item : items) list->push_back(convert(item, depth + 1));
  list_bridges()[list.get()] = bridge.get();
  lists_.push_back(std::move(bridge));
  return result;
}

Any to_any_detached(py::handle value) {
  Session session;
  return session.to_any(value);
}

bool truthy(py::handle value) {
  PyObject* object = value.ptr();
  if (object == Py_None) return false;
  const bool value_kind = PyBool_Check(object) || PyLong_Check(object) || PyFloat_Check(object) ||
                          PyUnicode_Check(object) || PyList_Check(object) || PyDict_Check(object);
  return !value_kind || PyObject_IsTrue(object) != 0;
}

Any passed_on(py::handle value) {
  PyObject* object = value.ptr();
  if (object == Py_None || PyBool_Check(object) || PyFloat_Check(object) ||
      PyUnicode_Check(object)) {
    return to_any_detached(value);
  }
  return reference_to(value);
}

// ---- Back to Python ----------------------------------------------------------------------------

namespace {
py::object to_py_at(const Any& value, int depth);

py::object object_to_py(const std::shared_ptr<orvo_core::Object>& object) {
  if (const auto* ref = dynamic_cast<const PyObjectRef*>(object.get())) return ref->object();
  return py::cast(object);
}

py::object to_py_at(const Any& value, int depth) {
  if (depth > kMaxDepth) throw orvo_core::ValueError("value nested too deeply");
  switch (value.kind()) {
    case Any::Kind::None:
      return py::none();
    case Any::Kind::Bool:
      return py::bool_(value.as_bool());
    case Any::Kind::Int:
      return py::int_(value.as_int());
    case Any::Kind::Float:
      return py::float_(value.as_float());
    case Any::Kind::String:
      return to_py_str(value.as_string());
    case Any::Kind::List: {
      if (auto it = list_bridges().find(value.list_ptr().get()); it != list_bridges().end()) {
        return it->second->origin;
      }
      const List& items = value.as_list();
      py::list out(items.size());
      for (std::size_t i = 0; i < items.size(); ++i) {
        out[i] = to_py_at(items[i], depth + 1);
      }
      return out;
    }
    case Any::Kind::Map: {
      if (auto it = map_bridges().find(value.map_ptr().get()); it != map_bridges().end()) {
        push_map(*it->second);
        return it->second->origin;
      }
      py::dict out;
      for (const auto& [key, item] : value.as_map())
        out[to_py_str(key)] = to_py_at(item, depth + 1);
      return out;
    }
    case Any::Kind::Object:
      return object_to_py(value.as_object());
  }
  return py::none();
}
}  // namespace

py::object to_py(const Any& value) {
  return to_py_at(value, 0);
}

// ---- Embeddings --------------------------------------------------------------------------------

namespace {

// A Python buffer kept open for as long as C++ reads it; released with the GIL.
class BufferOwner {
 public:
  BufferOwner() = default;
  BufferOwner(const BufferOwner&) = delete;
  BufferOwner& operator=(const BufferOwner&) = delete;
  ~BufferOwner() {
    if (!open || !interpreter_alive()) return;
    const py::gil_scoped_acquire gil;
    PyBuffer_Release(&view);
  }
  Py_buffer view{};
  bool open = false;
};

std::string type_name_of(py::handle value) {
  return py::str(py::type::handle_of(value).attr("__name__"));
}

// How the numbers of a buffer are stored.
struct Element {
  enum class Kind { floating, signed_integer, unsigned_integer } kind;
  Py_ssize_t size;
};

// The element type of a buffer, from its format and item size: exporters disagree on the size
// of 'l' ('<l' is 8 bytes in some), so the item size decides. Anything else is a TypeError.
Element element_of(const Py_buffer& view) {
  std::string_view format = view.format != nullptr ? view.format : "B";
  if (!format.empty() && (format[0] == '@' || format[0] == '=' || format[0] == '<')) {
    format.remove_prefix(1);
  }
  const auto refuse = [&format](const char* why) {
    return orvo_core::TypeError("embedding buffers hold " + std::string(why) +
                                "; got the format '" + std::string(format) + "'");
  };
  if (format.size() != 1) throw refuse("plain little-endian numbers");
  const Py_ssize_t size = view.itemsize;
  switch (format[0]) {
    case 'f':
    case 'd':
      if (size != 4 && size != 8) throw refuse("32- or 64-bit floating-point numbers");
      return {Element::Kind::floating, size};
    case 'b':
    case 'h':
    case 'i':
    case 'l':
    case 'q':
    case 'n':
      if (size != 1 && size != 2 && size != 4 && size != 8) throw refuse("numbers");
      return {Element::Kind::signed_integer, size};
    case 'B':
    case 'H':
    case 'I':
    case 'L':
    case 'Q':
    case 'N':
      if (size != 1 && size != 2 && size != 4 && size != 8) throw refuse("numbers");
      return {Element::Kind::unsigned_integer, size};
    default:
      throw refuse("32- or 64-bit floating-point numbers or integers");
  }
}

template <class T>
double load(const char* at) {
  T v;
  std::memcpy(&v, at, sizeof v);
  return static_cast<double>(v);
}

template <class T1, class T2, class T4, class T8>
double load_sized(const char* at, Py_ssize_t size) {
  if (size == 1) return load<T1>(at);
  if (size == 2) return load<T2>(at);
  return size == 4 ? load<T4>(at) : load<T8>(at);
}

double element(const char* at, Element type) {
  switch (type.kind) {
    case Element::Kind::floating:
      return type.size == 4 ? load<float>(at) : load<double>(at);
    case Element::Kind::signed_integer:
      return load_sized<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(at, type.size);
    case Element::Kind::unsigned_integer:
      return load_sized<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(at, type.size);
  }
  return 0;
}

// A buffer of numbers with `dimensions` dimensions, its shape and strides filled in whatever
// the exporter gave (some give no strides for contiguous data); null when `value` has no buffer.
struct Numbers {
  std::shared_ptr<BufferOwner> owner;
  Element type{};
  Py_ssize_t shape[2] = {0, 0};
  Py_ssize_t strides[2] = {0, 0};
};

std::optional<Numbers> open_numbers(py::handle value, int dimensions, const char* what) {
  if (PyObject_CheckBuffer(value.ptr()) == 0) return std::nullopt;
  auto owner = std::make_shared<BufferOwner>();
  if (PyObject_GetBuffer(value.ptr(), &owner->view, PyBUF_RECORDS_RO) != 0) {
    PyErr_Clear();
    throw orvo_core::TypeError(std::string(what) + " cannot be read from a " + type_name_of(value) +
                               " buffer");
  }
  owner->open = true;
  const Py_buffer& view = owner->view;
  if (view.ndim != dimensions) {
    throw orvo_core::TypeError(std::string(what) + " is " + std::to_string(dimensions) +
                               "-dimensional; got " + std::to_string(view.ndim) + " dimensions");
  }
  Numbers numbers;
  numbers.type = element_of(view);
  Py_ssize_t step = view.itemsize;
  for (int d = dimensions - 1; d >= 0; --d) {
    numbers.shape[d] = view.shape != nullptr ? view.shape[d] : view.len / view.itemsize;
    numbers.strides[d] = view.strides != nullptr ? view.strides[d] : step;
    step *= numbers.shape[d];
  }
  numbers.owner = std::move(owner);
  return numbers;
}

void append_row(orvo_core::Embedding& out, const Numbers& numbers, Py_ssize_t base,
                Py_ssize_t length, Py_ssize_t stride) {
  const char* start = static_cast<const char*>(numbers.owner->view.buf) + base;
  if (numbers.type.kind == Element::Kind::floating && numbers.type.size == 4 && stride == 4) {
    // Contiguous float32, the common case, is copied whole.
    const std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(length));
    std::memcpy(out.data() + at, start, static_cast<std::size_t>(length) * sizeof(float));
    return;
  }
  for (Py_ssize_t i = 0; i < length; ++i) {
    out.push_back(static_cast<float>(element(start + i * stride, numbers.type)));
  }
}

}  // namespace

orvo_core::Embedding to_embedding(py::handle value) {
  if (auto numbers = open_numbers(value, 1, "an embedding")) {
    orvo_core::Embedding row;
    row.reserve(static_cast<std::size_t>(numbers->shape[0]));
    append_row(row, *numbers, 0, numbers->shape[0], numbers->strides[0]);
    return row;
  }
  if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr())) {
    throw orvo_core::TypeError("an embedding is a list of numbers or a buffer, not " +
                               type_name_of(value));
  }
  auto sequence = py::reinterpret_borrow<py::sequence>(value);
  orvo_core::Embedding row;
  row.reserve(sequence.size());
  for (py::handle number : sequence) {
    const double x = PyFloat_AsDouble(number.ptr());
    if (x == -1.0 && PyErr_Occurred() != nullptr) throw py::error_already_set();
    row.push_back(static_cast<float>(x));
  }
  return row;
}

orvo_core::Embeddings to_embeddings(py::handle value) {
  if (auto numbers = open_numbers(value, 2, "a batch of embeddings")) {
    const auto rows = static_cast<std::size_t>(numbers->shape[0]);
    const auto dim = static_cast<std::size_t>(numbers->shape[1]);
    const bool contiguous_float32 = numbers->type.kind == Element::Kind::floating &&
                                    numbers->type.size == 4 && numbers->strides[1] == 4 &&
                                    numbers->strides[0] == static_cast<Py_ssize_t>(4 * dim);
    if (contiguous_float32) {
      // Shared, not copied: the buffer stays open until the last reader lets go.
      std::shared_ptr<const float> data(numbers->owner,
                                        static_cast<const float*>(numbers->owner->view.buf));
      return {std::move(data), rows, dim};
    }
    std::vector<float> data;
    data.reserve(rows * dim);
    for (std::size_t r = 0; r < rows; ++r) {
      append_row(data, *numbers, static_cast<Py_ssize_t>(r) * numbers->strides[0],
                 numbers->shape[1], numbers->strides[1]);
    }
    return {std::move(data), rows, dim};
  }
  if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr())) {
    throw orvo_core::TypeError("embeddings are a list of vectors or a 2-D buffer, not " +
                               type_name_of(value));
  }
  std::vector<orvo_core::Embedding> rows;
  for (py::handle row : py::reinterpret_borrow<py::sequence>(value)) {
    rows.push_back(to_embedding(row));
  }
  return orvo_core::Embeddings::from_rows(rows);
}

}  // namespace orvo_python
