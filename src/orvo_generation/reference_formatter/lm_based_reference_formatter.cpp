#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"

#include <algorithm>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_generation::reference_formatter {

using orvo_core::Any;

namespace {

// The step of the batching loop: an integer (a boolean counts as 0 or 1, as in the host).
std::int64_t batch_step(const Any& batch_size) {
  std::int64_t step = 0;
  if (batch_size.is_int()) {
    step = batch_size.as_int();
  } else if (batch_size.is_bool()) {
    step = batch_size.as_bool() ? 1 : 0;
  } else {
    throw orvo_core::TypeError("`batch_size` must be an integer, got " + batch_size.type_name());
  }
  if (step == 0) throw orvo_core::ValueError("`batch_size` must not be zero");
  return step;
}

// The error's first line: a host's errors carry a traceback after it.
std::string describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    const std::string_view what = e.what();
    return std::string(what.substr(0, what.find('\n')));
  } catch (...) {
    return "unknown error";
  }
}

std::string failure_payload(std::size_t batch, std::size_t first, std::size_t count,
                            BatchFailurePolicy policy, std::string error) {
  orvo_core::Map value;
  value.emplace("batch", batch + 1);
  value.emplace("first_chunk", first);
  value.emplace("chunks", count);
  value.emplace("policy", to_string(policy));
  value.emplace("error", std::move(error));
  return data_payload("reference_batch_failure", std::move(value));
}

}  // namespace

std::string_view to_string(BatchFailurePolicy policy) noexcept {
  switch (policy) {
    case BatchFailurePolicy::RAISE:
      return "raise";
    case BatchFailurePolicy::DROP:
      return "drop";
    case BatchFailurePolicy::KEEP:
      return "keep";
    case BatchFailurePolicy::SIMILARITY:
      return "similarity";
  }
  return "unknown";
}

LMBasedReferenceFormatter::LMBasedReferenceFormatter(
    std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor, Any batch_size,
    Any reference_metadata, bool stringify, FormatReferencesFunc format_references_func,
    FormatChunkFunc format_chunk_func, Any format_chunk_metadata_map, bool streamable)
    : BaseReferenceFormatter(stringify, std::move(format_references_func),
                             std::move(format_chunk_func), std::move(format_chunk_metadata_map),
                             streamable),
      lm_request_processor(std::move(lm_request_processor)),
      batch_size(std::move(batch_size)),
      reference_metadata(std::move(reference_metadata)) {}

// One call's batches, shared by the coroutines that judge them.
struct LMBasedReferenceFormatter::Judgement {
  std::string response;
  Chunks chunks;
  std::size_t size = 0;  // chunks per batch
  BatchFailurePolicy policy = BatchFailurePolicy::RAISE;
  std::vector<char> kept;                          // per chunk: whether its batch keeps it
  std::vector<std::optional<std::string>> errors;  // per batch, when it failed
  std::size_t batches = 0;
  std::size_t next = 0;  // the next batch to send
  bool stop = false;     // a batch raised: send no more

  [[nodiscard]] std::size_t first(std::size_t batch) const { return batch * size; }
  [[nodiscard]] std::size_t count(std::size_t batch) const {
    return std::min(size, chunks.size() - first(batch));
  }
};

// These two are no coroutines: they hand over the awaitable of the call they choose.
orvo_core::Awaitable<Chunks> LMBasedReferenceFormatter::_select_relevant_chunks(
    std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter) {
  const BatchFailurePolicy policy = on_batch_failure;
  if (policy == BatchFailurePolicy::RAISE) {
    return _get_relevant_chunks(std::move(response), std::move(chunks));
  }
  return judge(std::move(response), std::move(chunks), std::move(event_emitter), policy);
}

orvo_core::Awaitable<Chunks> LMBasedReferenceFormatter::_get_relevant_chunks(std::string response,
                                                                             Chunks chunks) {
  return judge(std::move(response), std::move(chunks), nullptr, on_batch_failure);
}

orvo_core::Awaitable<Chunks> LMBasedReferenceFormatter::judge(
    std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter,
    BatchFailurePolicy policy) {
  const std::int64_t step = batch_step(batch_size);
  if (policy == BatchFailurePolicy::SIMILARITY && !fallback_em_invoker) {
    throw orvo_core::ValueError("the similarity failure policy needs a `fallback_em_invoker`");
  }
  if (step < 0) co_return Chunks();
  auto judgement = std::make_shared<Judgement>();
  judgement->response = std::move(response);
  judgement->chunks = std::move(chunks);
  judgement->size = static_cast<std::size_t>(step);
  judgement->policy = policy;
  const std::size_t batches = (judgement->chunks.size() + judgement->size - 1) / judgement->size;
  judgement->batches = batches;
  judgement->kept.resize(judgement->chunks.size());
  judgement->errors.resize(batches);
  const std::size_t workers =
      max_concurrency > 1 ? std::min(static_cast<std::size_t>(max_concurrency), batches) : 1;
  if (workers <= 1) {
    co_await judge_batches(judgement);
  } else {
    // Each worker takes the next batch until none is left; the first error cancels the rest.
    const auto executor = co_await boost::asio::this_coro::executor;
    using Worker =
        decltype(boost::asio::co_spawn(executor, judge_batches(judgement), boost::asio::deferred));
    std::vector<Worker> ops;
    ops.reserve(workers);
    for (std::size_t w = 0; w < workers; ++w) {
      orvo_core::Awaitable<void> worker = judge_batches(judgement);
      ops.push_back(boost::asio::co_spawn(executor, std::move(worker), boost::asio::deferred));
    }
    auto group = boost::asio::experimental::make_parallel_group(std::move(ops));
    const auto condition = boost::asio::experimental::wait_for_one_error();
    const auto outcome = co_await group.async_wait(condition, boost::asio::use_awaitable);
    for (const std::size_t worker : std::get<0>(outcome)) {
      if (std::get<1>(outcome)[worker]) std::rethrow_exception(std::get<1>(outcome)[worker]);
    }
  }
  Chunks relevant_chunks;
  for (std::size_t i = 0; i < judgement->chunks.size(); ++i) {
    if (judgement->kept[i] != 0) relevant_chunks.push_back(judgement->chunks[i]);
  }
  if (event_emitter) {
    for (std::size_t b = 0; b < batches; ++b) {
      if (!judgement->errors[b]) continue;
      std::string value = failure_payload(b, judgement->first(b), judgement->count(b), policy,
                                          *judgement->errors[b]);
      co_await event_emitter->emit(std::move(value), orvo_core::EventLevel::WARNING,
                                   orvo_core::EventType::DATA);
    }
  }
  co_return relevant_chunks;
}

