// One pipeline turn, as a host drives it: a stuff synthesizer answers a question from retrieved
// chunks, then a similarity-based formatter picks the references. Both stream to one emitter.
//
// The two collaborators here are toys so that the example runs anywhere: an "embedding" that
// counts letters and a "language model" that answers with the best-matching context line.
#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>
#include <sstream>

#include "orvo_core/async.hpp"
#include "orvo_core/event.hpp"
#include "orvo_core/utils/similarity.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"

using orvo_core::Any;

namespace {

orvo_core::Embedding letter_counts(std::string_view text) {
  orvo_core::Embedding counts(26, 0.0F);
  for (const char c : text) {
    if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
      counts[static_cast<std::size_t>(std::tolower(static_cast<unsigned char>(c)) - 'a')] += 1;
    }
  }
  return counts;
}

class LetterEmbedder : public orvo_inference::BaseEMInvoker {
 public:
  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override {
    co_return letter_counts(text);
  }
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override {
    std::vector<orvo_core::Embedding> rows;
    for (const auto text : texts) rows.push_back(letter_counts(text));
    co_return orvo_core::Embeddings::from_rows(rows);
  }
};

// Answers with the context line that shares the most letters with the query.
class QuotingProcessor : public orvo_inference::LMRequestProcessor {
 public:
  orvo_core::Awaitable<Any> process(std::shared_ptr<orvo_core::Map> prompt_kwargs, Any /*history*/,
                                    std::shared_ptr<orvo_core::EventEmitter> event_emitter,
                                    Any /*system*/, Any /*user*/) override {
    const orvo_core::Embedding query = letter_counts(orvo_core::get(*prompt_kwargs, "query").str());
    std::istringstream context(orvo_core::get(*prompt_kwargs, "context").str());
    std::string line;
    std::string best;
    double best_score = -1;
    while (std::getline(context, line)) {
      const auto scores =
          orvo_core::cosine(query, orvo_core::Embeddings::from_rows({letter_counts(line)}));
      if (scores[0] > best_score) {
        best_score = scores[0];
        best = line;
      }
    }
    if (event_emitter) {
      std::string token = best;
      co_await event_emitter->emit(std::move(token), orvo_core::EventLevel::INFO,
                                   orvo_core::EventType::RESPONSE);
    }
    co_return Any(best);
  }
};

class Printer : public orvo_core::EventHandler {
 public:
  orvo_core::Awaitable<void> handle(orvo_core::Event event) override {
    std::cout << "  [" << orvo_core::to_string(event.type) << "] " << event.value << '\n';
    co_return;
  }
};

std::shared_ptr<orvo_core::Chunk> chunk(std::string content, std::string title, std::string url) {
  orvo_core::Map metadata;
  metadata.emplace("file_name", std::move(title));
  metadata.emplace("file_url", std::move(url));
  return std::make_shared<orvo_core::Chunk>(std::move(content), std::move(metadata));
}

}  // namespace

int main() {
  const std::vector<std::shared_ptr<orvo_core::Chunk>> retrieved{
      chunk("The moon's gravity pulls the oceans into two bulges.", "Tides", "docs/tides.md"),
      chunk("Bread rises because yeast makes carbon dioxide.", "Baking", "docs/baking.md"),
      chunk("Spring tides happen at new and full moon.", "Spring tides", "docs/spring.md")};
  std::string context;
  for (const auto& c : retrieved) context += c->content + "\n";

  const std::vector<std::shared_ptr<orvo_core::EventHandler>> handlers{std::make_shared<Printer>()};
  const auto emitter = std::make_shared<orvo_core::EventEmitter>(handlers);
  orvo_generation::response_synthesizer::StuffResponseSynthesizer synthesizer(
      std::make_shared<QuotingProcessor>());
  orvo_generation::reference_formatter::SimilarityBasedReferenceFormatter formatter(
      std::make_shared<LetterEmbedder>(), 0.8);

  std::cout << "events:\n";
  orvo_core::Map state;
  state.emplace("context", context);
  orvo_core::Kwargs ask;
  ask.emplace("query", "What pulls the oceans?");
  ask.emplace("state_variables", state);
  ask.emplace("event_emitter", emitter);
  const Any response = orvo_core::run_sync(synthesizer.run(ask));

  orvo_core::Kwargs cite;
  cite.emplace("response", response);
  cite.emplace("chunks", orvo_core::List(retrieved.begin(), retrieved.end()));
  cite.emplace("event_emitter", emitter);
  const Any references = orvo_core::run_sync(formatter.run(cite));

  std::cout << "\nanswer:\n" << response.str() << "\n\n" << references.str() << '\n';
}
