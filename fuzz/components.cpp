// Every component run on keyword maps built from arbitrary bytes, with in-memory collaborators:
// only documented errors escape, the caller's values are left as they were (but for the stuff
// synthesizer's "query" entry), events go only to the invocation's emitter and never after an
// error, and the formatters keep only given chunks. The exact texts and events are the component
// tests'.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::List;
using orvo_core::Map;
using orvo_fuzz::Input;
using orvo_fuzz::ValueBuilder;
namespace rf = orvo_generation::reference_formatter;
namespace rs = orvo_generation::response_synthesizer;

// The objects that values may hold: chunks of both classes, whose metadata may reach back into
// the values being built, emitters (some failing, some that record nothing) and others.
struct World {
  std::vector<std::shared_ptr<orvo_test::RecordingEmitter>> emitters;
  std::vector<std::shared_ptr<Chunk>> chunks;

  Any object(Input& in, ValueBuilder& builder, int depth) {
    const std::size_t pick = in.below(5);
    if (pick == 0) return std::make_shared<orvo_fuzz::Opaque>();
    if (pick == 1) return std::make_shared<orvo_core::EventEmitter>();
    if (pick > 2) return chunk(in, builder, depth);
    const auto& emitter = emitters.emplace_back(std::make_shared<orvo_test::RecordingEmitter>());
    if (in.below(8) == 0) emitter->fail_at = in.below(3);
    return emitter;
  }

  // At times a chunk made before, so that a list may hold the same chunk twice.
  std::shared_ptr<Chunk> chunk(Input& in, ValueBuilder& builder, int depth) {
    if (!chunks.empty() && in.below(4) == 0) return chunks[in.below(chunks.size())];
    return chunks.emplace_back(builder.chunk(depth + 1));
  }
};

// Keys from the components' vocabulary, with values mostly of the kind they name (the history
// and multimodal contents only pass through), and other keys. Now and then many chunks, so that
// the reference text's prefetching path runs too.
Map make_kwargs(Input& in, ValueBuilder& builder, World& world) {
  static constexpr const char* kKeys[] = {"response", "chunks",          "event_emitter",
                                          "query",    "state_variables", "variables"};
  Map kwargs;
  for (std::size_t n = in.below(8); n > 0; --n) {
    const std::string key = in.below(6) == 0 ? builder.key() : kKeys[in.below(std::size(kKeys))];
    Any value = builder.value();
    if (in.below(4) == 0) {
    } else if (key == "response") {
      value = in.below(8) == 0 ? Any(" \n\t") : Any(builder.string());
    } else if (key == "chunks") {
      List chunks;
      for (std::size_t c = in.below(16) == 0 ? 28 + in.below(12) : in.below(7); c > 0; --c) {
        chunks.push_back(in.below(16) == 0 ? builder.value(2) : Any(world.chunk(in, builder, 1)));
      }
      value = std::move(chunks);
    } else if (key == "event_emitter") {
      value = world.object(in, builder, 1);
    } else if (key == "state_variables" || key == "variables") {
      List context;
      for (std::size_t c = in.below(5); c > 0; --c) context.push_back(builder.string());
      Map state{{"context_list", std::move(context)}};
      for (std::size_t c = in.below(3); c > 0; --c)
        state.insert_or_assign(builder.key(), builder.value(2));
      value = std::move(state);
    }
    kwargs.insert_or_assign(key, std::move(value));
  }
  return kwargs;
}

// A documented error by name, the fakes' own ("emit" for the emitter, "fake" for the others),
// or "" for any other. These components override every step, so none is not implemented.
std::string error_kind(const std::exception& e) {
  const std::string_view what = e.what();
  if (dynamic_cast<const orvo_core::ValueError*>(&e) != nullptr) return "ValueError";
  if (dynamic_cast<const orvo_core::TypeError*>(&e) != nullptr) return "TypeError";
  if (what == "emit failed") return "emit";
  const bool fake = what == "invoke failed" || what == "process failed";
  return fake || what.starts_with("no embedding for") ? "fake" : "";
}

enum class Kind { Similarity, LMBased, Stuff, StaticList };

// One component with arbitrary settings and collaborators that answer from the input.
struct Setup {
  Kind kind{};
  bool stringify = true;
  bool streamable = true;
  std::shared_ptr<orvo_core::Component> component;
  std::shared_ptr<orvo_test::FakeEMInvoker> em = std::make_shared<orvo_test::FakeEMInvoker>();
  std::shared_ptr<orvo_test::FakeLMRequestProcessor> lm =
      std::make_shared<orvo_test::FakeLMRequestProcessor>();
  std::vector<Any> answers;

