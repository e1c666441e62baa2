// Every component run on keyword maps built from arbitrary bytes, with in-memory collaborators:
// only documented errors escape, the caller's values are left as they were (but for the stuff
// synthesizer's documented "query" entry), and events go where, and only when, they should.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::Kwargs;
using orvo_core::List;
using orvo_core::Map;
using orvo_fuzz::escaped;
using orvo_fuzz::Input;
using orvo_fuzz::ValueBuilder;
namespace rf = orvo_generation::reference_formatter;
namespace rs = orvo_generation::response_synthesizer;

struct DerivedChunk : Chunk {
  using Chunk::Chunk;
};
struct Opaque : orvo_core::Object {};

// The objects that values may hold, made as the input asks.
struct World {
  std::vector<std::shared_ptr<orvo_test::RecordingEmitter>> emitters;
  std::vector<std::shared_ptr<Chunk>> chunks;

  std::shared_ptr<Chunk> chunk(Input& in, ValueBuilder& builder, int depth) {
    if (!chunks.empty() && in.below(4) == 0) return chunks[in.below(chunks.size())];
    // Known fault "object-cycle-repr": a cycle through a chunk recurses without end in repr().
    // When it is tolerated, the chunk's metadata cannot reach the containers being built.
    ValueBuilder separate(in);
    ValueBuilder& source = orvo_fuzz::tolerated("object-cycle-repr") ? separate : builder;
    Map metadata;
    for (std::size_t n = in.below(4); n > 0; --n) {
      std::string key = source.key();
      Any v = in.flag() ? Any(source.string()) : source.value(depth + 1);
      metadata.insert_or_assign(std::move(key), std::move(v));
    }
    separate.release();
    std::string content = source.string();
    std::shared_ptr<Chunk> made;
    if (in.below(4) == 0) {
      made = std::make_shared<DerivedChunk>(std::move(content), std::move(metadata));
    } else {
      made = std::make_shared<Chunk>(std::move(content), std::move(metadata));
    }
    if (in.below(4) == 0) made->score = builder.floating();
    chunks.push_back(made);
    return made;
  }

  Any emitter(Input& in) {
    if (in.below(4) == 0) return std::make_shared<orvo_core::EventEmitter>();
    auto made = std::make_shared<orvo_test::RecordingEmitter>();
    if (in.below(8) == 0) made->fail_at = in.below(3);
    emitters.push_back(made);
    return made;
  }

  // Breaks the cycles that run through chunks' metadata.
  void release() {
    for (const auto& c : chunks) c->metadata.clear();
  }

  Any object(Input& in, ValueBuilder& builder, int depth) {
    switch (in.below(4)) {
      case 0:
      case 1: return chunk(in, builder, depth);
      case 2: return emitter(in);
      default: return std::make_shared<Opaque>();
    }
  }
};

// Everything a value reaches, written out with the identity of every container and object, so
// that any change, replacement or reordering shows.
class Fingerprint {
 public:
  std::string of(const Any& v) {
    out_.clear();
    seen_.clear();
    add(v);
    return out_;
  }
  std::string of(const Map& m) {
    out_.clear();
    seen_.clear();
    add_map(m);
    return out_;
  }

 private:
  void add_bytes(const void* p, std::size_t n) { out_.append(static_cast<const char*>(p), n); }
  void add_string(const std::string& s) {
    const std::size_t n = s.size();
    add_bytes(&n, sizeof n);
    out_ += s;
  }
  bool first_visit(const void* p) {
    add_bytes(&p, sizeof p);
    return seen_.emplace(p, seen_.size()).second;
  }
  void add_map(const Map& m) {
    const std::size_t n = m.size();
    add_bytes(&n, sizeof n);
    for (const auto& [key, value] : m) {
      add_string(key);
      add(value);
    }
  }
  void add(const Any& v) {
    out_ += static_cast<char>(v.kind());
    switch (v.kind()) {
      case Any::Kind::None: return;
      case Any::Kind::Bool: out_ += v.as_bool() ? '1' : '0'; return;
      case Any::Kind::Int: {
        const std::int64_t i = v.as_int();
        add_bytes(&i, sizeof i);
        return;
      }
      case Any::Kind::Float: {
        const double d = v.as_float();
        add_bytes(&d, sizeof d);
        return;
      }
      case Any::Kind::String: add_string(v.as_string()); return;
      case Any::Kind::List: {
        if (!first_visit(&v.as_list())) return;
        const std::size_t n = v.as_list().size();
        add_bytes(&n, sizeof n);
        for (const Any& e : v.as_list()) add(e);
        return;
      }
      case Any::Kind::Map:
        if (first_visit(&v.as_map())) add_map(v.as_map());
        return;
      case Any::Kind::Object: {
        if (!first_visit(v.as_object().get())) return;
        if (const auto chunk = v.as<Chunk>()) {
          add_string(chunk->id);
          add_string(chunk->content);
          add_map(chunk->metadata);
          out_ += chunk->score ? 's' : '-';
          if (chunk->score) add_bytes(&*chunk->score, sizeof(double));
        }
        return;
      }
    }
  }

