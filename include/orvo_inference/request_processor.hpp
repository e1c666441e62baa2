#pragma once

// The request-processor module: the language-model request processor and the `UsesLM` mixin.
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "orvo_inference/request_processor/uses_lm.hpp"
