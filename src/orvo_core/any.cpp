#include "orvo_core/any.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "orvo_core/errors.hpp"
#include "orvo_core/text.hpp"

namespace orvo_core {
namespace {

// Deeper nesting is refused rather than risking the stack; the host stops near here too.
constexpr std::size_t kMaxDepth = 1000;

[[noreturn]] void throw_too_deep() {
  throw ValueError("value nesting is deeper than " + std::to_string(kMaxDepth) + " levels");
}

[[noreturn]] void throw_kind(const char* expected, const Any& got) {
  throw TypeError(std::string("expected ") + expected + ", got " + got.type_name());
}

// Renders values; remembers the containers being rendered so that a container that holds
// itself prints as [...] or {...} instead of recursing forever.
// The containers being rendered on this thread. It is shared by nested renderers, so that a
// container reached again through an object's own quoted form (a chunk whose metadata holds the
// chunk) prints as [...] or {...} instead of recursing until the stack runs out.
thread_local std::vector<const void*> active_containers;

class Renderer {
 public:
  explicit Renderer(std::string& out)
      : out_(out), active_(active_containers), base_(active_containers.size()) {}
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;
  // An error in the middle of a value leaves the list as this renderer found it.
  ~Renderer() { active_.resize(base_); }

  void render(const Any& value, bool quoted) {
    switch (value.kind()) {
      case Any::Kind::None:
        out_ += "None";
        return;
      case Any::Kind::Bool:
        out_ += value.as_bool() ? "True" : "False";
        return;
      case Any::Kind::Int:
        out_ += std::to_string(value.as_int());
        return;
      case Any::Kind::Float:
        text::append_float(out_, value.as_float());
        return;
      case Any::Kind::String:
        if (quoted) {
          text::append_quoted(out_, value.as_string());
        } else {
          out_ += value.as_string();
        }
        return;
      case Any::Kind::List:
        render_list(value.as_list());
        return;
      case Any::Kind::Map:
        render_map(value.as_map());
        return;
      case Any::Kind::Object:
        out_ += quoted ? value.as_object()->repr() : value.as_object()->str();
        return;
    }
  }

  void render(const Map& map) { render_map(map); }

 private:
  bool enter(const void* container) {
    if (std::find(active_.begin(), active_.end(), container) != active_.end()) return false;
    if (active_.size() >= kMaxDepth) throw_too_deep();
    active_.push_back(container);
    return true;
  }

  void render_list(const List& list) {
    if (!enter(&list)) {
      out_ += "[...]";
      return;
    }
    out_.push_back('[');
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (i != 0) out_ += ", ";
      render(list[i], true);
    }
    out_.push_back(']');
    active_.pop_back();
  }

  void render_map(const Map& map) {
    if (!enter(&map)) {
      out_ += "{...}";
      return;
    }
    out_.push_back('{');
    bool first = true;
    for (const auto& [key, value] : map) {
      if (!first) out_ += ", ";
      first = false;
      text::append_quoted(out_, key);
      out_ += ": ";
      render(value, true);
    }
    out_.push_back('}');
    active_.pop_back();
  }

  std::string& out_;
  std::vector<const void*>& active_;
  std::size_t base_;
};

// Exact comparison of an integer with a floating-point number, as the host does it (no
// rounding of large integers).
bool int_equals_float(std::int64_t i, double d) {
  if (!std::isfinite(d) || d != std::trunc(d)) return false;
  // 2^63 is exactly representable; every integral double in [-2^63, 2^63) converts exactly.
  if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) return false;
  return static_cast<std::int64_t>(d) == i;
}

bool equals(const Any& a, const Any& b, std::size_t depth) {
  if (depth > kMaxDepth) throw_too_deep();
  using K = Any::Kind;
  const K ka = a.kind();
  const K kb = b.kind();
  const auto numeric = [](K k) { return k == K::Bool || k == K::Int || k == K::Float; };
  if (numeric(ka) && numeric(kb)) {
    if (ka == K::Float || kb == K::Float) {
      if (ka == K::Float && kb == K::Float) return a.as_float() == b.as_float();
      const Any& f = ka == K::Float ? a : b;
      const Any& i = ka == K::Float ? b : a;
      const std::int64_t iv = i.is_bool() ? std::int64_t{i.as_bool()} : i.as_int();
      return int_equals_float(iv, f.as_float());
    }
    const auto as_integer = [](const Any& v) {
      return v.is_bool() ? std::int64_t{v.as_bool()} : v.as_int();
    };
    return as_integer(a) == as_integer(b);
  }
  if (ka != kb) return false;
  switch (ka) {
    case K::None:
      return true;
    case K::String:
      return a.as_string() == b.as_string();
    case K::List: {
      const List& la = a.as_list();
      const List& lb = b.as_list();
      if (&la == &lb) return true;
      if (la.size() != lb.size()) return false;
      for (std::size_t i = 0; i < la.size(); ++i) {
        if (!equals(la[i], lb[i], depth + 1)) return false;
      }
      return true;
    }
    case K::Map: {
      const Map& ma = a.as_map();
      const Map& mb = b.as_map();
      if (&ma == &mb) return true;
      if (ma.size() != mb.size()) return false;
      for (const auto& [key, value] : ma) {
        const Any* other = find(mb, key);
        if (other == nullptr || !equals(value, *other, depth + 1)) return false;
      }
      return true;
    }
    case K::Object:
      return a.as_object() == b.as_object() || a.as_object()->equals(*b.as_object());
    default:
      return false;
  }
}

}  // namespace

