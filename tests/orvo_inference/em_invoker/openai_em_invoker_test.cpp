#include "orvo_inference/em_invoker/openai_em_invoker.hpp"

#include <gtest/gtest.h>

#include "orvo_core/json.hpp"
#include "support/loopback_server.hpp"

namespace {

using orvo_test::LoopbackServer;
using orvo_test::Reply;

// Embeds each input text as {its length}, listing the vectors in reverse order.
Reply reversed_embeddings(const orvo_test::RecordedRequest& request) {
  const orvo_core::Any request_body = orvo_core::parse_json(request.body);
  const auto& texts = orvo_core::get(request_body.as_map(), "input").as_list();
  std::string body = R"({"data": [)";
  for (std::size_t i = texts.size(); i-- > 0;) {
    body += R"({"index": )" + std::to_string(i) + R"(, "embedding": [)" +
            std::to_string(texts[i].as_string().size()) + "]}" + (i != 0 ? ", " : "");
  }
  return Reply::json(body + "]}");
}

TEST(openai_em_invoker, batches_and_restores_input_order) {
  LoopbackServer server(reversed_embeddings);
  orvo_inference::OpenAIEMInvoker invoker("e1", server.url() + "/v1", "", 2);
  const std::vector<std::string_view> texts{"a", "bb", "ccc", "dddd", "eeeee"};
  const auto rows = orvo_core::run_sync(invoker.invoke(texts));
  ASSERT_EQ(rows.size(), 5U);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(rows[i][0], static_cast<float>(texts[i].size()));
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].target, "/v1/embeddings");
  EXPECT_EQ(requests[2].body, R"({"model": "e1", "input": ["eeeee"]})");
  EXPECT_EQ(server.accepted_connections(), 1U) << "one connection serves every batch";
  EXPECT_TRUE(orvo_core::run_sync(invoker.invoke(std::vector<std::string_view>{})).empty());
}

}  // namespace
