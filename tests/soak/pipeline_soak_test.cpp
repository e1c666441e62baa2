// Ten thousand pipeline turns in flight at once on one event loop, through one synthesizer and
// two formatters that all turns share, against collaborators that answer late and sometimes
// fail. Every text a turn hands out names it ("#<turn>"), so the shared fakes know whose call
// they serve and nothing a turn sees may name another. The event texts themselves are pinned by
// the component tests; here each turn must get its own events in order, its own result or
// error, lose nothing, and leave nothing behind.
#include <malloc.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "orvo_core/schema/chunk.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "support/async_fakes.hpp"
#include "support/live_counter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
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
constexpr std::size_t kBatch = 3;  // chunks per judge request
// glibc keeps up to 7 freed blocks of each size up to 1032 bytes per thread (its tcache), and
// mallinfo2 counts them as in use: at most this many bytes.
constexpr std::int64_t kFullTcache = 7 * (64 * 32 + 16 * (63 * 64 / 2));

// The collaborator calls of a turn, in order: "answer", then "judge <batch>" or "embed 1" (the
// answer) and "embed <n>" (the contents).
using Calls = std::vector<std::string>;

// Every number after `mark` in `text`: the turns it names ('#'), the chunks whose titles it
// shows ('@') or whose contents it holds ('~').
std::vector<std::size_t> numbers_after(std::string_view text, char mark) {
  std::vector<std::size_t> numbers;
  for (std::size_t at = text.find(mark); at != std::string_view::npos;
       at = text.find(mark, at + 1)) {
    std::size_t n = 0;
    if (std::from_chars(text.data() + at + 1, text.data() + text.size(), n).ec == std::errc()) {
      numbers.push_back(n);
    }
  }
  return numbers;
}

struct Turn {
  std::size_t id = 0;
  bool judged = false;         // the LM-based formatter instead of the similarity one
  std::size_t tokens = 1;      // of the streamed answer
  std::size_t streamed = 1;    // tokens out before the answer fails, if it does
  std::vector<bool> relevant;  // per chunk
  Calls planned;               // if none fails
  std::size_t fails_at = 0;    // index into planned; planned.size() when none fails
  Calls calls;                 // as the fakes saw them
  std::shared_ptr<Map> state;
  std::shared_ptr<DelayedRecordingEmitter> emitter;
  orvo_core::List chunks;
  std::size_t outcomes = 0;
  std::exception_ptr error;
  Any response;
  Any result;

  [[nodiscard]] std::string tag() const { return "#" + std::to_string(id); }
  [[nodiscard]] std::vector<std::string> answer_tokens() const {
    std::vector<std::string> all{"a" + tag(), " b", " c", " d"};
    return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(tokens)};
  }
  [[nodiscard]] std::string answer() const {
    std::string out;
    for (const auto& token : answer_tokens()) out += token;
    return out;
  }
  [[nodiscard]] bool fails() const { return fails_at < planned.size(); }
  // A collaborator's planned failure.
  [[nodiscard]] std::runtime_error fault() const { return std::runtime_error(tag() + " failed"); }
};

class Soak {
 public:
  Soak(std::size_t count, std::uint32_t seed)
      : turns(count), delay_(seed, std::chrono::milliseconds(5)) {
    std::mt19937 rng(seed);
    const auto upto = [&rng](std::size_t n) {
      return std::uniform_int_distribution<std::size_t>(0, n)(rng);
    };
    for (std::size_t id = 0; id < count; ++id) {
      Turn& turn = turns[id];
      turn.id = id;
      turn.judged = upto(3) == 0;
      turn.tokens = turn.streamed = 1 + upto(3);
      for (std::size_t k = upto(8); k > 0; --k) turn.relevant.push_back(upto(1) == 1);
      const std::size_t n = turn.relevant.size();
      turn.planned = {"answer"};
      for (std::size_t b = 0; turn.judged && b * kBatch < n; ++b)
        turn.planned.push_back("judge " + std::to_string(b));
      if (!turn.judged && n > 0)
        turn.planned.insert(turn.planned.end(), {"embed 1", "embed " + std::to_string(n)});
      while (turn.fails_at < turn.planned.size() && upto(19) != 0) ++turn.fails_at;  // 5% per call
      if (turn.fails_at == 0) turn.streamed = upto(turn.tokens);

      turn.state = std::make_shared<Map>();
      turn.state->emplace("context", "x" + turn.tag());
      turn.state->emplace("live", Any(std::make_shared<LiveToken>()));
      // A third of the emitters delay every event.
      turn.emitter = std::make_shared<DelayedRecordingEmitter>(upto(2) == 0 ? &delay_ : nullptr);
      for (std::size_t k = 0; k < n; ++k) {
        Map metadata;
        metadata.emplace("file_name", "t" + turn.tag() + "@" + std::to_string(k));
        metadata.emplace("live", Any(std::make_shared<LiveToken>()));
        turn.chunks.emplace_back(std::make_shared<orvo_core::Chunk>(
            "c" + turn.tag() + "~" + std::to_string(k), std::move(metadata)));
      }
    }
  }

