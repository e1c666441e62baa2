#include "corpus.hpp"

#include "corpus_index.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/expect_throw_msg.hpp"

namespace {

namespace fs = std::filesystem;

class corpus_files : public testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() /
            ("orvo_corpus_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
             "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
    fs::create_directories(root_ / "sub");
  }
  void TearDown() override {
    fs::remove_all(root_);
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(db().string() + suffix);
  }
  fs::path write(const std::string& name, const std::string& text) {
    const fs::path path = root_ / name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  // What an index of `corpus` holds after a sync: its chunks that hold one of `words`, by id,
  // as "<id>: <content> | <file_name> | <file_url> | <section>".
  std::vector<std::string> indexed(const fs::path& corpus, std::string_view words) {
    orvo_cli::CorpusIndex index(db(), corpus);
    (void)index.sync({}, {});
    std::vector<std::string> chunks;
    for (auto& found : index.search(words, 100)) {
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
  orvo_cli::SyncReport sync(const fs::path& corpus, const orvo_cli::LoadOptions& load = {}) {
    return orvo_cli::CorpusIndex(db(), corpus).sync({}, load);
  }
  fs::path db() const { return root_.string() + ".sqlite"; }
  fs::path root_;
};

TEST_F(corpus_files, folders_load_recursively_in_name_order_with_path_metadata) {
  write("b.md", "# B\n\nBee text.");
  write("a.txt", "Ay text.");
  write("sub/c.MD", "See text.");
  write("ignored.pdf", "binary text");
  const std::string root = root_.generic_string();
  EXPECT_EQ(indexed(root_, "text"), (std::vector<std::string>{
                                        "a.txt#1: Ay text. | a.txt | " + root + "/a.txt | -",
                                        "b.md#1: Bee text. | b.md | " + root + "/b.md#b | B",
                                        "sub/c.MD#1: See text. | c.MD | " + root + "/sub/c.MD | -",
                                    }));
}

// A link of the line's own is kept as it is.
TEST_F(corpus_files, json_lines_keep_their_metadata_and_errors_name_the_line) {
  const auto good = write("docs.jsonl",
                          "{\"content\": \"One.\", \"metadata\": {\"file_name\": \"x\"}}\n\n"
                          "{\"content\": \"# T\\nTwo.\", \"metadata\": {\"file_url\": \"u\"}}\n");
  EXPECT_EQ(indexed(good, "one two"),
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
    EXPECT_THROW_MSG(sync(write("docs.jsonl", c.text)), std::runtime_error, c.message);
  }
}

TEST_F(corpus_files, empty_corpora_are_errors) {
  EXPECT_THROW((void)sync(root_), std::runtime_error) << "no text files";
  EXPECT_THROW((void)sync(write("empty.jsonl", "\n")), std::runtime_error);
}

// Only regular files are read, none beyond the size limit, and a file that cannot be read is
// named and skipped (or, with `strict`, an error); nothing blocks on a FIFO. A file given on its
// own goes through the same checks (see orvo_tool for /dev/zero).
TEST_F(corpus_files, files_that_cannot_be_read_are_named_and_skipped) {
  write("good.md", "Tides rise twice a day.");
  fs::resize_file(write("big.md", ""), std::uint64_t{500} << 20);  // Sparse: costs no disk.
  ASSERT_EQ(mkfifo((root_ / "pipe.md").c_str(), 0600), 0);
  fs::create_symlink("loop.md", root_ / "loop.md");
  fs::create_directory_symlink(root_ / "sub", root_ / "sub/again.md");
  std::vector<std::string> expected = {"big.md: larger than 16777216 bytes (--max-file-size)",
                                       "loop.md: symbolic link loop", "pipe.md: not a regular file",
                                       "sub/again.md: a linked folder, not followed"};
  if (geteuid() != 0) {  // Permissions do not bind root.
    fs::permissions(write("secret.md", "x"), fs::perms::none);
    expected.insert(expected.end() - 1, "secret.md: cannot read it (Permission denied)");
  }
  for (auto& line : expected) line = "skipped " + root_.string() + "/" + line;
  orvo_cli::SyncReport report = sync(root_);
  EXPECT_EQ(report.chunks, 1U);
  std::sort(report.skipped.begin(), report.skipped.end());
  EXPECT_EQ(report.skipped, expected);
  EXPECT_THROW((void)sync(root_, {.strict = true}), std::runtime_error);
}

}  // namespace
