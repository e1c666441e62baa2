// Ten thousand pipeline turns in flight at once on one event loop. Each turn's synthesizer
// answers and its formatter cites, against collaborators that answer late and sometimes fail,
// mostly through component instances that all turns share. Every turn must get exactly its own
// work: its events, its result or its own error, and nothing may be kept once all is done.
#include <malloc.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include "orvo_core/schema/chunk.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "support/async_fakes.hpp"
#include "support/live_counter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::Embedding;
using orvo_core::Embeddings;
using orvo_core::EventLevel;
using orvo_core::EventType;
using orvo_core::Map;
using orvo_test::AsyncEMInvoker;
using orvo_test::AsyncLMRequestProcessor;
using orvo_test::DelayedRecordingEmitter;
using orvo_test::LiveToken;
using Reply = AsyncLMRequestProcessor::Reply;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

constexpr std::size_t kTurns = 10'000;
constexpr std::uint32_t kSeed = 20'240'611;
constexpr double kFaultRate = 0.05;  // per collaborator call
constexpr std::int64_t kSharedBatch = 3;
constexpr double kThreshold = rf::DEFAULT_THRESHOLD;
constexpr std::chrono::microseconds kMaxDelay{5'000};
// glibc keeps up to 7 freed blocks of each size up to 1032 bytes per thread (its tcache), and
// mallinfo2 counts them as in use: at most this many bytes.
constexpr std::int64_t kFullTcache = 7 * (64 * 32 + 16 * (63 * 64 / 2));

// Nominal cosines of a chunk with its turn's answer. None is near the threshold, so float
// rounding cannot move a chunk across it; the last entry is a zero vector, which scores 0.
constexpr std::array<double, 10> kScores{-0.9, -0.2, 0.0, 0.3, 0.45, 0.55, 0.7, 0.85, 1.0, 0.0};
constexpr std::size_t kZeroVector = kScores.size() - 1;

enum class Step : std::uint8_t { answer, embed_response, embed_contents, judge };

std::string name(Step step) {
  switch (step) {
    case Step::answer:
      return "answer";
    case Step::embed_response:
      return "embed_response";
    case Step::embed_contents:
      return "embed_contents";
    case Step::judge:
      return "judge";
  }
  return "?";
}

// Where a turn's collaborator fails: the call, and the tokens already streamed (answer) or the
// batch (judge).
struct Fault {
  Step step;
  std::size_t at;
};

// A collaborator's failure, naming the turn and the call it belongs to.
class TurnFault : public std::runtime_error {
 public:
  TurnFault(std::size_t turn, Fault fault)
      : std::runtime_error("turn " + std::to_string(turn) + " failed at " + name(fault.step)),
        turn(turn),
        fault(fault) {}
  std::size_t turn;
  Fault fault;
};

// A chunk of a derived class, which formatters must take as a chunk too.
class TurnChunk : public orvo_core::Chunk {
 public:
  using Chunk::Chunk;
};

// What a turn does, drawn from the seed before anything runs.
struct Plan {
  bool own_components = false;  // its own synthesizer, formatter and fakes
  bool judged = false;          // LM-based formatter instead of the similarity one
  bool slow_emitter = false;    // its emitter delays every event
  bool chunk_subclass = false;
  std::int64_t batch = kSharedBatch;  // chunks per judge request
  std::size_t tokens = 1;             // of the streamed answer
  std::vector<std::size_t> scores;    // per chunk, an index into kScores
  std::vector<bool> linked;           // per chunk, whether it has an address
  std::optional<Fault> fault;
};

// ---- The texts of turn `id`. Every text names its turn, so a fake can tell whose it is.

std::string query_of(std::size_t id) {
  return "Question " + std::to_string(id) + "?";
}
std::string context_of(std::size_t id) {
  return "Context of turn " + std::to_string(id) + ".";
}
std::string content_of(std::size_t id, std::size_t k) {
  return "Chunk " + std::to_string(k) + " of turn " + std::to_string(id) + ".";
}
std::string title_of(std::size_t id, std::size_t k) {
  return "T" + std::to_string(id) + "-" + std::to_string(k);
}
std::string url_of(std::size_t id, std::size_t k) {
  return "docs/" + std::to_string(id) + "/" + std::to_string(k) + ".md";
}
std::vector<std::string> answer_tokens(std::size_t id, std::size_t count) {
  std::vector<std::string> tokens{"Turn " + std::to_string(id), " says", " hello", " again"};
  tokens.resize(count);
  return tokens;
}
std::string answer_of(std::size_t id, std::size_t count) {
  std::string answer;
  for (const auto& token : answer_tokens(id, count)) answer += token;
  return answer;
}

// The number right after the first `marker` in `text`.
std::optional<std::size_t> number_after(std::string_view text, std::string_view marker) {
  const auto at = text.find(marker);
  if (at == std::string_view::npos) return std::nullopt;
  const char* first = text.data() + at + marker.size();
  std::size_t value = 0;
  const auto [end, error] = std::from_chars(first, text.data() + text.size(), value);
  if (error != std::errc() || end == first) return std::nullopt;
  return value;
}

// ---- Embeddings: each turn's answer points its own way, and each chunk sits at its nominal
// cosine from it. Equal scores give identical vectors, so ties are exact.

double angle_of(std::size_t id) {
  return static_cast<double>(id % 628) / 100.0;
}

Embedding answer_vector(std::size_t id) {
  const double angle = angle_of(id);
  return {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
}

Embedding chunk_vector(std::size_t id, std::size_t score) {
  if (score == kZeroVector) return {0, 0};
  const double angle = angle_of(id) + std::acos(kScores[score]);
  const double length = static_cast<double>(1U << (score % 3));  // length must not matter
  return {static_cast<float>(length * std::cos(angle)),
          static_cast<float>(length * std::sin(angle))};
}

bool relevant(std::size_t score) {
  return score != kZeroVector && kScores[score] >= kThreshold;
}

// ---- What each turn must see, computed from its plan alone.

using Seen = std::tuple<EventLevel, EventType, std::string>;

std::string repr_of(std::string_view text) {
  std::string out = "'";
  for (const char c : text) out += c == '\n' ? std::string("\\n") : std::string(1, c);
  return out + "'";
}

std::string json_string(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) out += c == '\n' ? std::string("\\n") : std::string(1, c);
  return out + "\"";
}

struct Expected {
  std::string answer;
  std::string references;
  std::vector<Seen> events;
  std::vector<std::string> calls;
};

std::string judge_call(std::size_t batch) {
  return "judge " + std::to_string(batch);
}

Expected expect(std::size_t id, const Plan& plan) {
  Expected e;
  e.answer = answer_of(id, plan.tokens);
  const auto status = [&e](std::string text) {
    e.events.emplace_back(EventLevel::INFO, EventType::STATUS, std::move(text));
  };
  const auto failed_at = [&plan](Step step, std::size_t at) {
    return plan.fault && plan.fault->step == step && plan.fault->at == at;
  };

  status("[Start 'StuffResponseSynthesizer'] Processing query: " + repr_of(query_of(id)));
  e.calls.emplace_back("answer");
  const auto tokens = answer_tokens(id, plan.tokens);
  const bool answer_fails = plan.fault && plan.fault->step == Step::answer;
  const std::size_t streamed = answer_fails ? plan.fault->at : tokens.size();
  for (std::size_t i = 0; i < streamed; ++i) {
    e.events.emplace_back(EventLevel::INFO, EventType::RESPONSE, tokens[i]);
  }
  if (answer_fails) return e;
  status("[Finished 'StuffResponseSynthesizer'] Successfully synthesized response:\n" +
         repr_of(e.answer));

  const std::string formatter =
      plan.judged ? "LMBasedReferenceFormatter" : "SimilarityBasedReferenceFormatter";
  const std::size_t count = plan.scores.size();
  status("[Start '" + formatter + "'] Formatting references using " + std::to_string(count) +
         " candidate chunks.");
  std::vector<std::size_t> kept;
  if (plan.judged) {
    const auto batch = static_cast<std::size_t>(plan.batch);
    for (std::size_t b = 0; b * batch < count; ++b) {
      e.calls.push_back(judge_call(b));
      if (failed_at(Step::judge, b)) return e;
    }
    for (std::size_t k = 0; k < count; ++k) {
      if (relevant(plan.scores[k])) kept.push_back(k);
    }
  } else if (count > 0) {
    e.calls.emplace_back("embed_response");
    if (failed_at(Step::embed_response, 0)) return e;
    e.calls.emplace_back("embed_contents");
    if (failed_at(Step::embed_contents, 0)) return e;
    for (std::size_t k = 0; k < count; ++k) {
      if (relevant(plan.scores[k])) kept.push_back(k);
    }
    std::stable_sort(kept.begin(), kept.end(), [&plan](std::size_t a, std::size_t b) {
      return kScores[plan.scores[a]] > kScores[plan.scores[b]];
    });
  }
  for (std::size_t i = 0; i < kept.size(); ++i) {
    e.references += i == 0 ? "References:\n" : "\n";
    const std::size_t k = kept[i];
    e.references += std::to_string(i + 1) + ". ";
    e.references +=
        plan.linked[k] ? "[" + title_of(id, k) + "](" + url_of(id, k) + ")" : title_of(id, k);
  }
  if (!e.references.empty()) {
    e.events.emplace_back(
        EventLevel::INFO, EventType::DATA,
        R"({"data_type": "reference", "data_value": )" + json_string(e.references) + "}");
  }
  status("[Finished '" + formatter + "'] Successfully formatted references:\n" +
         repr_of(e.references));
  return e;
}

Plan draw_plan(std::mt19937& rng) {
  std::bernoulli_distribution one_in_4(0.25);
  std::bernoulli_distribution one_in_3(1.0 / 3);
  std::bernoulli_distribution half(0.5);
  std::bernoulli_distribution faults(kFaultRate);
  std::uniform_int_distribution<std::size_t> tokens(1, 4);
  std::uniform_int_distribution<std::size_t> chunks(0, 8);
  std::uniform_int_distribution<std::size_t> score(0, kScores.size() - 1);
  std::uniform_int_distribution<std::int64_t> batch(1, 4);

  Plan plan;
  plan.own_components = one_in_4(rng);
  plan.judged = one_in_4(rng);
  plan.slow_emitter = one_in_3(rng);
  plan.chunk_subclass = one_in_4(rng);
  if (plan.own_components && plan.judged) plan.batch = batch(rng);
  plan.tokens = tokens(rng);
  const std::size_t count = chunks(rng);
  for (std::size_t k = 0; k < count; ++k) {
    plan.scores.push_back(score(rng));
    plan.linked.push_back(half(rng));
  }
  // The collaborator calls the turn makes, in order; the first to fail ends the turn.
  std::vector<Fault> calls{{Step::answer, 0}};
  if (plan.judged) {
    for (std::size_t b = 0; b * static_cast<std::size_t>(plan.batch) < count; ++b) {
      calls.push_back({Step::judge, b});
    }
  } else if (count > 0) {
    calls.push_back({Step::embed_response, 0});
    calls.push_back({Step::embed_contents, 0});
  }
  for (Fault call : calls) {
    if (!faults(rng)) continue;
    if (call.step == Step::answer) {
      call.at = std::uniform_int_distribution<std::size_t>(0, plan.tokens)(rng);
    }
    plan.fault = call;
    break;
  }
  return plan;
}

// ---- The soak.

struct Turn {
  std::size_t id = 0;
  Plan plan;
  std::shared_ptr<Map> state;
  std::shared_ptr<DelayedRecordingEmitter> emitter;
  orvo_core::List chunks;
  std::shared_ptr<orvo_core::Component> synthesizer;
  std::shared_ptr<orvo_core::Component> formatter;
  std::vector<std::string> calls;  // collaborator calls, as the fakes saw them
  std::size_t outcomes = 0;        // completion handler runs
  std::exception_ptr error;
  Any response;
  Any result;
};

std::int64_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

// How far the heap in use may move across a run. ctest turns the tcache off for this test, so
// the heap must come back to within a few blocks; run by hand, a full cache is allowed for.
std::int64_t heap_slack() {
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  const bool no_tcache =
      tunables != nullptr &&
      std::string_view(tunables).find("glibc.malloc.tcache_count=0") != std::string_view::npos;
  return (no_tcache ? 0 : kFullTcache) + 4 * 1024;
}

class Soak {
 public:
  Soak(std::size_t count, std::uint32_t seed) : turns(count), delay_(seed, kMaxDelay) {
    shared_synthesizer_ = synthesizer(std::nullopt);
    shared_similarity_ = similarity(std::nullopt);
    shared_judge_ = judged_formatter(std::nullopt, kSharedBatch);
    std::mt19937 rng(seed);
    for (std::size_t id = 0; id < count; ++id) {
      Turn& turn = turns[id];
      turn.id = id;
      turn.plan = draw_plan(rng);
      const Plan& plan = turn.plan;
      turn.state = std::make_shared<Map>();
      turn.state->emplace("context", context_of(id));
      turn.state->emplace("live", Any(std::make_shared<LiveToken>()));
      turn.emitter =
          std::make_shared<DelayedRecordingEmitter>(plan.slow_emitter ? &delay_ : nullptr);
      for (std::size_t k = 0; k < plan.scores.size(); ++k) {
        Map metadata;
        metadata.emplace("file_name", title_of(id, k));
        if (plan.linked[k]) metadata.emplace("file_url", url_of(id, k));
        metadata.emplace("live", Any(std::make_shared<LiveToken>()));
        std::shared_ptr<orvo_core::Chunk> chunk;
        if (plan.chunk_subclass) {
          chunk = std::make_shared<TurnChunk>(content_of(id, k), std::move(metadata));
        } else {
          chunk = std::make_shared<orvo_core::Chunk>(content_of(id, k), std::move(metadata));
        }
        turn.chunks.emplace_back(std::move(chunk));
      }
      const std::optional<std::size_t> owner =
          plan.own_components ? std::optional<std::size_t>(id) : std::nullopt;
      turn.synthesizer = plan.own_components ? synthesizer(owner) : shared_synthesizer_;
      if (plan.judged) {
        turn.formatter = plan.own_components ? judged_formatter(owner, plan.batch) : shared_judge_;
      } else {
        turn.formatter = plan.own_components ? similarity(owner) : shared_similarity_;
      }
    }
  }

  // Spawns every turn on one io_context and runs it until all are done.
  void run() {
    boost::asio::io_context io;
    for (Turn& turn : turns) {
      boost::asio::co_spawn(io, run_turn(this, &turn),
                            [this, &turn](std::exception_ptr error, Any result) {
                              ++turn.outcomes;
                              turn.error = std::move(error);
                              turn.result = std::move(result);
                              --in_flight_;
                              ++finished_;
                            });
    }
    if (!kAddressSanitizer) boost::asio::co_spawn(io, sample_heap(this), boost::asio::detached);
    const auto start = std::chrono::steady_clock::now();
    io.run();
    run_time = std::chrono::steady_clock::now() - start;
  }

  std::vector<Turn> turns;
  std::size_t peak_in_flight = 0;
  std::int64_t peak_heap = 0;
  std::size_t foreign_calls = 0;       // an own-instance fake called for another turn
  std::size_t unreadable_calls = 0;    // a fake could not tell whose call it was
  std::vector<std::string> misplaced;  // a call that carried another turn's texts
  std::chrono::steady_clock::duration run_time{};

 private:
  static orvo_core::Awaitable<Any> run_turn(Soak* soak, Turn* turn) {
    soak->peak_in_flight = std::max(soak->peak_in_flight, ++soak->in_flight_);
    orvo_core::Kwargs ask;
    ask.emplace("query", query_of(turn->id));
    ask.emplace("state_variables", Any(turn->state));
    ask.emplace("event_emitter", Any(turn->emitter));
    Any response = co_await turn->synthesizer->run(std::move(ask));
    turn->response = response;
    orvo_core::Kwargs cite;
    cite.emplace("response", std::move(response));
    cite.emplace("chunks", turn->chunks);
    cite.emplace("event_emitter", Any(turn->emitter));
    co_return co_await turn->formatter->run(std::move(cite));
  }

  static orvo_core::Awaitable<void> sample_heap(Soak* soak) {
    while (soak->finished_ < soak->turns.size()) {
      soak->peak_heap = std::max(soak->peak_heap, heap_in_use());
      co_await orvo_test::sleep_for(std::chrono::milliseconds(2));
    }
  }

  // The turn a text belongs to, logged as one call of `label`; a text that names no turn is
  // an error the turn cannot be blamed for.
  Turn& call(std::optional<std::size_t> id, std::optional<std::size_t> owner, std::string label) {
    if (!id || *id >= turns.size()) {
      ++unreadable_calls;
      throw std::logic_error("a call that names no turn");
    }
    if (owner && *owner != *id) ++foreign_calls;
    Turn& turn = turns[*id];
    turn.calls.push_back(std::move(label));
    return turn;
  }

  void fail_if_planned(const Turn& turn, Step step, std::size_t at) const {
    const auto& fault = turn.plan.fault;
    if (fault && fault->step == step && fault->at == at) throw TurnFault(turn.id, *fault);
  }

  // The streamed answer, read from the prompt the synthesizer built in the turn's own map.
  Reply answer(const Map& prompt, std::optional<std::size_t> owner) {
    const Any query = orvo_core::get(prompt, "query");
    const auto id = query.is_string() ? number_after(query.as_string(), "Question ") : std::nullopt;
    Turn& turn = call(id, owner, "answer");
    if (orvo_core::get(prompt, "context") != Any(context_of(turn.id))) {
      misplaced.push_back("turn " + std::to_string(turn.id) + " prompt: " + Any(prompt).repr());
    }
    Reply reply;
    reply.tokens = answer_tokens(turn.id, turn.plan.tokens);
    reply.result = answer_of(turn.id, turn.plan.tokens);
    const auto& fault = turn.plan.fault;
    if (fault && fault->step == Step::answer) {
      reply.error = std::make_exception_ptr(TurnFault(turn.id, *fault));
      reply.error_after = fault->at;
    }
    return reply;
  }

  Embeddings embed(const std::vector<std::string_view>& texts, bool single,
                   std::optional<std::size_t> owner) {
    if (single) {
      Turn& turn = call(number_after(texts.at(0), "Turn "), owner, "embed_response");
      if (texts[0] != answer_of(turn.id, turn.plan.tokens)) {
        misplaced.push_back("turn " + std::to_string(turn.id) + " embeds " + std::string(texts[0]));
      }
      fail_if_planned(turn, Step::embed_response, 0);
      return Embeddings::from_rows({answer_vector(turn.id)});
    }
    const auto id = texts.empty() ? std::nullopt : number_after(texts[0], "of turn ");
    Turn& turn = call(id, owner, "embed_contents");
    std::vector<Embedding> rows;
    for (std::size_t k = 0; k < texts.size(); ++k) {
      if (k >= turn.plan.scores.size() || texts[k] != content_of(turn.id, k)) {
        misplaced.push_back("turn " + std::to_string(turn.id) + " embeds " + std::string(texts[k]));
        rows.push_back({0, 0});
        continue;
      }
      rows.push_back(chunk_vector(turn.id, turn.plan.scores[k]));
    }
    if (texts.size() != turn.plan.scores.size()) {
      misplaced.push_back("turn " + std::to_string(turn.id) + " embeds " +
                          std::to_string(texts.size()) + " contents");
    }
    fail_if_planned(turn, Step::embed_contents, 0);
    return Embeddings::from_rows(rows);
  }

  // Judges one batch as the model would: the labels of the chunks at or above the threshold.
  Reply judge(const Map& prompt, std::optional<std::size_t> owner) {
    const Any response = orvo_core::get(prompt, "response");
    const Any context = orvo_core::get(prompt, "context");
    const auto id =
        response.is_string() ? number_after(response.as_string(), "Turn ") : std::nullopt;
    if (!id || *id >= turns.size() || !context.is_string()) call(std::nullopt, owner, "judge");
    const Turn& whose = turns[*id];
    // The labels shown, in order; they say which batch this is.
    std::vector<std::size_t> shown;
    const std::string_view text = context.as_string();
    for (auto at = text.find("file_name: "); at != std::string_view::npos;
         at = text.find("file_name: ", at + 1)) {
      const auto line = text.substr(at, text.find('\n', at) - at);
      const auto label_turn = number_after(line, ": T");
      const auto k = number_after(line, "-");
      if (label_turn != id || !k) {
        misplaced.push_back("turn " + std::to_string(*id) + " judges " + std::string(line));
        continue;
      }
      shown.push_back(*k);
    }
    const auto batch = static_cast<std::size_t>(whose.plan.batch);
    const std::size_t b = shown.empty() ? 0 : shown[0] / batch;
    std::vector<std::size_t> expected_shown;
    for (std::size_t k = b * batch; k < std::min(whose.plan.scores.size(), (b + 1) * batch); ++k) {
      expected_shown.push_back(k);
    }
    Turn& turn = call(id, owner, shown == expected_shown ? judge_call(b) : "judge ?");
    fail_if_planned(turn, Step::judge, b);
    orvo_core::List labels;
    for (const std::size_t k : shown) {
      if (k < turn.plan.scores.size() && relevant(turn.plan.scores[k])) {
        labels.emplace_back(title_of(turn.id, k));
      }
    }
    Map answer;
    answer.emplace("file_name", std::move(labels));
    Reply reply;
    reply.result = std::move(answer);
    return reply;
  }

  std::shared_ptr<rs::StuffResponseSynthesizer> synthesizer(std::optional<std::size_t> owner) {
    auto processor = std::make_shared<AsyncLMRequestProcessor>(
        delay_, [this, owner](const Map& prompt) { return answer(prompt, owner); });
    return std::make_shared<rs::StuffResponseSynthesizer>(std::move(processor));
  }

  std::shared_ptr<rf::SimilarityBasedReferenceFormatter> similarity(
      std::optional<std::size_t> owner) {
    auto invoker = std::make_shared<AsyncEMInvoker>(
        delay_, [this, owner](const std::vector<std::string_view>& texts, bool single) {
          return embed(texts, single, owner);
        });
    return std::make_shared<rf::SimilarityBasedReferenceFormatter>(std::move(invoker));
  }

  std::shared_ptr<rf::LMBasedReferenceFormatter> judged_formatter(std::optional<std::size_t> owner,
                                                                  std::int64_t batch) {
    auto processor = std::make_shared<AsyncLMRequestProcessor>(
        delay_, [this, owner](const Map& prompt) { return judge(prompt, owner); });
    return std::make_shared<rf::LMBasedReferenceFormatter>(std::move(processor), Any(batch));
  }

  orvo_test::RandomDelay delay_;
  std::shared_ptr<orvo_core::Component> shared_synthesizer_;
  std::shared_ptr<orvo_core::Component> shared_similarity_;
  std::shared_ptr<orvo_core::Component> shared_judge_;
  std::size_t in_flight_ = 0;
  std::size_t finished_ = 0;
};

// ---- Checking.

std::string describe(const std::vector<Seen>& events) {
  std::string out;
  for (const auto& [level, type, value] : events) {
    out += "\n    ";
    out += orvo_core::to_string(level);
    out += ' ';
    out += orvo_core::to_string(type);
    out += ' ';
    out += repr_of(value);
  }
  return out;
}

std::string describe(const std::vector<std::string>& calls) {
  std::string out;
  for (const auto& c : calls) out += " [" + c + "]";
  return out;
}

struct Report {
  std::size_t turns = 0;
  std::size_t completed = 0;
  std::array<std::size_t, 4> failed{};  // by Step
  std::size_t own = 0;
  std::size_t judged = 0;
  std::size_t events = 0;
  std::size_t calls = 0;
  std::size_t references = 0;
  std::size_t peak_in_flight = 0;
  std::int64_t peak_heap = 0;
  double run_seconds = 0;
  std::size_t problem_count = 0;
  std::string problems;  // the first few, in full
};

class Checker {
 public:
  explicit Checker(Report& report) : report_(report) {}

  void problem(std::size_t id, const std::string& what) {
    if (report_.problem_count++ < 5)
      report_.problems += "\nturn " + std::to_string(id) + ": " + what;
  }

  void check(const Turn& turn) {
    const std::size_t id = turn.id;
    const Plan& plan = turn.plan;
    const Expected expected = expect(id, plan);
    if (plan.own_components) ++report_.own;
    if (plan.judged) ++report_.judged;

    if (turn.outcomes != 1) problem(id, "ended " + std::to_string(turn.outcomes) + " times");
    if (plan.fault) {
      try {
        if (turn.error) std::rethrow_exception(turn.error);
        problem(id, "completed, but its " + name(plan.fault->step) + " call failed");
      } catch (const TurnFault& fault) {
        if (fault.turn != id || fault.fault.step != plan.fault->step ||
            fault.fault.at != plan.fault->at) {
          problem(id, std::string("failed with another fault: ") + fault.what());
        }
      } catch (const std::exception& error) {
        problem(id, std::string("failed with ") + error.what());
      }
      ++report_.failed[static_cast<std::size_t>(plan.fault->step)];
    } else {
      try {
        if (turn.error) std::rethrow_exception(turn.error);
      } catch (const std::exception& error) {
        problem(id, std::string("failed with ") + error.what());
      }
      if (turn.response != Any(expected.answer)) problem(id, "answered " + turn.response.repr());
      if (turn.result != Any(expected.references)) problem(id, "cited " + turn.result.repr());
      ++report_.completed;
      if (!expected.references.empty()) ++report_.references;
    }

    std::vector<Seen> seen;
    for (const auto& event : turn.emitter->events)
      seen.emplace_back(event.level, event.type, event.value);
    if (seen != expected.events) {
      problem(id, "events:" + describe(seen) + "\n  expected:" + describe(expected.events));
    }
    if (turn.emitter->overlapping != 0) problem(id, "an emit started before the last had ended");
    report_.events += seen.size();

    if (turn.calls != expected.calls) {
      problem(id, "calls:" + describe(turn.calls) + ", expected:" + describe(expected.calls));
    }
    report_.calls += turn.calls.size();

    // The synthesizer writes the query into the caller's own map, and nothing else.
    const Map& state = *turn.state;
    if (state.size() != 3 || orvo_core::get(state, "query") != Any(query_of(id)) ||
        orvo_core::get(state, "context") != Any(context_of(id)) ||
        !orvo_core::get(state, "live").is<LiveToken>()) {
      problem(id, "state variables " + Any(turn.state).repr());
    }
  }

 private:
  Report& report_;
};

// Runs `count` turns, checks each, and destroys everything before checking that nothing lives.
Report soak(std::size_t count, std::uint32_t seed) {
  Report report;
  {
    Soak soak(count, seed);
    soak.run();
    report.turns = soak.turns.size();
    report.peak_in_flight = soak.peak_in_flight;
    report.peak_heap = soak.peak_heap;
    report.run_seconds = std::chrono::duration<double>(soak.run_time).count();
    Checker checker(report);
    for (const Turn& turn : soak.turns) checker.check(turn);
    EXPECT_EQ(report.problem_count, 0U) << report.problems;
    EXPECT_EQ(soak.foreign_calls, 0U) << "an own-instance collaborator served another turn";
    EXPECT_EQ(soak.unreadable_calls, 0U) << "a collaborator got a call that named no turn";
    EXPECT_TRUE(soak.misplaced.empty()) << soak.misplaced.size() << " calls carried foreign texts, "
                                        << "the first: " << soak.misplaced.front();
    EXPECT_EQ(soak.peak_in_flight, count) << "not every turn was in flight at once";
  }
  EXPECT_EQ(orvo_test::LiveCounter<LiveToken>::live(), 0) << "chunks or state maps were kept";
  EXPECT_EQ(orvo_test::LiveCounter<DelayedRecordingEmitter>::live(), 0) << "emitters were kept";
  EXPECT_EQ(orvo_test::LiveCounter<AsyncLMRequestProcessor>::live(), 0) << "processors were kept";
  EXPECT_EQ(orvo_test::LiveCounter<AsyncEMInvoker>::live(), 0) << "invokers were kept";
  return report;
}

std::string peak_resident_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return line.substr(6);
  }
  return " ?";
}