  void run() {
    boost::asio::io_context io;
    for (Turn& turn : turns) {
      boost::asio::co_spawn(io, run_turn(this, &turn),
                            [this, &turn](std::exception_ptr error, Any result) {
                              ++turn.outcomes;
                              turn.error = std::move(error);
                              turn.result = std::move(result);
                              --in_flight_;
                            });
    }
    io.run();
  }

  std::vector<Turn> turns;
  std::size_t peak_in_flight = 0;
  std::vector<std::string> misplaced;  // calls that named no turn, or several

 private:
  static orvo_core::Awaitable<Any> run_turn(Soak* soak, Turn* turn) {
    soak->peak_in_flight = std::max(soak->peak_in_flight, ++soak->in_flight_);
    orvo_core::Kwargs ask;
    ask.emplace("query", "q" + turn->tag());
    ask.emplace("state_variables", Any(turn->state));
    ask.emplace("event_emitter", Any(turn->emitter));
    Any response = co_await soak->synthesizer_->run(std::move(ask));
    turn->response = response;
    orvo_core::Kwargs cite;
    cite.emplace("response", std::move(response));
    cite.emplace("chunks", turn->chunks);
    cite.emplace("event_emitter", Any(turn->emitter));
    const auto& formatter = turn->judged ? soak->judge_ : soak->similarity_;
    co_return co_await formatter->run(std::move(cite));
  }

  // The turn that all of `text` names, with the call logged; throws its planned failure.
  Turn& call(const std::string& text, std::string label, bool fail = true) {
    const auto ids = numbers_after(text, '#');
    if (ids.empty() || ids[0] >= turns.size() ||
        std::count(ids.begin(), ids.end(), ids[0]) != static_cast<std::ptrdiff_t>(ids.size())) {
      misplaced.push_back(label + ": " + text);
      throw std::logic_error("a call that names no one turn");
    }
    Turn& turn = turns[ids[0]];
    turn.calls.push_back(std::move(label));
    if (fail && turn.calls.size() - 1 == turn.fails_at) throw turn.fault();
    return turn;
  }

  Reply answer(const Map& prompt) {
    Turn& turn = call(Any(prompt).repr(), "answer", false);
    Reply reply{turn.answer_tokens(), turn.answer(), nullptr, turn.streamed};
    if (turn.fails_at == 0) reply.error = std::make_exception_ptr(turn.fault());
    return reply;
  }

  // The answer points its turn's own way; relevant chunks lie along it at various lengths, the
  // others point away or are zero.
  orvo_core::Embeddings embed(const std::vector<std::string_view>& texts, bool single) {
    std::string all;
    for (const auto text : texts) all += std::string(text) + "\n";
    Turn& turn = call(all, "embed " + std::to_string(texts.size()));
    const double angle = static_cast<double>(turn.id % 628) / 100.0;
    const orvo_core::Embedding a{static_cast<float>(std::cos(angle)),
                                 static_cast<float>(std::sin(angle))};
    if (single) return orvo_core::Embeddings::from_rows({a});
    std::vector<orvo_core::Embedding> rows;
    for (const std::size_t k : numbers_after(all, '~')) {
      const bool relevant = k < turn.relevant.size() && turn.relevant[k];
      const float scale = relevant ? static_cast<float>(1 + k % 3) : k % 2 == 0 ? -1.0F : 0.0F;
      rows.push_back({scale * a[0], scale * a[1]});
    }
    return orvo_core::Embeddings::from_rows(rows);
  }

