#include "orvo_inference/em_invoker/openai_em_invoker.hpp"

#include <gtest/gtest.h>

#include "support/loopback_server.hpp"

namespace {

// Each text's vector is {its length}; the server lists the vectors in reverse order. Without a
// key no Authorization header goes out.
TEST(openai_em_invoker, batches_and_restores_input_order) {
  orvo_test::LoopbackServer server([](const orvo_test::RecordedRequest& request) {
    return orvo_test::embeddings(
        request, [](const std::string& text) { return "[" + std::to_string(text.size()) + "]"; });
  });
  orvo_inference::OpenAIEMInvoker invoker("e1", server.url() + "/v1", "", 2);
  const std::vector<std::string_view> texts{"a", "bb", "ccc", "dddd", "eeeee"};
  const auto rows = orvo_core::run_sync(invoker.invoke(texts));
  std::vector<float> lengths;
  for (std::size_t i = 0; i < rows.size(); ++i) lengths.push_back(rows[i][0]);
  EXPECT_EQ(lengths, (std::vector<float>{1, 2, 3, 4, 5}));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[2].header("Authorization") + requests[2].target + " " + requests[2].body,
            R"(/v1/embeddings {"model": "e1", "input": ["eeeee"]})");
  EXPECT_EQ(server.accepted_connections(), 1U) << "one connection serves every batch";
  EXPECT_TRUE(orvo_core::run_sync(invoker.invoke(std::vector<std::string_view>{})).empty());
}

}  // namespace
