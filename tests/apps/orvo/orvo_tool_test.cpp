// Runs the orvo binary as a user would, offline on the sample corpus and online against a
// scripted server.
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "support/loopback_server.hpp"
#include "temp_corpus.hpp"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Each test process keeps its indexes and outputs to itself, and removes them when it ends.
const orvo_test::TempCorpus scratch;

std::string read(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Runs the tool with `args` (already quoted for the shell) and collects both outputs.
ToolRun run_tool(const std::string& args, const std::string& env = "") {
  const fs::path out = scratch.root / "out";
  const fs::path err = scratch.root / "err";
  const std::string command = env + " XDG_CACHE_HOME=" + scratch.root.string() + " " + ORVO_BINARY +
                              " " + args + " >" + out.string() + " 2>" + err.string();
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read(out), read(err)};
}

const std::string kDocs = std::string(ORVO_SOURCE_DIR) + "/examples/docs";

// Exit status 0 answered, 1 error, 2 bad command line, 3 no answer. Neither output is coloured
// (it is no terminal) nor ends in an uncaught exception.
TEST(orvo_tool, each_command_line_ends_with_its_status_and_output) {
  const struct {
    std::string args;
    int status;
    std::vector<std::string> fragments;  // In this order, in stdout then stderr.
  } cases[] = {
      {"ask --docs " + kDocs + " 'What causes spring tides?'",
       0,
       {"new moon and full moon", "\nReferences:\n1. [spring-and-neap-tides.md](" + kDocs +
                                      "/spring-and-neap-tides.md#spring-and-neap-tides)"}},
      // The retrieval is one data event, before the answer.
      {"ask --json --docs " + kDocs + " 'Why are there two high tides a day?'",
       0,
       {R"(\"data_type\": \"retrieval\")", R"({"type": "RESULT", "answered": true, "answer": )",
        R"("references": [{"title": )", R"("url": )", R"("chunk_id": )", R"("section": )",
        R"("score": )"}},
      {"ask --json --docs " + kDocs + " 'Who won the 1998 football world cup?'",
       3,
       {R"({"type": "RESULT", "answered": false, "answer": "I couldn't find an answer in the )"
        R"(documents.", "references": []})"}},
      {"index --docs " + kDocs, 0, {"Indexed 32 files"}},
      {"ask --docs " + kDocs + " --timeout inf 'q'", 2, {"orvo: --timeout expects seconds"}},
      {"ask --json --docs /dev/zero 'q'",
       1,
       {R"({"type": "ERROR", "level": "ERROR")", "/dev/zero: not a regular file or folder"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const ToolRun run = run_tool(c.args);
    EXPECT_EQ(run.status, c.status) << run.err;
    const std::string both = run.out + run.err;
    std::size_t at = 0;
    for (const auto& fragment : c.fragments) {
      at = both.find(fragment, at);
      EXPECT_NE(at, std::string::npos) << fragment << "\nin:\n" << both;
    }
    EXPECT_EQ(both.find('\x1b'), std::string::npos);
    EXPECT_EQ(both.find("terminate"), std::string::npos);
  }
}

TEST(orvo_tool, answers_online_through_an_openai_compatible_server) {
  std::atomic<std::size_t> embedded_texts = 0;
  orvo_test::LoopbackServer server([&embedded_texts](const orvo_test::RecordedRequest& request) {
    if (request.target == "/v1/embeddings") {
      // Every text gets the same direction: the first chunks are retrieved, and all are cited.
      return orvo_test::embeddings(request, [&embedded_texts](const std::string&) {
        ++embedded_texts;
        return "[1, 0]";
      });
    }
    return orvo_test::Reply::stream({orvo_test::chat_delta("Because of"),
                                     orvo_test::chat_delta(" the moon."), "data: [DONE]\n\n"},
                                    std::chrono::milliseconds(10));
  });
  const std::string args = "ask --docs " + kDocs + " --top-k 2 --url " + server.url() +
                           "/v1 --api-key-env ORVO_TEST_KEY 'Why tides?'";
  const ToolRun first = run_tool(args, "ORVO_TEST_KEY=sk-123");
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(first.out.starts_with("Because of the moon.\n\nReferences:\n1. [")) << first.out;
  EXPECT_GT(embedded_texts.load(), 80U) << "every chunk embedded once";
  EXPECT_EQ(server.requests().back().header("Authorization"), "Bearer sk-123");

  // A second run embeds only the question, the answer and the two chunks it cites from.
  const std::size_t before = embedded_texts.load();
  ASSERT_EQ(run_tool(args, "ORVO_TEST_KEY=sk-123").status, 0);
  EXPECT_EQ(embedded_texts.load() - before, 4U);
}

}  // namespace