TEST(pipeline_soak, ten_thousand_turns_in_flight_each_get_exactly_their_own_work) {
  // A small round first, so that what the libraries allocate once and keep is in the baseline.
  soak(100, kSeed + 1);
  const std::int64_t heap_before = heap_in_use();

  const Report report = soak(kTurns, kSeed);
  const std::int64_t heap_after = heap_in_use();
  if (!kAddressSanitizer) {
    EXPECT_LE(std::abs(heap_after - heap_before), heap_slack())
        << "heap in use went from " << heap_before << " to " << heap_after << " bytes";
  }  // under AddressSanitizer, LeakSanitizer checks at exit instead

  // The soak exercises every path it claims to.
  EXPECT_GT(report.own, 0U);
  EXPECT_GT(report.judged, 0U);
  EXPECT_GT(report.references, 0U);
  for (std::size_t step = 0; step < report.failed.size(); ++step) {
    EXPECT_GT(report.failed[step], 0U) << "no turn failed at " << name(static_cast<Step>(step));
  }

  std::cout << "soak: " << report.turns << " turns (" << report.own << " with own components, "
            << report.judged << " LM-judged), peak in flight " << report.peak_in_flight << "\n"
            << "soak: " << report.completed << " completed; failed at answer " << report.failed[0]
            << ", embed_response " << report.failed[1] << ", embed_contents " << report.failed[2]
            << ", judge " << report.failed[3] << "\n"
            << "soak: " << report.events << " events and " << report.calls
            << " collaborator calls checked; the event loop ran " << report.run_seconds << " s\n"
            << "soak: peak resident" << peak_resident_kib() << "\n";
  if (!kAddressSanitizer) {
    std::cout << "soak: heap in use: peak " << report.peak_heap / 1024 << " KiB, before "
              << heap_before << " B, after " << heap_after << " B\n";
  }
}

}  // namespace
