#include "orvo_inference/em_invoker/openai_em_invoker.hpp"

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_inference/errors.hpp"
#include "support/expect_throw_msg.hpp"
#include "support/loopback_server.hpp"

namespace {

using orvo_core::Any;
using orvo_test::LoopbackServer;
using orvo_test::Reply;

// Embeds each input text as {length, first byte}, listing the vectors in reverse order.
Reply reversed_embeddings(const orvo_test::RecordedRequest& request) {
  const Any input = orvo_core::get(orvo_core::parse_json(request.body).as_map(), "input");
  const auto& texts = input.as_list();
  std::string body = R"({"object": "list", "data": [)";
  for (std::size_t i = texts.size(); i-- > 0;) {
    const std::string& text = texts[i].as_string();
    body += R"({"index": )" + std::to_string(i) + R"(, "embedding": [)" +
            std::to_string(text.size()) + ", " +
            std::to_string(text.empty() ? 0 : static_cast<unsigned char>(text[0])) + "]}";
    if (i != 0) body += ", ";
  }
  return Reply::json(body + "]}");
}

TEST(openai_em_invoker, batches_and_restores_input_order) {
  LoopbackServer server(reversed_embeddings);
  orvo_inference::OpenAIEMInvoker invoker("e1", server.url() + "/v1", "", 2);
  const std::vector<std::string_view> texts{"a", "bb", "ccc", "dddd", "e"};
  const auto rows = orvo_core::run_sync(invoker.invoke(texts));
  ASSERT_EQ(rows.size(), 5U);
  ASSERT_EQ(rows.dim(), 2U);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(rows[i][0], static_cast<float>(texts[i].size()));
    EXPECT_EQ(rows[i][1], static_cast<float>(texts[i][0]));
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].target, "/v1/embeddings");
  EXPECT_EQ(requests[2].body, R"({"model": "e1", "input": ["e"]})");
  EXPECT_EQ(server.accepted_connections(), 1U) << "one connection serves every batch";

  EXPECT_EQ(orvo_core::run_sync(invoker.invoke(std::string("xyz"))),
            (orvo_core::Embedding{3, 'x'}));
  EXPECT_TRUE(orvo_core::run_sync(invoker.invoke(std::vector<std::string_view>{})).empty());
  EXPECT_THROW(orvo_inference::OpenAIEMInvoker("e1", server.url(), "", 0), orvo_core::ValueError);
}

TEST(openai_em_invoker, replies_that_do_not_fit_are_errors) {
  const struct {
    Reply reply;
    std::string error;
  } cases[] = {
      {Reply::json(R"({"data": [{"index": 0, "embedding": [1]}]})"), "MalformedReplyError: "},
      {Reply::json(R"({"error": {"message": "input too long"}})", 400),
       "HttpStatusError: the server answered HTTP 400: input too long"},
  };
  for (const auto& c : cases) {
    LoopbackServer server([&c](const auto&) { return c.reply; });
    orvo_inference::OpenAIEMInvoker invoker("e1", server.url() + "/v1");
    const std::vector<std::string_view> texts{"a", "b"};
    EXPECT_TRUE(orvo_test::error_of([&] {
                  (void)orvo_core::run_sync(invoker.invoke(texts));
                }).starts_with(c.error));
  }
}

}  // namespace
