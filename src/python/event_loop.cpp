// The asyncio bridge: C++ coroutines run on an io_context that asyncio drives through done
// callbacks, and Python awaitables are awaited by C++ through those same callbacks.

#include <utility>

#include <pybind11/eval.h>

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/errors.hpp"
#include "orvo_inference/errors.hpp"
#include "python_awaitables.hpp"
#include "python_support.hpp"

namespace orvo_python {

namespace asio = boost::asio;
using PySignature = void(std::exception_ptr, py::object);
using PyHandler = asio::any_completion_handler<PySignature>;

asio::io_context& loop_context() {
  // Never destroyed: handlers still queued at exit hold Python references, and the interpreter
  // may already be gone by the time thread-local destructors run.
  thread_local auto* context = new asio::io_context(1);
  return *context;
}

namespace {

thread_local bool pumping = false;
thread_local bool pump_again = false;

class PumpGuard {
 public:
  PumpGuard() { pumping = true; }
  PumpGuard(const PumpGuard&) = delete;
  PumpGuard& operator=(const PumpGuard&) = delete;
  ~PumpGuard() { pumping = false; }
};

// A Python callable of two arguments that calls `Call` with them, made with the C API: one is
// made for every awaited collaborator call, and a bound C++ function costs microseconds.
template <class Call>
py::object callback(Call call) {
  static PyMethodDef definition{
      "_orvo_deliver",
      reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(
          +[](PyObject* capsule, PyObject* const* args, Py_ssize_t count) -> PyObject* {
            auto* held = static_cast<Call*>(PyCapsule_GetPointer(capsule, "orvo.callback"));
            if (count != 2) {
              PyErr_SetString(PyExc_TypeError, "_orvo_deliver takes two arguments");
              return nullptr;
            }
            (*held)(py::handle(args[0]), py::handle(args[1]));
            Py_RETURN_NONE;
          })),
      METH_FASTCALL, nullptr};
  auto* held = new Call(std::move(call));
  PyObject* capsule = PyCapsule_New(held, "orvo.callback", [](PyObject* c) {
    delete static_cast<Call*>(PyCapsule_GetPointer(c, "orvo.callback"));
  });
  if (capsule == nullptr) {
    delete held;
    throw py::error_already_set();
  }
  PyObject* function = PyCFunction_New(&definition, capsule);
  Py_DECREF(capsule);
  if (function == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(function);
}

// The Python side of awaiting a collaborator: the coroutine its task runs, whose last step
// hands the outcome to C++, and the cancellation of that task. A task cancelled before its
// first step never enters the coroutine's `try`, so then its end delivers the cancellation (a
// second delivery is ignored) and closes the collaborator's coroutine, which never ran.
const py::dict& collaborator_helpers() {
  static const py::dict& scope = *new py::dict([] {
    py::dict helpers;
    py::exec(R"(
import asyncio

async def _orvo_collaborator(awaitable, deliver):
    try:
        result = await awaitable
    except BaseException as error:
        deliver(None, error)
    else:
        deliver(result, None)

def _orvo_cancel(task, awaitable, deliver):
    def settle(_):
        deliver(None, asyncio.CancelledError())
        close = getattr(awaitable, "close", None)
        if close is not None:
            close()
    if task.cancel():
        task.add_done_callback(settle)
)",
             helpers);
    return helpers;
  }());
  return scope;
}

// Cancels the task of an awaited collaborator when the C++ operation that awaits it is
// cancelled: (task, awaitable, deliver).
class CancelTask {
 public:
  explicit CancelTask(std::shared_ptr<GilObject> call) : call_(std::move(call)) {}
  void operator()(asio::cancellation_type_t /*type*/) const {
    const py::gil_scoped_acquire gil;
    try {
      static const py::object& cancel = *new py::object(collaborator_helpers()["_orvo_cancel"]);
      cancel(*call_->get());
    } catch (py::error_already_set& e) {
      e.discard_as_unraisable("cancelling an awaited orvo collaborator");
    }
  }

 private:
  std::shared_ptr<GilObject> call_;
};

// The C++ coroutine that waits for a collaborator: resumed on the loop context with the
// collaborator's result or exception, from inside the collaborator's own task as it ends.
struct Waiter {
  PyHandler handler;