  Setup(Input& in, ValueBuilder& builder, const Map& kwargs, const rf::Chunks& chunks)
      : kind(static_cast<Kind>(in.below(4))) {
    stringify = in.below(4) != 0;
    streamable = in.below(4) != 0;
    if (kind == Kind::Similarity) {
      // Small integer vectors for the response and the contents; sometimes a text the fake does
      // not know, a vector of another length, or any bits (NaN, infinities, subnormals).
      const Any response = orvo_core::get(kwargs, "response");
      std::vector<std::string> texts{response.is_string() ? response.as_string() : ""};
      for (const auto& c : chunks) texts.push_back(c->content);
      const std::size_t dim = in.below(5);
      for (const auto& text : texts) {
        if (in.below(16) == 0) continue;
        orvo_core::Embedding v(in.below(16) == 0 ? in.below(5) : dim);
        const bool raw = in.below(8) == 0;
        for (float& x : v) {
          const auto bits = static_cast<std::uint32_t>(in.u64(raw ? 4 : 1));
          x = raw ? std::bit_cast<float>(bits)
                  : static_cast<float>(static_cast<std::int8_t>(bits) % 5);
        }
        em->table.insert_or_assign(text, v);
      }
      if (in.below(8) == 0) em->fail_at = in.below(2);
      const double threshold = in.below(4) == 0 ? builder.floating() : rf::DEFAULT_THRESHOLD;
      component = std::make_shared<rf::SimilarityBasedReferenceFormatter>(
          em, threshold, stringify, rf::FormatReferencesFunc(), rf::FormatChunkFunc(), Any(),
          streamable);
    } else if (kind == Kind::LMBased) {
      // Answers that name some of the chunks' labels, and answers of other shapes.
      Any step =
          in.below(4) == 0 ? builder.value(2) : Any(static_cast<std::int64_t>(in.below(9)) - 2);
      const Any key = in.below(4) == 0 ? builder.value(2) : Any(rf::DEFAULT_REFERENCE_METADATA);
      for (std::size_t n = 1 + in.below(3); n > 0; --n) {
        List named;
        for (const auto& c : chunks) {
          if (in.flag() && key.is_string())
            named.push_back(orvo_core::get(c->metadata, key.as_string()));
        }
        if (in.below(4) == 0) named.push_back(builder.value(2));
        Map answer;
        if (key.is_string()) answer.insert_or_assign(key.as_string(), std::move(named));
        answers.push_back(in.below(6) == 0 ? builder.value(2) : Any(std::move(answer)));
      }
      component = std::make_shared<rf::LMBasedReferenceFormatter>(
          lm, std::move(step), key, stringify, rf::FormatReferencesFunc(), rf::FormatChunkFunc(),
          Any(), streamable);
    } else if (kind == Kind::Stuff) {
      answers.push_back(in.below(6) == 0 ? builder.value(2) : Any(builder.string()));
      component = std::make_shared<rs::StuffResponseSynthesizer>(lm, streamable);
    } else {
      std::string prefix = in.flag() ? std::string(rs::DEFAULT_RESPONSE_PREFIX) : builder.string();
      std::string fallback =
          in.flag() ? std::string(rs::DEFAULT_FALLBACK_RESPONSE) : builder.string();
      component = std::make_shared<rs::StaticListResponseSynthesizer>(
          std::move(prefix), std::move(fallback), in.flag() ? std::string("\n") : builder.string(),
          streamable);
    }
    if (in.below(8) == 0) lm->fail_at = in.below(3);
    lm->respond = [this](const Map&, std::size_t i) { return answers[i % answers.size()]; };
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  World world;
  ValueBuilder builder(
      in, [&world](Input& i, ValueBuilder& b, int depth) { return world.object(i, b, depth); });
  const Map kwargs = make_kwargs(in, builder, world);
  // The chunks in the given list, the only ones a formatter may keep.
  rf::Chunks chunks;
  const Any listed = orvo_core::get(kwargs, "chunks");
  for (const Any& e : listed.is_list() ? listed.as_list() : List()) {
    if (auto c = e.as<Chunk>()) chunks.push_back(std::move(c));
  }
  Setup setup(in, builder, kwargs, chunks);
  const bool driver = in.below(4) == 0;  // Component::run instead of _run

  // The stuff synthesizer writes a non-empty query into a non-empty state map of the caller's;
  // it is written there first, so that all the caller's values must come back unchanged.
  const Any* state_entry = orvo_core::find(kwargs, "state_variables");
  const Any state = state_entry != nullptr ? *state_entry : orvo_core::get(kwargs, "variables");
  const Any query = orvo_core::get(kwargs, "query");
  if (setup.kind == Kind::Stuff && state.is_map() && state.truthy() && query.truthy())
    state.as_map().insert_or_assign("query", query);
  const std::string before = Any(kwargs).repr();  // also the report of a broken property

  Any result;
  std::string error;
  try {
    result =
        orvo_core::run_sync(driver ? setup.component->run(kwargs) : setup.component->_run(kwargs));
  } catch (const std::exception& e) {
    error = error_kind(e);
    ORVO_FUZZ_CHECK(!error.empty(), before + " " + e.what());
  }
  ORVO_FUZZ_CHECK(Any(kwargs).repr() == before, before + " [" + error + "]");

  // Events: only the invocation's emitter gets any, none after an error from `_run` and none
  // from `_run` when not streamable.
  const auto own = orvo_core::get(kwargs, "event_emitter").as<orvo_test::RecordingEmitter>();
  for (const auto& recording : world.emitters)
    ORVO_FUZZ_CHECK(recording == own || recording->events.empty(), before);
  ORVO_FUZZ_CHECK(driver || error == "emit" || !own || own->events.empty() ||
                      (error.empty() && setup.streamable),
                  before + " [" + error + "]");

  // The formatters keep only given chunks; the LM formatter keeps their order.
  if (error.empty() && (setup.kind == Kind::Similarity || setup.kind == Kind::LMBased)) {
    ORVO_FUZZ_CHECK(setup.stringify ? result.is_string() : result.is_list(), before);
    auto from = chunks.begin();
    for (const Any& e : setup.stringify ? List() : result.as_list()) {
      const auto at = std::find(from, chunks.end(), e.as<Chunk>());
      ORVO_FUZZ_CHECK(at != chunks.end(), before);
      if (setup.kind == Kind::LMBased) from = at + 1;
    }
  }
  return 0;
}
