// Bindings of the reference building blocks that are not components: Markdown entries, merged
// sources, scores and their calibration, and inline citations.

#include <pybind11/stl.h>

#include "chunk_lists.hpp"
#include "collaborators.hpp"
#include "orvo_core/text.hpp"
#include "orvo_generation/reference_formatter/citation_attributor.hpp"
#include "orvo_generation/reference_formatter/markdown_reference.hpp"
#include "orvo_generation/reference_formatter/scored_chunks.hpp"
#include "orvo_generation/reference_formatter/source_references.hpp"
#include "orvo_generation/reference_formatter/threshold_calibration.hpp"
#include "python_awaitables.hpp"

namespace orvo_python {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using rf::Chunks;

namespace {

// A chunk formatter made in C++, as a Python function of a chunk.
py::object chunk_function(rf::FormatChunkFunc format) {
  return py::cpp_function(
      [format = std::move(format)](const orvo_core::Chunk& chunk) { return to_py(format(chunk)); },
      py::arg("chunk"));
}

// The metadata map a Python caller gave, or the default one.
Any metadata_map_or_default(const py::object& map) {
  return truthy(map) ? to_any_detached(map) : rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP;
}

// Python counts characters: a byte offset into `text` as a code point offset.
std::size_t code_points_before(std::string_view text, std::size_t offset) {
  return orvo_core::text::code_point_count(text.substr(0, offset));
}

orvo_core::Awaitable<py::object> attribution_result(orvo_core::Awaitable<rf::Attribution> work,
                                                    std::string response,
                                                    std::shared_ptr<void> keep) {
  rf::Attribution attribution = co_await std::move(work);
  keep.reset();
  for (rf::SentenceAttribution& sentence : attribution.sentences) {
    sentence.begin = code_points_before(response, sentence.begin);
  }
  co_return py::cast(std::move(attribution));
}

std::vector<std::size_t> numbers_from_py(const py::object& numbers) {
  return numbers.is_none() ? std::vector<std::size_t>() : numbers.cast<std::vector<std::size_t>>();
}

void bind_markdown(py::module_& m) {
  m.def("escape_markdown_text", &rf::escape_markdown_text, py::arg("text"),
        py::arg("line_start") = false, "Escapes text so that Markdown shows it as it is.");
  m.def("encode_link_destination", &rf::encode_link_destination, py::arg("url"),
        "Encodes an address so that it stays one Markdown link destination.");
  m.def(
      "format_chunk_as_markdown",
      [](const py::object& metadata_map) {
        return chunk_function(rf::format_chunk_as_markdown(metadata_map_or_default(metadata_map)));
      },
      py::arg("metadata_map") = py::none(),
      "Creates a function that formats a chunk as a Markdown-safe reference entry.");
}

void bind_sources(py::module_& m) {
  py::class_<rf::SourceReference>(m, "SourceReference", "One entry of merged references.")
      .def_property_readonly("title", [](const rf::SourceReference& s) { return to_py(s.title); })
      .def_property_readonly("url", [](const rf::SourceReference& s) { return to_py(s.url); })
      .def_readonly("sections", &rf::SourceReference::sections)
      .def_readonly("positions", &rf::SourceReference::positions);
  m.def(
      "format_chunk_as_source",
      [](const py::object& metadata_map, const py::object& section_key) {
        return chunk_function(rf::format_chunk_as_source(metadata_map_or_default(metadata_map),
                                                         to_any_detached(section_key)));
      },
      py::arg("metadata_map") = py::none(), py::arg("section_key") = py::none(),
      "Creates a function that gives a chunk's title, address and section.");
  m.def(
      "format_references_by_source",
      [](const py::object& formatted_chunks) {
        if (formatted_chunks.is_none()) return std::string();
        return rf::format_references_by_source(to_any_detached(formatted_chunks).as_list());
      },
      py::arg("formatted_chunks"), "Formats references with one numbered entry per source.");
  m.def(
      "group_by_source",
      [](const py::object& chunks, const py::object& metadata_map, const py::object& section_key) {
        return rf::group_by_source(chunks_from_py(chunks), metadata_map_or_default(metadata_map),
                                   to_any_detached(section_key));
      },
      py::arg("chunks"), py::arg("metadata_map") = py::none(), py::arg("section_key") = py::none(),
      "Merges chunks of the same source, in order of first appearance.");
  m.def("source_numbers", &rf::source_numbers, py::arg("sources"), py::arg("count"),
        "The reference number of each chunk.");
}

void bind_scores(py::module_& m) {
  py::class_<rf::ScoredChunk>(m, "ScoredChunk", "A kept chunk with its score and rank.")
      .def_property_readonly("chunk", [](const rf::ScoredChunk& s) { return py::cast(s.chunk); })
      .def_readonly("score", &rf::ScoredChunk::score)
      .def_readonly("rank", &rf::ScoredChunk::rank)
      .def_readonly("position", &rf::ScoredChunk::position);
  py::class_<rf::ScoredChunks>(m, "ScoredChunks", "The similarity formatter's decision.")
      .def_readonly("kept", &rf::ScoredChunks::kept)
      .def_readonly("scores", &rf::ScoredChunks::scores)
      .def_readonly("best_rejected_score", &rf::ScoredChunks::best_rejected_score);
}

void bind_calibration(py::module_& m) {
  py::class_<rf::ThresholdSuggestion>(m, "ThresholdSuggestion",
                                      "A threshold and how it does on its pairs.")
      .def_readonly("threshold", &rf::ThresholdSuggestion::threshold)
      .def_readonly("precision", &rf::ThresholdSuggestion::precision)
      .def_readonly("recall", &rf::ThresholdSuggestion::recall)
      .def_readonly("f1", &rf::ThresholdSuggestion::f1);
  m.def(
      "suggest_threshold",
      [](const py::iterable& pairs) {
        std::vector<rf::LabelledScore> scores;
        for (py::handle pair : pairs) {
          const auto [score, relevant] = pair.cast<std::pair<double, bool>>();
          scores.push_back(rf::LabelledScore{score, relevant});
        }
        return rf::suggest_threshold(std::move(scores));
      },
      py::arg("pairs"), "The threshold that best separates (score, relevant) pairs.");
}

void bind_citations(py::module_& m) {
  using rf::CitationAttributor;
  py::class_<rf::SentenceAttribution>(m, "SentenceAttribution",
                                      "A sentence and the references that support it.")
      .def_readonly("sentence", &rf::SentenceAttribution::sentence)
      .def_readonly("begin", &rf::SentenceAttribution::begin)
      .def_readonly("references", &rf::SentenceAttribution::references)
      .def_readonly("best_score", &rf::SentenceAttribution::best_score);
  py::class_<rf::Attribution>(m, "Attribution", "A response with inline citations.")
      .def_readonly("text", &rf::Attribution::text)
      .def_readonly("sentences", &rf::Attribution::sentences)
      .def_readonly("unsupported", &rf::Attribution::unsupported);
  py::class_<CitationAttributor, std::shared_ptr<CitationAttributor>>(
      m, "CitationAttributor", "Marks each sentence with the references that support it.")
      .def(py::init([](const py::object& em_invoker, double threshold, std::size_t max_markers) {
             return std::make_shared<CitationAttributor>(invoker_from_py(em_invoker), threshold,
                                                         max_markers);
           }),
           py::arg("em_invoker"), py::arg("threshold") = rf::DEFAULT_THRESHOLD,
           py::arg("max_markers") = 3)
      .def_property(
          "em_invoker",
          [](const CitationAttributor& self) { return collaborator_to_py(self.em_invoker); },
          [](CitationAttributor& self, const py::object& value) {
            self.em_invoker = invoker_from_py(value);
          })
      .def_readwrite("threshold", &CitationAttributor::threshold)
      .def_readwrite("max_markers", &CitationAttributor::max_markers)
      .def(
          "attribute",
          [](std::shared_ptr<CitationAttributor> self, std::string response,
             const py::object& chunks, const py::object& reference_numbers) {
            std::vector<std::size_t> numbers = numbers_from_py(reference_numbers);
            orvo_core::Awaitable<rf::Attribution> work =
                py::isinstance<rf::ScoredChunks>(chunks)
                    ? self->attribute(response, chunks.cast<rf::ScoredChunks>(), std::move(numbers))
                    : self->attribute(response, chunks_from_py(chunks), std::move(numbers));
            return Pending(
                attribution_result(std::move(work), std::move(response), keep_alive(self)));
          },
          py::arg("response"), py::arg("chunks"), py::arg("reference_numbers") = py::none());
}

}  // namespace

void bind_reference_tools(py::module_& m) {
  Home home(m);
  home.set("orvo_generation.reference_formatter.markdown_reference");
  bind_markdown(m);
  home.set("orvo_generation.reference_formatter.source_references");
  bind_sources(m);
  home.set("orvo_generation.reference_formatter.scored_chunks");
  bind_scores(m);
  home.set("orvo_generation.reference_formatter.threshold_calibration");
  bind_calibration(m);
  home.set("orvo_generation.reference_formatter.citation_attributor");
  bind_citations(m);
}

}  // namespace orvo_python
