#pragma once

/// Modules concerning the response synthesizers used in Gen AI applications.
#include "orvo_generation/response_synthesizer/static_list_response_synthesizer.hpp"
#include "orvo_generation/response_synthesizer/stuff_response_synthesizer.hpp"
