#pragma once

/// Modules concerning the reference formatters used in Gen AI applications.
#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"
#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"
