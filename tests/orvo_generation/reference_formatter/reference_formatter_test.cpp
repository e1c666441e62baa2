#include "orvo_generation/reference_formatter/reference_formatter.hpp"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/chunks.hpp"
#include "support/expect_throw_msg.hpp"
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

// Keeps the chunks at the chosen positions and records the responses it was asked about.
class PickingFormatter : public rf::BaseReferenceFormatter {
 public:
  using BaseReferenceFormatter::BaseReferenceFormatter;

  orvo_core::Awaitable<rf::Chunks> _get_relevant_chunks(std::string response,
                                                        rf::Chunks chunks) override {
    seen.push_back(response);
    rf::Chunks relevant;
    for (const std::size_t i : keep) relevant.push_back(chunks.at(i));
    co_return relevant;
  }

  std::vector<std::size_t> keep{0, 1, 2};
  std::vector<std::string> seen;
};

rf::Chunks abc_chunks() {
  return {make_chunk("alpha", "Caf\xc3\xa9 \xe6\x97\xa5", "a"), make_chunk("beta", "B", "b"),
          make_chunk("gamma", "C", "c")};
}

// The response is passed on as given, not trimmed.
Kwargs kwargs_for(const rf::Chunks& chunks, std::shared_ptr<RecordingEmitter> emitter = nullptr) {
  Kwargs kwargs;
  kwargs.emplace("response", "  padded  ");
  kwargs.emplace("chunks", List(chunks.begin(), chunks.end()));
  if (emitter) kwargs.emplace("event_emitter", emitter);
  return kwargs;
}

Any run(rf::BaseReferenceFormatter& formatter, Kwargs kwargs) {
  return orvo_core::run_sync(formatter._run(std::move(kwargs)));
}

std::string payload(const std::string& data_value) {
  return R"js({"data_type": "reference", "data_value": )js" + data_value + "}";
}

