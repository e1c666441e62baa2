#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orvo_core {

class Any;

/// Base of every type whose instances an `Any` can refer to (chunks, emitters, collaborators,
/// components). Instances are held by `std::shared_ptr` and compared by identity unless a
/// derived type says otherwise.
class Object {
 public:
  Object() = default;
  Object(const Object&) = default;
  Object(Object&&) = default;
  Object& operator=(const Object&) = default;
  Object& operator=(Object&&) = default;
  virtual ~Object();

  /// The unqualified name of the concrete class, e.g. "SimilarityBasedReferenceFormatter".
  /// The default derives it from the run-time type, so subclasses get their own name for free.
  [[nodiscard]] virtual std::string type_name() const;

  /// The quoted form; the default is "<TypeName object>".
  [[nodiscard]] virtual std::string repr() const;

  /// The text form; the default is the quoted form.
  [[nodiscard]] virtual std::string str() const;

  /// Equality used by `Any`; the default is identity.
  [[nodiscard]] virtual bool equals(const Object& other) const;

  /// The items, when the object is a fixed sequence that a host language keeps as its own value
  /// (a tuple), so that code reading pairs can take one; none by default.
  [[nodiscard]] virtual std::optional<std::vector<Any>> items() const;
};

}  // namespace orvo_core