  void operator()(py::handle result, py::handle error) {
    if (!handler) return;
    std::exception_ptr failure;
    if (!error.is_none()) {
      PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
      failure = std::make_exception_ptr(py::error_already_set());
    }
    auto resume = [h = std::move(handler), failure,
                   value = py::reinterpret_borrow<py::object>(result)]() mutable {
      std::move(h)(failure, std::move(value));
    };
    asio::post(loop_context(), std::move(resume));
    pump();
  }
};

// Runs an awaitable in a task of its own (so that the collaborator sees its own
// `current_task`, and `asyncio.timeout` works in it) whose last step hands the outcome to C++:
// the awaiting coroutine goes on in the same turn of the loop, without a done callback's turn.
class TaskWait {
 public:
  explicit TaskWait(py::object awaitable) : awaitable_(std::move(awaitable)) {}

  template <class Handler>
  void operator()(Handler&& handler) {
    static const py::object& run = *new py::object(collaborator_helpers()["_orvo_collaborator"]);
    asio::cancellation_slot slot = asio::get_associated_cancellation_slot(handler);
    py::object deliver = callback(Waiter{PyHandler(std::forward<Handler>(handler))});
    py::object task = get_running_loop().attr("create_task")(run(awaitable_, deliver));
    if (slot.is_connected()) {
      slot.assign(
          CancelTask(std::make_shared<GilObject>(py::make_tuple(task, awaitable_, deliver))));
    }
  }

 private:
  py::object awaitable_;
};

bool is_awaitable(const py::handle& value) {
  return PyCoro_CheckExact(value.ptr()) != 0 || py::hasattr(value, "__await__");
}

// Settles the asyncio future of a started call. Once it has run, cancelling the call has
// nothing left to cancel. It keeps the call's cancellation signal alive, since the coroutine's
// cancellation state lives in the signal's slot.
class Settle {
 public:
  Settle(py::object future, std::shared_ptr<asio::cancellation_signal> signal,
         std::shared_ptr<bool> finished)
      : future_(std::move(future)), signal_(std::move(signal)), finished_(std::move(finished)) {}

  void operator()(const std::exception_ptr& error, py::object result) const {
    *finished_ = true;
    try {
      if (future_.attr("done")().cast<bool>()) return;  // cancelled by the caller
      if (error) {
        future_.attr("set_exception")(exception_to_python(error));
      } else {
        future_.attr("set_result")(std::move(result));
      }
    } catch (py::error_already_set& e) {
      e.discard_as_unraisable("settling an orvo future");
    }
  }

 private:
  py::object future_;
  std::shared_ptr<asio::cancellation_signal> signal_;
  std::shared_ptr<bool> finished_;
};

py::object new_exception(PyObject* type, const char* message) {
  return py::reinterpret_borrow<py::object>(type)(message);
}

py::object inference_error(const char* name, const char* message) {
  return py::module_::import("orvo_core._native").attr(name)(message);
}

}  // namespace

void pump() {
  if (pumping) {
    pump_again = true;
    return;
  }
  const PumpGuard guard;
  asio::io_context& context = loop_context();
  do {
    pump_again = false;
    context.restart();
    context.poll();
  } while (pump_again);
}

namespace {

// An attribute of asyncio, looked up once. Never destroyed, like the loop context.
const py::object& asyncio_function(const char* name) {
  return *new py::object(py::module_::import("asyncio").attr(name));
}

}  // namespace

py::object get_running_loop() {
  static const py::object& function = asyncio_function("get_running_loop");
  return function();
}

orvo_core::Awaitable<py::object> await_python(py::object awaitable) {
  if (!is_awaitable(awaitable)) co_return awaitable;
  TaskWait wait(std::move(awaitable));
  py::object result = co_await asio::async_initiate<const asio::use_awaitable_t<>&, PySignature>(
      std::move(wait), asio::use_awaitable);
  co_return result;
}

