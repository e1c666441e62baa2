#include "ask.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "corpus_index.hpp"
#include "escaping_handler.hpp"
#include "orvo_core/event.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/em_invoker/openai_em_invoker.hpp"
#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"
#include "orvo_inference/request_processor/extractive_request_processor.hpp"
#include "progress_bar.hpp"

namespace orvo_cli {

using orvo_core::Any;
using Chunks = std::vector<std::shared_ptr<orvo_core::Chunk>>;

namespace {

constexpr std::string_view kNoAnswer = orvo_inference::ExtractiveRequestProcessor::kNoAnswer;

// An extracted answer shares most words with the chunks it comes from, and some with any chunk
// on the same subject.
constexpr double kOfflineThreshold = 0.45;
constexpr std::size_t kEmbedBatch = 64;

constexpr const char* kAnswerSystem =
    "You answer questions using only the context below. Answer in a few sentences. If the "
    "context does not hold the answer, reply with exactly this sentence and nothing else: I "
    "couldn't find an answer in the documents.\n\nContext:\n{context}";
constexpr const char* kAnswerUser = "{query}";
constexpr const char* kJudgeSystem =
    "You decide which chunks of a context support a response. Each chunk starts with [CHUNK] "
    "and is labelled with its file_name. Reply with a JSON object only, of the form "
    "{{\"file_name\": [\"<file_name of a supporting chunk>\", ...]}}, listing every chunk whose "
    "content supports the response, and an empty list if none does.";
constexpr const char* kJudgeUser = "Response:\n{response}\n\nContext:\n{context}";

struct Collaborators {
  std::shared_ptr<orvo_inference::BaseEMInvoker> retrieval;  ///< Null: BM25 alone.
  std::shared_ptr<orvo_inference::BaseEMInvoker> references;
  std::shared_ptr<orvo_inference::LMRequestProcessor> answerer;
  std::shared_ptr<orvo_inference::LMRequestProcessor> judge;
};

Collaborators collaborators(const AskOptions& options) {
  using orvo_inference::ExtractiveRequestProcessor;
  Collaborators parts;
  const std::string embedding_url = embedding_endpoint(options);
  std::shared_ptr<orvo_inference::http::HttpClient> client;
  std::string api_key;
  if (remote_chat(options) || !embedding_url.empty()) {
    const char* key = std::getenv(options.api_key_env.c_str());
    api_key = key != nullptr ? key : "";
    orvo_inference::http::ClientOptions client_options;
    client_options.read_timeout = options.timeout;
    client_options.connect_timeout = options.connect_timeout;
    client_options.total_timeout = options.total_timeout;
    client_options.retry.max_retries = options.retries;
    client_options.ca_file = options.ca_file;
    client = orvo_inference::http::HttpClient::create(client_options);
  }
  if (!embedding_url.empty()) {
    parts.retrieval = std::make_shared<orvo_inference::OpenAIEMInvoker>(
        options.embedding_model, embedding_url, api_key, kEmbedBatch, client);
    parts.references = parts.retrieval;
  } else {
    parts.references = std::make_shared<orvo_inference::LexicalEMInvoker>();
  }
  if (remote_chat(options)) {
    const auto chat = std::make_shared<orvo_inference::OpenAILMInvoker>(
        options.chat_model, options.url, api_key, orvo_core::Map{}, client);
    parts.answerer = std::make_shared<orvo_inference::LMRequestProcessor>(
        orvo_inference::PromptTemplate(kAnswerSystem, kAnswerUser), chat);
    parts.judge = std::make_shared<orvo_inference::LMRequestProcessor>(
        orvo_inference::PromptTemplate(kJudgeSystem, kJudgeUser), chat,
        std::make_shared<orvo_inference::JsonOutputParser>());
  } else {
    parts.answerer =
        std::make_shared<ExtractiveRequestProcessor>(ExtractiveRequestProcessor::Task::answer);
    parts.judge =
        std::make_shared<ExtractiveRequestProcessor>(ExtractiveRequestProcessor::Task::judge);
  }
  return parts;
}

// Several chunks of one section make one reference.
std::string distinct_references(const orvo_core::List& entries) {
  orvo_core::List distinct;
  for (const Any& entry : entries) {
    if (std::find(distinct.begin(), distinct.end(), entry) == distinct.end()) {
      distinct.push_back(entry);
    }
  }
  return orvo_generation::reference_formatter::format_references_as_string(distinct);
}

Any metadata_text(const orvo_core::Chunk& chunk, std::string_view key) {
  return orvo_core::get(chunk.metadata, key);
}

Any optional_number(const std::optional<double>& value) {
  return value ? Any(*value) : Any();
}
Any optional_rank(const std::optional<std::size_t>& value) {
  return value ? Any(static_cast<std::int64_t>(*value)) : Any();
}

// How a program sees a retrieved or cited chunk.
orvo_core::Map describe(const orvo_core::Chunk& chunk) {
  orvo_core::Map entry;
  entry.emplace("title", metadata_text(chunk, "file_name"));
  entry.emplace("url", metadata_text(chunk, "file_url"));
  entry.emplace("chunk_id", chunk.id);
  entry.emplace("section", metadata_text(chunk, "section"));
  entry.emplace("score", optional_number(chunk.score));
  return entry;
}

std::string format_score(const std::optional<double>& value) {
  if (!value) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.4f", *value);
  return text;
}

// The retrieved chunks for the --verbose reader: one line each, with every score that ranked it.
std::string retrieval_message(const std::vector<Retrieved>& found, std::size_t total) {
  std::string message =
      "Retrieved " + std::to_string(found.size()) + " of " + std::to_string(total) + " chunks:";
  for (std::size_t i = 0; i < found.size(); ++i) {
    const Retrieved& r = found[i];
    message += "\n  " + std::to_string(i + 1) + ". " + r.chunk->id + "  score " +
               format_score(r.chunk->score) + "  bm25 " + format_score(r.bm25);
    if (r.bm25_rank) message += " (#" + std::to_string(*r.bm25_rank) + ")";
    message += "  cosine " + format_score(r.similarity);
    if (r.vector_rank) message += " (#" + std::to_string(*r.vector_rank) + ")";
    const Any section = metadata_text(*r.chunk, "section");
    if (section.truthy()) message += "  [" + section.str() + "]";
  }
  return message;
}

// The retrieval as a data event for programs.
std::string retrieval_payload(const std::vector<Retrieved>& found) {
  orvo_core::List chunks;
  for (const Retrieved& r : found) {
    orvo_core::Map entry = describe(*r.chunk);
    entry.emplace("bm25", optional_number(r.bm25));
    entry.emplace("bm25_rank", optional_rank(r.bm25_rank));
    entry.emplace("similarity", optional_number(r.similarity));
    entry.emplace("vector_rank", optional_rank(r.vector_rank));
    chunks.emplace_back(std::move(entry));
  }
  orvo_core::Map payload;
  payload.emplace("data_type", "retrieval");
  payload.emplace("data_value", std::move(chunks));
  return orvo_core::to_json(Any(std::move(payload)));
}

// A chunk's text led by a heading line that says where it sits (its section, or its file's
// name), so that the answer can tell the chunks apart and read their headings.
std::string titled(const orvo_core::Chunk& chunk) {
  const Any* title = orvo_core::find(chunk.metadata, "section");
  if (title == nullptr || !title->is_string() || title->as_string().empty()) {
    title = orvo_core::find(chunk.metadata, "file_name");
  }
  if (title == nullptr || !title->is_string() || title->as_string().empty()) return chunk.content;
  return "# " + title->as_string() + "\n" + chunk.content;
}

std::string context_of(const Chunks& chunks) {
  std::string context;
  for (const auto& chunk : chunks) {
    if (!context.empty()) context += "\n\n";
    context += titled(*chunk);
  }
  return context;
}

// Whether the answer is the decline: the offline one, or a model's that follows the prompt.
bool declined(const Any& response) {
  if (!response.is_string()) return false;
  std::string_view text = response.as_string();
  const auto first = text.find_first_not_of(" \t\r\n\"");
  if (first == std::string_view::npos) return true;
  text = text.substr(first, text.find_last_not_of(" \t\r\n\"") - first + 1);
  return text == kNoAnswer;
}

struct Prepared {
  std::unique_ptr<CorpusIndex> index;
  SyncReport report;
};

// Brings the index up to date; outside the coroutine, where g++ 12 at -O1 mistakes the frame's
// deallocation for a mismatched one.
Prepared prepare(const AskOptions& options, ProgressBar& bar) {
  Prepared prepared;
  const std::filesystem::path db =
      options.db.empty() ? CorpusIndex::default_path(options.docs) : options.db;
  prepared.index = std::make_unique<CorpusIndex>(db, options.docs);
  prepared.report = prepared.index->sync(
      ChunkOptions{options.chunk_size}, LoadOptions{options.max_file_bytes, options.strict},
      [&bar](std::string_view step, std::size_t done, std::size_t total) {
        bar.update(step, done, total);
      });
  return prepared;
}

std::string summary(const SyncReport& report) {
  return "Indexed " + std::to_string(report.files) + " files, " + std::to_string(report.chunks) +
         " chunks (" + std::to_string(report.added) + " files new, " +
         std::to_string(report.changed) + " changed, " + std::to_string(report.removed) +
         " removed; " + std::to_string(report.embedded) + " chunks embedded).";
}

}  // namespace

orvo_core::Awaitable<int> run_command(AskOptions options, std::ostream* out, std::ostream* err) {
  const Collaborators parts = collaborators(options);
  Prepared prepared;
  {
    ProgressBar bar(*err, !options.json);
    prepared = prepare(options, bar);
    if (parts.retrieval) {
      ProgressFn progress = [&bar](std::string_view step, std::size_t done, std::size_t total) {
        bar.update(step, done, total);
      };
      prepared.report.embedded = co_await prepared.index->embed_missing(
          parts.retrieval, options.embedding_model, kEmbedBatch, std::move(progress));
    }
  }
  CorpusIndex& index = *prepared.index;
  const SyncReport& report = prepared.report;
  for (const auto& line : report.skipped)
    *err << "orvo: " << orvo_core::text::escape_controls(line) << '\n';
  const bool worked = report.added + report.changed + report.removed + report.embedded > 0;
  if (options.command == AskOptions::Command::index) {
    if (options.json) {
      orvo_core::Map result;
      result.emplace("type", "INDEX");
      result.emplace("files", static_cast<std::int64_t>(report.files));
      result.emplace("chunks", static_cast<std::int64_t>(report.chunks));
      result.emplace("added", static_cast<std::int64_t>(report.added));
      result.emplace("changed", static_cast<std::int64_t>(report.changed));
      result.emplace("removed", static_cast<std::int64_t>(report.removed));
      result.emplace("embedded", static_cast<std::int64_t>(report.embedded));
      *out << orvo_core::to_json(Any(std::move(result))) << '\n' << std::flush;
    } else {
      *out << summary(report) << '\n' << std::flush;
    }
    co_return 0;
  }
  if (worked && !options.json) *err << summary(report) << '\n';

  std::shared_ptr<orvo_core::ConsoleHandler> console;
  std::vector<std::shared_ptr<orvo_core::EventHandler>> handlers;
  if (options.json) {
    handlers.push_back(std::make_shared<orvo_core::JsonLinesHandler>(*out));
  } else {
    console = std::make_shared<orvo_core::ConsoleHandler>(
        *out, *err, options.verbose,
        options.color ? orvo_core::ConsoleHandler::Color::automatic
                      : orvo_core::ConsoleHandler::Color::never);
    handlers.push_back(escaping_handler(console));
  }
  const auto emitter = std::make_shared<orvo_core::EventEmitter>(handlers);

  // Retrieval: BM25, fused with the embeddings' ranking when there is an embedding model.
  std::vector<Retrieved> found;
  if (parts.retrieval) {
    const orvo_core::Embedding question = co_await parts.retrieval->invoke(options.question);
    found = index.search_hybrid(options.question, question, options.embedding_model, options.top_k);
  } else {
    found = index.search(options.question, options.top_k);
  }
  if (options.json) {
    co_await emitter->emit(retrieval_payload(found), orvo_core::EventLevel::INFO,
                           orvo_core::EventType::DATA);
  } else if (options.verbose) {
    co_await emitter->emit(retrieval_message(found, report.chunks), orvo_core::EventLevel::INFO,
                           orvo_core::EventType::STATUS);
  }
  Chunks retrieved;
  for (const Retrieved& r : found) retrieved.push_back(r.chunk);

  // Synthesis; with nothing retrieved there is nothing to ask a model about.
  Any response;
  if (retrieved.empty()) {
    response = std::string(kNoAnswer);
    co_await emitter->emit(std::string(kNoAnswer), orvo_core::EventLevel::INFO,
                           orvo_core::EventType::RESPONSE);
  } else {
    namespace rs = orvo_generation::response_synthesizer;
    std::unique_ptr<rs::BaseResponseSynthesizer> synthesizer;
    orvo_core::Map state;
    if (options.synthesizer == AskOptions::Synthesizer::stuff) {
      synthesizer = std::make_unique<rs::StuffResponseSynthesizer>(parts.answerer);
      state.emplace("context", context_of(retrieved));
    } else {
      synthesizer = std::make_unique<rs::StaticListResponseSynthesizer>();
      orvo_core::List items;
      for (const auto& chunk : retrieved)
        items.emplace_back(orvo_core::text::excerpt(chunk->content, 200));
      state.emplace("context_list", std::move(items));
    }
    orvo_core::Kwargs synthesis;
    synthesis.emplace("query", options.question);
    synthesis.emplace("state_variables", std::move(state));
    synthesis.emplace("event_emitter", emitter);
    response = co_await synthesizer->run(std::move(synthesis));
  }
  if (console) console->finish_line();
  const bool answered = !declined(response);

  // References, only for an answer.
  Any references = options.json ? Any(orvo_core::List{}) : Any("");
  if (answered) {
    namespace rf = orvo_generation::reference_formatter;
    std::unique_ptr<rf::BaseReferenceFormatter> formatter;
    if (options.references == AskOptions::References::similarity) {
      const double threshold =
          options.threshold.value_or(parts.retrieval ? rf::DEFAULT_THRESHOLD : kOfflineThreshold);
      formatter = std::make_unique<rf::SimilarityBasedReferenceFormatter>(
          parts.references, threshold, !options.json, distinct_references);
    } else {
      formatter = std::make_unique<rf::LMBasedReferenceFormatter>(
          parts.judge, options.batch_size, rf::DEFAULT_REFERENCE_METADATA, !options.json,
          distinct_references);
    }
    orvo_core::Kwargs citing;
    citing.emplace("response", response);
    citing.emplace("chunks", orvo_core::List(retrieved.begin(), retrieved.end()));
    citing.emplace("event_emitter", emitter);
    references = co_await formatter->run(std::move(citing));
  }

  if (options.json) {
    orvo_core::List cited;
    if (references.is_list()) {
      for (const Any& item : references.as_list()) {
        const auto* chunk = item.is_object()
                                ? dynamic_cast<const orvo_core::Chunk*>(item.as_object().get())
                                : nullptr;
        if (chunk != nullptr) cited.emplace_back(describe(*chunk));
      }
    }
    orvo_core::Map result;
    result.emplace("type", "RESULT");
    result.emplace("answered", answered);
    result.emplace("answer", response);
    result.emplace("references", std::move(cited));
    *out << orvo_core::to_json(Any(std::move(result))) << '\n' << std::flush;
  } else if (answered && !references.truthy()) {
    *out << "\n(No retrieved chunk was close enough to the answer to cite.)\n" << std::flush;
  }
  co_return answered ? 0 : kExitNoAnswer;
}

}  // namespace orvo_cli
