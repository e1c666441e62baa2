#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include <tsl/ordered_map.h>

#include "orvo_core/object.hpp"

namespace orvo_core {

class Any;

/// Hash that lets maps be searched with `std::string_view` keys without allocating.
struct KeyHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view key) const noexcept {
    return std::hash<std::string_view>{}(key);
  }
};

/// Equality partner of `KeyHash`.
struct KeyEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept { return a == b; }
};

/// A list of values.
using List = std::vector<Any>;
/// A string-keyed map of values that keeps insertion order; assigning to an existing key keeps
/// its place.
using Map = tsl::ordered_map<std::string, Any, KeyHash, KeyEqual>;
/// The keyword-argument map of one component invocation.
using Kwargs = Map;

/// The dynamically typed value that flows through keyword arguments, state variables, metadata
/// and model outputs.
///
/// Scalars and strings are values. Lists and maps are shared, mutable containers: copying an
/// `Any` that holds one copies the reference, so a write through one copy is seen through all.
/// Constructing an `Any` from a `List` or `Map` value makes a new container.
///
/// Strings are UTF-8. Bytes that are not valid UTF-8 are never an error: the text form keeps them
/// as they are, and the quoted form and the JSON writer treat each such byte b as the lone
/// surrogate U+DC00+b (the host's "surrogateescape" convention), so `'\xff'` quotes as `'\udcff'`
/// and serialises as `"\udcff"`, which decodes back to the same bytes.
class Any {
 public:
  /// The kinds of value, in the order of the alternatives.
  enum class Kind : std::uint8_t { None, Bool, Int, Float, String, List, Map, Object };

  /// The absent value.
  Any() noexcept = default;
  /// The absent value.
  Any(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)
  /// A boolean.
  Any(bool b) noexcept : v_(b) {}  // NOLINT(google-explicit-constructor)
  /// An integer; unsigned values above the signed 64-bit range are a `ValueError`.
  template <std::integral T>
  requires(!std::same_as<T, bool>) Any(T i)
      : v_(to_int64(i)) {}  // NOLINT(google-explicit-constructor)
  /// A floating-point number.
  Any(double d) noexcept : v_(d) {}  // NOLINT(google-explicit-constructor)
  /// A string (UTF-8).
  Any(std::string s) noexcept : v_(std::move(s)) {}  // NOLINT(google-explicit-constructor)
  /// A string (UTF-8).
  Any(std::string_view s) : v_(std::string(s)) {}  // NOLINT(google-explicit-constructor)
  /// A string (UTF-8).
  Any(const char* s) : v_(std::string(s)) {}  // NOLINT(google-explicit-constructor)
  /// A new list holding these values.
  Any(List l);  // NOLINT(google-explicit-constructor)
  /// A new map holding these entries.
  Any(Map m);  // NOLINT(google-explicit-constructor)
  /// A reference to an existing list (absent when null).
  Any(std::shared_ptr<List> l) noexcept;  // NOLINT(google-explicit-constructor)
  /// A reference to an existing map (absent when null).
  Any(std::shared_ptr<Map> m) noexcept;  // NOLINT(google-explicit-constructor)
  /// A reference to an object (absent when null).
  template <std::derived_from<Object> T>
  Any(std::shared_ptr<T> o) noexcept  // NOLINT(google-explicit-constructor)
      : v_(object_or_none(std::shared_ptr<Object>(std::move(o)))) {}

  /// Which kind of value this is.
  [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(v_.index()); }
  [[nodiscard]] bool is_none() const noexcept { return kind() == Kind::None; }
  [[nodiscard]] bool is_bool() const noexcept { return kind() == Kind::Bool; }
  [[nodiscard]] bool is_int() const noexcept { return kind() == Kind::Int; }
  [[nodiscard]] bool is_float() const noexcept { return kind() == Kind::Float; }
  [[nodiscard]] bool is_string() const noexcept { return kind() == Kind::String; }
  [[nodiscard]] bool is_list() const noexcept { return kind() == Kind::List; }
  [[nodiscard]] bool is_map() const noexcept { return kind() == Kind::Map; }
  [[nodiscard]] bool is_object() const noexcept { return kind() == Kind::Object; }
  /// Whether this refers to an object of type `T` or of a type derived from it.
  template <class T>
  [[nodiscard]] bool is() const noexcept {
    return as<T>() != nullptr;
  }