py::object exception_to_python(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (py::error_already_set& e) {
    return e.value();
  } catch (const orvo_core::NotImplementedError&) {
    return py::reinterpret_borrow<py::object>(PyExc_NotImplementedError)();
  } catch (const orvo_core::ValueError& e) {
    return new_exception(PyExc_ValueError, e.what());
  } catch (const orvo_core::TypeError& e) {
    return new_exception(PyExc_TypeError, e.what());
  } catch (const orvo_inference::ConnectError& e) {
    return inference_error("ConnectError", e.what());
  } catch (const orvo_inference::TimeoutError& e) {
    return inference_error("TimeoutError", e.what());
  } catch (const orvo_inference::ConnectionClosedError& e) {
    return inference_error("ConnectionClosedError", e.what());
  } catch (const orvo_inference::HttpStatusError& e) {
    py::object error = inference_error("HttpStatusError", e.what());
    error.attr("status") = e.status;
    return error;
  } catch (const orvo_inference::TruncatedReplyError& e) {
    return inference_error("TruncatedReplyError", e.what());
  } catch (const orvo_inference::MalformedReplyError& e) {
    return inference_error("MalformedReplyError", e.what());
  } catch (const orvo_inference::OutputParserError& e) {
    return inference_error("OutputParserError", e.what());
  } catch (const orvo_inference::InferenceError& e) {
    return inference_error("InferenceError", e.what());
  } catch (const std::invalid_argument& e) {
    return new_exception(PyExc_ValueError, e.what());
  } catch (const std::bad_alloc&) {
    return py::reinterpret_borrow<py::object>(PyExc_MemoryError)();
  } catch (const std::exception& e) {
    return new_exception(PyExc_RuntimeError, e.what());
  } catch (...) {
    return new_exception(PyExc_RuntimeError, "unknown C++ error");
  }
}

PendingCall::PendingCall(orvo_core::Awaitable<py::object> work) : work_(std::move(work)) {}

py::object Pending(orvo_core::Awaitable<py::object> work) {
  // Never destroyed, like the loop context: the interpreter may be gone by then. Cancelling the
  // awaiting task throws into this coroutine, which cancels the C++ work in turn.
  static auto* wrap = [] {
    py::dict scope;
    py::exec(R"(
async def _orvo_call(pending):
    try:
        return await pending
    except BaseException:
        pending.cancel()
        raise
)",
             scope);
    return new py::object(scope["_orvo_call"]);
  }();
  return (*wrap)(PendingCall(std::move(work)));
}

py::object PendingCall::await_() {
  if (!work_) throw py::value_error("cannot await an orvo operation twice");
  py::object loop = get_running_loop();
  py::object future = loop.attr("create_future")();
  // The coroutine's cancellation state lives in the signal's slot: the signal lives as long as
  // this call and the coroutine's completion handler.
  signal_ = std::make_shared<asio::cancellation_signal>();
  finished_ = std::make_shared<bool>(false);
  Settle settle(future, signal_, finished_);
  orvo_core::Awaitable<py::object> work = std::move(*work_);
  work_.reset();
  asio::co_spawn(loop_context(), std::move(work),
                 asio::bind_cancellation_slot(signal_->slot(), std::move(settle)));
  pump();
  return future.attr("__await__")();
}

void PendingCall::cancel() {
  if (!signal_ || *finished_) return;
  signal_->emit(asio::cancellation_type::terminal);
  pump();
}

}  // namespace orvo_python
namespace orvo_python {

orvo_core::Awaitable<py::object> as_none(orvo_core::Awaitable<void> work,
                                         std::shared_ptr<void> keep) {
  co_await std::move(work);
  keep.reset();
  co_return py::none();
}

orvo_core::Awaitable<py::object> as_python(orvo_core::Awaitable<orvo_core::Any> work,
                                           std::shared_ptr<Session> session,
                                           std::shared_ptr<void> keep) {
  orvo_core::Any result;
  try {
    result = co_await std::move(work);
  } catch (...) {
    session->push();
    throw;
  }
  session->push();
  py::object converted = to_py(result);
  keep.reset();
  co_return converted;
}

orvo_core::Kwargs to_kwargs(const orvo_core::Component& component, const py::kwargs& kwargs,
                            Session& session) {
  orvo_core::Kwargs converted;
  for (auto [key, value] : kwargs) {
    std::string name = to_utf8(key);
    orvo_core::Any any;
    if (name == "event_emitter") {
      any = orvo_core::Any(emitter_from_py(value));
    } else if (reads_key(component, name)) {
      any = session.to_any(value);
    } else {
      any =
          orvo_core::Any(std::make_shared<PyObjectRef>(py::reinterpret_borrow<py::object>(value)));
    }
    converted.insert_or_assign(std::move(name), std::move(any));
  }
  return converted;
}

}  // namespace orvo_python
