#include "orvo_inference/prompt/context_budget.hpp"

#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/text.hpp"

namespace orvo_inference {

std::size_t estimate_tokens(std::string_view text) noexcept {
  return (orvo_core::text::code_point_count(text) + 3) / 4;
}

namespace {

std::vector<std::string> pieces_of(const orvo_core::Any& context, std::string_view separator) {
  std::vector<std::string> pieces;
  if (context.is_list()) {
    for (const orvo_core::Any& item : context.as_list()) {
      const auto chunk = item.as<orvo_core::Chunk>();
      pieces.push_back(chunk ? chunk->content : item.str());
    }
    return pieces;
  }
  const std::string text = context.str();
  if (separator.empty()) return {text};
  std::size_t start = 0;
  for (std::size_t at; (at = text.find(separator, start)) != std::string::npos;) {
    pieces.push_back(text.substr(start, at - start));
    start = at + separator.size();
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

// The longest prefix of `text`, cut at a code point (and a blank, when one is near), that
// counts at most `room` tokens.
std::string prefix_within(const std::string& text, std::size_t room,
                          const std::function<std::size_t(std::string_view)>& count) {
  std::vector<std::size_t> ends;  // code point boundaries
  for (std::size_t pos = 0; pos < text.size();) {
    (void)orvo_core::text::decode(text, pos);
    ends.push_back(pos);
  }
  std::size_t low = 0;  // code points that fit
  std::size_t high = ends.size();
  while (low < high) {
    const std::size_t mid = (low + high + 1) / 2;
    if (count(std::string_view(text).substr(0, ends[mid - 1])) <= room) {
      low = mid;
    } else {
      high = mid - 1;
    }
  }
  std::size_t length = low == 0 ? 0 : ends[low - 1];
  const std::size_t blank = text.find_last_of(" \n\t", length);
  if (length < text.size() && blank != std::string::npos && blank > length / 2) length = blank;
  return text.substr(0, length);
}

}  // namespace

std::string ContextBudget::apply(const orvo_core::Any& context, BudgetReport& report) const {
  const std::function<std::size_t(std::string_view)> count =
      count_tokens ? count_tokens : estimate_tokens;
  const std::vector<std::string> pieces = pieces_of(context, separator);
  report = BudgetReport{max_tokens, 0, pieces.size(), std::nullopt, {}};
  const std::size_t separator_tokens = count(separator);
  std::string out;
  bool full = false;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const std::size_t joint = out.empty() && i == 0 ? 0 : separator_tokens;
    const std::size_t cost = joint + count(pieces[i]);
    if (!full && report.tokens + cost <= max_tokens) {
      if (i > 0) out += separator;
      out += pieces[i];
      report.tokens += cost;
      continue;
    }
    const bool cut = !full && policy == Policy::TRUNCATE && report.tokens + joint < max_tokens;
    full = true;
    std::string prefix =
        cut ? prefix_within(pieces[i], max_tokens - report.tokens - joint, count) : std::string();
    if (prefix.empty()) {
      report.dropped.push_back(i);
      continue;
    }
    if (i > 0) out += separator;
    out += prefix;
    report.tokens += joint + count(prefix);
    report.truncated = i;
  }
  return out;
}

}  // namespace orvo_inference
