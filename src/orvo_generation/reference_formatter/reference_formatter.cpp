#include "orvo_generation/reference_formatter/reference_formatter.hpp"

#include <charconv>
#include <cstdint>
#include <typeinfo>
#include <utility>

#include "orvo_core/constants.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_generation/reference_formatter/markdown_reference.hpp"
#include "orvo_generation/reference_formatter/prefetch.hpp"
#include "orvo_generation/reference_formatter/reference_entry.hpp"

namespace orvo_generation::reference_formatter {

using orvo_core::Any;
using orvo_core::Chunk;
using orvo_core::EventEmitter;
using orvo_core::List;
using orvo_core::Map;

namespace {

constexpr const char* kResponseError =
    "The input kwargs for reference formatter must include a non-empty `response` key of type "
    "`str`.";
constexpr const char* kChunksError =
    "The input kwargs for reference formatter must include a `chunks` key of type `list[Chunk]`.";

Any make_default_metadata_map() {
  Map map;
  map.emplace("title", "file_name");
  map.emplace("url", "file_url");
  return map;
}

// The "response" of `_run`'s keyword arguments: a string that is not blank.
const std::string& response_argument(const orvo_core::Kwargs& kwargs) {
  const Any* response = orvo_core::find(kwargs, "response");
  if (response == nullptr || !response->is_string() ||
      orvo_core::text::is_blank(response->as_string())) {
    throw orvo_core::ValueError(kResponseError);
  }
  return response->as_string();
}

}  // namespace

const Any DEFAULT_FORMAT_CHUNK_METADATA_MAP = make_default_metadata_map();

std::string format_references_as_string(const List& formatted_chunks) {
  if (formatted_chunks.empty()) return {};
  std::string out = "References:";
  for (std::size_t i = 0; i < formatted_chunks.size(); ++i) {
    out.push_back('\n');
    out += std::to_string(i + 1);
    out += ". ";
    formatted_chunks[i].append_str(out);
  }
  return out;
}

namespace {

// The default chunk formatter. A named type, so that `_format_as_string` can recognise it and
// write the reference text directly instead of going through a list of entry values.
class ChunkReference {
 public:
  // `markdown`: escape titles and encode addresses (see format_chunk_as_markdown).
  ChunkReference(Any metadata_map, bool markdown)
      : metadata_map_(std::move(metadata_map)), markdown_(markdown) {}

  // The metadata keys of the title and the address, as the map names them now (null: none).
  [[nodiscard]] std::pair<const Any*, const Any*> keys() const {
    const Map& map = metadata_map_.as_map();
    return {orvo_core::find(map, "title"), orvo_core::find(map, "url")};
  }

  // The chunk's title and address values under those keys (null when missing).
  [[nodiscard]] static std::pair<const Any*, const Any*> fields(
      const Chunk& chunk, std::pair<const Any*, const Any*> keys) {
    const auto value = [&chunk](const Any* key) {
      return key != nullptr ? orvo_core::find_key(chunk.metadata, *key) : nullptr;
    };
    return {value(keys.first), value(keys.second)};
  }

  void append(std::string& out, const Any* title, const Any* url) const {
    detail::append_entry(out, title, url, markdown_);
  }

  Any operator()(const Chunk& chunk) const {
    const auto [title, url] = fields(chunk, keys());
    if (url == nullptr || !url->truthy()) {
      if (title == nullptr) return {};
      if (!markdown_) return *title;
    }
    std::string entry;
    append(entry, title, url);
    return entry;
  }

