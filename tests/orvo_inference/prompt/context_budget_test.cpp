#include "orvo_inference/prompt/context_budget.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/schema/chunk.hpp"

namespace {

using orvo_core::Any;
using orvo_core::List;
using orvo_inference::ContextBudget;

// Dropping whole pieces shows in lm_request_processor's test too.
TEST(context_budget, drops_or_cuts_the_lowest_ranked_pieces_first) {
  // Four code points make a token; the separator costs one.
  const List ranked{Any("aaaa"), Any(std::make_shared<orvo_core::Chunk>("bbbb bbb")), Any("cccc")};
  const auto drop = ContextBudget::Policy::DROP;
  const auto truncate = ContextBudget::Policy::TRUNCATE;
  const struct {
    Any context;
    std::size_t budget;
    ContextBudget::Policy policy;
    const char* text;
    std::vector<std::size_t> dropped;
    bool truncated;
  } cases[] = {
      {ranked, 3, truncate, "aaaa\n\nbbbb", {2}, true},
      {ranked, 2, truncate, "aaaa", {1, 2}, false},  // no room left after the separator
      {ranked, 0, drop, "", {0, 1, 2}, false},
      {"one\n\ntwo", 9, drop, "one\n\ntwo", {}, false},
      {"long first piece\n\nx", 1, truncate, "long", {1}, true},
  };
  for (const auto& c : cases) {
    const ContextBudget budget(c.budget, c.policy);
    orvo_inference::BudgetReport report;
    EXPECT_EQ(budget.apply(c.context, report), c.text) << c.budget;
    EXPECT_EQ(report.dropped, c.dropped) << c.budget;
    EXPECT_EQ(report.truncated.has_value(), c.truncated) << c.budget;
    EXPECT_LE(report.tokens, c.budget);
  }
}

}  // namespace
