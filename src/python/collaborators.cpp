#include "collaborators.hpp"

#include <thread>
#include <utility>

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace orvo_python {

namespace asio = boost::asio;
using orvo_core::Any;

namespace {

std::string name_of(const py::object& object) {
  return py::str(py::type::handle_of(object).attr("__name__"));
}

}  // namespace

bool is_native(py::handle value) {
  const auto* info = py::detail::get_type_info(Py_TYPE(value.ptr()));
  return info != nullptr && info->type == Py_TYPE(value.ptr());
}

// ---- Python collaborators ----------------------------------------------------------------------

namespace {

// The members of a bound enumeration by value, looked up once: the module lives for good.
template <class Enum>
py::object member(Enum value) {
  static const auto* members = [] {
    auto* table = new std::vector<py::object>();
    for (auto [name, item] : py::type::of<Enum>().attr("__members__").template cast<py::dict>()) {
      const auto index = static_cast<std::size_t>(item.template cast<Enum>());
      if (table->size() <= index) table->resize(index + 1);
      (*table)[index] = py::reinterpret_borrow<py::object>(item);
    }
    return table;
  }();
  return (*members)[static_cast<std::size_t>(value)];
}

}  // namespace

py::object to_py(orvo_core::EventLevel level) {
  return member(level);
}

py::object to_py(orvo_core::EventType type) {
  return member(type);
}

orvo_core::Awaitable<void> PyEventEmitter::emit(std::string value, orvo_core::EventLevel level,
                                                orvo_core::EventType type) {
  py::object call = target_.get().attr("emit")(to_py_str(value), to_py(level), to_py(type));
  co_await await_python(std::move(call));
}

std::string PyEventEmitter::type_name() const {
  return name_of(target_.get());
}

orvo_core::Awaitable<Any> PyLMRequestProcessor::process(
    std::shared_ptr<orvo_core::Map> prompt_kwargs, Any history,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any system_multimodal_contents,
    Any user_multimodal_contents) {
  py::dict keywords;
  keywords["event_emitter"] = event_emitter ? collaborator_to_py(event_emitter) : py::none();
  keywords["system_multimodal_contents"] = to_py(system_multimodal_contents);
  keywords["user_multimodal_contents"] = to_py(user_multimodal_contents);
  py::object call = target_.get().attr("process")(to_py(Any(std::move(prompt_kwargs))),
                                                  to_py(history), **keywords);
  py::object result = co_await await_python(std::move(call));
  // The synthesizer hands this answer on unchanged, so a container stays the very object.
  co_return passed_on(result);
}

orvo_core::Awaitable<Any> PyLMRequestProcessor::process_variables(
    std::shared_ptr<orvo_core::Map> prompt_kwargs) {
  py::object call = target_.get().attr("process")(to_py(Any(std::move(prompt_kwargs))));
  py::object result = co_await await_python(std::move(call));
  co_return to_any_detached(result);
}

std::string PyLMRequestProcessor::type_name() const {
  return name_of(target_.get());
}

orvo_core::Awaitable<orvo_core::Embedding> PyEMInvoker::invoke(std::string text) {
  py::object call = target_.get().attr("invoke")(to_py_str(text));
  py::object result = co_await await_python(std::move(call));
  co_return to_embedding(result);
}

orvo_core::Awaitable<orvo_core::Embeddings> PyEMInvoker::invoke(
    std::vector<std::string_view> texts) {
  py::list list(texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    PyList_SET_ITEM(list.ptr(), static_cast<Py_ssize_t>(i), to_py_str(texts[i]).release().ptr());
  }
  co_return co_await invoke_list(std::move(list));
}

orvo_core::Awaitable<orvo_core::Embeddings> PyEMInvoker::invoke_list(py::list texts) {
  py::object call = target_.get().attr("invoke")(std::move(texts));
  py::object result = co_await await_python(std::move(call));
  co_return to_embeddings(result);
}

std::string PyEMInvoker::type_name() const {
  return name_of(target_.get());
}

std::shared_ptr<orvo_core::EventEmitter> emitter_from_py(py::handle value) {
  if (!truthy(value)) return nullptr;
  if (py::isinstance<orvo_core::EventEmitter>(value)) return hold<orvo_core::EventEmitter>(value);
  return std::make_shared<PyEventEmitter>(py::reinterpret_borrow<py::object>(value));
}

std::shared_ptr<orvo_inference::LMRequestProcessor> processor_from_py(py::handle value) {
  if (py::isinstance<orvo_inference::LMRequestProcessor>(value) && is_native(value)) {
    return value.cast<std::shared_ptr<orvo_inference::LMRequestProcessor>>();
  }
  return std::make_shared<PyLMRequestProcessor>(py::reinterpret_borrow<py::object>(value));
}

std::shared_ptr<orvo_inference::BaseEMInvoker> invoker_from_py(py::handle value) {
  if (py::isinstance<orvo_inference::BaseEMInvoker>(value) && is_native(value)) {
    return value.cast<std::shared_ptr<orvo_inference::BaseEMInvoker>>();
  }
  return std::make_shared<PyEMInvoker>(py::reinterpret_borrow<py::object>(value));
}

py::object collaborator_to_py(const std::shared_ptr<orvo_core::Object>& collaborator) {
  if (!collaborator) return py::none();
  if (const auto* e = dynamic_cast<const PyEventEmitter*>(collaborator.get())) return e->target();
  if (const auto* p = dynamic_cast<const PyLMRequestProcessor*>(collaborator.get())) {
    return p->target();
  }
  if (const auto* i = dynamic_cast<const PyEMInvoker*>(collaborator.get())) return i->target();
  return to_py(Any(collaborator));
}

std::string python_type_name(const void* self, const std::type_info& type, std::string fallback) {
  const py::gil_scoped_acquire gil;
  const py::handle object = py::detail::get_object_handle(self, py::detail::get_type_info(type));
  if (!object) return fallback;
  return py::str(py::type::handle_of(object).attr("__name__"));
}

// ---- The I/O thread ----------------------------------------------------------------------------

namespace {

// One thread for the network I/O of the C++ HTTP collaborators, started when first needed.
// Calls that involve only Python collaborators never start it. It is stopped and joined when
// the interpreter exits, before finalization, so that it never touches a dying interpreter;
// what it had in flight is abandoned, never destroyed. The state is guarded by the GIL.
struct IoThread {
  asio::io_context context{1};
  std::thread thread;
  bool stopped = false;
};

void stop_io_thread();

IoThread& io_thread() {
  static auto* io = [] {
    auto* t = new IoThread();
    py::module_::import("atexit").attr("register")(py::cpp_function(&stop_io_thread));
    t->thread = std::thread([t] {
      auto guard = asio::make_work_guard(t->context);
      t->context.run();
    });
    return t;
  }();
  return *io;
}

void stop_io_thread() {
  IoThread& io = io_thread();
  if (io.stopped) return;
  io.stopped = true;
  io.context.stop();
  const py::gil_scoped_release release;  // what the thread is doing may need the GIL to finish
  if (io.thread.joinable()) io.thread.join();
}

asio::io_context& io_context() {
  IoThread& io = io_thread();
  if (io.stopped) throw std::runtime_error("the interpreter is exiting: no network call starts");
  return io.context;
}

// Calls `deliver()` on the asyncio thread of `loop`, from any thread. A loop that has closed
// meanwhile gets nothing: the reply is dropped.
template <class Deliver>
void call_on_loop(const std::shared_ptr<GilObject>& loop, Deliver deliver) {
  const py::gil_scoped_acquire gil;
  try {
    py::cpp_function callback([deliver = std::move(deliver)]() mutable {
      deliver();
      pump();
    });
    loop->get().attr("call_soon_threadsafe")(callback);
  } catch (py::error_already_set&) {
    // "Event loop is closed": nobody is left to take the reply.
  }
}

std::shared_ptr<GilObject> running_loop() {
  return std::make_shared<GilObject>(get_running_loop());
}

// Runs `work` on the I/O thread and resumes the awaiting coroutine on the asyncio thread.
template <class T>
class OnIoThread {
 public:
  explicit OnIoThread(orvo_core::Awaitable<T> work) : work_(std::move(work)) {}

  template <class Handler>
  void operator()(Handler&& handler) {
    asio::io_context& io = io_context();
    asio::cancellation_slot slot = asio::get_associated_cancellation_slot(handler);
    auto state = std::make_shared<asio::any_completion_handler<void(std::exception_ptr, T)>>(
        std::forward<Handler>(handler));
    auto loop = running_loop();
    // Cancellation crosses to the I/O thread, where the call's socket operation is cancelled.
    // The signal holds the I/O coroutine's cancellation state, so it is released on that thread
    // once the coroutine is gone; `finished` is read and written there only.
    auto signal = std::make_shared<asio::cancellation_signal>();
    auto finished = std::make_shared<bool>(false);
    auto done = [state, loop, signal, finished, &io](std::exception_ptr error, T result) {
      *finished = true;
      asio::post(io, [keep = signal] {});
      auto shared = std::make_shared<std::pair<std::exception_ptr, T>>(error, std::move(result));
      call_on_loop(loop, [state, shared] {
        asio::post(loop_context(), [state, shared] {
          auto h = std::move(*state);
          std::move(h)(shared->first, std::move(shared->second));
        });
      });
    };
    if (slot.is_connected()) {
      std::weak_ptr<asio::cancellation_signal> weak = signal;
      slot.assign([&io, weak, finished](asio::cancellation_type_t type) {
        asio::post(io, [weak, finished, type] {
          const auto live = weak.lock();
          if (live && !*finished) live->emit(type);
        });
      });
    }
    asio::co_spawn(io, std::move(work_), asio::bind_cancellation_slot(signal->slot(), done));
  }

 private:
  orvo_core::Awaitable<T> work_;
};

template <class T>
orvo_core::Awaitable<T> on_io_thread(orvo_core::Awaitable<T> work) {
  OnIoThread<T> hop(std::move(work));
  T result =
      co_await asio::async_initiate<const asio::use_awaitable_t<>&, void(std::exception_ptr, T)>(
          std::move(hop), asio::use_awaitable);
  co_return result;
}

// An emitter used on the I/O thread that hands every event to the asyncio thread's emitter.
class LoopEmitter : public orvo_core::EventEmitter {
 public:
  LoopEmitter(std::shared_ptr<orvo_core::EventEmitter> inner, std::shared_ptr<GilObject> loop)
      : inner_(std::move(inner)), loop_(std::move(loop)) {}

  orvo_core::Awaitable<void> emit(std::string value, orvo_core::EventLevel level,
                                  orvo_core::EventType type) override {
    Forward forward(inner_, loop_, std::move(value), level, type);
    co_await asio::async_initiate<const asio::use_awaitable_t<>&, void(std::exception_ptr)>(
        std::move(forward), asio::use_awaitable);
  }

 private:
  class Forward {
   public:
    Forward(std::shared_ptr<orvo_core::EventEmitter> inner, std::shared_ptr<GilObject> loop,
            std::string value, orvo_core::EventLevel level, orvo_core::EventType type)
        : inner_(std::move(inner)),
          loop_(std::move(loop)),
          value_(std::move(value)),
          level_(level),
          type_(type) {}

    template <class Handler>
    void operator()(Handler&& handler) {
      auto executor = asio::get_associated_executor(handler);
      auto state = std::make_shared<asio::any_completion_handler<void(std::exception_ptr)>>(
          std::forward<Handler>(handler));
      auto emit_on_loop = [inner = inner_, value = value_, level = level_, type = type_, state,
                           executor] {
        auto back = [state, executor](std::exception_ptr error) {
          asio::post(executor, [state, error] {
            auto h = std::move(*state);
            std::move(h)(error);
          });
        };
        asio::co_spawn(loop_context(), inner->emit(value, level, type), std::move(back));
      };
      call_on_loop(loop_, std::move(emit_on_loop));
    }

   private:
    std::shared_ptr<orvo_core::EventEmitter> inner_;
    std::shared_ptr<GilObject> loop_;
    std::string value_;
    orvo_core::EventLevel level_;
    orvo_core::EventType type_;
  };

  std::shared_ptr<orvo_core::EventEmitter> inner_;
  std::shared_ptr<GilObject> loop_;
};

orvo_core::Awaitable<std::string> invoke_lm(
    std::shared_ptr<orvo_inference::BaseLMInvoker> inner,
    std::vector<orvo_inference::ChatMessage> messages,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  co_return co_await inner->invoke(std::move(messages), std::move(event_emitter));
}

orvo_core::Awaitable<orvo_core::Embeddings> invoke_em_batch(
    std::shared_ptr<orvo_inference::BaseEMInvoker> inner, std::vector<std::string> texts) {
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  co_return co_await inner->invoke(views);
}

orvo_core::Awaitable<orvo_core::Embedding> invoke_em_one(
    std::shared_ptr<orvo_inference::BaseEMInvoker> inner, std::string text) {
  co_return co_await inner->invoke(std::move(text));
}

}  // namespace

orvo_core::Awaitable<std::string> IoLMInvoker::invoke(
    std::vector<orvo_inference::ChatMessage> messages,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  std::shared_ptr<orvo_core::EventEmitter> forward;
  if (event_emitter) forward = std::make_shared<LoopEmitter>(event_emitter, running_loop());
  orvo_core::Awaitable<std::string> work = invoke_lm(inner_, std::move(messages), forward);
  co_return co_await on_io_thread(std::move(work));
}

orvo_core::Awaitable<orvo_core::Embedding> IoEMInvoker::invoke(std::string text) {
  orvo_core::Awaitable<orvo_core::Embedding> work = invoke_em_one(inner_, std::move(text));
  co_return co_await on_io_thread(std::move(work));
}

orvo_core::Awaitable<orvo_core::Embeddings> IoEMInvoker::invoke(
    std::vector<std::string_view> texts) {
  // Owned copies: the views die with this frame's caller, the I/O thread reads them later.
  std::vector<std::string> owned(texts.begin(), texts.end());
  orvo_core::Awaitable<orvo_core::Embeddings> work = invoke_em_batch(inner_, std::move(owned));
  co_return co_await on_io_thread(std::move(work));
}

}  // namespace orvo_python
