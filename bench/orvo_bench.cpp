// Benchmarks of the cosine kernel and the reference formatters, next to a plain read of the same
// embedding buffers. Everything runs in one binary so that each formatter time can be given as a
// ratio to the read bound measured in the same run; the summary printed at the end does that.
#include <benchmark/benchmark.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// GCC 12 at -O3 sees a possible null dereference in Asio's executor comparison, which cannot
// happen; the warning would otherwise fail the build.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#pragma GCC diagnostic pop

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/embeddings.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "support/chunks.hpp"
#include "support/recording_emitter.hpp"

namespace orvo_bench {
// The read bound's kernel, in read_bound.cpp.
float sum_floats(const float* data, std::size_t count);
std::string_view sum_floats_target();
}  // namespace orvo_bench

namespace {

namespace rf = orvo_generation::reference_formatter;

// Hands over precomputed embeddings without copying them, whatever the texts.
class PrecomputedEMInvoker : public orvo_inference::BaseEMInvoker {
 public:
  PrecomputedEMInvoker(orvo_core::Embedding query, orvo_core::Embeddings rows)
      : query_(std::move(query)), rows_(std::move(rows)) {}

  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string /*text*/) override {
    co_return query_;
  }
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(
      std::vector<std::string_view> /*texts*/) override {
    co_return rows_;
  }

 private:
  orvo_core::Embedding query_;
  orvo_core::Embeddings rows_;
};

using orvo_core::Any;

// ---------------------------------------------------------------------------------------------
// Data. Everything is generated from fixed seeds, so every run measures the same inputs.

constexpr double kThreshold = rf::DEFAULT_THRESHOLD;
constexpr std::size_t kKeptOneIn = 5;  // 20% of the chunks pass the threshold.

// splitmix64: fast, and good enough for test vectors.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  double uniform(double lo, double hi) {
    return lo + (hi - lo) * static_cast<double>(next() >> 11) * 0x1.0p-53;
  }
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }

 private:
  std::uint64_t state_;
};

