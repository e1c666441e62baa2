#include "orvo_core/async.hpp"

#include <exception>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

namespace orvo_core::detail {

void run_sync_void(Awaitable<void> work) {
  boost::asio::io_context context;
  std::exception_ptr error;
  boost::asio::co_spawn(context, std::move(work), [&error](std::exception_ptr e) { error = e; });
  context.run();
  if (error) std::rethrow_exception(error);
}

}  // namespace orvo_core::detail