// The default text is written by a path of its own: it must say what the generic one says.
TEST(reference_formatter, reference_text_numbers_chunk_entries_made_by_the_metadata_map) {
  EXPECT_EQ(rf::format_references_as_string({}), "");
  EXPECT_EQ(rf::format_references_as_string({Any("A"), Any(), Any(3)}),
            "References:\n1. A\n2. None\n3. 3");
  const std::string ten = rf::format_references_as_string(List(10, Any("x")));
  EXPECT_TRUE(ten.ends_with("\n9. x\n10. x")) << ten;
  const auto format = rf::format_chunk_as_string(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  const struct {
    Map metadata;
    Any entry;
  } cases[] = {
      {Map{{"file_name", "Guide"}, {"file_url", "docs/guide"}}, Any("[Guide](docs/guide)")},
      {Map{{"file_name", "Guide"}}, Any("Guide")},
      {Map{{"file_url", "docs/guide"}}, Any("[None](docs/guide)")},
      {Map{{"file_name", "Guide"}, {"file_url", ""}}, Any("Guide")},
      {Map{{"file_name", 7}, {"file_url", 0}}, Any(7)},
      {Map{{"file_name", 0.5}, {"file_url", "caf\xc3\xa9 'x'"}}, Any("[0.5](caf\xc3\xa9 'x')")},
  };
  const PickingFormatter direct;
  for (const auto& c : cases) {
    const auto chunk = std::make_shared<orvo_core::Chunk>("text", c.metadata);
    EXPECT_EQ(format(*chunk).repr(), c.entry.repr()) << Any(c.metadata).repr();
    EXPECT_EQ(direct._format_as_string({chunk, chunk}),
              rf::format_references_as_string({c.entry, c.entry}));
  }
  const orvo_core::Chunk named("text", Map{{"name", "N"}, {"link", "l"}});
  EXPECT_EQ(rf::format_chunk_as_string(Map{{"title", "name"}})(named), Any("N")) << "no `url`";
  const PickingFormatter unhashable(true, {}, {}, Map{{"title", List{}}});
  EXPECT_THROW((void)unhashable._format_as_string({make_chunk("a")}), orvo_core::TypeError);
  const PickingFormatter own(
      true, [](const List& entries) { return std::to_string(entries.size()) + " refs"; },
      [](const orvo_core::Chunk& /*c*/) { return Any(); });
  EXPECT_EQ(own._format_as_string({make_chunk("a"), make_chunk("b")}), "2 refs");
}

TEST(reference_formatter, run_rejects_bad_inputs_with_the_fixed_messages) {
  const Any chunk(make_chunk("text"));
  const struct {
    std::optional<Any> response, chunks;  // None: the key is missing.
    const char* message;
  } cases[] = {
      {std::nullopt, List{}, kResponseError},
      {Any("   \n"), List{}, kResponseError},
      {Any("r"), std::nullopt, kChunksError},
      {Any("r"), List{chunk, chunk, Any(std::make_shared<RecordingEmitter>())}, kChunksError},
  };
  for (const auto& c : cases) {
    PickingFormatter formatter;
    Kwargs kwargs;
    if (c.response) kwargs.emplace("response", *c.response);
    if (c.chunks) kwargs.emplace("chunks", *c.chunks);
    EXPECT_EQ(
        orvo_test::thrown_message<orvo_core::ValueError>([&] { (void)run(formatter, kwargs); }),
        c.message)
        << Any(kwargs).repr();
    EXPECT_TRUE(formatter.seen.empty());
  }
}

TEST(reference_formatter, text_result_is_streamed_as_one_ascii_event) {
  PickingFormatter formatter;
  formatter.keep = {0, 1};
  const auto emitter = std::make_shared<RecordingEmitter>();
  EXPECT_EQ(run(formatter, kwargs_for(abc_chunks(), emitter)),
            Any("References:\n1. [Caf\xc3\xa9 \xe6\x97\xa5](a)\n2. [B](b)"));
  EXPECT_EQ(emitter->values(), std::vector<std::string>{payload(
                                   R"js("References:\n1. [Caf\u00e9 \u65e5](a)\n2. [B](b)")js")});
  formatter.keep = {};
  EXPECT_EQ(run(formatter, kwargs_for({}, emitter)), Any(""));
  EXPECT_EQ(formatter.seen, (std::vector<std::string>(2, "  padded  ")))
      << "an empty list of chunks reaches the relevance filter too";
}

TEST(reference_formatter, emitter_rules_and_errors) {
  PickingFormatter quiet(true, {}, {}, {}, false);
  const auto emitter = std::make_shared<RecordingEmitter>();
  (void)orvo_core::run_sync(quiet.format_reference("The answer.", abc_chunks(), emitter));
  EXPECT_EQ(emitter->events.size(), 1U) << "not streamable only withholds the emitter from `_run`";

  // Chunks as the result: one dump per chunk, in result order.
  PickingFormatter formatter(false);
  formatter.keep = {2, 0};
  const rf::Chunks chunks = abc_chunks();
  EXPECT_EQ(run(formatter, kwargs_for(chunks, emitter)), Any(List{Any(chunks[2]), Any(chunks[0])}));
  ASSERT_EQ(emitter->events.size(), 3U);
  EXPECT_EQ(emitter->values()[1],
            payload(R"("{'id': '', 'content': 'gamma', 'metadata': {'file_name': 'C', )"
                    R"('file_url': 'c'}, 'score': None}")"));
  emitter->fail_at = emitter->calls + 1;
  EXPECT_THROW((void)run(formatter, kwargs_for(chunks, emitter)), std::runtime_error);
  EXPECT_EQ(emitter->events.size(), 4U) << "a failing emit stops the remaining events";

  Kwargs kwargs = kwargs_for(abc_chunks());
  kwargs.insert_or_assign("event_emitter", "stdout");
  EXPECT_THROW((void)run(formatter, kwargs), orvo_core::TypeError);
  kwargs.insert_or_assign("event_emitter", Any());
  EXPECT_NO_THROW((void)run(formatter, kwargs));
  EXPECT_EQ(formatter._format_input_event(kwargs),
            "[Start 'PickingFormatter'] Formatting references using 3 candidate chunks.");
  EXPECT_EQ(formatter._format_output_event(Any(List{Any(make_chunk("a", "A"))})),
            "[Finished 'PickingFormatter'] Successfully formatted references:\n"
            "[Chunk(id='', content='a', metadata={'file_name': 'A'}, score=None)]");
}

}  // namespace