double dot(const std::vector<double>& a, const std::vector<double>& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

void normalise(std::vector<double>& v) {
  const double length = std::sqrt(dot(v, v));
  for (double& x : v) x /= length;
}

// A query and rows whose cosine with it is chosen first: row = s * q + sqrt(1 - s^2) * u with
// q and u orthonormal scores exactly s (up to float rounding). Exactly one row in kKeptOneIn,
// at random positions, scores in [0.55, 0.95]; the others score in [-0.25, 0.45], well clear
// of the threshold.
struct Vectors {
  orvo_core::Embedding query;
  orvo_core::Embeddings rows;
  std::size_t kept = 0;
};

Vectors make_vectors(std::size_t n, std::size_t dim) {
  Rng rng(0x5EED0000ULL + n * 7919 + dim);
  std::vector<double> q(dim);
  for (double& x : q) x = rng.uniform(-1.0, 1.0);
  normalise(q);

  std::vector<std::size_t> order(n);
  std::iota(order.begin(), order.end(), std::size_t{0});
  for (std::size_t i = n; i > 1; --i) std::swap(order[i - 1], order[rng.below(i)]);
  const std::size_t kept = n / kKeptOneIn;
  std::vector<bool> passes(n, false);
  for (std::size_t k = 0; k < kept; ++k) passes[order[k]] = true;

  std::vector<float> data(n * dim);
  std::vector<double> u(dim);
  for (std::size_t r = 0; r < n; ++r) {
    const double s = passes[r] ? rng.uniform(0.55, 0.95) : rng.uniform(-0.25, 0.45);
    for (double& x : u) x = rng.uniform(-1.0, 1.0);
    const double projection = dot(u, q);
    for (std::size_t j = 0; j < dim; ++j) u[j] -= projection * q[j];
    normalise(u);
    const double c = std::sqrt(1.0 - s * s);
    for (std::size_t j = 0; j < dim; ++j) {
      data[r * dim + j] = static_cast<float>(s * q[j] + c * u[j]);
    }
  }
  Vectors out;
  out.query.assign(q.begin(), q.end());
  out.rows = orvo_core::Embeddings(std::move(data), n, dim);
  out.kept = kept;
  return out;
}

constexpr const char* kSentences[] = {
    "Spring tides occur when the sun and the moon line up, at new and full moon.",
    "Neap tides follow the first and last quarter, when the tidal range is smallest.",
    "The tidal range at the harbour entrance reaches 6.8 m during equinoctial springs.",
    "Currents in the channel turn about forty minutes after local high water.",
    "Chart datum is the lowest astronomical tide; depths below it are rarely reached.",
    "Storm surges add to the predicted height and can last for more than a tide.",
    "The mooring buoys are rated for vessels up to 12 m and 8 t displacement.",
    "Tide tables are published a year ahead and corrected for summer time.",
    "Slack water lasts longer at neaps, which makes the entrance easier to cross.",
    "A falling barometer of 10 hPa raises the sea level by about 10 cm.",
    "Secondary ports take their times and heights as differences from a standard port.",
    "The rule of twelfths estimates the height of the tide between high and low water.",
    "Wind against tide builds short, steep waves over the bar at the river mouth.",
    "Diurnal tides, with one high water a day, are found in parts of the Pacific.",
    "Harmonic constants describe the tide as a sum of periodic constituents.",
    "The lock gates open two hours either side of high water at the marina.",
};

// One document chunk: a few sentences, a file name and an address.
std::shared_ptr<orvo_core::Chunk> make_document_chunk(std::size_t i, Rng& rng) {
  std::string content;
  const std::size_t sentences = 2 + rng.below(3);
  for (std::size_t k = 0; k < sentences; ++k) {
    if (k != 0) content.push_back(' ');
    content += kSentences[rng.below(std::size(kSentences))];
  }
  std::ostringstream name;
  name << "tidal-handbook-" << std::setw(5) << std::setfill('0') << i << ".pdf";
  const std::string file_name = name.str();
  return orvo_test::make_chunk(std::move(content), file_name,
                               "https://docs.example.org/harbour/handbooks/" + file_name);
}

const std::string kResponse =
    "Spring tides happen around new and full moon, when the sun and the moon pull along the same "
    "line; at the harbour entrance their range can reach 6.8 m, so plan to cross the bar near "
    "slack water.";

// Chunks, shared by every dimension of one size.
const std::vector<std::shared_ptr<orvo_core::Chunk>>& chunks(std::size_t n) {
  static std::map<std::size_t, std::vector<std::shared_ptr<orvo_core::Chunk>>> cache;
  auto [it, inserted] = cache.try_emplace(n);
  if (inserted) {
    Rng rng(0xC0FFEEULL + n);
    it->second.reserve(n);
    for (std::size_t i = 0; i < n; ++i) it->second.push_back(make_document_chunk(i, rng));
  }
  return it->second;
}

// N chunks and their N x D embeddings: the buffer that the formatter, the cosine benchmarks
// and the read bound all read.
struct Dataset {
  std::size_t n = 0;
  std::size_t dim = 0;
  Vectors vectors;
  Any chunk_list;  ///< The chunks as the list a host passes under "chunks".
};

const Dataset& dataset(std::size_t n, std::size_t dim) {
  static std::map<std::pair<std::size_t, std::size_t>, std::unique_ptr<Dataset>> cache;
  auto& slot = cache[{n, dim}];
  if (!slot) {
    slot = std::make_unique<Dataset>();
    slot->n = n;
    slot->dim = dim;
    slot->vectors = make_vectors(n, dim);
    orvo_core::List list;
    list.reserve(n);
    for (const auto& chunk : chunks(n)) list.emplace_back(chunk);
    slot->chunk_list = std::move(list);
  }
  return *slot;
}

std::size_t embedding_bytes(const Dataset& data) {
  return data.n * data.dim * sizeof(float);
}

void set_counters(benchmark::State& state, std::size_t items, std::size_t bytes) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

// ---------------------------------------------------------------------------------------------
// Running coroutines: one event loop per benchmark, reused by every iteration, as a host does.

class Loop {
 public:
  template <class T>
  T run(orvo_core::Awaitable<T> work) {
    std::exception_ptr error;
    std::optional<T> result;
    boost::asio::co_spawn(context_, std::move(work), [&](std::exception_ptr e, T value) {
      error = e;
      if (!e) result.emplace(std::move(value));
    });
    context_.run();
    context_.restart();
    if (error) std::rethrow_exception(error);
    return std::move(*result);
  }

 private:
  boost::asio::io_context context_;
};

// Everything one similarity benchmark needs, built before timing starts.
template <class Formatter = rf::SimilarityBasedReferenceFormatter>
struct SimilarityRig {
  explicit SimilarityRig(const Dataset& data)
      : emitter(std::make_shared<orvo_test::RecordingEmitter>()),
        formatter(std::make_shared<Formatter>(
            std::make_shared<PrecomputedEMInvoker>(data.vectors.query, data.vectors.rows),
            kThreshold, /*stringify=*/true)) {
    kwargs.emplace("response", kResponse);
    kwargs.emplace("chunks", data.chunk_list);
    kwargs.emplace("event_emitter", emitter);
  }

  std::shared_ptr<orvo_test::RecordingEmitter> emitter;
  std::shared_ptr<Formatter> formatter;
  orvo_core::Kwargs kwargs;
};

// Whether `references` lists exactly `kept` entries.
bool lists_entries(const Any& references, std::size_t kept) {
  if (!references.is_string()) return false;
  const std::string& text = references.as_string();
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) == kept;
}

