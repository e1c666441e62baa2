// Runs the orvo binary as a user would, offline on the sample corpus and online against a
// scripted server.
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "orvo_core/json.hpp"
#include "support/loopback_server.hpp"

namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Each test process keeps its indexes to itself, and removes them when it ends.
fs::path cache_dir() {
  return fs::temp_directory_path() / ("orvo_tool_cache_" + std::to_string(getpid()));
}
const struct CacheCleanup {
  ~CacheCleanup() { fs::remove_all(cache_dir()); }
} cleanup;

// Runs the tool with `args` (already quoted for the shell) and collects both outputs.
ToolRun run_tool(const std::string& args, const std::string& env = "") {
  const fs::path err_file =
      fs::temp_directory_path() / ("orvo_tool_err_" + std::to_string(getpid()));
  const std::string command = "XDG_CACHE_HOME=" + cache_dir().string() + " " + env + " " +
                              std::string(ORVO_BINARY) + " " + args + " 2>" + err_file.string();
  ToolRun run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  std::array<char, 4096> buffer{};
  std::size_t n = 0;
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.out.append(buffer.data(), n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream err(err_file);
  std::stringstream text;
  text << err.rdbuf();
  run.err = text.str();
  fs::remove(err_file);
  return run;
}

const std::string kDocs = std::string(ORVO_SOURCE_DIR) + "/examples/docs";

TEST(orvo_tool, answers_offline_with_references) {
  const ToolRun run = run_tool("ask --docs " + kDocs + " 'What causes spring tides?'");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("new moon and full moon"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("straight line"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\nReferences:\n1. [spring-and-neap-tides.md]"), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("](" + kDocs + "/spring-and-neap-tides.md#spring-and-neap-tides)"),
            std::string::npos)
      << "links to the section";
  EXPECT_EQ(run.out.find('\x1b'), std::string::npos) << "no colour off a terminal";
}

std::vector<orvo_core::Map> json_lines(const std::string& out) {
  std::istringstream lines(out);
  std::string line;
  std::vector<orvo_core::Map> objects;
  while (std::getline(lines, line)) objects.push_back(orvo_core::parse_json(line).as_map());
  return objects;
}

TEST(orvo_tool, json_output_ends_with_a_result_or_an_error) {
  const struct {
    std::string args;
    int status;
    const char* last_type;
    bool answered;
  } cases[] = {
      {"ask --json --docs " + kDocs + " 'Why are there two high tides a day?'", 0, "RESULT", true},
      {"ask --json --docs " + kDocs + " 'Who won the 1998 football world cup?'", 3, "RESULT",
       false},
      {"ask --json --docs /no/such/folder 'q'", 1, "ERROR", false},
  };
  for (const auto& c : cases) {
    const ToolRun run = run_tool(c.args);
    EXPECT_EQ(run.status, c.status) << c.args << run.err;
    const auto objects = json_lines(run.out);
    ASSERT_FALSE(objects.empty()) << c.args;
    const orvo_core::Map& last = objects.back();
    EXPECT_EQ(orvo_core::get(last, "type"), orvo_core::Any(c.last_type)) << c.args;
    if (std::string_view(c.last_type) == "ERROR") continue;
    EXPECT_EQ(orvo_core::get(last, "answered"), orvo_core::Any(c.answered)) << c.args;
    const auto& references = orvo_core::get(last, "references").as_list();
    EXPECT_EQ(references.empty(), !c.answered) << c.args;
    for (const auto& reference : references) {
      for (const char* key : {"title", "url", "chunk_id", "section", "score"}) {
        EXPECT_TRUE(reference.as_map().contains(key)) << key;
      }
    }
    // The retrieval is one data event, before the answer.
    EXPECT_NE(orvo_core::get(objects.front(), "value").str().find(R"("data_type": "retrieval")"),
              std::string::npos);
  }
  const ToolRun declined = run_tool("ask --docs " + kDocs + " 'What is the tidal range on Mars?'");
  EXPECT_EQ(declined.status, 3) << declined.err;
  EXPECT_EQ(declined.out, "I couldn't find an answer in the documents.\n") << "and no references";
  const ToolRun index = run_tool("index --docs " + kDocs);
  EXPECT_EQ(index.status, 0) << index.err;
  EXPECT_NE(index.out.find("Indexed 32 files"), std::string::npos) << index.out;
}

TEST(orvo_tool, bad_input_ends_with_one_clear_message) {
  const fs::path bad_jsonl = fs::temp_directory_path() / "orvo_tool_bad.jsonl";
  std::ofstream(bad_jsonl) << "{\"content\": \"fine\"}\n{\"content\": \n";
  const struct {
    std::string args;
    int status;
    std::string message;
  } cases[] = {
      {"ask --docs /no/such/folder 'q'", 1, "orvo: error: no such file or folder: /no/such/folder"},
      {"ask --docs " + bad_jsonl.string() + " 'q'", 1, "orvo_tool_bad.jsonl:2: invalid JSON"},
      {"ask --docs " + kDocs +
           " --url http://127.0.0.1:" + std::to_string(orvo_test::unused_port()) + "/v1 'q'",
       1, "orvo: error: cannot connect to 127.0.0.1:"},
      {"ask 'q'", 2, "orvo: --docs PATH is required"},
      {"ask --docs " + kDocs + " --timeout inf 'q'", 2, "orvo: --timeout expects seconds"},
      {"ask --docs /dev/zero 'q'", 1, "orvo: error: /dev/zero: not a regular file or folder"},
      {"frobnicate", 2, "orvo: unknown command 'frobnicate'"},
  };
  for (const auto& c : cases) {
    const ToolRun run = run_tool(c.args);
    EXPECT_EQ(run.status, c.status) << c.args << "\n" << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << c.args << "\n" << run.err;
    EXPECT_EQ(run.err.find("terminate"), std::string::npos) << run.err;
  }
  fs::remove(bad_jsonl);
}

TEST(orvo_tool, answers_online_through_an_openai_compatible_server) {
  orvo_test::LoopbackServer server([](const orvo_test::RecordedRequest& request) {
    if (request.target == "/v1/embeddings") {
      // Every text gets the same direction: the first chunks are retrieved, and all are cited.
      const auto input =
          orvo_core::get(orvo_core::parse_json(request.body).as_map(), "input").as_list();
      std::string body = R"({"data": [)";
      for (std::size_t i = 0; i < input.size(); ++i) {
        body += (i != 0 ? ", " : "") + std::string(R"({"index": )") + std::to_string(i) +
                R"(, "embedding": [1, 0]})";
      }
      return orvo_test::Reply::json(body + "]}");
    }
    return orvo_test::Reply::stream(
        {"data: {\"choices\": [{\"delta\": {\"content\": \"Because of\"}}]}\n\n",
         "data: {\"choices\": [{\"delta\": {\"content\": \" the moon.\"}}]}\n\n",
         "data: [DONE]\n\n"},
        std::chrono::milliseconds(10));
  });
  const auto embedded_texts = [&server] {
    std::size_t texts = 0;
    for (const auto& request : server.requests()) {
      if (request.target != "/v1/embeddings") continue;
      const orvo_core::Any input =
          orvo_core::get(orvo_core::parse_json(request.body).as_map(), "input");
      texts += input.is_list() ? input.as_list().size() : 1;
    }
    return texts;
  };
  const std::string args = "ask --docs " + kDocs + " --top-k 2 --url " + server.url() +
                           "/v1 --api-key-env ORVO_TEST_KEY 'Why tides?'";
  const ToolRun first = run_tool(args, "ORVO_TEST_KEY=sk-123");
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(first.out.substr(0, first.out.find('\n')), "Because of the moon.");
  EXPECT_NE(first.out.find("References:\n1. ["), std::string::npos) << first.out;
  EXPECT_GT(embedded_texts(), 80U) << "every chunk embedded once";
  EXPECT_EQ(server.requests().back().header("Authorization"), "Bearer sk-123");

  // A second run embeds only the question, the answer and the two chunks it cites from.
  const std::size_t before = embedded_texts();
  ASSERT_EQ(run_tool(args, "ORVO_TEST_KEY=sk-123").status, 0);
  EXPECT_EQ(embedded_texts() - before, 4U);
}

}  // namespace
