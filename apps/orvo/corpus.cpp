#include "corpus.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

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

std::string lower_extension(const fs::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

using Unreadable = UnreadableFile;

std::string why(int error) {
  return std::generic_category().message(error);
}

// Reads a regular file of at most `max_bytes`. Opening does not block (a FIFO would) and the type
// and size are checked on the opened file, so nothing can be swapped in between.
std::string read_file(const fs::path& path, std::uint64_t max_bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    const int error = errno;
    throw Unreadable(path.string() + (error == ELOOP ? ": symbolic link loop"
                                                     : ": cannot read it (" + why(error) + ")"));
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat info {};
  if (::fstat(fd, &info) != 0)
    throw Unreadable(path.string() + ": cannot read it (" + why(errno) + ")");
  if (!S_ISREG(info.st_mode)) throw Unreadable(path.string() + ": not a regular file");
  if (static_cast<std::uint64_t>(info.st_size) > max_bytes) {
    throw Unreadable(path.string() + ": larger than " + std::to_string(max_bytes) +
                     " bytes (--max-file-size)");
  }
  std::string text(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::read(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Unreadable(path.string() + ": cannot read it (" + why(errno) + ")");
    if (n == 0) break;  // It shrank meanwhile.
    done += static_cast<std::size_t>(n);
  }
  text.resize(done);
  return text;
}

// Lists the text files under `folder`. Linked folders are not followed, so there is no loop to
// fall into; every problem is kept with its path instead of ending the walk.
void walk(const fs::path& folder, CorpusFiles& out) {
  std::error_code error;
  fs::directory_iterator it(folder, error);
  if (error) {
    out.problems.push_back(folder.string() + ": cannot list it (" + error.message() + ")");
    return;
  }
  for (; it != fs::directory_iterator(); it.increment(error)) {
    const fs::path path = it->path();
    const fs::file_status own = it->symlink_status(error);
    if (!error && fs::is_directory(own)) {
      walk(path, out);
      continue;
    }
    const std::string ext = lower_extension(path);
    if (ext != ".md" && ext != ".txt") continue;
    try {
      out.files.push_back(stat_corpus_file(path));
    } catch (const UnreadableFile& e) {
      out.problems.emplace_back(e.what());
    }
  }
  if (error) out.problems.push_back(folder.string() + ": cannot list it (" + error.message() + ")");
}

// `metadata` is the file's own; each chunk adds where it sits: "section" (its heading path) and,
// when the file has an address, the chunk's anchor appended to it.
void add_chunks(std::string_view text, const orvo_core::Map& metadata, const std::string& id,
                const ChunkOptions& options, std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  const std::vector<DocumentChunk> pieces = chunk_markdown(text, options);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    orvo_core::Map own = metadata;
    const DocumentChunk& piece = pieces[i];
    if (!piece.headings.empty() && orvo_core::find(own, "section") == nullptr) {
      std::string section;
      for (const auto& heading : piece.headings)
        section += (section.empty() ? "" : " > ") + heading;
      own.insert_or_assign("section", std::move(section));
    }
    const Any* url = orvo_core::find(own, "file_url");
    if (!piece.anchor.empty() && url != nullptr && url->is_string() &&
        url->as_string().find('#') == std::string::npos) {
      own.insert_or_assign("file_url", url->as_string() + "#" + piece.anchor);
    }
    out.push_back(std::make_shared<orvo_core::Chunk>(piece.text, std::move(own),
                                                     id + "#" + std::to_string(i + 1)));
  }
}

void load_text_file(const fs::path& path, std::string text, const ChunkOptions& options,
                    std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  orvo_core::Map metadata;
  metadata.emplace("file_name", path.filename().string());
  metadata.emplace("file_url", path.generic_string());
  add_chunks(text, metadata, path.generic_string(), options, out);
}

void load_json_lines(const fs::path& path, std::string text, const ChunkOptions& options,
                     std::vector<std::shared_ptr<orvo_core::Chunk>>& out) {
  std::istringstream lines(std::move(text));
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

CorpusFile stat_corpus_file(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    const int error = errno;
    throw Unreadable(path.string() + (error == ELOOP ? ": symbolic link loop"
                                                     : ": cannot read it (" + why(error) + ")"));
  }
  if (S_ISDIR(info.st_mode)) throw Unreadable(path.string() + ": a linked folder, not followed");
  if (!S_ISREG(info.st_mode)) throw Unreadable(path.string() + ": not a regular file");
  return {path, static_cast<std::int64_t>(info.st_size),
          static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

CorpusFiles list_corpus_files(const fs::path& folder) {
  CorpusFiles found;
  walk(folder, found);
  std::sort(found.files.begin(), found.files.end(),
            [](const CorpusFile& a, const CorpusFile& b) { return a.path < b.path; });
  return found;
}

std::string read_corpus_file(const fs::path& path, std::uint64_t max_bytes) {
  return read_file(path, max_bytes);
}

std::vector<std::shared_ptr<orvo_core::Chunk>> chunk_file(const fs::path& name, std::string text,
                                                          const ChunkOptions& options) {
  std::vector<std::shared_ptr<orvo_core::Chunk>> chunks;
  if (lower_extension(name) == ".jsonl") {
    load_json_lines(name, std::move(text), options, chunks);
  } else {
    load_text_file(name, std::move(text), options, chunks);
  }
  return chunks;
}

}  // namespace orvo_cli