  // Judges one batch as a model would: the titles of its relevant chunks.
  Reply judge(const Map& prompt) {
    const std::string text = Any(prompt).repr();
    const auto shown = numbers_after(text, '@');
    Turn& turn = call(text, "judge " + std::to_string(shown.empty() ? 0 : shown[0] / kBatch));
    orvo_core::List titles;
    for (const std::size_t k : shown) {
      if (k < turn.relevant.size() && turn.relevant[k])
        titles.emplace_back("t" + turn.tag() + "@" + std::to_string(k));
    }
    Map answer;
    answer.emplace("file_name", std::move(titles));
    return {{}, std::move(answer), nullptr, 0};
  }

  orvo_test::RandomDelay delay_;
  std::size_t in_flight_ = 0;
  std::shared_ptr<orvo_core::Component> synthesizer_ =
      std::make_shared<orvo_generation::response_synthesizer::StuffResponseSynthesizer>(
          std::make_shared<AsyncLMRequestProcessor>(delay_,
                                                    [this](const Map& p) { return answer(p); }));
  std::shared_ptr<orvo_core::Component> similarity_ =
      std::make_shared<rf::SimilarityBasedReferenceFormatter>(std::make_shared<AsyncEMInvoker>(
          delay_, [this](const std::vector<std::string_view>& texts, bool single) {
            return embed(texts, single);
          }));
  std::shared_ptr<orvo_core::Component> judge_ = std::make_shared<rf::LMBasedReferenceFormatter>(
      std::make_shared<AsyncLMRequestProcessor>(delay_, [this](const Map& p) { return judge(p); }),
      Any(static_cast<std::int64_t>(kBatch)));
};

// What a turn must have emitted: status messages by their opening, the answer's tokens, and
// "DATA" for the references.
std::vector<std::string> expected_events(const Turn& turn) {
  const auto tokens = turn.answer_tokens();
  std::vector<std::string> events{"[Start 'StuffResponseSynthesizer']"};
  events.insert(events.end(), tokens.begin(),
                tokens.begin() + static_cast<std::ptrdiff_t>(turn.streamed));
  if (turn.fails_at == 0) return events;
  const std::string formatter =
      turn.judged ? "'LMBasedReferenceFormatter']" : "'SimilarityBasedReferenceFormatter']";
  events.insert(events.end(), {"[Finished 'StuffResponseSynthesizer']", "[Start " + formatter});
  if (turn.fails()) return events;
  if (std::count(turn.relevant.begin(), turn.relevant.end(), true) > 0) events.emplace_back("DATA");
  events.push_back("[Finished " + formatter);
  return events;
}

