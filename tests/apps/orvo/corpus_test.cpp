#include "corpus.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

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
  void TearDown() override { fs::remove_all(root_); }
  fs::path write(const std::string& name, const std::string& text) {
    const fs::path path = root_ / name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  fs::path root_;
};

TEST_F(corpus_files, folders_load_recursively_in_name_order_with_path_metadata) {
  write("b.md", "# B\n\nBee text.");
  write("a.txt", "Ay text.");
  write("sub/c.MD", "See text.");
  write("ignored.pdf", "binary");
  const auto chunks = orvo_cli::load_corpus(root_);
  ASSERT_EQ(chunks.size(), 3U);
  EXPECT_EQ(chunks[0]->content, "Ay text.");
  EXPECT_EQ(orvo_core::get(chunks[0]->metadata, "file_name"), orvo_core::Any("a.txt"));
  EXPECT_EQ(orvo_core::get(chunks[2]->metadata, "file_url"),
            orvo_core::Any((root_ / "sub/c.MD").generic_string()));
  EXPECT_EQ(chunks[1]->id, (root_ / "b.md").generic_string() + "#1");
  EXPECT_EQ(chunks[1]->content, "Bee text.");
  EXPECT_EQ(orvo_core::get(chunks[1]->metadata, "file_url"),
            orvo_core::Any((root_ / "b.md").generic_string() + "#b"));
  EXPECT_EQ(orvo_core::get(chunks[1]->metadata, "section"), orvo_core::Any("B"));
  EXPECT_EQ(orvo_core::find(chunks[0]->metadata, "section"), nullptr) << "no heading";
}

TEST_F(corpus_files, json_lines_keep_their_metadata_and_errors_name_the_line) {
  const auto good = write("docs.jsonl",
                          "{\"content\": \"One.\", \"metadata\": {\"file_name\": \"x\"}}\n\n"
                          "{\"content\": \"# T\\nTwo.\", \"metadata\": {\"file_url\": \"u\"}}\n");
  const auto chunks = orvo_cli::load_corpus(good);
  ASSERT_EQ(chunks.size(), 2U);
  EXPECT_EQ(orvo_core::get(chunks[0]->metadata, "file_name"), orvo_core::Any("x"));
  EXPECT_EQ(orvo_core::get(chunks[1]->metadata, "file_url"), orvo_core::Any("u#t"));
  EXPECT_EQ(orvo_core::get(chunks[1]->metadata, "section"), orvo_core::Any("T"));

  const struct {
    const char* text;
    const char* message;
  } bad[] = {
      {"{\"content\": \"ok\"}\n{\"content\": oops}\n", "docs.jsonl:2: invalid JSON"},
      {"[1]\n", "docs.jsonl:1: expected an object with a string \"content\""},
      {"{\"content\": \"x\", \"metadata\": 3}\n", "docs.jsonl:1: \"metadata\" must be an object"},
  };
  for (const auto& c : bad) {
    const auto path = write("docs.jsonl", c.text);
    try {
      (void)orvo_cli::load_corpus(path);
      ADD_FAILURE() << c.text;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
    }
  }
}

TEST_F(corpus_files, missing_and_empty_corpora_are_errors) {
  EXPECT_THROW((void)orvo_cli::load_corpus(root_ / "nope"), std::runtime_error);
  EXPECT_THROW((void)orvo_cli::load_corpus(root_), std::runtime_error) << "no text files";
  EXPECT_THROW((void)orvo_cli::load_corpus(write("empty.jsonl", "\n")), std::runtime_error);
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
  std::vector<std::string> skipped;
  EXPECT_EQ(orvo_cli::load_corpus(root_, {}, {}, &skipped).size(), 1U);
  std::sort(skipped.begin(), skipped.end());
  EXPECT_EQ(skipped, expected);
  EXPECT_THROW((void)orvo_cli::load_corpus(root_, {}, {.strict = true}), std::runtime_error);
}

}  // namespace