orvo_core::Awaitable<void> LMBasedReferenceFormatter::judge_batches(
    std::shared_ptr<Judgement> judgement) {
  while (!judgement->stop && judgement->next < judgement->batches) {
    const std::size_t batch = judgement->next++;
    try {
      co_await judge_batch(judgement, batch);
    } catch (...) {
      judgement->stop = true;
      throw;
    }
  }
}

orvo_core::Awaitable<void> LMBasedReferenceFormatter::judge_batch(
    std::shared_ptr<Judgement> judgement, std::size_t batch) {
  const auto first =
      judgement->chunks.begin() + static_cast<std::ptrdiff_t>(judgement->first(batch));
  const Chunks batch_chunks(first, first + static_cast<std::ptrdiff_t>(judgement->count(batch)));
  std::exception_ptr failure;
  try {
    auto prompt_kwargs = std::make_shared<orvo_core::Map>();
    prompt_kwargs->emplace("response", judgement->response);
    prompt_kwargs->emplace("context", _format_batch_context(batch_chunks));
    const Any lm_output =
        co_await lm_request_processor->process_variables(std::move(prompt_kwargs));
    const Any key = reference_metadata;
    // Marks, not a list: whatever order a parser returns, the batch keeps its input order.
    const std::vector<std::size_t> selected = answer_parser
                                                  ? answer_parser(lm_output, batch_chunks, key)
                                                  : read_judge_answer(lm_output, batch_chunks, key);
    char* kept = judgement->kept.data() + judgement->first(batch);
    for (const std::size_t i : selected) {
      if (i >= batch_chunks.size()) {
        throw orvo_core::ValueError("the answer parser selected entry " + std::to_string(i) +
                                    " of a batch of " + std::to_string(batch_chunks.size()));
      }
      kept[i] = 1;
    }
    co_return;
  } catch (...) {
    if (judgement->policy == BatchFailurePolicy::RAISE) throw;
    failure = std::current_exception();
  }
  char* kept = judgement->kept.data() + judgement->first(batch);
  std::fill(kept, kept + batch_chunks.size(), 0);
  // A cancelled call is no failed batch: the cancellation goes on to the caller.
  const auto state = co_await boost::asio::this_coro::cancellation_state;
  if (state.cancelled() != boost::asio::cancellation_type::none) std::rethrow_exception(failure);
  judgement->errors[batch] = describe(failure);
  if (judgement->policy == BatchFailurePolicy::KEEP) std::fill(kept, kept + batch_chunks.size(), 1);
  if (judgement->policy != BatchFailurePolicy::SIMILARITY) co_return;
  // The response and the batch's contents in one request, which the frame outlives.
  std::vector<std::string_view> texts;
  texts.reserve(batch_chunks.size() + 1);
  texts.emplace_back(judgement->response);
  for (const auto& chunk : batch_chunks) texts.emplace_back(chunk->content);
  const orvo_core::Embeddings rows = co_await fallback_em_invoker->invoke(std::move(texts));
  if (rows.size() != batch_chunks.size() + 1) {
    throw orvo_core::ValueError("the embedding invoker returned " + std::to_string(rows.size()) +
                                " embeddings for " + std::to_string(batch_chunks.size() + 1) +
                                " texts");
  }
  const orvo_core::Embeddings contents(
      std::shared_ptr<const float>(rows.buffer(), rows.data() + rows.dim()), batch_chunks.size(),
      rows.dim());
  const std::vector<double> scores = orvo_core::cosine(rows[0], contents);
  for (std::size_t i = 0; i < batch_chunks.size(); ++i) {
    kept[i] = scores[i] >= fallback_threshold ? 1 : 0;
  }
}

std::string LMBasedReferenceFormatter::_format_batch_context(const Chunks& chunks) const {
  std::string context;
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    if (i != 0) context += "\n\n";
    context += _format_chunk_as_context(*chunks[i]);
  }
  return context;
}

std::string LMBasedReferenceFormatter::_format_chunk_as_context(
    const orvo_core::Chunk& chunk) const {
  std::string context = "[CHUNK]\n";
  reference_metadata.append_str(context);
  context += ": ";
  orvo_core::lookup(chunk.metadata, reference_metadata).append_str(context);
  context += "\nContent:\n";
  context += chunk.content;
  return context;
}

}  // namespace orvo_generation::reference_formatter