 private:
  Any metadata_map_;
  bool markdown_;
};

void append_number(std::string& out, std::size_t n) {
  char digits[24];
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, n);
  (void)error;  // 24 digits hold any size_t
  out.append(digits, end);
}

// The default reference text, written directly. Chunks that sat idle while a large batch of
// embeddings streamed through the cache are cold: their objects, metadata entries and strings
// are fetched ahead in independent passes, so that the misses overlap instead of following one
// another chunk by chunk.
std::string render_references(const Chunks& chunks, const ChunkReference& reference) {
  if (chunks.empty()) return {};
  const bool prefetch = chunks.size() >= detail::kPrefetchFrom;
  if (prefetch) {
    // The metadata map sits a line or two into the chunk object.
    for (const auto& chunk : chunks) {
      const auto* object = reinterpret_cast<const char*>(chunk.get());
      __builtin_prefetch(object + 64);
      __builtin_prefetch(object + 128);
    }
    for (const auto& chunk : chunks) {
      if (chunk->metadata.empty()) continue;
      const auto* first = reinterpret_cast<const char*>(&*chunk->metadata.begin());
      __builtin_prefetch(first);
      __builtin_prefetch(first + 64);
      __builtin_prefetch(first + 128);
    }
  }
  std::vector<std::pair<const Any*, const Any*>> fields;
  fields.reserve(chunks.size());
  // The text's size, so that it is allocated once: strings as they are, other values guessed.
  std::size_t size = 16;
  // Nothing can change the map while the text is written, so its keys are read once.
  const auto keys = reference.keys();
  for (const auto& chunk : chunks) {
    fields.push_back(ChunkReference::fields(*chunk, keys));
    size += 32;  // number, brackets and a value that is not a string
    for (const Any* value : {fields.back().first, fields.back().second}) {
      if (value == nullptr || !value->is_string()) continue;
      size += value->as_string().size();
      if (prefetch) __builtin_prefetch(value->as_string().data());
    }
  }
  std::string out;
  out.reserve(size);
  out = "References:";
  for (std::size_t i = 0; i < fields.size(); ++i) {
    out.push_back('\n');
    append_number(out, i + 1);
    out += ". ";
    reference.append(out, fields[i].first, fields[i].second);
  }
  return out;
}

}  // namespace

FormatChunkFunc format_chunk_as_string(Any metadata_map) {
  return ChunkReference(std::move(metadata_map), false);
}

FormatChunkFunc format_chunk_as_markdown(Any metadata_map) {
  return ChunkReference(std::move(metadata_map), true);
}

std::string reference_payload(std::string_view data_value) {
  std::string out = R"({"data_type": "reference", "data_value": )";
  orvo_core::text::append_json_string(out, data_value);
  out.push_back('}');
  return out;
}

std::string data_payload(std::string_view data_type, Any data_value) {
  Map payload;
  payload.emplace("data_type", data_type);
  payload.emplace("data_value", std::move(data_value));
  return orvo_core::to_json(payload);
}

BaseReferenceFormatter::BaseReferenceFormatter(bool stringify,
                                               FormatReferencesFunc format_references_func,
                                               FormatChunkFunc format_chunk_func,
                                               Any format_chunk_metadata_map, bool streamable)
    : stringify(stringify),
      format_references_func(format_references_func
                                 ? std::move(format_references_func)
                                 : FormatReferencesFunc(format_references_as_string)),
      format_chunk_func(format_chunk_func
                            ? std::move(format_chunk_func)
                            : format_chunk_as_string(format_chunk_metadata_map.truthy()
                                                         ? std::move(format_chunk_metadata_map)
                                                         : DEFAULT_FORMAT_CHUNK_METADATA_MAP)),
      streamable(streamable) {}

orvo_core::Awaitable<Any> BaseReferenceFormatter::_run(orvo_core::Kwargs kwargs) {
  response_argument(kwargs);  // its error comes before the chunks'
  const Any* chunks_value = orvo_core::find(kwargs, "chunks");
  if (chunks_value == nullptr || !chunks_value->is_list()) {
    throw orvo_core::ValueError(kChunksError);
  }
  Chunks chunks;
  chunks.reserve(chunks_value->as_list().size());
  detail::prefetch_objects(chunks_value->as_list(), [](const Any& element) {
    return element.is_object() ? element.as_object().get() : nullptr;
  });
  // Chunks of one class come together: a class once found to be a chunk's is cast statically
  // until another class comes.
  const std::type_info* known = &typeid(Chunk);
  for (const Any& element : chunks_value->as_list()) {
    if (!element.is_object()) throw orvo_core::ValueError(kChunksError);
    const std::shared_ptr<orvo_core::Object>& object = element.as_object();
    const orvo_core::Object& referent = *object;
    const std::type_info& type = typeid(referent);
    if (&type == known) {
      chunks.push_back(std::static_pointer_cast<Chunk>(object));
      continue;
    }
    auto chunk = std::dynamic_pointer_cast<Chunk>(object);
    if (!chunk) throw orvo_core::ValueError(kChunksError);
    known = &type;
    chunks.push_back(std::move(chunk));
  }
  co_return co_await _run_chunks(std::move(kwargs), std::move(chunks));
}

