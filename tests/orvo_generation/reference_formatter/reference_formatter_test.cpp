#include "orvo_generation/reference_formatter/reference_formatter.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/chunks.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::Kwargs;
using orvo_core::List;
using orvo_core::Map;
using orvo_test::make_chunk;
using orvo_test::RecordingEmitter;

constexpr const char* kResponseError =
    "The input kwargs for reference formatter must include a non-empty `response` key of type "
    "`str`.";
constexpr const char* kChunksError =
    "The input kwargs for reference formatter must include a `chunks` key of type `list[Chunk]`.";

// Keeps the chunks at the chosen positions and records what it was asked.
class PickingFormatter : public rf::BaseReferenceFormatter {
 public:
  using BaseReferenceFormatter::BaseReferenceFormatter;

  orvo_core::Awaitable<rf::Chunks> _get_relevant_chunks(std::string response,
                                                        rf::Chunks chunks) override {
    ++calls;
    seen_response = response;
    rf::Chunks relevant;
    for (const std::size_t i : keep) {
      if (i < chunks.size()) relevant.push_back(chunks[i]);
    }
    co_return relevant;
  }

  std::vector<std::size_t> keep{0, 1, 2};
  int calls = 0;
  std::string seen_response;
};

rf::Chunks abc_chunks() {
  return {make_chunk("alpha", "A", "a"), make_chunk("beta", "B", "b"),
          make_chunk("gamma", "C", "c")};
}

List as_list(const rf::Chunks& chunks) {
  return List(chunks.begin(), chunks.end());
}

Kwargs kwargs_for(const rf::Chunks& chunks, std::shared_ptr<RecordingEmitter> emitter = nullptr) {
  Kwargs kwargs;
  kwargs.emplace("response", "The answer.");
  kwargs.emplace("chunks", as_list(chunks));
  if (emitter) kwargs.emplace("event_emitter", emitter);
  return kwargs;
}

Map metadata(std::initializer_list<std::pair<const char*, Any>> entries) {
  Map map;
  for (const auto& [key, value] : entries) map.insert_or_assign(key, value);
  return map;
}

TEST(reference_formatter, references_text_is_numbered_under_a_header) {
  EXPECT_EQ(rf::format_references_as_string({}), "");
  EXPECT_EQ(rf::format_references_as_string({Any("A")}), "References:\n1. A");
  EXPECT_EQ(rf::format_references_as_string({Any("A"), Any(), Any(3)}),
            "References:\n1. A\n2. None\n3. 3");
  List ten(10, Any("x"));
  const std::string text = rf::format_references_as_string(ten);
  EXPECT_NE(text.find("\n9. x\n10. x"), std::string::npos);
  EXPECT_EQ(text.back(), 'x') << "no trailing newline";
}