std::size_t arg(const benchmark::State& state, std::size_t index) {
  return static_cast<std::size_t>(state.range(index));
}

// ---------------------------------------------------------------------------------------------
// The cosine kernel, on its own.

void BM_Cosine(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  const std::span<const float> query(data.vectors.query);
  for (auto _ : state) {
    std::vector<double> scores = orvo_core::cosine(query, data.vectors.rows);
    benchmark::DoNotOptimize(scores.data());
    benchmark::ClobberMemory();
  }
  set_counters(state, data.n, embedding_bytes(data));
}

// ---------------------------------------------------------------------------------------------
// A whole `_run` of the similarity-based formatter.

void BM_SimilarityRun(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<> rig(data);
  Loop loop;
  // One untimed run checks that the data keeps what it was built to keep.
  const Any first = loop.run(rig.formatter->_run(rig.kwargs));
  if (!lists_entries(first, data.vectors.kept) || rig.emitter->events.size() != 1) {
    state.SkipWithError("the formatter did not keep the chunks the data was built to keep");
    return;
  }
  rig.emitter->events.clear();
  for (auto _ : state) {
    const Any references = loop.run(rig.formatter->_run(rig.kwargs));
    benchmark::DoNotOptimize(&references);
    // Timed: a real sink consumes the event as well.
    rig.emitter->events.clear();
  }
  set_counters(state, data.n, embedding_bytes(data));
}

// The same through `run_sync`, which builds an event loop per call.
void BM_SimilarityRunSync(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<> rig(data);
  for (auto _ : state) {
    const Any references = orvo_core::run_sync(rig.formatter->_run(rig.kwargs));
    benchmark::DoNotOptimize(&references);
    rig.emitter->events.clear();
  }
  set_counters(state, data.n, embedding_bytes(data));
}

// ---------------------------------------------------------------------------------------------
// The read bound: one vectorised pass over the very buffer the formatter scores.

void BM_ReadBound(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  const float* floats = data.vectors.rows.data();
  const std::size_t count = data.n * data.dim;
  for (auto _ : state) {
    float sum = orvo_bench::sum_floats(floats, count);
    benchmark::DoNotOptimize(sum);
  }
  set_counters(state, data.n, embedding_bytes(data));
}

// ---------------------------------------------------------------------------------------------
// The LM-based formatter's context building.

// Answers at once with a prepared map per batch that lists the label of the batch's first chunk.
class InstantLMRequestProcessor : public orvo_inference::LMRequestProcessor {
 public:
  explicit InstantLMRequestProcessor(std::vector<Any> answers) : answers_(std::move(answers)) {}

  orvo_core::Awaitable<Any> process(
      std::shared_ptr<orvo_core::Map> /*prompt_kwargs*/, Any /*history*/ = {},
      std::shared_ptr<orvo_core::EventEmitter> /*event_emitter*/ = nullptr,
      Any /*system_multimodal_contents*/ = {}, Any /*user_multimodal_contents*/ = {}) override {
    const Any& answer = answers_[next_];
    next_ = (next_ + 1) % answers_.size();
    co_return answer;
  }

 private:
  std::vector<Any> answers_;
  std::size_t next_ = 0;
};

rf::Chunks chunk_vector(std::size_t n) {
  const auto& all = chunks(n);
  return rf::Chunks(all.begin(), all.end());
}