  std::string out_;
  std::map<const void*, std::size_t> seen_;
};

enum class Kind { Similarity, LMBased, Stuff, StaticList };

struct Setup {
  Kind kind{};
  std::shared_ptr<orvo_core::Component> component;
  std::shared_ptr<orvo_test::FakeEMInvoker> em;
  std::shared_ptr<orvo_test::FakeLMRequestProcessor> lm;
  std::vector<Any> lm_answers;
  int extra_rows = 0;
  bool stringify = true;
  bool streamable = true;
  std::optional<std::int64_t> batch;  // the LM formatter's step, when it is an integer
};

Any vocabulary_value(Input& in, ValueBuilder& builder, World& world, std::string_view key) {
  if (in.below(4) == 0) return builder.value();
  if (key == "response") return in.below(8) == 0 ? Any(" \n\t") : Any(builder.string());
  if (key == "chunks") {
    List chunks;
    for (std::size_t n = in.below(7); n > 0; --n) {
      chunks.push_back(in.below(16) == 0 ? builder.value(2) : Any(world.chunk(in, builder, 1)));
    }
    return chunks;
  }
  if (key == "event_emitter") return in.below(4) == 0 ? Any() : world.emitter(in);
  if (key == "state_variables" || key == "variables") {
    Map state;
    if (in.below(4) != 0) {
      List items;
      for (std::size_t n = in.below(5); n > 0; --n) {
        items.push_back(in.below(16) == 0 ? builder.value(2) : Any(builder.string()));
      }
      state.insert_or_assign("context_list", std::move(items));
    }
    for (std::size_t n = in.below(3); n > 0; --n) {
      std::string k = builder.key();
      state.insert_or_assign(std::move(k), builder.value(2));
    }
    return state;
  }
  return builder.value();
}

Kwargs make_kwargs(Input& in, ValueBuilder& builder, World& world) {
  static constexpr const char* kKeys[] = {
      "response", "chunks", "event_emitter", "query", "state_variables", "variables",
      "history", "system_multimodal_contents", "user_multimodal_contents"};
  Kwargs kwargs;
  for (std::size_t n = in.below(8); n > 0; --n) {
    const std::string key = in.below(6) == 0 ? builder.key() : kKeys[in.below(std::size(kKeys))];
    Any v = vocabulary_value(in, builder, world, key);
    kwargs.insert_or_assign(key, std::move(v));
  }
  return kwargs;
}

Any metadata_map(Input& in, ValueBuilder& builder) {
  switch (in.below(6)) {
    case 0: return builder.value(2);
    case 1: {
      Map map;
      map.insert_or_assign("title", builder.key());
      map.insert_or_assign("url", builder.key());
      return map;
    }
    default: return {};
  }
}

// The chunk objects of kwargs["chunks"], when it is a list.
std::vector<std::shared_ptr<Chunk>> given_chunks(const Kwargs& kwargs) {
  std::vector<std::shared_ptr<Chunk>> out;
  const Any* chunks = orvo_core::find(kwargs, "chunks");
  if (chunks == nullptr || !chunks->is_list()) return out;
  for (const Any& e : chunks->as_list()) {
    if (auto c = e.as<Chunk>()) out.push_back(std::move(c));
  }
  return out;
}

orvo_core::Embedding vector(Input& in, std::size_t dim) {
  orvo_core::Embedding v(dim);
  const bool raw = in.below(8) == 0;
  for (float& x : v) {
    if (raw) {
      const auto bits = static_cast<std::uint32_t>(in.u64(4));
      std::memcpy(&x, &bits, sizeof x);
    } else {
      x = static_cast<float>(static_cast<std::int8_t>(in.byte()) % 5);
    }
  }
  return v;
}

