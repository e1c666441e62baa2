// The reference building blocks beyond the components' defaults, offline: Markdown-safe entries,
// one entry per source, visible scores and a calibrated threshold, a concurrent and sturdy LM
// judge, inline citations, and a context budget for the stuff synthesizer's prompt.
#include <iostream>
#include <memory>
#include <stdexcept>

#include "orvo_core/async.hpp"
#include "orvo_core/event.hpp"
#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/citation_attributor.hpp"
#include "orvo_generation/reference_formatter/markdown_reference.hpp"
#include "orvo_generation/reference_formatter/source_references.hpp"
#include "orvo_generation/reference_formatter/threshold_calibration.hpp"
#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;

namespace {

std::shared_ptr<orvo_core::Chunk> chunk(std::string content, std::string title, std::string url,
                                        std::string section) {
  orvo_core::Map metadata{{"file_name", std::move(title)},
                          {"file_url", std::move(url)},
                          {"section", std::move(section)}};
  return std::make_shared<orvo_core::Chunk>(std::move(content), std::move(metadata));
}

// A judge that answers in prose with entry numbers, as chat models do, and fails on one batch.
class ChattyJudge : public orvo_inference::LMRequestProcessor {
 public:
  orvo_core::Awaitable<Any> process(std::shared_ptr<orvo_core::Map> prompt_kwargs, Any /*history*/,
                                    std::shared_ptr<orvo_core::EventEmitter> /*emitter*/,
                                    Any /*system*/, Any /*user*/) override {
    const std::string context = orvo_core::get(*prompt_kwargs, "context").str();
    if (context.find("Bores") != std::string::npos) throw std::runtime_error("model overloaded");
    co_return Any("Looking at the chunks, the relevant ones are:\n```\n[1]\n```");
  }
};

class Printer : public orvo_core::EventHandler {
 public:
  orvo_core::Awaitable<void> handle(orvo_core::Event event) override {
    std::cout << "  event " << orvo_core::to_string(event.level) << ": " << event.value << '\n';
    co_return;
  }
};

}  // namespace

int main() {
  const rf::Chunks chunks = {
      chunk("Spring tides happen at new and full moon, when sun and moon pull together.",
            "Spring [and] neap tides", "docs/spring and neap (tides).md", "Spring tides"),
      chunk("Neap tides happen at the quarter moons, when the pulls partly cancel.",
            "Spring [and] neap tides", "docs/spring and neap (tides).md", "Neap tides"),
      chunk("Tidal bores are waves that run up rivers on the rising tide.", "Bores",
            "docs/bores.md", "Rivers"),
      chunk("The moon's gravity raises two bulges of water on opposite sides of the Earth.",
            "The moon's gravity", "docs/moon.md", "Bulges")};
  const std::string response =
      "Spring tides come at new and full moon, when the sun and moon pull together. "
      "Neap tides come at the quarter moons. Tide tables are printed every year.";
  const auto embedder = std::make_shared<orvo_inference::LexicalEMInvoker>();
  const auto printers =
      std::vector<std::shared_ptr<orvo_core::EventHandler>>{std::make_shared<Printer>()};
  const auto emitter = std::make_shared<orvo_core::EventEmitter>(printers);

  // Scores you can see: stream them, and keep the decision for the citations below.
  std::cout << "1. Similarity references, scores streamed, one Markdown entry per source:\n";
  rf::SimilarityBasedReferenceFormatter formatter(embedder, 0.3);
  formatter.stream_scores = true;
  formatter.format_chunk_func =
      rf::format_chunk_as_source(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP, "section");
  formatter.format_references_func = rf::format_references_by_source;
  std::cout << orvo_core::run_sync(formatter.format_reference(response, chunks, emitter)).str()
            << "\n\n";

  const rf::ScoredChunks scored = orvo_core::run_sync(formatter.score_chunks(response, chunks));
  const rf::ThresholdSuggestion suggestion = rf::suggest_threshold({{scored.scores[0], true},
                                                                    {scored.scores[1], true},
                                                                    {scored.scores[2], false},
                                                                    {scored.scores[3], false}});
  std::cout << "2. Threshold suggested by four labelled scores: " << suggestion.threshold << " (F1 "
            << suggestion.f1 << ")\n\n";

  // Inline citations numbered like the merged references above: one request, for the sentences.
  rf::Chunks kept;
  for (const rf::ScoredChunk& k : scored.kept) kept.push_back(k.chunk);
  const auto numbers = rf::source_numbers(
      rf::group_by_source(kept, rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP), kept.size());
  const rf::Attribution attribution = orvo_core::run_sync(
      rf::CitationAttributor(embedder, 0.3).attribute(response, scored, numbers));
  std::cout << "3. Inline citations:\n  " << attribution.text
            << "\n  unsupported sentences: " << attribution.unsupported.size() << "\n\n";

  // A faster, sturdier judge: batches of one, four at a time, prose answers read leniently, and
  // a failed batch falls back to similarity instead of failing the turn.
  std::cout << "4. LM judge, four batches in flight, a failed batch scored by similarity:\n";
  rf::LMBasedReferenceFormatter judge(std::make_shared<ChattyJudge>(), 1);
  judge.max_concurrency = 4;
  judge.answer_parser = rf::parse_judge_answer;
  judge.on_batch_failure = rf::BatchFailurePolicy::SIMILARITY;
  judge.fallback_em_invoker = embedder;
  judge.fallback_threshold = 0.3;
  judge.format_chunk_func = rf::format_chunk_as_markdown(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  std::cout << orvo_core::run_sync(judge.format_reference(response, chunks, emitter)).str()
            << "\n\n";

  // A context budget: the stuffed context keeps its best chunks whole within 40 tokens.
  std::cout << "5. Context budget of 40 tokens over the four chunks, best first:\n";
  orvo_inference::ContextBudget budget(40);
  orvo_inference::BudgetReport report;
  orvo_core::List ranked;
  for (const auto& c : chunks) ranked.emplace_back(c);
  const std::string context = budget.apply(ranked, report);
  std::cout << "  kept " << report.pieces - report.dropped.size() << " of " << report.pieces
            << " pieces, " << report.tokens << " tokens (estimated)\n";
  return context.empty() ? 1 : 0;
}
