#include "corpus.hpp"

#include "corpus_index.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "support/expect_throw_msg.hpp"
#include "temp_corpus.hpp"

namespace {

namespace fs = std::filesystem;
using orvo_test::TempCorpus;

orvo_cli::SyncReport sync(const TempCorpus& corpus, const fs::path& documents,
                          const orvo_cli::LoadOptions& load = {}) {
  return orvo_cli::CorpusIndex(corpus.db(), documents).sync({}, load);
}

// What an index of `documents` holds after a sync: its chunks that hold one of `words`, by id,
// as "<id>: <content> | <file_name> | <file_url> | <section>".
std::vector<std::string> indexed(const TempCorpus& corpus, const fs::path& documents,
                                 std::string_view words) {
  (void)sync(corpus, documents);
  std::vector<std::string> chunks;
  for (auto& found : orvo_cli::CorpusIndex(corpus.db(), documents).search(words, 100)) {
    const orvo_core::Chunk& chunk = *found.chunk;
    std::string line = chunk.id + ": " + chunk.content;
    for (const char* key : {"file_name", "file_url", "section"}) {
      const orvo_core::Any* value = orvo_core::find(chunk.metadata, key);
      line += " | " + (value != nullptr ? value->str() : "-");
    }
    chunks.push_back(line);
  }
  std::sort(chunks.begin(), chunks.end());
  return chunks;
}

// A folder without text files is an error.
TEST(corpus_files, folders_load_recursively_in_name_order_with_path_metadata) {
  const TempCorpus corpus;
  EXPECT_THROW_MSG(sync(corpus, corpus.docs()), std::runtime_error, "no text found in");
  corpus.write("b.md", "# B\n\nBee text.");
  corpus.write("a.txt", "Ay text.");
  corpus.write("sub/c.MD", "See text.");
  corpus.write("ignored.pdf", "binary text");
  const std::string root = corpus.docs().generic_string();
  EXPECT_EQ(indexed(corpus, corpus.docs(), "text"),
            (std::vector<std::string>{
                "a.txt#1: Ay text. | a.txt | " + root + "/a.txt | -",
                "b.md#1: Bee text. | b.md | " + root + "/b.md#b | B",
                "sub/c.MD#1: See text. | c.MD | " + root + "/sub/c.MD | -",
            }));
}

// A link of the line's own is kept as it is.
TEST(corpus_files, json_lines_keep_their_metadata_and_errors_name_the_line) {
  const TempCorpus corpus;
  const auto good =
      corpus.write("docs.jsonl",
                   "{\"content\": \"One.\", \"metadata\": {\"file_name\": \"x\"}}\n\n"
                   "{\"content\": \"# T\\nTwo.\", \"metadata\": {\"file_url\": \"u\"}}\n");
  EXPECT_EQ(indexed(corpus, good, "one two"),
            (std::vector<std::string>{"docs.jsonl:1#1: One. | x | - | -",
                                      "docs.jsonl:3#1: Two. | - | u#t | T"}));
  const struct {
    const char* text;
    const char* message;
  } bad[] = {
      {"{\"content\": \"ok\"}\n{\"content\": oops}\n", "docs.jsonl:2: invalid JSON"},
      {"[1]\n", "docs.jsonl:1: expected an object with a string \"content\""},
      {"{\"content\": \"x\", \"metadata\": 3}\n", "docs.jsonl:1: \"metadata\" must be an object"},
  };
  for (const auto& c : bad) {
    EXPECT_THROW_MSG(sync(corpus, corpus.write("docs.jsonl", c.text)), std::runtime_error,
                     c.message);
  }
}

// Only regular files are read, none beyond the size limit, and a file that cannot be read is
// named and skipped (or, with `strict`, an error); nothing blocks on a FIFO. A file given on its
// own goes through the same checks (see orvo_tool for /dev/zero).
TEST(corpus_files, files_that_cannot_be_read_are_named_and_skipped) {
  const TempCorpus corpus;
  const fs::path root = corpus.docs();
  corpus.write("good.md", "Tides rise twice a day.");
  fs::resize_file(corpus.write("big.md", ""), std::uint64_t{500} << 20);  // Sparse: costs no disk.
  ASSERT_EQ(mkfifo((root / "pipe.md").c_str(), 0600), 0);
  fs::create_symlink("loop.md", root / "loop.md");
  fs::create_directory_symlink(root, root / "again.md");
  std::vector<std::string> expected = {"again.md: a linked folder, not followed",
                                       "big.md: larger than 16777216 bytes (--max-file-size)",
                                       "loop.md: symbolic link loop",
                                       "pipe.md: not a regular file"};
  if (geteuid() != 0) {  // Permissions do not bind root.
    fs::permissions(corpus.write("secret.md", "x"), fs::perms::none);
    expected.emplace_back("secret.md: cannot read it (Permission denied)");
  }
  for (auto& line : expected) line = "skipped " + root.string() + "/" + line;
  orvo_cli::SyncReport report = sync(corpus, root);
  EXPECT_EQ(report.chunks, 1U);
  std::sort(report.skipped.begin(), report.skipped.end());
  EXPECT_EQ(report.skipped, expected);
  EXPECT_THROW((void)sync(corpus, root, {.strict = true}), std::runtime_error);
}

}  // namespace