std::shared_ptr<rf::LMBasedReferenceFormatter> make_lm_formatter(const rf::Chunks& input) {
  const auto batch = static_cast<std::size_t>(rf::DEFAULT_BATCH_SIZE);
  std::vector<Any> answers;
  for (std::size_t i = 0; i < input.size(); i += batch) {
    orvo_core::Map answer;
    answer.emplace(rf::DEFAULT_REFERENCE_METADATA,
                   orvo_core::List{orvo_core::get(input[i]->metadata, "file_name")});
    answers.emplace_back(std::move(answer));
  }
  return std::make_shared<rf::LMBasedReferenceFormatter>(
      std::make_shared<InstantLMRequestProcessor>(std::move(answers)));
}

void BM_LMFormatBatchContext(benchmark::State& state) {
  const rf::Chunks input = chunk_vector(arg(state, 0));
  const auto formatter = make_lm_formatter(input);
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string context = formatter->_format_batch_context(input);
    bytes = context.size();
    benchmark::DoNotOptimize(context.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void BM_LMGetRelevantChunks(benchmark::State& state) {
  const rf::Chunks input = chunk_vector(arg(state, 0));
  const auto formatter = make_lm_formatter(input);
  Loop loop;
  const std::size_t expected =
      (input.size() + static_cast<std::size_t>(rf::DEFAULT_BATCH_SIZE) - 1) /
      static_cast<std::size_t>(rf::DEFAULT_BATCH_SIZE);
  if (loop.run(formatter->_get_relevant_chunks(kResponse, input)).size() != expected) {
    state.SkipWithError("the formatter did not keep one chunk per batch");
    return;
  }
  for (auto _ : state) {
    // Timed: the copy of the chunk list that the call takes (N reference counts).
    const rf::Chunks relevant = loop.run(formatter->_get_relevant_chunks(kResponse, input));
    benchmark::DoNotOptimize(relevant.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
}

// ---------------------------------------------------------------------------------------------
// Breakdown of the similarity `_run`: the same call with parts cut out, and the parts alone.

// `_run` up to the hand-over to `format_reference`: kwargs copy, input checks, chunk list.
class InputOnlyFormatter : public rf::SimilarityBasedReferenceFormatter {
 public:
  using SimilarityBasedReferenceFormatter::SimilarityBasedReferenceFormatter;
  orvo_core::Awaitable<Any> format_reference(
      std::string /*response*/, rf::Chunks /*chunks*/,
      std::shared_ptr<orvo_core::EventEmitter> /*event_emitter*/ = nullptr) override {
    co_return Any();
  }
};

// `_run` without rendering: an empty reference text streams nothing either.
class NoRenderingFormatter : public rf::SimilarityBasedReferenceFormatter {
 public:
  using SimilarityBasedReferenceFormatter::SimilarityBasedReferenceFormatter;
  [[nodiscard]] std::string _format_as_string(const rf::Chunks& /*chunks*/) const override {
    return {};
  }
};

void BM_RunInputOnly(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<InputOnlyFormatter> rig(data);
  Loop loop;
  for (auto _ : state) {
    const Any result = loop.run(rig.formatter->_run(rig.kwargs));
    benchmark::DoNotOptimize(&result);
  }
  set_counters(state, data.n, embedding_bytes(data));
}

void BM_RunWithoutRendering(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<NoRenderingFormatter> rig(data);
  Loop loop;
  for (auto _ : state) {
    const Any result = loop.run(rig.formatter->_run(rig.kwargs));
    benchmark::DoNotOptimize(&result);
  }
  set_counters(state, data.n, embedding_bytes(data));
}

// The chunks that a run keeps, in the order it keeps them.
rf::Chunks kept_chunks(const Dataset& data) {
  SimilarityRig<> rig(data);
  Loop loop;
  return loop.run(rig.formatter->_get_relevant_chunks(kResponse, chunk_vector(data.n)));
}

void BM_FormatAsString(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  const rf::Chunks kept = kept_chunks(data);
  SimilarityRig<> rig(data);
  for (auto _ : state) {
    const std::string text = rig.formatter->_format_as_string(kept);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kept.size()));
}

void BM_ReferencePayload(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<> rig(data);
  const std::string text = rig.formatter->_format_as_string(kept_chunks(data));
  for (auto _ : state) {
    const std::string payload = rf::reference_payload(text);
    benchmark::DoNotOptimize(payload.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void BM_KwargsCopy(benchmark::State& state) {
  const Dataset& data = dataset(arg(state, 0), arg(state, 1));
  SimilarityRig<> rig(data);
  for (auto _ : state) {
    orvo_core::Kwargs copy = rig.kwargs;
    benchmark::DoNotOptimize(&copy);
  }
}

// ---------------------------------------------------------------------------------------------
// Registration.

const std::vector<std::int64_t> kSizes = {100, 1000, 10000};
const std::vector<std::int64_t> kDims = {384, 1536};

void all_sizes(benchmark::internal::Benchmark* b) {
  b->ArgNames({"N", "D"});
  for (const auto d : kDims) {
    for (const auto n : kSizes) b->Args({n, d});
  }
}

void cache_resident(benchmark::internal::Benchmark* b) {
  b->ArgNames({"N", "D"});
  for (const auto d : kDims) b->Args({64, d});
}

void sizes_at_384(benchmark::internal::Benchmark* b) {
  b->ArgNames({"N", "D"});
  for (const auto n : kSizes) b->Args({n, 384});
}

BENCHMARK(BM_Cosine)->Apply(cache_resident)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_ReadBound)->Apply(cache_resident)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_SimilarityRun)->Apply(all_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadBound)->Apply(all_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SimilarityRunSync)
    ->ArgNames({"N", "D"})
    ->Args({100, 384})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LMFormatBatchContext)->ArgName("N")->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LMGetRelevantChunks)->ArgName("N")->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Cosine)->Apply(all_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RunWithoutRendering)->Apply(all_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RunInputOnly)->Apply(all_sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FormatAsString)->Apply(sizes_at_384)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReferencePayload)->Apply(sizes_at_384)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KwargsCopy)->ArgNames({"N", "D"})->Args({100, 384})->Unit(benchmark::kNanosecond);

