#include "orvo_generation/reference_formatter/source_references.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::Map;

TEST(source_references, one_entry_per_address_else_per_title_in_first_appearance_order) {
  const auto chunk = [](Any title, Any url, const char* section) {
    Map metadata{{"file_name", std::move(title)}, {"file_url", std::move(url)}, {"part", section}};
    return std::make_shared<orvo_core::Chunk>("text", std::move(metadata));
  };
  const rf::Chunks chunks = {chunk("Guide", "g", "Setup"),    chunk("Tides", "", "Moon"),
                             chunk("Guide v2", "g", "Usage"), chunk("Tides", Any(), "Sun"),
                             chunk("Tides", "t", "Sun"),      chunk(Any(), Any(), "x"),
                             chunk(Any(), Any(), "y"),        chunk("Guide", "g", "Setup")};
  const auto sources = rf::group_by_source(chunks, rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP, "part");
  EXPECT_EQ(rf::source_numbers(sources, chunks.size()),
            (std::vector<std::size_t>{1, 2, 1, 2, 3, 4, 5, 1}));

  const auto entry = rf::format_chunk_as_source(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP, "part");
  orvo_core::List entries;
  for (const auto& c : chunks) entries.push_back(entry(*c));
  EXPECT_EQ(rf::format_references_by_source(entries),
            "References:\n1. [Guide](g) — Setup; Usage\n2. Tides — Moon; Sun\n3. [Tides](t) — Sun\n"
            "4. None — x\n5. None — y");
  EXPECT_EQ(rf::format_references_by_source({Any("[a]"), Any("[a]"), Any("b")}),
            "References:\n1. \\[a\\]\n2. b")
      << "plain entries merge by their text";
  EXPECT_EQ(rf::format_references_by_source({}), "");
}

}  // namespace
