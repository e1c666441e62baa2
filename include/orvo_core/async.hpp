#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <boost/asio/awaitable.hpp>

namespace orvo_core {

/// The result type of every asynchronous operation of the library.
template <class T>
using Awaitable = boost::asio::awaitable<T>;

namespace detail {
/// Runs `work` to completion on a private event loop and rethrows its error.
void run_sync_void(Awaitable<void> work);

template <class T>
Awaitable<void> store_result(Awaitable<T> work, std::optional<T>* out) {
  out->emplace(co_await std::move(work));
}
}  // namespace detail

/// Runs an awaitable to completion on a private event loop, for simple programs and tests.
/// Components never call this: hosts that have an event loop co_spawn onto it instead.
template <class T>
T run_sync(Awaitable<T> work) {
  if constexpr (std::is_void_v<T>) {
    detail::run_sync_void(std::move(work));
  } else {
    std::optional<T> result;
    detail::run_sync_void(detail::store_result(std::move(work), &result));
    return std::move(*result);
  }
}

}  // namespace orvo_core
