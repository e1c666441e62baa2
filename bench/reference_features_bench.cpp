// Benchmarks of the reference building blocks that change how long a turn waits: the LM-based
// formatter's batches against a judge with 50 ms of latency, one after another or several in
// flight, and inline citations, whose sentences go to the embedding model in one request.
// Latency cases are timed in real time (the process sleeps while it waits); CPU cases in CPU
// time, as the rest of orvo_bench.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include "support/async_fakes.hpp"
#pragma GCC diagnostic pop

#include "orvo_core/async.hpp"
#include "orvo_generation/reference_formatter/citation_attributor.hpp"
#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"
#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"
#include "support/chunks.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;

constexpr auto kLatency = std::chrono::milliseconds(50);

// A judge that answers after 50 ms on a timer, keeping the batch's first chunk.
class SlowJudge : public orvo_inference::LMRequestProcessor {
 public:
  orvo_core::Awaitable<Any> process(std::shared_ptr<orvo_core::Map> prompt_kwargs, Any /*history*/,
                                    std::shared_ptr<orvo_core::EventEmitter> /*emitter*/,
                                    Any /*system*/, Any /*user*/) override {
    co_await orvo_test::sleep_for(kLatency);
    const std::string context = orvo_core::get(*prompt_kwargs, "context").str();
    const std::size_t label = context.find("file_name: ") + 11;
    orvo_core::List kept{Any(context.substr(label, context.find('\n', label) - label))};
    co_return Any(orvo_core::Map{{"file_name", std::move(kept)}});
  }
};

rf::Chunks labelled_chunks(std::size_t count) {
  rf::Chunks chunks;
  for (std::size_t i = 0; i < count; ++i) {
    chunks.push_back(orvo_test::make_chunk("Chunk " + std::to_string(i) + " about the tides.",
                                           "doc-" + std::to_string(i) + ".md"));
  }
  return chunks;
}

// 100 chunks in batches of 5 against the 50 ms judge, `max_concurrency` batches in flight.
void BM_LMJudgeLatency(benchmark::State& state) {
  rf::LMBasedReferenceFormatter formatter(std::make_shared<SlowJudge>());
  formatter.max_concurrency = state.range(0);
  const rf::Chunks chunks = labelled_chunks(100);
  for (auto _ : state) {
    const rf::Chunks kept = orvo_core::run_sync(formatter._get_relevant_chunks("tides", chunks));
    if (kept.size() != 20) state.SkipWithError("the judge did not keep one chunk per batch");
  }
}

// Random unit-ish rows, the same on every run; each call hands over as many rows as texts.
class RowsEMInvoker : public orvo_inference::BaseEMInvoker {
 public:
  RowsEMInvoker(std::size_t rows, std::size_t dim, std::chrono::milliseconds latency)
      : dim_(dim), latency_(latency) {
    std::mt19937 rng(7);
    std::normal_distribution<float> normal;
    data_.resize(rows * dim);
    for (float& x : data_) x = normal(rng);
  }
  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string /*text*/) override {
    if (latency_.count() > 0) co_await orvo_test::sleep_for(latency_);
    co_return orvo_core::Embedding(data_.begin(),
                                   data_.begin() + static_cast<std::ptrdiff_t>(dim_));
  }
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override {
    if (latency_.count() > 0) co_await orvo_test::sleep_for(latency_);
    ++calls;
    co_return orvo_core::Embeddings(std::shared_ptr<const float>(data_holder_, data_.data()),
                                    texts.size(), dim_);
  }
  std::size_t calls = 0;

 private:
  std::vector<float> data_;
  std::shared_ptr<void> data_holder_ = std::make_shared<int>(0);
  std::size_t dim_;
  std::chrono::milliseconds latency_;
};

std::string response_of(std::size_t sentences) {
  std::string response;
  for (std::size_t i = 0; i < sentences; ++i) {
    response += "Sentence " + std::to_string(i) + " says something about the tides. ";
  }
  return response;
}

// Citations for a 20-sentence response against the similarity formatter's kept chunks (N=100,
// D=384, threshold -1 keeps all, the first 20 by rank are cited): reusing the decision's
// embeddings (`reuse:1`, the sentences alone are embedded) or embedding the contents again with
// the sentences (`reuse:0`). The invoker answers at once, so this is the CPU cost.
void BM_Attribute(benchmark::State& state) {
  const auto invoker = std::make_shared<RowsEMInvoker>(200, 384, std::chrono::milliseconds(0));
  rf::SimilarityBasedReferenceFormatter formatter(invoker, -1.0);
  const rf::Chunks chunks = labelled_chunks(100);
  rf::ScoredChunks scored = orvo_core::run_sync(formatter.score_chunks("tides", chunks));
  scored.kept.resize(20);
  rf::Chunks kept;
  for (const auto& k : scored.kept) kept.push_back(k.chunk);
  const std::string response = response_of(20);
  rf::CitationAttributor attributor(invoker, 0.05);
  for (auto _ : state) {
    const rf::Attribution attribution =
        state.range(0) != 0 ? orvo_core::run_sync(attributor.attribute(response, scored))
                            : orvo_core::run_sync(attributor.attribute(response, kept));
    benchmark::DoNotOptimize(attribution.text.data());
  }
}

// The same 20 sentences against an embedding model with 50 ms of latency: attribution's one
// batched request (`batched:1`) against one request per sentence (`batched:0`).
void BM_AttributeLatency(benchmark::State& state) {
  const auto invoker = std::make_shared<RowsEMInvoker>(200, 384, kLatency);
  const std::string response = response_of(20);
  const auto spans = rf::split_sentences(response);
  for (auto _ : state) {
    if (state.range(0) != 0) {
      std::vector<std::string_view> texts;
      for (const auto& [begin, length] : spans)
        texts.push_back(std::string_view(response).substr(begin, length));
      benchmark::DoNotOptimize(orvo_core::run_sync(invoker->invoke(std::move(texts))).data());
    } else {
      for (const auto& [begin, length] : spans) {
        benchmark::DoNotOptimize(
            orvo_core::run_sync(invoker->invoke(response.substr(begin, length))).data());
      }
    }
  }
}

BENCHMARK(BM_LMJudgeLatency)
    ->ArgName("max_concurrency")
    ->Arg(1)
    ->Arg(4)
    ->Arg(8)
    ->UseRealTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Attribute)->ArgName("reuse")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AttributeLatency)
    ->ArgName("batched")
    ->Arg(1)
    ->Arg(0)
    ->UseRealTime()
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
