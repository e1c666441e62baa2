#pragma once

// The schema module: chunks and the component base.
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/schema/component.hpp"
