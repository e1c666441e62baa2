#include "orvo_generation/reference_formatter/source_references.hpp"

#include <algorithm>
#include <map>
#include <utility>

#include "orvo_generation/reference_formatter/markdown_reference.hpp"
#include "orvo_generation/reference_formatter/reference_entry.hpp"

namespace orvo_generation::reference_formatter {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

FormatChunkFunc format_chunk_as_source(Any metadata_map, Any section_key) {
  return [metadata_map = std::move(metadata_map),
          section_key = std::move(section_key)](const orvo_core::Chunk& chunk) -> Any {
    const Map& keys = metadata_map.as_map();
    const auto value = [&chunk](const Any* key) {
      return key != nullptr ? orvo_core::lookup(chunk.metadata, *key) : Any();
    };
    Map entry;
    entry.emplace("title", value(orvo_core::find(keys, "title")));
    entry.emplace("url", value(orvo_core::find(keys, "url")));
    entry.emplace("section", section_key.is_none() ? Any() : value(&section_key));
    return entry;
  };
}

std::vector<SourceReference> group_by_source(const List& entries) {
  std::vector<SourceReference> sources;
  // "u" + address or "t" + title to the source's index.
  std::map<std::string, std::size_t, std::less<>> index;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const Any& entry = entries[i];
    const bool fields = entry.is_map();
    const Any title = fields ? orvo_core::get(entry.as_map(), "title") : entry;
    const Any url = fields ? orvo_core::get(entry.as_map(), "url") : Any();
    const Any section = fields ? orvo_core::get(entry.as_map(), "section") : Any();
    std::string key;
    if (url.truthy()) {
      key = "u" + url.str();
    } else if (!title.is_none()) {
      key = "t" + title.str();
    }
    auto found = key.empty() ? index.end() : index.find(key);
    if (found == index.end()) {
      sources.push_back(SourceReference{title, url, {}, {}});
      if (!key.empty()) found = index.emplace(std::move(key), sources.size() - 1).first;
    }
    SourceReference& source = found == index.end() ? sources.back() : sources[found->second];
    source.positions.push_back(i);
    if (section.is_none()) continue;
    std::string text = section.str();
    if (std::find(source.sections.begin(), source.sections.end(), text) == source.sections.end()) {
      source.sections.push_back(std::move(text));
    }
  }
  return sources;
}

std::vector<SourceReference> group_by_source(const Chunks& chunks, const Any& metadata_map,
                                             const Any& section_key) {
  const FormatChunkFunc entry = format_chunk_as_source(metadata_map, section_key);
  List entries;
  entries.reserve(chunks.size());
  for (const auto& chunk : chunks) entries.push_back(entry(*chunk));
  return group_by_source(entries);
}

std::vector<std::size_t> source_numbers(const std::vector<SourceReference>& sources,
                                        std::size_t count) {
  std::vector<std::size_t> numbers(count, 0);
  for (std::size_t s = 0; s < sources.size(); ++s) {
    for (const std::size_t position : sources[s].positions) {
      if (position < count) numbers[position] = s + 1;
    }
  }
  return numbers;
}

std::string format_references_by_source(const List& formatted_chunks) {
  if (formatted_chunks.empty()) return {};
  std::string out = "References:";
  const std::vector<SourceReference> sources = group_by_source(formatted_chunks);
  for (std::size_t s = 0; s < sources.size(); ++s) {
    const SourceReference& source = sources[s];
    out += "\n" + std::to_string(s + 1) + ". ";
    detail::append_entry(out, source.title.is_none() ? nullptr : &source.title,
                         source.url.is_none() ? nullptr : &source.url, true);
    for (std::size_t i = 0; i < source.sections.size(); ++i) {
      out += i == 0 ? " — " : "; ";
      out += escape_markdown_text(source.sections[i]);
    }
  }
  return out;
}

}  // namespace orvo_generation::reference_formatter
