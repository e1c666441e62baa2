#pragma once

namespace orvo_inference {

/// Marks a component that uses a language model. It holds nothing and needs no constructor.
class UsesLM {
 public:
  UsesLM() = default;
  UsesLM(const UsesLM&) = default;
  UsesLM(UsesLM&&) = default;
  UsesLM& operator=(const UsesLM&) = default;
  UsesLM& operator=(UsesLM&&) = default;
  virtual ~UsesLM();
};

}  // namespace orvo_inference