Setup make_component(Input& in, ValueBuilder& builder, const Kwargs& kwargs) {
  Setup s;
  s.kind = static_cast<Kind>(in.below(4));
  s.stringify = in.below(4) != 0;
  s.streamable = in.below(4) != 0;
  switch (s.kind) {
    case Kind::Similarity: {
      s.em = std::make_shared<orvo_test::FakeEMInvoker>();
      std::vector<std::string> texts;
      if (const Any* r = orvo_core::find(kwargs, "response"); r != nullptr && r->is_string()) {
        texts.push_back(r->as_string());
      }
      for (const auto& c : given_chunks(kwargs)) texts.push_back(c->content);
      const std::size_t dim = in.below(5);
      for (const auto& text : texts) {
        if (in.below(16) == 0) continue;  // unknown to the fake: its documented error
        s.em->table.insert_or_assign(text, vector(in, in.below(16) == 0 ? in.below(5) : dim));
      }
      if (in.below(8) == 0) s.extra_rows = in.flag() ? 1 : -1;
      s.em->extra_rows = s.extra_rows;
      if (in.below(8) == 0) s.em->fail_at = in.below(2);
      double threshold = rf::DEFAULT_THRESHOLD;
      if (in.below(4) == 0) threshold = builder.floating();
      Any map = metadata_map(in, builder);
      s.component = std::make_shared<rf::SimilarityBasedReferenceFormatter>(
          s.em, threshold, s.stringify, rf::FormatReferencesFunc(), rf::FormatChunkFunc(),
          std::move(map), s.streamable);
      return s;
    }
    case Kind::LMBased: {
      s.lm = std::make_shared<orvo_test::FakeLMRequestProcessor>();
      Any batch = in.below(4) == 0 ? builder.value(2)
                                   : Any(static_cast<std::int64_t>(in.below(9)) - 2);
      if (batch.is_int()) s.batch = batch.as_int();
      if (batch.is_bool()) s.batch = batch.as_bool() ? 1 : 0;
      Any key = in.below(4) == 0 ? (in.flag() ? builder.value(2) : Any(builder.key()))
                                 : Any(rf::DEFAULT_REFERENCE_METADATA);
      // Answers that name some of the given chunks' labels, and answers of other shapes.
      std::vector<Any> labels;
      for (const auto& c : given_chunks(kwargs)) {
        try {
          labels.push_back(orvo_core::lookup(c->metadata, key));
        } catch (const orvo_core::TypeError&) {
        }
      }
      for (std::size_t n = 1 + in.below(3); n > 0; --n) {
        if (in.below(6) == 0) {
          s.lm_answers.push_back(builder.value(2));
          continue;
        }
        List named;
        for (const Any& label : labels) {
          if (in.flag()) named.push_back(label);
        }
        if (in.below(4) == 0) named.push_back(builder.value(2));
        Map answer;
        if (key.is_string()) {
          answer.insert_or_assign(key.as_string(), in.below(8) == 0 ? builder.value(2) : Any(named));
        }
        s.lm_answers.emplace_back(std::move(answer));
      }
      if (in.below(8) == 0) s.lm->fail_at = in.below(3);
      Any map = metadata_map(in, builder);
      s.component = std::make_shared<rf::LMBasedReferenceFormatter>(
          s.lm, std::move(batch), std::move(key), s.stringify, rf::FormatReferencesFunc(),
          rf::FormatChunkFunc(), std::move(map), s.streamable);
      break;
    }
    case Kind::Stuff: {
      s.lm = std::make_shared<orvo_test::FakeLMRequestProcessor>();
      for (std::size_t n = 1 + in.below(2); n > 0; --n) {
        s.lm_answers.push_back(in.below(6) == 0 ? builder.value(2) : Any(builder.string()));
      }
      if (in.below(8) == 0) s.lm->fail_at = 0;
      s.component = std::make_shared<rs::StuffResponseSynthesizer>(s.lm, s.streamable);
      break;
    }
    case Kind::StaticList: {
      std::string prefix = in.flag() ? std::string(rs::DEFAULT_RESPONSE_PREFIX) : builder.string();
      std::string fallback =
          in.flag() ? std::string(rs::DEFAULT_FALLBACK_RESPONSE) : builder.string();
      std::string delimiter = in.flag() ? std::string("\n") : builder.string();
      s.component = std::make_shared<rs::StaticListResponseSynthesizer>(
          std::move(prefix), std::move(fallback), std::move(delimiter), s.streamable);
      return s;
    }
  }
  s.lm->respond = [answers = s.lm_answers](const Map&, std::size_t i) {
    return answers[i % answers.size()];
  };
  return s;
}