// Every problem with one turn, or "".
std::string problems(const Turn& turn) {
  std::string out;
  const auto problem = [&out](bool bad, const std::string& what) {
    if (bad) out += "\n  " + what;
  };
  problem(turn.outcomes != 1, "ended " + std::to_string(turn.outcomes) + " times");
  const auto made = static_cast<std::ptrdiff_t>(std::min(turn.fails_at + 1, turn.planned.size()));
  problem(turn.calls != Calls(turn.planned.begin(), turn.planned.begin() + made),
          "made other calls than planned");
  if (turn.fails()) {
    try {
      if (turn.error) std::rethrow_exception(turn.error);
      problem(true, "completed, but a call failed");
    } catch (const std::exception& error) {
      problem(error.what() != turn.tag() + " failed", std::string("failed with ") + error.what());
    }
  } else {
    problem(turn.error != nullptr, "failed");
    problem(turn.response != Any(turn.answer()), "answered " + turn.response.repr());
    // Exactly the relevant chunks; their order is the formatters' tests' matter.
    std::vector<std::size_t> relevant;
    for (std::size_t k = 0; k < turn.relevant.size(); ++k) {
      if (turn.relevant[k]) relevant.push_back(k);
    }
    auto cited = numbers_after(turn.result.str(), '@');
    std::sort(cited.begin(), cited.end());
    problem(cited != relevant, "cited " + turn.result.repr());
  }
  std::vector<std::string> seen;
  for (const auto& event : turn.emitter->events) {
    const auto ids = numbers_after(event.value, '#');
    problem(
        std::count(ids.begin(), ids.end(), turn.id) != static_cast<std::ptrdiff_t>(ids.size()) ||
            event.level != orvo_core::EventLevel::INFO,
        "emitted " + Any(event.value).repr());
    if (event.type == orvo_core::EventType::STATUS) {
      seen.push_back(event.value.substr(0, event.value.find(']') + 1));
    } else {
      seen.push_back(event.type == orvo_core::EventType::DATA ? "DATA" : event.value);
    }
  }
  problem(seen != expected_events(turn), "emitted other events than planned");
  problem(turn.emitter->overlapping != 0, "an emit started before the last had ended");
  problem(turn.state->size() != 3 || orvo_core::get(*turn.state, "query") != Any("q" + turn.tag()),
          "state variables " + Any(turn.state).repr());
  return out;
}

std::int64_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<std::int64_t>(info.uordblks + info.hblkhd);
}

// Runs `count` turns, checks each, and destroys everything before checking that nothing lives.
// Gives how many turns failed in the synthesizer and in a formatter.
std::pair<std::size_t, std::size_t> soak(std::size_t count, std::uint32_t seed) {
  std::pair<std::size_t, std::size_t> failed{};
  {
    Soak soak(count, seed);
    soak.run();
    std::size_t bad = 0;
    std::string report;
    for (const Turn& turn : soak.turns) {
      const std::string found = problems(turn);
      if (!found.empty() && ++bad <= 5) report += "\nturn " + std::to_string(turn.id) + ":" + found;
      if (turn.fails()) ++(turn.fails_at == 0 ? failed.first : failed.second);
    }
    EXPECT_EQ(bad, 0U) << report;
    EXPECT_TRUE(soak.misplaced.empty()) << soak.misplaced.size() << " calls named no one turn, "
                                        << "the first: " << soak.misplaced.front();
    EXPECT_EQ(soak.peak_in_flight, count) << "not every turn was in flight at once";
  }
  EXPECT_EQ(orvo_test::LiveCounter<LiveToken>::live(), 0) << "chunks or state maps were kept";
  EXPECT_EQ(orvo_test::LiveCounter<DelayedRecordingEmitter>::live(), 0) << "emitters were kept";
  EXPECT_EQ(orvo_test::LiveCounter<AsyncLMRequestProcessor>::live(), 0) << "processors were kept";
  EXPECT_EQ(orvo_test::LiveCounter<AsyncEMInvoker>::live(), 0) << "invokers were kept";
  return failed;
}

TEST(pipeline_soak, ten_thousand_turns_in_flight_each_get_exactly_their_own_work) {
  // A small round first, so that what the libraries allocate once and keep is in the baseline.
  soak(100, 1);
  const std::int64_t heap_before = heap_in_use();
  const auto [in_synthesizer, in_formatter] = soak(kTurns, 20'240'611);
  const std::int64_t heap_after = heap_in_use();
  // ctest turns the tcache off for this test, so the heap must come back to within a few
  // blocks; run by hand, a full cache is allowed for. Under AddressSanitizer, LeakSanitizer
  // checks at exit instead.
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  const bool no_tcache = tunables != nullptr && std::string_view(tunables).find("tcache_count=0") !=
                                                    std::string_view::npos;
  EXPECT_TRUE(kAddressSanitizer ||
              std::abs(heap_after - heap_before) <= (no_tcache ? 0 : kFullTcache) + 4 * 1024)
      << "heap in use went from " << heap_before << " to " << heap_after << " bytes";
  EXPECT_GT(in_synthesizer, 0U);
  EXPECT_GT(in_formatter, 0U);
}

}  // namespace
