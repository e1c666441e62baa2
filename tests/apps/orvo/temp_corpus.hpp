#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace orvo_test {

/// A folder of documents with an index file beside it, under the temporary directory; both go
/// when it does. Tests run in processes of their own, which keeps one test's files from another's.
struct TempCorpus {
  TempCorpus() {
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(docs());
  }
  ~TempCorpus() { std::filesystem::remove_all(root); }

  /// Writes `text` to `name` under docs(), making its folders.
  std::filesystem::path write(const std::string& name, const std::string& text) const {
    const std::filesystem::path path = docs() / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  [[nodiscard]] std::filesystem::path docs() const { return root / "docs"; }
  [[nodiscard]] std::filesystem::path db() const { return root / "index.sqlite"; }

  const std::filesystem::path root =
      std::filesystem::temp_directory_path() / ("orvo_" + std::to_string(getpid()));
};

}  // namespace orvo_test
