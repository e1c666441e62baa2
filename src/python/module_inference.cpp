// Bindings of the inference contracts and the library's own collaborators.

#include <cmath>
#include <cstdint>

#include <pybind11/stl.h>

#include "collaborators.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/em_invoker/openai_em_invoker.hpp"
#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"
#include "orvo_inference/output_parser/text_output_parser.hpp"
#include "orvo_inference/prompt/prompt_template.hpp"
#include "orvo_inference/request_processor/extractive_request_processor.hpp"
#include "orvo_inference/request_processor/uses_lm.hpp"
#include "python_awaitables.hpp"

namespace orvo_python {

namespace inf = orvo_inference;
using orvo_core::Any;

namespace {

orvo_core::Awaitable<py::object> embedding_result(orvo_core::Awaitable<orvo_core::Embedding> work,
                                                  std::shared_ptr<void> keep) {
  orvo_core::Embedding vector = co_await std::move(work);
  keep.reset();
  co_return py::cast(vector);
}

orvo_core::Awaitable<py::object> embeddings_result(orvo_core::Awaitable<orvo_core::Embeddings> work,
                                                   std::shared_ptr<void> keep) {
  orvo_core::Embeddings batch = co_await std::move(work);
  keep.reset();
  py::list rows(batch.size());
  for (std::size_t i = 0; i < batch.size(); ++i) {
    const auto row = batch[i];
    rows[i] = py::cast(std::vector<float>(row.begin(), row.end()));
  }
  co_return rows;
}

orvo_core::Awaitable<orvo_core::Embeddings> invoke_batch(
    std::shared_ptr<inf::BaseEMInvoker> invoker, std::vector<std::string> texts) {
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  co_return co_await invoker->invoke(views);
}

std::chrono::milliseconds seconds(const py::object& value, const char* name) {
  if (PyFloat_Check(value.ptr()) == 0 && PyLong_Check(value.ptr()) == 0) {
    throw orvo_core::TypeError(std::string(name) + " must be a number of seconds");
  }
  const double s = PyFloat_AsDouble(value.ptr());
  if (s == -1.0 && PyErr_Occurred() != nullptr) throw py::error_already_set();
  // Whole milliseconds, rounded up, so that a small positive limit never becomes zero.
  if (!std::isfinite(s) || s <= 0 || s > 1e6) {
    throw orvo_core::ValueError(std::string(name) +
                                " must be a positive number of seconds, at most 1e6");
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(s * 1000)));
}

// The client settings a Python caller gives by keyword, in seconds; None keeps the default.
inf::http::ClientOptions client_options(const py::object& connect_timeout,
                                        const py::object& timeout, const py::object& total_timeout,
                                        const py::object& max_retries, const py::object& ca_file,
                                        const py::object& ca_dir,
                                        const py::object& min_tls_version) {
  inf::http::ClientOptions options;
  if (!connect_timeout.is_none())
    options.connect_timeout = seconds(connect_timeout, "connect_timeout");
  if (!timeout.is_none()) options.read_timeout = seconds(timeout, "timeout");
  if (!total_timeout.is_none()) options.total_timeout = seconds(total_timeout, "total_timeout");
  if (!max_retries.is_none()) options.retry.max_retries = max_retries.cast<std::size_t>();
  if (!ca_file.is_none()) options.ca_file = to_utf8(ca_file);
  if (!ca_dir.is_none()) options.ca_dir = to_utf8(ca_dir);
  if (!min_tls_version.is_none()) {
    const std::string version = to_utf8(min_tls_version);
    if (version != "1.2" && version != "1.3") {
      throw orvo_core::ValueError("min_tls_version must be '1.2' or '1.3'");
    }
    options.min_tls_version =
        version == "1.3" ? inf::http::TlsVersion::tls1_3 : inf::http::TlsVersion::tls1_2;
  }
  return options;
}

}  // namespace

