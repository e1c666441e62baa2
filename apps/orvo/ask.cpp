#include "ask.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <numeric>

#include "corpus.hpp"
#include "escaping_handler.hpp"
#include "orvo_core/event.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/em_invoker/openai_em_invoker.hpp"
#include "orvo_inference/lm_invoker/openai_lm_invoker.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"
#include "orvo_inference/request_processor/extractive_request_processor.hpp"

namespace orvo_cli {

using orvo_core::Any;
using Chunks = std::vector<std::shared_ptr<orvo_core::Chunk>>;

namespace {

// An extracted answer shares most words with the chunks it comes from, and some with any chunk
// on the same subject.
constexpr double kOfflineThreshold = 0.45;
constexpr std::size_t kIndexBatch = 256;

constexpr const char* kAnswerSystem =
    "You answer questions using only the context below. Answer in a few sentences. If the "
    "context does not hold the answer, reply with exactly: I couldn't find an answer in the "
    "documents.\n\nContext:\n{context}";
constexpr const char* kAnswerUser = "{query}";
constexpr const char* kJudgeSystem =
    "You decide which chunks of a context support a response. Each chunk starts with [CHUNK] "
    "and is labelled with its file_name. Reply with a JSON object only, of the form "
    "{{\"file_name\": [\"<file_name of a supporting chunk>\", ...]}}, listing every chunk whose "
    "content supports the response, and an empty list if none does.";
constexpr const char* kJudgeUser = "Response:\n{response}\n\nContext:\n{context}";

struct Collaborators {
  std::shared_ptr<orvo_inference::BaseEMInvoker> embedder;
  std::shared_ptr<orvo_inference::LMRequestProcessor> answerer;
  std::shared_ptr<orvo_inference::LMRequestProcessor> judge;
};

Collaborators collaborators(const AskOptions& options) {
  using orvo_inference::ExtractiveRequestProcessor;
  if (options.url.empty()) {
    return {std::make_shared<orvo_inference::LexicalEMInvoker>(),
            std::make_shared<ExtractiveRequestProcessor>(ExtractiveRequestProcessor::Task::answer),
            std::make_shared<ExtractiveRequestProcessor>(ExtractiveRequestProcessor::Task::judge)};
  }
  const char* key = std::getenv(options.api_key_env.c_str());
  const std::string api_key = key != nullptr ? key : "";
  orvo_inference::http::ClientOptions client_options;
  client_options.read_timeout = options.timeout;
  client_options.connect_timeout = options.connect_timeout;
  client_options.total_timeout = options.total_timeout;
  client_options.retry.max_retries = options.retries;
  client_options.ca_file = options.ca_file;
  const auto client = orvo_inference::http::HttpClient::create(client_options);
  const auto chat = std::make_shared<orvo_inference::OpenAILMInvoker>(
      options.chat_model, options.url, api_key, orvo_core::Map{}, client);
  return {std::make_shared<orvo_inference::OpenAIEMInvoker>(options.embedding_model, options.url,
                                                            api_key, 64, client),
          std::make_shared<orvo_inference::LMRequestProcessor>(
              orvo_inference::PromptTemplate(kAnswerSystem, kAnswerUser), chat),
          std::make_shared<orvo_inference::LMRequestProcessor>(
              orvo_inference::PromptTemplate(kJudgeSystem, kJudgeUser), chat,
              std::make_shared<orvo_inference::JsonOutputParser>())};
}

// Shows how far indexing has come, on a terminal only and only once it takes a moment.
class Progress {
 public:
  Progress(std::ostream& err, bool enabled) : err_(err), enabled_(enabled && isatty(2) != 0) {}
  void update(std::size_t done, std::size_t total) {
    if (!enabled_ || std::chrono::steady_clock::now() - start_ < std::chrono::milliseconds(300)) {
      return;
    }
    err_ << "\rIndexing " << done << '/' << total << " chunks..." << std::flush;
    shown_ = true;
  }
  ~Progress() {
    if (shown_) err_ << "\r\x1b[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  std::ostream& err_;
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// A chunk's text led by a heading line that says where it sits (its section, or its file's
// name): what is embedded, and what the answer reads.
std::string titled(const orvo_core::Chunk& chunk) {
  const Any* title = orvo_core::find(chunk.metadata, "section");
  if (title == nullptr || !title->is_string()) title = orvo_core::find(chunk.metadata, "file_name");
  if (title == nullptr || !title->is_string() || title->as_string().empty()) return chunk.content;
  return "# " + title->as_string() + "\n" + chunk.content;
}

// Embeds every chunk with its heading line, a batch at a time, into one buffer.
orvo_core::Awaitable<orvo_core::Embeddings> index(
    std::shared_ptr<orvo_inference::BaseEMInvoker> embedder, const Chunks* chunks,
    std::ostream* err, bool show_progress) {
  Progress progress(*err, show_progress);
  std::vector<float> data;
  std::size_t dim = 0;
  for (std::size_t start = 0; start < chunks->size(); start += kIndexBatch) {
    const std::size_t end = std::min(chunks->size(), start + kIndexBatch);
    std::vector<std::string> owned;
    for (std::size_t i = start; i < end; ++i) owned.push_back(titled(*(*chunks)[i]));
    std::vector<std::string_view> texts(owned.begin(), owned.end());
    const orvo_core::Embeddings batch = co_await embedder->invoke(std::move(texts));
    if (batch.size() != end - start || (start != 0 && batch.dim() != dim)) {
      throw std::runtime_error("the embedding model returned embeddings that do not fit");
    }
    dim = batch.dim();
    data.insert(data.end(), batch.data(), batch.data() + batch.size() * dim);
    progress.update(end, chunks->size());
  }
  co_return orvo_core::Embeddings(std::move(data), chunks->size(), dim);
}

// Several chunks of one file make one reference.
std::string distinct_references(const orvo_core::List& entries) {
  orvo_core::List distinct;
  for (const Any& entry : entries) {
    if (std::find(distinct.begin(), distinct.end(), entry) == distinct.end()) {
      distinct.push_back(entry);
    }
  }
  return orvo_generation::reference_formatter::format_references_as_string(distinct);
}

// The retrieved chunks, each led by its heading line, so that the answer can tell the chunks
// apart and read their headings.
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
  return text == orvo_inference::ExtractiveRequestProcessor::kNoAnswer;
}

Chunks top_k(const Chunks& chunks, const std::vector<double>& scores, std::size_t k) {
  std::vector<std::size_t> order(chunks.size());
  std::iota(order.begin(), order.end(), 0);
  // NaN (a zero vector has no direction) ranks last, and the order stays a strict one.
  const auto score = [&scores](std::size_t i) {
    return std::isnan(scores[i]) ? -std::numeric_limits<double>::infinity() : scores[i];
  };
  std::stable_sort(order.begin(), order.end(),
                   [&score](std::size_t a, std::size_t b) { return score(a) > score(b); });
  Chunks best;
  for (std::size_t i = 0; i < std::min(k, order.size()); ++i) best.push_back(chunks[order[i]]);
  return best;
}

// Loads the corpus and says which files were skipped; outside the coroutine, where g++ 12 at -O1
// mistakes the frame's deallocation for a mismatched one.
Chunks load(const AskOptions& options, std::ostream& err) {
  std::vector<std::string> skipped;
  Chunks chunks = load_corpus(options.docs, ChunkOptions{options.chunk_size},
                              LoadOptions{options.max_file_bytes, options.strict}, &skipped);
  for (const auto& line : skipped)
    err << "orvo: " << orvo_core::text::escape_controls(line) << '\n';
  return chunks;
}

}  // namespace

orvo_core::Awaitable<bool> ask(AskOptions options, std::ostream* out, std::ostream* err) {
  const Chunks chunks = load(options, *err);
  const Collaborators parts = collaborators(options);

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

  // Retrieval: the question and the chunks embedded by the same invoker.
  const orvo_core::Embeddings index_vectors =
      co_await index(parts.embedder, &chunks, err, !options.json);
  const orvo_core::Embedding question = co_await parts.embedder->invoke(options.question);
  const Chunks retrieved = top_k(chunks, orvo_core::cosine(question, index_vectors), options.top_k);
  if (options.verbose) {
    std::string message = "Retrieved " + std::to_string(retrieved.size()) + " of " +
                          std::to_string(chunks.size()) + " chunks:";
    for (const auto& chunk : retrieved) message += " " + chunk->id;
    co_await emitter->emit(std::move(message), orvo_core::EventLevel::INFO,
                           orvo_core::EventType::STATUS);
  }

  // Synthesis.
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
  const Any response = co_await synthesizer->run(std::move(synthesis));
  if (console) console->finish_line();
  const bool answered = !declined(response);

  // References, for an answer only.
  namespace rf = orvo_generation::reference_formatter;
  std::unique_ptr<rf::BaseReferenceFormatter> formatter;
  if (options.references == AskOptions::References::similarity) {
    formatter = std::make_unique<rf::SimilarityBasedReferenceFormatter>(
        parts.embedder,
        options.threshold.value_or(options.url.empty() ? kOfflineThreshold : rf::DEFAULT_THRESHOLD),
        true, distinct_references);
  } else {
    formatter = std::make_unique<rf::LMBasedReferenceFormatter>(
        parts.judge, options.batch_size, rf::DEFAULT_REFERENCE_METADATA, true, distinct_references);
  }
  Any references("");
  if (answered) {
    orvo_core::Kwargs citing;
    citing.emplace("response", response);
    citing.emplace("chunks", orvo_core::List(retrieved.begin(), retrieved.end()));
    citing.emplace("event_emitter", emitter);
    references = co_await formatter->run(std::move(citing));
  }

  if (options.json) {
    orvo_core::Map result;
    result.emplace("type", "RESULT");
    result.emplace("answer", response);
    result.emplace("answered", answered);
    result.emplace("references", references);
    *out << orvo_core::to_json(Any(std::move(result))) << '\n' << std::flush;
  } else if (answered && !references.truthy()) {
    *out << "\n(No retrieved chunk was close enough to the answer to cite.)\n" << std::flush;
  }
  co_return answered;
}

}  // namespace orvo_cli
