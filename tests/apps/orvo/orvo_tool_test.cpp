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

// Runs the tool with `args` (already quoted for the shell) and collects both outputs.
ToolRun run_tool(const std::string& args, const std::string& env = "") {
  const fs::path err_file =
      fs::temp_directory_path() / ("orvo_tool_err_" + std::to_string(getpid()));
  const std::string command =
      env + " " + std::string(ORVO_BINARY) + " " + args + " 2>" + err_file.string();
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

TEST(orvo_tool, declines_without_references_when_the_documents_do_not_answer) {
  for (const std::string json : {"", "--json "}) {
    const ToolRun run =
        run_tool("ask " + json + "--docs " + kDocs + " 'What is the tidal range on Mars?'");
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_NE(run.out.find("I couldn't find an answer in the documents."), std::string::npos);
    EXPECT_EQ(run.out.find("References"), std::string::npos) << run.out;
    if (!json.empty()) {
      EXPECT_NE(run.out.find("\"answered\": false"), std::string::npos);
    }
  }
}

TEST(orvo_tool, json_output_is_one_object_per_line) {
  const ToolRun run =
      run_tool("ask --json --docs " + kDocs + " 'Why are there two high tides a day?'");
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream lines(run.out);
  std::string line;
  std::vector<orvo_core::Any> objects;
  while (std::getline(lines, line)) objects.push_back(orvo_core::parse_json(line));
  ASSERT_GE(objects.size(), 4U);
  const orvo_core::Map& result = objects.back().as_map();
  EXPECT_EQ(orvo_core::get(result, "type"), orvo_core::Any("RESULT"));
  EXPECT_TRUE(orvo_core::get(result, "answer").truthy());
  EXPECT_EQ(orvo_core::get(result, "answered"), orvo_core::Any(true));
  EXPECT_NE(orvo_core::get(result, "references").str().find("References:"), std::string::npos);
  EXPECT_EQ(orvo_core::get(objects.front().as_map(), "type"), orvo_core::Any("STATUS"));
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
  const ToolRun run = run_tool("ask --docs " + kDocs + " --top-k 2 --url " + server.url() +
                                   "/v1 --api-key-env ORVO_TEST_KEY 'Why tides?'",
                               "ORVO_TEST_KEY=sk-123");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.substr(0, run.out.find('\n')), "Because of the moon.");
  // The top two chunks come from the first file; its one reference is listed once.
  EXPECT_NE(run.out.find("References:\n1. [amphidromic-points.md]("), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("\n2. ["), std::string::npos) << run.out;
  const auto requests = server.requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests.back().header("Authorization"), "Bearer sk-123");
}

}  // namespace