void bind_inference(py::module_& m) {
  Home home(m);
  home.set("orvo_inference.request_processor");
  py::class_<inf::UsesLM, std::shared_ptr<inf::UsesLM>>(
      m, "UsesLM", "Marks a component that uses a language model.")
      .def(py::init<>());

  py::class_<inf::BudgetReport>(m, "BudgetReport", "What a context budget did to a context.")
      .def_readonly("budget", &inf::BudgetReport::budget)
      .def_readonly("tokens", &inf::BudgetReport::tokens)
      .def_readonly("pieces", &inf::BudgetReport::pieces)
      .def_readonly("truncated", &inf::BudgetReport::truncated)
      .def_readonly("dropped", &inf::BudgetReport::dropped)
      .def("changed", &inf::BudgetReport::changed);
  py::class_<inf::ContextBudget> budget(
      m, "ContextBudget", "Caps the stuffed context of a prompt at a number of tokens.");
  py::enum_<inf::ContextBudget::Policy>(budget, "Policy")
      .value("DROP", inf::ContextBudget::Policy::DROP)
      .value("TRUNCATE", inf::ContextBudget::Policy::TRUNCATE);
  budget
      .def(
          py::init([](std::size_t max_tokens, inf::ContextBudget::Policy policy,
                      std::string variable, std::string separator, const py::object& count_tokens) {
            inf::ContextBudget self(max_tokens, policy, std::move(variable));
            self.separator = std::move(separator);
            if (!count_tokens.is_none()) {
              auto held = std::make_shared<GilObject>(count_tokens);
              self.count_tokens = [held](std::string_view text) {
                const py::gil_scoped_acquire gil;
                return held->get()(to_py_str(text)).cast<std::size_t>();
              };
            }
            return self;
          }),
          py::arg("max_tokens"),
          py::arg_v("policy", inf::ContextBudget::Policy::DROP, "ContextBudget.Policy.DROP"),
          py::arg("variable") = "context", py::kw_only(), py::arg("separator") = "\n\n",
          py::arg("count_tokens") = py::none())
      .def_readwrite("max_tokens", &inf::ContextBudget::max_tokens)
      .def_readwrite("policy", &inf::ContextBudget::policy)
      .def_readwrite("variable", &inf::ContextBudget::variable)
      .def_readwrite("separator", &inf::ContextBudget::separator)
      .def(
          "apply",
          [](const inf::ContextBudget& self, const py::object& context) {
            inf::BudgetReport report;
            std::string text = self.apply(to_any_detached(context), report);
            return py::make_tuple(to_py_str(text), report);
          },
          py::arg("context"));
  m.def(
      "estimate_tokens", [](const py::object& text) { return inf::estimate_tokens(to_utf8(text)); },
      py::arg("text"), "One token per four characters, rounded up.");

  py::class_<inf::PromptTemplate>(m, "PromptTemplate",
                                  "System and user templates with {named} placeholders.")
      .def(py::init([](std::string system_template, std::string user_template,
                       std::optional<inf::ContextBudget> context_budget) {
             inf::PromptTemplate self(std::move(system_template), std::move(user_template));
             self.context_budget = std::move(context_budget);
             return self;
           }),
           py::arg("system_template") = "", py::arg("user_template") = "", py::kw_only(),
           py::arg("context_budget") = py::none())
      .def_readwrite("context_budget", &inf::PromptTemplate::context_budget)
      .def_property_readonly("system_template", &inf::PromptTemplate::system_template)
      .def_property_readonly("user_template", &inf::PromptTemplate::user_template)
      .def("variables", &inf::PromptTemplate::variables);

  py::class_<inf::BaseOutputParser, orvo_core::Object, std::shared_ptr<inf::BaseOutputParser>>(
      m, "BaseOutputParser")
      .def(
          "parse",
          [](const inf::BaseOutputParser& self, const std::string& text) {
            return to_py(self.parse(text));
          },
          py::arg("text"));
  py::class_<inf::TextOutputParser, inf::BaseOutputParser, std::shared_ptr<inf::TextOutputParser>>(
      m, "TextOutputParser")
      .def(py::init<>());
  py::class_<inf::JsonOutputParser, inf::BaseOutputParser, std::shared_ptr<inf::JsonOutputParser>>(
      m, "JsonOutputParser")
      .def(py::init<>());

  py::class_<inf::BaseLMInvoker, orvo_core::Object, std::shared_ptr<inf::BaseLMInvoker>>(
      m, "BaseLMInvoker");
  // The network I/O of the HTTP invokers runs on the module's I/O thread, so that the asyncio
  // thread never blocks; streamed events come back to the asyncio thread.
  py::class_<IoLMInvoker, inf::BaseLMInvoker, std::shared_ptr<IoLMInvoker>>(
      m, "OpenAILMInvoker", "A chat model behind an OpenAI-compatible server.")
      .def(py::init([](std::string model, std::string base_url, std::string api_key,
                       const py::object& parameters, const py::object& connect_timeout,
                       const py::object& timeout, const py::object& total_timeout,
                       const py::object& max_retries, const py::object& ca_file,
                       const py::object& ca_dir, const py::object& min_tls_version) {
             orvo_core::Map extra;
             if (!parameters.is_none()) extra = to_any_detached(parameters).as_map();
             return std::make_shared<IoLMInvoker>(std::make_shared<inf::OpenAILMInvoker>(
                 std::move(model), std::move(base_url), std::move(api_key), std::move(extra),
                 client_options(connect_timeout, timeout, total_timeout, max_retries, ca_file,
                                ca_dir, min_tls_version)));
           }),
           py::arg("model"), py::arg("base_url"), py::arg("api_key") = "",
           py::arg("parameters") = py::none(), py::kw_only(),
           py::arg("connect_timeout") = py::none(), py::arg("timeout") = py::none(),
           py::arg("total_timeout") = py::none(), py::arg("max_retries") = py::none(),
           py::arg("ca_file") = py::none(), py::arg("ca_dir") = py::none(),
           py::arg("min_tls_version") = py::none());

  py::class_<inf::LMRequestProcessor, orvo_core::Object, std::shared_ptr<inf::LMRequestProcessor>>(
      m, "LMRequestProcessor",
      "Turns prompt variables into a language-model request and parses the reply.")
      .def(py::init([](const py::object& prompt, const py::object& lm_invoker,
                       const py::object& output_parser) {
             inf::PromptTemplate p =
                 prompt.is_none() ? inf::PromptTemplate() : prompt.cast<inf::PromptTemplate>();
             auto invoker = lm_invoker.is_none()
                                ? nullptr
                                : lm_invoker.cast<std::shared_ptr<inf::BaseLMInvoker>>();
             auto parser = output_parser.is_none()
                               ? nullptr
                               : output_parser.cast<std::shared_ptr<inf::BaseOutputParser>>();
             return std::make_shared<inf::LMRequestProcessor>(std::move(p), std::move(invoker),
                                                              std::move(parser));
           }),
           py::arg("prompt") = py::none(), py::arg("lm_invoker") = py::none(),
           py::arg("output_parser") = py::none())
      .def(
          "process",
          [](std::shared_ptr<inf::LMRequestProcessor> self, const py::dict& prompt_kwargs,
             const py::object& history, const py::object& event_emitter,
             const py::object& system_contents, const py::object& user_contents) {
            auto session = std::make_shared<Session>();
            Any variables = session->to_any(prompt_kwargs);
            Any turns = session->to_any(history);
            Any system_value = session->to_any(system_contents);
            Any user_value = session->to_any(user_contents);
            orvo_core::Awaitable<Any> work =
                self->process(variables.map_ptr(), std::move(turns), emitter_from_py(event_emitter),
                              std::move(system_value), std::move(user_value));
            return Pending(as_python(std::move(work), std::move(session), keep_alive(self)));
          },
          py::arg("prompt_kwargs"), py::arg("history") = py::none(), py::kw_only(),
          py::arg("event_emitter") = py::none(), py::arg("system_multimodal_contents") = py::none(),
          py::arg("user_multimodal_contents") = py::none());

  py::class_<inf::ExtractiveRequestProcessor, inf::LMRequestProcessor,
             std::shared_ptr<inf::ExtractiveRequestProcessor>>(
      m, "ExtractiveRequestProcessor",
      "An offline processor: extractive answers, or lexical relevance judgements.")
      .def(py::init([](const std::string& task, double min_similarity) {
             if (task != "answer" && task != "judge") {
               throw py::value_error("task must be 'answer' or 'judge'");
             }
             return std::make_shared<inf::ExtractiveRequestProcessor>(
                 task == "answer" ? inf::ExtractiveRequestProcessor::Task::answer
                                  : inf::ExtractiveRequestProcessor::Task::judge,
                 min_similarity);
           }),
           py::arg("task"), py::arg("min_similarity") = -1.0);

  home.set("orvo_inference.em_invoker.em_invoker");
  py::class_<inf::BaseEMInvoker, orvo_core::Object, std::shared_ptr<inf::BaseEMInvoker>>(
      m, "BaseEMInvoker", "The base type of embedding-model invokers.")
      .def(
          "invoke",
          [](std::shared_ptr<inf::BaseEMInvoker> self, const py::object& text) {
            if (PyUnicode_Check(text.ptr())) {
              orvo_core::Awaitable<orvo_core::Embedding> work = self->invoke(to_utf8(text));
              return Pending(embedding_result(std::move(work), keep_alive(self)));
            }
            std::vector<std::string> texts;
            for (py::handle item : py::reinterpret_borrow<py::sequence>(text)) {
              texts.push_back(to_utf8(py::str(item)));
            }
            orvo_core::Awaitable<orvo_core::Embeddings> work = invoke_batch(self, std::move(texts));
            return Pending(embeddings_result(std::move(work), keep_alive(self)));
          },
          py::arg("text"));
  home.set("orvo_inference.em_invoker");
  py::class_<inf::LexicalEMInvoker, inf::BaseEMInvoker, std::shared_ptr<inf::LexicalEMInvoker>>(
      m, "LexicalEMInvoker", "Offline, lexical embeddings: hashed words and character trigrams.")
      .def(py::init<std::size_t>(), py::arg("dimensions") = 1024);
  py::class_<IoEMInvoker, inf::BaseEMInvoker, std::shared_ptr<IoEMInvoker>>(
      m, "OpenAIEMInvoker", "An embedding model behind an OpenAI-compatible server.")
      .def(py::init([](std::string model, std::string base_url, std::string api_key,
                       std::size_t batch_size, const py::object& connect_timeout,
                       const py::object& timeout, const py::object& total_timeout,
                       const py::object& max_retries, const py::object& ca_file,
                       const py::object& ca_dir, const py::object& min_tls_version) {
             return std::make_shared<IoEMInvoker>(std::make_shared<inf::OpenAIEMInvoker>(
                 std::move(model), std::move(base_url), std::move(api_key), batch_size,
                 client_options(connect_timeout, timeout, total_timeout, max_retries, ca_file,
                                ca_dir, min_tls_version)));
           }),
           py::arg("model"), py::arg("base_url"), py::arg("api_key") = "",
           py::arg("batch_size") = 64, py::kw_only(), py::arg("connect_timeout") = py::none(),
           py::arg("timeout") = py::none(), py::arg("total_timeout") = py::none(),
           py::arg("max_retries") = py::none(), py::arg("ca_file") = py::none(),
           py::arg("ca_dir") = py::none(), py::arg("min_tls_version") = py::none());
}

}  // namespace orvo_python