bool is_reference_formatter(Kind k) { return k == Kind::Similarity || k == Kind::LMBased; }

// The keys and kinds of the keyword map, for failure reports.
std::string describe(const Kwargs& kwargs) {
  std::string out = "kwargs:";
  for (const auto& [key, value] : kwargs) out += " " + escaped(key) + "=" + value.type_name();
  return out + "\n";
}

// Whether `part` is `whole` with some elements left out, order kept.
bool subsequence(const std::vector<std::shared_ptr<Chunk>>& part,
                 const std::vector<std::shared_ptr<Chunk>>& whole) {
  std::size_t j = 0;
  for (const auto& c : part) {
    while (j < whole.size() && whole[j] != c) ++j;
    if (j == whole.size()) return false;
    ++j;
  }
  return true;
}

// Whether every element of `part` is in `whole`, as many times at most.
bool sub_multiset(std::vector<std::shared_ptr<Chunk>> part,
                  std::vector<std::shared_ptr<Chunk>> whole) {
  std::sort(part.begin(), part.end());
  std::sort(whole.begin(), whole.end());
  return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  World world;
  ValueBuilder builder(in, [&world](Input& i, ValueBuilder& b, int depth) {
    return world.object(i, b, depth);
  });
  const Kwargs kwargs = make_kwargs(in, builder, world);
  Setup setup = make_component(in, builder, kwargs);
  const bool driver = in.below(4) == 0;  // Component::run instead of _run
  const std::string context = describe(kwargs);

  // What may change: the stuff synthesizer writes a non-empty query into a non-empty
  // state-variables map of the caller's.
  const Any query = orvo_core::get(kwargs, "query");
  const Any* state_entry = orvo_core::find(kwargs, "state_variables");
  const Any state = state_entry != nullptr ? *state_entry : orvo_core::get(kwargs, "variables");
  const bool writes_query =
      setup.kind == Kind::Stuff && state.truthy() && state.is_map() && query.truthy();
  std::optional<Any> old_query;
  if (writes_query) {
    if (const Any* q = orvo_core::find(state.as_map(), "query")) old_query = *q;
  }
  Fingerprint fingerprint;
  const std::string before = fingerprint.of(kwargs);

  Any result;
  std::string error;
  try {
    result = driver ? orvo_core::run_sync(setup.component->run(kwargs))
                    : orvo_core::run_sync(setup.component->_run(kwargs));
  } catch (const orvo_core::ValueError&) {
    error = "ValueError";
  } catch (const orvo_core::TypeError&) {
    error = "TypeError";
  } catch (const orvo_core::NotImplementedError&) {
    error = "NotImplementedError";
  } catch (const std::out_of_range& e) {
    ORVO_FUZZ_CHECK(setup.kind == Kind::Similarity &&
                        std::string_view(e.what()).starts_with("no embedding for"),
                    context + e.what());
    error = "fake";
  } catch (const std::runtime_error& e) {
    const std::string_view what = e.what();
    ORVO_FUZZ_CHECK(what == "invoke failed" || what == "process failed" || what == "emit failed",
                    context + e.what());
    error = what == "emit failed" ? "emit" : "fake";
  }

  // The caller's values.
  if (writes_query) {
    Map& map = state.as_map();
    const Any* written = orvo_core::find(map, "query");
    const bool done = written != nullptr && fingerprint.of(*written) == fingerprint.of(query);
    // The driver's start message may fail before the component runs at all.
    const bool may_be_skipped = driver && error == "emit";
    ORVO_FUZZ_CHECK(done || may_be_skipped, context);
  }
  if (writes_query && orvo_core::find(state.as_map(), "query") != nullptr) {
    Map& map = state.as_map();
    if (old_query) {
      map.insert_or_assign("query", *old_query);
    } else {
      map.erase("query");
    }
  }
  ORVO_FUZZ_CHECK(fingerprint.of(kwargs) == before, context + " [" + error + "]");

  // Events.
  const auto kwargs_emitter = orvo_core::get(kwargs, "event_emitter").as<orvo_core::EventEmitter>();
  std::vector<orvo_core::Event> sent;  // what the component itself sent to that emitter
  for (const auto& emitter : world.emitters) {
    for (const auto& event : emitter->events) {
      const bool driver_status = driver && emitter == kwargs_emitter &&
                                 event.type == orvo_core::EventType::STATUS;
      if (driver_status) continue;
      ORVO_FUZZ_CHECK(emitter == kwargs_emitter, context + escaped(event.value));
      sent.push_back(event);
    }
  }
  if (!error.empty()) {
    if (!driver && error != "emit") ORVO_FUZZ_CHECK(sent.empty(), context + " [" + error + "]");
    world.release();
    builder.release();
    return 0;
  }

  const auto recording = std::dynamic_pointer_cast<orvo_test::RecordingEmitter>(kwargs_emitter);
  std::vector<std::string> expected;
  auto level = orvo_core::EventLevel::INFO;
  auto type = orvo_core::EventType::DATA;
  if (is_reference_formatter(setup.kind)) {
    std::vector<std::shared_ptr<Chunk>> kept;
    if (setup.stringify) {
      ORVO_FUZZ_CHECK(result.is_string(), context);
      if (!result.as_string().empty()) {
        expected.push_back(rf::reference_payload(result.as_string()));
      }
    } else {
      ORVO_FUZZ_CHECK(result.is_list(), context);
      for (const Any& e : result.as_list()) {
        const auto c = e.as<Chunk>();
        ORVO_FUZZ_CHECK(c != nullptr, context);
        kept.push_back(c);
        expected.push_back(rf::reference_payload(Any(c->model_dump()).str()));
      }
      const auto given = given_chunks(kwargs);
      if (setup.kind == Kind::LMBased) {
        ORVO_FUZZ_CHECK(subsequence(kept, given), context);
      } else {
        ORVO_FUZZ_CHECK(sub_multiset(kept, given), context);
      }
    }
    if (setup.kind == Kind::Similarity && setup.em->calls.size() >= 2) {
      ORVO_FUZZ_CHECK(setup.extra_rows == 0, context + " a wrong number of embeddings passed");
    }
    if (setup.kind == Kind::LMBased) {
      ORVO_FUZZ_CHECK(setup.batch.has_value() && *setup.batch != 0, context);
      const std::size_t n = given_chunks(kwargs).size();
      const std::size_t calls =
          *setup.batch < 0 ? 0 : (n + static_cast<std::size_t>(*setup.batch) - 1) /
                                     static_cast<std::size_t>(*setup.batch);
      ORVO_FUZZ_CHECK(setup.lm->calls.size() == calls, context);
      if (*setup.batch < 0) ORVO_FUZZ_CHECK(!result.truthy(), context);
    }
  } else if (setup.kind == Kind::StaticList) {
    ORVO_FUZZ_CHECK(result.is_string(), context);
    expected.push_back(result.as_string());
    type = orvo_core::EventType::RESPONSE;
  } else {
    ORVO_FUZZ_CHECK(setup.lm->calls.size() == 1, context);
    ORVO_FUZZ_CHECK(fingerprint.of(result) == fingerprint.of(setup.lm_answers[0]),
                    context + " the answer is returned unchanged");
    const auto& call = setup.lm->calls[0];
    // A value that is not an emitter is passed on as one that fails when used.
    const Any given = orvo_core::get(kwargs, "event_emitter");
    if (!setup.streamable || !given.truthy()) {
      ORVO_FUZZ_CHECK(call.event_emitter == nullptr, context);
    } else if (kwargs_emitter) {
      ORVO_FUZZ_CHECK(call.event_emitter == kwargs_emitter, context);
    } else {
      ORVO_FUZZ_CHECK(call.event_emitter != nullptr, context);
    }
    if (writes_query) ORVO_FUZZ_CHECK(call.prompt_kwargs == state.map_ptr(), context);
  }
  if (!setup.streamable || recording == nullptr) expected.clear();
  ORVO_FUZZ_CHECK(sent.size() == expected.size(), context + " events: " +
                                                      std::to_string(sent.size()) + " expected " +
                                                      std::to_string(expected.size()));
  for (std::size_t i = 0; i < sent.size(); ++i) {
    ORVO_FUZZ_CHECK(sent[i].value == expected[i] && sent[i].level == level && sent[i].type == type,
                    context + escaped(sent[i].value) + " expected " + escaped(expected[i]));
  }
  if (driver && recording != nullptr) {
    // The driver's own messages: one before and one after.
    std::size_t status = 0;
    for (const auto& event : recording->events) {
      if (event.type == orvo_core::EventType::STATUS) ++status;
    }
    ORVO_FUZZ_CHECK(status == 2, context);
    ORVO_FUZZ_CHECK(recording->events.back().value == setup.component->_format_output_event(result),
                    context);
  }

  world.release();
  builder.release();
  return 0;
}