// ---------------------------------------------------------------------------------------------
// The summary: ratios between medians of one run, a breakdown of `_run`, and the targets.
// CPU time, not real time: the machine is shared, and time spent preempted is not ours.

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      Sample sample;
      sample.seconds = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (const auto it = run.counters.find("bytes_per_second"); it != run.counters.end()) {
        sample.bytes_per_second = it->second.value;
      }
      sample.median = median;
      const std::string key = run.run_name.function_name + "/" + run.run_name.args;
      // A median wins over single repetitions; without repetitions the one run is the value.
      auto& slot = samples_[key];
      if (median || !slot.median) slot = sample;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::ostream& out = GetOutputStream();
    out << std::fixed << std::setprecision(2);
    out << "\nSummary: medians of CPU time per iteration; GB/s = 1e9 bytes/s\n";
    out << "Whole _run of the similarity-based formatter / read bound of the same N x D floats\n";
    out << "       N     D     _run (us)  read bound (us)    ratio  read GB/s  cosine (us)"
           "  cosine/read\n";
    for (const auto d : kDims) {
      for (const auto n : kSizes) {
        const std::string args = sizes(n, d);
        const Sample* run = find("BM_SimilarityRun/" + args);
        const Sample* read = find("BM_ReadBound/" + args);
        const Sample* cosine = find("BM_Cosine/" + args);
        if (run == nullptr || read == nullptr) continue;
        out << std::setw(8) << n << std::setw(6) << d << std::setw(14) << us(run) << std::setw(17)
            << us(read) << std::setw(8) << run->seconds / read->seconds << 'x' << std::setw(11)
            << read->bytes_per_second / 1e9;
        if (cosine != nullptr) {
          out << std::setw(13) << us(cosine) << std::setw(12) << cosine->seconds / read->seconds
              << 'x';
        }
        out << '\n';
      }
    }

    out << "Breakdown of _run (us): checks = _run cut at format_reference; scoring = _run "
           "without rendering - checks;\nrendering = _run - _run without rendering (references, "
           "payload, event)\n";
    out << "       N     D    checks   scoring  rendering      _run\n";
    for (const auto d : kDims) {
      for (const auto n : kSizes) {
        const std::string args = sizes(n, d);
        const Sample* run = find("BM_SimilarityRun/" + args);
        const Sample* bare = find("BM_RunWithoutRendering/" + args);
        const Sample* checks = find("BM_RunInputOnly/" + args);
        if (run == nullptr || bare == nullptr || checks == nullptr) continue;
        out << std::setw(8) << n << std::setw(6) << d << std::setw(10) << us(checks)
            << std::setw(10) << us(bare) - us(checks) << std::setw(11) << us(run) - us(bare)
            << std::setw(10) << us(run) << '\n';
      }
    }

    const Sample* run100 = find("BM_SimilarityRun/N:100/D:384");
    const Sample* sync100 = find("BM_SimilarityRunSync/N:100/D:384");
    if (run100 != nullptr && sync100 != nullptr) {
      out << "run_sync / reused event loop at N=100 D=384: " << us(sync100) << " us / "
          << us(run100) << " us = " << sync100->seconds / run100->seconds << "x\n";
    }

    out << "Targets\n";
    const Sample* run_large = find("BM_SimilarityRun/N:10000/D:1536");
    const Sample* read_large = find("BM_ReadBound/N:10000/D:1536");
    if (run_large != nullptr && read_large != nullptr) {
      const double ratio = run_large->seconds / read_large->seconds;
      target(out, "_run N=10000 D=1536 at most 1.3x the read bound", ratio, "x", ratio <= 1.3);
    }
    if (run100 != nullptr) {
      target(out, "_run N=100 D=384 under 5 us", us(run100), "us", run100->seconds < 5e-6);
    }
    for (const auto d : kDims) {
      if (const Sample* cosine = find("BM_Cosine/" + sizes(64, d))) {
        target(out, "cosine N=64 D=" + std::to_string(d) + " (cache-resident) at least 60 GB/s",
               cosine->bytes_per_second / 1e9, "GB/s", cosine->bytes_per_second >= 60e9);
      }
    }
  }

 private:
  struct Sample {
    double seconds = 0;
    double bytes_per_second = 0;
    bool median = false;
  };

  static std::string sizes(std::int64_t n, std::int64_t d) {
    return "N:" + std::to_string(n) + "/D:" + std::to_string(d);
  }

  static double us(const Sample* sample) { return sample->seconds * 1e6; }

  const Sample* find(const std::string& key) const {
    const auto it = samples_.find(key);
    return it != samples_.end() ? &it->second : nullptr;
  }

  static void target(std::ostream& out, const std::string& what, double value, const char* unit,
                     bool met) {
    out << "  " << std::left << std::setw(56) << what << std::right << std::setw(10) << value << ' '
        << std::left << std::setw(5) << unit << std::right << (met ? "met" : "MISSED") << '\n';
  }

  std::map<std::string, Sample> samples_;
};