Any::Any(List l) : v_(std::make_shared<List>(std::move(l))) {}
Any::Any(Map m) : v_(std::make_shared<Map>(std::move(m))) {}
Any::Any(std::shared_ptr<List> l) noexcept : v_(ref_or_none(std::move(l))) {}
Any::Any(std::shared_ptr<Map> m) noexcept : v_(ref_or_none(std::move(m))) {}

void Any::throw_int_overflow() {
  throw ValueError("integer does not fit in a signed 64-bit value");
}

bool Any::as_bool() const {
  if (const auto* b = std::get_if<bool>(&v_)) return *b;
  throw_kind("bool", *this);
}

std::int64_t Any::as_int() const {
  if (const auto* i = std::get_if<std::int64_t>(&v_)) return *i;
  throw_kind("int", *this);
}

double Any::as_float() const {
  if (const auto* d = std::get_if<double>(&v_)) return *d;
  throw_kind("float", *this);
}

const std::string& Any::as_string() const {
  if (const auto* s = std::get_if<std::string>(&v_)) return *s;
  throw_kind("str", *this);
}

List& Any::as_list() const {
  return *list_ptr();
}

Map& Any::as_map() const {
  return *map_ptr();
}

const std::shared_ptr<Object>& Any::as_object() const {
  if (const auto* o = std::get_if<std::shared_ptr<Object>>(&v_)) return *o;
  throw_kind("object", *this);
}

const std::shared_ptr<List>& Any::list_ptr() const {
  if (const auto* l = std::get_if<std::shared_ptr<List>>(&v_)) return *l;
  throw_kind("list", *this);
}

const std::shared_ptr<Map>& Any::map_ptr() const {
  if (const auto* m = std::get_if<std::shared_ptr<Map>>(&v_)) return *m;
  throw_kind("dict", *this);
}

bool Any::truthy() const noexcept {
  switch (kind()) {
    case Kind::None:
      return false;
    case Kind::Bool:
      return std::get<bool>(v_);
    case Kind::Int:
      return std::get<std::int64_t>(v_) != 0;
    case Kind::Float:
      return std::get<double>(v_) != 0.0;  // nan is true, as in the host
    case Kind::String:
      return !std::get<std::string>(v_).empty();
    case Kind::List:
      return !std::get<std::shared_ptr<List>>(v_)->empty();
    case Kind::Map:
      return !std::get<std::shared_ptr<Map>>(v_)->empty();
    case Kind::Object:
      return true;
  }
  return false;
}

void Any::append_str(std::string& out) const {
  // Strings, most of what reference texts are made of, need no renderer.
  if (const auto* s = std::get_if<std::string>(&v_)) {
    out += *s;
    return;
  }
  Renderer(out).render(*this, false);
}

void append_repr(std::string& out, const Map& map) {
  Renderer(out).render(map);
}

void Any::append_repr(std::string& out) const {
  Renderer(out).render(*this, true);
}

std::string Any::str() const {
  if (const auto* s = std::get_if<std::string>(&v_)) return *s;
  std::string out;
  append_str(out);
  return out;
}

std::string Any::repr() const {
  std::string out;
  append_repr(out);
  return out;
}

std::string Any::type_name() const {
  switch (kind()) {
    case Kind::None:
      return "NoneType";
    case Kind::Bool:
      return "bool";
    case Kind::Int:
      return "int";
    case Kind::Float:
      return "float";
    case Kind::String:
      return "str";
    case Kind::List:
      return "list";
    case Kind::Map:
      return "dict";
    case Kind::Object:
      return std::get<std::shared_ptr<Object>>(v_)->type_name();
  }
  return "object";
}

bool operator==(const Any& a, const Any& b) {
  return equals(a, b, 0);
}

Any get(const Map& map, std::string_view key) {
  const Any* value = find(map, key);
  return value != nullptr ? *value : Any();
}

Any lookup(const Map& map, const Any& key) {
  const Any* value = find_key(map, key);
  return value != nullptr ? *value : Any();
}

const Any* find_key(const Map& map, const Any& key) {
  if (key.is_string()) return find(map, key.as_string());
  if (key.is_list() || key.is_map()) throw TypeError("unhashable type: '" + key.type_name() + "'");
  return nullptr;
}

const Any* find(const Map& map, std::string_view key) {
  // Keyword and metadata maps hold a handful of entries: comparing keys in order is faster than
  // hashing, and touches only the entries.
  if (map.size() <= 8) {
    for (const auto& entry : map) {
      if (entry.first.size() == key.size() &&
          std::char_traits<char>::compare(entry.first.data(), key.data(), key.size()) == 0) {
        return &entry.second;
      }
    }
    return nullptr;
  }
  const auto it = map.find(key);
  return it != map.end() ? &it->second : nullptr;
}

std::size_t length(const Any& value) {
  switch (value.kind()) {
    case Any::Kind::String:
      return text::code_point_count(value.as_string());
    case Any::Kind::List:
      return value.as_list().size();
    case Any::Kind::Map:
      return value.as_map().size();
    default:
      throw TypeError("object of type '" + value.type_name() + "' has no len()");
  }
}

}  // namespace orvo_core
