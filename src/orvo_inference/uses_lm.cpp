#include "orvo_inference/request_processor/uses_lm.hpp"

namespace orvo_inference {

UsesLM::~UsesLM() = default;

}  // namespace orvo_inference