orvo_core::Awaitable<Any> BaseReferenceFormatter::_run_chunks(orvo_core::Kwargs kwargs,
                                                              Chunks chunks) {
  std::string response = response_argument(kwargs);
  std::shared_ptr<EventEmitter> event_emitter =
      streamable ? orvo_core::event_emitter_argument(kwargs) : nullptr;
  co_return co_await format_reference(std::move(response), std::move(chunks),
                                      std::move(event_emitter));
}

orvo_core::Awaitable<Any> BaseReferenceFormatter::format_reference(
    std::string response, Chunks chunks, std::shared_ptr<EventEmitter> event_emitter) {
  Chunks relevant_chunks =
      co_await _select_relevant_chunks(std::move(response), std::move(chunks), event_emitter);
  Any references;
  if (stringify) {
    references = _format_as_string(relevant_chunks);
  } else {
    references = List(relevant_chunks.begin(), relevant_chunks.end());
  }
  co_await stream_references(references, relevant_chunks, std::move(event_emitter));
  co_return std::move(references);
}

orvo_core::Awaitable<void> BaseReferenceFormatter::stream_references(
    const Any& references, const Chunks& relevant_chunks,
    std::shared_ptr<EventEmitter> event_emitter) {
  if (!event_emitter) co_return;
  if (references.is_string()) {
    if (references.as_string().empty()) co_return;
    std::string value = reference_payload(references.as_string());
    co_await event_emitter->emit(std::move(value), orvo_core::EventLevel::INFO,
                                 orvo_core::EventType::DATA);
    co_return;
  }
  // Every text is built before the first event, so a failing dump emits nothing.
  std::vector<std::string> streamed_references;
  streamed_references.reserve(relevant_chunks.size());
  for (const auto& chunk : relevant_chunks) {
    streamed_references.push_back(Any(chunk->model_dump()).str());
  }
  for (const std::string& streamed_reference : streamed_references) {
    std::string value = reference_payload(streamed_reference);
    co_await event_emitter->emit(std::move(value), orvo_core::EventLevel::INFO,
                                 orvo_core::EventType::DATA);
  }
}

// Not a coroutine: it hands over `_get_relevant_chunks`'s own awaitable, without a frame of its
// own.
orvo_core::Awaitable<Chunks> BaseReferenceFormatter::_select_relevant_chunks(
    std::string response, Chunks chunks, std::shared_ptr<EventEmitter> /*event_emitter*/) {
  return _get_relevant_chunks(std::move(response), std::move(chunks));
}

orvo_core::Awaitable<Chunks> BaseReferenceFormatter::_get_relevant_chunks(std::string /*response*/,
                                                                          Chunks /*chunks*/) {
  throw orvo_core::NotImplementedError();
  co_return Chunks{};
}

std::string BaseReferenceFormatter::_format_as_string(const Chunks& chunks) const {
  if (!format_chunk_func) throw orvo_core::TypeError("`format_chunk_func` is not set");
  if (!format_references_func) throw orvo_core::TypeError("`format_references_func` is not set");
  // With both defaults the text is written directly; the result is the same.
  using ReferencesFunction = std::string (*)(const List&);
  const auto* references_function = format_references_func.target<ReferencesFunction>();
  const auto* chunk_reference = format_chunk_func.target<ChunkReference>();
  if (chunk_reference != nullptr && references_function != nullptr &&
      *references_function == &format_references_as_string) {
    return render_references(chunks, *chunk_reference);
  }
  List formatted_chunks;
  formatted_chunks.reserve(chunks.size());
  for (const auto& chunk : chunks) formatted_chunks.push_back(format_chunk_func(*chunk));
  return format_references_func(formatted_chunks);
}

std::string BaseReferenceFormatter::_format_input_event(const Map& input_dict) const {
  const std::size_t count = orvo_core::length(orvo_core::get(input_dict, "chunks"));
  return "[Start " + orvo_core::text::quoted(type_name()) + "] Formatting references using " +
         std::to_string(count) + " candidate chunks.";
}

std::string BaseReferenceFormatter::_format_output_event(const Any& output) const {
  return "[Finished " + orvo_core::text::quoted(type_name()) +
         "] Successfully formatted references:\n" + output.repr();
}

}  // namespace orvo_generation::reference_formatter
