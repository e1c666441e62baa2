#include "orvo_core/object.hpp"

#include "orvo_core/any.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace orvo_core {

Object::~Object() = default;

std::string Object::type_name() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  std::string name = status == 0 && demangled ? demangled.get() : mangled;
  // Keep the class's own name: drop template arguments, then the enclosing scopes.
  if (const auto angle = name.find('<'); angle != std::string::npos) name.resize(angle);
  if (const auto colon = name.rfind("::"); colon != std::string::npos) name.erase(0, colon + 2);
  return name;
}

std::string Object::repr() const {
  return "<" + type_name() + " object>";
}

std::string Object::str() const {
  return repr();
}

bool Object::equals(const Object& other) const {
  return this == &other;
}

std::optional<std::vector<Any>> Object::items() const {
  return std::nullopt;
}

}  // namespace orvo_core
