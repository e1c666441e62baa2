#include "orvo_core/schema/chunk.hpp"

#include "orvo_core/text.hpp"

namespace orvo_core {

Chunk::Chunk(std::string content, Map metadata, std::string id, std::optional<double> score)
    : id(std::move(id)), content(std::move(content)), metadata(std::move(metadata)), score(score) {}

Map Chunk::model_dump() const {
  Map dump;
  dump.reserve(4);
  dump.emplace("id", id);
  dump.emplace("content", content);
  dump.emplace("metadata", Any(metadata));
  dump.emplace("score", score ? Any(*score) : Any());
  return dump;
}

std::string Chunk::repr() const {
  std::string out = type_name();
  out += "(id=";
  text::append_quoted(out, id);
  out += ", content=";
  text::append_quoted(out, content);
  out += ", metadata=";
  append_repr(out, metadata);
  out += ", score=";
  (score ? Any(*score) : Any()).append_repr(out);
  out += ')';
  return out;
}

}  // namespace orvo_core
