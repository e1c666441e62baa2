// Formats the references of a handful of retrieved chunks and prints the events it streams.
#include <iostream>
#include <memory>

#include "orvo_core/async.hpp"
#include "orvo_core/event.hpp"
#include "orvo_core/schema.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;

namespace {

// Keeps the chunks whose text mentions a word of the response; real pipelines use the
// similarity-based or LM-based formatters.
class KeywordReferenceFormatter : public rf::BaseReferenceFormatter {
 public:
  using BaseReferenceFormatter::BaseReferenceFormatter;

  orvo_core::Awaitable<rf::Chunks> _get_relevant_chunks(std::string response,
                                                        rf::Chunks chunks) override {
    rf::Chunks relevant;
    for (auto& chunk : chunks) {
      if (chunk->content.find("tide") != std::string::npos &&
          response.find("tide") != std::string::npos) {
        relevant.push_back(chunk);
      }
    }
    co_return relevant;
  }
};

class PrintingHandler : public orvo_core::EventHandler {
 public:
  orvo_core::Awaitable<void> handle(orvo_core::Event event) override {
    std::cout << "event " << orvo_core::to_string(event.level) << '/'
              << orvo_core::to_string(event.type) << ": " << event.value << '\n';
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
  const auto formatter = std::make_shared<KeywordReferenceFormatter>();
  const std::vector<std::shared_ptr<PrintingHandler>> printers{std::make_shared<PrintingHandler>()};
  const auto emitter = std::make_shared<orvo_core::EventEmitter>(
      std::vector<std::shared_ptr<orvo_core::EventHandler>>(printers.begin(), printers.end()));

  orvo_core::Kwargs kwargs;
  kwargs.emplace("response", "Spring tides follow the new and the full moon.");
  kwargs.emplace("chunks",
                 orvo_core::List{chunk("The tide rises twice a day.", "Tides", "docs/tides.md"),
                                 chunk("Moon phases repeat every 29.5 days.", "Moon", ""),
                                 chunk("A spring tide is the largest tide.", "Spring tides",
                                       "docs/spring-tides.md")});
  kwargs.emplace("event_emitter", emitter);

  const Any references = orvo_core::run_sync(formatter->run(std::move(kwargs)));
  std::cout << "\n" << references.str() << '\n';
  return 0;
}
