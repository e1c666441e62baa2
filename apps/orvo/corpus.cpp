#include "corpus.hpp"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "orvo_core/json.hpp"

namespace orvo_cli {
namespace fs = std::filesystem;
using orvo_core::Any;

namespace {

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

// Paragraphs are separated by lines that are empty or hold only blanks.
std::vector<std::string_view> paragraphs(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t first = std::string_view::npos;  // start of the paragraph being read
  std::size_t last = 0;                        // end of its last line
  const auto close = [&] {
    if (first != std::string_view::npos) out.push_back(trim(text.substr(first, last - first)));
    first = std::string_view::npos;
  };
  for (std::size_t pos = 0; pos < text.size();) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) eol = text.size();
    if (trim(text.substr(pos, eol - pos)).empty()) {
      close();
    } else {
      if (first == std::string_view::npos) first = pos;
      last = eol;
    }
    pos = eol + 1;
  }
  close();
  return out;
}

// Cuts a long paragraph at sentence ends, or at blanks when a sentence alone is too long.
void cut(std::string_view paragraph, std::size_t max_chars, std::vector<std::string>& out) {
  while (paragraph.size() > max_chars) {
    std::size_t at = std::string_view::npos;
    for (std::size_t i = max_chars; i > max_chars / 2; --i) {
      const char c = paragraph[i - 1];
      if ((c == '.' || c == '!' || c == '?') && paragraph[i] == ' ') {
        at = i;
        break;
      }
    }
    if (at == std::string_view::npos) at = paragraph.rfind(' ', max_chars);
    if (at == std::string_view::npos || at == 0) at = max_chars;
    out.emplace_back(trim(paragraph.substr(0, at)));
    paragraph = trim(paragraph.substr(at));
  }
  if (!paragraph.empty()) out.emplace_back(paragraph);
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string lower_extension(const fs::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

void add_chunks(std::string_view text, const orvo_core::Map& metadata, const std::string& id,
                const ChunkOptions& options, std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  const std::vector<std::string> pieces = split_text(text, options);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    out.push_back(
        std::make_shared<orvo_core::Chunk>(pieces[i], metadata, id + "#" + std::to_string(i + 1)));
  }
}

void load_text_file(const fs::path& path, const ChunkOptions& options,
                    std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  orvo_core::Map metadata;
  metadata.emplace("file_name", path.filename().string());
  metadata.emplace("file_url", path.generic_string());
  add_chunks(read_file(path), metadata, path.generic_string(), options, out);
}

void load_json_lines(const fs::path& path, const ChunkOptions& options,
                     std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  std::istringstream lines(read_file(path));
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    if (trim(line).empty()) continue;
    const std::string where = path.string() + ":" + std::to_string(number);
    Any object;
    try {
      object = orvo_core::parse_json(line);
    } catch (const std::exception& e) {
      throw std::runtime_error(where + ": " + e.what());
    }
    const Any content = object.is_map() ? orvo_core::get(object.as_map(), "content") : Any();
    if (!content.is_string()) {
      throw std::runtime_error(where + ": expected an object with a string \"content\"");
    }
    const Any metadata = orvo_core::get(object.as_map(), "metadata");
    if (!metadata.is_none() && !metadata.is_map()) {
      throw std::runtime_error(where + ": \"metadata\" must be an object");
    }
    add_chunks(content.as_string(), metadata.is_map() ? metadata.as_map() : orvo_core::Map{},
               path.generic_string() + ":" + std::to_string(number), options, out);
  }
}

}  // namespace

std::vector<std::string> split_text(std::string_view text, const ChunkOptions& options) {
  const std::size_t max_chars = std::max<std::size_t>(options.max_chars, 40);
  std::vector<std::string> chunks;
  std::string current;
  bool current_is_heading = false;
  for (const std::string_view paragraph : paragraphs(text)) {
    const bool heading = paragraph.front() == '#';
    const bool fits = current.size() + 2 + paragraph.size() <= max_chars;
    if (!current.empty() && (fits || current_is_heading) && !heading) {
      current += "\n\n";
      current += paragraph;
      current_is_heading = false;
      if (current.size() > max_chars) {
        cut(current, max_chars, chunks);
        current.clear();
      }
      continue;
    }
    if (!current.empty()) chunks.push_back(std::move(current));
    current.clear();
    if (paragraph.size() > max_chars) {
      cut(paragraph, max_chars, chunks);
      current_is_heading = false;
    } else {
      current = paragraph;
      current_is_heading = heading;
    }
  }
  if (!current.empty()) chunks.push_back(std::move(current));
  return chunks;
}

std::vector<std::shared_ptr<orvo_core::Chunk>> load_corpus(const fs::path& path,
                                                           const ChunkOptions& options) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error || !fs::exists(status))
    throw std::runtime_error("no such file or folder: " + path.string());
  std::vector<std::shared_ptr<orvo_core::Chunk>> chunks;
  if (fs::is_directory(status)) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
      const std::string ext = lower_extension(entry.path());
      if (entry.is_regular_file() && (ext == ".md" || ext == ".txt")) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) load_text_file(file, options, chunks);
    if (chunks.empty()) {
      throw std::runtime_error("no text found in " + path.string() +
                               " (it is searched for .md and .txt files)");
    }
    return chunks;
  }
  const std::string ext = lower_extension(path);
  if (ext == ".jsonl") {
    load_json_lines(path, options, chunks);
  } else {
    load_text_file(path, options, chunks);
  }
  if (chunks.empty()) throw std::runtime_error("no text found in " + path.string());
  return chunks;
}

}  // namespace orvo_cli