TEST(reference_formatter, chunk_entries_follow_the_metadata_map) {
  const auto format = rf::format_chunk_as_string(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  const struct {
    Map metadata;
    Any entry;
  } cases[] = {
      {metadata({{"file_name", "Guide"}, {"file_url", "docs/guide"}}), Any("[Guide](docs/guide)")},
      {metadata({{"file_name", "Guide"}}), Any("Guide")},
      {metadata({{"file_url", "docs/guide"}}), Any("[None](docs/guide)")},
      {metadata({}), Any()},
      {metadata({{"file_name", "Guide"}, {"file_url", ""}}), Any("Guide")},
      {metadata({{"file_name", 7}, {"file_url", 0}}), Any(7)},
      {metadata({{"file_name", "a [b] (c)"}, {"file_url", "u(1)"}}), Any("[a [b] (c)](u(1))")},
  };
  for (const auto& c : cases) {
    const orvo_core::Chunk chunk("text", c.metadata);
    const Any entry = format(chunk);
    EXPECT_EQ(entry.kind(), c.entry.kind()) << Any(c.metadata).repr();
    EXPECT_EQ(entry, c.entry) << Any(c.metadata).repr();
  }
}

TEST(reference_formatter, chunk_formatter_reads_its_map_at_every_call) {
  const Any map(metadata({{"title", "name"}}));
  const auto format = rf::format_chunk_as_string(map);
  const orvo_core::Chunk chunk("text", metadata({{"name", "N"}, {"link", "l"}}));
  EXPECT_EQ(format(chunk), Any("N")) << "a map without `url` gives the bare title";
  map.as_map().insert_or_assign("url", "link");
  EXPECT_EQ(format(chunk), Any("[N](l)"));
  map.as_map().erase("title");
  EXPECT_EQ(format(chunk), Any("[None](l)"));
}

TEST(reference_formatter, constructor_falls_back_to_the_defaults) {
  const auto chunk = make_chunk("text", "Guide", "docs/guide");
  PickingFormatter with_empty_map(true, {}, {}, Any(Map{}));
  EXPECT_EQ(with_empty_map._format_as_string({chunk}), "References:\n1. [Guide](docs/guide)");

  PickingFormatter with_own_func(
      true, {}, [](const orvo_core::Chunk& c) { return Any(c.content); },
      Any(metadata({{"title", "nope"}})));
  EXPECT_EQ(with_own_func._format_as_string({chunk}), "References:\n1. text");

  PickingFormatter with_both(
      true, [](const List& entries) { return std::to_string(entries.size()) + " refs"; },
      [](const orvo_core::Chunk& /*c*/) { return Any(); });
  EXPECT_EQ(with_both._format_as_string({chunk, chunk}), "2 refs");
  EXPECT_TRUE(with_both.stringify);
  EXPECT_TRUE(with_both.streamable);
}

TEST(reference_formatter, run_rejects_bad_inputs_with_the_fixed_messages) {
  const auto chunk = make_chunk("text");
  const auto not_a_chunk = std::make_shared<RecordingEmitter>();
  const struct {
    const char* name;
    std::vector<std::pair<const char*, Any>> entries;
    const char* message;
  } cases[] = {
      {"nothing", {}, kResponseError},
      {"no response", {{"chunks", List{}}}, kResponseError},
      {"numeric response", {{"response", 3}, {"chunks", List{}}}, kResponseError},
      {"absent response", {{"response", Any()}, {"chunks", List{}}}, kResponseError},
      {"empty response", {{"response", ""}, {"chunks", List{}}}, kResponseError},
      {"blank response", {{"response", "   \n"}, {"chunks", List{}}}, kResponseError},
      {"no chunks", {{"response", "r"}}, kChunksError},
      {"chunks not a list", {{"response", "r"}, {"chunks", "abc"}}, kChunksError},
      {"chunks a map", {{"response", "r"}, {"chunks", Map{}}}, kChunksError},
      {"third chunk a string",
       {{"response", "r"}, {"chunks", List{Any(chunk), Any(chunk), Any("x")}}},
       kChunksError},
      {"an emitter among chunks",
       {{"response", "r"}, {"chunks", List{Any(not_a_chunk)}}},
       kChunksError},
  };
  for (const auto& c : cases) {
    PickingFormatter formatter;
    const auto emitter = std::make_shared<RecordingEmitter>();
    Kwargs kwargs;
    for (const auto& [key, value] : c.entries) kwargs.insert_or_assign(key, value);
    kwargs.insert_or_assign("event_emitter", emitter);
    const std::string before = Any(kwargs).repr();
    try {
      (void)orvo_core::run_sync(formatter._run(kwargs));
      ADD_FAILURE() << c.name << ": no error";
    } catch (const orvo_core::ValueError& e) {
      EXPECT_STREQ(e.what(), c.message) << c.name;
    }
    EXPECT_EQ(formatter.calls, 0) << c.name;
    EXPECT_TRUE(emitter->events.empty()) << c.name;
    EXPECT_EQ(Any(kwargs).repr(), before) << c.name << ": the caller's arguments changed";
  }
}

TEST(reference_formatter, run_passes_the_response_on_as_given_and_ignores_other_keys) {
  PickingFormatter formatter;
  formatter.keep = {};
  Kwargs kwargs = kwargs_for({});
  kwargs.insert_or_assign("response", "  padded  ");
  kwargs.insert_or_assign("query", "ignored");
  EXPECT_EQ(orvo_core::run_sync(formatter._run(kwargs)), Any(""));
  EXPECT_EQ(formatter.seen_response, "  padded  ");
  EXPECT_EQ(formatter.calls, 1) << "an empty list of chunks reaches the relevance filter";
}

TEST(reference_formatter, text_result_is_streamed_as_one_event) {
  PickingFormatter formatter;
  const auto emitter = std::make_shared<RecordingEmitter>();
  const Any result = orvo_core::run_sync(formatter._run(kwargs_for(abc_chunks(), emitter)));
  EXPECT_EQ(result, Any("References:\n1. [A](a)\n2. [B](b)\n3. [C](c)"));
  ASSERT_EQ(emitter->events.size(), 1U);
  EXPECT_EQ(
      emitter->events[0].value,
      R"js({"data_type": "reference", "data_value": "References:\n1. [A](a)\n2. [B](b)\n3. [C](c)"})js");
  EXPECT_EQ(emitter->events[0].level, orvo_core::EventLevel::INFO);
  EXPECT_EQ(emitter->events[0].type, orvo_core::EventType::DATA);
}

TEST(reference_formatter, chunk_result_streams_one_dump_per_chunk_in_result_order) {
  PickingFormatter formatter(false);
  formatter.keep = {2, 0};
  const auto emitter = std::make_shared<RecordingEmitter>();
  const rf::Chunks chunks = abc_chunks();
  const Any result = orvo_core::run_sync(formatter._run(kwargs_for(chunks, emitter)));
  ASSERT_TRUE(result.is_list());
  ASSERT_EQ(result.as_list().size(), 2U);
  EXPECT_EQ(result.as_list()[0].as<orvo_core::Chunk>(), chunks[2]) << "the caller's own chunk";
  EXPECT_EQ(result.as_list()[1].as<orvo_core::Chunk>(), chunks[0]);
  EXPECT_EQ(
      emitter->values(),
      (std::vector<std::string>{
          R"js({"data_type": "reference", "data_value": "{'id': '', 'content': 'gamma', 'metadata': {'file_name': 'C', 'file_url': 'c'}, 'score': None}"})js",
          R"js({"data_type": "reference", "data_value": "{'id': '', 'content': 'alpha', 'metadata': {'file_name': 'A', 'file_url': 'a'}, 'score': None}"})js"}));
}

TEST(reference_formatter, nothing_is_streamed_without_references_or_emitter) {
  for (const bool stringify : {true, false}) {
    PickingFormatter formatter(stringify);
    formatter.keep = {};
    const auto emitter = std::make_shared<RecordingEmitter>();
    const Any result = orvo_core::run_sync(formatter._run(kwargs_for(abc_chunks(), emitter)));
    EXPECT_FALSE(result.truthy());
    EXPECT_EQ(result.is_string(), stringify);
    EXPECT_TRUE(emitter->events.empty());
  }
  PickingFormatter formatter;
  EXPECT_EQ(orvo_core::run_sync(formatter._run(kwargs_for(abc_chunks()))),
            Any("References:\n1. [A](a)\n2. [B](b)\n3. [C](c)"));
}

TEST(reference_formatter, streamable_gates_run_but_not_a_direct_call) {
  PickingFormatter formatter(true, {}, {}, {}, false);
  const auto emitter = std::make_shared<RecordingEmitter>();
  const Any via_run = orvo_core::run_sync(formatter._run(kwargs_for(abc_chunks(), emitter)));
  EXPECT_TRUE(emitter->events.empty());
  const Any direct =
      orvo_core::run_sync(formatter.format_reference("The answer.", abc_chunks(), emitter));
  EXPECT_EQ(via_run, direct);
  EXPECT_EQ(emitter->events.size(), 1U);
}

TEST(reference_formatter, non_ascii_is_escaped_in_the_payload) {
  PickingFormatter formatter;
  formatter.keep = {0};
  const auto emitter = std::make_shared<RecordingEmitter>();
  const rf::Chunks chunks{make_chunk("x", "Caf\xc3\xa9 \xe6\x97\xa5", "u")};
  (void)orvo_core::run_sync(formatter._run(kwargs_for(chunks, emitter)));
  EXPECT_EQ(
      emitter->values(),
      std::vector<std::string>{
          R"js({"data_type": "reference", "data_value": "References:\n1. [Caf\u00e9 \u65e5](u)"})js"});
}

TEST(reference_formatter, a_failing_emit_stops_the_remaining_events) {
  PickingFormatter formatter(false);
  const auto emitter = std::make_shared<RecordingEmitter>();
  emitter->fail_at = 1;
  EXPECT_THROW((void)orvo_core::run_sync(formatter._run(kwargs_for(abc_chunks(), emitter))),
               std::runtime_error);
  EXPECT_EQ(emitter->events.size(), 1U);
}

TEST(reference_formatter, a_non_emitter_given_as_emitter_is_a_type_error) {
  PickingFormatter formatter;
  Kwargs kwargs = kwargs_for(abc_chunks());
  kwargs.insert_or_assign("event_emitter", "stdout");
  EXPECT_THROW((void)orvo_core::run_sync(formatter._run(kwargs)), orvo_core::TypeError);
  kwargs.insert_or_assign("event_emitter", Any());
  EXPECT_NO_THROW((void)orvo_core::run_sync(formatter._run(kwargs)));
}

TEST(reference_formatter, the_base_relevance_filter_is_abstract) {
  PickingFormatter formatter;
  EXPECT_THROW((void)orvo_core::run_sync(
                   formatter.BaseReferenceFormatter::_get_relevant_chunks("r", abc_chunks())),
               orvo_core::NotImplementedError);
}

TEST(reference_formatter, start_and_finish_messages) {
  PickingFormatter formatter;
  Kwargs input;
  input.emplace("chunks", List(5, Any(make_chunk("x"))));
  EXPECT_EQ(formatter._format_input_event(input),
            "[Start 'PickingFormatter'] Formatting references using 5 candidate chunks.");
  EXPECT_THROW((void)formatter._format_input_event({}), orvo_core::TypeError);
  EXPECT_EQ(formatter._format_output_event(Any("References:\n1. [A](a)")),
            "[Finished 'PickingFormatter'] Successfully formatted references:\n"
            "'References:\\n1. [A](a)'");
  const List chunks{Any(make_chunk("a", "A"))};
  EXPECT_EQ(formatter._format_output_event(Any(chunks)),
            "[Finished 'PickingFormatter'] Successfully formatted references:\n"
            "[Chunk(id='', content='a', metadata={'file_name': 'A'}, score=None)]");
}

TEST(reference_formatter, driver_wraps_the_stream_in_start_and_finish_messages) {
  PickingFormatter formatter;
  formatter.keep = {1};
  const auto emitter = std::make_shared<RecordingEmitter>();
  const Any result = orvo_core::run_sync(formatter.run(kwargs_for(abc_chunks(), emitter)));
  EXPECT_EQ(result, Any("References:\n1. [B](b)"));
  EXPECT_EQ(emitter->values(),
            (std::vector<std::string>{
                "[Start 'PickingFormatter'] Formatting references using 3 candidate chunks.",
                R"js({"data_type": "reference", "data_value": "References:\n1. [B](b)"})js",
                "[Finished 'PickingFormatter'] Successfully formatted references:\n"
                "'References:\\n1. [B](b)'"}));
}

}  // namespace
