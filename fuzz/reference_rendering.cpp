// The reference text of chunks with arbitrary metadata: the direct path that the defaults take
// against the generic one, and the one error both may raise. The layout is the unit tests'.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::List;
using orvo_core::Map;
using orvo_fuzz::escaped;
using orvo_fuzz::Input;
using orvo_fuzz::ValueBuilder;
namespace rf = orvo_generation::reference_formatter;

class Passthrough : public rf::BaseReferenceFormatter {
 public:
  using BaseReferenceFormatter::BaseReferenceFormatter;
  orvo_core::Awaitable<rf::Chunks> _get_relevant_chunks(std::string /*response*/,
                                                        rf::Chunks chunks) override {
    co_return chunks;
  }
};

// The text, or "!" and the name of the error that stopped it.
template <class F>
std::string outcome(F f) {
  try {
    return f();
  } catch (const orvo_core::TypeError&) {
    return "!TypeError";
  } catch (const orvo_core::ValueError&) {
    return "!ValueError";
  }
}

// A key for the metadata map: mostly metadata keys, sometimes any value at all.
Any map_key(Input& in, ValueBuilder& builder) {
  static constexpr const char* kKeys[] = {"file_name", "file_url", "title", "url", "", "name"};
  if (in.flag()) return kKeys[in.below(std::size(kKeys))];
  return in.flag() ? Any(builder.string()) : builder.value(3);
}

Any metadata_map(Input& in, ValueBuilder& builder) {
  switch (in.below(8)) {
    case 0: {
      Map map;
      for (const char* field : {"title", "url"}) {
        if (in.below(4) != 0) map.insert_or_assign(field, map_key(in, builder));
      }
      if (in.flag()) {
        std::string key = builder.key();
        map.insert_or_assign(std::move(key), builder.value(2));
      }
      return map;
    }
    case 1:
      return Map();
    case 2:
      return builder.value(3);
    default:
      return rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP;
  }
}

void check(const rf::Chunks& chunks, const Any& metadata_map) {
  // The constructor falls back to the default map for an absent or empty one.
  const Any effective =
      metadata_map.truthy() ? metadata_map : rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP;
  const Passthrough direct(true, {}, {}, metadata_map);
  const rf::FormatChunkFunc chunk_func = rf::format_chunk_as_string(effective);
  // Wrapped, the defaults are no longer recognised, so this formatter takes the generic path.
  const Passthrough generic(
      true, [](const List& entries) { return rf::format_references_as_string(entries); },
      [chunk_func](const Chunk& chunk) { return chunk_func(chunk); });

  const std::string text = outcome([&] { return direct._format_as_string(chunks); });
  const std::string slow = outcome([&] { return generic._format_as_string(chunks); });
  ORVO_FUZZ_CHECK(text == slow, escaped(text) + "\ngeneric: " + escaped(slow));
  // The only error: a metadata map that is no map, or whose title or url key is unhashable.
  const auto unhashable = [&effective](const char* field) {
    const Any key = orvo_core::get(effective.as_map(), field);
    return key.is_list() || key.is_map();
  };
  const bool error =
      !chunks.empty() && (!effective.is_map() || unhashable("title") || unhashable("url"));
  ORVO_FUZZ_CHECK(error ? text == "!TypeError" : !text.starts_with("!"), escaped(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  // Objects in metadata values: chunks made earlier (never later ones, so no cycle runs through
  // an object), and objects of other kinds.
  std::vector<Any> objects = {Any(std::make_shared<orvo_fuzz::Opaque>())};
  ValueBuilder builder(
      in, [&objects](Input& i, ValueBuilder&, int) { return objects[i.below(objects.size())]; });

  const Any map = metadata_map(in, builder);
  const std::size_t count = in.below(8) == 0 ? 28 + in.below(12) : in.below(6);
  rf::Chunks chunks;
  for (std::size_t c = 0; c < count; ++c) {
    const auto chunk = builder.chunk(1);
    // The same chunk twice in a row, as a caller may pass it.
    if (in.below(8) == 0) chunks.push_back(chunk);
    chunks.push_back(chunk);
    objects.emplace_back(chunk);
  }

  check(chunks, map);
  return 0;
}