  // Checked accessors: a value of another kind is a `TypeError` naming both kinds.
  [[nodiscard]] bool as_bool() const;
  [[nodiscard]] std::int64_t as_int() const;
  [[nodiscard]] double as_float() const;
  [[nodiscard]] const std::string& as_string() const;
  /// The shared list itself; writes are seen through every copy of this value.
  [[nodiscard]] List& as_list() const;
  /// The shared map itself; writes are seen through every copy of this value.
  [[nodiscard]] Map& as_map() const;
  [[nodiscard]] const std::shared_ptr<Object>& as_object() const;
  [[nodiscard]] const std::shared_ptr<List>& list_ptr() const;
  [[nodiscard]] const std::shared_ptr<Map>& map_ptr() const;

  /// The referenced object as `T`, or null when this is not such an object.
  template <class T>
  [[nodiscard]] std::shared_ptr<T> as() const noexcept {
    if (const auto* o = std::get_if<std::shared_ptr<Object>>(&v_)) {
      return std::dynamic_pointer_cast<T>(*o);
    }
    return nullptr;
  }

  /// The truth test: absent, false, zero, and empty strings, lists and maps are false.
  [[nodiscard]] bool truthy() const noexcept;

  /// The text form ("str").
  [[nodiscard]] std::string str() const;
  /// The quoted form ("repr").
  [[nodiscard]] std::string repr() const;
  /// Appends the text form to `out`.
  void append_str(std::string& out) const;
  /// Appends the quoted form to `out`.
  void append_repr(std::string& out) const;

  /// The host's name of this value's type: "NoneType", "bool", "int", "float", "str", "list",
  /// "dict", or the object's `type_name()`.
  [[nodiscard]] std::string type_name() const;

  /// Equality: numbers by numeric value (1 == 1.0 == true), containers element by element,
  /// maps regardless of order, objects by `Object::equals`.
  friend bool operator==(const Any& a, const Any& b);

 private:
  template <std::integral T>
  static std::int64_t to_int64(T i) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
      if (i > static_cast<T>(INT64_MAX)) throw_int_overflow();
    }
    return static_cast<std::int64_t>(i);
  }
  [[noreturn]] static void throw_int_overflow();

  using Variant =
      std::variant<std::monostate, bool, std::int64_t, double, std::string, std::shared_ptr<List>,
                   std::shared_ptr<Map>, std::shared_ptr<Object>>;

  // Null references become the absent value; built in place so no moved-from state is read.
  template <class P>
  static Variant ref_or_none(P p) noexcept {
    if (!p) return {};
    return Variant(std::in_place_type<P>, std::move(p));
  }
  static Variant object_or_none(std::shared_ptr<Object> o) noexcept {
    return ref_or_none(std::move(o));
  }

  Variant v_;
};

/// Appends the quoted form of a map held directly (a chunk's metadata, say), so that a map that
/// holds, through other values, the object it belongs to prints as {...} where it recurs.
void append_repr(std::string& out, const Map& map);

/// The value stored under `key`, or absent when the key is missing (the host's `dict.get`).
[[nodiscard]] Any get(const Map& map, std::string_view key);

/// The value stored under a key of any kind: a string key is looked up, a list or map key is a
/// `TypeError` (unhashable), and any other key yields absent, as no string key can equal it.
[[nodiscard]] Any lookup(const Map& map, const Any& key);

/// `lookup` without the copy: a pointer to the value, or null.
[[nodiscard]] const Any* find_key(const Map& map, const Any& key);

/// A pointer to the value stored under `key`, or null when the key is missing.
[[nodiscard]] const Any* find(const Map& map, std::string_view key);

/// The host's `len()`: code points of a string, elements of a list, entries of a map; any other
/// kind is a `TypeError`.
[[nodiscard]] std::size_t length(const Any& value);

}  // namespace orvo_core
