#pragma once

#include <exception>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>
#include <boost/core/demangle.hpp>

namespace orvo_test {

/// "<class without its namespaces>: <message>".
inline std::string describe(const std::exception& e) {
  const std::string type = boost::core::demangle(typeid(e).name());
  return type.substr(type.rfind(':') + 1) + ": " + e.what();
}

/// What `f` threw, described, or "none".
template <class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return describe(e);
  }
  return "none";
}

/// The message of the `Error` that `f` throws; a failure when it throws nothing. Another kind
/// of exception escapes, and the test reports it.
template <class Error, class F>
std::string thrown_message(F&& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.what();
  }
  ADD_FAILURE() << "no exception was thrown";
  return {};
}

}  // namespace orvo_test

/// Expects `statement` to throw `Error` with `fragment` in its message.
#define EXPECT_THROW_MSG(statement, Error, fragment)                                            \
  do {                                                                                          \
    const std::string thrown_ = ::orvo_test::thrown_message<Error>([&] { (void)(statement); }); \
    EXPECT_NE(thrown_.find(fragment), std::string::npos) << #statement " threw: " << thrown_;   \
  } while (false)