// "model name (family F, model M)" from /proc/cpuinfo: virtual machines often give only a
// generic name, and the family tells the microarchitecture.
std::string cpu_model() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line, name = "unknown", family, model;
  const auto value = [&line] {
    const auto colon = line.find(':');
    const auto start = colon == std::string::npos ? colon : line.find_first_not_of(' ', colon + 1);
    return start == std::string::npos ? std::string() : line.substr(start);
  };
  while (std::getline(cpuinfo, line) && !line.empty()) {
    if (line.rfind("model name", 0) == 0) name = value();
    if (line.rfind("cpu family", 0) == 0) family = value();
    if (line.rfind("model\t", 0) == 0) model = value();
  }
  if (!family.empty()) name += " (family " + family + ", model " + model + ")";
  return name;
}

std::string cpu_affinity() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return "unknown";
  std::string cpus;
  for (std::size_t cpu = 0; cpu < static_cast<std::size_t>(CPU_SETSIZE); ++cpu) {
    if (!CPU_ISSET(cpu, &set)) continue;
    if (!cpus.empty()) cpus.push_back(',');
    cpus += std::to_string(cpu);
  }
  return cpus;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("cpu_model", cpu_model());
  benchmark::AddCustomContext("cpu_affinity", cpu_affinity());
  benchmark::AddCustomContext("cosine_target", std::string(orvo_core::cosine_target()));
  benchmark::AddCustomContext("read_bound_target", std::string(orvo_bench::sum_floats_target()));
  SummaryReporter reporter(isatty(STDOUT_FILENO) != 0 ? benchmark::ConsoleReporter::OO_Color
                                                      : benchmark::ConsoleReporter::OO_None);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
